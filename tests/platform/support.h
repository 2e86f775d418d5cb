// tests/platform/support.h - what the tests of the platform share. Every case has a process of its own, so what one
// leaves open goes with the process.
#ifndef ZVX_TESTS_PLATFORM_SUPPORT_H
#define ZVX_TESTS_PLATFORM_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "../support/run_child.h"
#include "platform/base/fiber_internal.h"  // which sanitizer this build has
#include "platform/base/object.h"
#include "platform/os.h"

#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

inline double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

inline void Pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

inline uint32_t Draw(std::minstd_rand &random, uint32_t below) {
    return static_cast<uint32_t>(random() >> 8) % below;
}

// Lets a random part of a microsecond or so pass.
inline void Spin(std::minstd_rand &random, uint32_t limit) {
    for (uint32_t left = Draw(random, limit); left > 0; left--) os::CpuRelax();
}

// Runs all of them at the same time, each on a thread of its own.
void Together(auto... bodies) {
    std::thread threads[] = {std::thread(bodies)...};
    for (std::thread &thread : threads) thread.join();
}

// The error of a call that failed, 0 of one that did not.
inline DWORD ErrorOf(BOOL done) {
    return done ? 0 : os::GetLastError();
}
inline DWORD ErrorOf(HANDLE made) {
    return made == nullptr || made == INVALID_HANDLE_VALUE ? os::GetLastError() : 0;
}

inline HANDLE Duplicate(HANDLE handle) {
    HANDLE copy = nullptr;
    EXPECT_TRUE(os::DuplicateHandle(os::GetCurrentProcess(), handle, os::GetCurrentProcess(), &copy, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
    return copy;
}

// That nothing but its handle refers to the object, and nobody waits for it.
inline void ExpectOnlyTheHandle(HANDLE handle) {
    os::Object *object = os::RefHandle(handle);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->Refs.load(), 2u) << "a lost or leaked reference";
    EXPECT_EQ(object->Waiters, nullptr);
    os::UnrefObject(object);
}

// Bytes that tell their own place.
inline std::string Pattern(size_t bytes, uint64_t offset = 0) {
    std::string text(bytes, 0);
    for (char &byte : text) {
        byte = static_cast<char>(offset / 4 * 2654435761u >> offset % 4 * 8);
        offset++;
    }
    return text;
}

// A name in the working directory (a real disk, so that direct transfers work), removed at the end.
struct Scratch {
    std::string Name;

    // A file of that many bytes of the pattern.
    explicit Scratch(size_t bytes) : Scratch() {
        const std::string data = Pattern(bytes);
        const int fd = open(Name.c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(static_cast<ssize_t>(bytes), write(fd, data.data(), bytes));
        fsync(fd);
        close(fd);
    }
    Scratch() {
        static int count = 0;
        Name = "zvx_scratch_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    }
    ~Scratch() { unlink(Name.c_str()); }
    Scratch(const Scratch &) = delete;
    HANDLE Open(DWORD flags = FILE_FLAG_OVERLAPPED, DWORD access = GENERIC_READ | GENERIC_WRITE) const {
        return os::CreateFileA(Name.c_str(), access, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    }
};

struct Fifo : Scratch {
    Fifo() { EXPECT_EQ(0, mkfifo(Name.c_str(), 0600)); }
};

// A record as the library embeds it.
struct Operation {
    OVERLAPPED Ov{};
    os::IoOp Op{};
    DWORD Got = 0;
    Operation() { Op.Ov = &Ov; }
    Operation(const Operation &) = delete;
    OVERLAPPED *At(uint64_t offset) {
        Ov.Offset = static_cast<DWORD>(offset);
        Ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
        return &Ov;
    }
    // 0 when it is done, or the error, which is ERROR_IO_PENDING when it ends later.
    DWORD Read(HANDLE file, void *buffer, DWORD bytes, uint64_t offset = 0) {
        return ErrorOf(os::ReadFile(file, buffer, bytes, &Got, At(offset), &Op));
    }
    DWORD Write(HANDLE file, const void *buffer, DWORD bytes, uint64_t offset = 0) {
        return ErrorOf(os::WriteFile(file, buffer, bytes, &Got, At(offset), &Op));
    }
};

inline HANDLE NewPort() {
    const HANDLE port = os::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    EXPECT_NE(nullptr, port) << os::GetLastError();
    return port;
}

inline os::IoThread *Io() {
    return os::CurrentThreadBlock()->Io;
}

struct Packet {
    DWORD Error = 0;  // of the operation, or WAIT_TIMEOUT without one
    DWORD Bytes = 0;
    uintptr_t Key = 0;
    OVERLAPPED *Ov = nullptr;
};

inline Packet Take(HANDLE port, DWORD ms) {
    Packet packet;
    if (!os::GetQueuedCompletionStatus(port, &packet.Bytes, &packet.Key, &packet.Ov, ms))
        packet.Error = os::GetLastError();
    return packet;
}

// Waits in the port until the operation has ended, for at most ten seconds; its final status.
inline DWORD Await(HANDLE port, OVERLAPPED *ov) {
    const auto start = std::chrono::steady_clock::now();
    while (os::LoadStatus(ov) == STATUS_PENDING && MillisecondsSince(start) < 10000) Take(port, 10);
    return os::LoadStatus(ov);
}

#endif  // ZVX_TESTS_PLATFORM_SUPPORT_H
