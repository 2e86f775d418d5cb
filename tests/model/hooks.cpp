// tests/model/hooks.cpp - the functions that instrumented code calls, in place of a race detector's.
//
// Not instrumented itself. Plain reads and writes are let through: what two schedulers share without an atomic is
// protected by one, and races on it are the business of ThreadSanitizer's own run. The operating system's locks and the
// spinning functions are wrapped by the linker, because only one scheduler runs at a time and the others must get on.
#include "hooks.h"

#include <pthread.h>

#include "platform/os.h"

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
        if (gBuffered != 0 && gInScheduler && zvx::model::ReadBuffered(word, &own)) return static_cast<Int>(own); \
        return __atomic_load_n(word, __ATOMIC_SEQ_CST);                                                           \
    }                                                                                                             \
    HOOK void __tsan_atomic##bits##_store(volatile Int *word, Int value, int order) {                             \
        if (gBuffering && gInScheduler && order != __ATOMIC_SEQ_CST) {                                            \
            zvx::model::BufferStore(word, value, sizeof(Int));                                                    \
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

#define FOR_PLAIN(bytes)                                            \
    HOOK void __tsan_read##bytes(void *) {}                         \
    HOOK void __tsan_unaligned_read##bytes(void *) {}               \
    HOOK void __tsan_write##bytes(void *at) {                       \
        if (gBuffered != 0) zvx::model::FlushIfBuffered(at, bytes); \
    }                                                               \
    HOOK void __tsan_unaligned_write##bytes(void *at) {             \
        if (gBuffered != 0) zvx::model::FlushIfBuffered(at, bytes); \
    }                                                               \
    HOOK void __tsan_read_write##bytes(void *at) {                  \
        __tsan_write##bytes(at);                                    \
    }                                                               \
    HOOK void __tsan_unaligned_read_write##bytes(void *at) {        \
        __tsan_write##bytes(at);                                    \
    }
FOR_PLAIN(1)
FOR_PLAIN(2)
FOR_PLAIN(4)
FOR_PLAIN(8)
FOR_PLAIN(16)
HOOK void __tsan_read_range(void *, size_t) {}
HOOK void __tsan_write_range(void *at, size_t bytes) {
    if (gBuffered != 0) zvx::model::FlushIfBuffered(at, bytes);
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
