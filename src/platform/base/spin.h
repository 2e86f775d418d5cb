// platform/base/spin.h - the spin lock of the platform's own short critical sections.
//
// Guards a few pointer moves at a time (free lists, registries), on any thread and inside no signal handler. It spins
// briefly and then yields the processor, because the holder may have been preempted. Errno is preserved. A holder is in
// an inner region: it is not suspended or ended before it lets go.
#ifndef ZVX_PLATFORM_BASE_SPIN_H
#define ZVX_PLATFORM_BASE_SPIN_H

#include <atomic>
#include <cstdint>

#include "platform/base/inner_lock.h"

namespace os {

void SpinSlow(std::atomic<uint32_t> *word);  // lock.cpp: takes a word that was found held

struct SpinWord {
    std::atomic<uint32_t> Held{0};

    void Lock() {
        EnterInnerRegion();
        if (Held.exchange(1, std::memory_order_acquire) != 0) SpinSlow(&Held);
    }
    void Unlock() {
        Held.store(0, std::memory_order_release);
        LeaveInnerRegion();
    }
};

struct SpinGuard {
    explicit SpinGuard(SpinWord &word) : Word(word) { Word.Lock(); }
    ~SpinGuard() { Word.Unlock(); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;
    SpinWord &Word;
};

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_SPIN_H
