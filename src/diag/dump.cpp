// diag/dump.cpp - crash dumps and the debugger event.
//
// Three kinds of threads run here. The thread that wants a dump (a scheduler's, or any that ends the process) names
// it, and waits; a helper that lives for one file writes it; the debugger thread waits for the event and only asks.
// A sweep belongs to one scheduler: it is the scheduler's own thread that goes from fiber to fiber, and nothing of
// another scheduler is touched.
//
// The fibers that are swept do not run their own code. Each is resumed inside SchedYield, where it was parked, finds
// the hook, and is left again as it was: what the switch carries (slots, last error, static TLS) is read from its
// record and never written back, and errno, which goes with the fiber, is put back by the hook.
#include "diag/dump.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "alloc/alloc.h"
#include "diag/trace.h"
#include "kernel/handles.h"
#include "sched/internal.h"
#include "sched/startup.h"
#include "sched/upcalls.h"

namespace zvx {

namespace {

constexpr size_t kLongestPath = 259;
constexpr size_t kNameBytes = 192;
constexpr size_t kEventNameBytes = 300;
constexpr uint32_t kLockPatienceMs = 1000;
constexpr uint32_t kStepMs = 100;
constexpr uint32_t kMaxFailedWaits = 10;
constexpr DWORD kMiniDumpWithHandleData = 4;

using WriteDumpFunc = BOOL (*)(HANDLE process, DWORD processId, HANDLE file, DWORD type, void *, void *, void *);

std::atomic<bool> gFatalDumps;    // the process is on its way out: whoever holds a lock may never give it back
std::atomic<bool> gDumpLockLost;  // a lock was given up once: no more patience for the next

// False when the process ends and the lock could not be had; the caller then does without.
bool EnterForDump(os::CriticalSection *section) {
    if (!gFatalDumps.load(std::memory_order_relaxed)) {
        os::EnterCriticalSection(section);
        return true;
    }
    const uint32_t patience = gDumpLockLost.load(std::memory_order_relaxed) ? 0 : kLockPatienceMs;
    for (uint32_t waited = 0;; waited++) {
        if (os::TryEnterCriticalSection(section)) return true;
        if (waited >= patience) break;
        os::Sleep(1);
    }
    gDumpLockLost.store(true, std::memory_order_relaxed);
    return false;
}

// ---- One file ----------------------------------------------------------------------------------------

// A path of at most kLongestPath bytes: what the caller put into it up to `used`, and the file's name.
HANDLE CreateDumpFile(char *path, size_t used, size_t room, const char *name, const char *threadField) {
    SYSTEMTIME now;
    os::GetLocalTime(&now);
    std::snprintf(path + used, room - used, "%s_minidump_%s_pid_%d_%s_x%X_%d_%d_%d_%d_%d_%d.dmp", name, gSid,
                  static_cast<int>(os::GetCurrentProcessId()), threadField, os::GetCurrentThreadId(), now.wYear,
                  now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond);
    if (std::strlen(path) > kLongestPath) {
        path[kLongestPath] = 0;
        DropPartialChar(path, kLongestPath);
    }
    return os::CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL | os::kFileFlagPrivate, nullptr);
}

WriteDumpFunc FindWriteDump() {
    HMODULE module = os::GetModuleHandleA("dbghelp.dll");
    if (module == nullptr) module = os::LoadLibraryA("dbghelp.dll");
    if (module == nullptr) return nullptr;
    return reinterpret_cast<WriteDumpFunc>(
        reinterpret_cast<void *>(os::GetProcAddress(module, "MiniDumpWriteDump")));
}

// The file holds the line and nothing of a dump that was begun: a disk that was full then has room for it.
void WriteErrorText(HANDLE file) {
    char text[48];
    const int length = std::snprintf(text, sizeof(text), "Error occured %d\n", static_cast<int>(os::GetLastError()));
    if (os::SetFilePointer(file, 0, nullptr, FILE_BEGIN) == 0) os::SetEndOfFile(file);
    DWORD put = 0;
    os::WriteFile(file, text, static_cast<DWORD>(length), &put, nullptr);
}

void WriteDumpFile(const char *name) {
    char path[sizeof(gTraceDir) + sizeof(gSid) + kNameBytes + 128];
    const bool named = EnterForDump(&gTraceLock);
    CopyTraceDir(path);
    if (named) os::LeaveCriticalSection(&gTraceLock);
    const bool locked = EnterForDump(&gDumpLock);
    HANDLE file = CreateDumpFile(path, std::strlen(path), sizeof(path), name, "mdtid");
    if (file == INVALID_HANDLE_VALUE) file = CreateDumpFile(path, 0, sizeof(path), name, "dtid");
    const WriteDumpFunc write = FindWriteDump();
    if (file != INVALID_HANDLE_VALUE) {
        if (write == nullptr || !write(os::GetCurrentProcess(), os::GetCurrentProcessId(), file,
                                       kMiniDumpWithHandleData, nullptr, nullptr, nullptr))
            WriteErrorText(file);
        os::CloseHandle(file);
    }
    if (locked) os::LeaveCriticalSection(&gDumpLock);
    NoteFatalProgress();
}

// ---- A sweep -----------------------------------------------------------------------------------------

void FormatFiberName(char *name, const char *prefix, const Fiber *F) {
    const char *tag = F->Tag.load(std::memory_order_acquire);
    const int wanted = std::snprintf(name, kNameBytes, "%s_tid_x%X_stid_x%X_fid_%s", prefix,
                                     F->OsThreadId.load(std::memory_order_relaxed), os::GetCurrentThreadId(),
                                     tag != nullptr ? tag : "NULL");
    if (wanted >= static_cast<int>(kNameBytes)) DropPartialChar(name, kNameBytes - 1);
    // A tag is the host's; a slash in it would name a directory.
    for (char *slash = std::strchr(name, '/'); slash != nullptr; slash = std::strchr(slash, '/')) *slash = '_';
}

void SwitchForDump(os::ThreadBlock *block, const Fiber *N) {
    block->Slots = const_cast<void **>(N->TlsValues);
    block->LastError = N->LastError;
    block->StaticTls = N->StaticTls;
    os::SwitchToFiber(block, N->OsFiber);
}

// F runs on S, perhaps in the middle of a yield: filed in some list already, its last error saved.
void SweepFibers(Scheduler *S, Fiber *F, const char *prefix) {
    os::ThreadBlock *block = S->Os;
    const DWORD savedError = F->LastError;
    const DWORD lastError = block->LastError;
    void **slots = block->Slots;
    void *staticTls = block->StaticTls;
    // The switches of the sweep clear the mark that F is leaving for good, and its stack is still in use.
    const uint32_t leaving = S->Attention & kAttNoPortCheck;
    S->DumpOrigin = F;
    S->SwitchHookArg = const_cast<char *>(prefix);
    S->SwitchHook = DumpFiberHook;
    Fiber *N = NextDumpFiber(true);
    while (N != F) {
        F->LastError = lastError;
        SwitchForDump(block, N);
        if (S->DumpOrigin == F) break;
        // A fatal error within this sweep has begun another one, in which F is one of the swept.
        N = static_cast<Fiber *>(DumpFiberHook());
    }
    S->DumpOrigin = nullptr;
    S->SwitchHookArg = nullptr;
    S->SwitchHook = nullptr;
    S->Attention |= leaving;
    F->LastError = savedError;
    block->Slots = slots;
    block->StaticTls = staticTls;
    StartCpuClock(S);  // the time of the sweep is nobody's
}

// ---- The event ---------------------------------------------------------------------------------------

void FormatEventName(char *name) {
    os::EnterCriticalSection(&gTraceLock);
    std::snprintf(name, kEventNameBytes, "%szorvex_zvxkvt_debugger_%s", gDebugGlobal != 0 ? "Global\\" : "", gSid);
    os::LeaveCriticalSection(&gTraceLock);
}

void AskForSweeps() {
    // A signal that comes during start-up is served when there are schedulers. Acquire: the flag is set after them.
    while ((OptionFlags.load(std::memory_order_acquire) & su_Initialized) == 0) os::Sleep(kStepMs);
    KVTAllocDebugInfo();
    DumpHandleTable();
    for (uint32_t n = 0; n < gNumSchedulers; ++n) {
        Scheduler *S = gSchedulers[n];
        S->DebugRequest.store(1, std::memory_order_release);
        WakeScheduler(S, nullptr);  // it may be blocked in its port for as long as the host allows
    }
}

}  // namespace

DWORD WriteMiniDump(void *name) {
    TraceInit(nullptr);
    WriteDumpFile(static_cast<const char *>(name));
    return 0;
}

void WriteDumpOnHelperThread(const char *name) {
    HANDLE thread = os::CreateThread(nullptr, 0, WriteMiniDump, const_cast<char *>(name), 0, nullptr);
    if (thread == nullptr) {
        WriteMiniDump(const_cast<char *>(name));
        return;
    }
    DWORD code = 0;
    // It reads the name, which is the caller's, so no failure ends the wait.
    while (!os::GetExitCodeThread(thread, &code) || code == STILL_ACTIVE) {
        // Not for ever at a time: the handle is asked, and not believed to be signalled.
        if (os::WaitForSingleObject(thread, kStepMs) == WAIT_FAILED) os::Sleep(kStepMs);
    }
    os::CloseHandle(thread);
}

void DumpProcess(const char *prefix) {
    Fiber *F = CallingFiber();
    Scheduler *S = F != nullptr ? SchedOf(F) : nullptr;
    const DWORD lastError = os::GetLastError();
    const int savedErrno = errno;
    char name[kNameBytes];
    if (F == nullptr)
        std::snprintf(name, sizeof(name), "%s_tid_x%X", prefix, os::GetCurrentThreadId());
    else
        FormatFiberName(name, prefix, F);
    WriteDumpOnHelperThread(name);
    os::SetLastError(lastError);
    if (S != nullptr) SweepFibers(S, F, prefix);
    errno = savedErrno;
}

void DumpDebug() {
    DumpProcess("zvxkvt_debug");
}

void DumpForFatalExit(const char *prefix) {
    gFatalDumps.store(true, std::memory_order_relaxed);
    DumpProcess(prefix);
}

void *DumpFiberHook() {
    const Fiber *G = static_cast<const Fiber *>(os::GetFiberData());
    const int savedErrno = errno;
    char name[kNameBytes];
    FormatFiberName(name, static_cast<const char *>(SchedOf(G)->SwitchHookArg), G);
    WriteDumpOnHelperThread(name);
    errno = savedErrno;
    return NextDumpFiber(false);
}

Fiber *NextDumpFiber(bool first) {
    const Fiber *C = static_cast<const Fiber *>(os::GetFiberData());
    Scheduler *S = SchedOf(C);
    Fiber *origin = S->DumpOrigin;
    ListLink *end = &S->AllFibers.Ends;
    ListLink *link = first ? FirstLink(&S->AllFibers) : C->SchedFibersLink.Next;
    if (link == &origin->SchedFibersLink) link = link->Next;
    return link == end ? origin : ZVX_RECORD_OF(link, Fiber, SchedFibersLink);
}

void ServeDebugRequest(Scheduler *S) {
    DumpDebug();
    S->DebugRequest.store(0, std::memory_order_relaxed);
}

void StartDebuggerThread() {
    HANDLE thread = os::CreateThread(nullptr, gStackSize, DebuggerThread, nullptr, 0, nullptr);
    if (thread == nullptr) FatalExit("Unable to spawn debugger thread");
    os::CloseHandle(thread);
}

DWORD DebuggerThread(void *) {
    char name[kEventNameBytes];
    FormatEventName(name);
    HANDLE event = os::CreateEventA(&gNullDaclSecurity, TRUE, FALSE, name);
    if (event == nullptr) {
        TraceLog(true, true, true, "DebuggerThread failed to create event %s err=[%u]", name, os::GetLastError());
        return 0;
    }
    uint32_t failures = 0;
    for (;;) {
        const DWORD result = os::WaitForSingleObject(event, INFINITE);
        if (result == WAIT_OBJECT_0) {
            failures = 0;
            AskForSweeps();
        } else if (result == WAIT_FAILED) {
            failures++;
        }
        if (failures > kMaxFailedWaits) break;
        os::ResetEvent(event);
    }
    TraceLog(true, true, true, "DebuggerThread wait failed on event %s err=[%u]", name, os::GetLastError());
    os::CloseHandle(event);
    return 0;
}

}  // namespace zvx
