// platform/base/handle_table.cpp - the table that leads from a handle value to its object.
//
// A value is four times the index of a slot. The slots are one array in reserved address space that is
// touched as it fills, so a slot never moves and looking one up takes no lock. Runs on every thread;
// the lock here only guards the queue of free values.
//
// A value that was closed waits at the end of that queue, and the queue is kept some entries long, so
// that a handle used after its closing meets ERROR_INVALID_HANDLE rather than somebody else's object.
//
// A slot's State says whether its value may be given out: it is free when it is neither open nor pinned.
//   - kOpen is set by NewHandle when it takes the value, cleared by the one CloseHandle that wins;
//   - kListed is set by whoever brings the other bits to 0 and then queues the slot, cleared when it is
//     taken from the queue;
//   - the rest counts pins. A value may be pinned whether it is open or not.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

#include "platform/base/inner_lock.h"
#include "platform/base/minidump.h"
#include "platform/base/object.h"
#include "platform/base/object_pool.h"
#include "platform/base/process_object.h"
#include "platform/base/thread_object.h"

namespace os {

std::atomic<uint32_t> gNextFreshHandle{1};  // [gTableLock] slot 0 is the null handle; read by VisitHandles
std::atomic<uint32_t> gFreeHandleCount{0};  // [gTableLock] values in the queue

namespace {

struct HandleSlot {
    std::atomic<Object *> Target;  // the open handle's object, or null
    std::atomic<uint32_t> State;   // kOpen, kListed, pins
    uint32_t NextFree;             // [gTableLock] queue of free values
};
static_assert(sizeof(HandleSlot) == 16);

constexpr uint32_t kOpen = 0x80000000u;
constexpr uint32_t kListed = 0x40000000u;
constexpr uint32_t kMaxSlots = 1u << 24;  // 256 MiB of address space
constexpr uint32_t kReuseDelay = 64;      // closed values that lie between a closing and the next use

InnerLock gTableLock;
std::atomic<HandleSlot *> gSlots{nullptr};  // null until the first handle, then the array for good
std::atomic<uint32_t> gSlotLimit{0};        // slots in the array; written before gSlots
uint32_t gFreeHead = 0;                     // [gTableLock] 0 when the queue is empty
uint32_t gFreeTail = 0;

// [gTableLock] Reserves the array. An address-space limit may refuse the whole: take what it allows.
bool ReserveSlotsLocked() {
    for (uint32_t count = kMaxSlots; count >= 4096; count /= 2) {
        void *range = mmap(nullptr, count * sizeof(HandleSlot), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (range == MAP_FAILED) continue;
        gSlotLimit.store(count, std::memory_order_relaxed);
        gSlots.store(static_cast<HandleSlot *>(range), std::memory_order_release);
        return true;
    }
    return false;
}

inline HandleSlot *SlotOf(HANDLE handle) {
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    HandleSlot *slots = gSlots.load(std::memory_order_acquire);
    // The two low bits are no part of a handle: hEvent carries a request to the ports in one of them.
    if (slots == nullptr || value / 4 >= gSlotLimit.load(std::memory_order_relaxed)) return nullptr;
    return &slots[value / 4];
}

void AppendFreeLocked(HandleSlot *slots, uint32_t index) {
    slots[index].NextFree = 0;
    if (gFreeTail != 0)
        slots[gFreeTail].NextFree = index;
    else
        gFreeHead = index;
    gFreeTail = index;
    gFreeHandleCount.store(gFreeHandleCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Queues a value whose State may have become 0. Of several who see that, one sets kListed.
void QueueFreeValue(HandleSlot *slot) {
    uint32_t state = 0;
    if (!slot->State.compare_exchange_strong(state, kListed, std::memory_order_acq_rel)) return;
    HandleSlot *slots = gSlots.load(std::memory_order_relaxed);
    InnerGuard guard(&gTableLock);
    AppendFreeLocked(slots, static_cast<uint32_t>(slot - slots));
}

// [gTableLock] The oldest free value, made open; 0 when the queue holds none.
uint32_t TakeFreeLocked(HandleSlot *slots) {
    while (gFreeHead != 0) {
        uint32_t index = gFreeHead;
        gFreeHead = slots[index].NextFree;
        if (gFreeHead == 0) gFreeTail = 0;
        gFreeHandleCount.store(gFreeHandleCount.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
        // A value that was pinned while it lay here leaves the queue; its last unpin queues it again.
        slots[index].State.fetch_and(~kListed, std::memory_order_acq_rel);
        uint32_t state = 0;
        if (slots[index].State.compare_exchange_strong(state, kOpen, std::memory_order_acq_rel)) return index;
    }
    return 0;
}

// [gTableLock] A slot that was never used, made open; 0 when there is none. One may have been pinned.
uint32_t TakeFreshLocked(HandleSlot *slots) {
    while (gNextFreshHandle.load(std::memory_order_relaxed) < gSlotLimit.load(std::memory_order_relaxed)) {
        uint32_t index = gNextFreshHandle.fetch_add(1, std::memory_order_relaxed);
        uint32_t state = 0;
        if (slots[index].State.compare_exchange_strong(state, kOpen, std::memory_order_acq_rel)) return index;
    }
    return 0;
}

uint32_t TakeValue() {
    InnerGuard guard(&gTableLock);
    if (gSlots.load(std::memory_order_relaxed) == nullptr && !ReserveSlotsLocked()) return 0;
    HandleSlot *slots = gSlots.load(std::memory_order_relaxed);
    uint32_t index = 0;
    if (gFreeHandleCount.load(std::memory_order_relaxed) > kReuseDelay) index = TakeFreeLocked(slots);
    if (index == 0) index = TakeFreshLocked(slots);
    if (index == 0) index = TakeFreeLocked(slots);
    return index;
}

// True when `object` got one more reference. Fails when it is on its way back to its pool.
bool TryRef(Object *object) {
    uint32_t refs = object->Refs.load(std::memory_order_relaxed);
    while (refs != 0)
        if (object->Refs.compare_exchange_weak(refs, refs + 1, std::memory_order_acquire, std::memory_order_relaxed))
            return true;
    return false;
}

// Whether the handle is one of this process, the pseudo handle or another.
bool IsThisProcess(HANDLE handle) {
    if (handle == GetCurrentProcess()) return true;
    Object *object = RefHandle(handle, ObjectType::kProcess);
    if (object == nullptr) return false;
    const bool own = static_cast<ProcessObject *>(object)->Id.load(std::memory_order_relaxed) == GetCurrentProcessId();
    UnrefObject(object);
    if (!own) SetLastError(ERROR_INVALID_PARAMETER);
    return own;
}

bool IsPseudoHandle(HANDLE handle) {
    return handle == GetCurrentProcess() || handle == GetCurrentThread();
}

}  // namespace

void *AllocPoolPages(size_t bytes) {
    void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages != MAP_FAILED) return pages;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

HANDLE NewHandle(Object *object) {
    uint32_t index = ShouldFailInside("handle_value") != 0 ? 0 : TakeValue();
    if (index == 0) {
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return nullptr;
    }
    object->Handles.fetch_add(1, std::memory_order_relaxed);
    gSlots.load(std::memory_order_relaxed)[index].Target.store(object, std::memory_order_release);
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(index) * 4);
}

Object *RefHandle(HANDLE handle, ObjectType type) {
    HandleSlot *slot = SlotOf(handle);
    if (slot != nullptr) {
        while (Object *object = slot->Target.load(std::memory_order_acquire)) {
            if (!TryRef(object)) {
                // Its last reference went away, so the handle was closed; the slot may have a new owner.
                if (slot->Target.load(std::memory_order_acquire) == object) CpuRelax();
                continue;
            }
            // The slot still says so, therefore the reference is on the object that the handle means and
            // not on another that was made in the same memory.
            if (slot->Target.load(std::memory_order_acquire) == object) {
                if (type == ObjectType::kAny || object->Type == type) return object;
                UnrefObject(object);
                break;
            }
            UnrefObject(object);
        }
    } else if (handle == GetCurrentThread() && (type == ObjectType::kAny || type == ObjectType::kThread)) {
        return RefCurrentThread();
    } else if (handle == GetCurrentProcess() && (type == ObjectType::kAny || type == ObjectType::kProcess)) {
        return RefCurrentProcess();
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

const Object *PeekHandle(HANDLE handle) {
    HandleSlot *slot = SlotOf(handle);
    return slot == nullptr ? nullptr : slot->Target.load(std::memory_order_acquire);
}

bool StillOpen(HANDLE handle, const Object *object) {
    const HandleSlot *slot = SlotOf(handle);
    return slot == nullptr || slot->Target.load(std::memory_order_seq_cst) == object;
}

void VisitHandles(void (*visit)(HANDLE handle, const Object *object, void *arg), void *arg) {
    const HandleSlot *slots = gSlots.load(std::memory_order_acquire);
    if (slots == nullptr) return;
    const uint32_t end = gNextFreshHandle.load(std::memory_order_relaxed);
    for (uint32_t index = 1; index < end; ++index) {
        const Object *object = slots[index].Target.load(std::memory_order_acquire);
        if (object != nullptr) visit(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(index) * 4), object, arg);
    }
}

BOOL GetHandleInformation(HANDLE handle, DWORD *flags) {
    if (ShouldFail("GetHandleInformation")) return FALSE;
    if (!IsPseudoHandle(handle)) {
        const Object *object = PeekHandle(handle);
        if (object == nullptr) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
    }
    *flags = 0;
    return TRUE;
}

void UnrefObject(Object *object) {
    // Release: everything done with the object comes before its destruction on another thread.
    if (object->Refs.fetch_sub(1, std::memory_order_acq_rel) == 1) object->Ops->Destroy(object);
}

BOOL CloseHandle(HANDLE handle) {
    if (ShouldFail("CloseHandle")) return FALSE;
    if (IsPseudoHandle(handle)) return TRUE;
    HandleSlot *slot = SlotOf(handle);
    Object *object = slot == nullptr ? nullptr : slot->Target.load(std::memory_order_acquire);
    if (object != nullptr && object->Kept) return TRUE;
    // Of two that close the same handle at once, one finds it closed.
    if (object == nullptr || !slot->Target.compare_exchange_strong(object, nullptr, std::memory_order_seq_cst)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // Either this sees a wait that was parked by the handle, or the one who parked it sees the handle closed.
    if (object->Parked.load(std::memory_order_seq_cst) != 0) WakeParkedOf(object);
    if (slot->State.fetch_and(~kOpen, std::memory_order_acq_rel) == kOpen) QueueFreeValue(slot);
    // Likewise for one who is about to begin a call: either he is seen, or he sees that no handle is left.
    if (object->Handles.fetch_sub(1, std::memory_order_seq_cst) == 1 && object->Ops->HandlesGone != nullptr)
        object->Ops->HandlesGone(object);
    UnrefObject(object);
    return TRUE;
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target, DWORD access,
                     BOOL inherit, DWORD options) {
    // There is one access mask for every handle, and only this process holds handles.
    static_cast<void>(access);
    static_cast<void>(inherit);
    if (ShouldFail("DuplicateHandle")) return FALSE;
    if (target != nullptr) *target = nullptr;
    if (!IsThisProcess(sourceProcess) || !IsThisProcess(targetProcess)) return FALSE;
    Object *object = RefHandle(source);
    if (object == nullptr) return FALSE;
    if (target == nullptr) {
        UnrefObject(object);
    } else {
        *target = NewHandle(object);
        if (*target == nullptr) {
            UnrefObject(object);
            return FALSE;
        }
    }
    if ((options & DUPLICATE_CLOSE_SOURCE) != 0) CloseHandle(source);
    return TRUE;
}

void PinHandleValue(HANDLE handle) {
    if (HandleSlot *slot = SlotOf(handle)) slot->State.fetch_add(1, std::memory_order_relaxed);
}

void UnpinHandleValue(HANDLE handle) {
    HandleSlot *slot = SlotOf(handle);
    if (slot != nullptr && slot->State.fetch_sub(1, std::memory_order_acq_rel) == 1) QueueFreeValue(slot);
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

}  // namespace os
