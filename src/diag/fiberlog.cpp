// diag/fiberlog.cpp - the user thread "FLOG", which writes the ring log to its file.
//
// It runs on scheduler 0 and writes as any host does, through the library's own file functions: while a batch or the
// flush behind the last one is on its way, other user threads run.
#include <cstdio>
#include <cstring>

#include "diag/ringlog.h"
#include "diag/trace.h"
#include "kernel/file.h"
#include "sched/sched.h"

namespace zvx {

namespace {

constexpr uint32_t kBatchBytes = 16384;
constexpr DWORD kLookMs = 1000;
constexpr size_t kLongestPath = 259;

HANDLE gRingFile = INVALID_HANDLE_VALUE;  // the writer's
bool gBatchDone;                          // the writer's: its routine runs on it

void BatchDone(DWORD, DWORD, OVERLAPPED *) {
    gBatchDone = true;
}

// Appends the text of `record` to the batch, whose terminating zero it takes the place of, and gives the record back.
uint32_t Append(char *batch, uint32_t length, RingRecord *record) {
    std::memcpy(batch + length, record->Text, record->Length);
    length += record->Length - 1;
    PutRingRecord(&gRingFree, record);
    return length;
}

// As much of what is queued as one write takes; 0 when nothing is.
uint32_t FillBatch(char *batch) {
    RingRecord *record = TakeRingRecord(&gRingLog);
    if (record == nullptr) return 0;
    uint32_t length = Append(batch, 0, record);
    while (length + kRingTextBytes < kBatchBytes && (record = TakeRingRecord(&gRingLog)) != nullptr)
        length = Append(batch, length, record);
    return length;
}

// A write that is refused at once would never run its routine: it is tried again in a second, and what is queued
// meanwhile waits its turn behind it.
void WriteBatch(const char *batch, uint32_t length, OVERLAPPED *position) {
    gBatchDone = false;
    while (!WriteFileEx(gRingFile, batch, length, position, BatchDone)) Sleep(kLookMs);
    while (!gBatchDone) SleepEx(INFINITE, TRUE);
    position->Offset += length;
}

// In the trace directory, by instance and process, cut to what a path may have.
void FormatPath(char *path, size_t capacity) {
    os::EnterCriticalSection(&gTraceLock);
    CopyTraceDir(path);
    const size_t used = std::strlen(path);
    std::snprintf(path + used, capacity - used, "%s_pid_%d_fiber_stats.txt", gSid,
                  static_cast<int>(os::GetCurrentProcessId()));
    os::LeaveCriticalSection(&gTraceLock);
    if (std::strlen(path) <= kLongestPath) return;
    path[kLongestPath] = 0;
    DropPartialChar(path, kLongestPath);
}

}  // namespace

DWORD FiberLogger(void *) {
    Fiber *F = CallingFiber();
    while (F == nullptr) {  // fiber mode begins when the last scheduler starts
        SchedYield(static_cast<Fiber *>(os::GetFiberData()), Yield_SCHED);
        F = CallingFiber();
    }
    char path[kLongestPath + 1 + sizeof gSid + 64];
    FormatPath(path, sizeof path);
    gRingFile =
        CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS,
                    FILE_FLAG_OVERLAPPED | FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL | os::kFileFlagPrivate,
                    nullptr);
    if (gRingFile == nullptr || gRingFile == INVALID_HANDLE_VALUE)
        FatalExit("Unable to create log file the fiber logger\n");
    static char batch[kBatchBytes];
    OVERLAPPED position{};
    for (;;) {
        bool wrote = false;
        while (const uint32_t length = FillBatch(batch)) {
            if (OptionSet(su_Print)) {
                std::printf("%s", batch);
                std::fflush(stdout);
            }
            WriteBatch(batch, length, &position);
            wrote = true;
        }
        if (wrote)
            FlushFileBuffers(gRingFile);  // and look again: texts may have come meanwhile
        else
            Sleep(kLookMs);
    }
}

}  // namespace zvx
