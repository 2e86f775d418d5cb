// platform/base/object_pool.h - memory for one type of object, recycled and never given back.
//
// An object is constructed once, when its memory is made, and its atomics are never constructed again:
// somebody with a stale handle may be looking at Refs. So AllocObject hands out an object with the fields
// that its last Destroy left; whoever allocates sets all of its own. Pages come from the kernel, 64 KiB at
// a time.
#ifndef ZVX_PLATFORM_BASE_OBJECT_POOL_H
#define ZVX_PLATFORM_BASE_OBJECT_POOL_H

#include <cstddef>
#include <new>

#include "platform/base/fail.h"
#include "platform/base/inner_lock.h"
#include "platform/base/object.h"

namespace os {

// Zero-filled pages for a pool, or null with ERROR_NOT_ENOUGH_MEMORY.
void *AllocPoolPages(size_t bytes);

constexpr size_t kPoolSlabBytes = 64 * 1024;

template <class T>
struct ObjectPool {
    constexpr ObjectPool(ObjectType type, const ObjectOps *ops) : Type(type), Ops(ops) {}

    const ObjectType Type;
    const ObjectOps *const Ops;
    InnerLock Lock;
    Object *Free = nullptr;  // [Lock] last freed first: it is still in the cache
    uint32_t Made = 0;       // [Lock] objects that exist, free or not
};

// [pool lock] One more slab on the free chain; false without memory.
template <class T>
bool GrowPoolLocked(ObjectPool<T> *pool) {
    static_assert(sizeof(T) <= kPoolSlabBytes / 8);
    char *slab = static_cast<char *>(AllocPoolPages(kPoolSlabBytes));
    if (slab == nullptr) return false;
    size_t count = kPoolSlabBytes / sizeof(T);
    pool->Made += static_cast<uint32_t>(count);
    for (size_t i = count; i-- > 0;) {
        T *object = new (slab + i * sizeof(T)) T();
        object->Type = pool->Type;
        object->Ops = pool->Ops;
        object->PoolIndex = pool->Made - static_cast<uint32_t>(count - i);
        object->NextFree = pool->Free;
        pool->Free = object;
    }
    return true;
}

// An object with one reference, not signalled, without waiters and handles; null with
// ERROR_NOT_ENOUGH_MEMORY.
template <class T>
T *AllocObject(ObjectPool<T> *pool) {
    Object *object;
    if (ShouldFailInside("object") != 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    {
        InnerGuard guard(&pool->Lock);
        if (pool->Free == nullptr && !GrowPoolLocked(pool)) return nullptr;
        object = pool->Free;
        pool->Free = object->NextFree;
    }
    object->Signalled.store(0, std::memory_order_relaxed);
    object->Refs.store(1, std::memory_order_release);
    return static_cast<T *>(object);
}

// Called by Destroy, when Refs is 0.
template <class T>
void FreeObject(ObjectPool<T> *pool, T *object) {
    InnerGuard guard(&pool->Lock);
    object->NextFree = pool->Free;
    pool->Free = object;
}

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_OBJECT_POOL_H
