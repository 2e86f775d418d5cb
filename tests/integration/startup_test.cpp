// tests/integration/startup_test.cpp - settings that the library refuses to start with, and settings at the edge. Calls
// of the platform that fail in start-up: tests/faults.
#include <cstdlib>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct Refusal {
    const char *Name;
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
    const HostResult result = RunHost(With(refusal.Settings), MustNotRun);
    EXPECT_FALSE(result.TimedOut);
    EXPECT_EQ(result.Exit, 1) << result.Err;
    EXPECT_EQ(result.Out.rfind("ZORVEX KILLED: " + std::string(refusal.Text) + " (see ", 0), 0u)
        << "printed: " << result.Out;
}

INSTANTIATE_TEST_SUITE_P(All, StartUp,
                         testing::Values(Refusal{"TooFewForADatabaseWriter",
                                                 {{"Schedulers", "1"}, {"DynamicSchedulersBind", "2"}},
                                                 "Too few schedulers for BindDBWRToASeperateCPU mode"},
                                         Refusal{"TooManySchedulers",
                                                 {{"Schedulers", "32"}},
                                                 "sizeof(SchedBitMaskId) too small"}),
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
