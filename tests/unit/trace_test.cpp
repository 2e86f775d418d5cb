// The trace file: where it is, what its lines look like, what a line never changes, and texts that are too long.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "child.h"
#include "config/settings.h"
#include "diag/trace.h"
#include "sched/records.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;
using test::FreshDirectory;
using test::OnlyFile;
using test::ReadWhole;

std::string ExpectedName(const std::string &sid) {
    return "zvxkvt_" + sid + "_pid_" + std::to_string(getpid()) + "_2005_9_3_14_7_9.txt";
}

TEST(Trace, NameAndLineFormats) {
    setenv("ZORVEX_SID", "PROD", 1);
    const std::string dir = FreshDirectory("trace_lines");
    gScript.Qpc = 0x1234'89ABCDEF;
    TraceInit(dir.c_str());
    EXPECT_EQ(gTraceFileName, ExpectedName("PROD"));
    EXPECT_EQ(OnlyFile(dir), "") << "the file is opened by the first line";

    gScript.LocalTime = {2007, 1, 0, 2, 3, 4, 5, 999};
    WriteTraceLine("plain\n", false, false, false);
    EXPECT_EQ(OnlyFile(dir), ExpectedName("PROD")) << "named after the first call, not after the line";
    WriteTraceLine("stamped %s %n\n", false, true, false);
    EXPECT_EQ(ReadWhole(dir + "/" + OnlyFile(dir)), "") << "not asked to flush";
    WriteTraceLine("exact\n", true, true, true);
    TracePrintf("%d and %s\n", 7, "text");
    TraceLog(false, true, false, "bare %u\n", 5u);
    TraceLog(false, true, true, "no prefix\n");
    EXPECT_EQ(ReadWhole(dir + "/" + OnlyFile(dir)),
              "plain\n[01/02/07 03:04:05] stamped %s %n\n[01/02/07 03:04:05 x0000123489ABCDEF] exact\n"
              "[01/02/07 03:04:05] 7 and text\nbare 5\n[01/02/07 03:04:05 x0000123489ABCDEF] no prefix\n");
    std::filesystem::remove_all(dir);
}

TEST(Trace, DirectorySeparators) {
    unsetenv("ZORVEX_SID");
    const std::string base = FreshDirectory("trace_dirs");
    std::filesystem::create_directories(base + "/C:\\logs");
    std::filesystem::current_path(base);
    const std::string name = ExpectedName("");

    // A backslash that is added here separates; the file lies in the directory.
    TraceInit("C:\\logs");
    EXPECT_STREQ(gTraceDir, "C:\\logs\\");
    WriteTraceLine("one\n", true, false, false);
    EXPECT_EQ(ReadWhole(base + "/C:\\logs/" + name), "one\n");

    // One that the host gave is a character like any other, and no second one is added.
    TraceInit("C:\\logs\\");
    EXPECT_STREQ(gTraceDir, "C:\\logs\\");
    WriteTraceLine("two\n", true, false, false);
    EXPECT_EQ(ReadWhole(base + "/C:\\logs\\" + name), "two\n");

    TraceInit((base + "/C:\\logs").c_str());
    EXPECT_EQ(gTraceDir, base + "/C:\\logs/");
    WriteTraceLine("three\n", true, false, false);
    EXPECT_EQ(ReadWhole(base + "/C:\\logs/" + name), "one\nthree\n") << "appended to";
    TraceInit((base + "/").c_str());
    EXPECT_EQ(gTraceDir, base + "/");

    // No such directory: the current one, under the same name. Neither: nothing, and the next line tries again.
    TraceInit("missing");
    WriteTraceLine("four\n", true, false, false);
    EXPECT_EQ(ReadWhole(base + "/" + name), "four\n");
    std::filesystem::remove(base + "/" + name);
    std::filesystem::create_directory(base + "/" + name);
    TraceInit("late");
    WriteTraceLine("lost\n", true, false, false);
    std::filesystem::create_directory(base + "/late");
    WriteTraceLine("five\n", true, false, false);
    EXPECT_EQ(ReadWhole(base + "/late/" + name), "five\n");

    // A null directory leaves everything as it is.
    TraceInit(nullptr);
    EXPECT_STREQ(gTraceDir, "late\\");
    std::filesystem::current_path("/");
    std::filesystem::remove_all(base);
}

TEST(Trace, LongNamesAreCutWhole) {
    // 130 characters of two bytes: the name of the instance is cut, not the process or the time.
    std::string sid;
    for (int i = 0; i < 130; i++) sid += "\u00e9";
    setenv("ZORVEX_SID", sid.c_str(), 1);
    const std::string dir = FreshDirectory("trace_long");
    TraceInit(dir.c_str());
    EXPECT_EQ(std::string(gSid), sid.substr(0, 258)) << "259 bytes would end in half a character";
    const std::string end = ExpectedName("").substr(std::strlen("zvxkvt_"));
    const std::string name = gTraceFileName;
    EXPECT_GE(name.size(), 254u);
    EXPECT_LE(name.size(), 255u);
    EXPECT_EQ(name.substr(name.size() - end.size()), end);
    EXPECT_EQ((name.size() - end.size() - std::strlen("zvxkvt_")) % 2, 0u);
    std::filesystem::remove_all(dir);

    // The directory: up to 257 characters get a separator, more do not, 259 are kept.
    for (const size_t length : {257u, 258u, 259u, 400u}) {
        const std::string longDir = "/" + std::string(length - 1, 'd');
        TraceInit(longDir.c_str());
        EXPECT_EQ(gTraceDir, length < 258 ? longDir + "/" : longDir.substr(0, 259)) << length;
    }
}

TEST(Trace, LongTextsAreCutWhole) {
    setenv("ZORVEX_SID", "CUT", 1);
    const std::string dir = FreshDirectory("trace_cut");
    TraceInit(dir.c_str());
    const std::string path = dir + "/" + gTraceFileName;
    // Every way in which the cut can fall into a character, at each of the two limits.
    const std::string filler(1600, 'a');
    for (const std::string wide : {"\u00e9", "\u20ac", "\U0001F600"}) {
        for (size_t before = 0; before < 5; before++) {
            for (const size_t limit : {size_t{1023}, size_t{1543}}) {
                const std::string head = filler.substr(0, limit - before);
                std::filesystem::remove(path);
                TraceInit(dir.c_str());
                if (limit == 1023)
                    TraceLog(false, true, false, "%s%s%s", head.c_str(), wide.c_str(), "tail");
                else
                    TracePrintf("%s%s%s", head.c_str(), wide.c_str(), "tail");
                std::string text = ReadWhole(path);
                if (limit == 1543) text = text.substr(text.find("] ") + 2);
                std::string whole = head + wide + "tail";
                const std::string expected = before < wide.size() ? head : whole.substr(0, limit);
                EXPECT_EQ(text, expected) << wide << " " << before << " before " << limit;
            }
        }
    }
    // Bytes that are no characters are cut where the buffer ends.
    std::filesystem::remove(path);
    TraceInit(dir.c_str());
    TraceLog(false, true, false, "%s", std::string(2000, '\x80').c_str());
    EXPECT_EQ(ReadWhole(path), std::string(1023, '\x80'));
    std::filesystem::remove_all(dir);
}

TEST(Trace, PrefixAndLastError) {
    const std::string dir = FreshDirectory("trace_prefix");
    TraceInit(dir.c_str());
    const std::string path = dir + "/" + gTraceFileName;
    std::filesystem::create_directory(path);  // the line cannot be written, which sets errors of its own
    std::filesystem::current_path("/proc");
    os::SetLastError(1234);
    errno = ERANGE;
    TraceLog(true, true, true, "lost\n");
    EXPECT_EQ(os::GetLastError(), 1234u);
    EXPECT_EQ(errno, ERANGE);
    TracePrintf("lost\n");
    EXPECT_EQ(os::GetLastError(), 1234u);
    std::filesystem::remove(path);
    std::filesystem::current_path("/");

    TraceLog(true, true, false, "from a thread\n");
    const std::string thread = std::to_string(os::GetCurrentThreadId());

    // The same thread as a user thread.
    auto F = std::make_unique<Fiber>();
    auto S = std::make_unique<Scheduler>();
    S->Index = 3;
    F->OsThreadId.store(4711);
    F->Sched.store(S.get());
    os::ThreadBlock *block = os::CurrentThreadBlock();
    block->FiberData = F.get();
    F->Tag.store("SHAD");
    TraceLog(true, true, false, "fiber mode is off\n");
    SetOption(su_InFiber | su_FiberMode);
    TraceLog(true, true, false, "tagged\n");
    F->Tag.store(nullptr);
    os::SetLastError(5);
    TraceLog(true, true, false, "untagged\n");
    F->Tag.store("PMON");
    TraceLog(true, true, false, "not written\n");
    TraceLog(false, true, false, "written\n");
    F->Tag.store("PMONX");
    TraceLog(true, true, false, "not quite\n");
    block->FiberData = reinterpret_cast<void *>(os::kNoFiberData);
    EXPECT_EQ(ReadWhole(path), "E[1234]T[" + thread + "] from a thread\nE[1234]T[" + thread +
                                   "] fiber mode is off\nE[1234]FT[4711]S[3][SHAD] tagged\n"
                                   "E[5]FT[4711]S[3][NULL] untagged\nwritten\nE[5]FT[4711]S[3][PMONX] not quite\n");
    std::filesystem::remove_all(dir);
}

// Latecomers to the set-up wait for it, and lines of several threads never mix while the name changes under them.
TEST(Trace, ManyThreads) {
    const std::string dir = FreshDirectory("trace_threads");
    const std::string first = dir + "/a";
    const std::string second = dir + "/b";
    std::filesystem::create_directory(first);
    std::filesystem::create_directory(second);
    std::filesystem::current_path(dir);
    std::atomic<bool> go{false};
    std::vector<std::thread> writers;
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    for (int t = 0; t < kThreads; t++)
        writers.emplace_back([&go, t] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < kLines; i++)
                TraceLog(false, i % 7 == 0, false, "%s%d\n", std::string(50, 'x').c_str(), t);
        });
    go.store(true);
    for (int i = 0; i < 50; i++) TraceInit(i % 2 != 0 ? first.c_str() : second.c_str());
    for (std::thread &writer : writers) writer.join();
    TraceInit("");  // closes the file
    const std::string name = gTraceFileName;
    std::vector<int> counts(kThreads);
    for (const std::string &path : {name, first + "/" + name, second + "/" + name}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            ASSERT_EQ(line.size(), 51u) << line;
            ASSERT_EQ(line.substr(0, 50), std::string(50, 'x'));
            counts[static_cast<size_t>(line[50] - '0')]++;
        }
    }
    EXPECT_EQ(counts, std::vector<int>(kThreads, kLines));
    std::filesystem::current_path("/");
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zvx
