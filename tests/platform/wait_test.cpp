// tests/platform/wait_test.cpp - handles: reuse, and looking one up while others close it; waits for one object and for
// many: who gets what, and nothing lost under contention.
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
};

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

// Whether `value` is given out within the next `tries` creations, each of which is closed again.
bool IsGivenOut(HANDLE value, int tries) {
    for (; tries > 0; tries--) {
        HANDLE made = AutoEvent();
        os::CloseHandle(made);
        if (made == value) return true;
    }
    return false;
}

TEST(Handle, AClosedValueIsGivenOutLateAndAPinnedOneNotAtAll) {
    HANDLE plain = AutoEvent();
    EXPECT_TRUE(os::CloseHandle(plain));
    EXPECT_FALSE(os::CloseHandle(plain) || os::SetEvent(plain));
    EXPECT_FALSE(IsGivenOut(plain, 20)) << "a stale handle would meet a stranger";
    EXPECT_TRUE(IsGivenOut(plain, 500));
    // Pins are counted. The second one is pinned only while it waits in the queue of free values, before its turn.
    for (const bool late : {false, true}) {
        HANDLE pinned = AutoEvent();
        if (late) os::CloseHandle(pinned), os::PinHandleValue(pinned), os::UnpinHandleValue(pinned);
        for (int i = 0; i < 2; i++) os::PinHandleValue(pinned);
        if (!late) os::CloseHandle(pinned);
        EXPECT_FALSE(IsGivenOut(pinned, 500));
        os::UnpinHandleValue(pinned);
        EXPECT_FALSE(IsGivenOut(pinned, 500)) << late;
        os::UnpinHandleValue(pinned);
        EXPECT_TRUE(IsGivenOut(pinned, 500));
    }
}

// A looker that holds a reference must find an object that stays what it is; a looker that comes too late
// must find nothing, never an object that is being recycled.
TEST(Handle, LookUpRacesWithClose) {
    constexpr int kShared = 8;
    std::atomic<HANDLE> shared[kShared] = {};
    std::atomic<int> makers{2};
    std::atomic<uint64_t> hits{0};
    auto maker = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < 60000; i++) {
            HANDLE made = Draw(random, 2) ? os::CreateSemaphoreA(nullptr, 1, 7, nullptr) : AutoEvent();
            HANDLE old = shared[Draw(random, kShared)].exchange(made);
            if (old != nullptr && !os::CloseHandle(old)) ADD_FAILURE() << "a handle was closed by somebody else";
        }
        makers--;
    };
    auto looker = [&](unsigned seed) {
        std::minstd_rand random(seed);
        while (makers != 0) {
            HANDLE handle = shared[Draw(random, kShared)].load();
            os::ObjectType type = Draw(random, 2) ? os::ObjectType::kEvent : os::ObjectType::kSemaphore;
            os::Object *object = os::RefHandle(handle, type);
            if (object == nullptr) continue;
            hits++;
            if (object->Type != type || object->Refs.load() == 0) ADD_FAILURE() << "not the object asked for";
            if (type == os::ObjectType::kSemaphore && object->Signalled.load() != 1)
                ADD_FAILURE() << "a referenced object was made anew";
            os::UnrefObject(object);
        }
    };
    Together([&] { maker(1); }, [&] { maker(2); }, [&] { looker(3); }, [&] { looker(4); });
    EXPECT_GT(hits.load(), 0u);
    for (auto &handle : shared) ExpectOnlyTheHandle(handle);
}

}  // namespace
