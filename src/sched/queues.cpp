// sched/queues.cpp - where a woken fiber is placed, and how it leaves a wait list.
//
// Runs on the owning scheduler's thread only; takes no lock and allocates nothing.
#include <algorithm>

#include "sched/internal.h"

namespace zvx {

void NoteAppended(Scheduler *S, uint32_t queue, const Fiber *F) {
    ListHead *list = &S->RunQueues[queue];
    if (S->SortEnd[queue] != nullptr) {
        S->TailMin[queue] = std::min(S->TailMin[queue], F->LastRunStamp);
        return;
    }
    S->SortEnd[queue] = list->Ends.Prev;
    S->TailMin[queue] = F->LastRunStamp;
    S->SortMin[queue] = UINT32_MAX;
    for (ListLink *link = FirstLink(list); link != &list->Ends; link = link->Next)
        S->SortMin[queue] = std::min(S->SortMin[queue], FiberOfRunLink(link)->LastRunStamp);
}

void AppendRunQueue(Scheduler *S, uint32_t queue, Fiber *F) {
    if (S->Unsorted[queue] != 0) NoteAppended(S, queue, F);
    AppendMasked(S, &S->RunQueues[queue], 1u << queue, F);
}

void PushRunQueue(Scheduler *S, uint32_t queue, Fiber *F) { PushMasked(S, &S->RunQueues[queue], 1u << queue, F); }

void AppendReady(Scheduler *S, Fiber *F) { AppendMasked(S, &S->ReadyList, kMaskReady, F); }

// A queue by stamp is in descending order of LastRunStamp: who ran more recently still has its data in the cache. A
// newcomer goes in front of the first fiber with an equal or smaller stamp, so that among equals it goes first. Fibers
// mostly wake in the order in which they ran, so that its place is at the head. When it is not near, as in a batch of
// ends in an order of their own, the newcomer and all that follow it are put at the head as they come, and sorted
// together when somebody is picked: a walk for each would be quadratic with thousands of sessions.
//
// What is appended meanwhile lies behind SortEnd and takes no part in that. A newcomer has its place there only when
// its stamp is below all before SortEnd: below all behind it as well, it is the last one; else, which is rare, the
// others are sorted now.
static void InsertByStamp(Scheduler *S, uint32_t queue, Fiber *F) {
    constexpr int kSteps = 8;
    ListHead *list = &S->RunQueues[queue];
    const uint32_t stamp = F->LastRunStamp;
    const bool behind = S->Unsorted[queue] != 0 && S->SortEnd[queue] != nullptr && stamp < S->SortMin[queue];
    if (behind && stamp >= S->TailMin[queue]) SortQueue(S, queue);
    ListLink *where = FirstLink(list);
    if (S->Unsorted[queue] == 0) {
        for (int i = 0; where != &list->Ends && FiberOfRunLink(where)->LastRunStamp > stamp; where = where->Next) {
            if (++i < kSteps) continue;
            where = FirstLink(list);
            S->Unsorted[queue] = 1;
            break;
        }
    } else if (behind) {
        S->TailMin[queue] = stamp;
        where = &list->Ends;
    } else {
        S->Unsorted[queue]++;
    }
    InsertBefore(list, where, &F->RunLink);
    S->QueueMask |= 1u << queue;
}

// Merges two chains by Next, each in descending order and ended by null; of equals those of `newer` come first.
static ListLink *MergeByStamp(ListLink *newer, ListLink *older) {
    ListLink *first = nullptr;
    ListLink **end = &first;
    while (newer != nullptr && older != nullptr) {
        ListLink **from = FiberOfRunLink(newer)->LastRunStamp >= FiberOfRunLink(older)->LastRunStamp ? &newer : &older;
        *end = *from;
        end = &(*from)->Next;
        *from = (*from)->Next;
    }
    *end = newer != nullptr ? newer : older;
    return first;
}

void SortQueue(Scheduler *S, uint32_t queue) {
    ListHead *list = &S->RunQueues[queue];
    // Chain i holds 2^i of the unsorted ones, higher ones hold newer ones.
    ListLink *chains[32] = {};
    ListLink *const last = S->SortEnd[queue] != nullptr ? S->SortEnd[queue] : list->Ends.Prev;
    ListLink *const behind = last->Next;
    last->Next = nullptr;
    ListLink *rest = FirstLink(list);
    for (uint32_t n = 0; n < S->Unsorted[queue]; ++n) {
        ListLink *one = rest;
        rest = rest->Next;
        one->Next = nullptr;
        uint32_t i = 0;
        for (; chains[i] != nullptr; ++i) {
            one = MergeByStamp(chains[i], one);
            chains[i] = nullptr;
        }
        chains[i] = one;
    }
    ListLink *sorted = nullptr;
    for (ListLink *chain : chains)
        if (chain != nullptr) sorted = sorted != nullptr ? MergeByStamp(chain, sorted) : chain;
    sorted = MergeByStamp(sorted, rest);
    // The links back, and the ends.
    ListLink *before = &list->Ends;
    for (ListLink *link = sorted; link != nullptr; link = link->Next) {
        before->Next = link;
        link->Prev = before;
        before = link;
    }
    before->Next = behind;
    behind->Prev = before;
    S->Unsorted[queue] = 0;
    S->SortEnd[queue] = nullptr;
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
    if (S->Unsorted[queue] != 0) SortQueue(S, queue);
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
