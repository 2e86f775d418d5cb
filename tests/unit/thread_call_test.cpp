// tests/unit/thread_call_test.cpp - the thread functions where their order matters: a creation that fails half-way,
// a burst, a thread between two schedulers, a pending routine, and a backing thread that somebody else has touched.
#include "kernel/thread.h"

#include <gtest/gtest.h>

#include "diag/timesource.h"
#include "kernel/handles.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

namespace script = os::script;
using Names = std::vector<std::string>;

DWORD NoteAndReturn(void *param) {
    Note(static_cast<const char *>(param));
    return 5;
}

struct ThreadCall : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
        CalcTimes();
    }
    void TearDown() override { CheckHandleTable(); }
    static void CalcTimes() {
        gCpuFrequency = 1e9;
        gTscTicksPerMs = 1000000;
    }
    void Run(std::function<void(Fiber *)> body) {
        NewFiber(S, std::move(body));
        RunUntilIdle(S);
    }
    // Lets time pass on one scheduler, a millisecond at a time.
    void Pass(uint32_t ms, Scheduler *on = nullptr) {
        for (uint32_t i = 0; i < ms; i++) {
            script::AdvanceClock(1);
            RunUntilIdle(on != nullptr ? on : S);
        }
    }
    static HANDLE Create(const char *name, DWORD flags = 0) {
        return CreateThread(nullptr, 0, NoteAndReturn, const_cast<char *>(name), flags, nullptr);
    }
    Scheduler *S = nullptr;
};

TEST_F(ThreadCall, AFailedCreationLeavesNothingAndSaysWhy) {
    Run([&](Fiber *) {
        ASSERT_NE(Create("first"), nullptr);  // whatever is made once is made now
        const uint32_t handles = gHandleCount;
        const uint32_t shells = gFreeShells[0].Shells.Count;
        const struct {
            const char *Call;
            DWORD Error;
        } failures[] = {{"CreateBackingThread", ERROR_MAX_THRDS_REACHED},
                        {"ResumeThread", ERROR_ACCESS_DENIED},
                        {"DuplicateHandle", ERROR_TOO_MANY_OPEN_FILES}};
        for (const auto &failure : failures) {
            os::FailCall(failure.Call, 1, failure.Error);
            EXPECT_EQ(Create("never"), nullptr) << failure.Call;
            EXPECT_EQ(os::GetLastError(), failure.Error) << failure.Call;
            EXPECT_EQ(gHandleCount, handles) << failure.Call;
            EXPECT_EQ(gFreeShells[0].Shells.Count, shells) << failure.Call;
            EXPECT_EQ(S->InTransit.load(), 1u) << failure.Call;
        }
        ASSERT_NE(Create("last"), nullptr);
    });
    EXPECT_EQ(TakeNotes(), (Names{"first", "last"}));
    EXPECT_EQ(S->InTransit.load(), 0u);
    EXPECT_EQ(S->FiberCount.load(), 0u);
}

TEST_F(ThreadCall, WhereANewThreadGoes) {
    Scheduler *second = NewScheduler();
    Scheduler *third = NewScheduler();
    S->AffinityMask = 1;
    second->AffinityMask = 2;
    third->AffinityMask = 4;
    Run([&](Fiber *) {
        for (int i = 0; i < 5; i++) Create("a");  // this thread is one more on the first scheduler
        EXPECT_EQ(S->InTransit.load(), 1u);
        EXPECT_EQ(second->InTransit.load(), 2u);
        EXPECT_EQ(third->InTransit.load(), 2u);
        // Schedulers of the log writer and of a database writer are made to look busier, or less.
        Fiber *someone = S->InitFiber;
        gAlterDistributionLGWR = 10;
        gAlterDistributionDBWR = 0xFFFFFFFF;  // one less
        second->LgwrFiber.store(someone);
        third->DbwrFiber.store(someone);
        Create("b");
        EXPECT_EQ(third->InTransit.load(), 3u);
        second->LgwrFiber.store(nullptr);
        third->DbwrFiber.store(nullptr);
        // A mask narrows the choice; one that fits nobody means the first.
        const auto bound = [](DWORD mask) {
            return ZCreateThreadWithAffinity(nullptr, 0, NoteAndReturn, const_cast<char *>("c"), 0, nullptr, mask);
        };
        for (int i = 0; i < 4; i++) bound(4);
        EXPECT_EQ(third->InTransit.load(), 7u);
        const uint32_t before = S->InTransit.load();
        bound(0x80);
        EXPECT_EQ(S->InTransit.load(), before + 1);
    });
}

// Tag and role are the thread's before it can run, and it runs in FIFO order with the rest.
TEST_F(ThreadCall, InternalCreationGivesTagAndRole) {
    struct Seen {
        std::string Tag;
        uint32_t Role = 0;
    } seen;
    Run([&](Fiber *self) {
        const HANDLE thread = CreateUserThread(
            nullptr, 0,
            [](void *param) -> DWORD {
                const auto *F = static_cast<Fiber *>(os::GetFiberData());
                *static_cast<Seen *>(param) = {F->Tag.load(), F->Role};
                return 0;
            },
            &seen, 0, nullptr, 0, SchedOf(self), "FMAIN", ROLE_INTERNAL);
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(LookUpHandle(thread)->Type, PHAND_HTYPE_CreateThread);
        EXPECT_NE(LookUpHandle(thread)->Parent, nullptr);
    });
    EXPECT_EQ(seen.Tag, "FMAIN");
    EXPECT_EQ(seen.Role, ROLE_INTERNAL);
}

// While a routine is pending the visible count is 0 and the real one is put aside: a resume must reach that one. With
// nothing pending a resume of a running thread sends nothing.
TEST_F(ThreadCall, ResumeReachesThePutAsideCount) {
    HANDLE thread = nullptr;
    Run([&](Fiber *) {
        thread = CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
                Sleep(INFINITE);
                return 0;
            },
            nullptr, 0, nullptr);
    });
    Fiber *F = LookUpHandle(thread)->OwnerFiber;
    ASSERT_EQ(F->State, FSTATE_TIMED_WAIT);
    F->ExecSave.SuspendCount = 2;
    F->Flags |= FIBER_EXEC_PENDING | FIBER_EXEC_RUNNING;
    for (uint32_t pending : {0u, 1u}) {
        F->RoutinePending.store(pending);
        Run([&](Fiber *) { Note(std::to_string(ResumeThread(thread))); });
        Pass(3);
        EXPECT_EQ(TakeNotes(), Names{"0"});
        EXPECT_EQ(F->ExecSave.SuspendCount, 2 - pending);
    }
    // Without a routine: the count itself, and what waits for it.
    F->Flags &= ~static_cast<uint32_t>(FIBER_EXEC_PENDING | FIBER_EXEC_RUNNING);
    F->RoutinePending.store(0);
    Run([&](Fiber *) { Note("suspend " + std::to_string(SuspendThread(thread))); });
    Run([&](Fiber *) { Note("resume " + std::to_string(ResumeThread(thread))); });
    Pass(3);
    EXPECT_EQ(TakeNotes(), (Names{"suspend 0", "resume 1"}));
    EXPECT_EQ(F->SuspendCount.load(), 0u);
}

// Between two schedulers a thread belongs to nobody: who wants something of it waits for its arrival.
TEST_F(ThreadCall, ATargetBetweenTwoSchedulersIsWaitedFor) {
    Scheduler *other = NewScheduler();
    Fiber *target = nullptr;
    HANDLE thread = nullptr;
    Run([&](Fiber *) {
        thread = CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
                Sleep(INFINITE);
                return 0;
            },
            nullptr, 0, nullptr);
        target = LookUpHandle(thread)->OwnerFiber;
    });
    RunUntilIdle(other);
    Scheduler *home = SchedOf(target);
    RunUntilIdle(home);
    ASSERT_EQ(target->State, FSTATE_TIMED_WAIT);
    target->Sched.store(nullptr);
    Run([&](Fiber *) { Note("suspended after " + std::to_string(SuspendThread(thread))); });
    Pass(10);
    EXPECT_TRUE(TakeNotes().empty()) << "there is nobody to send the message to";
    target->Sched.store(home);
    for (int i = 0; i < 5; i++) {
        Pass(2);
        RunUntilIdle(home);
    }
    EXPECT_EQ(TakeNotes(), Names{"suspended after 0"});
    EXPECT_EQ(target->SuspendCount.load(), 1u);
}

// The object behind a user thread's handle may have been suspended, resumed or terminated by others: the end of the
// user thread waits for none of that, and the handle is signalled.
TEST_F(ThreadCall, TheEndOfABackingThreadThatOthersTouched) {
    const struct {
        const char *Name;
        void (*Touch)(HANDLE);
        DWORD Code;
    } cases[] = {
        {"suspended",
         [](HANDLE h) {
             for (int i = 0; i < 3; i++) os::SuspendThread(h);
         },
         5},
        {"resumed", [](HANDLE h) { os::ResumeThread(h); }, STILL_ACTIVE},
        {"terminated", [](HANDLE h) { os::TerminateThread(h, 77); }, 77},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Name);
        HANDLE thread = nullptr;
        DWORD code = 1;
        Run([&](Fiber *) {
            thread = Create(c.Name);
            c.Touch(thread);
        });
        EXPECT_EQ(TakeNotes(), Names{c.Name});
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
        EXPECT_EQ(code, c.Code);
        Run([&](Fiber *) { EXPECT_TRUE(CloseHandle(thread)); });
        EXPECT_EQ(gHandleCount, 0u);
    }
}

TEST_F(ThreadCall, TimesOfAThread) {
    HANDLE thread = nullptr;
    FILETIME creation{}, exit{}, kernel{}, user{};
    const auto value = [](const FILETIME &t) { return uint64_t{t.dwHighDateTime} << 32 | t.dwLowDateTime; };
    Run([&](Fiber *) {
        thread = CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
                script::gScript.Tsc.fetch_add(250'000'000);  // a quarter of a second at 1 GHz
                FILETIME times[4];
                GetThreadTimes(GetCurrentThread(), &times[0], &times[1], &times[2], &times[3]);
                script::gScript.Tsc.fetch_add(250'000'000);
                return 0;
            },
            nullptr, 0, nullptr);
        EXPECT_TRUE(GetThreadTimes(thread, &creation, &exit, &kernel, &user));
        EXPECT_EQ(value(user), 0u) << "it has not asked yet";
    });
    Run([&](Fiber *) {
        EXPECT_TRUE(GetThreadTimes(thread, &creation, &exit, &kernel, &user));
        EXPECT_EQ(value(user), 2'500'000u) << "as it was when the thread last asked";
        EXPECT_EQ(value(kernel), 0u);
        EXPECT_EQ(value(exit), script::gScript.FileTime.load());
    });
}

}  // namespace
}  // namespace zvx::test
