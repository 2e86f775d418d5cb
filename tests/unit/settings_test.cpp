// Settings: what each key does, in the order in which keys override one another, and the start-up text.
#include "config/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>

#include "child.h"
#include "diag/timesource.h"
#include "sched/records.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;

std::map<std::string, std::string> gValues;  // what the host knows, by full name
std::vector<std::string> gAsked;

// A host that does not terminate what it stores.
int HostLookup(const char *name, char *buffer, int capacity) {
    gAsked.emplace_back(name);
    const auto found = gValues.find(name);
    if (found == gValues.end()) return 0;
    const std::string value = found->second.substr(0, static_cast<size_t>(capacity));
    std::memset(buffer, '7', static_cast<size_t>(capacity) + 1);
    std::memcpy(buffer, value.data(), value.size());
    return static_cast<int>(value.size());
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
    EXPECT_EQ(gNumSchedulers, 4u);
    EXPECT_EQ(gStackSize, 1u << 20);
    EXPECT_EQ(gQuantumUpdateInterval, 200u);
}

// The common name wins; a value without digits counts as none; names are cut at 127 characters.
TEST(Settings, TwoNames) {
    gLookupValue = HostLookup;
    std::strcpy(gSid, "PROD1");
    gValues = {{"ZVX_FIBERS_K", "4"}, {"ZVX_PROD1_FIBERS_K", "2"}, {"ZVX__FIBERS_LFI", "9"}};
    EXPECT_EQ(Value("K"), 4u);
    gValues["ZVX_FIBERS_K"] = "abc";
    EXPECT_EQ(Value("K"), 2u);
    gSid[0] = 0;
    EXPECT_EQ(Value("LFI"), 9u);
    Value(std::string(500, 'k').c_str());
    EXPECT_EQ(*(gAsked.end() - 2), "ZVX_FIBERS_" + std::string(116, 'k'));
    std::memset(gSid, 'S', 259);
    Value("LFI");
    EXPECT_EQ(gAsked.back(), "ZVX_" + std::string(123, 'S'));
}

// Conversion is that of strtoul with a long of 32 bits. A host that miscounts: fuzz/settings.
TEST(Settings, OddValues) {
    gLookupValue = HostLookup;
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
    EXPECT_EQ(gScript.ProcessMask, 0x6u);
    os::FailCall("SetProcessAffinityMask", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(count("Affinity", "2"), 2u) << "the count is that of the mask in force";
    gScript.ProcessMask = 1;
    EXPECT_EQ(count(), 1u);
    EXPECT_FALSE(OptionSet(su_BoostLGWROSThreadPri)) << "on one processor the log writer is not raised";
    gScript.ProcessMask = gScript.SystemMask = 0xFFFFFFFF;
    EXPECT_EQ(count(), 16u);
    os::FailCall("GetProcessAffinityMask", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(count("Schedulers", "4000000000"), 4000000000u) << "start-up refuses it with its own text";
}

TEST(Settings, FlagsByValue) {
    const struct {
        const char *Key, *Value;
        uint32_t Set, Cleared = 0;  // against the defaults
    } cases[] = {
        {"FiberModeReq", "2", 0, su_FiberModeReq},
        {"PrintToConsole", "2", 0, su_Print},
        {"DynamicSchedUseNTPostWait", "1", su_DynamicSchedUseNTPostWait},
        {"PFOneRQ", "2", su_PFOneRQ},
        {"BoostLGWROSThreadPri", "0", 0, su_BoostLGWROSThreadPri},
        {"SetThreadPriority", "1", su_SetThreadPriority},
        {"SetThreadPriority", "6", su_SetThreadPriority | su_SetThreadPriorityConvertANtoHIGHEST},
        {"SetThreadPriority", "12", su_SetThreadPriority | su_SetThreadPriorityConvertANtoTC | su_BoostDBWRPriority},
        {"OnYieldChkCompPort", "2", su_PollCompletionPort},
        {"OnYieldChkCompPort", "1", 0},
        {"DynamicSchedulersEnabled", "1", su_DynamicSchedulersEnabled},
        {"DynamicSchedulersEnabled", "2", su_DynamicSchedulersEnabled | su_DynamicSchedulersEnabledExcludeDBWR},
        {"DynamicSchedulersEnabled", "3", 0},
        {"DynamicSchedulersBind", "1", su_DynamicSchedulersBind},
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
        {"RunQOrder", "2", gPRQ, 1},
        {"EnableHighPerformanceOptimization1", "1", gNumContextSwitchesBeforePolling, 0},
        {"NumContextSwitchesBeforePolling", "50", gNumContextSwitchesBeforePolling, 50},
    };
    for (const auto &c : cases) {
        Read({{c.Key, c.Value}});
        EXPECT_EQ(c.Variable, c.Result) << c.Key << "=" << c.Value;
    }
    Read({{cases[8].Key, "1"}, {cases[9].Key, "50"}});
    EXPECT_EQ(gNumContextSwitchesBeforePolling, 50u) << "the later key wins";
}

}  // namespace
}  // namespace zvx
