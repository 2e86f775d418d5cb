/* tests/integration/c_host.c - a host in C: the headers compile next to the C library's, and what they declare links
 * and works. Ends with 0 when all of it did. */
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "zvxkvt/osapi.h"
#include "zvxkvt/sockets.h"
#include "zvxkvt/zvxkvt.h"

static int Lookup(const char *name, char *buffer, int capacity) {
    if (strcmp(name, "ZVX_FIBERS_Schedulers") != 0 || capacity < 1) return 0;
    buffer[0] = '2';
    return 1;
}

static void Require(int line, int condition) {
    if (condition) return;
    fprintf(stderr, "c_host.c:%d failed, last error %u\n", line, GetLastError());
    ExitProcess(1);
}
#define REQUIRE(condition) Require(__LINE__, (condition) != 0)

/* Every export of the library, as the headers declare it: a name that is missing there or in the library does not link,
 * and one that is missing here is found by comparing with the list of all. */
typedef void (*Function)(void);
#define N(name) \
    { #name, (Function)name }
/* clang-format off */
static const struct { const char *Name; Function Address; } kExports[] = {
    N(CallNamedPipeA), N(CallNamedPipeW), N(CloseHandle), N(ConnectNamedPipe), N(CreateEventA), N(CreateFileA),
    N(CreateFileW), N(CreateMutexA), N(CreateMutexW), N(CreateNamedPipeA), N(CreateNamedPipeW), N(CreateProcessA),
    N(CreateProcessW), N(CreateRemoteThread), N(CreateSemaphoreA), N(CreateSemaphoreW), N(CreateThread),
    N(DeleteCriticalSection), N(DuplicateHandle), N(EnableThreadTrace), N(EnterCriticalSection), N(ExitThread),
    N(FreeLibrary), N(FreeLibraryAndExitThread), N(GetCurrentThread), N(GetCurrentThreadId), N(GetExitCodeThread),
    N(GetLastError), N(GetModuleHandleA), N(GetOverlappedResult), N(GetProcAddress), N(GetThreadTimes),
    N(IdentifyUserThread), N(InitUserThreadScheduler), N(InitializeCriticalSection),
    N(InitializeCriticalSectionAndSpinCount), N(LeaveCriticalSection), N(LoadLibraryA), N(LoadLibraryExA),
    N(LockFileEx), N(MigrateUserThread), N(OpenMutexA), N(OpenMutexW), N(OpenProcess), N(OpenSemaphoreA),
    N(OpenSemaphoreW), N(PostMultipleUserThreads), N(PostUserThread), N(QueueUserAPC), N(ReadConsoleA), N(ReadFile),
    N(ReadFileEx), N(ReleaseMutex), N(ReleaseSemaphore), N(ResetEvent), N(ResumeThread),
    N(SetCriticalSectionSpinCount), N(SetEvent), N(SetFilePointer), N(SetLastError), N(SetOSThreadAffinityMask),
    N(SetThreadAffinityMask), N(Sleep), N(SleepEx), N(SuspendThread), N(TerminateThread), N(TlsAlloc), N(TlsFree),
    N(TlsGetValue), N(TlsSetValue), N(TryEnterCriticalSection), N(UnidentifyUserThread), N(UserThreadExecRoutine),
    N(UserThreadQuantumExpiredCheck), N(WSAAccept), N(WSAAsyncSelect), N(WSACleanup), N(WSACloseEvent), N(WSAConnect),
    N(WSACreateEvent), N(WSADuplicateSocketA), N(WSAEnumNetworkEvents), N(WSAEventSelect), N(WSAGetLastError),
    N(WSAGetOverlappedResult), N(WSAIoctl), N(WSARecv), N(WSARecvFrom), N(WSAResetEvent), N(WSASend), N(WSASendTo),
    N(WSASetLastError), N(WSASocketA), N(WSAStartup), N(WSAWaitForMultipleEvents), N(WaitForInputIdle),
    N(WaitForMultipleObjects), N(WaitForMultipleObjectsEx), N(WaitForSingleObject), N(WaitForSingleObjectEx),
    N(WaitForUserThreadPost), N(WaitNamedPipeA), N(WaitNamedPipeW), N(WriteFile), N(WriteFileEx),
    N(ZCreateThreadWithAffinity), N(ZSleepExN), N(accept), N(closesocket), N(connect), N(ioctlsocket), N(recv),
    N(recvfrom), N(select), N(send), N(sendto), N(setsockopt), N(socket),
};
/* clang-format on */

static void RequireAllExports(void) {
    const size_t count = sizeof kExports / sizeof kExports[0];
    char line[128];
    size_t found = 0, listed = 0;
    FILE *table = fopen(ZVX_ALL_NAMES, "r");
    REQUIRE(table != NULL && fgets(line, sizeof line, table) != NULL);
    while (fgets(line, sizeof line, table) != NULL) {
        line[strcspn(line, "\t")] = '\0';
        listed++;
        for (size_t i = 0; i < count; i++) found += strcmp(kExports[i].Name, line) == 0 && kExports[i].Address != NULL;
    }
    fclose(table);
    REQUIRE(listed == 118 && found == listed && count == listed);
}

static DWORD WINAPI Child(LPVOID event) {
    Sleep(5);
    return SetEvent((HANDLE)event) ? 42 : 0;
}

static DWORD WINAPI Host(LPVOID param) {
    HANDLE event = CreateEventA(NULL, TRUE, FALSE, NULL), thread = CreateThread(NULL, 0, Child, event, 0, NULL);
    DWORD code = 0;
    fd_set set;
    FD_ZERO(&set);
    FD_SET((SOCKET)4, &set);
    FD_SET((SOCKET)8, &set);
    FD_SET((SOCKET)4, &set);
    FD_CLR((SOCKET)4, &set);
    REQUIRE(set.fd_count == 1 && FD_ISSET((SOCKET)8, &set) && !FD_ISSET((SOCKET)4, &set));
    REQUIRE(send(INVALID_SOCKET, "", 1, 0) == SOCKET_ERROR && WSAGetLastError() == (int)WSAENOTSOCK);
    REQUIRE(strcmp((const char *)param, "parameter") == 0 && ZvxSchedulerCount() == 2);
    REQUIRE(WaitForSingleObject(event, 10000) == WAIT_OBJECT_0);
    REQUIRE(WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0);
    REQUIRE(GetExitCodeThread(thread, &code) && code == 42 && CloseHandle(thread));
    ExitProcess(0);
}

int main(void) {
    static uint32_t quantum;
    RequireAllExports();
    ZVXKVT_INIT_PARAMS params = {.QuantumIndicator = &quantum, .LookupValue = Lookup};
    InitUserThreadScheduler(Host, (void *)"parameter", &params);
    return 2;
}
