// tests/model/hooks.h - between the instrumented library and the explorer: what the hooks report.
#ifndef ZVX_TESTS_MODEL_HOOKS_H
#define ZVX_TESTS_MODEL_HOOKS_H

#include <cstddef>
#include <cstdint>

namespace zvx::model {

// True while code of a scheduler runs; false in the explorer, where no hook does anything.
extern bool gInScheduler;
extern bool gBuffering;     // option "buffers"
extern uint32_t gBuffered;  // stores that are delayed now

// The running scheduler is about to use the word at `address`; returns when it may. `pc` is where.
void BeforeAccess(const volatile void *address, bool write, const void *pc);
// It waits for somebody else: a spin lock, a look for messages.
void WhileSpinning();

// Option "buffers": stores that only their own scheduler sees become visible, at the latest when it gives the processor
// away.
void FlushStores();
uint32_t RunningScheduler();
void NoteDelayedStore(const volatile void *address);

}  // namespace zvx::model

#endif  // ZVX_TESTS_MODEL_HOOKS_H
