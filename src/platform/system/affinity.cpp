// platform/system/affinity.cpp - processor masks and priorities, over the kernel's scheduling calls.
//
// Any thread. Bit i of a mask is the i-th processor that the process could use when it started. That numbering never
// changes, whatever the masks become later. Priorities are nice values; what the kernel refuses for lack of privilege
// is no error here, and no thread ever enters a real-time class.
#include "platform/system/affinity.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/spin.h"
#include "platform/os.h"

namespace os {

namespace {

// The kernel's own mask, wide enough for every machine that it supports.
constexpr size_t kMaxProcessors = 8192;
struct KernelMask {
    uint64_t Words[kMaxProcessors / 64];

    bool Has(uint32_t processor) const { return (Words[processor / 64] >> processor % 64 & 1) != 0; }
    void Add(uint32_t processor) { Words[processor / 64] |= uint64_t{1} << processor % 64; }
};

struct Priority {
    int Value;
    int Nice;  // relative to the process's own at its start
};
constexpr Priority kPriorities[] = {
    {THREAD_PRIORITY_IDLE, 19},           {THREAD_PRIORITY_LOWEST, 10},       {THREAD_PRIORITY_BELOW_NORMAL, 5},
    {THREAD_PRIORITY_NORMAL, 0},          {THREAD_PRIORITY_ABOVE_NORMAL, -5}, {THREAD_PRIORITY_HIGHEST, -10},
    {THREAD_PRIORITY_TIME_CRITICAL, -15},
};

pthread_once_t gOnce = PTHREAD_ONCE_INIT;
uint32_t gProcessors[32];            // init: kernel number of bit i
uint32_t gSystemMask;                // init: a bit for each of them
int gBaseNice;                       // init
std::atomic<bool> gMayRaise;         // init: whether a thread that was lowered can come back
std::atomic<uint32_t> gProcessMask;  // [gMaskLock] for writing
constinit SpinWord gMaskLock;

bool ReadKernelMask(int tid, KernelMask *mask) {
    memset(mask, 0, sizeof *mask);
    return syscall(SYS_sched_getaffinity, tid, sizeof mask->Words, mask->Words) > 0;
}

void ReadStart() {
    KernelMask mask;
    uint32_t count = 0;
    if (ReadKernelMask(0, &mask)) {
        for (uint32_t i = 0; i < kMaxProcessors && count < 32; ++i) {
            if (mask.Has(i)) gProcessors[count++] = i;
        }
    }
    if (count == 0) count = 1;  // the kernel refused to tell; there is a processor, since we run
    gSystemMask = count == 32 ? 0xFFFFFFFFu : (1u << count) - 1;
    gProcessMask.store(gSystemMask, std::memory_order_relaxed);
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, 0);
    gBaseNice = errno == 0 ? nice : 0;
    // Raising from a lower priority back to the normal one needs a privilege or this limit. One step up and down tells
    // about the privilege.
    rlimit limit;
    const bool limitAllows =
        getrlimit(RLIMIT_NICE, &limit) == 0 &&
        static_cast<int>(20 - static_cast<long>(limit.rlim_cur > 40 ? 40 : limit.rlim_cur)) <= gBaseNice;
    bool privileged = false;
    if (!limitAllows && gBaseNice > -20 && setpriority(PRIO_PROCESS, 0, gBaseNice - 1) == 0) {
        privileged = true;
        setpriority(PRIO_PROCESS, 0, gBaseNice);
    }
    gMayRaise.store(limitAllows || privileged, std::memory_order_relaxed);
}

void EnsureStart() {
    pthread_once(&gOnce, ReadStart);
}

// The numbering belongs to the start of the process, before a host narrows anything.
__attribute__((constructor)) void ReadAtStart() {
    const int savedErrno = errno;
    EnsureStart();
    errno = savedErrno;
}

uint32_t FromKernel(const KernelMask &mask) {
    uint32_t bits = 0;
    for (uint32_t i = 0; i < 32; ++i) {
        if ((gSystemMask >> i & 1) != 0 && mask.Has(gProcessors[i])) bits |= 1u << i;
    }
    return bits;
}

bool WriteKernelMask(int tid, uint32_t bits) {
    KernelMask mask;
    memset(&mask, 0, sizeof mask);
    for (uint32_t i = 0; i < 32; ++i) {
        if ((bits >> i & 1) != 0) mask.Add(gProcessors[i]);
    }
    return syscall(SYS_sched_setaffinity, tid, sizeof mask.Words, mask.Words) == 0;
}

bool IsThisProcess(HANDLE process) {
    return process == GetCurrentProcess();
}

// Narrows every thread that exists; how many could not be looked at because they had ended is of no interest. False
// when the kernel refused for a living thread.
bool NarrowThreads(uint32_t mask) {
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return WriteKernelMask(0, mask);
    bool done = true;
    while (const dirent *entry = readdir(tasks)) {
        const int tid = atoi(entry->d_name);
        KernelMask current;
        if (tid == 0 || !ReadKernelMask(tid, &current)) continue;
        const uint32_t kept = FromKernel(current) & mask;
        if (!WriteKernelMask(tid, kept != 0 ? kept : mask) && errno != ESRCH) done = false;
    }
    closedir(tasks);
    return done;
}

}  // namespace

uint32_t ProcessProcessorMask() {
    EnsureStart();
    return gProcessMask.load(std::memory_order_relaxed);
}

BOOL GetProcessAffinityMask(HANDLE process, uint32_t *processMask, uint32_t *systemMask) {
    if (ShouldFail("GetProcessAffinityMask")) return FALSE;
    EnsureStart();
    if (!IsThisProcess(process)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    *processMask = gProcessMask.load(std::memory_order_relaxed);
    *systemMask = gSystemMask;
    return TRUE;
}

BOOL SetProcessAffinityMask(HANDLE process, uint32_t mask) {
    if (ShouldFail("SetProcessAffinityMask")) return FALSE;
    EnsureStart();
    if (!IsThisProcess(process)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (mask == 0 || (mask & ~gSystemMask) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const int savedErrno = errno;
    bool done;
    {
        SpinGuard guard(gMaskLock);
        const uint32_t before = gProcessMask.load(std::memory_order_relaxed);
        // Before the walk: a thread that starts meanwhile reads the new mask by itself. Twice, because one that
        // was created just before may not have been in the first list.
        gProcessMask.store(mask, std::memory_order_seq_cst);
        done = NarrowThreads(mask) && NarrowThreads(mask);
        if (!done) gProcessMask.store(before, std::memory_order_relaxed);
    }
    errno = savedErrno;
    if (!done) SetLastError(ERROR_INVALID_PARAMETER);
    return done ? TRUE : FALSE;
}

uint32_t SetAffinityOfTid(int tid, uint32_t mask) {
    EnsureStart();
    const uint32_t allowed = gProcessMask.load(std::memory_order_relaxed);
    if (mask == 0 || (mask & ~allowed) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const int savedErrno = errno;
    KernelMask current;
    uint32_t old = 0;
    if (ReadKernelMask(tid, &current)) {
        old = FromKernel(current);
        if (old == 0) old = allowed;  // somebody moved the thread outside the numbering
        if (old != mask && !WriteKernelMask(tid, mask)) old = 0;
    }
    if (old == 0) SetLastError(errno == ESRCH ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
    errno = savedErrno;
    return old;
}

bool IsThreadPriority(int priority) {
    for (const Priority &known : kPriorities) {
        if (known.Value == priority) return true;
    }
    return false;
}

bool SetPriorityOfTid(int tid, int priority) {
    EnsureStart();
    for (const Priority &known : kPriorities) {
        if (known.Value != priority) continue;
        // An ordinary user may lower a thread but never raise it again. Better not lowered than lowered for ever.
        if (known.Nice > 0 && !gMayRaise.load(std::memory_order_relaxed)) return true;
        int nice = gBaseNice + known.Nice;
        nice = nice < -20 ? -20 : nice > 19 ? 19 : nice;
        const int savedErrno = errno;
        const bool gone = setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) != 0 && errno == ESRCH;
        errno = savedErrno;
        if (gone) SetLastError(ERROR_INVALID_HANDLE);
        return !gone;
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
}

void InitThreadScheduling() {
    EnsureStart();
    const int savedErrno = errno;
    // The mask is written first and read again after: SetProcessAffinityMask stores before it walks the threads, so
    // either its walk meets this thread or this thread meets its mask.
    uint32_t mask;
    do {
        mask = gProcessMask.load(std::memory_order_seq_cst);
        WriteKernelMask(0, mask);
    } while (mask != gProcessMask.load(std::memory_order_seq_cst));
    if (getpriority(PRIO_PROCESS, 0) != gBaseNice) setpriority(PRIO_PROCESS, 0, gBaseNice);
    errno = savedErrno;
}

}  // namespace os
