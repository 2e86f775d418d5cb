// host/log.h - the log: its format on the medium, and how sessions and the log writer share it.
//
// On the medium the log is a sequence of batches in segment files ("log-<slot>.dat") of one size, filled with zeros
// when they are made and used again once a checkpoint covers them. A segment's first block says which part of the log
// it holds. A batch is a header of 64 bytes and the records that had gathered; it is valid as a whole or not at all.
// Every header carries the checksum of the header before it, so that a batch which an earlier run left behind is never
// taken for part of the log, and says up to where the log was durable when it was written. That tells a torn end from
// damage: what follows a record that cannot be read counts only when it says that the record had been durable.
//
// Records are physical: SET carries the whole value and the absolute time at which it ends, also where only the time
// changes, so that no record needs what an earlier one left. Applying one twice changes nothing, so a checkpoint may be
// taken while sessions write, and is exact once the log from its beginning is applied.
//
// In memory a record is appended to the newest buffer while its shard's section is held, before it is applied: for each
// key the order in the log is the order of application. A buffer becomes one batch.
#ifndef HOST_LOG_H
#define HOST_LOG_H

#include <atomic>
#include <string>
#include <vector>

#include "keyspace.h"

namespace host {

// ---- Format ------------------------------------------------------------------------------------------

constexpr size_t kLogBlock = 4096;  // writes cover whole blocks, so that the system reads none to fill them
constexpr size_t kLogAlign = 64;    // batches begin at multiples
constexpr uint32_t kBatchMagic = 0x4C4F4742;
constexpr uint32_t kSegmentMagic = 0x4C4F4753;

struct BatchHeader {
    uint32_t Magic;
    uint32_t Crc;         // of the rest of the header
    uint64_t LogId;       // drawn when the database was made; clients cannot forge a header in a value
    uint64_t First;       // sequence number of its first record; may leave a gap after records that were refused
    uint64_t Durable;     // the last record that was durable when this was written
    uint32_t Count;       // records
    uint32_t Bytes;       // of the records
    uint32_t RecordsCrc;  // of the records' Crc fields in order
    uint32_t Previous;    // Crc of the header before
    uint32_t Run;         // drawn at each start: no run makes a header of an earlier one again, which others follow
    uint32_t Reserved[3];
};
static_assert(sizeof(BatchHeader) == kLogAlign);

struct SegmentHeader {
    uint32_t Magic;
    uint32_t Crc;  // of the rest
    uint64_t LogId;
    uint64_t Number;    // 0: a spare that holds nothing; the log begins in 1
    uint64_t Durable;   // as in BatchHeader
    uint32_t Previous;  // Crc of the last batch header of the segment before
    uint32_t Reserved;
};

enum class RecordType : uint32_t {
    kSet = 1,
    kDelete,
    kExpire,  // a time without the value: in older logs, and not written any more
    kFlush
};

struct RecordHeader {
    uint32_t Length;  // with this header
    uint32_t Crc;     // of the items, then of the other fields here
    uint64_t Seq;
    RecordType Type;
    uint32_t Items;  // a record of several is applied whole or not at all
};

struct ItemHeader {  // followed by key and value
    uint32_t KeyLength;
    uint32_t ValueLength;
    int64_t Expire;
};

// Whether the record at data[0, size) is whole; its bytes when so, else 0.
uint32_t CheckRecord(const char *data, size_t size);
// Whether the batch at data[0, size) is whole, belongs to the log and follows `previous`; its bytes with padding when
// so, else 0. `*bad` receives the offset of what is wrong.
size_t CheckBatch(const char *data, size_t size, uint64_t logId, uint32_t previous, size_t *bad);
bool CheckBatchHeader(const char *data, uint64_t logId);
template <typename Header>
uint32_t HeaderCrc(const Header &header) {
    return Crc32c(0, reinterpret_cast<const char *>(&header) + 8, sizeof header - 8);
}
inline size_t RoundUp(size_t size, size_t unit) {
    return (size + unit - 1) / unit * unit;
}

uint64_t SegmentBytes();
std::string SegmentName(uint32_t slot);

// A place in the log: the batch that begins there is the next one to apply.
struct LogPosition {
    uint64_t Segment = 0;  // number
    uint64_t Offset = 0;
    uint64_t Seq = 0;       // of the last record before
    uint32_t Previous = 0;  // Crc of the header before
};

// ---- What recovery hands to the writer ----------------------------------------------------------------

struct Slot {
    HANDLE File = nullptr;
    uint64_t Bytes = 0;
    uint64_t Number = 0;  // 0: free
};

struct LogStart {
    uint64_t LogId = 0;
    LogPosition End;
    std::string Tail;         // bytes of the last block before the end
    std::vector<Slot> Slots;  // every segment file
};
// Before any session: opens the log at its end. Ends the process when there is no room for the first segment.
void OpenLog(LogStart *start);

// ---- Sessions ----------------------------------------------------------------------------------------

// Somebody who waits for the fate of a record.
struct Waiter {
    HANDLE Event = nullptr;  // its post event
    uint64_t Wanted = 0;     // [log]
    Waiter *Next = nullptr;  // [log]
};

struct LogItem {
    uint64_t Hash;
    std::string_view Key;
    std::string_view Bytes;  // the new value
    int64_t Expire;
    const Entry *Old;  // what the key holds now; null for nothing
};

// Appends a record, with the sections of all its shards held and before it is applied. Its sequence number, or 0 when
// writes are refused: then nothing may be applied. `flushed`: what FLUSHALL has taken out of the 64 shards; the log's,
// which frees it, unless the answer is 0.
uint64_t AppendLog(RecordType type, const LogItem *items, uint32_t count, Contents *flushed = nullptr);
// Waits while more than the log writer can take has gathered; to be called before any section is entered.
void AwaitLogRoom(Waiter *waiter);
// Waits until it is decided whether the record `seq` is durable. At once where nobody waits for that (--durability).
void AwaitRecord(Waiter *waiter, uint64_t seq);
// Of a record whose fate is decided.
bool WasRefused(uint64_t seq);
uint64_t SettledSeq();  // up to this one the fate of every record is decided
uint64_t LastSeq();     // of all records so far
// Waits until everything so far is durable or refused, whatever --durability says. An error when a flush has failed:
// then nothing may be built on it yet; or when a wait took `ms` milliseconds.
DWORD SyncLog(Waiter *waiter, DWORD ms = INFINITE);
// No record is taken any more, as if writes were refused: what SyncLog awaits then is all that was answered.
void CloseLog();
// Nobody will post the waiter any more; before its event is closed.
void ForgetWaiter(Waiter *waiter);

// ---- Background --------------------------------------------------------------------------------------

DWORD WINAPI LogWriter(LPVOID);         // "LGWR"
bool RequestLgwrMigration();            // a scheduler of its own for it, soon; false without --migrate-lgwr
DWORD WINAPI LogFlusher(LPVOID);        // kernel thread of --durability everysec
void MendLog();                         // once a second, from a user thread: wakes the writer after a flush that failed
LogPosition DurableEnd();               // where a checkpoint begins: behind the last batch that was written
uint64_t RefusedCount();                // changes whenever records are taken back
void ReleaseSegments(uint64_t before);  // those with lower numbers are free
bool MakeSpareSegment();                // one more, when no segment is free

struct LogFigures {
    uint64_t Seq, Settled;
    LogPosition End;
    uint32_t Segments, Free;
    bool Refusing;
    DWORD Error;       // while it refuses writes
    DWORD FlushError;  // while what was written has to be written anew
};
LogFigures GetLogFigures();

}  // namespace host

#endif  // HOST_LOG_H
