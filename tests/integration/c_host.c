/* tests/integration/c_host.c - a host in C: the headers compile next to the C library's, and what they declare links
 * and works. Ends with 0 when all of it did. */
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "zvxkvt/osapi.h"
#include "zvxkvt/sockets.h"
#include "zvxkvt/zvxkvt.h"

static void Require(int line, int condition) {
    if (condition) return;
    fprintf(stderr, "c_host.c:%d failed, last error %u\n", line, GetLastError());
    ExitProcess(1);
}
#define REQUIRE(condition) Require(__LINE__, (condition) != 0)

static int Lookup(const char *name, char *buffer, int capacity) {
    if (strcmp(name, "ZVX_FIBERS_Schedulers") != 0 || capacity < 1) return 0;
    buffer[0] = '2';
    return 1;
}

/* Every export of the library, from the list of all: a name that is missing in the headers or in the library does not
 * compile or not link. Volatile, so that no compiler knows the addresses and leaves them away. */
typedef void (*Function)(void);
#define N(name) (Function) name,
static Function volatile kExports[] = {
#include "exports.inc"
};

static DWORD WINAPI Child(LPVOID event) {
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
    REQUIRE(WaitForSingleObject(event, 10000) == WAIT_OBJECT_0 && WaitForSingleObject(thread, 10000) == WAIT_OBJECT_0);
    REQUIRE(GetExitCodeThread(thread, &code) && code == 42 && CloseHandle(thread));
    ExitProcess(0);
}

int main(void) {
    static uint32_t quantum;
    REQUIRE(sizeof kExports / sizeof kExports[0] == 118);
    for (int i = 0; i < 118; i++) REQUIRE(kExports[i] != NULL);
    ZVXKVT_INIT_PARAMS params = {.QuantumIndicator = &quantum, .LookupValue = Lookup};
    InitUserThreadScheduler(Host, (void *)"parameter", &params);
    return 2;
}
