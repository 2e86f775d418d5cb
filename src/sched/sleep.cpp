// sched/sleep.cpp - Sleep, SleepEx and ZSleepExN: waits for time, and for the caller's own operations.
//
// Runs on the calling user thread; outside fiber mode each passes to the operating system.
#include "sched/internal.h"

namespace zvx {

void Sleep(DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) {
        os::Sleep(ms);
        return;
    }
    if (F->State != FSTATE_RUNNING && ms == 0) {
        os::Sleep(0);
        return;
    }
    if ((F->Role == ROLE_SHAD || F->Role == ROLE_DBWR || F->Role == ROLE_LGWR) && ms <= gLFI) {
        SchedYield(F, Yield_LATCH_FREE);
    } else if (ms == 0) {
        SchedYield(F, Yield_USER);
    } else {
        F->WaitTimeoutMs = ms;
        SchedYield(F, Yield_TIMER_WAIT);
    }
}

void AwaitAnswer(uint32_t looks) {
    if (looks < 100) return Sleep(1);
    Fiber *F = CallingFiber();
    F->WaitTimeoutMs = 1;
    SchedYield(F, Yield_TIMER_WAIT);
}

// The host changes these words from wherever it likes.
static uint32_t HostWord(const uint32_t *word) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(*word)).load(std::memory_order_acquire);
}

// How many more operations must end before ZSleepExN's caller has anything to do, less the one that is waited
// on itself: they are gathered so that the fiber is not woken for each.
static uint32_t MoreToGather(const Fiber *F) {
    if (F->Role == ROLE_DBWR || F->SleepExNTarget <= 1 || !OptionSet(su_EnableSchedOpt1)) return 0;
    uint32_t count = HostWord(F->SleepExNCounter);
    uint32_t outstanding = HostWord(F->SleepExNOutstanding);
    if (count >= F->SleepExNTarget) return 0;
    uint32_t missing = F->SleepExNTarget - count;
    uint32_t n = outstanding < missing ? outstanding : missing;
    return n != 0 ? n - 1 : 0;
}

static bool SleepExDone(const Fiber *F) {
    if (F->WaitTimeoutMs == 0) return true;
    if (F->ApcDelivered && !HasOwnOperations(F)) return true;
    if (F->SleepExNTarget == 0 || HostWord(F->SleepExNCounter) >= F->SleepExNTarget) return true;
    return HostWord(F->SleepExNOutstanding) == 0;
}

DWORD SleepEx(DWORD ms, BOOL alertable) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::SleepEx(ms, alertable);
    if (!alertable || !HasOwnOperations(F)) {
        Sleep(ms);
        return 0;
    }
    if (ms == 0) LookForEnded(SchedOf(F));
    ReapOwnOvs(F, 3);
    if (F->ApcDelivered) {
        F->ApcDelivered = 0;
        return WAIT_IO_COMPLETION;
    }
    if (ms == 0) return 0;
    F->WaitTimeoutMs = ms;
    do {
        F->CurOv = GatherPollSet(F, 3, MoreToGather(F));
        F->Flags |= FIBER_POLL_OWN_OVS;
        SchedYield(F, Yield_TIMER_WAIT);
        F->Flags &= ~static_cast<uint32_t>(FIBER_POLL_OWN_OVS);
        ReapOwnOvs(F, 3);
    } while (!SleepExDone(F));
    if (F->ApcDelivered) {
        F->ApcDelivered = 0;
        return WAIT_IO_COMPLETION;
    }
    return 0;
}

// Codes: 1 termination, 2 a routine is about to be injected, 3 it has finished.
static void SleepExNCleanup(Fiber *F, Scheduler *, uintptr_t *args, uint32_t code) {
    if (code == 1 || code == 2) {
        F->SleepExNTarget = 0;
        F->SleepExNCounter = nullptr;
        F->SleepExNOutstanding = nullptr;
    } else if (code == 3) {
        F->SleepExNTarget = static_cast<uint32_t>(args[0]);
        F->SleepExNCounter = reinterpret_cast<const uint32_t *>(args[1]);
        F->SleepExNOutstanding = reinterpret_cast<const uint32_t *>(args[2]);
    }
}

BOOL ZSleepExN(DWORD reserved, DWORD target, DWORD *counter, DWORD *outstanding) {
    (void)reserved;
    Fiber *F = CallingFiber();
    if (F != nullptr) {
        uintptr_t *args = F->TermCleanup.Args[TermCleanupFuncSet(F, SleepExNCleanup)];
        args[0] = target;
        args[1] = reinterpret_cast<uintptr_t>(counter);
        args[2] = reinterpret_cast<uintptr_t>(outstanding);
        SleepExNCleanup(F, nullptr, args, 3);
    }
    BOOL reached = TRUE;
    while (target > HostWord(counter) && HostWord(outstanding) != 0) {
        DWORD result = F != nullptr ? SleepEx(INFINITE, TRUE) : os::SleepEx(INFINITE, TRUE);
        if (result != WAIT_IO_COMPLETION) {
            reached = FALSE;
            break;
        }
    }
    if (F != nullptr) {
        F->SleepExNTarget = 0;
        TermCleanupFuncRemove(F, SleepExNCleanup);
    }
    return reached;
}

}  // namespace zvx
