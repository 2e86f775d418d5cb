// Backing threads: thread objects that run two functions on whoever resumes them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "platform/os.h"

namespace {

uint32_t Draw(std::minstd_rand &random, uint32_t below) {
    return static_cast<uint32_t>(random() >> 8) % below;
}

// What the two functions saw, and what they answer.
struct Seen {
    std::atomic<int> Captures{0};
    std::atomic<int> Ends{0};
    DWORD Id = 0;
    DWORD SelfId = 0;
    DWORD ErrorAtEnd = 0;
    void *FiberData = nullptr;
    void *SlotBefore = nullptr;
    void *SlotAtEnd = nullptr;
    void *StaticTls = nullptr;
    DWORD Slot = 0;
    DWORD Code = 7;
    std::atomic<int> Step{0};
};

void Capture(void *arg) {
    Seen *seen = static_cast<Seen *>(arg);
    seen->Captures++;
    seen->Id = os::GetCurrentThreadId();
    seen->SelfId = os::GetThreadId(os::GetCurrentThread());
    seen->FiberData = os::GetFiberData();
    seen->StaticTls = os::CurrentThreadBlock()->StaticTls;
    seen->SlotBefore = os::TlsGetValue(seen->Slot);
    os::TlsSetValue(seen->Slot, seen);
    os::SetLastError(4321);
}

DWORD End(void *arg) {
    Seen *seen = static_cast<Seen *>(arg);
    seen->Ends++;
    seen->ErrorAtEnd = os::GetLastError();
    seen->SlotAtEnd = os::TlsGetValue(seen->Slot);
    return seen->Code;
}

DWORD CodeOf(HANDLE thread) {
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
    return code;
}

TEST(BackingThread, LivesFromCaptureToEndAsAThreadOfItsOwn) {
    Seen seen;
    seen.Slot = os::TlsAlloc();
    int own = 0;
    os::TlsSetValue(seen.Slot, &own);
    int data = 0;
    ASSERT_NE(os::ConvertThreadToFiber(&data), nullptr);
    void **slots = os::CurrentThreadBlock()->Slots;
    void *staticTls = os::CurrentThreadBlock()->StaticTls;
    DWORD myId = os::GetCurrentThreadId();

    DWORD id = 0;
    HANDLE thread = os::CreateBackingThread(nullptr, Capture, End, &seen, &id);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(os::GetThreadId(thread), id);
    EXPECT_EQ(seen.Captures, 0) << "created suspended";
    os::SetLastError(1234);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(seen.Captures, 1);
    EXPECT_EQ(seen.Id, id);
    EXPECT_EQ(seen.SelfId, id);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(seen.FiberData), os::kNoFiberData);
    EXPECT_EQ(seen.SlotBefore, nullptr);
    EXPECT_NE(seen.StaticTls, nullptr);
    EXPECT_NE(seen.StaticTls, staticTls);

    // The resuming thread is as it was.
    EXPECT_EQ(os::GetLastError(), 1234u);
    EXPECT_EQ(os::GetCurrentThreadId(), myId);
    EXPECT_EQ(os::GetFiberData(), &data);
    EXPECT_EQ(os::CurrentThreadBlock()->Slots, slots);
    EXPECT_EQ(os::CurrentThreadBlock()->StaticTls, staticTls);
    EXPECT_EQ(os::TlsGetValue(seen.Slot), &own);

    // Suspended again; every suspension needs its resume, and the last one ends it.
    EXPECT_EQ(os::SuspendThread(thread), 1u);
    EXPECT_EQ(os::ResumeThread(thread), 2u);
    EXPECT_EQ(CodeOf(thread), STILL_ACTIVE);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(seen.Ends, 1);
    EXPECT_EQ(seen.ErrorAtEnd, 4321u) << "its last error is its own";
    EXPECT_EQ(seen.SlotAtEnd, nullptr);
    EXPECT_EQ(CodeOf(thread), 7u);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
    EXPECT_EQ(os::SuspendThread(thread), 0xFFFFFFFFu);
    EXPECT_EQ(seen.Ends, 1);
    os::CloseHandle(thread);
}

TEST(BackingThread, CountsAndValues) {
    Seen seen;
    HANDLE thread = os::CreateBackingThread(nullptr, Capture, End, &seen, nullptr);
    for (DWORD count = 1; count < 127; count++) ASSERT_EQ(os::SuspendThread(thread), count);
    EXPECT_EQ(os::SuspendThread(thread), 0xFFFFFFFFu);
    EXPECT_EQ(os::GetLastError(), 156u);
    EXPECT_EQ(os::ResumeThread(thread), 127u);
    EXPECT_EQ(seen.Captures, 0);

    uint32_t processMask = 0, systemMask = 0;
    ASSERT_TRUE(os::GetProcessAffinityMask(os::GetCurrentProcess(), &processMask, &systemMask));
    uint32_t lowest = processMask & (0u - processMask);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, lowest), processMask);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, processMask), lowest);
    EXPECT_EQ(os::SetThreadAffinityMask(thread, 0), 0u);
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(os::GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
    EXPECT_TRUE(os::SetThreadPriority(thread, THREAD_PRIORITY_TIME_CRITICAL));
    EXPECT_FALSE(os::SetThreadPriority(thread, 5));
    EXPECT_EQ(os::GetThreadPriority(thread), THREAD_PRIORITY_TIME_CRITICAL);
    FILETIME creation{}, exit{}, kernel{}, user{};
    ASSERT_TRUE(os::GetThreadTimes(thread, &creation, &exit, &kernel, &user));
    EXPECT_NE(creation.dwHighDateTime, 0u);
    EXPECT_EQ(exit.dwHighDateTime, 0u);
    os::TerminateThread(thread, 0);
    ASSERT_TRUE(os::GetThreadTimes(thread, &creation, &exit, &kernel, &user));
    EXPECT_GE(exit.dwHighDateTime, creation.dwHighDateTime);
    os::CloseHandle(thread);
}

TEST(BackingThread, TerminatedOneRunsNothingMore) {
    for (bool captured : {false, true}) {
        Seen seen;
        HANDLE thread = os::CreateBackingThread(nullptr, Capture, End, &seen, nullptr);
        if (captured) os::ResumeThread(thread);
        EXPECT_TRUE(os::TerminateThread(thread, 99));
        EXPECT_EQ(CodeOf(thread), 99u);
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
        EXPECT_EQ(os::ResumeThread(thread), 0u);
        os::TerminateThread(thread, 100);
        EXPECT_EQ(CodeOf(thread), 99u) << "the first code stays";
        EXPECT_EQ(seen.Captures, captured ? 1 : 0);
        EXPECT_EQ(seen.Ends, 0);
        os::CloseHandle(thread);
    }
}

void SlowCapture(void *arg) {
    Seen *seen = static_cast<Seen *>(arg);
    seen->Step = 1;
    while (seen->Step != 2) std::this_thread::yield();
    seen->Captures++;
}

TEST(BackingThread, RequestsDuringCaptureWaitForItsEnd) {
    // A suspension adds to the one that follows capture.
    Seen seen;
    HANDLE thread = os::CreateBackingThread(nullptr, SlowCapture, End, &seen, nullptr);
    HANDLE resumer = os::CreateThread(nullptr, 0, os::ResumeThread, thread, 0, nullptr);
    while (seen.Step != 1) std::this_thread::yield();
    EXPECT_EQ(os::SuspendThread(thread), 0u);
    seen.Step = 2;
    EXPECT_EQ(os::WaitForSingleObject(resumer, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(CodeOf(resumer), 1u);
    os::CloseHandle(resumer);
    EXPECT_EQ(os::ResumeThread(thread), 2u);
    EXPECT_EQ(seen.Ends, 0);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(seen.Ends, 1);
    os::CloseHandle(thread);

    // A termination lets capture finish: its caller's memory must not go while it runs.
    Seen dying;
    thread = os::CreateBackingThread(nullptr, SlowCapture, End, &dying, nullptr);
    std::thread other([&] { os::ResumeThread(thread); });
    while (dying.Step != 1) std::this_thread::yield();
    EXPECT_TRUE(os::TerminateThread(thread, 55));
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    dying.Step = 2;
    EXPECT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(dying.Captures, 1);
    EXPECT_EQ(dying.Ends, 0);
    EXPECT_EQ(CodeOf(thread), 55u);
    other.join();
    os::CloseHandle(thread);
}

// Whoever comes first decides: either end ran once and its code counts, or it never ran and the code is a
// terminator's. A waiter is released exactly then.
TEST(BackingThread, ResumesRaceWithTerminations) {
    const unsigned seed = 77123;
    printf("seed %u\n", seed);
    std::minstd_rand random(seed);
    int ended = 0, terminated = 0;
    for (int round = 0; round < 1500; round++) {
        Seen seen;
        seen.Code = 7;
        HANDLE thread = os::CreateBackingThread(nullptr, Capture, End, &seen, nullptr);
        os::ResumeThread(thread);
        int extra = static_cast<int>(Draw(random, 3));
        for (int i = 0; i < extra; i++) os::SuspendThread(thread);
        std::atomic<bool> go{false};
        bool terminate = Draw(random, 2) != 0;
        auto act = [&](bool ends) {
            while (!go) std::this_thread::yield();
            if (ends)
                os::TerminateThread(thread, 99);
            else
                while (os::ResumeThread(thread) != 0) {
                }
        };
        std::thread a(act, false), b(act, terminate);
        go = true;
        ASSERT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
        DWORD code = CodeOf(thread);
        int ends = seen.Ends;
        ASSERT_TRUE((ends == 1 && code == 7) || (ends == 0 && code == 99)) << ends << " " << code;
        (ends == 1 ? ended : terminated)++;
        a.join();
        b.join();
        ASSERT_EQ(seen.Ends, ends);
        os::CloseHandle(thread);
    }
    EXPECT_GT(ended, 0);
    EXPECT_GT(terminated, 0);
}

TEST(BackingThread, TenThousandCostNoKernelThread) {
    Seen seen;
    uint32_t before = os::KernelThreadCount();
    std::set<DWORD> ids;
    std::vector<HANDLE> handles;
    for (int i = 0; i < 10000; i++) {
        DWORD id = 0;
        HANDLE thread = os::CreateBackingThread(nullptr, Capture, End, &seen, &id);
        ASSERT_NE(thread, nullptr);
        os::ResumeThread(thread);
        ASSERT_TRUE(ids.insert(id).second);
        ASSERT_EQ(id % 4, 0u);
        handles.push_back(thread);
    }
    EXPECT_EQ(os::KernelThreadCount(), before);
    // An ended thread's identifier is not at once another's.
    os::TerminateThread(handles.back(), 0);
    os::CloseHandle(handles.back());
    DWORD id = 0;
    handles.back() = os::CreateBackingThread(nullptr, Capture, End, &seen, &id);
    EXPECT_TRUE(ids.insert(id).second);
    for (HANDLE thread : handles) os::CloseHandle(thread);
}

DWORD TakeMutexAndEnd(void *arg) {
    EXPECT_EQ(os::WaitForSingleObject(arg, 0), WAIT_OBJECT_0);
    return 0;
}

TEST(BackingThread, MutexesThatItHoldsAreAbandonedAtItsEnd) {
    HANDLE mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE thread = os::CreateBackingThread(
        nullptr, [](void *) {}, TakeMutexAndEnd, mutex, nullptr);
    os::ResumeThread(thread);
    os::ResumeThread(thread);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_ABANDONED_0);
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    os::CloseHandle(mutex);
    os::CloseHandle(thread);
}

}  // namespace
