// tests/fuzz/recovery_fuzz.cpp - the server's recovery, on a log and a checkpoint that are not as they were written.
//
// The input first says what a history of batches is, from which a log of a few small segments is made, and perhaps a
// checkpoint in the middle of it. Then the files are changed. Either as a medium changes them: single bytes, a block
// that was never written, a file that is gone; then recovery must refuse, or show the state after a whole number of
// batches, with every record that anything intact in the files says was durable. Or as an enemy changes them: words
// and bytes anywhere, checksums put right afterwards; then it must end, whatever it says.
//
// Recovery's own file is compiled here, so that its refusal ends the run of an input and not the process.
#include "host/recovery.h"

#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "fuzz/started.h"
#include "host/fileio.h"

namespace host {
namespace {

struct Refused {};
bool gRefused;
uint32_t gAlive;
std::set<HANDLE> gFiles;

[[noreturn]] __attribute__((format(printf, 1, 2))) void RefuseHere(const char *format, ...) {
    fuzz::Require(*format != 0, "a refusal without a reason");
    gRefused = true;
    throw Refused{};
}

using Work = std::pair<LPTHREAD_START_ROUTINE, LPVOID>;
void WakeMain();
DWORD WINAPI SlaveHere(LPVOID argument) {
    const std::unique_ptr<Work> work(static_cast<Work *>(argument));
    try {
        work->first(work->second);
    } catch (const Refused &) {
        UnidentifyUserThread(0);
        WakeMain();
    }
    gAlive--;
    return 0;
}
HANDLE StartSlave(LPTHREAD_START_ROUTINE routine, LPVOID argument) {
    gAlive++;
    return CreateThread(nullptr, 0, SlaveHere, new Work(routine, argument), 0, nullptr);
}

// Who waits when somebody has refused goes the same way.
void WaitHere(HANDLE event, DWORD ms) {
    if (!gRefused) WaitForUserThreadPost(event, ms);
    if (gRefused) throw Refused{};
}

HANDLE OpenHere(const std::string &name, DWORD disposition, bool writeThrough) {
    const HANDLE file = OpenForBlocks(name, disposition, writeThrough);
    if (file != INVALID_HANDLE_VALUE) gFiles.insert(file);
    return file;
}
void CloseHere(HANDLE handle) {
    gFiles.erase(handle);
    CloseHandle(handle);
}

}  // namespace
}  // namespace host

#define Refuse RefuseHere
#define WaitForUserThreadPost WaitHere
#define OpenForBlocks OpenHere
#define CloseHandle CloseHere
#define CreateThread(security, stack, routine, argument, flags, id) StartSlave(routine, argument)
#include "host/recovery.cpp"
#undef CloseHandle

namespace host {
namespace {

void WakeMain() {
    PostUserThread(gJob.Main);
}

using State = std::map<std::string, std::string>;
constexpr uint64_t kLogId = 0x1122334455667789, kCheckpointId = 77;
constexpr size_t kSegment = 2 * kLogBlock;

std::string_view Raw(const auto &pod) {
    return {reinterpret_cast<const char *>(&pod), sizeof pod};
}
template <typename Pod>
Pod At(const std::string &bytes, size_t at) {
    Pod pod;
    std::memcpy(&pod, bytes.data() + at, sizeof pod);
    return pod;
}
void PutAt(std::string *bytes, size_t at, const auto &pod) {
    std::memcpy(bytes->data() + at, &pod, sizeof pod);
}

// Puts every checksum right, and the chain of a segment's batches, whose last checksum it returns.
uint32_t Seal(std::string *file, bool checkpoint) {
    for (size_t at = 0; checkpoint && at + kPage <= file->size(); at += kPage)
        PutAt(file, at + 4, Crc32c(0, file->data() + at + 8, kPage - 8));
    if (checkpoint) return 0;
    const auto segment = At<SegmentHeader>(*file, 0);
    PutAt(file, 4, HeaderCrc(segment));
    uint32_t previous = segment.Previous;
    for (size_t at = kLogBlock; at + sizeof(BatchHeader) <= file->size();) {
        auto batch = At<BatchHeader>(*file, at);
        if (batch.Magic != kBatchMagic) break;
        size_t place = at + sizeof batch;
        batch.RecordsCrc = 0;
        for (uint32_t i = 0; i < batch.Count && place + sizeof(RecordHeader) <= file->size(); i++) {
            const auto record = At<RecordHeader>(*file, place);
            if (record.Length < sizeof record || record.Length > file->size() - place) break;
            uint32_t crc = Crc32c(0, file->data() + place + sizeof record, record.Length - sizeof record);
            crc = Crc32c(Crc32c(crc, &record.Seq, 16), &record.Length, 4);
            PutAt(file, place + offsetof(RecordHeader, Crc), crc);
            batch.RecordsCrc = Crc32c(batch.RecordsCrc, &crc, 4);
            place += record.Length;
        }
        batch.Previous = previous;
        previous = batch.Crc = HeaderCrc(batch);
        PutAt(file, at, batch);
        at += RoundUp(sizeof batch + batch.Bytes, kLogAlign);
    }
    return previous;
}

struct History {
    State Files;                        // by name
    std::vector<std::string> Segments;  // names, in order
    std::map<uint64_t, State> States;   // after each batch, by its last record
    uint64_t Seq = 0;
    uint32_t Previous = 0;
    State Now;
};

std::string ItemOf(const std::string &key, const std::string &value) {
    const ItemHeader item{static_cast<uint32_t>(key.size()), static_cast<uint32_t>(value.size()), kNever};
    return std::string(Raw(item)) + key + value;
}

// A batch of up to four records of small keys; the largest one just fits into a segment.
void AddBatch(History *h, fuzz::Input *input, uint64_t durable) {
    std::string body;
    BatchHeader header{};
    header.Magic = kBatchMagic;
    header.LogId = kLogId;
    header.First = h->Seq + 1;
    header.Durable = durable;
    header.Count = 1 + input->Byte() % 4u;
    for (uint32_t i = 0; i < header.Count; i++) {
        const uint8_t what = input->Byte();
        RecordHeader record{sizeof record, 0, ++h->Seq, RecordType::kSet, 0};
        std::string items;
        const bool flush = what % 16 == 15, set = what % 4 != 3;
        record.Type = flush ? RecordType::kFlush : set ? RecordType::kSet : RecordType::kDelete;
        record.Items = flush ? 0 : 1 + what / 64u;
        if (flush) h->Now.clear();
        for (uint32_t k = 0; k < record.Items; k++) {
            const std::string key(1 + (what + k) % 3u, static_cast<char>('a' + (what / 16u + k) % 4u));
            const std::string value(set ? (what % 8 == 4 ? 190 : what % 32u) : 0, static_cast<char>('0' + h->Seq % 10));
            items += ItemOf(key, value);
            h->Now.erase(key);
            if (set) h->Now[key] = value;
        }
        record.Length += static_cast<uint32_t>(items.size());
        body.append(Raw(record)).append(items);
    }
    header.Bytes = static_cast<uint32_t>(body.size());
    const size_t size = RoundUp(sizeof header + body.size(), kLogAlign);
    if (h->Segments.empty() || h->Files[h->Segments.back()].size() + size > kSegment) {
        h->Segments.push_back(SegmentName(static_cast<uint32_t>(h->Segments.size())));
        const SegmentHeader segment{kSegmentMagic, 0, kLogId, h->Segments.size(), durable, h->Previous, 0};
        h->Files[h->Segments.back()] = std::string(Raw(segment)).append(kLogBlock - sizeof segment, '\0');
    }
    std::string &file = h->Files[h->Segments.back()];
    file.append(Raw(header)).append(body);
    file.resize(RoundUp(file.size(), kLogAlign));
    h->Previous = Seal(&file, false);
    h->States[h->Seq] = h->Now;
}

void AddCheckpoint(History *h) {
    std::string items;
    for (const auto &[key, value] : h->Now) items += ItemOf(key, value);
    const auto pages = static_cast<uint32_t>((items.size() + kPagePayload - 1) / kPagePayload);
    const LogPosition begin{h->Segments.size(), h->Files[h->Segments.back()].size(), h->Seq, h->Previous};
    const CheckpointHeader header{kLogId, pages + 1, h->Now.size(), begin};
    std::string file((pages + 1) * kPage, 0);
    PutAt(&file, sizeof(PageHeader), header);
    SealPage(file.data(), kCheckpointId, 0, 1, 0, sizeof header);
    for (uint32_t i = 0; i < pages; i++) {
        const std::string part = items.substr(i * kPagePayload, kPagePayload);
        part.copy(file.data() + (i + 1) * kPage + sizeof(PageHeader), part.size());
        SealPage(file.data() + (i + 1) * kPage, kCheckpointId, i + 1, pages, i, static_cast<uint32_t>(part.size()));
    }
    h->Files[CheckpointName()] = file;
}

// What the headers that are still whole say to have been durable.
uint64_t DurableBy(const History &h) {
    uint64_t durable = 0;
    for (const auto &[name, file] : h.Files) {
        if (name == CheckpointName()) continue;
        durable = std::max(durable, At<SegmentHeader>(file, 0).Durable);
        for (size_t at = kLogBlock; at + sizeof(BatchHeader) <= file.size(); at += kLogAlign)
            if (CheckBatchHeader(file.data() + at, kLogId))
                durable = std::max(durable, At<BatchHeader>(file, at).Durable);
    }
    return durable;
}

bool Recover(Recovered *result) {
    gRefused = false;
    gJob.NextPage = 1;
    gJob.Keys = 0;
    gJob.Checkpoint = {};
    try {
        *result = RecoverDatabase();
    } catch (const Refused &) {
        for (const HANDLE slave : gJob.Slaves)
            if (slave != nullptr) PostUserThread(slave);
        UnidentifyUserThread(0);
    }
    for (uint32_t i = 0; gAlive != 0; i++) {
        fuzz::Require(i < 10000, "a slave that does not end", gAlive);
        Sleep(i < 100 ? 0 : 1);
    }
    for (HANDLE &event : gJob.Slaves) {
        if (event != nullptr) CloseHandle(event);
        event = nullptr;
    }
    CloseHandle(gJob.Main);
    DeleteCriticalSection(&gJob.Section);
    for (const HANDLE file : gFiles) CloseHandle(file);
    gFiles.clear();
    return !gRefused;
}

State Contained() {
    State state;
    for (Shard &shard : gShards) {
        Contents all = TakeContents(&shard, 0);
        for (uint64_t i = 0; all.Buckets != nullptr && i < uint64_t{1} << all.Bits; i++)
            for (const Entry *e = all.Buckets[i]; e != nullptr; e = e->Next)
                state[std::string(e->Key())] = e->Val->View();
        FreeContents(&all);
    }
    return state;
}

void RunInput(fuzz::Input input) {
    // The sections belong to user threads, so they are made by one.
    if (gShards[0].Buckets == nullptr) InitKeyspace();
    const uint8_t how = input.Byte();
    const bool forged = (how & 1) != 0;
    History h;
    h.States[0] = {};
    uint64_t durable = 0, checkpointSeq = 0;
    const uint32_t batches = input.Byte() % 12u;
    const uint32_t checkpoint = (how & 2) != 0 ? 1 + input.Byte() % 12u : 0;
    for (uint32_t i = 1; i <= batches; i++) {
        // The writer names what its last write made durable; without one write a batch, older ones.
        const uint64_t before = h.Seq;
        AddBatch(&h, &input, durable);
        durable = (how & 4) == 0 ? h.Seq : i % 3 == 0 ? before : durable;
        if (i == checkpoint) AddCheckpoint(&h);
    }
    for (const std::string &name : h.Segments) h.Files[name].resize(kSegment);
    if (h.Files.count(CheckpointName()) != 0) {
        const LogPosition begin = At<CheckpointHeader>(h.Files[CheckpointName()], sizeof(PageHeader)).Begin;
        checkpointSeq = begin.Seq;
        // What a checkpoint covers may be gone.
        for (uint64_t i = 1; (how & 8) != 0 && i < begin.Segment; i++) h.Files.erase(h.Segments[i - 1]);
    }
    bool gone = false;
    uint32_t changes = 0;
    for (; !input.Empty() && !h.Files.empty() && changes < (forged ? 8 : 3); changes++) {
        const uint8_t what = input.Byte();
        auto victim = std::next(h.Files.begin(), what % static_cast<int>(h.Files.size()));
        std::string &file = victim->second;
        const size_t at = input.Number(2) % file.size();
        if (!forged && what >= 0xF0) {
            gone = true;
            h.Files.erase(victim);
        } else if (!forged && what >= 0xD0) {
            std::memset(file.data() + at / 512 * 512, 0, 512);
        } else if (!forged) {
            file[at] = static_cast<char>(file[at] ^ (1 << (input.Byte() % 8)));
        } else if (what >= 0xE0) {
            file.resize(RoundUp(at, what >= 0xF0 ? 1 : kLogBlock));
            file.resize(std::max<size_t>(file.size(), kLogBlock));
        } else if (what >= 0x80) {
            const std::string_view bytes = input.Bytes(std::min<size_t>(file.size() - at, what - 0x7Fu));
            bytes.copy(file.data() + at, bytes.size());
        } else {
            const uint32_t width = what % 2 == 0 ? 4 : 8;
            const uint64_t word = input.Number(width);
            std::memcpy(file.data() + at / 4 * 4, &word, std::min<size_t>(file.size() - at / 4 * 4, width));
        }
    }
    std::filesystem::remove_all(gOptions.Dir);
    std::filesystem::create_directories(gOptions.Dir);
    for (auto &[name, file] : h.Files) {
        if (forged && file.size() >= kLogBlock) Seal(&file, name == CheckpointName());
        std::ofstream(PathOf(name), std::ios::binary) << file;
    }

    Recovered result;
    const bool good = Recover(&result);
    const State state = Contained();
    fuzz::Require(good || changes != 0, "a whole log is refused");
    if (!good || forged) return;
    const uint64_t end = result.Log.End.Seq;
    // A checkpoint that is gone takes what says so with it, when the log from its beginning is there.
    fuzz::Require(end >= DurableBy(h), "a durable record is lost", end, DurableBy(h));
    if (!gone) fuzz::Require(end >= checkpointSeq, "a checkpoint is lost", end, checkpointSeq);
    if (changes == 0) fuzz::Require(end == h.Seq, "a whole log is not recovered", end, h.Seq);
    fuzz::Require(h.States.count(end) != 0, "half a batch", end);
    fuzz::Require(state == h.States[end], "another state", end, state.size());
}

}  // namespace
}  // namespace host

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace host;
    if (gOptions.Dir == ".") {
        gOptions.Dir = fuzz::Scratch("recovery");
        gOptions.Sync = Durability::kNo;
    }
    fuzz::RunStarted(RunInput, data, size);
    return 0;
}
