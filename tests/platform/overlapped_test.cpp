// tests/platform/overlapped_test.cpp - overlapped reads and writes: what finishes at once, what is pending, how each
// ends, on threads with a port and without.
#include "support.h"

namespace {

DWORD ErrorOf(HANDLE file, OVERLAPPED *ov) {
    DWORD bytes;
    return FailureOf(os::GetOverlappedResult(file, ov, &bytes, FALSE));
}

// The final error of an operation of which `error` is the answer.
DWORD Finish(HANDLE port, HANDLE file, DWORD error, Operation &a) {
    if (error == ERROR_IO_PENDING) Await(port, &a.Ov), error = ErrorOf(file, &a.Ov);
    os::TakeEndedOps(Io());
    return error;
}

}  // namespace

TEST(Overlapped, CachedReadsFinishAtOnceUntilTheBudgetIsSpent) {
    Scratch file(1 << 20);
    const HANDLE port = NewPort(), handle = file.Open();
    char buffer[8192];
    Operation a;
    os::CurrentThreadBlock()->InlineBudget = os::kInlineIoBudget;
    for (int round = 0; round < 2; round++) {
        for (uint32_t i = 0; i < 64; i++) {
            ASSERT_EQ(0u, a.Read(handle, buffer, 8192, i * 8192)) << i;
            ASSERT_TRUE(a.Got == 8192 && a.Ov.InternalHigh == 8192);
            ASSERT_EQ(STATUS_SUCCESS, os::LoadStatus(&a.Ov));
            ASSERT_TRUE(HasPattern(buffer, i * 8192, 8192));
        }
        EXPECT_EQ(nullptr, os::TakeEndedOps(Io()));
        // The 65th could, but others must have their turn.
        ASSERT_EQ(ERROR_IO_PENDING, a.Read(handle, buffer, 8192, 77824));
        EXPECT_EQ(0u, a.Got);
        EXPECT_EQ(1u, Io()->Outstanding);
        EXPECT_EQ(ERROR_IO_INCOMPLETE, ErrorOf(handle, &a.Ov));
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        EXPECT_TRUE(HasPattern(buffer, 77824, 8192));
        EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
        EXPECT_EQ(nullptr, a.Op.NextEnded);
        EXPECT_EQ(0u, Io()->Outstanding);
    }
}

// More operations than the submission queue has entries, each handed over once.
TEST(Overlapped, ManyDirectReadsAllEnd) {
    constexpr uint32_t kCount = 600, kSize = 8192;
    Scratch file(kCount * kSize);
    const HANDLE port = NewPort(), handle = file.Open(kDirect);
    Pages pages(kCount * kSize);
    std::vector<Operation> operations(kCount);
    for (uint32_t i = 0; i < kCount; i++) {
        const uint32_t at = i * 7 % kCount * kSize;
        ASSERT_EQ(ERROR_IO_PENDING, operations[i].Read(handle, pages.Data + at, kSize, at));
    }
    uint32_t ended = 0;
    const auto start = std::chrono::steady_clock::now();
    while (ended < kCount && MillisecondsSince(start) < 20000) {
        Take(port, 100);
        for (os::IoOp *op = os::TakeEndedOps(Io()); op != nullptr; op = op->NextEnded, ended++) {
            EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(op->Ov));
            EXPECT_EQ(kSize, op->Ov->InternalHigh);
        }
    }
    EXPECT_EQ(kCount, ended);
    EXPECT_EQ(0u, Io()->Outstanding);
    EXPECT_TRUE(HasPattern(pages.Data, 0, kCount * kSize));
    EXPECT_FALSE(os::IoNeedsAttention(Io()));
}

TEST(Overlapped, FailuresSayWhatFailed) {
    Scratch file(65536);
    const HANDLE port = NewPort(), handle = file.Open(), direct = file.Open(kDirect);
    const HANDLE full =
        os::CreateFileA("/dev/full", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    void *bad = reinterpret_cast<void *>(uintptr_t{64});
    char buffer[4096] = {};
    for (const uint32_t budget : {1u, 0u}) {
        const auto check = [&](DWORD expected, HANDLE to, bool write, void *data, DWORD bytes, uint64_t offset = 0) {
            Operation a;
            os::CurrentThreadBlock()->InlineBudget = budget;
            const DWORD answer = write ? a.Write(to, data, bytes, offset) : a.Read(to, data, bytes, offset);
            EXPECT_EQ(expected, Finish(port, to, answer, a));
            EXPECT_EQ(0u, a.Ov.InternalHigh);
        };
        check(ERROR_DISK_FULL, full, true, buffer, 100);
        check(ERROR_NOACCESS, handle, false, bad, 4096);
        check(ERROR_NOACCESS, handle, true, bad, 4096);
        check(ERROR_INVALID_PARAMETER, direct, false, buffer + 1, 513, 1);
        check(ERROR_INVALID_PARAMETER, handle, false, buffer, 1, 1ull << 63);
    }
    EXPECT_EQ(0u, Io()->Outstanding);
}
