// tests/support/net_peer.h - the other end of a connection: the kernel's sockets, used by plain threads of a test.
//
// By system call and not by the C library's names, which in a host of the library, and under a sanitizer, need not be
// the C library's.
#ifndef ZVX_TESTS_SUPPORT_NET_PEER_H
#define ZVX_TESTS_SUPPORT_NET_PEER_H

#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

namespace netpeer {

inline sockaddr_in Loopback(uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = __builtin_bswap16(port);
    address.sin_addr.s_addr = __builtin_bswap32(0x7F000001);
    return address;
}

// A connection to 127.0.0.1; -1 when it is refused.
inline int Connect(uint16_t port) {
    const sockaddr_in address = Loopback(port);
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

// Open descriptors of this process that are sockets.
inline int OpenSockets() {
    int sockets = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) sockets += entry.is_socket();
    return sockets;
}

}  // namespace netpeer

#endif  // ZVX_TESTS_SUPPORT_NET_PEER_H
