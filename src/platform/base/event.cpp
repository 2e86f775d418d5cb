// platform/base/event.cpp - events and semaphores.
//
// Runs on any thread and never blocks: setting and releasing hand the object to its waiters under the
// dispatcher lock and wake them after it.
#include "platform/base/named_object.h"
#include "platform/base/object_pool.h"
#include "platform/base/text.h"
#include "platform/base/wait.h"
#include "platform/os_process.h"

namespace os {

namespace {

struct EventObject : NamedObject {
    bool ManualReset = false;  // written before the first handle
};

struct SemaphoreObject : NamedObject {
    LONG Count = 0;    // [dispatcher lock] Signalled is whether it is above 0
    LONG Maximum = 0;  // written before the first handle
};

void StoreValue(SharedSlot *slot, uint32_t value) {
    slot->Value.store(value, std::memory_order_release);
}

bool TakeEvent(Object *object, Waiter *) {
    if (static_cast<EventObject *>(object)->ManualReset) return false;
    object->Signalled.store(0, std::memory_order_relaxed);
    return false;
}

bool TakeSemaphore(Object *object, Waiter *) {
    if (--static_cast<SemaphoreObject *>(object)->Count == 0) object->Signalled.store(0, std::memory_order_relaxed);
    return false;
}

// The same for objects that have a name, whose state is their slot's.
bool TakeNamedEvent(Object *object, Waiter *waiter) {
    SharedSlot *slot = SlotOfObject(object);
    if (slot == nullptr) return TakeEvent(object, waiter);
    if (slot->Limit == 0) StoreValue(slot, 0);
    return false;
}

bool TakeNamedSemaphore(Object *object, Waiter *waiter) {
    SharedSlot *slot = SlotOfObject(object);
    if (slot == nullptr) return TakeSemaphore(object, waiter);
    StoreValue(slot, slot->Value.load(std::memory_order_relaxed) - 1);
    return false;
}

bool SlotIsSet(const Object *object, uint64_t) {
    const SharedSlot *slot = SlotOfObject(object);
    return slot != nullptr && slot->Value.load(std::memory_order_acquire) != 0;
}

template <class T, ObjectType Type>
struct Pools {
    static void DestroyPlain(Object *object) { FreeObject(&Plain, static_cast<T *>(object)); }
    static void DestroyNamed(Object *object) {
        ForgetName(static_cast<T *>(object));
        FreeObject(&Named, static_cast<T *>(object));
    }
    static constexpr auto kTake = Type == ObjectType::kEvent ? TakeEvent : TakeSemaphore;
    static constexpr auto kTakeNamed = Type == ObjectType::kEvent ? TakeNamedEvent : TakeNamedSemaphore;
    static constexpr ObjectOps kPlainOps = {nullptr, DestroyPlain, kTake, nullptr, false};
    static constexpr ObjectOps kNamedOps = {nullptr, DestroyNamed, kTakeNamed, SlotIsSet, true};
    static constinit ObjectPool<T> Plain;
    static constinit ObjectPool<T> Named;
    static T *New(const char *name) { return AllocObject(name != nullptr && name[0] != 0 ? &Named : &Plain); }
};
template <class T, ObjectType Type>
constinit ObjectPool<T> Pools<T, Type>::Plain(Type, &kPlainOps);
template <class T, ObjectType Type>
constinit ObjectPool<T> Pools<T, Type>::Named(Type, &kNamedOps);

using Events = Pools<EventObject, ObjectType::kEvent>;
using Semaphores = Pools<SemaphoreObject, ObjectType::kSemaphore>;

HANDLE MakeEvent(bool manualReset, bool set, const char *name, NameUse use) {
    EventObject *event = Events::New(name);
    if (event == nullptr) return nullptr;
    event->ManualReset = manualReset;
    event->Signalled.store(set ? 1 : 0, std::memory_order_relaxed);
    bool fresh;
    return PublishNamed(event, name, use, {set ? 1u : 0u, manualReset ? 1u : 0u, false}, &fresh);
}

HANDLE MakeSemaphore(LONG initial, LONG maximum, const char *name, NameUse use) {
    SemaphoreObject *semaphore = Semaphores::New(name);
    if (semaphore == nullptr) return nullptr;
    semaphore->Count = initial;
    semaphore->Maximum = maximum;
    semaphore->Signalled.store(initial > 0 ? 1 : 0, std::memory_order_relaxed);
    bool fresh;
    return PublishNamed(semaphore, name, use, {static_cast<uint32_t>(initial), static_cast<uint32_t>(maximum), false},
                        &fresh);
}

// A slot was made takeable, under its lock: first whoever waits in this process, then the others if anything is left.
void OfferSlot(Object *object, SharedSlot *slot) {
    {
        DispatchGuard guard;
        OfferLocked(object, &guard.Wakes);
    }
    if (slot->Value.load(std::memory_order_acquire) != 0) AnnounceSlot(slot);
}

// [dispatcher lock, or the table's] 0 with the old count, or the error.
DWORD RaiseCount(LONG old, LONG maximum, LONG count, LONG *previous) {
    if (count <= 0) return ERROR_INVALID_PARAMETER;
    if (count > maximum - old) return ERROR_TOO_MANY_POSTS;
    if (previous != nullptr) *previous = old;
    return ERROR_SUCCESS;
}

}  // namespace

HANDLE CreateEventA(SECURITY_ATTRIBUTES *security, BOOL manualReset, BOOL initiallySet, const char *name) {
    static_cast<void>(security);
    if (ShouldFail("CreateEventA")) return nullptr;
    return MakeEvent(manualReset != FALSE, initiallySet != FALSE, name, NameUse::kCreate);
}

HANDLE OpenEventA(DWORD access, BOOL inherit, const char *name) {
    static_cast<void>(access);
    static_cast<void>(inherit);
    if (ShouldFail("OpenEventA")) return nullptr;
    return MakeEvent(false, false, name, NameUse::kOpen);
}

void SetEventObject(Object *event) {
    if (SharedSlot *slot = SlotOfObject(event); slot != nullptr) {
        {
            SharedGuard guard;
            StoreValue(slot, 1);
        }
        OfferSlot(event, slot);
    } else {
        // Not even a set event is spared the lock: whoever resets it at this moment must see what the caller
        // wrote before.
        SignalObject(event);
    }
}

void ResetEventObject(Object *event) {
    if (event->Kept) return;
    if (SharedSlot *slot = SlotOfObject(event); slot != nullptr) {
        SharedGuard guard;
        StoreValue(slot, 0);
    } else {
        UnsignalObject(event);
    }
}

BOOL SetEvent(HANDLE event) {
    if (ShouldFail("SetEvent")) return FALSE;
    Object *object = RefHandle(event, ObjectType::kEvent);
    if (object == nullptr) return FALSE;
    SetEventObject(object);
    UnrefObject(object);
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    if (ShouldFail("ResetEvent")) return FALSE;
    Object *object = RefHandle(event, ObjectType::kEvent);
    if (object == nullptr) return FALSE;
    ResetEventObject(object);
    UnrefObject(object);
    return TRUE;
}

BOOL KeepSignalled(HANDLE event) {
    Object *object = RefHandle(event, ObjectType::kEvent);
    if (object == nullptr) return FALSE;
    SetEventObject(object);
    object->Kept = true;
    UnrefObject(object);
    return TRUE;
}

HANDLE CreateSemaphoreA(SECURITY_ATTRIBUTES *security, LONG initial, LONG maximum, const char *name) {
    static_cast<void>(security);
    if (ShouldFail("CreateSemaphoreA")) return nullptr;
    if (maximum <= 0 || initial < 0 || initial > maximum) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return MakeSemaphore(initial, maximum, name, NameUse::kCreate);
}

HANDLE CreateSemaphoreW(SECURITY_ATTRIBUTES *security, LONG initial, LONG maximum, const WCHAR *name) {
    if (ShouldFail("CreateSemaphoreW")) return nullptr;
    return WithNarrowName(name,
                          [&](const char *narrow) { return CreateSemaphoreA(security, initial, maximum, narrow); });
}

HANDLE OpenSemaphoreA(DWORD access, BOOL inherit, const char *name) {
    static_cast<void>(access);
    static_cast<void>(inherit);
    if (ShouldFail("OpenSemaphoreA")) return nullptr;
    return MakeSemaphore(0, 1, name, NameUse::kOpen);
}

HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, const WCHAR *name) {
    if (ShouldFail("OpenSemaphoreW")) return nullptr;
    return WithNarrowName(name, [&](const char *narrow) { return OpenSemaphoreA(access, inherit, narrow); });
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG *previous) {
    if (ShouldFail("ReleaseSemaphore")) return FALSE;
    SemaphoreObject *object = static_cast<SemaphoreObject *>(RefHandle(semaphore, ObjectType::kSemaphore));
    if (object == nullptr) return FALSE;
    DWORD error;
    if (SharedSlot *slot = SlotOfObject(object); slot != nullptr) {
        {
            SharedGuard guard;
            const LONG old = static_cast<LONG>(slot->Value.load(std::memory_order_relaxed));
            error = RaiseCount(old, static_cast<LONG>(slot->Limit), count, previous);
            if (error == ERROR_SUCCESS) StoreValue(slot, static_cast<uint32_t>(old + count));
        }
        if (error == ERROR_SUCCESS) OfferSlot(object, slot);
    } else {
        DispatchGuard guard;
        error = RaiseCount(object->Count, object->Maximum, count, previous);
        if (error == ERROR_SUCCESS) {
            object->Count += count;
            SignalLocked(object, &guard.Wakes);
        }
    }
    UnrefObject(object);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

}  // namespace os
