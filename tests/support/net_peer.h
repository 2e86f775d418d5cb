// tests/support/net_peer.h - the other end of a connection: the kernel's sockets, used by plain threads of a test.
//
// By system call and not by the C library's names, which in a host of the library, and under a sanitizer, need not be
// the C library's.
#ifndef ZVX_TESTS_SUPPORT_NET_PEER_H
#define ZVX_TESTS_SUPPORT_NET_PEER_H

#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace netpeer {

// A connection to 127.0.0.1; -1 when it is refused.
inline int Connect(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = __builtin_bswap16(port);
    address.sin_addr.s_addr = __builtin_bswap32(0x7F000001);
    const int fd = static_cast<int>(syscall(SYS_socket, AF_INET, 1, 0));
    if (syscall(SYS_connect, fd, &address, sizeof address) != 0) return close(fd), -1;
    return fd;
}

// False when the connection ended before.
inline bool WriteAll(int fd, const void *data, size_t bytes) {
    const auto *at = static_cast<const char *>(data), *end = at + bytes;
    for (long moved; at != end; at += moved)
        if ((moved = syscall(SYS_sendto, fd, at, end - at, 0x4000 /* no signal */, nullptr, 0)) <= 0) return false;
    return true;
}

inline bool ReadAll(int fd, void *data, size_t bytes) {
    auto *at = static_cast<char *>(data), *end = at + bytes;
    for (long moved; at != end; at += moved)
        if ((moved = read(fd, at, static_cast<size_t>(end - at))) <= 0) return false;
    return true;
}

// Whether the other side has ended the connection, in at most `ms`.
inline bool SeesTheEnd(int fd, int ms) {
    pollfd one{fd, POLLIN, 0};
    char byte;
    return poll(&one, 1, ms) == 1 && read(fd, &byte, 1) <= 0;
}

// Ends the connection by a reset.
inline void Reset(int fd) {
    const int hard[2] = {1, 0};
    syscall(SYS_setsockopt, fd, 1 /* SOL_SOCKET */, 13 /* SO_LINGER */, hard, sizeof hard);
    close(fd);
}

// Open descriptors of this process that are sockets.
inline int OpenSockets() {
    int sockets = 0;
    DIR *folder = opendir("/proc/self/fd");
    for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        char target[8] = {};
        if (readlinkat(dirfd(folder), entry->d_name, target, sizeof target - 1) > 0)
            sockets += __builtin_memcmp(target, "socket:", 7) == 0;
    }
    closedir(folder);
    return sockets;
}

}  // namespace netpeer

#endif  // ZVX_TESTS_SUPPORT_NET_PEER_H
