// host/glob.cpp - patterns of keys, compiled and matched.
#include "glob.h"

#include <array>
#include <utility>

namespace host {

namespace {

constexpr size_t kMostWords = kMostPattern / 64 + 1;
constexpr size_t kBytes = 256;

size_t ByteOf(char c) {
    return static_cast<uint8_t>(c);
}

// The bytes of the set whose bracket is at *at, which moves behind the set. One without an end goes to the end.
std::array<bool, kBytes> ParseSet(std::string_view pattern, size_t *at) {
    std::array<bool, kBytes> found{};
    size_t i = *at + 1;
    const bool negated = i < pattern.size() && pattern[i] == '^';
    if (negated) i++;
    for (; i < pattern.size() && pattern[i] != ']'; i++) {
        if (pattern[i] == '\\' && i + 1 < pattern.size()) i++;
        size_t low = ByteOf(pattern[i]);
        size_t high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            high = ByteOf(pattern[i + 2]);
            i += 2;
        }
        if (low > high) std::swap(low, high);
        for (size_t byte = low; byte <= high; byte++) found[byte] = true;
    }
    *at = i < pattern.size() ? i + 1 : i;
    for (bool &is : found) is = is != negated;
    return found;
}

}  // namespace

Glob::Glob(std::string_view pattern) : Words(pattern.size() / 64 + 1), Stays(Words), Masks(Words * kBytes) {
    for (size_t at = 0; at < pattern.size();) {
        if (pattern[at] == '*') {
            Stays[Last / 64] |= uint64_t{1} << Last % 64;
            at++;
            continue;
        }
        Last++;
        if (pattern[at] == '[') {
            const std::array<bool, kBytes> set = ParseSet(pattern, &at);
            for (size_t byte = 0; byte < kBytes; byte++)
                if (set[byte]) Admit(byte, Last);
        } else if (pattern[at] == '?') {
            for (size_t byte = 0; byte < kBytes; byte++) Admit(byte, Last);
            at++;
        } else {
            if (pattern[at] == '\\' && at + 1 < pattern.size()) at++;
            Admit(ByteOf(pattern[at++]), Last);
        }
    }
}

bool Glob::Matches(std::string_view text) const {
    if (Last == 0) return Stays[0] != 0 || text.empty();
    std::array<uint64_t, kMostWords> states;
    for (size_t w = 0; w < Words; w++) states[w] = w == 0 ? 1 : 0;
    for (const char c : text) {
        const uint64_t *const mask = &Masks[ByteOf(c) * Words];
        uint64_t carry = 0;
        uint64_t any = 0;
        for (size_t w = 0; w < Words; w++) {
            const uint64_t now = states[w];
            states[w] = ((now << 1 | carry) & mask[w]) | (now & Stays[w]);
            carry = now >> 63;
            any |= states[w];
        }
        if (any == 0) return false;
    }
    return (states[Last / 64] >> Last % 64 & 1) != 0;
}

}  // namespace host
