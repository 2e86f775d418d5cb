// Statistics: their names. Time: calibration of the cycle counter, with
// counters that the test moves during the sleep of a measurement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "child.h"
#include "diag/stats.h"
#include "diag/timesource.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;

TEST(Stats, NamesAndTheirArguments) {
    StatsInit();
    const struct {
        uint32_t Id;
        const char *Name;  // a spin lock takes the entry of its own name
    } locks[] = {{STAT_RingLogQLock, "RingLogQLock"}, {STAT_UserMessageQLock, "UserMessageQLock"}};
    for (const auto &lock : locks) EXPECT_STREQ(gStats[lock.Id].Name, lock.Name);
    for (uint32_t id = 0; id < kNumStats; id++) {
        const std::string name = gStats[id].Name;
        EXPECT_EQ(gStats[id].Id, id);
        EXPECT_EQ(gStats[id].ShortName, name.substr(0, name.find(' ')));
        EXPECT_EQ(gStats[id].ArgKind, name.find("%s") != name.npos  ? 2u
                                      : name.find('%') != name.npos ? 1u
                                                                    : 0u)
            << name;
    }
}

// Calibrates where each measurement meets the next of these rates in ticks per second, the last one again and again;
// returns how many measurements it took.
size_t Calibrate(const std::vector<double> &rates) {
    size_t measured = 0;
    gScript.OnSleep = [&](DWORD ms) {
        EXPECT_EQ(ms, 50u);
        const double rate = rates[std::min(measured++, rates.size() - 1)];
        // The sleep is a little longer than asked for, as sleeps are.
        gScript.Tsc.fetch_add(static_cast<uint64_t>(std::llround(rate * 0.052)));
        gScript.Qpc.fetch_add(gScript.QpcFrequency.load() * 52 / 1000);
    };
    CalcFreq();
    gScript.OnSleep = nullptr;
    return measured;
}

TEST(TimeSource, StopsAtTheFirstTwoThatAgree) {
    gScript.ProcessMask = 0xC;
    os::SetThreadAffinityMask(os::GetCurrentThread(), 0x8);
    os::SetThreadPriority(os::GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    EXPECT_EQ(Calibrate({2e9, 2.03e9, 2.031e9, 9e9}), 3u);
    EXPECT_NEAR(gCpuFrequency, 2031000000.0, 1.0);
    // On the lowest processor, raised; afterwards as before.
    EXPECT_EQ(gScript.Masks, (std::vector<uint32_t>{0x8, 0x4, 0x8}));
    EXPECT_EQ(gScript.Priorities,
              (std::vector<int>{THREAD_PRIORITY_HIGHEST, THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_HIGHEST}));
    // A refused raise is no error, and then nothing is put back.
    gScript.Priorities.clear();
    os::FailCall("SetThreadPriority", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Calibrate({2999999800.0}), 2u);
    EXPECT_EQ(gTscTicksPerMs, 2999999u) << "truncated";
    EXPECT_TRUE(gScript.Priorities.empty());
    // A counter that never settles: twenty measurements, the median of the last five.
    std::vector<double> rates;
    for (int i = 0; i < 15; i++) rates.push_back(i % 2 != 0 ? 8e9 : 1e9);
    for (double rate : {5.0e9, 3.0e9, 4.0e9, 1.0e9, 2.0e9, 7e9}) rates.push_back(rate);
    EXPECT_EQ(Calibrate(rates), 20u);
    EXPECT_NEAR(gCpuFrequency, 3e9, 1.0);
}

TEST(TimeSource, NoProcessor) {
    EXPECT_EQ(test::FatalTextOf([] {
                  gScript.ProcessMask = 0;
                  Calibrate({2e9});
              }),
              "CalcFreq:procmask=0");
}

}  // namespace
}  // namespace zvx
