// postwait/post.cpp - posting user threads, and waiting for a post.
//
// A post to a thread of the same scheduler takes no lock and makes no system call: it sets a bit of the target and,
// if that waits for it, puts the target in a run queue. A post to another scheduler goes through the lane of the two,
// or in a message when that is full; the posts of one list share a message a scheduler, 16 targets each.
//
// Protocol. PostPending is written by the thread of the target's scheduler only: by a poster that runs there, or by
// that scheduler when it works on a lane or a message. PendingPosts belongs to the scheduler of the poster; a
// batch lives there only while one list is walked, which does not yield.
#include "alloc/alloc.h"
#include "diag/timeline.h"
#include "kernel/handles.h"
#include "kernel/wait.h"
#include "postwait/postwait.h"
#include "sched/sched.h"

namespace zvx {

namespace {

// ---- Posting -----------------------------------------------------------------------------------------

// T is runnable in `queue`. A poster of a lower class gives way to it: T runs next and the poster right behind it.
void HandOver(Scheduler *S, Fiber *T, uint32_t queue, Fiber *P) {
    if (P->SchedClass >= T->SchedClass || P->Role == ROLE_DBWR || P->Role == ROLE_LGWR) return;
    if (!OptionSet(su_YieldAfterHPPost)) return;
    P->LastRunStamp = T->LastRunStamp;
    InsertBehind(S, queue, T, P);
    SchedYield(P, Yield_POSTER);
}

void SendBatch(Scheduler *from, uint32_t index) {
    FIBER_MESSAGE *batch = from->PendingPosts[index];
    from->PendingPosts[index] = nullptr;
    SendMessage(gSchedulers[index], batch);
}

// TRUE as well for an event that is gone: there is nobody left to wake.
BOOL SignalEvent(HANDLE event) {
    return os::SetEvent(event) || os::GetLastError() == ERROR_INVALID_HANDLE;
}

// The user thread that an event stands for, with its generation, or null when the operating system's event is to be
// set: the handle is not known, stands for something else, or for a thread that has ended.
Fiber *PostTarget(HANDLE event, uint32_t *generation) {
    const PSEHAND *entry = LookUpHandle(event);
    if (entry == nullptr || entry->Type != PHAND_HTYPE_PostEventHandle || entry->OwnerFiber == nullptr) return nullptr;
    *generation = entry->OwnerGeneration;
    return Generation(entry->OwnerFiber) == *generation ? entry->OwnerFiber : nullptr;
}

int SignalAll(const HANDLE *events) {
    for (int i = 0; events[i] != nullptr; ++i)
        if (!SignalEvent(events[i])) return i;
    return -1;
}

}  // namespace

uint32_t Post(Fiber *T, uint32_t generation, PostMode mode, Fiber *P, uint32_t postBit) {
    Scheduler *to = T->Sched.load(std::memory_order_acquire);
    Scheduler *from = SchedOf(P);
    if (to == nullptr) return 0;
    CountOne(&from->Posts);
    NoteTimeline(from, kTimelinePost, T, postBit);
    if (to == from) {
        // After Sched: a record that is on its way here as another thread's has the new generation by then.
        if (Generation(T) != generation) [[unlikely]]
            return 0;
        const uint32_t queue = SetPost(to, T, postBit);
        if (queue != kNotWoken && mode == kPostSingle) HandOver(to, T, queue, P);
        return 0;
    }
    FIBER_MESSAGE *batch = from->PendingPosts[to->Index];
    if (mode != kPostMultiple && batch == nullptr && PostByLane(from, to, T, generation, postBit)) return 0;
    if (batch == nullptr) {
        batch = AllocMessage(from, to, MSG_POST);
        batch->PostBit = static_cast<uint16_t>(postBit);
        from->PendingPosts[to->Index] = batch;
    }
    // The generation goes along, so that a record that is reused before the message arrives is left alone.
    batch->Fibers[batch->Count] = T;
    *GenerationOfTarget(batch, batch->Count) = generation;
    batch->Count++;
    if (mode == kPostMultiple && batch->Count < 16) return to->BitMaskId;
    SendBatch(from, to->Index);
    return 0;
}

BOOL PostUserThread(HANDLE event) {
    Fiber *P = CallingFiber();
    uint32_t generation = 0;
    Fiber *T = P != nullptr ? PostTarget(event, &generation) : nullptr;
    if (T == nullptr) return SignalEvent(event);
    Post(T, generation, kPostSingle, P, POST_HOST);
    return TRUE;
}

int PostMultipleUserThreads(const HANDLE *events) {
    Fiber *P = CallingFiber();
    if (P == nullptr) return SignalAll(events);
    Scheduler *S = SchedOf(P);
    uint32_t waiting = 0;
    int failed = -1;
    for (int i = 0; events[i] != nullptr; ++i) {
        uint32_t generation = 0;
        if (Fiber *T = PostTarget(events[i], &generation)) {
            waiting |= Post(T, generation, kPostMultiple, P, POST_HOST);
        } else if (!SignalEvent(events[i])) {
            failed = i;
            break;
        }
    }
    // What has gathered is sent after a failure as well: those targets were posted before the one that could not be.
    for (; waiting != 0; waiting &= waiting - 1) {
        const auto index = static_cast<uint32_t>(__builtin_ctz(waiting));
        if (S->PendingPosts[index] != nullptr) SendBatch(S, index);
    }
    return failed;
}

// ---- Waiting -----------------------------------------------------------------------------------------

// Codes: 1 termination, 2 a routine is about to be injected, 3 it has finished.
void PostWaiterCleanup(Fiber *F, Scheduler *S, uintptr_t *args, uint32_t code) {
    if (code == 3) {
        F->PostWaitMask = static_cast<uint32_t>(args[0]);  // the routine may have waited for another one
        if (F->Role == ROLE_SHAD) SchedOf(F)->ShadowPostWaiters++;
        F->Flags |= FIBER_POST_WAIT;
        if (F->SchedClass == CLASS_HIGH && S->HighPriPostWaiter == nullptr) S->HighPriPostWaiter = F;
        return;
    }
    if (F->Role == ROLE_SHAD) SchedOf(F)->ShadowPostWaiters--;
    if (S->HighPriPostWaiter == F) S->HighPriPostWaiter = nullptr;
    F->Flags &= ~static_cast<uint32_t>(FIBER_POST_WAIT);
}

DWORD PostWait(Fiber *F, DWORD ms, uint32_t postBits, bool cleanup) {
    if ((F->PostPending & postBits) == 0) {
        if (ms == 0) return WAIT_TIMEOUT;
        Scheduler *S = SchedOf(F);
        F->WaitTimeoutMs = ms;
        F->PostWaitMask = postBits;
        if (F->SchedClass == CLASS_HIGH && S->HighPriPostWaiter == nullptr) S->HighPriPostWaiter = F;
        if (F->Role == ROLE_SHAD) S->ShadowPostWaiters++;
        F->Flags |= FIBER_POST_WAIT;
        if (cleanup) F->TermCleanup.Args[TermCleanupFuncSet(F, PostWaiterCleanup)][0] = postBits;
        SchedYield(F, Yield_TIMER_WAIT);
        if (cleanup) TermCleanupFuncRemove(F, PostWaiterCleanup);
        F->Flags &= ~static_cast<uint32_t>(FIBER_POST_WAIT);
        if (F->Role == ROLE_SHAD) SchedOf(F)->ShadowPostWaiters--;
        if ((F->PostPending & postBits) == 0) return WAIT_TIMEOUT;
    }
    F->PostPending &= ~postBits;
    return WAIT_OBJECT_0;
}

DWORD WaitForUserThreadPost(HANDLE event, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForSingleObject(event, ms);
    const PSEHAND *entry = LookUpHandle(event);
    if (entry == nullptr) {
        // Who is identified without an event sleeps all the same: a wait that fails at once is a loop without a pause.
        if (event == nullptr && F->PostEvent != nullptr && F->PostEventHandle == 0)
            return PostWait(F, ms, POST_HOST, true);
        return WaitForSingleObject(event, ms);
    }
    if (entry->Type == PHAND_HTYPE_PostEventNTHandle) {
        // The kernel thread itself waits; it serves this user thread alone. Others must not wait for its next pass
        // before they reuse a record, and nothing that was looked up is used after the wait.
        Scheduler *S = SchedOf(F);
        os::SubmitIo(S->Io);  // its own operations would begin when the wait is over
        S->BlockedOutside.store(1, std::memory_order_seq_cst);
        const DWORD result = os::WaitForSingleObject(event, ms);
        S->BlockedOutside.store(0, std::memory_order_seq_cst);
        return result;
    }
    return PostWait(F, ms, POST_HOST, true);
}

}  // namespace zvx
