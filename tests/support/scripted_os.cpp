// tests/support/scripted_os.cpp - clocks and processors by script.
//
// The clocks are atomics, because threads that a test made by itself may write trace lines; everything else
// belongs to the test's thread. Nothing here sleeps or asks the kernel for anything.
#include "scripted_os.h"

#include <cstdio>
#include <cstdlib>

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
    gScript.FileTime.fetch_add(ms * 10'000);
}

void SetTick(uint64_t ms) {
    gScript.TickMs.store(ms);
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
    if (!gScript.OnSleep && ms == INFINITE) script::Misuse("an endless sleep without OnSleep");
    if (gScript.OnSleep)
        gScript.OnSleep(ms);
    else
        script::AdvanceClock(ms);
}

void GetLocalTime(SYSTEMTIME *time) {
    *time = gScript.LocalTime;
}
void GetSystemTimeAsFileTime(FILETIME *time) {
    const uint64_t now = gScript.FileTime.load();
    time->dwLowDateTime = static_cast<DWORD>(now);
    time->dwHighDateTime = static_cast<DWORD>(now >> 32);
}

// ---- Processors --------------------------------------------------------------------------------------

BOOL GetProcessAffinityMask(HANDLE, uint32_t *processMask, uint32_t *systemMask) {
    if (ShouldFail("GetProcessAffinityMask")) return FALSE;
    *processMask = gScript.ProcessMask;
    *systemMask = gScript.SystemMask;
    return TRUE;
}

BOOL SetProcessAffinityMask(HANDLE, uint32_t mask) {
    if (ShouldFail("SetProcessAffinityMask")) return FALSE;
    if (mask == 0 || (mask & ~gScript.SystemMask) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    gScript.ProcessMask = mask;
    return TRUE;
}

}  // namespace os
