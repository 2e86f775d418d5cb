/* tests/integration/plain_names_host.c - a host that declares the plain names itself, without the C library's headers
 * and without the macros of zvxkvt/sockets.h: linked against the library it gets the library's functions, while another
 * module of the same process keeps the C library's. Ends with 0 when all of it holds. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "zvxkvt/osapi.h"
#include "zvxkvt/sockettypes.h"
#include "zvxkvt/zvxkvt.h"

#define NAMES(X)                                                                                              \
    X(socket)                                                                                                 \
    X(accept)                                                                                                 \
    X(bind) X(listen) X(getsockname) X(connect) X(send) X(recv) X(select) X(setsockopt) X(sendto) X(recvfrom) \
        X(getpeername) X(shutdown) X(getsockopt)
#define DECLARE(name) extern int name(), zvx_##name();
NAMES(DECLARE)
extern int LibcUserForeignNames(void);

static int gBad;

/* Volatile, for a compiler that knows two functions of different names to be different. */
#define CHECK(name)                                                                                             \
    {                                                                                                           \
        const void *volatile plain = (const void *)name, *volatile alias = (const void *)zvx_##name;            \
        Dl_info info;                                                                                           \
        if (plain != alias || dladdr(plain, &info) == 0 || strstr(info.dli_fname, "libzvxkvt") == NULL) gBad++; \
    }

static DWORD WINAPI Host(LPVOID param) {
    (void)param;
    NAMES(CHECK)
    /* And a call: the C library would not know this error. */
    if (send((SOCKET)0x7770, "", 1, 0) != -1 || GetLastError() != WSAENOTSOCK) gBad++;
    gBad += LibcUserForeignNames();
    if (gBad != 0) fprintf(stderr, "%d names lead to the wrong place\n", gBad);
    ExitProcess(gBad != 0);
}

int main(void) {
    InitUserThreadScheduler(Host, NULL, NULL);
    return 2;
}
