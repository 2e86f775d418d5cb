// Statistics: the table against the data that it was made from. Time: calibration of the cycle counter, with counters
// that the test moves during the sleep of a measurement.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "diag/stats.h"
#include "diag/timesource.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;

TEST(Stats, EveryEntry) {
    std::memset(static_cast<void *>(gStats), 0xA5, sizeof(gStats));
    StatsInit();
    std::ifstream data(ZVX_TEST_DATA "/stats.tsv");
    std::string line;
    std::getline(data, line);
    uint32_t id = 0;
    for (; std::getline(data, line); id++) {
        std::istringstream row(line);
        uint32_t rowId = 0, level = 0;
        std::string name;
        row >> rowId >> level >> std::ws;
        std::getline(row, name);
        ASSERT_EQ(rowId, id);
        const StatRecord &stat = gStats[id];
        EXPECT_TRUE(stat.Id == id && stat.Level == level && stat.Name == name) << name;
        EXPECT_EQ(stat.ShortName, name.substr(0, name.find(' ')));
        const bool number = name.find("%u") + 1 || name.find("%d") + 1 || name.find("%X") + 1;
        EXPECT_EQ(stat.ArgKind, name.find("%s") != std::string::npos ? 2u : number ? 1u : 0u) << name;
        EXPECT_TRUE(stat.FirstWord == 1 && stat.SecondWord == 0) << name;
        for (uint32_t counter : stat.Counters) EXPECT_EQ(counter, 0u);
    }
    EXPECT_EQ(id, kNumStats);
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

}  // namespace
}  // namespace zvx
