// platform/base/backing_thread.cpp - thread objects without a kernel thread and without a stack.
//
// The functions run on whichever thread calls them; capture and end run on the resuming thread, with its
// stack, but as the object's own thread: identifier, slots, last error and fiber data are exchanged in the
// thread block and put back. Never blocks, never allocates beyond the object.
//
// A backing thread goes kCreated -> kCapturing -> kParked -> kEnding -> kEnded, forward only, or to kEnded
// from kCreated and kParked when it is terminated. All of it changes under the dispatcher lock; the two
// ...ing phases are left by the one thread that entered them, which runs the function without the lock:
//   - it runs capture or end because its resume took the count from 1 to 0 in the phase before, so nobody
//     else does;
//   - suspensions that arrive meanwhile raise the count, and the one that follows capture adds to them;
//   - a termination during capture takes effect when capture returns; one during end is too late, since
//     the thread is ending already, and its code is not used.
#include <cstring>

#include "platform/base/object_pool.h"
#include "platform/base/thread_block.h"
#include "platform/base/thread_object.h"
#include "platform/base/wait.h"

namespace os {

namespace {

enum class Phase : uint8_t { kCreated, kCapturing, kParked, kEnding, kEnded };

struct BackingThread : ThreadObject {
    void (*Capture)(void *) = nullptr;  // init
    DWORD (*End)(void *) = nullptr;     // init
    void *Arg = nullptr;                // init
    MutexObject *Owned = nullptr;       // [dispatcher lock] mutexes taken during capture or end
    DWORD LastError = 0;                // whoever runs capture or end
    DWORD TerminateCode = 0;            // [dispatcher lock] valid with Terminated
    uint16_t Uses = 0;                  // part of the identifier: how often this memory was handed out
    uint8_t SuspendCount = 0;           // [dispatcher lock] 0 to 127
    Phase Now = Phase::kEnded;          // [dispatcher lock]
    bool Terminated = false;            // [dispatcher lock] asked for during capture
};
static_assert(sizeof(BackingThread) <= 200);

void DestroyBacking(Object *object);
constexpr ObjectOps kBackingOps = {nullptr, DestroyBacking};
constinit ObjectPool<BackingThread> gBackingThreads(ObjectType::kThread, &kBackingOps);

void DestroyBacking(Object *object) {
    FreeObject(&gBackingThreads, static_cast<BackingThread *>(object));
}

// Identifiers lie above those of kernel threads and are multiples of four. The object's number keeps them
// apart from those of all that exist; the number of uses keeps a stale one from meeting the next thread.
constexpr uint32_t kFirstId = 0x40000000u;
constexpr uint32_t kIndexBits = 20;
constexpr uint32_t kUseBits = 8;

// [dispatcher lock]
void EndLocked(BackingThread *thread, DWORD code, WakeList *wakes) {
    thread->Now = Phase::kEnded;
    thread->SuspendCount = 0;
    thread->ExitTime.store(CoarseFileTime(), std::memory_order_relaxed);
    thread->ExitCode.store(code, std::memory_order_release);
    AbandonMutexesLocked(&thread->Owned, wakes);
    SignalLocked(thread, wakes);
}

// The exchange of what the thread block says about who runs here.
struct BlockSwap {
    explicit BlockSwap(BackingThread *thread) : Thread(thread), Locals(CurrentThreadLocals()) {
        ThreadBlock &block = Locals->Block;
        Saved = {block.FiberData, block.Slots, block.StaticTls, block.LastError, block.ThreadId};
        SavedObject = Locals->ThreadObject;
        SavedOwned = UseOwnedMutexes(&thread->Owned);
        memset(Slots, 0, sizeof(Slots));
        block.FiberData = reinterpret_cast<void *>(kNoFiberData);
        SetSlotArray(Slots);
        block.StaticTls = thread;
        block.LastError = thread->LastError;
        block.ThreadId = thread->Id.load(std::memory_order_relaxed);
        Locals->ThreadObject = thread;
    }
    ~BlockSwap() {
        ThreadBlock &block = Locals->Block;
        Thread->LastError = block.LastError;
        UseOwnedMutexes(SavedOwned);
        Locals->ThreadObject = SavedObject;
        block.FiberData = Saved.FiberData;
        block.Slots = Saved.Slots;
        block.StaticTls = Saved.StaticTls;
        block.LastError = Saved.LastError;
        block.ThreadId = Saved.ThreadId;
    }
    BlockSwap(const BlockSwap &) = delete;
    BlockSwap &operator=(const BlockSwap &) = delete;

    struct Fields {
        void *FiberData;
        void **Slots;
        void *StaticTls;
        DWORD LastError;
        DWORD ThreadId;
    };
    BackingThread *const Thread;
    ThreadLocals *const Locals;
    Fields Saved;
    Object *SavedObject;
    MutexObject **SavedOwned;
    // A parked thread has no slots of its own: they are empty when capture begins, and end fills them anew.
    void *Slots[kTlsSlots];
};

// Not inlined, so that a resume that runs neither function has no slots on its stack.
[[gnu::noinline]] void RunCapture(BackingThread *thread) {
    BlockSwap swap(thread);
    thread->Capture(thread->Arg);
}

[[gnu::noinline]] DWORD RunEnd(BackingThread *thread) {
    BlockSwap swap(thread);
    return thread->End(thread->Arg);
}

DWORD SuspendBacking(ThreadObject *object) {
    BackingThread *thread = static_cast<BackingThread *>(object);
    DWORD error;
    {
        InnerGuard guard(&gDispatcherLock);
        if (thread->Now != Phase::kEnded && thread->SuspendCount < kMaxSuspendCount) return thread->SuspendCount++;
        error = thread->Now == Phase::kEnded ? ERROR_ACCESS_DENIED : kErrorSignalRefused;
    }
    SetLastError(error);
    return kSuspendFailed;
}

// The count of an ended thread is 0, so that a resume loop ends.
DWORD ResumeBacking(ThreadObject *object) {
    BackingThread *thread = static_cast<BackingThread *>(object);
    Phase runs;
    DWORD previous;
    {
        InnerGuard guard(&gDispatcherLock);
        previous = thread->SuspendCount;
        if (previous == 0) return 0;
        thread->SuspendCount--;
        if (previous > 1 || thread->Now == Phase::kCapturing || thread->Now == Phase::kEnding) return previous;
        runs = thread->Now == Phase::kCreated ? Phase::kCapturing : Phase::kEnding;
        thread->Now = runs;
    }
    if (runs == Phase::kCapturing) {
        RunCapture(thread);
        DispatchGuard guard;
        thread->Now = Phase::kParked;
        if (thread->SuspendCount < kMaxSuspendCount) thread->SuspendCount++;
        if (thread->Terminated) EndLocked(thread, thread->TerminateCode, &guard.Wakes);
    } else {
        DWORD code = RunEnd(thread);
        DispatchGuard guard;
        EndLocked(thread, code, &guard.Wakes);
    }
    return previous;
}

BOOL TerminateBacking(ThreadObject *object, DWORD code) {
    BackingThread *thread = static_cast<BackingThread *>(object);
    DispatchGuard guard;
    switch (thread->Now) {
        case Phase::kCreated:
        case Phase::kParked: EndLocked(thread, code, &guard.Wakes); break;
        case Phase::kCapturing:
            if (!thread->Terminated) thread->TerminateCode = code;
            thread->Terminated = true;
            break;
        case Phase::kEnding:
        case Phase::kEnded: break;
    }
    return TRUE;
}

// Nothing runs here, so mask and priority are values that the object keeps.
uint32_t SetBackingAffinity(ThreadObject *, uint32_t) {
    return 0xFFFFFFFFu;
}

BOOL SetBackingPriority(ThreadObject *, int) {
    return TRUE;
}

void BackingCpuTimes(ThreadObject *, uint64_t *kernel, uint64_t *user) {
    *kernel = *user = 0;
}

constexpr ThreadOps kBackingThread = {SuspendBacking,     ResumeBacking,      TerminateBacking,
                                      SetBackingAffinity, SetBackingPriority, BackingCpuTimes};

}  // namespace

HANDLE CreateBackingThread(SECURITY_ATTRIBUTES *security, void (*capture)(void *), DWORD (*end)(void *), void *arg,
                           DWORD *threadId) {
    static_cast<void>(security);
    if (ShouldFail("CreateBackingThread")) return nullptr;
    BackingThread *thread = AllocObject(&gBackingThreads);
    if (thread == nullptr) return nullptr;
    if (thread->PoolIndex >= 1u << kIndexBits) {
        SetLastError(ERROR_MAX_THRDS_REACHED);
        UnrefObject(thread);
        return nullptr;
    }
    thread->Uses++;
    uint32_t use = thread->Uses & ((1u << kUseBits) - 1);
    DWORD id = kFirstId | use << (kIndexBits + 2) | thread->PoolIndex << 2;
    InitThreadObject(thread, &kBackingThread, id);
    thread->Capture = capture;
    thread->End = end;
    thread->Arg = arg;
    thread->LastError = 0;
    thread->SuspendCount = 1;
    thread->Now = Phase::kCreated;
    thread->Terminated = false;
    HANDLE handle = NewHandle(thread);
    if (handle == nullptr) {
        UnrefObject(thread);
        return nullptr;
    }
    if (threadId != nullptr) *threadId = id;
    return handle;
}

}  // namespace os
