// tests/unit/postwait_test.cpp - who gets a post, in which order things run after it, and that neither a post nor a
// section's hand-over is lost or taken by the wrong wait.
#include "postwait/postwait.h"

#include <map>

#include "alloc/alloc.h"
#include "kernel/critsec.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct PostWaitCall : TwoSchedulers {
    // A user thread on `on` that waits for `waits` posts of its event, and notes each under its name.
    HANDLE Waiter(Scheduler *on, const char *name, const char *tag = "SHAD", int waits = 1) {
        HANDLE event = NewEvent(false, false);
        NewFiber(on, [=](Fiber *) {
            IdentifyUserThread(tag, event);
            for (int i = 0; i < waits; ++i)
                if (WaitForUserThreadPost(event, INFINITE) == WAIT_OBJECT_0) Note(name);
            UnidentifyUserThread(0);
        });
        RunUntilIdle(on);
        return event;
    }
};

TEST_F(PostWaitCall, PostsAreKeptForTheNextWaitAndCountOnce) {
    HANDLE event = NewEvent(false, false);
    Run([&](Fiber *) {
        EXPECT_EQ(WaitForUserThreadPost(nullptr, 50), WAIT_FAILED);
        IdentifyUserThread("SHAD", event);
        EXPECT_TRUE(PostUserThread(event) && PostUserThread(event));
        EXPECT_EQ(WaitForUserThreadPost(event, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForUserThreadPost(event, 5), WAIT_TIMEOUT);
        EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "the event itself is never touched";
        Note("asleep");
        Sleep(100);
        Note("awake");
        EXPECT_EQ(WaitForUserThreadPost(event, INFINITE), WAIT_OBJECT_0);
        Note("posted");
    });
    Pass(10);
    Run([&](Fiber *) { EXPECT_TRUE(PostUserThread(event)); });
    Pass(50);
    EXPECT_EQ(TakeNotes(), Names{"asleep"}) << "a post does not end a sleep";
    Pass(100);
    EXPECT_EQ(TakeNotes(), (Names{"awake", "posted"}));
    // Without an event a wait takes its time.
    Run([&](Fiber *) {
        IdentifyUserThread("PMON", nullptr);
        Note(std::to_string(WaitForUserThreadPost(nullptr, 50)));
    });
    EXPECT_EQ(TakeNotes(), Names{});
    Pass(60);
    EXPECT_EQ(TakeNotes(), Names{"258"});
}

TEST_F(PostWaitCall, TagsDecideRoleClassAndCounts) {
    struct {
        const char *Tag;
        uint32_t Role, Class, Sessions, Slaves;
    } const cases[] = {
        {nullptr, ROLE_SHAD, CLASS_NORMAL, 0, 0},     {"", ROLE_SHAD, CLASS_NORMAL, 0, 0},
        {"SHAD", ROLE_SHAD, CLASS_NORMAL, 1, 0},      {"shad", ROLE_OTHER, CLASS_BACKGROUND, 0, 0},
        {"LGWR", ROLE_LGWR, CLASS_HIGH, 0, 0},        {"DBW0", ROLE_DBWR, CLASS_BACKGROUND, 0, 0},
        {"DBW", ROLE_DBWR, CLASS_BACKGROUND, 0, 0},   {"P012", ROLE_OTHER, CLASS_BACKGROUND, 0, 1},
        {"P1A2", ROLE_OTHER, CLASS_BACKGROUND, 0, 0}, {"P0123", ROLE_OTHER, CLASS_BACKGROUND, 0, 0},
    };
    SetOption(su_GiveLGWRHighPriority);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Tag != nullptr ? c.Tag : "null");
        RunToEnd([&](Fiber *F) {
            IdentifyUserThread(c.Tag, NewEvent(false, false));
            EXPECT_TRUE(F->Role == c.Role && F->SchedClass == c.Class);
            EXPECT_TRUE(S->ShadowCount.load() == c.Sessions && S->SlaveCount.load() == c.Slaves);
            EXPECT_STREQ(F->Tag.load(), c.Tag == nullptr || c.Tag[0] == 0 ? "NSHD" : c.Tag);
            EXPECT_EQ(S->LgwrFiber.load() == F, c.Role == ROLE_LGWR);
            UnidentifyUserThread(0);
            EXPECT_STREQ(F->Tag.load(), "DEAD");
            EXPECT_EQ(S->ShadowCount.load() + S->SlaveCount.load(), 0u);
        });
    }
}

// To another scheduler before it looks: a list in batches of sixteen, single posts through the lane of eight and the
// others as messages, none lost.
TEST_F(PostWaitCall, ManyPostsToAnotherScheduler) {
    std::vector<HANDLE> events;
    for (int i = 0; i < 20; ++i) events.push_back(Waiter(Other, "far", "SHAD", 2));
    events.push_back(Waiter(S, "near", "SHAD", 2));
    events.push_back(nullptr);
    for (const bool list : {true, false}) {
        SCOPED_TRACE(list);
        script::gScript.Posted.clear();
        std::vector<uint32_t> sizes;
        Run([&](Fiber *) {
            for (size_t i = 0; !list && events[i] != nullptr; ++i) EXPECT_TRUE(PostUserThread(events[i]));
            EXPECT_EQ(PostMultipleUserThreads(list ? events.data() : &events.back()), -1);
            for (FIBER_MESSAGE *msg = Other->Messages.load(); msg != nullptr; msg = msg->Next)
                sizes.push_back(msg->Count);
        });
        EXPECT_EQ(sizes, list ? (std::vector<uint32_t>{4, 16}) : std::vector<uint32_t>(12, 1)) << "newest first";
        EXPECT_EQ(script::gScript.Posted.size(), 1u) << "one packet wakes a blocked scheduler";
        EXPECT_EQ(TakeNotes(), Names{"near"});
        RunUntilIdle(Other);
        EXPECT_EQ(TakeNotes(), Names(20, "far"));
    }
}

TEST_F(PostWaitCall, WhoCannotBePostedGetsTheEventOrTheIndex) {
    HANDLE stale = Waiter(S, "ended"), far = Waiter(Other, "far");
    HANDLE plain = NewEvent(false, false), gone = NewEvent(false, false);
    os::CloseHandle(gone);
    Run([&](Fiber *) { PostUserThread(stale); });
    EXPECT_EQ(TakeNotes(), Names{"ended"});
    RunToEnd([&](Fiber *) {
        EXPECT_TRUE(PostUserThread(stale)) << "the thread has ended; its event is set instead";
        EXPECT_EQ(os::WaitForSingleObject(stale, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(PostUserThread(gone)) << "nobody is left to wake";
        HANDLE list[] = {far, plain, gone, stale, nullptr};
        os::FailCall("SetEvent", 3, ERROR_ACCESS_DENIED);
        EXPECT_EQ(PostMultipleUserThreads(list), 3);
        EXPECT_EQ(os::WaitForSingleObject(plain, 0), WAIT_OBJECT_0);
    });
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"far"}) << "posted before the one that could not be";
}

// An entry goes once, by whatever hand and in whatever order, and not before the duplicates of its event: a chunk that
// is freed twice, or under a duplicate, would be a file's by then.
TEST_F(PostWaitCall, APostEventsEntryGoesOnceAndAfterItsDuplicates) {
    HANDLE event = nullptr, copy = nullptr;
    const auto step = [&](const std::function<void(Fiber *)> &body) {
        RunToEnd(body);
        for (int i = 0; i < 6; ++i) RunUntilIdle(i % 2 == 0 ? Other : S);  // what is retired is free
    };
    // The event is closed at the end, before its thread gives it up, or by the duplication itself.
    for (const int way : {0, 1, 2}) {
        event = NewEvent(false, false);
        step([&](Fiber *) {
            IdentifyUserThread("SHAD", event);
            copy = Duplicate(event, way == 2 ? 3 : DUPLICATE_SAME_ACCESS);
            EXPECT_TRUE(way != 1 || CloseHandle(event));
            UnidentifyUserThread(0);
        });
        const PSEHAND *file = NewEntry(S, PHAND_HTYPE_CreateFileA);
        step([&](Fiber *) { EXPECT_TRUE(CloseHandle(copy) && (way != 0 || CloseHandle(event))); });
        step([&](Fiber *) { EXPECT_TRUE(LookUpHandle(HandleValue(file)) == file && CloseHandle(HandleValue(file))); });
        EXPECT_EQ(S->ChunkTypeCount[ALLOC_PSEHAND], 0);
    }
    // The event of a thread that has ended identified is its successor's; none is nobody's.
    event = NewEvent(false, false);
    for (HANDLE given : {event, HANDLE{nullptr}}) Run([&](Fiber *) { IdentifyUserThread("SHAD", given); });
    step([&](Fiber *) {
        IdentifyUserThread("SHAD", event);
        UnidentifyUserThread(0);
        EXPECT_TRUE(CloseHandle(event));
    });
    EXPECT_EQ(S->ChunkTypeCount[ALLOC_PSEHAND], 0);
}

TEST_F(PostWaitCall, AHighClassPostHandsTheProcessorOver) {
    SetOption(su_GiveLGWRHighPriority);
    HANDLE writer = Waiter(S, "log writer", "LGWR", 3);
    const struct {
        uint32_t Option;
        const char *Poster;
        Names Order;
    } cases[] = {{0, "SHAD", {"other", "poster", "log writer"}},
                 {su_YieldAfterHPPost, "SHAD", {"other", "log writer", "poster"}},
                 {su_YieldAfterHPPost, "DBW0", {"other", "poster", "log writer"}}};  // a database writer goes on
    for (const auto &c : cases) {
        ClearOption(su_YieldAfterHPPost);
        SetOption(c.Option);
        NewFiber(S, [=](Fiber *) { Note("other"); });
        Run([&](Fiber *) {
            IdentifyUserThread(c.Poster, NewEvent(false, false));
            PostUserThread(writer);
            Note("poster");
        });
        EXPECT_EQ(TakeNotes(), c.Order);
    }
}

// ---- Critical sections -------------------------------------------------------------------------------

struct Sections : PostWaitCall {
    void SetUp() override {
        PostWaitCall::SetUp();
        InitCriticalSections();
        Run([&](Fiber *) { InitializeCriticalSection(&Section); });
    }
    FIBER_CRITICAL_SECTION *Record() { return static_cast<FIBER_CRITICAL_SECTION *>(Section.OwningThread); }
    // Enters and holds the section until Release(name).
    void Holder(Scheduler *on, const char *name) {
        HANDLE event = Events[name] = NewEvent(false, false);
        NewFiber(on, [=, this](Fiber *) {
            IdentifyUserThread("SHAD", event);
            EnterCriticalSection(&Section);
            Note(std::string(name) + " in");
            WaitForUserThreadPost(event, INFINITE);
            LeaveCriticalSection(&Section);
            UnidentifyUserThread(0);
        });
        RunUntilIdle(on);
    }
    void Release(const char *name) {
        Run([&](Fiber *) { PostUserThread(Events[name]); });
        for (int i = 0; i < 6; ++i) RunUntilIdle(i % 2 == 0 ? Other : S);
    }
    CRITICAL_SECTION Section{};
    std::map<std::string, HANDLE> Events;
};

TEST_F(Sections, OneLeaveWakesOneWaiterInTheirOrder) {
    for (Scheduler *home : {S, Other}) {
        SCOPED_TRACE(home->Index);
        Holder(S, "a");
        Holder(home, "b");
        Holder(Other, "c");
        Run([&](Fiber *) { EXPECT_FALSE(TryEnterCriticalSection(&Section)); });
        EXPECT_EQ(TakeNotes(), Names{"a in"});
        Release("a");
        EXPECT_EQ(TakeNotes(), Names{"b in"});
        EXPECT_EQ(Record()->Waiters.Count, 1u) << "the second stays queued";
        Release("b");
        EXPECT_EQ(TakeNotes(), Names{"c in"});
        Release("c");
        EXPECT_EQ(Record()->Owner.load(), nullptr);
    }
}

// A thread of another scheduler may be looking at the record of a section that is deleted.
TEST_F(Sections, ADeletedRecordOutlivesItsReaders) {
    const auto retired = [&] { return S->RetireOpen.Count + S->RetireWaiting.Count; };
    NewFiber(Other, [](Fiber *) { Pause(); });  // in the middle of a call: not blocked, no pass
    RunUntilIdle(Other);
    Run([&](Fiber *) { DeleteCriticalSection(&Section); });
    for (int i = 0; i < 3; i++) RunUntilIdle(S);
    EXPECT_EQ(retired(), 1u);
    RunUntilIdle(Other);
    for (int i = 0; i < 2; i++) RunUntilIdle(S);
    EXPECT_EQ(retired(), 0u);
}

TEST_F(Sections, TheOperatingSystemsSectionsAreTakenOver) {
    // As before fiber mode: initialised on a thread that is no user thread.
    CRITICAL_SECTION early{};
    gOsCritSecCount.store(1);
    os::InitializeCriticalSection(reinterpret_cast<os::CriticalSection *>(&early));
    Run([&](Fiber *) {
        EXPECT_TRUE(TryEnterCriticalSection(&early));
        EXPECT_EQ(gOsCritSecCount.load(), 0u);
        EXPECT_EQ(static_cast<FIBER_CRITICAL_SECTION *>(early.OwningThread)->TakenOver, 1);
        LeaveCriticalSection(&early);
        DeleteCriticalSection(&early);
        EXPECT_EQ(early.OwningThread, nullptr);
    });
}

}  // namespace
}  // namespace zvx::test
