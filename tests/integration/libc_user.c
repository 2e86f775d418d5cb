/* tests/integration/libc_user.c - a module that was linked against the C library only.
 *
 * Part of a host's process as a shared object, and a program of its own for LD_PRELOAD: in both its names are the C
 * library's, whatever else the process has loaded. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

/* 0 when the module's own names lead into the C library, else how many do not. */
static int ForeignNames(void) {
    const void *names[] = {
        (const void *)socket,      (const void *)accept,      (const void *)connect,    (const void *)send,
        (const void *)recv,        (const void *)select,      (const void *)setsockopt, (const void *)sendto,
        (const void *)recvfrom,    (const void *)bind,        (const void *)listen,     (const void *)shutdown,
        (const void *)getsockname, (const void *)getpeername, (const void *)getsockopt,
    };
    int foreign = 0;
    for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
        Dl_info info;
        foreign += dladdr(names[i], &info) == 0 || strstr(info.dli_fname, "libc.so") == NULL;
    }
    return foreign;
}

/* A connection to itself through the C library; 0 when all of it works. */
__attribute__((visibility("default"))) int LibcUserRoundTrip(void) {
    struct sockaddr_in name = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t length = sizeof name;
    char text[8] = "", more[8] = "";
    int listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0), one = 1, server;
    fd_set set;
    if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) return 1;
    if (bind(listener, (struct sockaddr *)&name, length) != 0 || listen(listener, 1) != 0) return 2;
    if (getsockname(listener, (struct sockaddr *)&name, &length) != 0) return 3;
    if (connect(client, (struct sockaddr *)&name, length) != 0) return 4;
    server = accept(listener, NULL, NULL);
    if (server < 0 || send(client, "abc", 3, 0) != 3 || sendto(client, "def", 3, 0, NULL, 0) != 3) return 5;
    FD_ZERO(&set);
    FD_SET(server, &set);
    if (select(server + 1, &set, NULL, NULL, NULL) != 1 || !FD_ISSET(server, &set)) return 6;
    if (recv(server, text, 3, 0) != 3 || recvfrom(server, more, 3, MSG_WAITALL, NULL, NULL) != 3) return 7;
    if (memcmp(text, "abc", 3) != 0 || memcmp(more, "def", 3) != 0) return 8;
    if (shutdown(client, SHUT_RDWR) != 0 || recv(server, text, 1, 0) != 0) return 9;
    return close(listener) + close(client) + close(server) == 0 ? ForeignNames() * 100 : 10;
}

#ifdef ZVX_LIBC_PROGRAM
int main(void) {
    return LibcUserRoundTrip() == 0 ? 0 : 1;
}
#endif
