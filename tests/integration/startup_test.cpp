// tests/integration/startup_test.cpp - numbers of schedulers that the library refuses to start with, and those at the
// edge. Settings and their values: tests/unit. Calls of the platform that fail in start-up: tests/faults.
#include "support/host_runner.h"

using namespace hosttest;

TEST(StartUp, SchedulersAtTheEdge) {
    const struct {
        const char *Schedulers;
        std::pair<std::string, std::string> Setting;
        uint32_t Count;    // that it starts with, or
        const char *Text;  // with which it ends
    } cases[] = {{"0", {}, 1, nullptr},
                 {"17", {}, 17, nullptr},
                 {"+3x", {}, 3, nullptr},
                 {"none", {"Affinity", "1"}, 1, nullptr},
                 {"1", {"DynamicSchedulersBind", "2"}, 0, "Too few schedulers for BindDBWRToASeperateCPU mode"},
                 {"32", {}, 0, "sizeof(SchedBitMaskId) too small"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Schedulers);
        HostOptions options;
        options.Settings = {{"Schedulers", c.Schedulers}, c.Setting};
        const ChildResult result = RunHost(options, [&c] {
            HOST_EQ(c.Count, ZvxSchedulerCount());
            DWORD process = 0, system = 0;
            HOST_CHECK(GetProcessAffinityMask(GetCurrentProcess(), &process, &system));
            HOST_CHECK(c.Setting.first != "Affinity" || process == 1);
            HOST_EQ(5u, HostThread([]() -> DWORD { return 5; }).Join());
        });
        EXPECT_EQ(result.ExitCode, c.Text == nullptr ? 0 : 1);
        const std::string begin = c.Text == nullptr ? "" : "ZORVEX KILLED: " + std::string(c.Text) + " (see ";
        EXPECT_EQ(result.Output.rfind(begin, 0), 0u) << result.Output;
    }
}
