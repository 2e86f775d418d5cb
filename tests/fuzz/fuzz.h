// tests/fuzz/fuzz.h - what the fuzzers share: the end by a broken promise, and the reader of an input.
#ifndef ZVX_TESTS_FUZZ_FUZZ_H
#define ZVX_TESTS_FUZZ_FUZZ_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

inline void Require(bool holds, const char *what, uint64_t a = 0, uint64_t b = 0) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: %s (%llu, %llu)\n", what, static_cast<unsigned long long>(a),
                 static_cast<unsigned long long>(b));
    std::abort();
}

// A path of this process's own, in memory where there is a place for that; what is there is removed at the end.
inline std::string Scratch(const std::string &name) {
    const char *const shared = "/dev/shm";
    const auto base = std::filesystem::exists(shared) ? shared : std::filesystem::temp_directory_path();
    static const std::string path = base.string() + "/fuzz_" + name + "_" + std::to_string(std::random_device{}());
    const auto remove = [] {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    };
    std::atexit(remove);
    std::at_quick_exit(remove);
    return path;
}

// Writes the input to the file that ZVX_FUZZ_KEEP names. An error that ends the process by the library's own hand
// leaves no other trace of what led to it.
inline void Keep(const uint8_t *data, size_t size) {
    static const char *const path = std::getenv("ZVX_FUZZ_KEEP");
    if (path == nullptr) return;
    std::FILE *const file = std::fopen(path, "wb");
    Require(file != nullptr && std::fwrite(data, 1, size, file) == size, path);
    std::fclose(file);
}

// The input as a script: numbers of any width from its front, zeros once it is used up.
struct Input {
    const uint8_t *Data;
    size_t Left;

    bool Empty() const { return Left == 0; }
    uint8_t Byte() {
        if (Left == 0) return 0;
        Left--;
        return *Data++;
    }
    uint64_t Number(uint32_t bytes) {
        uint64_t value = 0;
        for (uint32_t i = 0; i < bytes; i++) value |= uint64_t{Byte()} << (8 * i);
        return value;
    }
    std::string_view Bytes(size_t most) {
        const size_t size = Left < most ? Left : most;
        const std::string_view view(reinterpret_cast<const char *>(Data), size);
        Data += size;
        Left -= size;
        return view;
    }
};

}  // namespace fuzz

#endif  // ZVX_TESTS_FUZZ_FUZZ_H
