// tests/integration/file_io_test.cpp - files as user threads see them, on real files.
#include <algorithm>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class FileIo : public HostTest {
  protected:
    ScratchFolder Scratch;
    std::string Name = Scratch.File("file");
};

HANDLE Open(const std::string &name, DWORD disposition, DWORD flags = 0) {
    return CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, disposition, flags,
                       nullptr);
}

// Bytes that are different in neighbouring blocks and rounds, so that a swapped buffer shows.
void Fill(std::vector<char> *data, uint64_t offset, uint32_t seed) {
    for (char &byte : *data) byte = static_cast<char>(offset * 31 + (offset >> 9) * 7 + seed * 101 + 3), offset++;
}
bool Matches(const std::vector<char> &data, uint64_t offset, uint32_t seed) {
    std::vector<char> expected(data.size());
    return Fill(&expected, offset, seed), data == expected;
}

OVERLAPPED At(uint64_t offset) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(offset);
    ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return ov;
}

int64_t Position(HANDLE file) {
    LONG high = 0;
    const DWORD low = SetFilePointer(file, 0, &high, FILE_CURRENT);
    return int64_t{high} << 32 | low;
}

std::atomic<uint32_t> gRoutines;
void WINAPI Routine(DWORD, DWORD, LPOVERLAPPED) {
    gRoutines++;
}

}  // namespace

TEST_P(FileIo, PositionFollowsReadsWritesAndDuplicates) {
    EXPECT_HOST_OK(RunHost(Options(), [this] {
        const HANDLE file = Open(Name, CREATE_NEW);
        DWORD moved = 77;
        char buffer[32] = {};
        HOST_CHECK(WriteFile(file, "abcdefghijklmno", 15, &moved, nullptr) && moved == 15);
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && moved == 0);  // at the end: no error, nothing read
        HOST_EQ(3u, SetFilePointer(file, 3, nullptr, FILE_BEGIN));
        HOST_CHECK(ReadFile(file, buffer, 8, &moved, nullptr) && memcmp(buffer, "defghijk", 8) == 0);
        HOST_EQ(INVALID_SET_FILE_POINTER, SetFilePointer(file, -12, nullptr, FILE_CURRENT));
        HOST_EQ(ERROR_NEGATIVE_SEEK, GetLastError());
        HOST_EQ(11, Position(file));
        // An OVERLAPPED says where, gets the result, and moves the position too.
        OVERLAPPED ov = At(5);
        HOST_CHECK(ReadFile(file, buffer, 3, &moved, &ov) && memcmp(buffer, "fgh", 3) == 0);
        HOST_EQ(8, Position(file));
        // Duplicates, and duplicates of duplicates, share one position; it outlives the first handle.
        HANDLE second = nullptr, third = nullptr;
        const HANDLE process = GetCurrentProcess();
        HOST_CHECK(DuplicateHandle(process, file, process, &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(DuplicateHandle(process, second, process, &third, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(ReadFile(third, buffer, 1, &moved, nullptr) && buffer[0] == 'i');
        HOST_CHECK(CloseHandle(file));
        HOST_CHECK(ReadFile(second, buffer, 1, &moved, nullptr) && buffer[0] == 'j');
        HOST_EQ(10, Position(third));
        HOST_CHECK(CloseHandle(second) && !ReadFile(second, buffer, 1, &moved, nullptr));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        // Beyond four gigabytes a write carries into the high word.
        LONG high = 1;
        HOST_EQ(0xFFFFFFFEu, SetFilePointer(third, -2, &high, FILE_BEGIN));
        HOST_CHECK(WriteFile(third, "wxyz", 4, &moved, nullptr));
        HOST_EQ(int64_t{0x200000002}, Position(third));
        ov = At(0x1FFFFFFFE);
        HOST_CHECK(ReadFile(third, buffer, 8, &moved, &ov) && moved == 4 && memcmp(buffer, "wxyz", 4) == 0);
    }));
}

// Many threads, each with a handle of its own and all with one shared handle, at random places, under every rule by
// which an end is noticed: a packet always, polling only, and one changing into the other under load.
TEST_P(FileIo, ManyThreadsKeepTheirBytes) {
    for (const char *polling : {"10000", "0", "3"}) {
        HostOptions options = Options();
        options.Settings.emplace_back("NumContextSwitchesBeforePolling", polling);
        EXPECT_HOST_OK(RunHost(options, [this] {
            constexpr uint32_t kThreads = 40, kRounds = 60, kRegion = 64 * 1024;
            const HANDLE shared = Open(Name, CREATE_ALWAYS);
            std::deque<HostThread> threads;
            for (uint32_t t = 0; t < kThreads; t++) {
                threads.emplace_back([t, shared, this]() -> DWORD {
                    const HANDLE own = Open(Name, OPEN_EXISTING);
                    uint32_t random = t * 2654435761u + 1;
                    for (uint32_t round = 0; round < kRounds; round++) {
                        random = random * 1664525 + 1013904223;
                        std::vector<char> data(1 + random % 9000);
                        const DWORD size = static_cast<DWORD>(data.size());
                        const uint32_t offset = t * kRegion + (random >> 8) % (kRegion - size);
                        Fill(&data, offset, round);
                        DWORD moved = 0;
                        OVERLAPPED ov = At(offset);
                        // A position on the own handle, an offset on the shared one, in turn.
                        if (round % 2 == 0) {
                            if (SetFilePointer(own, static_cast<LONG>(offset), nullptr, FILE_BEGIN) != offset) return 1;
                            if (!WriteFile(own, data.data(), size, &moved, nullptr)) return 2;
                        } else {
                            if (!WriteFile(shared, data.data(), size, &moved, &ov)) return 3;
                        }
                        if (moved != size) return 4;
                        std::fill(data.begin(), data.end(), '\0');
                        ov = At(offset);
                        if (!ReadFile(round % 2 == 0 ? shared : own, data.data(), size, &moved, &ov)) return 5;
                        if (moved != size || !Matches(data, offset, round)) return 6;
                        if (round % 8 == 7) FlushFileBuffers(own);
                        if (round % 16 == 15) Sleep(1);
                    }
                    return CloseHandle(own) ? 0 : 7;
                });
            }
            for (HostThread &thread : threads) HOST_EQ(0u, thread.Join());
            HOST_CHECK(CloseHandle(shared));
        }));
    }
}

// The exit of a thread cancels its operations with routines, runs none of them, and still ends; records and stacks of
// those threads are used again by the next ones.
TEST_P(FileIo, ExitWithOperationsOutstanding) {
    EXPECT_HOST_OK(RunHost(Options(), [this] {
        const HANDLE file = Open(Name, CREATE_NEW, FILE_FLAG_OVERLAPPED);
        std::vector<char> block(64 * 1024, 'x');
        const DWORD size = static_cast<DWORD>(block.size());
        for (uint32_t round = 0; round < 30; round++) {
            OVERLAPPED ovs[8];
            HostThread thread([&]() -> DWORD {
                OVERLAPPED onStack = At(0);
                for (uint32_t i = 0; i < 8; i++) {
                    ovs[i] = At(i * size);
                    WriteFileEx(file, block.data(), size, &ovs[i], Routine);
                }
                if (round % 2 != 0) return round;
                // The frame of this record is never left, only given up with the stack.
                WriteFile(file, block.data(), size, nullptr, &onStack);
                return ExitThread(round), 0;
            });
            HOST_EQ(round, thread.Join());
        }
        HOST_EQ(0u, gRoutines.load());
        DWORD moved = 0;
        OVERLAPPED ov = At(0);
        HOST_CHECK(WriteFile(file, "done", 4, nullptr, &ov) || GetLastError() == ERROR_IO_PENDING);
        HOST_CHECK(GetOverlappedResult(file, &ov, &moved, TRUE) && moved == 4);
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, FileIo, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
