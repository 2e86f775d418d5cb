// platform/base/mutex.cpp - mutexes: owned, recursive, and abandoned when their owner ends.
//
// Runs on any thread; releasing never blocks. A mutex belongs to the fiber that took it where there is one,
// and follows it to another kernel thread; then it is abandoned by nobody's end. Otherwise it belongs to
// the kernel thread or backing thread, and is in that thread's list until it is released.
//
// A mutex with a name has two owners, one inside the other: its slot names the process that has it, and the object the
// thread of that process. The process has it exactly while one of its threads has, and whoever takes or frees one
// takes or frees both. A process that ends leaves the slot its own; the next one to test the mutex finds the owner
// dead.
#include "platform/base/futex.h"
#include "platform/base/named_object.h"
#include "platform/base/object_pool.h"
#include "platform/base/text.h"
#include "platform/base/thread_block.h"
#include "platform/base/wait.h"
#include "platform/os_process.h"

namespace os {

struct MutexObject : NamedObject {
    std::atomic<uint64_t> Owner{0};    // identity, 0 when free; changed under the dispatcher lock
    uint32_t Recursion = 0;            // [dispatcher lock]
    bool Abandoned = false;            // [dispatcher lock] the last owner ended; told to the next one
    MutexObject *NextOwned = nullptr;  // [dispatcher lock] list of the owning thread
    MutexObject **OwnedBy = nullptr;   // [dispatcher lock] head of that list, null for a fiber's
};

namespace {

// How often tests ask the kernel whether the process that holds a mutex still lives.
constexpr uint64_t kOwnerLookNs = 50000000;
constexpr uint64_t kThreadBit = 1ull << 63;

struct OwnedMutexes {
    MutexObject *Own;     // [dispatcher lock] mutexes of the kernel thread itself
    MutexObject **Other;  // owner: the list of the backing thread that runs here, or null
};

constinit thread_local OwnedMutexes tOwned{};

ZVX_THREAD_ACCESSOR OwnedMutexes *CurrentLists() {
    OwnedMutexes *lists = &tOwned;
    asm volatile("" : "+r"(lists));  // else link-time optimisation may hand the address to callers as a constant
    return lists;
}

void OwnLocked(MutexObject *mutex, uint64_t who, MutexObject **owned) {
    mutex->Signalled.store(0, std::memory_order_relaxed);
    mutex->Owner.store(who, std::memory_order_relaxed);
    mutex->Recursion = 1;
    mutex->OwnedBy = (who & kThreadBit) != 0 ? owned : nullptr;
    if (mutex->OwnedBy == nullptr) return;
    mutex->NextOwned = *mutex->OwnedBy;
    *mutex->OwnedBy = mutex;
}

// [dispatcher lock] Takes the mutex from its owner and gives it to the next waiter.
void FreeLocked(MutexObject *mutex, WakeList *wakes) {
    if (mutex->OwnedBy != nullptr) {
        MutexObject **link = mutex->OwnedBy;
        while (*link != mutex) link = &(*link)->NextOwned;
        *link = mutex->NextOwned;
        mutex->OwnedBy = nullptr;
    }
    mutex->Owner.store(0, std::memory_order_relaxed);
    SharedSlot *slot = SlotOfObject(mutex);
    if (slot == nullptr) {
        SignalLocked(mutex, wakes);
        return;
    }
    {
        SharedGuard guard;
        // Not when it is another process's: then only the object goes.
        if (!IsOwnNumber(slot->Value.load(std::memory_order_relaxed))) return;
        if (mutex->Abandoned) slot->Abandoned = 1;
        mutex->Abandoned = false;
        slot->Value.store(0, std::memory_order_release);
    }
    OfferLocked(mutex, wakes);
    if (slot->Value.load(std::memory_order_acquire) == 0) AnnounceSlot(slot);
}

bool TakeMutex(Object *object, Waiter *waiter) {
    MutexObject *mutex = static_cast<MutexObject *>(object);
    if (mutex->Owner.load(std::memory_order_relaxed) == waiter->Who) {
        mutex->Recursion++;
        return false;
    }
    bool abandoned = mutex->Abandoned;
    mutex->Abandoned = false;
    OwnLocked(mutex, waiter->Who, waiter->Owned);
    return abandoned;
}

bool MayTakeMutexAgain(const Object *object, uint64_t who) {
    // Only the owner itself can find its identity here, so what it reads is its own store.
    return static_cast<const MutexObject *>(object)->Owner.load(std::memory_order_relaxed) == who;
}

bool OwnerProcessHasEnded(const MutexObject *mutex, const SharedSlot *slot) {
    const uint64_t now = MonotonicNs();
    if (now < mutex->NextOwnerLook.load(std::memory_order_relaxed)) return false;
    if (OwnerHasEnded(slot)) return true;
    mutex->NextOwnerLook.store(now + kOwnerLookNs, std::memory_order_relaxed);
    return false;
}

bool MayTakeNamed(const Object *object, uint64_t who) {
    const MutexObject *mutex = static_cast<const MutexObject *>(object);
    const uint64_t owner = mutex->Owner.load(std::memory_order_relaxed);
    const SharedSlot *slot = SlotOfObject(object);
    if (owner != 0 || slot == nullptr) return owner == who;
    const uint32_t holder = slot->Value.load(std::memory_order_acquire);
    // A thread that is just about to create the mutex as its own has the slot first.
    return holder == 0 || (!IsOwnNumber(holder) && OwnerProcessHasEnded(mutex, slot));
}

bool TakeNamed(Object *object, Waiter *waiter) {
    SharedSlot *slot = SlotOfObject(object);
    const bool again = static_cast<MutexObject *>(object)->Owner.load(std::memory_order_relaxed) == waiter->Who;
    const bool abandoned = TakeMutex(object, waiter);
    if (slot == nullptr || again) return abandoned;
    // Still held: by a process that has ended, or this would not be called.
    const bool left = slot->Abandoned != 0 || slot->Value.load(std::memory_order_relaxed) != 0;
    slot->Value.store(OwnNumberLocked() + 1, std::memory_order_release);
    slot->Abandoned = 0;
    return abandoned || left;
}

void DestroyMutex(Object *object);
constexpr ObjectOps kMutexOps = {nullptr, DestroyMutex, TakeMutex, MayTakeMutexAgain, false};
constexpr ObjectOps kNamedMutexOps = {nullptr, DestroyMutex, TakeNamed, MayTakeNamed, true};
constinit ObjectPool<MutexObject> gMutexes(ObjectType::kMutex, &kMutexOps);
constinit ObjectPool<MutexObject> gNamedMutexes(ObjectType::kMutex, &kNamedMutexOps);

void DestroyMutex(Object *object) {
    MutexObject *mutex = static_cast<MutexObject *>(object);
    {
        // The last handle may be closed while the mutex is held: it must leave its owner's list.
        // For the processes that still have it open it is one that was never released.
        DispatchGuard guard;
        mutex->Abandoned = mutex->Owner.load(std::memory_order_relaxed) != 0;
        FreeLocked(mutex, &guard.Wakes);
    }
    ForgetName(mutex);
    FreeObject(mutex->Ops->Shared ? &gNamedMutexes : &gMutexes, mutex);
}

void ThreadEnds(ThreadLocals *) {
    AbandonOwnMutexes();
}

HANDLE MakeMutex(bool owned, const char *name, NameUse use) {
    AddThreadExitHook(ThreadEnds);
    const bool named = name != nullptr && name[0] != 0;
    MutexObject *mutex = AllocObject(named ? &gNamedMutexes : &gMutexes);
    if (mutex == nullptr) return nullptr;
    {
        InnerGuard guard(&gDispatcherLock);
        mutex->Abandoned = false;
        mutex->Owner.store(0, std::memory_order_relaxed);
        mutex->Signalled.store(owned ? 0 : 1, std::memory_order_relaxed);
        if (owned && !named) OwnLocked(mutex, CallerIdentity(), CurrentOwnedMutexes());
    }
    bool fresh;
    const HANDLE handle = PublishNamed(mutex, name, use, {0, 0, owned}, &fresh);
    if (handle != nullptr && named && owned && fresh) {
        // The process has it since the name was there, so nobody else could take it meanwhile. One that existed is
        // opened, never taken.
        InnerGuard guard(&gDispatcherLock);
        OwnLocked(mutex, CallerIdentity(), CurrentOwnedMutexes());
    }
    return handle;
}

}  // namespace

MutexObject **CurrentOwnedMutexes() {
    OwnedMutexes *lists = CurrentLists();
    return lists->Other != nullptr ? lists->Other : &lists->Own;
}

MutexObject **UseOwnedMutexes(MutexObject **other) {
    OwnedMutexes *lists = CurrentLists();
    MutexObject **before = lists->Other;
    lists->Other = other;
    return before;
}

void AbandonMutexesLocked(MutexObject **owned, WakeList *wakes) {
    while (MutexObject *mutex = *owned) {
        mutex->Abandoned = true;
        FreeLocked(mutex, wakes);
    }
}

void AbandonOwnMutexes() {
    DispatchGuard guard;
    AbandonMutexesLocked(&CurrentLists()->Own, &guard.Wakes);
}

HANDLE CreateMutexA(SECURITY_ATTRIBUTES *security, BOOL initiallyOwned, const char *name) {
    static_cast<void>(security);
    if (ShouldFail("CreateMutexA")) return nullptr;
    return MakeMutex(initiallyOwned != FALSE, name, NameUse::kCreate);
}

HANDLE CreateMutexW(SECURITY_ATTRIBUTES *security, BOOL initiallyOwned, const WCHAR *name) {
    if (ShouldFail("CreateMutexW")) return nullptr;
    return WithNarrowName(name, [&](const char *narrow) { return CreateMutexA(security, initiallyOwned, narrow); });
}

HANDLE OpenMutexA(DWORD access, BOOL inherit, const char *name) {
    static_cast<void>(access);
    static_cast<void>(inherit);
    if (ShouldFail("OpenMutexA")) return nullptr;
    return MakeMutex(false, name, NameUse::kOpen);
}

HANDLE OpenMutexW(DWORD access, BOOL inherit, const WCHAR *name) {
    if (ShouldFail("OpenMutexW")) return nullptr;
    return WithNarrowName(name, [&](const char *narrow) { return OpenMutexA(access, inherit, narrow); });
}

BOOL ReleaseMutex(HANDLE mutex) {
    if (ShouldFail("ReleaseMutex")) return FALSE;
    MutexObject *object = static_cast<MutexObject *>(RefHandle(mutex, ObjectType::kMutex));
    if (object == nullptr) return FALSE;
    bool owner = object->Owner.load(std::memory_order_relaxed) == CallerIdentity();
    if (owner) {
        DispatchGuard guard;
        if (--object->Recursion == 0) FreeLocked(object, &guard.Wakes);
    }
    UnrefObject(object);
    if (owner) return TRUE;
    SetLastError(ERROR_NOT_OWNER);
    return FALSE;
}

}  // namespace os
