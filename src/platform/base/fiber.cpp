// platform/base/fiber.cpp - fibers: making, switching, deleting, and what the sanitizers are told about it.
//
// SwitchToFiber runs on whichever kernel thread holds the two fibers, and returns on another one when the fiber was
// moved meanwhile: it keeps nothing of the thread across the switch. It never allocates, locks or enters the kernel.
// Every annotation for AddressSanitizer and ThreadSanitizer is in this file.
#include "platform/base/fiber_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>

#include "platform/base/fail.h"
#include "platform/base/thread_block.h"

#if defined(ZVX_ASAN)
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(ZVX_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace os {

namespace {

constexpr DWORD kErrorAlreadyFiber = 1280;

// What __cxa_get_globals points at, by the ABI of C++ on this platform.
struct ExceptionGlobals {
    void *CaughtExceptions;
    uint32_t UncaughtExceptions;
};

#if defined(ZVX_ASAN) || defined(ZVX_TSAN)

// The bottom frame of a fiber in sanitizer builds: the first thing to do on a new stack is to say that we are on it.
void EnterFiber(void *arg) {
    FiberContext *self = static_cast<FiberContext *>(arg);
#if defined(ZVX_ASAN)
    __sanitizer_finish_switch_fiber(nullptr, nullptr, nullptr);
#endif
    self->Start(self->Data);
}

void AnnotateNew(FiberContext *context) {
    context->FakeStack = nullptr;
#if defined(ZVX_TSAN)
    context->RaceFiber = __tsan_create_fiber(0);
#endif
}

void AnnotateDelete(FiberContext *context) {
#if defined(ZVX_ASAN)
    // Its frames on the heap, if it has any, are freed by a last switch away from it, which nobody knew to be the last.
    // So the calling thread claims to be the fiber for a moment. The stack bounds do not matter in between.
    if (context->FakeStack != nullptr) {
        const size_t size = static_cast<size_t>(context->StackHigh - context->StackLow);
        void *mine = nullptr;
        const void *bottom;
        size_t bytes;
        __sanitizer_start_switch_fiber(&mine, context->StackLow, size);
        __sanitizer_finish_switch_fiber(context->FakeStack, &bottom, &bytes);
        __sanitizer_start_switch_fiber(nullptr, bottom, bytes);
        __sanitizer_finish_switch_fiber(mine, nullptr, nullptr);
        context->FakeStack = nullptr;
    }
#endif
#if defined(ZVX_TSAN)
    // Never kept for the next user of the stack: exits do not unwind, and its record of open calls would only grow.
    __tsan_destroy_fiber(context->RaceFiber);
    context->RaceFiber = nullptr;
#endif
}

#endif

FiberContext *Prepare(FiberContext *context, void (*start)(void *), void *data) {
    context->Data = data;
    context->CaughtExceptions = nullptr;
    context->UncaughtExceptions = 0;
    context->Errno = 0;
    char *top = context->StackHigh - size_t{context->Colour} * 64;
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    context->Start = start;
    AnnotateNew(context);
    context->StackPointer = zvx_initial_frame(top, EnterFiber, context);
#else
    context->StackPointer = zvx_initial_frame(top, start, data);
#endif
    return context;
}

}  // namespace

FiberContext *ConvertThreadToFiber(void *data) {
    if (ShouldFail("ConvertThreadToFiber")) return nullptr;
    ThreadLocals *locals = CurrentThreadLocals();
    if (locals->Block.Current != nullptr) {
        SetLastError(kErrorAlreadyFiber);
        return nullptr;
    }
    ArmStackOverflowReport();
    FiberContext *context = new (std::nothrow) FiberContext{};
    if (context == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    context->Data = data;
    context->StackLow = locals->StackLow;
    context->StackHigh = locals->StackHigh;
    context->GuardBytes = static_cast<uint32_t>(locals->GuardBytes);
    context->SizeClass = kConvertedThread;
#if defined(ZVX_TSAN)
    context->RaceFiber = __tsan_get_current_fiber();
#endif
    locals->Converted = context;
    locals->Block.Current = context;
    locals->Block.FiberData = data;
    return context;
}

void FreeConvertedContext(ThreadLocals *locals) {
    FiberContext *context = locals->Converted;
    locals->Converted = nullptr;
    locals->Block.Current = nullptr;
    locals->Block.FiberData = reinterpret_cast<void *>(kNoFiberData);
    delete context;
}

FiberContext *CreateFiber(size_t stackBytes, void (*start)(void *), void *data) {
    if (ShouldFail("CreateFiber")) return nullptr;
    FiberContext *context = TakeStack(stackBytes);
    return context == nullptr ? nullptr : Prepare(context, start, data);
}

FiberContext *CreateFiberRecycled(size_t stackBytes, void (*start)(void *), void *data) {
    // No reason is given, so the last error stays.
    if (ShouldFailInside("CreateFiberRecycled") != 0) return nullptr;
    FiberContext *context = TakeRecycledStack(stackBytes);
    return context == nullptr ? nullptr : Prepare(context, start, data);
}

// The caller's frame is the last that is pushed on the old stack, and in plain builds zvx_switch_stack is a tail call,
// so that it returns to our caller directly. Errno and the exception state are reached through addresses that the
// block caches: asking the C library for them costs more than the switch.
void SwitchToFiber(ThreadBlock *block, FiberContext *to) {
    FiberContext *from = block->Current;
    if (from == to) [[unlikely]]
        return;
    ExceptionGlobals *exceptions = static_cast<ExceptionGlobals *>(block->ExceptionState);
    int *errorNumber = block->Errno;
    from->CaughtExceptions = exceptions->CaughtExceptions;
    from->UncaughtExceptions = exceptions->UncaughtExceptions;
    from->Errno = *errorNumber;
    exceptions->CaughtExceptions = to->CaughtExceptions;
    exceptions->UncaughtExceptions = to->UncaughtExceptions;
    *errorNumber = to->Errno;
    block->FiberData = to->Data;
    block->Current = to;
#if defined(ZVX_ASAN)
    __sanitizer_start_switch_fiber(&from->FakeStack, to->StackLow, static_cast<size_t>(to->StackHigh - to->StackLow));
#endif
#if defined(ZVX_TSAN)
    __tsan_switch_to_fiber(to->RaceFiber, 0);
#endif
    zvx_switch_stack(&from->StackPointer, to->StackPointer);
#if defined(ZVX_ASAN)
    // Perhaps on another kernel thread: the sanitizer finds out which by itself, and `from` is this fiber wherever
    // it runs.
    __sanitizer_finish_switch_fiber(from->FakeStack, nullptr, nullptr);
#endif
}

void LeaveFibersByJump(ThreadLocals *locals) {
    FiberContext *own = locals->Converted;
    if (own == nullptr || locals->Block.Current == own) return;
    locals->Block.Current = own;
    locals->Block.FiberData = own->Data;
#if defined(ZVX_ASAN)
    __sanitizer_start_switch_fiber(nullptr, own->StackLow, static_cast<size_t>(own->StackHigh - own->StackLow));
    __sanitizer_finish_switch_fiber(own->FakeStack, nullptr, nullptr);
#endif
#if defined(ZVX_TSAN)
    __tsan_switch_to_fiber(own->RaceFiber, 0);
#endif
}

void DeleteFiber(FiberContext *fiber) {
    if (fiber->SizeClass == kConvertedThread) {
        // The calling thread's own: it is a plain thread again. Another thread's context is that thread's to free,
        // when it ends.
        ThreadLocals *locals = CurrentThreadLocals();
        if (locals->Converted == fiber && locals->Block.Current == fiber) FreeConvertedContext(locals);
        return;
    }
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    AnnotateDelete(fiber);
#endif
    FreeStack(fiber);
}

void FiberStackBounds(const FiberContext *fiber, const char **low, const char **high) {
    *low = fiber->StackLow;
    *high = fiber->StackHigh;
}

// Reads the page table through /proc: a page that was swapped out was touched, which mincore would deny.
size_t FiberStackHighWater(const FiberContext *fiber) {
    constexpr uint64_t kPresent = uint64_t{1} << 63;
    constexpr uint64_t kSwapped = uint64_t{1} << 62;
    const int savedErrno = errno;
    const size_t firstPage = reinterpret_cast<uintptr_t>(fiber->StackLow) / kPageBytes;
    const size_t pages = static_cast<size_t>(fiber->StackHigh - fiber->StackLow) / kPageBytes;
    size_t untouched = 0;
    const int map = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
    if (map >= 0) {
        uint64_t entries[64];
        bool found = false;
        while (!found && untouched < pages) {
            const size_t want = pages - untouched < 64 ? pages - untouched : 64;
            const ssize_t got = pread(map, entries, want * 8, static_cast<off_t>((firstPage + untouched) * 8));
            if (got < 8) break;
            for (size_t i = 0; i < static_cast<size_t>(got) / 8 && !found; ++i) {
                found = (entries[i] & (kPresent | kSwapped)) != 0;
                if (!found) ++untouched;
            }
        }
        close(map);
    } else {
        unsigned char resident = 0;
        while (untouched < pages &&
               (mincore(fiber->StackLow + untouched * kPageBytes, kPageBytes, &resident) != 0 || (resident & 1) == 0)) {
            ++untouched;
        }
    }
    errno = savedErrno;
    return (pages - untouched) * kPageBytes;
}

void PrefetchFiber(const FiberContext *fiber) {
    // The saved registers and the frame above them. Reading the pointer may itself miss, but nothing waits for it.
    const char *top = static_cast<const char *>(fiber->StackPointer);
    __builtin_prefetch(top);
    __builtin_prefetch(top + 64);
}

}  // namespace os
