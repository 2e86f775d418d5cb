// tests/platform/fail_test.cpp - fault injection: the nth call fails, once, with the error that was asked for.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/os.h"

using namespace os;

#ifdef ZVX_FAIL_POINTS

TEST(Fail, TheNthCallFailsOnceByCallOrByEnvironment) {
    // Read at the first call, so this case has a process of its own, as all have.
    setenv("ZVXKVT_FAIL", "TlsAlloc:2:5,CreateFiber:1:1450,garbage,VirtualAlloc:x:y,:,LocalAlloc", 1);
    EXPECT_NE(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(GetLastError(), 5u);
    EXPECT_NE(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(CreateFiber(
                  65536, [](void *) {}, nullptr),
              nullptr);
    EXPECT_EQ(GetLastError(), 1450u);
    FiberContext *fiber = CreateFiber(
        65536, [](void *) {}, nullptr);
    ASSERT_NE(fiber, nullptr);
    DeleteFiber(fiber);
    EXPECT_EQ(LocalAlloc(0, 8), nullptr) << "a name alone is the first call";

    // Two points of one name count independently.
    FailCall("TlsAlloc", 1, 11);
    FailCall("TlsAlloc", 3, 12);
    EXPECT_EQ(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(GetLastError(), 11u);
    EXPECT_NE(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(GetLastError(), 12u);
    // More points than there is room for are dropped, and the room is free again when they have gone off.
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 100; ++i) FailCall("TlsFree", 1, 13);
        EXPECT_FALSE(TlsFree(0));
    }
}

TEST(Fail, ExactlyOneOfManyThreadsMeetsThePoint) {
    FailCall("LocalAlloc", 5000, 8);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2500; ++i) {
                void *memory = LocalAlloc(0x40, 16);
                failed += memory == nullptr;
                LocalFree(memory);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failed, 1);
}

#else

TEST(Fail, ReleaseBuildsHaveNoPoints) {
    FailCall("TlsAlloc", 1, 5);
    EXPECT_NE(TlsAlloc(), TLS_OUT_OF_INDEXES);
}

#endif
