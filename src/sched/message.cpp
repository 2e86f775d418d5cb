// sched/message.cpp - requests to a scheduler about one of its fibers.
//
// Any thread may send: it pushes the message with one exchange. The receiver takes everything at once and works on it
// in the order in which it was sent. A target that waits in its port is woken by a packet with key 1.
//
// No message is lost: the receiver sets BlockedInPort and then looks at Messages before it waits, and a sender pushes
// and then looks at BlockedInPort, both sequentially consistent. So either the receiver sees the message, or the
// sender sees the flag. Of several senders the one that clears the flag posts the packet. Posts through a lane follow
// the same rule, the slot's Seq in the place of Messages.
#include "alloc/alloc.h"
#include "sched/internal.h"

namespace zvx {

FIBER_MESSAGE *AllocMessage(Scheduler *from, Scheduler *to, uint8_t kind) {
    auto *msg = static_cast<FIBER_MESSAGE *>(AllocChunk(&gAllocTypes[ALLOC_FIBER_MESSAGE], from, to->NumaNode));
    msg->Next = nullptr;
    msg->Kind = kind;
    msg->Count = 0;
    msg->PostBit = 0;
    msg->Generation = 0;
    msg->One = {nullptr, 0, nullptr};
    return msg;
}

void WakeScheduler(Scheduler *target, Scheduler *from) {
    os::PostQueuedCompletionStatus(target->Port, 0, KEY_MESSAGES, reinterpret_cast<OVERLAPPED *>(from));
}

static void PushMessage(Scheduler *target, FIBER_MESSAGE *msg) {
    // Guessing that it is empty saves a look at a line that another processor has just written.
    FIBER_MESSAGE *newest = nullptr;
    do {
        msg->Next = newest;
    } while (
        !target->Messages.compare_exchange_weak(newest, msg, std::memory_order_seq_cst, std::memory_order_relaxed));
}

// The sender has pushed, sequentially consistent. True when the target was blocked.
static bool WakeIfBlocked(Scheduler *target, bool mayWake) {
    const bool blocked = target->BlockedInPort.load(std::memory_order_seq_cst) != 0;
    if (blocked && mayWake && target->BlockedInPort.exchange(0, std::memory_order_relaxed) != 0) {
        Fiber *sender = CallingFiber();
        WakeScheduler(target, sender != nullptr ? SchedOf(sender) : nullptr);
    }
    return blocked;
}

bool SendMessage(Scheduler *target, FIBER_MESSAGE *msg) {
    // The receiver may free the message the moment it is pushed.
    const bool mayWake = msg->Kind == MSG_OBJECTS || msg->Kind == MSG_POST || gPortWaitMs > 1;
    PushMessage(target, msg);
    return WakeIfBlocked(target, mayWake);
}

bool PostByLane(Scheduler *from, Scheduler *to, Fiber *T, uint32_t generation, uint32_t postBit) {
    PostLane *lane = &gPostLanes[to->Index][from->Index];
    if (lane->Sent - lane->TakenSeen == kLaneSlots) {
        lane->TakenSeen = lane->Taken.load(std::memory_order_acquire);
        if (lane->Sent - lane->TakenSeen == kLaneSlots) return false;
    }
    if (lane->Sent == 0) to->LaneMask.fetch_or(from->BitMaskId, std::memory_order_release);
    PostLane::Slot *slot = &lane->Slots[lane->Sent % kLaneSlots];
    slot->Generation = generation;
    slot->PostBit = postBit;
    slot->Target = T;
    slot->Seq.exchange(++lane->Sent, std::memory_order_seq_cst);
    WakeIfBlocked(to, true);
    return true;
}

static bool DrainLanes(Scheduler *S) {
    bool woke = false;
    for (uint32_t mask = S->LaneMask.load(std::memory_order_acquire); mask != 0; mask &= mask - 1) {
        PostLane *lane = &gPostLanes[S->Index][__builtin_ctz(mask)];
        while (const PostLane::Slot *slot = NextInLane(lane)) {
            Fiber *T = slot->Target;
            const bool stands = Generation(T) == slot->Generation;
            const uint32_t postBit = slot->PostBit;
            lane->Taken.store(lane->Taken.load(std::memory_order_relaxed) + 1, std::memory_order_release);
            if (stands) woke |= WakePosted(T, S, postBit);
        }
    }
    return woke;
}

// The target of a message of kinds 3 to 6 is on its way between two schedulers, or about to be: nobody may touch it.
static bool TargetInFlight(const Scheduler *S, const FIBER_MESSAGE *msg) {
    if (msg->Kind < MSG_SUSPEND || msg->Kind == MSG_OBJECTS) return false;
    if (Generation(msg->One.Target) != msg->Generation) return false;
    const Scheduler *owner = msg->One.Target->Sched.load(std::memory_order_acquire);
    return owner == nullptr || (owner == S && msg->One.Target->State == FSTATE_MIGRATING);
}

bool DrainMessages(Scheduler *S) {
    bool woke = false;
    FIBER_MESSAGE *later = nullptr;  // oldest first
    FIBER_MESSAGE **laterEnd = &later;
    while (MessagesWaiting(S)) {
        woke |= DrainLanes(S);
        // Written only when there is something: senders read the line for BlockedInPort.
        FIBER_MESSAGE *newest = S->Messages.load(std::memory_order_relaxed);
        if (newest != nullptr) newest = S->Messages.exchange(nullptr, std::memory_order_acquire);
        FIBER_MESSAGE *oldest = nullptr;
        while (newest != nullptr) {
            FIBER_MESSAGE *before = newest->Next;
            newest->Next = oldest;
            oldest = newest;
            newest = before;
        }
        while (oldest != nullptr) {
            FIBER_MESSAGE *msg = oldest;
            oldest = msg->Next;
            if (TargetInFlight(S, msg)) [[unlikely]] {
                msg->Next = nullptr;
                *laterEnd = msg;
                laterEnd = &msg->Next;
            } else {
                woke |= ProcessMessage(S, msg);
            }
        }
    }
    while (later != nullptr) [[unlikely]] {
        FIBER_MESSAGE *msg = later;
        later = msg->Next;
        PushMessage(S, msg);
    }
    return woke;
}

// The target of a message of kinds 3 to 6 has left S since it was sent: the scheduler that has it now gets
// the message.
static bool PassedOn(Scheduler *S, FIBER_MESSAGE *msg) {
    Scheduler *owner = msg->One.Target->Sched.load(std::memory_order_acquire);
    if (owner == S || owner == nullptr) return false;
    SendMessage(owner, msg);
    return true;
}

// While a routine is pending the count of before is put aside in ExecSave; what arrives meanwhile raises the
// visible one and is added to the other when the routine has finished.
//
// The sender waits for the answer to its own request: with two senders, a count of requests alone would let one
// return before its request was handled, and its resume would then find nothing to take back. The answer goes to
// the sender's record, which is never freed. Requests are numbered in their order and an answer only raises the word,
// so that one which comes late, when the record stands for another thread, hides none of that thread's.
static void ProcessSuspend(Scheduler *S, Fiber *F, const FIBER_MESSAGE *msg) {
    uint32_t count = F->SuspendCount.load(std::memory_order_relaxed);
    if (count < 127) F->SuspendCount.store(count + 1, std::memory_order_release);
    F->SuspendRequests.fetch_add(1, std::memory_order_release);
    // A suspended thread takes no object: it parks at the next selection, and waits anew when it is resumed.
    if (F->Flags & FIBER_OBJECT_WAIT) WakeFromObject(S, F);
    auto *answer = reinterpret_cast<std::atomic<uintptr_t> *>(msg->One.ExitCode);
    if (answer == nullptr) return;
    const auto request = reinterpret_cast<uintptr_t>(msg->One.Routine);
    uintptr_t before = answer->load(std::memory_order_relaxed);
    while (before < request &&
           !answer->compare_exchange_weak(before, request, std::memory_order_release, std::memory_order_relaxed)) {
    }
}

static bool ProcessResume(Scheduler *S, Fiber *F) {
    uint32_t count = F->SuspendCount.load(std::memory_order_relaxed);
    if (count != 0) {
        F->SuspendCount.store(count - 1, std::memory_order_release);
        return count == 1 && CheckTimerQueue(S);
    }
    if ((F->Flags & FIBER_EXEC_PENDING) && !(F->Flags & (FIBER_TERMINATE | FIBER_EXITING)) &&
        F->ExecSave.SuspendCount != 0)
        F->ExecSave.SuspendCount--;
    return false;
}

static void ProcessTerminate(Scheduler *S, Fiber *F, uint32_t exitCode) {
    if (F->Flags & (FIBER_EXITING | FIBER_TERMINATE)) return;
    F->ExitCode = exitCode;
    F->Flags |= FIBER_TERMINATE;
    WakeForMessage(S, F);
    CancelOwnIo(S, F);
}

static void ProcessExec(Scheduler *S, Fiber *F, void *routine) {
    if (F->Flags & (FIBER_EXITING | FIBER_TERMINATE | FIBER_EXEC_PENDING)) return;
    if (F->State == FSTATE_TIMED_WAIT && F->WaitTimeoutMs != INFINITE) {
        // The remainder is measured only when it is needed, and it is needed now.
        uint64_t now = os::GetTickCount64();
        uint64_t left = F->WaitDeadline > now ? F->WaitDeadline - now : 0;
        if (left < F->WaitTimeoutMs) F->WaitTimeoutMs = static_cast<uint32_t>(left);
    }
    F->ExecSave.Routine = reinterpret_cast<void (*)()>(routine);
    F->ExecSave.State = F->State;
    F->ExecSave.PollOwnOvs = F->Flags & FIBER_POLL_OWN_OVS;
    F->ExecSave.ObjectWait = F->Flags & FIBER_OBJECT_WAIT;
    F->ExecSave.WaitTimeoutMs = F->WaitTimeoutMs;
    F->ExecSave.WaitStartTick = F->WaitStartTick;
    F->ExecSave.SuspendCount = F->SuspendCount.load(std::memory_order_relaxed);
    F->ExecSave.CurOv = F->CurOv;
    F->Flags |= FIBER_EXEC_PENDING;
    F->RoutineEpoch.store(F->RoutineEpoch.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    F->SuspendCount.store(0, std::memory_order_release);
    WakeForMessage(S, F);
}

bool ProcessMessage(Scheduler *S, FIBER_MESSAGE *msg) {
    bool woke = false;
    switch (msg->Kind) {
        case MSG_POST:
            for (uint32_t i = 0; i < msg->Count; ++i)
                if (Generation(msg->Fibers[i]) == *GenerationOfTarget(msg, i))
                    woke |= WakePosted(msg->Fibers[i], S, msg->PostBit);
            break;
        case MSG_OBJECTS: return WakeFromObjects(S);  // the scheduler's own record
        case MSG_ATTACH:
            for (uint32_t i = 0; i < msg->Count; ++i) woke |= AttachFiber(S, msg->Fibers[i]);
            break;
        default: {
            Fiber *F = msg->One.Target;
            if (Generation(F) != msg->Generation) break;
            if (PassedOn(S, msg)) return false;
            if (msg->Kind == MSG_SUSPEND) {
                ProcessSuspend(S, F, msg);
            } else if (msg->Kind == MSG_RESUME) {
                woke = ProcessResume(S, F);
            } else if (msg->Kind == MSG_TERMINATE) {
                ProcessTerminate(S, F, static_cast<uint32_t>(msg->One.ExitCode));
                woke = true;
            } else if (msg->Kind == MSG_EXEC) {
                ProcessExec(S, F, msg->One.Routine);
                woke = true;
            }
        }
    }
    FreeChunk(&gAllocTypes[ALLOC_FIBER_MESSAGE], S, msg, S->NumaNode);
    return woke;
}

bool AttachFiber(Scheduler *S, Fiber *F) {
    switch (F->State) {
        case FSTATE_READY:
        case FSTATE_YIELDED: break;
        case FSTATE_MIGRATING:
            F->State = FSTATE_READY;
            AppendLink(&S->AllFibers, &F->SchedFibersLink);
            break;
        case FSTATE_SCHED_YIELD: S->BackgroundRunnable++; break;
        case FSTATE_CREATED:
            F->State = FSTATE_READY;
            S->InTransit.fetch_sub(1, std::memory_order_relaxed);
            break;
        default: return false;
    }
    F->LastRunStamp = 0;
    SetSched(F, S, std::memory_order_release);
    AppendRunQueue(S, gORQ, F);
    S->FiberCount.store(S->FiberCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

bool WakePosted(Fiber *F, Scheduler *S, uint32_t postBit) {
    if (SchedOf(F) != S) return false;  // it has moved; the post is dropped
    return SetPost(S, F, postBit) != kNotWoken;
}

uint32_t SetPost(Scheduler *S, Fiber *F, uint32_t postBit) {
    F->PostPending |= postBit;
    if (F->State != FSTATE_TIMED_WAIT || !(F->Flags & FIBER_POST_WAIT) || !(F->PostWaitMask & postBit))
        return kNotWoken;
    UnlinkTimedWaiter(S, F);
    if (S->HighPriPostWaiter == F) S->HighPriPostWaiter = nullptr;
    return MakeRunnable(S, F, gPRQ);
}

void WakeForMessage(Scheduler *S, Fiber *F) {
    switch (F->State) {
        case FSTATE_READY:
        case FSTATE_CREATED:
            S->SelectPasses = kFullSweepPasses + 1;  // runnable already: let the next pass serve it first
            break;
        case FSTATE_SUSPENDED:
            UnlinkFrom(&S->SuspendedFibers, &F->RunLink);
            F->State = FSTATE_READY;
            AppendReady(S, F);
            break;
        case FSTATE_TIMED_WAIT:
            UnlinkTimedWaiter(S, F);
            if (F->Flags & FIBER_POLL_OWN_OVS) {
                if (F->CurOv != nullptr) UnfilePollRecord(S, OvRecord(F->CurOv));
                EmptyPollSet(F);
            }
            if ((F->Flags & FIBER_POST_WAIT) && S->HighPriPostWaiter == F) S->HighPriPostWaiter = nullptr;
            F->State = FSTATE_READY;
            AppendReady(S, F);
            break;
        case FSTATE_IO_WAIT:
            UnfilePollRecord(S, OvRecord(F->CurOv));
            UnlinkFrom(&S->IoWaiters, &F->RunLink);
            F->State = FSTATE_READY;
            AppendReady(S, F);
            break;
        default: break;
    }
    F->Flags &= ~static_cast<uint32_t>(FIBER_POLL_OWN_OVS);
    F->IoWaitOv = nullptr;
}

bool SendFiberToScheduler(Fiber *F, Scheduler *from, Scheduler *to) {
    FIBER_MESSAGE *msg = AllocMessage(from, to, MSG_ATTACH);
    msg->Count = 1;
    msg->Fibers[0] = F;
    SendMessage(to, msg);
    return true;
}

}  // namespace zvx
