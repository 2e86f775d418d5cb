// Kernel threads: their start, suspension and end, wherever they are when it is asked for.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "platform/base/object.h"
#include "platform/os.h"

namespace {

uint32_t Draw(std::minstd_rand &random, uint32_t below) {
    return static_cast<uint32_t>(random() >> 8) % below;
}

using Body = std::function<DWORD()>;

DWORD RunBody(void *arg) {
    return (*static_cast<Body *>(arg))();
}

HANDLE Start(Body &body, DWORD flags = 0) {
    HANDLE thread = os::CreateThread(nullptr, 0, RunBody, &body, flags, nullptr);
    EXPECT_NE(thread, nullptr);
    return thread;
}

void Pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void Await(const std::atomic<int> &value, int wanted) {
    while (value.load() < wanted) std::this_thread::yield();
}

DWORD JoinForCode(HANDLE thread) {
    EXPECT_EQ(os::WaitForSingleObject(thread, 20000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
    os::CloseHandle(thread);
    return code;
}

std::atomic<int> gTlsGone{0};
struct TlsGuard {
    int Used = 0;
    ~TlsGuard() { gTlsGone++; }
};
thread_local TlsGuard gTlsGuard;

void ExitDeep(int depth) noexcept {
    if (depth == 0) os::ExitThread(77);
    if (gTlsGuard.Used != 0) ExitDeep(depth - 1);
    gTlsGuard.Used++;
}

TEST(KernelThread, EndsByReturnOrByExitFromAnyDepth) {
    std::atomic<DWORD> idInside{0};
    Body returns = [&] {
        idInside = os::GetCurrentThreadId();
        EXPECT_EQ(os::GetThreadId(os::GetCurrentThread()), idInside);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(os::GetFiberData()), os::kNoFiberData);
        return 42u;
    };
    DWORD id = 0;
    HANDLE thread = os::CreateThread(nullptr, 0, RunBody, &returns, 0, &id);
    ASSERT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(idInside, id);
    EXPECT_EQ(os::GetThreadId(thread), id);
    EXPECT_EQ(JoinForCode(thread), 42u);

    Body exits = []() -> DWORD {
        gTlsGuard.Used = 1;
        ExitDeep(20);
        return 1;
    };
    EXPECT_EQ(JoinForCode(Start(exits)), 77u);
    EXPECT_EQ(gTlsGone, 1) << "thread-local objects are destroyed before the handle is signalled";

    Body running = [] {
        Pause(30);
        return 259u;
    };
    thread = Start(running);
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(JoinForCode(thread), 259u);
}

TEST(KernelThread, EndsFromAFiberToo) {
    Body body = []() -> DWORD {
        gTlsGuard.Used = 1;
        int data = 0;
        os::ConvertThreadToFiber(&data);
        os::FiberContext *fiber = os::CreateFiber(
            65536, [](void *) { os::ExitThread(78); }, &data);
        os::SwitchToFiber(os::CurrentThreadBlock(), fiber);
        return 1;
    };
    EXPECT_EQ(JoinForCode(Start(body)), 78u);
    EXPECT_EQ(gTlsGone, 1);
}

TEST(KernelThread, AStackThatCannotBeMappedIsRefusedCleanly) {
    Body never = [] { return 0u; };
    EXPECT_EQ(os::CreateThread(nullptr, size_t{1} << 46, RunBody, &never, 0, nullptr), nullptr);
    EXPECT_EQ(os::GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(os::CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(JoinForCode(Start(never)), 0u);
}

TEST(KernelThread, SuspensionStopsProgressUntilTheLastResume) {
    std::atomic<uint64_t> progress{0};
    std::atomic<bool> stop{false};
    Body body = [&] {
        while (!stop) progress.fetch_add(1);
        return 5u;
    };
    HANDLE thread = Start(body, CREATE_SUSPENDED);
    Pause(10);
    EXPECT_EQ(progress, 0u);
    EXPECT_EQ(os::SuspendThread(thread), 1u);
    EXPECT_EQ(os::ResumeThread(thread), 2u);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    while (progress == 0) std::this_thread::yield();
    for (int round = 0; round < 200; round++) {
        ASSERT_EQ(os::SuspendThread(thread), 0u);
        // Stopped means stopped at once, not soon.
        uint64_t at = progress;
        if (round % 20 == 0)
            Pause(2);
        else
            for (int i = 0; i < 2000; i++) os::CpuRelax();
        ASSERT_EQ(progress, at);
        ASSERT_EQ(os::ResumeThread(thread), 1u);
        while (progress == at) std::this_thread::yield();
    }
    for (DWORD count = 0; count < 127; count++) ASSERT_EQ(os::SuspendThread(thread), count);
    EXPECT_EQ(os::SuspendThread(thread), 0xFFFFFFFFu);
    EXPECT_EQ(os::GetLastError(), 156u);
    uint64_t at = progress;
    for (DWORD count = 127; count > 1; count--) ASSERT_EQ(os::ResumeThread(thread), count);
    Pause(2);
    EXPECT_EQ(progress, at);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    stop = true;
    ASSERT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(os::SuspendThread(thread), 0xFFFFFFFFu);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    EXPECT_EQ(JoinForCode(thread), 5u);

    // A thread may suspend itself.
    std::atomic<int> step{0};
    Body self = [&] {
        step = 1;
        EXPECT_EQ(os::SuspendThread(os::GetCurrentThread()), 0u);
        return 6u;
    };
    thread = Start(self);
    Await(step, 1);
    Pause(10);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    while (os::ResumeThread(thread) == 0) std::this_thread::yield();
    EXPECT_EQ(JoinForCode(thread), 6u);
}

TEST(KernelThread, ASuspendedWaiterTakesNothing) {
    HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    Body body = [&] { return os::WaitForSingleObject(event, INFINITE); };
    HANDLE thread = Start(body);
    Pause(10);
    ASSERT_EQ(os::SuspendThread(thread), 0u);
    os::SetEvent(event);
    EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    ASSERT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(os::WaitForSingleObject(thread, 10), WAIT_TIMEOUT) << "it waits on";
    // Set while it is suspended and left alone: found at the resume.
    ASSERT_EQ(os::SuspendThread(thread), 0u);
    os::SetEvent(event);
    ASSERT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(JoinForCode(thread), WAIT_OBJECT_0);
    os::CloseHandle(event);
}

void TakeSlotAndStack() {
    os::TlsFree(os::TlsAlloc());
    os::DeleteFiber(os::CreateFiber(
        65536, [](void *) {}, nullptr));
}

// A thread stopped while it holds a lock of the platform would block the one who stopped it.
TEST(KernelThread, SuspendedThreadsHoldNoPlatformLock) {
    const unsigned seed = 515;
    printf("seed %u\n", seed);
    std::atomic<bool> stop{false};
    HANDLE shared = os::CreateMutexA(nullptr, FALSE, nullptr);
    Body body = [&] {
        while (!stop) {
            HANDLE event = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
            os::SetEvent(event);
            os::WaitForSingleObject(event, INFINITE);
            os::CloseHandle(event);
            HANDLE backing = os::CreateBackingThread(
                nullptr, [](void *) {}, [](void *) { return DWORD{0}; }, nullptr, nullptr);
            os::ResumeThread(backing);
            os::ResumeThread(backing);
            os::CloseHandle(backing);
            TakeSlotAndStack();
        }
        return 0u;
    };
    HANDLE threads[2] = {Start(body), Start(body)};
    std::minstd_rand random(seed);
    for (int round = 0; round < 1500; round++) {
        HANDLE target = threads[Draw(random, 2)];
        ASSERT_EQ(os::SuspendThread(target), 0u);
        HANDLE event = os::CreateEventA(nullptr, FALSE, TRUE, "while suspended");
        HANDLE both[2] = {event, shared};
        ASSERT_EQ(os::WaitForMultipleObjects(2, both, TRUE, INFINITE), WAIT_OBJECT_0);
        os::ReleaseMutex(shared);
        os::CloseHandle(event);
        TakeSlotAndStack();
        ASSERT_EQ(os::ResumeThread(target), 1u);
        for (unsigned spin = Draw(random, 3000); spin > 0; spin--) os::CpuRelax();
    }
    stop = true;
    for (HANDLE thread : threads) EXPECT_EQ(JoinForCode(thread), 0u);
    os::CloseHandle(shared);
}

// Several threads suspend and resume one: counts add up, nobody hangs, and in the end it runs.
TEST(KernelThread, SuspendersRace) {
    std::atomic<uint64_t> progress{0};
    std::atomic<bool> stop{false};
    Body body = [&] {
        while (!stop) progress.fetch_add(1);
        return 0u;
    };
    HANDLE thread = Start(body);
    auto suspender = [&] {
        for (int i = 0; i < 1500; i++) {
            ASSERT_LT(os::SuspendThread(thread), 2u);
            uint64_t at = progress;
            os::CpuRelax();
            ASSERT_EQ(progress, at);
            ASSERT_GT(os::ResumeThread(thread), 0u);
        }
    };
    std::thread a(suspender), b(suspender);
    a.join();
    b.join();
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    uint64_t at = progress;
    while (progress == at) std::this_thread::yield();
    stop = true;
    EXPECT_EQ(JoinForCode(thread), 0u);
}

DWORD SleepForEver() noexcept {
    timespec hour{3600, 0};
    for (;;) nanosleep(&hour, nullptr);
}

TEST(KernelThread, TerminationReachesEveryKindOfBlockedThread) {
    int pipeEnds[2], socketEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, socketEnds), 0);
    HANDLE never = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE other = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE both[2] = {never, other};
    char byte;
    struct {
        const char *Where;
        Body Blocks;
    } cases[] = {
        {"sleep", [] { return SleepForEver(); }},
        {"library sleep",
         []() -> DWORD {
             os::Sleep(INFINITE);
             return 1;
         }},
        {"read", [&] { return static_cast<DWORD>(read(pipeEnds[0], &byte, 1)); }},
        {"recv", [&] { return static_cast<DWORD>(recvfrom(socketEnds[0], &byte, 1, 0, nullptr, nullptr)); }},
        {"condition",
         []() -> DWORD {
             pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
             pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
             pthread_mutex_lock(&lock);
             for (;;) pthread_cond_wait(&condition, &lock);
         }},
        {"object", [&] { return os::WaitForSingleObject(never, INFINITE); }},
        {"objects", [&] { return os::WaitForMultipleObjects(2, both, TRUE, 30000); }},
    };
    for (auto &test : cases) {
        for (bool suspended : {false, true}) {
            std::string what = std::string(test.Where) + (suspended ? ", suspended" : "");
            SCOPED_TRACE(what);
            HANDLE owned = os::CreateMutexA(nullptr, FALSE, nullptr);
            std::atomic<int> begun{0};
            Body body = [&] {
                os::WaitForSingleObject(owned, INFINITE);
                begun = 1;
                return test.Blocks();
            };
            HANDLE thread = Start(body);
            Await(begun, 1);
            Pause(5);
            if (suspended) {
                ASSERT_EQ(os::SuspendThread(thread), 0u);
            }
            ASSERT_TRUE(os::TerminateThread(thread, 31));
            EXPECT_TRUE(os::TerminateThread(thread, 32) || os::GetLastError() == ERROR_ACCESS_DENIED);
            EXPECT_EQ(JoinForCode(thread), 31u);
            EXPECT_EQ(os::WaitForSingleObject(owned, 0), WAIT_ABANDONED_0) << "its mutexes are abandoned at the end";
            os::CloseHandle(owned);
        }
    }
    for (HANDLE event : both) {
        os::Object *object = os::RefHandle(event);
        EXPECT_EQ(object->Refs.load(), 2u) << "an ended waiter let go of its objects";
        EXPECT_EQ(object->Waiters, nullptr);
        os::UnrefObject(object);
        os::CloseHandle(event);
    }
    for (int fd : {pipeEnds[0], pipeEnds[1], socketEnds[0], socketEnds[1]}) close(fd);
}

TEST(KernelThread, TerminationLetsComputationRunToItsNextSystemCall) {
    std::atomic<uint64_t> progress{0};
    std::atomic<bool> block{false};
    Body body = [&] {
        while (!block) progress.fetch_add(1);
        return SleepForEver();
    };
    HANDLE thread = Start(body);
    while (progress == 0) std::this_thread::yield();
    ASSERT_TRUE(os::TerminateThread(thread, 9));
    EXPECT_EQ(os::WaitForSingleObject(thread, 20), WAIT_TIMEOUT);
    uint64_t at = progress;
    while (progress == at) std::this_thread::yield();
    block = true;
    EXPECT_EQ(JoinForCode(thread), 9u);

    // One that ends by itself meanwhile has the code of the termination too.
    std::atomic<bool> leave{false};
    Body returns = [&] {
        while (!leave) progress.fetch_add(1);
        return 1u;
    };
    thread = Start(returns);
    ASSERT_TRUE(os::TerminateThread(thread, 10));
    leave = true;
    EXPECT_EQ(JoinForCode(thread), 10u);

    std::atomic<int> ran{0};
    Body unstarted = [&] {
        ran = 1;
        return 1u;
    };
    thread = Start(unstarted, CREATE_SUSPENDED);
    ASSERT_TRUE(os::TerminateThread(thread, 11));
    EXPECT_EQ(JoinForCode(thread), 11u);
    EXPECT_EQ(ran, 0);

    Body self = []() -> DWORD {
        os::TerminateThread(os::GetCurrentThread(), 12);
        return 1;
    };
    EXPECT_EQ(JoinForCode(Start(self)), 12u);
}

// Threads that allocate, wait and print are ended at random moments; the process must stay usable.
TEST(KernelThread, TerminationLeavesTheProcessUsable) {
    const unsigned seed = 8088;
    printf("seed %u\n", seed);
    std::minstd_rand random(seed);
    HANDLE semaphore = os::CreateSemaphoreA(nullptr, 0, 1, nullptr);
    FILE *sink = fopen("/dev/null", "w");
    Body body = [&]() -> DWORD {
        for (;;) {
            void *memory[8];
            for (size_t i = 0; i < 8; i++) memory[i] = malloc((i + 1) * 40000);
            for (void *one : memory) free(one);
            os::WaitForSingleObject(semaphore, 1);
            fputs("line\n", sink);
            fflush(sink);
        }
    };
    for (int round = 0; round < 150; round++) {
        HANDLE thread = Start(body);
        for (unsigned spin = Draw(random, 20000); spin > 0; spin--) os::CpuRelax();
        ASSERT_TRUE(os::TerminateThread(thread, 3));
        ASSERT_EQ(JoinForCode(thread), 3u);
        free(malloc(100000));
        fputs("main\n", sink);
    }
    os::Object *object = os::RefHandle(semaphore);
    EXPECT_EQ(object->Refs.load(), 2u);
    os::UnrefObject(object);
    os::CloseHandle(semaphore);
    fclose(sink);
}

TEST(KernelThread, AThreadMadeElsewhereHasAHandleToo) {
    HANDLE self = os::GetCurrentProcess();
    std::atomic<HANDLE> handle{nullptr};
    std::atomic<uint64_t> progress{0};
    std::atomic<bool> stop{false};
    std::thread foreign([&] {
        HANDLE mine = nullptr;
        os::DuplicateHandle(self, os::GetCurrentThread(), self, &mine, 0, FALSE, DUPLICATE_SAME_ACCESS);
        handle = mine;
        while (!stop) progress.fetch_add(1);
    });
    while (progress == 0) std::this_thread::yield();
    ASSERT_EQ(os::SuspendThread(handle), 0u);
    uint64_t at = progress;
    Pause(2);
    EXPECT_EQ(progress, at);
    EXPECT_EQ(os::ResumeThread(handle), 1u);
    EXPECT_FALSE(os::TerminateThread(handle, 1));
    EXPECT_EQ(os::GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(os::WaitForSingleObject(handle, 0), WAIT_TIMEOUT);
    stop = true;
    EXPECT_EQ(os::WaitForSingleObject(handle, INFINITE), WAIT_OBJECT_0);
    foreign.join();
    EXPECT_FALSE(os::TerminateThread(handle, 1));
    os::CloseHandle(handle);
}

TEST(KernelThread, TimesMasksAndPriorities) {
    std::atomic<bool> stop{false};
    Body body = [&] {
        while (!stop) os::CpuRelax();
        return 0u;
    };
    HANDLE thread = Start(body);
    auto userTime = [&] {
        FILETIME creation, exit, kernel, user;
        EXPECT_TRUE(os::GetThreadTimes(thread, &creation, &exit, &kernel, &user));
        return uint64_t{user.dwHighDateTime} << 32 | user.dwLowDateTime;
    };
    while (userTime() < 20000) Pause(1);
    uint32_t processMask = 0, systemMask = 0;
    ASSERT_TRUE(os::GetProcessAffinityMask(os::GetCurrentProcess(), &processMask, &systemMask));
    uint32_t lowest = processMask & (0u - processMask);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, lowest), processMask);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, processMask), lowest);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, 0), 0u);
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(os::SetThreadPriority(thread, THREAD_PRIORITY_HIGHEST)) << "a refused nice value is no error";
    EXPECT_EQ(os::GetThreadPriority(thread), THREAD_PRIORITY_HIGHEST);
    stop = true;
    EXPECT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_GE(userTime(), 20000u) << "kept after the end";
    EXPECT_EQ(os::SetThreadAffinityMask(thread, lowest), 0u);
    os::CloseHandle(thread);
}

}  // namespace
