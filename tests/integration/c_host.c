/* tests/integration/c_host.c - a host in C: the headers compile next to the C library's, and what they declare links
 * and works. Ends with 0 when all of it did. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

static uint32_t quantum;
static DWORD routineBytes;

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

static DWORD WINAPI Child(LPVOID event) {
    Sleep(5);
    SetEvent((HANDLE)event);
    return 42;
}

static void WINAPI Done(DWORD error, DWORD bytes, LPOVERLAPPED overlapped) {
    if (error == 0 && HasOverlappedIoCompleted(overlapped)) routineBytes = bytes;
}

static DWORD WINAPI Host(LPVOID param) {
    char name[] = "/tmp/zvxchostXXXXXX";
    const int fd = mkstemp(name);
    OVERLAPPED overlapped;
    LARGE_INTEGER size;
    HANDLE file, event, thread;
    DWORD code = 0;
    REQUIRE(strcmp((const char *)param, "parameter") == 0 && ZvxSchedulerCount() == 2);
    event = CreateEventA(NULL, TRUE, FALSE, NULL);
    thread = CreateThread(NULL, 0, Child, event, 0, NULL);
    REQUIRE(WaitForSingleObject(event, 10000) == WAIT_OBJECT_0);
    REQUIRE(WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0);
    REQUIRE(GetExitCodeThread(thread, &code) && code == 42 && CloseHandle(thread));

    REQUIRE(fd >= 0 && close(fd) == 0);
    file = CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, NULL);
    REQUIRE(file != INVALID_HANDLE_VALUE);
    memset(&overlapped, 0, sizeof overlapped);
    overlapped.Offset = 3;
    REQUIRE(WriteFileEx(file, "bytes", 5, &overlapped, Done));
    REQUIRE(SleepEx(10000, TRUE) == WAIT_IO_COMPLETION && routineBytes == 5);
    REQUIRE(GetFileSizeEx(file, &size) && size.QuadPart == 8);
    REQUIRE(CloseHandle(file) && DeleteFileA(name));
    ExitProcess(0);
}

int main(void) {
    static char parameter[] = "parameter";
    ZVXKVT_INIT_PARAMS params;
    memset(&params, 0, sizeof params);
    params.QuantumIndicator = &quantum;
    params.LookupValue = Lookup;
    InitUserThreadScheduler(Host, parameter, &params);
    return 2;
}
