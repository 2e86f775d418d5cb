// examples/cksum.cpp - sixteen bytes a step: sixteen tables turn sixteen dependent look-ups into independent ones.
#include "cksum.h"

#include <array>
#include <cstring>

namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7;
constexpr size_t kStep = 16;
using Table = std::array<uint32_t, 256>;

// Tables[k][b] is the remainder of byte b followed by k zero bytes.
constexpr std::array<Table, kStep> MakeTables() {
    std::array<Table, kStep> tables{};
    for (uint32_t b = 0; b < 256; b++) {
        uint32_t crc = b << 24;
        for (int bit = 0; bit < 8; bit++) crc = (crc << 1) ^ ((crc & 0x80000000u) != 0 ? kPolynomial : 0);
        tables[0][b] = crc;
    }
    for (size_t k = 1; k < kStep; k++) {
        for (uint32_t b = 0; b < 256; b++) {
            tables[k][b] = (tables[k - 1][b] << 8) ^ tables[0][tables[k - 1][b] >> 24];
        }
    }
    return tables;
}
constexpr std::array<Table, kStep> kTables = MakeTables();

uint32_t LoadBigEndian(const uint8_t *from) {
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return __builtin_bswap32(word);
}

// The remainder of the four bytes of `word` followed by 4 * `after` bytes.
uint32_t Fold(uint32_t word, size_t after) {
    const Table *tables = &kTables[after * 4];
    return tables[3][word >> 24] ^ tables[2][word >> 16 & 255] ^ tables[1][word >> 8 & 255] ^ tables[0][word & 255];
}

uint32_t AddByte(uint32_t crc, uint8_t byte) {
    return (crc << 8) ^ kTables[0][crc >> 24 ^ byte];
}

}  // namespace

void CksumAdd(Cksum *sum, const void *data, size_t size) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "LoadBigEndian swaps");
    const auto *at = static_cast<const uint8_t *>(data);
    uint32_t crc = sum->Crc;
    sum->Bytes += size;
    for (; size >= kStep; size -= kStep, at += kStep) {
        crc = Fold(LoadBigEndian(at) ^ crc, 3) ^ Fold(LoadBigEndian(at + 4), 2) ^ Fold(LoadBigEndian(at + 8), 1) ^
              Fold(LoadBigEndian(at + 12), 0);
    }
    while (size-- != 0) crc = AddByte(crc, *at++);
    sum->Crc = crc;
}

uint32_t CksumResult(const Cksum *sum) {
    uint32_t crc = sum->Crc;
    for (uint64_t left = sum->Bytes; left != 0; left >>= 8) crc = AddByte(crc, static_cast<uint8_t>(left));
    return ~crc;
}
