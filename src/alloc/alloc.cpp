// alloc/alloc.cpp - fixed-size chunks for the library's records, from a cache in every scheduler.
//
// A scheduler's caches are used by code on its own thread only, so the common case is a push or a pop without a lock
// or an atomic instruction. Once in 252 chunks they meet the node's shared list, under its spin lock. Nothing here
// yields, and nothing is ever given back to the byte layer.
#include "alloc/alloc.h"

#include <cstdio>
#include <cstring>

#include "alloc/internal.h"
#include "base/assert.h"
#include "config/settings.h"
#include "diag/stats.h"
#include "diag/trace.h"

namespace zvx {

// What records needed where pointers have four bytes. The chunk size is computed from these, dumps show no more than
// the names, and each record asserts that it fits a chunk.
AllocType gAllocTypes[kNumAllocTypes] = {
    {0, 0, "NULL"},
    {0, 80, "PSEHAND"},
    {0, 80, "FIBEROVERLAPPED"},
    {0, 80, "FIBER_MESSAGE"},
    {0, 56, "FIBER_CRITICAL_SECTION"},
    {0, 128, "String"},
};
uint32_t gChunkSize;

namespace {

constexpr uint32_t kSmallestChunk = 256;
constexpr uint32_t kBundleChunks = 62;  // that a bundle carries; with itself it stands for 63
constexpr uint32_t kBundlesAtOnce = 4;  // moved between a cache and the shared list
constexpr uint32_t kCutBytes = 65536;   // a block that is cut into new chunks

// A free chunk that carries the references of 62 others. It fills the smallest chunk.
struct ChunkBundle {
    uint32_t Next;  // [Lock] reference of the next bundle, 0 at the end
    uint32_t Prev;  // [Lock] of the one before, 0 at the head
    uint32_t Chunks[kBundleChunks];
};
static_assert(sizeof(ChunkBundle) == kSmallestChunk, "a bundle is a chunk");
static_assert(kBundlesAtOnce * (kBundleChunks + 1) <= kChunkCacheSlots, "what is taken fits an empty cache");

struct FreeChunkList {
    SpinLock Lock;   // "FreeChunksLock"
    uint32_t First;  // [Lock] newest bundle, 0 when empty
    uint32_t Count;  // [Lock]
};

FreeChunkList gFreeChunks[kMaxNodes];

ChunkBundle *BundleAt(uint32_t offset) {
    return reinterpret_cast<ChunkBundle *>(FromOffset(offset));
}

void PushBundleLocked(FreeChunkList *list, void *chunk) {
    auto *bundle = static_cast<ChunkBundle *>(chunk);
    bundle->Next = list->First;
    bundle->Prev = 0;
    if (list->First != 0) BundleAt(list->First)->Prev = ToOffset(chunk);
    list->First = ToOffset(chunk);
    list->Count++;
}

ChunkBundle *PopBundleLocked(FreeChunkList *list) {
    if (list->First == 0) return nullptr;
    ChunkBundle *bundle = BundleAt(list->First);
    list->First = bundle->Next;
    if (list->First != 0) BundleAt(list->First)->Prev = 0;
    list->Count--;
    return bundle;
}

void PushChunk(Scheduler *sched, uint8_t node, void *chunk) {
    ZVX_CHECK(sched->ChunkCacheCount[node] < kChunkCacheSlots);
    sched->ChunkCache[node][sched->ChunkCacheCount[node]++] = chunk;
}

void *PopChunk(Scheduler *sched, uint8_t node) {
    return sched->ChunkCache[node][--sched->ChunkCacheCount[node]];
}

// Owner: a plain addition; the dump reads the word from another thread, hence the atomic accesses.
void CountChunk(const AllocType *type, Scheduler *sched, int32_t change) {
    std::atomic<int32_t> &count = sched->ChunkTypeCount[type->Id];
    count.store(count.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

// Fills an empty cache, from the shared list or with new chunks.
void RefillCache(Scheduler *sched, uint8_t node) {
    FreeChunkList *list = &gFreeChunks[node];
    ChunkBundle *bundles[kBundlesAtOnce];
    uint32_t taken = 0;
    {
        SpinGuard guard(&list->Lock);
        while (taken < kBundlesAtOnce && (bundles[taken] = PopBundleLocked(list)) != nullptr) taken++;
    }
    for (uint32_t i = 0; i < taken; i++) {
        for (uint32_t reference : bundles[i]->Chunks) PushChunk(sched, node, FromOffset(reference));
        PushChunk(sched, node, bundles[i]);
    }
    if (taken != 0) return;
    auto *block = static_cast<char *>(KVTAlloc(kCutBytes, node, true, sched->CurPriority, sched->AffinityMask));
    if (block == nullptr) FatalExit("allocator: ran out of memory\n");
    // Somebody asked for bytes in a size that is no multiple of 16: records would lie across their words.
    ZVX_CHECK(reinterpret_cast<uintptr_t>(block) % 16 == 0);
    for (uint32_t at = 0; at + gChunkSize <= kCutBytes; at += gChunkSize) PushChunk(sched, node, block + at);
}

// Moves half of a full cache to the shared list: the chunk that is being freed and the next three carry the rest.
void SpillCache(Scheduler *sched, uint8_t node, void *chunk) {
    ChunkBundle *bundles[kBundlesAtOnce];
    bundles[0] = static_cast<ChunkBundle *>(chunk);
    for (uint32_t i = 1; i < kBundlesAtOnce; i++) bundles[i] = static_cast<ChunkBundle *>(PopChunk(sched, node));
    for (ChunkBundle *bundle : bundles)
        for (uint32_t &reference : bundle->Chunks) reference = ToOffset(PopChunk(sched, node));
    FreeChunkList *list = &gFreeChunks[node];
    SpinGuard guard(&list->Lock);
    for (ChunkBundle *bundle : bundles) PushBundleLocked(list, bundle);
}

// The chunk size: the largest record, at least 256, rounded up to a power of two.
void ChooseChunkSize() {
    uint32_t size = 0;
    const AllocType *largest = &gAllocTypes[0];
    for (uint32_t i = 0; i < kNumAllocTypes; i++) {
        gAllocTypes[i].Id = i;
        if (gAllocTypes[i].Size > size) size = gAllocTypes[i].Size;
        if (gAllocTypes[i].Size == size) largest = &gAllocTypes[i];
    }
    gChunkSize = RoundUpPow2(size < kSmallestChunk ? kSmallestChunk : size);
    if (RoundUpPow2(kSmallestChunk) >= gChunkSize) return;
    char line[160];
    const int length =
        std::snprintf(line, sizeof(line), "Warning largest chunk %s : %d (%d)  > FCLH(%d)\n", largest->Name,
                      static_cast<int>(largest->Size), static_cast<int>(gChunkSize), static_cast<int>(kSmallestChunk));
    const auto most = static_cast<int>(sizeof(line)) - 1;
    os::WriteConsole(line, static_cast<size_t>(length < most ? length : most));
}

void CheckTypeNames() {
    for (uint32_t i = 0; i < kNumAllocTypes; i++)
        for (uint32_t j = i + 1; j < kNumAllocTypes; j++)
            if (std::strcmp(gAllocTypes[i].Name, gAllocTypes[j].Name) == 0)
                FatalExit("Duplicate allocation type name %s\n", gAllocTypes[i].Name);
}

}  // namespace

void KVTAllocInit() {
    if (OptionSet(su_EnableLargePages) && !os::EnableLockMemoryPrivilege()) {
        AppendInitialOutput("** Unable to get privs for large pages; disabling lps**\n");
        ClearOption(su_EnableLargePages);
    }
    InitByteLists();
    if (RoundUpPow2(31) != 32 || RoundUpPow2(32) != 32 || RoundUpPow2(33) != 64)
        FatalExit("rounding function broken\n");
    for (FreeChunkList &list : gFreeChunks) {
        InitSpinLock(&list.Lock, &gStats[STAT_FreeChunksLock]);
        list.First = 0;
        list.Count = 0;
    }
    ChooseChunkSize();
    CheckTypeNames();
}

void *AllocChunk(const AllocType *type, Scheduler *sched, uint8_t node) {
    CountChunk(type, sched, 1);
    if (__builtin_expect(sched->ChunkCacheCount[node] == 0, 0)) RefillCache(sched, node);
    return PopChunk(sched, node);
}

void FreeChunk(const AllocType *type, Scheduler *sched, void *chunk, uint8_t node) {
    CountChunk(type, sched, -1);
    if (__builtin_expect(sched->ChunkCacheCount[node] < kChunkCacheSlots, 1))
        PushChunk(sched, node, chunk);
    else
        SpillCache(sched, node, chunk);
}

void KVTAllocDebugInfo() {
    TraceLog(true, true, true, "skvtalloc: debug info START\n");
    TraceLog(false, true, false, "Total VirtualAlloc'd = %u k bytes\n",
             gTotalVirtualAlloc.load(std::memory_order_relaxed) / 1024);
    for (const AllocType &type : gAllocTypes) {
        // One scheduler may free what another allocated, so only the sum over all of them means anything. What moves
        // while they are read may be seen freed and not allocated.
        int32_t chunks = 0;
        const uint32_t made = gSchedulersMade.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < made; ++i) {
            const Scheduler *sched = gSchedulers[i];
            if (sched != nullptr) chunks += sched->ChunkTypeCount[type.Id].load(std::memory_order_relaxed);
        }
        if (chunks < 0) chunks = 0;
        TraceLog(false, true, false, "Chunks of type %s = %u k bytes\n", type.Name,
                 static_cast<uint32_t>(chunks) * gChunkSize / 1024);
    }
    TraceLog(true, true, true, "skvtalloc: debug info END\n");
}

AllocCounts CheckAllocator(uint8_t node) {
    AllocCounts counts;
    CheckByteList(node, &counts);
    FreeChunkList *list = &gFreeChunks[node];
    SpinGuard guard(&list->Lock);
    uint32_t before = 0;
    counts.Bundles = 0;
    for (uint32_t offset = list->First; offset != 0;) {
        const ChunkBundle *bundle = BundleAt(offset);
        ZVX_CHECK(bundle->Prev == before);
        for (uint32_t reference : bundle->Chunks) ZVX_CHECK(reference != 0 && reference != offset);
        counts.Bundles++;
        before = offset;
        offset = bundle->Next;
    }
    ZVX_CHECK(counts.Bundles == list->Count);
    return counts;
}

}  // namespace zvx
