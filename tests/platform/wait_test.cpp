// Waits for one object and for many: who gets what, in which order, and nothing lost under contention.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include "platform/base/alertable.h"
#include "platform/base/object.h"
#include "platform/os.h"

namespace {

uint32_t Draw(std::minstd_rand &random, uint32_t below) {
    return static_cast<uint32_t>(random() >> 8) % below;
}

HANDLE AutoEvent() {
    return os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
}
HANDLE ManualEvent() {
    return os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

void Pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Until `value` is reached; the test's time limit ends what never gets there.
void Await(const std::atomic<int> &value, int wanted) {
    while (value.load() < wanted) std::this_thread::yield();
}

TEST(Wait, AnAutoResetEventReleasesOneWaiterAndAManualOneAll) {
    HANDLE one = AutoEvent();
    HANDLE all = ManualEvent();
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 6; i++)
        waiters.emplace_back([&, i] {
            HANDLE both[2] = {one, all};
            DWORD got =
                i % 2 ? os::WaitForSingleObject(one, INFINITE) : os::WaitForMultipleObjects(2, both, FALSE, INFINITE);
            EXPECT_EQ(got, WAIT_OBJECT_0);
            released++;
            EXPECT_EQ(os::WaitForSingleObject(all, INFINITE), WAIT_OBJECT_0);
        });
    Pause(30);
    for (int set = 1; set <= 6; set++) {
        os::SetEvent(one);
        Await(released, set);
        Pause(5);
        ASSERT_EQ(released, set);
        ASSERT_EQ(os::WaitForSingleObject(one, 0), WAIT_TIMEOUT) << "the event went to the waiter";
    }
    os::SetEvent(all);
    for (std::thread &waiter : waiters) waiter.join();
    EXPECT_EQ(os::WaitForSingleObject(all, 0), WAIT_OBJECT_0);
    os::ResetEvent(all);
    EXPECT_EQ(os::WaitForSingleObject(all, 0), WAIT_TIMEOUT);
    os::CloseHandle(one);
    os::CloseHandle(all);
}

TEST(Wait, NoWakeUpIsLostInPingPong) {
    HANDLE ping = AutoEvent();
    HANDLE pong = AutoEvent();
    constexpr int kRounds = 20000;
    std::thread other([&] {
        for (int i = 0; i < kRounds; i++) {
            ASSERT_EQ(os::WaitForSingleObject(ping, INFINITE), WAIT_OBJECT_0);
            os::SetEvent(pong);
        }
    });
    for (int i = 0; i < kRounds; i++) {
        os::SetEvent(ping);
        ASSERT_EQ(os::WaitForSingleObject(pong, INFINITE), WAIT_OBJECT_0);
    }
    other.join();
    os::CloseHandle(ping);
    os::CloseHandle(pong);
}

// Units are neither lost nor doubled, although some waits run out of time just as they are given one, and
// waits for any of several compete with waits for one.
TEST(Wait, UnitsAreConservedUnderContention) {
    const unsigned seed = 9041;
    printf("seed %u\n", seed);
    constexpr int kSemaphores = 4;
    constexpr int kUnits = 8000;
    HANDLE semaphores[kSemaphores];
    for (HANDLE &semaphore : semaphores) semaphore = os::CreateSemaphoreA(nullptr, 0, kUnits, nullptr);
    std::atomic<int> taken[kSemaphores] = {};
    std::atomic<int> total{0};
    auto taker = [&](unsigned number) {
        std::minstd_rand random(seed + number);
        while (total.load() < kUnits) {
            DWORD ms = Draw(random, 3);
            uint32_t first = Draw(random, kSemaphores);
            uint32_t count = 1 + Draw(random, kSemaphores - first);
            DWORD got = count == 1 ? os::WaitForSingleObject(semaphores[first], ms)
                                   : os::WaitForMultipleObjects(count, semaphores + first, FALSE, ms);
            if (got == WAIT_TIMEOUT) continue;
            ASSERT_LT(got, count);
            taken[first + got]++;
            total++;
        }
    };
    std::vector<std::thread> takers;
    for (unsigned i = 0; i < 4; i++) takers.emplace_back(taker, i);
    std::minstd_rand random(seed);
    int given[kSemaphores] = {};
    for (int i = 0; i < kUnits; i++) {
        uint32_t index = Draw(random, kSemaphores);
        given[index]++;
        ASSERT_TRUE(os::ReleaseSemaphore(semaphores[index], 1, nullptr));
        if (Draw(random, 64) == 0) Pause(1);
    }
    for (std::thread &thread : takers) thread.join();
    for (int i = 0; i < kSemaphores; i++) {
        EXPECT_EQ(taken[i], given[i]);
        EXPECT_EQ(os::WaitForSingleObject(semaphores[i], 0), WAIT_TIMEOUT);
        os::CloseHandle(semaphores[i]);
    }
}

TEST(Wait, AnyTakesTheLowestAndOnlyThat) {
    HANDLE events[3] = {AutoEvent(), AutoEvent(), AutoEvent()};
    os::SetEvent(events[2]);
    os::SetEvent(events[1]);
    EXPECT_EQ(os::WaitForMultipleObjects(3, events, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(os::WaitForMultipleObjects(3, events, FALSE, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(os::WaitForMultipleObjects(3, events, FALSE, 0), WAIT_TIMEOUT);
    // The same object twice in a sleeping wait is taken once, and leaves no wait block behind.
    HANDLE twice[3] = {events[0], events[0], events[1]};
    std::thread waiter([&] { EXPECT_EQ(os::WaitForMultipleObjects(3, twice, FALSE, INFINITE), WAIT_OBJECT_0); });
    Pause(20);
    os::SetEvent(events[0]);
    waiter.join();
    os::SetEvent(events[0]);
    EXPECT_EQ(os::WaitForSingleObject(events[0], 0), WAIT_OBJECT_0);
    for (HANDLE event : events) os::CloseHandle(event);
}

TEST(Wait, AllTakesEverythingInOneStepOrNothing) {
    HANDLE pair[2] = {AutoEvent(), AutoEvent()};
    std::atomic<int> got{0};
    std::thread waiter([&] {
        EXPECT_EQ(os::WaitForMultipleObjects(2, pair, TRUE, INFINITE), WAIT_OBJECT_0);
        got = 1;
    });
    Pause(20);
    os::SetEvent(pair[0]);
    Pause(10);
    EXPECT_EQ(os::WaitForSingleObject(pair[0], 0), WAIT_OBJECT_0) << "a waiter for both holds neither";
    os::SetEvent(pair[1]);
    Pause(10);
    EXPECT_EQ(got, 0);
    os::SetEvent(pair[0]);
    waiter.join();
    EXPECT_EQ(os::WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(os::WaitForMultipleObjects(2, pair, TRUE, 1), WAIT_TIMEOUT);
    for (HANDLE event : pair) os::CloseHandle(event);
}

// Three threads take overlapping sets of locks in every order. Taking them one by one would deadlock.
TEST(Wait, OverlappingSetsNeitherDeadlockNorOverlap) {
    HANDLE locks[3];
    locks[0] = os::CreateMutexA(nullptr, FALSE, nullptr);
    locks[1] = os::CreateSemaphoreA(nullptr, 1, 1, nullptr);
    locks[2] = os::CreateEventA(nullptr, FALSE, TRUE, nullptr);
    auto release = [&](int which) {
        if (which == 0) return os::ReleaseMutex(locks[0]);
        if (which == 1) return os::ReleaseSemaphore(locks[1], 1, nullptr);
        return os::SetEvent(locks[2]);
    };
    std::atomic<int> holders[3] = {};
    auto worker = [&](std::vector<int> order) {
        HANDLE set[3];
        for (size_t i = 0; i < order.size(); i++) set[i] = locks[order[i]];
        for (int round = 0; round < 4000; round++) {
            DWORD got = order.size() == 1
                            ? os::WaitForSingleObject(set[0], INFINITE)
                            : os::WaitForMultipleObjects(static_cast<DWORD>(order.size()), set, TRUE, INFINITE);
            ASSERT_EQ(got, WAIT_OBJECT_0);
            for (int which : order) ASSERT_EQ(holders[which].fetch_add(1), 0);
            if (round % 128 == 0) std::this_thread::yield();
            for (int which : order) holders[which]--;
            for (int which : order) ASSERT_TRUE(release(which));
        }
    };
    std::thread a(worker, std::vector<int>{0, 1}), b(worker, std::vector<int>{1, 2}),
        c(worker, std::vector<int>{2, 0, 1}), d(worker, std::vector<int>{2});
    a.join();
    b.join();
    c.join();
    d.join();
    EXPECT_EQ(os::WaitForMultipleObjects(3, locks, TRUE, 0), WAIT_OBJECT_0);
    for (HANDLE lock : locks) os::CloseHandle(lock);
}

TEST(Wait, TimeOutsAreNeverShort) {
    HANDLE events[2] = {AutoEvent(), AutoEvent()};
    for (DWORD ms : {1u, 7u, 40u}) {
        int64_t start = NowMs();
        EXPECT_EQ(os::WaitForSingleObject(events[0], ms), WAIT_TIMEOUT);
        EXPECT_GE(NowMs() - start, ms);
        start = NowMs();
        EXPECT_EQ(os::WaitForMultipleObjects(2, events, TRUE, ms), WAIT_TIMEOUT);
        EXPECT_GE(NowMs() - start, ms);
        EXPECT_LT(NowMs() - start, ms + 2000);
    }
    for (HANDLE event : events) os::CloseHandle(event);
}

TEST(Wait, WhatCannotBeWaitedForIsRefused) {
    HANDLE event = ManualEvent();
    HANDLE many[65];
    for (HANDLE &handle : many) handle = event;
    auto expectError = [](DWORD result, DWORD error) {
        EXPECT_EQ(result, WAIT_FAILED);
        EXPECT_EQ(os::GetLastError(), error);
        os::SetLastError(0);
    };
    expectError(os::WaitForMultipleObjects(0, many, FALSE, 0), ERROR_INVALID_PARAMETER);
    expectError(os::WaitForMultipleObjects(65, many, FALSE, 0), ERROR_INVALID_PARAMETER);
    expectError(os::WaitForMultipleObjects(2, many, TRUE, 10), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(os::WaitForMultipleObjects(64, many, FALSE, 0), WAIT_TIMEOUT);
    many[1] = nullptr;
    expectError(os::WaitForMultipleObjects(2, many, FALSE, 0), ERROR_INVALID_HANDLE);
    expectError(os::WaitForMultipleObjects(2, many, FALSE, INFINITE), ERROR_INVALID_HANDLE);
    expectError(os::WaitForSingleObject(nullptr, 0), ERROR_INVALID_HANDLE);
    os::Object *object = os::RefHandle(event);
    EXPECT_EQ(object->Refs.load(), 2u) << "refused waits keep no reference";
    EXPECT_EQ(object->Waiters, nullptr);
    os::UnrefObject(object);

    // A wait outlives the handle that it was begun with.
    HANDLE twin = nullptr;
    os::DuplicateHandle(os::GetCurrentProcess(), event, os::GetCurrentProcess(), &twin, 0, FALSE, 0);
    std::thread waiter([event] { EXPECT_EQ(os::WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0); });
    Pause(20);
    os::CloseHandle(event);
    os::SetEvent(twin);
    waiter.join();
    os::CloseHandle(twin);
}

TEST(Wait, AMutexBelongsToItsThread) {
    HANDLE mutex = os::CreateMutexA(nullptr, TRUE, nullptr);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "recursive";
    std::thread([mutex] {
        EXPECT_EQ(os::WaitForSingleObject(mutex, 1), WAIT_TIMEOUT);
        EXPECT_FALSE(os::ReleaseMutex(mutex));
        EXPECT_EQ(os::GetLastError(), 288u);
    }).join();
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    std::atomic<int> got{0};
    std::thread heir([&] {
        HANDLE set[2] = {ManualEvent(), mutex};
        EXPECT_EQ(os::WaitForMultipleObjects(2, set, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
        got = 1;
        os::CloseHandle(set[0]);
        // Ends as the owner.
    });
    Pause(20);
    EXPECT_EQ(got, 0) << "it was taken twice and released once";
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_FALSE(os::ReleaseMutex(mutex));
    heir.join();
    HANDLE set[2] = {ManualEvent(), mutex};
    EXPECT_EQ(os::WaitForMultipleObjects(2, set, FALSE, INFINITE), WAIT_ABANDONED_0 + 1);
    std::thread([mutex] {
        EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
        EXPECT_FALSE(os::ReleaseMutex(mutex));
    }).join();
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "abandonment is told once";
    os::CloseHandle(mutex);  // while it is held: the owner's end must not touch it any more
    os::CloseHandle(set[0]);
}

struct FiberCase {
    HANDLE Mutex;
    os::FiberContext *Main;
    int Step;
};

void OtherFiber(void *data) {
    FiberCase *test = static_cast<FiberCase *>(data);
    EXPECT_EQ(os::WaitForSingleObject(test->Mutex, 0), WAIT_TIMEOUT) << "held by another fiber of this thread";
    EXPECT_FALSE(os::ReleaseMutex(test->Mutex));
    test->Step = 1;
    os::SwitchToFiber(os::CurrentThreadBlock(), test->Main);
}

TEST(Wait, AMutexBelongsToItsFiberWhereThereIsOne) {
    FiberCase test{os::CreateMutexA(nullptr, FALSE, nullptr), nullptr, 0};
    int data = 0;
    test.Main = os::ConvertThreadToFiber(&data);
    os::FiberContext *other = os::CreateFiber(65536, OtherFiber, &test);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(os::WaitForSingleObject(test.Mutex, 0), WAIT_OBJECT_0);
    os::SwitchToFiber(os::CurrentThreadBlock(), other);
    EXPECT_EQ(test.Step, 1);
    EXPECT_TRUE(os::ReleaseMutex(test.Mutex));
    os::DeleteFiber(other);
    os::CloseHandle(test.Mutex);
}

TEST(Wait, SemaphoresKeepTheirLimit) {
    EXPECT_EQ(os::CreateSemaphoreA(nullptr, 2, 1, nullptr), nullptr);
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);
    HANDLE semaphore = os::CreateSemaphoreA(nullptr, 1, 3, nullptr);
    LONG previous = -1;
    EXPECT_TRUE(os::ReleaseSemaphore(semaphore, 2, &previous));
    EXPECT_EQ(previous, 1);
    EXPECT_FALSE(os::ReleaseSemaphore(semaphore, 1, &previous));
    EXPECT_EQ(os::GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_FALSE(os::ReleaseSemaphore(semaphore, 0x7FFFFFFF, &previous));
    for (int i = 0; i < 3; i++) EXPECT_EQ(os::WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
    os::CloseHandle(semaphore);
}

TEST(Wait, RoutinesEndAnAlertableWaitOnly) {
    HANDLE event = AutoEvent();
    std::atomic<os::AlertState *> alert{nullptr};
    std::atomic<int> ran{0};
    std::atomic<int> stage{0};
    std::thread waiter([&] {
        alert = os::CurrentAlertState();
        EXPECT_EQ(os::WaitForSingleObjectEx(event, INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(ran, 1);
        stage = 1;
        EXPECT_EQ(os::WaitForSingleObjectEx(event, INFINITE, FALSE), WAIT_OBJECT_0);
        EXPECT_EQ(ran, 1) << "a plain wait runs no routine";
        os::SetEvent(event);
        EXPECT_EQ(os::WaitForMultipleObjectsEx(1, &event, TRUE, 0, TRUE), WAIT_OBJECT_0) << "the object comes first";
        EXPECT_EQ(ran, 1);
        EXPECT_EQ(os::WaitForSingleObjectEx(event, 0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(ran, 2);
        EXPECT_EQ(os::WaitForSingleObjectEx(event, 5, TRUE), WAIT_TIMEOUT);
    });
    while (alert.load() == nullptr) std::this_thread::yield();
    Pause(20);
    auto count = [](void *arg) { ++*static_cast<std::atomic<int> *>(arg); };
    ASSERT_TRUE(os::QueueRoutine(alert.load(), count, &ran));
    Await(stage, 1);
    ASSERT_TRUE(os::QueueRoutine(alert.load(), count, &ran));
    Pause(20);
    os::SetEvent(event);
    waiter.join();
    os::CloseHandle(event);
}

}  // namespace
