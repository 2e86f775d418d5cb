// platform/base/stack.cpp - where the stacks of fibers come from and go to.
//
// Any thread takes and frees stacks; nothing here runs a fiber. Stacks are mapped in slabs of one size class. A slab
// is one mapping: a page of contexts, then stack after stack, each with its guard below it. The kernel commits
// nothing before it is touched, so a parked fiber costs the page or two at the top of its stack.
//
//     | contexts | guard | stack 0 | guard | stack 1 | ...
//
// The address space of a stack is never given back; a free stack keeps its touched pages as long as not too many of
// its size are free, and beyond that gives the memory back. Taking a recycled stack makes no system call.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <bit>

#include "platform/base/fail.h"
#include "platform/base/fiber_internal.h"
#include "platform/base/spin.h"

#if defined(ZVX_ASAN)
#include <sanitizer/asan_interface.h>
#endif
#if defined(ZVX_VALGRIND) && __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#define ZVX_REGISTER_STACK(low, high) VALGRIND_STACK_REGISTER(low, high)
#else
#define ZVX_REGISTER_STACK(low, high) static_cast<void>(0)
#endif

namespace os {

namespace {

// Guards that live in the page tables only (Linux 6.13): no map of their own, so that 30,000 stacks are a few maps
// and not 60,000, which is the kernel's usual limit.
constexpr int kMadvGuardInstall = 102;

// Four pages: a frame with a large array that is not touched from its top still meets the guard.
constexpr size_t kGuardPages = 4;

// Stack tops are moved down by 0 to 31 cache lines. Tops at the same offset in their page meet in the same few sets of
// the first-level cache (bench/platform_bench, EPYC of 2025: 10.3 ns a switch among 1000 fibers against 8.5; 16
// colours cost the same, and 64 gain nothing). More than half a page would cost parked fibers a second page too often.
constexpr uint32_t kColours = 32;

// Free stacks of one class that keep their memory.
constexpr uint32_t kWarmStacks = 1024;

constexpr size_t kMaxSlabBytes = size_t{1} << 30;
constexpr size_t kMinStackPages = 4;
constexpr size_t kMaxStackPages = size_t{1} << 20;
#if defined(ZVX_ASAN) || defined(ZVX_TSAN) || defined(ZVX_LARGE_STACKS)
constexpr size_t kStackFactor = 4;  // instrumented frames are that much larger
#else
constexpr size_t kStackFactor = 1;
#endif

// Sizes are rounded up to a class, so that a free list is found without a search: every size up to 16 pages, then
// eight steps for each doubling. What is lost is address space, not memory.
constexpr uint32_t kExactClasses = 16;
constexpr uint32_t kClasses = kExactClasses + 8 * 16;

uint32_t ClassOfPages(size_t pages) {
    if (pages <= kExactClasses) return static_cast<uint32_t>(pages) - 1;
    const uint32_t log2 = static_cast<uint32_t>(std::bit_width(pages - 1)) - 1;
    const size_t step = size_t{1} << (log2 - 3);
    return kExactClasses + (log2 - 4) * 8 + static_cast<uint32_t>((pages + step - 1) / step) - 9;
}

size_t PagesOfClass(uint32_t sizeClass) {
    if (sizeClass < kExactClasses) return sizeClass + 1;
    const uint32_t level = (sizeClass - kExactClasses) / 8;
    return (size_t{9} + (sizeClass - kExactClasses) % 8) << (level + 1);
}

// One per size class. Last in, first out, so that the stack which is handed out is the one whose top is still cached.
struct alignas(64) StackClass {
    SpinWord Lock;
    uint32_t WarmCount;   // [Lock] length of Warm
    FiberContext *Warm;   // [Lock] free, memory kept
    FiberContext *Cold;   // [Lock] free, memory given back
    FiberContext *Fresh;  // [Lock] never used: no guard yet
};
constinit StackClass gClasses[kClasses] = {};

// At the start of every slab. Slabs are never unmapped, so the chain may be walked without a lock, and in a signal
// handler.
struct alignas(64) Slab {
    Slab *Next;   // init
    char *First;  // init: lowest byte of the first guard
    size_t Stride;
    uint32_t Count;
    FiberContext *Contexts;
};
constinit std::atomic<Slab *> gSlabs{nullptr};
constinit std::atomic<uint32_t> gNextColour{0};

constexpr size_t kSlabStacks = (kPageBytes - sizeof(Slab)) / sizeof(FiberContext);

enum GuardMode : uint32_t { kUnprobed, kMarkers, kProtection };
constinit std::atomic<uint32_t> gGuardMode{kUnprobed};

// Makes [low, low + bytes) fault. The first call finds out what the kernel has; ZVXKVT_GUARD=mprotect in the
// environment asks for the old way, for tests.
bool InstallGuard(char *low, size_t bytes) {
    if (ShouldFailInside("guard_stack") != 0) return false;
    uint32_t mode = gGuardMode.load(std::memory_order_relaxed);
    if (mode == kUnprobed) {
        const char *asked = getenv("ZVXKVT_GUARD");
        const bool protection = asked != nullptr && strcmp(asked, "mprotect") == 0;
        mode = !protection && madvise(low, bytes, kMadvGuardInstall) == 0 ? kMarkers : kProtection;
        gGuardMode.store(mode, std::memory_order_relaxed);  // another thread finds out the same
        if (mode == kMarkers) return true;
    }
    if (mode == kMarkers) return madvise(low, bytes, kMadvGuardInstall) == 0;
    return mprotect(low, bytes, PROT_NONE) == 0;
}

// Maps a slab and files its contexts as fresh. Fewer stacks at a time when the kernel refuses many (a limit on the
// address space, or strict accounting of what is mapped).
bool MapSlab(uint32_t sizeClass) {
    const size_t stackBytes = PagesOfClass(sizeClass) * kPageBytes;
    constexpr size_t guardBytes = kGuardPages * kPageBytes;
    const size_t stride = stackBytes + guardBytes;
    size_t count = kMaxSlabBytes / stride;
    count = count < 1 ? 1 : count > kSlabStacks ? kSlabStacks : count;
    void *memory = MAP_FAILED;
    for (;; count = (count + 1) / 2) {
        if (ShouldFailInside("map_stacks") == 0)
            memory = mmap(nullptr, kPageBytes + count * stride, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
        if (memory != MAP_FAILED || count == 1) break;
    }
    if (memory == MAP_FAILED) return false;
    // A huge page under a stack would cost 2 MiB for the few hundred bytes that a parked fiber uses. Kernels without
    // huge pages refuse, and have no need of it.
    madvise(memory, kPageBytes + count * stride, MADV_NOHUGEPAGE);

    Slab *slab = static_cast<Slab *>(memory);
    slab->First = static_cast<char *>(memory) + kPageBytes;
    slab->Stride = stride;
    slab->Count = static_cast<uint32_t>(count);
    slab->Contexts = reinterpret_cast<FiberContext *>(slab + 1);
    // Seven is odd against the colours, so that neighbours in a queue, which were often made one after the other,
    // are not neighbours in the cache.
    uint32_t colour = gNextColour.fetch_add(static_cast<uint32_t>(count), std::memory_order_relaxed);
    for (size_t i = 0; i < count; ++i) {
        FiberContext *context = &slab->Contexts[i];
        context->StackLow = slab->First + i * stride + guardBytes;
        context->StackHigh = context->StackLow + stackBytes;
        context->SizeClass = static_cast<uint16_t>(sizeClass);
        context->Colour = static_cast<uint16_t>(colour++ * 7 % kColours);
        context->GuardBytes = static_cast<uint32_t>(guardBytes);
        context->NextFree = i + 1 < count ? context + 1 : nullptr;
    }
    // Release, so that whoever walks the chain sees a slab that is filled in.
    slab->Next = gSlabs.load(std::memory_order_relaxed);
    while (!gSlabs.compare_exchange_weak(slab->Next, slab, std::memory_order_release, std::memory_order_relaxed)) {
    }
    StackClass &free = gClasses[sizeClass];
    SpinGuard guard(free.Lock);
    slab->Contexts[count - 1].NextFree = free.Fresh;
    free.Fresh = slab->Contexts;
    return true;
}

bool ClassOfBytes(size_t bytes, uint32_t *sizeClass) {
    if (bytes > kMaxStackPages * kPageBytes / kStackFactor) return false;
    size_t pages = (bytes * kStackFactor + kPageBytes - 1) / kPageBytes;
    if (pages < kMinStackPages * kStackFactor) pages = kMinStackPages * kStackFactor;
    *sizeClass = ClassOfPages(pages);
    return true;
}

FiberContext *PopUsed(StackClass &free) {
    SpinGuard guard(free.Lock);
    FiberContext *context = free.Warm;
    if (context != nullptr) {
        free.Warm = context->NextFree;
        --free.WarmCount;
        return context;
    }
    context = free.Cold;
    if (context != nullptr) free.Cold = context->NextFree;
    return context;
}

FiberContext *PopFresh(StackClass &free) {
    SpinGuard guard(free.Lock);
    FiberContext *context = free.Fresh;
    if (context != nullptr) free.Fresh = context->NextFree;
    return context;
}

}  // namespace

FiberContext *TakeRecycledStack(size_t bytes) {
    uint32_t sizeClass;
    if (!ClassOfBytes(bytes, &sizeClass)) return nullptr;
    return PopUsed(gClasses[sizeClass]);
}

FiberContext *TakeStack(size_t bytes) {
    FiberContext *context = TakeRecycledStack(bytes);
    if (context != nullptr) return context;
    const int savedErrno = errno;
    uint32_t sizeClass;
    if (ClassOfBytes(bytes, &sizeClass)) {
        StackClass &free = gClasses[sizeClass];
        // Another thread may take every stack of the slab that was just mapped, hence the loop.
        do {
            context = PopFresh(free);
        } while (context == nullptr && MapSlab(sizeClass));
        if (context != nullptr) {
            if (InstallGuard(context->StackLow - context->GuardBytes, context->GuardBytes)) {
                ZVX_REGISTER_STACK(context->StackLow, context->StackHigh - 1);
            } else {
                // The kernel's limit on maps, or no memory for page tables. It may be otherwise later.
                SpinGuard guard(free.Lock);
                context->NextFree = free.Fresh;
                free.Fresh = context;
                context = nullptr;
            }
        }
    }
    errno = savedErrno;
    if (context == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return context;
}

void FreeStack(FiberContext *context) {
#if defined(ZVX_ASAN)
    // Exits never unwind, so the user's frames leave their red zones behind. Only where it went: unpoisoning costs an
    // eighth of the bytes in memory of its own.
    const size_t touched = FiberStackHighWater(context);
    __asan_unpoison_memory_region(context->StackHigh - touched, touched);
#endif
    StackClass &free = gClasses[context->SizeClass];
    {
        SpinGuard guard(free.Lock);
        if (free.WarmCount < kWarmStacks) {
            ++free.WarmCount;
            context->NextFree = free.Warm;
            free.Warm = context;
            return;
        }
    }
    // A system call, outside the lock, for a class that has more than enough free stacks already.
    const int savedErrno = errno;
    madvise(context->StackLow, static_cast<size_t>(context->StackHigh - context->StackLow), MADV_DONTNEED);
    errno = savedErrno;
    SpinGuard guard(free.Lock);
    context->NextFree = free.Cold;
    free.Cold = context;
}

const FiberContext *ContextOfGuard(const char *address) {
    for (const Slab *slab = gSlabs.load(std::memory_order_acquire); slab != nullptr; slab = slab->Next) {
        if (address < slab->First || address >= slab->First + slab->Count * slab->Stride) continue;
        const FiberContext *context = &slab->Contexts[static_cast<size_t>(address - slab->First) / slab->Stride];
        return address < context->StackLow ? context : nullptr;
    }
    return nullptr;
}

}  // namespace os
