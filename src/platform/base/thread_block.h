// platform/base/thread_block.h - what the platform keeps per kernel thread behind the public ThreadBlock.
//
// The block must work on every kernel thread at any time, also on threads that a foreign library made: its
// FiberData is right from the first instruction (constant initialisation), and the rest is completed by the first
// CurrentThreadBlock. At the end of the thread the exit hooks run, then slots, alert state and signal stack go.
#ifndef ZVX_PLATFORM_BASE_THREAD_BLOCK_H
#define ZVX_PLATFORM_BASE_THREAD_BLOCK_H

#include <atomic>
#include <cstdint>

#include "platform/base/alertable.h"
#include "platform/os.h"

// No compiler may inline, clone or draw conclusions from such a function: a caller that is a fiber may return from
// a switch on another kernel thread, and a thread-local address that was computed before is then a stranger's.
#if defined(__clang__)
#define ZVX_THREAD_ACCESSOR __attribute__((noinline))
#else
#define ZVX_THREAD_ACCESSOR __attribute__((noinline, noipa))
#endif

namespace os {

struct Object;

constexpr uint32_t kExpansionSlots = 1024;  // slots kTlsSlots to kTlsSlots + 1023, one array a thread, on demand

struct ThreadLocals {
    ThreadBlock Block;               // first: the public part
    void *OwnSlots[kTlsSlots];       // owner; cleared by TlsFree of any thread, so accessed as atomics
    std::atomic<void **> Expansion;  // owner: kExpansionSlots values, null until one is set
    AlertState *Alert;               // owner: see alertable.h, null until asked for
    Object *ThreadObject;            // kernel threads: the object behind this thread's handle, null until there is one
    char *StackLow;                  // owner: the thread's own stack, set by ArmStackOverflowReport
    char *StackHigh;                 // owner
    size_t GuardBytes;               // owner: below StackLow
    void *SignalStack;               // owner: alternate stack that we mapped, null when it is somebody else's
    FiberContext *Converted;         // owner: the context of ConvertThreadToFiber, freed with the thread
    ThreadLocals *Next;              // [registry lock] every completed thread of the process
    ThreadLocals *Prev;              // [registry lock]
};

// The calling thread's record, completed if need be. The same rule as for CurrentThreadBlock.
ThreadLocals *CurrentThreadLocals();

// Runs on every ending kernel thread that has a completed block, before anything of it is torn down. At most four
// hooks, registered once each at start (the thread objects do, to signal and let go of theirs).
using ThreadExitHook = void (*)(ThreadLocals *locals);
void AddThreadExitHook(ThreadExitHook hook);

// Calls visit(locals, arg) for every completed thread, under the registry lock: the visitor must be short, must
// not end a thread and must not complete one.
void ForEachThread(void (*visit)(ThreadLocals *locals, void *arg), void *arg);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_THREAD_BLOCK_H
