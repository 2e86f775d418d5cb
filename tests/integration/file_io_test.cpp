// tests/integration/file_io_test.cpp - files as user threads see them, on real files.
#include <algorithm>
#include <cstring>
#include <memory>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class FileIo : public HostTest {
  protected:
    ScratchFolder Scratch;
};

HANDLE Open(const std::string &name, DWORD disposition, DWORD flags = 0, DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return CreateFileA(name.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition, flags, nullptr);
}

// A byte that is different in neighbouring blocks and rounds, so that a swapped buffer shows.
char PatternByte(uint64_t offset, uint32_t seed) {
    return static_cast<char>(offset * 31 + (offset >> 9) * 7 + seed * 101 + 3);
}
void Fill(std::vector<char> *data, uint64_t offset, uint32_t seed) {
    for (size_t i = 0; i < data->size(); i++) (*data)[i] = PatternByte(offset + i, seed);
}
bool Matches(const std::vector<char> &data, uint64_t offset, uint32_t seed) {
    for (size_t i = 0; i < data.size(); i++) {
        if (data[i] != PatternByte(offset + i, seed)) return false;
    }
    return true;
}

OVERLAPPED At(uint64_t offset) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(offset);
    ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return ov;
}

// The position of a synchronous-use file, which only the library knows.
int64_t Position(HANDLE file) {
    LONG high = 0;
    const DWORD low = SetFilePointer(file, 0, &high, FILE_CURRENT);
    return static_cast<int64_t>(uint64_t{static_cast<uint32_t>(high)} << 32 | low);
}

}  // namespace

TEST_P(FileIo, PositionFollowsReadsWritesAndDuplicates) {
    const std::string name = Scratch.File("position");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        const HANDLE file = Open(name, CREATE_NEW);
        HOST_CHECK(file != INVALID_HANDLE_VALUE);
        DWORD moved = 77;
        HOST_CHECK(WriteFile(file, "abcdefghij", 10, &moved, nullptr));
        HOST_EQ(10u, moved);
        HOST_CHECK(WriteFile(file, "klmno", 5, nullptr, nullptr));
        HOST_EQ(15, Position(file));

        char buffer[32] = {};
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr));
        HOST_EQ(0u, moved);  // at the end: no error, nothing read
        HOST_EQ(3u, SetFilePointer(file, 3, nullptr, FILE_BEGIN));
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && memcmp(buffer, "defg", 4) == 0);
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && memcmp(buffer, "hijk", 4) == 0);
        HOST_EQ(1u, SetFilePointer(file, -10, nullptr, FILE_CURRENT));
        HOST_EQ(INVALID_SET_FILE_POINTER, SetFilePointer(file, -2, nullptr, FILE_CURRENT));
        HOST_EQ(ERROR_NEGATIVE_SEEK, GetLastError());
        HOST_EQ(1, Position(file));
        HOST_EQ(13u, SetFilePointer(file, -2, nullptr, FILE_END));

        // An OVERLAPPED says where, gets the result, and moves the position too.
        OVERLAPPED ov = At(5);
        HOST_CHECK(ReadFile(file, buffer, 3, &moved, &ov) && memcmp(buffer, "fgh", 3) == 0);
        HOST_EQ(0u, ov.Internal);
        HOST_EQ(3u, ov.InternalHigh);
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
        HOST_CHECK(CloseHandle(second));
        HOST_CHECK(CloseHandle(third));
        HOST_CHECK(!ReadFile(third, buffer, 1, &moved, nullptr));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
    }));
}

TEST_P(FileIo, PositionsBeyondFourGigabytes) {
    const std::string name = Scratch.File("large");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        const HANDLE file = Open(name, CREATE_NEW);
        LONG high = 1;
        HOST_EQ(0xFFFFFFFEu, SetFilePointer(file, -2, &high, FILE_BEGIN));
        HOST_EQ(1, high);
        DWORD moved = 0;
        HOST_CHECK(WriteFile(file, "wxyz", 4, &moved, nullptr));  // carries into the high word
        HOST_EQ(int64_t{0x200000002}, Position(file));
        high = -1;
        HOST_EQ(0xFFFFFFFEu, SetFilePointer(file, -4, &high, FILE_CURRENT));
        HOST_EQ(1, high);
        char buffer[8] = {};
        HOST_CHECK(ReadFile(file, buffer, 8, &moved, nullptr) && moved == 4 && memcmp(buffer, "wxyz", 4) == 0);
        // Without a high part a small position is the whole position.
        HOST_EQ(7u, SetFilePointer(file, 7, nullptr, FILE_BEGIN));
        HOST_EQ(7, Position(file));
    }));
}

TEST_P(FileIo, FailuresAreTheOperatingSystems) {
    const std::string name = Scratch.File("failures");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        HOST_CHECK(Open(name, OPEN_EXISTING) == INVALID_HANDLE_VALUE);
        HOST_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
        HANDLE file = Open(name, CREATE_NEW);
        HOST_CHECK(Open(name, CREATE_NEW) == INVALID_HANDLE_VALUE);
        HOST_EQ(ERROR_FILE_EXISTS, GetLastError());
        CloseHandle(file);
        file = Open(name, OPEN_EXISTING, 0, GENERIC_READ);
        DWORD moved = 9;
        HOST_CHECK(!WriteFile(file, "x", 1, &moved, nullptr));
        HOST_EQ(ERROR_ACCESS_DENIED, GetLastError());
        HOST_EQ(0u, moved);
        CloseHandle(file);
        HOST_CHECK(!CloseHandle(file));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        HOST_CHECK(!ReadFile(nullptr, &moved, 1, &moved, nullptr));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
    }));
}

// Many threads, each with a handle of its own and all with one shared handle, at random places, under every rule by
// which an end is noticed: a packet always, polling only, and one changing into the other under load.
TEST_P(FileIo, ManyThreadsKeepTheirBytes) {
    for (const char *polling : {"10000", "0", "3"}) {
        const std::string name = Scratch.File(std::string("many") + polling);
        HostOptions options = Options();
        options.Settings.emplace_back("NumContextSwitchesBeforePolling", polling);
        EXPECT_HOST_OK(RunHost(options, [name] {
            constexpr uint32_t kThreads = 40, kRounds = 60, kRegion = 64 * 1024;
            const HANDLE shared = Open(name, CREATE_NEW);
            std::vector<std::unique_ptr<HostThread>> threads;
            for (uint32_t t = 0; t < kThreads; t++) {
                threads.push_back(std::make_unique<HostThread>([t, shared, name]() -> DWORD {
                    const HANDLE own = Open(name, OPEN_EXISTING);
                    const uint64_t base = uint64_t{t} * kRegion;
                    uint32_t random = t * 2654435761u + 1;
                    for (uint32_t round = 0; round < kRounds; round++) {
                        random = random * 1664525 + 1013904223;
                        std::vector<char> data(1 + random % 9000);
                        const uint64_t offset = base + (random >> 8) % (kRegion - data.size());
                        Fill(&data, offset, round);
                        DWORD moved = 0;
                        OVERLAPPED ov = At(offset);
                        // A position on the own handle, an offset on the shared one, in turn.
                        if (round % 2 == 0) {
                            if (SetFilePointer(own, static_cast<LONG>(offset), nullptr, FILE_BEGIN) != offset) return 1;
                            if (!WriteFile(own, data.data(), static_cast<DWORD>(data.size()), &moved, nullptr))
                                return 2;
                        } else {
                            if (!WriteFile(shared, data.data(), static_cast<DWORD>(data.size()), &moved, &ov)) return 3;
                        }
                        if (moved != data.size()) return 4;
                        std::fill(data.begin(), data.end(), '\0');
                        if (!ReadFile(round % 2 == 0 ? shared : own, data.data(), static_cast<DWORD>(data.size()),
                                      &moved, &(ov = At(offset))))
                            return 5;
                        if (moved != data.size() || !Matches(data, offset, round)) return 6;
                        if (round % 8 == 7) FlushFileBuffers(own);
                        if (round % 16 == 15) Sleep(1);
                    }
                    return CloseHandle(own) ? 0 : 7;
                }));
            }
            for (auto &thread : threads) HOST_EQ(0u, thread->Join());
            HOST_CHECK(CloseHandle(shared));
        }));
    }
}

TEST_P(FileIo, HostDrivesItsOwnOverlappedOperations) {
    const std::string name = Scratch.File("overlapped");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        const HANDLE file = Open(name, CREATE_NEW, FILE_FLAG_OVERLAPPED);
        constexpr uint32_t kParts = 16, kPart = 8192;
        std::vector<char> parts[kParts];
        OVERLAPPED ovs[kParts];
        DWORD moved = 0;
        for (uint32_t i = 0; i < kParts; i++) {
            parts[i].resize(kPart);
            Fill(&parts[i], uint64_t{i} * kPart, 5);
            ovs[i] = At(uint64_t{i} * kPart);
            ovs[i].hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
            if (!WriteFile(file, parts[i].data(), kPart, nullptr, &ovs[i])) HOST_EQ(ERROR_IO_PENDING, GetLastError());
        }
        for (uint32_t i = 0; i < kParts; i++) {
            // The event may carry the mark that keeps packets away; it is still the event.
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(ovs[i].hEvent, 10000));
            moved = 0;
            HOST_CHECK(GetOverlappedResult(file, &ovs[i], &moved, FALSE));
            HOST_EQ(kPart, moved);
        }
        // Waiting for the result without an event, and by looking.
        std::vector<char> back(kPart);
        OVERLAPPED ov = At(3 * kPart);
        if (!ReadFile(file, back.data(), kPart, nullptr, &ov)) HOST_EQ(ERROR_IO_PENDING, GetLastError());
        HOST_CHECK(GetOverlappedResult(file, &ov, &moved, TRUE) && moved == kPart && Matches(back, 3 * kPart, 5));
        ov = At(9 * kPart);
        if (!ReadFile(file, back.data(), kPart, nullptr, &ov)) HOST_EQ(ERROR_IO_PENDING, GetLastError());
        while (!HasOverlappedIoCompleted(&ov)) {
        }
        HOST_CHECK(GetOverlappedResult(file, &ov, &moved, FALSE) && Matches(back, 9 * kPart, 5));
        // At the end of the file the host gets the operating system's error.
        ov = At(kParts * kPart);
        const BOOL done = ReadFile(file, back.data(), kPart, nullptr, &ov);
        HOST_CHECK(!done);
        if (GetLastError() == ERROR_IO_PENDING) HOST_CHECK(!GetOverlappedResult(file, &ov, &moved, TRUE));
        HOST_EQ(ERROR_HANDLE_EOF, GetLastError());
    }));
}

namespace {

// What the routines of the test below were told. One user thread at a time uses it.
struct Routines {
    DWORD Count = 0;
    DWORD Failed = 0;
    DWORD Bytes = 0;
    DWORD Outstanding = 0;
    DWORD Thread = 0;  // that must run them
    OVERLAPPED *Last = nullptr;
};
Routines gRoutines;

void WINAPI Routine(DWORD error, DWORD bytes, LPOVERLAPPED ov) {
    gRoutines.Count++;
    gRoutines.Outstanding--;
    if (error != 0) gRoutines.Failed = error;
    if (GetCurrentThreadId() != gRoutines.Thread) gRoutines.Failed = 0xBAD;
    if (!HasOverlappedIoCompleted(ov)) gRoutines.Failed = 0xBADF;
    gRoutines.Bytes += bytes;
    gRoutines.Last = ov;
}

}  // namespace

TEST_P(FileIo, RoutinesRunInAlertableWaitsOnly) {
    const std::string name = Scratch.File("routines");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        gRoutines.Thread = GetCurrentThreadId();
        const HANDLE plain = Open(name, CREATE_NEW);
        char buffer[4096] = {};
        OVERLAPPED ov = At(0);
        HOST_CHECK(!ReadFileEx(plain, buffer, 10, &ov, Routine));
        HOST_EQ(0xFFFFFFFFu, GetLastError());
        CloseHandle(plain);

        const HANDLE file = Open(name, OPEN_EXISTING, FILE_FLAG_OVERLAPPED);
        gRoutines.Outstanding = 1;
        HOST_CHECK(WriteFileEx(file, "routine", 7, &ov, Routine));
        Sleep(20);  // not alertable
        HOST_EQ(0u, gRoutines.Count);
        HOST_EQ(WAIT_IO_COMPLETION, SleepEx(10000, TRUE));
        HOST_EQ(1u, gRoutines.Count);
        HOST_EQ(7u, gRoutines.Bytes);
        HOST_CHECK(gRoutines.Last == &ov);
        HOST_EQ(0u, SleepEx(1, TRUE));

        // A wait for an object ends for the routine; when the object is signalled too, the object wins and the
        // routine is remembered.
        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        gRoutines = Routines{0, 0, 0, 1, GetCurrentThreadId(), nullptr};
        HOST_CHECK(ReadFileEx(file, buffer, sizeof buffer, &ov, Routine));
        HOST_EQ(WAIT_IO_COMPLETION, WaitForSingleObjectEx(event, 10000, TRUE));
        HOST_EQ(7u, gRoutines.Bytes);
        HOST_CHECK(memcmp(buffer, "routine", 7) == 0);
        gRoutines.Outstanding = 1;
        HOST_CHECK(ReadFileEx(file, buffer, sizeof buffer, &ov, Routine));
        Sleep(50);
        SetEvent(event);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(event, 10000, TRUE));
        HOST_EQ(2u, gRoutines.Count);
        HOST_CHECK(ReadFileEx(file, buffer, sizeof buffer, &ov, Routine));
        HOST_EQ(WAIT_IO_COMPLETION, SleepEx(10000, TRUE));

        // An error reaches the routine, not the call.
        gRoutines = Routines{0, 0, 0, 1, GetCurrentThreadId(), nullptr};
        ov = At(1 << 20);
        if (ReadFileEx(file, buffer, sizeof buffer, &ov, Routine)) {
            HOST_EQ(WAIT_IO_COMPLETION, SleepEx(10000, TRUE));
            HOST_EQ(ERROR_HANDLE_EOF, gRoutines.Failed);
        } else {
            HOST_EQ(ERROR_HANDLE_EOF, GetLastError());
        }

        // A batch, waited for by count, again and again over the same records.
        constexpr uint32_t kWrites = 32;
        OVERLAPPED ovs[kWrites];
        for (uint32_t round = 0; round < 20; round++) {
            gRoutines = Routines{0, 0, 0, kWrites, GetCurrentThreadId(), nullptr};
            for (uint32_t i = 0; i < kWrites; i++) {
                ovs[i] = At(i * sizeof buffer);
                HOST_CHECK(WriteFileEx(file, buffer, sizeof buffer, &ovs[i], Routine));
            }
            HOST_CHECK(ZSleepExN(0, kWrites, &gRoutines.Count, &gRoutines.Outstanding));
            HOST_EQ(kWrites, gRoutines.Count);
            HOST_EQ(kWrites * sizeof buffer, gRoutines.Bytes);
            HOST_EQ(0u, gRoutines.Failed);
        }
    }));
}

// The exit of a thread cancels its operations with routines, runs none of them, and still ends; records and stacks of
// those threads are used again by the next ones.
TEST_P(FileIo, ExitWithOperationsOutstanding) {
    const std::string name = Scratch.File("exits");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        const HANDLE file = Open(name, CREATE_NEW, FILE_FLAG_OVERLAPPED);
        std::vector<char> block(64 * 1024, 'x');
        gRoutines = Routines{0, 0, 0, 0, 0, nullptr};
        for (uint32_t round = 0; round < 30; round++) {
            OVERLAPPED ovs[8];
            HostThread thread([&]() -> DWORD {
                OVERLAPPED onStack = At(0);
                for (uint32_t i = 0; i < 8; i++) {
                    ovs[i] = At(i * block.size());
                    WriteFileEx(file, block.data(), static_cast<DWORD>(block.size()), &ovs[i], Routine);
                }
                if (round % 2 != 0) return round;
                // The frame of this record is never left, only given up with the stack.
                WriteFile(file, block.data(), static_cast<DWORD>(block.size()), nullptr, &onStack);
                ExitThread(round);
                return round;
            });
            HOST_EQ(round, thread.Join());
        }
        HOST_EQ(0u, gRoutines.Count);
        DWORD moved = 0;
        OVERLAPPED ov = At(0);
        if (!WriteFile(file, "done", 4, nullptr, &ov)) HOST_EQ(ERROR_IO_PENDING, GetLastError());
        HOST_CHECK(GetOverlappedResult(file, &ov, &moved, TRUE));
        HOST_EQ(4u, moved);
    }));
}

TEST_P(FileIo, LocksMakeUserThreadsWaitAndOthersRun) {
    const std::string name = Scratch.File("locks");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        const HANDLE holder = Open(name, CREATE_NEW);
        const HANDLE other = Open(name, OPEN_EXISTING);
        OVERLAPPED held = At(100);
        HOST_CHECK(LockFileEx(holder, LOCKFILE_EXCLUSIVE_LOCK, 0, 50, 0, &held));
        OVERLAPPED ov = At(120);
        HOST_CHECK(!LockFileEx(other, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &ov));
        HOST_EQ(ERROR_LOCK_VIOLATION, GetLastError());
        std::atomic<int> stage{0};
        HostThread waiter([&]() -> DWORD {
            OVERLAPPED wanted = At(110);
            stage = 1;
            const BOOL locked = LockFileEx(other, LOCKFILE_EXCLUSIVE_LOCK, 0, 5, 0, &wanted);
            stage = 2;
            if (!locked) return GetLastError();
            return UnlockFileEx(other, 0, 5, 0, &wanted) ? 0 : 2;
        });
        while (stage == 0) Sleep(1);
        Sleep(60);  // this thread runs while the other one waits
        HOST_EQ(1, stage.load());
        held = At(100);
        HOST_CHECK(UnlockFileEx(holder, 0, 50, 0, &held));
        HOST_EQ(0u, waiter.Join());
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, FileIo, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
