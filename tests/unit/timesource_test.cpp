// Calibration of the cycle counter, with counters that the test moves during the sleep of a measurement.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "diag/timesource.h"
#include "diag/trace.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;

std::vector<double> gRates;  // ticks per second of each measurement to come; the last one repeats
size_t gMeasured;

void ScriptRates(std::vector<double> rates) {
    gRates = std::move(rates);
    gMeasured = 0;
    gScript.MaskCalls.clear();
    gScript.PriorityCalls.clear();
    gScript.OnSleep = [](DWORD ms) {
        ASSERT_EQ(ms, 50u);
        const double rate = gRates[std::min(gMeasured++, gRates.size() - 1)];
        // The sleep is a little longer than asked for, as sleeps are.
        gScript.Tsc.fetch_add(static_cast<uint64_t>(std::llround(rate * 0.052)));
        gScript.Qpc.fetch_add(gScript.QpcFrequency.load() * 52 / 1000);
    };
}

TEST(TimeSource, StopsAtTheFirstTwoThatAgree) {
    gScript.ProcessMask = 0xC;
    os::SetThreadAffinityMask(os::GetCurrentThread(), 0x8);
    os::SetThreadPriority(os::GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    ScriptRates({2e9, 2.03e9, 2.031e9, 9e9});
    CalcFreq();
    EXPECT_EQ(gMeasured, 3u);
    EXPECT_NEAR(gCpuFrequency, 2031000000.0, 1.0);
    EXPECT_EQ(gTscTicksPerMs, static_cast<uint64_t>(gCpuFrequency / 1000));
    // On the lowest processor, raised; afterwards as before.
    ASSERT_EQ(gScript.MaskCalls.size(), 2u);
    EXPECT_EQ(gScript.MaskCalls[0].Mask, 0x4u);
    EXPECT_EQ(gScript.MaskCalls[1].Mask, 0x8u);
    ASSERT_EQ(gScript.PriorityCalls.size(), 2u);
    EXPECT_EQ(gScript.PriorityCalls[0].Priority, THREAD_PRIORITY_TIME_CRITICAL);
    EXPECT_EQ(gScript.PriorityCalls[1].Priority, THREAD_PRIORITY_HIGHEST);
}

TEST(TimeSource, TicksPerMillisecondAreTruncated) {
    ScriptRates({2999999800.0});
    CalcFreq();
    EXPECT_EQ(gTscTicksPerMs, 2999999u);
}

// A counter that never settles: twenty measurements, the median of the last five.
TEST(TimeSource, NeverSettles) {
    std::vector<double> rates;
    for (int i = 0; i < 15; i++) rates.push_back(i % 2 != 0 ? 8e9 : 1e9);
    for (double rate : {5.0e9, 3.0e9, 4.0e9, 1.0e9, 2.0e9, 7e9}) rates.push_back(rate);
    ScriptRates(rates);
    CalcFreq();
    EXPECT_EQ(gMeasured, 20u);
    EXPECT_NEAR(gCpuFrequency, 3e9, 1.0);
}

// A refused raise is no error, and then nothing is put back.
TEST(TimeSource, PriorityRefused) {
    ScriptRates({2e9});
    os::FailCall("SetThreadPriority", 1, ERROR_ACCESS_DENIED);
    CalcFreq();
    EXPECT_NEAR(gCpuFrequency, 2e9, 1.0);
    EXPECT_TRUE(gScript.PriorityCalls.empty());
}

void CalibrateWithFailure(const char *function, uint32_t nth) {
    dup2(2, 1);
    TraceInit(testing::TempDir().c_str());
    ScriptRates({2e9});
    if (function != nullptr)
        os::FailCall(function, nth, 77);
    else
        gScript.ProcessMask = 0;
    CalcFreq();
    std::exit(0);
}

TEST(TimeSourceFatal, EveryFailureNamesItself) {
    const struct {
        const char *Function;
        uint32_t Nth;
        const char *Text;
    } cases[] = {
        {"GetProcessAffinityMask", 1, "GetProcessAffinityMask failed=77 "},
        {nullptr, 0, "procmask=0 "},
        {"SetThreadAffinityMask", 1, "SetThreadAffinityMask failed=77 "},
        {"GetThreadPriority", 1, "GetThreadPriority failed=77 "},
        {"QueryPerformanceFrequency", 2, "QueryPerformanceFrequency failed=77 "},
        {"QueryPerformanceCounter", 1, "QueryPerformanceCounter failed=77 "},
        {"QueryPerformanceCounter", 2, "QueryPerformanceCounter failed=77 "},
        {"SetThreadPriority", 2, "restore SetThreadPriority failed=77 "},
        {"SetThreadAffinityMask", 2, "restore SetThreadAffinityMask failed=77 "},
    };
    for (const auto &c : cases)
        EXPECT_EXIT(CalibrateWithFailure(c.Function, c.Nth), testing::ExitedWithCode(1),
                    std::string("ZORVEX KILLED: CalcFreq:") + c.Text + "\\(see ");
}

}  // namespace
}  // namespace zvx
