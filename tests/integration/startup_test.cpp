// tests/integration/startup_test.cpp - every way in which the library refuses to start: the exact text, exit code 1.
#include <cstdlib>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct Refusal {
    const char *Name;
    const char *Fail;  // what ZVXKVT_FAIL arms, or empty
    std::vector<std::pair<std::string, std::string>> Settings;
    const char *Text;
};

void PrintTo(const Refusal &refusal, std::ostream *out) {
    *out << refusal.Name;
}

class StartUp : public testing::TestWithParam<Refusal> {};

std::string NameOf(const testing::TestParamInfo<Refusal> &refusal) {
    return refusal.param.Name;
}

void MustNotRun() {
    HostFailed(__FILE__, __LINE__, "the main routine ran");
}

HostOptions With(std::vector<std::pair<std::string, std::string>> settings) {
    HostOptions options;
    options.Schedulers = 2;
    for (auto &setting : settings) {
        if (setting.first == "Schedulers")
            options.Schedulers = static_cast<uint32_t>(std::stoul(setting.second));
        else
            options.Settings.push_back(setting);
    }
    return options;
}

}  // namespace

TEST_P(StartUp, EndsWithItsText) {
    const Refusal &refusal = GetParam();
#ifndef ZVX_FAIL_POINTS
    if (refusal.Fail[0] != 0) GTEST_SKIP() << "this build has no fault injection";
#endif
    setenv("ZVXKVT_FAIL", refusal.Fail, 1);
    const HostResult result = RunHost(With(refusal.Settings), MustNotRun);
    unsetenv("ZVXKVT_FAIL");
    EXPECT_FALSE(result.TimedOut);
    EXPECT_EQ(result.Exit, 1) << result.Err;
    EXPECT_EQ(result.Out.rfind("ZORVEX KILLED: " + std::string(refusal.Text) + " (see ", 0), 0u)
        << "printed: " << result.Out;
}

INSTANTIATE_TEST_SUITE_P(
    All, StartUp,
    testing::Values(
        Refusal{"FrequencyClock", "QueryPerformanceFrequency:1:6", {}, "CalcFreq:QueryPerformanceFrequency failed=6"},
        Refusal{"CounterClock", "QueryPerformanceCounter:2:6", {}, "CalcFreq:QueryPerformanceCounter failed=6"},
        Refusal{"CalibrationMask", "GetProcessAffinityMask:1:5", {}, "CalcFreq:GetProcessAffinityMask failed=5"},
        Refusal{"CalibrationPin", "SetThreadAffinityMask:1:5", {}, "CalcFreq:SetThreadAffinityMask failed=5"},
        Refusal{"CalibrationPriority", "GetThreadPriority:1:6", {}, "CalcFreq:GetThreadPriority failed=6"},
        Refusal{"Kernel32", "GetModuleHandleA:1:126", {}, "Unable to get a module handle for kernel32.dll"},
        Refusal{"Descriptor", "LocalAlloc:1:8", {}, "Unable to alloc mem for security descrip 20 err=8"},
        Refusal{
            "DescriptorInit", "InitializeSecurityDescriptor:1:87", {}, "Unable to initialize security descrip err=87"},
        Refusal{"DescriptorDacl",
                "SetSecurityDescriptorDacl:1:87",
                {},
                "Unable to add null dacl to security descrip err=87"},
        Refusal{"ProcessMask",
                "GetProcessAffinityMask:3:5",
                {},
                "DetermineSchedThreadMask: Unable to GetProcessAffinityMask E[5]\n"},
        Refusal{"TooFewForADatabaseWriter",
                "",
                {{"Schedulers", "1"}, {"DynamicSchedulersBind", "2"}},
                "Too few schedulers for BindDBWRToASeperateCPU mode"},
        Refusal{"Event", "CreateEventA:1:8", {}, "COULD NOT CREATE AVOID COMPLETION EVENT\n"},
        Refusal{"Memory",
                "VirtualAllocInRange:1:8",
                {{"EnableLargePages", "0"}},
                "Fibers: Unable to allocate memory LargePages[0] Error[8]"},
        Refusal{"TooManySchedulers", "", {{"Schedulers", "32"}}, "sizeof(SchedBitMaskId) too small"},
        Refusal{"DebuggerThread", "CreateThread:1:8", {}, "Unable to spawn debugger thread"},
        Refusal{"SchedulerThread", "CreateThread:2:8", {}, "Failed to spawn scheduler thread\n"},
        Refusal{"SecondSchedulerThread", "CreateThread:3:8", {}, "Failed to spawn scheduler thread\n"},
        Refusal{"MainRoutine", "CreateBackingThread:1:8", {}, "Unable to allocate FMAIN fiber"},
        Refusal{
            "QuantumThread", "CreateThread:3:8", {{"Schedulers", "1"}}, "Unable to spawn FiberQuantumUpdateThread"}),
    NameOf);

TEST(StartUpSlots, MoreSlotsThanFollowAThread) {
    const HostOptions options = With({});
    gHostOptions = options;
    fflush(nullptr);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], 1);
        while (TlsAlloc() < 64) {
        }
        gHostBody = MustNotRun;
        BecomeHost();
    }
    close(ends[1]);
    std::string output;
    char buffer[256];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    RemoveDumps(child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_EQ(output.rfind("ZORVEX KILLED: Init: more dynamic TLS slots needed 64\n (see ", 0), 0u) << output;
}

// What a processor mask of one, and numbers of schedulers at the edge, come to.
TEST(StartUpSettings, SchedulersAtTheEdge) {
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
