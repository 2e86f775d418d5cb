// config/settings.cpp - reading the settings.
//
// Runs once, on the host's thread inside the library's initialisation, before a scheduler exists: no locks. Values
// come through the host's lookup function, under a name common to all instances of the server and then under one
// that carries the instance's name. A value that makes no sense is never reported: it leaves the default.
#include "config/settings.h"

#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag/timesource.h"
#include "diag/trace.h"
#include "sched/records.h"

namespace zvx {

std::atomic<uint32_t> OptionFlags;
LookupValueFunc gLookupValue;

uint32_t gNumSchedulers;
uint32_t gStackSize;
uint32_t gTimerInterval;
uint32_t gStatsInterval;
uint32_t gAlterDistributionLGWR;
uint32_t gAlterDistributionDBWR;
uint32_t gLFI;
uint32_t gDCPQ;
uint32_t gNumContextSwitchesBeforePolling;
uint32_t gLPRQMaxDelay;
uint32_t gDefaultNetShadowSpinTimeMs;
uint32_t gSpinIfLGWRActiveInMs;
uint32_t gLGWRHighActivityPeriodInMs;
uint32_t gLGWRHighActivityNumIOsThreshold;
uint32_t gLGWRHighActivityNumShadowsThreshold;
uint32_t gQuantumUpdateInterval;
uint32_t gFiberHistorySchedId;
uint32_t gStallReportMs;
uint32_t gPortWaitMs = 1;

char initialOutputBuffer[INITIAL_OUTPUT_BUFFER_SIZE];
uint32_t initialOutputBufferOffset;

namespace {

constexpr int kValueCapacity = 63;
constexpr uint32_t kNoAffinity = 0xFFFFFFFFu;
constexpr uint32_t kMostDefaultSchedulers = 16;  // leaves the other half of the table to dynamic schedulers

constexpr uint32_t kDefaultSet = su_FiberModeReq | su_Print | su_EnableLargePages | su_EnableSchedOpt1 |
                                 su_FastSleepEx | su_GiveLGWRHighPriority | su_DynamicSchedulersBoostPriority |
                                 su_LongIdleWait;
constexpr uint32_t kDefaultClear = su_IoPollMode | su_LogToFile | su_PFOneRQ | su_FiberMigrationEnabled |
                                   su_SetThreadPriority | su_PeriodicRegistryScan | su_YieldAfterHPPost |
                                   su_DynamicSchedulersEnabled | su_DynamicSchedulersBind |
                                   su_DynamicSchedUseNTPostWait | su_PollCompletionPort;
static_assert(kDefaultSet == 0x00A60642, "the values that dumps of a default process show");
static_assert(~kDefaultClear == 0xDEA64F77, "the same");

// A name under construction; cut at the end of the buffer.
struct NameBuffer {
    char Text[128];
    size_t Length = 0;

    void Append(const char *piece) {
        const size_t room = sizeof(Text) - 1 - Length;
        const size_t length = std::strlen(piece);
        const size_t copied = length < room ? length : room;
        std::memcpy(Text + Length, piece, copied);
        Length += copied;
        Text[Length] = 0;
    }
};

// The number that strtoul gives where a long has 32 bits: out of range is all ones, whatever the sign.
bool ParseNumber(const char *text, int base, uint32_t *value) {
    char *end = nullptr;
    errno = 0;
    const unsigned long long parsed = std::strtoull(text, &end, base);
    if (end == text) return false;
    const char *first = text;
    while (std::isspace(static_cast<unsigned char>(*first))) first++;
    const bool negative = *first == '-';
    const unsigned long long magnitude = negative ? 0 - parsed : parsed;
    *value = errno == ERANGE || magnitude > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(parsed);
    return true;
}

bool FetchNumber(const char *name, int base, uint32_t *value) {
    char buffer[kValueCapacity + 1];
    const LookupValueFunc lookup = gLookupValue != nullptr ? gLookupValue : LookupEnvironment;
    int length = lookup(name, buffer, kValueCapacity);
    if (length < 1) return false;
    if (length > kValueCapacity) length = kValueCapacity;
    buffer[length] = 0;
    return ParseNumber(buffer, base, value);
}

bool Number(const char *key, uint32_t *variable) {
    return GetSetting(key, 10, variable);
}

void AssignOption(uint32_t flag, bool on) {
    if (on)
        SetOption(flag);
    else
        ClearOption(flag);
}

// Set by the value 1, cleared by any other; the default stays without a value.
void FlagIfOne(const char *key, uint32_t flag) {
    uint32_t value;
    if (Number(key, &value)) AssignOption(flag, value == 1);
}

void FlagIfNonZero(const char *key, uint32_t flag) {
    uint32_t value;
    if (Number(key, &value)) AssignOption(flag, value != 0);
}

uint32_t OneOrZero(uint32_t flag) {
    return OptionSet(flag) ? 1 : 0;
}

void WriteDefaults() {
    gSpinIfLGWRActiveInMs = 100;
    gNumContextSwitchesBeforePolling = kAlwaysPackets;
    gLGWRHighActivityPeriodInMs = 60000;
    gLFI = 10;
    gLGWRHighActivityNumIOsThreshold = 200;
    gLPRQMaxDelay = 0;
    gLGWRHighActivityNumShadowsThreshold = 3;
    gStatsInterval = 60;
    gDefaultNetShadowSpinTimeMs = 2;
    gStackSize = 0x100000;
    gTimerInterval = 2;
    gDCPQ = 100000;
    gAlterDistributionLGWR = 0;
    gAlterDistributionDBWR = 0;
    gFiberHistorySchedId = 0;
    gPortWaitMs = 1;
    gStallReportMs = 0;
    OptionFlags.fetch_or(kDefaultSet, std::memory_order_relaxed);
    OptionFlags.fetch_and(~kDefaultClear, std::memory_order_relaxed);
}

// Narrows the process to `wanted` where that leaves a processor, and counts the processors that it may use.
void CountProcessors(uint32_t wanted) {
    const HANDLE self = os::GetCurrentProcess();
    uint32_t processMask = 0;
    uint32_t systemMask = 0;
    if (!os::GetProcessAffinityMask(self, &processMask, &systemMask)) processMask = 0;
    if (processMask != 0 && wanted != kNoAffinity && (processMask & wanted) != 0) {
        os::SetProcessAffinityMask(self, processMask & wanted);
        // Read back: the count comes from the mask that is in force, whether it could be set or not.
        if (!os::GetProcessAffinityMask(self, &processMask, &systemMask)) processMask = 0;
    }
    const auto processors = static_cast<uint32_t>(std::popcount(processMask));
    gNumSchedulers = processors == 0 ? 1 : processors < kMostDefaultSchedulers ? processors : kMostDefaultSchedulers;
    // With one processor a raised writer would keep everything else from running.
    AssignOption(su_BoostLGWROSThreadPri, gNumSchedulers > 1);
    ClearOption(su_BoostDBWOSThreadPri);
}

void ReadSchedulerCount() {
    uint32_t value;
    if (!Number("Schedulers", &value)) return;
    // Start-up refuses a count that the table cannot hold, with the text for it.
    gNumSchedulers = value != 0 ? value : 1;
}

void ReadThreadPriorities() {
    uint32_t value;
    if (!Number("SetThreadPriority", &value)) return;
    AssignOption(su_SetThreadPriority, value != 0);
    if ((value & 2) != 0)
        SetOption(su_SetThreadPriorityConvertANtoHIGHEST);
    else if ((value & 4) != 0)
        SetOption(su_SetThreadPriorityConvertANtoTC);
    if ((value & 8) != 0) SetOption(su_BoostDBWRPriority);
}

void ReadDistribution() {
    if (Number("AlterDistributionLGWR", &gAlterDistributionLGWR))
        AppendInitialOutput("AlterDistributionLGWR %d\n", static_cast<int>(gAlterDistributionLGWR));
    if (Number("AlterDistributionDBWR", &gAlterDistributionDBWR))
        AppendInitialOutput("AlterDistributionDBWR %d\n", static_cast<int>(gAlterDistributionDBWR));
}

void ReadDynamicSchedulers() {
    uint32_t value;
    if (Number("DynamicSchedulersBind", &value)) {
        if (value == 2)
            SetOption(su_BindDBWRToASeperateCPU);
        else
            AssignOption(su_DynamicSchedulersBind, value == 1);
    }
    FlagIfOne("DynamicSchedulersBoostPriority", su_DynamicSchedulersBoostPriority);
    FlagIfOne("LongIdleWait", su_LongIdleWait);
    FlagIfOne("DynamicSchedUseNTPostWait", su_DynamicSchedUseNTPostWait);
    Number("FiberHistorySchedId", &gFiberHistorySchedId);
}

void ReadRunQueueOrder() {
    static const char *const postsFirst[] = {"HPRQ", "PRQ", "FRQ", "SRQ", "LPRQ", "ORQ"};
    static const char *const filesFirst[] = {"HPRQ", "FRQ", "PRQ", "SRQ", "LPRQ", "ORQ"};
    uint32_t order = 0;
    const bool swapped = Number("RunQOrder", &order) && order == 1;
    gPRQ = swapped ? 2 : 1;
    gFRQ = swapped ? 1 : 2;
    gRunQNames = swapped ? filesFirst : postsFirst;
    AppendInitialOutput("RunQ Order [%s]\n", swapped ? "F P S" : "P F S");
}

void ReadPolling() {
    Number("NumContextSwitchesBeforePolling", &gNumContextSwitchesBeforePolling);
    if (gNumContextSwitchesBeforePolling >= kAlwaysPackets)
        AppendInitialOutput("Using completion ports always\n");
    else if (gNumContextSwitchesBeforePolling == 0)
        AppendInitialOutput("Polling model\n");
    else
        AppendInitialOutput("NumContextSwitchesBeforePolling: %u\n", gNumContextSwitchesBeforePolling);
}

void NumberWithLine(const char *key, const char *label, uint32_t *variable) {
    Number(key, variable);
    AppendInitialOutput("%s: %u\n", label, *variable);
}

void FlagWithLine(const char *key, uint32_t flag) {
    FlagIfNonZero(key, flag);
    AppendInitialOutput("%s: %u\n", key, OneOrZero(flag));
}

void ReadQuantumLength() {
    uint32_t length = 600;
    Number("QuantumLengthMs", &length);
    // The quantum thread sleeps for the interval; it must not spin when the length is below three.
    gQuantumUpdateInterval = length >= 3 ? length / 3 : 1;
    AppendInitialOutput("QuantumLengthMs: %u\n", length);
}

}  // namespace

int LookupEnvironment(const char *name, char *buffer, int capacity) {
    const auto room = static_cast<DWORD>(capacity);
    char direct[512];
    const DWORD length = os::GetEnvironmentVariableA(name, direct, sizeof(direct));
    if (length == 0) return 0;
    if (length < sizeof(direct)) {
        const DWORD kept = length < room ? length : room;
        std::memcpy(buffer, direct, kept);
        return static_cast<int>(kept);
    }
    // A value that long is cut all the same, but its beginning must be fetched with the whole of it.
    auto *whole = static_cast<char *>(os::LocalAlloc(0, length));
    if (whole == nullptr) return 0;
    const DWORD got = os::GetEnvironmentVariableA(name, whole, length);
    DWORD kept = 0;
    if (got != 0 && got < length) {
        kept = got < room ? got : room;
        std::memcpy(buffer, whole, kept);
    }
    os::LocalFree(whole);
    return static_cast<int>(kept);
}

void AppendInitialOutput(const char *format, ...) {
    if (initialOutputBufferOffset >= INITIAL_OUTPUT_BUFFER_SIZE) return;
    const uint32_t room = INITIAL_OUTPUT_BUFFER_SIZE - initialOutputBufferOffset;
    va_list args;
    va_start(args, format);
    const int wanted = std::vsnprintf(initialOutputBuffer + initialOutputBufferOffset, room, format, args);
    va_end(args);
    if (wanted < 0) return;
    // A full buffer is a start-up error, which start-up reports; the text so far stays readable.
    initialOutputBufferOffset = static_cast<uint32_t>(wanted) < room
                                    ? initialOutputBufferOffset + static_cast<uint32_t>(wanted)
                                    : INITIAL_OUTPUT_BUFFER_SIZE;
}

bool GetSetting(const char *key, int base, uint32_t *value) {
    NameBuffer common;
    common.Append("ZVX_FIBERS_");
    common.Append(key);
    if (FetchNumber(common.Text, base, value)) return true;
    NameBuffer own;
    own.Append("ZVX_");
    own.Append(gSid);
    own.Append("_FIBERS_");
    own.Append(key);
    return FetchNumber(own.Text, base, value);
}

// The order matters: a later key may override what an earlier one did, and the start-up text has this order.
void ReadSchedulerSettings() {
    uint32_t value;
    WriteDefaults();
    uint32_t affinity = kNoAffinity;
    GetSetting("Affinity", 16, &affinity);
    if (Number("EnableHighPerformanceOptimization1", &value) && value != 0) gNumContextSwitchesBeforePolling = 0;
    CountProcessors(affinity);
    FlagIfOne("FiberModeReq", su_FiberModeReq);
    FlagIfOne("PrintToConsole", su_Print);
    if (OptionSet(su_Print)) AppendInitialOutput("PrintToConsole\n");
    FlagIfOne("LogToFile", su_LogToFile);
    if (OptionSet(su_LogToFile)) AppendInitialOutput("LogToFile\n");
    if (Number("StackPages", &value)) gStackSize = value << 13;  // pages of 8 KiB
    FlagIfOne("IoPollingEnabled", su_IoPollMode);
    FlagIfOne("FastSleepEx", su_FastSleepEx);
    ReadSchedulerCount();
    NumberWithLine("TimerInterval", "TimerInterval", &gTimerInterval);
    FlagIfOne("EnableFiberMigration", su_FiberMigrationEnabled);
    ReadThreadPriorities();
    FlagIfOne("PeriodicRegistryScan", su_PeriodicRegistryScan);
    FlagIfOne("GiveLGWRHighPriority", su_GiveLGWRHighPriority);
    FlagIfOne("YieldAfterHPPost", su_YieldAfterHPPost);
    AppendInitialOutput("YieldAfterHPPost: %u\n", OneOrZero(su_YieldAfterHPPost));
    if (Number("StatsInterval", &gStatsInterval)) AppendInitialOutput("StatsInterval %u secs\n", gStatsInterval);
    if (Number("OnYieldChkCompPort", &value)) AssignOption(su_PollCompletionPort, value == 2);
    if (Number("DynamicSchedulersEnabled", &value)) {
        AssignOption(su_DynamicSchedulersEnabled, value == 1 || value == 2);
        if (value == 2) SetOption(su_DynamicSchedulersEnabledExcludeDBWR);
    }
    ReadDistribution();
    ReadDynamicSchedulers();
    ReadRunQueueOrder();
    FlagWithLine("PFOneRQ", su_PFOneRQ);
    NumberWithLine("LFI", "LFI", &gLFI);
    NumberWithLine("DCPQ", "DCPQ", &gDCPQ);
    ReadPolling();
    NumberWithLine("LPRQMaxDelay", "LPRQMaxDelay", &gLPRQMaxDelay);
    FlagWithLine("EnableLargePages", su_EnableLargePages);
    FlagWithLine("EnableSchedOpt1", su_EnableSchedOpt1);
    FlagWithLine("BoostLGWROSThreadPri", su_BoostLGWROSThreadPri);
    FlagWithLine("BoostDBWOSThreadPri", su_BoostDBWOSThreadPri);
    NumberWithLine("DefaultNetShadowSpinTimeMs", "DefaultNetShadowSpinTimeMs", &gDefaultNetShadowSpinTimeMs);
    NumberWithLine("SpinIfLGWRActiveInMs", "SpinIfLGWRActiveInMs", &gSpinIfLGWRActiveInMs);
    // This key alone carries the variable's prefix.
    NumberWithLine("gLGWRHighActivityPeriodInMs", "LGWRHighActivityPeriodInMs", &gLGWRHighActivityPeriodInMs);
    NumberWithLine("LGWRHighActivityNumIOsThreshold", "LGWRHighActivityNumIOsThreshold",
                   &gLGWRHighActivityNumIOsThreshold);
    NumberWithLine("LGWRHighActivityNumShadowsThreshold", "LGWRHighActivityNumShadowsThreshold",
                   &gLGWRHighActivityNumShadowsThreshold);
    ReadQuantumLength();
    AppendInitialOutput("CPU Frequency: %u\n", static_cast<uint32_t>(static_cast<uint64_t>(gCpuFrequency)));
    // A wait of 0 would make every idle scheduler spin.
    if (Number("PortWaitMs", &value) && value != 0) gPortWaitMs = value;
    Number("StallReportMs", &gStallReportMs);
}

}  // namespace zvx
