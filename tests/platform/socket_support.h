// tests/platform/socket_support.h - connected pairs, listeners and operations for the tests of the sockets.
#ifndef ZVX_TESTS_PLATFORM_SOCKET_SUPPORT_H
#define ZVX_TESTS_PLATFORM_SOCKET_SUPPORT_H

#include "../support/net_peer.h"
#include "platform/os_socket.h"
#include "support.h"

using netpeer::Loopback;

inline ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline const sockaddr *Plain(const sockaddr_in &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

inline sockaddr_in NameOf(SOCKET s, bool peer = false) {
    sockaddr_in name{};
    int length = sizeof name;
    sockaddr *plain = reinterpret_cast<sockaddr *>(&name);
    EXPECT_EQ(0, peer ? os::getpeername(s, plain, &length) : os::getsockname(s, plain, &length)) << os::GetLastError();
    return name;
}

inline SOCKET NewSocket() {
    const SOCKET s = os::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_NE(INVALID_SOCKET, s);
    return s;
}

inline SOCKET NewListener(const sockaddr_in &address = Loopback()) {
    const SOCKET s = NewSocket();
    EXPECT_EQ(0, os::bind(s, Plain(address), sizeof address));
    EXPECT_EQ(0, os::listen(s, 1000));
    return s;
}

inline SOCKET ConnectTo(SOCKET listener) {
    const SOCKET s = NewSocket();
    const sockaddr_in address = Loopback(ntohs(NameOf(listener).sin_port));
    EXPECT_EQ(0, os::connect(s, Plain(address), sizeof address)) << os::GetLastError();
    return s;
}

struct Pair {
    SOCKET Listener = NewListener(), Client, Server;
    Pair() {
        Client = ConnectTo(Listener);
        Server = os::accept(Listener, nullptr, nullptr);
        EXPECT_NE(INVALID_SOCKET, Server);
    }
};

// The error of a call that gives SOCKET_ERROR or INVALID_SOCKET when it fails; 0 when it does not.
DWORD SocketError(auto result) {
    return result == static_cast<decltype(result)>(-1) ? os::GetLastError() : 0;
}

DWORD Set(SOCKET s, int level, int name, auto value) {
    return SocketError(os::setsockopt(s, level, name, reinterpret_cast<char *>(&value), sizeof value));
}

struct SocketOperation : Operation {
    char Areas[64];
    DWORD Receive(SOCKET s, void *buffer, size_t bytes, DWORD flags = 0) {
        WSABUF one{static_cast<ULONG>(bytes), static_cast<CHAR *>(buffer)};
        return SocketError(os::WSARecv(s, &one, 1, &Got, &flags, &Ov, nullptr, &Op));
    }
    DWORD Send(SOCKET s, WSABUF *buffers, size_t count) {
        return SocketError(os::WSASend(s, buffers, static_cast<DWORD>(count), &Got, 0, &Ov, nullptr, &Op));
    }
    DWORD Send(SOCKET s, const char *buffer, size_t bytes) {
        WSABUF one{static_cast<ULONG>(bytes), const_cast<CHAR *>(buffer)};
        return Send(s, &one, 1);
    }
    DWORD Accept(SOCKET listener, SOCKET fresh) {
        return ErrorOf(os::AcceptEx(listener, fresh, Areas, 0, 32, 32, &Got, &Ov, &Op));
    }
    // The error with which it ends, which is waited for when the answer was pending.
    DWORD End(HANDLE port, DWORD answer) {
        DWORD flags = 0;
        if (answer == ERROR_IO_PENDING) Await(port, &Ov);
        os::TakeEndedOps(Io());
        return answer != ERROR_IO_PENDING ? answer : ErrorOf(os::WSAGetOverlappedResult(0, &Ov, &Got, FALSE, &flags));
    }
};

// Does it on three threads that begin together.
void AtOnce(auto body) {
    std::atomic<int> go{0};
    const auto use = [&] {
        go++;
        while (go < 3) os::CpuRelax();
        body();
    };
    Together(use, use, use);
}

inline std::string ReceiveAll(SOCKET s) {
    std::string all;
    char buffer[30000];
    int got;
    while ((got = os::recv(s, buffer, sizeof buffer, 0)) > 0) all.append(buffer, static_cast<size_t>(got));
    EXPECT_EQ(0, got) << os::GetLastError();
    return all;
}

#endif  // ZVX_TESTS_PLATFORM_SOCKET_SUPPORT_H
