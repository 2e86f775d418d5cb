// diag/trace.cpp - the trace file, and the end of the process on an internal inconsistency.
//
// Any kernel thread may write a line, user thread or not; the file, its name and its directory change under
// gTraceLock. A write blocks the kernel thread for its length and never yields, so the lock is never held across
// a switch. Nothing here allocates, apart from the stream that is opened once for a file name.
//
// FatalExit runs when anything may be broken: the caller may hold any lock, other threads too. It therefore waits
// for no lock without a limit, and what it starts is watched by a thread that only sleeps and counts.
#include "diag/trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "config/settings.h"
#include "sched/sched.h"

namespace zvx {

char gSid[260];
char gTraceDir[260];
char gTraceFileName[288];
SYSTEMTIME gStartTime;
os::CriticalSection gTraceLock;
os::CriticalSection gDumpLock;
std::atomic<uint8_t> gDying;
void (*gDumpVariables)();
void (*gDumpProcess)(const char *namePrefix);

namespace {

constexpr uint32_t kFatalTextBytes = 1024;
constexpr uint32_t kTraceLogBytes = 1024;
constexpr uint32_t kTracePrintfBytes = 1544;
constexpr uint32_t kLongestFileName = 255;  // bytes; the name keeps its end, so it is the instance name that is cut
constexpr uint32_t kLockPatienceMs = 1000;
constexpr uint32_t kFatalSilenceMs = 30000;

std::atomic<uint32_t> gTraceInitState;  // 0 not set up, 1 being set up, 2 ready
FILE *gTraceFile;                       // [gTraceLock] null until the next line opens it
bool gSeparatorIsOurs;                  // [gTraceLock] the backslash at the end of gTraceDir was appended here

// The exit that is in progress. gFatalThread is claimed by compare-and-exchange; gFatalText is written by the claimer
// before it starts the watchdog, and constant afterwards.
std::atomic<DWORD> gFatalThread;       // thread that claimed the exit, 0 before
std::atomic<uint32_t> gFatalProgress;  // raised by everything the dying thread writes; the watchdog compares
std::atomic<bool> gConsoleTold;        // exchanged by whoever writes the console line
std::atomic<bool> gLockLost;           // a lock was given up once: no more patience for the next
char gFatalText[kFatalTextBytes];

bool IsContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Formats to at most capacity - 1 bytes, cut at a whole character; returns the length.
size_t FormatCut(char *buffer, size_t capacity, const char *format, va_list args) __attribute__((format(printf, 3, 0)));
size_t FormatCut(char *buffer, size_t capacity, const char *format, va_list args) {
    const int wanted = std::vsnprintf(buffer, capacity, format, args);
    if (wanted < 0) {
        buffer[0] = 0;
        return 0;
    }
    if (static_cast<size_t>(wanted) < capacity) return static_cast<size_t>(wanted);
    return DropPartialChar(buffer, capacity - 1);
}

void CopyCut(char *buffer, size_t capacity, const char *text) {
    const size_t length = std::strlen(text);
    const size_t kept = length < capacity ? length : capacity - 1;
    std::memcpy(buffer, text, kept);
    buffer[kept] = 0;
    if (kept < length) DropPartialChar(buffer, kept);
}

void ReadInstanceName() {
    const int length = LookupEnvironment("ZORVEX_SID", gSid, sizeof(gSid) - 1);
    const size_t kept = length > 0 ? static_cast<size_t>(length) : 0;
    gSid[kept] = 0;
    if (kept == sizeof(gSid) - 1) DropPartialChar(gSid, kept);
}

// [gTraceLock] Sets the directory. A directory that holds a slash gets a slash at its end, any other a backslash.
void SetTraceDirLocked(const char *dir) {
    gSeparatorIsOurs = false;
    CopyCut(gTraceDir, sizeof(gTraceDir), dir != nullptr ? dir : "");
    const size_t length = std::strlen(gTraceDir);
    const char separator = std::strchr(gTraceDir, '/') != nullptr ? '/' : '\\';
    if (length == 0 || gTraceDir[length - 1] == separator || length >= 258) return;
    gTraceDir[length] = separator;
    gTraceDir[length + 1] = 0;
    gSeparatorIsOurs = separator == '\\';
}

// [gTraceLock] Process and time make the name unique, so a long instance name is cut rather than they.
void FormatTraceFileNameLocked() {
    char end[128];
    const int endLength = std::snprintf(
        end, sizeof(end), "_pid_%d_%d_%d_%d_%d_%d_%d.txt", static_cast<int>(os::GetCurrentProcessId()),
        gStartTime.wYear, gStartTime.wMonth, gStartTime.wDay, gStartTime.wHour, gStartTime.wMinute, gStartTime.wSecond);
    constexpr char kBegin[] = "zvxkvt_";
    constexpr size_t kBeginLength = sizeof(kBegin) - 1;
    const size_t room = kLongestFileName - kBeginLength - static_cast<size_t>(endLength);
    std::memcpy(gTraceFileName, kBegin, kBeginLength);
    CopyCut(gTraceFileName + kBeginLength, room + 1, gSid);
    std::memcpy(gTraceFileName + std::strlen(gTraceFileName), end, static_cast<size_t>(endLength) + 1);
}

// [gTraceLock] Opens the file in the directory, else in the current one; leaves it null when neither works, and
// the next line tries again.
void OpenTraceFileLocked() {
    char path[sizeof(gTraceDir) + sizeof(gTraceFileName)];
    CopyTraceDir(path);
    std::strcat(path, gTraceFileName);
    constexpr size_t kLongestPath = 259;
    if (std::strlen(path) > kLongestPath) {
        path[kLongestPath] = 0;
        DropPartialChar(path, kLongestPath);
    }
    gTraceFile = os::OpenPrivateLog(path);
    if (gTraceFile == nullptr) gTraceFile = os::OpenPrivateLog(gTraceFileName);
}

bool IsDyingThread() {
    return gFatalThread.load(std::memory_order_relaxed) == os::GetCurrentThreadId();
}

void WriteLocked(const char *head, const char *text, bool flush) {
    if (gTraceFile == nullptr) OpenTraceFileLocked();
    if (gTraceFile == nullptr) return;
    if (head != nullptr) std::fputs(head, gTraceFile);
    std::fputs(text, gTraceFile);
    if (flush) std::fflush(gTraceFile);
}

// The prefix of a line by the calling thread; false when the line is not to be written.
bool FormatPrefix(char *line, size_t capacity, DWORD lastError, size_t *length) {
    const Fiber *F = CallingFiber();
    int written;
    if (F == nullptr) {
        written = std::snprintf(line, capacity, "E[%u]T[%u] ", lastError, os::GetCurrentThreadId());
    } else {
        const char *tag = F->Tag.load(std::memory_order_acquire);
        if (tag != nullptr && std::strcmp(tag, "PMON") == 0) return false;
        const Scheduler *S = SchedOf(F);
        written = std::snprintf(line, capacity, "E[%u]FT[%u]S[%u][%s] ", lastError,
                                F->OsThreadId.load(std::memory_order_relaxed), S != nullptr ? S->Index : 0,
                                tag != nullptr ? tag : "NULL");
    }
    // A tag is at most a few characters, but it is the host's.
    *length = static_cast<size_t>(written);
    if (*length >= capacity) *length = DropPartialChar(line, capacity - 1);
    return true;
}

void TellConsole(const char *message) {
    char line[kFatalTextBytes + sizeof(gTraceDir) + sizeof(gTraceFileName) + 64];
    const int length =
        std::snprintf(line, sizeof(line), "ZORVEX KILLED: %s (see %s%s)\n", message, gTraceDir, gTraceFileName);
    os::WriteConsole(line, static_cast<size_t>(length));
}

// The line of the error that claimed the exit, by whoever comes first.
void TellConsoleOnce() {
    if (!gConsoleTold.exchange(true)) TellConsole(gFatalText);
}

// Ends the process when the thread that claimed the exit has written nothing for kFatalSilenceMs: it waits for a lock
// that it holds itself, or that belongs to a thread which waits for the end of the process. Takes no lock.
DWORD WatchFatalExit(void *) {
    constexpr uint32_t stepMs = 100;
    uint32_t silentMs = 0;
    uint32_t seen = gFatalProgress.load(std::memory_order_relaxed);
    while (silentMs < kFatalSilenceMs) {
        os::Sleep(stepMs);
        silentMs += stepMs;
        const uint32_t now = gFatalProgress.load(std::memory_order_relaxed);
        if (now == seen) continue;
        seen = now;
        silentMs = 0;
    }
    TellConsoleOnce();
    os::ExitProcess(1);
}

void StartFatalWatch() {
    HANDLE watch = os::CreateThread(nullptr, 128 * 1024, WatchFatalExit, nullptr, 0, nullptr);
    if (watch != nullptr) os::CloseHandle(watch);
}

[[noreturn]] void AwaitEndOfProcess() {
    for (;;) os::Sleep(1000);
}

}  // namespace

size_t DropPartialChar(char *text, size_t length) {
    size_t start = length;
    while (start > 0 && length - start < 3 && IsContinuation(text[start - 1])) start--;
    if (start == 0) return length;
    const auto lead = static_cast<unsigned char>(text[start - 1]);
    const size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    // Text that is no UTF-8 at all has no characters to keep whole.
    if (bytes == 1 || length - (start - 1) >= bytes) return length;
    text[start - 1] = 0;
    return start - 1;
}

void CopyTraceDir(char *path) {
    const size_t length = std::strlen(gTraceDir);
    std::memcpy(path, gTraceDir, length + 1);
    // A backslash that the host gave is part of a name; ours stands for the separator.
    if (gSeparatorIsOurs) path[length - 1] = '/';
}

bool EnterUnlessDying(os::CriticalSection *section) {
    if (!IsDyingThread()) {
        os::EnterCriticalSection(section);
        return true;
    }
    const uint32_t patience = gLockLost.load(std::memory_order_relaxed) ? 0 : kLockPatienceMs;
    for (uint32_t waited = 0;; waited++) {
        if (os::TryEnterCriticalSection(section)) return true;
        if (waited >= patience) break;
        os::Sleep(1);
    }
    gLockLost.store(true, std::memory_order_relaxed);
    return false;
}

void NoteFatalProgress() {
    gFatalProgress.fetch_add(1, std::memory_order_relaxed);
}

void TraceInit(const char *dir) {
    bool settingUp = false;
    while (gTraceInitState.load(std::memory_order_acquire) != 2) {
        uint32_t fresh = 0;
        if (gTraceInitState.compare_exchange_strong(fresh, 1, std::memory_order_acq_rel)) {
            os::InitializeCriticalSection(&gDumpLock);
            os::InitializeCriticalSection(&gTraceLock);
            os::EnterCriticalSection(&gTraceLock);
            os::GetLocalTime(&gStartTime);
            ReadInstanceName();
            settingUp = true;
            // Release: whoever sees 2 sees the locks initialised; the names are complete when the lock is free.
            gTraceInitState.store(2, std::memory_order_release);
            break;
        }
        os::YieldProcessor();
    }
    if (dir == nullptr && !settingUp) return;
    if (!settingUp) os::EnterCriticalSection(&gTraceLock);
    if (gSid[0] == 0) ReadInstanceName();
    SetTraceDirLocked(dir);
    FormatTraceFileNameLocked();
    if (gTraceFile != nullptr) std::fclose(gTraceFile);  // flushes
    gTraceFile = nullptr;
    os::LeaveCriticalSection(&gTraceLock);
}

void WriteTraceLine(const char *text, bool flush, bool stamp, bool hires) {
    // The stream and the environment leave their errors in both words; a trace line changes neither.
    const int savedErrno = errno;
    const DWORD savedError = os::GetLastError();
    TraceInit(nullptr);
    char head[64];
    if (stamp) {
        SYSTEMTIME now;
        os::GetLocalTime(&now);
        const int length = std::snprintf(head, sizeof(head), "[%02u/%02u/%02u %02u:%02u:%02u", now.wMonth, now.wDay,
                                         now.wYear % 100u, now.wHour, now.wMinute, now.wSecond);
        char *rest = head + length;
        const size_t room = sizeof(head) - static_cast<size_t>(length);
        LARGE_INTEGER counter;
        counter.QuadPart = 0;
        if (hires) os::QueryPerformanceCounter(&counter);
        if (hires)
            std::snprintf(rest, room, " x%08X%08X] ", static_cast<uint32_t>(counter.u.HighPart), counter.u.LowPart);
        else
            std::snprintf(rest, room, "] ");
    }
    if (EnterUnlessDying(&gTraceLock)) {
        WriteLocked(stamp ? head : nullptr, text, flush);
        os::LeaveCriticalSection(&gTraceLock);
    }
    if (IsDyingThread()) NoteFatalProgress();
    os::SetLastError(savedError);
    errno = savedErrno;
}

void TracePrintf(const char *format, ...) {
    char text[kTracePrintfBytes];
    va_list args;
    va_start(args, format);
    FormatCut(text, sizeof(text), format, args);
    va_end(args);
    WriteTraceLine(text, true, true, false);
}

void TraceLog(bool prefix, bool flush, bool stamp, const char *format, ...) {
    const DWORD savedError = os::GetLastError();  // the socket error is the same value
    char line[kTraceLogBytes];
    size_t length = 0;
    if (prefix && !FormatPrefix(line, sizeof(line), savedError, &length)) return;
    va_list args;
    va_start(args, format);
    FormatCut(line + length, sizeof(line) - length, format, args);
    va_end(args);
    WriteTraceLine(line, flush, stamp, true);
    os::SetLastError(savedError);
}

void FatalExit(const char *format, ...) {
    char message[kFatalTextBytes];
    va_list args;
    va_start(args, format);
    FormatCut(message, sizeof(message), format, args);
    va_end(args);

    const DWORD self = os::GetCurrentThreadId();
    DWORD owner = 0;
    const bool first = gFatalThread.compare_exchange_strong(owner, self, std::memory_order_acq_rel);
    if (!first && owner != self) AwaitEndOfProcess();
    if (first) {
        CopyCut(gFatalText, sizeof(gFatalText), message);
        StartFatalWatch();
    }
    TracePrintf("ZORVEX KILLED: %s\n", message);
    if (first) {
        if (gDumpVariables != nullptr) gDumpVariables();
        if (gDying.load(std::memory_order_acquire) == 0 && gDumpProcess != nullptr) gDumpProcess("zvxkvt_kill_proc");
    }
    gDying.store(1, std::memory_order_release);
    TraceInit(nullptr);
    // Under the lock, so that the line does not fall into the middle of a trace line on the same terminal.
    const bool locked = EnterUnlessDying(&gTraceLock);
    TellConsoleOnce();
    // An error within the dumps of another ends the process without going back to them; it is told too.
    if (!first) TellConsole(message);
    if (locked) os::LeaveCriticalSection(&gTraceLock);
    os::ExitProcess(1);
}

void EnableThreadTrace(const char *dir) {
    static_cast<void>(dir);
}

}  // namespace zvx
