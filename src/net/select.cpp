// net/select.cpp - select, as looks between which the caller yields, and the waits for socket events, which are waits
// for objects (sched/objects.cpp): parked, or polled where kernel/wait.cpp says.
//
// Runs on the calling user thread. Nothing here blocks the kernel thread.
#include <cstring>

#include "alloc/alloc.h"
#include "net/net.h"
#include "sched/sched.h"

namespace zvx {

// ---- select ------------------------------------------------------------------------------------------

namespace {

// Looks in a row that ask to run again at once, before a thread that waits in vain lets its scheduler go idle
// between two looks. A thread in ORQ counts as work, and a scheduler with work never waits in its port.
constexpr uint32_t kEagerLooks = 32;
constexpr uint32_t kCopiedOnStack = 3 * 64;
constexpr uint32_t kCleanupTerminate = 1;

// What the caller asked about. The operating system leaves only the sockets that are ready in its sets, so each look
// needs them afresh.
struct AskedSet {
    zvx_fd_set *Set;  // caller's, or null
    DWORD Count;
    SOCKET *Sockets;
};

void Restore(const AskedSet &asked) {
    if (asked.Set == nullptr) return;
    asked.Set->fd_count = asked.Count;
    // The array may be longer than its type says.
    if (asked.Count != 0)
        std::memcpy(static_cast<SOCKET *>(asked.Set->fd_array), asked.Sockets, asked.Count * sizeof(SOCKET));
}

void FreeCopyOnTerminate(Fiber *, Scheduler *, uintptr_t *args, uint32_t reason) {
    if (reason == kCleanupTerminate) KVTFree(reinterpret_cast<void *>(args[0]), static_cast<uint8_t>(args[1]));
}

// What is left of a time-out. A second counts as 1024 milliseconds and a millisecond as 1024 microseconds.
struct Remaining {
    int64_t Seconds;
    int64_t Microseconds;
    uint32_t Mark;  // tick up to which time was taken off
};

// Takes off the time that has passed; false when nothing is left.
bool TimeLeft(Remaining *left) {
    const uint32_t now = os::GetTickCount();
    int64_t elapsed = now - left->Mark;
    if (elapsed == 0) return true;
    if (left->Microseconds > 0) {
        int64_t passed = elapsed * 1024;
        const int64_t taken = passed >= left->Microseconds ? left->Microseconds : passed;
        left->Microseconds -= taken;
        passed -= taken;
        left->Mark = now;
        elapsed = passed / 1024;
    }
    if (left->Seconds > 0) {
        const int64_t seconds = elapsed / 1024;
        if (seconds == 0) return true;  // the mark stays, so that the fraction is not lost
        left->Seconds = seconds >= left->Seconds ? 0 : left->Seconds - seconds;
        left->Mark = now;
    }
    return left->Seconds > 0 || left->Microseconds > 0;
}

int LookUntilReady(Fiber *F, const AskedSet (&asked)[3], const os::TimeVal *timeout) {
    const os::TimeVal atOnce{0, 0};
    Remaining left{0, 0, 0};
    if (timeout != nullptr) left = {timeout->Seconds, timeout->Microseconds, os::GetTickCount()};
    for (uint32_t looks = 0;; looks += looks < kEagerLooks) {
        if (looks != 0)
            for (const AskedSet &one : asked) Restore(one);
        const int ready = os::select(0, asked[0].Set, asked[1].Set, asked[2].Set, &atOnce);
        if (ready != 0) return ready;
        // A thread that yields in the background is served in the same order as one that just yields; but when there
        // are no others, its scheduler waits in its port for up to a millisecond, as for one that sleeps.
        SchedYield(F, looks < kEagerLooks ? Yield_USER : Yield_SCHED);
        if (timeout != nullptr && !TimeLeft(&left)) return 0;
    }
}

}  // namespace

int select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const os::TimeVal *timeout) {
    Fiber *F = CallingFiber();
    if (F == nullptr || (timeout != nullptr && timeout->Seconds == 0 && timeout->Microseconds == 0)) {
        // What the caller waits for may be the answer to what it has sent by an operation of its own.
        if (F != nullptr) LookForEnded(SchedOf(F));
        return os::select(ignored, read, write, error, timeout);
    }
    AskedSet asked[3] = {{read, 0, nullptr}, {write, 0, nullptr}, {error, 0, nullptr}};
    uint64_t total = 0;
    for (AskedSet &one : asked) {
        if (one.Set != nullptr) one.Count = one.Set->fd_count;
        total += one.Count;
    }
    SOCKET onStack[kCopiedOnStack];
    SOCKET *copy = onStack;
    const uint8_t node = SchedOf(F)->NumaNode;
    if (total > kCopiedOnStack) {
        const uint64_t bytes = (total * sizeof(SOCKET) + 15) & ~uint64_t{15};
        copy = bytes > UINT32_MAX
                   ? nullptr
                   : static_cast<SOCKET *>(KVTAllocSched(static_cast<uint32_t>(bytes), SchedOf(F), node));
        if (copy == nullptr) {
            os::SetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        }
        uintptr_t *args = F->TermCleanup.Args[TermCleanupFuncSet(F, FreeCopyOnTerminate)];
        args[0] = reinterpret_cast<uintptr_t>(copy);
        args[1] = node;
    }
    SOCKET *next = copy;
    for (AskedSet &one : asked) {
        one.Sockets = next;
        if (one.Count != 0) std::memcpy(next, one.Set->fd_array, one.Count * sizeof(SOCKET));
        next += one.Count;
    }
    const int ready = LookUntilReady(F, asked, timeout);
    if (copy != onStack) {
        TermCleanupFuncRemove(F, FreeCopyOnTerminate);
        KVTFree(copy, node);
    }
    return ready;
}

// ---- Events ------------------------------------------------------------------------------------------

namespace {

// What is tested, and the answer of the latest test. It lives on the waiting thread's stack.
struct EventWait {
    DWORD Count;
    const WSAEVENT *Events;
    BOOL All;
    bool Alertable;
    DWORD Result;
};

bool EventTest(Fiber *F, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    auto *wait = reinterpret_cast<EventWait *>(a1);
    wait->Result = os::WSAWaitForMultipleEvents(wait->Count, wait->Events, wait->All, 0, FALSE);
    if (wait->Alertable) ReapOwnOvsInWait(F);
    if (wait->Result != WSA_WAIT_TIMEOUT) return true;
    if (!wait->Alertable || F->ApcDelivered == 0) return false;
    F->ApcDelivered = 0;
    wait->Result = WSA_WAIT_IO_COMPLETION;
    return true;
}

}  // namespace

DWORD WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms, BOOL alertable) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WSAWaitForMultipleEvents(count, events, waitAll, ms, alertable);
    // A count out of range is the operating system's to refuse.
    if (count == 0 || count > WSA_MAXIMUM_WAIT_EVENTS) {
        return os::WSAWaitForMultipleEvents(count, events, waitAll, 0, FALSE);
    }
    // The host may change its array while the wait goes on.
    WSAEVENT mine[WSA_MAXIMUM_WAIT_EVENTS];
    std::memcpy(mine, events, count * sizeof *mine);
    EventWait wait{count, mine, waitAll, alertable && HasOwnOperations(F), WSA_WAIT_TIMEOUT};
    F->WaitTimeoutMs = ms;
    if (ms == 0) LookForEnded(SchedOf(F));
    if (!wait.Alertable) {
        const DWORD tested = os::WSAWaitForMultipleEvents(count, mine, waitAll, 0, FALSE);
        if (tested != WSA_WAIT_TIMEOUT || ms == 0) return tested;
        const DWORD ended = WaitForObjects(F, count, mine, waitAll);
        if (ended != os::kNotParkable) return ended;
    }
    if (wait.Alertable) F->Flags |= FIBER_POLL_OWN_OVS;
    const bool ended = WaitWithPolling(F, EventTest, reinterpret_cast<uintptr_t>(&wait));
    if (wait.Alertable) F->Flags &= ~uint32_t{FIBER_POLL_OWN_OVS};
    return ended ? wait.Result : WSA_WAIT_TIMEOUT;
}

BOOL WSACloseEvent(WSAEVENT event) {
    return os::WSACloseEvent(event);
}
BOOL WSASetEvent(WSAEVENT event) {
    return os::WSASetEvent(event);
}
BOOL WSAResetEvent(WSAEVENT event) {
    return os::WSAResetEvent(event);
}
int WSAEventSelect(SOCKET s, WSAEVENT event, LONG events) {
    return os::WSAEventSelect(s, event, events);
}
int WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, WSANETWORKEVENTS *result) {
    return os::WSAEnumNetworkEvents(s, event, result);
}

}  // namespace zvx
