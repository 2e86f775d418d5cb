// tests/unit/dedicated_test.cpp - routines injected into every kind of wait, and calls on threads of their own, where
// it matters what happens first. What may happen at the same moment: tests/model.
#include "dedicated/dedicated.h"

#include <cstring>

#include "kernel/thread.h"
#include "kernel/wait.h"
#include "platform/os_process.h"
#include "postwait/postwait.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

std::function<void()> gRoutine;

// A target that is identified and parked, and what reaches it.
struct Dedicated : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        Event = NewEvent(false, false);
    }
    // Parks the target in `wait`, whose result it notes.
    void Park(std::function<std::string(Fiber *)> wait) {
        Target = Run([=, this](Fiber *F) {
            IdentifyUserThread("P", Event);
            Note(wait(F));
            UnidentifyUserThread(0);
        });
        EXPECT_EQ(TakeNotes(), Names{}) << "it did not wait";
    }
    void Inject(std::function<void()> routine) {
        gRoutine = std::move(routine);
        Run([&](Fiber *) { EXPECT_TRUE(UserThreadExecRoutine(Event, [] { gRoutine(); })); });
    }
    void Send(uint8_t kind, uint32_t second = 0) {
        SendOne(S, kind, Target, Generation(Target), second);
        RunUntilIdle(S);
    }
    // The target's wait ends after `ms` more, not two ticks earlier or more than two later.
    void ExpectEndAfter(uint32_t ms, const std::string &note) {
        Pass(ms - 2);
        EXPECT_EQ(TakeNotes(), Names{}) << note << " too early";
        Pass(4 + gTimerInterval);
        EXPECT_EQ(TakeNotes(), Names{note});
    }
    HANDLE Event = nullptr;
    Fiber *Target = nullptr;
};

std::string Said(DWORD result) {
    return std::to_string(result) + " error " + std::to_string(os::GetLastError());
}

// ---- Injected routines -------------------------------------------------------------------------------

TEST_F(Dedicated, AWaitGoesOnForWhatIsLeft) {
    Park([](Fiber *) {
        os::SetLastError(1);
        Sleep(100);
        return Said(0);
    });
    Pass(40);
    Inject([this] {
        EXPECT_EQ(os::GetFiberData(), Target);
        Sleep(20);  // counts as time slept
        os::SetLastError(2);
        Note("routine");
    });
    ExpectEndAfter(20, "routine");
    ExpectEndAfter(34, "0 error 1");
    // One that outlasts the wait: it ends at the next look.
    Park([](Fiber *) { return Sleep(10), "late"; });
    Inject([] { Sleep(50); });
    ExpectEndAfter(50, "late");
    Park([this](Fiber *) { return Said(WaitForUserThreadPost(Event, 100)); });
    Pass(50);
    Inject([] {});
    ExpectEndAfter(50, "258 error 0");
}

TEST_F(Dedicated, ASuspendedThreadRunsTheRoutineAndStopsAgain) {
    Park([](Fiber *) { return Sleep(10), "slept"; });
    Send(MSG_SUSPEND);
    Pass(20);
    // While the routine runs: a resume takes back the suspension of before, a suspension stops the routine and stays.
    Inject([] {
        Sleep(5);
        Note("routine");
    });
    EXPECT_EQ(Target->SuspendCount.load(), 0u) << "put aside";
    Send(MSG_SUSPEND);
    Pass(20);
    EXPECT_EQ(TakeNotes(), Names{});
    Send(MSG_RESUME);
    Pass(4);
    EXPECT_EQ(TakeNotes(), Names{"routine"});
    EXPECT_TRUE(Target->SuspendCount.load() == 1 && Target->State == FSTATE_SUSPENDED);
    Send(MSG_RESUME);
    Pass(2);
    EXPECT_EQ(TakeNotes(), Names{"slept"});
    // One that was runnable when both came used to go on after the routine, until its next yield.
    Target = Run([this](Fiber *F) {
        IdentifyUserThread("P", Event);
        SendOne(S, MSG_SUSPEND, F, Generation(F));
        UserThreadExecRoutine(Event, [] { Note("routine"); });
        SchedYield(F, Yield_USER);
        Note("went on");
        UnidentifyUserThread(0);
    });
    EXPECT_EQ(TakeNotes(), Names{"routine"});
    EXPECT_EQ(Target->State, FSTATE_SUSPENDED);
    Send(MSG_RESUME);
    EXPECT_EQ(TakeNotes(), Names{"went on"});
}

TEST_F(Dedicated, WhoCannotBeReached) {
    RunToEnd([&](Fiber *C) {
        for (const HANDLE handle : {Event, static_cast<HANDLE>(nullptr)}) {
            EXPECT_FALSE(UserThreadExecRoutine(handle, [] {}));
            EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
        }
        IdentifyUserThread("P", Event);
        C->PostEvent->OwnerGeneration++;
        EXPECT_FALSE(UserThreadExecRoutine(Event, [] {})) << "the thread of before has ended";
        C->PostEvent->OwnerGeneration--;
        UnidentifyUserThread(0);
    });
    EXPECT_FALSE(UserThreadExecRoutine(Event, [] {})) << "the test's side is no user thread";
    EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
    // A second one while the first is pending is dropped. A blocked scheduler is told where it may wait for long.
    Scheduler *other = NewScheduler();
    gPortWaitMs = 100;
    NewFiber(other, [&](Fiber *) {
        IdentifyUserThread("P", Event);
        Sleep(INFINITE);
    });
    RunUntilIdle(other);
    script::gScript.Posted.clear();
    for (const auto routine : {+[] { Note("one"); }, +[] { Note("two"); }})
        Run([&](Fiber *) { EXPECT_TRUE(UserThreadExecRoutine(Event, routine)); });
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    RunUntilIdle(other);
    EXPECT_EQ(TakeNotes(), Names{"one"});
}

// ---- Calls on threads of their own -------------------------------------------------------------------

// Reads from the scripted console into `buffer`, as the target.
std::string ReadInto(char *buffer, DWORD room) {
    DWORD got = 99;
    os::SetLastError(12345);
    const BOOL done = ReadConsoleA(nullptr, buffer, room, &got, nullptr);
    const DWORD error = os::GetLastError();
    return std::to_string(done) + " " + std::to_string(got) + " error " + std::to_string(error);
}

TEST_F(Dedicated, ACallGivesBackWhatItWroteAndSaid) {
    script::gScript.OnReadConsole = [](void *buffer, DWORD room, DWORD *read) -> BOOL {
        memset(buffer, 'x', room);
        *read = 3;
        os::SetLastError(77);  // also after success
        return TRUE;
    };
    char buffer[9] = "--------";
    Park([&](Fiber *) { return ReadInto(buffer, 8); });
    EXPECT_EQ(script::gScript.Priorities.back(), THREAD_PRIORITY_ABOVE_NORMAL);
    // An injected routine finds the wait and leaves it alone.
    Inject([] { Note("routine"); });
    EXPECT_EQ(TakeNotes(), Names{"routine"});
    Pass(20);
    EXPECT_STREQ(buffer, "--------") << "nothing is written before the thread has ended";
    script::RunThread();
    Pass(2);
    EXPECT_EQ(TakeNotes(), Names{"1 3 error 77"});
    EXPECT_STREQ(buffer, "xxx-----");
    EXPECT_TRUE(script::gScript.Terminations.empty());
}

TEST_F(Dedicated, ATerminatedCallerLeavesItsCallToTheThread) {
    script::gScript.OnReadConsole = [](void *buffer, DWORD room, DWORD *read) -> BOOL {
        memset(buffer, 'x', room);  // the stack of the caller is gone by now
        *read = room;
        return TRUE;
    };
    const auto read = [](Fiber *) {
        char buffer[256];
        return ReadInto(buffer, sizeof buffer);
    };
    Park(read);
    Send(MSG_TERMINATE, 33);
    Pass(4);
    EXPECT_EQ(script::gScript.Terminations, std::vector<DWORD>{33});
    EXPECT_EQ(OrphanedCalls(), 1u);
    EXPECT_EQ(S->FiberCount.load(), 0u);
    script::RunThread();
    // Terminated inside a routine that waits for a call of its own: both calls are let go.
    Park(read);
    EXPECT_EQ(OrphanedCalls(), 0u) << "the next call frees what has ended";
    Inject([&] { read(nullptr); });
    Send(MSG_TERMINATE, 34);
    Pass(4);
    EXPECT_EQ(OrphanedCalls(), 2u);
    EXPECT_EQ(script::gScript.Terminations, (std::vector<DWORD>{33, 34, 34}));
    for (int i = 0; i < 2; i++) script::EndThread(34);
    // A thread that somebody else ended gives its exit code as the error; one whose end cannot be seen keeps the call.
    for (const uint32_t orphans : {0u, 1u}) {
        Park(read);
        if (orphans != 0) os::FailCall("GetExitCodeThread", 1, 5);
        if (orphans == 0) script::EndThread(5);
        Pass(2);
        EXPECT_EQ(TakeNotes(), Names{"0 99 error 5"});
        EXPECT_EQ(OrphanedCalls(), orphans);
    }
}

}  // namespace
}  // namespace zvx::test
