// sched/startup.cpp - from the host's call to running schedulers.
//
// Start-up runs on the host's thread. Scheduler threads start strictly one after another, each waited for, so
// that the set-up of one never overlaps another's; the last one creates the host's main routine as the first
// user thread. Every failure ends the process: there is no partial start. Nothing stops a scheduler.
#include "sched/startup.h"

#include <cstring>

#include "alloc/alloc.h"
#include "diag/dump.h"
#include "diag/ringlog.h"
#include "diag/stall.h"
#include "diag/stats.h"
#include "diag/timesource.h"
#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "sched/internal.h"
#include "sched/upcalls.h"

namespace zvx {

SECURITY_ATTRIBUTES gNullDaclSecurity;
HANDLE AvoidCompletionEvent;
uint8_t gDebugGlobal;
uint32_t gNextBitMask = 1;
intptr_t (*gDsGetDcNameA)();

static std::atomic<bool> gInitialised;
constexpr uint32_t kSecurityDescriptorBytes = 20;

static int LastErrorNumber() { return static_cast<int>(os::GetLastError()); }

// ---- Schedulers --------------------------------------------------------------------------------------

uint32_t NextSchedulerMask() {
    while ((gNextBitMask & gProcessAffinityMask) == 0) gNextBitMask = (gNextBitMask << 1) | (gNextBitMask >> 31);
    uint32_t mask = gNextBitMask;
    gNextBitMask = (gNextBitMask << 1) | (gNextBitMask >> 31);
    return mask;
}

uint8_t NodeOfMask(uint32_t mask) {
    for (uint8_t i = 0; i < kMaxNodes; ++i)
        if (gNodeMasks[i] & mask) return i;
    return 0;
}

void InitScheduler(Scheduler *S, uint32_t index) {
    if (index >= kMaxSchedulers) FatalExit("sizeof(SchedBitMaskId) too small");
    S->NetSpinBudget = gDefaultNetShadowSpinTimeMs;
    S->Index = index;
    S->BitMaskId = 1u << index;
    for (ListHead *list :
         {&S->SuspendedFibers, &S->TimedWaiters, &S->InfiniteWaiters, &S->IoWaiters, &S->ReadyList, &S->LatchSleepers,
          &S->FreeOvs, &S->MigrationQueue, &S->ExitedFibers, &S->AllFibers, &S->RetireOpen,
          &S->RetireWaiting})
        InitList(list);
    for (ListHead &queue : S->RunQueues) InitList(&queue);
    for (uint32_t i = 0; i < kPollLists; ++i) {
        InitList(&S->PollLists[i]);
        InitList(&S->EndedOvs[i]);
        InitList(&S->DeepOvs[i]);
    }
    InitObjectSink(S);
    S->LastTimerCheck = S->SecondStart = os::GetTickCount64();
    S->LastQueue = 6;
    S->PortPollCountdown = gDCPQ;
    S->Port = INVALID_HANDLE_VALUE;
    gSchedulers[index] = S;
}

void SetSchedThreadAffinityAndPriority(HANDLE thread, Scheduler *S, bool bind, int32_t priority, DWORD threadId,
                                       bool force) {
    (void)threadId;
    if (bind) {
        if (S == nullptr) FatalExit("Unknown affinity for null sched\n");
        if (os::SetThreadAffinityMask(thread, S->AffinityMask) == 0)
            FatalExit("Unable to SetProcessAffinityMask E[%d]\n", LastErrorNumber());
    }
    if (!OptionSet(su_SetThreadPriority) && !force) return;
    if (priority == THREAD_PRIORITY_ABOVE_NORMAL) {
        if (OptionSet(su_SetThreadPriorityConvertANtoHIGHEST)) {
            priority = THREAD_PRIORITY_HIGHEST;
        } else if (OptionSet(su_SetThreadPriorityConvertANtoTC)) {
            priority = THREAD_PRIORITY_TIME_CRITICAL;
        }
    }
    if (!os::SetThreadPriority(thread, priority)) FatalExit("Unable to Set Priority E[%d]\n", LastErrorNumber());
    if (S != nullptr) S->CurPriority = S->BasePriority = priority;
}

// The last static scheduler creates the host's first user thread; its tag and role are written before it can
// run.
static void StartMainRoutine(Scheduler *S) {
    S->MainThread =
        CreateUserThread(nullptr, 0, S->MainRoutine, S->MainParam, 0, nullptr, 0, S, "FMAIN", ROLE_INTERNAL);
    if (S->MainThread == nullptr) FatalExit("Unable to allocate FMAIN fiber");
    const PSEHAND *entry = LookUpHandle(S->MainThread);
    if (entry == nullptr || entry->Type != PHAND_HTYPE_CreateThread) FatalExit("Invalid fiber thread handle");
}

static DWORD SchedulerThreadStart(void *scheduler) {
    auto *S = static_cast<Scheduler *>(scheduler);
    S->Os = os::CurrentThreadBlock();
    Fiber *F = AllocFiberShell(S, S->NumaNode);
    if (F == nullptr) FatalExit("AllocFiberShell failed for main scheduler thread");
    // The record's own operating-system fiber is not used: this thread becomes the fiber.
    if (F->OsFiber != nullptr) os::DeleteFiber(F->OsFiber);
    F->OsFiber = os::ConvertThreadToFiber(F);
    if (F->OsFiber == nullptr)
        FatalExit("Unable to make a fiber of scheduler thread %u E[%d]\n", S->Index, LastErrorNumber());
    F->Flags |= FIBER_STARTED;
    os::GetThreadDesktop(os::GetCurrentThreadId());
    SetSched(F, S, std::memory_order_release);
    F->OsThreadHandle = os::GetCurrentThread();
    F->OsThreadId.store(os::GetCurrentThreadId(), std::memory_order_release);
    S->InitFiber = F;
    S->InitFiberLink = &F->RunLink;
    CaptureTls(F);
    os::SetSlotArray(F->TlsValues);
    S->Port = os::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    // Without a port nothing that this scheduler starts would ever be seen to end: better no start than that.
    if (S->Port == nullptr || S->Os->Io == nullptr)
        FatalExit("Unable to create the port of scheduler %u E[%d]\n", S->Index, LastErrorNumber());
    S->Io = S->Os->Io;
    if (S->Index == 0 && OptionSet(su_LogToFile) && !CreateInternalFiber(FiberLogger, S, "FLOG"))
        FatalExit("Couldn't create FLOG fiber");
    if (S->MainRoutine != nullptr) StartMainRoutine(S);
    if (S->Index == 0) RingLogInit();
    StartCpuClock(S);
    if (S->Index == gNumSchedulers - 1) {
        StartQuantumUpdateThread();
        StartStallWatch();
        if (initialOutputBufferOffset >= INITIAL_OUTPUT_BUFFER_SIZE)
            FatalExit("initialOutputBufferOffset >= INITIAL_OUTPUT_BUFFER_SIZE");
    }
    S->Running.store(1, std::memory_order_release);
    while (S->Running.load(std::memory_order_relaxed) == 1) {
        SchedYield(F, Yield_SCHED);
        InitFiberRoutine(S);
    }
    return 0;
}

void SpawnSchedulerThread(Scheduler *S, bool bind, int32_t priority) {
    HANDLE thread = os::CreateThread(nullptr, gStackSize, SchedulerThreadStart, S, CREATE_SUSPENDED, &S->OsThreadId);
    S->ThreadHandle = thread;
    if (thread == nullptr || thread == INVALID_HANDLE_VALUE) FatalExit("Failed to spawn scheduler thread\n");
    SetSchedThreadAffinityAndPriority(thread, S, bind, priority, S->OsThreadId, false);
    if (os::ResumeThread(thread) == 0xFFFFFFFFu)
        FatalExit("Unable to resume suspended scheduler thread %d\n", LastErrorNumber());
    os::CloseHandle(thread);
    while (S->Running.load(std::memory_order_acquire) == 0) os::Sleep(0);
}

// ---- The host's call ---------------------------------------------------------------------------------

static void FindDirectoryService() {
    HMODULE module = os::LoadLibraryA("netapi32.dll");
    if (module == nullptr) return;
    gDsGetDcNameA = reinterpret_cast<intptr_t (*)()>(os::GetProcAddress(module, "DsGetDcNameA"));
    if (gDsGetDcNameA == nullptr) os::FreeLibrary(module);
}

static void BuildNullDaclSecurity() {
    void *descriptor = os::LocalAlloc(0x40, kSecurityDescriptorBytes);
    if (descriptor == nullptr)
        FatalExit("Unable to alloc mem for security descrip %u err=%d", kSecurityDescriptorBytes, LastErrorNumber());
    if (!os::InitializeSecurityDescriptor(descriptor, 1))
        FatalExit("Unable to initialize security descrip err=%d", LastErrorNumber());
    if (!os::SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE))
        FatalExit("Unable to add null dacl to security descrip err=%d", LastErrorNumber());
    gNullDaclSecurity = {sizeof(SECURITY_ATTRIBUTES), descriptor, FALSE};
}

static const char *TagOfFiber(const void *fiberData) {
    return static_cast<const Fiber *>(fiberData)->Tag.load(std::memory_order_acquire);
}

void InitSchedulerGlobals() {
    InitHandleTable();
    InitCriticalSections();
    os::InitializeCriticalSection(&gQuantumLock);
    for (FreeShellList &list : gFreeShells) {
        InitSpinLock(&list.Lock, &gStats[STAT_FreeFiberShellsQLock]);
        InitList(&list.Shells);
    }
    gShellSerial.store(0, std::memory_order_relaxed);
    for (Scheduler *&slot : gSchedulers) slot = nullptr;
    InitDynamicSchedulers();
}

static Scheduler *AllocScheduler(uint32_t n) {
    uint32_t mask = NextSchedulerMask();
    uint8_t node = NodeOfMask(mask);
    constexpr uint32_t kBytes = sizeof(Scheduler) + alignof(Scheduler);
    auto *memory = static_cast<char *>(KVTAllocNoSched(kBytes, node));
    if (memory == nullptr) FatalExit("NULL == gSchedulers[n]");
    std::memset(memory, 0, kBytes);
    constexpr uintptr_t kMask = alignof(Scheduler) - 1;
    const uintptr_t address = (reinterpret_cast<uintptr_t>(memory) + kMask) & ~kMask;
    auto *S = reinterpret_cast<Scheduler *>(address);
    S->AffinityMask = mask;
    S->NumaNode = node;
    gSchedulers[n] = S;
    return S;
}

static void RunHostRoutine(LPTHREAD_START_ROUTINE routine, void *param) {
    if (routine != nullptr) routine(param);
}

void RegisterDumps() {
    gDumpVariables = DumpSchedInternalVariables;
    gDumpProcess = DumpForFatalExit;
}

void InitUserThreadScheduler(LPTHREAD_START_ROUTINE routine, void *param, const InitParams *params) {
    static const InitParams kNoParams = {};
    if (params == nullptr) params = &kNoParams;
    if (gInitialised.load(std::memory_order_acquire)) return;
    TraceInit(params->TraceDirectory);
    RegisterDumps();
    gLookupValue = params->LookupValue != nullptr ? params->LookupValue : LookupEnvironment;
    if (gInitialised.exchange(true, std::memory_order_acq_rel)) return;
    uint32_t value = 0;
    if (GetSetting("DisableFibers", 10, &value) && value == 1) {
        RunHostRoutine(routine, param);
        return;
    }
    CalcFreq();
    gTscTicksPerMs = static_cast<uint64_t>(gCpuFrequency / 1000);
    if (os::GetModuleHandleA("kernel32.dll") == nullptr) FatalExit("Unable to get a module handle for kernel32.dll");
    FindDirectoryService();
    ProbeTlsSlots();
    uint32_t highWater = gTlsHighWater.load(std::memory_order_relaxed);
    if (highWater >= os::kTlsSlots) FatalExit("Init: more dynamic TLS slots needed %u\n", highWater);
    BuildNullDaclSecurity();
    AppendInitialOutput("*** Version 3.1 ***\n");
    OptionFlags.store(0, std::memory_order_relaxed);
    gQuantumIndicator = params->QuantumIndicator;
    gDebugGlobal = params->DebugGlobal;
    gQuantumTick.store(0, std::memory_order_relaxed);
    EnableThreadTrace("c:\\zvxkvt");
    os::Sleep(100);
    StatsInit();
    ReadSchedulerSettings();
    uint32_t systemMask = 0;
    if (!os::GetProcessAffinityMask(os::GetCurrentProcess(), &gProcessAffinityMask, &systemMask))
        FatalExit("DetermineSchedThreadMask: Unable to GetProcessAffinityMask E[%d]\n", LastErrorNumber());
    for (uint32_t &mask : gNodeMasks) mask = gProcessAffinityMask;  // every scheduler falls in node 0
    KVTAllocInit();
    if (!OptionSet(su_FiberModeReq)) {
        ClearOption(su_FiberMode);
        RunHostRoutine(routine, param);
        return;
    }
    if (OptionSet(su_BindDBWRToASeperateCPU)) {
        if (gNumSchedulers < 2) FatalExit("Too few schedulers for BindDBWRToASeperateCPU mode");
        gNumSchedulers--;
    }
    SetOption(su_InFiber);
    gProcessTls = os::CurrentThreadBlock()->StaticTls;
    os::SetFiberTagFunction(TagOfFiber);
    InitSchedulerGlobals();
    AvoidCompletionEvent = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    if (AvoidCompletionEvent == nullptr || AvoidCompletionEvent == INVALID_HANDLE_VALUE ||
        !os::KeepSignalled(AvoidCompletionEvent))
        FatalExit("COULD NOT CREATE AVOID COMPLETION EVENT\n");
    StartDebuggerThread();
    if (gNumSchedulers >= kMaxSchedulers) FatalExit("sizeof(SchedBitMaskId) too small");
    for (uint32_t n = 0; n < gNumSchedulers; ++n) AllocScheduler(n);
    for (uint32_t n = 0; n < gNumSchedulers; ++n) {
        Scheduler *S = gSchedulers[n];
        InitScheduler(S, n);
        if (n == gNumSchedulers - 1) {
            S->MainRoutine = routine;
            S->MainParam = param;
            SetOption(su_FiberMode);
        }
        SpawnSchedulerThread(S, true, THREAD_PRIORITY_ABOVE_NORMAL);
    }
    SetOption(su_Initialized);
    os::Sleep(INFINITE);
}

}  // namespace zvx
