// Crash dumps as an operator meets them: files of a fatal error, opened in a debugger. Files on request: tests/tools.
//
// The debugger is lldb; where it is missing this test fails, because then nobody knows whether the files are any good.
#include <map>
#include <regex>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

// The dumps in a folder: the user thread's tag, and the name of the file.
std::map<std::string, std::string> DumpsIn(const std::string &folder) {
    std::map<std::string, std::string> dumps;
    std::smatch part;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path();
        if (!std::regex_match(name, part, std::regex(".*/zvxkvt_kill_proc_.*_fid_(.*)_minidump.*"))) continue;
        EXPECT_TRUE(dumps.emplace(part[1], name).second) << name;
    }
    return dumps;
}

// What lldb prints about a dump. The backtrace is that of the thread with which the debugger begins.
std::string Debug(const std::string &dump) {
    std::string command = "lldb --no-lldbinit -b -o 'target create --core " + dump + "' -o bt", output;
    for (const char *ask : {"thread list", "image list", "process plugin dump -d"})
        command += std::string(" -o '") + ask + "'";
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    while (size_t got = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, got);
    EXPECT_EQ(pclose(pipe), 0) << output;
    return output;
}

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
    const ChildResult host = RunHost({1, {}, folder.Name}, [] {
        const auto start = [](const char *tag, std::function<DWORD()> body) {
            new HostThread([tag, body] { return IdentifyUserThread(tag, nullptr), body(); });
        };
        static HANDLE never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        start("SHAD", [] { return SessionReads(3); });
        start("LGWR", [] { return WriterWaits(never); });
        Sleep(100);
        LeavesASectionTwice();
    });
    EXPECT_EQ(host.ExitCode, 1);
    EXPECT_EQ(host.Output.rfind("ZORVEX KILLED: Couldn't free critical section: ", 0), 0u) << host.Output;
    const std::map<std::string, std::vector<std::string>> frames = {
        {"FMAIN", {"WriteDumpOnHelperThread", "FatalExit", "LeavesASectionTwice", "HostMain", "FiberStart"}},
        {"SHAD", {"DumpFiberHook", "SchedYield", "SessionReads(depth=0)", "SessionReads(depth=3)", "FiberStart"}},
        {"LGWR", {"DumpFiberHook", "SchedYield", "WriterWaits", "FiberStart"}}};
    const std::map<std::string, std::string> dumps = DumpsIn(folder.Name);
    ASSERT_EQ(dumps.size(), frames.size());
    for (const auto &[tag, dump] : dumps) {
        const std::string output = Debug(dump);
        SCOPED_TRACE(dump + "\n" + output);
        ASSERT_EQ(frames.count(tag), 1u);
        for (const std::string &frame : frames.at(tag)) EXPECT_NE(output.find(frame), output.npos) << frame;
        EXPECT_EQ(output.find("SessionReads") != output.npos, tag == "SHAD") << "another thread's stack";
        // The debugger begins where the dump is about.
        std::smatch stid;
        ASSERT_TRUE(std::regex_search(dump, stid, std::regex("_stid_x([0-9A-F]+)_")));
        const std::string number = std::to_string(std::stoul(stid[1], nullptr, 16));
        EXPECT_NE(output.find("* thread #1: tid = " + number + ","), output.npos);
        // Modules with their build identifiers, and the stream of handles.
        for (const char *name : {"/dumps_test", "libzvxkvt.so", "/libc.so.6", "/libstdc"})
            EXPECT_TRUE(std::regex_search(output, std::regex("\n\\[ *\\d+\\] [-0-9A-F]{28,} .*" + std::string(name))))
                << name;
        EXPECT_NE(output.find("HandleData"), output.npos);
    }
}
