// tests/unit/thread_call_test.cpp - the thread functions where their order matters: a burst, a thread that may run at
// any moment, and a backing thread that somebody else has touched. Creations that fail: tests/faults; threads between
// two schedulers, resumes under a routine: tests/model.
#include "kernel/thread.h"

#include <cstring>

#include "dedicated/dedicated.h"
#include "kernel/wait.h"
#include "platform/os_process.h"
#include "postwait/postwait.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

DWORD NoteAndReturn(void *param) {
    Note(static_cast<const char *>(param));
    return 5;
}
HANDLE Create(const char *name, DWORD mask = 0) {
    return ZCreateThreadWithAffinity(nullptr, 0, NoteAndReturn, const_cast<char *>(name), 0, nullptr, mask);
}
using ThreadCall = CallTest;

TEST_F(ThreadCall, WhereANewThreadGoes) {
    Scheduler *const all[] = {S, NewScheduler(), NewScheduler()};
    for (uint32_t i = 0; i < 3; i++) all[i]->AffinityMask = 1u << i;
    using Counts = std::vector<uint32_t>;
    const auto sent = [&] { return Counts{all[0]->InTransit, all[1]->InTransit, all[2]->InTransit}; };
    RunToEnd([&](Fiber *) {
        for (int i = 0; i < 5; i++) Create("a");  // this thread is one more on the first scheduler
        EXPECT_EQ(sent(), (Counts{1, 2, 2}));
        // Schedulers of the log writer and of a database writer are made to look busier, or less.
        gAlterDistributionLGWR = 10;
        gAlterDistributionDBWR = 0xFFFFFFFF;  // one less
        all[1]->LgwrFiber.store(S->InitFiber);
        all[2]->DbwrFiber.store(S->InitFiber);
        Create("b");
        EXPECT_EQ(sent(), (Counts{1, 2, 3}));
        // A mask narrows the choice; one that fits nobody means the first.
        for (int i = 0; i < 4; i++) Create("c", 4);
        Create("c", 0x80);
        EXPECT_EQ(sent(), (Counts{2, 2, 7}));
    });
}

// The host's main routine is known by its tag from its first instruction on. It is on its way, and may run at any
// moment.
TEST_F(ThreadCall, TagAndRoleComeBeforeTheThread) {
    const auto routine = [](void *) -> DWORD {
        Note(CallingFiber()->Role == ROLE_INTERNAL ? CallingFiber()->Tag.load() : "");
        return 0;
    };
    Scheduler *home = NewScheduler();
    home->AffinityMask = 2;
    Run([&](Fiber *) {
        const HANDLE thread = CreateUserThread(nullptr, 0, routine, nullptr, 0, nullptr, 2, S, "FMAIN", ROLE_INTERNAL);
        EXPECT_EQ(home->InTransit.load(), 1u);
        EXPECT_STREQ(LookUpHandle(thread)->OwnerFiber->Tag.load(), "FMAIN");
    });
    RunUntilIdle(home);
    EXPECT_EQ(TakeNotes(), Names{"FMAIN"});
}

// The object behind a user thread's handle may have been suspended, resumed or terminated by others: the end of the
// user thread waits for none of that, and the handle is signalled. Where the last resume is refused the scheduler used
// to wait for ever.
TEST_F(ThreadCall, TheEndOfABackingThreadThatOthersTouched) {
    const struct {
        void (*Touch)(HANDLE thread);
        DWORD Code;
    } cases[] = {{[](HANDLE h) { os::SuspendThread(h), os::SuspendThread(h), os::SuspendThread(h); }, 5},
                 {[](HANDLE h) { os::ResumeThread(h); }, STILL_ACTIVE},
                 {[](HANDLE h) { os::TerminateThread(h, 77); }, 77},
                 {[](HANDLE) { os::FailCall("ResumeThread", 1, ERROR_NOT_ENOUGH_MEMORY); }, 5}};
    for (const auto &c : cases) {
        HANDLE thread = nullptr;
        DWORD code = 1;
        Run([&](Fiber *) { c.Touch(thread = Create("ran")); });
        EXPECT_EQ(TakeNotes(), Names{"ran"});
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
        EXPECT_EQ(code, c.Code);
        Run([&](Fiber *) { EXPECT_TRUE(CloseHandle(thread)); });
    }
}

// ---- Waits for objects, under a clock that stands still ----------------------------------------------

struct WaitCall : CallTest {
    const HANDLE Event = NewEvent(false, false);
};

// While nothing happens a wait costs nothing, whatever its limit; what ends it runs at once, in the order of waiting.
// Other ends of a parked wait: tests/model.
TEST_F(WaitCall, AParkedWaitSleepsUntilItIsWoken) {
    const HANDLE manual = NewEvent(true, false);
    const HANDLE both[2] = {Event, manual};
    const auto park = [&](const char *name, std::function<DWORD()> wait) {
        Run([=](Fiber *) { Note(std::to_string(wait()) + " " + name); });
    };
    park("first", [&] { return WaitForSingleObject(Event, INFINITE); });
    park("second", [&] { return WaitForSingleObject(WithoutPacket(Event), 3000); });
    park("any", [&] { return WaitForMultipleObjects(2, both, FALSE, 4000); });
    park("all", [&] { return WaitForMultipleObjects(2, both, TRUE, INFINITE); });
    const uint32_t passes = S->SwitchCount.load();
    Pass(1000);
    EXPECT_EQ(S->SwitchCount.load(), passes);
    for (auto [event, notes] :
         {std::pair{Event, Names{"0 first"}}, {manual, {"1 any"}}, {Event, {"0 second"}}, {Event, {"0 all"}}}) {
        os::SetEvent(event);
        RunUntilIdle(S);
        EXPECT_EQ(TakeNotes(), notes);
    }
    // A handle that is closed ends the wait that was begun with it.
    park("closed", [&] { return WaitForSingleObject(Event, INFINITE) + os::GetLastError(); });
    os::CloseHandle(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{std::to_string(WAIT_FAILED + ERROR_INVALID_HANDLE) + " closed"});
}

// An alertable wait is ended by an own operation at once, not at the next slice; an object that is signalled at the
// same test wins, and the routine is remembered for the next alertable call.
TEST_F(WaitCall, AlertableWaitsEndForRoutines) {
    OVERLAPPED ov{};
    const auto routine = [](DWORD, DWORD, LPOVERLAPPED) { Note("routine"); };
    Fiber *F = Run([&](Fiber *self) {
        const HANDLE file = Open();
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, routine));
        EXPECT_EQ(WaitForSingleObjectEx(Event, INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->ApcDelivered, 0u);
        Answer(script::Done(1));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, routine));
        os::SetEvent(Event);
        EXPECT_EQ(WaitForMultipleObjectsEx(1, &Event, FALSE, INFINITE, TRUE), WAIT_OBJECT_0);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(self->Flags & FIBER_POLL_OWN_OVS, 0u);
        Note("object");
    });
    EXPECT_TRUE(F->Flags & FIBER_POLL_OWN_OVS);
    EndRoutineOf(F, 0, 1);  // no time passes
    EXPECT_EQ(TakeNotes(), (Names{"routine", "routine", "object"}));
}

// A look at any operation makes others final as well, which are delivered before they are handed over. What is handed
// over then is no operation of the thread any more.
TEST_F(WaitCall, ADeliveredOperationIsHandedOverInVain) {
    OVERLAPPED ov{}, other{STATUS_PENDING, 0, 0, 0, nullptr};
    RunToEnd([&](Fiber *self) {
        EXPECT_TRUE(ReadFileEx(Open(), nullptr, 1, &ov, [](DWORD, DWORD, LPOVERLAPPED) {}));
        script::EndOperation(&ZVX_RECORD_OF(FirstLink(&self->FileOvs), FIBEROVERLAPPED, Link)->Ov, 0, 1);
        os::HasOverlappedIoCompleted(&other);
        EXPECT_EQ(SleepEx(1, TRUE), WAIT_IO_COMPLETION);
        SchedYield(self, Yield_USER);
        EXPECT_EQ(self->OwnEnded, 0u);
    });
}

// ---- Injected routines and calls on threads of their own ---------------------------------------------

std::function<void()> gRoutine;

// A target that is identified and parked, and what reaches it.
struct Dedicated : WaitCall {
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
    Fiber *Target = nullptr;
};

std::string Said(DWORD result) {
    return std::to_string(result) + " error " + std::to_string(os::GetLastError());
}

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
}

// Each of the two finds the answer to its own request, although the routine's comes before the other is looked for.
TEST_F(Dedicated, ARoutineSuspendsWhileItsThreadWaitsForASuspension) {
    Scheduler *other = NewScheduler();
    S->AffinityMask = 1, other->AffinityMask = 2;
    HANDLE threads[2];
    Park([&](Fiber *) {
        for (HANDLE &thread : threads)
            thread = ZCreateThreadWithAffinity(nullptr, 0, NoteAndReturn, nullptr, CREATE_SUSPENDED, nullptr, 2);
        return Said(SuspendThread(threads[0]));
    });
    RunUntilIdle(other);
    Inject([&] { Note("routine " + Said(SuspendThread(threads[1]))); });
    RunUntilIdle(other);
    Pass(10);
    EXPECT_EQ(TakeNotes(), (Names{"routine 1 error 0", "1 error 0"}));
}

// A second one while the first is pending is dropped. A blocked scheduler is told where it may wait for long.
TEST_F(Dedicated, OneRoutineAtATime) {
    Scheduler *other = NewScheduler();
    gPortWaitMs = 100;
    NewFiber(other, [&](Fiber *) {
        IdentifyUserThread("P", Event);
        Sleep(INFINITE);
    });
    RunUntilIdle(other);
    for (const auto routine : {+[] { Note("one"); }, +[] { Note("two"); }})
        Run([&](Fiber *) { EXPECT_TRUE(UserThreadExecRoutine(Event, routine)); });
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    RunUntilIdle(other);
    EXPECT_EQ(TakeNotes(), Names{"one"});
    EXPECT_FALSE(UserThreadExecRoutine(Event, [] {})) << "the test's side is no user thread";
}

// ---- Calls on threads of their own -------------------------------------------------------------------

// Reads from the scripted console into `buffer`, as the target.
std::string ReadInto(char *buffer, DWORD room) {
    DWORD got = 99;
    os::SetLastError(12345);
    script::gScript.OnReadConsole = [](void *to, DWORD characters, DWORD *read) -> BOOL {
        memset(to, 'x', characters);  // of the caller, who may be gone
        *read = 3;
        os::SetLastError(77);  // also after success
        return TRUE;
    };
    const BOOL done = ReadConsoleA(nullptr, buffer, room, &got, nullptr);
    return std::to_string(done) + " " + Said(got);
}

TEST_F(Dedicated, ACallGivesBackWhatItWroteAndSaid) {
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
}

TEST_F(Dedicated, ATerminatedCallerLeavesItsCallToTheThread) {
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
}

}  // namespace
}  // namespace zvx::test
