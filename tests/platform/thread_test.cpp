// tests/platform/thread_test.cpp - kernel threads: their end and their suspension, wherever they are when it is asked
// for.
#include <pthread.h>

#include <functional>

#include "support.h"

namespace {

using Body = std::function<DWORD()>;

HANDLE Start(Body &body, DWORD flags = 0) {
    auto run = [](void *arg) { return (*static_cast<Body *>(arg))(); };
    HANDLE thread = os::CreateThread(nullptr, 0, run, &body, flags, nullptr);
    EXPECT_NE(thread, nullptr);
    return thread;
}

DWORD JoinForCode(HANDLE thread) {
    EXPECT_EQ(os::WaitForSingleObject(thread, 20000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
    os::CloseHandle(thread);
    return code;
}

// A thread that counts until it is stopped.
struct Counter {
    std::atomic<uint64_t> Progress{0};
    std::atomic<bool> Stop{false};
    Body Count = [this] {
        while (!Stop) Progress.fetch_add(1);
        return 5u;
    };
    void AwaitProgress() {
        const uint64_t at = Progress;
        while (Progress == at) std::this_thread::yield();
    }
    // Stopped means stopped at once, not soon.
    void ExpectStopped(int spins) {
        const uint64_t at = Progress;
        for (int i = 0; i < spins; i++) os::CpuRelax();
        ASSERT_EQ(Progress, at);
    }
};

TEST(KernelThread, SuspensionStopsProgressUntilTheLastResume) {
    Counter counter;
    HANDLE thread = Start(counter.Count, CREATE_SUSPENDED);
    Pause(10);
    EXPECT_EQ(counter.Progress, 0u);
    EXPECT_EQ(os::SuspendThread(thread), 1u);
    for (const DWORD before : {2u, 1u, 0u}) EXPECT_EQ(os::ResumeThread(thread), before);
    for (int round = 0; round < 200; round++) {
        counter.AwaitProgress();
        ASSERT_EQ(os::SuspendThread(thread), 0u);
        counter.ExpectStopped(2000);
        ASSERT_EQ(os::ResumeThread(thread), 1u);
    }
    // Several threads suspend and resume it: counts add up, nobody hangs, and in the end it runs.
    auto suspender = [&] {
        for (int i = 0; i < 1500; i++) {
            ASSERT_LT(os::SuspendThread(thread), 2u);
            counter.ExpectStopped(1);
            ASSERT_GT(os::ResumeThread(thread), 0u);
        }
    };
    Together(suspender, suspender);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    counter.AwaitProgress();
    counter.Stop = true;
    EXPECT_EQ(JoinForCode(thread), 5u);
    // A thread may suspend itself.
    Body self = [] { return os::SuspendThread(os::GetCurrentThread()); };
    thread = Start(self);
    while (os::ResumeThread(thread) == 0) std::this_thread::yield();
    EXPECT_EQ(JoinForCode(thread), 0u);
}

// Every lock of the platform is taken and released.
void UseEverything() {
    HANDLE event = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    os::WaitForMultipleObjects(1, &event, TRUE, INFINITE);
    const auto nothing = [](void *) {};
    HANDLE backing = os::CreateBackingThread(
        nullptr, nothing, [](void *) { return DWORD{0}; }, nullptr, nullptr);
    for (int i = 0; i < 2; i++) os::ResumeThread(backing);
    for (HANDLE handle : {event, backing}) os::CloseHandle(handle);
    os::TlsFree(os::TlsAlloc());
    os::DeleteFiber(os::CreateFiber(65536, nothing, nullptr));
}

// A thread stopped while it holds a lock of the platform would block the one who stopped it.
TEST(KernelThread, SuspendedThreadsHoldNoPlatformLock) {
    std::atomic<bool> stop{false};
    Body body = [&] {
        while (!stop) UseEverything();
        return 0u;
    };
    HANDLE threads[2] = {Start(body), Start(body)};
    std::minstd_rand random(515);
    for (int round = 0; round < 1500; round++) {
        HANDLE target = threads[Draw(random, 2)];
        ASSERT_EQ(os::SuspendThread(target), 0u);
        UseEverything();
        ASSERT_EQ(os::ResumeThread(target), 1u);
        Spin(random, 3000);
    }
    stop = true;
    for (HANDLE thread : threads) EXPECT_EQ(JoinForCode(thread), 0u);
}

DWORD SleepForEver() noexcept {
    for (;;) pause();
}

TEST(KernelThread, TerminationReachesEveryKindOfBlockedThread) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    HANDLE never[2];
    for (HANDLE &event : never) event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    char byte;
    const Body cases[] = {
        [] { return SleepForEver(); },
        [] { return os::Sleep(INFINITE), 1u; },
        [&] { return static_cast<DWORD>(read(ends[0], &byte, 1)); },
        [] {
            pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
            pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
            pthread_mutex_lock(&lock);
            return static_cast<DWORD>(pthread_cond_wait(&condition, &lock));
        },
        [&] { return os::WaitForSingleObject(never[0], INFINITE); },
        [&] { return os::WaitForMultipleObjects(2, never, TRUE, 30000); },
    };
    for (size_t i = 0; i < 12; i++) {
        SCOPED_TRACE(i);
        HANDLE owned = os::CreateMutexA(nullptr, FALSE, nullptr);
        std::atomic<bool> begun{false};
        Body body = [&] { return os::WaitForSingleObject(owned, INFINITE), begun = true, cases[i / 2](); };
        HANDLE thread = Start(body);
        while (!begun) std::this_thread::yield();
        Pause(5);
        EXPECT_TRUE(i % 2 == 0 || os::SuspendThread(thread) == 0);
        ASSERT_TRUE(os::TerminateThread(thread, 31));
        EXPECT_EQ(JoinForCode(thread), 31u);
        EXPECT_EQ(os::WaitForSingleObject(owned, 0), WAIT_ABANDONED_0) << "its mutexes are abandoned at the end";
    }
    for (HANDLE event : never) ExpectOnlyTheHandle(event);
}

TEST(KernelThread, TerminationLetsComputationRunToItsNextSystemCall) {
    Counter counter;
    Body computes = [&] { return counter.Count(), SleepForEver(); };
    HANDLE thread = Start(computes);
    counter.AwaitProgress();
    ASSERT_TRUE(os::TerminateThread(thread, 9));
    EXPECT_EQ(os::WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
    counter.AwaitProgress();
    counter.Stop = true;
    EXPECT_EQ(JoinForCode(thread), 9u);
    Body self = [] { return os::TerminateThread(os::GetCurrentThread(), 12), 1u; };
    EXPECT_EQ(JoinForCode(Start(self)), 12u);
}

// Threads that allocate, wait and print are ended at random moments; the process must stay usable.
TEST(KernelThread, TerminationLeavesTheProcessUsable) {
    std::minstd_rand random(8088);
    HANDLE semaphore = os::CreateSemaphoreA(nullptr, 0, 1, nullptr);
    FILE *sink = fopen("/dev/null", "w");
    Body body = [&]() -> DWORD {
        for (;;) {
            for (size_t i = 1; i < 9; i++) free(malloc(i * 40000));
            os::WaitForSingleObject(semaphore, 1);
            fputs("line\n", sink);
            fflush(sink);
        }
    };
    for (int round = 0; round < 150; round++) {
        HANDLE thread = Start(body);
        Spin(random, 20000);
        ASSERT_TRUE(os::TerminateThread(thread, 3));
        ASSERT_EQ(JoinForCode(thread), 3u);
        free(malloc(100000));
        fputs("main\n", sink);
    }
    ExpectOnlyTheHandle(semaphore);
}

}  // namespace
