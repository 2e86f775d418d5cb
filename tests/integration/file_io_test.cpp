// tests/integration/file_io_test.cpp - files as user threads see them, on real files.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class FileIo : public HostTest {};

}  // namespace

TEST_P(FileIo, PositionFollowsReadsWritesAndDuplicates) {
    const ScratchFolder scratch;
    EXPECT_HOST_OK(RunHost(Options(), [&scratch] {
        const HANDLE file = CreateFileA(scratch.File("file").c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                        nullptr, CREATE_NEW, 0, nullptr);
        const HANDLE process = GetCurrentProcess();
        DWORD moved = 77;
        char buffer[32] = {};
        HOST_CHECK(WriteFile(file, "abcdefghijklmno", 15, &moved, nullptr) && moved == 15);
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && moved == 0);  // at the end: no error, nothing read
        HOST_EQ(3u, SetFilePointer(file, 3, nullptr, FILE_BEGIN));
        HOST_CHECK(ReadFile(file, buffer, 8, &moved, nullptr) && memcmp(buffer, "defghijk", 8) == 0);
        // An OVERLAPPED says where, gets the result, and moves the position too.
        OVERLAPPED ov{};
        ov.Offset = 5;
        HOST_CHECK(ReadFile(file, buffer, 3, &moved, &ov) && memcmp(buffer, "fgh", 3) == 0);
        // Duplicates, and duplicates of duplicates, share one position; it outlives the first handle.
        HANDLE second = nullptr, third = nullptr;
        HOST_CHECK(DuplicateHandle(process, file, process, &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(DuplicateHandle(process, second, process, &third, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(ReadFile(third, buffer, 1, &moved, nullptr) && buffer[0] == 'i');
        HOST_CHECK(CloseHandle(file) && !ReadFile(file, buffer, 1, &moved, nullptr));
        HOST_CHECK(ReadFile(second, buffer, 1, &moved, nullptr) && buffer[0] == 'j');
        // Beyond four gigabytes a write carries into the high word.
        LONG high = 1;
        HOST_EQ(0xFFFFFFFEu, SetFilePointer(third, -2, &high, FILE_BEGIN));
        HOST_CHECK(WriteFile(third, "wxyz", 4, &moved, nullptr));
        high = 0;
        HOST_EQ(2u, SetFilePointer(third, 0, &high, FILE_CURRENT));
        HOST_EQ(2, high);
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, FileIo, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
