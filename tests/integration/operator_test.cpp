// tests/integration/operator_test.cpp - what the files of a running host tell its operator: a line a second about all
// of it, and who has kept a scheduler for too long.
#include <regex>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class OperatorFiles : public HostTest {};

// Not static: a name that the report can find in every build.
__attribute__((noinline)) ULONGLONG KeepTheProcessorBusy(DWORD ms) {
    const ULONGLONG until = GetTickCount64() + ms;
    ULONGLONG looks = 0;
    while (GetTickCount64() < until) looks++;
    return looks;
}

}  // namespace

TEST_P(OperatorFiles, ALineASecondTellsWhatWasDoneAndWhoHeldItsScheduler) {
    const ScratchFolder folder;
    setenv("ZORVEX_SID", "SID", 1);
    EXPECT_HOST_OK(RunHost(Options({{"LogToFile", "1"}}, folder.Name), [&folder] {
        const ULONGLONG start = GetTickCount64();
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<bool> stop{false}, known{false};
        HostThread session([&]() -> DWORD {
            IdentifyUserThread("SHAD", event);
            for (known = true; !stop;) WaitForUserThreadPost(event, 100);
            UnidentifyUserThread(0);
            return 0;
        });
        while (!known) Sleep(1);
        uint64_t posts = 0;
        // In every second: on a busy machine another thread may have been the longest in one of them.
        for (ULONGLONG keep = start + 300; GetTickCount64() < start + 3300; posts++) {
            HOST_CHECK(PostUserThread(event));
            Sleep(posts % 50 == 0 ? 1 : 0);
            if (GetTickCount64() < keep) continue;
            keep += 1000;
            KeepTheProcessorBusy(80);
        }
        stop = true;
        session.Join();
        const ULONGLONG took = GetTickCount64() - start;
        std::ifstream file(folder.File("SID_pid_" + std::to_string(getpid()) + "_fiber_stats.txt"));
        // The shape that whoever reads the file relies on.
        const std::regex shape(
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d sessions (\\d+) threads \\d+ switches (\\d+)/s posts (\\d+)/s "
            "polled \\d+/s packets \\d+/s hold ([0-9.]+) ms \\[(.*)\\] on \\d+ dropped 0");
        bool held = false, worked = false;
        ULONGLONG lines = 0;
        for (std::string line; std::getline(file, line); lines++) {
            std::smatch is;
            HOST_CHECK(std::regex_match(line, is, shape));
            if (is.empty()) continue;
            const double ms = std::stod(is[4]);
            held |= ms >= 70 && ms < static_cast<double>(took) && is[5] == "FMAIN";
            worked |= std::stoul(is[3]) > 100 && std::stoul(is[2]) > 100 && is[1] == "1";
        }
        HOST_CHECK(held);
        HOST_CHECK(worked);
        HOST_CHECK(lines >= 2 && lines <= took / 1000 + 1);
    }));
}

TEST_P(OperatorFiles, AStallNamesTheThreadAndTheFunctionAndNobodyElse) {
    const ScratchFolder folder;
    EXPECT_HOST_OK(RunHost(Options({{"StallReportMs", "150"}}, folder.Name), [] {
        Sleep(200);  // an idle host keeps nobody
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
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
    for (const auto &entry : std::filesystem::directory_iterator(folder.Name)) text += ReadWhole(entry.path());
    SCOPED_TRACE(text);
    uint32_t thread = 0, scheduler = 9, held = 0, whole = 0;
    const char *report = strstr(text.c_str(), "Stall: user thread BUSY");
    ASSERT_NE(nullptr, report);
    const char *over = strstr(report, "Stall: scheduler ");
    ASSERT_NE(nullptr, over);
    EXPECT_EQ(3, sscanf(report, "Stall: user thread BUSY (x%X) has kept scheduler %u for %u ms, at:", &thread,
                        &scheduler, &held));
    uint32_t without = 0;
    EXPECT_EQ(3, sscanf(over, "Stall: scheduler %u goes on after %u ms, %u of them without a processor", &scheduler,
                        &whole, &without));
    EXPECT_TRUE(thread != 0 && scheduler < GetParam() && held >= 150 && held < whole && whole >= 450);
    EXPECT_LT(without, whole);
    EXPECT_NE(std::string::npos, text.find("KeepTheProcessorBusy"));
    EXPECT_EQ(text.find("Stall: user thread"), text.rfind("Stall: user thread"));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, OperatorFiles, testing::Values(1, 2));
