// tests/unit/postwait_test.cpp - who gets a post, in which order things run after it, and that neither a post nor a
// section's hand-over is lost or taken by the wrong wait.
#include "postwait/postwait.h"

#include <map>

#include "call_fixture.h"
#include "kernel/critsec.h"

namespace zvx::test {
namespace {

struct PostWaitCall : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        Other = NewScheduler();
    }
    void TearDown() override {
        CheckScheduler(Other);
        CallTest::TearDown();
    }
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
    Scheduler *Other = nullptr;
};

TEST_F(PostWaitCall, PostsAreKeptForTheNextWaitAndCountOnce) {
    HANDLE event = NewEvent(false, false);
    Fiber *F = Run([&](Fiber *) {
        IdentifyUserThread("SHAD", event);
        EXPECT_EQ(WaitForUserThreadPost(event, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(PostUserThread(event));
        EXPECT_TRUE(PostUserThread(event));
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
    EXPECT_EQ(TakeNotes(), Names{"asleep"});
    Run([&](Fiber *) { EXPECT_TRUE(PostUserThread(event)); });
    Pass(50);
    EXPECT_TRUE(TakeNotes().empty()) << "a post does not end a sleep";
    EXPECT_EQ(F->PostPending, POST_HOST);
    Pass(100);
    EXPECT_EQ(TakeNotes(), (Names{"awake", "posted"}));
    EXPECT_EQ(S->ShadowPostWaiters, 0u);
}

TEST_F(PostWaitCall, TagsDecideRoleClassAndCounts) {
    struct {
        const char *Tag;
        uint32_t Role, Class, Sessions, Slaves;
    } const cases[] = {
        {nullptr, ROLE_SHAD, CLASS_NORMAL, 0, 0},      {"", ROLE_SHAD, CLASS_NORMAL, 0, 0},
        {"SHAD", ROLE_SHAD, CLASS_NORMAL, 1, 0},       {"shad", ROLE_OTHER, CLASS_BACKGROUND, 0, 0},
        {"LGWR", ROLE_LGWR, CLASS_HIGH, 0, 0},         {"DBW0", ROLE_DBWR, CLASS_BACKGROUND, 0, 0},
        {"DBW", ROLE_DBWR, CLASS_BACKGROUND, 0, 0},    {"PMON", ROLE_PMON, CLASS_BACKGROUND, 0, 0},
        {"P012", ROLE_OTHER, CLASS_BACKGROUND, 0, 1},  {"P1A2", ROLE_OTHER, CLASS_BACKGROUND, 0, 0},
        {"P0123", ROLE_OTHER, CLASS_BACKGROUND, 0, 0}, {"P01", ROLE_OTHER, CLASS_BACKGROUND, 0, 0},
    };
    SetOption(su_GiveLGWRHighPriority);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Tag != nullptr ? c.Tag : "null");
        Run([&](Fiber *F) {
            IdentifyUserThread(c.Tag, NewEvent(false, false));
            EXPECT_EQ(F->Role, c.Role);
            EXPECT_EQ(F->SchedClass, c.Class);
            EXPECT_EQ(S->ShadowCount.load(), c.Sessions);
            EXPECT_EQ(S->SlaveCount.load(), c.Slaves);
            EXPECT_STREQ(F->Tag.load(), c.Tag == nullptr || c.Tag[0] == 0 ? "NSHD" : c.Tag);
            EXPECT_EQ(S->LgwrFiber.load() == F, c.Role == ROLE_LGWR);
            UnidentifyUserThread(0);
            EXPECT_STREQ(F->Tag.load(), "DEAD");
            EXPECT_EQ(S->ShadowCount.load() + S->SlaveCount.load(), 0u);
        });
    }
    // Only a thread that was tagged for migration before is a candidate for a scheduler of its own.
    SetOption(su_DynamicSchedulersEnabled);
    Run([&](Fiber *F) {
        IdentifyUserThread("LGWR", NewEvent(false, false));
        EXPECT_EQ(F->SchedClass, CLASS_HIGH);
        UnidentifyUserThread(0);
        F->Tag.store("LGWR");  // as a move leaves it
        IdentifyUserThread("LGWR", NewEvent(false, false));
        EXPECT_EQ(F->SchedClass, CLASS_NORMAL);
    });
}

TEST_F(PostWaitCall, ALaneThatIsFullGoesOnAsMessages) {
    // 20 single posts before the other scheduler looks: 8 through the lane, the others as messages, none lost.
    std::vector<HANDLE> events;
    for (int i = 0; i < 20; ++i) events.push_back(Waiter(Other, "far"));
    script::gScript.Posted.clear();
    for (int round = 0; round < 3; ++round) {
        Run([&](Fiber *) {
            for (HANDLE event : events) EXPECT_TRUE(PostUserThread(event));
        });
        uint32_t messages = 0;
        for (FIBER_MESSAGE *msg = Other->Messages.load(); msg != nullptr; msg = msg->Next) messages++;
        EXPECT_EQ(messages, round == 0 ? 12u : 0u) << "those that ended are posted by their event";
        RunUntilIdle(Other);
        EXPECT_EQ(TakeNotes(), round == 0 ? Names(20, "far") : Names{});
    }
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    // Around the ring, and a target that ended in between.
    for (int i = 0; i < 3 * static_cast<int>(kLaneSlots); ++i) {
        HANDLE event = Waiter(Other, "again");
        Run([&](Fiber *) { PostUserThread(event); });
        RunUntilIdle(Other);
        EXPECT_EQ(TakeNotes(), Names{"again"});
    }
}

// A post takes the generation under which its target was found. It used to read it again when it sent: a thread that
// had ended in between, and whose record was another thread's by then, made that one's next wait end.
TEST_F(PostWaitCall, AThreadThatGotTheRecordIsNotPosted) {
    for (Scheduler *home : {S, Other}) {
        Fiber *T = LookUpHandle(Waiter(home, "never"))->OwnerFiber;
        Run([&](Fiber *P) {
            for (PostMode mode : {kPostSingle, kPostMultiple, kPostQuiet}) Post(T, Generation(T) - 1, mode, P, POST_HOST);
        });
        RunUntilIdle(Other);
        EXPECT_TRUE(TakeNotes().empty());
        EXPECT_EQ(T->PostPending, 0u);
    }
}

TEST_F(PostWaitCall, AListIsSentInBatchesOfSixteen) {
    std::vector<HANDLE> events;
    for (int i = 0; i < 17; ++i) events.push_back(Waiter(Other, "far"));
    events.push_back(Waiter(S, "near"));
    events.push_back(nullptr);
    script::gScript.Posted.clear();
    std::vector<uint32_t> sizes;
    Run([&](Fiber *) {
        EXPECT_EQ(PostMultipleUserThreads(events.data()), -1);
        for (FIBER_MESSAGE *msg = Other->Messages.load(); msg != nullptr; msg = msg->Next) sizes.push_back(msg->Count);
        const HANDLE none[] = {nullptr};
        EXPECT_EQ(PostMultipleUserThreads(none), -1);
    });
    EXPECT_EQ(sizes, (std::vector<uint32_t>{1, 16})) << "newest first";
    EXPECT_EQ(script::gScript.Posted.size(), 1u) << "one packet wakes a blocked scheduler";
    EXPECT_EQ(TakeNotes(), Names{"near"});
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names(17, "far"));
}

TEST_F(PostWaitCall, WhoCannotBePostedGetsTheEventOrTheIndex) {
    HANDLE stale = Waiter(S, "ended");
    HANDLE plain = NewEvent(false, false);
    HANDLE gone = NewEvent(false, false);
    HANDLE far = Waiter(Other, "far");
    os::CloseHandle(gone);
    Run([&](Fiber *) { PostUserThread(stale); });
    EXPECT_EQ(TakeNotes(), Names{"ended"});
    Run([&](Fiber *) {
        EXPECT_TRUE(PostUserThread(stale)) << "the thread has ended; its event is set instead";
        EXPECT_EQ(os::WaitForSingleObject(stale, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(PostUserThread(gone)) << "nobody is left to wake";
        HANDLE list[] = {far, plain, gone, stale, nullptr};
        os::FailCall("SetEvent", 3, ERROR_ACCESS_DENIED);
        EXPECT_EQ(PostMultipleUserThreads(list), 3);
        EXPECT_EQ(S->PendingPosts[Other->Index], nullptr);
        EXPECT_EQ(os::WaitForSingleObject(plain, 0), WAIT_OBJECT_0);
    });
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"far"}) << "posted before the one that could not be";
    // The host closes its event while the thread is identified by it, and identifies again.
    Run([&](Fiber *F) {
        HANDLE own = NewEvent(false, false);
        IdentifyUserThread("SHAD", own);
        EXPECT_TRUE(CloseHandle(own));
        UnidentifyUserThread(0);
        for (HANDLE odd : {static_cast<HANDLE>(nullptr), reinterpret_cast<HANDLE>(0x7FFFFFF4ull), INVALID_HANDLE_VALUE}) {
            IdentifyUserThread("SHAD", odd);
            EXPECT_NE(F->PostEvent, nullptr);
            UnidentifyUserThread(0);
        }
    });
}

TEST_F(PostWaitCall, AHighClassPostHandsTheProcessorOver) {
    SetOption(su_GiveLGWRHighPriority);
    HANDLE writer = Waiter(S, "log writer", "LGWR", 3);
    EXPECT_NE(S->HighPriPostWaiter, nullptr);
    auto post = [&](const char *tag) {
        NewFiber(S, [=](Fiber *) { Note("other"); });
        NewFiber(S, [=](Fiber *) {
            IdentifyUserThread(tag, NewEvent(false, false));
            PostUserThread(writer);
            Note("poster");
        });
        RunUntilIdle(S);
        return TakeNotes();
    };
    ClearOption(su_YieldAfterHPPost);
    EXPECT_EQ(post("SHAD"), (Names{"other", "poster", "log writer"}));
    SetOption(su_YieldAfterHPPost);
    EXPECT_EQ(post("SHAD"), (Names{"other", "log writer", "poster"}));
    EXPECT_EQ(post("DBW0"), (Names{"other", "poster", "log writer"})) << "a database writer goes on";
    EXPECT_EQ(S->HighPriPostWaiter, nullptr);
}

TEST_F(PostWaitCall, TerminationLeavesNoTraceOfTheWait) {
    HANDLE event = Waiter(S, "survived");
    Fiber *F = LookUpHandle(event)->OwnerFiber;
    EXPECT_EQ(S->ShadowPostWaiters, 1u);
    FIBER_MESSAGE *msg = AllocMessage(S, S, MSG_TERMINATE);
    msg->Generation = Generation(F);
    msg->One.Target = F;
    SendMessage(S, msg);
    RunUntilIdle(S);
    RunUntilIdle(S);
    EXPECT_TRUE(TakeNotes().empty());
    EXPECT_EQ(S->ShadowPostWaiters, 0u);
    EXPECT_EQ(S->InfiniteWaiters.Count, 0u);
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
    Fiber *Holder(Scheduler *on, const char *name) {
        HANDLE event = NewEvent(false, false);
        Events[name] = event;
        Fiber *F = NewFiber(on, [=, this](Fiber *) {
            IdentifyUserThread("SHAD", event);
            EnterCriticalSection(&Section);
            Note(std::string(name) + " in");
            WaitForUserThreadPost(event, INFINITE);
            Note(std::string(name) + " out");
            LeaveCriticalSection(&Section);
            UnidentifyUserThread(0);
        });
        RunUntilIdle(on);
        return F;
    }
    void Release(const char *name) {
        Run([&](Fiber *) { PostUserThread(Events[name]); });
        for (int i = 0; i < 3; ++i) {
            RunUntilIdle(Other);
            RunUntilIdle(S);
        }
    }
    void Terminate(Fiber *F) {
        Scheduler *on = SchedOf(F);
        FIBER_MESSAGE *msg = AllocMessage(S, on, MSG_TERMINATE);
        msg->Generation = Generation(F);
        msg->One.Target = F;
        SendMessage(on, msg);
        for (int i = 0; i < 3; ++i) {
            RunUntilIdle(on);
            RunUntilIdle(S);
            RunUntilIdle(Other);
        }
    }
    CRITICAL_SECTION Section{};
    std::map<std::string, HANDLE> Events;
};

TEST_F(Sections, RecursionTryAndTheFreePath) {
    Run([&](Fiber *F) {
        EnterCriticalSection(&Section);
        EnterCriticalSection(&Section);
        EXPECT_TRUE(TryEnterCriticalSection(&Section));
        EXPECT_EQ(Record()->RecursionCount, 3u);
        EXPECT_EQ(F->OwnedCritSecs.Count, 1u);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Record()->Owner.load(), F);
            LeaveCriticalSection(&Section);
        }
        EXPECT_EQ(Record()->Owner.load(), nullptr);
        EXPECT_EQ(F->OwnedCritSecs.Count, 0u);
        CRITICAL_SECTION spinning;
        EXPECT_TRUE(InitializeCriticalSectionAndSpinCount(&spinning, 0x80000FA0));
        EXPECT_EQ(static_cast<FIBER_CRITICAL_SECTION *>(spinning.OwningThread)->SpinCount, 4000u);
        DeleteCriticalSection(&spinning);
    });
    Holder(S, "a");
    Run([&](Fiber *) { EXPECT_FALSE(TryEnterCriticalSection(&Section)); });
    EXPECT_EQ(Record()->Waiters.Count, 0u);
    Release("a");
}

TEST_F(Sections, OneLeaveWakesOneWaiterInTheirOrder) {
    for (Scheduler *home : {S, Other}) {
        SCOPED_TRACE(home->Index);
        Holder(S, "a");
        Holder(home, "b");
        Holder(Other, "c");
        EXPECT_EQ(TakeNotes(), Names{"a in"});
        EXPECT_EQ(Record()->Waiters.Count, 2u);
        Release("a");
        EXPECT_EQ(TakeNotes(), (Names{"a out", "b in"}));
        EXPECT_EQ(Record()->Waiters.Count, 1u) << "the second stays queued";
        Release("b");
        Release("c");
        EXPECT_EQ(TakeNotes(), (Names{"b out", "c in", "c out"}));
        EXPECT_EQ(Record()->Owner.load(), nullptr);
    }
}

TEST_F(Sections, AHostsPostNeitherEndsNorIsEatenByAContendedEnter) {
    Holder(S, "a");
    HANDLE event = NewEvent(false, false);
    Fiber *b = Run([&](Fiber *) {
        IdentifyUserThread("SHAD", event);
        EnterCriticalSection(&Section);
        Note("b in");
        EXPECT_EQ(WaitForUserThreadPost(event, 0), WAIT_OBJECT_0) << "the post made meanwhile is still there";
        LeaveCriticalSection(&Section);
    });
    Run([&](Fiber *) { PostUserThread(event); });
    EXPECT_EQ(b->State, FSTATE_TIMED_WAIT);
    EXPECT_EQ(TakeNotes(), Names{"a in"});
    Release("a");
    EXPECT_EQ(TakeNotes(), (Names{"a out", "b in"}));
}

TEST_F(Sections, AnEndingThreadLeavesItsPlaceAndItsPost) {
    // The owner ends inside the section.
    Fiber *a = Holder(S, "a");
    Fiber *b = Holder(Other, "b");
    Holder(Other, "c");
    Terminate(a);
    EXPECT_EQ(TakeNotes(), (Names{"a in", "b in"}));
    // A waiter ends before anything happened to it.
    Fiber *d = Holder(S, "d");
    Terminate(d);
    EXPECT_EQ(Record()->Waiters.Count, 1u);
    // A waiter is terminated in the same moment in which it is posted: the section is free, and the next one must be
    // told. The owner here leaves on S; both messages reach Other before any thread there runs.
    Terminate(b);
    EXPECT_EQ(TakeNotes(), Names{"c in"});
    Fiber *e = Holder(Other, "e");
    Holder(Other, "f");
    FIBER_MESSAGE *post = AllocMessage(S, Other, MSG_POST);
    post->PostBit = POST_SECTION;
    post->Count = 1;
    post->Fibers[0] = e;
    post->Generation = Generation(e);
    SendMessage(Other, post);
    FIBER_MESSAGE *kill = AllocMessage(S, Other, MSG_TERMINATE);
    kill->Generation = Generation(e);
    kill->One.Target = e;
    SendMessage(Other, kill);
    Record()->Owner.load()->OwnedCritSecs.Count = 0;  // c gives the section up without posting anybody
    InitLink(&Record()->Owner.load()->OwnedCritSecs.Ends);
    InitLink(&Record()->OwnedLink);
    Record()->Owner.store(nullptr);
    RunUntilIdle(Other);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"f in"});
}

// A thread of another scheduler may be looking at the record of a section that is deleted.
TEST_F(Sections, ADeletedRecordOutlivesItsReaders) {
    CRITICAL_SECTION section;
    const auto retired = [&] { return S->RetireOpen.Count + S->RetireWaiting.Count; };
    Run([&](Fiber *) { InitializeCriticalSection(&section); });
    const auto *record = static_cast<FIBER_CRITICAL_SECTION *>(section.OwningThread);
    NewFiber(Other, [&](Fiber *self) {
        Pause();  // in the middle of a call: not blocked, no pass
        EXPECT_EQ(record->Owner.load(), nullptr);
        SchedYield(self, Yield_USER);
    });
    RunUntilIdle(Other);
    Run([&](Fiber *) { DeleteCriticalSection(&section); });
    for (int i = 0; i < 3; i++) {
        RunUntilIdle(S);
        EXPECT_EQ(retired(), 1u);
    }
    RunUntilIdle(Other);
    RunUntilIdle(S);
    RunUntilIdle(S);
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
