// dedicated/exec.cpp - routines that one user thread runs on the stack of another.
//
// The sender only queues a message. The target's scheduler puts the interrupted wait aside in ExecSave and makes the
// target runnable; the target runs the routine inside its own SchedYield, at its next dispatch, and then returns to
// what it was waiting for. Nothing here takes a lock.
//
// What the routine may change under the interrupted wait, and who puts it back:
//   - State, the time-out, the suspend count, CurOv and FIBER_POLL_OWN_OVS: saved when the message arrives, restored
//     here. A suspension that arrives while the routine runs stops the routine, and is added to the saved count;
//   - resources of the wait: its clean-up functions, with codes 2 and 3;
//   - the deadline, the mark of a polled wait and the last error: kept on this stack. The time that the routine took
//     counts, as it would have passed without it.
#include "dedicated/dedicated.h"
#include "diag/trace.h"
#include "kernel/handles.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

namespace {

constexpr uint32_t kMostSuspends = 127;

// What becomes of the interrupted wait; true when F must wait again, for *reason.
bool ResumeWait(Fiber *F, uint32_t state, bool slice, uint32_t *reason) {
    switch (state) {
        case FSTATE_SCHED_YIELD:  // it looks again and again in the background: a select, a move that waits
        case FSTATE_READY:
        case FSTATE_CREATED:
        case FSTATE_YIELDED:
        case FSTATE_POSTING:
        case FSTATE_LATCH_SLEEP: return false;
        case FSTATE_TIMED_WAIT:
            if (F->ExecSave.ObjectWait != 0) return false;  // it was withdrawn, and waits anew by itself
            if (F->Flags & FIBER_POLL_OWN_OVS) {
                // With operations outstanding the wait looks at them and goes on; without, nothing is left that could
                // end it, so it ends as if a completion routine had run.
                if (IsEmpty(&F->FileOvs) && IsEmpty(&F->SocketOvs)) F->ApcDelivered = 1;
                return false;
            }
            if ((F->Flags & FIBER_POST_WAIT) && (F->PostPending & F->PostWaitMask)) return false;
            if (slice) F->Flags |= FIBER_POLLED_WAIT;
            *reason = Yield_TIMER_WAIT;
            return true;
        case FSTATE_IO_WAIT:
            F->IoWaitOv = F->CurOv;
            *reason = Yield_IO_WAIT;
            return true;
        case FSTATE_SUSPENDED:
            *reason = Yield_USER;  // the restored count parks it at the next selection
            return true;
        default: FatalExit("ExecRoutineInFiber: Default restore");
    }
}

// The remainder of a finite wait that was to end at `deadline`.
uint32_t TimeLeft(uint64_t deadline, uint32_t most) {
    const uint64_t now = os::GetTickCount64();
    const uint64_t left = deadline > now ? deadline - now : 0;
    return left < most ? static_cast<uint32_t>(left) : most;
}

}  // namespace

bool ExecRoutineInFiber(Scheduler *S, Fiber *F, uint32_t *reason) {
    const bool timed = F->ExecSave.State == FSTATE_TIMED_WAIT;
    const bool slice = timed && (F->Flags & FIBER_SLICE_FILED) != 0;
    const uint64_t deadline = F->WaitDeadline;
    const DWORD lastError = os::GetLastError();
    F->Flags |= FIBER_EXEC_RUNNING;
    SuspendTermCleanups(F, S);

    F->ExecSave.Routine();

    S = SchedOf(F);  // the routine may have moved the thread
    os::SetLastError(lastError);
    RestoreTermCleanups(F, S);
    const ExecSaveRecord &save = F->ExecSave;
    F->Flags |= save.PollOwnOvs;
    F->WaitTimeoutMs = save.WaitTimeoutMs;
    F->WaitStartTick = save.WaitStartTick;
    if (timed && save.WaitTimeoutMs != INFINITE) F->WaitTimeoutMs = TimeLeft(deadline, save.WaitTimeoutMs);
    const uint32_t suspends = F->SuspendCount.load(std::memory_order_relaxed) + save.SuspendCount;
    F->SuspendCount.store(suspends < kMostSuspends ? suspends : kMostSuspends, std::memory_order_release);
    F->CurOv = save.CurOv;
    F->Flags &= ~static_cast<uint32_t>(FIBER_EXEC_PENDING | FIBER_EXEC_RUNNING);
    F->RoutineEpoch.store(F->RoutineEpoch.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    if (ResumeWait(F, save.State, slice, reason)) return true;
    if (suspends == 0) return false;
    *reason = Yield_USER;  // its wait is over, but it does not go on before it is resumed
    return true;
}

// ---- Exported ----------------------------------------------------------------------------------------

BOOL UserThreadExecRoutine(HANDLE thread, ZVXKVT_ROUTINE routine) {
    Fiber *C = CallingFiber();
    if (C == nullptr) {
        os::SetLastError(0xFFFFFFFF);
        return FALSE;
    }
    const PSEHAND *entry = LookUpHandle(thread);
    if (entry == nullptr || entry->OwnerFiber == nullptr || entry->Type != PHAND_HTYPE_PostEventHandle) {
        os::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // Records of user threads are never freed, so these two outlive the entry across the sleep below.
    Fiber *target = entry->OwnerFiber;
    const uint32_t generation = entry->OwnerGeneration;
    for (uint32_t looks = 0;; looks++) {
        if (Generation(target) != generation) {
            os::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        if (Scheduler *TS = target->Sched.load(std::memory_order_acquire); TS != nullptr) {
            FIBER_MESSAGE *msg = AllocMessage(SchedOf(C), TS, MSG_EXEC);
            msg->Count = 1;
            msg->Generation = generation;
            msg->One = {target, 0, reinterpret_cast<void *>(routine)};
            SendMessage(TS, msg);
            return TRUE;
        }
        AwaitAnswer(looks);  // between two schedulers there is nobody to talk to
    }
}

}  // namespace zvx
