// platform/system/socket_connect.cpp - naming and connecting: bind, listen, connect, shutdown, names.
//
// Runs on any thread. Only connect sleeps in the kernel, unless FIONBIO was asked for.
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/system/socket.h"

namespace os {

namespace {

// Drops the reference and reports.
int Report(SocketObject *socket, DWORD error) {
    UnrefObject(socket);
    return error == 0 ? 0 : FailSocket(error);
}

// The address that every connection accepted here has, if it is known beforehand.
void LearnFixedAddress(SocketObject *listener) {
    sockaddr_storage name;
    socklen_t length = sizeof name;
    listener->FixedLength = 0;
    if (syscall(SYS_getsockname, listener->Fd, &name, &length) != 0 || name.ss_family != AF_INET) return;
    sockaddr_in address;
    memcpy(&address, &name, sizeof address);
    if (address.sin_addr.s_addr == htonl(INADDR_ANY)) return;
    memcpy(listener->Fixed, &address, sizeof address);
    listener->FixedLength = sizeof address;
}

// A connect that is under way: waits until it has ended; 0 or the error.
DWORD AwaitConnection(SocketObject *socket, const Blocker &blocker) {
    const DWORD limit = TimeoutOf(socket, false);
    const int ms = limit == 0 || limit > INT32_MAX ? -1 : static_cast<int>(limit);
    if (PollDescriptor(socket->Fd, POLLOUT, ms) == 0) return WSAETIMEDOUT;
    if (blocker.Closed()) return WSAEINTR;
    int error = 0;
    socklen_t length = sizeof error;
    syscall(SYS_getsockopt, socket->Fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error == 0 ? 0 : SocketErrorOfErrno(error);
}

DWORD Connect(SocketObject *socket, const sockaddr *name, int length) {
    if (name == nullptr || length < static_cast<int>(sizeof(sa_family_t))) return WSAEFAULT;
    if (const DWORD error = NeedDescriptor(socket)) return error;
    if ((FlagsOf(socket) & kSocketListening) != 0) return WSAEINVAL;
    const bool nonBlocking = socket->NonBlocking.load(std::memory_order_relaxed);
    Blocker blocker(socket);
    if (blocker.Closed()) return WSAEINTR;
    // Before the call: the watcher of events may see its end before this thread does.
    if (nonBlocking) {
        AddFlags(socket, kSocketConnecting);
        AfterCall(socket, FD_CONNECT);
    }
    const long result = syscall(SYS_connect, socket->Fd, name, length);
    DWORD error = 0;
    if (result != 0) {
        // An interrupted call goes on in the kernel.
        const bool underWay = errno == EINPROGRESS || errno == EINTR || (errno == EALREADY && !nonBlocking);
        if (errno == EINVAL && static_cast<size_t>(length) < sizeof(sockaddr_in))
            error = WSAEFAULT;
        else if (underWay)
            error = nonBlocking ? WSAEWOULDBLOCK : AwaitConnection(socket, blocker);
        else if (errno == EAGAIN)
            error = WSAENOBUFS;  // no local port is left
        else
            error = blocker.Closed() ? WSAEINTR : SocketErrorOfErrno(errno);
    }
    if (error == 0) AddFlags(socket, kSocketConnected);
    return error;
}

int Name(SOCKET s, sockaddr *name, int *length, long number) {
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    if (name == nullptr || length == nullptr) return Report(socket, WSAEFAULT);
    const bool peer = number == SYS_getpeername;
    DWORD error = NeedExisting(socket, peer ? WSAENOTCONN : WSAEINVAL);
    if (error != 0) return Report(socket, error);
    sockaddr_storage address;
    socklen_t full = sizeof address;
    if (syscall(number, socket->Fd, &address, &full) != 0) return Report(socket, SocketErrorOfErrno(errno));
    sockaddr_in unbound;
    memcpy(&unbound, &address, sizeof unbound);
    if (!peer && (address.ss_family == AF_INET || address.ss_family == AF_INET6) && unbound.sin_port == 0)
        return Report(socket, WSAEINVAL);
    if (*length < static_cast<int>(full)) return Report(socket, WSAEFAULT);
    memcpy(name, &address, full);
    *length = static_cast<int>(full);
    return Report(socket, 0);
}

}  // namespace

int bind(SOCKET s, const sockaddr *name, int length) {
    if (ShouldFail("bind")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    if (name == nullptr || (socket->Family == AF_INET && length < static_cast<int>(sizeof(sockaddr_in))))
        return Report(socket, WSAEFAULT);
    DWORD error = NeedDescriptor(socket);
    if (error == 0 && syscall(SYS_bind, socket->Fd, name, length) != 0) error = SocketErrorOfErrno(errno);
    return Report(socket, error);
}

int listen(SOCKET s, int backlog) {
    if (ShouldFail("listen")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    // The kernel would choose a port for a socket that has none.
    DWORD error = NeedExisting(socket, WSAEINVAL);
    if (error == 0 && (FlagsOf(socket) & kSocketListening) != 0) {
        syscall(SYS_listen, socket->Fd, backlog);
        return Report(socket, 0);
    }
    if (error == 0 && IsConnected(socket)) error = WSAEISCONN;
    if (error == 0) {
        sockaddr_in name{};
        socklen_t length = sizeof name;
        if (socket->Family == AF_INET &&
            (syscall(SYS_getsockname, socket->Fd, &name, &length) != 0 || name.sin_port == 0))
            error = WSAEINVAL;
    }
    if (error == 0 && syscall(SYS_listen, socket->Fd, backlog) != 0) error = SocketErrorOfErrno(errno);
    if (error == 0) {
        LearnFixedAddress(socket);
        AddFlags(socket, kSocketListening);
        AfterCall(socket, FD_ACCEPT);
    }
    return Report(socket, error);
}

int connect(SOCKET s, const sockaddr *name, int length) {
    if (ShouldFail("connect")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    return socket == nullptr ? SOCKET_ERROR : Report(socket, Connect(socket, name, length));
}

int WSAConnect(SOCKET s, const sockaddr *name, int length, WSABUF *callerData, WSABUF *calleeData, QOS *sqos,
               QOS *gqos) {
    static_cast<void>(sqos);
    static_cast<void>(gqos);
    if (ShouldFail("WSAConnect")) return SOCKET_ERROR;
    // There is no data that goes with a connection.
    if (callerData != nullptr && callerData->len != 0) return FailSocket(WSAEINVAL);
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    const DWORD error = Connect(socket, name, length);
    if (error == 0 && calleeData != nullptr) calleeData->len = 0;
    return Report(socket, error);
}

int shutdown(SOCKET s, int how) {
    if (ShouldFail("shutdown")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    if (how < SD_RECEIVE || how > SD_BOTH) return Report(socket, WSAEINVAL);
    DWORD error = NeedExisting(socket, WSAENOTCONN);
    // A listening socket would stop listening.
    if (error == 0 && (FlagsOf(socket) & kSocketListening) != 0) error = WSAENOTCONN;
    if (error == 0) {
        if (how != SD_RECEIVE) FlushSends(socket);
        const uint32_t flags = (how != SD_SEND ? kSocketReceiveShut : 0) | (how != SD_RECEIVE ? kSocketSendShut : 0);
        if (syscall(SYS_shutdown, socket->Fd, how) == 0)
            AddFlags(socket, flags);
        else
            error = SocketErrorOfErrno(errno);
    }
    return Report(socket, error);
}

int getsockname(SOCKET s, sockaddr *name, int *length) {
    if (ShouldFail("getsockname")) return SOCKET_ERROR;
    return Name(s, name, length, SYS_getsockname);
}

int getpeername(SOCKET s, sockaddr *name, int *length) {
    if (ShouldFail("getpeername")) return SOCKET_ERROR;
    return Name(s, name, length, SYS_getpeername);
}

}  // namespace os
