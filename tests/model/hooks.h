// tests/model/hooks.h - between the instrumented library and the explorer: what the hooks report.
#ifndef ZVX_TESTS_MODEL_HOOKS_H
#define ZVX_TESTS_MODEL_HOOKS_H

#include <cstddef>
#include <cstdint>

namespace zvx::model {

// True while code of a scheduler runs; false in the explorer, where no hook does anything.
extern bool gInScheduler;
extern bool gBuffering;  // option "buffers"
extern uint32_t gBuffered;

// The running scheduler is about to use the word at `address`; returns when it may. `pc` is where.
void BeforeAccess(const volatile void *address, bool write, const void *pc);
// It waits for somebody else: a spin lock, a look for messages.
void WhileSpinning();

// Stores that only their own scheduler sees yet (at most eight bytes each).
void BufferStore(volatile void *address, uint64_t value, uint32_t bytes);
bool ReadBuffered(const volatile void *address, uint64_t *value);
void FlushStores();
void FlushIfBuffered(const void *address, size_t bytes);

}  // namespace zvx::model

#endif  // ZVX_TESTS_MODEL_HOOKS_H
