// tests/platform/overlapped_test.cpp - overlapped reads and writes: what finishes at once, what is pending, how each
// ends, on threads with a port and without.
#include "support.h"

TEST(Overlapped, CachedReadsFinishAtOnceUntilTheBudgetIsSpent) {
    Scratch file(1 << 20);
    const HANDLE port = NewPort(), handle = file.Open();
    char buffer[8192];
    Operation a;
    os::CurrentThreadBlock()->InlineBudget = os::kInlineIoBudget;
    for (int round = 0; round < 2; round++) {
        for (uint32_t i = 0; i < 64; i++) {
            ASSERT_EQ(0u, a.Read(handle, buffer, 8192, i * 8192)) << i;
            ASSERT_TRUE(a.Got == 8192 && a.Ov.InternalHigh == 8192 && os::LoadStatus(&a.Ov) == STATUS_SUCCESS);
            ASSERT_TRUE(HasPattern(buffer, i * 8192, 8192));
        }
        EXPECT_EQ(nullptr, os::TakeEndedOps(Io()));
        // The 65th could, but others must have their turn.
        ASSERT_EQ(ERROR_IO_PENDING, a.Read(handle, buffer, 8192, 77824));
        EXPECT_TRUE(a.Got == 0 && Io()->Outstanding == 1);
        EXPECT_EQ(ERROR_IO_INCOMPLETE, FailureOf(os::GetOverlappedResult(handle, &a.Ov, &a.Got, FALSE)));
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        EXPECT_TRUE(HasPattern(buffer, 77824, 8192));
        EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
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
