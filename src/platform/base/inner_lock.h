// platform/base/inner_lock.h - short locks of the platform itself, and the regions in which a thread is
// not to be stopped.
//
// A kernel thread may be suspended by another at any instruction. Were it stopped while it holds a lock
// of the platform, the suspender would hang on that lock soon afterwards. So every holder is in an inner
// region: the request then waits, and is served by the thread itself when it leaves its outermost region.
// Regions nest, end on the kernel thread where they began, and never contain a fiber switch.
#ifndef ZVX_PLATFORM_BASE_INNER_LOCK_H
#define ZVX_PLATFORM_BASE_INNER_LOCK_H

#include <atomic>
#include <cstdint>

namespace os {

// Depth and Pending belong to the thread; its own signal handler is the only other reader and writer.
struct InnerRegion {
    std::atomic<uint32_t> Depth;    // regions entered and not left
    std::atomic<uint32_t> Pending;  // a request came while Depth was not 0
};

InnerRegion *CurrentInnerRegion();  // the calling kernel thread's
void EnterInnerRegion();
void LeaveInnerRegion();  // serves what is pending when it was the outermost
// What serves a pending request on the calling thread; set once by the kernel threads, null where there are
// none. It returns when the thread may go on.
extern std::atomic<void (*)()> gServePendingRequest;

// 0 free, 1 held, 2 held and somebody sleeps. Not recursive.
struct InnerLock {
    std::atomic<uint32_t> State{0};
};

void AcquireInner(InnerLock *lock);  // enters an inner region
void ReleaseInner(InnerLock *lock);  // leaves it

struct InnerGuard {
    explicit InnerGuard(InnerLock *lock) : Lock(lock) { AcquireInner(lock); }
    ~InnerGuard() { ReleaseInner(Lock); }
    InnerGuard(const InnerGuard &) = delete;
    InnerGuard &operator=(const InnerGuard &) = delete;
    InnerLock *const Lock;
};

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_INNER_LOCK_H
