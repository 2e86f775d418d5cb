// platform/base/named_object.h - events, mutexes and semaphores that are opened by name.
//
// Names are known within the process. A name is taken while an object bears it, whatever its type; it is
// given up by the object's Destroy. Everything that a wider name space would change is behind these three
// functions.
#ifndef ZVX_PLATFORM_BASE_NAMED_OBJECT_H
#define ZVX_PLATFORM_BASE_NAMED_OBJECT_H

#include "platform/base/object.h"

namespace os {

struct NamedObject : Object {
    char *Name = nullptr;              // init: from the heap, null without a name
    NamedObject *NextNamed = nullptr;  // [name lock]
};

// The object that bears `name` and is of `type`, with a reference and ERROR_ALREADY_EXISTS as last error. Null
// with last error 0 when the name is free, or with ERROR_INVALID_HANDLE when an object of another type bears it.
NamedObject *FindNamed(const char *name, ObjectType type);
// A handle for a new object that is complete but for its name, taking over the caller's reference. When
// somebody else took the name meanwhile it is a handle for that object. Null with the last error set, and
// the reference dropped, on failure. `name` may be null.
HANDLE PublishNamed(NamedObject *object, const char *name);
// For Destroy: gives the name up.
void ForgetName(NamedObject *object);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_NAMED_OBJECT_H
