// tests/platform/lock_test.cpp - critical sections under contention, by thread and by fiber.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/base/fiber_internal.h"
#include "platform/base/spin.h"
#include "platform/os.h"

using namespace os;

TEST(Lock, ExcludesUnderContentionAndWakesEverySleeper) {
    CriticalSection section;
    InitializeCriticalSection(&section);
    SpinWord spin;
    // Plain counters: a hole in the exclusion loses counts, and a race detector sees it at once.
    uint64_t counted = 0, spun = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                EnterCriticalSection(&section);
                if (i % 3 == 0) EnterCriticalSection(&section);
                ++counted;
                if (i % 500 == 0) std::this_thread::yield();  // the others go to sleep on it
                if (i % 3 == 0) LeaveCriticalSection(&section);
                LeaveCriticalSection(&section);
                SpinGuard guard(spin);
                ++spun;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(counted, 120000u);
    EXPECT_EQ(spun, 120000u);
    EXPECT_EQ(section.State.load(), 0u);
    EXPECT_EQ(CurrentThreadBlock()->SpinLocksHeld, 0u);
}

TEST(Lock, BelongsToTheFiberAndIsCountedWhileHeld) {
    static CriticalSection section;
    InitializeCriticalSection(&section);
    ASSERT_NE(ConvertThreadToFiber(const_cast<char *>("first")), nullptr);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section)) << "recursive";
#ifdef ZVX_CHECKS
    EXPECT_EQ(CurrentThreadBlock()->SpinLocksHeld, 1u) << "a yield here must be noticed";
#endif
    // Another fiber on the same kernel thread is somebody else.
    static bool entered = true;
    static FiberContext *back;
    back = CurrentThreadBlock()->Current;
    FiberContext *other = CreateFiber(
        65536,
        [](void *) {
            entered = TryEnterCriticalSection(&section) != 0;
            SwitchToFiber(CurrentThreadBlock(), back);
            entered = TryEnterCriticalSection(&section) != 0;
            LeaveCriticalSection(&section);
            SwitchToFiber(CurrentThreadBlock(), back);
        },
        const_cast<char *>("second"));
    SwitchToFiber(CurrentThreadBlock(), other);
    EXPECT_FALSE(entered);
    LeaveCriticalSection(&section);
    std::thread([&] { EXPECT_FALSE(TryEnterCriticalSection(&section)) << "left once of twice"; }).join();
    LeaveCriticalSection(&section);
    SwitchToFiber(CurrentThreadBlock(), other);
    EXPECT_TRUE(entered);
    EXPECT_EQ(CurrentThreadBlock()->SpinLocksHeld, 0u);
    std::thread([&] {
        EXPECT_TRUE(TryEnterCriticalSection(&section));
        LeaveCriticalSection(&section);
    }).join();
    DeleteFiber(other);
}
