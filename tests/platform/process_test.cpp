// tests/platform/process_test.cpp - processes started, watched and ended; consoles, modules, routines queued to a
// thread, and calls that may fault.
#include <stdlib.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>

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
    BOOL Good = FALSE;
    DWORD Error = 0;
    PROCESS_INFORMATION Info{};
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

std::unique_ptr<Started> Start(std::string line, STARTUPINFOA *startup = nullptr, DWORD flags = 0,
                               void *environment = nullptr, const char *folder = nullptr) {
    auto started = std::make_unique<Started>();
    started->Good = os::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, flags, environment, folder,
                                       startup, &started->Info);
    started->Error = os::GetLastError();
    return started;
}

std::string ReadAll(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The child's output, which ends with the child.
std::string OutputOf(const std::string &line, DWORD expectedCode, void *environment = nullptr, DWORD flags = 0,
                     const char *folder = nullptr) {
    Scratch scratch(0);
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = scratch.Open(0);
    EXPECT_EQ(Start(line, &startup, flags, environment, folder)->End(), expectedCode);
    os::CloseHandle(startup.hStdOutput);
    return ReadAll(scratch.Name);
}

const std::string kPeer = "\"" ZVX_PEER "\" ";

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
    EXPECT_EQ(OutputOf(kPeer + "words \"a b\" c\\\"d", 7), "[a b][c\"d]");
    // Where this process may use two processors or more, so may the child, although its maker is bound to one.
    const int processors = __builtin_popcount([] {
        uint32_t process = 0, system = 0;
        os::GetProcessAffinityMask(os::GetCurrentProcess(), &process, &system);
        return process;
    }());
    EXPECT_NE(os::SetThreadAffinityMask(os::GetCurrentThread(), 1), 0u);
    char block[] = "ZVX_PEER=narrow\0LANG=C\0";
    EXPECT_EQ(OutputOf(kPeer + "where", 0, block, 0, "/"), "/ narrow " + std::to_string(processors));
    WCHAR wide[] = L"LANG=C\0ZVX_PEER=\u00e4\0";
    EXPECT_EQ(OutputOf(kPeer + "where", 0, wide, CREATE_UNICODE_ENVIRONMENT, "/"),
              "/ \xc3\xa4 " + std::to_string(processors));
    EXPECT_EQ(os::SetThreadAffinityMask(os::GetCurrentThread(), ~0u >> (32 - processors)), 1u) << "and is bound again";
    // Input from one file, output to another, both at once.
    Scratch in(5000), out(0);
    STARTUPINFOA startup{};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.Open(0);
    startup.hStdOutput = out.Open(0);
    EXPECT_EQ(Start(kPeer + "copy", &startup)->End(), 0u);
    EXPECT_EQ(ReadAll(out.Name), ReadAll(in.Name));
    // By a name that is looked for: beside this program, or along PATH; ".exe" may be too much.
    EXPECT_EQ(Start("platform_peer.exe exit 3")->End(), 3u);
    EXPECT_EQ(Start("sh -c \"exit 4\"")->End(), 4u);
}

TEST(Process, WhatCannotBeStarted) {
    Scratch text(100);
    chmod(text.Name.c_str(), 0700);
    EXPECT_EQ(Start("zvx-no-such-program")->Error, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Start("./" + text.Name)->Error, ERROR_BAD_EXE_FORMAT);
    EXPECT_EQ(Start(kPeer + "stay", nullptr, CREATE_SUSPENDED)->Error, ERROR_NOT_SUPPORTED);
    EXPECT_NE(Start(kPeer + "exit 0", nullptr, 0, nullptr, "/zvx-no-such-folder")->Error, ERROR_SUCCESS);
}

TEST(Process, HandlesTellTheEndAndHow) {
    const auto child = Start(kPeer + "stay"), signalled = Start(kPeer + "stay");
    DWORD code = 0;
    EXPECT_TRUE(os::GetExitCodeProcess(child->Info.hProcess, &code) && code == STILL_ACTIVE);
    EXPECT_EQ(os::GetProcessId(child->Info.hProcess), child->Info.dwProcessId);
    const HANDLE opened = os::OpenProcess(PROCESS_ALL_ACCESS, FALSE, child->Info.dwProcessId);
    const HANDLE both[] = {child->Info.hThread, opened};
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 20), WAIT_TIMEOUT);
    EXPECT_EQ(os::WaitForInputIdle(opened, 1000), WAIT_FAILED);
    EXPECT_TRUE(os::TerminateProcess(opened, 0x12345678));
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, TRUE, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(child->End(0), 0x12345678u) << "more than the kernel keeps of an exit";
    EXPECT_TRUE(os::GetExitCodeThread(child->Info.hThread, &code) && code == 0x12345678);
    EXPECT_EQ(FailureOf(os::TerminateProcess(opened, 1)), ERROR_ACCESS_DENIED);
    kill(static_cast<pid_t>(signalled->Info.dwProcessId), SIGTERM);
    EXPECT_EQ(signalled->End(), 128u + SIGTERM);
    // A process that somebody else started: its end is seen, its code is not. It is a grandchild of this one.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t between = fork();
    if (between == 0) {
        const pid_t grandchild = fork();
        if (grandchild == 0) _exit((Pause(300), 9));
        const bool told = write(ends[1], &grandchild, sizeof grandchild) > 0;
        _exit(told && waitpid(grandchild, nullptr, 0) > 0 ? 0 : 1);
    }
    pid_t other = 0;
    ASSERT_EQ(read(ends[0], &other, sizeof other), static_cast<ssize_t>(sizeof other));
    const HANDLE stranger = os::OpenProcess(0, FALSE, static_cast<DWORD>(other));
    EXPECT_TRUE(os::GetExitCodeProcess(stranger, &code) && code == STILL_ACTIVE);
    EXPECT_EQ(os::WaitForSingleObject(stranger, 20000), WAIT_OBJECT_0);
    EXPECT_FALSE(os::GetExitCodeProcess(stranger, &code));
    waitpid(between, nullptr, 0);
    EXPECT_EQ(FailureOf(os::OpenProcess(0, FALSE, static_cast<DWORD>(other))), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RunChild([] { os::TerminateProcess(os::GetCurrentProcess(), 21); }).ExitCode, 21);
}

// Fifty children at once, half of whose handles are closed while they run.
TEST(Process, ManyChildrenEndInAnyOrder) {
    std::vector<std::unique_ptr<Started>> children;
    for (int i = 0; i < 50; i++) {
        children.push_back(Start(kPeer + "exit " + std::to_string(i)));
        ASSERT_TRUE(children.back()->Good) << children.back()->Error;
        if (i % 2 == 1) children.pop_back();
    }
    for (size_t i = 0; i < children.size(); i++) EXPECT_EQ(children[i]->End(), 2 * i);
    // Those without a handle are reaped as well.
    siginfo_t info;
    int left = 0;
    for (int i = 0; i < 5000 && (left = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT)) == 0; i++) Pause(1);
    EXPECT_EQ(left, -1);
    EXPECT_EQ(errno, ECHILD);
}

namespace {

struct Terminal {
    int Master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    HANDLE Console = nullptr;
    Terminal() {
        EXPECT_TRUE(grantpt(Master) == 0 && unlockpt(Master) == 0);
        Console = os::CreateFileA(ptsname(Master), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    void Type(const char *text) const { EXPECT_GT(write(Master, text, strlen(text)), 0); }
    std::string Read(DWORD room) const {
        std::string text(room, '?');
        DWORD got = 0xDEAD;
        EXPECT_TRUE(os::ReadConsoleA(Console, text.data(), room, &got, nullptr)) << os::GetLastError();
        return text.substr(0, got);
    }
};

}  // namespace

TEST(Console, GivesLinesAsAConsoleDoes) {
    const Terminal terminal;
    terminal.Type("one line\nsecond\nx\n");
    EXPECT_EQ(terminal.Read(100), "one line\r\n");
    EXPECT_EQ(terminal.Read(4), "sec");
    EXPECT_EQ(terminal.Read(100), "ond\r\n");
    for (const char *piece : {"x", "\r", "\n"}) EXPECT_EQ(terminal.Read(1), piece);
    terminal.Type("\004");
    EXPECT_EQ(terminal.Read(100), "") << "the end of the input";
    std::thread typist([&] { Pause(50), terminal.Type("later\n"); });
    EXPECT_EQ(terminal.Read(100), "later\r\n");
    typist.join();
}

TEST(Apc, RunInOrderInAlertableWaitsOnly) {
    static std::string ran;
    static HANDLE go;
    go = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    auto wait = [](void *) -> DWORD {
        os::WaitForSingleObject(go, INFINITE);
        ran += "not before ";
        ran += os::SleepEx(20000, TRUE) == WAIT_IO_COMPLETION ? "/" : "?";
        ran += os::WaitForSingleObjectEx(go, 0, TRUE) == WAIT_OBJECT_0 ? "." : "?";
        return 0;
    };
    auto append = [](ULONG_PTR c) {
        ran += static_cast<char>(c);
        if (c == 'c') os::QueueUserAPC([](ULONG_PTR) { ran += 'd'; }, os::GetCurrentThread(), 0);
    };
    const HANDLE thread = os::CreateThread(nullptr, 0, wait, nullptr, 0, nullptr);
    for (const char c : {'a', 'b', 'c'}) EXPECT_TRUE(os::QueueUserAPC(append, thread, static_cast<ULONG_PTR>(c)));
    Pause(30);
    os::SetEvent(go);
    EXPECT_EQ(os::WaitForSingleObject(thread, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(ran, "not before abcd/.");
    EXPECT_EQ(FailureOf(os::QueueUserAPC(append, thread, 'x')), ERROR_GEN_FAILURE);
}

TEST(Module, IsFoundUnderItsOtherName) {
    const std::string folder = ZVX_NETAPI_FOLDER;
    const HMODULE module = os::LoadLibraryA((folder + "/netapi32.dll").c_str());
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(os::GetModuleHandleA((folder + "/NETAPI32.dll").c_str()), nullptr) << "files have one case";
    EXPECT_EQ(os::GetModuleHandleA((folder + "/netapi32").c_str()), module);
    EXPECT_NE(os::GetProcAddress(module, "DsGetDcNameA"), nullptr);
    EXPECT_EQ(os::GetProcAddress(module, "dsgetdcnamea"), nullptr);
    EXPECT_EQ(os::GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(os::LoadLibraryA((folder + "/libnetapi32.so").c_str()), module);
    for (int i = 0; i < 2; i++) EXPECT_TRUE(os::FreeLibrary(module));
    EXPECT_EQ(os::GetModuleHandleA((folder + "/netapi32").c_str()), nullptr) << "freed as often as loaded";
    EXPECT_EQ(FailureOf(os::LoadLibraryA("zvx-none.dll")), ERROR_MOD_NOT_FOUND);
}

TEST(Guarded, FaultsEndTheCallAndNothingElse) {
    static volatile int zero = 0;
    // Meant; a checker of undefined behaviour would end the process before it happens.
    auto fault = [](void *) __attribute__((no_sanitize("undefined"))) {
        *reinterpret_cast<volatile int *>(static_cast<uintptr_t>(zero)) = 1;
    };
    auto raise = [](void *) { throw 1; };
    auto count = [](void *counter) { ++*static_cast<int *>(counter); };
    int counter = 0;
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(os::CallGuarded(fault, nullptr));
        EXPECT_FALSE(os::CallGuarded(raise, nullptr));
        EXPECT_TRUE(os::CallGuarded(count, &counter));
    }
    EXPECT_EQ(counter, 3);
    // Other threads are not covered.
    EXPECT_EQ(RunChild([&] {
                  signal(SIGSEGV, SIG_DFL);
                  os::ArmStackOverflowReport();
                  fault(nullptr);
              }).Signal,
              SIGSEGV);
}
