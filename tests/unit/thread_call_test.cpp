// tests/unit/thread_call_test.cpp - the thread functions where their order matters: a burst, a thread that may run at
// any moment, and a backing thread that somebody else has touched. Creations that fail: tests/faults; threads between
// two schedulers, resumes under a routine: tests/model.
#include "kernel/thread.h"

#include "call_fixture.h"
#include "diag/timesource.h"
#include "kernel/wait.h"

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

// Only the thread itself reads its cycle account; others see what it computed when it last asked.
TEST_F(ThreadCall, TimesAreThoseOfTheLastQuestion) {
    static DWORD used;
    static const auto ask = [](HANDLE thread) {
        FILETIME creation{}, ended{}, kernel{}, user{};
        EXPECT_TRUE(GetThreadTimes(thread, &creation, &ended, &kernel, &user));
        used = user.dwLowDateTime;
    };
    gCpuFrequency = 1e9;
    const auto body = [](void *) -> DWORD {
        script::gScript.Tsc += 250'000'000;  // a quarter of a second
        ask(GetCurrentThread());
        script::gScript.Tsc += 250'000'000;
        return 0;
    };
    Run([&](Fiber *) {
        const HANDLE thread = CreateThread(nullptr, 0, body, nullptr, 0, nullptr);
        ask(thread);
        Note(std::to_string(used));
        while (WaitForSingleObject(thread, 10) == WAIT_TIMEOUT) continue;
        ask(thread);
        Note(std::to_string(used));
    });
    Pass(10 + gTimerInterval);
    EXPECT_EQ(TakeNotes(), (Names{"0", "2500000"}));
}

}  // namespace
}  // namespace zvx::test
