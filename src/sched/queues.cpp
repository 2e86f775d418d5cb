// sched/queues.cpp - where a woken fiber is placed, and how it leaves a wait list.
//
// Runs on the owning scheduler's thread only; takes no lock and allocates nothing.
#include "sched/internal.h"

namespace zvx {

void AppendRunQueue(Scheduler *S, uint32_t queue, Fiber *F) {
    AppendMasked(S, &S->RunQueues[queue], 1u << queue, F);
}

void PushRunQueue(Scheduler *S, uint32_t queue, Fiber *F) { PushMasked(S, &S->RunQueues[queue], 1u << queue, F); }

void AppendReady(Scheduler *S, Fiber *F) { AppendMasked(S, &S->ReadyList, kMaskReady, F); }

// In descending order of LastRunStamp: who ran more recently still has its data in the cache. In front of
// the first fiber with an equal or smaller stamp, so that among equals the newcomer goes first. Fibers mostly
// wake in the order in which they ran, so that the walk usually ends at the head.
static void InsertByStamp(Scheduler *S, uint32_t queue, Fiber *F) {
    ListHead *list = &S->RunQueues[queue];
    ListLink *where = FirstLink(list);
    while (where != &list->Ends && FiberOfRunLink(where)->LastRunStamp > F->LastRunStamp) where = where->Next;
    InsertBefore(list, where, &F->RunLink);
    S->QueueMask |= 1u << queue;
}

uint32_t MakeRunnable(Scheduler *S, Fiber *F, uint32_t queue) {
    F->State = FSTATE_READY;
    if (F->SchedClass >= CLASS_HIGH) {
        PushRunQueue(S, gHPRQ, F);
        return gHPRQ;
    }
    if (F->Role == ROLE_DBWR) {
        if (IsEmpty(&S->RunQueues[gLPRQ])) S->LprqDelay = gLPRQMaxDelay;
        PushRunQueue(S, gLPRQ, F);
        return gLPRQ;
    }
    if (F->SchedClass < CLASS_NORMAL) {
        AppendRunQueue(S, gORQ, F);
        return gORQ;
    }
    InsertByStamp(S, queue, F);
    return queue;
}

void InsertBehind(Scheduler *S, uint32_t queue, Fiber *before, Fiber *F) {
    InsertBefore(&S->RunQueues[queue], before->RunLink.Next, &F->RunLink);
}

bool RunnableWork(const Scheduler *S) {
    // The init fiber alone, or among yielded ones, is the common case of the idle pass.
    if ((S->QueueMask & ~(1u << gORQ)) == 0) return S->RunQueues[gORQ].Count != S->BackgroundRunnable;
    uint32_t sum = S->ReadyList.Count + S->LatchSleepers.Count;
    for (const ListHead &queue : S->RunQueues) sum += queue.Count;
    return sum != S->BackgroundRunnable;
}

}  // namespace zvx
