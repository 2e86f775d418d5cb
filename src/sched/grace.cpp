// sched/grace.cpp - when a record that was taken out of every table may be reused.
//
// A user thread of another scheduler may have looked the record up a moment before it was removed. It uses
// it only until its next yield, so the record is free once every scheduler has made a selection pass since the
// removal, or is blocked in its port (where no user thread runs, and from where the table is read anew), or in a call
// that uses nothing which was looked up before.
//
// A scheduler retires into RetireOpen; when RetireWaiting is empty the open ones move there with a snapshot of
// every scheduler's SwitchCount, and are released when each has moved on. Owner thread only, except for the
// words of the other schedulers, which are atomics: a pass stores SwitchCount with release after the reads of
// the fibers before it, and the load here acquires.
#include "sched/internal.h"

namespace zvx {

static bool RunsFibers(const Scheduler *other) {
    return other != nullptr && other->Running.load(std::memory_order_acquire) != 0;
}

static void TakeSnapshot(Scheduler *S) {
    SpliceAll(&S->RetireWaiting, &S->RetireOpen);
    // The removal must be visible before the counts are read; pairs with the locked store that ends a wait in
    // the port and with the passes' releases.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    // One that is made later has looked nothing up.
    S->RetireSnapshotOf = gSchedulersMade.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < S->RetireSnapshotOf; ++i)
        S->RetireSnapshot[i] = gSchedulers[i]->SwitchCount.load(std::memory_order_acquire);
}

static bool EveryoneMovedOn(const Scheduler *S) {
    for (uint32_t i = 0; i < S->RetireSnapshotOf; ++i) {
        const Scheduler *other = gSchedulers[i];
        if (other == S || !RunsFibers(other)) continue;
        if (other->SwitchCount.load(std::memory_order_acquire) != S->RetireSnapshot[i]) continue;
        if (other->BlockedInPort.load(std::memory_order_acquire) != 0) continue;
        if (other->BlockedOutside.load(std::memory_order_acquire) != 0) continue;
        return false;
    }
    return true;
}

void RetireRecord(Scheduler *S, RetireEntry *entry) { AppendLink(&S->RetireOpen, &entry->Link); }

void ReleaseRetired(Scheduler *S) {
    if (S->RetireWaiting.Count != 0 && EveryoneMovedOn(S)) {
        while (ListLink *link = PopLink(&S->RetireWaiting)) {
            RetireEntry *entry = ZVX_RECORD_OF(link, RetireEntry, Link);
            entry->Release(S, entry);
        }
    }
    if (S->RetireWaiting.Count == 0 && S->RetireOpen.Count != 0) TakeSnapshot(S);
}

}  // namespace zvx
