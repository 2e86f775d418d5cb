// tests/platform/handle_test.cpp - handles: reuse, duplicates, names, and looking a handle up while others close it.
#include "support.h"

namespace {

HANDLE NewEvent() {
    return os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

// Whether `value` is given out within the next `tries` creations, each of which is closed again.
bool IsGivenOut(HANDLE value, int tries) {
    for (; tries > 0; tries--) {
        HANDLE made = NewEvent();
        os::CloseHandle(made);
        if (made == value) return true;
    }
    return false;
}

TEST(Handle, AClosedValueIsGivenOutLateAndAPinnedOneNotAtAll) {
    HANDLE plain = NewEvent();
    EXPECT_TRUE(os::CloseHandle(plain));
    EXPECT_FALSE(os::CloseHandle(plain) || os::SetEvent(plain));
    EXPECT_FALSE(IsGivenOut(plain, 20)) << "a stale handle would meet a stranger";
    EXPECT_TRUE(IsGivenOut(plain, 500));
    // Pins are counted. The second one is pinned only while it waits in the queue of free values, before its turn.
    for (const bool late : {false, true}) {
        HANDLE pinned = NewEvent();
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
            HANDLE made = Draw(random, 2) ? os::CreateSemaphoreA(nullptr, 1, 7, nullptr) : NewEvent();
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
