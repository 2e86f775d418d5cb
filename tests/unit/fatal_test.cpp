// The end of the process on an internal inconsistency: what is written where, once, whatever locks are held.
//
// Each case runs in a child process whose standard output, exit code and trace file the test compares.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "child.h"
#include "config/settings.h"
#include "diag/trace.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;
using test::ChildResult;
using test::FreshDirectory;
using test::OnlyFile;
using test::ReadWhole;
using test::RunChild;

// Sleeps are short but real, so that threads that wait for one another make progress.
void RealSleeps() {
    gScript.OnSleep = [](DWORD ms) {
        os::script::AdvanceClock(ms);
        usleep(ms == 0 ? 0 : 200);
    };
}

struct Killed {
    ChildResult Child;
    std::string Lines;  // of the trace file, without their time stamps
    std::string See;    // " (see <directory><file>)\n"
};

template <typename Body>
Killed Kill(Body body) {
    const std::string dir = FreshDirectory("fatal");
    Killed killed;
    killed.Child = RunChild([&] {
        TraceInit(dir.c_str());
        RealSleeps();
        body();
    });
    const std::string name = OnlyFile(dir);
    killed.See = " (see " + dir + "/" + name + ")\n";
    std::ifstream file(dir + "/" + name);
    for (std::string line; std::getline(file, line);) killed.Lines += line.substr(line.find("] ") + 2) + "\n";
    std::filesystem::remove_all(dir);
    return killed;
}

TEST(FatalExit, WritesDumpsThenTells) {
    const Killed killed = Kill([] {
        gDumpVariables = [] { TracePrintf("variables %d\n", gDying.load()); };
        gDumpProcess = [](const char *prefix) {
            TracePrintf("dump %s %d\n", prefix, gDying.load());
            std::fputs("host output ", stdout);  // comes out before the line, though nobody flushed it
        };
        FatalExit("broken %s E[%d]", "thing", -5);
    });
    EXPECT_EQ(killed.Child.ExitCode, 1);
    EXPECT_EQ(killed.Child.Output, "host output ZORVEX KILLED: broken thing E[-5]" + killed.See);
    EXPECT_EQ(killed.Lines, "ZORVEX KILLED: broken thing E[-5]\nvariables 0\ndump zvxkvt_kill_proc 0\n");
}

TEST(FatalExit, RealVariableDumpAndNoHooks) {
    Killed killed = Kill([] {
        gDumpVariables = DumpSchedInternalVariables;
        FatalExit("x");
    });
    EXPECT_EQ(killed.Child.ExitCode, 1);
    EXPECT_EQ(killed.Lines.find("ZORVEX KILLED: x\nSched Internal Variables:\nInfoFlags:\n"), 0u) << killed.Lines;
    killed = Kill([] { FatalExit("%s", ""); });
    EXPECT_EQ(killed.Child.ExitCode, 1);
    EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: " + killed.See);
}

// Dumps were written before: no second set, but both lines.
TEST(FatalExit, WhileDying) {
    const Killed killed = Kill([] {
        gDumpVariables = [] { TracePrintf("variables\n"); };
        gDumpProcess = [](const char *) { TracePrintf("dump\n"); };
        gDying.store(1);
        FatalExit("late");
    });
    EXPECT_EQ(killed.Child.ExitCode, 1);
    EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: late" + killed.See);
    EXPECT_EQ(killed.Lines, "ZORVEX KILLED: late\nvariables\n");
}

TEST(FatalExit, LongTextIsCutWhole) {
    const Killed killed = Kill([] { FatalExit("%s\u20ac", std::string(1021, 'm').c_str()); });
    EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: " + std::string(1021, 'm') + killed.See);
    EXPECT_EQ(killed.Lines, "ZORVEX KILLED: " + std::string(1021, 'm') + "\n");
}

// An error within the dumps ends the process without dumping again, and both errors are told.
TEST(FatalExit, WithinItsOwnDumps) {
    for (const bool early : {true, false}) {
        const Killed killed = Kill([early] {
            gDumpVariables = [] { TracePrintf("variables\n"); };
            gDumpProcess = [](const char *) { FatalExit("second"); };
            if (early) gDumpVariables = [] { FatalExit("second"); };
            FatalExit("first");
        });
        EXPECT_EQ(killed.Child.ExitCode, 1);
        EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: first" + killed.See + "ZORVEX KILLED: second" + killed.See);
        EXPECT_EQ(killed.Lines,
                  std::string("ZORVEX KILLED: first\n") + (early ? "" : "variables\n") + "ZORVEX KILLED: second\n");
    }
}

std::atomic<int> gStage;
void AwaitStage(int stage) {
    while (gStage.load() < stage) std::this_thread::yield();
}

// Two threads at once, the second with the lock of the trace file or of the dumps in its hands: the first ends the
// process, the second is never heard of.
TEST(FatalExit, AnotherThreadWithALockInItsHands) {
    for (os::CriticalSection *section : {static_cast<os::CriticalSection *>(nullptr), &gTraceLock, &gDumpLock}) {
        const Killed killed = Kill([section] {
            gDumpProcess = [](const char *) {
                gStage.store(1);
                AwaitStage(2);
                usleep(20000);  // the other one is in FatalExit by now
                if (EnterUnlessDying(&gDumpLock)) os::LeaveCriticalSection(&gDumpLock);
            };
            std::thread other([section] {
                AwaitStage(1);
                if (section != nullptr) os::EnterCriticalSection(section);
                gStage.store(2);
                FatalExit("other");
            });
            FatalExit("first");
        });
        EXPECT_EQ(killed.Child.ExitCode, 1);
        EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: first" + killed.See);
        EXPECT_EQ(killed.Lines, "ZORVEX KILLED: first\n");
    }
}

// Somebody sits on the trace lock for good: the lines are lost, once a second is waited, the console line is not.
TEST(FatalExit, TraceLockIsNeverFreed) {
    const Killed killed = Kill([] {
        WriteTraceLine("] before\n", true, false, false);
        std::thread other([] {
            os::EnterCriticalSection(&gTraceLock);
            gStage.store(1);
            for (;;) pause();
        });
        AwaitStage(1);
        gDumpVariables = [] {
            for (int i = 0; i < 100; i++) TracePrintf("never\n");
        };
        gScript.Sleeps.clear();
        gDumpProcess = [](const char *) { std::printf("%zu sleeps ", gScript.Sleeps.size()); };
        FatalExit("stuck");
    });
    EXPECT_EQ(killed.Child.ExitCode, 1);
    EXPECT_EQ(killed.Child.Output, "1000 sleeps ZORVEX KILLED: stuck" + killed.See);
    EXPECT_EQ(killed.Lines, "before\n");
}

// Dumps that hang: the watchdog, which was started before them, tells the console and ends the process.
TEST(FatalExit, HangingDumpsAreWatched) {
    const Killed killed = Kill([] {
        gDumpProcess = [](const char *) {
            // The thread that would hang here plays the watchdog's part, while time passes.
            if (gScript.Threads.empty()) _exit(98);
            static int writes = 0;
            gScript.OnSleep = [](DWORD ms) {
                os::script::AdvanceClock(ms);
                if (++writes == 250) NoteFatalProgress();
                if (writes > 600) _exit(97);
            };
            std::thread([] { std::printf("[%u] ", gScript.Threads.back().Start(nullptr)); }).join();
        };
        FatalExit("hang");
    });
    EXPECT_EQ(killed.Child.ExitCode, 1) << "not before thirty silent seconds, and not much later";
    EXPECT_EQ(killed.Child.Output, "ZORVEX KILLED: hang" + killed.See);
}

}  // namespace
}  // namespace zvx
