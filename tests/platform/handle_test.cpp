// Handles: values, reuse, duplicates, names, and looking a handle up while others close it.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "platform/base/object.h"
#include "platform/os.h"

namespace {

uint32_t Draw(std::minstd_rand &random, uint32_t below) {
    return static_cast<uint32_t>(random() >> 8) % below;
}

uintptr_t ValueOf(HANDLE handle) {
    return reinterpret_cast<uintptr_t>(handle);
}

HANDLE NewEvent() {
    return os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

// Whether `value` is given out within the next `tries` creations, each of which is closed again.
bool IsGivenOut(HANDLE value, int tries) {
    bool found = false;
    for (int i = 0; i < tries && !found; i++) {
        HANDLE made = NewEvent();
        found = made == value;
        os::CloseHandle(made);
    }
    return found;
}

TEST(Handle, ManyAreDistinctDenseAndSmall) {
    std::set<uintptr_t> values;
    std::vector<HANDLE> made;
    for (int i = 0; i < 60000; i++) {
        made.push_back(NewEvent());
        ASSERT_NE(made.back(), nullptr);
        ASSERT_EQ(ValueOf(made.back()) % 4, 0u);
        ASSERT_TRUE(values.insert(ValueOf(made.back())).second);
    }
    EXPECT_LT(*values.rbegin(), 4u * 61000);
    for (HANDLE handle : made) EXPECT_TRUE(os::CloseHandle(handle));
    // Closed values serve again instead of new ones.
    HANDLE again = NewEvent();
    EXPECT_TRUE(values.count(ValueOf(again)));
    os::CloseHandle(again);
}

TEST(Handle, AClosedValueIsGivenOutLateAndAPinnedOneNotAtAll) {
    HANDLE plain = NewEvent();
    os::CloseHandle(plain);
    EXPECT_FALSE(IsGivenOut(plain, 20)) << "a stale handle would meet a stranger";
    EXPECT_TRUE(IsGivenOut(plain, 500));

    HANDLE pinned = NewEvent();
    os::PinHandleValue(pinned);
    os::PinHandleValue(pinned);
    os::CloseHandle(pinned);
    EXPECT_FALSE(IsGivenOut(pinned, 500));
    os::UnpinHandleValue(pinned);
    EXPECT_FALSE(IsGivenOut(pinned, 500)) << "pins are counted";
    os::UnpinHandleValue(pinned);
    EXPECT_TRUE(IsGivenOut(pinned, 500));

    // Pinned only while it waits in the queue of free values, and unpinned before and after its turn.
    HANDLE late = NewEvent();
    os::CloseHandle(late);
    os::PinHandleValue(late);
    os::UnpinHandleValue(late);
    os::PinHandleValue(late);
    EXPECT_FALSE(IsGivenOut(late, 500));
    os::UnpinHandleValue(late);
    EXPECT_TRUE(IsGivenOut(late, 500));
}

TEST(Handle, WhatIsNoHandleIsRefused) {
    HANDLE closed = NewEvent();
    ASSERT_TRUE(os::CloseHandle(closed));
    HANDLE odd = reinterpret_cast<HANDLE>(ValueOf(closed) + 1);
    HANDLE high = reinterpret_cast<HANDLE>(uintptr_t{0xFFFFFFF0u});
    HANDLE wide = reinterpret_cast<HANDLE>(uintptr_t{1} << 40);
    for (HANDLE bad : {closed, odd, high, wide, HANDLE{nullptr}}) {
        os::SetLastError(0);
        EXPECT_FALSE(os::CloseHandle(bad));
        EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
        os::SetLastError(0);
        EXPECT_FALSE(os::SetEvent(bad));
        EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
    }
    // A handle of another type is no handle either; the object is not leaked by the refusal.
    HANDLE mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    EXPECT_FALSE(os::SetEvent(mutex));
    os::Object *object = os::RefHandle(mutex);
    EXPECT_EQ(object->Refs.load(), 2u);
    os::UnrefObject(object);
    os::CloseHandle(mutex);
    EXPECT_TRUE(os::CloseHandle(os::GetCurrentProcess()));
    EXPECT_TRUE(os::CloseHandle(os::GetCurrentThread()));
}

TEST(Handle, Duplicates) {
    HANDLE self = os::GetCurrentProcess();
    HANDLE event = NewEvent();
    HANDLE twin = nullptr;
    ASSERT_TRUE(os::DuplicateHandle(self, event, self, &twin, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_NE(twin, event);
    os::SetEvent(event);
    EXPECT_TRUE(os::DuplicateHandle(self, event, self, nullptr, 0, FALSE, DUPLICATE_CLOSE_SOURCE));
    EXPECT_FALSE(os::CloseHandle(event));
    EXPECT_EQ(os::WaitForSingleObject(twin, 0), WAIT_OBJECT_0);
    EXPECT_FALSE(os::DuplicateHandle(self, event, self, &twin, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(twin, nullptr);
    EXPECT_FALSE(os::DuplicateHandle(event, event, self, &twin, 0, FALSE, 0));
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_PARAMETER);

    // The pseudo handle means whoever uses it, its duplicate means this thread.
    HANDLE me = nullptr;
    ASSERT_TRUE(os::DuplicateHandle(self, os::GetCurrentThread(), self, &me, 0, FALSE, DUPLICATE_SAME_ACCESS));
    DWORD myId = os::GetCurrentThreadId();
    std::thread([me, myId] {
        EXPECT_EQ(os::GetThreadId(me), myId);
        EXPECT_EQ(os::GetThreadId(os::GetCurrentThread()), os::GetCurrentThreadId());
        EXPECT_NE(os::GetCurrentThreadId(), myId);
    }).join();
    os::CloseHandle(me);
}

TEST(Handle, OfTwoThatCloseOneSucceeds) {
    constexpr int kRounds = 3000;
    std::atomic<HANDLE> handle{nullptr};
    std::atomic<int> round{0};
    std::atomic<int> done{0};
    std::atomic<int> closed{0};
    auto closer = [&] {
        for (int i = 1; i <= kRounds; i++) {
            while (round.load() < i) std::this_thread::yield();
            if (os::CloseHandle(handle.load())) closed++;
            done++;
        }
    };
    std::thread a(closer);
    std::thread b(closer);
    for (int i = 1; i <= kRounds; i++) {
        handle = NewEvent();
        round = i;
        while (done.load() < 2 * i) std::this_thread::yield();
        ASSERT_EQ(closed.load(), i);
    }
    a.join();
    b.join();
}

// A looker that holds a reference must find an object that stays what it is; a looker that comes too late
// must find nothing, never an object that is being recycled.
TEST(Handle, LookUpRacesWithClose) {
    const unsigned seed = 20240611;
    printf("seed %u\n", seed);
    constexpr int kShared = 8;
    std::atomic<HANDLE> shared[kShared] = {};
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> hits{0};
    auto maker = [&](unsigned number) {
        std::minstd_rand random(seed + number);
        for (int i = 0; i < 60000; i++) {
            HANDLE made = Draw(random, 2) ? os::CreateSemaphoreA(nullptr, 1, 7, nullptr) : NewEvent();
            HANDLE old = shared[Draw(random, kShared)].exchange(made);
            if (old != nullptr && !os::CloseHandle(old)) ADD_FAILURE() << "a handle was closed by somebody else";
        }
    };
    auto looker = [&](unsigned number) {
        std::minstd_rand random(seed + number);
        while (!stop) {
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
    std::thread m1(maker, 1), m2(maker, 2), l1(looker, 3), l2(looker, 4);
    m1.join();
    m2.join();
    stop = true;
    l1.join();
    l2.join();
    EXPECT_GT(hits.load(), 0u);
    for (auto &handle : shared) {
        os::Object *object = os::RefHandle(handle);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->Refs.load(), 2u) << "a lost or leaked reference";
        os::UnrefObject(object);
        os::CloseHandle(handle);
    }
}

TEST(Handle, NamesLeadToOneObject) {
    HANDLE first = os::CreateEventA(nullptr, TRUE, FALSE, "commit");
    EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS);
    HANDLE second = os::CreateEventA(nullptr, FALSE, TRUE, "commit");
    EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(os::WaitForSingleObject(second, 0), WAIT_TIMEOUT) << "an opened event keeps its state";
    os::SetEvent(first);
    EXPECT_EQ(os::WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(os::CreateMutexA(nullptr, FALSE, "commit"), nullptr);
    EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
    os::CloseHandle(first);
    EXPECT_EQ(os::CreateSemaphoreA(nullptr, 0, 1, "commit"), nullptr) << "one handle still bears the name";
    os::CloseHandle(second);
    HANDLE third = os::CreateMutexA(nullptr, FALSE, "commit");
    EXPECT_NE(third, nullptr);
    os::CloseHandle(third);

    // The last close races with the next opening: whoever opens gets a live object, and openers who overlap
    // get the same one.
    auto user = [] {
        for (int i = 0; i < 3000; i++) {
            HANDLE mine = os::CreateMutexA(nullptr, FALSE, "shared");
            ASSERT_NE(mine, nullptr);
            HANDLE twin = os::CreateMutexA(nullptr, FALSE, "shared");
            ASSERT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
            ASSERT_EQ(os::WaitForSingleObject(mine, INFINITE), WAIT_OBJECT_0);
            ASSERT_TRUE(os::ReleaseMutex(twin));
            os::CloseHandle(mine);
            os::CloseHandle(twin);
        }
    };
    std::thread a(user), b(user);
    a.join();
    b.join();
}

#ifdef ZVX_FAIL_POINTS
TEST(Handle, AFailureOnDemandLeavesNothingBehind) {
    os::FailCall("CreateEventA", 2, ERROR_NOT_ENOUGH_MEMORY);
    HANDLE first = NewEvent();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(NewEvent(), nullptr);
    EXPECT_EQ(os::GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    os::FailCall("CloseHandle", 1, ERROR_GEN_FAILURE);
    EXPECT_FALSE(os::CloseHandle(first));
    EXPECT_EQ(os::GetLastError(), ERROR_GEN_FAILURE);
    EXPECT_TRUE(os::CloseHandle(first));
}
#endif

}  // namespace
