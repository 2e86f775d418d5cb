// host/glob.h - patterns of keys: * ? [a-c] [^a] and backslash.
//
// A pattern comes from a client, and so do the keys that it is held against. Whatever both are, a match takes time in
// proportion to the key: the pattern is a set of states of which each byte of the key leaves some.
#ifndef HOST_GLOB_H
#define HOST_GLOB_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace host {

constexpr size_t kMostPattern = 1024;  // bytes; no longer one is asked for

// Made once for a command, then only read.
class Glob {
  public:
    // `pattern` has at most kMostPattern bytes and is not kept.
    explicit Glob(std::string_view pattern);
    // Whether the whole text matches. Takes text.size() steps of (bytes of the pattern / 64 + 1) words.
    bool Matches(std::string_view text) const;

  private:
    uint64_t *MaskOf(size_t byte) { return &Masks[byte * Words]; }
    void Admit(size_t byte, size_t state) { MaskOf(byte)[state / 64] |= uint64_t{1} << state % 64; }

    // State n: the first n elements other than stars have been met. Bit n of a byte's mask: the byte is the n-th such
    // element. Bit n of Stays: a star stands behind n elements, so that any byte leaves the state as it is.
    size_t Words;
    size_t Last = 0;
    std::vector<uint64_t> Stays;
    std::vector<uint64_t> Masks;
};

}  // namespace host

#endif  // HOST_GLOB_H
