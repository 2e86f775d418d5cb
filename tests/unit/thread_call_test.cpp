// tests/unit/thread_call_test.cpp - the thread functions where their order matters: a burst, a thread that may run at
// any moment, and a backing thread that somebody else has touched. Creations that fail: tests/faults; threads between
// two schedulers, resumes under a routine: tests/model.
#include "kernel/thread.h"

#include "kernel/wait.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

DWORD NoteAndReturn(void *param) {
    Note(static_cast<const char *>(param));
    return 5;
}
struct ThreadCall : CallTest {
    static HANDLE Create(const char *name, DWORD mask = 0) {
        return ZCreateThreadWithAffinity(nullptr, 0, NoteAndReturn, const_cast<char *>(name), 0, nullptr, mask);
    }
};

TEST_F(ThreadCall, WhereANewThreadGoes) {
    Scheduler *second = NewScheduler();
    Scheduler *third = NewScheduler();
    S->AffinityMask = 1;
    second->AffinityMask = 2;
    third->AffinityMask = 4;
    const auto sent = [&] {
        return std::vector{S->InTransit.load(), second->InTransit.load(), third->InTransit.load()};
    };
    using Counts = std::vector<uint32_t>;
    Run([&](Fiber *) {
        for (int i = 0; i < 5; i++) Create("a");  // this thread is one more on the first scheduler
        EXPECT_EQ(sent(), (Counts{1, 2, 2}));
        // Schedulers of the log writer and of a database writer are made to look busier, or less.
        Fiber *someone = S->InitFiber;
        gAlterDistributionLGWR = 10;
        gAlterDistributionDBWR = 0xFFFFFFFF;  // one less
        second->LgwrFiber.store(someone);
        third->DbwrFiber.store(someone);
        Create("b");
        EXPECT_EQ(sent(), (Counts{1, 2, 3}));
        second->LgwrFiber.store(nullptr);
        third->DbwrFiber.store(nullptr);
        // A mask narrows the choice; one that fits nobody means the first.
        for (int i = 0; i < 4; i++) Create("c", 4);
        EXPECT_EQ(sent(), (Counts{1, 2, 7}));
        Create("c", 0x80);
        EXPECT_EQ(sent(), (Counts{2, 2, 7}));
    });
}

// The host's main routine is known by its tag from its first instruction on.
TEST_F(ThreadCall, TagAndRoleComeBeforeTheThread) {
    static const auto routine = [](void *) -> DWORD {
        const Fiber *F = CallingFiber();
        Note(F->Tag.load() + std::string(F->Role == ROLE_INTERNAL ? " internal" : ""));
        return 0;
    };
    Scheduler *home = NewScheduler();
    home->AffinityMask = 2;
    Run([&](Fiber *) {
        const HANDLE thread = CreateUserThread(nullptr, 0, routine, nullptr, 0, nullptr, 2, S, "FMAIN", ROLE_INTERNAL);
        // It is on its way, and may run at any moment.
        EXPECT_EQ(home->InTransit.load(), 1u);
        EXPECT_STREQ(LookUpHandle(thread)->OwnerFiber->Tag.load(), "FMAIN");
    });
    RunUntilIdle(home);
    EXPECT_EQ(TakeNotes(), Names{"FMAIN internal"});
}

// The object behind a user thread's handle may have been suspended, resumed or terminated by others: the end of the
// user thread waits for none of that, and the handle is signalled.
TEST_F(ThreadCall, TheEndOfABackingThreadThatOthersTouched) {
    const auto exitCodeOf = [&](auto touch) {
        HANDLE thread = nullptr;
        DWORD code = 1;
        Run([&](Fiber *) { touch(thread = Create("ran")); });
        EXPECT_EQ(TakeNotes(), Names{"ran"});
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
        Run([&](Fiber *) { EXPECT_TRUE(CloseHandle(thread)); });
        EXPECT_EQ(gHandleCount, 0u);
        return code;
    };
    EXPECT_EQ(exitCodeOf([](HANDLE h) { os::SuspendThread(h), os::SuspendThread(h), os::SuspendThread(h); }), 5u);
    EXPECT_EQ(exitCodeOf([](HANDLE h) { os::ResumeThread(h); }), STILL_ACTIVE);
    EXPECT_EQ(exitCodeOf([](HANDLE h) { os::TerminateThread(h, 77); }), 77u);
    // Where the last resume is refused the scheduler used to wait for ever.
    EXPECT_EQ(exitCodeOf([](HANDLE) { os::FailCall("ResumeThread", 1, ERROR_NOT_ENOUGH_MEMORY); }), 5u);
}

// ---- Waits for objects, under a clock that stands still ----------------------------------------------

uint32_t gRoutines;

void PlainRoutine(DWORD, DWORD, LPOVERLAPPED) {
    gRoutines++;
}

struct WaitCall : CallTest {
    const HANDLE Event = NewEvent(false, false);
};

// The event of an overlapped call keeps its mark in the caller's OVERLAPPED; it is still that event.
TEST_F(WaitCall, ZeroTestsOnceAndNeverYields) {
    RunToEnd([&](Fiber *) {
        const uint32_t passes = S->SwitchCount.load();
        const HANDLE marked = WithoutPacket(Event);
        const HANDLE both[2] = {NewEvent(true, true), marked};
        EXPECT_EQ(WaitForSingleObject(Event, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(SetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(marked, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked));
        EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked) && ResetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(Event, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObjectEx(nullptr, INFINITE, TRUE), WAIT_FAILED);
        EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(S->SwitchCount.load(), passes);
    });
}

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
    park("late", [&] { return WaitForSingleObject(manual, 1500); });
    const uint32_t passes = S->SwitchCount.load();
    Pass(1000);
    EXPECT_EQ(S->SwitchCount.load(), passes);
    os::SetEvent(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"0 first"});
    Run([&](Fiber *) { EXPECT_TRUE(SetEvent(manual)); });
    EXPECT_EQ(TakeNotes(), (Names{"1 any", "0 late"}));
    os::SetEvent(Event);
    os::SetEvent(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"0 second", "0 all"})) << "each hands the event over at once";
    // A handle that is closed ends the wait that was begun with it.
    Run([&](Fiber *) {
        const DWORD result = WaitForSingleObject(Event, INFINITE);
        Note(std::to_string(result) + " " + std::to_string(os::GetLastError()));
    });
    os::CloseHandle(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"4294967295 " + std::to_string(ERROR_INVALID_HANDLE)});
}

// An alertable wait is ended by an own operation at once, not at the next slice; an object that is signalled at the
// same test wins, and the routine is remembered for the next alertable call.
TEST_F(WaitCall, AlertableWaitsEndForRoutines) {
    OVERLAPPED ov{};
    Fiber *F = Run([&](Fiber *self) {
        const HANDLE file = Open();
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        EXPECT_EQ(WaitForSingleObjectEx(Event, INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->ApcDelivered, 0u);
        Note("routine");
        Answer(script::Done(1));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        os::SetEvent(Event);
        EXPECT_EQ(WaitForMultipleObjectsEx(1, &Event, FALSE, INFINITE, TRUE), WAIT_OBJECT_0);
        EXPECT_EQ(gRoutines, 2u);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(self->Flags & FIBER_POLL_OWN_OVS, 0u);
        Note("object");
    });
    EXPECT_TRUE(F->Flags & FIBER_POLL_OWN_OVS);
    EndRoutineOf(F, 0, 1);  // no time passes
    EXPECT_EQ(TakeNotes(), (Names{"routine", "object"}));
}

}  // namespace
}  // namespace zvx::test
