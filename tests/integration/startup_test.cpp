// tests/integration/startup_test.cpp - numbers of schedulers that the library refuses to start with, and those at the
// edge. Settings and their values: tests/unit. Calls of the platform that fail in start-up: tests/faults.
#include "support/host_runner.h"

using namespace hosttest;

TEST(StartUp, EndsWithItsText) {
    const struct {
        uint32_t Schedulers;
        const char *Bind, *Text;
    } cases[] = {{1, "2", "Too few schedulers for BindDBWRToASeperateCPU mode"},
                 {32, "0", "sizeof(SchedBitMaskId) too small"}};
    for (const auto &c : cases) {
        HostOptions options;
        options.Schedulers = c.Schedulers;
        options.Settings.emplace_back("DynamicSchedulersBind", c.Bind);
        const HostResult result = RunHost(options, [] { HOST_CHECK(!"the main routine ran"); });
        EXPECT_EQ(result.Exit, 1) << result.Err;
        EXPECT_EQ(result.Out.rfind("ZORVEX KILLED: " + std::string(c.Text) + " (see ", 0), 0u) << result.Out;
    }
}

// What a processor mask of one, and numbers of schedulers at the edge, come to.
TEST(StartUp, SchedulersAtTheEdge) {
    for (auto [given, expected] : {std::pair{"0", 1u}, {"1", 1u}, {"17", 17u}, {"+3x", 3u}}) {
        HostOptions options;
        options.Settings.emplace_back("Schedulers", given);
        const uint32_t wanted = expected;
        EXPECT_HOST_OK(RunHost(options, [wanted] { HOST_EQ(wanted, ZvxSchedulerCount()); }));
    }
    HostOptions one;
    one.Settings.emplace_back("Schedulers", "none");
    one.Settings.emplace_back("Affinity", "1");
    EXPECT_HOST_OK(RunHost(one, [] {
        HOST_EQ(1u, ZvxSchedulerCount());
        DWORD process = 0, system = 0;
        HOST_CHECK(GetProcessAffinityMask(GetCurrentProcess(), &process, &system) && process == 1);
        const HANDLE thread = CreateThread(
            nullptr, 0, [](LPVOID) -> DWORD { return 5; }, nullptr, 0, nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
    }));
}
