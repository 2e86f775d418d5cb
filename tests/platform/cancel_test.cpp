// Cancelling: exactly what was asked for, before and after submission, by closing, and against completion.
#include <random>
#include <thread>

#include "io_support.h"

namespace {

os::IoThread *Io() {
    return os::CurrentThreadBlock()->Io;
}

size_t Drain(int fd) {
    char buffer[256];
    size_t total = 0;
    fcntl(fd, F_SETFL, O_NONBLOCK);
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) total += static_cast<size_t>(n);
    return total;
}

}  // namespace

TEST(Cancel, EndsExactlyThatOperation) {
    Scratch fifo("exact");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open(), other = fifo.Open();
    char byte[3] = {};
    Operation a[3];
    for (int i = 0; i < 3; i++) {
        ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, a[i].At(0), &a[i].Op));
        os::SubmitIo(Io());
    }
    EXPECT_FALSE(os::CancelIoEx(other, &a[1].Ov)) << "not an operation on that handle's object";
    EXPECT_EQ(ERROR_NOT_FOUND, os::GetLastError());
    std::thread([&] { EXPECT_FALSE(os::CancelIoEx(pipe, &a[1].Ov)) << "not this thread's"; }).join();
    EXPECT_TRUE(os::CancelIoEx(pipe, &a[1].Ov));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&a[1].Ov)) << "final only when it is reaped";
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[1].Ov));
    DWORD got;
    EXPECT_FALSE(os::GetOverlappedResult(pipe, &a[1].Ov, &got, FALSE));
    EXPECT_EQ(ERROR_OPERATION_ABORTED, os::GetLastError());
    EXPECT_FALSE(os::CancelIoEx(pipe, &a[1].Ov));
    // The two that are left share what comes, the older one first.
    OVERLAPPED put{};
    os::WriteFile(pipe, "x", 1, nullptr, &put);
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &a[0].Ov));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&a[2].Ov));
    EXPECT_TRUE(os::CancelIo(pipe));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[2].Ov));
    EXPECT_EQ('x', byte[0]);
    int handed = 0;
    for (os::IoOp *op = os::TakeEndedOps(Io()); op != nullptr; op = op->NextEnded) handed++;
    EXPECT_EQ(3, handed);
    Await(port, &put);
    for (HANDLE each : {pipe, other, port}) os::CloseHandle(each);
}

// An operation that the kernel has not seen leaves no trace: the data is there for the next one.
TEST(Cancel, BeforeSubmission) {
    Scratch fifo("unsubmitted");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open();
    OVERLAPPED put{}, second{};
    os::WriteFile(pipe, "q", 1, nullptr, &put);
    Await(port, &put);
    char byte[2] = {};
    Operation a;
    os::CurrentThreadBlock()->InlineBudget = 0;
    ASSERT_FALSE(os::ReadFile(pipe, &byte[0], 1, nullptr, a.At(0), &a.Op));
    EXPECT_TRUE(os::CancelIoEx(pipe, &a.Ov));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a.Ov));
    EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
    EXPECT_EQ(0, byte[0]);
    if (!os::ReadFile(pipe, &byte[1], 1, nullptr, &second)) {
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &second));
    }
    EXPECT_EQ('q', byte[1]);
    os::CloseHandle(pipe);
    os::CloseHandle(port);
}

// Every byte is either in a read that succeeded or still in the pipe; every operation ends once.
TEST(Cancel, RacesCompletion) {
    const unsigned seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    printf("seed %u\n", seed);
    constexpr int kRounds = 4000;
    Scratch fifo("race");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open();
    const int raw = open(fifo.Name.c_str(), O_RDWR);
    std::atomic<int> round{0};
    std::thread writer([&] {
        std::mt19937 random(seed);
        for (int i = 1; i <= kRounds; i++) {
            while (round.load(std::memory_order_acquire) < i) os::CpuRelax();
            Pause(random, 1000);
            EXPECT_EQ(1, write(raw, "z", 1));
        }
    });
    std::mt19937 random(seed + 1);
    size_t read = 0, cancelled = 0;
    for (int i = 1; i <= kRounds; i++) {
        Operation a;
        char byte;
        const BOOL ok = os::ReadFile(pipe, &byte, 1, nullptr, a.At(0), &a.Op);
        if (random() % 2 == 0) os::SubmitIo(Io());
        round.store(i, std::memory_order_release);
        if (!ok) {
            ASSERT_EQ(ERROR_IO_PENDING, os::GetLastError());
            Pause(random, 1000);
            os::CancelIoEx(pipe, &a.Ov);
            Await(port, &a.Ov);
            ASSERT_EQ(&a.Op, os::TakeEndedOps(Io()));
        }
        const DWORD status = os::LoadStatus(&a.Ov);
        ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
        if (status == STATUS_SUCCESS)
            read++;
        else
            cancelled++;
    }
    writer.join();
    EXPECT_EQ(static_cast<size_t>(kRounds), read + Drain(raw));
    EXPECT_EQ(0u, Io()->Outstanding);
    printf("%zu read, %zu cancelled\n", read, cancelled);
    close(raw);
    os::CloseHandle(pipe);
    os::CloseHandle(port);
}

TEST(Cancel, ClosingTheHandle) {
    Scratch fifo("close");
    fifo.Fifo();
    const HANDLE port = NewPort();
    char byte[8];
    Operation a[8];
    for (const bool byOther : {false, true}) {
        const HANDLE pipe = fifo.Open();
        const int before = open("/dev/null", O_RDONLY);
        for (int i = 0; i < 8; i++) {
            ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, a[i].At(0), &a[i].Op));
            if (i == 3) os::SubmitIo(Io());
        }
        if (byOther)
            std::thread([&] { EXPECT_TRUE(os::CloseHandle(pipe)); }).join();
        else
            EXPECT_TRUE(os::CloseHandle(pipe));
        for (Operation &each : a) EXPECT_EQ(STATUS_CANCELLED, Await(port, &each.Ov)) << byOther;
        os::TakeEndedOps(Io());
        // With the last operation the descriptor went too: its number is free again.
        const int after = open("/dev/null", O_RDONLY);
        EXPECT_LT(after, before);
        close(before);
        close(after);
    }
    // Transfers of a disk cannot be called back, but closing waits for nobody and harms nobody.
    Scratch file("closefile");
    file.Fill(1 << 20);
    Pages pages(1 << 20);
    const HANDLE direct = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    std::vector<Operation> reads(64);
    for (uint32_t i = 0; i < 64; i++)
        ASSERT_FALSE(
            os::ReadFile(direct, pages.Data + i * 16384, 16384, nullptr, reads[i].At(i * 16384), &reads[i].Op));
    os::SubmitIo(Io());
    os::CloseHandle(direct);
    for (Operation &each : reads) {
        const DWORD status = Await(port, &each.Ov);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
    }
    os::TakeEndedOps(Io());
    EXPECT_EQ(0u, Io()->Outstanding);
    os::CloseHandle(port);
}

TEST(Cancel, EverythingInARangeOfMemory) {
    Scratch fifo("range");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open();
    char byte[8];
    OVERLAPPED ov[8] = {};
    EXPECT_EQ(0u, os::CancelIoInRange(&ov[0], &ov[8]));
    for (int i = 0; i < 8; i++) ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, &ov[i]));
    uint32_t left = os::CancelIoInRange(&ov[2], &ov[5]);
    EXPECT_EQ(3u, left);
    DWORD bytes;
    uintptr_t key;
    OVERLAPPED *packet;
    for (int i = 0; i < 100 && left != 0; i++) {
        os::GetQueuedCompletionStatus(port, &bytes, &key, &packet, 20);
        left = os::CancelIoInRange(&ov[2], &ov[5]);
    }
    EXPECT_EQ(0u, left);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(i >= 2 && i < 5 ? STATUS_CANCELLED : STATUS_PENDING, os::LoadStatus(&ov[i])) << i;
    os::CloseHandle(pipe);
    for (OVERLAPPED &each : ov) Await(port, &each);
    os::CloseHandle(port);
}

// A thread that ends takes its operations with it: nothing is written to its buffers afterwards.
TEST(Cancel, TheEndOfTheThread) {
    Scratch fifo("thread");
    fifo.Fifo();
    const HANDLE pipe = fifo.Open();
    for (int round = 0; round < 3; round++) {
        Operation a[4];
        char byte[4] = {};
        std::thread([&] {
            NewPort();
            for (int i = 0; i < 4; i++) {
                ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, a[i].At(0), &a[i].Op));
                if (i == 1) os::SubmitIo(Io());
            }
        }).join();
        for (Operation &each : a) EXPECT_EQ(STATUS_CANCELLED, os::LoadStatus(&each.Ov));
    }
    os::CloseHandle(pipe);
}

TEST(Cancel, OperationsOfPlainThreads) {
    Scratch fifo("plain");
    fifo.Fifo();
    const HANDLE pipe = fifo.Open();
    char byte[3];
    OVERLAPPED ov[3] = {};
    DWORD got;
    for (int i = 0; i < 3; i++) ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, &ov[i]));
    std::thread([&] { os::CancelIo(pipe); }).join();  // it has none
    EXPECT_TRUE(os::CancelIoEx(pipe, &ov[0]));
    EXPECT_FALSE(os::GetOverlappedResult(pipe, &ov[0], &got, TRUE));
    EXPECT_EQ(ERROR_OPERATION_ABORTED, os::GetLastError());
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&ov[1]));
    EXPECT_TRUE(os::CancelIo(pipe));
    for (int i = 1; i < 3; i++) EXPECT_FALSE(os::GetOverlappedResult(pipe, &ov[i], &got, TRUE));
    ASSERT_FALSE(os::ReadFile(pipe, &byte[0], 1, nullptr, &ov[0]));
    os::CloseHandle(pipe);
    EXPECT_FALSE(os::GetOverlappedResult(pipe, &ov[0], &got, TRUE));
    EXPECT_EQ(ERROR_OPERATION_ABORTED, os::GetLastError());
}

// Handles are closed while their operations are issued, by several threads at once.
TEST(Cancel, ClosingRacesIssuing) {
    Scratch fifo("closerace");
    fifo.Fifo();
    const HANDLE port = NewPort();
    std::atomic<HANDLE> current{nullptr};
    std::atomic<bool> stop{false};
    std::thread closer([&] {
        std::mt19937 random(5);
        while (!stop) {
            const HANDLE handle = current.exchange(nullptr);
            if (handle == nullptr) continue;
            Pause(random, 300);
            os::CloseHandle(handle);
        }
    });
    for (int round = 0; round < 1500; round++) {
        const HANDLE pipe = fifo.Open();
        Operation a[4];
        char byte[4];
        bool issued[4] = {};
        current = pipe;
        for (int i = 0; i < 4; i++) {
            if (os::ReadFile(pipe, &byte[i], 1, nullptr, a[i].At(0), &a[i].Op)) continue;
            const DWORD error = os::GetLastError();
            issued[i] = error == ERROR_IO_PENDING;
            ASSERT_TRUE(issued[i] || error == ERROR_INVALID_HANDLE) << error;
        }
        for (int i = 0; i < 4; i++)
            if (issued[i]) {
                ASSERT_EQ(STATUS_CANCELLED, Await(port, &a[i].Ov));
            }
        os::TakeEndedOps(Io());
    }
    stop = true;
    closer.join();
    os::CloseHandle(port);
}
