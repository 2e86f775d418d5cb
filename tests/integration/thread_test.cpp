// tests/integration/thread_test.cpp - user threads: their life, their handles, what one may do to another.
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <memory>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Thread : public HostTest {};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

uint64_t Time(const FILETIME &time) {
    return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

}  // namespace

TEST_P(Thread, HandlesIdentifiersAndExitCodes) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        std::atomic<DWORD> seenId{0};
        std::atomic<bool> go{false};
        HostThread thread([&]() -> DWORD {
            seenId = GetCurrentThreadId();
            DWORD code = 0;
            // The thread's own handle is a real one.
            if (!GetExitCodeThread(GetCurrentThread(), &code) || code != STILL_ACTIVE) return 1;
            while (!go) Sleep(1);
            return 4711;
        });
        HOST_CHECK(thread.Handle != nullptr);
        DWORD code = 0;
        HOST_CHECK(GetExitCodeThread(thread.Handle, &code));
        HOST_EQ(STILL_ACTIVE, code);
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(thread.Handle, 20));
        go = true;
        HOST_EQ(4711u, thread.Join());
        HOST_EQ(thread.Id, seenId.load());
        HOST_CHECK(thread.Id != GetCurrentThreadId());

        FILETIME creation{}, exit{}, kernel{}, user{};
        HOST_CHECK(GetThreadTimes(thread.Handle, &creation, &exit, &kernel, &user));
        HOST_CHECK(Time(creation) != 0 && Time(exit) >= Time(creation));
        HOST_EQ(0u, Time(kernel));

        HostThread left([]() -> DWORD {
            ExitThread(99);
            return 1;
        });
        HOST_EQ(99u, left.Join());
    }));
}

// Slots, last error and processor time belong to the user thread, whatever runs between.
TEST_P(Thread, SlotsErrorsAndTimesArePerThread) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const DWORD slot = TlsAlloc();
        HOST_CHECK(slot != TLS_OUT_OF_INDEXES && TlsSetValue(slot, reinterpret_cast<void *>(1)));
        std::vector<std::unique_ptr<HostThread>> threads;
        for (uintptr_t t = 2; t < 34; t++) {
            threads.push_back(std::make_unique<HostThread>([t, slot]() -> DWORD {
                if (TlsGetValue(slot) != nullptr) return 1;
                TlsSetValue(slot, reinterpret_cast<void *>(t));
                for (uint32_t i = 0; i < 50; i++) {
                    SetLastError(static_cast<DWORD>(t * 1000 + i));
                    Sleep(i % 10 == 9 ? 1 : 0);
                    if (GetLastError() != t * 1000 + i) return 2;
                    if (TlsGetValue(slot) != reinterpret_cast<void *>(t)) return 3;
                }
                return 0;
            }));
        }
        for (auto &thread : threads) HOST_EQ(0u, thread->Join());
        HOST_CHECK(TlsGetValue(slot) == reinterpret_cast<void *>(1));
        HOST_CHECK(TlsFree(slot));

        // Processor time counts what the thread used, not what it slept.
        FILETIME creation{}, exit{}, kernel{}, before{}, after{};
        GetThreadTimes(GetCurrentThread(), &creation, &exit, &kernel, &before);
        HOST_EQ(0u, Time(exit));
        const ULONGLONG start = GetTickCount64();
        while (GetTickCount64() - start < 60) {
        }
        Sleep(200);
        GetThreadTimes(GetCurrentThread(), &creation, &exit, &kernel, &after);
        const uint64_t used = Time(after) - Time(before);
        HOST_CHECK(used >= 500000 && used < 1900000);
    }));
}

TEST_P(Thread, SuspendAndResume) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        std::atomic<uint32_t> turns{0};
        std::atomic<bool> stop{false};
        HostThread runner(
            [&]() -> DWORD {
                while (!stop) {
                    turns++;
                    Sleep(0);
                }
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
        HOST_EQ(stopped, turns.load());
        HOST_EQ(2u, ResumeThread(runner.Handle));
        Sleep(30);
        HOST_EQ(stopped, turns.load());
        HOST_EQ(1u, ResumeThread(runner.Handle));
        while (turns == stopped) Sleep(1);
        HOST_EQ(0u, ResumeThread(runner.Handle));

        for (uint32_t i = 0; i < 127; i++) HOST_EQ(i, SuspendThread(runner.Handle));
        HOST_EQ(0xFFFFFFFFu, SuspendThread(runner.Handle));
        HOST_EQ(0xFFFFFFFFu, GetLastError());
        // Resuming does not wait for the other scheduler, so the count that it tells may be an old one.
        uint32_t resumes = 0;
        for (uint32_t last = 127, now; (now = ResumeThread(runner.Handle)) != 0; last = now, resumes++) {
            HOST_CHECK(now <= last);
        }
        HOST_CHECK(resumes >= 127);
        stop = true;
        HOST_EQ(7u, runner.Join());

        // A thread that suspends itself goes on where it stopped.
        std::atomic<int> stage{0};
        HostThread self([&]() -> DWORD {
            stage = 1;
            const DWORD before = SuspendThread(GetCurrentThread());
            stage = 2;
            return before;
        });
        while (stage == 0) Sleep(1);
        Sleep(30);
        HOST_EQ(1, stage.load());
        while (ResumeThread(self.Handle) == 0) Sleep(1);
        HOST_EQ(0u, self.Join());
        HOST_EQ(2, stage.load());
    }));
}

TEST_P(Thread, TerminateWhateverItDoes) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<uint32_t> started{0};
        const std::function<DWORD()> doings[] = {
            [&]() -> DWORD {
                started++;
                Sleep(INFINITE);
                return 1;
            },
            [&]() -> DWORD {
                started++;
                WaitForSingleObject(event, INFINITE);
                return 1;
            },
            [&]() -> DWORD {
                started++;
                for (;;) Sleep(0);
            },
            [&]() -> DWORD {
                started++;
                SuspendThread(GetCurrentThread());
                return 1;
            },
        };
        uint32_t expected = 0;
        for (const auto &doing : doings) {
            HostThread thread(doing);
            expected++;
            while (started < expected) Sleep(1);
            Sleep(5);
            HOST_CHECK(TerminateThread(thread.Handle, 1234));
            DWORD code = 0;
            HOST_CHECK(GetExitCodeThread(thread.Handle, &code));  // it had ended when TerminateThread returned
            HOST_EQ(1234u, code);
        }
        // One that never got to run.
        HostThread waiting([]() -> DWORD { return 1; }, CREATE_SUSPENDED);
        HOST_CHECK(TerminateThread(waiting.Handle, 55));
        HOST_EQ(55u, waiting.Join());
        // Oneself.
        HostThread self([]() -> DWORD {
            TerminateThread(GetCurrentThread(), 66);
            return 1;
        });
        HOST_EQ(66u, self.Join());
    }));
}

// A handle outlives its thread, and the thread's record may stand for another one by then: nothing may reach that.
TEST_P(Thread, StaleHandlesReachNobody) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        HostThread first([]() -> DWORD { return 3; });
        HOST_EQ(3u, first.Join());
        std::vector<std::unique_ptr<HostThread>> others;
        std::atomic<bool> stop{false};
        std::atomic<uint32_t> running{0};
        for (int i = 0; i < 16; i++) {
            others.push_back(std::make_unique<HostThread>([&]() -> DWORD {
                running++;
                while (!stop) Sleep(1);
                return 0;
            }));
        }
        while (running < 16) Sleep(1);
        HOST_EQ(0xFFFFFFFFu, SuspendThread(first.Handle));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        HOST_EQ(0xFFFFFFFFu, ResumeThread(first.Handle));
        HOST_CHECK(!TerminateThread(first.Handle, 1));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        DWORD code = 0;
        HOST_CHECK(GetExitCodeThread(first.Handle, &code));
        HOST_EQ(3u, code);
        stop = true;
        for (auto &other : others) HOST_EQ(0u, other->Join());
    }));
}

// Waves of short threads: records, stacks, handles and table entries are used again and again, and a thousand parked
// ones cost no kernel threads.
TEST_P(Thread, ManyThreadsComeAndGo) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        std::atomic<uint32_t> ran{0};
        for (uint32_t wave = 0; wave < 25; wave++) {
            std::vector<std::unique_ptr<HostThread>> threads;
            for (uint32_t i = 0; i < 100; i++) {
                threads.push_back(std::make_unique<HostThread>([&ran, i]() -> DWORD {
                    if (i % 3 == 0) Sleep(0);
                    ran++;
                    return i;
                }));
            }
            for (uint32_t i = 0; i < 100; i++) HOST_EQ(i, threads[i]->Join());
        }
        HOST_EQ(2500u, ran.load());

        const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<uint32_t> parked{0};
        std::vector<std::unique_ptr<HostThread>> threads;
        const DWORD before = ZvxKernelThreadCount();
        for (uint32_t i = 0; i < 1000; i++) {
            threads.push_back(std::make_unique<HostThread>([&]() -> DWORD {
                parked++;
                return WaitForSingleObject(release, INFINITE);
            }));
            HOST_CHECK(threads.back()->Handle != nullptr);
        }
        while (parked < 1000) Sleep(1);
        HOST_CHECK(ZvxKernelThreadCount() <= before + 2);
        SetEvent(release);
        for (auto &thread : threads) HOST_EQ(WAIT_OBJECT_0, thread->Join());
    }));
}

// A burst from one thread must not go to one scheduler, although none of the new ones has arrived yet.
TEST_P(Thread, BurstsSpreadEvenly) {
    const uint32_t schedulers = GetParam();
    EXPECT_HOST_OK(RunHost(Options(), [schedulers] {
        DWORD process = 0, system = 0;
        GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
        constexpr uint32_t kEach = 6;
        std::vector<std::unique_ptr<HostThread>> threads;
        for (uint32_t i = 0; i < kEach * schedulers; i++) {
            threads.push_back(std::make_unique<HostThread>([]() -> DWORD {
                Sleep(30);
                return SetThreadAffinityMask(GetCurrentThread(), 1);  // the mask of its scheduler
            }));
        }
        std::map<DWORD, uint32_t> byMask;
        for (auto &thread : threads) byMask[thread->Join()]++;
        const uint32_t processors = static_cast<uint32_t>(__builtin_popcount(process));
        const uint32_t masks = std::min(processors, schedulers);
        HOST_EQ(masks, byMask.size());
        for (const auto &[mask, count] : byMask) {
            HOST_CHECK((mask & process) == mask && mask != 0);
            // The main routine's scheduler has one thread more to begin with.
            if (schedulers % masks == 0)
                HOST_CHECK(count + 1 >= kEach * schedulers / masks && count <= kEach * schedulers / masks + 1);
        }
        // A mask leads to a scheduler that has it.
        for (const auto &[mask, count] : byMask) {
            const HANDLE bound = ZCreateThreadWithAffinity(
                nullptr, 0, [](LPVOID) -> DWORD { return SetThreadAffinityMask(GetCurrentThread(), 1); }, nullptr, 0,
                nullptr, mask);
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(bound, 10000));
            DWORD code = 0;
            GetExitCodeThread(bound, &code);
            HOST_EQ(mask, code);
            CloseHandle(bound);
        }
    }));
}

// Out of address space a creation fails with its reason; what runs goes on, and creations work again afterwards.
TEST_P(Thread, LimitsAreReported) {
    if (kSanitized) GTEST_SKIP() << "sanitizers reserve address space of their own";
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        FILE *statm = fopen("/proc/self/statm", "r");
        unsigned long pages = 0;
        HOST_CHECK(statm != nullptr && fscanf(statm, "%lu", &pages) == 1);
        if (statm != nullptr) fclose(statm);
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = pages * 4096 + (200u << 20);
        HOST_CHECK(setrlimit(RLIMIT_AS, &limit) == 0);
        for (int round = 0; round < 2; round++) {
            std::vector<std::unique_ptr<HostThread>> threads;
            DWORD error = 0;
            for (uint32_t i = 0; i < 2000; i++) {
                threads.push_back(std::make_unique<HostThread>(
                    [release]() -> DWORD { return WaitForSingleObject(release, INFINITE); }));
                if (threads.back()->Handle != nullptr) continue;
                error = GetLastError();
                threads.pop_back();
                break;
            }
            HOST_EQ(ERROR_NOT_ENOUGH_MEMORY, error);
            HOST_CHECK(threads.size() >= 50);

            SetEvent(release);
            for (auto &thread : threads) HOST_EQ(WAIT_OBJECT_0, thread->Join());
            ResetEvent(release);
        }
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Thread, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
