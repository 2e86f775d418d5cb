// Crash dumps: names, the order of a sweep, what a sweep leaves as it was, fatal errors within one, and the event.
//
// Dumps are written on the calling fiber here, because no helper thread can be had, and no file can be created either:
// every dump is two names, asked for while the thread that it shows is the running one.
#include "diag/dump.h"

#include <cerrno>
#include <cstring>

#include "child.h"
#include "platform/base/fiber_internal.h"  // which sanitizer this build has
#include "sched/internal.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

using os::script::gScript;

Names gCreated;

void RecordNames() {
    for (uint32_t n = 1; n <= 30; ++n) os::FailCall("CreateThread", n, ERROR_MAX_THRDS_REACHED);
    gScript.OnCreate = [](const char *name) {
        gCreated.push_back(name);
        os::SetLastError(1234);  // what a dump does to the thread
        errno = 99;
        return false;
    };
}

std::string Hex(uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "%X", value);
    return text;
}

// Of each dump that was tried, the tag of its user thread.
Names TakeTags() {
    Names tags;
    for (size_t i = 0; i < gCreated.size(); i += 2) {
        const size_t begin = gCreated[i].find("_fid_") + 5;
        tags.push_back(gCreated[i].substr(begin, gCreated[i].find("_minidump_") - begin));
    }
    gCreated.clear();
    return tags;
}

TEST(DumpNames, AThreadThatIsNoUserThread) {
    setenv("ZORVEX_SID", "PROD", 1);
    RecordNames();
    TraceInit("/logs");
    DumpProcess("zvxkvt_kill_proc");
    const std::string thread = "tid_x" + Hex(os::GetCurrentThreadId());
    const std::string common = "zvxkvt_kill_proc_" + thread + "_minidump_PROD_pid_" + std::to_string(getpid());
    const std::string end = thread + "_2005_9_3_14_7_9.dmp";
    // One dump, tried in two places.
    EXPECT_EQ(gCreated, (Names{"/logs/" + common + "_md" + end, common + "_d" + end}));
}

// The thread that writes is awaited by its handle, a step at a time; neither a wait nor a question that fails ends
// that.
TEST(DumpHelper, IsAwaitedByItsHandle) {
    TraceInit("/logs");
    gScript.OnCreate = [](const char *) { return false; };
    os::FailCall("GetExitCodeThread", 1, ERROR_NOT_ENOUGH_MEMORY);
    for (uint32_t n = 1; n <= 2; ++n) os::FailCall("WaitForSingleObject", n, ERROR_NOT_ENOUGH_MEMORY);
    std::vector<DWORD> slept;
    gScript.OnSleep = [&](DWORD ms) {
        slept.push_back(ms);
        if (slept.size() == 2) os::script::RunThread();
    };
    WriteDumpOnHelperThread("name");
    EXPECT_EQ(slept, (std::vector<DWORD>{100, 100}));
}

struct Sweep : testing::Test {
    void SetUp() override {
        setenv("ZORVEX_SID", "X", 1);
        InitLibrary();
        RecordNames();
        S = NewScheduler();
    }
    // A user thread that parks, with things of its own, and looks for them when it goes on.
    Fiber *NewParked(const char *tag, std::function<void(Fiber *)> then = nullptr) {
        Fiber *F = NewFiber(S, [then](Fiber *self) {
            const DWORD own = self->ShellSerial;
            os::TlsSetValue(5, self);
            os::SetLastError(500 + own);
            errno = static_cast<int>(600 + own);
            ParkForEver(self);
            EXPECT_TRUE(os::GetLastError() == 500 + own && errno == static_cast<int>(600 + own));
            EXPECT_EQ(os::TlsGetValue(5), self);
            if (then) then(self);
            Note(self->Tag.load());
        });
        F->Tag = tag;
        F->OsThreadId = 0x1A0u + F->ShellSerial;
        F->StaticTls = F;
        RunUntilIdle(S);
        return F;
    }
    static void ExpectRunning(const Fiber *F) {
        EXPECT_EQ(os::CurrentThreadBlock()->Slots, F->TlsValues);
        EXPECT_EQ(os::CurrentThreadBlock()->StaticTls, F);
    }
    void Wake(Fiber *F) {
        UnlinkTimedWaiter(S, F);
        F->State = FSTATE_READY;
        AppendReady(S, F);
    }
    Scheduler *S = nullptr;
};

TEST_F(Sweep, EveryStartedThreadOnceAndTheOriginFirst) {
    static Names tags;
    Fiber *a = NewParked("A"), *b = NewParked("B/2");
    Fiber *origin = NewParked("ORIGIN", [&](Fiber *self) {
        NewFiber(S, [](Fiber *) { Note("never started before"); })->Tag = "FRESH";
        os::SetLastError(42);
        errno = 43;
        self->LastError = 41;  // as in the middle of a yield
        DumpProcess("zvxkvt_debug");
        EXPECT_TRUE(os::GetLastError() == 42 && errno == 43 && self->LastError == 41);
        ExpectRunning(self);
        EXPECT_TRUE(S->SwitchHook == nullptr && S->DumpOrigin == nullptr && S->SwitchHookArg == nullptr);
        tags = TakeTags();
    });
    NewFiber(S, [](Fiber *) {})->Tag = "EXITED";
    Fiber *c = NewParked("C");
    c->SuspendCount = 1;
    Wake(c);
    RunUntilIdle(S);
    ASSERT_EQ(c->State, static_cast<uint32_t>(FSTATE_SUSPENDED));

    // What every dump sees: the thread of its name is the running one.
    const auto record = gScript.OnCreate;
    gScript.OnCreate = [&](const char *name) {
        const auto *G = static_cast<const Fiber *>(os::GetFiberData());
        const std::string tag = G == b ? "B_2" : G->Tag.load();
        const std::string expected = "zvxkvt_debug_tid_x" + Hex(G->OsThreadId) + "_stid_x" +
                                     Hex(os::GetCurrentThreadId()) + "_fid_" + tag + "_minidump_X_pid_" +
                                     std::to_string(getpid());
        EXPECT_EQ(std::string(name).rfind(expected, 0), 0u) << name;
        ExpectRunning(G);
        return record(name);
    };
    Wake(origin);
    RunUntilIdle(S);
    EXPECT_EQ(tags, (Names{"ORIGIN", "A", "B_2", "C"}));
    EXPECT_EQ(TakeNotes(), (Names{"ORIGIN", "never started before"})) << "nobody ran because of the sweep";
    EXPECT_EQ(c->State, static_cast<uint32_t>(FSTATE_SUSPENDED));
    c->SuspendCount = 0;
    os::script::AdvanceClock(100);
    Wake(a);
    Wake(b);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes().size(), 3u) << "each goes on where it was";
}

TEST_F(Sweep, AsTheTimerCheckServesIt) {
    // A scheduler without user threads writes one of its own, and switches to nobody.
    S->DebugRequest = 1;
    RunUntilIdle(S);
    EXPECT_EQ(TakeTags(), Names{"UID"});
    EXPECT_EQ(S->DebugRequest, 0u);
    // The thread that is about to leave still stands on its stack when the sweep is over: it is not freed before the
    // switch to the next one.
    Fiber *a = NewParked("A", [&](Fiber *) { Note(std::to_string(S->ExitedFibers.Count) + " exited"); });
    NewParked("B");
    NewFiber(S, [&](Fiber *) {
        S->DebugRequest = 1;
        S->SelectPasses = kFullSweepPasses + 1;  // the timer check comes within the pass of the exit
        os::script::AdvanceClock(100);
        Wake(a);
    })->Tag = "LEAVES";
    RunUntilIdle(S);
    EXPECT_EQ(TakeTags(), (Names{"LEAVES", "A", "B"}));
    EXPECT_EQ(TakeNotes(), (Names{"1 exited", "A"}));
}

TEST_F(Sweep, FatalErrorsWithinItAndWithinItsOwnDumps) {
#if defined(ZVX_TSAN)
    GTEST_SKIP() << "the sanitizer loses sight of fibers that were made before a fork";
#endif
    // The second dump of a sweep ends the process; so does, once more, the third of those that it writes.
    const Killed killed = Kill([&] {
        gDumpProcess = DumpForFatalExit;
        Fiber *origin = NewParked("ORIGIN", [](Fiber *) { DumpProcess("debug"); });
        NewParked("A");
        NewParked("B");
        gScript.OnCreate = [](const char *name) {
            if (strstr(name, "_mdtid_") == nullptr) return false;  // the second place
            const bool kill = strstr(name, "zvxkvt_kill_proc") != nullptr;
            const char *tag = strstr(name, "_fid_") + 5;
            printf("%s %.*s|", kill ? "kill" : "debug", static_cast<int>(strcspn(tag, "_")), tag);
            if (!kill && strncmp(tag, "A_", 2) == 0) FatalExit("first");
            if (kill && strncmp(tag, "B_", 2) == 0) FatalExit("second");
            return false;
        };
        Wake(origin);
        RunUntilIdle(S);
    });
    EXPECT_EQ(killed.Output,
              "debug ORIGIN|debug A|kill A|kill ORIGIN|kill B|ZORVEX KILLED: first|ZORVEX KILLED: second|");
}

}  // namespace
}  // namespace zvx::test
