// alloc/internal.h - what the two layers of the allocator share: references within the reserved range.
#ifndef ZVX_ALLOC_INTERNAL_H
#define ZVX_ALLOC_INTERNAL_H

#include <cstdint>

#include "alloc/alloc.h"
#include "platform/os.h"

namespace zvx {

constexpr uint32_t kBlockHeader = 16;  // bytes in front of every block

// Everything the allocator hands out lies in one range of 4 GiB, so a reference is four bytes; 0 is none.
inline uint32_t ToOffset(const void *memory) {
    return static_cast<uint32_t>(static_cast<const char *>(memory) - os::RangeBase());
}
inline char *FromOffset(uint32_t offset) {
    return os::RangeBase() + offset;
}

void InitByteLists();
void CheckByteList(uint8_t node, AllocCounts *counts);

}  // namespace zvx

#endif  // ZVX_ALLOC_INTERNAL_H
