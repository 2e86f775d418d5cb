// Ports: order and number of packets, wake-ups of a blocked owner, binding and closing.
#include <sys/resource.h>

#include <random>
#include <thread>

#include "io_support.h"

namespace {

struct Packet {
    BOOL Ok = FALSE;
    DWORD Bytes = 0;
    uintptr_t Key = 0;
    OVERLAPPED *Ov = nullptr;
    DWORD Error = 0;
};

Packet Take(HANDLE port, DWORD ms) {
    Packet packet;
    packet.Ok = os::GetQueuedCompletionStatus(port, &packet.Bytes, &packet.Key, &packet.Ov, ms);
    if (!packet.Ok) packet.Error = os::GetLastError();
    return packet;
}

OVERLAPPED *Token(uintptr_t value) {
    return reinterpret_cast<OVERLAPPED *>(value * 16);
}

}  // namespace

TEST(Port, PostedPacketsKeepTheirOrderWhoeverPosts) {
    const HANDLE port = NewPort();
    std::thread([&] {
        for (uintptr_t i = 1; i <= 3; i++) EXPECT_TRUE(os::PostQueuedCompletionStatus(port, 0, i, Token(i)));
    }).join();
    // The owner's own packet was posted after those, although it takes a shorter way.
    EXPECT_TRUE(os::PostQueuedCompletionStatus(port, 7, 4, nullptr));
    for (uintptr_t i = 1; i <= 3; i++) {
        const Packet packet = Take(port, 0);
        EXPECT_TRUE(packet.Ok);
        EXPECT_EQ(i, packet.Key);
        EXPECT_EQ(Token(i), packet.Ov);
    }
    const Packet last = Take(port, 1000);
    EXPECT_TRUE(last.Ok);
    EXPECT_EQ(4u, last.Key);
    EXPECT_EQ(7u, last.Bytes);
    EXPECT_EQ(nullptr, last.Ov);

    const Packet none = Take(port, 0);
    EXPECT_FALSE(none.Ok);
    EXPECT_EQ(WAIT_TIMEOUT, none.Error);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WAIT_TIMEOUT, Take(port, 30).Error);
    EXPECT_GE(MillisecondsSince(start), 29.5);
    // Somebody else may post, but not take.
    std::thread([&] { EXPECT_EQ(ERROR_INVALID_PARAMETER, Take(port, 0).Error); }).join();
    os::CloseHandle(port);
}

// The window between "will sleep" and "sleeps" is hit from both sides by pauses of every small length.
TEST(Port, ForeignPostAlwaysWakesTheOwner) {
    constexpr int kRounds = 20000;
    std::atomic<HANDLE> ports[2] = {nullptr, nullptr};
    std::atomic<int> lost{0};
    const auto start = std::chrono::steady_clock::now();
    auto player = [&](int self) {
        ports[self] = NewPort();
        while (ports[1 - self].load() == nullptr) std::this_thread::yield();
        std::mt19937 random(static_cast<unsigned>(self + 77));
        for (int i = 0; i < kRounds && lost == 0; i++) {
            if (self == 0 || i > 0) {
                Pause(random, 512);
                os::PostQueuedCompletionStatus(ports[1 - self], static_cast<DWORD>(i), 1, nullptr);
            }
            const Packet packet = Take(ports[self], 10000);
            if (!packet.Ok) lost++;
        }
        if (self == 1) os::PostQueuedCompletionStatus(ports[0], 0, 1, nullptr);
    };
    std::thread other(player, 1);
    player(0);
    other.join();
    EXPECT_EQ(0, lost.load());
    printf("round trip between two owners: %.0f ns\n", MillisecondsSince(start) * 1e6 / kRounds);
}

TEST(Port, ManyPostersLoseNothing) {
    constexpr int kPosters = 4, kEach = 20000;
    const HANDLE port = NewPort();
    std::vector<std::thread> posters;
    for (int p = 0; p < kPosters; p++)
        posters.emplace_back([=] {
            for (int i = 0; i < kEach; i++) {
                ASSERT_TRUE(os::PostQueuedCompletionStatus(port, static_cast<DWORD>(i), static_cast<uintptr_t>(p), 0));
                if (i % 64 == 0) std::this_thread::yield();
            }
        });
    DWORD next[kPosters] = {};
    for (int i = 0; i < kPosters * kEach; i++) {
        const Packet packet = Take(port, 10000);
        ASSERT_TRUE(packet.Ok) << "after " << i;
        ASSERT_EQ(next[packet.Key]++, packet.Bytes);
    }
    for (std::thread &poster : posters) poster.join();
    EXPECT_FALSE(Take(port, 0).Ok);
    os::CloseHandle(port);
}

TEST(Port, ARecordIsQueuedOnceAndCounted) {
    Scratch file("packets");
    file.Fill(65536);
    const HANDLE port = NewPort(), handle = file.Open();
    ASSERT_EQ(port, os::CreateIoCompletionPort(handle, port, 42, 0));
    char buffer[4096];
    DWORD got;
    Operation a, b;
    OVERLAPPED own{};
    // What succeeds at once queues a packet too, and is not handed over.
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(os::ReadFile(handle, buffer, 4096, &got, a.At(0), &a.Op));
        ASSERT_TRUE(os::ReadFile(handle, buffer, 1000, &got, b.At(4096), &b.Op));
    }
    ASSERT_TRUE(os::ReadFile(handle, buffer, 10, &got, &own));
    EXPECT_EQ(2u, a.Op.PacketsQueued);
    EXPECT_EQ(nullptr, os::TakeEndedOps(os::CurrentThreadBlock()->Io));
    OVERLAPPED *expected[] = {&a.Ov, &a.Ov, &b.Ov, &b.Ov, &own};
    const DWORD bytes[] = {4096, 4096, 1000, 1000, 10};
    for (int i = 0; i < 5; i++) {
        const Packet packet = Take(port, 0);
        EXPECT_TRUE(packet.Ok);
        EXPECT_EQ(expected[i], packet.Ov) << i;
        EXPECT_EQ(bytes[i], packet.Bytes);
        EXPECT_EQ(42u, packet.Key);
    }
    EXPECT_FALSE(Take(port, 0).Ok);
    EXPECT_EQ(0u, a.Op.PacketsQueued);
    EXPECT_EQ(0u, a.Op.State);

    // A failed operation's packet carries its error; one that fails at once has none.
    EXPECT_FALSE(os::ReadFile(handle, buffer, 10, &got, a.At(1 << 20), &a.Op));
    EXPECT_EQ(ERROR_HANDLE_EOF, os::GetLastError());
    EXPECT_EQ(WAIT_TIMEOUT, Take(port, 0).Error);
    os::CurrentThreadBlock()->InlineBudget = 0;
    EXPECT_FALSE(os::ReadFile(handle, buffer, 10, &got, a.At(1 << 20), &a.Op));
    EXPECT_EQ(ERROR_IO_PENDING, os::GetLastError());
    const Packet failed = Take(port, 5000);
    EXPECT_FALSE(failed.Ok);
    EXPECT_EQ(&a.Ov, failed.Ov);
    EXPECT_EQ(ERROR_HANDLE_EOF, failed.Error);
    EXPECT_EQ(&a.Op, os::TakeEndedOps(os::CurrentThreadBlock()->Io));
    os::CloseHandle(handle);
    os::CloseHandle(port);
}

TEST(Port, ARecordInOnePortsQueueCanBeQueuedInAnother) {
    Scratch file("twoports");
    file.Fill(4096);
    const HANDLE port[2] = {NewPort(), NewPort()};
    const HANDLE handle[2] = {file.Open(), file.Open()};
    char buffer[64];
    DWORD got;
    Operation a;
    for (uintptr_t i = 0; i < 2; i++) {
        ASSERT_EQ(port[i], os::CreateIoCompletionPort(handle[i], port[i], i + 10, 0));
        ASSERT_TRUE(os::ReadFile(handle[i], buffer, 64, &got, a.At(0), &a.Op));
    }
    for (uintptr_t i = 2; i-- > 0;) {
        const Packet packet = Take(port[i], 0);
        EXPECT_EQ(&a.Ov, packet.Ov);
        EXPECT_EQ(i + 10, packet.Key);
        EXPECT_FALSE(Take(port[i], 0).Ok);
    }
    for (uintptr_t i = 0; i < 2; i++) os::CloseHandle(handle[i]), os::CloseHandle(port[i]);
}

TEST(Port, LowBitOfTheEventKeepsThePacketAway) {
    Scratch file("lowbit");
    file.Fill(65536);
    const HANDLE port = NewPort(), handle = file.Open(), event = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(port, os::CreateIoCompletionPort(handle, port, 1, 0));
    char buffer[4096];
    DWORD got;
    Operation a;
    a.Ov.hEvent = LowBit(event);
    ASSERT_TRUE(os::ReadFile(handle, buffer, 4096, &got, a.At(0), &a.Op));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(event, 0));
    EXPECT_FALSE(Take(port, 0).Ok);
    // The same for one that ends later; the wait comes back for it although there is no packet.
    os::ResetEvent(event);
    os::CurrentThreadBlock()->InlineBudget = 0;
    ASSERT_FALSE(os::ReadFile(handle, buffer, 4096, &got, a.At(8192), &a.Op));
    ASSERT_EQ(ERROR_IO_PENDING, os::GetLastError());
    const auto start = std::chrono::steady_clock::now();
    const Packet packet = Take(port, 5000);
    EXPECT_FALSE(packet.Ok);
    EXPECT_EQ(nullptr, packet.Ov);
    EXPECT_EQ(WAIT_TIMEOUT, packet.Error);
    EXPECT_LT(MillisecondsSince(start), 2000);
    EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(&a.Ov));
    EXPECT_TRUE(HasPattern(buffer, 8192, 4096));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(event, 0));
    EXPECT_EQ(&a.Op, os::TakeEndedOps(os::CurrentThreadBlock()->Io));
    os::CloseHandle(handle);
    os::CloseHandle(event);
    os::CloseHandle(port);
}

TEST(Port, PacketsFollowTheHandleToItsPort) {
    // The file is bound to another thread's port: the operation ends here, its packet arrives there.
    Scratch file("elsewhere");
    file.Fill(65536);
    const HANDLE handle = file.Open();
    std::atomic<HANDLE> theirs{nullptr};
    Operation a;
    std::thread owner([&] {
        theirs = NewPort();
        for (int i = 0; i < 2; i++) {
            const Packet packet = Take(theirs, 10000);
            EXPECT_TRUE(packet.Ok);
            EXPECT_EQ(&a.Ov, packet.Ov);
            EXPECT_EQ(100u, packet.Bytes);
            EXPECT_EQ(9u, packet.Key);
        }
    });
    while (theirs.load() == nullptr) std::this_thread::yield();
    const HANDLE mine = NewPort();
    ASSERT_EQ(theirs.load(), os::CreateIoCompletionPort(handle, theirs, 9, 0));
    char buffer[100];
    DWORD got;
    EXPECT_TRUE(os::ReadFile(handle, buffer, 100, &got, a.At(0), &a.Op));
    os::CurrentThreadBlock()->InlineBudget = 0;
    EXPECT_FALSE(os::ReadFile(handle, buffer, 100, &got, a.At(400), &a.Op));
    EXPECT_EQ(STATUS_SUCCESS, Await(mine, &a.Ov));
    owner.join();
    // Its owner is gone: binding and posting say so, operations go on.
    EXPECT_FALSE(os::PostQueuedCompletionStatus(theirs, 0, 0, nullptr));
    EXPECT_TRUE(os::ReadFile(handle, buffer, 100, &got, a.At(0), &a.Op));
    EXPECT_EQ(0u, a.Op.PacketsQueued);
    os::CloseHandle(handle);
    os::CloseHandle(theirs);
    os::CloseHandle(mine);
}

TEST(Port, BindingAndClosing) {
    Scratch file("bind");
    file.Fill(4096);
    HANDLE handle = file.Open();
    const HANDLE port = NewPort(), other = NewPort(), event = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    EXPECT_EQ(nullptr, os::CreateIoCompletionPort(event, port, 0, 0));
    EXPECT_EQ(ERROR_INVALID_HANDLE, os::GetLastError());
    EXPECT_EQ(nullptr, os::CreateIoCompletionPort(handle, event, 0, 0));
    EXPECT_EQ(ERROR_INVALID_HANDLE, os::GetLastError());
    EXPECT_EQ(port, os::CreateIoCompletionPort(handle, port, 5, 0));
    EXPECT_EQ(nullptr, os::CreateIoCompletionPort(handle, other, 6, 0));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, os::GetLastError());

    char buffer[16];
    DWORD got;
    Operation a;
    ASSERT_TRUE(os::ReadFile(handle, buffer, 16, &got, a.At(0), &a.Op));
    os::PostQueuedCompletionStatus(port, 0, 0, nullptr);
    os::CloseHandle(port);
    EXPECT_EQ(0u, a.Op.PacketsQueued) << "a closed port keeps nothing of the caller's";
    EXPECT_EQ(ERROR_INVALID_HANDLE, Take(port, 0).Error);
    ASSERT_TRUE(os::ReadFile(handle, buffer, 16, &got, a.At(0), &a.Op));
    EXPECT_EQ(0u, a.Op.PacketsQueued);
    os::CloseHandle(handle);

    // A port that is closed under its waiting owner ends the wait.
    std::atomic<HANDLE> doomed{nullptr};
    std::thread owner([&] {
        doomed = NewPort();
        EXPECT_FALSE(Take(doomed, 10000).Ok);
        EXPECT_EQ(735u, os::GetLastError());
    });
    while (doomed.load() == nullptr) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    os::CloseHandle(doomed);
    owner.join();
    os::CloseHandle(other);
    os::CloseHandle(event);
}

// An idle scheduler sits in such a loop: what it costs is printed, and that it sleeps at all is checked.
TEST(Port, IdleWaitSleeps) {
    const HANDLE port = NewPort();
    rusage before, after;
    Take(port, 1);
    getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < 500; i++) Take(port, 1);
    getrusage(RUSAGE_THREAD, &after);
    auto cpu = [](const rusage &use) {
        return static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1e3 +
               static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1e3;
    };
    printf("500 idle waits of 1 ms: %.1f ms of processor time\n", cpu(after) - cpu(before));
    EXPECT_GE(after.ru_nvcsw - before.ru_nvcsw, 450);
    EXPECT_LT(cpu(after) - cpu(before), 250);
    os::CloseHandle(port);
}
