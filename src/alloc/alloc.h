// alloc/alloc.h - fixed-size chunks and byte blocks for the library's records.
//
// Nothing is ever given back to the operating system. Allocation of a chunk never returns null: exhaustion
// ends the process.
#ifndef ZVX_ALLOC_ALLOC_H
#define ZVX_ALLOC_ALLOC_H

#include <atomic>
#include <cstdint>

#include "base/list.h"
#include "base/spinlock.h"
#include "sched/records.h"

namespace zvx {

struct AllocType {
    uint32_t Id;    // index in gAllocTypes, given by KVTAllocInit
    uint32_t Size;  // bytes one record of this type needs
    const char *Name;
};

enum AllocTypeId : uint32_t {
    ALLOC_NULL = 0,
    ALLOC_PSEHAND = 1,
    ALLOC_FIBEROVERLAPPED = 2,
    ALLOC_FIBER_MESSAGE = 3,
    ALLOC_FIBER_CRITICAL_SECTION = 4,
    ALLOC_STRING = 5,
    kNumAllocTypes = 6,
};

extern AllocType gAllocTypes[kNumAllocTypes];
extern uint32_t gChunkSize;                       // init: 256
extern uint32_t gNodeMasks[kMaxNodes];            // init: processors of each node
extern uint32_t gProcessAffinityMask;             // init
extern std::atomic<uint32_t> gTotalVirtualAlloc;  // bytes obtained so far

// Once, at start-up, after the settings were read and gProcessAffinityMask is known.
void KVTAllocInit();
// One chunk of gChunkSize bytes, contents undefined. Only by code running on `sched`'s thread.
void *AllocChunk(const AllocType *type, Scheduler *sched, uint8_t node);
// Into the cache of the scheduler that the caller runs on, whatever node the chunk came from.
void FreeChunk(const AllocType *type, Scheduler *sched, void *chunk, uint8_t node);
// `size` bytes, or null when size + 16 does not fit 32 bits; without memory the process ends. Memory is aligned to 16
// bytes as long as every size is a multiple of 16, so callers round up: chunks are cut from the same memory. A new region
// blocks the kernel thread for as long as touching 16 MiB takes, pinned to the node; afterwards the thread has
// `restoreMask` and, with `pin`, `restorePriority`.
void *KVTAlloc(uint32_t size, uint8_t node, bool pin, int32_t restorePriority, uint32_t restoreMask);
void *KVTAllocSched(uint32_t size, Scheduler *sched, uint8_t node);  // by code running on `sched`'s thread
void *KVTAllocNoSched(uint32_t size, uint8_t node);                  // any thread
void KVTFree(void *memory, uint8_t node);                            // any thread; the node of the allocation
void KVTAllocDebugInfo();                                            // any thread, once the library is initialised
uint32_t RoundUpPow2(uint32_t value);                                // 0 when there is no such power in 32 bits

// Walks the shared lists and ends the process when one is inconsistent; debug builds and tests. Takes the locks.
struct AllocCounts {
    uint32_t FreeBlocks;    // free byte blocks of the node
    uint32_t LargestBlock;  // bytes, header included
    uint32_t Bundles;       // bundles of 63 chunks on the node's list
};
AllocCounts CheckAllocator(uint8_t node);

}  // namespace zvx

#endif  // ZVX_ALLOC_ALLOC_H
