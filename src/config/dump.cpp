// config/dump.cpp - the settings as text: the internal-variable dump of a fatal error, and names of flag bits.
//
// Runs on the thread that ends the process, and on any thread that asks for a dump. It reads the settings without
// locks (they are constant after start-up) and writes trace lines; nothing else.
#include <cstdio>
#include <cstring>

#include "config/settings.h"
#include "diag/trace.h"

namespace zvx {

namespace {

constexpr uint32_t kLineBytes = 276;

constexpr uint32_t kOptionBits[] = {
    su_InFiber,
    su_FiberModeReq,
    su_FiberMode,
    su_IoPollMode,
    su_Initialized,
    su_RunTests,
    su_Print,
    su_LogToFile,
    su_SetThreadPriorityConvertANtoTC,
    su_EnableLargePages,
    su_EnableSchedOpt1,
    su_BoostLGWROSThreadPri,
    su_PFOneRQ,
    su_FiberMigrationEnabled,
    su_SetThreadPriority,
    su_PeriodicRegistryScan,
    su_FastSleepEx,
    su_GiveLGWRHighPriority,
    su_YieldAfterHPPost,
    su_DynamicSchedulersEnabled,
    su_DynamicSchedulersBoostPriority,
    su_DynamicSchedulersBind,
    su_LongIdleWait,
    su_DynamicSchedUseNTPostWait,
    su_BindDBWRToASeperateCPU,
    su_BoostDBWRPriority,
    su_DynamicSchedulersEnabledExcludeDBWR,
    su_SetThreadPriorityConvertANtoHIGHEST,
    su_PollCompletionPort,
    su_BoostDBWOSThreadPri,
};

constexpr const char *kOptionNames[] = {
    "su_InFiber",
    "su_FiberModeReq",
    "su_FiberMode",
    "su_IoPollMode",
    "su_Initialized",
    "su_RunTests",
    "su_Print",
    "su_LogToFile",
    "su_SetThreadPriorityConvertANtoTC",
    "su_EnableLargePages",
    "su_EnableSchedOpt1",
    "su_BoostLGWROSThreadPri",
    "su_PFOneRQ",
    "su_FiberMigrationEnabled",
    "su_SetThreadPriority",
    "su_PeriodicRegistryScan",
    "su_FastSleepEx",
    "su_GiveLGWRHighPriority",
    "su_YieldAfterHPPost",
    "su_DynamicSchedulersEnabled",
    "su_DynamicSchedulersBoostPriority",
    "su_DynamicSchedulersBind",
    "su_LongIdleWait",
    "su_DynamicSchedUseNTPostWait",
    "su_BindDBWRToASeperateCPU",
    "su_BoostDBWRPriority",
    "su_DynamicSchedulersEnabledExcludeDBWR",
    "su_SetThreadPriorityConvertANtoHIGHEST",
    "su_PollCompletionPort",
    "su_BoostDBWOSThreadPri",
};
constexpr uint32_t kNumOptions = sizeof(kOptionBits) / sizeof(kOptionBits[0]);
static_assert(kNumOptions == 30 && sizeof(kOptionNames) / sizeof(kOptionNames[0]) == kNumOptions,
              "every named option, once");

// Indents the line in `buffer` and returns where its text begins; an indent that leaves no room is cut.
char *Indent(char *buffer, uint32_t indent) {
    const uint32_t blanks = indent < kLineBytes - 1 ? indent : kLineBytes - 1;
    std::memset(buffer, ' ', blanks);
    buffer[blanks] = 0;
    return buffer + blanks;
}

size_t RoomAfter(const char *buffer, const char *text) {
    return kLineBytes - static_cast<size_t>(text - buffer);
}

}  // namespace

void DecodeFlags(uint32_t value, const uint32_t *bits, const char *const *names, uint32_t count, uint32_t indent) {
    char line[kLineBytes];
    char *text = Indent(line, indent);
    uint32_t covered = 0;
    for (uint32_t i = 0; i < count; i++) {
        if ((value & bits[i]) == 0) continue;
        std::snprintf(text, RoomAfter(line, text), "0x%X : %s\n", bits[i], names[i]);
        TracePrintf("%s", line);
        covered |= bits[i];
    }
    if (covered == value) return;
    std::snprintf(text, RoomAfter(line, text), "INCOMPLETE decode [%d]\n", static_cast<int>(value & ~covered));
    TracePrintf("%s", line);
}

void DumpSchedInternalVariables() {
    TracePrintf("Sched Internal Variables:\n");
    TracePrintf("InfoFlags:\n");
    DecodeFlags(OptionFlags.load(std::memory_order_relaxed), kOptionBits, kOptionNames, kNumOptions, 2);
    TracePrintf("#ofSch[%d] StackSize[%d] PortTO[%d] TimerInt[%d] AlterD[%d]\n", static_cast<int>(gNumSchedulers),
                static_cast<int>(gStackSize), static_cast<int>(gPortWaitMs), static_cast<int>(gTimerInterval),
                static_cast<int>(gAlterDistributionLGWR));
    TracePrintf("IoBackend[%s]\n", os::IoBackendName());
    const char *note = os::IoBackendNote();
    if (note[0] != 0) TracePrintf("%s\n", note);
}

}  // namespace zvx
