// tests/stress/stress_host.cpp - a host whose user threads do everything to each other at once: create, exit,
// suspend, resume, terminate, sleep, read, write, wait, post, lock, inject, and move to schedulers of their own. Seeded and
// time-boxed; ends with the invariant checkers and with the counts of what must have come back.
//
// Built on the internals, so that every user thread can check its own scheduler between two yields.
#include <random>

#include "alloc/alloc.h"
#include "dedicated/dedicated.h"
#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "postwait/postwait.h"
#include "stress.h"

namespace {

using namespace zvx;
using namespace stress;

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
std::atomic<uint64_t> gActions{0};
std::atomic<uint64_t> gChildren{0};
std::atomic<uint64_t> gTerminated{0};
std::atomic<uint64_t> gReads{0};
std::atomic<uint64_t> gPosts{0};
std::atomic<uint64_t> gMoves{0};
std::atomic<uint64_t> gInjected{0};
std::atomic<uint32_t> gMovedNow{0};
std::atomic<uint64_t> gTaken{0};
// Fewer units and owners than threads that want them: whoever waits is woken by another's giving back, or never.
constexpr uint32_t kPools = 3;
constexpr LONG kUnits = 2;
struct Pool {
    HANDLE Units = nullptr;
    HANDLE Mutex = nullptr;
    std::atomic<uint32_t> Owners{0};
} gPools[kPools];
char gFileName[256];
constexpr uint32_t kFileBytes = 1 << 20;

uint32_t PatternAt(uint64_t offset) { return static_cast<uint32_t>(offset * 2654435761u ^ (offset >> 7)); }

void CheckBytes(const char *buffer, uint64_t offset, uint32_t bytes) {
    for (uint32_t i = 0; i + 4 <= bytes; i += 4) {
        uint32_t word;
        std::memcpy(&word, buffer + i, 4);
        if (word != PatternAt(offset + i)) Fail("wrong data read", offset + i, word);
    }
}

void MakeFile() {
    std::snprintf(gFileName, sizeof gFileName, "stress_%u.dat", os::GetCurrentProcessId());
    FILE *f = std::fopen(gFileName, "wb");
    if (f == nullptr) Fail("cannot make the data file");
    for (uint64_t offset = 0; offset < kFileBytes; offset += 4) {
        uint32_t word = PatternAt(offset);
        std::fwrite(&word, 4, 1, f);
    }
    std::fclose(f);
}

struct RoutineState {
    OVERLAPPED Ov;
    DWORD Error;
    DWORD Bytes;
    DWORD Done;
};

void OnRead(DWORD error, DWORD bytes, OVERLAPPED *ov) {
    auto *state = reinterpret_cast<RoutineState *>(ov);
    state->Error = error;
    state->Bytes = bytes;
    state->Done++;
}

// Synchronous reads from consecutive positions, then one at a random place.
void ReadSync(std::mt19937_64 &rng) {
    HANDLE file = CreateFileA(gFileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA", os::GetLastError());
    char buffer[4096];
    uint64_t offset = (rng() % (kFileBytes / 4096)) * 4096;
    if (SetFilePointer(file, static_cast<LONG>(offset), nullptr, FILE_BEGIN) != offset) Fail("SetFilePointer");
    for (int i = 0; i < 3; ++i) {
        DWORD got = 0;
        if (!ReadFile(file, buffer, sizeof buffer, &got, nullptr)) Fail("ReadFile", os::GetLastError());
        if (got != sizeof buffer && offset + got != kFileBytes) Fail("short read", offset, got);
        CheckBytes(buffer, offset, got);
        offset += got;
        gReads.fetch_add(1, std::memory_order_relaxed);
    }
    if (!CloseHandle(file)) Fail("CloseHandle(file)", os::GetLastError());
}

// Two reads with completion routines, awaited alertably.
void ReadWithRoutine(std::mt19937_64 &rng) {
    HANDLE file =
        CreateFileA(gFileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA overlapped", os::GetLastError());
    alignas(16) char buffers[2][2048];
    RoutineState states[2] = {};
    for (int i = 0; i < 2; ++i) {
        states[i].Ov.Offset = static_cast<DWORD>(rng() % (kFileBytes / 2048)) * 2048;
        if (!ReadFileEx(file, buffers[i], sizeof buffers[i], &states[i].Ov, OnRead)) Fail("ReadFileEx", os::GetLastError());
    }
    while (states[0].Done + states[1].Done < 2) SleepEx(100, TRUE);
    for (int i = 0; i < 2; ++i) {
        if (states[i].Done != 1 || states[i].Error != 0 || states[i].Bytes != 2048) Fail("routine", states[i].Error, states[i].Done);
        CheckBytes(buffers[i], states[i].Ov.Offset, states[i].Bytes);
    }
    if (!CloseHandle(file)) Fail("CloseHandle(file)", os::GetLastError());
    gReads.fetch_add(2, std::memory_order_relaxed);
}

// To a scheduler of its own, with reads of every kind outstanding: none may be lost, none may be noticed by the
// scheduler that is left. Posts may be dropped on the way; from the exchange on they reach the new one.
void MoveAway(std::mt19937_64 &rng, Slot *slot, uint32_t *seen) {
    if (gMovedNow.fetch_add(1) >= 9) {  // well below the limit: a thread gives its scheduler back a little after it ends here
        gMovedNow.fetch_sub(1);
        return;
    }
    HANDLE file =
        CreateFileA(gFileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA before a move", os::GetLastError());
    alignas(16) char buffers[3][2048];
    RoutineState states[3] = {};
    for (int i = 0; i < 3; ++i) {
        states[i].Ov.Offset = static_cast<DWORD>(rng() % (kFileBytes / 2048)) * 2048;
        const BOOL started = i < 2 ? ReadFileEx(file, buffers[i], sizeof buffers[i], &states[i].Ov, OnRead)
                                   : ReadFile(file, buffers[i], sizeof buffers[i], nullptr, &states[i].Ov);
        if (!started && os::GetLastError() != ERROR_IO_PENDING) Fail("a read before a move", os::GetLastError());
    }
    Fiber *F = CallingFiber();
    os::SetLastError(4711);
    MigrateUserThread("DBW9");
    if (!IsDynamic(SchedOf(F))) Fail("not moved");
    if (os::GetLastError() != 4711) Fail("last error changed over a move", os::GetLastError());
    *seen = slot->Sent.fetch_add(0, std::memory_order_seq_cst);
    if (states[0].Done + states[1].Done != 0) Fail("a routine ran during a move");
    while (states[0].Done + states[1].Done < 2) SleepEx(100, TRUE);
    DWORD bytes = 0;
    if (!GetOverlappedResult(file, &states[2].Ov, &bytes, TRUE) || bytes != 2048) Fail("a plain read after a move", bytes);
    for (int i = 0; i < 3; ++i) CheckBytes(buffers[i], states[i].Ov.Offset, 2048);
    ReadSync(rng);
    if (!CloseHandle(file)) Fail("CloseHandle(file) after a move", os::GetLastError());
    gMoves.fetch_add(1, std::memory_order_relaxed);
}

void InjectedRoutine() {
    if (GetCurrentThreadId() == 0) Fail("a routine without a thread");
    Sleep(0);
    gInjected.fetch_add(1, std::memory_order_relaxed);
}

DWORD Child(void *param) {
    auto bits = reinterpret_cast<uintptr_t>(param);
    if (bits & 1) Sleep(static_cast<DWORD>((bits >> 8) & 3));
    if (bits & 2) ExitThread(static_cast<DWORD>(bits & 0xFFFF));
    return static_cast<DWORD>(bits & 0xFFFF);
}

void CreateAndAwait(std::mt19937_64 &rng) {
    uintptr_t bits = rng() & 0xFFFF;
    DWORD id = 0;
    DWORD flags = (bits & 4) ? CREATE_SUSPENDED : 0;
    HANDLE child = CreateThread(nullptr, 0, Child, reinterpret_cast<void *>(bits), flags, &id);
    if (child == nullptr) Fail("CreateThread", os::GetLastError());
    gChildren.fetch_add(1, std::memory_order_relaxed);
    if (flags) {
        if (ResumeThread(child) != 1) Fail("ResumeThread of a suspended child");
    }
    if (WaitForSingleObject(child, 30000) != WAIT_OBJECT_0) Fail("child did not end", bits);
    DWORD code = 0;
    if (!GetExitCodeThread(child, &code) || code != (bits & 0xFFFF)) Fail("exit code", code, bits);
    if (!CloseHandle(child)) Fail("CloseHandle(child)");
}

// ---- Posts and sections ------------------------------------------------------------------------------

struct Section {
    CRITICAL_SECTION Lock;
    Fiber *Inside;       // [Lock]
    uint64_t Entries;    // [Lock]
};
constexpr uint32_t kSections = 4;
Section gSections[kSections];
std::atomic<uint64_t> gEntries{0};

void UseSection(std::mt19937_64 &rng) {
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
    gEntries.fetch_add(1, std::memory_order_relaxed);
    const bool twice = rng() % 4 == 0;
    if (twice) EnterCriticalSection(&section->Lock);
    if (rng() % 3 == 0) Sleep(static_cast<DWORD>(rng() % 2));
    if (section->Inside != F) Fail("somebody came into an owned section");
    if (twice) LeaveCriticalSection(&section->Lock);
    section->Inside = nullptr;
    LeaveCriticalSection(&section->Lock);
}

// Posts one neighbour or several.
void PostNeighbours(std::mt19937_64 &rng) {
    HANDLE list[21];
    const uint32_t count = rng() % 4 == 0 ? 20 : 1;
    for (uint32_t i = 0; i < count; ++i) {
        Slot *slot = &gSlots[rng() % gOptions.Load];
        slot->Sent.fetch_add(1, std::memory_order_seq_cst);
        list[i] = slot->Event;
    }
    list[count] = nullptr;
    gPosts.fetch_add(count, std::memory_order_relaxed);
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

void CreateAndTerminate(std::mt19937_64 &rng) {
    static const LPTHREAD_START_ROUTINE kinds[] = {Sleeper, Contender, Mover};
    size_t kind = rng() % 3;
    bool counted = false;
    if (kind == 2) {
        counted = gMovedNow.fetch_add(1) < 9;
        if (!counted) {
            gMovedNow.fetch_sub(1);
            kind = 0;
        }
    }
    HANDLE child = CreateThread(nullptr, 0, kinds[kind], reinterpret_cast<void *>(rng() & 0xFF), 0, nullptr);
    if (child == nullptr) Fail("CreateThread", os::GetLastError());
    if (rng() & 1) Sleep(1);
    if (rng() & 1) SuspendThread(child);
    if (!TerminateThread(child, 77)) Fail("TerminateThread", os::GetLastError());
    DWORD code = 0;
    if (!GetExitCodeThread(child, &code) || code != 77) Fail("exit code of a terminated child", code);
    if (WaitForSingleObject(child, 10000) != WAIT_OBJECT_0) Fail("terminated child not signalled");
    CloseHandle(child);
    if (counted) gMovedNow.fetch_sub(1);
    gTerminated.fetch_add(1, std::memory_order_relaxed);
}

// Suspends and resumes another worker; its handle may go stale at any moment, which must be an error, no more.
// Only ones of a lower number: two that suspend each other would wait for ever, in any system.
void TroubleNeighbour(std::mt19937_64 &rng, uint32_t self) {
    if (self == 0) return;
    uint32_t victim = static_cast<uint32_t>(rng() % self);
    HANDLE thread = gSlots[victim].Thread.load();
    if (thread == nullptr) return;
    DWORD previous = SuspendThread(thread);
    if (previous == 0xFFFFFFFF) return;
    if (rng() & 1) Sleep(1);
    ResumeThread(thread);
}

// On user threads and, with the platform's functions, on a kernel thread.
template <auto Wait, auto WaitMany>
void UsePools(std::mt19937_64 &rng) {
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
    gTaken.fetch_add(1, std::memory_order_relaxed);
}

DWORD Outsider(void *) {
    std::mt19937_64 rng(gOptions.Seed);
    while (!gStop.load(std::memory_order_relaxed)) UsePools<os::WaitForSingleObject, os::WaitForMultipleObjects>(rng);
    return 0;
}

DWORD Worker(void *param) {
    uint32_t self = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(param));
    std::mt19937_64 rng(gOptions.Seed * 1000003 + self * 7919 + gSlots[self].Runs.load());
    static const DWORD slot = [] { return TlsAlloc(); }();
    auto mine = reinterpret_cast<void *>(uintptr_t{self} + 1);
    os::TlsSetValue(slot, mine);
    static const char *const tags[] = {"SHAD", "P001", "DBW0", "PMON"};
    IdentifyUserThread(tags[self % 4], gSlots[self].Event);
    uint32_t seen = gSlots[self].Sent.load(std::memory_order_seq_cst);
    bool moved = false;
    while (!gStop.load(std::memory_order_relaxed)) {
        os::SetLastError(self + 5000);
        switch (rng() % 16) {
            case 0: CreateAndAwait(rng); break;
            case 1: CreateAndTerminate(rng); break;
            case 2: ReadSync(rng); break;
            case 3: ReadWithRoutine(rng); break;
            case 4: TroubleNeighbour(rng, self); break;
            case 5: Sleep(static_cast<DWORD>(rng() % 4)); break;
            case 6:
                Sleep(0);
                if (os::GetLastError() != self + 5000) Fail("last error changed over a yield", os::GetLastError(), self);
                break;
            case 7: UsePools<WaitForSingleObject, WaitForMultipleObjects>(rng); break;
            case 9:
            case 10: UseSection(rng); break;
            case 11: PostNeighbours(rng); break;
            case 12: TakePosts(&gSlots[self], &seen); break;
            case 8: UserThreadQuantumExpiredCheck(); break;
            case 13: UserThreadExecRoutine(gSlots[rng() % gOptions.Load].Event, InjectedRoutine); break;
            case 14:
                if (rng() % 8 == 0 && !moved) {
                    MoveAway(rng, &gSlots[self], &seen);
                    moved = IsDynamic(SchedOf(CallingFiber()));
                }
                break;
            default: SchedYield(CallingFiber(), Yield_USER); break;
        }
        if (os::TlsGetValue(slot) != mine) Fail("another thread's slot value", self);
        CheckScheduler(SchedOf(CallingFiber()));
        gActions.fetch_add(1, std::memory_order_relaxed);
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
    HANDLE thread = CreateThread(nullptr, 0, Worker, reinterpret_cast<void *>(uintptr_t{i}), 0, nullptr);
    if (thread == nullptr) Fail("CreateThread(worker)", os::GetLastError());
    gSlots[i].Thread.store(thread);
}

void Reap(uint32_t i) {
    HANDLE thread = gSlots[i].Thread.exchange(nullptr);
    if (WaitForSingleObject(thread, 60000) != WAIT_OBJECT_0) {
        const PSEHAND *entry = LookUpHandle(thread);
        const Fiber *F = entry != nullptr ? entry->OwnerFiber : nullptr;
        if (F == nullptr) Fail("worker did not end and has no entry", i);
        std::fprintf(stderr, "worker %u: state %u flags x%X suspends %u generation %u/%u sched %u\n", i, F->State,
                     F->Flags, F->SuspendCount.load(), Generation(F), entry->OwnerGeneration, SchedOf(F)->Index);
        Fail("worker did not end", i);
    }
    CloseHandle(thread);
}

DWORD MainRoutine(void *) {
    MakeFile();
    for (uint32_t i = 0; i < gOptions.Load; ++i) gSlots[i].Event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (Pool &pool : gPools) {
        pool.Units = os::CreateSemaphoreA(nullptr, kUnits, kUnits, nullptr);
        pool.Mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    }
    for (uint32_t i = 0; i < kSections; ++i) InitializeCriticalSectionAndSpinCount(&gSections[i].Lock, i * 50);
    Sleep(20);
    uint32_t handlesBefore = gHandleCount;
    uint32_t kernelThreads = os::KernelThreadCount();
    DWORD outsiderId;
    const HANDLE outsider = os::CreateThread(nullptr, 0, Outsider, nullptr, 0, &outsiderId);
    for (uint32_t i = 0; i < gOptions.Load; ++i) Spawn(i);
    uint64_t end = os::GetTickCount64() + gOptions.Seconds * 1000ull;
    while (os::GetTickCount64() < end) {
        for (uint32_t i = 0; i < gOptions.Load; ++i) {
            HANDLE thread = gSlots[i].Thread.load();
            if (WaitForSingleObject(thread, 0) != WAIT_OBJECT_0) continue;
            Reap(i);
            Spawn(i);
        }
        Sleep(5);
    }
    gStop = true;
    // A worker that a neighbour suspended last is let go by its own ResumeThread; wait for each.
    for (uint32_t i = 0; i < gOptions.Load; ++i) Reap(i);
    if (WaitForSingleObject(outsider, 60000) != WAIT_OBJECT_0) Fail("the kernel thread did not end");
    os::CloseHandle(outsider);
    for (Pool &pool : gPools)
        for (LONG i = 0; i <= kUnits; i++)
            if ((os::WaitForSingleObject(pool.Units, 0) == WAIT_OBJECT_0) != (i < kUnits)) Fail("units were lost or made", static_cast<uint64_t>(i));
    // Retired records and exited threads come back once every scheduler has gone idle or made a pass.
    for (int i = 0; i < 200 && (gHandleCount != handlesBefore || UserThreads() != 1); ++i) Sleep(5);
    uint64_t entries = 0;
    for (Section &section : gSections) {
        if (!TryEnterCriticalSection(&section.Lock)) Fail("a section is still owned");
        entries += section.Entries;
        LeaveCriticalSection(&section.Lock);
        DeleteCriticalSection(&section.Lock);  // fatal when somebody still waits
    }
    if (entries != gEntries.load()) Fail("entries were lost", entries, gEntries.load());
    for (int i = 0; i < 400 && ChunksInUse(ALLOC_FIBER_CRITICAL_SECTION) != 0; ++i) Sleep(5);
    if (ChunksInUse(ALLOC_FIBER_CRITICAL_SECTION) != 0) Fail("section records left behind");
    CheckHandleTable();
    CheckScheduler(SchedOf(CallingFiber()));
    if (gHandleCount != handlesBefore) Fail("handles left behind", gHandleCount, handlesBefore);
    if (UserThreads() != 1) Fail("user threads left behind", UserThreads());
    for (int i = 0; i < 400 && ChunksInUse(ALLOC_PSEHAND) != static_cast<int64_t>(gHandleCount); ++i) Sleep(5);
    if (ChunksInUse(ALLOC_PSEHAND) != static_cast<int64_t>(gHandleCount))
        Fail("handle entries left behind", static_cast<uint64_t>(ChunksInUse(ALLOC_PSEHAND)), gHandleCount);
    if (ChunksInUse(ALLOC_FIBER_MESSAGE) != 0) Fail("messages left behind", static_cast<uint64_t>(ChunksInUse(ALLOC_FIBER_MESSAGE)));
    if (os::KernelThreadCount() > kernelThreads + 36) Fail("kernel threads left behind", os::KernelThreadCount(), kernelThreads);
    std::printf("stress: %u schedulers, %s, seed %llu: %llu actions, %llu children, %llu terminated, %llu reads, %llu posts, "
                "%llu entries, %llu units, %llu moves to %u schedulers, %llu routines, %u records\n",
                gNumSchedulers, os::IoBackendName(), static_cast<unsigned long long>(gOptions.Seed),
                static_cast<unsigned long long>(gActions.load()), static_cast<unsigned long long>(gChildren.load()),
                static_cast<unsigned long long>(gTerminated.load()), static_cast<unsigned long long>(gReads.load()),
                static_cast<unsigned long long>(gPosts.load()), static_cast<unsigned long long>(entries),
                static_cast<unsigned long long>(gTaken.load()),
                static_cast<unsigned long long>(gMoves.load()), gSchedulersMade.load() - gNumSchedulers,
                static_cast<unsigned long long>(gInjected.load()),
                gShellSerial.load());
    std::remove(gFileName);
    if (gActions.load() == 0 || gReads.load() == 0 || gTaken.load() == 0 || gMoves.load() == 0 || gInjected.load() == 0) Fail("nothing was done");
    if (gNumDynamicSchedulers.load() != 0) Fail("dynamic schedulers in use at the end", gNumDynamicSchedulers.load());
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Load = 64;
    gOptions.Settings.emplace_back("QuantumLengthMs", "30");
    gOptions.Settings.emplace_back("DynamicSchedulersEnabled", "1");
    return Main(argc, argv, "--workers", kMaxWorkers, MainRoutine);
}
