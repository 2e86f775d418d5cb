// platform/base/wait.cpp - waits for one object and for many, and handing signalled objects to waiters.
//
// Runs on any thread; blocks the kernel thread it runs on. A test with a time-out of zero that finds the
// object unsignalled takes no lock and writes to no shared memory. Never allocates, except the alert state
// of a thread that sleeps for the first time.
//
// A sleeping thread is in an inner region, so a request to stop or to end it is only noted by its signal
// handler. The loop below then withdraws the wait, serves the request and waits again for what is left of
// its time: a suspended thread takes no object.
#include "platform/base/wait.h"

#include "platform/base/futex.h"
#include "platform/base/named_object.h"
#include "platform/base/thread_block.h"
#include "platform/base/thread_object.h"

namespace os {

InnerLock gDispatcherLock;

namespace {

// A sleep without a time-out wakes up this often, because the kernel restarts an unlimited sleep after a
// signal handler without coming back.
constexpr uint64_t kLongestSleepNs = 3600ull * 1000000000u;

// A sleeper for a mutex of another process looks this often whether that process still lives, since the dying wake
// nobody.
constexpr uint64_t kOwnerLookNs = 50000000;

// Never seen by a caller: the thread is to end, and holds nothing any more.
constexpr DWORD kWaitEnded = 0xFFFFFFFEu;

bool Takeable(const Object *object, uint64_t who) {
    if (object->Signalled.load(std::memory_order_acquire) != 0) return true;
    return object->Ops->MayTakeAgain != nullptr && object->Ops->MayTakeAgain(object, who);
}

// [dispatcher lock, and the table's when the wait has shared objects]
bool TakeNow(Waiter *waiter) {
    if (!waiter->All) {
        for (uint32_t i = 0; i < waiter->Count; i++) {
            Object *object = waiter->Objects[i];
            if (!Takeable(object, waiter->Who)) continue;
            bool abandoned = object->Ops->Take != nullptr && object->Ops->Take(object, waiter);
            waiter->Result = (abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i;
            return true;
        }
        return false;
    }
    for (uint32_t i = 0; i < waiter->Count; i++)
        if (!Takeable(waiter->Objects[i], waiter->Who)) return false;
    waiter->Result = WAIT_OBJECT_0;
    for (uint32_t i = 0; i < waiter->Count; i++) {
        Object *object = waiter->Objects[i];
        if (object->Ops->Take != nullptr && object->Ops->Take(object, waiter) && waiter->Result == WAIT_OBJECT_0)
            waiter->Result = WAIT_ABANDONED_0 + i;
    }
    return true;
}

// The slot of an object that other processes share; null for every other one.
SharedSlot *SlotOf(const Object *object) {
    return object->Ops->Shared ? SlotOfObject(object) : nullptr;
}

// The slots of the wait's shared objects, at most one an object; how many.
uint32_t SlotsOf(const Waiter *waiter, SharedSlot **slots, uint32_t *seqs) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < waiter->Count; i++) {
        SharedSlot *slot = SlotOf(waiter->Objects[i]);
        if (slot == nullptr) continue;
        slots[count] = slot;
        seqs[count++] = waiter->Blocks[i].Seen;
    }
    return count;
}

// Before a test: what a sleep that follows it compares with.
void NoteSlots(Waiter *waiter) {
    for (uint32_t i = 0; i < waiter->Count; i++) {
        SharedSlot *slot = SlotOf(waiter->Objects[i]);
        if (slot != nullptr) waiter->Blocks[i].Seen = slot->Seq.load(std::memory_order_seq_cst);
    }
}

// Returns after one sleep, whatever ended it: the objects must be tested again.
void SleepOnShared(Waiter *waiter, uint32_t seen, uint64_t until) {
    SharedSlot *slots[MAXIMUM_WAIT_OBJECTS];
    uint32_t seqs[MAXIMUM_WAIT_OBJECTS];
    const uint32_t count = SlotsOf(waiter, slots, seqs);
    for (uint32_t i = 0; i < waiter->Count; i++) {
        if (waiter->Objects[i]->Type != ObjectType::kMutex) continue;
        const uint64_t look = MonotonicNs() + kOwnerLookNs;
        if (look < until) until = look;
        break;
    }
    SleepOnSlots(&waiter->Alert->Word, seen, slots, seqs, count, until);
}

// Sleeps until the waiter is granted, the deadline passes, something is to be served or delivered, or `until`.
void SleepAsWaiter(Waiter *waiter, bool alertable, uint64_t until) {
    InnerRegion *region = CurrentInnerRegion();
    for (;;) {
        // The word is read before the conditions: whoever changes one of them raises the word afterwards.
        uint32_t seen = AlertSnapshot(waiter->Alert);
        if (waiter->State.load(std::memory_order_acquire) == kGranted) return;
        if (region->Pending.load(std::memory_order_relaxed) != 0) return;
        if (alertable && AlertPending(waiter->Alert)) return;
        if (waiter->Shared) return SleepOnShared(waiter, seen, until);
        if (!WaitAlert(waiter->Alert, seen, until)) return;
    }
}

// The wait proper, in an inner region. `blocks` has room for one block an object.
DWORD WaitInRegion(Object *const *objects, WaitBlock *blocks, uint32_t count, bool all, DWORD ms, bool alertable) {
    Waiter waiter;
    waiter.Who = CallerIdentity();
    waiter.Owned = CurrentOwnedMutexes();
    waiter.Objects = objects;
    waiter.Blocks = blocks;
    waiter.Count = count;
    waiter.All = all;
    for (uint32_t i = 0; i < count; i++) waiter.Shared = waiter.Shared || SlotOf(objects[i]) != nullptr;
    uint64_t deadline = kNoDeadline;
    bool timedOut = ms == 0;
    for (;;) {
        bool taken;
        if (waiter.Shared) NoteSlots(&waiter);
        {
            InnerGuard guard(&gDispatcherLock);
            taken = TryTakeLocked(&waiter);
            // From here on somebody else may grant the wait.
            if (!taken && waiter.Alert != nullptr && !timedOut) LinkLocked(&waiter);
        }
        if (taken) return waiter.Result;
        if (waiter.Alert == nullptr && !timedOut) {
            // The first time round: what a sleep needs is prepared only when there will be one.
            waiter.Alert = CurrentAlertState();
            if (waiter.Alert == nullptr) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return WAIT_FAILED;
            }
            if (ms != INFINITE) deadline = DeadlineAfter(ms);
            if (!alertable) continue;
        } else if (!timedOut) {
            const uint64_t until = MonotonicNs() + kLongestSleepNs;
            SleepAsWaiter(&waiter, alertable, until < deadline ? until : deadline);
            bool granted;
            {
                InnerGuard guard(&gDispatcherLock);
                granted = waiter.State.load(std::memory_order_relaxed) == kGranted;
                if (!granted) UnlinkLocked(&waiter);
            }
            if (granted) return waiter.Result;
            timedOut = deadline != kNoDeadline && MonotonicNs() >= deadline;
        }
        // Nothing is linked here. What others asked of this thread comes first, then its routines, then the time.
        LeaveInnerRegion();
        bool ran = false;
        if (!EndIsRequested()) ran = alertable && RunQueuedRoutines() != 0;
        EnterInnerRegion();
        if (EndIsRequested()) return kWaitEnded;
        if (ran) return WAIT_IO_COMPLETION;
        if (timedOut) return WAIT_TIMEOUT;
    }
}

DWORD WaitReferenced(Object *const *objects, uint32_t count, bool all, DWORD ms, bool alertable) {
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS];
    EnterInnerRegion();
    DWORD result = WaitInRegion(objects, blocks, count, all, ms, alertable);
    LeaveInnerRegion();
    return result;
}

// Whether a test without a lock already answers "no": nothing can be taken, and every handle is open.
bool PlainlyUnsignalled(uint32_t count, const HANDLE *handles, bool all) {
    uint64_t who = 0;
    bool takeable = all;
    for (uint32_t i = 0; i < count; i++) {
        const Object *object = PeekHandle(handles[i]);
        if (object == nullptr) return false;
        if (object->Ops->MayTakeAgain != nullptr && who == 0) who = CallerIdentity();
        bool one = Takeable(object, who);
        if (!StillOpen(handles[i], object)) return false;
        if (one && !all) return false;
        if (!one) takeable = false;
    }
    return !takeable;
}

DWORD WaitForHandles(uint32_t count, const HANDLE *handles, bool all, DWORD ms, bool alertable) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    if (ms == 0 && !alertable && PlainlyUnsignalled(count, handles, all)) return WAIT_TIMEOUT;
    Object *objects[MAXIMUM_WAIT_OBJECTS];
    if (!RefObjects(count, handles, all, objects)) return WAIT_FAILED;
    const DWORD result = WaitReferenced(objects, count, all, ms, alertable);
    for (uint32_t i = 0; i < count; i++) UnrefObject(objects[i]);
    if (result == kWaitEnded) EndCallingThread();
    return result;
}

void WakeSleepers(WakeList *wakes) {
    for (int i = 0; i < wakes->Count; i++) FutexWake(wakes->Words[i], 1);
    wakes->Count = 0;
}

// [dispatcher lock] Nothing of the waiter is touched after the lock has been released.
void GrantLocked(Waiter *waiter, WakeList *wakes) {
    UnlinkLocked(waiter);
    // The waiter reads Result after State without the lock.
    waiter->State.store(kGranted, std::memory_order_release);
    if (waiter->Parked) {
        WakeParkedLocked(waiter, wakes);
        return;
    }
    std::atomic<uint32_t> *word = &waiter->Alert->Word;
    word->fetch_add(1, std::memory_order_release);
    if (wakes->Count == static_cast<int>(sizeof(wakes->Words) / sizeof(wakes->Words[0]))) WakeSleepers(wakes);
    wakes->Words[wakes->Count++] = word;
}

}  // namespace

bool TryTakeLocked(Waiter *waiter) {
    if (!waiter->Shared) [[likely]]
        return TakeNow(waiter);
    SharedGuard guard;
    return TakeNow(waiter);
}

void LinkLocked(Waiter *waiter) {
    for (uint32_t i = 0; i < waiter->Count; i++) {
        WaitBlock *block = &waiter->Blocks[i];
        WaitBlock *&head = waiter->Objects[i]->Waiters;
        block->Owner = waiter;
        block->Index = i;
        block->Next = nullptr;
        if (waiter->Parked) waiter->Objects[i]->Parked.fetch_add(1, std::memory_order_seq_cst);
        if (head == nullptr) {
            block->Prev = block;
            head = block;
        } else {
            block->Prev = head->Prev;
            head->Prev->Next = block;
            head->Prev = block;
        }
    }
}

void UnlinkLocked(Waiter *waiter) {
    for (uint32_t i = 0; i < waiter->Count; i++) {
        WaitBlock *block = &waiter->Blocks[i];
        WaitBlock *&head = waiter->Objects[i]->Waiters;
        if (waiter->Parked) waiter->Objects[i]->Parked.fetch_sub(1, std::memory_order_relaxed);
        if (block == head) {
            head = block->Next;
            if (head != nullptr) head->Prev = block->Prev;
        } else {
            block->Prev->Next = block->Next;
            (block->Next != nullptr ? block->Next : head)->Prev = block->Prev;
        }
    }
}

bool HasSlot(const Object *object) {
    return SlotOf(object) != nullptr;
}

bool RefObjects(uint32_t count, const HANDLE *handles, bool all, Object **objects) {
    uint32_t held = 0;
    while (held < count && (objects[held] = RefHandle(handles[held])) != nullptr) held++;
    if (held == count) {
        bool twice = false;
        for (uint32_t i = 1; all && i < count; i++)
            for (uint32_t j = 0; j < i; j++) twice = twice || objects[i] == objects[j];
        if (!twice) return true;
        SetLastError(ERROR_INVALID_PARAMETER);
    }
    while (held != 0) UnrefObject(objects[--held]);
    return false;
}

uint64_t CallerIdentity() {
    ThreadBlock *block = CurrentThreadBlock();
    uintptr_t fiber = reinterpret_cast<uintptr_t>(block->FiberData);
    return fiber != kNoFiberData ? fiber : (1ull << 63) | block->ThreadId;
}

void SignalLocked(Object *object, WakeList *wakes) {
    // Release: a test without the lock that sees the object signalled sees what was done before.
    object->Signalled.store(1, std::memory_order_release);
    OfferLocked(object, wakes);
}

void OfferLocked(Object *object, WakeList *wakes) {
    WaitBlock *block = object->Waiters;
    while (block != nullptr) {
        Waiter *waiter = block->Owner;
        // A wait for any of several may name the object twice; both blocks go when it is granted.
        do block = block->Next;
        while (block != nullptr && block->Owner == waiter);
        if (TryTakeLocked(waiter)) GrantLocked(waiter, wakes);
        if (object->Signalled.load(std::memory_order_relaxed) == 0 && !object->Ops->Shared) return;
    }
}

void WakeAll(WakeList *wakes) {
    WakeSleepers(wakes);
    while (WaitSink *sink = wakes->Sinks) {
        // Once it has been told it may be chained anew, by anyone.
        wakes->Sinks = sink->NextToAnnounce;
        sink->Announce(sink);
    }
}

void SignalObject(Object *object) {
    DispatchGuard guard;
    SignalLocked(object, &guard.Wakes);
}

void UnsignalObject(Object *object) {
    InnerGuard guard(&gDispatcherLock);
    object->Signalled.store(0, std::memory_order_relaxed);
}

DWORD WaitForSingleObject(HANDLE handle, DWORD ms) {
    if (ShouldFail("WaitForSingleObject")) return WAIT_FAILED;
    return WaitForHandles(1, &handle, false, ms, false);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms) {
    if (ShouldFail("WaitForMultipleObjects")) return WAIT_FAILED;
    return WaitForHandles(count, handles, waitAll != FALSE, ms, false);
}

DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable) {
    if (ShouldFail("WaitForSingleObjectEx")) return WAIT_FAILED;
    return WaitForHandles(1, &handle, false, ms, alertable != FALSE);
}

DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, BOOL alertable) {
    if (ShouldFail("WaitForMultipleObjectsEx")) return WAIT_FAILED;
    return WaitForHandles(count, handles, waitAll != FALSE, ms, alertable != FALSE);
}

}  // namespace os
