// tests/support/host_runner.h - runs a host of the library in a child process.
//
// In fiber mode InitUserThreadScheduler never returns and nothing of the library can be undone, so every case forks
// its own host: the child starts the library with the given settings, runs the body as its main routine and ends
// through ExitProcess, or by a signal when it takes too long.
//
// Checks inside the child are HOST_CHECK and HOST_EQ: they report on standard error, are counted, and make the exit
// code 1. The parent's test is EXPECT_HOST_OK(RunHost(...)).
#ifndef ZVX_TESTS_SUPPORT_HOST_RUNNER_H
#define ZVX_TESTS_SUPPORT_HOST_RUNNER_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <sstream>
#include <vector>

#include "run_child.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

namespace hosttest {

struct HostOptions {
    uint32_t Schedulers = 1;
    std::vector<std::pair<std::string, std::string>> Settings;  // key without prefix, value
    std::string TraceDirectory;  // empty: one that nobody looks at
};

inline HostOptions gHostOptions;
inline std::function<void()> gHostBody;
inline std::atomic<uint32_t> gHostFailures{0};

inline int HostLookup(const char *name, char *buffer, int capacity) {
    for (const auto &[key, value] : gHostOptions.Settings)
        if ("ZVX_FIBERS_" + key == name) return static_cast<int>(value.copy(buffer, static_cast<size_t>(capacity)));
    return 0;
}

inline DWORD WINAPI HostMain(LPVOID) {
    gHostBody();
    ExitProcess(gHostFailures.load() == 0 ? 0 : 1);
}

inline void HostFailed(const char *file, int line, const std::string &what) {
    gHostFailures++;
    fprintf(stderr, "%s:%d: %s (last error %u)\n", file, line, what.c_str(), GetLastError());
}

// The exit code is 1 when a check failed, 3 when the library came back from its start.
inline ChildResult RunHost(const HostOptions &options, std::function<void()> body) {
    gHostOptions = options;
    gHostBody = std::move(body);
    const ScratchFolder traces;  // a fatal error leaves dumps
    const auto host = [&] {
        gHostOptions.Settings.emplace_back("Schedulers", std::to_string(options.Schedulers));
        ZVXKVT_INIT_PARAMS params{};
        params.LookupValue = HostLookup;
        const std::string &directory = options.TraceDirectory.empty() ? traces.Name : options.TraceDirectory;
        params.TraceDirectory = directory.c_str();
        InitUserThreadScheduler(HostMain, nullptr, &params);
    };
    return RunInChild(host, 3, false);
}

// The cases run with each number of schedulers that the parameter names, and on the back end that the environment
// asks for; where that one is refused there is nothing to test.
struct HostTest : testing::TestWithParam<uint32_t> {
    void SetUp() override {
        const char *wanted = getenv("ZVXKVT_IO");
        if (wanted != nullptr && strcmp(wanted, ZvxIoBackendName()) != 0) GTEST_SKIP() << ZvxIoBackendNote();
    }
    static HostOptions Options(decltype(HostOptions::Settings) settings = {}, const std::string &traces = "") {
        return {GetParam(), std::move(settings), traces};
    }
};

// A user thread that runs a function object, and what it needs to be waited for.
struct HostThread {
    explicit HostThread(std::function<DWORD()> body, DWORD flags = 0) : Body(std::move(body)) {
        const auto run = [](LPVOID self) { return static_cast<HostThread *>(self)->Body(); };
        Handle = CreateThread(nullptr, 0, run, this, flags, nullptr);
    }
    ~HostThread() {
        if (Handle != nullptr) CloseHandle(Handle);
    }
    HostThread(const HostThread &) = delete;
    // Its exit code, or 0xFFFFFFFF when it did not end in time.
    DWORD Join(DWORD ms = 20000) const {
        DWORD code = 0xFFFFFFFF;
        if (WaitForSingleObject(Handle, ms) == WAIT_OBJECT_0) GetExitCodeThread(Handle, &code);
        return code;
    }
    HANDLE Handle = nullptr;
    const std::function<DWORD()> Body;
};

}  // namespace hosttest

#define HOST_CHECK(condition)                                                     \
    do {                                                                          \
        if (!(condition)) ::hosttest::HostFailed(__FILE__, __LINE__, #condition); \
    } while (0)

#define HOST_EQ(expected, actual)                                                         \
    do {                                                                                  \
        const auto hostExpected = (expected);                                             \
        const auto hostActual = (actual);                                                 \
        if (!(hostExpected == hostActual)) {                                              \
            std::ostringstream hostText;                                                  \
            hostText << #actual << " is " << hostActual << ", expected " << hostExpected; \
            ::hosttest::HostFailed(__FILE__, __LINE__, hostText.str());                   \
        }                                                                                 \
    } while (0)

#define EXPECT_HOST_OK(result)                                                                           \
    do {                                                                                                 \
        const ChildResult hostResult = (result);                                                         \
        EXPECT_EQ(hostResult.ExitCode, 0) << "signal " << hostResult.Signal << " " << hostResult.Output; \
    } while (0)

#endif  // ZVX_TESTS_SUPPORT_HOST_RUNNER_H
