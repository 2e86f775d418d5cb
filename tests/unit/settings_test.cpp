// Settings: what each key does, in the order in which keys override one another, and the start-up text.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "config/settings.h"
#include "diag/timesource.h"
#include "diag/trace.h"
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
std::string Read(std::map<std::string, std::string> keys = {}) {
    gValues.clear();
    for (const auto &[key, value] : keys) gValues["ZVX_FIBERS_" + key] = value;
    gLookupValue = HostLookup;
    OptionFlags.store(0);
    initialOutputBufferOffset = 0;
    initialOutputBuffer[0] = 0;
    ReadSchedulerSettings();
    return initialOutputBuffer;
}

bool Says(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
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
    EXPECT_EQ(gStatsInterval, 60u);
    EXPECT_EQ(gQuantumUpdateInterval, 200u);
    EXPECT_EQ(gPortWaitMs, 1u);
}

// The common name wins; a value without digits counts as none; names are cut at 127 characters.
TEST(Settings, TwoNames) {
    gLookupValue = HostLookup;
    std::strcpy(gSid, "PROD1");
    uint32_t value = 0;
    gValues = {{"ZVX_FIBERS_Schedulers", "4"}, {"ZVX_PROD1_FIBERS_Schedulers", "2"}};
    EXPECT_TRUE(GetSetting("Schedulers", 10, &value));
    EXPECT_EQ(value, 4u);
    gValues["ZVX_FIBERS_Schedulers"] = "abc";
    EXPECT_TRUE(GetSetting("Schedulers", 10, &value));
    EXPECT_EQ(value, 2u);
    gValues["ZVX_FIBERS_Schedulers"] = "3x";
    EXPECT_TRUE(GetSetting("Schedulers", 10, &value));
    EXPECT_EQ(value, 3u);

    gSid[0] = 0;
    gValues = {{"ZVX__FIBERS_LFI", "9"}};
    EXPECT_TRUE(GetSetting("LFI", 10, &value));
    EXPECT_EQ(value, 9u);
    EXPECT_FALSE(GetSetting("DCPQ", 10, &value));
    EXPECT_EQ(value, 9u) << "an absent key must leave the variable alone";

    std::memset(gSid, 'S', 259);
    gSid[259] = 0;
    gAsked.clear();
    GetSetting("LFI", 10, &value);
    EXPECT_EQ(gAsked.back(), "ZVX_" + std::string(123, 'S'));
    gSid[0] = 0;
    gAsked.clear();
    GetSetting(std::string(500, 'k').c_str(), 10, &value);
    EXPECT_EQ(gAsked.front(), "ZVX_FIBERS_" + std::string(116, 'k'));
}

// Conversion is that of strtoul with a long of 32 bits.
TEST(Settings, Numbers) {
    gLookupValue = HostLookup;
    const struct {
        const char *Text;
        int Base;
        uint32_t Value;
    } cases[] = {{"-1", 10, 0xFFFFFFFF},
                 {" \t+12 ", 10, 12},
                 {"4294967295", 10, 0xFFFFFFFF},
                 {"4294967296", 10, 0xFFFFFFFF},
                 {"-4294967296", 10, 0xFFFFFFFF},
                 {"-4294967295", 10, 1},
                 {"0xF0", 16, 0xF0},
                 {"f0", 16, 0xF0},
                 {"0x10", 10, 0},
                 {"99999999999999999999999999", 10, 0xFFFFFFFF},
                 {"-99999999999999999999999999", 10, 0xFFFFFFFF}};
    for (const auto &c : cases) {
        uint32_t value = 1234567;
        gValues["ZVX_FIBERS_K"] = c.Text;
        EXPECT_TRUE(GetSetting("K", c.Base, &value)) << c.Text;
        EXPECT_EQ(value, c.Value) << c.Text;
    }
    for (const char *none : {"", " ", "-", "x1"}) {
        uint32_t value = 1234567;
        gValues["ZVX_FIBERS_K"] = none;
        EXPECT_FALSE(GetSetting("K", 10, &value)) << none;
    }
}

// A host that claims more than the buffer holds, or a negative count, harms nobody.
TEST(Settings, HostsThatMiscount) {
    uint32_t value = 5;
    gLookupValue = [](const char *, char *buffer, int) {
        std::memset(buffer, '1', 63);
        return 1000;
    };
    EXPECT_TRUE(GetSetting("K", 10, &value));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    gLookupValue = [](const char *, char *buffer, int) {
        buffer[0] = '1';
        return -1;
    };
    EXPECT_FALSE(GetSetting("K", 10, &value));
}

TEST(Settings, EnvironmentWithoutAHost) {
    gLookupValue = nullptr;
    gSid[0] = 0;
    uint32_t value = 0;
    setenv("ZVX_FIBERS_LFI", "25", 1);
    setenv("ZVX_FIBERS_DCPQ", ("7" + std::string(2000, ' ')).c_str(), 1);
    EXPECT_TRUE(GetSetting("LFI", 10, &value));
    EXPECT_EQ(value, 25u);
    EXPECT_TRUE(GetSetting("DCPQ", 10, &value)) << "a long value is cut, not lost";
    EXPECT_EQ(value, 7u);
    EXPECT_FALSE(GetSetting("StackPages", 10, &value));
}

TEST(Settings, ProcessorsAndSchedulers) {
    Read({{"Affinity", "f0"}});
    EXPECT_EQ(gNumSchedulers, 4u) << "no processor is left: the mask is ignored";
    EXPECT_EQ(gScript.ProcessMask, 0xFu);
    Read({{"Affinity", "6"}});
    EXPECT_EQ(gNumSchedulers, 2u);
    EXPECT_EQ(gScript.ProcessMask, 0x6u);
    // The mask cannot be set: the count is that of the mask in force.
    os::FailCall("SetProcessAffinityMask", 1, ERROR_ACCESS_DENIED);
    Read({{"Affinity", "2"}});
    EXPECT_EQ(gNumSchedulers, 2u);
    gScript.ProcessMask = 1;
    EXPECT_FALSE(Read().empty());
    EXPECT_EQ(gNumSchedulers, 1u);
    EXPECT_FALSE(OptionSet(su_BoostLGWROSThreadPri)) << "on one processor the log writer is not raised";
    gScript.ProcessMask = gScript.SystemMask = 0xFFFFFFFF;
    Read();
    EXPECT_EQ(gNumSchedulers, 16u);
    os::FailCall("GetProcessAffinityMask", 1, ERROR_ACCESS_DENIED);
    Read();
    EXPECT_EQ(gNumSchedulers, 1u);
    Read({{"Schedulers", "0"}});
    EXPECT_EQ(gNumSchedulers, 1u);
    Read({{"Schedulers", "31"}});
    EXPECT_EQ(gNumSchedulers, 31u);
    Read({{"Schedulers", "4000000000"}});
    EXPECT_EQ(gNumSchedulers, 4000000000u) << "start-up refuses it with its own text";
}

TEST(Settings, FlagsByValue) {
    const struct {
        const char *Key;
        const char *Value;
        uint32_t Set;    // on top of the defaults
        uint32_t Clear;  // of them
    } cases[] = {
        {"FiberModeReq", "0", 0, su_FiberModeReq},
        {"FiberModeReq", "2", 0, su_FiberModeReq},
        {"LogToFile", "1", su_LogToFile, 0},
        {"IoPollingEnabled", "1", su_IoPollMode, 0},
        {"FastSleepEx", "0", 0, su_FastSleepEx},
        {"EnableFiberMigration", "1", su_FiberMigrationEnabled, 0},
        {"SetThreadPriority", "1", su_SetThreadPriority, 0},
        {"SetThreadPriority", "6", su_SetThreadPriority | su_SetThreadPriorityConvertANtoHIGHEST, 0},
        {"SetThreadPriority", "12", su_SetThreadPriority | su_SetThreadPriorityConvertANtoTC | su_BoostDBWRPriority, 0},
        {"PeriodicRegistryScan", "1", su_PeriodicRegistryScan, 0},
        {"GiveLGWRHighPriority", "0", 0, su_GiveLGWRHighPriority},
        {"YieldAfterHPPost", "1", su_YieldAfterHPPost, 0},
        {"YieldAfterHPPost", "2", 0, 0},
        {"OnYieldChkCompPort", "2", su_PollCompletionPort, 0},
        {"OnYieldChkCompPort", "1", 0, 0},
        {"DynamicSchedulersEnabled", "1", su_DynamicSchedulersEnabled, 0},
        {"DynamicSchedulersEnabled", "2", su_DynamicSchedulersEnabled | su_DynamicSchedulersEnabledExcludeDBWR, 0},
        {"DynamicSchedulersEnabled", "3", 0, 0},
        {"DynamicSchedulersBind", "1", su_DynamicSchedulersBind, 0},
        {"DynamicSchedulersBind", "2", su_BindDBWRToASeperateCPU, 0},
        {"DynamicSchedulersBoostPriority", "0", 0, su_DynamicSchedulersBoostPriority},
        {"LongIdleWait", "0", 0, su_LongIdleWait},
        {"DynamicSchedUseNTPostWait", "1", su_DynamicSchedUseNTPostWait, 0},
        {"PFOneRQ", "7", su_PFOneRQ, 0},
        {"EnableLargePages", "0", 0, su_EnableLargePages},
        {"EnableSchedOpt1", "0", 0, su_EnableSchedOpt1},
        {"BoostLGWROSThreadPri", "0", 0, su_BoostLGWROSThreadPri},
        {"BoostDBWOSThreadPri", "5", su_BoostDBWOSThreadPri, 0},
    };
    for (const auto &c : cases) {
        Read({{c.Key, c.Value}});
        EXPECT_EQ(OptionFlags.load(), (kDefaults | c.Set) & ~c.Clear) << c.Key << "=" << c.Value;
    }
    // Bits outside the defaults that are only ever set survive a later value; the others are cleared by it.
    gValues = {{"ZVX_FIBERS_SetThreadPriority", "0"}, {"ZVX_FIBERS_DynamicSchedulersEnabled", "0"}};
    OptionFlags.store(su_SetThreadPriority | su_BoostDBWRPriority | su_DynamicSchedulersEnabledExcludeDBWR);
    ReadSchedulerSettings();
    EXPECT_EQ(OptionFlags.load(), kDefaults | su_BoostDBWRPriority | su_DynamicSchedulersEnabledExcludeDBWR);
}

TEST(Settings, NumbersAndTheirLines) {
    std::string text = Read({{"StackPages", "16"}, {"StatsInterval", "5"}, {"AlterDistributionLGWR", "-3"}});
    EXPECT_EQ(gStackSize, 131072u);
    EXPECT_TRUE(Says(text, "StatsInterval 5 secs"));
    EXPECT_TRUE(Says(text, "AlterDistributionLGWR -3"));
    EXPECT_EQ(gAlterDistributionLGWR, 0xFFFFFFFDu);
    Read({{"StackPages", "0x80001"}});
    EXPECT_EQ(gStackSize, 0u);
    Read({{"StackPages", "524289"}});
    EXPECT_EQ(gStackSize, 8192u) << "the shift is modulo 2^32";

    text = Read({{"EnableHighPerformanceOptimization1", "1"}});
    EXPECT_TRUE(Says(text, "Polling model"));
    text = Read({{"EnableHighPerformanceOptimization1", "1"}, {"NumContextSwitchesBeforePolling", "50"}});
    EXPECT_TRUE(Says(text, "NumContextSwitchesBeforePolling: 50"));
    EXPECT_EQ(gNumContextSwitchesBeforePolling, 50u);

    text = Read({{"gLGWRHighActivityPeriodInMs", "7"}, {"LGWRHighActivityNumIOsThreshold", "8"}});
    EXPECT_TRUE(Says(text, "LGWRHighActivityPeriodInMs: 7"));
    Read({{"LGWRHighActivityPeriodInMs", "7"}});
    EXPECT_EQ(gLGWRHighActivityPeriodInMs, 60000u) << "the key carries a g";

    Read({{"QuantumLengthMs", "100"}});
    EXPECT_EQ(gQuantumUpdateInterval, 33u);
    text = Read({{"QuantumLengthMs", "2"}});
    EXPECT_EQ(gQuantumUpdateInterval, 1u);
    EXPECT_TRUE(Says(text, "QuantumLengthMs: 2"));

    Read({{"PortWaitMs", "100"}});
    EXPECT_EQ(gPortWaitMs, 100u);
    Read({{"PortWaitMs", "0"}});
    EXPECT_EQ(gPortWaitMs, 1u);
}

TEST(Settings, RunQueueOrder) {
    EXPECT_TRUE(Says(Read({{"RunQOrder", "1"}}), "RunQ Order [F P S]"));
    EXPECT_EQ(gFRQ, 1u);
    EXPECT_EQ(gPRQ, 2u);
    EXPECT_STREQ(gRunQNames[gPRQ], "PRQ");
    EXPECT_STREQ(gRunQNames[gFRQ], "FRQ");
    EXPECT_TRUE(Says(Read({{"RunQOrder", "2"}}), "RunQ Order [P F S]"));
    EXPECT_EQ(gPRQ, 1u);
    EXPECT_STREQ(gRunQNames[1], "PRQ");
}

TEST(Settings, StartUpTextIsCutAndTold) {
    initialOutputBufferOffset = 0;
    const std::string line(1000, 'x');
    for (int i = 0; i < 32; i++) AppendInitialOutput("%s", line.c_str());
    EXPECT_EQ(initialOutputBufferOffset, 32000u);
    AppendInitialOutput("%s", line.c_str());
    EXPECT_EQ(initialOutputBufferOffset, INITIAL_OUTPUT_BUFFER_SIZE) << "start-up finds the overflow by this";
    AppendInitialOutput("more");
    EXPECT_EQ(std::strlen(initialOutputBuffer), INITIAL_OUTPUT_BUFFER_SIZE - 1);
}

// Whatever a host answers, nothing is read or written out of bounds and the tables stay consistent.
TEST(Settings, AnyAnswer) {
    static std::mt19937 random(20050903);
    gLookupValue = [](const char *, char *buffer, int capacity) {
        const int length = static_cast<int>(random() % 80) - 8;
        for (int i = 0; i < length && i < capacity; i++) {
            static const char likely[] = "0123456789-+ xXfF\t\0%s";
            buffer[i] = random() % 4 != 0 ? likely[random() % (sizeof(likely) - 1)] : static_cast<char>(random());
        }
        return length;
    };
    for (int round = 0; round < 2000; round++) {
        OptionFlags.store(0);
        initialOutputBufferOffset = 0;
        ReadSchedulerSettings();
        ASSERT_NE(gNumSchedulers, 0u);
        ASSERT_NE(gQuantumUpdateInterval, 0u);
        ASSERT_NE(gPortWaitMs, 0u);
        ASSERT_EQ(gPRQ + gFRQ, 3u);
        ASSERT_EQ(OptionFlags.load() & 0x80004037 & ~su_FiberModeReq, 0u) << "bits that no key may set";
        ASSERT_LT(initialOutputBufferOffset, 2000u);
        gScript.ProcessMask = 0xF;
    }
}

// ---- The dump ----------------------------------------------------------------------------------------

// The lines of the trace file without their time stamps.
std::string TraceText() {
    std::ifstream file(std::string(gTraceDir) + gTraceFileName);
    std::string text;
    for (std::string line; std::getline(file, line);) text += line.substr(line.find("] ") + 2) + "\n";
    return text;
}

TEST(Settings, Dump) {
    TraceInit(testing::TempDir().c_str());
    std::remove((std::string(gTraceDir) + gTraceFileName).c_str());
    Read({{"StackPages", "16"}, {"AlterDistributionLGWR", "-3"}, {"PortWaitMs", "100"}});
    OptionFlags.store(su_FiberModeReq | su_BoostDBWOSThreadPri | 0x4000);
    DumpSchedInternalVariables();
    const uint32_t bits[] = {1, 4};
    const char *const names[] = {"one", "four"};
    DecodeFlags(5, bits, names, 2, 4);
    DecodeFlags(0x80000006, bits, names, 2, 0);
    const std::string longName(400, 'n');
    const char *const longNames[] = {longName.c_str()};
    DecodeFlags(1, bits, longNames, 1, 2);
    EXPECT_EQ(TraceText(),
              "Sched Internal Variables:\nInfoFlags:\n  0x2 : su_FiberModeReq\n  0x40000000 : su_BoostDBWOSThreadPri\n"
              "  INCOMPLETE decode [16384]\n"
              "#ofSch[4] StackSize[131072] PortTO[100] TimerInt[2] AlterD[-3]\nIoBackend[scripted]\n"
              "    0x1 : one\n    0x4 : four\n0x4 : four\nINCOMPLETE decode [-2147483646]\n"
              "  0x1 : " +
                  std::string(275 - 8, 'n') + "\n");
    std::remove((std::string(gTraceDir) + gTraceFileName).c_str());
}

}  // namespace
}  // namespace zvx
