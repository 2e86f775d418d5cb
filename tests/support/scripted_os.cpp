// tests/support/scripted_os.cpp - clocks and processors by script.
//
// The clocks are atomics, because threads that a test made by itself may write trace lines; everything else
// belongs to the test's thread. Nothing here sleeps or asks the kernel for anything.
#include "scripted_os.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace os {

namespace script {

Script gScript;

namespace {

std::mutex gSleepsLock;

// Reads of the cycle counter by one fiber since anything else happened. Foreign threads do not spin.
struct SpinWatch {
    const void *Spinner;
    uint32_t Reads;
    uint32_t Moved;  // milliseconds that the clocks were moved by for want of OnSpin
};
thread_local SpinWatch gSpin;

void CountSpin() {
    const void *fiber = GetFiberData();
    if (fiber != gSpin.Spinner) gSpin = {fiber, 0, 0};
    if (++gSpin.Reads <= 10 * gScript.SpinLimit) return;
    gSpin.Reads = 0;
    if (gScript.OnSpin) {
        gScript.OnSpin();
        return;
    }
    AdvanceClock(1);
    if (++gSpin.Moved < 100'000) return;
    std::fprintf(stderr, "scripted os: a scheduler spins for ever and there is no OnSpin\n");
    std::abort();
}

}  // namespace

void NoteProgress() {
    gSpin = {nullptr, 0, 0};
}

void AdvanceClock(uint64_t ms) {
    gScript.TickMs.fetch_add(ms);
    gScript.Tsc.fetch_add(ms * gScript.TscPerMs.load());
    gScript.Qpc.fetch_add(static_cast<int64_t>(ms) * gScript.QpcFrequency.load() / 1000);
    gScript.FileTime.fetch_add(ms * 10'000);
}

void SetTick(uint64_t ms) {
    gScript.TickMs.store(ms);
}

}  // namespace script

using script::gScript;
using script::gSleepsLock;

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
    const uint64_t step = gScript.TscPerRead.load();
    return gScript.Tsc.fetch_add(step) + step;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER *frequency) {
    if (ShouldFail("QueryPerformanceFrequency")) return FALSE;
    frequency->QuadPart = gScript.QpcFrequency.load();
    return TRUE;
}
BOOL QueryPerformanceCounter(LARGE_INTEGER *count) {
    if (ShouldFail("QueryPerformanceCounter")) return FALSE;
    count->QuadPart = gScript.Qpc.load();
    return TRUE;
}

void Sleep(DWORD ms) {
    {
        std::lock_guard<std::mutex> guard(gSleepsLock);
        gScript.Sleeps.push_back(ms);
    }
    if (gScript.OnSleep) {
        gScript.OnSleep(ms);
        return;
    }
    if (ms == INFINITE) {
        std::fprintf(stderr, "scripted os: an endless sleep without OnSleep\n");
        std::abort();
    }
    script::AdvanceClock(ms);
}

// Completion routines run at the reap, as scripted operations end them.
DWORD SleepEx(DWORD ms, BOOL alertable) {
    if (alertable) {
        IoThread *io = CurrentThreadBlock()->Io;
        const uint32_t before = io == nullptr ? 0 : io->Head;
        if (io != nullptr) ReapIo(io);
        if (io != nullptr && io->Head != before) return WAIT_IO_COMPLETION;
    }
    Sleep(ms);
    return 0;
}

void GetLocalTime(SYSTEMTIME *time) {
    *time = gScript.LocalTime;
}
void GetSystemTimeAsFileTime(FILETIME *time) {
    const uint64_t now = gScript.FileTime.load();
    time->dwLowDateTime = static_cast<DWORD>(now);
    time->dwHighDateTime = static_cast<DWORD>(now >> 32);
}

// ---- Processors -----------------------------------------------------------------------

BOOL GetProcessAffinityMask(HANDLE process, uint32_t *processMask, uint32_t *systemMask) {
    static_cast<void>(process);
    if (ShouldFail("GetProcessAffinityMask")) return FALSE;
    *processMask = gScript.ProcessMask;
    *systemMask = gScript.SystemMask;
    return TRUE;
}

BOOL SetProcessAffinityMask(HANDLE process, uint32_t mask) {
    static_cast<void>(process);
    if (ShouldFail("SetProcessAffinityMask")) return FALSE;
    if (mask == 0 || (mask & ~gScript.SystemMask) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    gScript.ProcessMask = mask;
    return TRUE;
}

}  // namespace os
