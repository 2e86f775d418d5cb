// platform/base/named_object.h - events, mutexes and semaphores that are opened by name.
//
// A named object of this process leads to a slot that all processes share (shared_names.h), and there is one for
// each name that the process has open. Objects without a name have no slot, nor have those of a process that can have
// no shared memory: their names are known within the process. A name is taken while an object bears it, whatever its
// type, and given up by the object's Destroy.
//
// An object with a slot is never Signalled: whether it can be had is asked of the slot, by MayTakeAgain, and what Take
// changes is changed there. Both are called under the dispatcher lock and the table's lock (MayTakeAgain also without
// either), because TryTakeLocked takes the latter whenever an object of the wait has a slot.
#ifndef ZVX_PLATFORM_BASE_NAMED_OBJECT_H
#define ZVX_PLATFORM_BASE_NAMED_OBJECT_H

#include "platform/base/object.h"
#include "platform/base/shared_names.h"

namespace os {

struct NamedObject : Object {
    char *Name = nullptr;                            // init: from the heap, null without a name
    NamedObject *NextNamed = nullptr;                // [name lock]
    std::atomic<SharedSlot *> Slot{nullptr};         // init, but read by tests that hold no reference
    mutable std::atomic<uint64_t> NextOwnerLook{0};  // when a test may ask again whether the owner has ended
};

inline SharedSlot *SlotOfObject(const Object *object) {
    return static_cast<const NamedObject *>(object)->Slot.load(std::memory_order_acquire);
}

enum class NameUse : uint8_t { kCreate, kOpen };

// A handle for `object`, which is complete but for its name, taking over the caller's reference. When the process has
// an object of that name and type open already the handle is for that one and `object` goes. The last error is
// ERROR_SUCCESS for a new object, which is then *fresh, and for one that was only opened, and ERROR_ALREADY_EXISTS for
// one that was to be created and was there. Null with the last error set, and the reference dropped, on failure. `name`
// may be null to create an object without one.
HANDLE PublishNamed(NamedObject *object, const char *name, NameUse use, const SharedInit &init, bool *fresh);
// For Destroy: gives the name up.
void ForgetName(NamedObject *object);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_NAMED_OBJECT_H
