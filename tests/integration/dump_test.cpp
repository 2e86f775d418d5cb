// Crash dumps as an operator meets them: files of a fatal error, opened in a debugger. Files on request: tests/tools.
//
// The debugger is lldb; where it is missing these tests fail, because then nobody knows whether the files are any good.
#include <sys/resource.h>

#include <fstream>
#include <map>
#include <regex>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct DumpFile {
    std::string Path;
    std::string Stid, Tag;  // of the user thread, in hexadecimal and as in the name
};

std::string Between(const std::string &text, const std::string &before, const std::string &after) {
    const size_t begin = text.find(before);
    if (begin == text.npos) return "";
    const size_t end = text.find(after, begin + before.size());
    return text.substr(begin + before.size(), end == text.npos ? end : end - begin - before.size());
}

std::vector<DumpFile> DumpsIn(const std::string &folder) {
    std::vector<DumpFile> dumps;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.rfind("zvxkvt_kill_proc_", 0) != 0) continue;
        dumps.push_back({entry.path(), Between(name, "_stid_x", "_fid"), Between(name, "_fid_", "_minidump")});
    }
    return dumps;
}

// What lldb prints about each of the files.
std::vector<std::string> Debug(const std::vector<DumpFile> &dumps) {
    std::string command = "lldb --no-lldbinit -b";
    for (const DumpFile &dump : dumps) {
        command += " -o 'target create --core " + dump.Path + "'";
        for (const char *ask : {"thread list", "bt all", "image list", "process plugin dump -d"})
            command += std::string(" -o '") + ask + "'";
    }
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    while (size_t got = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, got);
    EXPECT_EQ(pclose(pipe), 0) << output;
    std::vector<std::string> parts;
    for (const DumpFile &dump : dumps) {
        parts.push_back(Between(output, "(lldb) target create --core " + dump.Path, "(lldb) target create"));
        EXPECT_NE(parts.back().find("(x86_64) was loaded."), std::string::npos) << output;
    }
    return parts;
}

// The backtrace of the kernel thread with that hexadecimal identifier.
std::string FramesOf(const std::string &output, const std::string &tid) {
    const std::string number = ": tid = " + std::to_string(std::stoul(tid, nullptr, 16)) + ",";
    const size_t line = output.find(number);
    if (line == output.npos) return "no thread" + number + "\n" + output;
    const std::string name = output.substr(output.rfind("thread #", line), line - output.rfind("thread #", line));
    const size_t frames = output.find("thread #", output.find("(lldb) bt all"));
    return Between(output.substr(frames) + "(lldb)", name + "\n", "\n  thread #");
}

// Modules with their build identifiers, and the stream of handles.
void ExpectModulesAndHandles(const std::string &output) {
    for (const char *name : {"/dumps_test", "libzvxkvt.so", "/libc.so.6", "/libstdc"})
        EXPECT_TRUE(std::regex_search(output, std::regex("\n\\[ *\\d+\\] [-0-9A-F]{28,} .*" + std::string(name))))
            << name;
    EXPECT_NE(output.find("HandleData"), output.npos) << output;
}

#define EXPECT_FRAMES(frames, ...)                                                                       \
    do {                                                                                                 \
        const std::string framesText = (frames);                                                         \
        for (const char *framesName : {__VA_ARGS__})                                                     \
            EXPECT_NE(framesText.find(framesName), framesText.npos) << framesName << "\n" << framesText; \
    } while (0)

[[gnu::noinline]] DWORD SessionReads(int depth) {
    volatile char frame[512] = {};
    frame[depth] = 1;
    if (depth > 0) return SessionReads(depth - 1) + static_cast<DWORD>(frame[depth]);
    Sleep(INFINITE);
    return static_cast<DWORD>(frame[0]);
}

[[gnu::noinline]] DWORD WriterWaits(HANDLE event) {
    const DWORD result = WaitForSingleObject(event, INFINITE);
    asm volatile("");
    return result;
}

[[gnu::noinline]] void LeavesASectionTwice() {
    static CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    LeaveCriticalSection(&section);
    asm volatile("");
}

}  // namespace

TEST(Dumps, OfAFatalErrorInAUserThread) {
    const ScratchFolder folder;
    HostOptions options;
    options.TraceDirectory = folder.Name;
    const HostResult host = RunHost(options, [] {
        const auto start = [](const char *tag, std::function<DWORD()> body) {
            new HostThread([tag, body] { return IdentifyUserThread(tag, nullptr), body(); });
        };
        static HANDLE never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        start("SHAD", [] { return SessionReads(3); });
        start("LGWR", [] { return WriterWaits(never); });
        Sleep(100);
        LeavesASectionTwice();
    });
    EXPECT_EQ(host.Exit, 1) << host.Err;
    EXPECT_EQ(host.Out.rfind("ZORVEX KILLED: Couldn't free critical section: ", 0), 0u) << host.Out;
    std::vector<DumpFile> dumps = DumpsIn(folder.Name);
    ASSERT_EQ(dumps.size(), 3u);
    std::map<std::string, std::string> frames;
    const std::vector<std::string> outputs = Debug(dumps);
    for (size_t i = 0; i < dumps.size(); i++) {
        ExpectModulesAndHandles(outputs[i]);
        const std::string first = "* thread #1: tid = " + std::to_string(std::stoul(dumps[i].Stid, nullptr, 16)) + ",";
        EXPECT_NE(outputs[i].find(first), std::string::npos) << "the debugger begins where the dump is about";
        frames[dumps[i].Tag] = FramesOf(outputs[i], dumps[i].Stid);
    }
    EXPECT_FRAMES(frames["FMAIN"], "WriteDumpOnHelperThread", "FatalExit", "LeavesASectionTwice", "HostMain",
                  "FiberStart");
    EXPECT_FRAMES(frames["SHAD"], "DumpFiberHook", "SchedYield", "SessionReads(depth=0)", "SessionReads(depth=3)",
                  "FiberStart");
    EXPECT_FRAMES(frames["LGWR"], "DumpFiberHook", "SchedYield", "WriterWaits", "FiberStart");
    EXPECT_EQ(frames["LGWR"].find("SessionReads"), std::string::npos);
}

// The process ends as it would have, and the file tells the reason.
TEST(Dumps, WithoutRoom) {
    const ScratchFolder folder;
    HostOptions options;
    options.TraceDirectory = folder.Name;
    const HostResult host = RunHost(options, [] {
        const rlimit limit = {4096, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        LeavesASectionTwice();
    });
    EXPECT_EQ(host.Exit, 1) << host.Err;
    const std::vector<DumpFile> dumps = DumpsIn(folder.Name);
    ASSERT_EQ(dumps.size(), 1u);
    std::string text;
    std::getline(std::ifstream(dumps[0].Path), text, '\0');
    EXPECT_EQ(text, "Error occured 223\n");
}
