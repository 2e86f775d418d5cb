// diag/ringlog.h - the ring log: short texts that any thread queues and a user thread writes to a file.
//
// With "LogToFile" there is a pool of records, each with 256 bytes of its own. A producer takes one from gRingFree,
// fills it, and appends it to gRingLog; the writer (diag/fiberlog.cpp) takes it from there and gives it back. A record
// is in one of the two lists, or belongs to whoever has just taken it.
//
// The two locks are never held together, and for a few instructions each. Nothing here is on the switch path: what a
// scheduler reports it reports once a second, from its timer check.
#ifndef ZVX_DIAG_RINGLOG_H
#define ZVX_DIAG_RINGLOG_H

#include <atomic>

#include "base/list.h"
#include "base/spinlock.h"

namespace zvx {

constexpr uint32_t kRingRecords = 16384;
constexpr uint32_t kRingTextBytes = 256;  // a text of 255 characters at most and its terminating zero

struct RingRecord {
    ListLink Link;    // [lock of the list it is in]
    char *Text;       // init: its own slice
    uint32_t Length;  // whoever has it: bytes of text, the zero included
};

struct RingQueue {
    SpinLock Lock;
    ListHead Records;  // [Lock] oldest first
};

extern RingQueue gRingLog;                  // to be written; "RingLogQLock"
extern RingQueue gRingFree;                 // "RingBufferQLock"
extern RingRecord *gRingRecords;  // init: all of them, and through them their texts; null without a ring log
extern std::atomic<uint64_t> gRingDropped;  // atomic: texts for which there was no record

// Scheduler 0's thread, at its start. False without "LogToFile", or without memory: there is no ring log then.
bool RingLogInit();
// Any thread; neither blocks nor yields. Queues one text, cut at a whole character to what a record holds. False
// without a ring log, and when there is no free record: then the text is dropped and counted.
bool RingLogPrintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Takes the queue's oldest record out of it; null when there is none. Any thread; neither blocks nor yields.
RingRecord *TakeRingRecord(RingQueue *queue);
void PutRingRecord(RingQueue *queue, RingRecord *record);  // behind the others; as above

// diag/fiberlog.cpp: the body of the user thread "FLOG" on scheduler 0. Never returns.
DWORD FiberLogger(void *unused);

}  // namespace zvx

#endif  // ZVX_DIAG_RINGLOG_H
