/* tests/integration/libc_user.c - a module that was linked against the C library only.
 *
 * Part of a host's process as a shared object, and a program of its own for LD_PRELOAD: in both its names are the C
 * library's, whatever else the process has loaded. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

/* 0 when the module's own names lead into the C library, by their addresses and by a call, else how many do not. */
__attribute__((visibility("default"))) int LibcUserForeignNames(void) {
    const void *names[] = {
        (const void *)socket,      (const void *)accept,      (const void *)connect,    (const void *)send,
        (const void *)recv,        (const void *)select,      (const void *)setsockopt, (const void *)sendto,
        (const void *)recvfrom,    (const void *)bind,        (const void *)listen,     (const void *)shutdown,
        (const void *)getsockname, (const void *)getpeername, (const void *)getsockopt,
    };
    errno = 0;
    int foreign = send(-1, "", 0, 0) != -1 || errno != EBADF;
    for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
        Dl_info info;
        foreign += dladdr(names[i], &info) == 0 || strstr(info.dli_fname, "libc.so") == NULL;
    }
    return foreign;
}

#ifdef ZVX_LIBC_PROGRAM
int main(void) {
    return LibcUserForeignNames();
}
#endif
