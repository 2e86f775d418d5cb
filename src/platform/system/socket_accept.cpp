// platform/system/socket_accept.cpp - taking connections: accept, WSAAccept, AcceptEx.
//
// accept and WSAAccept sleep in the kernel unless FIONBIO was asked for; AcceptEx is an operation of the caller's
// engine. A descriptor that the kernel hands out always reaches an object, which closes it: the accept socket holds a
// reference in the operation, so it is there even when all its handles were closed.
//
// The buffer of AcceptEx is two areas, each an AcceptArea and the address behind it. The kernel writes the peer's
// address there itself. The local address is the listener's where that was bound to one; else it is asked for when
// somebody looks (GetAcceptExSockaddrs), which for most is never.
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <new>

#include "platform/system/socket.h"

namespace os {

namespace {

socklen_t LeastAddress(const SocketObject *socket) {
    return socket->Family == AF_INET ? sizeof(sockaddr_in) : socket->Family == AF_INET6 ? sizeof(sockaddr_in6) : 0;
}

// Puts a deferred connection back as the one that is taken next.
bool Defer(SocketObject *listener, int fd) {
    DeferredAccept *deferred = new (std::nothrow) DeferredAccept{nullptr, fd};
    if (deferred == nullptr) return false;
    InnerGuard guard(&listener->DeferLock);
    deferred->Next = listener->Deferred;
    listener->Deferred = deferred;
    listener->DeferCount.fetch_add(1, std::memory_order_release);
    return true;
}

// The next connection's descriptor and address, waiting for it where the mode says so; -1 with *error.
int AcceptDescriptor(SocketObject *listener, sockaddr_storage *address, socklen_t *length, DWORD *error) {
    *error = NeedExisting(listener, WSAEINVAL);
    if (*error != 0) return -1;
    int fd = TakeDeferred(listener);
    if (fd >= 0) {
        *length = sizeof *address;
        syscall(SYS_getpeername, fd, address, length);
        return fd;
    }
    const bool nonBlocking = listener->NonBlocking.load(std::memory_order_relaxed);
    Blocker blocker(listener);
    while (!blocker.Closed()) {
        *length = sizeof *address;
        fd = static_cast<int>(
            syscall(SYS_accept4, listener->Fd, address, length, SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0)));
        if (fd >= 0) return fd;
        if (errno == EAGAIN && !nonBlocking)
            PollDescriptor(listener->Fd, POLLIN, -1);
        else if (errno == EINTR)
            AfterSignal();
        else if (errno != ECONNABORTED && errno != EPROTO)
            break;
    }
    *error = blocker.Closed() ? WSAEINTR : SocketErrorOfErrno(errno);
    return -1;
}

// Makes a socket of an accepted descriptor, which it takes over. It has the listener's mode, time-outs and event
// selection.
SOCKET Adopt(SocketObject *listener, int fd) {
    SocketObject *socket = AdoptDescriptor(fd, listener->Family, listener->SocketType, listener->Protocol);
    if (socket == nullptr) return INVALID_SOCKET;
    AddFlags(socket, kSocketConnected);
    socket->NonBlocking.store(listener->NonBlocking.load(std::memory_order_relaxed), std::memory_order_relaxed);
    CopyTimeouts(socket, listener);
    RefObject(socket);
    const SOCKET s = PublishSocket(socket);
    if (s != INVALID_SOCKET && listener->Events.load(std::memory_order_relaxed) != nullptr)
        InheritEvents(socket, listener);
    UnrefObject(socket);
    return s;
}

void CopyAddress(const sockaddr_storage &from, socklen_t length, sockaddr *address, int *room) {
    if (address == nullptr || room == nullptr) return;
    const int copied = static_cast<int>(length) < *room ? static_cast<int>(length) : *room;
    memcpy(address, &from, static_cast<size_t>(copied));
    *room = static_cast<int>(length);
}

// Checks the arguments of an accept before a connection is taken; the listener with a reference, or null.
SocketObject *Listener(SOCKET s, const sockaddr *address, const int *length) {
    SocketObject *listener = RefSocket(s);
    if (listener == nullptr) return nullptr;
    RaiseDescriptorLimit();
    if (address == nullptr || (length != nullptr && *length >= static_cast<int>(LeastAddress(listener))))
        return listener;
    UnrefObject(listener);
    SetLastError(WSAEFAULT);
    return nullptr;
}

char *AreaOf(const IoCall &call, bool peer) {
    return call.Buffer + (peer ? call.Offset : 0);
}

void WriteArea(char *area, const AcceptArea &header) {
    memcpy(area, &header, sizeof header);
}

// Reserves the socket for an AcceptEx: 0 or the reason.
DWORD ClaimFresh(SocketObject *accepted) {
    SocketState state = accepted->State.load(std::memory_order_acquire);
    if (state == SocketState::kReady) {
        // Made already by some call, such as one that set an option; not used for anything yet.
        constexpr uint32_t kUsed = kSocketListening | kSocketConnecting | kSocketConnected;
        sockaddr_in name{};
        socklen_t length = sizeof name;
        syscall(SYS_getsockname, accepted->Fd, &name, &length);
        if ((FlagsOf(accepted) & kUsed) != 0 || HasDuplicates(accepted) || name.sin_port != 0 ||
            accepted->EngineMask.load(std::memory_order_relaxed) != 0)
            return WSAEINVAL;
    } else if (state != SocketState::kLazy || (FlagsOf(accepted) & kSocketDuplicate) != 0) {
        return WSAEINVAL;
    }
    if (accepted->Events.load(std::memory_order_relaxed) != nullptr) return WSAEINVAL;
    return accepted->State.compare_exchange_strong(state, SocketState::kAccepting, std::memory_order_seq_cst)
               ? 0
               : WSAEINVAL;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

// The areas of the buffer before the operation starts.
void PrepareAreas(const SocketObject *listener, const SocketObject *accepted, SOCKET s, const IoCall &call) {
    char *local = AreaOf(call, false);
    AcceptArea header{listener->FixedLength, accepted->Serial, s};
    WriteArea(local, header);
    if (header.Length != 0) memcpy(local + sizeof header, listener->Fixed, header.Length);
    WriteArea(AreaOf(call, true), AcceptArea{0, 0, 0});
}

// Asks for the local address of the connection that the area belongs to.
void ResolveLocal(char *area, uint32_t room) {
    AcceptArea header;
    memcpy(&header, area, sizeof header);
    if (header.Length != 0) return;
    memset(area + sizeof header, 0, room);
    SocketObject *socket = RefSocket(header.Socket);
    if (socket == nullptr) return;
    if (socket->Serial == header.Serial && socket->State.load(std::memory_order_acquire) == SocketState::kReady) {
        socklen_t length = room;
        sockaddr_storage name;
        socklen_t full = sizeof name;
        if (syscall(SYS_getsockname, socket->Fd, &name, &full) == 0) {
            if (full < length) length = full;
            memcpy(area + sizeof header, &name, length);
            header.Length = length;
            WriteArea(area, header);
        }
    }
    UnrefObject(socket);
}

}  // namespace

int TakeDeferred(SocketObject *listener) {
    if (listener->DeferCount.load(std::memory_order_acquire) == 0) [[likely]]
        return -1;
    InnerGuard guard(&listener->DeferLock);
    DeferredAccept *deferred = listener->Deferred;
    if (deferred == nullptr) return -1;
    listener->Deferred = deferred->Next;
    listener->DeferCount.fetch_sub(1, std::memory_order_relaxed);
    const int fd = deferred->Fd;
    delete deferred;
    return fd;
}

void CloseDeferred(SocketObject *listener) {
    for (int fd = TakeDeferred(listener); fd >= 0; fd = TakeDeferred(listener)) close(fd);
}

sockaddr *PeerArea(IoCall *call, socklen_t **length) {
    char *area = AreaOf(*call, true);
    // Stored by the kernel: what it may fill, then what it wanted to.
    AcceptArea header{static_cast<uint32_t>(call->Length - sizeof(AcceptArea)), 0, 0};
    WriteArea(area, header);
    *length = reinterpret_cast<socklen_t *>(area);
    return reinterpret_cast<sockaddr *>(area + sizeof header);
}

void SettleAccept(IoCall *call) {
    SocketObject *accepted = static_cast<SocketObject *>(call->Accepted);
    call->Accepted = nullptr;
    if (accepted->State.load(std::memory_order_relaxed) == SocketState::kAccepting)
        accepted->State.store(accepted->Fd >= 0 ? SocketState::kReady : SocketState::kLazy, std::memory_order_release);
    UnrefObject(accepted);
}

SOCKET accept(SOCKET s, sockaddr *address, int *length) {
    if (ShouldFail("accept")) return INVALID_SOCKET;
    SocketObject *listener = Listener(s, address, length);
    if (listener == nullptr) return INVALID_SOCKET;
    sockaddr_storage peer;
    socklen_t peerLength;
    DWORD error;
    SOCKET result = INVALID_SOCKET;
    const int fd = AcceptDescriptor(listener, &peer, &peerLength, &error);
    AfterCall(listener, FD_ACCEPT);
    if (fd >= 0) {
        result = Adopt(listener, fd);
        if (result != INVALID_SOCKET) CopyAddress(peer, peerLength, address, length);
    } else {
        SetLastError(error);
    }
    UnrefObject(listener);
    return result;
}

SOCKET WSAAccept(SOCKET s, sockaddr *address, int *length, LPCONDITIONPROC condition, DWORD_PTR callbackData) {
    if (ShouldFail("WSAAccept")) return INVALID_SOCKET;
    SocketObject *listener = Listener(s, address, length);
    if (listener == nullptr) return INVALID_SOCKET;
    sockaddr_storage peer, local;
    socklen_t peerLength, localLength = sizeof local;
    DWORD error;
    SOCKET result = INVALID_SOCKET;
    const int fd = AcceptDescriptor(listener, &peer, &peerLength, &error);
    int answer = CF_ACCEPT;
    if (fd >= 0 && condition != nullptr) {
        syscall(SYS_getsockname, fd, &local, &localLength);
        WSABUF caller{peerLength, reinterpret_cast<CHAR *>(&peer)};
        WSABUF callee{localLength, reinterpret_cast<CHAR *>(&local)};
        GROUP group = 0;
        answer = condition(&caller, nullptr, nullptr, nullptr, &callee, nullptr, &group, callbackData);
    }
    if (fd >= 0 && answer == CF_ACCEPT) {
        result = Adopt(listener, fd);
        error = result == INVALID_SOCKET ? GetLastError() : 0;
        if (error == 0) CopyAddress(peer, peerLength, address, length);
    } else if (fd >= 0 && answer == CF_DEFER && Defer(listener, fd)) {
        error = WSATRY_AGAIN;
    } else if (fd >= 0) {
        // The peer shall learn that it was refused, not that everything was said.
        const linger hard{1, 0};
        syscall(SYS_setsockopt, fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close(fd);
        error = WSAECONNREFUSED;
    }
    AfterCall(listener, FD_ACCEPT);
    UnrefObject(listener);
    if (error != 0) SetLastError(error);
    return result;
}

BOOL AcceptEx(SOCKET listener, SOCKET acceptSocket, void *buffer, DWORD receiveLength, DWORD localLength,
              DWORD remoteLength, DWORD *received, OVERLAPPED *overlapped, IoOp *op) {
    if (ShouldFail("AcceptEx")) return FALSE;
    if (buffer == nullptr) return Fail(WSAEFAULT);
    if (overlapped == nullptr || receiveLength != 0) return Fail(WSAEINVAL);
    SocketObject *target = RefSocket(listener);
    if (target == nullptr) return FALSE;
    SocketObject *accepted = RefSocket(acceptSocket);
    if (accepted == nullptr) {
        UnrefObject(target);
        return FALSE;
    }
    IoCall call;
    call.Target = target;
    call.Kind = RequestKind::kAccept;
    call.Ov = overlapped;
    call.Op = op;
    call.Buffer = static_cast<char *>(buffer);
    call.Offset = localLength;
    call.Length = remoteLength;
    const DWORD least = static_cast<DWORD>(sizeof(AcceptArea)) + LeastAddress(target);
    DWORD error = NeedExisting(target, WSAEINVAL);
    if (error == 0 && (!IsListening(target) || localLength < least || remoteLength < least || target == accepted ||
                       target->Family != accepted->Family || localLength < sizeof(AcceptArea) + target->FixedLength))
        error = WSAEINVAL;
    if (error == 0 && !TakeEvent(&call)) error = WSA_INVALID_HANDLE;
    if (error == 0) error = ClaimFresh(accepted);
    if (error != 0) {
        UnrefObject(accepted);
        DropCall(&call);
        return Fail(error);
    }
    call.Accepted = accepted;
    RaiseDescriptorLimit();
    PrepareAreas(target, accepted, acceptSocket, call);
    if (received != nullptr) *received = 0;
    const int fd = TakeDeferred(target);
    if (fd >= 0) {
        AfterCall(target, FD_ACCEPT);
        socklen_t *length;
        sockaddr *peer = PeerArea(&call, &length);
        syscall(SYS_getpeername, fd, peer, length);
        DWORD status;
        AccountSocket(&call, fd, false, &status);
        if (IsFailure(status)) return FailAtOnce(&call, status);
        FinishAtOnce(CurrentEngine(), &call);
        return TRUE;
    }
    return IssueSocketCall(target, &call);
}

void GetAcceptExSockaddrs(void *buffer, DWORD receiveLength, DWORD localLength, DWORD remoteLength, sockaddr **local,
                          int *localSize, sockaddr **remote, int *remoteSize) {
    static_cast<void>(remoteLength);
    char *areas[] = {static_cast<char *>(buffer) + receiveLength,
                     static_cast<char *>(buffer) + receiveLength + localLength};
    if (local != nullptr && localLength > sizeof(AcceptArea))
        ResolveLocal(areas[0], static_cast<uint32_t>(localLength - sizeof(AcceptArea)));
    sockaddr **addresses[] = {local, remote};
    int *sizes[] = {localSize, remoteSize};
    for (int i = 0; i < 2; i++) {
        AcceptArea header;
        memcpy(&header, areas[i], sizeof header);
        if (addresses[i] != nullptr) *addresses[i] = reinterpret_cast<sockaddr *>(areas[i] + sizeof header);
        if (sizes[i] != nullptr) *sizes[i] = static_cast<int>(header.Length);
    }
}

}  // namespace os
