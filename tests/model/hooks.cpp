// tests/model/hooks.cpp - the functions that instrumented code calls, in place of a race detector's.
//
// Not instrumented itself. Plain reads and writes are let through: what two schedulers share without an atomic is
// protected by one, and races on it are the business of ThreadSanitizer's own run. The operating system's locks and the
// spinning functions are wrapped by the linker, because only one scheduler runs at a time and the others must get on.
#include "explorer.h"

#include <pthread.h>

#include <cstring>

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

void BeforeLocked(const volatile void *address, const void *pc) {
    BeforeAccess(address, true, pc);
    if (gInScheduler) FlushStores();
}

// A plain store to memory that a delayed one goes to comes after it.
void BeforePlain(const void *address, size_t bytes) {
    if (!gInScheduler) return;
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
        std::memcpy(const_cast<void *>(store.Address), &store.Value, store.Bytes);  // the lowest bytes come first
    }
    gBuffered = kept;
    gInScheduler = running;
}

#define HOOK extern "C" __attribute__((visibility("default")))
#define PC __builtin_return_address(0)

#define CHANGE(bits, Int, operation, builtin)                                        \
    HOOK Int __tsan_atomic##bits##_##operation(volatile Int *word, Int value, int) { \
        BeforeLocked(word, PC);                                                      \
        return __atomic_##builtin(word, value, __ATOMIC_SEQ_CST);                    \
    }
#define COMPARE(bits, Int, kind)                                                                                  \
    HOOK bool __tsan_atomic##bits##_compare_exchange_##kind(volatile Int *word, Int *seen, Int value, int, int) { \
        BeforeLocked(word, PC);                                                                                   \
        return __atomic_compare_exchange_n(word, seen, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);         \
    }
// The memory orders are the compiler's: 5 is sequentially consistent.
#define FOR_SIZE(bits, Int)                                                                                  \
    HOOK Int __tsan_atomic##bits##_load(const volatile Int *word, int) {                                     \
        BeforeAccess(word, false, PC);                                                                       \
        uint64_t own;                                                                                        \
        if (gBuffered != 0 && gInScheduler && ReadDelayed(word, &own)) return static_cast<Int>(own);         \
        return __atomic_load_n(word, __ATOMIC_SEQ_CST);                                                      \
    }                                                                                                        \
    HOOK void __tsan_atomic##bits##_store(volatile Int *word, Int value, int order) {                        \
        if (gBuffering && gInScheduler && order != __ATOMIC_SEQ_CST) {                                       \
            DelayStore(word, value, sizeof(Int));                                                            \
            return;                                                                                          \
        }                                                                                                    \
        BeforeLocked(word, PC);                                                                              \
        __atomic_store_n(word, value, __ATOMIC_SEQ_CST);                                                     \
    }                                                                                                        \
    CHANGE(bits, Int, exchange, exchange_n)                                                                  \
    CHANGE(bits, Int, fetch_add, fetch_add)                                                                  \
    CHANGE(bits, Int, fetch_sub, fetch_sub)                                                                  \
    CHANGE(bits, Int, fetch_and, fetch_and)                                                                  \
    CHANGE(bits, Int, fetch_or, fetch_or)                                                                    \
    COMPARE(bits, Int, strong)                                                                               \
    COMPARE(bits, Int, weak)                                                                                 \
    HOOK Int __tsan_atomic##bits##_compare_exchange_val(volatile Int *word, Int seen, Int value, int, int) { \
        BeforeLocked(word, PC);                                                                              \
        __atomic_compare_exchange_n(word, &seen, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);          \
        return seen;                                                                                         \
    }
FOR_SIZE(8, uint8_t)
FOR_SIZE(16, uint16_t)
FOR_SIZE(32, uint32_t)
FOR_SIZE(64, uint64_t)

HOOK void __tsan_atomic_thread_fence(int order) {
    if (gInScheduler && order == __ATOMIC_SEQ_CST) FlushStores();
}
HOOK void __tsan_atomic_signal_fence(int) {}

#define WRITE(kind, bytes)                     \
    HOOK void __tsan_##kind##bytes(void *at) { \
        BeforePlain(at, bytes);                \
    }
#define FOR_PLAIN(bytes)                              \
    HOOK void __tsan_read##bytes(void *) {}           \
    HOOK void __tsan_unaligned_read##bytes(void *) {} \
    WRITE(write, bytes) WRITE(unaligned_write, bytes) WRITE(read_write, bytes) WRITE(unaligned_read_write, bytes)
FOR_PLAIN(1)
FOR_PLAIN(2)
FOR_PLAIN(4)
FOR_PLAIN(8)
FOR_PLAIN(16)
HOOK void __tsan_read_range(void *, size_t) {}
HOOK void __tsan_write_range(void *at, size_t bytes) {
    BeforePlain(at, bytes);
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

extern "C" void __wrap__ZN2os8CpuRelaxEv() {
    WhileSpinning();
}
extern "C" void __wrap__ZN2os14YieldProcessorEv() {
    WhileSpinning();
}
extern "C" void __wrap__ZN2os20EnterCriticalSectionEPNS_15CriticalSectionE(os::CriticalSection *section) {
    BeforeLocked(section, PC);
    while (!os::TryEnterCriticalSection(section)) WhileSpinning();
}

}  // namespace zvx::model
