// platform/base/fiber_internal.h - contexts and stacks of fibers, shared by fiber.cpp, stack.cpp and overflow.cpp.
//
// A FiberContext is either carved from a slab together with its stack (CreateFiber), or stands for a kernel thread's
// own stack (ConvertThreadToFiber). Slab contexts are never unmapped: DeleteFiber puts context and stack together
// on the free list of their size, where the next CreateFiber of that size finds them.
#ifndef ZVX_PLATFORM_BASE_FIBER_INTERNAL_H
#define ZVX_PLATFORM_BASE_FIBER_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/base/thread_block.h"
#include "platform/os.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZVX_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZVX_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define ZVX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZVX_TSAN 1
#endif
#endif

namespace os {

constexpr size_t kPageBytes = 4096;

// One fiber. While it runs, every field but the last group is stale and Current of its thread's block leads here; while
// it is parked, the fields belong to whoever holds the fiber (the scheduler's queues order the accesses); while it is
// free, to the list of its size class.
//
// The first line is all that a switch touches, so that a thousand parked fibers cost a thousand lines and their stack
// tops, and nothing else.
struct alignas(64) FiberContext {
    void *StackPointer;           // of the saved registers; switch_x86_64.S stores and loads it (offset 0)
    void *Data;                   // init: what GetFiberData returns while it runs
    void *CaughtExceptions;       // the two words of the C++ exception globals
    uint32_t UncaughtExceptions;  //
    int Errno;                    //
    char *StackLow;               // init: lowest usable byte; the guard lies below it
    char *StackHigh;              // init: one past the highest byte of the mapping
    FiberContext *NextFree;       // [class lock] chain of the free lists
    uint16_t SizeClass;           // init: see stack.cpp; kConvertedThread for a kernel thread's own stack
    uint16_t Colour;              // init: cache lines by which the first frame is moved down
    uint32_t GuardBytes;          // init: bytes below StackLow that nobody may touch
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    void (*Start)(void *);  // until the first switch to it
    void *FakeStack;        // AddressSanitizer: frames that live on the heap while the fiber is parked
    void *RaceFiber;        // ThreadSanitizer: its idea of this fiber
#endif
};
static_assert(offsetof(FiberContext, StackPointer) == 0, "switch_x86_64.S stores through the context's address");
#if !defined(ZVX_ASAN) && !defined(ZVX_TSAN)
static_assert(sizeof(FiberContext) == 64);
#endif

constexpr uint16_t kConvertedThread = 0xFFFF;

// switch_x86_64.S: pushes the callee-saved state, stores the stack pointer in *save and continues at `load`.
extern "C" void zvx_switch_stack(void **save, void *load);
// Lays the frame below `top` (16-byte aligned) from which zvx_switch_stack enters fn(arg), with the caller's MXCSR and
// x87 control word; returns the stack pointer to continue at.
extern "C" void *zvx_initial_frame(void *top, void (*fn)(void *), void *arg);

// stack.cpp. A context with a stack of at least `bytes`, from the free lists only, or also freshly mapped (null with
// ERROR_NOT_ENOUGH_MEMORY). Given back by FreeStack; any thread.
FiberContext *TakeRecycledStack(size_t bytes);
FiberContext *TakeStack(size_t bytes);
void FreeStack(FiberContext *context);
// The context whose guard holds `address`, null if none. Reads only; a signal handler may call it.
const FiberContext *ContextOfGuard(const char *address);

// thread_block.cpp: the calling thread's block as it is, never completed; for signal handlers.
const ThreadBlock *PeekThreadBlock();
// fiber.cpp and overflow.cpp, at the end of a kernel thread.
void FreeConvertedContext(ThreadLocals *locals);
void DisarmSignalStack(ThreadLocals *locals);
// fiber.cpp: the calling thread is about to jump from whatever fiber it runs to its own stack, for good.
void LeaveFibersByJump(ThreadLocals *locals);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_FIBER_INTERNAL_H
