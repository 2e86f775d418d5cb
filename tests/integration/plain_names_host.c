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

extern SOCKET socket(int family, int type, int protocol);
extern SOCKET accept(SOCKET s, struct sockaddr *address, int *length);
extern int bind(SOCKET s, const void *name, int length);
extern int listen(SOCKET s, int backlog);
extern int getsockname(SOCKET s, void *name, int *length);
extern int connect(SOCKET s, const void *name, int length);
extern int send(SOCKET s, const char *buffer, int length, int flags);
extern int recv(SOCKET s, char *buffer, int length, int flags);
extern int closesocket(SOCKET s);
extern int select(), setsockopt(), sendto(), recvfrom(), shutdown(), getpeername(), getsockopt();
#define NAMES(X)                                                                                            \
    X(socket)                                                                                               \
    X(accept) X(bind) X(listen) X(getsockname) X(connect) X(send) X(recv) X(select) X(setsockopt) X(sendto) \
        X(recvfrom) X(getpeername) X(shutdown) X(getsockopt)
#define ALIAS(name) extern int zvx_##name();
NAMES(ALIAS)
extern int LibcUserRoundTrip(void);

static void Require(int line, int condition) {
    if (condition) return;
    fprintf(stderr, "plain_names_host.c:%d failed, last error %u\n", line, GetLastError());
    ExitProcess(1);
}
#define REQUIRE(condition) Require(__LINE__, (condition) != 0)

/* Volatile, for a compiler that knows two functions of different names to be different. */
#define CHECK(name)                                                                                  \
    {                                                                                                \
        const void *volatile plain = (const void *)name, *volatile alias = (const void *)zvx_##name; \
        Dl_info info;                                                                                \
        REQUIRE(plain == alias && dladdr(plain, &info) != 0 && strstr(info.dli_fname, "libzvxkvt")); \
    }

static DWORD WINAPI Host(LPVOID param) {
    unsigned char name[16] = {2, 0, 0, 0, 127, 0, 0, 1};
    char text[8] = "";
    int length = sizeof name;
    SOCKET listener = socket(2, 1, 0), client = socket(2, 1, 0), server;
    (void)param;
    NAMES(CHECK)
    REQUIRE(bind(listener, name, length) == 0 && listen(listener, 1) == 0 && getsockname(listener, name, &length) == 0);
    REQUIRE(connect(client, name, length) == 0);
    server = accept(listener, NULL, NULL);
    REQUIRE(server != INVALID_SOCKET && send(client, "abc", 3, 0) == 3);
    REQUIRE(recv(server, text, 8, 0) == 3 && memcmp(text, "abc", 3) == 0);
    REQUIRE(closesocket(client) == 0 && recv(server, text, 8, 0) == 0);
    REQUIRE(LibcUserRoundTrip() == 0);
    ExitProcess(0);
}

int main(void) {
    InitUserThreadScheduler(Host, NULL, NULL);
    return 2;
}
