// tests/unit/foundation_test.cpp - what lies under the scheduler. Settings: what each key does, in the order in which
// keys override one another, and the start-up text.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "alloc/alloc.h"
#include "child.h"
#include "config/settings.h"
#include "diag/stats.h"
#include "diag/timesource.h"
#include "sched/sched.h"

namespace zvx {
namespace {

using os::script::gScript;

std::map<std::string, std::string> gValues;  // what the host knows, by full name

// A host that does not terminate what it stores.
int HostLookup(const char *name, char *buffer, int capacity) {
    const auto found = gValues.find(name);
    if (found == gValues.end()) return 0;
    std::memset(buffer, '7', static_cast<size_t>(capacity) + 1);
    return static_cast<int>(found->second.copy(buffer, static_cast<size_t>(capacity)));
}

// Reads the settings afresh, with `keys` under their common names, and returns the start-up text.
std::string Read(const std::map<std::string, std::string> &keys = {}) {
    gValues.clear();
    for (const auto &[key, value] : keys) gValues["ZVX_FIBERS_" + key] = value;
    gLookupValue = HostLookup;
    OptionFlags.store(0);
    initialOutputBufferOffset = 0;
    initialOutputBuffer[0] = 0;
    ReadSchedulerSettings();
    return initialOutputBuffer;
}

constexpr uint32_t kAbsent = 1234567;

// The value of one key; kAbsent when it counts as absent, which must leave the variable alone.
uint32_t Value(const char *key, int base = 10) {
    uint32_t value = kAbsent;
    const bool found = GetSetting(key, base, &value);
    EXPECT_EQ(found, value != kAbsent) << key;
    return value;
}

constexpr uint32_t kDefaults = 0x00A60642 | su_BoostLGWROSThreadPri;

TEST(Settings, DefaultsAndTheirLines) {
    gCpuFrequency = 2399999999.7;
    const std::string text = Read();
    EXPECT_EQ(text,
              "PrintToConsole\nTimerInterval: 2\nYieldAfterHPPost: 0\nRunQ Order [P F S]\nPFOneRQ: 0\nLFI: 10\n"
              "DCPQ: 100000\nUsing completion ports always\nLPRQMaxDelay: 0\nEnableLargePages: 1\n"
              "EnableSchedOpt1: 1\nBoostLGWROSThreadPri: 1\nBoostDBWOSThreadPri: 0\n"
              "DefaultNetShadowSpinTimeMs: 2\nSpinIfLGWRActiveInMs: 100\nLGWRHighActivityPeriodInMs: 60000\n"
              "LGWRHighActivityNumIOsThreshold: 200\nLGWRHighActivityNumShadowsThreshold: 3\n"
              "QuantumLengthMs: 600\nCPU Frequency: 2399999999\n");
    EXPECT_EQ(initialOutputBufferOffset, text.size());
    EXPECT_EQ(OptionFlags.load(), kDefaults);
    EXPECT_TRUE(gNumSchedulers == 4 && gStackSize == 1u << 20 && gQuantumUpdateInterval == 200);
}

// The common name wins; a value without digits counts as none. Conversion is that of strtoul with a long of 32 bits. A
// host that miscounts: fuzz/settings.
TEST(Settings, TwoNamesAndOddValues) {
    gLookupValue = HostLookup;
    std::strcpy(gSid, "PROD1");
    gValues = {{"ZVX_FIBERS_K", "4"}, {"ZVX_PROD1_FIBERS_K", "2"}, {"ZVX__FIBERS_LFI", "9"}};
    EXPECT_EQ(Value("K"), 4u);
    gValues["ZVX_FIBERS_K"] = "abc";
    EXPECT_EQ(Value("K"), 2u);
    gSid[0] = 0;
    EXPECT_EQ(Value("LFI"), 9u);
    const std::string nines(26, '9');
    const struct {
        std::string Text;
        uint32_t Value;
        int Base = 10;
    } cases[] = {{"-1", ~0u},   {"4294967296", ~0u}, {"-4294967296", ~0u}, {nines, ~0u},       {"-" + nines, ~0u},
                 {"", kAbsent}, {" ", kAbsent},      {"-", kAbsent},       {"x1", kAbsent},    {" \t+12 ", 12},
                 {"3x", 3},     {"-4294967295", 1},  {"0x10", 0},          {"0xF0", 0xF0, 16}, {"f0", 0xF0, 16}};
    for (const auto &c : cases) {
        gValues["ZVX_FIBERS_K"] = c.Text;
        EXPECT_EQ(Value("K", c.Base), c.Value) << c.Text;
    }
    // Without a host it is the environment that is asked; a long value is cut, not lost.
    gLookupValue = nullptr;
    setenv("ZVX_FIBERS_LFI", ("7" + std::string(2000, ' ')).c_str(), 1);
    EXPECT_EQ(Value("LFI"), 7u);
    EXPECT_EQ(Value("StackPages"), kAbsent);
}

TEST(Settings, ProcessorsAndSchedulers) {
    const auto count = [](const char *key = "", const char *value = "") {
        Read({{key, value}});
        return gNumSchedulers;
    };
    EXPECT_EQ(count("Affinity", "f0"), 4u) << "no processor is left: the mask is ignored";
    EXPECT_EQ(count("Affinity", "6"), 2u);
    gScript.ProcessMask = 1;
    EXPECT_EQ(count(), 1u);
    EXPECT_FALSE(OptionSet(su_BoostLGWROSThreadPri)) << "on one processor the log writer is not raised";
    gScript.ProcessMask = gScript.SystemMask = 0xFFFFFFFF;
    EXPECT_EQ(count(), 16u);
    EXPECT_EQ(count("Schedulers", "4000000000"), 4000000000u) << "start-up refuses it with its own text";
}

TEST(Settings, FlagsByValue) {
    const struct {
        const char *Key, *Value;
        uint32_t Set, Cleared = 0;  // against the defaults
    } cases[] = {
        {"FiberModeReq", "2", 0, su_FiberModeReq},
        {"PrintToConsole", "2", 0, su_Print},
        {"PFOneRQ", "2", su_PFOneRQ},
        {"BoostLGWROSThreadPri", "0", 0, su_BoostLGWROSThreadPri},
        {"SetThreadPriority", "6", su_SetThreadPriority | su_SetThreadPriorityConvertANtoHIGHEST},
        {"SetThreadPriority", "12", su_SetThreadPriority | su_SetThreadPriorityConvertANtoTC | su_BoostDBWRPriority},
        {"OnYieldChkCompPort", "2", su_PollCompletionPort},
        {"DynamicSchedulersEnabled", "1", su_DynamicSchedulersEnabled},
        {"DynamicSchedulersEnabled", "2", su_DynamicSchedulersEnabled | su_DynamicSchedulersEnabledExcludeDBWR},
        {"DynamicSchedulersEnabled", "3", 0},
        {"DynamicSchedulersBind", "2", su_BindDBWRToASeperateCPU},
    };
    for (const auto &c : cases) {
        Read({{c.Key, c.Value}});
        EXPECT_EQ(OptionFlags.load(), (kDefaults | c.Set) & ~c.Cleared) << c.Key << "=" << c.Value;
    }
}

TEST(Settings, Numbers) {
    const struct {
        const char *Key, *Value;
        const uint32_t &Variable;
        uint32_t Result;
    } cases[] = {
        {"StackPages", "524289", gStackSize, 8192},  // the shift is modulo 2^32
        {"AlterDistributionLGWR", "-3", gAlterDistributionLGWR, 0xFFFFFFFD},
        {"gLGWRHighActivityPeriodInMs", "7", gLGWRHighActivityPeriodInMs, 7},
        {"LGWRHighActivityPeriodInMs", "7", gLGWRHighActivityPeriodInMs, 60000},
        {"QuantumLengthMs", "2", gQuantumUpdateInterval, 1},
        {"PortWaitMs", "0", gPortWaitMs, 1},
        {"RunQOrder", "1", gFRQ, 1},
        {"EnableHighPerformanceOptimization1", "1", gNumContextSwitchesBeforePolling, 0},
    };
    for (const auto &c : cases) {
        Read({{c.Key, c.Value}});
        EXPECT_EQ(c.Variable, c.Result) << c.Key << "=" << c.Value;
    }
}

// ---- The cycle counter, with counters that the test moves during the sleep of a measurement ----------

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
    EXPECT_EQ(Calibrate({2e9, 2.03e9, 2.031e9, 9e9}), 3u);
    EXPECT_NEAR(gCpuFrequency, 2031000000.0, 1.0);
    // On the lowest processor, raised; afterwards as before.
    EXPECT_EQ(gScript.Masks, (std::vector<uint32_t>{0x8, 0x4, 0x8}));
    EXPECT_EQ(gScript.Priorities, (std::vector<int>{THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_NORMAL}));
    // A counter that never settles: twenty measurements, the median of the last five.
    std::vector<double> rates;
    for (int i = 0; i < 15; i++) rates.push_back(i % 2 != 0 ? 8e9 : 1e9);
    for (double rate : {5.0e9, 3.0e9, 4.0e9, 1.0e9, 2.0e9, 7e9}) rates.push_back(rate);
    EXPECT_EQ(Calibrate(rates), 20u);
    EXPECT_NEAR(gCpuFrequency, 3e9, 1.0);
}

// ---- The allocator: counts at which chunks move, sizes at which blocks split --------------------------

constexpr uint32_t kRegion = 16 * 1024 * 1024;
const AllocType *const kType = &gAllocTypes[ALLOC_FIBER_MESSAGE];

struct Alloc : testing::Test {
    void SetUp() override {
        S->AffinityMask = 0x8;
        StatsInit();
        gProcessAffinityMask = gScript.ProcessMask;
        for (uint32_t &mask : gNodeMasks) mask = 0x3;
        KVTAllocInit();
    }
    void *Take(uint32_t size) { return KVTAllocSched(size, S.get(), 0); }
    const std::unique_ptr<Scheduler> S = std::make_unique<Scheduler>();
};

// What was freed last comes first: the newest in a cache is the likeliest to be in the processor's cache.
TEST_F(Alloc, ChunksMoveInBundles) {
    const uint32_t &cached = S->ChunkCacheCount[2];
    std::vector<char *> chunks;
    // The first one cuts a block of 64 KiB: its last chunk comes first, 255 stay, in descending order.
    for (uint32_t i = 0; i < 1024; i++) {
        chunks.push_back(static_cast<char *>(AllocChunk(kType, S.get(), 2)));
        ASSERT_EQ(cached, 255 - i % 256);
        ASSERT_TRUE(i % 256 == 0 || chunks[i] == chunks[i - 1] - 256);
    }
    EXPECT_EQ(S->ChunkCacheCount[0], 0u) << "nodes do not share caches";
    // A full cache spills 252, the freed one among them, and keeps 261. It is filled up again and spills once more.
    for (uint32_t i = 0; i < 513 + 252; i++) {
        FreeChunk(kType, S.get(), chunks[i], 2);
        ASSERT_EQ(cached, i < 512 ? i + 1 : i == 512 + 252 ? 261 : i - 512 + 261);
        ASSERT_EQ(CheckAllocator(2).Bundles, i < 512 ? 0u : i < 512 + 252 ? 4u : 8u);
    }
    // Another scheduler takes four bundles of 63 at once: what the second spill gave, each chunk once.
    const auto taker = std::make_unique<Scheduler>();
    std::set<void *> taken;
    for (int i = 0; i < 252; i++) taken.insert(AllocChunk(kType, taker.get(), 2));
    EXPECT_EQ(taken, std::set<void *>(chunks.begin() + 513, chunks.begin() + 765));
    EXPECT_EQ(taker->ChunkCacheCount[2], 0u);
    EXPECT_EQ(CheckAllocator(2).Bundles, 4u);
}

// A chunk that moved between two looks counts as freed only.
TEST_F(Alloc, DumpWithMoreFreedThanAllocated) {
    const test::Killed killed = test::Kill([&] {
        gSchedulers[0] = S.get();
        gSchedulersMade = 1;
        S->ChunkTypeCount[ALLOC_FIBER_MESSAGE] = -1;
        S->ChunkTypeCount[ALLOC_PSEHAND] = 8;
        Take(kRegion - 16);
        KVTAllocDebugInfo();
    });
    for (const char *line : {"Total VirtualAlloc'd = 16384 k", "FIBER_MESSAGE = 0 k", "PSEHAND = 2 k", "info END\n"})
        EXPECT_NE(killed.Lines.find(line), std::string::npos) << line << killed.Lines;
}

TEST_F(Alloc, BlocksSplitAndSort) {
    // Exactly one region: nothing is left over. One byte more: twice the region, and the rest is a block at an odd
    // address.
    EXPECT_NE(Take(kRegion - 16), nullptr);
    EXPECT_TRUE(gTotalVirtualAlloc.load() == kRegion && CheckAllocator(0).FreeBlocks == 0);
    void *odd = Take(kRegion - 15);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion - 1);
    EXPECT_EQ(Take(kRegion - 1 - 16), static_cast<char *>(odd) + kRegion - 15 + 16);
    EXPECT_TRUE(gTotalVirtualAlloc.load() == 3 * kRegion && CheckAllocator(0).FreeBlocks == 0);
    // A rest of 16 bytes stays with the block, so that the block comes back as large as it was. One of 17 is a block.
    for (const uint32_t rest : {16u, 17u}) {
        KVTFree(odd, 0);
        EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion + 1);
        EXPECT_EQ(Take(kRegion - 15 - rest), odd);
        EXPECT_EQ(CheckAllocator(0).LargestBlock, rest == 16 ? 0 : rest);
    }
    // Nodes are apart: what is free on one serves no other. Equal blocks are last in, first out.
    KVTFree(KVTAllocSched(kRegion - 16, S.get(), 5), 5);
    void *const equal[] = {Take(1000), Take(1000)};
    EXPECT_EQ(gTotalVirtualAlloc.load(), 5 * kRegion);
    Take(CheckAllocator(0).LargestBlock - 16);  // only what is freed now is free
    for (void *block : equal) KVTFree(block, 0);
    for (int i : {1, 0}) EXPECT_EQ(Take(1000), equal[i]);
    for (uint32_t size : {0xFFFFFFF0u, 0xFFFFFFFFu}) EXPECT_EQ(Take(size), nullptr) << "does not fit with its header";
}

}  // namespace
}  // namespace zvx
