// tests/integration/ring_file_test.cpp - the ring log of a running host: the second's line, what the host's activity
// does to it, and a folder that refuses the file.
#include <fstream>
#include <regex>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class RingLog : public HostTest {};

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
                Field(line, "hold") >= 80 && Field(line, "hold") < 1000 && line.find("[FMAIN]") != std::string::npos;
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

INSTANTIATE_TEST_SUITE_P(Schedulers, RingLog, testing::Values(1, 2));
