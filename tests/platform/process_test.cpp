// tests/platform/process_test.cpp - processes started, watched and ended; consoles, and routines queued to a thread.
// Modules and calls that may fault: tests/integration.
#include <sched.h>

#include <csignal>
#include <deque>

#include "platform/base/command_line.h"
#include "platform/os_process.h"
#include "support.h"

namespace {

std::vector<std::string> Split(const std::string &line) {
    char **words = os::SplitCommandLine(line.c_str());
    std::vector<std::string> result;
    for (char **at = words; *at != nullptr; at++) result.emplace_back(*at);
    free(words);
    return result;
}

struct Started {
    PROCESS_INFORMATION Info{};
    const DWORD Error;
    explicit Started(std::string line, DWORD flags = 0, const char *folder = nullptr, void *environment = nullptr,
                     STARTUPINFOA *startup = nullptr)
        : Error(ErrorOf(os::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, flags, environment, folder,
                                           startup, &Info))) {}
    ~Started() {
        for (const HANDLE handle : {Info.hProcess, Info.hThread}) os::CloseHandle(handle);
    }
    DWORD End(DWORD ms = 20000) const {
        DWORD code = 0xDEAD;
        EXPECT_EQ(os::WaitForSingleObject(Info.hProcess, ms), WAIT_OBJECT_0);
        EXPECT_TRUE(os::GetExitCodeProcess(Info.hProcess, &code));
        return code;
    }
};

// What a shell's commands write, which runs in the root folder and gets that much input.
std::string OutputOf(const std::string &commands, DWORD flags = 0, void *environment = nullptr, size_t input = 0) {
    const Scratch in(input), out(0);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.Open(0);
    startup.hStdOutput = out.Open(0);
    EXPECT_EQ(Started("sh -c " + commands, flags, "/", environment, &startup).End(), 7u);
    for (const HANDLE handle : {startup.hStdInput, startup.hStdOutput}) os::CloseHandle(handle);
    return ReadWhole(out.Name);
}

}  // namespace

TEST(Process, CommandLinesAreSplitAsTheImitatedSystemDoes) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(Split("  "), Words{});
    EXPECT_EQ(Split("\"c:\\a b\\\" x"), (Words{"c:\\a b\\", "x"})) << "the program knows no escapes";
    EXPECT_EQ(Split("p a\\\\b \"c d\"e \t f"), (Words{"p", "a\\\\b", "c de", "f"}));
    EXPECT_EQ(Split("p a\\\"b \"c\\\\\" d\\\\\\\"e"), (Words{"p", "a\"b", "c\\", "d\\\"e"}));
    EXPECT_EQ(Split("p \"\" \"a\"\"b\" \"open end"), (Words{"p", "", "a\"b", "open end"}));
}

TEST(Process, AChildGetsItsWordsStreamsEnvironmentAndDirectory) {
    EXPECT_EQ(OutputOf("\"printf '[%s]' \\\"$@\\\"; exit 7\" name \"a b\" c\\\"d"), "[a b][c\"d]");
    EXPECT_EQ(OutputOf("\"cat; exit 7\"", 0, nullptr, 5000), Pattern(5000));
    // Where this process may use two processors or more, so may the child, although its maker is bound to one.
    uint32_t process = 0, system = 0;
    cpu_set_t set;
    os::GetProcessAffinityMask(os::GetCurrentProcess(), &process, &system);
    sched_getaffinity(0, sizeof set, &set);
    const std::string processors = " " + std::to_string(CPU_COUNT(&set)) + "\n";
    const std::string where = "\"echo $PWD $ZVX_TOLD $(nproc); exit 7\"";
    EXPECT_NE(os::SetThreadAffinityMask(os::GetCurrentThread(), 1), 0u);
    char narrow[] = "ZVX_TOLD=narrow\0LANG=C\0";
    EXPECT_EQ(OutputOf(where, 0, narrow), "/ narrow" + processors);
    WCHAR wide[] = L"LANG=C\0ZVX_TOLD=\u00e4\0";
    EXPECT_EQ(OutputOf(where, CREATE_UNICODE_ENVIRONMENT, wide), "/ \xc3\xa4" + processors);
    EXPECT_EQ(os::SetThreadAffinityMask(os::GetCurrentThread(), process), 1u) << "and is bound again";
    // By a name that is looked for: beside this program; ".exe" may be too much.
    EXPECT_EQ(Started("platform_process.exe --gtest_filter=none").End(), 0u);
    // What cannot be started.
    const Scratch text(100);
    chmod(text.Name.c_str(), 0700);
    EXPECT_EQ(Started("zvx-no-such-program").Error, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Started("./" + text.Name).Error, ERROR_BAD_EXE_FORMAT);
    EXPECT_EQ(Started("sleep 30", CREATE_SUSPENDED).Error, ERROR_NOT_SUPPORTED);
    EXPECT_NE(Started("sleep 0", 0, "/zvx-no-such-folder").Error, ERROR_SUCCESS);
}

TEST(Process, HandlesTellTheEndAndHow) {
    const Started child("sleep 30"), signalled("sleep 30");
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeProcess(child.Info.hProcess, &code) && code == STILL_ACTIVE);
    EXPECT_EQ(os::GetProcessId(child.Info.hProcess), child.Info.dwProcessId);
    const HANDLE opened = os::OpenProcess(PROCESS_ALL_ACCESS, FALSE, child.Info.dwProcessId);
    EXPECT_EQ(ErrorOf(os::QueueUserAPC([](ULONG_PTR) {}, child.Info.hThread, 0)), ERROR_NOT_SUPPORTED);
    const HANDLE both[] = {child.Info.hThread, opened};
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(os::TerminateProcess(opened, 0x12345678));
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, TRUE, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(child.End(0), 0x12345678u) << "more than the kernel keeps of an exit";
    EXPECT_TRUE(os::GetExitCodeThread(child.Info.hThread, &code) && code == 0x12345678);
    EXPECT_EQ(ErrorOf(os::TerminateProcess(opened, 1)), ERROR_ACCESS_DENIED);
    // Who sees it ended finds its handle signalled, however many threads wait for its first thread.
    std::deque<std::thread> waiters;
    for (int i = 0; i < 30; i++)
        waiters.emplace_back([&] { EXPECT_EQ(os::WaitForSingleObject(signalled.Info.hThread, 20000), WAIT_OBJECT_0); });
    Pause(20);
    kill(static_cast<pid_t>(signalled.Info.dwProcessId), SIGTERM);
    do EXPECT_TRUE(os::GetExitCodeProcess(signalled.Info.hProcess, &code));
    while (code == STILL_ACTIVE);
    EXPECT_EQ(signalled.End(0), 128u + SIGTERM);
    for (std::thread &waiter : waiters) waiter.join();
    // A process that somebody else started, as a shell did here: its end is seen, its code is not.
    const DWORD other = static_cast<DWORD>(std::stoul(OutputOf("\"sleep 0.5 >/dev/null & echo $!; exit 7\"")));
    const HANDLE stranger = os::OpenProcess(0, FALSE, other);
    EXPECT_TRUE(os::GetExitCodeProcess(stranger, &code) && code == STILL_ACTIVE);
    EXPECT_EQ(os::WaitForSingleObject(stranger, 20000), WAIT_OBJECT_0);
    EXPECT_FALSE(os::GetExitCodeProcess(stranger, &code));
    EXPECT_EQ(ErrorOf(os::OpenProcess(0, FALSE, 0x7FFFFFF0)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RunInChild([] { os::TerminateProcess(os::GetCurrentProcess(), 21); }).ExitCode, 21);
    // Many at once; those whose handles are closed while they run are reaped as well.
    std::deque<Started> children;
    for (int i = 0; i < 50; i++) {
        children.emplace_back("sh -c \"exit " + std::to_string(i) + "\"");
        if (i % 2 == 1) children.pop_back();
    }
    for (size_t i = 0; i < children.size(); i++) EXPECT_EQ(children[i].End(), 2 * i);
    siginfo_t info;
    const auto look = [&] { return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT); };
    for (int i = 0; i < 5000 && look() == 0; i++) Pause(1);
    EXPECT_TRUE(look() == -1 && errno == ECHILD);
}

TEST(Console, GivesLinesAsAConsoleDoes) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    const HANDLE console =
        os::CreateFileA(ptsname(master), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const auto type = [&](const char *text) { EXPECT_GT(write(master, text, strlen(text)), 0); };
    const auto read = [&](DWORD room) {
        std::string text(room, '?');
        DWORD got = 0xDEAD;
        EXPECT_TRUE(os::ReadConsoleA(console, text.data(), room, &got, nullptr)) << os::GetLastError();
        return text.substr(0, got);
    };
    type("one line\nsecond\nx\n");
    for (const auto &[room, text] :
         {std::pair{100u, "one line\r\n"}, {4u, "sec"}, {100u, "ond\r\n"}, {1u, "x"}, {1u, "\r"}, {1u, "\n"}})
        EXPECT_EQ(read(room), text);
    type("\004");
    EXPECT_EQ(read(100), "") << "the end of the input";
    std::thread typist([&] { Pause(50), type("later\n"); });
    EXPECT_EQ(read(100), "later\r\n");
    typist.join();
}

TEST(Apc, RunInOrderInAlertableWaitsOnly) {
    static const HANDLE go = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    static std::string ran;
    const auto append = [](ULONG_PTR c) {
        ran += static_cast<char>(c);
        if (c == 'c') os::QueueUserAPC([](ULONG_PTR) { ran += 'd'; }, os::GetCurrentThread(), 0);
    };
    const auto wait = [](void *) -> DWORD {
        os::WaitForSingleObject(go, INFINITE);
        ran += "not before ";
        return os::SleepEx(20000, TRUE) == WAIT_IO_COMPLETION && os::SleepEx(0, TRUE) == 0;
    };
    const HANDLE thread = os::CreateThread(nullptr, 0, wait, nullptr, 0, nullptr);
    for (const char c : {'a', 'b', 'c'}) EXPECT_TRUE(os::QueueUserAPC(append, thread, static_cast<ULONG_PTR>(c)));
    Pause(30);
    os::SetEvent(go);
    EXPECT_EQ(os::WaitForSingleObject(thread, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(ran, "not before abcd");
}
