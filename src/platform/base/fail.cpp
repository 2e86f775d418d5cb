// platform/base/fail.cpp - making the nth call of a platform function fail, for tests.
//
// Any thread. A point is armed by FailCall or by the environment (ZVXKVT_FAIL="Function:nth:error,...", read once, at
// the first call that asks) and goes off once. With nothing armed a call costs one load. Release builds have
// FailCall only, which does nothing there.
#include <stdlib.h>
#include <string.h>

#include "platform/base/spin.h"
#include "platform/os.h"

namespace os {

#ifdef ZVX_FAIL_POINTS

namespace {

struct FailPoint {
    char Function[48];
    uint32_t CallsLeft;  // calls until the one that fails; 0 is a free entry
    DWORD Error;
};

constexpr size_t kFailPoints = 32;
constinit SpinWord gFailLock;
constinit FailPoint gFailPoints[kFailPoints] = {};   // [gFailLock]
constinit std::atomic<uint32_t> gArmed{0xFFFFFFFF};  // entries in use; all ones until the environment was read

void ArmLocked(const char *function, size_t length, uint32_t nth, DWORD error) {
    if (nth == 0 || length >= sizeof gFailPoints[0].Function) return;
    for (FailPoint &point : gFailPoints) {
        if (point.CallsLeft != 0) continue;
        memcpy(point.Function, function, length);
        point.Function[length] = 0;
        point.CallsLeft = nth;
        point.Error = error;
        gArmed.fetch_add(1, std::memory_order_relaxed);
        return;
    }
}

void ReadEnvironmentLocked() {
    if (gArmed.load(std::memory_order_relaxed) != 0xFFFFFFFF) return;
    gArmed.store(0, std::memory_order_relaxed);
    const char *at = getenv("ZVXKVT_FAIL");
    while (at != nullptr && *at != 0) {
        const size_t length = strcspn(at, ":,");
        const char *name = at;
        unsigned long numbers[2] = {1, 0};
        at += length;
        for (size_t i = 0; i < 2 && *at == ':'; ++i) {
            char *end = nullptr;
            numbers[i] = strtoul(at + 1, &end, 10);
            at = end;
        }
        ArmLocked(name, length, static_cast<uint32_t>(numbers[0]), static_cast<DWORD>(numbers[1]));
        at = strchr(at, ',');
        if (at != nullptr) ++at;
    }
}

}  // namespace

void FailCall(const char *function, uint32_t nth, DWORD error) {
    SpinGuard guard(gFailLock);
    ReadEnvironmentLocked();
    ArmLocked(function, strlen(function), nth, error);
}

bool ShouldFail(const char *function) {
    if (gArmed.load(std::memory_order_relaxed) == 0) [[likely]]
        return false;
    DWORD error = 0;
    bool fails = false;
    {
        SpinGuard guard(gFailLock);
        ReadEnvironmentLocked();
        // Every point of that name counts the call; where two go off at once, the one armed first names the error.
        for (FailPoint &point : gFailPoints) {
            if (point.CallsLeft == 0 || strcmp(point.Function, function) != 0 || --point.CallsLeft != 0) continue;
            if (!fails) error = point.Error;
            fails = true;
            gArmed.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    if (fails) SetLastError(error);
    return fails;
}

#else

void FailCall(const char *, uint32_t, DWORD) {}

#endif

}  // namespace os
