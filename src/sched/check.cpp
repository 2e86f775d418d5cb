// sched/check.cpp - the invariants of records.h as code: called at the end of every test and throughout the
// stress tests. Owner thread only, between two yields. A broken invariant ends the process.
#include <cstdio>
#include <cstdlib>

#include "sched/internal.h"

namespace zvx {

// Checked in every build that calls it, whatever ZVX_CHECKS says.
#define MUST(condition) \
    do {                \
        if (!(condition)) CheckFailed(#condition, __FILE__, __LINE__); \
    } while (0)

static uint32_t WalkedCount(const ListHead *list) {
    uint32_t n = 0;
    for (const ListLink *link = list->Ends.Next; link != &list->Ends; link = link->Next) {
        MUST(link->Next->Prev == link);
        ++n;
    }
    return n;
}

static void CheckRunList(const ListHead *list, std::initializer_list<uint32_t> states, uint32_t *background) {
    MUST(WalkedCount(list) == list->Count);
    for (ListLink *link = list->Ends.Next; link != &list->Ends; link = link->Next) {
        const Fiber *F = FiberOfRunLink(link);
        bool known = false;
        for (uint32_t state : states) known = known || F->State == state;
        MUST(known);
        if (F->State == FSTATE_SCHED_YIELD && background != nullptr) ++*background;
        CheckFiber(F);
    }
}

void CheckFiber(const Fiber *F) {
    MUST(F->Flags & FIBER_IN_USE);
    MUST(Generation(F) != 0);
    MUST(F->SchedClass >= CLASS_BACKGROUND && F->SchedClass <= CLASS_HIGH);
    MUST(F->SuspendCount.load(std::memory_order_relaxed) <= 127);
    MUST(WalkedCount(&F->PollSetOvs) == F->PollSetOvs.Count);
    MUST(WalkedCount(&F->FileOvs) == F->FileOvs.Count);
    MUST(WalkedCount(&F->SocketOvs) == F->SocketOvs.Count);
    MUST(F->FileOvs.Count + F->SocketOvs.Count <= F->PendingApcIos);
    MUST(F->OwnEnded <= F->FileOvs.Count + F->SocketOvs.Count);
    MUST(F->TermCleanup.Count <= 2);
    for (const FIBEROVERLAPPED &rec : F->OwnOvs) MUST(rec.Magic == FIBEROVERLAPPED_MAGIC && rec.Fiber == F);
}

static uint32_t HeapSize(const Fiber *root) {
    uint32_t n = 0;
    for (; root != nullptr; root = root->HeapNext) {
        if (root->HeapChild != nullptr) MUST(root->HeapChild->WaitDeadline >= root->WaitDeadline);
        n += 1 + HeapSize(root->HeapChild);
    }
    return n;
}

static void CheckPollLists(const Scheduler *S) {
    uint32_t polled = 0, net = 0, port = 0;
    for (uint32_t i = 0; i < kPollLists; ++i) {
        MUST(WalkedCount(&S->PollLists[i]) == S->PollLists[i].Count);
        MUST(WalkedCount(&S->EndedOvs[i]) == S->EndedOvs[i].Count);
        MUST(((S->Attention >> i) & 1) == (IsEmpty(&S->EndedOvs[i]) ? 0u : 1u));
        uint64_t last = 0;
        for (ListLink *link = S->PollLists[i].Ends.Next; link != &S->PollLists[i].Ends; link = link->Next) {
            const FIBEROVERLAPPED *rec = OvOfPollLink(link);
            MUST(rec->PollList == i && rec->Magic == FIBEROVERLAPPED_MAGIC);
            MUST(last == 0 || rec->PollSeq > last);
            last = rec->PollSeq;
            polled += rec->CountClass == kCountPolled || rec->CountClass == kCountNet;
            net += rec->CountClass == kCountNet;
            port += rec->CountClass == kCountPort;
        }
    }
    MUST(polled == S->PolledCount && net == S->NetCount && port == S->PortCount);
}

void CheckScheduler(const Scheduler *S) {
    uint32_t background = 0;
    CheckRunList(&S->ReadyList, {2, 3, 9, 11, 14, 15}, &background);
    CheckRunList(&S->LatchSleepers, {FSTATE_LATCH_SLEEP}, nullptr);
    uint32_t mask = (S->ReadyList.Count ? kMaskReady : 0) | (S->LatchSleepers.Count ? kMaskLatch : 0);
    for (uint32_t q = 0; q < 6; ++q) {
        CheckRunList(&S->RunQueues[q], {2, 3, 11, 14}, &background);
        if (S->RunQueues[q].Count) mask |= 1u << q;
    }
    MUST(mask == S->QueueMask);
    MUST(background == S->BackgroundRunnable);
    CheckRunList(&S->SuspendedFibers, {FSTATE_SUSPENDED}, nullptr);
    CheckRunList(&S->TimedWaiters, {FSTATE_TIMED_WAIT}, nullptr);
    CheckRunList(&S->InfiniteWaiters, {FSTATE_TIMED_WAIT}, nullptr);
    CheckRunList(&S->IoWaiters, {FSTATE_IO_WAIT}, nullptr);
    CheckRunList(&S->MigrationQueue, {FSTATE_MIGRATING}, nullptr);
    CheckRunList(&S->ExitedFibers, {FSTATE_EXITED}, nullptr);
    MUST(HeapSize(S->TimeoutHeap) == S->TimedWaiters.Count);
    CheckPollLists(S);
}

}  // namespace zvx
