// platform/base/thread_object.h - what is behind a thread's handle.
//
// There are three kinds, told apart by their ThreadOps: kernel threads (system/kthread.cpp), backing
// threads (backing_thread.cpp), and, where no kernel threads are linked, plain objects that only keep
// values. The functions on handles (thread_object.cpp) check their arguments and dispatch.
//
// ThreadLocals::ThreadObject is the object of whoever runs on the kernel thread: its own, or a backing
// thread's while that one's capture or end function runs there.
#ifndef ZVX_PLATFORM_BASE_THREAD_OBJECT_H
#define ZVX_PLATFORM_BASE_THREAD_OBJECT_H

#include <atomic>
#include <cstdint>

#include "platform/base/object.h"
#include "platform/os_process.h"

namespace os {

struct ThreadObject;

constexpr uint32_t kMaxSuspendCount = 127;
constexpr DWORD kSuspendFailed = 0xFFFFFFFFu;
constexpr DWORD kErrorSignalRefused = 156;  // the suspend count is at its limit

// Each returns its failure value with the last error set. Affinity and Priority act on the kernel's side;
// the object's values are kept by the caller.
struct ThreadOps {
    DWORD (*Suspend)(ThreadObject *thread);  // previous count, or kSuspendFailed
    DWORD (*Resume)(ThreadObject *thread);   // previous count, or kSuspendFailed
    BOOL (*Terminate)(ThreadObject *thread, DWORD code);
    uint32_t (*SetAffinity)(ThreadObject *thread, uint32_t mask);  // the mask that was in force, 0 on failure
    BOOL (*SetPriority)(ThreadObject *thread, int priority);
    void (*CpuTimes)(ThreadObject *thread, uint64_t *kernel, uint64_t *user);  // 100 ns units
    // Takes a routine for the thread's next alertable wait; null where the thread never waits.
    BOOL (*QueueApc)(ThreadObject *thread, PAPCFUNC routine, ULONG_PTR data) = nullptr;
};

struct ThreadObject : Object {
    const ThreadOps *Kind = nullptr;        // written before the first handle
    DWORD CreatedBy = 0;                    // init: identifier of the thread that made the object
    std::atomic<DWORD> Id{0};               // the thread's identifier, kept after its end
    std::atomic<DWORD> ExitCode{0};         // STILL_ACTIVE until the end; stored before Signalled
    std::atomic<int> Priority{0};           // as last asked for
    std::atomic<uint32_t> Affinity{0};      // as last asked for; 0 for all that the process may use
    std::atomic<uint64_t> CreationTime{0};  // file time
    std::atomic<uint64_t> ExitTime{0};      // file time, 0 until the end
};

// Sets what every kind starts with.
void InitThreadObject(ThreadObject *thread, const ThreadOps *kind, DWORD id);
uint64_t CoarseFileTime();  // the kernel's cached clock, a few nanoseconds to read
bool IsPriorityValue(int priority);

// A reference on the calling thread's object, which is made at the first request; null without memory.
Object *RefCurrentThread();

// What kernel threads provide; registered once. The defaults serve where they are not linked.
struct KernelThreadHooks {
    ThreadObject *(*Attach)();   // a new object for the calling kernel thread, with one reference
    bool (*EndIsRequested)();    // whether somebody terminated the calling kernel thread
    void (*EndCallingThread)();  // ends it with the code that was asked for
    uint32_t (*ProcessMask)();   // processors that the process may use now
};
void SetKernelThreadHooks(const KernelThreadHooks *hooks);
bool EndIsRequested();
[[noreturn]] void EndCallingThread();

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_THREAD_OBJECT_H
