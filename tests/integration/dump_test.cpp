// Crash dumps as an operator meets them: files of a fatal error and of the debugger event, opened in a debugger.
//
// The debugger is lldb; where it is missing these tests fail, because then nobody knows whether the files are any good.
#include <dirent.h>
#include <sys/resource.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct DumpFile {
    std::string Path;
    std::string Tid, Stid, Tag;  // hexadecimal, as in the name
};

std::string Between(const std::string &text, const std::string &before, const std::string &after) {
    const size_t begin = text.find(before);
    if (begin == text.npos) return "";
    const size_t end = text.find(after, begin + before.size());
    return text.substr(begin + before.size(), end == text.npos ? end : end - begin - before.size());
}

std::vector<DumpFile> DumpsIn(const std::string &folder, const std::string &prefix) {
    std::vector<DumpFile> dumps;
    DIR *entries = opendir(folder.c_str());
    if (entries == nullptr) return dumps;
    while (const dirent *entry = readdir(entries)) {
        const std::string name = entry->d_name;
        if (name.rfind(prefix + "_", 0) != 0) continue;
        const bool user = name.find("_fid_") != name.npos;
        dumps.push_back({folder + "/" + name, Between(name, "_tid_x", user ? "_stid" : "_minidump"),
                         Between(name, "_stid_x", "_fid"), Between(name, "_fid_", "_minidump")});
    }
    closedir(entries);
    return dumps;
}

std::string Content(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
    const std::string images = Between(output, "(lldb) image list", "(lldb)");
    for (const char *name : {"/dumps_test", "libzvxkvt.so", "/libc.so.6", "/libstdc++.so.6"}) {
        const size_t at = images.find(name);
        ASSERT_NE(at, images.npos) << name << images;
        const std::string line = images.substr(images.rfind("\n", at), 40);
        size_t digits = 0;
        for (char c : line) digits += isxdigit(c) ? 1 : 0;
        EXPECT_GT(digits, 28u) << "no identifier: " << line;
    }
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

struct Dumps : testing::Test {
    void SetUp() override {
        // One instance a test, so that the name of its event is its own.
        Sid = "D" + std::to_string(getpid());
        setenv("ZORVEX_SID", Sid.c_str(), 1);
        Options.TraceDirectory = Folder.Name;
    }
    // Runs `body` in another process, which gets the debugger event of the host once it is there.
    pid_t StartOperator(std::function<void(HANDLE debuggerEvent)> body) const {
        fflush(nullptr);
        const pid_t child = fork();
        if (child != 0) return child;
        alarm(60);
        const std::string name = "zorvex_zvxkvt_debugger_" + Sid;
        HANDLE event;
        while ((event = OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str())) == nullptr) usleep(1000);
        body(event);
        _exit(0);
    }
    void Await(const char *what) const {
        const std::string name = what + Sid;
        HANDLE event;
        while ((event = OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str())) == nullptr) usleep(1000);
        WaitForSingleObject(event, INFINITE);
    }
    HANDLE Make(const char *what) const { return CreateEventA(nullptr, TRUE, FALSE, (what + Sid).c_str()); }
    std::string Sid;
    const ScratchFolder Folder;
    HostOptions Options;
};

// Starts the threads of a host and returns when each is where it stays.
void StartSessions() {
    static HANDLE never = CreateEventA(nullptr, TRUE, FALSE, "zvx_never");
    const auto start = [](const char *tag, std::function<DWORD()> body) {
        new HostThread([tag, body] {
            IdentifyUserThread(tag, nullptr);
            return body();
        });
    };
    start("SHAD", [] { return SessionReads(3); });
    start("LGWR", [] { return WriterWaits(never); });
    Sleep(100);
}

}  // namespace

TEST_F(Dumps, OfAFatalErrorInAUserThread) {
    const HostResult host = RunHost(Options, [] {
        StartSessions();
        LeavesASectionTwice();
    });
    EXPECT_EQ(host.Exit, 1) << host.Err;
    EXPECT_EQ(host.Out.rfind("ZORVEX KILLED: Couldn't free critical section: ", 0), 0u) << host.Out;
    std::vector<DumpFile> dumps = DumpsIn(Folder.Name, "zvxkvt_kill_proc");
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

TEST_F(Dumps, OfAFatalErrorOnAnotherThread) {
    Options.Schedulers = 32;
    const HostResult host = RunHost(Options, [] {});
    EXPECT_EQ(host.Exit, 1);
    const std::vector<DumpFile> dumps = DumpsIn(Folder.Name, "zvxkvt_kill_proc");
    ASSERT_EQ(dumps.size(), 1u);
    EXPECT_EQ(dumps[0].Tag, "");
    const std::string output = Debug(dumps)[0];
    ExpectModulesAndHandles(output);
    EXPECT_FRAMES(FramesOf(output, dumps[0].Tid), "FatalExit", "InitUserThreadScheduler", "BecomeHost", "main");
}

TEST_F(Dumps, OnRequestOfAnotherProcessUnderLoad) {
    Options.Schedulers = 2;
    const HANDLE ready = Make("ready"), stop = Make("stop");
    const std::string folder = Folder.Name;
    const pid_t asker = StartOperator([&](HANDLE event) {
        Await("ready");
        SetEvent(event);
        while (DumpsIn(folder, "zvxkvt_debug").size() < 11) usleep(1000);
        usleep(300000);  // nobody writes a second one
        SetEvent(stop);
    });
    static std::atomic<uint32_t> turns[8];
    const HostResult host = RunHost(Options, [&] {
        StartSessions();
        for (auto &turn : turns) {
            new HostThread([&turn]() -> DWORD {
                IdentifyUserThread("P00", nullptr);
                for (;;) turn++, Sleep(0);
            });
        }
        SetEvent(ready);
        while (WaitForSingleObject(stop, 10) != WAIT_OBJECT_0) {
        }
        for (auto &turn : turns) turn = 0;
        Sleep(200);
        for (auto &turn : turns) HOST_CHECK(turn != 0);
    });
    EXPECT_HOST_OK(host);
    int status = 0;
    waitpid(asker, &status, 0);
    EXPECT_EQ(status, 0);
    std::map<std::string, int> written;
    std::set<std::string> schedulers;
    std::vector<DumpFile> session;
    for (const DumpFile &dump : DumpsIn(Folder.Name, "zvxkvt_debug")) {
        if (dump.Tag == "UID") continue;  // a scheduler's own fiber, where that one served the request
        written[dump.Tid]++;
        schedulers.insert(dump.Stid);
        if (dump.Tag == "SHAD") session = {dump};
    }
    EXPECT_EQ(written.size(), 11u) << "FMAIN, two sessions and the load";
    for (const auto &[tid, count] : written) EXPECT_EQ(count, 1) << tid;
    EXPECT_EQ(schedulers.size(), 2u);
    ASSERT_EQ(session.size(), 1u);
    const std::string output = Debug(session)[0];
    ExpectModulesAndHandles(output);
    EXPECT_FRAMES(FramesOf(output, session[0].Stid), "SchedYield", "SessionReads(depth=3)", "FiberStart");
    CloseHandle(ready);
    CloseHandle(stop);
}

TEST_F(Dumps, AThousandSignalsAreMerged) {
    const HANDLE ready = Make("ready"), stop = Make("stop");
    const pid_t asker = StartOperator([&](HANDLE event) {
        Await("ready");
        for (int i = 0; i < 1000; i++) SetEvent(event), usleep(200);
        SetEvent(stop);
    });
    EXPECT_HOST_OK(RunHost(Options, [&] {
        StartSessions();
        SetEvent(ready);
        while (WaitForSingleObject(stop, 10) != WAIT_OBJECT_0) {
        }
        Sleep(100);
    }));
    waitpid(asker, nullptr, 0);
    std::map<std::string, size_t> written;
    for (const DumpFile &dump : DumpsIn(Folder.Name, "zvxkvt_debug")) written[dump.Tag]++;
    EXPECT_GE(written["SHAD"], 1u);
    EXPECT_EQ(written["SHAD"], written["LGWR"]) << "every sweep is whole";
    EXPECT_LT(written["SHAD"], 900u);
    CloseHandle(ready);
    CloseHandle(stop);
}

// Where a dump cannot be written the process ends as it would have.
TEST_F(Dumps, WithoutAPlaceOrRoomOrTheFunction) {
    struct Case {
        const char *Fail;
        rlim_t FileLimit;
        const char *Folder;  // below the scratch folder, "" for itself
        bool Homeless;       // the current directory is gone
        const char *Content;
    };
    for (const Case &c :
         {Case{"GetProcAddress:1:127", RLIM_INFINITY, "", false, "Error occured 127\n"},
          Case{"MiniDumpWriteDump:1:31", RLIM_INFINITY, "", false, "Error occured 31\n"},
          Case{"", 4096, "", false, "Error occured 223\n"}, Case{"", RLIM_INFINITY, "/none", false, nullptr},
          Case{"", RLIM_INFINITY, "/none", true, nullptr}}) {
        const ScratchFolder place, home;
        HostOptions options;
        options.TraceDirectory = place.Name + c.Folder;
        setenv("ZVXKVT_FAIL", c.Fail, 1);
        const HostResult host = RunHost(options, [&] {
            if (chdir(home.Name.c_str()) != 0 || (c.Homeless && rmdir(home.Name.c_str()) != 0)) return;
            const rlimit limit = {c.FileLimit, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
            LeavesASectionTwice();
        });
        unsetenv("ZVXKVT_FAIL");
        EXPECT_EQ(host.Exit, 1) << host.Err;
        EXPECT_EQ(host.Out.rfind("ZORVEX KILLED: ", 0), 0u) << host.Out;
        const auto dumps = DumpsIn(c.Folder[0] == 0 ? place.Name : home.Name, "zvxkvt_kill_proc");
        ASSERT_EQ(dumps.size(), c.Homeless ? 0u : 1u);
        if (c.Content != nullptr) {
            EXPECT_EQ(Content(dumps[0].Path), c.Content);
        } else if (!c.Homeless) {
            EXPECT_NE(dumps[0].Path.find("_dtid_x"), std::string::npos);
        }
    }
}
