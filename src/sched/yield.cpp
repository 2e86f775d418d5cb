// sched/yield.cpp - SchedYield, the one place where a user thread gives up the processor.
//
// A yield files the caller in the list that its reason names, reaps what is cheap to reap, picks the next
// fiber by a fixed order of lists and queues, and switches to it. Everything runs on the scheduler's own
// thread; it takes no lock, allocates nothing and makes no system call unless something waits to be reaped
// (a word of attention, the list of messages, the mask of lanes, a few words of the ring) or nothing is runnable.
//
// The cycle counter is read once a switch: what ends one fiber's account starts the next one's. It is read
// again only where time passed that belongs to nobody (the idle routine ran).
#include "diag/timeline.h"
#include "diag/timesource.h"
#include "diag/trace.h"
#include "sched/internal.h"
#include "sched/upcalls.h"

namespace zvx {

void AccountCpu(Scheduler *S, Fiber *F) {
    if (gNumContextSwitchesBeforePolling == 0) return;
    uint64_t now = ReadTsc();
    if (now > S->DispatchTsc) {
        const uint64_t held = now - S->DispatchTsc;
        F->CpuCycles += held;
        if (held > S->LongestHold) [[unlikely]] NoteLongHold(S, F, held);
    }
    S->DispatchTsc = now;
}

void StartCpuClock(Scheduler *S) {
    if (gNumContextSwitchesBeforePolling == 0) return;
    S->DispatchTsc = ReadTsc();
}

namespace {

// Reasons other than the common Yield_USER.
[[gnu::noinline]] void FileOtherReason(Scheduler *S, Fiber *F, uint32_t reason) {
    switch (reason) {
        case Yield_SCHED:
            F->State = FSTATE_SCHED_YIELD;
            AppendRunQueue(S, gORQ, F);
            S->BackgroundRunnable++;
            return;
        case Yield_TIMER_WAIT:
            F->State = FSTATE_TIMED_WAIT;
            if (F->Flags & FIBER_POLL_OWN_OVS) FilePollRecord(S, OvRecord(F->CurOv));
            FileTimedWaiter(S, F);
            return;
        case Yield_IO_WAIT:
            F->State = FSTATE_IO_WAIT;
            AppendLink(&S->IoWaiters, &F->RunLink);
            FilePollRecord(S, OvRecord(F->CurOv));
            return;
        case Yield_EXIT:
            F->State = FSTATE_EXITED;
            AppendLink(&S->ExitedFibers, &F->RunLink);
            S->Attention |= kAttNoPortCheck;
            return;
        case Yield_MIGRATE:
            F->State = FSTATE_MIGRATING;
            AppendLink(&S->MigrationQueue, &F->RunLink);
            S->FiberCount.store(S->FiberCount.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
            S->Attention |= kAttNoPortCheck;
            return;
        case Yield_POSTER:
            F->State = FSTATE_POSTING;  // the poster has queued itself behind the fiber it posted
            return;
        case Yield_LATCH_FREE:
            F->State = FSTATE_LATCH_SLEEP;
            AppendMasked(S, &S->LatchSleepers, kMaskLatch, F);
            S->LatchSkip = S->LatchSleepers.Count == 1 ? 1 : 0;
            return;
        default:
            FatalExit("Invalid yield reason %d\n", static_cast<int>(reason));
    }
}

// Reaps the sources of the queues between HPRQ and LPRQ, in their order, stopping at the first queue that
// has work: what comes after it need not be looked at yet. A full sweep that is due looks at all of them.
void ReapSources(Scheduler *S) {
    for (uint32_t q = gHPRQ + 1; q < gLPRQ; ++q) {
        ReapQueueSource(S, q);
        if (S->RunQueues[q].Count == 0) continue;
        if (OptionSet(su_PFOneRQ) && (q == gPRQ || q == gFRQ)) {
            uint32_t partner = q == gPRQ ? gFRQ : gPRQ;
            if (partner > q) ReapQueueSource(S, partner);
        }
        if (S->SelectPasses <= kFullSweepPasses) return;
    }
}

// Something asks for attention: operations or messages, before the next fiber is picked.
[[gnu::noinline]] void ReapWhatEnded(Scheduler *S) {
    if (IoWaiting(S)) HandOverEnded(S);
    if (S->Attention & kAttEndedHigh) ConsumeEnded(S, kPollHigh, false);
    if (S->RunQueues[gHPRQ].Count == 0 || S->SelectPasses > kFullSweepPasses) ReapSources(S);
}

// Every runnable fiber goes to ReadyList in the order of the lists, so that each is served in arrival order
// and none waits longer than a thousand passes in a low queue.
[[gnu::noinline]] void FullSweep(Scheduler *S) {
    PollOvLists(S, true);
    ChkTimeForTimerQ(S);
    // A scheduler that never idles must not run out of stacks. The fiber that leaves in this very pass
    // still runs on its own.
    if (!NoPortCheck(S)) FreeExitedFibers(S);
    ReleaseRetired(S);
    SpliceAll(&S->ReadyList, &S->LatchSleepers);
    for (uint32_t q = 0; q < 6; ++q) {
        if (S->Unsorted[q] != 0) SortQueue(S, q);
        SpliceAll(&S->ReadyList, &S->RunQueues[q]);
    }
    S->QueueMask = S->ReadyList.Count != 0 ? kMaskReady : 0;
    S->SelectPasses = 0;
}

// The head of the queue to serve when ReadyList, LatchSleepers and LPRQ gave nothing.
Fiber *TakeFromRunQueues(Scheduler *S, uint32_t mask) {
    uint32_t q = static_cast<uint32_t>(__builtin_ctz(mask));
    if (S->Unsorted[q] != 0) [[unlikely]] SortQueue(S, q);
    Fiber *N = FiberOfRunLink(FirstLink(&S->RunQueues[q]));
    if (OptionSet(su_PFOneRQ) && (q == gPRQ || q == gFRQ)) [[unlikely]] {
        uint32_t partner = q == gPRQ ? gFRQ : gPRQ;
        if (S->RunQueues[partner].Count != 0) {
            if (S->Unsorted[partner] != 0) SortQueue(S, partner);
            Fiber *other = FiberOfRunLink(FirstLink(&S->RunQueues[partner]));
            if (other->LastRunStamp > N->LastRunStamp) {
                N = other;
                q = partner;
            }
        }
    }
    UnlinkMasked(S, &S->RunQueues[q], 1u << q, N);
    S->LastQueue = (q == gORQ || q == gLPRQ || q == gHPRQ) ? 6 : q;
    return N;
}

// LatchSleepers on odd passes and LPRQ ahead of every queue; null when neither is to be served now.
[[gnu::noinline]] Fiber *TakeLatchOrLprq(Scheduler *S, uint32_t mask, uint32_t switchCount) {
    if ((mask & kMaskLatch) && (switchCount & 1)) {
        if (S->LatchSkip == 0) {
            Fiber *N = FiberOfRunLink(FirstLink(&S->LatchSleepers));
            UnlinkMasked(S, &S->LatchSleepers, kMaskLatch, N);
            return N;
        }
        S->LatchSkip = 0;
    }
    if (mask & (1u << gLPRQ)) {
        if (S->LprqDelay == 0) {
            Fiber *N = FiberOfRunLink(FirstLink(&S->RunQueues[gLPRQ]));
            UnlinkMasked(S, &S->RunQueues[gLPRQ], 1u << gLPRQ, N);
            return N;
        }
        S->LprqDelay--;
    }
    return nullptr;
}

// One selection pass after another until a fiber may run. `ranIdle` tells that the idle routine ran on the
// current stack for more than a look, so that the time since the last reading of the cycle counter is nobody's.
Fiber *SelectNext(Scheduler *S, bool *ranIdle) {
    for (;;) {
        S->SelectPasses++;
        S->QuantumStartTick.store(gQuantumTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
        if (S->SelectPasses > kFullSweepPasses) [[unlikely]] FullSweep(S);
        uint32_t switchCount = S->SwitchCount.load(std::memory_order_relaxed) + 1;
        // Release: what this thread read of retired records happened before the pass that others wait for.
        S->SwitchCount.store(switchCount, std::memory_order_release);

        Fiber *N = nullptr;
        uint32_t mask = S->QueueMask;
        if (mask & kMaskReady) {
            N = FiberOfRunLink(FirstLink(&S->ReadyList));
            UnlinkMasked(S, &S->ReadyList, kMaskReady, N);
        } else {
            if (mask & (kMaskLatch | (1u << gLPRQ))) [[unlikely]] N = TakeLatchOrLprq(S, mask, switchCount);
            if (N == nullptr) {
                uint32_t queues = mask & kMaskRunQueues;
                if (queues == 0) continue;  // only latch sleepers, on an even pass or skipped once
                N = TakeFromRunQueues(S, queues);
            }
        }

        if (&N->RunLink == S->InitFiberLink && !NoPortCheck(S)) [[unlikely]] {
            // Running the idle routine here saves two switches. After an exit or a migration the switch must
            // be real, because this stack is about to go away.
            S->BackgroundRunnable--;
            *ranIdle |= InitFiberRoutine(S);
            S->BackgroundRunnable++;
            AppendRunQueue(S, gORQ, N);
            continue;
        }
        if (N->State == FSTATE_SCHED_YIELD && S->BackgroundRunnable != 0) S->BackgroundRunnable--;
        if (N->SuspendCount.load(std::memory_order_relaxed) != 0 &&
            !(N->Flags & (FIBER_TERMINATE | FIBER_EXITING))) [[unlikely]] {
            N->State = FSTATE_SUSPENDED;
            AppendLink(&S->SuspendedFibers, &N->RunLink);
            continue;
        }
        return N;
    }
}

// With thousands of user threads everything of one was evicted since it last ran, and each thing leads to the
// next: the link to the record, the record to the context, the context to the stack. So they are fetched at
// different distances: the record of the third in the queue, the context of the second, the stack of the first, each
// through what an earlier switch has fetched already.
inline void PrefetchAhead(Scheduler *S) {
    uint32_t mask = S->QueueMask;
    if (mask == 0) return;
    ListHead *list = (mask & kMaskReady) ? &S->ReadyList
                                         : &S->RunQueues[static_cast<uint32_t>(__builtin_ctz(mask | (1u << gORQ)))];
    if (list->Count < 4) return;  // few enough to stay in the cache by themselves
    ListLink *first = FirstLink(list);
    os::PrefetchFiber(FiberOfRunLink(first)->OsFiber);
    ListLink *second = first->Next;
    __builtin_prefetch(FiberOfRunLink(second)->OsFiber, 1);
    ListLink *third = second->Next;
    __builtin_prefetch(third, 1);
    __builtin_prefetch(reinterpret_cast<char *>(third) + 64, 1);
}

[[gnu::noinline]] Fiber *CallSwitchHook(Scheduler *S) { return static_cast<Fiber *>(S->SwitchHook()); }

// Saves F's side, installs N's and switches. Returns when F runs again.
void SwitchTo(Fiber *F, Fiber *N) {
    Scheduler *S = SchedOf(F);
    for (;;) {
        S->Attention &= ~kAttNoPortCheck;
        if (!(N->Flags & FIBER_STARTED)) [[unlikely]] StartCpuClock(S);
        os::ThreadBlock *block = S->Os;
        block->Slots = N->TlsValues;
        block->LastError = N->LastError;
        block->StaticTls = N->StaticTls;
        block->InlineBudget = os::kInlineIoBudget;
        PrefetchAhead(S);
        os::SwitchToFiber(block, N->OsFiber);
        // Here F runs again, after a migration on another scheduler's thread: nothing of before is used.
        S = SchedOf(F);
        if (S->SwitchHook == nullptr) [[likely]] break;
        N = CallSwitchHook(S);
    }
    F->LastRunStamp = S->SwitchCount.load(std::memory_order_relaxed);
}

}  // namespace

void SchedYield(Fiber *F, uint32_t reason) {
    for (;;) {
        Scheduler *S = SchedOf(F);
        if (S->SwitchesSinceIdle < gNumContextSwitchesBeforePolling) S->SwitchesSinceIdle++;
        if (F->Role == ROLE_SHAD) S->ShadowYields++;
        AccountCpu(S, F);
        F->ParkedTsc = S->DispatchTsc;
        if (F->State != FSTATE_RUNNING) [[unlikely]]
            FatalExit("Recursive SchedYield detected current->State[%d]", static_cast<int>(F->State));
        F->LastError = S->Os->LastError;
        ZVX_CHECK(S->Os->SpinLocksHeld == 0);

        if (reason == Yield_USER) {
            F->State = FSTATE_YIELDED;
            if (S->Unsorted[gORQ] != 0) [[unlikely]] NoteAppended(S, gORQ, F);  // as AppendRunQueue
            AppendMasked(S, &S->RunQueues[gORQ], 1u << gORQ, F);
        } else {
            FileOtherReason(S, F, reason);
        }

        if ((S->Attention & kAttEnded) || MessagesWaiting(S) || IoWaiting(S))
            [[unlikely]]
            ReapWhatEnded(S);
        if (!NoPortCheck(S)) {
            if (S->PortPollCountdown == 0) [[unlikely]]
                PollPort(S, 0);
            else
                S->PortPollCountdown--;
        }

        bool ranIdle = false;
        Fiber *N = SelectNext(S, &ranIdle);
        N->State = FSTATE_RUNNING;
        if (S->Timeline != nullptr) [[unlikely]] RecordSwitch(S, F, reason, N);
        if (N == F) {
            S->Os->LastError = F->LastError;
            S->Os->InlineBudget = os::kInlineIoBudget;
            if (ranIdle) StartCpuClock(S);
        } else {
            if (ranIdle) StartCpuClock(S);
            SwitchTo(F, N);
            S = SchedOf(F);
        }

        if (!(F->Flags & (FIBER_TERMINATE | FIBER_EXEC_PENDING))) [[likely]] return;
        if ((F->Flags & FIBER_TERMINATE) && !(F->Flags & FIBER_EXITING))
            ExitUserThread(F, F->ExitCode, true);
        if (!(F->Flags & FIBER_EXEC_PENDING) || (F->Flags & (FIBER_EXEC_RUNNING | FIBER_TERMINATE | FIBER_EXITING)))
            return;
        if (!ExecRoutineInFiber(S, F, &reason)) return;
    }
}

}  // namespace zvx
