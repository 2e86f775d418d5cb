// host/base.cpp - checksums, hashes and messages.
//
// Called from any thread; nothing waits.
#include "base.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

namespace host {

Options gOptions;
Counters gCounters;
uint32_t gQuantumIndicator = 0;
std::atomic<bool> gStop{false};

namespace {

using Table = std::array<std::array<uint32_t, 256>, 8>;

constexpr Table MakeTable() {
    Table table{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0);
        table[0][i] = crc;
    }
    for (uint32_t i = 0; i < 256; i++) {
        for (size_t k = 1; k < 8; k++) table[k][i] = (table[k - 1][i] >> 8) ^ table[0][table[k - 1][i] & 0xFF];
    }
    return table;
}
constexpr Table kTable = MakeTable();

uint64_t Load64(const char *from) {
    uint64_t value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

uint64_t Mix(uint64_t a, uint64_t b) {
    const auto product = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

}  // namespace

// Eight bytes a step: the checksum of a record is on the path of every write.
uint32_t Crc32c(uint32_t crc, const void *data, size_t size) {
    const char *at = static_cast<const char *>(data);
    crc = ~crc;
    for (; size >= 8; size -= 8, at += 8) {
        const uint64_t word = Load64(at) ^ crc;
        crc = kTable[7][word & 0xFF] ^ kTable[6][word >> 8 & 0xFF] ^ kTable[5][word >> 16 & 0xFF] ^
              kTable[4][word >> 24 & 0xFF] ^ kTable[3][word >> 32 & 0xFF] ^ kTable[2][word >> 40 & 0xFF] ^
              kTable[1][word >> 48 & 0xFF] ^ kTable[0][word >> 56];
    }
    for (; size != 0; size--, at++) crc = (crc >> 8) ^ kTable[0][(crc ^ static_cast<uint8_t>(*at)) & 0xFF];
    return ~crc;
}

uint64_t RandomNumber() {
    static std::random_device device;
    return uint64_t{device()} << 32 | device();
}

// Seeded at random, so that no client can choose keys that share a bucket.
uint64_t HashKey(std::string_view key) {
    static const uint64_t seed = RandomNumber();
    const char *at = key.data();
    size_t left = key.size();
    uint64_t hash = seed ^ (key.size() * 0x9E3779B97F4A7C15u);
    for (; left >= 8; left -= 8, at += 8) hash = Mix(hash ^ Load64(at), 0xD6E8FEB86659FD93u);
    uint64_t tail = 0;
    std::memcpy(&tail, at, left);
    return Mix(hash ^ tail, 0xA0761D6478BD642Fu) * 0x9E3779B97F4A7C15u;
}

std::string ReasonOf(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND: return "no such file or directory";
        case ERROR_TOO_MANY_OPEN_FILES: return "too many open files";
        case ERROR_ACCESS_DENIED: return "permission denied";
        case ERROR_NOT_ENOUGH_MEMORY: return "no memory";
        case ERROR_DISK_FULL: return "the disk is full";
        case ERROR_FILE_TOO_LARGE: return "the file may not grow further";
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION: return "in use by another process";
        default: return "error " + std::to_string(error);
    }
}

void Refuse(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::fputs("keyhost: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
    ExitProcess(1);
}

HANDLE MakePostEvent() {
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (event == nullptr) Refuse("no event: %s", ReasonOf(GetLastError()).c_str());
    return event;
}

}  // namespace host
