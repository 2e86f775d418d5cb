// platform/base/named_object.cpp - the names of events, mutexes and semaphores.
//
// Runs on the threads that create and destroy such objects, under one lock; a process has a handful of
// names, so they are a chain. Waiting for or signalling a named object never comes here.
#include "platform/base/named_object.h"

#include <cstdlib>
#include <cstring>

#include "platform/base/inner_lock.h"

namespace os {

namespace {

InnerLock gNameLock;
NamedObject *gNamed = nullptr;  // [gNameLock]

// [gNameLock] The object that bears the name, with a reference. One whose last reference is gone has lost
// its name, although it is still in the chain.
NamedObject *FindLocked(const char *name) {
    for (NamedObject *object = gNamed; object != nullptr; object = object->NextNamed) {
        if (strcmp(object->Name, name) != 0) continue;
        uint32_t refs = object->Refs.load(std::memory_order_relaxed);
        while (refs != 0)
            if (object->Refs.compare_exchange_weak(refs, refs + 1, std::memory_order_acquire)) return object;
    }
    return nullptr;
}

NamedObject *AcceptType(NamedObject *object, ObjectType type) {
    if (object->Type == type) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return object;
    }
    UnrefObject(object);
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

HANDLE HandleOrDrop(NamedObject *object) {
    HANDLE handle = NewHandle(object);
    if (handle == nullptr) UnrefObject(object);
    return handle;
}

}  // namespace

NamedObject *FindNamed(const char *name, ObjectType type) {
    NamedObject *found = nullptr;
    if (name != nullptr && name[0] != '\0') {
        InnerGuard guard(&gNameLock);
        found = FindLocked(name);
    }
    if (found != nullptr) return AcceptType(found, type);
    SetLastError(ERROR_SUCCESS);
    return nullptr;
}

HANDLE PublishNamed(NamedObject *object, const char *name) {
    object->Name = nullptr;
    if (name == nullptr || name[0] == '\0') return HandleOrDrop(object);
    char *copy = strdup(name);
    if (copy == nullptr) {
        UnrefObject(object);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    NamedObject *found;
    {
        InnerGuard guard(&gNameLock);
        found = FindLocked(name);
        if (found == nullptr) {
            object->Name = copy;
            object->NextNamed = gNamed;
            gNamed = object;
        }
    }
    if (found == nullptr) return HandleOrDrop(object);
    free(copy);
    ObjectType type = object->Type;
    UnrefObject(object);
    found = AcceptType(found, type);
    return found == nullptr ? nullptr : HandleOrDrop(found);
}

void ForgetName(NamedObject *object) {
    if (object->Name == nullptr) return;
    {
        InnerGuard guard(&gNameLock);
        NamedObject **link = &gNamed;
        while (*link != object) link = &(*link)->NextNamed;
        *link = object->NextNamed;
    }
    free(object->Name);
    object->Name = nullptr;
}

}  // namespace os
