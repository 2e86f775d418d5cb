// diag/timesource.cpp - how fast the processor's cycle counter runs, measured once at start-up.
//
// Runs on the thread that initialises the library, before any scheduler exists. It blocks that thread for 50 ms a
// measurement: two when the counter is steady, twenty at most. The results are read without a lock afterwards.
#include "diag/timesource.h"

#include <algorithm>
#include <cmath>

#include "diag/trace.h"

namespace zvx {

double gCpuFrequency;
uint64_t gTscTicksPerMs;

namespace {

constexpr uint32_t kMeasureSleepMs = 50;
constexpr double kAgreement = 10'000'000;  // ticks per second by which two measurements in a row may differ
constexpr uint32_t kMostMeasurements = 20;
constexpr uint32_t kLastOnes = 5;

void QueryCounter(LARGE_INTEGER *count) {
    if (!os::QueryPerformanceCounter(count))
        FatalExit("CalcFreq:QueryPerformanceCounter failed=%u", os::GetLastError());
}

// Measures until two measurements in a row agree. A counter that keeps changing its rate (a virtual machine that
// is moved about) gives the median of the last few, so that start-up ends and one wild value does not count.
double MeasureUntilSteady() {
    double recent[kLastOnes];
    double previous = MeasureTscRate();
    recent[0] = previous;
    for (uint32_t n = 1; n < kMostMeasurements; n++) {
        const double current = MeasureTscRate();
        if (std::fabs(current - previous) < kAgreement) return current;
        recent[n % kLastOnes] = current;
        previous = current;
    }
    std::sort(recent, recent + kLastOnes);
    return recent[kLastOnes / 2];
}

}  // namespace

double MeasureTscRate() {
    LARGE_INTEGER frequency;
    if (!os::QueryPerformanceFrequency(&frequency))
        FatalExit("CalcFreq:QueryPerformanceFrequency failed=%u", os::GetLastError());
    LARGE_INTEGER count0;
    LARGE_INTEGER count1;
    const uint64_t tsc0 = ReadTsc();
    QueryCounter(&count0);
    os::Sleep(kMeasureSleepMs);
    const uint64_t tsc1 = ReadTsc();
    QueryCounter(&count1);
    const auto ticks = static_cast<double>(static_cast<int64_t>(tsc1 - tsc0));
    const auto seconds =
        static_cast<double>(count1.QuadPart - count0.QuadPart) / static_cast<double>(frequency.QuadPart);
    return ticks / seconds;
}

void CalcFreq() {
    uint32_t processMask = 0;
    uint32_t systemMask = 0;
    if (!os::GetProcessAffinityMask(os::GetCurrentProcess(), &processMask, &systemMask))
        FatalExit("CalcFreq:GetProcessAffinityMask failed=%u", os::GetLastError());
    if (processMask == 0) FatalExit("CalcFreq:procmask=0");
    // Both reads of a measurement come from one processor, and at a priority at which nothing comes between a
    // counter read and the clock read next to it.
    const HANDLE self = os::GetCurrentThread();
    const uint32_t oldMask = os::SetThreadAffinityMask(self, processMask & (~processMask + 1));
    if (oldMask == 0) FatalExit("CalcFreq:SetThreadAffinityMask failed=%u", os::GetLastError());
    const int oldPriority = os::GetThreadPriority(self);
    if (oldPriority == THREAD_PRIORITY_ERROR_RETURN)
        FatalExit("CalcFreq:GetThreadPriority failed=%u", os::GetLastError());
    const bool raised = os::SetThreadPriority(self, THREAD_PRIORITY_TIME_CRITICAL) != FALSE;

    const double rate = MeasureUntilSteady();

    if (raised && !os::SetThreadPriority(self, oldPriority))
        FatalExit("CalcFreq:restore SetThreadPriority failed=%u", os::GetLastError());
    if (os::SetThreadAffinityMask(self, oldMask) == 0)
        FatalExit("CalcFreq:restore SetThreadAffinityMask failed=%u", os::GetLastError());
    gCpuFrequency = rate;
    gTscTicksPerMs = static_cast<uint64_t>(rate / 1000);
}

}  // namespace zvx
