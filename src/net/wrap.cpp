// net/wrap.cpp - making and closing sockets, and the entries that wrap them.
//
// Runs on the calling user thread. Nothing here yields; WSAAccept blocks the kernel thread, and every user thread of
// the scheduler with it.
#include "diag/trace.h"
#include "net/net.h"
#include "sched/sched.h"

namespace zvx {

namespace {

// The entry is complete before anybody can find it.
SOCKET Wrap(Fiber *F, PSEHAND *entry, SOCKET s, uint32_t type, uint32_t flags) {
    entry->Type = type;
    entry->Flags.store(flags, std::memory_order_relaxed);
    entry->OwnerFiber = F;
    entry->Handle = static_cast<uint32_t>(s);
    InsertHandle(entry);
    return s;
}

PSEHAND *NewSocketEntry(const Fiber *F) {
    Scheduler *S = SchedOf(F);
    return AllocHandleEntry(S, S->NumaNode);
}

SOCKET NotMade(const Fiber *F, PSEHAND *entry) {
    FreeHandleEntry(entry, SchedOf(F));
    return INVALID_SOCKET;
}

}  // namespace

SOCKET WSASocketA(int family, int type, int protocol, WSAPROTOCOL_INFOA *info, DWORD group, DWORD flags) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WSASocketA(family, type, protocol, info, group, flags);
    PSEHAND *entry = NewSocketEntry(F);
    const bool byCaller = (flags & WSA_FLAG_OVERLAPPED) != 0;
    const SOCKET s = os::WSASocketA(family, type, protocol, info, group, flags | WSA_FLAG_OVERLAPPED);
    if (s == INVALID_SOCKET) return NotMade(F, entry);
    Wrap(F, entry, s, PHAND_HTYPE_WSASocket, byCaller ? PHAND_FLAG_ASYNC_CALLER : PHAND_FLAG_ASYNC_ADDED);
    if (info != nullptr) entry->Flags.fetch_or(PHAND_FLAG_PROTOCOL_INFO, std::memory_order_release);
    return s;
}

SOCKET socket(int family, int type, int protocol) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::socket(family, type, protocol);
    PSEHAND *entry = NewSocketEntry(F);
    const SOCKET s = os::socket(family, type, protocol);
    if (s == INVALID_SOCKET) return NotMade(F, entry);
    return Wrap(F, entry, s, PHAND_HTYPE_socket, PHAND_FLAG_ASYNC_CALLER);
}

SOCKET WSAAccept(SOCKET s, sockaddr *address, int *length, LPCONDITIONPROC condition, DWORD_PTR callbackData) {
    Fiber *F = CallingFiber();
    const PSEHAND *listener = F != nullptr ? LookUpSocket(s) : nullptr;
    if (listener == nullptr) return os::WSAAccept(s, address, length, condition, callbackData);
    // Read now: the condition function is the host's, and may do anything.
    const bool added = (listener->Flags.load(std::memory_order_acquire) & PHAND_FLAG_ASYNC_ADDED) != 0;
    PSEHAND *entry = NewSocketEntry(F);
    const SOCKET accepted = os::WSAAccept(s, address, length, condition, callbackData);
    if (accepted == INVALID_SOCKET) return NotMade(F, entry);
    return Wrap(F, entry, accepted, PHAND_HTYPE_WSASocket, added ? PHAND_FLAG_ASYNC_ADDED : PHAND_FLAG_ASYNC_CALLER);
}

int closesocket(SOCKET s) {
    if (Fiber *F = CallingFiber(); F != nullptr) {
        if (PSEHAND *entry = LookUpSocket(s); entry != nullptr) ReleaseHandleRef(entry, s, SchedOf(F));
    }
    return os::closesocket(s);
}

int RefuseDatagram(const char *name) {
    FatalExit("%s NOT WRAPPED\n", name);
}

}  // namespace zvx
