// tests/platform/clock_test.cpp - clocks, sleeps, processor masks and priorities on the real system.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <bit>
#include <thread>

#include "child.h"
#include "platform/base/alertable.h"
#include "platform/os.h"
#include "platform/system/affinity.h"

using namespace os;

TEST(Clock, RoundingNeverMakesAWaitShort) {
    for (int i = 0; i < 1000; ++i) {
        const uint64_t down = GetTickCount64();
        const uint64_t up = GetTickCountUp();
        const uint64_t down2 = GetTickCount64();
        ASSERT_LE(down, up);
        ASSERT_LE(up, down2 + 1);
        timespec pause = {0, 37000};
        nanosleep(&pause, nullptr);
    }
    LARGE_INTEGER frequency, start, end;
    ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
    ASSERT_TRUE(QueryPerformanceCounter(&start));
    const uint64_t tsc = ReadTsc();
    const uint64_t deadline = GetTickCountUp() + 20;
    Sleep(20);
    QueryPerformanceCounter(&end);
    EXPECT_GE(GetTickCount64(), deadline - 1);
    EXPECT_GT(ReadTsc(), tsc);
    const double elapsed = static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
    EXPECT_GE(elapsed, 0.020);
    EXPECT_LT(elapsed, 2.0);
}

TEST(Clock, SignalsNeitherShortenNorLengthenASleep) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const pthread_t sleeper = pthread_self();
    std::atomic<bool> stop{false};
    std::thread nuisance([&] {
        while (!stop) {
            pthread_kill(sleeper, SIGUSR1);
            usleep(2000);
        }
    });
    const uint64_t start = GetTickCount64();
    Sleep(60);
    EXPECT_EQ(SleepEx(60, TRUE), 0u);
    const uint64_t took = GetTickCount64() - start;
    stop = true;
    nuisance.join();
    EXPECT_GE(took, 119u);
    EXPECT_LT(took, 1500u);
}

TEST(Clock, SleepExEndsWhenARoutineRanAndOnlyWhenAlertable) {
    AlertState *state = CurrentAlertState();
    static int ran;
    ran = 0;
    auto routine = [](void *arg) { ran += *static_cast<int *>(arg); };
    int one = 1;
    ASSERT_TRUE(QueueRoutine(state, routine, &one));
    EXPECT_EQ(SleepEx(1, FALSE), 0u);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(SleepEx(0, TRUE), 0u);
    std::thread other([&] {
        usleep(20000);
        WakeAlert(state);  // for nothing: the sleep goes on
        usleep(20000);
        QueueRoutine(state, routine, &one);
    });
    const uint64_t start = GetTickCount64();
    EXPECT_EQ(SleepEx(INFINITE, TRUE), WAIT_IO_COMPLETION);
    EXPECT_GE(GetTickCount64() - start, 35u);
    EXPECT_EQ(ran, 2);
    other.join();
}

TEST(Clock, CalendarTimesAgreeWithTheSystems) {
    SYSTEMTIME local;
    FILETIME file;
    time_t now = time(nullptr);
    GetLocalTime(&local);
    GetSystemTimeAsFileTime(&file);
    tm parts = {};
    parts.tm_year = local.wYear - 1900;
    parts.tm_mon = local.wMonth - 1;
    parts.tm_mday = local.wDay;
    parts.tm_hour = local.wHour;
    parts.tm_min = local.wMinute;
    parts.tm_sec = local.wSecond;
    parts.tm_isdst = -1;
    EXPECT_LE(std::llabs(mktime(&parts) - now), 2);
    EXPECT_EQ(parts.tm_wday, local.wDayOfWeek);
    EXPECT_LT(local.wMilliseconds, 1000);
    const uint64_t units = static_cast<uint64_t>(file.dwHighDateTime) << 32 | file.dwLowDateTime;
    // 1 January 2020 is 132223104000000000 in these units and 1577836800 in seconds of the system.
    EXPECT_LE(std::llabs(static_cast<long long>((units - 132223104000000000u) / 10000000) - (now - 1577836800)), 2);
}

TEST(Processors, MasksNarrowThreadsNowAndLaterInTheNumberingOfTheStart) {
    uint32_t process = 0, system = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &process, &system));
    ASSERT_NE(process, 0u);
    EXPECT_EQ(system & (system + 1), 0u) << "numbered without gaps";
    EXPECT_EQ(static_cast<unsigned>(std::popcount(process)), std::min(32u, std::thread::hardware_concurrency()));
    EXPECT_EQ(SetAffinityOfTid(gettid(), 0), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    if (std::popcount(process) < 2) GTEST_SKIP() << "one processor only";
    const uint32_t low = process & (0 - process);

    EXPECT_EQ(SetAffinityOfTid(gettid(), low), process);
    EXPECT_EQ(SetAffinityOfTid(gettid(), process), low);
    std::atomic<bool> stop{false};
    std::atomic<int> otherTid{0};
    std::thread other([&] {
        otherTid = gettid();
        while (!stop) usleep(1000);
    });
    while (otherTid == 0) usleep(1000);
    const uint32_t high = process & ~low;
    ASSERT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), high));
    EXPECT_EQ(SetAffinityOfTid(otherTid, high), high) << "a thread that existed was narrowed";
    EXPECT_EQ(SetAffinityOfTid(otherTid, low), 0u) << "outside the process mask";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    uint32_t now = 0;
    GetProcessAffinityMask(GetCurrentProcess(), &now, &system);
    EXPECT_EQ(now, high);
    EXPECT_EQ(system, process) << "the numbering stays";
    ASSERT_TRUE(SetProcessAffinityMask(GetCurrentProcess(), process));
    // A new thread does not stay where its creator happens to be pinned, nor at its priority.
    SetAffinityOfTid(gettid(), low);
    SetPriorityOfTid(gettid(), THREAD_PRIORITY_TIME_CRITICAL);
    std::thread([&] {
        InitThreadScheduling();
        EXPECT_EQ(SetAffinityOfTid(gettid(), process), process);
        EXPECT_EQ(getpriority(PRIO_PROCESS, 0), 0);
    }).join();
    stop = true;
    other.join();
    EXPECT_EQ(SetAffinityOfTid(otherTid, process), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << "the thread has ended";
    EXPECT_FALSE(SetProcessAffinityMask(GetCurrentProcess(), 0));
}

// A process confined to the second processor has the mask 1, whatever its kernel number.
TEST(Processors, NumberingStartsAtTheFirstProcessorThatTheProcessMayUse) {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    int last = -1;
    for (int i = 0; i < CPU_SETSIZE; ++i) last = CPU_ISSET(i, &set) ? i : last;
    if (CPU_COUNT(&set) < 2) GTEST_SKIP() << "one processor only";
    CPU_ZERO(&set);
    CPU_SET(last, &set);
    const ChildResult result = RunChild([&] {
        sched_setaffinity(0, sizeof set, &set);
        execl("/proc/self/exe", "clock", "--gtest_filter=Processors.DISABLED_PrintMasks",
              "--gtest_also_run_disabled_tests", static_cast<char *>(nullptr));
    });
    EXPECT_NE(result.Output.find("masks 1 1\n"), std::string::npos) << result.Output;
}

TEST(Processors, DISABLED_PrintMasks) {
    uint32_t process = 0, system = 0;
    ASSERT_TRUE(GetProcessAffinityMask(GetCurrentProcess(), &process, &system));
    printf("masks %x %x\n", process, system);
}

TEST(Processors, PrioritiesAreTakenOrForgivenButNeverStickLow) {
    EXPECT_FALSE(SetPriorityOfTid(gettid(), 3));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    // As root and as an ordinary user: after any sequence normal is the start value again.
    const int start = getpriority(PRIO_PROCESS, 0);
    auto walk = [start] {
        for (int priority : {THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_IDLE, THREAD_PRIORITY_BELOW_NORMAL,
                             THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_NORMAL}) {
            if (!SetPriorityOfTid(gettid(), priority)) return false;
        }
        return getpriority(PRIO_PROCESS, 0) == start && sched_getscheduler(0) == SCHED_OTHER;
    };
    EXPECT_TRUE(walk());
    if (geteuid() != 0) return;
    const ChildResult ordinary = RunChild([] {
        if (setresuid(65534, 65534, 65534) != 0) _exit(3);
        execl("/proc/self/exe", "clock", "--gtest_filter=Processors.PrioritiesAreTakenOrForgivenButNeverStickLow",
              static_cast<char *>(nullptr));
        _exit(4);
    });
    if (ordinary.ExitCode == 4) GTEST_SKIP() << "an ordinary user cannot run this file here";
    EXPECT_EQ(ordinary.ExitCode, 0) << ordinary.Output;
}
