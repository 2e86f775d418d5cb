// diag/stats.cpp - the table of named statistics.
//
// A registry of names: it is filled once, on the start-up thread, before the first spin lock takes its name from
// it, and is only read afterwards. Nothing counts and nothing prints; a crash dump shows the records as they are.
#include "diag/stats.h"

#include <cstring>

#include "diag/trace.h"

namespace zvx {

StatRecord gStats[kNumStats];
uint32_t gStatSide[kNumStats][kStatSideWords];

namespace {

struct StatName {
    uint32_t Level;
    const char *Name;
};

// By identifier. The name doubles as the format of the one argument that some statistics take.
constexpr StatName kStatNames[] = {
    {0, "INVALID_STATISTIC"},
    {1, "ClsHW"},
    {1, "ClsHNW"},
    {2, "DupHW"},
    {1, "DupHNW"},
    {2, "CrNPAW"},
    {1, "CrNPANW"},
    {2, "CrNPWW"},
    {1, "CrNPWNW"},
    {2, "ConNPW_awo"},
    {2, "ConNPW_sano"},
    {1, "ConNPNW"},
    {2, "WtNPAW"},
    {2, "WtNPAW_poll"},
    {1, "WtNPANW"},
    {2, "WtNPWW"},
    {2, "WtNPWW_poll"},
    {1, "WtNPWNW"},
    {2, "WtPost [%u ms]"},
    {1, "WtPostHP [%u ms]"},
    {1, "WtPostFast"},
    {2, "DBWRPosted"},
    {1, "WtPostNW"},
    {2, "WtPostTO [%u ms]"},
    {1, "WtPostUserTO"},
    {1, "WtPostLGWRTO"},
    {1, "WtPostDBWRTO"},
    {1, "WtPostOtherTO"},
    {2, "WtPostNT"},
    {2, "PostWSame Post[%s]"},
    {1, "PosteeAlrdyPosted Post[%s]"},
    {1, "DBWRAlrdyPosted"},
    {2, "PostWDiffMCP NumPosted[%u]"},
    {2, "PostWDiffMUM NumPosted[%u]"},
    {2, "PostWDiffSCP Post[%s]"},
    {2, "PostWDiffSUM Post[%s]"},
    {1, "PostWDiffNP Post[%s]"},
    {1, "PostDeadF"},
    {1, "PostFiberNotOnSched"},
    {1, "PostNW"},
    {2, "HPFastPost"},
    {1, "HPFastPostFailed"},
    {2, "PostNT"},
    {2, "CrFileAW_s"},
    {2, "CrFileAW_a"},
    {1, "CrFileANW"},
    {2, "CrFileWW_s"},
    {2, "CrFileWW_a"},
    {1, "CrFileWNW"},
    {2, "RdFileW_awo"},
    {2, "RdFileW_s [%u k]"},
    {2, "RdFileW_ano [%u k]"},
    {2, "RdFileW_ano_nc [%u k]"},
    {1, "RdFileW_sano_spin_PLOSS"},
    {1, "RdFileNW"},
    {2, "WrFileW_awo"},
    {2, "WrFileW_s [%u k]"},
    {2, "WrFileW_ano [%u k]"},
    {2, "WrFileW_ano_nc [%u k]"},
    {1, "WrFileW_sano_spin_PLOSS"},
    {1, "WrFileNW"},
    {2, "RdFileExW [%u k]"},
    {1, "RdFileExW_cmp"},
    {1, "RdFileExNW"},
    {2, "WrFileExW [%u k]"},
    {1, "WrFileExW_cmp"},
    {1, "WrFileExNW"},
    {2, "GtOvResW"},
    {1, "GtOvResW_spin"},
    {1, "GtOvResNW"},
    {2, "SetFilePtrW"},
    {1, "SetFilePtrNW"},
    {2, "TlsGVW"},
    {1, "TlsGVNW"},
    {2, "TlsSVW"},
    {1, "TlsSVNW"},
    {1, "CrThrdW"},
    {1, "CrThrdNW"},
    {1, "GetThrdTimesW"},
    {1, "GetThrdTimesNW"},
    {1, "CrRemThrdW"},
    {1, "CrRemThrdNW"},
    {1, "SleepW_qp [%u ms]"},
    {1, "SleepW_t [%u ms]"},
    {1, "SleepW_latch [%u ms]"},
    {1, "SleepW_latchsk [%u ms]"},
    {1, "SleepNW"},
    {1, "SleepRecur"},
    {2, "SleepExW_t"},
    {2, "SleepExW_qp"},
    {2, "SleepExW_lp"},
    {2, "SleepExW_lpr"},
    {1, "SleepExNW"},
    {2, "SleepExN WaitFor[%u]"},
    {2, "SleepExNp Poll[%u]"},
    {2, "WtSOW_qp"},
    {2, "WtSOW_lp"},
    {2, "WtSOW_lpr"},
    {1, "WtSONW"},
    {2, "WtMOW_qp"},
    {2, "WtMOW_lp"},
    {2, "WtMOW_lpr"},
    {1, "WtMONW"},
    {2, "WtSOExW_qp"},
    {2, "WtSOExW_lp"},
    {2, "WtSOExW_lpr"},
    {1, "WtSOExNW"},
    {2, "WtMOExW_qp"},
    {2, "WtMOExW_lp"},
    {2, "WtMOExW_lpr"},
    {1, "WtMOExNW"},
    {2, "EnCritSecW"},
    {1, "EnCritSecNW"},
    {1, "WSASockWNW"},
    {2, "WSASockWW_a"},
    {2, "WSASockWW_s"},
    {2, "WSASockW"},
    {1, "WSASockNW"},
    {1, "WSASendWNW"},
    {1, "WSASendNW"},
    {2, "WSASendW"},
    {2, "WSASendW_s"},
    {2, "WSASendW_ano"},
    {2, "WSASendW_awo"},
    {2, "WSASendW_awo_ov"},
    {2, "WSASendW_ioc"},
    {1, "sendWNW"},
    {1, "sendNW"},
    {2, "sendW"},
    {1, "WSARecvWNW"},
    {1, "WSARecvNW"},
    {2, "WSARecvW"},
    {2, "WSARecvW_s"},
    {2, "WSARecvW_ano"},
    {2, "WSARecvW_awo"},
    {2, "WSARecvW_awo_ov"},
    {2, "WSARecvW_ioc"},
    {1, "recvWNW"},
    {1, "recvNW"},
    {2, "recvW"},
    {1, "WSAWaitFME_WNW"},
    {2, "WSAWaitFME_W_qp"},
    {2, "WSAWaitFME_W_lp"},
    {2, "WSAWaitFME_W_lpr"},
    {1, "WSAGetOR_WNW"},
    {1, "WSAGetOR_NW"},
    {2, "WSAGetOR_W"},
    {1, "WSAGetOR_W_spin"},
    {1, "WSAConnectWNW"},
    {1, "WSAAcceptWNW"},
    {1, "WSASetLE_WNW"},
    {1, "WSAGetLE_WNW"},
    {1, "WSASendToWNW"},
    {1, "SocketWNW"},
    {2, "SocketW"},
    {1, "RecvWNW"},
    {1, "RecvFromWNW"},
    {1, "SendWNW"},
    {1, "SelectWNW"},
    {2, "SelectW NumHandles[%d]"},
    {2, "SelectW_qp"},
    {1, "ConnectWNW"},
    {1, "AcceptWNW"},
    {1, "CloseSocketWNW"},
    {1, "CloseSocketNW"},
    {2, "CloseSocketW"},
    {2, "WSAAcceptWW_s"},
    {2, "WSAAcceptWW_a"},
    {2, "WSAAcceptW"},
    {2, "AcceptWW_s"},
    {2, "AcceptWW_a"},
    {2, "AcceptW"},
    {1, "LongTimeOut"},
    {1, "AllocateFiber"},
    {1, "FreeFiber"},
    {1, "FreeChunkSlow"},
    {1, "AllocChunkSlow"},
    {1, "AllocChunkSlowest"},
    {2, "S_CompPortTimedCheck TimeOut[%u ms]"},
    {2, "E_CompPortTimedCheck"},
    {1, "PollPrt4CmpltdHPIO"},
    {1, "SleepCnt"},
    {1, "TimedPoll"},
    {1, "TimedPollLong"},
    {1, "SleepPendShadNetIO"},
    {2, "RingLogQLock"},
    {2, "RingBufferQLock"},
    {2, "HandHashQLock"},
    {2, "FiberNewOverQLock"},
    {2, "FiberCritSecWrapLock"},
    {2, "SpawnDynamicSchedLock"},
    {2, "SleepLock"},
    {2, "FreeFiberShellsQLock"},
    {2, "CritSectionWaitersLock"},
    {2, "FreeChunksLock"},
    {1, "FreeBytesLock"},
    {1, "RunQLock"},
    {1, "TimerQLock"},
    {1, "DelQLock"},
    {1, "IOWaitQLock"},
    {1, "MigrationQLock"},
    {1, "FreeFibersQLock"},
    {1, "HighPriOvsToPollLock"},
    {1, "FileOvsToPollLock"},
    {1, "SocketOvsToPollLock"},
    {1, "UserMessageQLock"},
    {1, "UnreapedAsyncFileOvsLock"},
    {1, "UnreapedAsyncSocketOvsLock"},
    {1, "OwnedCriticalSectionsLock"},
    {1, "Yield_FAST_OVPOLL_WAIT"},
    {1, "Yield_USER"},
    {2, "Yield_POSTER"},
    {1, "Yield_SCHED"},
    {1, "Yield_LATCH_FREE"},
    {2, "Yield_TIMER_WAIT"},
    {2, "Yield_INF_TIMER_WAIT"},
    {2, "Yield_IO_WAIT"},
    {1, "FAST_OVPOLL"},
    {1, "Yield_POLL_WAIT"},
    {2, "CallInitFiberRout"},
    {1, "AvoidSwitchToInitFiber"},
    {1, "SwitchToInitFiber"},
    {2, "SWITCH_TO_FIBER [x%X]"},
    {2, "SWITCH_TO_FIBER_N [%s]"},
    {1, "ChkCompPort"},
    {1, "SyncIOCleanupFiberExiting"},
    {1, "SyncIOCPCleanupFiberExiting"},
    {1, "SyncIOCompCleanupFiberExiting"},
    {1, "ASyncIOCleanupFiberExiting"},
    {1, "SchedQuantumExpired"},
    {1, "GlobalQuantumExpired"},
    {1, "QuantumUpdateInterval"},
    {2, "ChkTimeForTimerQ"},
    {2, "ChkTimerQ"},
    {2, "SchedulerPolling"},
    {1, "SPoll_P"},
    {1, "SPoll_P+N"},
    {1, "SPoll_P+F"},
    {1, "SPoll_P+N+F"},
    {1, "SPoll_N"},
    {1, "SPoll_N+F"},
    {1, "SPoll_F"},
    {1, "SPoll_O"},
    {1, "ExceededLogBuffer"},
    {2, "SocketOvSpin"},
    {2, "RunLatchFreeWaiter"},
    {1, "TryNextOv"},
    {1, "ForceDCPQ"},
    {1, "FatalError"},
    {1, "FatalError2"},
    {1, "FatalError3"},
    {1, "***NonLargePageAllocation"},
    {1, "CalledVirtualAlloc"},
    {1, "AbnormalFiberExit"},
    {1, "ReadConsolePollANW"},
    {1, "ReadConsolePoll"},
    {1, "CallNamedPipeAANW"},
    {1, "CallNamedPipeAPoll"},
    {1, "WaitForInputIdleNW"},
    {1, "WaitForInputIdlePoll"},
    {1, "DsGetDcNameANW"},
    {1, "DsGetDcNameAPoll"},
    {1, "SuspendThreadPoll"},
    {1, "ResumeThreadPoll"},
    {1, "TerminateThreadPoll"},
    {1, "ExecRoutinePoll"},
    {1, "ThrdClnMemLeakCritSec"},
};
static_assert(sizeof(kStatNames) / sizeof(kStatNames[0]) == kNumStats, "one name a statistic");

uint32_t ArgKindOf(const char *name) {
    if (std::strstr(name, "%s") != nullptr) return 2;
    return std::strchr(name, '%') != nullptr ? 1 : 0;
}

void SetShortName(StatRecord *stat) {
    size_t length = 0;
    while (stat->Name[length] != 0 && stat->Name[length] != ' ' && length < sizeof(stat->ShortName) - 1) length++;
    std::memcpy(stat->ShortName, stat->Name, length);
    stat->ShortName[length] = 0;
}

}  // namespace

void CheckStatNames(const StatRecord *table, uint32_t count) {
    for (uint32_t i = 0; i < count; i++)
        for (uint32_t j = i + 1; j < count; j++)
            if (std::strcmp(table[i].Name, table[j].Name) == 0) FatalExit("Duplicate stat name %s\n", table[i].Name);
    for (uint32_t i = 0; i < count; i++)
        for (uint32_t j = i + 1; j < count; j++)
            if (std::strcmp(table[i].ShortName, table[j].ShortName) == 0)
                FatalExit("Duplicate stat short name %s\n", table[i].Name);
}

void StatsInit() {
    for (uint32_t id = 0; id < kNumStats; id++) {
        StatRecord *stat = &gStats[id];
        std::memset(stat, 0, sizeof(*stat));
        stat->Id = id;
        stat->FirstWord = 1;
        stat->Level = kStatNames[id].Level;
        stat->Name = kStatNames[id].Name;
        stat->ArgKind = ArgKindOf(stat->Name);
        SetShortName(stat);
    }
    std::memset(gStatSide, 0, sizeof(gStatSide));
    CheckStatNames(gStats, kNumStats);
}

}  // namespace zvx
