// net/transfer.cpp - sending and receiving on wrapped sockets.
//
// Runs on the calling user thread. An operation that is waited for uses one of the three records inside the Fiber,
// so it allocates nothing, takes no lock and makes no system call besides the operation itself. An operation with a
// completion routine has a record of its own in the thread's SocketOvs until the thread waits alertably; ReapOwnOvs of
// the scheduler then comes back here to deliver it.
//
// A socket is bound to a port when it is first used, to that of the scheduler whose user thread used it. Threads of
// other schedulers may use it too: their operations are polled (PacketOrPoll).
//
// Whoever yields here may find the socket closed when it runs again. Nothing of the entry is used after a yield.
#include "kernel/file.h"
#include "kernel/wait.h"
#include "net/net.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

// ---- Ports and records -------------------------------------------------------------------------------

namespace {

// Once a socket. Two schedulers may come here with one socket, or with two handles of one socket, at the same time:
// the operating system binds it once, and the loser must not take the refusal for a failure.
[[gnu::noinline]] bool BindSocket(Scheduler *S, PSEHAND *entry, SOCKET s) {
    os::EnterCriticalSection(&gHandleRefLock);
    PSEHAND *root = RootOf(entry);
    const bool bound = AttachHandleToPort(S, root, SocketHandle(s));
    if (bound && entry != root && (entry->Flags.load(std::memory_order_relaxed) & PHAND_FLAG_ON_PORT) == 0) {
        entry->PortIndex = root->PortIndex;
        entry->Flags.fetch_or(PHAND_FLAG_ON_PORT, std::memory_order_release);
    }
    os::LeaveCriticalSection(&gHandleRefLock);
    return bound;
}

}  // namespace

bool AttachSocketToPort(Scheduler *S, PSEHAND *entry, SOCKET s) {
    if (gNumContextSwitchesBeforePolling == 0) return true;
    // Acquire: whoever sees the flag sees PortIndex.
    if ((entry->Flags.load(std::memory_order_acquire) & PHAND_FLAG_ON_PORT) != 0) [[likely]]
        return true;
    return BindSocket(S, entry, s);
}

FIBEROVERLAPPED *PrepareSocketOv(Fiber *F, PSEHAND *entry, uint32_t opArg, bool neverPoll) {
    FIBEROVERLAPPED *rec = FreeOwnOv(F);
    F->CurOv = &rec->Ov;
    rec->OpArg = opArg;
    rec->HandleType = entry->Type;
    rec->HandleRec = entry;
    rec->OsHandle = HandleValue(entry);
    rec->CallerOv = nullptr;
    rec->SocketRoutine = nullptr;
    rec->Ov.hEvent = nullptr;
    rec->Ov.InternalHigh = 0xFFFFFFFF;
    os::StoreStatus(&rec->Ov, 0xFFFFFFFF);
    PacketOrPoll(SchedOf(F), rec, entry, OV_SOCKET, neverPoll);
    return rec;
}

FIBEROVERLAPPED *AllocSocketOv(Fiber *F, PSEHAND *entry, uint32_t opArg) {
    FIBEROVERLAPPED *rec = AllocOv(F, entry, opArg);
    rec->Ov.hEvent = nullptr;
    rec->Ov.InternalHigh = 0;
    os::StoreStatus(&rec->Ov, 0xFFFFFFFF);
    PacketOrPoll(SchedOf(F), rec, entry, OV_SOCKET_ROUTINE, false);
    F->PendingApcIos++;
    return rec;
}

// ---- One operation -----------------------------------------------------------------------------------

namespace {

struct Transfer {
    SOCKET Socket;
    WSABUF *Buffers;
    DWORD Count;
    DWORD *Bytes;  // caller's, may be null
    DWORD *Flags;  // a receive: the caller's word; a send: a word of our own
    bool Send;
};

int Issue(const Transfer &what, DWORD *moved, OVERLAPPED *overlapped, os::IoOp *op) {
    return what.Send ? os::WSASend(what.Socket, what.Buffers, what.Count, moved, *what.Flags, overlapped, nullptr, op)
                     : os::WSARecv(what.Socket, what.Buffers, what.Count, moved, what.Flags, overlapped, nullptr, op);
}

void CopyPlace(FIBEROVERLAPPED *rec, const OVERLAPPED *caller) {
    rec->Ov.Offset = caller->Offset;
    rec->Ov.OffsetHigh = caller->OffsetHigh;
}

void CopyOutcome(OVERLAPPED *caller, const FIBEROVERLAPPED *rec) {
    caller->InternalHigh = rec->Ov.InternalHigh;
    os::StoreStatus(caller, os::LoadStatus(&rec->Ov));
}

// Yields until the operation on `rec` has ended; its result. The caller's socket may be closed by then.
int AwaitTransfer(Fiber *F, const Transfer &what, FIBEROVERLAPPED *rec, DWORD *moved) {
    WaitForCurOv(F);
    const bool partial = !what.Send && (*what.Flags & ZVX_MSG_PARTIAL) != 0;
    if (os::LoadStatus(&rec->Ov) == STATUS_SUCCESS && !partial) [[likely]] {
        *moved = rec->Ov.InternalHigh;
        return 0;
    }
    DWORD sendFlags = 0;
    const BOOL done =
        os::WSAGetOverlappedResult(what.Socket, &rec->Ov, moved, FALSE, what.Send ? &sendFlags : what.Flags);
    return done ? 0 : SOCKET_ERROR;
}

int TransferAndWait(Fiber *F, const Transfer &what, PSEHAND *entry, OVERLAPPED *caller,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    FIBEROVERLAPPED *rec =
        PrepareSocketOv(F, entry, what.Send ? uint32_t{OP_SEND} : uint32_t{OP_RECEIVE}, /*neverPoll=*/false);
    if (caller != nullptr) [[unlikely]] {
        CopyPlace(rec, caller);
        rec->CallerOv = caller;
        rec->SocketRoutine = reinterpret_cast<void *>(routine);
    }
    DWORD moved = 0;
    int result = Issue(what, &moved, &rec->Ov, &rec->Io);
    if (result == 0) {
        AccountPacket(rec);
    } else if (os::GetLastError() == WSA_IO_PENDING) {
        result = AwaitTransfer(F, what, rec, &moved);
    } else {
        ForgetFailedOv(rec);
        return SOCKET_ERROR;
    }
    if (caller != nullptr) [[unlikely]]
        CopyOutcome(caller, rec);
    if (result != 0) return SOCKET_ERROR;
    if (what.Bytes != nullptr) *what.Bytes = moved;
    if (routine != nullptr) [[unlikely]] {
        routine(0, moved, caller, what.Send ? 0 : *what.Flags);
        F->ApcDelivered = 1;
    } else if (caller != nullptr && caller->hEvent != nullptr) [[unlikely]] {
        SetEvent(caller->hEvent);
    }
    return 0;
}

// Pending for the caller whether or not the operation ended at once: it is over when its routine has run.
int StartWithRoutine(Fiber *F, const Transfer &what, PSEHAND *entry, OVERLAPPED *caller,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    Scheduler *S = SchedOf(F);
    FIBEROVERLAPPED *rec = AllocSocketOv(F, entry, what.Send ? uint32_t{OP_SEND} : uint32_t{OP_RECEIVE});
    if (caller != nullptr) CopyPlace(rec, caller);
    rec->CallerOv = caller;
    rec->SocketRoutine = reinterpret_cast<void *>(routine);
    rec->OsHandle = SocketHandle(what.Socket);
    DWORD moved = 0;
    if (Issue(what, &moved, &rec->Ov, &rec->Io) == 0) {
        AccountPacket(rec);
        if (what.Bytes != nullptr) *what.Bytes = moved;
    } else if (os::GetLastError() != WSA_IO_PENDING) {
        ForgetFailedOv(rec);
        F->PendingApcIos--;
        FreeOv(rec, S);
        return SOCKET_ERROR;
    }
    if (caller != nullptr) CopyOutcome(caller, rec);
    AppendLink(&F->SocketOvs, &rec->Link);
    NoteOwnOvFiled(S, rec);
    os::SetLastError(WSA_IO_PENDING);
    return SOCKET_ERROR;
}

// The host waits for this one itself; its packet would only wake our scheduler.
int StartHostDriven(const Transfer &what, uint32_t flags, OVERLAPPED *caller) {
    if ((flags & PHAND_FLAG_ON_PORT) != 0) caller->hEvent = WithoutPacket(caller->hEvent);
    return Issue(what, what.Bytes, caller, nullptr);
}

int Run(Fiber *F, const Transfer &what, PSEHAND *entry, OVERLAPPED *caller,
        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (caller == nullptr && routine == nullptr) [[likely]]
        return TransferAndWait(F, what, entry, nullptr, nullptr);
    const uint32_t flags = entry->Flags.load(std::memory_order_acquire);
    if ((flags & PHAND_FLAG_ASYNC_ADDED) != 0) return TransferAndWait(F, what, entry, caller, routine);
    return routine != nullptr ? StartWithRoutine(F, what, entry, caller, routine)
                              : StartHostDriven(what, flags, caller);
}

// A socket that came from another process is left unbound by the first receive: it may still be shared with that
// process, which reads its greeting.
bool BindForReceive(Fiber *F, PSEHAND *entry, SOCKET s) {
    if ((entry->Flags.load(std::memory_order_relaxed) & PHAND_FLAG_PROTOCOL_INFO) != 0) [[unlikely]] {
        entry->Flags.fetch_and(~uint32_t{PHAND_FLAG_PROTOCOL_INFO}, std::memory_order_relaxed);
        return true;
    }
    return AttachSocketToPort(SchedOf(F), entry, s);
}

int Receive(Fiber *F, PSEHAND *entry, SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *flags,
            OVERLAPPED *overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    DWORD none = 0;
    if (flags == nullptr) flags = &none;
    // How a host asks whether a connection is still there; it need not reach the kernel.
    if (*flags == ZVX_MSG_PEEK && overlapped == nullptr && routine == nullptr && count == 1 && buffers->len == 0) {
        os::SetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    if (!BindForReceive(F, entry, s)) return SOCKET_ERROR;
    return Run(F, Transfer{s, buffers, count, bytes, flags, false}, entry, overlapped, routine);
}

int Send(Fiber *F, PSEHAND *entry, SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD flags,
         OVERLAPPED *overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (!AttachSocketToPort(SchedOf(F), entry, s)) return SOCKET_ERROR;
    return Run(F, Transfer{s, buffers, count, bytes, &flags, true}, entry, overlapped, routine);
}

}  // namespace

// ---- Exported ----------------------------------------------------------------------------------------

int WSARecv(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpSocket(s) : nullptr;
    if (entry == nullptr) return os::WSARecv(s, buffers, count, bytes, flags, overlapped, routine);
    return Receive(F, entry, s, buffers, count, bytes, flags, overlapped, routine);
}

int WSASend(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpSocket(s) : nullptr;
    if (entry == nullptr) return os::WSASend(s, buffers, count, bytes, flags, overlapped, routine);
    return Send(F, entry, s, buffers, count, bytes, flags, overlapped, routine);
}

int recv(SOCKET s, char *buffer, int length, int flags) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpSocket(s) : nullptr;
    if (entry == nullptr || length < 0) return os::recv(s, buffer, length, flags);
    WSABUF one{static_cast<ULONG>(length), buffer};
    DWORD bytes = 0;
    DWORD flagsWord = static_cast<DWORD>(flags);
    if (Receive(F, entry, s, &one, 1, &bytes, &flagsWord, nullptr, nullptr) == 0) return static_cast<int>(bytes);
    const DWORD error = os::GetLastError();
    return error == WSAEDISCON || error == WSA_OPERATION_ABORTED ? 0 : SOCKET_ERROR;
}

int send(SOCKET s, const char *buffer, int length, int flags) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpSocket(s) : nullptr;
    if (entry == nullptr || length < 0) return os::send(s, buffer, length, flags);
    WSABUF one{static_cast<ULONG>(length), const_cast<char *>(buffer)};
    DWORD bytes = 0;
    const int result = Send(F, entry, s, &one, 1, &bytes, static_cast<DWORD>(flags), nullptr, nullptr);
    return result == 0 ? static_cast<int>(bytes) : SOCKET_ERROR;
}

void DeliverSocketCompletion(FIBEROVERLAPPED *rec, Fiber *F) {
    void *const routine = (rec->Flags & OV_CANCELLED) == 0 ? rec->SocketRoutine : nullptr;
    OVERLAPPED *const caller = rec->CallerOv;
    DWORD error = 0;
    DWORD bytes = rec->Ov.InternalHigh;
    DWORD flags = 0;
    if (routine != nullptr) {
        if (caller != nullptr) CopyOutcome(caller, rec);
        if (os::LoadStatus(&rec->Ov) != STATUS_SUCCESS &&
            !os::WSAGetOverlappedResult(reinterpret_cast<SOCKET>(rec->OsHandle), &rec->Ov, &bytes, FALSE, &flags)) {
            error = os::GetLastError();
        }
    }
    // Before the routine, as with files.
    F->PendingApcIos--;
    FreeOv(rec, SchedOf(F));
    if (routine != nullptr)
        reinterpret_cast<LPWSAOVERLAPPED_COMPLETION_ROUTINE>(routine)(error, bytes, caller, flags);
    F->ApcDelivered = 1;
}

BOOL WSAGetOverlappedResult(SOCKET s, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait, DWORD *flags) {
    Fiber *F = CallingFiber();
    if (F == nullptr || !wait || LookUpSocket(s) == nullptr) {
        return os::WSAGetOverlappedResult(s, overlapped, bytes, wait, flags);
    }
    if (wait == TRUE) {
        // What the thread waits for, as dumps show it. It is put back, because the caller's record goes away.
        OVERLAPPED *const before = F->CurOv;
        F->CurOv = overlapped;
        while (!os::HasOverlappedIoCompleted(overlapped)) Sleep(10);
        F->CurOv = before;
    }
    return os::WSAGetOverlappedResult(s, overlapped, bytes, FALSE, flags);
}

}  // namespace zvx
