// host/recovery.cpp - recovery, by the main routine and four slaves.
//
// The checkpoint's runs are handed out one after another; a slave checks and applies the run it has. The log is checked
// by the main routine, segment by segment, since each batch leads to the next; then every slave applies the items of
// its own shards from the whole segment, so that the order per key is kept without a section. No session exists yet.
#include "recovery.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "fileio.h"

namespace host {

namespace {

constexpr uint32_t kSlaves = 4;

struct Job {
    enum class Kind : uint8_t { kRuns, kRecords, kEnd };
    HANDLE Main = nullptr;  // posted by slaves
    HANDLE Slaves[kSlaves + 1] = {};
    Kind What = Kind::kRuns;
    std::atomic<uint32_t> Busy{0};
    CRITICAL_SECTION Section;  // guards what comes now
    HANDLE File = nullptr;
    CheckpointHeader Checkpoint{};
    uint64_t CheckpointId = 0;
    uint64_t FilePages = 0;  // whole pages that the file has
    uint64_t NextPage = 1;
    uint64_t Keys = 0;
    const char *Records = nullptr;  // a segment's bytes, of which [Begin, End) is checked
    size_t Begin = 0, End = 0;
};
Job gJob;

void Apply(RecordType type, uint64_t hash, std::string_view key, std::string_view bytes, int64_t expire) {
    Shard *const shard = &gShards[ShardOf(hash)];
    Entry *const entry = FindEntry(shard, hash, key);
    switch (type) {
        case RecordType::kSet:
            // What has ended meanwhile is not brought back, but must not leave an older value either.
            if (expire == kNever || expire > NowMs()) {
                StoreEntry(shard, entry, hash, key, NewValue(bytes), expire, 0);
            } else if (entry != nullptr) {
                RemoveEntry(shard, entry, 0);
            }
            break;
        case RecordType::kDelete:
            if (entry != nullptr) RemoveEntry(shard, entry, 0);
            break;
        case RecordType::kExpire:
            if (entry != nullptr) SetExpire(shard, entry, expire);
            break;
        case RecordType::kFlush: break;
    }
}

[[noreturn]] void Damaged(const std::string &name, uint64_t offset, const char *what) {
    Refuse("%s: offset %llu: %s; not started, because data would be lost", PathOf(name).c_str(),
           static_cast<unsigned long long>(offset), what);
}

// The next run of the checkpoint, read and checked by the caller; false when there is none.
bool TakeRun(std::vector<char> *pages, uint64_t *first) {
    const char *const name = CheckpointName();
    {
        Guard guard(&gJob.Section);
        if (gJob.NextPage >= gJob.Checkpoint.Pages) return false;
        *first = gJob.NextPage;
        pages->resize(kPage);
        size_t got = 0;
        const DWORD error = ReadBlocks(gJob.File, *first * kPage, pages->data(), kPage, &got);
        if (error != ERROR_SUCCESS) Damaged(name, *first * kPage, ReasonOf(error).c_str());
        const char *wrong = got < kPage ? "the file ends here" : CheckPage(pages->data(), gJob.CheckpointId, *first);
        PageHeader header;
        std::memcpy(&header, pages->data(), sizeof header);
        if (wrong == nullptr && (header.RunIndex != 0 || *first + header.RunPages > gJob.Checkpoint.Pages)) {
            wrong = "no first page of a run";
        }
        // No memory for what cannot be there.
        if (wrong == nullptr && *first + header.RunPages > gJob.FilePages) wrong = "the file ends here";
        if (wrong != nullptr) Damaged(name, *first * kPage, wrong);
        gJob.NextPage += header.RunPages;
        pages->resize(header.RunPages * kPage);
    }
    size_t got = 0;
    const DWORD error = ReadBlocks(gJob.File, (*first + 1) * kPage, pages->data() + kPage, pages->size() - kPage, &got);
    if (error != ERROR_SUCCESS) Damaged(name, (*first + 1) * kPage + got, ReasonOf(error).c_str());
    for (size_t at = kPage; at < pages->size(); at += kPage) {
        const char *const page = pages->data() + at;
        const uint64_t number = *first + at / kPage;
        const char *const wrong = at > got ? "the file ends here" : CheckPage(page, gJob.CheckpointId, number);
        if (wrong != nullptr) Damaged(name, number * kPage, wrong);
    }
    return true;
}

void ApplyRuns() {
    std::vector<char> pages;
    std::vector<char> items;
    for (uint64_t first = 0; TakeRun(&pages, &first);) {
        items.clear();
        for (size_t at = 0; at < pages.size(); at += kPage) {
            PageHeader header;
            std::memcpy(&header, pages.data() + at, sizeof header);
            const char *const payload = pages.data() + at + sizeof header;
            items.insert(items.end(), payload, payload + header.Used);
        }
        uint64_t keys = 0;
        for (size_t at = 0; at < items.size(); keys++) {
            ItemHeader item{};
            if (items.size() - at >= sizeof item) std::memcpy(&item, items.data() + at, sizeof item);
            const uint64_t size = sizeof item + uint64_t{item.KeyLength} + item.ValueLength;
            if (items.size() - at < size) Damaged(CheckpointName(), first * kPage, "a run with half an item");
            const char *const key = items.data() + at + sizeof item;
            const std::string_view view(key, item.KeyLength);
            const uint64_t hash = HashKey(view);
            {
                Guard guard(&gShards[ShardOf(hash)].Section);
                Apply(RecordType::kSet, hash, view, {key + item.KeyLength, item.ValueLength}, item.Expire);
            }
            at += size;
        }
        Guard guard(&gJob.Section);
        gJob.Keys += keys;
    }
}

// A batch's records, each as (header, first item).
template <typename Visit>
void VisitRecords(const char *batch, Visit visit) {
    BatchHeader header;
    std::memcpy(&header, batch, sizeof header);
    const char *record = batch + sizeof header;
    for (uint32_t i = 0; i < header.Count; i++) {
        RecordHeader head;
        std::memcpy(&head, record, sizeof head);
        visit(head, record + sizeof head);
        record += head.Length;
    }
}

// Whether the record is of a known type and its items fill it: a checksum says only that it is what was written.
bool IsSound(const RecordHeader &record, const char *item) {
    uint64_t left = record.Length - sizeof record;
    for (uint32_t i = 0; i < record.Items; i++) {
        ItemHeader head;
        if (left < sizeof head) return false;
        std::memcpy(&head, item, sizeof head);
        const uint64_t size = sizeof head + uint64_t{head.KeyLength} + head.ValueLength;
        if (left < size) return false;
        item += size;
        left -= size;
    }
    return left == 0 && record.Type >= RecordType::kSet && record.Type <= RecordType::kFlush;
}

void ApplyRecords(uint32_t slave) {
    for (size_t at = gJob.Begin; at < gJob.End;) {
        BatchHeader batch;
        std::memcpy(&batch, gJob.Records + at, sizeof batch);
        VisitRecords(gJob.Records + at, [&](const RecordHeader &record, const char *item) {
            if (record.Type == RecordType::kFlush) {
                for (uint32_t s = slave; s < kShards; s += kSlaves) {
                    Contents all = TakeContents(&gShards[s], 0);
                    FreeContents(&all);
                }
                return;
            }
            for (uint32_t i = 0; i < record.Items; i++) {
                ItemHeader head;
                std::memcpy(&head, item, sizeof head);
                const char *const key = item + sizeof head;
                const std::string_view view(key, head.KeyLength);
                const uint64_t hash = HashKey(view);
                if (ShardOf(hash) % kSlaves == slave) {
                    Apply(record.Type, hash, view, {key + head.KeyLength, head.ValueLength}, head.Expire);
                }
                item = key + head.KeyLength + head.ValueLength;
            }
        });
        at += RoundUp(sizeof batch + batch.Bytes, kLogAlign);
        GiveWay();
    }
}

DWORD WINAPI Slave(LPVOID argument) {
    static const char *const kTags[kSlaves] = {"P000", "P001", "P002", "P003"};
    const auto index = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    IdentifyUserThread(kTags[index], gJob.Slaves[index]);
    for (bool end = false; !end;) {
        // The last word about the job: who is not counted any more may not read it.
        if (gJob.Busy.fetch_sub(1) == 1) PostUserThread(gJob.Main);
        WaitForUserThreadPost(gJob.Slaves[index], INFINITE);
        switch (gJob.What) {
            case Job::Kind::kRuns: ApplyRuns(); break;
            case Job::Kind::kRecords: ApplyRecords(index); break;
            case Job::Kind::kEnd: end = true; break;
        }
    }
    UnidentifyUserThread(0);
    if (gJob.Busy.fetch_sub(1) == 1) PostUserThread(gJob.Main);
    return 0;
}

void AwaitSlaves() {
    while (gJob.Busy.load() != 0) WaitForUserThreadPost(gJob.Main, INFINITE);
}

void RunJob(Job::Kind what) {
    gJob.What = what;
    gJob.Busy = kSlaves;
    PostMultipleUserThreads(gJob.Slaves);
    AwaitSlaves();
}

// ---- The log -----------------------------------------------------------------------------------------

struct SegmentFile {
    std::string Name;
    SegmentHeader Header{};
    Slot Opened;
};

std::vector<SegmentFile> OpenSegments() {
    std::vector<SegmentFile> files;
    for (uint32_t slot = 0, missing = 0; missing < 64; slot++) {
        SegmentFile file;
        file.Name = SegmentName(slot);
        file.Opened.File = nullptr;
        const bool writeThrough = gOptions.Sync == Durability::kAlways;
        if (!std::filesystem::exists(PathOf(file.Name))) {
            missing++;
            files.push_back(file);
            continue;
        }
        missing = 0;
        file.Opened.File = OpenForBlocks(file.Name, OPEN_EXISTING, writeThrough);
        if (file.Opened.File == INVALID_HANDLE_VALUE) {
            Refuse("%s: %s", PathOf(file.Name).c_str(), ReasonOf(GetLastError()).c_str());
        }
        LARGE_INTEGER size{};
        if (!GetFileSizeEx(file.Opened.File, &size)) Damaged(file.Name, 0, ReasonOf(GetLastError()).c_str());
        size_t got = 0;
        const DWORD error =
            ReadBlocks(file.Opened.File, 0, reinterpret_cast<char *>(&file.Header), sizeof file.Header, &got);
        if (error != ERROR_SUCCESS) Damaged(file.Name, 0, ReasonOf(error).c_str());
        const bool good = got == sizeof file.Header && file.Header.Magic == kSegmentMagic &&
                          file.Header.Crc == HeaderCrc(file.Header) &&
                          static_cast<uint64_t>(size.QuadPart) % kLogBlock == 0;
        if (!good) Damaged(file.Name, 0, "damaged header of a log segment");
        file.Opened.Bytes = static_cast<uint64_t>(size.QuadPart);
        file.Opened.Number = file.Header.Number;
        files.push_back(file);
    }
    while (!files.empty() && files.back().Opened.File == nullptr) files.pop_back();
    return files;
}

// Refuses when something in data[from, size) says that the record after `seq` had been durable: then what was found at
// `offset` is no torn end.
void LookForLater(const std::vector<char> &data, size_t from, const LogStart &log, const std::string &name,
                  uint64_t offset, const std::string &where) {
    for (size_t at = RoundUp(from, kLogAlign); at + sizeof(BatchHeader) <= data.size(); at += kLogAlign) {
        BatchHeader header;
        std::memcpy(&header, data.data() + at, sizeof header);
        if (header.Magic != kBatchMagic || !CheckBatchHeader(data.data() + at, log.LogId)) continue;
        if (header.Durable <= log.End.Seq) continue;
        const std::string text = "damaged record, and the log goes on at offset " + std::to_string(at) + " of " + where;
        Damaged(name, offset, text.c_str());
    }
}

void ReadSegment(const SegmentFile &file, std::vector<char> *data) {
    data->resize(file.Opened.Bytes);
    size_t got = 0;
    const DWORD error = ReadBlocks(file.Opened.File, 0, data->data(), data->size(), &got);
    if (error != ERROR_SUCCESS) Damaged(file.Name, got, ReasonOf(error).c_str());
    if (got != data->size()) Damaged(file.Name, got, "the file ends here");
}

void ReplayLog(const std::vector<SegmentFile> &files, Recovered *result) {
    LogStart &log = result->Log;
    std::vector<char> data;
    size_t bad = 0;
    const SegmentFile *current = nullptr;
    for (;;) {
        current = nullptr;
        for (const SegmentFile &file : files) {
            if (file.Opened.File != nullptr && file.Header.Number == log.End.Segment) current = &file;
        }
        if (current == nullptr)
            Refuse("%s: log segment %llu is missing", gOptions.Dir.c_str(),
                   static_cast<unsigned long long>(log.End.Segment));
        ReadSegment(*current, &data);
        size_t at = log.End.Offset;
        if (at < kLogBlock || at > data.size() || at % kLogAlign != 0) {
            Damaged(CheckpointName(), 0, "it begins where no batch can");
        }
        gJob.Records = data.data();
        gJob.Begin = at;
        for (;;) {
            const size_t size = CheckBatch(data.data() + at, data.size() - at, log.LogId, log.End.Previous, &bad);
            if (size == 0) break;
            BatchHeader header;
            std::memcpy(&header, data.data() + at, sizeof header);
            bool sound = true;
            VisitRecords(data.data() + at, [&](const RecordHeader &record, const char *item) {
                sound = sound && IsSound(record, item);
            });
            if (!sound) Damaged(current->Name, at, "a record that its items do not fill");
            log.End.Previous = header.Crc;
            if (header.Count != 0) log.End.Seq = header.First + header.Count - 1;
            result->Records += header.Count;
            at += size;
        }
        gJob.End = log.End.Offset = at;
        RunJob(Job::Kind::kRecords);
        const SegmentFile *next = nullptr;
        for (const SegmentFile &file : files) {
            const bool follows = file.Header.Number == log.End.Segment + 1 && file.Header.LogId == log.LogId &&
                                 file.Header.Previous == log.End.Previous;
            if (file.Opened.File != nullptr && follows) next = &file;
        }
        if (next == nullptr) break;
        log.End.Segment++;
        log.End.Offset = kLogBlock;
    }
    const size_t end = log.End.Offset;
    LookForLater(data, end + 1, log, current->Name, end + bad, current->Name);
    if (end + sizeof(BatchHeader) <= data.size() && CheckBatchHeader(data.data() + end, log.LogId)) {
        BatchHeader header;
        std::memcpy(&header, data.data() + end, sizeof header);
        if (header.Previous == log.End.Previous) result->CutBytes = header.Bytes;
    }
    log.Tail.assign(data.data() + end - end % kLogBlock, end % kLogBlock);
    // What an earlier process was told had failed lies clean in the system's memory, where a flush passes it over: it
    // is written anew. Older segments were durable before this one was begun.
    const DWORD error = WriteBlocks(current->Opened.File, 0, data.data(), RoundUp(end, kLogBlock), 1 << 20);
    if (error != ERROR_SUCCESS) Damaged(current->Name, 0, ReasonOf(error).c_str());
    for (const SegmentFile &file : files) {
        if (file.Opened.File == nullptr || file.Header.Number <= log.End.Segment) continue;
        if (file.Header.LogId == log.LogId && file.Header.Durable > log.End.Seq) {
            Damaged(current->Name, end + bad, ("damaged record, and the log goes on in " + file.Name).c_str());
        }
        ReadSegment(file, &data);
        LookForLater(data, kLogBlock, log, current->Name, end + bad, file.Name);
    }
}

// What was read may be in the system's memory alone, as a process leaves it that was killed between a write and its end
// on the medium. The server goes on from it as from what is durable, so that it must be: the segments in use, and the
// names in the folder, which moving one onto itself makes durable.
void MakeDurable(const std::vector<SegmentFile> &files, const LogPosition &end) {
    std::string name = gJob.Checkpoint.Pages != 0 ? CheckpointName() : std::string();
    for (const SegmentFile &file : files) {
        const uint64_t number = file.Opened.Number;
        if (file.Opened.File == nullptr) continue;
        name = file.Name;
        if (number < std::max<uint64_t>(gJob.Checkpoint.Begin.Segment, 1) || number > end.Segment) continue;
        if (!FlushFileBuffers(file.Opened.File)) Damaged(name, 0, ReasonOf(GetLastError()).c_str());
    }
    const std::string path = PathOf(name);
    const DWORD error = name.empty() ? DWORD{ERROR_SUCCESS} : RunBlocking([&path] {
        constexpr DWORD kHow = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
        return MoveFileExA(path.c_str(), path.c_str(), kHow) ? DWORD{ERROR_SUCCESS} : GetLastError();
    });
    if (error != ERROR_SUCCESS) Refuse("%s: %s", gOptions.Dir.c_str(), ReasonOf(error).c_str());
}

// ---- The checkpoint ----------------------------------------------------------------------------------

bool OpenCheckpoint() {
    const char *const name = CheckpointName();
    gJob.File = OpenForBlocks(name, OPEN_EXISTING, false);
    if (gJob.File == INVALID_HANDLE_VALUE) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) return false;
        Refuse("%s: %s", PathOf(name).c_str(), ReasonOf(GetLastError()).c_str());
    }
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(gJob.File, &size)) Damaged(name, 0, ReasonOf(GetLastError()).c_str());
    gJob.FilePages = static_cast<uint64_t>(size.QuadPart) / kPage;
    std::vector<char> page(kPage);
    size_t got = 0;
    const DWORD error = ReadBlocks(gJob.File, 0, page.data(), kPage, &got);
    if (error != ERROR_SUCCESS) Damaged(name, 0, ReasonOf(error).c_str());
    const char *const wrong = got < kPage ? "the file ends here" : CheckPage(page.data(), 0, 0);
    if (wrong != nullptr) Damaged(name, 0, wrong);
    PageHeader header;
    std::memcpy(&header, page.data(), sizeof header);
    std::memcpy(&gJob.Checkpoint, page.data() + sizeof header, sizeof gJob.Checkpoint);
    gJob.CheckpointId = header.Checkpoint;
    return true;
}

}  // namespace

bool CheckBatchHeader(const char *data, uint64_t logId) {
    BatchHeader header;
    std::memcpy(&header, data, sizeof header);
    return header.Magic == kBatchMagic && header.LogId == logId && header.Crc == HeaderCrc(header);
}

uint32_t CheckRecord(const char *data, size_t size) {
    RecordHeader header;
    if (size < sizeof header) return 0;
    std::memcpy(&header, data, sizeof header);
    if (header.Length < sizeof header || header.Length > size) return 0;
    uint32_t crc = Crc32c(0, data + sizeof header, header.Length - sizeof header);
    crc = Crc32c(crc, &header.Seq, sizeof header - offsetof(RecordHeader, Seq));
    crc = Crc32c(crc, &header.Length, sizeof header.Length);
    return crc == header.Crc ? header.Length : 0;
}

size_t CheckBatch(const char *data, size_t size, uint64_t logId, uint32_t previous, size_t *bad) {
    *bad = 0;
    if (size < sizeof(BatchHeader) || !CheckBatchHeader(data, logId)) return 0;
    BatchHeader header;
    std::memcpy(&header, data, sizeof header);
    const size_t whole = sizeof header + header.Bytes;
    if (header.Previous != previous || whole > size) return 0;
    size_t at = sizeof header;
    uint32_t crc = 0;
    for (uint32_t i = 0; i < header.Count; i++) {
        *bad = at;
        const uint32_t length = CheckRecord(data + at, whole - at);
        if (length == 0) return 0;
        crc = Crc32c(crc, data + at + offsetof(RecordHeader, Crc), sizeof(uint32_t));
        at += length;
    }
    *bad = 0;
    return at == whole && crc == header.RecordsCrc ? RoundUp(whole, kLogAlign) : 0;
}

Recovered RecoverDatabase() {
    Recovered result;
    InitializeCriticalSection(&gJob.Section);
    std::error_code ignored;
    std::filesystem::remove(PathOf(std::string(CheckpointName()) + ".new"), ignored);
    gJob.Main = MakePostEvent();
    IdentifyUserThread("MAIN", gJob.Main);
    gJob.Busy = kSlaves;
    for (uint32_t i = 0; i < kSlaves; i++) {
        gJob.Slaves[i] = MakePostEvent();
        const HANDLE thread =
            CreateThread(nullptr, 0, Slave, reinterpret_cast<LPVOID>(static_cast<uintptr_t>(i)), 0, nullptr);
        if (thread == nullptr) Refuse("no thread for recovery: %s", ReasonOf(GetLastError()).c_str());
        CloseHandle(thread);
    }
    // A thread is posted only once it has said who it is.
    AwaitSlaves();
    const std::vector<SegmentFile> files = OpenSegments();
    LogStart &log = result.Log;
    uint64_t lowest = 0;
    for (const SegmentFile &file : files) {
        if (file.Opened.File == nullptr) continue;
        if (log.LogId == 0) log.LogId = file.Header.LogId;
        if (file.Header.LogId != log.LogId) Damaged(file.Name, 0, "a log segment of another database");
        if (file.Header.Number != 0 && (lowest == 0 || file.Header.Number < lowest)) lowest = file.Header.Number;
    }
    if (OpenCheckpoint()) {
        if (log.LogId != 0 && gJob.Checkpoint.LogId != log.LogId) {
            Damaged(CheckpointName(), 0, "a checkpoint of another database than the log");
        }
        log.LogId = gJob.Checkpoint.LogId;
        RunJob(Job::Kind::kRuns);
        if (gJob.Keys != gJob.Checkpoint.Keys) Damaged(CheckpointName(), 0, "keys are missing");
        CloseHandle(gJob.File);
        result.CheckpointKeys = gJob.Keys;
        log.End = gJob.Checkpoint.Begin;
        ReplayLog(files, &result);
    } else if (lowest != 0) {
        log.End = LogPosition{1, kLogBlock, 0, 0};
        if (lowest != 1) Refuse("%s: %s is missing", gOptions.Dir.c_str(), CheckpointName());
        ReplayLog(files, &result);
    } else if (log.LogId == 0) {
        log.LogId = RandomNumber() | 1;
    }
    MakeDurable(files, log.End);
    RunJob(Job::Kind::kEnd);
    UnidentifyUserThread(0);
    for (const SegmentFile &file : files) {
        Slot slot = file.Opened;
        // A segment before the checkpoint, or one that was begun and lost with the end of the log, is free.
        if (slot.Number > log.End.Segment || slot.Number < gJob.Checkpoint.Begin.Segment) slot.Number = 0;
        log.Slots.push_back(slot);
    }
    return result;
}

}  // namespace host
