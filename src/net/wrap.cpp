// net/wrap.cpp - making, connecting and closing sockets, and the entries that wrap them.
//
// Runs on the calling user thread. Nothing here yields; WSAAccept and the connects block the kernel thread, and every
// user thread of the scheduler with it.
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

// Around a call that blocks: other schedulers reuse records meanwhile (sched/grace.cpp). Nothing that was looked up
// before is used after it. What the scheduler's user threads have begun goes to the kernel first: the call may wait for
// somebody who waits for that.
struct BlockingCall {
    explicit BlockingCall(Fiber *f) : F(f) { Set(2); }
    ~BlockingCall() { Set(0); }
    void Set(uint32_t blocked) {
        if (blocked != 0) os::SubmitIo(SchedOf(F)->Io);
        SchedOf(F)->BlockedOutside.store(blocked, std::memory_order_seq_cst);
    }
    Fiber *const F;
    LPCONDITIONPROC Condition = nullptr;
    DWORD_PTR CallbackData = 0;
};

// The condition function is the host's code, which may look things up, and even yield.
int AskOutside(WSABUF *callerId, WSABUF *callerData, QOS *sqos, QOS *gqos, WSABUF *calleeId, WSABUF *calleeData,
               GROUP *group, DWORD_PTR call) {
    auto *blocking = reinterpret_cast<BlockingCall *>(call);
    blocking->Set(0);
    const int answer = blocking->Condition(callerId, callerData, sqos, gqos, calleeId, calleeData, group,
                                           blocking->CallbackData);
    blocking->Set(2);
    return answer;
}

SOCKET AcceptBlocking(Fiber *F, SOCKET s, sockaddr *address, int *length, LPCONDITIONPROC condition,
                      DWORD_PTR callbackData) {
    BlockingCall blocking(F);
    if (condition == nullptr) return os::WSAAccept(s, address, length, nullptr, 0);
    blocking.Condition = condition;
    blocking.CallbackData = callbackData;
    return os::WSAAccept(s, address, length, AskOutside, reinterpret_cast<DWORD_PTR>(&blocking));
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
    const SOCKET accepted = AcceptBlocking(F, s, address, length, condition, callbackData);
    if (accepted == INVALID_SOCKET) return NotMade(F, entry);
    return Wrap(F, entry, accepted, PHAND_HTYPE_WSASocket, added ? PHAND_FLAG_ASYNC_ADDED : PHAND_FLAG_ASYNC_CALLER);
}

int connect(SOCKET s, const sockaddr *name, int length) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::connect(s, name, length);
    const BlockingCall blocking(F);
    return os::connect(s, name, length);
}

int WSAConnect(SOCKET s, const sockaddr *name, int length, WSABUF *callerData, WSABUF *calleeData, QOS *sqos,
               QOS *gqos) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WSAConnect(s, name, length, callerData, calleeData, sqos, gqos);
    const BlockingCall blocking(F);
    return os::WSAConnect(s, name, length, callerData, calleeData, sqos, gqos);
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
