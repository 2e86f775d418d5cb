// tests/integration/operator_test.cpp - what the files of a running host tell its operator: a line a second about all
// of it, and who has kept a scheduler for too long.
#include <filesystem>
#include <fstream>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class OperatorFiles : public HostTest {};

std::vector<std::string> LinesOf(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

struct SecondLine {
    uint64_t Sessions, Threads, Switches, Posts, Polled, Packets, On, Dropped;
    double HoldMs;
    char Tag[16];
};

// False when the line is not of the shape that whoever reads the file relies on.
bool Parse(const std::string &line, SecondLine *out) {
    int year, month, day, hour, minute, second, end = 0;
    *out = {};
    sscanf(line.c_str(),
           "%4d-%2d-%2d %2d:%2d:%2d sessions %lu threads %lu switches %lu/s posts %lu/s polled %lu/s packets %lu/s "
           "hold %lf ms [%15[^]]] on %lu dropped %lu%n",
           &year, &month, &day, &hour, &minute, &second, &out->Sessions, &out->Threads, &out->Switches, &out->Posts,
           &out->Polled, &out->Packets, &out->HoldMs, out->Tag, &out->On, &out->Dropped, &end);
    return end != 0 && line.size() == static_cast<size_t>(end);
}

}  // namespace

TEST_P(OperatorFiles, ALineASecondTellsWhatWasDoneAndWhoHeldItsScheduler) {
    const ScratchFolder folder;
    setenv("ZORVEX_SID", "SID", 1);
    HostOptions options = Options();
    options.TraceDirectory = folder.Name;
    options.Settings.emplace_back("LogToFile", "1");
    EXPECT_HOST_OK(RunHost(options, [&folder] {
        HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<bool> stop{false}, known{false};
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
        const std::vector<std::string> lines =
            LinesOf(folder.File("SID_pid_" + std::to_string(getpid()) + "_fiber_stats.txt"));
        HOST_CHECK(lines.size() >= 2 && lines.size() <= 4);
        bool held = false, worked = false;
        for (const std::string &line : lines) {
            SecondLine is;
            HOST_CHECK(Parse(line, &is) && is.Dropped == 0);
            held |= is.HoldMs >= 70 && is.HoldMs < 1000 && strcmp(is.Tag, "FMAIN") == 0;
            worked |= is.Posts > 100 && is.Switches > 100 && is.Sessions == 1;
        }
        HOST_CHECK(held);
        HOST_CHECK(worked);
    }));
    EXPECT_HOST_OK(RunHost(Options(), [] { Sleep(1200); }));  // and without the setting nothing of it exists
}

// Not static: a name that the report can find in every build.
__attribute__((noinline)) ULONGLONG KeepTheProcessorBusy(DWORD ms) {
    const ULONGLONG until = GetTickCount64() + ms;
    ULONGLONG looks = 0;
    while (GetTickCount64() < until) looks++;
    return looks;
}

TEST_P(OperatorFiles, AStallNamesTheThreadAndTheFunctionAndNobodyElse) {
    const ScratchFolder folder;
    HostOptions options = Options();
    options.TraceDirectory = folder.Name;
    options.Settings.emplace_back("StallReportMs", "150");
    EXPECT_HOST_OK(RunHost(options, [] {
        Sleep(200);  // an idle host keeps nobody
        HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        HostThread busy([event]() -> DWORD {
            IdentifyUserThread("BUSY", event);
            HOST_CHECK(KeepTheProcessorBusy(600) != 0);
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
    uint32_t thread = 0, scheduler = 9, held = 0, whole = 0;
    const char *report = strstr(text.c_str(), "Stall: user thread BUSY");
    ASSERT_NE(nullptr, report) << text;
    EXPECT_EQ(3, sscanf(report, "Stall: user thread BUSY (x%X) has kept scheduler %u for %u ms, at:", &thread,
                        &scheduler, &held))
        << text;
    EXPECT_NE(std::string::npos, text.find("KeepTheProcessorBusy")) << text;
    const char *over = strstr(report, "Stall: scheduler ");
    ASSERT_NE(nullptr, over) << text;
    EXPECT_EQ(2, sscanf(over, "Stall: scheduler %u goes on after %u ms", &scheduler, &whole)) << text;
    EXPECT_TRUE(thread != 0 && scheduler < GetParam() && held >= 150 && held < whole && whole >= 450) << text;
    EXPECT_EQ(text.find("Stall: user thread"), text.rfind("Stall: user thread")) << text;
}

INSTANTIATE_TEST_SUITE_P(Schedulers, OperatorFiles, testing::Values(1, 2));
