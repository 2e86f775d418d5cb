// tests/support/scripted_thread.cpp - kernel threads by script.
//
// CreateThread makes a thread object behind a real handle and records the start routine, which nobody runs unless
// the test does. Masks and priorities are values of the object, as on the real platform. Runs on any thread of a
// test; the records belong to the test's own.
#include <deque>

#include "platform/base/object_pool.h"
#include "platform/base/thread_object.h"
#include "scripted_os.h"

namespace os {

namespace {

using script::gScript;

void DestroyThread(Object *object);
const ObjectOps kThreadObjectOps{nullptr, DestroyThread};
ObjectPool<ThreadObject> gThreadObjects(ObjectType::kThread, &kThreadObjectOps);

void DestroyThread(Object *object) {
    FreeObject(&gThreadObjects, static_cast<ThreadObject *>(object));
}

struct WaitingThread {
    ThreadObject *Object;  // a reference
    LPTHREAD_START_ROUTINE Start;
    void *Param;
};
std::deque<WaitingThread> gWaiting;

DWORD ResumeScripted(ThreadObject *) {
    return ShouldFail("ResumeScriptedThread") ? kSuspendFailed : 1;
}

BOOL TerminateScripted(ThreadObject *, DWORD code) {
    gScript.Terminations.push_back(code);
    return TRUE;
}

WaitingThread TakeWaiting() {
    if (gWaiting.empty()) script::Misuse("no kernel thread was made");
    const WaitingThread thread = gWaiting.front();
    gWaiting.pop_front();
    return thread;
}

void EndWaiting(const WaitingThread &thread, DWORD code) {
    thread.Object->ExitCode.store(code, std::memory_order_release);
    SignalObject(thread.Object);
    UnrefObject(thread.Object);
}

uint32_t SetScriptedAffinity(ThreadObject *, uint32_t mask) {
    gScript.Masks.push_back(mask);
    return gScript.ProcessMask;
}

BOOL SetScriptedPriority(ThreadObject *, int priority) {
    gScript.Priorities.push_back(priority);
    return TRUE;
}

// The library suspends and times its backing threads only, which have functions of their own.
const ThreadOps kScriptedThread = {nullptr, ResumeScripted, TerminateScripted, SetScriptedAffinity, SetScriptedPriority,
                                   nullptr};

ThreadObject *NewThreadObject(DWORD id) {
    ThreadObject *object = AllocObject(&gThreadObjects);
    if (object != nullptr) InitThreadObject(object, &kScriptedThread, id);
    return object;
}

ThreadObject *AttachThread() {
    return NewThreadObject(GetCurrentThreadId());
}
bool NoEndIsRequested() {
    return false;
}
uint32_t CurrentProcessMask() {
    return gScript.ProcessMask;
}
const KernelThreadHooks kHooks{AttachThread, NoEndIsRequested, nullptr, CurrentProcessMask};

struct Registration {
    Registration() { SetKernelThreadHooks(&kHooks); }
} gRegistration;

DWORD gNextThreadId = 90'001;

}  // namespace

namespace script {

size_t WaitingThreads() {
    return gWaiting.size();
}

void RunThread() {
    const WaitingThread thread = TakeWaiting();
    EndWaiting(thread, thread.Start(thread.Param));
}

void EndThread(DWORD code) {
    EndWaiting(TakeWaiting(), code);
}

}  // namespace script

HANDLE CreateThread(SECURITY_ATTRIBUTES *, size_t, LPTHREAD_START_ROUTINE start, void *param, DWORD, DWORD *threadId) {
    if (ShouldFail("CreateThread")) return nullptr;
    gScript.Threads.push_back(start);
    const DWORD id = gNextThreadId;
    gNextThreadId += 4;
    if (threadId != nullptr) *threadId = id;
    ThreadObject *object = NewThreadObject(id);
    if (object == nullptr) return nullptr;
    RefObject(object);
    gWaiting.push_back({object, start, param});
    return NewHandle(object);
}

void ExitThread(DWORD) {
    script::Misuse("a kernel thread was to end itself");
}

}  // namespace os
