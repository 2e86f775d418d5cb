// host/checkpoint.h - the checkpoint: its format, and the database writers that make it.
//
// A checkpoint ("data.ckpt") is a file of 8 KiB pages with a checksum each. The first page says where in the log the
// checkpoint began; the others come in runs of up to 64 pages, each the work of one database writer. A run's items are
// whole; a value that fits no run has one of its own length. The file is written under another name and takes the
// place of the older one when it is durable, its first page last.
#ifndef HOST_CHECKPOINT_H
#define HOST_CHECKPOINT_H

#include "log.h"

namespace host {

constexpr size_t kPage = 8192;
constexpr uint32_t kPageMagic = 0x504B4350;
constexpr uint32_t kRunPages = 64;

struct PageHeader {
    uint32_t Magic;
    uint32_t Crc;         // of the page from here on
    uint64_t Checkpoint;  // drawn for each, so that no page of another one is taken for its own
    uint32_t Page;        // number in the file
    uint32_t RunPages;    // pages of the run
    uint32_t RunIndex;    // which of them this is
    uint32_t Used;        // bytes behind the header: ItemHeader, key, value, and so on through the run
};
constexpr size_t kPagePayload = kPage - sizeof(PageHeader);

struct CheckpointHeader {  // payload of page 0
    uint64_t LogId;
    uint64_t Pages;  // of the file, this one included
    uint64_t Keys;
    LogPosition Begin;
};

void SealPage(char *page, uint64_t checkpoint, uint32_t number, uint32_t runPages, uint32_t index, uint32_t used);
// What is wrong with the page, or null. `checkpoint` 0 accepts any.
const char *CheckPage(const char *page, uint64_t checkpoint, uint64_t number);

const char *CheckpointName();
DWORD WINAPI DatabaseWriter(LPVOID index);  // "DBW0", "DBW1"
void InitCheckpoints(uint64_t logId);
// From the log writer: so many bytes of log were written, a checkpoint may be due; no segment is free. Neither waits.
void NoteLogGrowth(uint64_t bytes);
void RequestSpareSegment();
bool CheckpointRuns();
// From an administrator: one is to be made now. False when one is wanted or made already.
bool RequestCheckpoint();

}  // namespace host

#endif  // HOST_CHECKPOINT_H
