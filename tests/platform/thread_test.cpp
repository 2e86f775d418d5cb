// tests/platform/thread_test.cpp - kernel threads: their end and their suspension, wherever they are when it is asked
// for; and thread objects that run two functions on whoever resumes them.
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

// What the two functions saw, and what they answer.
struct Seen {
    std::atomic<int> Captures{0}, Ends{0}, Step{2};
    DWORD Id = 0, ErrorAtEnd = 0, Slot = 0;
    void *FiberData = nullptr, *SlotBefore = nullptr, *StaticTls = nullptr;
    HANDLE Mutex = nullptr;  // taken at the end
    HANDLE Thread = nullptr;

    // Waits for Step 2, which most cases have set at once.
    static void Capture(void *arg) {
        Seen *seen = static_cast<Seen *>(arg);
        if (seen->Step == 0) seen->Step = 1;
        while (seen->Step != 2) std::this_thread::yield();
        seen->Captures++;
        seen->Id = os::GetCurrentThreadId();
        seen->FiberData = os::GetFiberData();
        seen->StaticTls = os::CurrentThreadBlock()->StaticTls;
        seen->SlotBefore = os::TlsGetValue(seen->Slot);
        os::TlsSetValue(seen->Slot, seen);
        os::SetLastError(4321);
    }
    static DWORD End(void *arg) {
        Seen *seen = static_cast<Seen *>(arg);
        seen->Ends++;
        seen->ErrorAtEnd = os::GetLastError();
        if (seen->Mutex != nullptr) os::WaitForSingleObject(seen->Mutex, 0);
        return 7;
    }
    DWORD Make() {
        DWORD id = 0;
        Thread = os::CreateBackingThread(nullptr, Capture, End, this, &id);
        return id;
    }
};

TEST(BackingThread, LivesFromCaptureToEndAsAThreadOfItsOwn) {
    Seen seen;
    seen.Slot = os::TlsAlloc();
    seen.Mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    int own = 0, data = 0;
    os::TlsSetValue(seen.Slot, &own);
    ASSERT_NE(os::ConvertThreadToFiber(&data), nullptr);
    void *staticTls = os::CurrentThreadBlock()->StaticTls;
    const DWORD myId = os::GetCurrentThreadId(), id = seen.Make();
    const HANDLE thread = seen.Thread;
    EXPECT_EQ(seen.Captures, 0) << "created suspended";
    os::SetLastError(1234);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_TRUE(seen.Captures == 1 && seen.Id == id);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(seen.FiberData), os::kNoFiberData);
    EXPECT_TRUE(seen.SlotBefore == nullptr && seen.StaticTls != nullptr && seen.StaticTls != staticTls);
    // The resuming thread is as it was.
    EXPECT_TRUE(os::GetLastError() == 1234 && os::GetCurrentThreadId() == myId && os::GetFiberData() == &data);
    EXPECT_TRUE(os::CurrentThreadBlock()->StaticTls == staticTls && os::TlsGetValue(seen.Slot) == &own);

    // Suspended again; every suspension needs its resume, and the last one ends it.
    EXPECT_EQ(os::SuspendThread(thread), 1u);
    EXPECT_EQ(os::ResumeThread(thread), 2u);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(seen.Ends, 1);
    EXPECT_EQ(seen.ErrorAtEnd, 4321u) << "its last error is its own";
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(seen.Mutex, 0), WAIT_ABANDONED_0);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    EXPECT_EQ(JoinForCode(thread), 7u);
}

TEST(BackingThread, RequestsDuringCaptureWaitForItsEnd) {
    for (const bool terminate : {false, true}) {
        Seen seen;
        seen.Step = 0;
        seen.Make();
        const HANDLE thread = seen.Thread;
        std::thread resumer([&] { EXPECT_EQ(os::ResumeThread(thread), 1u); });
        while (seen.Step != 1) std::this_thread::yield();
        // A suspension adds to the one that follows capture; a termination lets capture finish, because its caller's
        // memory must not go while it runs.
        EXPECT_TRUE(terminate ? os::TerminateThread(thread, 55) != 0 : os::SuspendThread(thread) == 0);
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
        seen.Step = 2;
        resumer.join();
        EXPECT_EQ(os::ResumeThread(thread), terminate ? 0u : 2u);
        EXPECT_TRUE(seen.Captures == 1 && seen.Ends == 0);
        if (!terminate) os::ResumeThread(thread);
        EXPECT_EQ(JoinForCode(thread), terminate ? 55u : 7u);
        EXPECT_EQ(seen.Ends, terminate ? 0 : 1);
    }
}

}  // namespace
