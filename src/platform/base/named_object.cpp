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

HANDLE HandleOrDrop(NamedObject *object) {
    HANDLE handle = NewHandle(object);
    if (handle == nullptr) UnrefObject(object);
    return handle;
}

HANDLE DropWith(NamedObject *object, DWORD error) {
    UnrefObject(object);
    SetLastError(error);
    return nullptr;
}

// The name without its prefix, or null with *error. There is one session, so both prefixes mean it.
const char *PlainName(const char *name, DWORD *error) {
    for (const char *prefix : {"Global\\", "Local\\"}) {
        if (strncmp(name, prefix, strlen(prefix)) != 0) continue;
        name += strlen(prefix);
        break;
    }
    *error = ERROR_SUCCESS;
    if (name[0] == 0)
        *error = ERROR_INVALID_NAME;
    else if (strchr(name, '\\') != nullptr)
        *error = ERROR_PATH_NOT_FOUND;
    else if (strlen(name) >= kSharedNameBytes)
        *error = ERROR_FILENAME_EXCED_RANGE;
    return *error == ERROR_SUCCESS ? name : nullptr;
}

// [gNameLock] Gives the object its slot and its place in the chain. 0 or the error.
DWORD BindLocked(NamedObject *object, char *name, NameUse use, const SharedInit &init, bool *fresh) {
    DWORD error = ERROR_SUCCESS;
    if (SharedNamesReady()) {
        SharedGuard guard;
        SharedSlot *slot = OpenSlotLocked(name, object->Type, &init, use == NameUse::kCreate, fresh, &error);
        object->Slot.store(slot, std::memory_order_release);
        if (slot != nullptr) object->Signalled.store(0, std::memory_order_relaxed);
    } else if (SharedNamesTaken()) {
        error = ERROR_ACCESS_DENIED;
    } else {
        *fresh = true;
        if (use == NameUse::kOpen) error = ERROR_FILE_NOT_FOUND;
    }
    if (error != ERROR_SUCCESS) return error;
    object->Name = name;
    object->NextNamed = gNamed;
    gNamed = object;
    return ERROR_SUCCESS;
}

}  // namespace

HANDLE PublishNamed(NamedObject *object, const char *name, NameUse use, const SharedInit &init, bool *fresh) {
    object->Name = nullptr;
    object->Slot.store(nullptr, std::memory_order_relaxed);
    object->NextOwnerLook.store(0, std::memory_order_relaxed);
    *fresh = true;
    if (name == nullptr || name[0] == '\0') {
        if (use == NameUse::kOpen) return DropWith(object, ERROR_INVALID_PARAMETER);
        SetLastError(ERROR_SUCCESS);
        return HandleOrDrop(object);
    }
    DWORD error;
    const char *plain = PlainName(name, &error);
    if (plain == nullptr) return DropWith(object, error);
    char *copy = strdup(plain);
    if (copy == nullptr) return DropWith(object, ERROR_NOT_ENOUGH_MEMORY);
    NamedObject *found;
    {
        InnerGuard guard(&gNameLock);
        found = FindLocked(copy);
        if (found == nullptr) {
            error = BindLocked(object, copy, use, init, fresh);
        } else if (SharedSlot *slot = SlotOfObject(found); slot != nullptr) {
            SharedGuard shared;
            KeepSlotLocked(slot, copy);
        }
    }
    if (found != nullptr || error != ERROR_SUCCESS) free(copy);
    if (found != nullptr) {
        *fresh = false;
        const ObjectType type = object->Type;
        UnrefObject(object);
        object = found;
        if (found->Type != type) error = ERROR_INVALID_HANDLE;
    }
    if (error != ERROR_SUCCESS) return DropWith(object, error);
    const HANDLE handle = HandleOrDrop(object);
    const bool existed = !*fresh && use == NameUse::kCreate;
    if (handle != nullptr) SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

void ForgetName(NamedObject *object) {
    if (object->Name == nullptr) return;
    {
        InnerGuard guard(&gNameLock);
        NamedObject **link = &gNamed;
        while (*link != object) link = &(*link)->NextNamed;
        *link = object->NextNamed;
        if (SharedSlot *slot = SlotOfObject(object); slot != nullptr) {
            SharedGuard shared;
            // Unless the process has bound the name anew while this object was on its way out.
            bool again = false;
            for (NamedObject *other = gNamed; other != nullptr; other = other->NextNamed)
                again = again || SlotOfObject(other) == slot;
            if (!again) CloseSlotLocked(slot);
        }
    }
    object->Slot.store(nullptr, std::memory_order_release);
    free(object->Name);
    object->Name = nullptr;
}

}  // namespace os
