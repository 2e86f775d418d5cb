// platform/base/wait.h - the dispatcher lock, and threads that wait for objects.
//
// One lock, gDispatcherLock, guards the state of every waitable object and the wait blocks. A thread that
// has to wait links one block into the list of each object, oldest first, and sleeps on the word of its
// alert state. Whoever makes an object signalled looks for the oldest waiter that can be satisfied, takes
// the objects on its behalf, unlinks its blocks and marks it granted: the sleeper never competes for what
// it was woken for.
//
//   - State of a Waiter goes from kWaiting to kGranted under the lock, by the granter, and never back.
//   - A granter touches nothing of the waiter after it has released the lock, and a waiter that finds itself
//     granted takes the lock once before it returns: the block, the waiter and the alert state may then go.
//   - A waiter that gives up (time-out, a routine, a request to stop) unlinks its blocks itself under the
//     lock, unless it was granted meanwhile, which then counts.
//
// A parked wait (parked_wait.cpp) is a waiter without a thread: it is granted in its turn like the others, and instead
// of a sleeper its sink is told.
//
// Waits for objects that other processes share (named_object.h) are the same, with two differences. Testing and
// taking happens under the table's lock too, so that a wait for all takes its objects in one step everywhere. And a
// sleeper sleeps on the objects' slots besides its own word, because another process cannot grant it anything: it
// competes when it has been woken.
//
// Lock order: the lock of names and a thread's lock come before the dispatcher lock; under it nothing but the lock of
// the table of shared names is acquired.
#ifndef ZVX_PLATFORM_BASE_WAIT_H
#define ZVX_PLATFORM_BASE_WAIT_H

#include <atomic>
#include <cstdint>

#include "platform/base/alertable.h"
#include "platform/base/inner_lock.h"
#include "platform/base/object.h"

namespace os {

struct MutexObject;

extern InnerLock gDispatcherLock;

constexpr uint32_t kWaiting = 0;
constexpr uint32_t kGranted = 1;

// Lives on the waiting thread's stack.
struct Waiter {
    std::atomic<uint32_t> State{kWaiting};
    DWORD Result = 0;               // [dispatcher lock] valid once granted
    AlertState *Alert = nullptr;    // init: null when the wait cannot sleep
    uint64_t Who = 0;               // init: CallerIdentity of the thread
    MutexObject **Owned = nullptr;  // init: head of the list of mutexes that the thread owns
    Object *const *Objects = nullptr;
    WaitBlock *Blocks = nullptr;  // [dispatcher lock] Count of them, linked while State is kWaiting
    uint32_t Count = 0;
    bool All = false;
    bool Shared = false;  // init: one of the objects has a slot
    bool Parked = false;  // init: the base of a ParkedWaiter
};

struct WaitBlock {
    WaitBlock *Next;  // [dispatcher lock] null at the newest
    WaitBlock *Prev;  // [dispatcher lock] the newest, at the oldest
    Waiter *Owner;    // init
    uint32_t Index;   // init: position of the object in the wait
    uint32_t Seen;    // owner: Seq of the object's slot before the latest test
};

// Sleepers to be woken and sinks to be told once the dispatcher lock has been released. Of a sleeper only the address
// is used: the word may be gone by then, and a stranger who sleeps on its successor takes a needless turn of its loop.
struct WakeList {
    std::atomic<uint32_t> *Words[16];
    int Count = 0;
    WaitSink *Sinks = nullptr;  // chain through NextToAnnounce
};
void WakeAll(WakeList *wakes);  // without the dispatcher lock

// Holds the dispatcher lock, and wakes what was granted meanwhile after it is free again. One region is around both: a
// thread that was ended between the two would leave a waiter granted and asleep.
struct DispatchGuard {
    DispatchGuard() {
        EnterInnerRegion();
        AcquireInner(&gDispatcherLock);
    }
    ~DispatchGuard() {
        ReleaseInner(&gDispatcherLock);
        WakeAll(&Wakes);
        LeaveInnerRegion();
    }
    DispatchGuard(const DispatchGuard &) = delete;
    DispatchGuard &operator=(const DispatchGuard &) = delete;
    WakeList Wakes;
};

// [dispatcher lock] The object becomes signalled and is given to whoever waits for it.
void SignalLocked(Object *object, WakeList *wakes);
// [dispatcher lock] The object may be had now: it is given to whoever of this process waits for it.
void OfferLocked(Object *object, WakeList *wakes);
// [dispatcher lock] Takes what the wait is for, if that can be had in this instant; sets Result.
bool TryTakeLocked(Waiter *waiter);
// [dispatcher lock] Into the lists of its objects as the newest, and out of them.
void LinkLocked(Waiter *waiter);
void UnlinkLocked(Waiter *waiter);
// References to the objects behind the handles; false, with the last error set and none held, when a handle is closed
// or a wait for all names an object twice.
bool RefObjects(uint32_t count, const HANDLE *handles, bool all, Object **objects);
// Whether the object's state is other processes' too.
bool HasSlot(const Object *object);
// [dispatcher lock] parked_wait.cpp: the waiter's sink is to be told, unless it knows already.
void WakeParkedLocked(Waiter *waiter, WakeList *wakes);

// Who takes a mutex: the fiber where there is one, else the thread (with the top bit set).
uint64_t CallerIdentity();

// mutex.cpp: the list of the mutexes that belong to the calling thread and not to one of its fibers. The list
// is guarded by the dispatcher lock, because granters put mutexes there and whoever destroys one takes it out.
MutexObject **CurrentOwnedMutexes();
// Makes `other` that list, for a backing thread that runs here, or the thread's own again with null. Returns
// what was given before.
MutexObject **UseOwnedMutexes(MutexObject **other);
// [dispatcher lock] The owner ended: every mutex of the list becomes free and abandoned.
void AbandonMutexesLocked(MutexObject **owned, WakeList *wakes);
void AbandonOwnMutexes();  // the calling kernel thread is ending

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_WAIT_H
