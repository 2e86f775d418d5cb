// sched/objects.cpp - waits for objects of the operating system: events, semaphores, mutexes, threads.
//
// The wait is parked with its objects and the user thread in TimedWaiters or InfiniteWaiters, so that it costs nothing
// until one of the two wakes it. Whoever signals an object takes it on behalf of the oldest wait; the scheduler
// learns of it by a message, which ends its wait in the port.
//
// Always true: the wait of a fiber is with its objects exactly while FIBER_OBJECT_WAIT is set, and then the fiber is in
// FSTATE_TIMED_WAIT or on its way into it. Every road out of that state withdraws it (LeaveObjects), before the
// fiber can run: what ends it otherwise - its time, a suspension, a routine, a termination - leaves nothing behind
// that a grant could reach. A grant that comes before the withdrawal counts, whatever else happened: a thread that is
// terminated then had what it waited for.
//
// Runs on the scheduler's thread, AnnounceObjects on whichever thread signals. Takes the platform's lock of waits, for
// some dozens of instructions; allocates nothing.
#include "sched/internal.h"

namespace zvx {

// Any thread. The record is in use from here to WakeFromObjects, and the sink tells nothing in between.
static void AnnounceObjects(os::WaitSink *sink) {
    Scheduler *S = ZVX_RECORD_OF(sink, Scheduler, ObjectSink);
    SendMessage(S, &S->ObjectMessage);
}

void InitObjectSink(Scheduler *S) {
    S->ObjectSink = {AnnounceObjects, nullptr, nullptr, nullptr, false};
    S->ObjectMessage.Kind = MSG_OBJECTS;
}

void LeaveObjects(Fiber *F) {
    os::WithdrawWait(F->ObjectWait);
    F->ObjectWait = nullptr;
    F->Flags &= ~static_cast<uint32_t>(FIBER_OBJECT_WAIT);
}

void WakeFromObject(Scheduler *S, Fiber *F) {
    UnlinkTimedWaiter(S, F);
    MakeRunnable(S, F, gORQ);
}

bool WakeFromObjects(Scheduler *S) {
    constexpr uint32_t kAtOnce = 32;
    void *owners[kAtOnce];
    bool woke = false;
    uint32_t count;
    do {
        count = os::TakeWoken(&S->ObjectSink, owners, kAtOnce);
        for (uint32_t i = 0; i < count; ++i) {
            Fiber *F = static_cast<Fiber *>(owners[i]);
            ZVX_CHECK(F->State == FSTATE_TIMED_WAIT && (F->Flags & FIBER_OBJECT_WAIT) && SchedOf(F) == S);
            WakeFromObject(S, F);
            woke = true;
        }
    } while (count == kAtOnce);
    return woke;
}

// The wait itself. infinite: there is no deadline, a 64-bit tick.
static DWORD WaitParked(Fiber *F, DWORD count, const HANDLE *handles, BOOL waitAll, os::ParkedRoom room) {
    const bool infinite = F->WaitTimeoutMs == INFINITE;
    const uint64_t deadline = os::GetTickCountUp() + F->WaitTimeoutMs;
    os::ParkedWait wait;
    wait.Owner = F;
    for (;;) {
        const DWORD result = os::ParkWait(&wait, &SchedOf(F)->ObjectSink, count, handles, waitAll, room);
        if (result != WAIT_TIMEOUT) return result;
        F->ObjectWait = &wait;
        F->Flags |= FIBER_OBJECT_WAIT;
        SchedYield(F, Yield_TIMER_WAIT);
        if (wait.Result != WAIT_TIMEOUT) return wait.Result;
        if (infinite) {
            F->WaitTimeoutMs = INFINITE;
            continue;
        }
        const uint64_t now = os::GetTickCount64();
        F->WaitTimeoutMs = now < deadline ? static_cast<uint32_t>(deadline - now) : 0;
        // A thread that was stopped beyond its time still takes what is there when it goes on.
        if (F->WaitTimeoutMs == 0) return os::WaitForMultipleObjects(count, handles, waitAll, 0);
    }
}

// A frame of its own: a thread that waits for one object keeps to the little stack that it has touched already.
[[gnu::noinline]] static DWORD WaitForMany(Fiber *F, DWORD count, const HANDLE *handles, BOOL waitAll) {
    void *objects[MAXIMUM_WAIT_OBJECTS];
    alignas(8) char blocks[MAXIMUM_WAIT_OBJECTS][os::kWaitBlockBytes];
    return WaitParked(F, count, handles, waitAll, {objects, blocks});
}

DWORD WaitForObjects(Fiber *F, DWORD count, const HANDLE *handles, BOOL waitAll) {
    if (count != 1) return WaitForMany(F, count, handles, waitAll);
    void *object;
    alignas(8) char block[1][os::kWaitBlockBytes];
    return WaitParked(F, 1, handles, FALSE, {&object, block});
}

}  // namespace zvx
