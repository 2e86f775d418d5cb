// tests/stress/stress_host.cpp - a host whose user threads do everything to each other at once: create, exit,
// suspend, resume, terminate, sleep, read, write, wait, post, lock, inject, and move to schedulers of their own. Seeded
// and time-boxed; ends with the invariant checkers and with the counts of what must have come back.
//
// Built on the internals, so that every user thread can check its own scheduler between two yields.
#include <random>

#include "dedicated/dedicated.h"
#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "postwait/postwait.h"
#include "stress.h"

namespace {

using namespace zvx;
using namespace stress;
using Random = std::mt19937_64;

// What was done, each told at the end.
enum Count { kActions, kChildren, kTerminated, kReads, kPosts, kEntries, kUnits, kMoves, kInjected, kCounts };
constexpr const char *kCountNames[kCounts] = {"actions", "children", "terminated", "reads",   "posts",
                                              "entries", "units",    "moves",      "routines"};
std::atomic<uint64_t> gCounts[kCounts];
void Add(Count what, uint64_t n = 1) {
    gCounts[what].fetch_add(n, std::memory_order_relaxed);
}

// One slot a worker; workers pick victims here. The handle is owned by the slot's spawner, who alone closes it.
struct Slot {
    std::atomic<HANDLE> Thread{nullptr};
    std::atomic<uint32_t> Runs{0};
    HANDLE Event = nullptr;         // the post event of whoever has the slot; lives as long as the process
    std::atomic<uint32_t> Sent{0};  // raised before each post
};
constexpr uint32_t kMaxWorkers = 256;
Slot gSlots[kMaxWorkers];
std::atomic<bool> gStop{false};

// Fewer units and owners than threads that want them: whoever waits is woken by another's giving back, or never.
constexpr uint32_t kPools = 3;
constexpr LONG kMostUnits = 2;
struct Pool {
    HANDLE Units = nullptr;
    HANDLE Mutex = nullptr;
    std::atomic<uint32_t> Owners{0};
} gPools[kPools];

// ---- Reads -------------------------------------------------------------------------------------------

void CheckBytes(const char *buffer, uint64_t offset, uint32_t bytes) {
    for (uint32_t i = 0; i + 4 <= bytes; i += 4) {
        uint32_t word;
        std::memcpy(&word, buffer + i, 4);
        if (word != PatternAt(offset + i)) Fail("wrong data read", offset + i, word);
    }
}

HANDLE OpenFile(DWORD flags) {
    const HANDLE file =
        CreateFileA(gFileName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, flags, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA", os::GetLastError(), flags);
    return file;
}

// Synchronous reads from consecutive positions.
void ReadSync(Random &rng) {
    const HANDLE file = OpenFile(0);
    char buffer[4096];
    uint64_t offset = rng() % (kFileBytes / 4096) * 4096;
    if (SetFilePointer(file, static_cast<LONG>(offset), nullptr, FILE_BEGIN) != offset) Fail("SetFilePointer");
    for (int i = 0; i < 3; ++i) {
        DWORD got = 0;
        if (!ReadFile(file, buffer, sizeof buffer, &got, nullptr)) Fail("ReadFile", os::GetLastError());
        if (got != sizeof buffer && offset + got != kFileBytes) Fail("short read", offset, got);
        CheckBytes(buffer, offset, got);
        offset += got;
    }
    if (!CloseHandle(file)) Fail("CloseHandle(file)", os::GetLastError());
    Add(kReads, 3);
}

struct Read {
    Routine End;
    alignas(16) char Buffer[2048];
};

// The first two of `count` with completion routines.
HANDLE StartReads(Random &rng, Read *reads, int count) {
    const HANDLE file = OpenFile(FILE_FLAG_OVERLAPPED);
    for (Read *read = reads; read < reads + count; ++read) {
        read->End.Ov.Offset = static_cast<DWORD>(rng() % (kFileBytes / 2048)) * 2048;
        const BOOL started = read < reads + 2 ? ReadFileEx(file, read->Buffer, 2048, &read->End.Ov, OnRoutine<>)
                                              : ReadFile(file, read->Buffer, 2048, nullptr, &read->End.Ov);
        if (!started && os::GetLastError() != ERROR_IO_PENDING) Fail("a read", os::GetLastError());
    }
    return file;
}

void FinishReads(HANDLE file, Read *reads, int count) {
    while (reads[0].End.Done + reads[1].End.Done < 2) SleepEx(100, TRUE);
    for (int i = 0; i < count; ++i) {
        Read &read = reads[i];
        if (i >= 2) read.End.Done = GetOverlappedResult(file, &read.End.Ov, &read.End.Bytes, TRUE) ? 1 : 0;
        if (read.End.Done != 1 || read.End.Error != 0 || read.End.Bytes != 2048)
            Fail("an overlapped read", read.End.Error, read.End.Done);
        CheckBytes(read.Buffer, read.End.Ov.Offset, 2048);
    }
    if (!CloseHandle(file)) Fail("CloseHandle(file)", os::GetLastError());
    Add(kReads, static_cast<uint64_t>(count));
}

void ReadWithRoutines(Random &rng) {
    Read reads[2] = {};
    FinishReads(StartReads(rng, reads, 2), reads, 2);
}

// ---- Moves and routines ------------------------------------------------------------------------------

// Well below the limit: a thread gives its scheduler back a little after it ends here.
std::atomic<uint32_t> gMovedNow{0};
bool MayMove() {
    if (gMovedNow.fetch_add(1) < 9) return true;
    gMovedNow.fetch_sub(1);
    return false;
}

// To a scheduler of its own, with reads of every kind outstanding: none may be lost, none may be noticed by the
// scheduler that is left. Posts may be dropped on the way; from the exchange on they reach the new one.
void MoveAway(Random &rng, Slot *slot, uint32_t *seen) {
    Read reads[3] = {};
    const HANDLE file = StartReads(rng, reads, 3);
    os::SetLastError(4711);
    MigrateUserThread("DBW9");
    if (!IsDynamic(SchedOf(CallingFiber()))) Fail("not moved");
    if (os::GetLastError() != 4711) Fail("last error changed over a move", os::GetLastError());
    *seen = slot->Sent.fetch_add(0, std::memory_order_seq_cst);
    if (reads[0].End.Done + reads[1].End.Done != 0) Fail("a routine ran during a move");
    FinishReads(file, reads, 3);
    ReadSync(rng);
    Add(kMoves);
}

void InjectedRoutine() {
    if (GetCurrentThreadId() == 0) Fail("a routine without a thread");
    Sleep(0);
    Add(kInjected);
}

// ---- Posts and sections ------------------------------------------------------------------------------

struct Section {
    CRITICAL_SECTION Lock;
    Fiber *Inside;     // [Lock]
    uint64_t Entries;  // [Lock]
};
constexpr uint32_t kSections = 4;
Section gSections[kSections];

void UseSection(Random &rng) {
    Section *section = &gSections[rng() % kSections];
    if (rng() % 4 == 0) {
        if (!TryEnterCriticalSection(&section->Lock)) return;
    } else {
        EnterCriticalSection(&section->Lock);
    }
    Fiber *F = CallingFiber();
    if (section->Inside != nullptr) Fail("two threads in one section");
    section->Inside = F;
    section->Entries++;
    Add(kEntries);
    const bool twice = rng() % 4 == 0;
    if (twice) EnterCriticalSection(&section->Lock);
    if (rng() % 3 == 0) Sleep(static_cast<DWORD>(rng() % 2));
    if (section->Inside != F) Fail("somebody came into an owned section");
    if (twice) LeaveCriticalSection(&section->Lock);
    section->Inside = nullptr;
    LeaveCriticalSection(&section->Lock);
}

// Posts one neighbour or several.
void PostNeighbours(Random &rng) {
    HANDLE list[21];
    const uint32_t count = rng() % 4 == 0 ? 20 : 1;
    for (uint32_t i = 0; i < count; ++i) {
        Slot *slot = &gSlots[rng() % gOptions.Load];
        slot->Sent.fetch_add(1, std::memory_order_seq_cst);
        list[i] = slot->Event;
    }
    list[count] = nullptr;
    Add(kPosts, count);
    if (count == 1 ? !PostUserThread(list[0]) : PostMultipleUserThreads(list) != -1) Fail("post", os::GetLastError());
}

// A post that was announced must come, whoever else posts meanwhile; what one wait takes is everything so far.
void TakePosts(Slot *slot, uint32_t *seen) {
    const bool announced = slot->Sent.load(std::memory_order_seq_cst) != *seen;
    const DWORD result = WaitForUserThreadPost(slot->Event, announced ? 30000 : 1);
    if (result == WAIT_OBJECT_0) {
        *seen = slot->Sent.load(std::memory_order_seq_cst);
    } else if (announced) {
        Fail("a post was lost");
    }
}

// ---- Children ----------------------------------------------------------------------------------------

DWORD Child(void *param) {
    const auto bits = reinterpret_cast<uintptr_t>(param);
    if (bits & 1) Sleep(static_cast<DWORD>((bits >> 8) & 3));
    if (bits & 2) ExitThread(static_cast<DWORD>(bits));
    return static_cast<DWORD>(bits);
}

void CreateAndAwait(Random &rng) {
    const uintptr_t bits = rng() & 0xFFFF;
    const HANDLE child = Start(Child, bits, (bits & 4) != 0 ? CREATE_SUSPENDED : 0);
    if ((bits & 4) != 0 && ResumeThread(child) != 1) Fail("ResumeThread of a suspended child");
    Join(child, static_cast<DWORD>(bits));
    Add(kChildren);
}

// Children that are terminated from outside: asleep for ever, or on the way in and out of a section.
DWORD Sleeper(void *) {
    for (;;) Sleep(INFINITE);
}
DWORD Contender(void *param) {
    Section *section = &gSections[reinterpret_cast<uintptr_t>(param) % kSections];
    for (;;) {
        EnterCriticalSection(&section->Lock);
        Sleep(0);
        LeaveCriticalSection(&section->Lock);
    }
}
// On its way to a scheduler of its own, or just there: that scheduler must come back all the same.
DWORD Mover(void *) {
    MigrateUserThread("LGWR");
    for (;;) Sleep(1);
}

void CreateAndTerminate(Random &rng) {
    static const LPTHREAD_START_ROUTINE kinds[] = {Sleeper, Contender, Mover};
    size_t kind = rng() % 3;
    if (kind == 2 && !MayMove()) kind = 0;
    const HANDLE child = Start(kinds[kind], rng() & 0xFF);
    if (rng() & 1) Sleep(1);
    if (rng() & 1) SuspendThread(child);
    if (!TerminateThread(child, 77)) Fail("TerminateThread", os::GetLastError());
    Join(child, 77);
    if (kind == 2) gMovedNow.fetch_sub(1);
    Add(kTerminated);
}

// Suspends and resumes another worker; its handle may go stale at any moment, which must be an error, no more.
// Only ones of a lower number: two that suspend each other would wait for ever, in any system.
void TroubleNeighbour(Random &rng, uint32_t self) {
    const HANDLE thread = self == 0 ? nullptr : gSlots[rng() % self].Thread.load();
    if (thread == nullptr || SuspendThread(thread) == 0xFFFFFFFF) return;
    if (rng() & 1) Sleep(1);
    ResumeThread(thread);
}

// On user threads and, with the platform's functions, on a kernel thread.
template <auto Wait, auto WaitMany>
void UsePools(Random &rng) {
    Pool &first = gPools[rng() % kPools];
    const DWORD ms = rng() & 1 ? INFINITE : static_cast<DWORD>(rng() % 3);
    if (rng() % 3 == 0) {
        const DWORD result = Wait(first.Mutex, ms);
        if (result == WAIT_TIMEOUT && ms != INFINITE) return;
        if (result != WAIT_OBJECT_0) Fail("wait for a mutex", result, os::GetLastError());
        if (first.Owners.fetch_add(1) != 0) Fail("a mutex has two owners");
        Sleep(0);
        first.Owners.fetch_sub(1);
        if (!os::ReleaseMutex(first.Mutex)) Fail("the owner is not the owner", os::GetLastError());
    } else {
        Pool &second = gPools[(&first - gPools + 1) % kPools];
        const HANDLE handles[2] = {first.Units, second.Units};
        const bool all = (rng() & 1) != 0, two = (rng() & 1) != 0;
        const DWORD result = two ? WaitMany(2, handles, all, ms) : Wait(handles[0], ms);
        if (result == WAIT_TIMEOUT && ms != INFINITE) return;
        if (result >= 2) Fail("wait for units", result, os::GetLastError());
        if (rng() & 1) Sleep(0);
        if (!os::ReleaseSemaphore(handles[result], 1, nullptr)) Fail("a unit too many", os::GetLastError());
        if (two && all && !os::ReleaseSemaphore(handles[1], 1, nullptr)) Fail("a unit too many", os::GetLastError());
    }
    Add(kUnits);
}

DWORD Outsider(void *) {
    Random rng(gOptions.Seed);
    while (!gStop.load(std::memory_order_relaxed)) UsePools<os::WaitForSingleObject, os::WaitForMultipleObjects>(rng);
    return 0;
}

// ---- The course of a run -----------------------------------------------------------------------------

DWORD Worker(void *param) {
    const auto self = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(param));
    Slot *const mine = &gSlots[self];
    Random rng(gOptions.Seed * 1000003 + self * 7919 + mine->Runs.load());
    static const DWORD slot = [] { return TlsAlloc(); }();
    os::TlsSetValue(slot, mine);
    static const char *const tags[] = {"SHAD", "P001", "DBW0", "PMON"};
    IdentifyUserThread(tags[self % 4], mine->Event);
    uint32_t seen = mine->Sent.load(std::memory_order_seq_cst);
    bool moved = false;
    while (!gStop.load(std::memory_order_relaxed)) {
        os::SetLastError(self + 5000);
        switch (rng() % 16) {
            case 0: CreateAndAwait(rng); break;
            case 1: CreateAndTerminate(rng); break;
            case 2: ReadSync(rng); break;
            case 3: ReadWithRoutines(rng); break;
            case 4: TroubleNeighbour(rng, self); break;
            case 5: Sleep(static_cast<DWORD>(rng() % 4)); break;
            case 6:
                Sleep(0);
                if (os::GetLastError() != self + 5000) Fail("last error changed over a yield", os::GetLastError());
                break;
            case 7: UsePools<WaitForSingleObject, WaitForMultipleObjects>(rng); break;
            case 8: UserThreadQuantumExpiredCheck(); break;
            case 9:
            case 10: UseSection(rng); break;
            case 11: PostNeighbours(rng); break;
            case 12: TakePosts(mine, &seen); break;
            case 13: UserThreadExecRoutine(gSlots[rng() % gOptions.Load].Event, InjectedRoutine); break;
            case 14:
                if (rng() % 8 == 0 && !moved && (moved = MayMove())) MoveAway(rng, mine, &seen);
                break;
            default: SchedYield(CallingFiber(), Yield_USER); break;
        }
        if (os::TlsGetValue(slot) != mine) Fail("another thread's slot value", self);
        CheckScheduler(SchedOf(CallingFiber()));
        Add(kActions);
        if (rng() % 97 == 0) break;  // a fresh worker takes the slot over
    }
    UnidentifyUserThread(0);
    if (moved) gMovedNow.fetch_sub(1);
    return 0;
}

uint32_t UserThreads() {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < gSchedulersMade.load(); ++i) sum += gSchedulers[i]->FiberCount.load();
    return sum;
}

void Spawn(uint32_t i) {
    gSlots[i].Runs.fetch_add(1);
    gSlots[i].Thread.store(Start(Worker, i));
}

DWORD MainRoutine(void *) {
    MakeFile();
    for (uint32_t i = 0; i < gOptions.Load; ++i) gSlots[i].Event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (Pool &pool : gPools) {
        pool.Units = os::CreateSemaphoreA(nullptr, kMostUnits, kMostUnits, nullptr);
        pool.Mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    }
    for (uint32_t i = 0; i < kSections; ++i) InitializeCriticalSectionAndSpinCount(&gSections[i].Lock, i * 50);
    Sleep(20);
    const uint32_t handles = gHandleCount, kernelThreads = os::KernelThreadCount();
    DWORD outsiderId;
    const HANDLE outsider = os::CreateThread(nullptr, 0, Outsider, nullptr, 0, &outsiderId);
    for (uint32_t i = 0; i < gOptions.Load; ++i) Spawn(i);
    const uint64_t end = os::GetTickCount64() + gOptions.Seconds * 1000ull;
    while (os::GetTickCount64() < end) {
        for (uint32_t i = 0; i < gOptions.Load; ++i) {
            if (WaitForSingleObject(gSlots[i].Thread.load(), 0) != WAIT_OBJECT_0) continue;
            Join(gSlots[i].Thread.exchange(nullptr), 0);
            Spawn(i);
        }
        Sleep(5);
    }
    gStop = true;
    // A worker that a neighbour suspended last is let go by its own ResumeThread; wait for each.
    for (uint32_t i = 0; i < gOptions.Load; ++i) Join(gSlots[i].Thread.exchange(nullptr), 0);
    if (WaitForSingleObject(outsider, 60000) != WAIT_OBJECT_0) Fail("the kernel thread did not end");
    os::CloseHandle(outsider);
    for (const Pool &pool : gPools) {
        LONG units = 0;
        while (os::WaitForSingleObject(pool.Units, 0) == WAIT_OBJECT_0) units++;
        if (units != kMostUnits) Fail("units were lost or made", static_cast<uint64_t>(units));
    }
    uint64_t entries = 0;
    for (Section &section : gSections) {
        if (!TryEnterCriticalSection(&section.Lock)) Fail("a section is still owned");
        entries += section.Entries;
        LeaveCriticalSection(&section.Lock);
        DeleteCriticalSection(&section.Lock);  // fatal when somebody still waits
    }
    if (entries != gCounts[kEntries].load()) Fail("entries were lost", entries, gCounts[kEntries].load());
    Await("user threads left behind", [] { return UserThreads() == 1; });
    Await("section records left behind", [] { return ChunksInUse(ALLOC_FIBER_CRITICAL_SECTION) == 0; });
    CheckAllBack(handles);
    if (ChunksInUse(ALLOC_FIBER_MESSAGE) != 0) Fail("messages left behind");
    if (os::KernelThreadCount() > kernelThreads + 36) Fail("kernel threads left behind", os::KernelThreadCount());
    if (gNumDynamicSchedulers.load() != 0) Fail("dynamic schedulers in use at the end", gNumDynamicSchedulers.load());
    std::remove(gFileName.c_str());
    std::printf("stress: %u schedulers and %u of the library's making, %s, seed %llu, %u records:", gNumSchedulers,
                gSchedulersMade.load() - gNumSchedulers, os::IoBackendName(),
                static_cast<unsigned long long>(gOptions.Seed), gShellSerial.load());
    for (uint32_t i = 0; i < kCounts; ++i)
        std::printf(" %llu %s", static_cast<unsigned long long>(gCounts[i].load()), kCountNames[i]);
    std::printf("\n");
    for (uint32_t i = 0; i < kCounts; ++i)
        if (gCounts[i].load() == 0) Fail(kCountNames[i]);
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Load = 64;
    gOptions.Settings.emplace_back("QuantumLengthMs", "30");
    gOptions.Settings.emplace_back("DynamicSchedulersEnabled", "1");
    return Main(argc, argv, "--workers", kMaxWorkers, MainRoutine);
}
