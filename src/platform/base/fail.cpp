// platform/base/fail.cpp - making the nth call of a platform function fail, for tests.
//
// Any thread. A point is armed by FailCall or by the environment (ZVXKVT_FAIL="Function:nth:error,...", read once, at
// the first call that asks) and goes off once. With nothing armed a call costs one load. Release builds have
// no points, and FailCall ends a test that needs one.
//
// "record:FILE" among the points counts the calls of every function that asks, in a file of fixed records that is
// mapped, so that the counts are there however the process ends.
#include "platform/base/fail.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

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

// One line of the file of counts; a name that is empty ends it.
struct FailCount {
    char Function[48];
    uint32_t Calls;
    uint32_t Failed;
};
static_assert(sizeof(FailCount) == 56);  // read by tests/faults/faults.py

constexpr size_t kFailPoints = 32;
constexpr size_t kFailCounts = 256;
constinit SpinWord gFailLock;
constinit FailPoint gFailPoints[kFailPoints] = {};  // [gFailLock]
constinit FailCount *gFailCounts = nullptr;         // [gFailLock] null unless calls are recorded
constinit std::atomic<uint32_t> gArmed{
    0xFFFFFFFF};  // entries in use, and the recorder; all ones until the environment was read

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

void RecordLocked(const char *file, size_t length) {
    char name[256];
    if (gFailCounts != nullptr || length >= sizeof name) return;
    memcpy(name, file, length);
    name[length] = 0;
    constexpr size_t bytes = kFailCounts * sizeof(FailCount);
    const int fd = open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    void *counts =
        ftruncate(fd, bytes) == 0 ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (counts == MAP_FAILED) return;
    gFailCounts = static_cast<FailCount *>(counts);
    gArmed.fetch_add(1, std::memory_order_relaxed);
}

void ArmTextLocked(const char *at) {
    while (at != nullptr && *at != 0) {
        const size_t length = strcspn(at, ":,");
        const char *name = at;
        at += length;
        if (length == 6 && memcmp(name, "record", 6) == 0 && *at == ':') {
            RecordLocked(at + 1, strcspn(at + 1, ","));
        } else {
            unsigned long numbers[2] = {1, 0};
            for (size_t i = 0; i < 2 && *at == ':'; ++i) {
                char *end = nullptr;
                numbers[i] = strtoul(at + 1, &end, 10);
                at = end;
            }
            ArmLocked(name, length, static_cast<uint32_t>(numbers[0]), static_cast<DWORD>(numbers[1]));
        }
        at = strchr(at, ',');
        if (at != nullptr) ++at;
    }
}

void ReadEnvironmentLocked() {
    if (gArmed.load(std::memory_order_relaxed) != 0xFFFFFFFF) return;
    gArmed.store(0, std::memory_order_relaxed);
    ArmTextLocked(getenv("ZVXKVT_FAIL"));
}

void CountLocked(const char *function, bool fails) {
    for (size_t i = 0; gFailCounts != nullptr && i < kFailCounts; ++i) {
        FailCount &count = gFailCounts[i];
        if (count.Function[0] == 0) strncpy(count.Function, function, sizeof count.Function - 1);
        if (strcmp(count.Function, function) != 0) continue;
        ++count.Calls;
        count.Failed += fails ? 1 : 0;
        return;
    }
}

// Counts the call, and takes the point that goes off with it.
bool TakePoint(const char *function, DWORD *error) {
    if (gArmed.load(std::memory_order_relaxed) == 0) [[likely]]
        return false;
    SpinGuard guard(gFailLock);
    ReadEnvironmentLocked();
    bool fails = false;
    // Every point of that name counts the call; where two go off at once, the one armed first names the error.
    for (FailPoint &point : gFailPoints) {
        if (point.CallsLeft == 0 || strcmp(point.Function, function) != 0 || --point.CallsLeft != 0) continue;
        if (!fails) *error = point.Error;
        fails = true;
        gArmed.fetch_sub(1, std::memory_order_relaxed);
    }
    CountLocked(function, fails);
    return fails;
}

}  // namespace

void FailCall(const char *function, uint32_t nth, DWORD error) {
    SpinGuard guard(gFailLock);
    ReadEnvironmentLocked();
    ArmLocked(function, strlen(function), nth, error);
}

void ArmFailPoints(const char *text) {
    SpinGuard guard(gFailLock);
    ReadEnvironmentLocked();
    ArmTextLocked(text);
}

bool ShouldFail(const char *function) {
    DWORD error = 0;
    if (!TakePoint(function, &error)) return false;
    SetLastError(error);
    return true;
}

int ShouldFailInside(const char *step) {
    DWORD error = 0;
    return TakePoint(step, &error) ? static_cast<int>(error) : 0;
}

#else

// For tests, which the exit code tells that they cannot be run.
void FailCall(const char *, uint32_t, DWORD) { _exit(77); }
void ArmFailPoints(const char *) {}

#endif

}  // namespace os
