// host/log.cpp - the log writer, and what sessions hand to it.
//
// Sessions append under the log's section and wait by post; "LGWR" writes one batch at a time and posts all whose
// record was in it. A batch that cannot be written is taken back: the keyspace returns to what is durable, in reverse
// order, those who wait are told, and writes are refused until a write succeeds again.
//
// Where nobody waits for the medium, files are flushed now and then. The system tells of a failed flush once, and drops
// what it could not write: the next flush succeeds over what is lost. So after a failure no flush counts until the
// writer has written anew, from a copy in memory, all that the segment got since it was begun.
#include "log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "checkpoint.h"
#include "fileio.h"

namespace host {

namespace {

constexpr size_t kFront = kLogBlock + sizeof(BatchHeader);  // room for the last block's bytes and the header
constexpr size_t kFirstBuffer = 64 << 10;
constexpr size_t kKeptBuffer = 4 << 20;   // larger ones are not used again
constexpr size_t kBatchBytes = 4 << 20;   // a buffer with this much takes no more
constexpr uint64_t kGathered = 32 << 20;  // bytes above which sessions wait before they write more
constexpr size_t kWriteStep = 1 << 20;
constexpr DWORD kRetryMs = 1000;

// What takes one key, or everything, back.
struct Undo {
    uint64_t Hash;
    size_t KeyAt;  // in the buffer, which the record has in it
    uint32_t KeyLength;
    bool Existed;
    Value *Old;  // a reference
    int64_t OldExpire;
    uint64_t OldSeq;
    std::unique_ptr<Contents[]> Flushed;  // not null: of all shards, for a FLUSHALL
};

struct Buffer {
    char *Data = nullptr;
    size_t Capacity = 0;
    size_t Used = kFront;
    uint32_t Count = 0;
    uint32_t RecordsCrc = 0;
    uint64_t First = 0;  // sequence number of the first record
    std::vector<Undo> Undos;
    Buffer *Next = nullptr;
};

struct Range {
    uint64_t First, Last;
};

struct Log {
    CRITICAL_SECTION Section;
    Buffer *Head = nullptr;             // [Section] oldest that the writer has not taken
    Buffer *Newest = nullptr;           // [Section] the last of them, which takes records
    Buffer *Spare = nullptr;            // [Section] empty ones
    std::atomic<uint64_t> Gathered{0};  // [Section] to write: bytes in those
    bool WriterWaits = false;           // [Section]
    HANDLE WriterEvent = nullptr;       // init
    Waiter *Waiters = nullptr;          // [Section]
    std::vector<Range> Refused;         // [Section] the last few
    std::vector<Slot> Slots;            // [Section]
    LogPosition End;                    // [Section] the writer's; where the next batch goes
    std::atomic<bool> Refusing{false};  // [Section] to write
    bool Closed = false;                // [Section]
    std::atomic<uint64_t> Last{0};      // [Section] to write: sequence number of the newest record
    std::atomic<uint64_t> Settled{0};   // [Section] to write
    std::atomic<uint64_t> RefusedCount{0};
    std::atomic<DWORD> Error{0};
    std::atomic<HANDLE> File{nullptr};   // of the segment that is being written; never closed
    std::atomic<uint64_t> Unflushed{0};  // batches that the flusher has not seen
    std::atomic<uint64_t> Written{0};    // sequence number of the last record that was written
    std::atomic<uint64_t> Durable{0};    // of the last that is known to be on the medium
    std::atomic<bool> Flushing{false};   // somebody flushes or writes anew: one at a time, as one hears of a failure
    std::atomic<DWORD> FlushError{0};    // [Flushing] to write: of the flush that failed, until all is written anew
    uint64_t CopyAt = 0;                 // the writer's: offset of Copy in the segment
    std::string Copy;                    // the writer's: what the segment got, to its end; not with "always"
    std::string Tail;                    // the writer's: bytes of the last block before End.Offset
    uint64_t LogId = 0;                  // init
    uint32_t Run = 0;                    // init
};
Log gLog;
std::atomic<bool> gMoveWriter{false};

bool Always() {
    return gOptions.Sync == Durability::kAlways;
}

struct FlushTurn {
    FlushTurn() {
        while (gLog.Flushing.exchange(true)) Sleep(1);
    }
    ~FlushTurn() { gLog.Flushing = false; }
};

// What was written before the call is durable after it, or the writer has to write it anew. Waits for the disk.
DWORD FlushLog() {
    DWORD error = ERROR_SUCCESS;
    {
        FlushTurn turn;
        const uint64_t written = gLog.Written.load();
        if (gLog.File.load() == nullptr || gLog.FlushError.load() != ERROR_SUCCESS) return gLog.FlushError.load();
        if (FlushFileBuffers(gLog.File.load())) {
            gLog.Durable = written;
            return ERROR_SUCCESS;
        }
        gLog.FlushError = error = GetLastError();
    }
    std::fprintf(stderr, "keyhost: the log could not be flushed: %s; it is written anew\n", ReasonOf(error).c_str());
    return error;
}

// After a flush that failed: the writer's.
DWORD WriteAnew() {
    FlushTurn turn;
    DWORD error = WriteBlocks(gLog.File.load(), gLog.CopyAt, gLog.Copy.data(), gLog.Copy.size(), kWriteStep);
    if (error == ERROR_SUCCESS && !FlushFileBuffers(gLog.File.load())) error = GetLastError();
    if (error != ERROR_SUCCESS) return error;
    gLog.Durable = gLog.Written.load();
    gLog.FlushError = ERROR_SUCCESS;
    std::fputs("keyhost: the log is written anew and durable\n", stderr);
    return ERROR_SUCCESS;
}

void Reserve(Buffer *buffer, size_t size) {
    if (size <= buffer->Capacity) return;
    size_t capacity = buffer->Capacity != 0 ? buffer->Capacity : kFirstBuffer;
    while (capacity < size) capacity *= 2;
    buffer->Data = static_cast<char *>(std::realloc(buffer->Data, capacity));
    if (buffer->Data == nullptr) Refuse("no memory for a log buffer of %zu bytes", capacity);
    buffer->Capacity = capacity;
}

// The section is held.
Buffer *BufferFor(size_t size) {
    Buffer *newest = gLog.Newest;
    if (newest != nullptr && (newest->Count == 0 || newest->Used + size <= kBatchBytes)) return newest;
    Buffer *fresh = gLog.Spare;
    if (fresh != nullptr) {
        gLog.Spare = fresh->Next;
        fresh->Next = nullptr;
    } else {
        fresh = new Buffer;
    }
    (newest != nullptr ? newest->Next : gLog.Head) = fresh;
    return gLog.Newest = fresh;
}

void Recycle(Buffer *buffer) {
    for (Undo &undo : buffer->Undos) {
        Release(undo.Old);
        for (uint32_t i = 0; undo.Flushed != nullptr && i < kShards; i++) {
            FreeContents(&undo.Flushed[i]);
            GiveWay();
        }
    }
    if (buffer->Capacity > kKeptBuffer) {
        std::free(buffer->Data);
        buffer->Data = nullptr;
        buffer->Capacity = 0;
    }
    buffer->Undos.clear();
    if (buffer->Undos.capacity() > kKeptBuffer / sizeof(Undo)) buffer->Undos.shrink_to_fit();
    buffer->Used = kFront;
    buffer->Count = buffer->RecordsCrc = 0;
    Guard guard(&gLog.Section);
    buffer->Next = gLog.Spare;
    gLog.Spare = buffer;
}

void KeepUndo(Buffer *buffer, size_t keyAt, const LogItem &item) {
    const Entry *old = item.Old;
    buffer->Undos.push_back(Undo{item.Hash, keyAt, static_cast<uint32_t>(item.Key.size()), old != nullptr,
                                 old != nullptr ? Share(old->Val) : nullptr, old != nullptr ? old->Expire : kNever,
                                 old != nullptr ? old->Seq : 0, nullptr});
}

void TakeBack(Buffer *buffer) {
    for (size_t i = buffer->Undos.size(); i-- != 0;) {
        Undo &undo = buffer->Undos[i];
        if (undo.Flushed != nullptr) {
            for (uint32_t s = 0; s < kShards; s++) {
                Guard guard(&gShards[s].Section);
                PutContents(&gShards[s], undo.Flushed[s]);
                undo.Flushed[s] = Contents{};
            }
            continue;
        }
        Shard *const shard = &gShards[ShardOf(undo.Hash)];
        const std::string_view key(buffer->Data + undo.KeyAt, undo.KeyLength);
        Guard guard(&shard->Section);
        Entry *const entry = FindEntry(shard, undo.Hash, key);
        if (undo.Existed) {
            StoreEntry(shard, entry, undo.Hash, key, undo.Old, undo.OldExpire, undo.OldSeq);
            undo.Old = nullptr;
        } else if (entry != nullptr) {
            RemoveEntry(shard, entry, 0);
        }
    }
}

// Everything up to `seq` is decided: wakes who waited for it. The writer's.
void Settle(uint64_t seq) {
    static std::vector<HANDLE> events;
    events.clear();
    {
        Guard guard(&gLog.Section);
        gLog.Settled.store(seq, std::memory_order_release);
        for (Waiter **link = &gLog.Waiters; *link != nullptr;) {
            Waiter *const waiter = *link;
            if (waiter->Wanted > seq && !gLog.Refusing.load(std::memory_order_relaxed)) {
                link = &waiter->Next;
                continue;
            }
            *link = waiter->Next;
            waiter->Wanted = 0;
            events.push_back(waiter->Event);
        }
    }
    if (events.empty()) return;
    events.push_back(nullptr);
    PostMultipleUserThreads(events.data());
}

// ---- Segments ----------------------------------------------------------------------------------------

// A file of zeros under its final name, durable, in place of what an attempt left there that failed behind its move;
// the spare's header is the first block of zeros but for its magic.
// A new one, in which a batch of `least` bytes fits.
DWORD CreateSegment(size_t least) {
    uint32_t slot = 0;
    {
        Guard guard(&gLog.Section);
        slot = static_cast<uint32_t>(gLog.Slots.size());
        gLog.Slots.push_back(Slot{});
    }
    const std::string fresh = PathOf(SegmentName(slot) + ".new");
    const std::string name = PathOf(SegmentName(slot));
    const uint64_t bytes = std::max<uint64_t>(SegmentBytes(), RoundUp(kLogBlock + least, kWriteStep));
    const HANDLE file = OpenForBlocks(SegmentName(slot) + ".new", CREATE_ALWAYS, false);
    DWORD error = file == INVALID_HANDLE_VALUE ? GetLastError() : DWORD{ERROR_SUCCESS};
    HANDLE opened = nullptr;
    if (error == ERROR_SUCCESS) {
        std::vector<char> zeros(kWriteStep);
        SegmentHeader header{kSegmentMagic, 0, gLog.LogId, 0, 0, 0, 0};
        header.Crc = HeaderCrc(header);
        std::memcpy(zeros.data(), &header, sizeof header);
        for (uint64_t at = 0; at < bytes && error == ERROR_SUCCESS; at += kWriteStep) {
            error = WriteBlocks(file, at, zeros.data(), kWriteStep, kWriteStep);
            std::memset(zeros.data(), 0, sizeof header);
        }
        if (error == ERROR_SUCCESS) {
            error = !FlushFileBuffers(file) ? GetLastError() : RunBlocking([&] {
                constexpr DWORD kHow = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
                return MoveFileExA(fresh.c_str(), name.c_str(), kHow) ? DWORD{ERROR_SUCCESS} : GetLastError();
            });
        }
        CloseHandle(file);
        if (error == ERROR_SUCCESS) {
            opened = OpenForBlocks(SegmentName(slot), OPEN_EXISTING, Always());
            if (opened == INVALID_HANDLE_VALUE) error = GetLastError();
        }
        if (error != ERROR_SUCCESS) DeleteFileA(fresh.c_str());
    }
    Guard guard(&gLog.Section);
    if (error == ERROR_SUCCESS) {
        gLog.Slots[slot] = Slot{opened, bytes, 0};
    } else if (slot + 1 == gLog.Slots.size()) {
        gLog.Slots.pop_back();
    }
    return error;
}

// Goes on in a segment that has room for `size` bytes of batches. The slot is marked before its header is written, so
// that another attempt takes the same one: no two files may claim one part of the log.
DWORD NextSegment(size_t size) {
    const uint64_t number = gLog.End.Segment + 1;
    HANDLE file = nullptr;
    for (;;) {
        {
            Guard guard(&gLog.Section);
            Slot *taken = nullptr;
            for (Slot &slot : gLog.Slots) {
                if (slot.Number == number) taken = &slot;
            }
            for (Slot &slot : gLog.Slots) {
                const bool fits = slot.File != nullptr && slot.Number == 0 && slot.Bytes >= kLogBlock + size;
                if (taken == nullptr && fits) taken = &slot;
            }
            if (taken != nullptr) {
                taken->Number = number;
                file = taken->File;
                break;
            }
        }
        const DWORD error = CreateSegment(size);
        if (error != ERROR_SUCCESS) return error;
    }
    // One file is flushed at a time: the next begins when this one is durable.
    if (!Always()) {
        const DWORD error = FlushLog();
        if (error != ERROR_SUCCESS) return error;
    }
    char block[sizeof(SegmentHeader)];
    SegmentHeader header{kSegmentMagic, 0, gLog.LogId, number, gLog.Durable, gLog.End.Previous, 0};
    header.Crc = HeaderCrc(header);
    std::memcpy(block, &header, sizeof block);
    const DWORD error = WriteBlocks(file, 0, block, sizeof block, kLogBlock);
    if (error != ERROR_SUCCESS) return error;
    gLog.File.store(file);
    gLog.Tail.clear();
    gLog.CopyAt = 0;
    gLog.Copy.assign(Always() ? 0 : kLogBlock, '\0');
    if (!Always()) gLog.Copy.replace(0, sizeof block, block, sizeof block);
    bool spare = false;
    {
        Guard guard(&gLog.Section);
        gLog.End.Segment = number;
        gLog.End.Offset = kLogBlock;
        for (const Slot &slot : gLog.Slots) spare |= slot.File != nullptr && slot.Number == 0;
    }
    if (!spare) RequestSpareSegment();
    return ERROR_SUCCESS;
}

uint64_t BytesOfSegment(uint64_t number) {
    Guard guard(&gLog.Section);
    for (const Slot &slot : gLog.Slots) {
        if (slot.Number == number) return slot.Bytes;
    }
    return 0;
}

// ---- The log writer ----------------------------------------------------------------------------------

// Writes the buffer as the next batch. Whole blocks are written: the bytes of the last block that are durable already
// come once more in front, zeros follow.
DWORD WriteBatch(Buffer *buffer) {
    if (gLog.FlushError.load(std::memory_order_relaxed) != ERROR_SUCCESS) {
        const DWORD error = WriteAnew();
        if (error != ERROR_SUCCESS) return error;
    }
    const size_t bytes = buffer->Used - kFront;
    const size_t size = RoundUp(sizeof(BatchHeader) + bytes, kLogAlign);
    if (gLog.End.Segment == 0 || gLog.End.Offset + size > BytesOfSegment(gLog.End.Segment)) {
        const DWORD error = NextSegment(size);
        if (error != ERROR_SUCCESS) return error;
    }
    BatchHeader header{};
    header.Magic = kBatchMagic;
    header.LogId = gLog.LogId;
    header.First = buffer->First;
    header.Durable = gLog.Durable;
    header.Count = buffer->Count;
    header.Bytes = static_cast<uint32_t>(bytes);
    header.RecordsCrc = buffer->RecordsCrc;
    header.Previous = gLog.End.Previous;
    header.Run = gLog.Run;
    header.Crc = HeaderCrc(header);

    const size_t before = gLog.Tail.size();
    const size_t total = RoundUp(before + size, kLogBlock);
    char *const start = buffer->Data + kFront - sizeof header - before;
    std::memcpy(start, gLog.Tail.data(), before);
    std::memcpy(start + before, &header, sizeof header);
    std::memset(buffer->Data + buffer->Used, 0, total - before - sizeof header - bytes);
    const DWORD error = WriteBlocks(gLog.File.load(), gLog.End.Offset - before, start, total, kWriteStep);
    if (error != ERROR_SUCCESS) return error;

    const size_t after = (before + size) % kLogBlock;
    gLog.Tail.assign(start + before + size - after, after);
    if (buffer->Count != 0) gLog.Written = buffer->First + buffer->Count - 1;
    if (Always()) {
        gLog.Durable = gLog.Written.load();
    } else {
        gLog.Copy.replace(gLog.End.Offset - before - gLog.CopyAt, std::string::npos, start, total);
    }
    gLog.Unflushed.fetch_add(1);
    Count(gCounters.LogWrites);
    Count(gCounters.LogBytes, total);
    {
        Guard guard(&gLog.Section);
        gLog.End.Offset += size;
        gLog.End.Previous = header.Crc;
        if (buffer->Count != 0) gLog.End.Seq = buffer->First + buffer->Count - 1;
    }
    NoteLogGrowth(size);
    return ERROR_SUCCESS;
}

// The oldest buffer with records, after a wait where there is none.
Buffer *TakeBuffer() {
    for (;;) {
        // Once a second (MendLog) where it fails and nobody writes.
        if (gLog.FlushError.load(std::memory_order_relaxed) != ERROR_SUCCESS) WriteAnew();
        bool waited = false;
        {
            Guard guard(&gLog.Section);
            Buffer *const buffer = gLog.Head;
            if (buffer != nullptr && buffer->Count != 0) {
                gLog.Head = buffer->Next;
                if (gLog.Head == nullptr) gLog.Newest = nullptr;
                buffer->Next = nullptr;
                const uint64_t gathered = gLog.Gathered.load(std::memory_order_relaxed);
                gLog.Gathered.store(gathered - (buffer->Used - kFront), std::memory_order_relaxed);
                return buffer;
            }
            gLog.WriterWaits = waited = true;
        }
        // Whoever posted may be the first of many that run now; they share the write.
        if (waited && WaitForUserThreadPost(gLog.WriterEvent, INFINITE) == WAIT_OBJECT_0) Sleep(0);
        // A post that comes on the way is dropped; what it was about is found at the next look.
        if (gMoveWriter.exchange(false)) MigrateUserThread("LGWR");
    }
}

// A batch without records, in place of what may have reached the medium of a batch that failed.
DWORD WriteEmptyBatch(size_t room) {
    if (gLog.End.Segment == 0 || gLog.End.Offset + room > BytesOfSegment(gLog.End.Segment)) {
        const DWORD error = NextSegment(room);
        if (error != ERROR_SUCCESS) return error;
    }
    Buffer empty;
    Reserve(&empty, kFront + kLogBlock);
    empty.First = gLog.Last.load() + 1;
    const DWORD error = WriteBatch(&empty);
    std::free(empty.Data);
    return error;
}

// Takes back the batch that failed and all that has gathered behind it, tells who waits, and returns when the log can
// be written again. The overwriting attempt comes before anybody is told, so that what was refused stays refused when
// the process ends in the next moment.
void RefuseBatch(Buffer *failed, DWORD error) {
    std::vector<Buffer *> buffers{failed};
    uint64_t last = 0;
    {
        Guard guard(&gLog.Section);
        gLog.Refusing = true;
        for (Buffer *buffer = gLog.Head; buffer != nullptr; buffer = buffer->Next) buffers.push_back(buffer);
        gLog.Head = gLog.Newest = nullptr;
        gLog.Gathered = 0;
        last = gLog.Last.load();
    }
    uint64_t count = 0;
    for (size_t i = buffers.size(); i-- != 0;) {
        count += buffers[i]->Count;
        TakeBack(buffers[i]);
    }
    const size_t room = RoundUp(sizeof(BatchHeader) + failed->Used - kFront, kLogAlign);
    Count(gCounters.Refused, count);
    {
        Guard guard(&gLog.Section);
        if (gLog.Refused.size() >= 64) gLog.Refused.erase(gLog.Refused.begin());
        gLog.Refused.push_back(Range{failed->First, last});
        gLog.RefusedCount.fetch_add(1);
    }
    for (Buffer *buffer : buffers) Recycle(buffer);
    for (bool told = false;; told = true) {
        const DWORD again = WriteEmptyBatch(room);
        if (!told) {
            std::fprintf(stderr, "keyhost: the log could not be written: %s; %llu writes were refused%s\n",
                         ReasonOf(error).c_str(), static_cast<unsigned long long>(count),
                         again == ERROR_SUCCESS ? "" : ", and all will be until it can");
            Settle(last);
        }
        if (again == ERROR_SUCCESS) break;
        gLog.Error = again;
        Sleep(kRetryMs);
    }
}

// Where nobody waits for the medium the records are answered already: they are kept and tried again, and no others
// are taken meanwhile.
void RetryBatch(Buffer *buffer, DWORD error) {
    std::fprintf(stderr, "keyhost: the log could not be written: %s; writes are refused until it can\n",
                 ReasonOf(error).c_str());
    {
        Guard guard(&gLog.Section);
        gLog.Refusing = true;
    }
    Settle(gLog.Settled.load());
    do {
        Sleep(kRetryMs);
        error = WriteBatch(buffer);
        gLog.Error = error;
    } while (error != ERROR_SUCCESS);
}

}  // namespace

bool RequestLgwrMigration() {
    if (!gOptions.MayMigrate || gOptions.Threads) return false;
    gMoveWriter = true;
    PostUserThread(gLog.WriterEvent);
    return true;
}

void MendLog() {
    if (gLog.FlushError.load() != ERROR_SUCCESS) PostUserThread(gLog.WriterEvent);
}

DWORD WINAPI LogWriter(LPVOID) {
    if (gOptions.Migrate) MigrateUserThread("LGWR");
    IdentifyUserThread("LGWR", gLog.WriterEvent);
    for (;;) {
        Buffer *const buffer = TakeBuffer();
        const uint64_t count = buffer->Count;
        const uint64_t last = buffer->First + count - 1;
        const DWORD error = WriteBatch(buffer);
        if (error != ERROR_SUCCESS) {
            gLog.Error = error;
            if (Always()) {
                RefuseBatch(buffer, error);
            } else {
                RetryBatch(buffer, error);
            }
            std::fputs("keyhost: the log can be written again\n", stderr);
            {
                Guard guard(&gLog.Section);
                gLog.Refusing = false;
            }
            gLog.Error = ERROR_SUCCESS;
            if (Always()) continue;
        }
        Count(gCounters.Commits, count);
        Settle(last);
        Recycle(buffer);
    }
}

// Blocks its kernel thread, and therefore has one of its own and enters no section.
DWORD WINAPI LogFlusher(LPVOID) {
    for (;;) {
        Sleep(1000);
        if (gLog.Unflushed.exchange(0) == 0) continue;
        FlushLog();
    }
}

// ---- Sessions ----------------------------------------------------------------------------------------

uint64_t AppendLog(RecordType type, const LogItem *items, uint32_t count, Contents *flushed) {
    RecordHeader header{sizeof(RecordHeader), 0, 0, type, count};
    uint32_t crc = 0;
    for (uint32_t i = 0; i < count; i++) {
        const LogItem &item = items[i];
        const ItemHeader head{static_cast<uint32_t>(item.Key.size()), static_cast<uint32_t>(item.Bytes.size()),
                              item.Expire};
        crc = Crc32c(crc, &head, sizeof head);
        crc = Crc32c(crc, item.Key.data(), item.Key.size());
        crc = Crc32c(crc, item.Bytes.data(), item.Bytes.size());
        header.Length += static_cast<uint32_t>(sizeof head + item.Key.size() + item.Bytes.size());
    }
    bool wake = false;
    uint64_t seq = 0;
    {
        Guard guard(&gLog.Section);
        if (gLog.Refusing.load(std::memory_order_relaxed) || gLog.Closed) return 0;
        Buffer *const buffer = BufferFor(header.Length);
        Reserve(buffer, buffer->Used + header.Length + kLogBlock);
        seq = gLog.Last.load(std::memory_order_relaxed) + 1;
        gLog.Last.store(seq, std::memory_order_release);
        if (buffer->Count++ == 0) buffer->First = seq;
        header.Seq = seq;
        header.Crc = Crc32c(crc, &header.Seq, sizeof header - offsetof(RecordHeader, Seq));
        header.Crc = Crc32c(header.Crc, &header.Length, sizeof header.Length);
        buffer->RecordsCrc = Crc32c(buffer->RecordsCrc, &header.Crc, sizeof header.Crc);
        char *put = buffer->Data + buffer->Used;
        std::memcpy(put, &header, sizeof header);
        put += sizeof header;
        for (uint32_t i = 0; i < count; i++) {
            const LogItem &item = items[i];
            const ItemHeader head{static_cast<uint32_t>(item.Key.size()), static_cast<uint32_t>(item.Bytes.size()),
                                  item.Expire};
            std::memcpy(put, &head, sizeof head);
            put += sizeof head;
            std::memcpy(put, item.Key.data(), item.Key.size());
            if (Always()) KeepUndo(buffer, static_cast<size_t>(put - buffer->Data), item);
            put += item.Key.size();
            if (!item.Bytes.empty()) std::memcpy(put, item.Bytes.data(), item.Bytes.size());
            put += item.Bytes.size();
        }
        if (flushed != nullptr) {
            buffer->Undos.push_back(Undo{0, 0, 0, false, nullptr, kNever, 0, std::unique_ptr<Contents[]>(flushed)});
        }
        buffer->Used += header.Length;
        gLog.Gathered.store(gLog.Gathered.load(std::memory_order_relaxed) + header.Length, std::memory_order_relaxed);
        wake = gLog.WriterWaits;
        gLog.WriterWaits = false;
    }
    if (wake) PostUserThread(gLog.WriterEvent);
    return seq;
}

namespace {

// False when one wait took `ms`.
bool AwaitSettled(Waiter *waiter, uint64_t seq, bool evenWhenRefusing, DWORD ms = INFINITE) {
    for (;;) {
        if (gLog.Settled.load(std::memory_order_acquire) >= seq) return true;
        if (!evenWhenRefusing && gLog.Refusing.load(std::memory_order_relaxed)) return true;
        {
            Guard guard(&gLog.Section);
            if (gLog.Settled.load(std::memory_order_relaxed) >= seq) return true;
            // Once more: who waits in vain is woken as refusing begins, and then only by a write that succeeds.
            if (!evenWhenRefusing && gLog.Refusing.load(std::memory_order_relaxed)) return true;
            if (waiter->Wanted == 0) {
                waiter->Next = gLog.Waiters;
                gLog.Waiters = waiter;
            }
            waiter->Wanted = seq;
        }
        if (WaitForUserThreadPost(waiter->Event, ms) == WAIT_TIMEOUT) return false;
    }
}

}  // namespace

void AwaitLogRoom(Waiter *waiter) {
    // Looks without the section: the limit is not exact. After a wait as well, for all who waited for one record wake
    // together.
    while (gLog.Gathered.load(std::memory_order_relaxed) >= kGathered && !gLog.Refusing.load(std::memory_order_relaxed))
        AwaitSettled(waiter, gLog.Last.load(), false);
}

void AwaitRecord(Waiter *waiter, uint64_t seq) {
    if (Always()) AwaitSettled(waiter, seq, true);
}

bool WasRefused(uint64_t seq) {
    if (gLog.RefusedCount.load(std::memory_order_acquire) == 0) return false;
    Guard guard(&gLog.Section);
    for (const Range &range : gLog.Refused) {
        if (seq >= range.First && seq <= range.Last) return true;
    }
    return false;
}

uint64_t SettledSeq() {
    return gLog.Settled.load(std::memory_order_acquire);
}
uint64_t LastSeq() {
    return gLog.Last.load(std::memory_order_acquire);
}

DWORD SyncLog(Waiter *waiter, DWORD ms) {
    if (!AwaitSettled(waiter, gLog.Last.load(), true, ms)) {
        const DWORD error = gLog.Error.load();
        return error != ERROR_SUCCESS ? error : DWORD{WAIT_TIMEOUT};
    }
    return Always() ? DWORD{ERROR_SUCCESS} : FlushLog();
}

void CloseLog() {
    Guard guard(&gLog.Section);
    gLog.Closed = true;
}

void ForgetWaiter(Waiter *waiter) {
    Guard guard(&gLog.Section);
    for (Waiter **link = &gLog.Waiters; *link != nullptr; link = &(*link)->Next) {
        if (*link != waiter) continue;
        *link = waiter->Next;
        break;
    }
    waiter->Wanted = 0;
}

// ---- Start and background ----------------------------------------------------------------------------

// The largest batch of a request fits: a buffer, or one record with the request's bytes and a header for each of its
// items. A value that was stored when --max-value was larger gets a segment of its own size.
uint64_t SegmentBytes() {
    const uint64_t needed = MaxRequest() + kBatchBytes;
    return RoundUp(needed > gOptions.SegmentBytes ? needed : gOptions.SegmentBytes, kWriteStep);
}

std::string SegmentName(uint32_t slot) {
    return "log-" + std::to_string(slot) + ".dat";
}

void OpenLog(LogStart *start) {
    InitializeCriticalSection(&gLog.Section);
    gLog.WriterEvent = MakePostEvent();
    gLog.LogId = start->LogId;
    gLog.Run = static_cast<uint32_t>(RandomNumber());
    gLog.End = start->End;
    gLog.Tail = std::move(start->Tail);
    gLog.CopyAt = gLog.End.Offset - gLog.Tail.size();
    gLog.Copy = gLog.Tail;
    gLog.Slots = std::move(start->Slots);
    gLog.Last = gLog.Settled = gLog.Written = gLog.Durable = start->End.Seq;
    for (const Slot &slot : gLog.Slots) {
        if (slot.Number != 0 && slot.Number == gLog.End.Segment) gLog.File = slot.File;
    }
    if (gLog.End.Segment != 0) return;
    const DWORD error = NextSegment(0);
    if (error != ERROR_SUCCESS) Refuse("%s: no log segment: %s", gOptions.Dir.c_str(), ReasonOf(error).c_str());
}

LogPosition DurableEnd() {
    Guard guard(&gLog.Section);
    return gLog.End;
}

uint64_t RefusedCount() {
    return gLog.RefusedCount.load(std::memory_order_acquire);
}

void ReleaseSegments(uint64_t before) {
    Guard guard(&gLog.Section);
    for (Slot &slot : gLog.Slots) {
        if (slot.Number < before) slot.Number = 0;
    }
}

bool MakeSpareSegment() {
    return CreateSegment(0) == ERROR_SUCCESS;
}

LogFigures GetLogFigures() {
    Guard guard(&gLog.Section);
    LogFigures figures{gLog.Last.load(), gLog.Settled.load(), gLog.End, 0, 0, gLog.Refusing.load(), gLog.Error.load(),
                       gLog.FlushError.load()};
    for (const Slot &slot : gLog.Slots) {
        figures.Segments += slot.File != nullptr ? 1 : 0;
        figures.Free += slot.File != nullptr && slot.Number == 0 ? 1 : 0;
    }
    return figures;
}

}  // namespace host
