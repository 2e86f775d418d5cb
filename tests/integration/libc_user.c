/* tests/integration/libc_user.c - whose functions a name stands for that the C library has too.
 *
 * A host that was linked against the library (ZVX_HOST) gets the library's, although it knows the C library's headers
 * only. A module of its process that was linked against the C library, and a program for LD_PRELOAD
 * (ZVX_LIBC_PROGRAM), keep the C library's, whatever else the process has loaded. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

/* How many of the module's own names do not lead into that library. */
static int ForeignNames(const char *library) {
    const void *names[] = {
        (const void *)socket,      (const void *)accept,      (const void *)connect,    (const void *)send,
        (const void *)recv,        (const void *)select,      (const void *)setsockopt, (const void *)sendto,
        (const void *)recvfrom,    (const void *)bind,        (const void *)listen,     (const void *)shutdown,
        (const void *)getsockname, (const void *)getpeername, (const void *)getsockopt,
    };
    int foreign = 0;
    for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
        Dl_info info;
        foreign += dladdr(names[i], &info) == 0 || strstr(info.dli_fname, library) == NULL;
    }
    return foreign;
}

/* And a call: neither library would know the other's error. The library's returns an int. */
#ifdef ZVX_HOST
#include "zvxkvt/osapi.h"
#include "zvxkvt/sockettypes.h"
#include "zvxkvt/zvxkvt.h"

extern int LibcUserForeignNames(void);

static DWORD WINAPI Host(LPVOID param) {
    const int wrong = (int)send(0x7770, "", 1, 0) != -1 || GetLastError() != WSAENOTSOCK;
    ExitProcess(param != NULL || wrong || ForeignNames("libzvxkvt") + LibcUserForeignNames() != 0);
}

int main(void) {
    InitUserThreadScheduler(Host, NULL, NULL);
    return 2;
}
#else
__attribute__((visibility("default"))) int LibcUserForeignNames(void) {
    errno = 0;
    return (send(-1, "", 0, 0) != -1 || errno != EBADF) + ForeignNames("libc.so");
}
#ifdef ZVX_LIBC_PROGRAM
int main(void) {
    return LibcUserForeignNames();
}
#endif
#endif
