// The trace file: where it is, what its lines look like, what a line never changes, and texts that are too long; and
// the end of the process on an internal inconsistency: what is written where, once, whatever locks are held.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "child.h"
#include "config/settings.h"
#include "sched/records.h"

namespace zvx {
namespace {

namespace fs = std::filesystem;
using os::script::gScript;
using test::Kill;

std::string ExpectedName(const std::string &sid) {
    return "zvxkvt_" + sid + "_pid_" + std::to_string(getpid()) + "_2005_9_3_14_7_9.txt";
}

struct Trace : testing::Test {
    void Start() { TraceInit(Dir.Name.c_str()); }
    const test::Folder Dir{};
};

TEST_F(Trace, NameAndLineFormats) {
    setenv("ZORVEX_SID", "PROD", 1);
    gScript.Qpc = 0x1234'89ABCDEF;
    Start();
    EXPECT_EQ(Dir.OnlyFile(), "") << "the file is opened by the first line";
    gScript.LocalTime = {2007, 1, 0, 2, 3, 4, 5, 999};
    WriteTraceLine("plain\n", false, false, false);
    EXPECT_EQ(Dir.OnlyFile(), ExpectedName("PROD")) << "named after the first call, not after the line";
    WriteTraceLine("stamped %s %n\n", false, true, false);
    EXPECT_EQ(Dir.Text(), "") << "not asked to flush";
    WriteTraceLine("exact\n", true, true, true);
    TracePrintf("%d and %s\n", 7, "text");
    TraceLog(false, true, false, "bare %u\n", 5u);
    EXPECT_EQ(Dir.Text(),
              "plain\n[01/02/07 03:04:05] stamped %s %n\n[01/02/07 03:04:05 x0000123489ABCDEF] exact\n"
              "[01/02/07 03:04:05] 7 and text\nbare 5\n");
}

TEST_F(Trace, Directories) {
    unsetenv("ZORVEX_SID");
    const std::string base = Dir.Name, name = ExpectedName("");
    fs::create_directories(base + "/C:\\logs");
    fs::current_path(base);
    const auto write = [](const std::string &dir, const char *line) {
        TraceInit(dir.c_str());
        WriteTraceLine(line, true, false, false);
        return std::string(gTraceDir);
    };
    // A backslash that is added here separates; one that the host gave is a character like any other.
    EXPECT_EQ(write("C:\\logs", "one\n"), "C:\\logs\\");
    EXPECT_EQ(write("C:\\logs\\", "two\n"), "C:\\logs\\");
    EXPECT_EQ(write(base + "/C:\\logs", "three\n"), base + "/C:\\logs/");
    EXPECT_EQ(ReadWhole(base + "/C:\\logs\\" + name), "two\n");
    EXPECT_EQ(ReadWhole(base + "/C:\\logs/" + name), "one\nthree\n") << "appended to";
    // No such directory: the current one, under the same name.
    write("late", "four\n");
    EXPECT_EQ(ReadWhole(base + "/" + name), "four\n");
    fs::current_path("/");
}

// Every way in which the cut of a long line can fall into a character.
TEST_F(Trace, CutsFallBetweenCharacters) {
    for (const std::string wide : {"\u00e9", "\u20ac", "\U0001F600", "\x80"})  // the last one is no character
        for (size_t before = 0; before < 5; before++) {
            const std::string head(1023 - before, 'a');
            const std::string whole = head + wide + "tail";
            Start();
            fs::remove(Dir.Name + "/" + gTraceFileName);
            TraceLog(false, true, false, "%s", whole.c_str());
            EXPECT_EQ(Dir.Text(), before < wide.size() ? head : whole.substr(0, 1023)) << wide << before;
        }
}

TEST_F(Trace, PrefixAndLastError) {
    Start();
    const std::string path = Dir.Name + "/" + gTraceFileName;
    fs::create_directory(path);  // the line cannot be written, which sets errors of its own
    fs::current_path("/proc");
    os::SetLastError(1234);
    errno = ERANGE;
    TraceLog(true, true, true, "lost\n");
    EXPECT_TRUE(os::GetLastError() == 1234 && errno == ERANGE);
    fs::remove(path);
    // A thread, and the same as a user thread.
    TraceLog(true, true, false, "\n");
    const auto F = std::make_unique<Fiber>();
    const auto S = std::make_unique<Scheduler>();
    S->Index = 3;
    F->OsThreadId.store(4711);
    F->Home.store(S.get());
    os::CurrentThreadBlock()->FiberData = F.get();
    SetOption(su_InFiber | su_FiberMode);
    for (const char *tag : {"SHAD", static_cast<const char *>(nullptr), "PMON"}) {  // PMON writes nothing
        F->Tag.store(tag);
        TraceLog(true, true, false, "\n");
    }
    os::CurrentThreadBlock()->FiberData = reinterpret_cast<void *>(os::kNoFiberData);
    EXPECT_EQ(Dir.Text(), "E[1234]T[" + std::to_string(os::GetCurrentThreadId()) +
                              "] \nE[1234]FT[4711]S[3][SHAD] \nE[1234]FT[4711]S[3][NULL] \n");
}

// Latecomers to the set-up wait for it, and lines of several threads never mix while the name changes under them.
TEST_F(Trace, ManyThreads) {
    const std::string dirs[] = {Dir.Name + "/a", Dir.Name + "/b"};
    for (const std::string &dir : dirs) fs::create_directory(dir);
    fs::current_path(dirs[0]);
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; t++)
        writers.emplace_back([t] {
            for (int i = 0; i < 500; i++) TraceLog(false, i % 7 == 0, false, "%s%d\n", std::string(50, 'x').c_str(), t);
        });
    for (int i = 0; i < 50; i++) TraceInit(dirs[i % 2].c_str());
    for (std::thread &writer : writers) writer.join();
    TraceInit("");  // closes the file
    std::map<std::string, int> counts;
    for (const std::string &dir : dirs) {
        std::ifstream file(dir + "/" + gTraceFileName);
        for (std::string line; std::getline(file, line);) counts[line]++;
    }
    EXPECT_EQ(counts.size(), 4u);
    for (const char *t : {"0", "1", "2", "3"}) EXPECT_EQ(counts[std::string(50, 'x') + t], 500);
    fs::current_path("/");
}

// ---- The end of the process ---------------------------------------------------------------------------

TEST(FatalExit, WritesDumpsThenTells) {
    // With crash dumps that were written before: no second set, but both lines.
    for (const bool dying : {false, true}) {
        const test::Killed killed = Kill([dying] {
            gDying.store(dying ? 1 : 0);
            gDumpVariables = [] { TracePrintf("variables\n"); };
            gDumpProcess = [](const char *prefix) {
                TracePrintf("dump %s\n", prefix);
                std::fputs("host output ", stdout);  // comes out before the line, though nobody flushed it
            };
            FatalExit("broken %s E[%d]", "thing", -5);
        });
        const std::string text = "ZORVEX KILLED: broken thing E[-5]";
        EXPECT_EQ(killed.Output, (dying ? "" : "host output ") + text + "|");
        EXPECT_EQ(killed.Lines, text + "\nvariables\n" + (dying ? "" : "dump zvxkvt_kill_proc\n"));
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
        const test::Killed killed = Kill([section] {
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
        EXPECT_EQ(killed.Output, "ZORVEX KILLED: first|");
        EXPECT_EQ(killed.Lines, "ZORVEX KILLED: first\n");
    }
}

// Somebody sits on the trace lock for good: the lines are lost, once a second is waited, the console line is not.
TEST(FatalExit, TraceLockIsNeverFreed) {
    const test::Killed killed = Kill([] {
        WriteTraceLine("before\n", true, false, false);
        std::thread other([] {
            os::EnterCriticalSection(&gTraceLock);
            gStage.store(1);
            for (;;) pause();
        });
        AwaitStage(1);
        gDumpVariables = [] {
            for (int i = 0; i < 100; i++) TracePrintf("never\n");
        };
        static const uint32_t start = os::GetTickCount();
        gDumpProcess = [](const char *) { std::printf("after %u ms ", os::GetTickCount() - start); };
        FatalExit("stuck");
    });
    EXPECT_EQ(killed.Output, "after 1000 ms ZORVEX KILLED: stuck|");
    EXPECT_EQ(killed.Lines, "before\n");
}

// Dumps that hang: the watchdog, which was started before them, tells the console and ends the process, not before
// thirty silent seconds and not much later.
TEST(FatalExit, HangingDumpsAreWatched) {
    const test::Killed killed = Kill([] {
        gDumpProcess = [](const char *) {
            // The thread that would hang here plays the watchdog's part, while time passes.
            gScript.OnSleep = [](DWORD ms) {
                static int sleeps = 0;
                os::script::AdvanceClock(ms);
                if (++sleeps == 250) NoteFatalProgress();
                if (sleeps > 600) _exit(97);
                if (sleeps == 549) std::printf("549 sleeps ");
            };
            std::thread([] { gScript.Threads.back()(nullptr); }).join();
        };
        FatalExit("hang");
    });
    EXPECT_EQ(killed.Output, "549 sleeps ZORVEX KILLED: hang|");
}

}  // namespace
}  // namespace zvx
