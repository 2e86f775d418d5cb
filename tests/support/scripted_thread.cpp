// tests/support/scripted_thread.cpp - kernel threads by script.
//
// CreateThread makes a real thread object behind a real handle and records what was asked for; the thread runs
// only when the test calls RunThread, on a real kernel thread of its own that is joined before RunThread returns.
// Suspending and resuming only count. Masks and priorities are values of the object, as on the real platform.
#include <pthread.h>

#include <cstdio>
#include <cstdlib>

#include "platform/base/object_pool.h"
#include "platform/base/thread_block.h"
#include "platform/base/thread_object.h"
#include "scripted_os.h"

namespace os {

namespace script {

namespace {

struct ScriptedThread : ThreadObject {
    Thread *Record;  // in gScript.Threads; null for a thread that the test made by itself
};

void DestroyThread(Object *object);
const ObjectOps kThreadObjectOps{nullptr, DestroyThread};
ObjectPool<ScriptedThread> gThreadObjects(ObjectType::kThread, &kThreadObjectOps);
DWORD gNextThreadId = 90'001;

void DestroyThread(Object *object) {
    FreeObject(&gThreadObjects, static_cast<ScriptedThread *>(object));
}

DWORD SuspendScripted(ThreadObject *object) {
    Thread *record = static_cast<ScriptedThread *>(object)->Record;
    return record == nullptr ? 0 : record->SuspendCount++;
}

DWORD ResumeScripted(ThreadObject *object) {
    Thread *record = static_cast<ScriptedThread *>(object)->Record;
    if (record == nullptr || record->SuspendCount == 0) return 0;
    return record->SuspendCount--;
}

void EndThread(ThreadObject *object, DWORD code) {
    Thread *record = static_cast<ScriptedThread *>(object)->Record;
    if (record != nullptr) {
        record->Ended = true;
        record->ExitCode = code;
    }
    object->ExitCode.store(code, std::memory_order_release);
    SignalObject(object);
}

BOOL TerminateScripted(ThreadObject *object, DWORD code) {
    Thread *record = static_cast<ScriptedThread *>(object)->Record;
    if (record != nullptr && !record->Ended) EndThread(object, code);
    return TRUE;
}

uint32_t SetScriptedAffinity(ThreadObject *object, uint32_t mask) {
    gScript.MaskCalls.push_back({object->Id.load(), mask});
    return gScript.ProcessMask;
}

BOOL SetScriptedPriority(ThreadObject *object, int priority) {
    gScript.PriorityCalls.push_back({object->Id.load(), priority});
    return TRUE;
}

void ScriptedCpuTimes(ThreadObject *, uint64_t *kernel, uint64_t *user) {
    *kernel = 0;
    *user = 0;
}

const ThreadOps kScriptedThread = {SuspendScripted,     ResumeScripted,      TerminateScripted,
                                   SetScriptedAffinity, SetScriptedPriority, ScriptedCpuTimes};

ScriptedThread *NewThreadObject(DWORD id, Thread *record) {
    ScriptedThread *object = AllocObject(&gThreadObjects);
    if (object == nullptr) return nullptr;
    InitThreadObject(object, &kScriptedThread, id);
    object->CreationTime.store(gScript.FileTime.load());
    object->Record = record;
    return object;
}

ThreadObject *AttachThread() {
    return NewThreadObject(GetCurrentThreadId(), nullptr);
}

bool NoEndIsRequested() {
    return false;
}

void CannotEnd() {
    std::fprintf(stderr, "scripted os: a kernel thread was to end itself\n");
    std::abort();
}

uint32_t CurrentProcessMask() {
    return gScript.ProcessMask;
}

const KernelThreadHooks kHooks{AttachThread, NoEndIsRequested, CannotEnd, CurrentProcessMask};

// The object of an ending thread: signalled when it was not ended by other hands, and let go of.
void ThreadEnds(ThreadLocals *locals) {
    auto *object = static_cast<ThreadObject *>(locals->ThreadObject);
    if (object == nullptr || object->Kind != &kScriptedThread) return;
    locals->ThreadObject = nullptr;
    if (object->ExitCode.load() == STILL_ACTIVE) EndThread(object, 0);
    UnrefObject(object);
}

struct Registration {
    Registration() {
        SetKernelThreadHooks(&kHooks);
        AddThreadExitHook(ThreadEnds);
    }
} gRegistration;

std::vector<std::pair<DWORD, ScriptedThread *>> gObjects;  // one reference each, so that RunThread finds them

struct RunArgs {
    Thread *Record;
    ScriptedThread *Object;
};

void *RunRecorded(void *arg) {
    auto *run = static_cast<RunArgs *>(arg);
    ThreadLocals *locals = CurrentThreadLocals();
    RefObject(run->Object);
    locals->ThreadObject = run->Object;
    locals->Block.ThreadId = run->Record->Id;
    const DWORD code = run->Record->Start(run->Record->Param);
    if (!run->Record->Ended) EndThread(run->Object, code);
    return nullptr;
}

}  // namespace

Thread *FindThread(DWORD id) {
    for (Thread &thread : gScript.Threads)
        if (thread.Id == id) return &thread;
    return nullptr;
}

void RunThread(DWORD id) {
    for (auto &[objectId, object] : gObjects) {
        if (objectId != id) continue;
        RunArgs args{FindThread(id), object};
        pthread_t thread;
        if (args.Record->Ended || pthread_create(&thread, nullptr, RunRecorded, &args) != 0) break;
        pthread_join(thread, nullptr);
        return;
    }
    std::fprintf(stderr, "scripted os: thread %u cannot be run\n", id);
    std::abort();
}

}  // namespace script

using namespace script;

HANDLE CreateThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE start, void *param,
                    DWORD flags, DWORD *threadId) {
    static_cast<void>(security);
    if (ShouldFail("CreateThread")) return nullptr;
    const DWORD id = gNextThreadId;
    gNextThreadId += 4;
    gScript.Threads.push_back(
        {id, start, param, stackBytes, flags, (flags & CREATE_SUSPENDED) != 0 ? 1u : 0u, false, STILL_ACTIVE});
    ScriptedThread *object = NewThreadObject(id, &gScript.Threads.back());
    if (object == nullptr) return nullptr;
    HANDLE handle = NewHandle(object);
    if (handle == nullptr) {
        UnrefObject(object);
        return nullptr;
    }
    RefObject(object);
    gObjects.emplace_back(id, object);
    if (threadId != nullptr) *threadId = id;
    return handle;
}

void ExitThread(DWORD code) {
    auto *object = static_cast<ThreadObject *>(CurrentThreadLocals()->ThreadObject);
    if (object == nullptr) CannotEnd();
    EndThread(object, code);
    pthread_exit(nullptr);
}

}  // namespace os
