// platform/system/clock.cpp - clocks and sleeping.
//
// Any thread. Reading a clock is a call into the kernel's shared page, without a kernel entry; the sleeps block the
// calling kernel thread. Everything is measured by the monotonic clock, so that setting the time of day neither
// shortens nor lengthens a wait; 64 bits of milliseconds do not wrap.
#include <sched.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include "platform/base/alertable.h"
#include "platform/base/futex.h"
#include "platform/base/thread_block.h"
#include "platform/os.h"

namespace os {

namespace {

constexpr uint64_t kNsPerMs = 1000000;
// The performance counter runs at 10 MHz: hosts multiply a count by a million before they divide, and with nanoseconds
// that overflows 63 bits within three hours of uptime.
constexpr uint64_t kCounterHz = 10000000;
constexpr uint64_t kNsPerCount = 1000000000 / kCounterHz;
// Seconds from 1 January 1601 to 1 January 1970.
constexpr uint64_t kEpochSeconds = 11644473600;

void SleepUntil(uint64_t deadline) {
    timespec until;
    until.tv_sec = static_cast<time_t>(deadline / 1000000000);
    until.tv_nsec = static_cast<long>(deadline % 1000000000);
    // An absolute deadline: a signal that interrupts the sleep does not lengthen it.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

}  // namespace

uint64_t GetTickCount64() {
    return MonotonicNs() / kNsPerMs;
}

uint32_t GetTickCount() {
    return static_cast<uint32_t>(GetTickCount64());
}

uint64_t GetTickCountUp() {
    return (MonotonicNs() + kNsPerMs - 1) / kNsPerMs;
}

uint64_t ReadTsc() {
    return __rdtsc();
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER *frequency) {
    if (ShouldFail("QueryPerformanceFrequency")) return FALSE;
    frequency->QuadPart = static_cast<LONGLONG>(kCounterHz);
    return TRUE;
}

BOOL QueryPerformanceCounter(LARGE_INTEGER *count) {
    if (ShouldFail("QueryPerformanceCounter")) return FALSE;
    count->QuadPart = static_cast<LONGLONG>(MonotonicNs() / kNsPerCount);
    return TRUE;
}

void Sleep(DWORD ms) {
    if (ms == 0) {
        sched_yield();
        return;
    }
    while (ms == INFINITE) pause();
    SleepUntil(DeadlineAfter(ms));
}

DWORD SleepEx(DWORD ms, BOOL alertable) {
    if (!alertable) {
        Sleep(ms);
        return 0;
    }
    AlertState *state = CurrentAlertState();
    if (state == nullptr) {  // no memory for a queue, so nothing can be in it
        Sleep(ms);
        return 0;
    }
    const uint64_t deadline = DeadlineAfter(ms);
    for (;;) {
        const uint32_t seen = AlertSnapshot(state);
        if (RunQueuedRoutines() != 0) return WAIT_IO_COMPLETION;
        if (!WaitAlert(state, seen, deadline)) {
            if (ms == 0) sched_yield();
            // One queued in the last moment is run: the caller was still waiting when it came.
            return RunQueuedRoutines() != 0 ? WAIT_IO_COMPLETION : 0;
        }
    }
}

void GetLocalTime(SYSTEMTIME *time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts;
    localtime_r(&now.tv_sec, &parts);
    time->wYear = static_cast<WORD>(parts.tm_year + 1900);
    time->wMonth = static_cast<WORD>(parts.tm_mon + 1);
    time->wDayOfWeek = static_cast<WORD>(parts.tm_wday);
    time->wDay = static_cast<WORD>(parts.tm_mday);
    time->wHour = static_cast<WORD>(parts.tm_hour);
    time->wMinute = static_cast<WORD>(parts.tm_min);
    time->wSecond = static_cast<WORD>(parts.tm_sec);
    time->wMilliseconds = static_cast<WORD>(now.tv_nsec / 1000000);
}

void GetSystemTimeAsFileTime(FILETIME *time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t units =
        (static_cast<uint64_t>(now.tv_sec) + kEpochSeconds) * 10000000 + static_cast<uint64_t>(now.tv_nsec) / 100;
    time->dwLowDateTime = static_cast<DWORD>(units);
    time->dwHighDateTime = static_cast<DWORD>(units >> 32);
}

}  // namespace os
