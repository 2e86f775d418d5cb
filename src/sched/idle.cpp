// sched/idle.cpp - what a scheduler does when only background work is runnable: poll, spin, or wait in its
// port.
//
// Runs on the scheduler's thread, on the init fiber's stack or inline on that of a yielding fiber. The wait in
// the port is the only place where it blocks.
#include "diag/timeline.h"
#include "diag/timesource.h"
#include "sched/internal.h"

namespace zvx {

static bool LogWriterActive() {
    uint32_t now = os::GetTickCount();
    uint32_t last = gLgwrLastWriteTick.load(std::memory_order_relaxed);
    uint32_t since = now >= last ? now - last : now;
    return since <= gSpinIfLGWRActiveInMs ||
           gLgwrWritesLastPeriod.load(std::memory_order_relaxed) > gLGWRHighActivityNumIOsThreshold;
}

// Polls until there is work, or until what is polled is session network I/O whose budget is used up. True when
// there is work.
static bool Spin(Scheduler *S, bool lgwrActive, uint32_t waiters) {
    uint64_t t0 = ReadTsc();
    for (;;) {
        S->QuantumStartTick.store(gQuantumTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
        PollOvLists(S, true);
        S->IdleCalls++;
        if (S->IdleCalls > 10000) {
            uint64_t t = ReadTsc();
            if (t0 > t) t0 = t;
            if (t - t0 > gTscTicksPerMs) {
                t0 = t;
                if (S->PolledCount == S->NetCount && !lgwrActive && waiters == 0 && S->NetSpinBudget != 0)
                    S->NetSpinBudget--;
            }
            ChkTimeForTimerQ(S);
        }
        if (RunnableWork(S)) return true;
        if (S->PolledCount == S->NetCount && S->NetSpinBudget == 0 && !lgwrActive && waiters == 0) return false;
        if (S->PolledCount == 0 && waiters == 0) return false;
        os::CpuRelax();
    }
}

// Where the latest wait was ended by a message, the next one is likely to be near: a round trip between two schedulers
// takes a microsecond, and a sleep and a wake-up twenty times that. A look that was in vain is the last until a message
// ends a wait again, so a scheduler that gets none never looks.
static bool LookForMessages(Scheduler *S) {
    constexpr int kLooks = 800;  // pauses of 10 to 40 nanoseconds: about as long as a wake-up takes
    if (S->ExpectMessages == 0) return false;
    for (int i = 0; i < kLooks; ++i) {
        if (MessagesWaiting(S)) return true;
        os::CpuRelax();
    }
    S->ExpectMessages = 0;
    return false;
}

// How long the port may be waited in: 1 millisecond unless the host allowed more, and then no longer than the
// nearest time-out, because everything else that can happen wakes the scheduler.
static uint32_t PortWait(const Scheduler *S) {
    if (gPortWaitMs <= 1) return 1;
    // Fibers in state 2 other than the init fiber (which is not counted while it runs here) ask to run again
    // soon: an exit that drains its packets. A fiber in migration is handed on by the timer check.
    if (S->BackgroundRunnable != 0) return 1;
    if (S->MigrationQueue.Count != 0) return 1;
    uint32_t nearest = MsToNearestTimeout(S);
    if (nearest == 0) return 1;
    return nearest < gPortWaitMs ? nearest : gPortWaitMs;
}

// A period of many log writes counts for as long as no scheduler with few sessions has nothing to do.
static void ForgetLogActivity(const Scheduler *S) {
    if (S->ShadowCount.load(std::memory_order_relaxed) > gLGWRHighActivityNumShadowsThreshold) return;
    // Looked at first: the line belongs to the log writer's scheduler.
    if (gLgwrWritesLastPeriod.load(std::memory_order_relaxed) != 0)
        gLgwrWritesLastPeriod.store(0, std::memory_order_relaxed);
}

static bool Idle(Scheduler *S) {
    bool work = PollOvLists(S, false);
    S->IdleCalls++;
    if (S->IdleCalls > 10000) [[unlikely]] {
        ChkTimeForTimerQ(S);
        work = RunnableWork(S);
    }
    if (work) return false;
    ChkTimeForTimerQ(S);
    if (RunnableWork(S)) return true;
    if (PollOvLists(S, true)) return true;

    S->SelectPasses = 0;
    S->SwitchesSinceIdle = 0;
    ForgetLogActivity(S);
    bool lgwrActive = LogWriterActive();
    if (S->PolledCount == S->NetCount) {
        if (lgwrActive) {
            S->NetSpinBudget = gDefaultNetShadowSpinTimeMs;
        } else if (S->ShadowYields != 0) {
            S->ShadowYields = 0;
            S->NetSpinBudget = gDefaultNetShadowSpinTimeMs;
        }
    }
    uint32_t waiters = (S->HighPriPostWaiter != nullptr ? 1 : 0) + S->ShadowPostWaiters;
    if (lgwrActive && gNumContextSwitchesBeforePolling < kAlwaysPackets) {
        if ((S->PolledCount != 0 || waiters != 0) && Spin(S, true, waiters)) return true;
    } else if (S->PolledCount != 0) {
        if (Spin(S, lgwrActive, 0)) return true;
    }
    // Wait, and wait again for as long as nothing came that a pass through the selection would act on: after a
    // millisecond's sleep every line of code is cold, and this is what an idle process pays for.
    bool mayStay = S->PolledCount == 0 && (gNumContextSwitchesBeforePolling >= kAlwaysPackets || waiters == 0);
    do {
        FreeExitedFibers(S);
        ReleaseRetired(S);
        if (LookForMessages(S)) {
            PollOvLists(S, false);
            return true;
        }
        const uint32_t wait = PortWait(S);
        NoteTimeline(S, kTimelineIdle, nullptr, wait);
        PollPort(S, wait);
        NoteTimeline(S, kTimelineAwake, nullptr, 0);
        S->QuantumStartTick.store(gQuantumTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
        if (PollOvLists(S, false) || S->BackgroundRunnable != 0) return true;
        ForgetLogActivity(S);
        ChkTimeForTimerQ(S);
    } while (mayStay && S->PolledCount == 0 && !PollOvLists(S, true));
    return true;
}

bool InitFiberRoutine(Scheduler *S) {
    S->Idling.store(1, std::memory_order_relaxed);
    const bool slept = Idle(S);
    S->Idling.store(0, std::memory_order_relaxed);
    return slept;
}

}  // namespace zvx
