// tests/platform/wait_test.cpp - waits for one object and for many: who gets what, and nothing lost under contention.
#include "support.h"

namespace {

HANDLE AutoEvent() {
    return os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
}

// A thread that schedules its own waits, with no more to do than to sleep until it is told.
struct Parker {
    os::WaitSink Sink{Announce, nullptr, nullptr, nullptr, false};  // first
    os::ParkedWait Wait;
    HANDLE Woken = AutoEvent();
    std::atomic<int> Told{0};
    void *Objects[4];
    alignas(8) char Blocks[4][os::kWaitBlockBytes];

    static void Announce(os::WaitSink *sink) {
        auto *self = reinterpret_cast<Parker *>(sink);
        self->Told++;
        os::SetEvent(self->Woken);
    }
    DWORD Park(uint32_t count, const HANDLE *handles, BOOL all = FALSE) {
        Wait.Owner = this;
        return os::ParkWait(&Wait, &Sink, count, handles, all, {Objects, Blocks});
    }
    bool Taken() {
        void *owners[2];
        return os::TakeWoken(&Sink, owners, 2) == 1 && owners[0] == this;
    }
    DWORD Withdraw() {
        os::WithdrawWait(&Wait);
        return Wait.Result;
    }
    // As the wait of a kernel thread, in its outcome.
    DWORD WaitFor(uint32_t count, const HANDLE *handles, DWORD ms) {
        const DWORD result = Park(count, handles);
        if (result != WAIT_TIMEOUT) return result;
        // What it is told may be of the wait before, which was withdrawn meanwhile.
        while (os::WaitForSingleObject(Woken, ms) == WAIT_OBJECT_0 && !Taken()) continue;
        return Withdraw();
    }
};

// Units are neither lost nor doubled, although some waits run out of time just as they are given one, waits for any of
// several compete with waits for one, and parked waits with those of threads.
TEST(Wait, UnitsAreConservedUnderContention) {
    constexpr int kSemaphores = 4, kUnits = 8000;
    HANDLE semaphores[kSemaphores];
    for (HANDLE &semaphore : semaphores) semaphore = os::CreateSemaphoreA(nullptr, 0, kUnits, nullptr);
    std::atomic<int> taken[kSemaphores] = {}, total{0};
    int given[kSemaphores] = {};
    auto taker = [&](unsigned seed) {
        std::minstd_rand random(seed);
        Parker parker;
        while (total.load() < kUnits) {
            const DWORD ms = Draw(random, 3);
            const uint32_t first = Draw(random, kSemaphores), count = 1 + Draw(random, kSemaphores - first);
            const DWORD got = seed >= 3    ? parker.WaitFor(count, semaphores + first, ms)
                              : count == 1 ? os::WaitForSingleObject(semaphores[first], ms)
                                           : os::WaitForMultipleObjects(count, semaphores + first, FALSE, ms);
            if (got == WAIT_TIMEOUT) continue;
            ASSERT_LT(got, count);
            taken[first + got]++;
            total++;
        }
    };
    auto giver = [&] {
        std::minstd_rand random(9041);
        for (int i = 0; i < kUnits; i++) {
            uint32_t index = Draw(random, kSemaphores);
            given[index]++;
            ASSERT_TRUE(os::ReleaseSemaphore(semaphores[index], 1, nullptr));
            if (Draw(random, 64) == 0) Pause(1);
        }
    };
    Together(
        giver, [&] { taker(1); }, [&] { taker(2); }, [&] { taker(3); }, [&] { taker(4); });
    for (int i = 0; i < kSemaphores; i++) {
        EXPECT_EQ(taken[i], given[i]);
        EXPECT_EQ(os::WaitForSingleObject(semaphores[i], 0), WAIT_TIMEOUT);
    }
}

TEST(Wait, AnyTakesTheLowestAndAllTakesEverythingOrNothing) {
    HANDLE events[3] = {AutoEvent(), AutoEvent(), AutoEvent()};
    os::SetEvent(events[2]);
    os::SetEvent(events[1]);
    EXPECT_EQ(os::WaitForMultipleObjects(3, events, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(os::WaitForMultipleObjects(3, events, FALSE, 0), WAIT_OBJECT_0 + 2);
    std::atomic<bool> got{false};
    std::thread all([&] {
        EXPECT_EQ(os::WaitForMultipleObjects(2, events, TRUE, INFINITE), WAIT_OBJECT_0);
        got = true;
    });
    Pause(20);
    os::SetEvent(events[0]);
    Pause(10);
    EXPECT_EQ(os::WaitForSingleObject(events[0], 0), WAIT_OBJECT_0) << "a waiter for both holds neither";
    os::SetEvent(events[1]);
    Pause(10);
    EXPECT_FALSE(got);
    os::SetEvent(events[0]);
    all.join();
    EXPECT_EQ(os::WaitForMultipleObjects(2, events, FALSE, 0), WAIT_TIMEOUT);
    ExpectOnlyTheHandle(events[0]);
}

// Parked waits stand in the same line as threads, are told of once, and leave nothing behind.
TEST(Wait, ParkedWaitsAreGrantedInTheirTurn) {
    Parker first, third, all;
    const HANDLE event = AutoEvent(), mutex = os::CreateMutexA(nullptr, FALSE, nullptr), both[2] = {event, mutex};
    EXPECT_EQ(first.Park(1, &event), WAIT_TIMEOUT);
    std::thread second([&] { EXPECT_EQ(os::WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0); });
    Pause(20);
    EXPECT_EQ(third.Park(1, &event), WAIT_TIMEOUT);
    os::SetEvent(event);
    EXPECT_TRUE(first.Taken());
    os::SetEvent(event);
    second.join();
    EXPECT_FALSE(third.Taken());
    EXPECT_EQ(first.Withdraw(), WAIT_OBJECT_0);
    // Withdrawn before it was looked at: what was granted counts.
    os::SetEvent(event);
    EXPECT_EQ(third.Withdraw(), WAIT_OBJECT_0);
    EXPECT_FALSE(third.Taken());
    // For both or neither; the mutex is this thread's then, though another one gave it.
    std::atomic<bool> owned{false};
    std::thread owner([&] {
        EXPECT_EQ(os::WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        for (owned = true; owned;) Pause(1);
        EXPECT_EQ(all.Told, 0);
        EXPECT_TRUE(os::ReleaseMutex(mutex));
    });
    while (!owned) Pause(1);
    EXPECT_EQ(all.Park(2, both, TRUE), WAIT_TIMEOUT);
    os::SetEvent(event);
    owned = false;
    owner.join();
    EXPECT_TRUE(all.Taken() && all.Told == 1);
    EXPECT_EQ(all.Withdraw(), WAIT_OBJECT_0);
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    // A closed handle wakes without a grant; one that is closed already is not parked, nor is one object twice.
    const HANDLE twin = Duplicate(event), twice[2] = {event, event};
    EXPECT_EQ(first.Park(1, &event), WAIT_TIMEOUT);
    EXPECT_TRUE(os::CloseHandle(twin));
    EXPECT_TRUE(first.Taken());
    EXPECT_EQ(first.Withdraw(), WAIT_TIMEOUT);
    EXPECT_TRUE(first.Park(1, &twin) == WAIT_FAILED && os::GetLastError() == ERROR_INVALID_HANDLE);
    EXPECT_TRUE(first.Park(2, twice, TRUE) == WAIT_FAILED && os::GetLastError() == ERROR_INVALID_PARAMETER);
    const HANDLE named = os::CreateEventA(nullptr, FALSE, TRUE, "parked");
    EXPECT_EQ(first.Park(1, &named), os::kNotParkable);
    EXPECT_TRUE(os::CloseHandle(named));
    ExpectOnlyTheHandle(event);
}

}  // namespace
