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
extern uint32_t gChunkSize;                      // init: 256
extern uint32_t gNodeMasks[kMaxNodes];           // init: processors of each node
extern uint32_t gProcessAffinityMask;            // init
extern std::atomic<uint32_t> gTotalVirtualAlloc; // bytes obtained so far

void KVTAllocInit();
// One chunk of gChunkSize bytes, contents undefined. Only by code running on `sched`'s thread.
void *AllocChunk(const AllocType *type, Scheduler *sched, uint8_t node);
void FreeChunk(const AllocType *type, Scheduler *sched, void *chunk, uint8_t node);
// `size` bytes, or null when size + 16 does not fit 32 bits.
void *KVTAlloc(uint32_t size, uint8_t node, bool pin, int32_t restorePriority, uint32_t restoreMask);
void *KVTAllocSched(uint32_t size, Scheduler *sched, uint8_t node);
void *KVTAllocNoSched(uint32_t size, uint8_t node);  // any thread
void KVTFree(void *memory, uint8_t node);
void KVTAllocDebugInfo();
uint32_t RoundUpPow2(uint32_t value);

}  // namespace zvx

#endif  // ZVX_ALLOC_ALLOC_H
