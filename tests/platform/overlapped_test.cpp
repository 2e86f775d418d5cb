// tests/platform/overlapped_test.cpp - overlapped reads and writes: what finishes at once, what is pending, how each
// ends, on threads with a port and without.
#include "support.h"

namespace {

DWORD ErrorOf(HANDLE file, OVERLAPPED *ov) {
    DWORD bytes;
    return os::GetOverlappedResult(file, ov, &bytes, FALSE) ? 0 : os::GetLastError();
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

TEST(Overlapped, EndOfFile) {
    Scratch file(10000);
    const HANDLE port = NewPort();
    Pages pages(65536);
    // Offsets and what is there to read in 4096 bytes from them.
    const uint32_t cases[][2] = {{0, 4096}, {4096, 4096}, {8192, 10000 - 8192}, {12288, 0}, {1u << 30, 0}};
    for (const DWORD flags : {FILE_FLAG_OVERLAPPED, kDirect}) {
        const HANDLE handle = file.Open(flags);
        for (const uint32_t budget : {1u, 0u}) {
            for (const auto &[offset, expected] : cases) {
                Operation a;
                os::CurrentThreadBlock()->InlineBudget = budget;
                const DWORD error = Finish(port, handle, a.Read(handle, pages.Data, 4096, offset), a);
                EXPECT_EQ(expected != 0 ? 0u : ERROR_HANDLE_EOF, error) << offset;
                EXPECT_EQ(expected, a.Ov.InternalHigh) << offset;
                EXPECT_EQ(expected != 0 ? STATUS_SUCCESS : STATUS_END_OF_FILE, os::LoadStatus(&a.Ov)) << offset;
                EXPECT_TRUE(HasPattern(pages.Data, offset, expected)) << offset;
            }
        }
    }
}

TEST(Overlapped, FailuresSayWhatFailed) {
    Scratch file(65536);
    const HANDLE port = NewPort(), handle = file.Open(), direct = file.Open(kDirect);
    const HANDLE full =
        os::CreateFileA("/dev/full", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    void *bad = reinterpret_cast<void *>(uintptr_t{64});
    char buffer[4096] = {};
    for (const uint32_t budget : {1u, 0u}) {
        Operation a;
        uint32_t &left = os::CurrentThreadBlock()->InlineBudget = budget;
        EXPECT_EQ(ERROR_DISK_FULL, Finish(port, full, a.Write(full, buffer, 100), a));
        EXPECT_EQ(0u, a.Ov.InternalHigh);
        left = budget;
        EXPECT_EQ(ERROR_NOACCESS, Finish(port, handle, a.Read(handle, bad, 4096), a));
        left = budget;
        EXPECT_EQ(ERROR_NOACCESS, Finish(port, handle, a.Write(handle, bad, 4096), a));
        left = budget;
        EXPECT_EQ(ERROR_INVALID_PARAMETER, Finish(port, direct, a.Read(direct, buffer + 1, 513, 1), a));
        EXPECT_EQ(ERROR_INVALID_PARAMETER, Finish(port, handle, a.Read(handle, buffer, 1, 1ull << 63), a));
    }
    EXPECT_EQ(0u, Io()->Outstanding);
}

TEST(Overlapped, StreamsAnswerWithWhatIsThere) {
    Fifo fifo;
    const HANDLE port = NewPort();
    const HANDLE reader = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ);
    const HANDLE writer = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_WRITE);
    char buffer[100] = {};
    Operation first, second, put;
    // Two readers are served in the order in which they asked.
    ASSERT_EQ(ERROR_IO_PENDING, first.Read(reader, buffer, 50));
    os::SubmitIo(Io());
    ASSERT_EQ(ERROR_IO_PENDING, second.Read(reader, buffer + 50, 50));
    EXPECT_EQ(0u, Finish(port, writer, put.Write(writer, "hello", 5), put));
    EXPECT_EQ(0u, Finish(port, reader, ERROR_IO_PENDING, first));
    EXPECT_EQ(5u, first.Ov.InternalHigh);
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&second.Ov));
    // More than a pipe holds is written in the end, although the reader takes it in pieces.
    std::vector<char> big(300000, 'b'), back(300000);
    EXPECT_EQ(ERROR_IO_PENDING, put.Write(writer, big.data(), 300000));
    EXPECT_EQ(0u, Finish(port, reader, ERROR_IO_PENDING, second));
    size_t total = second.Ov.InternalHigh;
    while (total < big.size()) {
        ASSERT_EQ(0u, Finish(port, reader, first.Read(reader, back.data(), 70000), first));
        ASSERT_GT(first.Ov.InternalHigh, 0u);
        total += first.Ov.InternalHigh;
    }
    EXPECT_EQ(big.size(), total);
    EXPECT_EQ(0u, Finish(port, writer, ERROR_IO_PENDING, put));
    EXPECT_EQ(300000u, put.Ov.InternalHigh);
    // The other end goes away.
    EXPECT_EQ(ERROR_IO_PENDING, first.Read(reader, buffer, 50));
    os::CloseHandle(writer);
    EXPECT_EQ(ERROR_BROKEN_PIPE, Finish(port, reader, ERROR_IO_PENDING, first));
    const HANDLE late = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_WRITE);
    os::CloseHandle(reader);
    EXPECT_EQ(ERROR_BROKEN_PIPE, Finish(port, late, put.Write(late, "x", 1), put)) << "and no signal";
}
