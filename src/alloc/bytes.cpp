// alloc/bytes.cpp - variable-sized blocks, carved from large regions per memory node.
//
// Any thread may allocate and free; a node's list and its lock are all that is shared. Regions come from one reserved
// range and are never given back, blocks are never merged: the library's few large blocks live as long as the process
// or come back in the same sizes. Nothing here yields.
//
// A block begins with a header of four words, and the memory of its owner follows it. The links are offsets in the
// range (0 is none). A block may begin at any address, because a split leaves what the size leaves, so a header is
// only ever copied in and out.
#include <cstdio>
#include <cstring>

#include "alloc/alloc.h"
#include "alloc/internal.h"
#include "base/assert.h"
#include "config/settings.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "sched/sched.h"

namespace zvx {

uint32_t gNodeMasks[kMaxNodes];
uint32_t gProcessAffinityMask;
std::atomic<uint32_t> gTotalVirtualAlloc;

namespace {

struct ByteBlock {
    uint32_t Next;  // offset of the next free block; meaningful while the block is free
    uint32_t Prev;
    uint32_t Size;  // header included
    uint32_t Spare;
};
static_assert(sizeof(ByteBlock) == kBlockHeader, "callers count on 16 bytes a block");

// Free blocks of one node, largest first; of equal ones the last freed first.
struct FreeByteList {
    SpinLock Lock;   // "FreeBytesLock"
    uint32_t First;  // [Lock] offset, 0 when empty
    uint32_t Last;   // [Lock]
    uint32_t Count;  // [Lock]
};

constexpr uint32_t kRegionBytes = 16 * 1024 * 1024;
constexpr uint32_t kTouchStep = 4096;

FreeByteList gFreeBytes[kMaxNodes];

ByteBlock ReadBlock(uint32_t offset) {
    ByteBlock block;
    std::memcpy(&block, FromOffset(offset), sizeof(block));
    return block;
}

void WriteBlock(uint32_t offset, const ByteBlock &block) {
    std::memcpy(FromOffset(offset), &block, sizeof(block));
}

void SetNext(FreeByteList *list, uint32_t offset, uint32_t next) {
    if (offset == 0) {
        list->First = next;
        return;
    }
    ByteBlock block = ReadBlock(offset);
    block.Next = next;
    WriteBlock(offset, block);
}

void SetPrev(FreeByteList *list, uint32_t offset, uint32_t prev) {
    if (offset == 0) {
        list->Last = prev;
        return;
    }
    ByteBlock block = ReadBlock(offset);
    block.Prev = prev;
    WriteBlock(offset, block);
}

// [Lock] The walk is short: a handful of remainders, and what came back.
void InsertFreeBytesLocked(FreeByteList *list, uint32_t offset, uint32_t size) {
    uint32_t after = list->First;
    uint32_t before = 0;
    while (after != 0) {
        const ByteBlock block = ReadBlock(after);
        if (block.Size <= size) break;
        before = after;
        after = block.Next;
    }
    WriteBlock(offset, {after, before, size, 0});
    SetNext(list, before, offset);
    SetPrev(list, after, offset);
    list->Count++;
}

// [Lock] Unlinks the largest block when it holds `need` bytes; 0 when it does not.
uint32_t TakeLargestLocked(FreeByteList *list, uint32_t need, uint32_t *size) {
    const uint32_t offset = list->First;
    if (offset == 0) return 0;
    const ByteBlock block = ReadBlock(offset);
    if (block.Size < need) return 0;
    list->First = block.Next;
    SetPrev(list, block.Next, 0);
    list->Count--;
    *size = block.Size;
    return offset;
}

// The pages are touched by a thread on the node's processors, so that the kernel places them there.
void TouchPages(char *region, size_t bytes) {
    for (size_t at = 0; at < bytes; at += kTouchStep) *static_cast<volatile char *>(region + at) = 0;
}

// How a region could not be had. It is reported once the lock is free: what is written on the way out of the
// process may need memory.
struct RegionFailure {
    char Text[160];
};

uint32_t GetRegion(size_t bytes, uint8_t node, bool pin, int32_t restorePriority, uint32_t restoreMask,
                   RegionFailure *failure) {
    const HANDLE self = os::GetCurrentThread();
    const size_t room = sizeof(failure->Text);
    if (pin && !os::SetThreadPriority(self, THREAD_PRIORITY_TIME_CRITICAL)) {
        std::snprintf(failure->Text, room, "KVTAlloc: Unable to set priority %d", static_cast<int>(os::GetLastError()));
        return 0;
    }
    if (os::SetThreadAffinityMask(self, gNodeMasks[node] & gProcessAffinityMask) == 0) {
        std::snprintf(failure->Text, room, "KVTAlloc: Unable to set SetThreadAffinityMask  E[%d]\n",
                      static_cast<int>(os::GetLastError()));
        return 0;
    }
    bool large = OptionSet(su_EnableLargePages);
    void *region = os::VirtualAllocInRange(bytes, large ? MEM_COMMIT | MEM_LARGE_PAGES : MEM_COMMIT, PAGE_READWRITE);
    if (region == nullptr && large) {
        large = false;
        region = os::VirtualAllocInRange(bytes, MEM_COMMIT, PAGE_READWRITE);
    }
    if (region == nullptr) {
        std::snprintf(failure->Text, room, "Fibers: Unable to allocate memory LargePages[%u] Error[%d]",
                      large ? 1u : 0u, static_cast<int>(os::GetLastError()));
        return 0;
    }
    gTotalVirtualAlloc.fetch_add(static_cast<uint32_t>(bytes), std::memory_order_relaxed);
    TouchPages(static_cast<char *>(region), bytes);
    if (os::SetThreadAffinityMask(self, restoreMask) == 0) {
        std::snprintf(failure->Text, room, "KVTAlloc: Unable to restore SetThreadAffinityMask E[%d]\n",
                      static_cast<int>(os::GetLastError()));
        return 0;
    }
    if (pin && !os::SetThreadPriority(self, restorePriority)) {
        std::snprintf(failure->Text, room, "KVTAlloc: Unable to restore priority %d",
                      static_cast<int>(os::GetLastError()));
        return 0;
    }
    return ToOffset(region);
}

}  // namespace

uint32_t RoundUpPow2(uint32_t value) {
    if ((value & (value - 1)) == 0) return value;
    return 0x80000000u >> __builtin_clz(value) << 1;
}

void InitByteLists() {
    for (FreeByteList &list : gFreeBytes) {
        InitSpinLock(&list.Lock, &gStats[STAT_FreeBytesLock]);
        list.First = 0;
        list.Last = 0;
        list.Count = 0;
    }
}

void *KVTAlloc(uint32_t size, uint8_t node, bool pin, int32_t restorePriority, uint32_t restoreMask) {
    const uint32_t need = size + kBlockHeader;
    if (need < size) return nullptr;
    FreeByteList *list = &gFreeBytes[node];
    // Held while a region is obtained and touched, so that others who need bytes of the node wait for this region
    // instead of each getting one.
    AcquireSpinLock(&list->Lock);
    uint32_t blockSize = 0;
    uint32_t offset = TakeLargestLocked(list, need, &blockSize);
    if (offset == 0) {
        size_t bytes = kRegionBytes;
        if (need > kRegionBytes) bytes = RoundUpPow2(need);
        if (bytes == 0) bytes = size_t{1} << 32;  // more than the range holds: refused as memory that is not there
        RegionFailure failure;
        offset = GetRegion(bytes, node, pin, restorePriority, restoreMask, &failure);
        if (offset == 0) {
            ReleaseSpinLock(&list->Lock);
            FatalExit("%s", failure.Text);
        }
        blockSize = static_cast<uint32_t>(bytes);
    }
    const uint32_t rest = blockSize - need;
    if (rest > kBlockHeader) {
        blockSize = need;
        InsertFreeBytesLocked(list, offset + need, rest);
    }
    WriteBlock(offset, {0, 0, blockSize, 0});
    ReleaseSpinLock(&list->Lock);
    return FromOffset(offset + kBlockHeader);
}

void *KVTAllocSched(uint32_t size, Scheduler *sched, uint8_t node) {
    return KVTAlloc(size, node, true, sched->CurPriority, sched->AffinityMask);
}

void *KVTAllocNoSched(uint32_t size, uint8_t node) {
    if (const Fiber *F = CallingFiber()) return KVTAllocSched(size, SchedOf(F), node);
    // The thread's own mask need not allow the node's processors.
    const HANDLE self = os::GetCurrentThread();
    const uint32_t oldMask = os::SetThreadAffinityMask(self, gProcessAffinityMask);
    if (oldMask == 0) FatalExit("KVTAllocNoSched: SetThreadAffinityMask E[%d]\n", static_cast<int>(os::GetLastError()));
    void *memory = KVTAlloc(size, node, false, 0, oldMask);
    // A new region has restored the mask; a free block has not.
    os::SetThreadAffinityMask(self, oldMask);
    return memory;
}

void KVTFree(void *memory, uint8_t node) {
    const uint32_t offset = ToOffset(memory) - kBlockHeader;
    const uint32_t size = ReadBlock(offset).Size;
    FreeByteList *list = &gFreeBytes[node];
    SpinGuard guard(&list->Lock);
    InsertFreeBytesLocked(list, offset, size);
}

void CheckByteList(uint8_t node, AllocCounts *counts) {
    FreeByteList *list = &gFreeBytes[node];
    SpinGuard guard(&list->Lock);
    uint32_t seen = 0;
    uint32_t before = 0;
    uint32_t bound = 0xFFFFFFFFu;
    counts->LargestBlock = 0;
    for (uint32_t offset = list->First; offset != 0;) {
        const ByteBlock block = ReadBlock(offset);
        ZVX_CHECK(block.Prev == before);
        ZVX_CHECK(block.Size > kBlockHeader && block.Size <= bound);
        if (seen++ == 0) counts->LargestBlock = block.Size;
        bound = block.Size;
        before = offset;
        offset = block.Next;
    }
    ZVX_CHECK(list->Last == before);
    ZVX_CHECK(list->Count == seen);
    counts->FreeBlocks = seen;
}

}  // namespace zvx
