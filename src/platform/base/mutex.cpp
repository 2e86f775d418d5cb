// platform/base/mutex.cpp - mutexes: owned, recursive, and abandoned when their owner ends.
//
// Runs on any thread; releasing never blocks. A mutex belongs to the fiber that took it where there is one,
// and follows it to another kernel thread; then it is abandoned by nobody's end. Otherwise it belongs to
// the kernel thread or backing thread, and is in that thread's list until it is released.
#include "platform/base/named_object.h"
#include "platform/base/object_pool.h"
#include "platform/base/thread_block.h"
#include "platform/base/wait.h"

namespace os {

struct MutexObject : NamedObject {
    std::atomic<uint64_t> Owner{0};    // identity, 0 when free; changed under the dispatcher lock
    uint32_t Recursion = 0;            // [dispatcher lock]
    bool Abandoned = false;            // [dispatcher lock] the last owner ended; told to the next one
    MutexObject *NextOwned = nullptr;  // [dispatcher lock] list of the owning thread
    MutexObject **OwnedBy = nullptr;   // [dispatcher lock] head of that list, null for a fiber's
};

namespace {

constexpr DWORD kErrorNotOwner = 288;
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
    SignalLocked(mutex, wakes);
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

void DestroyMutex(Object *object);
constexpr ObjectOps kMutexOps = {nullptr, DestroyMutex, TakeMutex, MayTakeMutexAgain};
constinit ObjectPool<MutexObject> gMutexes(ObjectType::kMutex, &kMutexOps);

void DestroyMutex(Object *object) {
    MutexObject *mutex = static_cast<MutexObject *>(object);
    {
        // The last handle may be closed while the mutex is held: it must leave its owner's list.
        WakeList wakes;
        InnerGuard guard(&gDispatcherLock);
        FreeLocked(mutex, &wakes);
    }
    ForgetName(mutex);
    FreeObject(&gMutexes, mutex);
}

void ThreadEnds(ThreadLocals *) {
    AbandonOwnMutexes();
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
    WakeList wakes;
    {
        InnerGuard guard(&gDispatcherLock);
        AbandonMutexesLocked(&CurrentLists()->Own, &wakes);
    }
    WakeAll(&wakes);
}

HANDLE CreateMutexA(SECURITY_ATTRIBUTES *security, BOOL initiallyOwned, const char *name) {
    static_cast<void>(security);
    if (ShouldFail("CreateMutexA")) return nullptr;
    AddThreadExitHook(ThreadEnds);
    if (NamedObject *found = FindNamed(name, ObjectType::kMutex)) {
        // An existing mutex is opened, never taken.
        HANDLE handle = NewHandle(found);
        if (handle == nullptr) UnrefObject(found);
        return handle;
    }
    if (GetLastError() != ERROR_SUCCESS) return nullptr;
    MutexObject *mutex = AllocObject(&gMutexes);
    if (mutex == nullptr) return nullptr;
    {
        InnerGuard guard(&gDispatcherLock);
        mutex->Abandoned = false;
        mutex->Owner.store(0, std::memory_order_relaxed);
        mutex->Signalled.store(1, std::memory_order_relaxed);
        if (initiallyOwned != FALSE) OwnLocked(mutex, CallerIdentity(), CurrentOwnedMutexes());
    }
    return PublishNamed(mutex, name);
}

BOOL ReleaseMutex(HANDLE mutex) {
    if (ShouldFail("ReleaseMutex")) return FALSE;
    MutexObject *object = static_cast<MutexObject *>(RefHandle(mutex, ObjectType::kMutex));
    if (object == nullptr) return FALSE;
    bool owner = object->Owner.load(std::memory_order_relaxed) == CallerIdentity();
    if (owner) {
        WakeList wakes;
        {
            InnerGuard guard(&gDispatcherLock);
            if (--object->Recursion == 0) FreeLocked(object, &wakes);
        }
        WakeAll(&wakes);
    }
    UnrefObject(object);
    if (owner) return TRUE;
    SetLastError(kErrorNotOwner);
    return FALSE;
}

}  // namespace os
