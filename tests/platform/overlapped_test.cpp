// Overlapped reads and writes: what finishes at once, what is pending, how each ends, on threads with a port and
// without.
#include <thread>

#include "io_support.h"

namespace {

DWORD ErrorOf(HANDLE file, OVERLAPPED *ov) {
    DWORD bytes;
    return os::GetOverlappedResult(file, ov, &bytes, FALSE) ? 0 : os::GetLastError();
}

}  // namespace

TEST(Overlapped, CachedReadsFinishAtOnceUntilTheBudgetIsSpent) {
    Scratch file("cached");
    file.Fill(1 << 20);
    const HANDLE port = NewPort(), handle = file.Open();
    os::IoThread *io = os::CurrentThreadBlock()->Io;
    char buffer[8192];
    DWORD got;
    Operation a;
    os::CurrentThreadBlock()->InlineBudget = os::kInlineIoBudget;
    for (int round = 0; round < 2; round++) {
        for (uint32_t i = 0; i < 64; i++) {
            memset(buffer, 0, sizeof buffer);
            ASSERT_TRUE(os::ReadFile(handle, buffer, 8192, &got, a.At(i * 8192), &a.Op)) << i << os::GetLastError();
            ASSERT_EQ(8192u, got);
            ASSERT_EQ(8192u, a.Ov.InternalHigh);
            ASSERT_EQ(STATUS_SUCCESS, os::LoadStatus(&a.Ov));
            ASSERT_TRUE(HasPattern(buffer, i * 8192, 8192));
        }
        EXPECT_EQ(nullptr, os::TakeEndedOps(io));
        // The 65th could, but others must have their turn.
        ASSERT_FALSE(os::ReadFile(handle, buffer, 8192, &got, a.At(77824), &a.Op));
        ASSERT_EQ(ERROR_IO_PENDING, os::GetLastError());
        EXPECT_EQ(0u, got);
        EXPECT_EQ(1u, io->Outstanding);
        EXPECT_EQ(ERROR_IO_INCOMPLETE, ErrorOf(handle, &a.Ov));
        EXPECT_NE(nullptr, a.Op.Request);
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        EXPECT_TRUE(HasPattern(buffer, 77824, 8192));
        EXPECT_EQ(&a.Op, os::TakeEndedOps(io));
        EXPECT_EQ(nullptr, a.Op.Request);
        EXPECT_EQ(nullptr, a.Op.NextEnded);
        EXPECT_EQ(0u, io->Outstanding);
    }
    os::CloseHandle(handle);
    os::CloseHandle(port);
}

// More operations than the submission queue has entries, each handed over once.
TEST(Overlapped, ManyDirectReadsAllEnd) {
    constexpr uint32_t kCount = 600, kSize = 8192;
    Scratch file("direct");
    file.Fill(kCount * kSize);
    const HANDLE port = NewPort(), handle = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    os::IoThread *io = os::CurrentThreadBlock()->Io;
    Pages pages(kCount * kSize);
    std::vector<Operation> operations(kCount);
    for (uint32_t i = 0; i < kCount; i++) {
        const uint32_t at = i * 7 % kCount * kSize;
        Operation &a = operations[i];
        ASSERT_FALSE(os::ReadFile(handle, pages.Data + at, kSize, nullptr, a.At(at), &a.Op));
        ASSERT_EQ(ERROR_IO_PENDING, os::GetLastError());
    }
    uint32_t ended = 0;
    DWORD bytes;
    uintptr_t key;
    OVERLAPPED *packet;
    const auto start = std::chrono::steady_clock::now();
    while (ended < kCount && MillisecondsSince(start) < 20000) {
        os::GetQueuedCompletionStatus(port, &bytes, &key, &packet, 100);
        for (os::IoOp *op = os::TakeEndedOps(io); op != nullptr; op = op->NextEnded) {
            EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(op->Ov));
            EXPECT_EQ(kSize, op->Ov->InternalHigh);
            ended++;
        }
    }
    EXPECT_EQ(kCount, ended);
    EXPECT_EQ(0u, io->Outstanding);
    EXPECT_TRUE(HasPattern(pages.Data, 0, kCount * kSize));
    EXPECT_FALSE(os::IoNeedsAttention(io));
    os::CloseHandle(handle);
    os::CloseHandle(port);
}

// A host that never enters the port sees its operation end, because asking for the status reaps and submits.
TEST(Overlapped, SpinningOnTheStatusWordIsEnough) {
    Scratch file("spin");
    file.Fill(65536);
    Scratch fifo("spinfifo");
    fifo.Fifo();
    const HANDLE port = NewPort(), handle = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    const HANDLE pipe = fifo.Open();
    Pages pages(8192);
    char byte = 0;
    OVERLAPPED direct{}, stream{};
    EXPECT_FALSE(os::ReadFile(handle, pages.Data, 8192, nullptr, &direct));
    EXPECT_FALSE(os::ReadFile(pipe, &byte, 1, nullptr, &stream));
    std::thread writer([&] {
        const int fd = open(fifo.Name.c_str(), O_WRONLY);
        EXPECT_EQ(1, write(fd, "x", 1));
        close(fd);
    });
    const auto start = std::chrono::steady_clock::now();
    while ((!os::HasOverlappedIoCompleted(&direct) || !os::HasOverlappedIoCompleted(&stream)) &&
           MillisecondsSince(start) < 10000)
        os::CpuRelax();
    writer.join();
    EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(&direct));
    EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(&stream));
    EXPECT_EQ('x', byte);
    EXPECT_EQ(nullptr, os::TakeEndedOps(os::CurrentThreadBlock()->Io)) << "operations of the host are not handed over";
    os::CloseHandle(handle);
    os::CloseHandle(pipe);
    os::CloseHandle(port);
}

TEST(Overlapped, EndOfFile) {
    Scratch file("eof");
    file.Fill(10000);
    const HANDLE port = NewPort();
    Pages pages(65536);
    for (const DWORD flags : {0u, FILE_FLAG_NO_BUFFERING}) {
        const HANDLE handle = file.Open(FILE_FLAG_OVERLAPPED | flags);
        // Offsets and what is there to read in 4096 bytes from them; the last but one is where the data ends.
        const uint32_t offsets[] = {0, 4096, 8192, 12288, 1u << 30};
        const uint32_t expected[] = {4096, 4096, 10000 - 8192, 0, 0};
        for (const bool later : {false, true}) {
            for (int i = 0; i < 5; i++) {
                Operation a;
                DWORD got = 99;
                os::CurrentThreadBlock()->InlineBudget = later ? 0 : 1;
                const BOOL ok = os::ReadFile(handle, pages.Data, 4096, &got, a.At(offsets[i]), &a.Op);
                const DWORD error = os::GetLastError();
                if (!ok && error == ERROR_IO_PENDING) {
                    Await(port, &a.Ov);
                    os::TakeEndedOps(os::CurrentThreadBlock()->Io);
                    EXPECT_EQ(expected[i] != 0, os::GetOverlappedResult(handle, &a.Ov, &got, FALSE));
                    if (expected[i] == 0) {
                        EXPECT_EQ(ERROR_HANDLE_EOF, os::GetLastError());
                    }
                } else {
                    EXPECT_EQ(expected[i] != 0, ok);
                    if (!ok) {
                        EXPECT_EQ(ERROR_HANDLE_EOF, error);
                    }
                }
                EXPECT_EQ(expected[i], got) << i;
                EXPECT_EQ(expected[i] != 0 ? STATUS_SUCCESS : STATUS_END_OF_FILE, os::LoadStatus(&a.Ov)) << i;
                EXPECT_TRUE(HasPattern(pages.Data, offsets[i], expected[i] & ~3u)) << i;
            }
        }
        os::CloseHandle(handle);
    }
    os::CloseHandle(port);
}

// The file grows and shrinks while it is read: every answer is a whole piece, a cut one or the end, never an error.
TEST(Overlapped, FileShrinksWhileItIsRead) {
    Scratch file("shrink");
    file.Fill(1 << 18);
    const HANDLE port = NewPort();
    std::atomic<bool> stop{false};
    std::thread cutter([&] {
        const int fd = open(file.Name.c_str(), O_WRONLY);
        for (unsigned i = 0; !stop; i++) EXPECT_EQ(0, ftruncate(fd, i % 3 == 0 ? 5000 : i % 3 == 1 ? 1 << 18 : 100000));
        close(fd);
    });
    Pages pages(32768);
    for (const DWORD flags : {0u, FILE_FLAG_NO_BUFFERING}) {
        const HANDLE handle = file.Open(FILE_FLAG_OVERLAPPED | flags);
        for (uint32_t i = 0; i < 2000; i++) {
            Operation a;
            if (!os::ReadFile(handle, pages.Data, 32768, nullptr, a.At(i % 8 * 32768), &a.Op) &&
                os::GetLastError() == ERROR_IO_PENDING)
                Await(port, &a.Ov);
            os::TakeEndedOps(os::CurrentThreadBlock()->Io);
            const DWORD status = os::LoadStatus(&a.Ov);
            ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_END_OF_FILE) << std::hex << status;
            if (status == STATUS_SUCCESS) {
                ASSERT_GT(a.Ov.InternalHigh, 0u);
            }
        }
        os::CloseHandle(handle);
    }
    stop = true;
    cutter.join();
    os::CloseHandle(port);
}

TEST(Overlapped, FailuresSayWhatFailed) {
    Scratch file("fail");
    file.Fill(65536);
    const HANDLE port = NewPort(), handle = file.Open(),
                 direct = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    const HANDLE full = os::CreateFileA("/dev/full", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_OVERLAPPED, nullptr);
    const HANDLE readOnly = file.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ);
    void *bad = reinterpret_cast<void *>(uintptr_t{64});
    char buffer[4096] = {};
    auto outcome = [&](BOOL ok, HANDLE on, Operation &a) -> DWORD {
        DWORD error = ok ? 0 : os::GetLastError();
        if (error == ERROR_IO_PENDING) Await(port, &a.Ov), error = ErrorOf(on, &a.Ov);
        os::TakeEndedOps(os::CurrentThreadBlock()->Io);
        return error;
    };
    for (const uint32_t budget : {1u, 0u}) {
        Operation a;
        auto again = [&] { os::CurrentThreadBlock()->InlineBudget = budget; };
        again();
        EXPECT_EQ(ERROR_DISK_FULL, outcome(os::WriteFile(full, buffer, 100, nullptr, a.At(0), &a.Op), full, a));
        EXPECT_EQ(0u, a.Ov.InternalHigh);
        again();
        EXPECT_EQ(ERROR_NOACCESS, outcome(os::ReadFile(handle, bad, 4096, nullptr, a.At(0), &a.Op), handle, a));
        again();
        EXPECT_EQ(ERROR_NOACCESS, outcome(os::WriteFile(handle, bad, 4096, nullptr, a.At(0), &a.Op), handle, a));
        again();
        EXPECT_EQ(ERROR_INVALID_PARAMETER,
                  outcome(os::ReadFile(direct, buffer + 1, 513, nullptr, a.At(1), &a.Op), direct, a));
        EXPECT_EQ(ERROR_ACCESS_DENIED,
                  outcome(os::WriteFile(readOnly, buffer, 1, nullptr, a.At(0), &a.Op), readOnly, a));
        EXPECT_EQ(ERROR_INVALID_PARAMETER, outcome(os::ReadFile(handle, buffer, 1, nullptr, nullptr), handle, a));
        EXPECT_EQ(ERROR_INVALID_PARAMETER,
                  outcome(os::ReadFile(handle, buffer, 1, nullptr, a.At(1ull << 63), &a.Op), handle, a));
        a.Ov.hEvent = handle;  // not an event
        EXPECT_EQ(ERROR_INVALID_HANDLE, outcome(os::ReadFile(handle, buffer, 1, nullptr, a.At(0), &a.Op), handle, a));
    }
    EXPECT_EQ(0u, os::CurrentThreadBlock()->Io->Outstanding);
    for (HANDLE each : {handle, direct, full, readOnly}) os::CloseHandle(each);
    os::CloseHandle(port);
}

TEST(Overlapped, WritesReachTheFileAndAppend) {
    Scratch file("write");
    const HANDLE port = NewPort(), handle = file.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    auto put = [&](const char *text, uint64_t offset) {
        Operation a;
        const DWORD length = static_cast<DWORD>(strlen(text));
        if (!os::WriteFile(handle, text, length, nullptr, a.At(offset), &a.Op)) {
            EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        }
        os::TakeEndedOps(os::CurrentThreadBlock()->Io);
        EXPECT_EQ(length, a.Ov.InternalHigh);
    };
    put("0123456789", 0);
    put("abc", 3);
    put("END", UINT64_MAX);
    char text[32] = {};
    const int fd = open(file.Name.c_str(), O_RDONLY);
    EXPECT_EQ(13, read(fd, text, sizeof text));
    close(fd);
    EXPECT_STREQ("012abc6789END", text);
    os::CloseHandle(handle);
    os::CloseHandle(port);
}

TEST(Overlapped, StreamsAnswerWithWhatIsThere) {
    Scratch fifo("stream");
    fifo.Fifo();
    const HANDLE port = NewPort();
    const HANDLE reader = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ);
    const HANDLE writer = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_WRITE);
    auto finish = [&](BOOL ok, Operation &a) {
        const DWORD status = ok ? STATUS_SUCCESS : Await(port, &a.Ov);
        os::TakeEndedOps(os::CurrentThreadBlock()->Io);
        return status;
    };
    char buffer[100] = {};
    Operation first, second, put;
    // Two readers are served in the order in which they asked.
    ASSERT_FALSE(os::ReadFile(reader, buffer, 50, nullptr, first.At(0), &first.Op));
    os::SubmitIo(os::CurrentThreadBlock()->Io);
    ASSERT_FALSE(os::ReadFile(reader, buffer + 50, 50, nullptr, second.At(0), &second.Op));
    EXPECT_EQ(STATUS_SUCCESS, finish(os::WriteFile(writer, "hello", 5, nullptr, put.At(0), &put.Op), put));
    EXPECT_EQ(STATUS_SUCCESS, finish(FALSE, first));
    EXPECT_EQ(5u, first.Ov.InternalHigh);
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&second.Ov));
    // More than a pipe holds is written in the end, although the reader takes it in pieces.
    std::vector<char> big(300000, 'b'), back(300000);
    EXPECT_FALSE(os::WriteFile(writer, big.data(), 300000, nullptr, put.At(0), &put.Op));
    EXPECT_EQ(STATUS_SUCCESS, finish(FALSE, second));
    size_t total = second.Ov.InternalHigh;
    while (total < big.size()) {
        ASSERT_EQ(STATUS_SUCCESS,
                  finish(os::ReadFile(reader, back.data(), 70000, nullptr, first.At(0), &first.Op), first));
        ASSERT_GT(first.Ov.InternalHigh, 0u);
        total += first.Ov.InternalHigh;
    }
    EXPECT_EQ(big.size(), total);
    EXPECT_EQ(STATUS_SUCCESS, finish(FALSE, put));
    EXPECT_EQ(300000u, put.Ov.InternalHigh);
    // The other end goes away.
    EXPECT_FALSE(os::ReadFile(reader, buffer, 50, nullptr, first.At(0), &first.Op));
    os::CloseHandle(writer);
    finish(FALSE, first);
    EXPECT_EQ(ERROR_BROKEN_PIPE, ErrorOf(reader, &first.Ov));
    const HANDLE late = fifo.Open(FILE_FLAG_OVERLAPPED, GENERIC_WRITE);
    os::CloseHandle(reader);
    const BOOL ok = os::WriteFile(late, "x", 1, nullptr, put.At(0), &put.Op);
    const DWORD error = ok ? 0 : os::GetLastError();
    if (error == ERROR_IO_PENDING) finish(FALSE, put);
    EXPECT_EQ(ERROR_BROKEN_PIPE, ErrorOf(late, &put.Ov)) << "and no signal";
    os::CloseHandle(late);
    os::CloseHandle(port);
}

TEST(Overlapped, EventIsResetAtTheStartAndSetAtTheEnd) {
    Scratch fifo("event");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open(), event = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    char byte;
    OVERLAPPED ov{};
    ov.hEvent = event;
    ASSERT_FALSE(os::ReadFile(pipe, &byte, 1, nullptr, &ov));
    EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(event, 0));
    // The handle may be closed meanwhile; the operation keeps the event.
    HANDLE copy = nullptr;
    ASSERT_TRUE(os::DuplicateHandle(os::GetCurrentProcess(), event, os::GetCurrentProcess(), &copy, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
    os::CloseHandle(event);
    std::thread waiter([&] { EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(copy, 10000)); });
    OVERLAPPED put{};
    os::WriteFile(pipe, "x", 1, nullptr, &put);
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &ov));
    waiter.join();
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &put));
    os::CloseHandle(copy);
    os::CloseHandle(pipe);
    os::CloseHandle(port);
}

namespace {

thread_local std::vector<std::pair<DWORD, DWORD>> tRoutines;  // error and bytes of each completion routine

void WINAPI NoteRoutine(DWORD error, DWORD bytes, OVERLAPPED *) {
    tRoutines.emplace_back(error, bytes);
}

}  // namespace

// Threads without a port: nothing of theirs may need them to reap.
TEST(Overlapped, PlainThreadsAreServed) {
    Scratch file("plain");
    file.Fill(65536);
    const HANDLE handle = file.Open(), direct = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    Pages pages(8192);
    DWORD got = 0;
    OVERLAPPED ov{};
    EXPECT_TRUE(os::ReadFile(handle, pages.Data, 4096, &got, &ov));
    EXPECT_EQ(4096u, got);

    for (const bool withEvent : {true, false}) {
        OVERLAPPED later{};
        later.Offset = 8192;
        if (withEvent) later.hEvent = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
        ASSERT_FALSE(os::ReadFile(direct, pages.Data, 8192, &got, &later));
        ASSERT_EQ(ERROR_IO_PENDING, os::GetLastError());
        if (withEvent) {
            EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(later.hEvent, 10000));
        }
        EXPECT_TRUE(os::GetOverlappedResult(direct, &later, &got, TRUE));
        EXPECT_EQ(8192u, got);
        EXPECT_TRUE(HasPattern(pages.Data, 8192, 8192));
        if (withEvent) os::CloseHandle(later.hEvent);
    }

    // Routines run in an alertable wait of the thread that asked, and nowhere else.
    OVERLAPPED first{}, second{};
    second.Offset = 65000;
    ASSERT_TRUE(os::ReadFileEx(direct, pages.Data, 4096, &first, NoteRoutine));
    ASSERT_TRUE(os::ReadFileEx(handle, pages.Data + 4096, 4096, &second, NoteRoutine));
    ASSERT_FALSE(os::ReadFileEx(handle, pages.Data, 4096, &second, nullptr));
    os::Sleep(50);
    EXPECT_TRUE(tRoutines.empty());
    const auto start = std::chrono::steady_clock::now();
    while (tRoutines.size() < 2 && MillisecondsSince(start) < 5000)
        EXPECT_EQ(WAIT_IO_COMPLETION, os::SleepEx(1000, TRUE));
    ASSERT_EQ(2u, tRoutines.size());
    for (const auto &[error, bytes] : tRoutines) {
        EXPECT_EQ(0u, error);
        EXPECT_TRUE(bytes == 4096 || bytes == 536) << bytes;
    }
    EXPECT_EQ(0u, os::SleepEx(1, TRUE));

    // A thread that ends with an operation under way loses its routine and nothing else.
    Scratch fifo("plainfifo");
    fifo.Fifo();
    const HANDLE pipe = fifo.Open();
    static OVERLAPPED orphan;
    static char byte;
    std::thread([&] { EXPECT_TRUE(os::ReadFileEx(pipe, &byte, 1, &orphan, NoteRoutine)); }).join();
    os::WriteFile(pipe, "x", 1, nullptr, &ov);
    EXPECT_TRUE(os::GetOverlappedResult(pipe, &orphan, &got, TRUE));
    EXPECT_TRUE(os::GetOverlappedResult(pipe, &ov, &got, TRUE));
    EXPECT_EQ('x', byte);
    for (HANDLE each : {handle, direct, pipe}) os::CloseHandle(each);
}

TEST(Overlapped, WaitingForAnotherThreadsOperation) {
    Scratch fifo("foreign");
    fifo.Fifo();
    const HANDLE pipe = fifo.Open();
    char byte;
    OVERLAPPED ov{}, put{};
    std::atomic<bool> issued{false};
    std::thread owner([&] {
        const HANDLE port = NewPort();
        EXPECT_FALSE(os::ReadFile(pipe, &byte, 1, nullptr, &ov));
        issued = true;
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &ov));
        os::CloseHandle(port);
    });
    while (!issued) std::this_thread::yield();
    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        os::WriteFile(pipe, "y", 1, nullptr, &put);
        DWORD got;
        EXPECT_TRUE(os::GetOverlappedResult(pipe, &put, &got, TRUE));
    });
    DWORD got;
    EXPECT_TRUE(os::GetOverlappedResult(pipe, &ov, &got, TRUE));
    EXPECT_EQ('y', byte);
    owner.join();
    waker.join();
    os::CloseHandle(pipe);
}
