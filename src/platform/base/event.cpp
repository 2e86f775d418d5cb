// platform/base/event.cpp - events and semaphores.
//
// Runs on any thread and never blocks: setting and releasing hand the object to its waiters under the
// dispatcher lock and wake them after it.
#include "platform/base/named_object.h"
#include "platform/base/object_pool.h"
#include "platform/base/wait.h"

namespace os {

namespace {

struct EventObject : NamedObject {
    bool ManualReset = false;  // written before the first handle
};

struct SemaphoreObject : NamedObject {
    LONG Count = 0;    // [dispatcher lock] Signalled is whether it is above 0
    LONG Maximum = 0;  // written before the first handle
};

bool TakeEvent(Object *object, Waiter *) {
    if (!static_cast<EventObject *>(object)->ManualReset) object->Signalled.store(0, std::memory_order_relaxed);
    return false;
}

bool TakeSemaphore(Object *object, Waiter *) {
    if (--static_cast<SemaphoreObject *>(object)->Count == 0) object->Signalled.store(0, std::memory_order_relaxed);
    return false;
}

void DestroyEvent(Object *object);
void DestroySemaphore(Object *object);
constexpr ObjectOps kEventOps = {nullptr, DestroyEvent, TakeEvent};
constexpr ObjectOps kSemaphoreOps = {nullptr, DestroySemaphore, TakeSemaphore};
constinit ObjectPool<EventObject> gEvents(ObjectType::kEvent, &kEventOps);
constinit ObjectPool<SemaphoreObject> gSemaphores(ObjectType::kSemaphore, &kSemaphoreOps);

void DestroyEvent(Object *object) {
    ForgetName(static_cast<EventObject *>(object));
    FreeObject(&gEvents, static_cast<EventObject *>(object));
}

void DestroySemaphore(Object *object) {
    ForgetName(static_cast<SemaphoreObject *>(object));
    FreeObject(&gSemaphores, static_cast<SemaphoreObject *>(object));
}

HANDLE HandleForFound(NamedObject *found) {
    HANDLE handle = NewHandle(found);
    if (handle == nullptr) UnrefObject(found);
    return handle;
}

}  // namespace

HANDLE CreateEventA(SECURITY_ATTRIBUTES *security, BOOL manualReset, BOOL initiallySet, const char *name) {
    static_cast<void>(security);
    if (ShouldFail("CreateEventA")) return nullptr;
    if (NamedObject *found = FindNamed(name, ObjectType::kEvent)) return HandleForFound(found);
    if (GetLastError() != ERROR_SUCCESS) return nullptr;
    EventObject *event = AllocObject(&gEvents);
    if (event == nullptr) return nullptr;
    event->ManualReset = manualReset != FALSE;
    event->Signalled.store(initiallySet != FALSE ? 1 : 0, std::memory_order_relaxed);
    return PublishNamed(event, name);
}

BOOL SetEvent(HANDLE event) {
    if (ShouldFail("SetEvent")) return FALSE;
    Object *object = RefHandle(event, ObjectType::kEvent);
    if (object == nullptr) return FALSE;
    // Not even a set event is spared the lock: whoever resets it at this moment must see what the caller
    // wrote before.
    SignalObject(object);
    UnrefObject(object);
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    if (ShouldFail("ResetEvent")) return FALSE;
    Object *object = RefHandle(event, ObjectType::kEvent);
    if (object == nullptr) return FALSE;
    UnsignalObject(object);
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
    if (NamedObject *found = FindNamed(name, ObjectType::kSemaphore)) return HandleForFound(found);
    if (GetLastError() != ERROR_SUCCESS) return nullptr;
    SemaphoreObject *semaphore = AllocObject(&gSemaphores);
    if (semaphore == nullptr) return nullptr;
    semaphore->Count = initial;
    semaphore->Maximum = maximum;
    semaphore->Signalled.store(initial > 0 ? 1 : 0, std::memory_order_relaxed);
    return PublishNamed(semaphore, name);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG *previous) {
    if (ShouldFail("ReleaseSemaphore")) return FALSE;
    SemaphoreObject *object = static_cast<SemaphoreObject *>(RefHandle(semaphore, ObjectType::kSemaphore));
    if (object == nullptr) return FALSE;
    DWORD error = ERROR_SUCCESS;
    WakeList wakes;
    {
        InnerGuard guard(&gDispatcherLock);
        LONG old = object->Count;
        if (count <= 0) {
            error = ERROR_INVALID_PARAMETER;
        } else if (count > object->Maximum - old) {
            error = ERROR_TOO_MANY_POSTS;
        } else {
            if (previous != nullptr) *previous = old;
            object->Count = old + count;
            SignalLocked(object, &wakes);
        }
    }
    WakeAll(&wakes);
    UnrefObject(object);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

}  // namespace os
