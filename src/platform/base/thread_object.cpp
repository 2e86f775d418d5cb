// platform/base/thread_object.cpp - the functions on thread handles.
//
// Runs on any thread. Looks the handle up, checks arguments, keeps the values that a thread remembers and
// leaves the rest to the kind of thread. Never stops or starts anything itself.
#include "platform/base/thread_object.h"

#include <cstdlib>
#include <ctime>

#include "platform/base/object_pool.h"
#include "platform/base/thread_block.h"

namespace os {

namespace {

std::atomic<const KernelThreadHooks *> gHooks{nullptr};

// 100 ns units from 1601 to 1970.
constexpr uint64_t kUnixEpoch = 116444736000000000ull;

// ---- Plain objects: values only, where kernel threads are not linked ---------------------------------

DWORD PlainSuspend(ThreadObject *) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return kSuspendFailed;
}

BOOL PlainTerminate(ThreadObject *, DWORD) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

uint32_t PlainSetAffinity(ThreadObject *, uint32_t) {
    return 0xFFFFFFFFu;
}

BOOL PlainSetPriority(ThreadObject *, int) {
    return TRUE;
}

void PlainCpuTimes(ThreadObject *, uint64_t *kernel, uint64_t *user) {
    *kernel = *user = 0;
}

constexpr ThreadOps kPlainThread = {PlainSuspend,     PlainSuspend,     PlainTerminate,
                                    PlainSetAffinity, PlainSetPriority, PlainCpuTimes};

void DestroyPlain(Object *object);
constexpr ObjectOps kPlainOps = {nullptr, DestroyPlain};
constinit ObjectPool<ThreadObject> gPlainThreads(ObjectType::kThread, &kPlainOps);

void DestroyPlain(Object *object) {
    FreeObject(&gPlainThreads, static_cast<ThreadObject *>(object));
}

// The end of a kernel thread whose object is a plain one.
void PlainThreadEnds(ThreadLocals *locals) {
    ThreadObject *thread = static_cast<ThreadObject *>(locals->ThreadObject);
    if (thread == nullptr || thread->Kind != &kPlainThread) return;
    locals->ThreadObject = nullptr;
    thread->ExitCode.store(0, std::memory_order_relaxed);
    SignalObject(thread);
    UnrefObject(thread);
}

ThreadObject *AttachPlain() {
    ThreadObject *thread = AllocObject(&gPlainThreads);
    if (thread == nullptr) return nullptr;
    InitThreadObject(thread, &kPlainThread, GetCurrentThreadId());
    AddThreadExitHook(PlainThreadEnds);
    return thread;
}

// A thread object behind a handle for the length of a call; null, with the last error set, when there is none.
struct ThreadRef {
    explicit ThreadRef(HANDLE handle) : Thread(static_cast<ThreadObject *>(RefHandle(handle, ObjectType::kThread))) {}
    ~ThreadRef() {
        if (Thread != nullptr) UnrefObject(Thread);
    }
    ThreadRef(const ThreadRef &) = delete;
    ThreadRef &operator=(const ThreadRef &) = delete;
    ThreadObject *const Thread;
};

void StoreFileTime(FILETIME *to, uint64_t value) {
    if (to == nullptr) return;
    to->dwLowDateTime = static_cast<DWORD>(value);
    to->dwHighDateTime = static_cast<DWORD>(value >> 32);
}

uint32_t ProcessMaskOrAll() {
    const KernelThreadHooks *hooks = gHooks.load(std::memory_order_acquire);
    return hooks != nullptr ? hooks->ProcessMask() : 0xFFFFFFFFu;
}

}  // namespace

void SetKernelThreadHooks(const KernelThreadHooks *hooks) {
    gHooks.store(hooks, std::memory_order_release);
}

bool EndIsRequested() {
    const KernelThreadHooks *hooks = gHooks.load(std::memory_order_acquire);
    return hooks != nullptr && hooks->EndIsRequested();
}

void EndCallingThread() {
    gHooks.load(std::memory_order_acquire)->EndCallingThread();
    abort();
}

uint64_t CoarseFileTime() {
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return kUnixEpoch + static_cast<uint64_t>(now.tv_sec) * 10000000u + static_cast<uint64_t>(now.tv_nsec) / 100u;
}

bool IsPriorityValue(int priority) {
    return (priority >= THREAD_PRIORITY_LOWEST && priority <= THREAD_PRIORITY_HIGHEST) ||
           priority == THREAD_PRIORITY_IDLE || priority == THREAD_PRIORITY_TIME_CRITICAL;
}

void InitThreadObject(ThreadObject *thread, const ThreadOps *kind, DWORD id) {
    thread->Kind = kind;
    thread->CreatedBy = GetCurrentThreadId();
    thread->Id.store(id, std::memory_order_relaxed);
    thread->ExitCode.store(STILL_ACTIVE, std::memory_order_relaxed);
    thread->Priority.store(THREAD_PRIORITY_NORMAL, std::memory_order_relaxed);
    thread->Affinity.store(0, std::memory_order_relaxed);
    thread->CreationTime.store(CoarseFileTime(), std::memory_order_relaxed);
    thread->ExitTime.store(0, std::memory_order_relaxed);
}

Object *RefCurrentThread() {
    ThreadLocals *locals = CurrentThreadLocals();
    if (locals->ThreadObject == nullptr) {
        const KernelThreadHooks *hooks = gHooks.load(std::memory_order_acquire);
        locals->ThreadObject = hooks != nullptr ? hooks->Attach() : AttachPlain();
    }
    if (locals->ThreadObject != nullptr) RefObject(locals->ThreadObject);
    return locals->ThreadObject;
}

HANDLE GetCurrentThread() {
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(-2));
}

DWORD GetCurrentThreadId() {
    return CurrentThreadBlock()->ThreadId;
}

HANDLE GetThreadDesktop(DWORD) {
    return nullptr;
}

DWORD SuspendThread(HANDLE thread) {
    if (ShouldFail("SuspendThread")) return kSuspendFailed;
    ThreadRef ref(thread);
    return ref.Thread == nullptr ? kSuspendFailed : ref.Thread->Kind->Suspend(ref.Thread);
}

DWORD ResumeThread(HANDLE thread) {
    if (ShouldFail("ResumeThread")) return kSuspendFailed;
    ThreadRef ref(thread);
    return ref.Thread == nullptr ? kSuspendFailed : ref.Thread->Kind->Resume(ref.Thread);
}

BOOL TerminateThread(HANDLE thread, DWORD code) {
    if (ShouldFail("TerminateThread")) return FALSE;
    bool self = false;
    {
        ThreadRef ref(thread);
        if (ref.Thread == nullptr) return FALSE;
        self = ref.Thread == CurrentThreadLocals()->ThreadObject;
        if (!ref.Thread->Kind->Terminate(ref.Thread, code)) return FALSE;
    }
    // The reference is dropped first: the caller does not come back.
    if (self && EndIsRequested()) EndCallingThread();
    return TRUE;
}

BOOL GetExitCodeThread(HANDLE thread, DWORD *code) {
    if (ShouldFail("GetExitCodeThread")) return FALSE;
    ThreadRef ref(thread);
    if (ref.Thread == nullptr) return FALSE;
    // The code is there a moment before the object is signalled, and for that moment nobody is told: who sees the thread
    // ended must find its handle signalled.
    const bool ended = ref.Thread->Signalled.load(std::memory_order_acquire) != 0;
    *code = ended ? ref.Thread->ExitCode.load(std::memory_order_relaxed) : STILL_ACTIVE;
    return TRUE;
}

DWORD GetThreadId(HANDLE thread) {
    if (ShouldFail("GetThreadId")) return 0;
    ThreadRef ref(thread);
    return ref.Thread == nullptr ? 0 : ref.Thread->Id.load(std::memory_order_relaxed);
}

BOOL GetThreadTimes(HANDLE thread, FILETIME *creation, FILETIME *exit, FILETIME *kernel, FILETIME *user) {
    if (ShouldFail("GetThreadTimes")) return FALSE;
    ThreadRef ref(thread);
    if (ref.Thread == nullptr) return FALSE;
    uint64_t kernelTime = 0;
    uint64_t userTime = 0;
    ref.Thread->Kind->CpuTimes(ref.Thread, &kernelTime, &userTime);
    StoreFileTime(creation, ref.Thread->CreationTime.load(std::memory_order_relaxed));
    StoreFileTime(exit, ref.Thread->ExitTime.load(std::memory_order_relaxed));
    StoreFileTime(kernel, kernelTime);
    StoreFileTime(user, userTime);
    return TRUE;
}

BOOL QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR data) {
    if (ShouldFail("QueueUserAPC")) return FALSE;
    ThreadRef ref(thread);
    if (ref.Thread == nullptr) return FALSE;
    if (ref.Thread->ExitCode.load(std::memory_order_acquire) != STILL_ACTIVE) {
        SetLastError(ERROR_GEN_FAILURE);
        return FALSE;
    }
    return ref.Thread->Kind->QueueApc == nullptr ? TRUE : ref.Thread->Kind->QueueApc(ref.Thread, routine, data);
}

uint32_t SetThreadAffinityMask(HANDLE thread, uint32_t mask) {
    if (ShouldFail("SetThreadAffinityMask")) return 0;
    ThreadRef ref(thread);
    if (ref.Thread == nullptr) return 0;
    uint32_t all = ProcessMaskOrAll();
    if (mask == 0 || (mask & ~all) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    uint32_t inForce = ref.Thread->Kind->SetAffinity(ref.Thread, mask);
    if (inForce == 0) return 0;
    // A mask that was asked for is reported as it was given; before that, what was in force.
    // Processors that the process has lost since are no part of it: the caller may give the mask back later.
    uint32_t old = ref.Thread->Affinity.exchange(mask, std::memory_order_relaxed) & all;
    return old != 0 ? old : inForce & all;
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
    if (ShouldFail("SetThreadPriority")) return FALSE;
    ThreadRef ref(thread);
    if (ref.Thread == nullptr) return FALSE;
    if (!IsPriorityValue(priority)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!ref.Thread->Kind->SetPriority(ref.Thread, priority)) return FALSE;
    ref.Thread->Priority.store(priority, std::memory_order_relaxed);
    return TRUE;
}

int GetThreadPriority(HANDLE thread) {
    if (ShouldFail("GetThreadPriority")) return THREAD_PRIORITY_ERROR_RETURN;
    ThreadRef ref(thread);
    return ref.Thread == nullptr ? THREAD_PRIORITY_ERROR_RETURN : ref.Thread->Priority.load(std::memory_order_relaxed);
}

}  // namespace os
