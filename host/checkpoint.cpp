// host/checkpoint.cpp - the database writers.
//
// "DBW0" leads: it opens the file, calls "DBW1", and both take one shard after another, copy its entries in small steps
// with the shard's section held, and write runs of pages side by side. Sessions go on meanwhile. Neither runs anything
// of a session, and neither holds a section while it writes.
#include "checkpoint.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "fileio.h"

namespace host {

namespace {

constexpr uint32_t kWriters = 2;
constexpr size_t kWriteStep = 8 * kPage;  // one operation; up to sixteen are in flight
constexpr size_t kCopyBytes = 128 << 10;  // copied at most (a bucket more) in one stay in a section
constexpr uint32_t kCopyKeys = 256;

struct Writers {
    HANDLE Events[kWriters] = {};  // init
    uint64_t LogId = 0;            // init
    HANDLE File = nullptr;         // the leader's, while Running
    uint64_t Id = 0;               // the leader's
    std::atomic<bool> Running{false};
    std::atomic<bool> Helping{false};  // DBW1 has part in it; it clears the word when it is through
    std::atomic<bool> Wanted{false};
    std::atomic<bool> SpareWanted{false};
    std::atomic<uint64_t> Growth{0};  // bytes of log since the last one began
    std::atomic<uint32_t> NextShard{0};
    std::atomic<uint64_t> NextPage{1};
    std::atomic<uint64_t> Keys{0};
    std::atomic<DWORD> Error{0};
};
Writers gWriters;

// A run under construction: pages with room for their headers.
struct Run {
    std::vector<char> Pages;
    size_t Used = 0;  // payload bytes
    uint32_t Keys = 0;

    size_t Room() const { return Pages.size() / kPage * kPagePayload - Used; }
    void Put(const void *data, size_t size) {
        const char *from = static_cast<const char *>(data);
        while (size != 0) {
            const size_t within = Used % kPagePayload;
            const size_t now = size < kPagePayload - within ? size : kPagePayload - within;
            std::memcpy(Pages.data() + Used / kPagePayload * kPage + sizeof(PageHeader) + within, from, now);
            Used += now;
            from += now;
            size -= now;
        }
    }
};

void WriteRun(Run *run) {
    if (run->Used == 0 || gWriters.Error.load() != ERROR_SUCCESS) {
        run->Used = run->Keys = 0;
        return;
    }
    const auto pages = static_cast<uint32_t>((run->Used + kPagePayload - 1) / kPagePayload);
    const uint64_t first = gWriters.NextPage.fetch_add(pages);
    for (uint32_t i = 0; i < pages; i++) {
        const size_t left = run->Used - i * kPagePayload;
        const auto used = static_cast<uint32_t>(left < kPagePayload ? left : kPagePayload);
        char *page = run->Pages.data() + i * kPage;
        std::memset(page + sizeof(PageHeader) + used, 0, kPagePayload - used);
        SealPage(page, gWriters.Id, static_cast<uint32_t>(first + i), pages, i, used);
    }
    const DWORD error = WriteBlocks(gWriters.File, first * kPage, run->Pages.data(), pages * kPage, kWriteStep);
    if (error != ERROR_SUCCESS) gWriters.Error = error;
    gWriters.Keys.fetch_add(run->Keys);
    run->Used = run->Keys = 0;
}

struct Copied {
    std::string Key;
    Value *Val;
    int64_t Expire;
};

void Put(Run *run, const Copied &item) {
    const ItemHeader header{static_cast<uint32_t>(item.Key.size()), item.Val->Length, item.Expire};
    const size_t size = sizeof header + item.Key.size() + item.Val->Length;
    if (run->Room() < size) WriteRun(run);
    Run large;
    Run *to = run;
    if (run->Room() < size) {
        large.Pages.resize((size + kPagePayload - 1) / kPagePayload * kPage);
        to = &large;
    }
    to->Put(&header, sizeof header);
    to->Put(item.Key.data(), item.Key.size());
    to->Put(item.Val->Bytes(), item.Val->Length);
    to->Keys++;
    if (to == &large) WriteRun(&large);
}

// One shard after another until none is left.
void CopyShards() {
    Run run;
    run.Pages.resize(kRunPages * kPage);
    std::vector<Copied> items;
    for (;;) {
        const uint32_t index = gWriters.NextShard.fetch_add(1);
        if (index >= kShards) break;
        Shard *const shard = &gShards[index];
        uint64_t position = uint64_t{index} << (64 - kShardBits);
        for (bool done = false; !done;) {
            size_t bytes = 0;
            {
                Guard guard(&shard->Section);
                position = VisitShard(
                    shard, position,
                    [&](const Entry *entry) {
                        items.push_back(Copied{std::string(entry->Key()), Share(entry->Val), entry->Expire});
                        bytes += entry->Length + entry->Val->Length;
                    },
                    [&] { return bytes >= kCopyBytes || items.size() >= kCopyKeys; }, &done);
            }
            for (const Copied &item : items) {
                Put(&run, item);
                Release(item.Val);
            }
            items.clear();
            Sleep(0);
        }
    }
    WriteRun(&run);
}

// What the copies show must be durable before the checkpoint is; records that were taken back while it ran may be in
// it, and then it counts for nothing.
DWORD FinishCheckpoint(const LogPosition &begin, uint64_t refused, Waiter *waiter) {
    const DWORD lost = SyncLog(waiter);
    if (lost != ERROR_SUCCESS) return lost;
    if (RefusedCount() != refused) return ERROR_OPERATION_ABORTED;
    std::vector<char> page(kPage);
    const CheckpointHeader header{gWriters.LogId, gWriters.NextPage.load(), gWriters.Keys.load(), begin};
    std::memcpy(page.data() + sizeof(PageHeader), &header, sizeof header);
    SealPage(page.data(), gWriters.Id, 0, 1, 0, sizeof header);
    const DWORD error = WriteBlocks(gWriters.File, 0, page.data(), kPage, kPage);
    if (error != ERROR_SUCCESS) return error;
    if (!FlushFileBuffers(gWriters.File)) return GetLastError();
    return RunBlocking([] {
        const std::string name = PathOf(CheckpointName());
        return MoveFileExA((name + ".new").c_str(), name.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
                   ? DWORD{ERROR_SUCCESS}
                   : GetLastError();
    });
}

// The leader's.
void MakeCheckpoint(Waiter *waiter) {
    const std::string fresh = std::string(CheckpointName()) + ".new";
    const uint64_t refused = RefusedCount();
    const LogPosition begin = DurableEnd();
    gWriters.Growth = 0;
    gWriters.Id = RandomNumber() | 1;
    gWriters.NextShard = 0;
    gWriters.NextPage = 1;
    gWriters.Keys = 0;
    gWriters.Error = ERROR_SUCCESS;
    gWriters.File = OpenForBlocks(fresh, CREATE_ALWAYS, false);
    if (gWriters.File == INVALID_HANDLE_VALUE) {
        gWriters.Error = GetLastError();
    } else {
        gWriters.Helping = true;
        gWriters.Running = true;
        PostUserThread(gWriters.Events[1]);
        CopyShards();
        while (gWriters.Helping.load()) WaitForUserThreadPost(gWriters.Events[0], 1000);
        if (gWriters.Error.load() == ERROR_SUCCESS) gWriters.Error = FinishCheckpoint(begin, refused, waiter);
        CloseHandle(gWriters.File);
        gWriters.Running = false;
    }
    const DWORD error = gWriters.Error.load();
    if (error == ERROR_SUCCESS) {
        ReleaseSegments(begin.Segment);
        Count(gCounters.Checkpoints);
        return;
    }
    DeleteFileA(PathOf(fresh).c_str());
    std::fprintf(stderr, "keyhost: no checkpoint: %s\n",
                 error == ERROR_OPERATION_ABORTED ? "writes were refused meanwhile" : ReasonOf(error).c_str());
}

}  // namespace

void SealPage(char *page, uint64_t checkpoint, uint32_t number, uint32_t runPages, uint32_t index, uint32_t used) {
    PageHeader header{kPageMagic, 0, checkpoint, number, runPages, index, used};
    std::memcpy(page, &header, sizeof header);
    header.Crc = Crc32c(0, page + 8, kPage - 8);
    std::memcpy(page, &header, sizeof header);
}

const char *CheckPage(const char *page, uint64_t checkpoint, uint64_t number) {
    PageHeader header;
    std::memcpy(&header, page, sizeof header);
    if (header.Magic != kPageMagic) return "not a page";
    if (header.Crc != Crc32c(0, page + 8, kPage - 8)) return "wrong checksum";
    if (header.Page != number) return "a page of another place";
    if (checkpoint != 0 && header.Checkpoint != checkpoint) return "a page of another checkpoint";
    if (header.Used > kPagePayload || header.RunPages == 0 || header.RunIndex >= header.RunPages) return "bad header";
    return nullptr;
}

const char *CheckpointName() {
    return "data.ckpt";
}
bool CheckpointRuns() {
    return gWriters.Running.load(std::memory_order_relaxed);
}

void InitCheckpoints(uint64_t logId) {
    gWriters.LogId = logId;
    for (HANDLE &event : gWriters.Events) event = MakePostEvent();
}

void NoteLogGrowth(uint64_t bytes) {
    const uint64_t limit = gOptions.CheckpointBytes != 0 ? gOptions.CheckpointBytes : 2 * SegmentBytes();
    if (gWriters.Growth.fetch_add(bytes) + bytes < limit || gWriters.Running.load() || gWriters.Wanted.exchange(true)) {
        return;
    }
    PostUserThread(gWriters.Events[0]);
}

bool RequestCheckpoint() {
    if (gWriters.Running.load() || gWriters.Wanted.exchange(true)) return false;
    PostUserThread(gWriters.Events[0]);
    return true;
}

void RequestSpareSegment() {
    gWriters.SpareWanted = true;
    PostUserThread(gWriters.Events[1]);
}

DWORD WINAPI DatabaseWriter(LPVOID argument) {
    static const char *const kTags[kWriters] = {"DBW0", "DBW1"};
    const auto index = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    const HANDLE event = gWriters.Events[index];
    IdentifyUserThread(kTags[index], event);
    Waiter waiter;
    waiter.Event = event;
    // Looks before it waits: what was asked for before this thread had said who it is came without a post.
    for (;; WaitForUserThreadPost(event, INFINITE)) {
        if (index == 0 && gWriters.Wanted.load()) {
            MakeCheckpoint(&waiter);
            gWriters.Wanted = false;
        }
        if (index == 1 && gWriters.Helping.load()) {
            CopyShards();
            gWriters.Helping = false;
            PostUserThread(gWriters.Events[0]);
        }
        if (index == 1 && gWriters.SpareWanted.exchange(false)) MakeSpareSegment();
    }
}

}  // namespace host
