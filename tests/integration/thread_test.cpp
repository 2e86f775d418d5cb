// tests/integration/thread_test.cpp - user threads: their life, what one may do to another, and their waits.
#include <sys/resource.h>

#include <fstream>

#include "support/host_runner.h"
#include "support/sanitizers.h"

using namespace hosttest;

namespace {

class Thread : public HostTest {};

}  // namespace

TEST_P(Thread, SuspendAndResume) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        std::atomic<uint32_t> turns{0};
        std::atomic<bool> stop{false};
        HostThread runner(
            [&]() -> DWORD {
                for (; !stop; Sleep(0)) turns++;
                return 7;
            },
            CREATE_SUSPENDED);
        Sleep(50);
        HOST_EQ(0u, turns.load());
        HOST_EQ(1u, ResumeThread(runner.Handle));
        while (turns < 10) Sleep(1);
        HOST_EQ(0u, SuspendThread(runner.Handle));  // stopped from here on
        const uint32_t stopped = turns;
        HOST_EQ(1u, SuspendThread(runner.Handle));
        Sleep(30);
        HOST_EQ(2u, ResumeThread(runner.Handle));
        Sleep(30);
        HOST_EQ(stopped, turns.load());
        HOST_EQ(1u, ResumeThread(runner.Handle));
        while (turns == stopped) Sleep(1);
        for (uint32_t i = 0; i < 127; i++) HOST_EQ(i, SuspendThread(runner.Handle));
        // Resuming does not wait for the other scheduler, so the count that it tells may be an old one.
        uint32_t resumes = 0;
        for (uint32_t last = 127, now; (now = ResumeThread(runner.Handle)) != 0; last = now, resumes++) {
            HOST_CHECK(now <= last);
        }
        HOST_CHECK(resumes >= 127);
        stop = true;
        HOST_EQ(7u, runner.Join());
        // A thread that suspends itself goes on where it stopped.
        HostThread self([]() -> DWORD { return SuspendThread(GetCurrentThread()); });
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(self.Handle, 30));
        while (ResumeThread(self.Handle) == 0) Sleep(1);
        HOST_EQ(0u, self.Join());
    }));
}

// Terminated whatever it does. A handle outlives its thread, and the thread's record may stand for another one by then:
// nothing may reach that.
TEST_P(Thread, TerminationAndStaleHandles) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<uint32_t> running{0};
        const std::function<void()> doings[] = {[] { Sleep(INFINITE); }, [&] { WaitForSingleObject(event, INFINITE); },
                                                [] {
                                                    for (;;) Sleep(0);
                                                },
                                                [] { SuspendThread(GetCurrentThread()); }};
        for (const auto &doing : doings) {
            running = 0;
            HostThread thread([&]() -> DWORD { return running = 1, doing(), 1; });
            while (running == 0) Sleep(1);
            Sleep(5);
            HOST_CHECK(TerminateThread(thread.Handle, 1234));
            HOST_EQ(1234u, thread.Join(0));  // it had ended when TerminateThread returned
        }
        HostThread unstarted([]() -> DWORD { return 1; }, CREATE_SUSPENDED);
        HOST_CHECK(TerminateThread(unstarted.Handle, 55));
        HOST_EQ(55u, unstarted.Join());
        HostThread self([]() -> DWORD { return TerminateThread(GetCurrentThread(), 66), 1; });
        HOST_EQ(66u, self.Join());

        std::atomic<bool> stop{false};
        std::deque<HostThread> others;
        running = 0;
        auto run = [&]() -> DWORD {
            for (running++; !stop;) Sleep(1);
            return 0;
        };
        for (int i = 0; i < 16; i++) others.emplace_back(run);
        while (running < 16) Sleep(1);
        HOST_EQ(0xFFFFFFFFu, SuspendThread(self.Handle));
        HOST_EQ(0xFFFFFFFFu, ResumeThread(self.Handle));
        HOST_CHECK(!TerminateThread(self.Handle, 1));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        HOST_EQ(66u, self.Join());
        stop = true;
        for (HostThread &other : others) HOST_EQ(0u, other.Join());
    }));
}

// Waves of short threads: records, stacks, handles and table entries are used again and again, slots and last error are
// each thread's own whatever runs between, and a thousand parked ones cost no kernel threads.
TEST_P(Thread, ManyThreadsComeAndGo) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const DWORD slot = TlsAlloc();
        for (uint32_t wave = 0; wave < 25; wave++) {
            std::deque<HostThread> threads;
            for (uint32_t i = 0; i < 100; i++) {
                threads.emplace_back([i, slot]() -> DWORD {
                    if (TlsGetValue(slot) != nullptr) return 1000;
                    TlsSetValue(slot, reinterpret_cast<void *>(uintptr_t{i} + 1));
                    for (uint32_t step = 0; step < 5; step++) {
                        SetLastError(i * 1000 + step);
                        Sleep((step + i) % 2);
                        if (GetLastError() != i * 1000 + step ||
                            TlsGetValue(slot) != reinterpret_cast<void *>(uintptr_t{i} + 1))
                            return 2000;
                    }
                    return i;
                });
            }
            for (uint32_t i = 0; i < 100; i++) HOST_EQ(i, threads[i].Join());
        }
        const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<uint32_t> parked{0};
        std::deque<HostThread> threads;
        const DWORD before = ZvxKernelThreadCount();
        for (uint32_t i = 0; i < 1000; i++)
            threads.emplace_back([&]() -> DWORD { return parked++, WaitForSingleObject(release, INFINITE); });
        while (parked < 1000) Sleep(1);
        HOST_CHECK(ZvxKernelThreadCount() <= before + 2);
        SetEvent(release);
        for (HostThread &thread : threads) HOST_EQ(WAIT_OBJECT_0, thread.Join());
    }));
}

// Out of address space a creation fails with its reason; what runs goes on, and creations work again afterwards.
TEST_P(Thread, LimitsAreReported) {
    if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "sanitizers reserve address space of their own";
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = pages * 4096 + (200u << 20);
        HOST_CHECK(pages != 0 && setrlimit(RLIMIT_AS, &limit) == 0);
        for (int round = 0; round < 2; round++) {
            std::deque<HostThread> threads;
            do {
                threads.emplace_back([&]() -> DWORD { return WaitForSingleObject(release, INFINITE); });
            } while (threads.back().Handle != nullptr && threads.size() < 2000);
            HOST_EQ(ERROR_NOT_ENOUGH_MEMORY, GetLastError());
            threads.pop_back();
            HOST_CHECK(threads.size() >= 50);
            SetEvent(release);
            for (HostThread &thread : threads) HOST_EQ(WAIT_OBJECT_0, thread.Join());
            ResetEvent(release);
        }
    }));
}

TEST_P(Thread, WaitsForOneAndForMany) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        HANDLE events[3];
        for (HANDLE &event : events) event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        const ULONGLONG start = GetTickCount64();
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[0], 60));
        HOST_CHECK(GetTickCount64() - start >= 59);
        // An event that resets itself lets exactly one of many waiters through for each time it is set.
        std::atomic<uint32_t> through{0};
        std::deque<HostThread> waiters;
        for (int i = 0; i < 20; i++)
            waiters.emplace_back([&]() -> DWORD { return WaitForSingleObject(events[0], INFINITE), through++; });
        for (uint32_t i = 1; i <= 20; i++) {
            SetEvent(events[0]);
            while (through < i) Sleep(1);
            Sleep(i % 5 == 0 ? 10 : 0);
            HOST_EQ(i, through.load());
        }
        for (HostThread &waiter : waiters) HOST_CHECK(waiter.Join() < 20);
        // Wait-all takes none before it can take all: the two that are set can still be taken by others.
        SetEvent(events[0]);
        SetEvent(events[1]);
        HOST_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(3, events, TRUE, 20));
        HOST_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(3, events, FALSE, 0));
        HostThread all([&]() -> DWORD { return WaitForMultipleObjects(3, events, TRUE, INFINITE); });
        Sleep(20);
        SetEvent(events[2]);
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(all.Handle, 20));
        SetEvent(events[0]);
        HOST_EQ(WAIT_OBJECT_0, all.Join());
        for (HANDLE event : events) HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Thread, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
