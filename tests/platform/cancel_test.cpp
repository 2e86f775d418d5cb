// tests/platform/cancel_test.cpp - cancelling: exactly what was asked for, before and after submission, and against
// completion. By closing: sockets and pipes.
#include "platform/system/io_engine.h"
#include "support.h"

TEST(Cancel, EndsExactlyThatOperation) {
    Fifo fifo;
    const HANDLE port = NewPort(), pipe = fifo.Open(), other = fifo.Open();
    char byte[3] = {};
    Operation a[3];
    a[0].Ov.hEvent = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    for (int i = 0; i < 3; i++) ASSERT_EQ(ERROR_IO_PENDING, a[i].Read(pipe, &byte[i], 1));
    os::SubmitIo(Io());
    EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(a[0].Ov.hEvent, 0)) << "reset at the start";
    const HANDLE event = Duplicate(a[0].Ov.hEvent);
    os::CloseHandle(a[0].Ov.hEvent);
    EXPECT_FALSE(os::CancelIoEx(other, &a[1].Ov)) << "not an operation on that handle's object";
    Together([&] { EXPECT_FALSE(os::CancelIoEx(pipe, &a[1].Ov)) << "not this thread's"; });
    EXPECT_TRUE(os::CancelIoEx(pipe, &a[1].Ov));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&a[1].Ov)) << "final only when it is reaped";
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[1].Ov));
    EXPECT_EQ(ErrorOf(os::CancelIoEx(pipe, &a[1].Ov)), ERROR_NOT_FOUND);
    // The two that are left share what comes, the older one first.
    Operation put;
    const auto write = [&](const char *text) {
        if (put.Write(pipe, text, 1) != 0) Await(port, &put.Ov);
    };
    write("x");
    EXPECT_TRUE(Await(port, &a[0].Ov) == STATUS_SUCCESS && byte[0] == 'x');
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(event, 0)) << "kept although its handle is closed";
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&a[2].Ov));
    EXPECT_TRUE(os::CancelIo(pipe));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[2].Ov));
    // An operation that the kernel has not seen leaves no trace: the data is there for the next one.
    write("q");
    os::TakeEndedOps(Io());
    os::CurrentThreadBlock()->InlineBudget = 0;
    ASSERT_EQ(ERROR_IO_PENDING, a[1].Read(pipe, &byte[1], 1));
    EXPECT_TRUE(os::CancelIoEx(pipe, &a[1].Ov));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[1].Ov));
    EXPECT_EQ(&a[1].Op, os::TakeEndedOps(Io()));
    EXPECT_EQ(0, byte[1]);
    if (a[2].Read(pipe, &byte[2], 1) != 0) Await(port, &a[2].Ov);
    EXPECT_EQ('q', byte[2]);
}

// A ring numbers its entries modulo 2^32. By the time of the cancel the number of an operation that ran for long may be
// that of a newer one, of a newer one's place, or of a place where nothing is.
TEST(Cancel, EndsAnOperationOlderThanItsNumber) {
    Fifo quiet, busy;
    const HANDLE port = NewPort(), parked = quiet.Open(), pipe = busy.Open();
    os::Engine *engine = os::EngineOf(Io());
    char byte[2];
    for (const uint32_t beyond : {0u, 256u, 1u}) {
        Operation old, young, put;
        ASSERT_EQ(ERROR_IO_PENDING, old.Read(parked, &byte[0], 1));
        os::SubmitIo(Io());
        ASSERT_EQ(ERROR_IO_PENDING, young.Read(pipe, &byte[1], 1));
        os::FindRequest(engine, &old.Ov)->Entry = os::FindRequest(engine, &young.Ov)->Entry + beyond;
        EXPECT_TRUE(os::CancelIoEx(parked, &old.Ov));
        EXPECT_EQ(STATUS_CANCELLED, Await(port, &old.Ov)) << beyond;
        if (put.Write(pipe, "y", 1) != 0) Await(port, &put.Ov);
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &young.Ov)) << beyond;
        os::TakeEndedOps(Io());
    }
}

// Every byte is either in a read that succeeded or still in the pipe; every operation ends once.
TEST(Cancel, RacesCompletion) {
    const unsigned seed = std::random_device()();
    printf("seed %u\n", seed);
    constexpr int kRounds = 4000;
    Fifo fifo;
    const HANDLE port = NewPort(), pipe = fifo.Open();
    const int raw = open(fifo.Name.c_str(), O_RDWR | O_NONBLOCK);
    std::atomic<int> round{0};
    std::thread writer([&] {
        std::minstd_rand random(seed);
        for (int i = 1; i <= kRounds; i++) {
            while (round.load(std::memory_order_acquire) < i) os::CpuRelax();
            Spin(random, 1000);
            EXPECT_EQ(1, write(raw, "z", 1));
        }
    });
    std::minstd_rand random(seed + 1);
    int got = 0;
    char byte;
    for (int i = 1; i <= kRounds; i++) {
        Operation a;
        const DWORD error = a.Read(pipe, &byte, 1);
        if (Draw(random, 2) == 0) os::SubmitIo(Io());
        round.store(i, std::memory_order_release);
        if (error != 0) {
            ASSERT_EQ(ERROR_IO_PENDING, error);
            Spin(random, 1000);
            os::CancelIoEx(pipe, &a.Ov);
            Await(port, &a.Ov);
            ASSERT_EQ(&a.Op, os::TakeEndedOps(Io()));
        }
        const DWORD status = os::LoadStatus(&a.Ov);
        ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
        got += status == STATUS_SUCCESS;
    }
    writer.join();
    while (read(raw, &byte, 1) == 1) got++;
    EXPECT_EQ(kRounds, got);
    EXPECT_EQ(0u, Io()->Outstanding);
}

// What is on a stack that goes away, and what a thread that ends leaves: nothing is written to its buffers afterwards.
TEST(Cancel, EverythingInARangeOfMemoryOrOfAThread) {
    Fifo fifo;
    const HANDLE port = NewPort(), pipe = fifo.Open();
    char byte[8];
    OVERLAPPED ov[8] = {};
    for (int i = 0; i < 8; i++) ASSERT_FALSE(os::ReadFile(pipe, &byte[i], 1, nullptr, &ov[i]));
    EXPECT_EQ(3u, os::CancelIoInRange(&ov[2], &ov[5]));
    for (int i = 0; i < 100 && os::CancelIoInRange(&ov[2], &ov[5]) != 0; i++) Take(port, 20);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(i >= 2 && i < 5 ? STATUS_CANCELLED : STATUS_PENDING, os::LoadStatus(&ov[i])) << i;
    Operation a[4];
    Together([&] {
        NewPort();
        for (int i = 0; i < 4; i++) {
            ASSERT_EQ(ERROR_IO_PENDING, a[i].Read(pipe, &byte[i], 1));
            if (i == 1) os::SubmitIo(Io());
        }
    });
    for (Operation &each : a) EXPECT_EQ(STATUS_CANCELLED, os::LoadStatus(&each.Ov));
    os::CloseHandle(pipe);
    for (OVERLAPPED &each : ov) EXPECT_EQ(STATUS_CANCELLED, Await(port, &each));
}
