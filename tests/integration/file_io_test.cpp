// tests/integration/file_io_test.cpp - files as user threads see them, on real files.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class FileIo : public HostTest {};

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

}  // namespace

TEST_P(FileIo, PositionFollowsReadsWritesAndDuplicates) {
    const ScratchFolder scratch;
    EXPECT_HOST_OK(RunHost(Options(), [&scratch] {
        const HANDLE file = CreateFileA(scratch.File("file").c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                        nullptr, CREATE_NEW, 0, nullptr);
        DWORD moved = 77;
        char buffer[32] = {};
        HOST_CHECK(WriteFile(file, "abcdefghijklmno", 15, &moved, nullptr) && moved == 15);
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && moved == 0);  // at the end: no error, nothing read
        HOST_EQ(3u, SetFilePointer(file, 3, nullptr, FILE_BEGIN));
        HOST_CHECK(ReadFile(file, buffer, 8, &moved, nullptr) && memcmp(buffer, "defghijk", 8) == 0);
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

INSTANTIATE_TEST_SUITE_P(Schedulers, FileIo, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
