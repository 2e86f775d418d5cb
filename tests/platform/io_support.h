// tests/platform/io_support.h - scratch files, records and waits that the tests of ports and files share.
#ifndef ZVX_TESTS_PLATFORM_IO_SUPPORT_H
#define ZVX_TESTS_PLATFORM_IO_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/os.h"

// A name in the working directory (a real disk, so that direct transfers work), removed at the end.
struct Scratch {
    std::string Name;

    explicit Scratch(const char *tag) {
        static int count = 0;
        Name = std::string("zvx_scratch_") + tag + "_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    }
    ~Scratch() { unlink(Name.c_str()); }
    Scratch(const Scratch &) = delete;

    // Fills the file with 32-bit words that tell their own place.
    Scratch &Fill(size_t bytes) {
        std::vector<uint32_t> words(bytes / 4 + 1);
        for (size_t i = 0; i < words.size(); i++) words[i] = static_cast<uint32_t>(i * 2654435761u);
        const int fd = open(Name.c_str(), O_CREAT | O_RDWR | O_TRUNC, 0600);
        EXPECT_EQ(static_cast<ssize_t>(bytes), write(fd, words.data(), bytes));
        fsync(fd);
        close(fd);
        return *this;
    }
    Scratch &Fifo() {
        EXPECT_EQ(0, mkfifo(Name.c_str(), 0600));
        return *this;
    }
    HANDLE Open(DWORD flags = FILE_FLAG_OVERLAPPED, DWORD access = GENERIC_READ | GENERIC_WRITE,
                DWORD disposition = OPEN_EXISTING) const {
        const HANDLE handle = os::CreateFileA(Name.c_str(), access, 0, nullptr, disposition, flags, nullptr);
        EXPECT_NE(INVALID_HANDLE_VALUE, handle) << os::GetLastError();
        return handle;
    }
};

inline bool HasPattern(const void *buffer, uint64_t offset, size_t bytes) {
    for (size_t i = 0; i < bytes; i += 4) {
        uint32_t word;
        memcpy(&word, static_cast<const char *>(buffer) + i, 4);
        if (word != static_cast<uint32_t>((offset + i) / 4 * 2654435761u)) return false;
    }
    return true;
}

// Memory for direct transfers.
struct Pages {
    char *Data;
    explicit Pages(size_t bytes) : Data(static_cast<char *>(aligned_alloc(4096, (bytes + 4095) & ~size_t{4095}))) {}
    ~Pages() { free(Data); }
    Pages(const Pages &) = delete;
};

// A record as the library embeds it.
struct Operation {
    OVERLAPPED Ov{};
    os::IoOp Op{};
    Operation() { Op.Ov = &Ov; }
    Operation(const Operation &) = delete;
    OVERLAPPED *At(uint64_t offset) {
        Ov.Offset = static_cast<DWORD>(offset);
        Ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
        return &Ov;
    }
};

inline HANDLE NewPort() {
    const HANDLE port = os::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    EXPECT_NE(nullptr, port) << os::GetLastError();
    return port;
}

inline HANDLE LowBit(HANDLE event) {
    return reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) | 1);
}

// Waits in the port until the operation has ended, for at most ten seconds; its final status.
inline DWORD Await(HANDLE port, OVERLAPPED *ov) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    DWORD bytes;
    uintptr_t key;
    OVERLAPPED *packet;
    while (os::LoadStatus(ov) == STATUS_PENDING && std::chrono::steady_clock::now() < limit)
        os::GetQueuedCompletionStatus(port, &bytes, &key, &packet, 10);
    return os::LoadStatus(ov);
}

// Lets a random part of a microsecond or so pass.
inline void Pause(std::mt19937 &random, uint32_t limit) {
    for (uint64_t spin = random() % limit; spin > 0; spin--) os::CpuRelax();
}

inline double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

#endif  // ZVX_TESTS_PLATFORM_IO_SUPPORT_H
