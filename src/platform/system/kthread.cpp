// platform/system/kthread.cpp - kernel threads: making, stopping and ending them.
//
// A thread is stopped and ended by a signal that the platform reserves. Its handler runs on the target:
//   - in an inner region (a platform lock is held, or the thread is in a wait of ours) it only leaves a note,
//     and the thread serves the request itself when it leaves the region or withdraws its wait;
//   - to stop, it parks right there, on the alternate stack where there is one, until the count is 0;
//   - to end, it looks where the thread was interrupted. Only in a system call that may block, outside the
//     allocator and other code that holds locks of the process, is the thread ended. A timer repeats the
//     signal every millisecond until that is so, or the thread ends by itself.
//
// Ending a thread unwinds nothing: it jumps to the thread's first frame, whatever frames lie between (they
// may forbid unwinding), and returns from there, so that thread-local destructors run and the stack is freed.
// The C library's own clean-up runs at the jump: a condition variable forgets the waiter, whose mutex then stays
// locked, as any lock does that a terminated thread held.
//
// Who may write what in a KernelThread: fields marked [Lock] are changed under its Lock, which is also held
// while a signal is sent, so that Tid names the thread and no successor. StopWord is written by the thread
// itself. Two pairs of sequentially consistent accesses decide whether a stop is seen: the suspender raises
// SuspendCount and then reads StopWord; the thread makes StopWord even and then reads SuspendCount.
#undef _FORTIFY_SOURCE  // its longjmp refuses to leave an alternate stack

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/base/apc.h"
#include "platform/base/fiber_internal.h"
#include "platform/base/futex.h"
#include "platform/base/inner_lock.h"
#include "platform/base/object_pool.h"
#include "platform/base/thread_block.h"
#include "platform/base/thread_object.h"
#include "platform/base/wait.h"
#include "platform/system/affinity.h"

namespace os {

namespace {

struct KernelThread : ThreadObject {
    InnerLock Lock;
    std::atomic<uint32_t> SuspendCount{0};   // [Lock] futex of a parked thread
    std::atomic<uint32_t> StopWord{0};       // owner: odd while parked, raised at each change; futex of suspenders
    std::atomic<uint32_t> Announced{0};      // owner: 1 once the thread has set itself up; futex of its creator
    std::atomic<bool> EndRequested{false};   // [Lock] somebody terminated it
    DWORD EndCode = 0;                       // [Lock] valid once EndRequested is set, then constant
    DWORD OwnCode = 0;                       // owner: what it returned or exited with
    int Tid = 0;                             // [Lock] 0 before the start and after the end
    int EndTimer = -1;                       // [Lock] kernel timer that repeats the signal, -1 when none
    clockid_t CpuClock = 0;                  // [Lock] valid while Tid is not 0
    uint64_t CpuTime = 0;                    // [Lock] 100 ns units, set at the end
    AlertState *Alert = nullptr;             // [Lock] the thread's own reference keeps it while Tid is not 0
    LPTHREAD_START_ROUTINE Start = nullptr;  // init
    void *Param = nullptr;                   // init
    std::atomic<bool> Parking{false};        // owner and its handler: in Park
    std::atomic<bool> Jumps{false};          // owner and its handler: Base is valid
    std::atomic<bool> Ended{false};          // owner: set at the end, before StopWord changes for the last time
    jmp_buf Base;                            // owner: the thread's first frame
};

void DestroyKernelThread(Object *object);
constexpr ObjectOps kKernelThreadOps = {nullptr, DestroyKernelThread};
constinit ObjectPool<KernelThread> gKernelThreads(ObjectType::kThread, &kKernelThreadOps);

void DestroyKernelThread(Object *object) {
    FreeObject(&gKernelThreads, static_cast<KernelThread *>(object));
}

// The object of the kernel thread itself, also while a backing thread's function runs on it. Read by the
// handler: null before the thread is set up and once it has begun to end.
constinit thread_local std::atomic<KernelThread *> tSelf{nullptr};

ZVX_THREAD_ACCESSOR KernelThread *Self() {
    asm volatile("");
    return tSelf.load(std::memory_order_relaxed);
}

ZVX_THREAD_ACCESSOR void SetSelf(KernelThread *thread) {
    asm volatile("");
    tSelf.store(thread, std::memory_order_relaxed);
}

// Longer than any sleep is meant to be, but limited: the kernel then comes back after a signal handler.
constexpr uint64_t kLongSleepNs = 3600ull * 1000000000u;
constexpr size_t kDefaultStack = 1024 * 1024;
constexpr size_t kLeastStack = 64 * 1024;
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
constexpr size_t kStackFactor = 4;
#else
constexpr size_t kStackFactor = 1;
#endif
// The host's own system calls must not fail because a thread was suspended in them, and one signal is enough.
// ThreadSanitizer delivers a signal only after the call, so there the call has to come back, and it loses one
// that arrives while it makes a fiber.
#if defined(ZVX_TSAN)
constexpr int kRestart = 0;
constexpr uint64_t kResendNs = 20 * 1000000u;
#else
constexpr int kRestart = SA_RESTART;
constexpr uint64_t kResendNs = kLongSleepNs;
#endif

int StopSignal() {
    return SIGRTMIN + 3;
}

uint64_t ClockTime(clockid_t clock) {
    timespec used;
    if (clock_gettime(clock, &used) != 0) return 0;
    return static_cast<uint64_t>(used.tv_sec) * 10000000u + static_cast<uint64_t>(used.tv_nsec) / 100u;
}

// ---- On the thread itself ----------------------------------------------------------------------------

// Stays until the suspend count is 0. A stale signal that arrives meanwhile must not count as another stop,
// so the handler leaves a thread alone that is in here, and the count is read once more after that.
void Park(KernelThread *thread) {
    do {
        thread->Parking.store(true, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        thread->StopWord.fetch_add(1, std::memory_order_seq_cst);
        FutexWake(&thread->StopWord, INT_MAX);
        while (uint32_t count = thread->SuspendCount.load(std::memory_order_seq_cst))
            FutexWait(&thread->SuspendCount, count, MonotonicNs() + kLongSleepNs);
        thread->StopWord.fetch_add(1, std::memory_order_seq_cst);
        thread->Parking.store(false, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        // A suspender that came in between and saw the odd value relies on the thread being stopped.
    } while (thread->SuspendCount.load(std::memory_order_seq_cst) != 0);
    // Suspenders that were overtaken by a resume look at the count again.
    FutexWake(&thread->StopWord, INT_MAX);
}

// A request that was noted in an inner region. The end of the thread is left to its wait or to the timer.
void ServePending() {
    KernelThread *thread = Self();
    if (thread != nullptr && thread->SuspendCount.load(std::memory_order_seq_cst) != 0) Park(thread);
}

// System calls that may block for long and that no library makes while it holds a lock of its own. Writing
// is not among them because of the standard output's lock, nor is the plain futex wait by which locks wait.
bool MayEndIn(long long number, long long secondArgument) {
    switch (number) {
        case SYS_futex: return (secondArgument & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
        case SYS_read:
        case SYS_readv:
        case SYS_pread64:
        case SYS_preadv:
        case SYS_preadv2:
        case SYS_poll:
        case SYS_ppoll:
        case SYS_select:
        case SYS_pselect6:
        case SYS_epoll_wait:
        case SYS_epoll_pwait:
        case SYS_pause:
        case SYS_nanosleep:
        case SYS_clock_nanosleep:
        case SYS_connect:
        case SYS_accept:
        case SYS_accept4:
        case SYS_sendto:
        case SYS_sendmsg:
        case SYS_recvfrom:
        case SYS_recvmsg:
        case SYS_recvmmsg:
        case SYS_wait4:
        case SYS_waitid:
        case SYS_flock:
        case SYS_fcntl:
        case SYS_semop:
        case SYS_semtimedop:
        case SYS_msgrcv:
        case SYS_msgsnd:
        case SYS_rt_sigtimedwait:
        case SYS_rt_sigsuspend:
        case SYS_io_uring_enter: return true;
        default: return false;
    }
}

// Whether the interrupted thread is about to make a system call in which it may be ended (the kernel also
// goes back there to restart an interrupted call) or comes from one that the signal interrupted.
bool AtSystemCall(const ucontext_t *context) {
    const greg_t *registers = context->uc_mcontext.gregs;
    uintptr_t at = static_cast<uintptr_t>(registers[REG_RIP]);
    uintptr_t inPage = at & 4095;
    auto isSyscall = [](uintptr_t address) {
        const volatile unsigned char *code = reinterpret_cast<const volatile unsigned char *>(address);
        return code[0] == 0x0F && code[1] == 0x05;
    };
    // The page that holds the interrupted instruction can be read, its neighbours perhaps not.
    if (inPage >= 2 && registers[REG_RAX] == -EINTR && isSyscall(at - 2)) return true;
    return inPage <= 4094 && isSyscall(at) && MayEndIn(registers[REG_RAX], registers[REG_RSI]);
}

[[noreturn]] void JumpToBase(KernelThread *thread) {
    thread->Jumps.store(false, std::memory_order_relaxed);
    LeaveFibersByJump(CurrentThreadLocals());
    longjmp(thread->Base, 1);
}

void OnStopSignal(int, siginfo_t *, void *context) {
    KernelThread *thread = Self();
    if (thread == nullptr || thread->Parking.load(std::memory_order_relaxed)) return;
    int saved = errno;
    InnerRegion *region = CurrentInnerRegion();
    if (region->Depth.load(std::memory_order_relaxed) != 0) {
        region->Pending.store(1, std::memory_order_relaxed);
        // The thread may be about to sleep in a wait: the raised word keeps it awake.
        if (thread->Alert != nullptr) thread->Alert->Word.fetch_add(1, std::memory_order_release);
    } else {
        if (thread->SuspendCount.load(std::memory_order_seq_cst) != 0) {
            Park(thread);
        } else {
            // Whoever waits for the stop that is not to be any more has to look again.
            thread->StopWord.fetch_add(2, std::memory_order_seq_cst);
            FutexWake(&thread->StopWord, INT_MAX);
        }
        if (thread->EndRequested.load(std::memory_order_acquire) && thread->Jumps.load(std::memory_order_relaxed) &&
            AtSystemCall(static_cast<const ucontext_t *>(context)))
            JumpToBase(thread);
    }
    errno = saved;
}

// What a kernel thread needs before it may be stopped; `thread` is its object.
void SetUpSelf(KernelThread *thread) {
    ThreadLocals *locals = CurrentThreadLocals();
    AlertState *alert = CurrentAlertState();
    thread->Id.store(locals->Block.ThreadId, std::memory_order_relaxed);
    SetSelf(thread);
    {
        InnerGuard guard(&thread->Lock);
        thread->Alert = alert;
        if (pthread_getcpuclockid(pthread_self(), &thread->CpuClock) != 0) thread->CpuClock = CLOCK_THREAD_CPUTIME_ID;
        thread->Tid = static_cast<int>(locals->Block.ThreadId);
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, StopSignal());
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
}

// The end of a kernel thread, after its thread_local destructors: nobody may signal it any more.
void KernelThreadEnds(ThreadLocals *locals) {
    KernelThread *thread = Self();
    if (thread == nullptr) return;
    SetSelf(nullptr);
    locals->ThreadObject = nullptr;
    DWORD code;
    int timer;
    {
        InnerGuard guard(&thread->Lock);
        timer = thread->EndTimer;
        thread->EndTimer = -1;
        thread->CpuTime = ClockTime(thread->CpuClock);
        thread->Tid = 0;
        thread->Alert = nullptr;
        code = thread->EndRequested.load(std::memory_order_relaxed) ? thread->EndCode : thread->OwnCode;
    }
    if (timer != -1) syscall(SYS_timer_delete, timer);
    thread->ExitTime.store(CoarseFileTime(), std::memory_order_relaxed);
    thread->ExitCode.store(code, std::memory_order_release);
    thread->Ended.store(true, std::memory_order_seq_cst);
    thread->StopWord.fetch_add(2, std::memory_order_seq_cst);
    FutexWake(&thread->StopWord, INT_MAX);
    // Whoever waited for the thread finds its mutexes abandoned.
    AbandonOwnMutexes();
    SignalObject(thread);
    UnrefObject(thread);
}

// The first frame of a thread: comes back here by return or by jump. Holds nothing in registers across.
[[gnu::noinline]] void RunFromBase(KernelThread *thread) {
    if (_setjmp(thread->Base) == 0) {
        thread->Jumps.store(true, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        // A termination from here on finds a thread that can be ended, one before is seen now.
        if (!thread->EndRequested.load(std::memory_order_acquire)) {
            DWORD code = thread->Start(thread->Param);
            KernelThread *self = Self();
            self->OwnCode = code;
        }
    }
    Self()->Jumps.store(false, std::memory_order_relaxed);
}

void *ThreadMain(void *argument) {
    KernelThread *thread = static_cast<KernelThread *>(argument);
    CurrentThreadLocals()->ThreadObject = thread;
    InitThreadScheduling();
    ArmStackOverflowReport();
    SetUpSelf(thread);
    // From here on the creator may be gone, and with it the suspension it asked for.
    thread->Announced.store(1, std::memory_order_release);
    FutexWake(&thread->Announced, 1);
    if (thread->SuspendCount.load(std::memory_order_seq_cst) != 0) Park(thread);
    RunFromBase(thread);
    return nullptr;
}

// ---- What others ask of a thread -----------------------------------------------------------------------

// [Lock] Interrupts the thread, wherever it is.
void InterruptLocked(KernelThread *thread) {
    syscall(SYS_tgkill, getpid(), thread->Tid, StopSignal());
    if (thread->Alert != nullptr) WakeAlert(thread->Alert);
}

DWORD SuspendKernelThread(ThreadObject *object) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    uint32_t previous = 0;
    DWORD error = ERROR_SUCCESS;
    {
        InnerGuard guard(&thread->Lock);
        previous = thread->SuspendCount.load(std::memory_order_relaxed);
        if (thread->Tid == 0 || thread->EndRequested.load(std::memory_order_relaxed)) {
            error = ERROR_ACCESS_DENIED;
        } else if (previous >= kMaxSuspendCount) {
            error = kErrorSignalRefused;
        } else {
            thread->SuspendCount.store(previous + 1, std::memory_order_seq_cst);
            if (previous == 0 && thread != Self()) InterruptLocked(thread);
        }
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return kSuspendFailed;
    }
    if (thread == Self()) {
        Park(thread);
        return previous;
    }
    for (;;) {
        // Even: not stopped yet. Any change of the word, also by the end of the thread, comes back here.
        uint32_t word = thread->StopWord.load(std::memory_order_seq_cst);
        if ((word & 1) != 0 || thread->SuspendCount.load(std::memory_order_seq_cst) == 0) return previous;
        if (thread->Ended.load(std::memory_order_seq_cst)) return previous;
        if (!FutexWait(&thread->StopWord, word, MonotonicNs() + kResendNs)) {
            InnerGuard guard(&thread->Lock);
            if (thread->Tid != 0) InterruptLocked(thread);
        }
    }
}

DWORD ResumeKernelThread(ThreadObject *object) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    InnerGuard guard(&thread->Lock);
    uint32_t previous = thread->SuspendCount.load(std::memory_order_relaxed);
    if (previous == 0) return 0;
    thread->SuspendCount.store(previous - 1, std::memory_order_seq_cst);
    if (previous == 1) FutexWake(&thread->SuspendCount, INT_MAX);
    return previous;
}

// [Lock] Repeats the signal until the thread is found where it may be ended. Without a timer (the kernel's
// limit of pending signals) the thread still ends when the one signal finds it there, or in a wait.
void StartEndTimerLocked(KernelThread *thread) {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = StopSignal();
    event._sigev_un._tid = thread->Tid;
    int timer = -1;
    if (syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0) return;
    itimerspec every{};
    every.it_value.tv_nsec = every.it_interval.tv_nsec = 1000000;
    syscall(SYS_timer_settime, timer, 0, &every, nullptr);
    thread->EndTimer = timer;
}

BOOL TerminateKernelThread(ThreadObject *object, DWORD code) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    DWORD error = ERROR_SUCCESS;
    {
        InnerGuard guard(&thread->Lock);
        if (thread->Tid == 0) {
            error = ERROR_ACCESS_DENIED;
        } else if (thread->Start == nullptr && thread != Self()) {
            // Made by somebody else: it has no first frame of ours to go back to.
            error = ERROR_NOT_SUPPORTED;
        } else if (!thread->EndRequested.load(std::memory_order_relaxed)) {
            thread->EndCode = code;
            thread->EndRequested.store(true, std::memory_order_release);
            // A suspended thread is released to die.
            thread->SuspendCount.store(0, std::memory_order_seq_cst);
            FutexWake(&thread->SuspendCount, INT_MAX);
            if (thread != Self()) {
                StartEndTimerLocked(thread);
                InterruptLocked(thread);
            }
        }
    }
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

uint32_t SetKernelThreadAffinity(ThreadObject *object, uint32_t mask) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    uint32_t old = 0;
    DWORD error = ERROR_INVALID_HANDLE;
    {
        InnerGuard guard(&thread->Lock);
        if (thread->Tid != 0) {
            old = SetAffinityOfTid(thread->Tid, mask);
            error = GetLastError();
        }
    }
    if (old == 0) SetLastError(error);
    return old;
}

BOOL SetKernelThreadPriority(ThreadObject *object, int priority) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    InnerGuard guard(&thread->Lock);
    if (thread->Tid != 0) return SetPriorityOfTid(thread->Tid, priority) ? TRUE : FALSE;
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

// The kernel keeps one clock a thread; all of it is reported as user time.
void KernelThreadCpuTimes(ThreadObject *object, uint64_t *kernel, uint64_t *user) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    InnerGuard guard(&thread->Lock);
    *kernel = 0;
    *user = thread->Tid != 0 ? ClockTime(thread->CpuClock) : thread->CpuTime;
}

BOOL QueueKernelThreadApc(ThreadObject *object, PAPCFUNC routine, ULONG_PTR data) {
    KernelThread *thread = static_cast<KernelThread *>(object);
    // The thread's own reference keeps the state only while the lock is held, and to queue is short.
    InnerGuard guard(&thread->Lock);
    if (thread->Tid != 0 && thread->Alert != nullptr) return QueueApc(thread->Alert, routine, data);
    SetLastError(ERROR_GEN_FAILURE);
    return FALSE;
}

constexpr ThreadOps kKernelThread = {SuspendKernelThread,   ResumeKernelThread,      TerminateKernelThread,
                                     SetKernelThreadAffinity, SetKernelThreadPriority, KernelThreadCpuTimes,
                                     QueueKernelThreadApc};

// ---- Making threads --------------------------------------------------------------------------------------

void InstallHandler() {
    struct sigaction action {};
    action.sa_sigaction = OnStopSignal;
    action.sa_flags = SA_SIGINFO | kRestart | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    // What a fault in the handler raises must still be reported.
    sigdelset(&action.sa_mask, SIGSEGV);
    sigdelset(&action.sa_mask, SIGBUS);
    sigaction(StopSignal(), &action, nullptr);
    AddThreadExitHook(KernelThreadEnds);
    gServePendingRequest.store(ServePending, std::memory_order_release);
}

KernelThread *NewKernelThread(LPTHREAD_START_ROUTINE start, void *param, uint32_t suspendCount) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, InstallHandler);
    KernelThread *thread = AllocObject(&gKernelThreads);
    if (thread == nullptr) return nullptr;
    InitThreadObject(thread, &kKernelThread, 0);
    InnerGuard guard(&thread->Lock);
    thread->SuspendCount.store(suspendCount, std::memory_order_relaxed);
    thread->StopWord.store(0, std::memory_order_relaxed);
    thread->Announced.store(0, std::memory_order_relaxed);
    thread->EndRequested.store(false, std::memory_order_relaxed);
    thread->EndCode = 0;
    thread->OwnCode = 0;
    thread->Tid = 0;
    thread->CpuTime = 0;
    thread->Start = start;
    thread->Param = param;
    thread->Parking.store(false, std::memory_order_relaxed);
    thread->Jumps.store(false, std::memory_order_relaxed);
    thread->Ended.store(false, std::memory_order_relaxed);
    return thread;
}

// The calling thread was made by somebody else and is asked for its handle for the first time.
ThreadObject *AttachKernelThread() {
    KernelThread *thread = NewKernelThread(nullptr, nullptr, 0);
    if (thread != nullptr) SetUpSelf(thread);
    return thread;
}

bool KernelThreadEndIsRequested() {
    KernelThread *thread = Self();
    return thread != nullptr && thread->EndRequested.load(std::memory_order_acquire);
}

void EndRequestedThread() {
    ExitThread(Self()->EndCode);
}

constexpr KernelThreadHooks kHooks = {AttachKernelThread, KernelThreadEndIsRequested, EndRequestedThread,
                                      ProcessProcessorMask};

// A thread may ask for its own handle before the first one is made, so this does not wait for CreateThread.
[[gnu::constructor]] void RegisterHooks() {
    SetKernelThreadHooks(&kHooks);
}

// Which limit refused a thread: the C library reports both as the same error.
DWORD CreationError(size_t stackBytes) {
    void *stack = mmap(nullptr, stackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (stack == MAP_FAILED) return ERROR_NOT_ENOUGH_MEMORY;
    munmap(stack, stackBytes);
    return ERROR_MAX_THRDS_REACHED;
}

bool StartDetached(KernelThread *thread, size_t stackBytes) {
    size_t bytes = stackBytes == 0 ? kDefaultStack : stackBytes;
    if (bytes < kLeastStack) bytes = kLeastStack;
    bytes = (bytes * kStackFactor + 4095) & ~size_t{4095};
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    int result = pthread_attr_setstacksize(&attributes, bytes);
    pthread_t made;
    if (result == 0) result = ShouldFailInside("pthread_create");
    if (result == 0) result = pthread_create(&made, &attributes, ThreadMain, thread);
    pthread_attr_destroy(&attributes);
    if (result == 0) return true;
    SetLastError(result == EINVAL ? ERROR_NOT_ENOUGH_MEMORY : CreationError(bytes));
    return false;
}

}  // namespace

HANDLE CreateThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE start, void *param,
                    DWORD flags, DWORD *threadId) {
    static_cast<void>(security);
    if (ShouldFail("CreateThread")) return nullptr;
    if (start == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    KernelThread *thread = NewKernelThread(start, param, (flags & CREATE_SUSPENDED) != 0 ? 1 : 0);
    if (thread == nullptr) return nullptr;
    // The handle first: a thread that runs cannot be taken back. The running thread has a reference of its
    // own, and so has this function.
    HANDLE handle = NewHandle(thread);
    if (handle == nullptr) {
        UnrefObject(thread);
        return nullptr;
    }
    RefObject(thread);
    RefObject(thread);
    if (!StartDetached(thread, stackBytes)) {
        DWORD error = GetLastError();
        UnrefObject(thread);
        UnrefObject(thread);
        CloseHandle(handle);
        SetLastError(error);
        return nullptr;
    }
    // Its identifier is known once it runs.
    while (thread->Announced.load(std::memory_order_acquire) == 0) FutexWait(&thread->Announced, 0, kNoDeadline);
    if (threadId != nullptr) *threadId = thread->Id.load(std::memory_order_relaxed);
    UnrefObject(thread);
    return handle;
}

void ExitThread(DWORD code) {
    KernelThread *thread = Self();
    if (thread != nullptr) {
        thread->OwnCode = code;
        if (thread->Jumps.load(std::memory_order_relaxed)) JumpToBase(thread);
    }
    // A thread that was made elsewhere, or that ends already: the C library takes it down.
    pthread_exit(nullptr);
}

}  // namespace os
