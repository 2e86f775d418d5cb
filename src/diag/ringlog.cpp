// diag/ringlog.cpp - the records of the ring log and those who fill them (see ringlog.h).
//
// Producers run on any thread. The pool is made once and never freed.
#include "diag/ringlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "config/settings.h"
#include "diag/stats.h"
#include "diag/trace.h"

namespace zvx {

RingQueue gRingLog;
RingQueue gRingFree;
std::atomic<uint64_t> gRingDropped;

constexpr uint32_t kZeroed = 0x40;
RingRecord *gRingRecords;

bool RingLogInit() {
    for (RingQueue *queue : {&gRingLog, &gRingFree}) InitList(&queue->Records);
    InitSpinLock(&gRingLog.Lock, &gStats[STAT_RingLogQLock]);
    InitSpinLock(&gRingFree.Lock, &gStats[STAT_RingBufferQLock]);
    gRingDropped.store(0, std::memory_order_relaxed);
    if (!OptionSet(su_LogToFile)) return false;
    auto *records = static_cast<RingRecord *>(os::LocalAlloc(kZeroed, kRingRecords * sizeof(RingRecord)));
    if (records == nullptr) return false;
    auto *text = static_cast<char *>(os::LocalAlloc(kZeroed, size_t{kRingRecords} * kRingTextBytes));
    if (text == nullptr) {
        os::LocalFree(records);
        return false;
    }
    gRingRecords = records;
    for (uint32_t i = 0; i < kRingRecords; ++i) {
        RingRecord *record = &gRingRecords[i];
        record->Text = text + size_t{i} * kRingTextBytes;
        InitLink(&record->Link);
        AppendLink(&gRingFree.Records, &record->Link);
    }
    return true;
}

RingRecord *TakeRingRecord(RingQueue *queue) {
    SpinGuard guard(&queue->Lock);
    ListLink *link = PopLink(&queue->Records);
    return link != nullptr ? ZVX_RECORD_OF(link, RingRecord, Link) : nullptr;
}

void PutRingRecord(RingQueue *queue, RingRecord *record) {
    SpinGuard guard(&queue->Lock);
    AppendLink(&queue->Records, &record->Link);
}

bool RingLogPrintf(const char *format, ...) {
    if (!OptionSet(su_LogToFile)) return false;
    RingRecord *record = TakeRingRecord(&gRingFree);
    if (record == nullptr) {
        gRingDropped.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    va_list args;
    va_start(args, format);
    const int wanted = std::vsnprintf(record->Text, kRingTextBytes, format, args);
    va_end(args);
    size_t length = wanted > 0 ? static_cast<size_t>(wanted) : 0;
    if (length >= kRingTextBytes) length = DropPartialChar(record->Text, kRingTextBytes - 1);
    record->Text[length] = 0;
    record->Length = static_cast<uint32_t>(length) + 1;
    PutRingRecord(&gRingLog, record);
    return true;
}

}  // namespace zvx
