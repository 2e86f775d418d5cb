// bench/file_bench.cpp - 8 KiB reads of a file by user threads, from the page cache and past it, and durable writes of a
// group.
//
// The file is given and filled already. A cached read never leaves the calling user thread when the library does it
// well; a direct one parks it, and the scheduler runs the others meanwhile.
#include "bench/host.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "postwait/postwait.h"

namespace {

using namespace bench;

uint64_t gBlocks;

HANDLE Open(DWORD flags, DWORD access = GENERIC_READ) {
    const HANDLE file =
        zvx::CreateFileA(gOptions.File.c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING, flags, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA", os::GetLastError());
    return file;
}

void ReadBlock(HANDLE file, char *buffer, uint64_t block) {
    OVERLAPPED where{};
    const uint64_t offset = block * kReadBytes;
    where.Offset = static_cast<DWORD>(offset);
    where.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD got = 0;
    if (!zvx::ReadFile(file, buffer, kReadBytes, &got, &where) || got != kReadBytes)
        Fail("ReadFile", os::GetLastError());
}

char *NewBuffer() {
    return static_cast<char *>(std::aligned_alloc(4096, kReadBytes));
}

// ---- From the page cache -----------------------------------------------------------------------------

void CachedCase() {
    gBlocks = BlocksOfFile(gOptions.File);
    ReadWholeFile(gOptions.File);
    const HANDLE file = Open(0);
    char *buffer = NewBuffer();
    Random random{88172645463325252ull};
    Measure(gOptions, "read_cached/random", [&](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) ReadBlock(file, buffer, random.Next() % gBlocks);
        return NowNs() - start;
    });
    Measure(gOptions, "read_cached/sequential", [&](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            DWORD got = 0;
            if (!zvx::ReadFile(file, buffer, kReadBytes, &got, nullptr)) Fail("ReadFile", os::GetLastError());
            if (got < kReadBytes) zvx::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
        }
        return NowNs() - start;
    });
    zvx::CloseHandle(file);
}

// ---- Past the page cache -----------------------------------------------------------------------------

struct alignas(64) Reader {
    HANDLE File;
    uint64_t Seed;
    std::atomic<uint64_t> Reads;
};
std::vector<Reader> gReaders;

DWORD ReadDirect(void *param) {
    auto *reader = static_cast<Reader *>(param);
    Random random{reader->Seed};
    char *buffer = NewBuffer();
    for (;;) {
        ReadBlock(reader->File, buffer, random.Next() % gBlocks);
        reader->Reads.fetch_add(1, std::memory_order_relaxed);
    }
}

uint64_t ReadsSoFar() {
    uint64_t sum = 0;
    for (const Reader &reader : gReaders) sum += reader.Reads.load(std::memory_order_relaxed);
    return sum;
}

// Reads a second, sampled over windows; the processor time of the process goes with it.
void DirectCase() {
    gBlocks = BlocksOfFile(gOptions.File);
    gReaders = std::vector<Reader>(gOptions.Threads);
    for (uint32_t i = 0; i < gOptions.Threads; ++i) {
        gReaders[i].File = Open(FILE_FLAG_NO_BUFFERING);
        gReaders[i].Seed = 88172645463325252ull * (i + 1) + 1;
        CreateAndForget(ReadDirect, &gReaders[i]);
    }
    zvx::Sleep(200);
    std::vector<double> samples;
    const double cpu = ProcessorSeconds();
    const uint64_t before = ReadsSoFar();
    for (uint32_t i = 0; i < gOptions.Repetitions; ++i) {
        const double start = NowNs();
        const uint64_t reads = ReadsSoFar();
        zvx::Sleep(static_cast<DWORD>(gOptions.Seconds * 1000 / gOptions.Repetitions));
        samples.push_back(static_cast<double>(ReadsSoFar() - reads) * 1e9 / (NowNs() - start));
    }
    const uint64_t all = ReadsSoFar() - before;
    Report(gOptions, "read_direct/" + std::to_string(gOptions.Threads), all, samples, "reads/s", "higher",
           {{"cpu_us_per_read", all != 0 ? (ProcessorSeconds() - cpu) * 1e6 / static_cast<double>(all) : 0}});
}

// ---- Group commit ------------------------------------------------------------------------------------
//
// --threads writers each append a record and wait until it is durable; the log writer takes all that has gathered as one
// write-through batch, while the next one gathers. The section guards gGathering, gAppended and gWaiting.

constexpr uint64_t kLogBytes = 32 << 20;  // of the data file, which is filled: nothing but data is written

CRITICAL_SECTION gLogSection;
std::vector<char> gGathering;
uint64_t gAppended;                 // bytes
std::atomic<uint64_t> gSettled;     // bytes; the log writer's
std::vector<HANDLE> gWaiting;       // the post events of those whose records are in gGathering
HANDLE gLogWriterEvent;
std::atomic<uint64_t> gCommits;
std::atomic<uint64_t> gBatches;

HANDLE IdentifyAs(const char *tag) {
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    zvx::IdentifyUserThread(tag, event);
    return event;
}

DWORD CommitWriter(void *) {
    const HANDLE event = IdentifyAs("SHAD");
    const std::vector<char> record(kReadBytes, 'w');
    for (;;) {
        zvx::EnterCriticalSection(&gLogSection);
        gGathering.insert(gGathering.end(), record.begin(), record.end());
        const uint64_t mine = gAppended += kReadBytes;
        gWaiting.push_back(event);
        zvx::LeaveCriticalSection(&gLogSection);
        zvx::PostUserThread(gLogWriterEvent);
        while (gSettled.load(std::memory_order_acquire) < mine) zvx::WaitForUserThreadPost(event, INFINITE);
        gCommits.fetch_add(1, std::memory_order_relaxed);
    }
}

DWORD CommitLogWriter(void *) {
    gLogWriterEvent = IdentifyAs("LGWR");
    const HANDLE file = Open(FILE_FLAG_WRITE_THROUGH, GENERIC_READ | GENERIC_WRITE);
    std::vector<char> batch;
    std::vector<HANDLE> waiting;
    batch.reserve(size_t{kReadBytes} * gOptions.Threads);
    for (uint64_t at = 0;;) {
        zvx::Sleep(0);  // who was posted, or has posted, may be the first of many to append
        zvx::EnterCriticalSection(&gLogSection);
        batch.clear();
        waiting.clear();
        batch.swap(gGathering);
        waiting.swap(gWaiting);
        const uint64_t upTo = gAppended;
        zvx::LeaveCriticalSection(&gLogSection);
        if (batch.empty()) {
            zvx::WaitForUserThreadPost(gLogWriterEvent, INFINITE);
            continue;
        }
        if (at + batch.size() > kLogBytes) at = 0;
        OVERLAPPED where{};
        where.Offset = static_cast<DWORD>(at);
        DWORD put = 0;
        if (!zvx::WriteFile(file, batch.data(), static_cast<DWORD>(batch.size()), &put, &where) || put != batch.size())
            Fail("WriteFile", os::GetLastError());
        at += batch.size();
        gBatches.fetch_add(1, std::memory_order_relaxed);
        gSettled.store(upTo, std::memory_order_release);
        waiting.push_back(nullptr);
        zvx::PostMultipleUserThreads(waiting.data());
    }
}

void CommitCase() {
    zvx::InitializeCriticalSection(&gLogSection);
    gGathering.reserve(size_t{kReadBytes} * gOptions.Threads);
    CreateAndForget(CommitLogWriter);
    while (gLogWriterEvent == nullptr) zvx::Sleep(1);
    for (uint32_t i = 0; i < gOptions.Threads; ++i) CreateAndForget(CommitWriter);
    zvx::Sleep(200);
    const uint64_t before = gCommits.load(), batches = gBatches.load();
    const double start = NowNs();
    zvx::Sleep(static_cast<DWORD>(gOptions.Seconds * 1000));
    const auto commits = static_cast<double>(gCommits.load() - before);
    Report(gOptions, "commit/" + std::to_string(gOptions.Threads), static_cast<uint64_t>(commits),
           {commits * 1e9 / (NowNs() - start)}, "commits/s", "higher",
           {{"batch", commits / static_cast<double>(gBatches.load() - batches)}});
}

const NamedCase kCases[] = {{"cached", CachedCase}, {"direct", DirectCase}, {"commit", CommitCase}};

}  // namespace

int main(int argc, char **argv) {
    return HostMain(argc, argv, kCases, sizeof kCases / sizeof kCases[0]);
}
