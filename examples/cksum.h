// examples/cksum.h - the checksum that the cksum utility prints: CRC-32 with its most significant bit first over the
// bytes and then their number.
#ifndef ZVX_EXAMPLES_CKSUM_H
#define ZVX_EXAMPLES_CKSUM_H

#include <cstddef>
#include <cstdint>

struct Cksum {
    uint32_t Crc = 0;
    uint64_t Bytes = 0;
};

void CksumAdd(Cksum *sum, const void *data, size_t size);
uint32_t CksumResult(const Cksum *sum);

#endif  // ZVX_EXAMPLES_CKSUM_H
