// config/settings.h - the option flags and the settings variables.
//
// Set once at start-up on the host's thread, before any scheduler exists, and read without locks afterwards.
// The only later writers of OptionFlags are start-up (su_InFiber, su_FiberMode, su_Initialized) and the
// allocator (clears su_EnableLargePages), so the word is atomic with relaxed reads.
#ifndef ZVX_CONFIG_SETTINGS_H
#define ZVX_CONFIG_SETTINGS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zvx {

enum OptionFlag : uint32_t {
    su_InFiber = 0x00000001,
    su_FiberModeReq = 0x00000002,
    su_FiberMode = 0x00000004,
    su_IoPollMode = 0x00000008,
    su_Initialized = 0x00000010,
    su_RunTests = 0x00000020,
    su_Print = 0x00000040,
    su_LogToFile = 0x00000080,
    su_SetThreadPriorityConvertANtoTC = 0x00000100,
    su_EnableLargePages = 0x00000200,
    su_EnableSchedOpt1 = 0x00000400,
    su_BoostLGWROSThreadPri = 0x00000800,
    su_PFOneRQ = 0x00001000,
    su_FiberMigrationEnabled = 0x00002000,
    su_SetThreadPriority = 0x00008000,
    su_PeriodicRegistryScan = 0x00010000,
    su_FastSleepEx = 0x00020000,
    su_GiveLGWRHighPriority = 0x00040000,
    su_YieldAfterHPPost = 0x00080000,
    su_DynamicSchedulersEnabled = 0x00100000,
    su_DynamicSchedulersBoostPriority = 0x00200000,
    su_DynamicSchedulersBind = 0x00400000,
    su_LongIdleWait = 0x00800000,
    su_DynamicSchedUseNTPostWait = 0x01000000,
    su_BindDBWRToASeperateCPU = 0x02000000,
    su_BoostDBWRPriority = 0x04000000,
    su_DynamicSchedulersEnabledExcludeDBWR = 0x08000000,
    su_SetThreadPriorityConvertANtoHIGHEST = 0x10000000,
    su_PollCompletionPort = 0x20000000,
    su_BoostDBWOSThreadPri = 0x40000000,
};

extern std::atomic<uint32_t> OptionFlags;
inline bool OptionSet(uint32_t flag) { return (OptionFlags.load(std::memory_order_relaxed) & flag) != 0; }
inline void SetOption(uint32_t flag) { OptionFlags.fetch_or(flag, std::memory_order_release); }
inline void ClearOption(uint32_t flag) { OptionFlags.fetch_and(~flag, std::memory_order_release); }
// Both bits that make an exported function act on its own rather than pass through.
inline bool FiberModeActive() {
    constexpr uint32_t both = su_InFiber | su_FiberMode;
    return (OptionFlags.load(std::memory_order_acquire) & both) == both;
}

// The host's value lookup: stores at most `capacity` characters of the value of `name` and returns how many;
// below 1 means that the name has no value.
using LookupValueFunc = int (*)(const char *name, char *buffer, int capacity);
// The process environment; what a null LookupValue stands for.
int LookupEnvironment(const char *name, char *buffer, int capacity);

extern LookupValueFunc gLookupValue;

extern uint32_t gNumSchedulers;
extern uint32_t gStackSize;  // bytes
extern uint32_t gTimerInterval;  // milliseconds
extern uint32_t gStatsInterval;  // seconds
extern uint32_t gAlterDistributionLGWR;
extern uint32_t gAlterDistributionDBWR;
extern uint32_t gLFI;   // milliseconds
extern uint32_t gDCPQ;  // switches between two drains of a port
extern uint32_t gNumContextSwitchesBeforePolling;
extern uint32_t gLPRQMaxDelay;               // passes
extern uint32_t gDefaultNetShadowSpinTimeMs;  // milliseconds
extern uint32_t gSpinIfLGWRActiveInMs;
extern uint32_t gLGWRHighActivityPeriodInMs;
extern uint32_t gLGWRHighActivityNumIOsThreshold;
extern uint32_t gLGWRHighActivityNumShadowsThreshold;
extern uint32_t gQuantumUpdateInterval;  // milliseconds
extern uint32_t gFiberHistorySchedId;
extern uint32_t gStallReportMs;  // a thread that keeps its scheduler for longer is reported, milliseconds; 0: none is
extern uint32_t gPortWaitMs;  // longest wait of an idle scheduler in its port, milliseconds; default 1

// The start-up text: appended to by start-up, the settings and the allocator; written nowhere.
constexpr uint32_t INITIAL_OUTPUT_BUFFER_SIZE = 32768;
extern char initialOutputBuffer[INITIAL_OUTPUT_BUFFER_SIZE];
extern uint32_t initialOutputBufferOffset;
void AppendInitialOutput(const char *format, ...) __attribute__((format(printf, 1, 2)));  // cut at the end

// Looks `key` up under its two names; false when absent or without digits. Host thread, at start-up.
bool GetSetting(const char *key, int base, uint32_t *value);
// Writes every default, then reads every setting. Once, at start-up.
void ReadSchedulerSettings();
void DumpSchedInternalVariables();  // to the trace log; any thread
// A trace line for each of the `count` bits that is set in `value`, and one for what has no name. Any thread.
void DecodeFlags(uint32_t value, const uint32_t *bits, const char *const *names, uint32_t count, uint32_t indent);

}  // namespace zvx

#endif  // ZVX_CONFIG_SETTINGS_H
