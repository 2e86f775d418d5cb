// kernel/wait.cpp - waits on objects of the operating system.
//
// A wait is parked with its objects, which wake it. Two kinds are polled instead - tested without waiting, with a sleep
// in the timer queue between two tests: an alertable wait, which looks at the caller's own operations too, and one for
// an object that other processes share, of whose change nobody here learns. Runs on the calling user thread. Nothing
// here blocks the kernel thread.
#include "kernel/wait.h"

#include <cstring>

#include "sched/sched.h"

namespace zvx {

namespace {

// What is tested, and the answer of the latest test. It lives on the waiting thread's stack.
struct ObjectWait {
    DWORD Count;  // 0: the one object in One
    const HANDLE *Handles;
    BOOL All;
    HANDLE One;
    DWORD Result;
};

DWORD TestNow(const ObjectWait &wait) {
    if (wait.Count == 0) return os::WaitForSingleObject(wait.One, 0);
    return os::WaitForMultipleObjects(wait.Count, wait.Handles, wait.All, 0);
}

bool ObjectTest(Fiber *, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    auto *wait = reinterpret_cast<ObjectWait *>(a1);
    wait->Result = TestNow(*wait);
    return wait->Result != WAIT_TIMEOUT;
}

// Also runs the routines of the caller's operations that have ended.
bool AlertableTest(Fiber *F, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    auto *wait = reinterpret_cast<ObjectWait *>(a1);
    wait->Result = TestNow(*wait);
    ReapOwnOvsInWait(F);
    if (wait->Result != WAIT_TIMEOUT) return true;
    if (F->ApcDelivered == 0) return false;
    F->ApcDelivered = 0;
    wait->Result = WAIT_IO_COMPLETION;
    return true;
}

DWORD RunWait(Fiber *F, ObjectWait *wait, DWORD ms, bool alertable) {
    F->WaitTimeoutMs = ms;
    if (ms == 0) LookForEnded(SchedOf(F));
    if (!alertable) {
        const DWORD tested = TestNow(*wait);
        if (tested != WAIT_TIMEOUT || ms == 0) return tested;
        const bool one = wait->Count == 0;
        const DWORD ended = WaitForObjects(F, one ? 1 : wait->Count, one ? &wait->One : wait->Handles, wait->All);
        if (ended != os::kNotParkable) return ended;
    }
    if (alertable) F->Flags |= FIBER_POLL_OWN_OVS;
    const bool ended = WaitWithPolling(F, alertable ? AlertableTest : ObjectTest, reinterpret_cast<uintptr_t>(wait));
    if (alertable) F->Flags &= ~uint32_t{FIBER_POLL_OWN_OVS};
    return ended ? wait->Result : WAIT_TIMEOUT;
}

DWORD WaitForOne(Fiber *F, HANDLE handle, DWORD ms, bool alertable) {
    ObjectWait wait{0, nullptr, FALSE, handle, 0};
    return RunWait(F, &wait, ms, alertable);
}

DWORD WaitForSome(Fiber *F, DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, bool alertable) {
    // A count out of range is the operating system's to refuse.
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS) return os::WaitForMultipleObjects(count, handles, waitAll, 0);
    // The host may change its array while the wait goes on.
    HANDLE mine[MAXIMUM_WAIT_OBJECTS];
    std::memcpy(mine, handles, count * sizeof *mine);
    ObjectWait wait{count, mine, waitAll, nullptr, 0};
    return RunWait(F, &wait, ms, alertable);
}

}  // namespace

DWORD WaitForSingleObject(HANDLE handle, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForSingleObject(handle, ms);
    return WaitForOne(F, handle, ms, false);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForMultipleObjects(count, handles, waitAll, ms);
    return WaitForSome(F, count, handles, waitAll, ms, false);
}

DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForSingleObjectEx(handle, ms, alertable);
    return WaitForOne(F, handle, ms, alertable && HasOwnOperations(F));
}

DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, BOOL alertable) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForMultipleObjectsEx(count, handles, waitAll, ms, alertable);
    return WaitForSome(F, count, handles, waitAll, ms, alertable && HasOwnOperations(F));
}

HANDLE CreateEventA(SECURITY_ATTRIBUTES *security, BOOL manualReset, BOOL initiallySet, const char *name) {
    return os::CreateEventA(security, manualReset, initiallySet, name);
}

BOOL SetEvent(HANDLE event) {
    return os::SetEvent(event);
}

BOOL ResetEvent(HANDLE event) {
    return os::ResetEvent(event);
}

}  // namespace zvx
