// platform/base/parked_wait.cpp - waits that park no kernel thread.
//
// A parked wait is a Waiter in the lists of its objects, without a thread that sleeps. What is done with it:
//
//   ParkWait, on the sink's thread: out of use -> linked in its objects
//   a grant, on any thread:         linked -> unlinked, State kGranted, in the sink
//   a closed handle, on any thread: linked -> linked and in the sink
//   TakeWoken, on the sink's thread: out of the sink
//   WithdrawWait, on the same:      unlinked, out of the sink, out of use
//
// All of it under the dispatcher lock, which also guards the sink. Announced is set by whoever puts the first wait into
// a sink and then tells it after the lock; TakeWoken, which the telling leads to, clears it when it leaves the sink
// empty. So a sink is told once for any number of wake-ups, and none comes after the last look without being told.
//
// Nothing here blocks or allocates.
#include <cstring>
#include <new>

#include "platform/base/wait.h"

namespace os {

struct ParkedWaiter : Waiter {
    ParkedWait *Wait;     // init
    WaitSink *Sink;       // init
    ParkedWaiter *Next;   // [dispatcher lock] chain of the sink, oldest first
    bool InSink;          // [dispatcher lock]
};
static_assert(sizeof(ParkedWaiter) <= sizeof(ParkedWait::Inner));
static_assert(sizeof(WaitBlock) == kWaitBlockBytes && alignof(WaitBlock) == 8);

namespace {

ParkedWaiter *InnerOf(ParkedWait *wait) {
    return std::launder(reinterpret_cast<ParkedWaiter *>(wait->Inner));
}

// [dispatcher lock]
void LeaveSinkLocked(ParkedWaiter *waiter) {
    WaitSink *sink = waiter->Sink;
    ParkedWaiter *before = nullptr;
    for (ParkedWaiter *one = sink->Oldest; one != waiter; one = one->Next) before = one;
    (before == nullptr ? sink->Oldest : before->Next) = waiter->Next;
    if (sink->Newest == waiter) sink->Newest = before;
    waiter->InSink = false;
}

}  // namespace

void WakeParkedLocked(Waiter *waiter, WakeList *wakes) {
    ParkedWaiter *parked = static_cast<ParkedWaiter *>(waiter);
    if (parked->InSink) return;
    WaitSink *sink = parked->Sink;
    parked->InSink = true;
    parked->Next = nullptr;
    (sink->Oldest == nullptr ? sink->Oldest : sink->Newest->Next) = parked;
    sink->Newest = parked;
    if (sink->Announced) return;
    sink->Announced = true;
    sink->NextToAnnounce = wakes->Sinks;
    wakes->Sinks = sink;
}

void WakeParkedOf(Object *object) {
    DispatchGuard guard;
    for (WaitBlock *block = object->Waiters; block != nullptr; block = block->Next)
        if (block->Owner->Parked) WakeParkedLocked(block->Owner, &guard.Wakes);
}

DWORD ParkWait(ParkedWait *wait, WaitSink *sink, DWORD count, const HANDLE *handles, BOOL waitAll, ParkedRoom room) {
    Object **objects = reinterpret_cast<Object **>(room.Objects);
    if (!RefObjects(count, handles, waitAll != FALSE, objects)) return WAIT_FAILED;
    ParkedWaiter *waiter = new (wait->Inner) ParkedWaiter;
    waiter->Wait = wait;
    waiter->Sink = sink;
    waiter->InSink = false;
    waiter->Parked = true;
    waiter->Who = CallerIdentity();
    waiter->Owned = CurrentOwnedMutexes();
    waiter->Objects = objects;
    waiter->Blocks = reinterpret_cast<WaitBlock *>(room.Blocks);
    waiter->Count = count;
    waiter->All = waitAll != FALSE;
    DWORD result = WAIT_TIMEOUT;
    for (uint32_t i = 0; i < count; i++)
        if (HasSlot(objects[i])) result = kNotParkable;
    if (result == WAIT_TIMEOUT) {
        InnerGuard guard(&gDispatcherLock);
        if (TryTakeLocked(waiter))
            result = waiter->Result;
        else
            LinkLocked(waiter);
    }
    if (result != WAIT_TIMEOUT) {
        for (uint32_t i = 0; i < count; i++) UnrefObject(objects[i]);
        return result;
    }
    // Whoever closes a handle from here on sees the wait.
    for (uint32_t i = 0; i < count; i++) {
        if (StillOpen(handles[i], objects[i])) continue;
        WithdrawWait(wait);
        if (wait->Result != WAIT_TIMEOUT) return wait->Result;
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return WAIT_TIMEOUT;
}

void WithdrawWait(ParkedWait *wait) {
    ParkedWaiter *waiter = InnerOf(wait);
    {
        InnerGuard guard(&gDispatcherLock);
        if (waiter->InSink) LeaveSinkLocked(waiter);
        const bool granted = waiter->State.load(std::memory_order_relaxed) == kGranted;
        if (!granted) UnlinkLocked(waiter);
        wait->Result = granted ? waiter->Result : WAIT_TIMEOUT;
    }
    for (uint32_t i = 0; i < waiter->Count; i++) UnrefObject(waiter->Objects[i]);
}

uint32_t TakeWoken(WaitSink *sink, void **owners, uint32_t most) {
    InnerGuard guard(&gDispatcherLock);
    uint32_t count = 0;
    while (count < most && sink->Oldest != nullptr) {
        ParkedWaiter *waiter = sink->Oldest;
        sink->Oldest = waiter->Next;
        waiter->InSink = false;
        owners[count++] = waiter->Wait->Owner;
    }
    if (sink->Oldest != nullptr) return count;
    sink->Newest = nullptr;
    if (count < most) sink->Announced = false;
    return count;
}

}  // namespace os
