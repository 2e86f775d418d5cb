// tests/support/scripted_os.cpp - clocks, processors and kernel threads by script.
#include "scripted_os.h"

#include <cstdio>
#include <cstdlib>
#include <deque>

#include "platform/base/object_pool.h"
#include "platform/base/thread_object.h"

namespace os {

namespace script {

Script gScript;

namespace {

// Reads of the cycle counter by one fiber since anything else happened. Foreign threads do not spin.
thread_local const void *gSpinner;
thread_local uint32_t gSpins;

void CountSpin() {
    const void *fiber = GetFiberData();
    if (fiber != gSpinner) gSpins = 0;
    gSpinner = fiber;
    if (++gSpins <= 10 * gScript.SpinLimit) return;
    gSpins = 0;
    if (gScript.OnSpin) gScript.OnSpin();
}

}  // namespace

void Misuse(const char *what) {
    std::fprintf(stderr, "scripted os: %s\n", what);
    std::abort();
}

void NoteProgress() {
    gSpinner = nullptr;
}

void AdvanceClock(uint64_t ms) {
    gScript.TickMs.fetch_add(ms);
    gScript.Tsc.fetch_add(ms * 1'000'000);
    gScript.Qpc.fetch_add(static_cast<int64_t>(ms) * gScript.QpcFrequency.load() / 1000);
}

}  // namespace script

using script::gScript;

// ---- Clocks ------------------------------------------------------------------------------------------

uint32_t GetTickCount() {
    return static_cast<uint32_t>(gScript.TickMs.load());
}
uint64_t GetTickCount64() {
    return gScript.TickMs.load();
}
uint64_t GetTickCountUp() {
    return gScript.TickMs.load();
}
uint64_t ReadTsc() {
    script::CountSpin();
    return gScript.Tsc.load();
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER *frequency) {
    frequency->QuadPart = gScript.QpcFrequency.load();
    return TRUE;
}
BOOL QueryPerformanceCounter(LARGE_INTEGER *count) {
    count->QuadPart = gScript.Qpc.load();
    return TRUE;
}

void Sleep(DWORD ms) {
    if (gScript.OnSleep) return gScript.OnSleep(ms);
    if (ms == INFINITE) script::Misuse("an endless sleep without OnSleep");
    script::AdvanceClock(ms);
}

void GetLocalTime(SYSTEMTIME *time) {
    *time = gScript.LocalTime;
}
void GetSystemTimeAsFileTime(FILETIME *time) {
    const uint64_t now = 132'000'000'000'000'000 + GetTickCount64() * 10'000;
    time->dwLowDateTime = static_cast<DWORD>(now);
    time->dwHighDateTime = static_cast<DWORD>(now >> 32);
}

// ---- Processors --------------------------------------------------------------------------------------

BOOL GetProcessAffinityMask(HANDLE, uint32_t *processMask, uint32_t *systemMask) {
    *processMask = gScript.ProcessMask;
    *systemMask = gScript.SystemMask;
    return TRUE;
}

BOOL SetProcessAffinityMask(HANDLE, uint32_t mask) {
    const bool valid = mask != 0 && (mask & ~gScript.SystemMask) == 0;
    if (valid) gScript.ProcessMask = mask;
    return valid;
}

// ---- Kernel threads ----------------------------------------------------------------------------------
//
// CreateThread makes a thread object behind a real handle and records the start routine, which nobody runs unless
// the test does. Masks and priorities are values of the object, as on the real platform. Runs on any thread of a
// test; the records belong to the test's own.

namespace {

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

// The library suspends and times its backing threads only, which have functions of their own.
const ThreadOps kScriptedThread = {nullptr,
                                   [](ThreadObject *) -> DWORD { return 1; },
                                   [](ThreadObject *, DWORD code) -> BOOL {
                                       gScript.Terminations.push_back(code);
                                       return TRUE;
                                   },
                                   [](ThreadObject *, uint32_t mask) {
                                       gScript.Masks.push_back(mask);
                                       return gScript.ProcessMask;
                                   },
                                   [](ThreadObject *, int priority) -> BOOL {
                                       gScript.Priorities.push_back(priority);
                                       return TRUE;
                                   },
                                   nullptr};

ThreadObject *NewThreadObject(DWORD id) {
    ThreadObject *object = AllocObject(&gThreadObjects);
    InitThreadObject(object, &kScriptedThread, id);
    return object;
}

const KernelThreadHooks kHooks{[] { return NewThreadObject(GetCurrentThreadId()); }, [] { return false; }, nullptr,
                               [] { return gScript.ProcessMask; }};

struct Registration {
    Registration() { SetKernelThreadHooks(&kHooks); }
} gRegistration;

DWORD gNextThreadId = 90'001;

}  // namespace

namespace script {

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
    RefObject(object);
    gWaiting.push_back({object, start, param});
    return NewHandle(object);
}

}  // namespace os
