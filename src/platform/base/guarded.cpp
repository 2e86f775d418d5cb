// platform/base/guarded.cpp - calls that may fault without taking the process with them.
//
// Runs on the calling thread, kernel thread or fiber; the armed frame belongs to the kernel thread, because a
// guarded call never switches. The handler of overflow.cpp asks here before it does anything else about a fault; a
// stack overflow is not left this way, since its report is worth more than the result of one call.
#undef _FORTIFY_SOURCE  // its longjmp refuses to leave an alternate stack

#include "platform/base/guarded.h"

#include <cxxabi.h>
#include <setjmp.h>

#include "platform/base/inner_lock.h"
#include "platform/base/thread_block.h"
#include "platform/os_process.h"

namespace os {

namespace {

// On the stack of the guarded call.
struct GuardedFrame {
    sigjmp_buf Back;      // with the signal mask: the handler runs with its own signal blocked
    GuardedFrame *Outer;  // calls nest
    uint32_t Depth;       // inner regions of the thread before the call
};

constinit thread_local GuardedFrame *tFrame = nullptr;

ZVX_THREAD_ACCESSOR GuardedFrame *Armed() {
    asm volatile("");
    return tFrame;
}

ZVX_THREAD_ACCESSOR void Arm(GuardedFrame *frame) {
    asm volatile("");
    tFrame = frame;
}

// Apart from the frame that setjmp returns to, so that no local of that one lives in a register.
bool RunCatching(void (*fn)(void *), void *arg) {
    try {
        fn(arg);
    } catch (abi::__forced_unwind &) {
        throw;  // the thread is being ended
    } catch (...) {
        return false;
    }
    return true;
}

}  // namespace

void LeaveGuardedCall() {
    GuardedFrame *frame = Armed();
    if (frame == nullptr) return;
    CurrentInnerRegion()->Depth.store(frame->Depth, std::memory_order_relaxed);
    siglongjmp(frame->Back, 1);
}

bool CallGuarded(void (*fn)(void *), void *arg) {
    if (ShouldFail("CallGuarded")) return false;
    ArmStackOverflowReport();
    GuardedFrame frame;
    frame.Outer = Armed();
    frame.Depth = CurrentInnerRegion()->Depth.load(std::memory_order_relaxed);
    volatile bool whole = false;
    if (sigsetjmp(frame.Back, 1) == 0) {
        Arm(&frame);
        whole = RunCatching(fn, arg);
    }
    // After a jump `whole` is what it was when the frame was armed.
    Arm(frame.Outer);
    return whole;
}

}  // namespace os
