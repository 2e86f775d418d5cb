// tests/model/hooks.cpp - the functions that instrumented code calls, in place of a race detector's.
//
// Not instrumented itself. Plain reads and writes are let through: what two schedulers share without an atomic is
// protected by one, and races on it are the business of ThreadSanitizer's own run. The operating system's locks and the
// spinning functions are wrapped by the linker, because only one scheduler runs at a time and the others must get on.
#include "hooks.h"

#include <pthread.h>

#include "platform/os.h"

namespace zvx::model {

bool gInScheduler;
bool gBuffering;
uint32_t gBuffered;

namespace {

struct DelayedStore {
    volatile void *Address;
    uint64_t Value;
    uint32_t Bytes;
    uint32_t Owner;
};
constexpr uint32_t kMostDelayed = 256;
DelayedStore gDelayed[kMostDelayed];

void DelayStore(volatile void *address, uint64_t value, uint32_t bytes) {
    if (gBuffered == kMostDelayed) FlushStores();
    gDelayed[gBuffered++] = {address, value, bytes, RunningScheduler()};
}

bool ReadDelayed(const volatile void *address, uint64_t *value) {
    for (uint32_t i = gBuffered; i-- > 0;) {
        if (gDelayed[i].Address != address || gDelayed[i].Owner != RunningScheduler()) continue;
        *value = gDelayed[i].Value;
        return true;
    }
    return false;
}

// A plain store to memory that a delayed one goes to comes after it.
void BeforePlainStore(const void *address, size_t bytes) {
    const auto *at = static_cast<const char *>(address);
    for (uint32_t i = 0; i < gBuffered; ++i) {
        const auto *delayed = const_cast<const char *>(static_cast<volatile char *>(gDelayed[i].Address));
        if (gDelayed[i].Owner != RunningScheduler() || delayed >= at + bytes || at >= delayed + gDelayed[i].Bytes)
            continue;
        FlushStores();
        return;
    }
}

}  // namespace

void FlushStores() {
    const bool running = gInScheduler;
    gInScheduler = false;
    const uint32_t count = gBuffered;
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const DelayedStore store = gDelayed[i];
        if (store.Owner != RunningScheduler()) {
            gDelayed[kept++] = store;
            continue;
        }
        NoteDelayedStore(store.Address);
        switch (store.Bytes) {
            case 1: *static_cast<volatile uint8_t *>(store.Address) = static_cast<uint8_t>(store.Value); break;
            case 2: *static_cast<volatile uint16_t *>(store.Address) = static_cast<uint16_t>(store.Value); break;
            case 4: *static_cast<volatile uint32_t *>(store.Address) = static_cast<uint32_t>(store.Value); break;
            default: *static_cast<volatile uint64_t *>(store.Address) = store.Value; break;
        }
    }
    gBuffered = kept;
    gInScheduler = running;
}

}  // namespace zvx::model

using zvx::model::BeforeAccess;
using zvx::model::gBuffered;
using zvx::model::gBuffering;
using zvx::model::gInScheduler;

#define HOOK extern "C" __attribute__((visibility("default")))
#define PC __builtin_return_address(0)

namespace {
inline void Before(const volatile void *address, bool write, const void *pc) {
    if (gInScheduler) BeforeAccess(address, write, pc);
}
inline void BeforeLocked(const volatile void *address, const void *pc) {
    if (!gInScheduler) return;
    BeforeAccess(address, true, pc);
    zvx::model::FlushStores();
}
}  // namespace

// The memory orders are the compiler's: 5 is sequentially consistent.
#define FOR_SIZE(bits, Int)                                                                                       \
    HOOK Int __tsan_atomic##bits##_load(const volatile Int *word, int) {                                          \
        Before(word, false, PC);                                                                                  \
        uint64_t own;                                                                                             \
        if (gBuffered != 0 && gInScheduler && zvx::model::ReadDelayed(word, &own)) return static_cast<Int>(own);  \
        return __atomic_load_n(word, __ATOMIC_SEQ_CST);                                                           \
    }                                                                                                             \
    HOOK void __tsan_atomic##bits##_store(volatile Int *word, Int value, int order) {                             \
        if (gBuffering && gInScheduler && order != __ATOMIC_SEQ_CST) {                                            \
            zvx::model::DelayStore(word, value, sizeof(Int));                                                     \
            return;                                                                                               \
        }                                                                                                         \
        BeforeLocked(word, PC);                                                                                   \
        __atomic_store_n(word, value, __ATOMIC_SEQ_CST);                                                          \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_exchange(volatile Int *word, Int value, int) {                                 \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_exchange_n(word, value, __ATOMIC_SEQ_CST);                                                \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_fetch_add(volatile Int *word, Int value, int) {                                \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_fetch_add(word, value, __ATOMIC_SEQ_CST);                                                 \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_fetch_sub(volatile Int *word, Int value, int) {                                \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_fetch_sub(word, value, __ATOMIC_SEQ_CST);                                                 \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_fetch_and(volatile Int *word, Int value, int) {                                \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_fetch_and(word, value, __ATOMIC_SEQ_CST);                                                 \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_fetch_or(volatile Int *word, Int value, int) {                                 \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_fetch_or(word, value, __ATOMIC_SEQ_CST);                                                  \
    }                                                                                                             \
    HOOK bool __tsan_atomic##bits##_compare_exchange_strong(volatile Int *word, Int *seen, Int value, int, int) { \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_compare_exchange_n(word, seen, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);         \
    }                                                                                                             \
    HOOK bool __tsan_atomic##bits##_compare_exchange_weak(volatile Int *word, Int *seen, Int value, int, int) {   \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_compare_exchange_n(word, seen, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);         \
    }                                                                                                             \
    HOOK Int __tsan_atomic##bits##_compare_exchange_val(volatile Int *word, Int seen, Int value, int, int) {      \
        BeforeLocked(word, PC);                                                                                   \
        __atomic_compare_exchange_n(word, &seen, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);               \
        return seen;                                                                                              \
    }
FOR_SIZE(8, uint8_t)
FOR_SIZE(16, uint16_t)
FOR_SIZE(32, uint32_t)
FOR_SIZE(64, uint64_t)

HOOK void __tsan_atomic_thread_fence(int order) {
    if (gInScheduler && order == __ATOMIC_SEQ_CST) zvx::model::FlushStores();
}
HOOK void __tsan_atomic_signal_fence(int) {}

#define FOR_PLAIN(bytes)                                                             \
    HOOK void __tsan_read##bytes(void *) {}                                          \
    HOOK void __tsan_unaligned_read##bytes(void *) {}                                \
    HOOK void __tsan_write##bytes(void *at) {                                        \
        if (gBuffered != 0 && gInScheduler) zvx::model::BeforePlainStore(at, bytes); \
    }                                                                                \
    HOOK void __tsan_unaligned_write##bytes(void *at) {                              \
        if (gBuffered != 0 && gInScheduler) zvx::model::BeforePlainStore(at, bytes); \
    }                                                                                \
    HOOK void __tsan_read_write##bytes(void *at) {                                   \
        __tsan_write##bytes(at);                                                     \
    }                                                                                \
    HOOK void __tsan_unaligned_read_write##bytes(void *at) {                         \
        __tsan_write##bytes(at);                                                     \
    }
FOR_PLAIN(1)
FOR_PLAIN(2)
FOR_PLAIN(4)
FOR_PLAIN(8)
FOR_PLAIN(16)
HOOK void __tsan_read_range(void *, size_t) {}
HOOK void __tsan_write_range(void *at, size_t bytes) {
    if (gBuffered != 0 && gInScheduler) zvx::model::BeforePlainStore(at, bytes);
}
HOOK void __tsan_vptr_update(void **, void *) {}
HOOK void __tsan_vptr_read(void **) {}
HOOK void __tsan_func_entry(void *) {}
HOOK void __tsan_func_exit() {}
HOOK void __tsan_init() {}

// ---- Wrapped by the linker ---------------------------------------------------------------------------

// The lock of the scripted ports' queues. Never held where anybody can come in between.
extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    BeforeLocked(mutex, PC);
    return __real_pthread_mutex_lock(mutex);
}

namespace os {
void WrappedCpuRelax() __asm__("__wrap__ZN2os8CpuRelaxEv");
void WrappedYieldProcessor() __asm__("__wrap__ZN2os14YieldProcessorEv");
void WrappedEnter(CriticalSection *section) __asm__("__wrap__ZN2os20EnterCriticalSectionEPNS_15CriticalSectionE");

void WrappedCpuRelax() {
    if (gInScheduler) zvx::model::WhileSpinning();
}
void WrappedYieldProcessor() {
    if (gInScheduler) zvx::model::WhileSpinning();
}
void WrappedEnter(CriticalSection *section) {
    BeforeLocked(section, PC);
    while (!TryEnterCriticalSection(section)) zvx::model::WhileSpinning();
}
}  // namespace os
