// sched/timer.cpp - the timer queue and the polled waits.
//
// Every finite wait is in TimedWaiters, in order of entry, and in a pairing heap by the 64-bit tick at which
// it ends, so that a check costs what has expired and not what waits. Those that expire at one check are made
// runnable in their order of entry. Ticks are 64 bits wide, so no wait is cut or drawn out when the 32-bit
// tick count wraps. A wait starts at the tick rounded up, so none is short.
//
// Runs on the owning scheduler's thread only; takes no lock and allocates nothing (the heap is intrusive).
#include "diag/timeline.h"
#include "diag/timesource.h"
#include "sched/internal.h"
#include "sched/upcalls.h"

namespace zvx {

// ---- The heap ----------------------------------------------------------------------------------------
//
// HeapChild leads to a fiber's first child, HeapNext to its right sibling, HeapPrev to its left sibling, or
// to its parent for a first child.

static Fiber *Meld(Fiber *a, Fiber *b) {
    if (a == nullptr) return b;
    if (b == nullptr) return a;
    if (b->WaitDeadline < a->WaitDeadline) {
        Fiber *swap = a;
        a = b;
        b = swap;
    }
    b->HeapNext = a->HeapChild;
    if (a->HeapChild != nullptr) a->HeapChild->HeapPrev = b;
    b->HeapPrev = a;
    a->HeapChild = b;
    return a;
}

// Melds a chain of siblings pairwise from left to right, then the results from right to left.
static Fiber *MeldSiblings(Fiber *first) {
    Fiber *pairs = nullptr;  // stack through HeapNext
    while (first != nullptr) {
        Fiber *a = first;
        Fiber *b = a->HeapNext;
        first = b != nullptr ? b->HeapNext : nullptr;
        a->HeapNext = a->HeapPrev = nullptr;
        if (b != nullptr) b->HeapNext = b->HeapPrev = nullptr;
        Fiber *pair = Meld(a, b);
        pair->HeapNext = pairs;
        pairs = pair;
    }
    Fiber *root = nullptr;
    while (pairs != nullptr) {
        Fiber *next = pairs->HeapNext;
        pairs->HeapNext = nullptr;
        root = Meld(root, pairs);
        pairs = next;
    }
    return root;
}

static void HeapInsert(Scheduler *S, Fiber *F) {
    F->HeapChild = F->HeapNext = F->HeapPrev = nullptr;
    S->TimeoutHeap = Meld(S->TimeoutHeap, F);
}

static void HeapRemove(Scheduler *S, Fiber *F) {
    if (S->TimeoutHeap == F) {
        S->TimeoutHeap = MeldSiblings(F->HeapChild);
    } else {
        if (F->HeapPrev->HeapChild == F) {
            F->HeapPrev->HeapChild = F->HeapNext;
        } else {
            F->HeapPrev->HeapNext = F->HeapNext;
        }
        if (F->HeapNext != nullptr) F->HeapNext->HeapPrev = F->HeapPrev;
        S->TimeoutHeap = Meld(S->TimeoutHeap, MeldSiblings(F->HeapChild));
    }
    F->HeapChild = F->HeapNext = F->HeapPrev = nullptr;
}

// ---- Waits -------------------------------------------------------------------------------------------

void FileTimedWaiter(Scheduler *S, Fiber *F) {
    F->Flags &= ~static_cast<uint32_t>(FIBER_SLICE_FILED);
    if (F->WaitTimeoutMs == INFINITE) {
        AppendLink(&S->InfiniteWaiters, &F->RunLink);
        F->Flags |= FIBER_INFINITE_WAIT;
        return;
    }
    if (F->Flags & FIBER_POLLED_WAIT) {
        // A slice of a polled wait ends at the next check, whenever that was to be, so that the condition is tested
        // again within the interval and not within twice that.
        // A routine injected meanwhile waits for itself; the other mark says what it interrupted.
        F->Flags = (F->Flags & ~static_cast<uint32_t>(FIBER_POLLED_WAIT)) | FIBER_SLICE_FILED;
        F->WaitStartTick = os::GetTickCount();
        F->WaitDeadline = S->LastTimerCheck + gTimerInterval;
    } else {
        uint64_t now = os::GetTickCountUp();
        F->WaitStartTick = static_cast<uint32_t>(now);
        F->WaitDeadline = now + F->WaitTimeoutMs;
    }
    F->WaitSeq = S->WaitSeqNext++;
    AppendLink(&S->TimedWaiters, &F->RunLink);
    F->Flags &= ~static_cast<uint32_t>(FIBER_INFINITE_WAIT);
    HeapInsert(S, F);
}

void UnlinkTimedWaiter(Scheduler *S, Fiber *F) {
    if (F->Flags & FIBER_OBJECT_WAIT) LeaveObjects(F);
    if (F->Flags & FIBER_INFINITE_WAIT) {
        UnlinkFrom(&S->InfiniteWaiters, &F->RunLink);
        F->Flags &= ~static_cast<uint32_t>(FIBER_INFINITE_WAIT);
        return;
    }
    UnlinkFrom(&S->TimedWaiters, &F->RunLink);
    HeapRemove(S, F);
    uint64_t now = os::GetTickCount64();
    uint64_t left = F->WaitDeadline > now ? F->WaitDeadline - now : 0;
    if (left < F->WaitTimeoutMs) F->WaitTimeoutMs = static_cast<uint32_t>(left);
    F->WaitStartTick = static_cast<uint32_t>(now);
}

uint32_t MsToNearestTimeout(const Scheduler *S) {
    if (S->TimeoutHeap == nullptr) return INFINITE;
    uint64_t now = os::GetTickCount64();
    uint64_t deadline = S->TimeoutHeap->WaitDeadline;
    if (deadline <= now) return 0;
    return deadline - now >= INFINITE ? INFINITE - 1 : static_cast<uint32_t>(deadline - now);
}

// Merge sort of a chain through HeapNext by order of entry.
static Fiber *SortByEntry(Fiber *chain) {
    if (chain == nullptr || chain->HeapNext == nullptr) return chain;
    Fiber *slow = chain;
    for (Fiber *fast = chain->HeapNext; fast != nullptr && fast->HeapNext != nullptr; fast = fast->HeapNext->HeapNext)
        slow = slow->HeapNext;
    Fiber *right = slow->HeapNext;
    slow->HeapNext = nullptr;
    Fiber *left = SortByEntry(chain);
    right = SortByEntry(right);
    Fiber *head = nullptr;
    Fiber **tail = &head;
    while (left != nullptr && right != nullptr) {
        Fiber **lower = left->WaitSeq < right->WaitSeq ? &left : &right;
        *tail = *lower;
        tail = &(*lower)->HeapNext;
        *lower = (*lower)->HeapNext;
    }
    *tail = left != nullptr ? left : right;
    return head;
}

static void ExpireWait(Scheduler *S, Fiber *F, uint64_t now) {
    F->WaitTimeoutMs = 0;
    F->WaitStartTick = static_cast<uint32_t>(now);
    UnlinkFrom(&S->TimedWaiters, &F->RunLink);
    if (F->Flags & FIBER_OBJECT_WAIT) LeaveObjects(F);
    if (F->Flags & FIBER_POLL_OWN_OVS) {
        if (F->CurOv != nullptr) UnfilePollRecord(S, OvRecord(F->CurOv));
        EmptyPollSet(F);
    }
    if ((F->Flags & FIBER_POST_WAIT) && S->HighPriPostWaiter == F) S->HighPriPostWaiter = nullptr;
    MakeRunnable(S, F, gORQ);
}

bool CheckTimerQueue(Scheduler *S) {
    bool woke = false;
    for (ListLink *link = FirstLink(&S->SuspendedFibers); link != &S->SuspendedFibers.Ends;) {
        Fiber *F = FiberOfRunLink(link);
        link = link->Next;
        if (F->SuspendCount.load(std::memory_order_relaxed) != 0 && !(F->Flags & (FIBER_TERMINATE | FIBER_EXITING)))
            continue;
        UnlinkFrom(&S->SuspendedFibers, &F->RunLink);
        MakeRunnable(S, F, gORQ);
        woke = true;
    }
    uint64_t now = os::GetTickCount64();
    Fiber *expired = nullptr;
    while (S->TimeoutHeap != nullptr && S->TimeoutHeap->WaitDeadline <= now) {
        Fiber *F = S->TimeoutHeap;
        HeapRemove(S, F);
        F->HeapNext = expired;
        expired = F;
    }
    expired = SortByEntry(expired);
    while (expired != nullptr) {
        Fiber *F = expired;
        expired = F->HeapNext;
        F->HeapNext = nullptr;
        ExpireWait(S, F, now);
        woke = true;
    }
    return woke;
}

bool ChkTimeForTimerQ(Scheduler *S) {
    if (S->DebugRequest.load(std::memory_order_acquire) != 0) ServeDebugRequest(S);
    if ((gTimelineWanted.load(std::memory_order_relaxed) != 0) != (S->Timeline != nullptr)) [[unlikely]]
        StartOrStopTimeline(S);
    S->IdleCalls = 0;
    bool woke = false;
    uint64_t now = os::GetTickCount64();
    if (now - S->SecondStart >= 1000) [[unlikely]] RollSecond(S, now);
    if (S->TimedWaiters.Count != 0 || S->SuspendedFibers.Count != 0) {
        if (now - S->LastTimerCheck >= gTimerInterval) {
            woke = CheckTimerQueue(S);
            S->LastTimerCheck = now;
        }
    }
    // A thread that yields in this very pass still runs on its own stack: nobody may have it yet.
    if (S->MigrationQueue.Count != 0 && !NoPortCheck(S)) ProcessMigrationQueue(S);
    return woke;
}

bool WaitWithPolling(Fiber *F, WaitTestFunc test, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                     uintptr_t a5) {
    if (test(F, a1, a2, a3, a4, a5)) return true;
    if (gNumContextSwitchesBeforePolling != 0) F->PolledTsc = ReadTsc();  // for tools: the slices begin anew each time
    while (F->WaitTimeoutMs != 0) {
        uint32_t remaining = F->WaitTimeoutMs;
        uint64_t start = os::GetTickCount64();
        F->WaitTimeoutMs = remaining < gTimerInterval ? remaining : gTimerInterval;
        if (F->Flags & FIBER_POLL_OWN_OVS) F->CurOv = GatherPollSet(F, 3, 0);
        if (remaining >= gTimerInterval) F->Flags |= FIBER_POLLED_WAIT;
        SchedYield(F, Yield_TIMER_WAIT);
        if (remaining == INFINITE) {
            F->WaitTimeoutMs = INFINITE;
        } else {
            uint64_t elapsed = os::GetTickCount64() - start;
            F->WaitTimeoutMs = elapsed >= remaining ? 0 : remaining - static_cast<uint32_t>(elapsed);
        }
        if (test(F, a1, a2, a3, a4, a5)) return true;
    }
    return false;
}

}  // namespace zvx
