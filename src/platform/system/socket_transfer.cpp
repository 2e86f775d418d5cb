// platform/system/socket_transfer.cpp - receiving and sending.
//
// With an OVERLAPPED an operation is issued on the engine of the calling thread, or on the service engine where there
// is none; without one the calling thread makes the system call and sleeps in it. The steady path takes a reference,
// fills an IoCall and issues it: no lock, no allocation, no system call of its own. Only an operation with more than
// kInlineParts buffers, or with several buffers on a thread without an engine, copies their list to the heap.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/system/socket.h"

namespace os {

namespace {

// The call moved `count` bytes: its remaining parts begin behind them.
void AdvanceParts(IoCall *call, size_t count) {
    while (count != 0) {
        iovec *part = &call->Parts[call->PartFirst];
        if (count < part->iov_len) {
            part->iov_base = static_cast<char *>(part->iov_base) + count;
            part->iov_len -= count;
            return;
        }
        count -= part->iov_len;
        call->PartFirst++;
    }
}

// Puts the caller's buffers into the call. `own` has room for kInlineParts; more, or a call that outlives the caller's
// stack, need the heap. 0 or the reason.
DWORD TakeBuffers(IoCall *call, const WSABUF *buffers, DWORD count, iovec *own, bool outlives) {
    if (buffers == nullptr) return WSAEFAULT;
    if (count == 1) [[likely]] {
        call->Buffer = buffers[0].buf;
        call->Count = buffers[0].len;
        return 0;
    }
    if (count == 0 || count > kMaxWsaBuffers) return WSAEINVAL;
    iovec *parts = own;
    if (count > kInlineParts || outlives) {
        parts = static_cast<iovec *>(malloc(count * sizeof(iovec)));
        if (parts == nullptr) return WSAENOBUFS;
    }
    uint64_t total = 0;
    for (DWORD i = 0; i < count; i++) {
        parts[i].iov_base = buffers[i].buf;
        parts[i].iov_len = buffers[i].len;
        total += buffers[i].len;
    }
    if (total > UINT32_MAX) {
        if (parts != own) free(parts);
        return WSAEINVAL;
    }
    call->Parts = parts;
    call->PartCount = count;
    call->PartsOnHeap = parts != own;
    call->Count = static_cast<DWORD>(total);
    return 0;
}

// Makes the system calls of a transfer on the calling thread until it is final; the status.
DWORD TransferNow(SocketObject *socket, IoCall *call) {
    const bool receive = call->Kind == RequestKind::kReceive;
    const bool nonBlocking = socket->NonBlocking.load(std::memory_order_relaxed);
    Blocker blocker(socket);
    if (blocker.Closed()) return StatusOfError(WSAEINTR);
    for (;;) {
        const int64_t moved = MoveSocket(call, nonBlocking ? MSG_DONTWAIT : 0);
        DWORD status;
        if (moved == -EINTR) AfterSignal();
        if (moved == -EAGAIN) {
            if (nonBlocking) return call->Done != 0 ? STATUS_SUCCESS : StatusOfError(WSAEWOULDBLOCK);
            if (TimeoutOf(socket, receive) != 0) return StatusOfError(WSAETIMEDOUT);
            // The mode is that of the kernel's socket, which another process may have changed.
            PollDescriptor(socket->Fd, receive ? POLLIN : POLLOUT, -1);
            continue;
        }
        if (!AccountTransfer(call, moved, false, &status)) continue;
        // Somebody closed the socket: that woke this thread, not the peer.
        if (blocker.Closed() && (moved <= 0)) return StatusOfError(WSAEINTR);
        return status;
    }
}

// A transfer without an OVERLAPPED: 0 or the error; *done counts what was moved. Takes over the call's references.
DWORD TransferBlocking(SocketObject *socket, IoCall *call, DWORD *done) {
    const DWORD status = TransferNow(socket, call);
    *done = call->Done;
    const DWORD error = ErrorOfStatus(status);
    AfterCall(socket, call->Kind == RequestKind::kReceive ? FD_READ : error == WSAEWOULDBLOCK ? FD_WRITE : 0);
    DropCall(call);
    return error;
}

// Refuses what the kernel would answer differently, or only after a descriptor was made for it.
DWORD CheckDirection(SocketObject *socket, bool receive) {
    const DWORD error = socket->SocketType == SOCK_STREAM ? NeedExisting(socket, WSAENOTCONN) : NeedDescriptor(socket);
    if (error != 0) return error;
    const uint32_t shut = receive ? kSocketReceiveShut : kSocketSendShut;
    return (FlagsOf(socket) & shut) != 0 ? WSAESHUTDOWN : 0;
}

int RefuseCall(IoCall *call, DWORD error) {
    DropCall(call);
    return FailSocket(error);
}

// The common part of WSARecv and WSASend; 0 or SOCKET_ERROR.
int Transfer(RequestKind kind, SOCKET s, const WSABUF *buffers, DWORD count, DWORD *bytes, int flags,
             OVERLAPPED *overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op) {
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    IoCall call;
    call.Target = socket;
    call.Kind = kind;
    call.MsgFlags = flags;
    const bool overlappedRoutine = overlapped != nullptr && routine != nullptr;
    const bool outlives = overlapped != nullptr && (overlappedRoutine || CurrentEngine() == nullptr);
    iovec own[kInlineParts];
    if (const DWORD error = TakeBuffers(&call, buffers, count, own, outlives)) return RefuseCall(&call, error);
    if (const DWORD error = CheckDirection(socket, kind == RequestKind::kReceive)) return RefuseCall(&call, error);
    if (overlapped == nullptr) {
        DWORD done;
        const DWORD error = TransferBlocking(socket, &call, &done);
        if (error != 0) return FailSocket(error);
        if (bytes != nullptr) *bytes = done;
        return 0;
    }
    call.Ov = overlapped;
    call.Op = op;
    if (routine != nullptr) {
        // Either a routine or a packet tells of an end. The event is the host's to use as it likes.
        if (op != nullptr || socket->Port.load(std::memory_order_acquire) != nullptr)
            return RefuseCall(&call, WSAEINVAL);
        call.Routine = NewEndRoutine(routine, overlapped);
        if (call.Routine == nullptr) return RefuseCall(&call, WSAENOBUFS);
    } else if (!TakeEvent(&call)) {
        return RefuseCall(&call, WSA_INVALID_HANDLE);
    }
    if (!IssueSocketCall(socket, &call)) return SOCKET_ERROR;
    if (bytes != nullptr) *bytes = call.Done;
    return 0;
}

// ReadFile and WriteFile. A kernel thread with neither a port nor an OVERLAPPED reads as recv does.
BOOL TransferFile(IoObject *object, IoCall *call, DWORD *done) {
    SocketObject *socket = static_cast<SocketObject *>(object);
    call->Kind = call->Kind == RequestKind::kRead ? RequestKind::kReceive : RequestKind::kSend;
    DWORD error = CheckDirection(socket, call->Kind == RequestKind::kReceive);
    if (error == 0 && call->Ov == nullptr) {
        DWORD moved;
        error = TransferBlocking(socket, call, &moved);
        if (error != 0) {
            SetLastError(error);
            return FALSE;
        }
        if (done != nullptr) *done = moved;
        return TRUE;
    }
    if (error == 0 && call->Routine == nullptr && !TakeEvent(call)) error = ERROR_INVALID_HANDLE;
    if (error != 0) {
        DropCall(call);
        SetLastError(error);
        return FALSE;
    }
    const BOOL result = IssueSocketCall(socket, call);
    if (result && done != nullptr) *done = call->Done;
    return result;
}

}  // namespace

const TransferOps kSocketTransfers{TransferFile};

int MessageFlags(int flags) {
    constexpr int kKnown = ZVX_MSG_OOB | ZVX_MSG_PEEK | ZVX_MSG_DONTROUTE | ZVX_MSG_WAITALL | ZVX_MSG_PARTIAL;
    if (flags == 0) [[likely]]
        return 0;
    if ((flags & ~kKnown) != 0) return -1;
    int result = 0;
    if ((flags & ZVX_MSG_OOB) != 0) result |= MSG_OOB;
    if ((flags & ZVX_MSG_PEEK) != 0) result |= MSG_PEEK;
    if ((flags & ZVX_MSG_DONTROUTE) != 0) result |= MSG_DONTROUTE;
    if ((flags & ZVX_MSG_WAITALL) != 0) result |= MSG_WAITALL;
    return result;
}

EndRoutine *NewEndRoutine(LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, OVERLAPPED *overlapped) {
    AlertState *alert = CurrentAlertState();
    EndRoutine *end = alert == nullptr ? nullptr : static_cast<EndRoutine *>(calloc(1, sizeof(EndRoutine)));
    if (end == nullptr) return nullptr;
    RefAlert(alert);
    end->Alert = alert;
    end->SocketRoutine = routine;
    end->Ov = overlapped;
    return end;
}

void FlushSends(SocketObject *socket) {
    Engine *engine = CurrentEngine();
    if (engine == nullptr || (socket->EngineMask.load(std::memory_order_relaxed) >> (engine->Index & 63) & 1) == 0)
        return;
    const uint32_t index = static_cast<uint32_t>(socket->Fd);
    for (const Request *last = nullptr; index < engine->StreamLimit;) {
        const Stream *stream = &engine->Streams[index];
        if (stream->Serial != socket->Serial || stream->Head[1] == nullptr || stream->Head[1] == last) return;
        last = stream->Head[1];
        engine->Ops->Submit(engine);
        engine->Ops->Reap(engine);
    }
}

BOOL IssueSocketCall(SocketObject *socket, IoCall *call) {
    ThreadBlock *block = CurrentThreadBlock();
    // Routines always by the service: a thread that sleeps alertably does not look at its own engine.
    Engine *engine = call->Routine != nullptr ? nullptr : EngineOf(block->Io);
    call->ThreadId = block->ThreadId;
    if (engine != nullptr && block->InlineBudget == 0) {
        // This one makes the user thread wait, so that others run; then it may go on.
        block->InlineBudget = kInlineIoBudget;
        call->Later = true;
    }
    // Off from here, and on again when it ends: what it will take is there until then, and would be reported.
    if (socket->Events.load(std::memory_order_relaxed) != nullptr && call->Kind != RequestKind::kSend) [[unlikely]] {
        call->Reenables = true;
        DisableEvents(socket);
    }
    const BOOL result = IssueCall(engine, call);
    if (result && engine != nullptr && block->InlineBudget != 0) block->InlineBudget--;
    return result;
}

int64_t MoveSocket(IoCall *call, int extra) {
    if (const int error = ShouldFailInside("socket_call")) return -error;
    const int fd = call->Target->Fd;
    long moved;
    if (call->Kind == RequestKind::kAccept) {
        socklen_t *length;
        sockaddr *address = PeerArea(call, &length);
        moved = syscall(SYS_accept4, fd, address, length, SOCK_CLOEXEC);
    } else {
        const bool receive = call->Kind == RequestKind::kReceive;
        const int flags = call->MsgFlags | extra | (receive ? 0 : MSG_NOSIGNAL);
        if (call->Parts != nullptr) {
            msghdr header{};
            header.msg_iov = call->Parts + call->PartFirst;
            header.msg_iovlen = call->PartCount - call->PartFirst;
            moved = syscall(receive ? SYS_recvmsg : SYS_sendmsg, fd, &header, flags);
        } else {
            char *at = call->Buffer + call->Done;
            // A short receive has emptied the socket, by the kernel's word; only a send may be short at any time.
            const size_t left = receive ? call->Count - call->Done : ShortOf(call->Count - call->Done);
            moved = syscall(receive ? SYS_recvfrom : SYS_sendto, fd, at, left, flags, nullptr, nullptr);
        }
    }
    return moved < 0 ? -errno : moved;
}

bool AccountSocket(IoCall *call, int64_t result, bool cancelled, DWORD *status) {
    SocketObject *socket = static_cast<SocketObject *>(call->Target);
    const bool receive = call->Kind == RequestKind::kReceive;
    if (result >= 0 && call->Kind != RequestKind::kAccept) [[likely]] {
        *status = STATUS_SUCCESS;
        call->Done += static_cast<DWORD>(result);
        if (call->Done >= call->Count && result != 0) return true;
        if (receive) {
            // The end of the connection, or of what is there. The kernel forgets that a reset was the reason.
            if (result == 0 && call->Count != 0 && (FlagsOf(socket) & kSocketReset) != 0)
                *status = StatusOfError(WSAECONNRESET);
            if (result == 0 || (call->MsgFlags & MSG_WAITALL) == 0 || (call->MsgFlags & MSG_PEEK) != 0 || cancelled)
                return true;
        } else {
            if (call->Done >= call->Count || socket->SocketType != SOCK_STREAM) return true;
            if (cancelled) *status = STATUS_CANCELLED;
            if (cancelled) return true;
        }
        if (call->Parts != nullptr) AdvanceParts(call, static_cast<size_t>(result));
        return false;
    }
    if (result >= 0) {
        // The connection goes to the socket that was made for it; if that was closed meanwhile, it ends with it.
        SocketObject *accepted = static_cast<SocketObject *>(call->Accepted);
        const int fd = static_cast<int>(result);
        if (accepted->Fd < 0) {
            accepted->Fd = fd;
        } else {
            // It had a descriptor that nobody used yet. The number stays, so that a late reader finds a socket.
            dup3(fd, accepted->Fd, O_CLOEXEC);
            close(fd);
        }
        AddFlags(accepted, kSocketConnected);
        CopyTimeouts(accepted, socket);
        if (accepted->NonBlocking.load(std::memory_order_seq_cst)) ApplyMode(accepted);
        accepted->State.store(SocketState::kReady, std::memory_order_seq_cst);
        *status = accepted->Handles.load(std::memory_order_relaxed) != 0 ? STATUS_SUCCESS : STATUS_CANCELLED;
        return true;
    }
    const int error = static_cast<int>(-result);
    // Connections that died before they were accepted are no reason to stop accepting.
    const bool again = error == EINTR || error == EAGAIN ||
                       (call->Kind == RequestKind::kAccept && (error == ECONNABORTED || error == EPROTO));
    if (again && !cancelled) return false;
    if (error == ECANCELED || cancelled) {
        // Bytes that were taken from the stream must not get lost.
        *status = receive && call->Done != 0 ? STATUS_SUCCESS : STATUS_CANCELLED;
        return true;
    }
    DWORD code = SocketErrorOfErrno(error);
    if (error == ECONNRESET) AddFlags(socket, kSocketReset);
    if (error == EPIPE) {
        const uint32_t flags = FlagsOf(socket);
        if ((flags & kSocketSendShut) != 0)
            code = WSAESHUTDOWN;
        else if ((flags & (kSocketConnected | kSocketConnecting | kSocketShared)) == 0)
            code = WSAENOTCONN;
    }
    *status = StatusOfError(code);
    call->Done = 0;
    return true;
}

int WSARecv(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op) {
    if (ShouldFail("WSARecv")) return SOCKET_ERROR;
    const int wanted = flags == nullptr ? 0 : MessageFlags(static_cast<int>(*flags));
    if (wanted < 0) return FailSocket(WSAEOPNOTSUPP);
    const int result = Transfer(RequestKind::kReceive, s, buffers, count, bytes, wanted, overlapped, routine, op);
    if (result == 0 && flags != nullptr) *flags = 0;
    return result;
}

int WSASend(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op) {
    if (ShouldFail("WSASend")) return SOCKET_ERROR;
    const int wanted = MessageFlags(static_cast<int>(flags));
    if (wanted < 0) return FailSocket(WSAEOPNOTSUPP);
    return Transfer(RequestKind::kSend, s, buffers, count, bytes, wanted & ~MSG_WAITALL, overlapped, routine, op);
}

int recv(SOCKET s, char *buffer, int length, int flags) {
    if (ShouldFail("recv")) return SOCKET_ERROR;
    if (length < 0) return FailSocket(WSAEFAULT);
    WSABUF one{static_cast<ULONG>(length), buffer};
    const int wanted = MessageFlags(flags);
    if (wanted < 0) return FailSocket(WSAEOPNOTSUPP);
    DWORD bytes = 0;
    if (Transfer(RequestKind::kReceive, s, &one, 1, &bytes, wanted, nullptr, nullptr, nullptr) != 0)
        return SOCKET_ERROR;
    return static_cast<int>(bytes);
}

int send(SOCKET s, const char *buffer, int length, int flags) {
    if (ShouldFail("send")) return SOCKET_ERROR;
    if (length < 0) return FailSocket(WSAEFAULT);
    WSABUF one{static_cast<ULONG>(length), const_cast<char *>(buffer)};
    const int wanted = MessageFlags(flags);
    if (wanted < 0) return FailSocket(WSAEOPNOTSUPP);
    DWORD bytes = 0;
    if (Transfer(RequestKind::kSend, s, &one, 1, &bytes, wanted & ~MSG_WAITALL, nullptr, nullptr, nullptr) != 0)
        return SOCKET_ERROR;
    return static_cast<int>(bytes);
}

int sendto(SOCKET s, const char *buffer, int length, int flags, const sockaddr *to, int toLength) {
    if (ShouldFail("sendto")) return SOCKET_ERROR;
    const int wanted = MessageFlags(flags);
    if (length < 0 || wanted < 0) return FailSocket(length < 0 ? WSAEFAULT : WSAEOPNOTSUPP);
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    DWORD error = NeedDescriptor(socket);
    long moved = -1;
    if (error == 0) {
        Blocker blocker(socket);
        while (!blocker.Closed() &&
               (moved = syscall(SYS_sendto, socket->Fd, buffer, length, wanted | MSG_NOSIGNAL, to, toLength)) < 0 &&
               errno == EINTR)
            AfterSignal();
        if (moved < 0) error = blocker.Closed() ? WSAEINTR : SocketErrorOfErrno(errno);
    }
    UnrefObject(socket);
    return error == 0 ? static_cast<int>(moved) : FailSocket(error);
}

int recvfrom(SOCKET s, char *buffer, int length, int flags, sockaddr *from, int *fromLength) {
    if (ShouldFail("recvfrom")) return SOCKET_ERROR;
    const int wanted = MessageFlags(flags);
    if (length < 0 || wanted < 0) return FailSocket(length < 0 ? WSAEFAULT : WSAEOPNOTSUPP);
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    DWORD error = NeedExisting(socket, WSAEINVAL);
    long moved = -1;
    if (error == 0) {
        Blocker blocker(socket);
        while (!blocker.Closed() &&
               (moved = syscall(SYS_recvfrom, socket->Fd, buffer, length, wanted, from, fromLength)) < 0 &&
               errno == EINTR)
            AfterSignal();
        if (moved <= 0 && blocker.Closed())
            error = WSAEINTR;
        else if (moved < 0)
            error = SocketErrorOfErrno(errno);
    }
    AfterCall(socket, FD_READ);
    UnrefObject(socket);
    return error == 0 ? static_cast<int>(moved) : FailSocket(error);
}

BOOL WSAGetOverlappedResult(SOCKET s, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait, DWORD *flags) {
    // The operation may have ended because the socket was closed, so its value is not looked at.
    if (ShouldFail("WSAGetOverlappedResult")) return FALSE;
    const BOOL result = GetOverlappedResult(reinterpret_cast<HANDLE>(s), overlapped, bytes, wait);
    if (result && flags != nullptr) *flags = 0;
    return result;
}

}  // namespace os
