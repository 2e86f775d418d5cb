// platform/base/slots.cpp - thread-local slots.
//
// An index is a bit in one process-wide map; its values lie in the array that the thread's block points at (slots 0 to
// 63, which a scheduler swaps with the user threads) or in an expansion array of the kernel thread. Getting and setting
// are a load and a store; only allocating and freeing take the lock.
//
// What a freed and reallocated index reads: null in the thread that allocated it, and null on every kernel thread that
// looks through its own array, because TlsFree clears those. Arrays that are parked with a user thread belong to the
// scheduler and are unknown here: a stale value stays in them until the user thread sets the slot. A host that reuses
// indices therefore sets a slot before it reads it.
#include <errno.h>
#include <stdlib.h>

#include <bit>

#include "platform/base/spin.h"
#include "platform/base/thread_block.h"
#include "platform/os.h"

namespace os {

namespace {

constexpr uint32_t kIndices = kTlsSlots + kExpansionSlots;
static_assert(kIndices % 64 == 0);

constinit SpinWord gSlotLock;
constinit std::atomic<uint64_t> gTaken[kIndices / 64] = {};  // [gSlotLock] for writing

bool IsTaken(DWORD index) {
    return index < kIndices && (gTaken[index / 64].load(std::memory_order_relaxed) >> index % 64 & 1) != 0;
}

// Another thread may clear a value while its owner reads it, so every access is atomic; relaxed, because a host that
// frees an index which is in use has no order to rely on.
void *LoadSlot(void **slot) {
    return std::atomic_ref<void *>(*slot).load(std::memory_order_relaxed);
}
void StoreSlot(void **slot, void *value) {
    std::atomic_ref<void *>(*slot).store(value, std::memory_order_relaxed);
}

void ClearIn(ThreadLocals *locals, DWORD index) {
    if (index < kTlsSlots) {
        StoreSlot(&locals->OwnSlots[index], nullptr);
        return;
    }
    void **expansion = locals->Expansion.load(std::memory_order_acquire);
    if (expansion != nullptr) StoreSlot(&expansion[index - kTlsSlots], nullptr);
}

}  // namespace

DWORD TlsAlloc() {
    if (ShouldFail("TlsAlloc")) return TLS_OUT_OF_INDEXES;
    ThreadLocals *locals = CurrentThreadLocals();
    DWORD index = TLS_OUT_OF_INDEXES;
    {
        SpinGuard guard(gSlotLock);
        for (uint32_t i = 0; i < kIndices / 64 && index == TLS_OUT_OF_INDEXES; ++i) {
            const uint64_t taken = gTaken[i].load(std::memory_order_relaxed);
            if (taken == ~uint64_t{0}) continue;
            const uint32_t bit = static_cast<uint32_t>(std::countr_one(taken));
            gTaken[i].store(taken | uint64_t{1} << bit, std::memory_order_relaxed);
            index = i * 64 + bit;
        }
    }
    if (index == TLS_OUT_OF_INDEXES) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else if (index < kTlsSlots) {
        StoreSlot(&locals->Block.Slots[index], nullptr);
    } else {
        ClearIn(locals, index);
    }
    return index;
}

BOOL TlsFree(DWORD index) {
    if (ShouldFail("TlsFree")) return FALSE;
    ThreadLocals *locals = CurrentThreadLocals();
    {
        // Cleared before the bit is free, so that the next owner's values are safe.
        SpinGuard guard(gSlotLock);
        if (!IsTaken(index)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        if (index < kTlsSlots) StoreSlot(&locals->Block.Slots[index], nullptr);
        ForEachThread([](ThreadLocals *other, void *arg) { ClearIn(other, *static_cast<DWORD *>(arg)); }, &index);
        std::atomic<uint64_t> &word = gTaken[index / 64];
        word.store(word.load(std::memory_order_relaxed) & ~(uint64_t{1} << index % 64), std::memory_order_relaxed);
    }
    return TRUE;
}

void *TlsGetValue(DWORD index) {
    if (ShouldFail("TlsGetValue")) return nullptr;
    ThreadLocals *locals = CurrentThreadLocals();
    if (index < kTlsSlots) [[likely]] {
        locals->Block.LastError = ERROR_SUCCESS;
        return LoadSlot(&locals->Block.Slots[index]);
    }
    if (index >= kIndices) {
        locals->Block.LastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    locals->Block.LastError = ERROR_SUCCESS;
    void **expansion = locals->Expansion.load(std::memory_order_relaxed);
    return expansion != nullptr ? LoadSlot(&expansion[index - kTlsSlots]) : nullptr;
}

BOOL TlsSetValue(DWORD index, void *value) {
    if (ShouldFail("TlsSetValue")) return FALSE;
    ThreadLocals *locals = CurrentThreadLocals();
    if (index < kTlsSlots) [[likely]] {
        StoreSlot(&locals->Block.Slots[index], value);
        return TRUE;
    }
    if (index >= kIndices) {
        locals->Block.LastError = ERROR_INVALID_PARAMETER;
        return FALSE;
    }
    void **expansion = locals->Expansion.load(std::memory_order_relaxed);
    if (expansion == nullptr) {
        const int savedErrno = errno;
        expansion = static_cast<void **>(calloc(kExpansionSlots, sizeof(void *)));
        errno = savedErrno;
        if (expansion == nullptr) {
            locals->Block.LastError = ERROR_NOT_ENOUGH_MEMORY;
            return FALSE;
        }
        locals->Expansion.store(expansion, std::memory_order_release);  // for TlsFree of another thread
    }
    StoreSlot(&expansion[index - kTlsSlots], value);
    return TRUE;
}

void SetSlotArray(void **slots) {
    ThreadLocals *locals = CurrentThreadLocals();
    locals->Block.Slots = slots != nullptr ? slots : locals->OwnSlots;
}

}  // namespace os
