// platform/base/object.h - objects behind handles, inside the platform only.
//
// An Object lives as long as a handle or an operation refers to it. A handle holds one reference; an
// overlapped operation that is prepared or running holds one, so that closing a handle never frees what
// the kernel may still use. The memory of objects is type-stable (recycled through a pool of its own
// type, see object_pool.h, never unmapped): RefHandle may look at an object that is being freed, and its
// compare-and-swap on Refs then fails.
//
// Who may write what: Ops and Type are written when the memory is made and never again; Refs, Handles and
// Signalled are atomic; everything in a derived object says so beside the field.
#ifndef ZVX_PLATFORM_BASE_OBJECT_H
#define ZVX_PLATFORM_BASE_OBJECT_H

#include <atomic>
#include <cstdint>

#include "platform/os.h"

namespace os {

enum class ObjectType : uint8_t { kAny, kEvent, kMutex, kSemaphore, kThread, kProcess, kFile, kPort, kPipe, kSocket };

struct Object;
struct Waiter;     // a thread in a wait, see wait.h
struct WaitBlock;  // its place in the list of one object

struct ObjectOps {
    // The last handle was closed (operations may still hold references): cancel what is outstanding.
    // May be null. Called without locks.
    void (*HandlesGone)(Object *object);
    // The last reference is gone: release what the object owns and give its memory back to its pool.
    // Called without locks, on whichever thread dropped the reference.
    void (*Destroy)(Object *object);
    // [dispatcher lock] A wait is satisfied by the object: what that changes in it (an auto-reset event is
    // reset, a mutex gets its owner). True when the object had been abandoned. Null when nothing changes.
    bool (*Take)(Object *object, Waiter *waiter) = nullptr;
    // Whether `who` may take the object although it is not signalled (a mutex by its owner). Reads atomics
    // only: a zero-time-out test calls it without the lock. Null when never.
    bool (*MayTakeAgain)(const Object *object, uint64_t who) = nullptr;
    // A NamedObject, whose state may be other processes' too: Take and MayTakeAgain need the table's lock as well.
    bool Shared = false;
};

struct Object {
    const ObjectOps *Ops = nullptr;
    Object *NextFree = nullptr;        // [pool lock] chain of the pool while Refs is 0
    WaitBlock *Waiters = nullptr;      // [dispatcher lock] ring of wait blocks, oldest first
    std::atomic<uint32_t> Refs{0};     // 0 only while the memory is in its pool
    std::atomic<uint32_t> Handles{0};  // open handles
    // Whether a wait would be satisfied now. Changed under the dispatcher lock, read without it by a
    // zero-time-out test. Objects that cannot be waited for leave it at 0.
    std::atomic<uint32_t> Signalled{0};
    uint32_t PoolIndex = 0;  // init: dense serial number among the objects of its pool
    // Changed under the dispatcher lock: places of parked waits in Waiters. Whoever closes a handle reads it without.
    std::atomic<uint32_t> Parked{0};
    ObjectType Type = ObjectType::kAny;
    bool Kept = false;  // before others know the handle: an event that KeepSignalled made what it stays for ever
};

// A handle for `object`, taking over the caller's reference (Refs must be at least 1). Null with
// ERROR_TOO_MANY_OPEN_FILES, and the reference still the caller's, when there is no free value.
HANDLE NewHandle(Object *object);
// One more reference on the object behind `handle` when it is of `type` (or any), else null with
// ERROR_INVALID_HANDLE. Lock-free. The pseudo handle of the calling thread gives its thread object.
Object *RefHandle(HANDLE handle, ObjectType type = ObjectType::kAny);
// The object behind a handle without a reference: its memory stays an object of its type for ever, but
// only the atomic fields mean anything, and only if StillOpen says so afterwards. Null for pseudo handles.
const Object *PeekHandle(HANDLE handle);
bool StillOpen(HANDLE handle, const Object *object);  // true for pseudo handles
// parked_wait.cpp: a handle of an object for which waits are parked was closed. Each of them is woken to look whether
// it was its own.
void WakeParkedOf(Object *object);

inline void RefObject(Object *object) {
    object->Refs.fetch_add(1, std::memory_order_relaxed);
}
void UnrefObject(Object *object);  // calls Destroy at 0

// Marks a waitable object signalled or not, and wakes whoever waits for it. Takes the dispatcher lock.
void SignalObject(Object *object);
void UnsignalObject(Object *object);
// event.cpp: the same for an event, which with a name is other processes' too. Takes the dispatcher lock or the
// table's.
void SetEventObject(Object *event);
void ResetEventObject(Object *event);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_OBJECT_H
