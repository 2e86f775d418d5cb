// tests/support/scripted_thread.cpp - kernel threads by script.
//
// CreateThread makes a thread object behind a real handle and records the start routine, which nobody runs unless
// the test does. Masks and priorities are values of the object, as on the real platform. Runs on any thread of a
// test; the records belong to the test's own.
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

DWORD ResumeScripted(ThreadObject *) {
    return 1;
}

uint32_t SetScriptedAffinity(ThreadObject *, uint32_t mask) {
    gScript.Masks.push_back(mask);
    return gScript.ProcessMask;
}

BOOL SetScriptedPriority(ThreadObject *, int priority) {
    gScript.Priorities.push_back(priority);
    return TRUE;
}

// The library suspends, ends and times its backing threads only, which have functions of their own.
const ThreadOps kScriptedThread = {nullptr, ResumeScripted, nullptr, SetScriptedAffinity, SetScriptedPriority, nullptr};

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

HANDLE CreateThread(SECURITY_ATTRIBUTES *, size_t, LPTHREAD_START_ROUTINE start, void *, DWORD, DWORD *threadId) {
    if (ShouldFail("CreateThread")) return nullptr;
    gScript.Threads.push_back(start);
    const DWORD id = gNextThreadId;
    gNextThreadId += 4;
    if (threadId != nullptr) *threadId = id;
    ThreadObject *object = NewThreadObject(id);
    return object != nullptr ? NewHandle(object) : nullptr;
}

void ExitThread(DWORD) {
    script::Misuse("a kernel thread was to end itself");
}

}  // namespace os
