// tests/integration/operator_test.cpp - what the files of a running host tell its operator: a line a second about all
// of it, and who has kept a scheduler for too long.
#include <filesystem>
#include <fstream>
#include <regex>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class RingLog : public HostTest {};
class StallReport : public HostTest {};

std::vector<std::string> LinesOf(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::string LogName(const std::string &folder) {
    return folder + "/SID_pid_" + std::to_string(getpid()) + "_fiber_stats.txt";
}

uint64_t Field(const std::string &line, const std::string &name) {
    std::smatch match;
    if (!std::regex_search(line, match, std::regex(" " + name + " ([0-9]+)"))) return ~uint64_t{0};
    return std::stoull(match[1]);
}

HostOptions WithLog(HostOptions options, const ScratchFolder &folder) {
    setenv("ZORVEX_SID", "SID", 1);
    options.TraceDirectory = folder.Name;
    options.Settings.emplace_back("LogToFile", "1");
    return options;
}

}  // namespace

TEST_P(RingLog, ALineASecondTellsWhatWasDoneAndWhoHeldItsScheduler) {
    const ScratchFolder folder;
    EXPECT_HOST_OK(RunHost(WithLog(Options(), folder), [&folder] {
        HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<bool> stop{false};
        std::atomic<bool> known{false};
        HostThread session([&]() -> DWORD {
            IdentifyUserThread("SHAD", event);
            known = true;
            while (!stop) WaitForUserThreadPost(event, 100);
            UnidentifyUserThread(0);
            return 0;
        });
        while (!known) Sleep(1);
        uint64_t posts = 0;
        const ULONGLONG start = GetTickCount64();
        for (bool held = false; GetTickCount64() < start + 3300; posts++) {
            HOST_CHECK(PostUserThread(event));
            Sleep(posts % 50 == 0 ? 1 : 0);
            if (held || GetTickCount64() < start + 1300) continue;
            held = true;
            const ULONGLONG until = GetTickCount64() + 80;
            while (GetTickCount64() < until) {
            }
        }
        stop = true;
        session.Join();
        const std::vector<std::string> lines = LinesOf(LogName(folder.Name));
        HOST_CHECK(lines.size() >= 2 && lines.size() <= 4);
        bool held = false, worked = false;
        const std::regex shape(
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d sessions \\d+ threads \\d+ switches \\d+/s posts \\d+/s polled "
            "\\d+/s "
            "packets \\d+/s hold \\d+\\.\\d{3} ms \\[\\w*\\] on \\d dropped 0");
        for (const std::string &line : lines) {
            HOST_CHECK(std::regex_match(line, shape));
            held |=
                Field(line, "hold") >= 70 && Field(line, "hold") < 1000 && line.find("[FMAIN]") != std::string::npos;
            worked |= Field(line, "posts") > 100 && Field(line, "switches") > 100 && Field(line, "sessions") == 1;
        }
        HOST_CHECK(held);
        HOST_CHECK(worked);
    }));
    EXPECT_HOST_OK(RunHost(Options(), [] { Sleep(1200); }));  // and without the setting nothing of it exists
}

TEST_P(RingLog, AFileThatCannotBeMadeEndsTheProcess) {
    const ScratchFolder folder;
    HostOptions options = WithLog(Options(), folder);
    options.TraceDirectory = folder.Name + "/missing";
    const HostResult result = RunHost(options, [] { Sleep(5000); });
    EXPECT_EQ(1, result.Exit);
    EXPECT_NE(std::string::npos, (result.Out + result.Err).find("Unable to create log file the fiber logger"));
}

// Not static: a name that the report can find in every build.
__attribute__((noinline)) ULONGLONG KeepTheProcessorBusy(DWORD ms) {
    const ULONGLONG until = GetTickCount64() + ms;
    ULONGLONG looks = 0;
    while (GetTickCount64() < until) looks++;
    return looks;
}

TEST_P(StallReport, NamesTheThreadAndTheFunctionAndNobodyElse) {
    const ScratchFolder folder;
    HostOptions options = Options();
    options.TraceDirectory = folder.Name;
    options.Settings.emplace_back("StallReportMs", "60");
    EXPECT_HOST_OK(RunHost(options, [] {
        Sleep(200);  // an idle host keeps nobody
        HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        HostThread busy([event]() -> DWORD {
            IdentifyUserThread("BUSY", event);
            HOST_CHECK(KeepTheProcessorBusy(300) != 0);
            Sleep(1);
            for (int i = 0; i < 30; i++) {  // busy, but it gives way
                KeepTheProcessorBusy(10);
                Sleep(0);
            }
            UnidentifyUserThread(0);
            return 0;
        });
        HOST_EQ(0u, busy.Join());
        Sleep(100);
    }));
    std::string text;
    for (const auto &entry : std::filesystem::directory_iterator(folder.Name))
        for (const std::string &line : LinesOf(entry.path())) text += line + "\n";
    EXPECT_TRUE(std::regex_search(
        text, std::regex("Stall: user thread BUSY \\(x[0-9A-F]+\\) has kept scheduler \\d for \\d+ ms, at:")))
        << text;
    EXPECT_NE(std::string::npos, text.find("KeepTheProcessorBusy")) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("Stall: scheduler \\d goes on after [23]\\d\\d ms"))) << text;
    EXPECT_EQ(text.find("Stall: user thread"), text.rfind("Stall: user thread")) << text;
}

INSTANTIATE_TEST_SUITE_P(Schedulers, StallReport, testing::Values(1, 2));
INSTANTIATE_TEST_SUITE_P(Schedulers, RingLog, testing::Values(1, 2));
