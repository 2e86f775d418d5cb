// tests/stress/stress_host.cpp - a host whose user threads do everything to each other at once: create, exit,
// suspend, resume, terminate, sleep, read, talk, wait, post, lock, inject, and move to schedulers of their own. Seeded
// and time-boxed; ends with the invariant checkers and with the counts of what must have come back.
//
// Built on the internals, so that every user thread can check its own scheduler between two yields.
#include <fstream>
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
enum Count { kActions, kChildren, kTerminated, kReads, kPosts, kEntries, kUnits, kMoves, kInjected, kEchoes, kCounts };
constexpr const char *kCountNames[kCounts] = {"actions", "children", "terminated", "reads",    "posts",
                                              "entries", "units",    "moves",      "routines", "echoes"};
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
constexpr uint32_t kWorkers = 64;
Slot gSlots[kWorkers];
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

// Every place in the file has other bytes around it.
constexpr uint32_t kFileBytes = 1 << 20;
std::string gFileName, gContent;

void CheckBytes(const char *buffer, uint64_t offset, uint32_t bytes) {
    if (gContent.compare(offset, bytes, buffer, bytes) != 0) Fail("wrong data read", offset, bytes);
}

HANDLE OpenFile(DWORD flags) {
    const HANDLE file =
        CreateFileA(gFileName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA", os::GetLastError(), flags);
    return file;
}

// Synchronous reads from consecutive positions; a flush between them moves none.
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
        if (rng() % 8 == 0 && !FlushFileBuffers(file)) Fail("FlushFileBuffers", os::GetLastError());
    }
    Close(file);
    Add(kReads, 3);
}

// Two with completion routines and one that is asked for its end.
struct Reads {
    HANDLE File = OpenFile(FILE_FLAG_OVERLAPPED);
    struct {
        Routine End;
        alignas(16) char Buffer[2048];
    } All[3] = {};

    explicit Reads(Random &rng) {
        for (auto &read : All) {
            read.End.Ov.Offset = static_cast<DWORD>(rng() % (kFileBytes / 2048)) * 2048;
            const BOOL started = &read < All + 2 ? ReadFileEx(File, read.Buffer, 2048, &read.End.Ov, OnRoutine<>)
                                                 : ReadFile(File, read.Buffer, 2048, nullptr, &read.End.Ov);
            if (!started && os::GetLastError() != ERROR_IO_PENDING) Fail("a read", os::GetLastError());
        }
    }
    void Finish() {
        while (All[0].End.Done + All[1].End.Done < 2) SleepEx(100, TRUE);
        All[2].End.Done = GetOverlappedResult(File, &All[2].End.Ov, &All[2].End.Bytes, TRUE) ? 1 : 0;
        for (const auto &read : All) {
            if (read.End.Done != 1 || read.End.Error != 0 || read.End.Bytes != 2048)
                Fail("an overlapped read", read.End.Error, read.End.Done);
            CheckBytes(read.Buffer, read.End.Ov.Offset, 2048);
        }
        Close(File);
        Add(kReads, 3);
    }
};

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
    Reads reads(rng);
    os::SetLastError(4711);
    MigrateUserThread("DBW9");
    if (!IsDynamic(SchedOf(CallingFiber()))) Fail("not moved");
    if (os::GetLastError() != 4711) Fail("last error changed over a move", os::GetLastError());
    *seen = slot->Sent.fetch_add(0, std::memory_order_seq_cst);
    if (reads.All[0].End.Done + reads.All[1].End.Done != 0) Fail("a routine ran during a move");
    reads.Finish();
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
        Slot *slot = &gSlots[rng() % kWorkers];
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
    Patience patience{30};
    while (WaitForUserThreadPost(slot->Event, announced ? 1000 : 1) != WAIT_OBJECT_0) {
        if (!announced) return;
        if (!patience.Lasts()) Fail("a post was lost");
    }
    *seen = slot->Sent.load(std::memory_order_seq_cst);
}

// ---- Sockets -----------------------------------------------------------------------------------------

SOCKET gListener, gRough;  // whoever accepts on gRough may be terminated
uint16_t gPort, gRoughPort;
std::atomic<uint32_t> gRoughClients{0};

// The bytes of a receive with a routine, -1 for an error.
int ReceiveByRoutine(SOCKET s, char *buffer, ULONG room) {
    Routine state{};
    WSABUF one{room, buffer};
    DWORD flags = 0;
    if (WSARecv(s, &one, 1, nullptr, &flags, &state.Ov, OnRoutine<DWORD>) == 0 || os::GetLastError() != WSA_IO_PENDING)
        return SOCKET_ERROR;
    while (state.Done == 0) SleepEx(1000, TRUE);
    return state.Error == 0 ? static_cast<int>(state.Bytes) : SOCKET_ERROR;
}

// Echoes until the connection ends, in order or not: the client says whether all was well.
DWORD Session(void *param) {
    const auto s = reinterpret_cast<SOCKET>(param);
    const bool routines = (os::ReadTsc() & 64) != 0;
    char buffer[3000];
    int got;
    do got = routines ? ReceiveByRoutine(s, buffer, sizeof buffer) : zvx::recv(s, buffer, sizeof buffer, 0);
    while (got > 0 && zvx::send(s, buffer, got, 0) == got);
    CloseSocket(s);
    return 0;
}

// The thread that serves a connection is often of another scheduler than this one, which has bound the socket.
DWORD Acceptor(void *) {
    for (;;) {
        sockaddr_in from{};
        int length = sizeof from;
        const SOCKET s = zvx::accept(gListener, reinterpret_cast<sockaddr *>(&from), &length);
        if (s == INVALID_SOCKET) return gStop.load() ? 31 : 32;
        if (length != 16 || from.sin_addr.s_addr != netpeer::Loopback().sin_addr.s_addr) Fail("a client's address");
        CloseHandle(Start(Session, s));
    }
}

// A connection that is reset in the middle of an echo, or sends blocks, compares their echo and ends in order.
void UseSockets(Random &rng) {
    std::vector<char> out(1 + rng() % 900), in;
    if (rng() % 3 == 0) {
        const int fd = netpeer::Connect(gPort);
        if (fd < 0 || !netpeer::WriteAll(fd, out.data(), out.size())) Fail("a fresh connection takes nothing");
        if (rng() & 1) Sleep(1);
        const int hard[2] = {1, 0};
        syscall(SYS_setsockopt, fd, 1 /* SOL_SOCKET */, 13 /* SO_LINGER */, hard, sizeof hard);
        close(fd);
        return;
    }
    const SOCKET s = Connect(gPort);
    for (uint64_t rounds = rng() % 6; rounds != 0; rounds--) {
        if (rounds == 5) out.resize(60000);
        for (char &byte : out) byte = static_cast<char>(rng());
        in.assign(out.size(), '\0');
        Send(s, out.data(), static_cast<int>(out.size()));
        Receive(s, in.data(), static_cast<int>(in.size()));
        if (in != out) Fail("an echo differs", out.size());
        Add(kEchoes);
    }
    os::shutdown(s, SD_SEND);
    if (zvx::recv(s, in.data(), 1, 0) != 0) Fail("the server does not end the connection", os::GetLastError());
    CloseSocket(s);
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

// Children that are terminated from outside: asleep for ever, on the way in and out of a section, in a call for a
// socket.
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

// Nothing between the end of an accept and the close yields, so no socket can be lost.
DWORD RoughAcceptor(void *) {
    for (;;) {
        closesocket(zvx::accept(gRough, nullptr, nullptr));
        gRoughClients.fetch_sub(1);
    }
}
// Parked in a receive, in a send that nobody takes, or in a select.
DWORD Talker(void *param) {
    static const std::vector<char> large(16 << 20, 'x');
    const auto s = reinterpret_cast<SOCKET>(param);
    char byte;
    zvx_fd_set set{1, {s}};
    for (uint64_t way = os::ReadTsc() >> 4;; way++) {
        if (way % 3 == 0) zvx::recv(s, &byte, 1, 0);
        if (way % 3 == 1) zvx::send(s, large.data(), static_cast<int>(large.size()), 0);
        if (way % 3 == 2) zvx::select(0, &set, nullptr, nullptr, nullptr);
    }
}

void CreateAndTerminate(Random &rng) {
    static const LPTHREAD_START_ROUTINE kinds[] = {Sleeper, Contender, Mover, RoughAcceptor, Talker};
    size_t kind = rng() % 5;
    if (kind == 2 && !MayMove()) kind = 0;
    const SOCKET s = kind == 4 ? Connect(gPort) : INVALID_SOCKET;
    const HANDLE child = Start(kinds[kind], kind == 4 ? s : rng() & 0xFF);
    if (rng() & 1) Sleep(1);
    if (kind == 3 && gRoughClients.load() < 100) {  // fewer than are kept waiting for an accept
        gRoughClients.fetch_add(1);
        close(netpeer::Connect(gRoughPort));
    }
    if (rng() & 1) SuspendThread(child);
    if (!TerminateThread(child, 77)) Fail("TerminateThread", os::GetLastError());
    Join(child, 77);
    if (kind == 2) gMovedNow.fetch_sub(1);
    if (kind == 4) CloseSocket(s);
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
    Random rng(gSeed);
    while (!gStop.load(std::memory_order_relaxed)) UsePools<os::WaitForSingleObject, os::WaitForMultipleObjects>(rng);
    return 0;
}

// ---- The course of a run -----------------------------------------------------------------------------

DWORD Worker(void *param) {
    const auto self = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(param));
    Slot *const mine = &gSlots[self];
    Random rng(gSeed * 1000003 + self * 7919 + mine->Runs.load());
    static const DWORD slot = [] { return TlsAlloc(); }();
    os::TlsSetValue(slot, mine);
    static const char *const tags[] = {"SHAD", "P001", "DBW0", "PMON"};
    IdentifyUserThread(tags[self % 4], mine->Event);
    uint32_t seen = mine->Sent.load(std::memory_order_seq_cst);
    bool moved = false;
    while (!gStop.load(std::memory_order_relaxed)) {
        os::SetLastError(self + 5000);
        switch (rng() % 17) {
            case 0: CreateAndAwait(rng); break;
            case 1: CreateAndTerminate(rng); break;
            case 2: ReadSync(rng); break;
            case 3: Reads(rng).Finish(); break;
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
            case 13: UserThreadExecRoutine(gSlots[rng() % kWorkers].Event, InjectedRoutine); break;
            case 14:
                if (rng() % 8 == 0 && !moved && (moved = MayMove())) MoveAway(rng, mine, &seen);
                break;
            case 15: UseSockets(rng); break;
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

void Spawn(uint32_t i) {
    gSlots[i].Runs.fetch_add(1);
    gSlots[i].Thread.store(Start(Worker, i));
}

DWORD MainRoutine(void *) {
    gFileName = "stress_" + std::to_string(os::GetCurrentProcessId()) + ".dat";
    std::mt19937 bytes;
    while (gContent.size() < kFileBytes) gContent += static_cast<char>(bytes());
    std::ofstream(gFileName, std::ios::binary) << gContent;
    for (uint32_t i = 0; i < kWorkers; ++i) gSlots[i].Event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (Pool &pool : gPools) {
        pool.Units = os::CreateSemaphoreA(nullptr, kMostUnits, kMostUnits, nullptr);
        pool.Mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    }
    Sleep(20);
    const auto before = TakeCounts();
    const uint32_t kernelThreads = os::KernelThreadCount();
    const int sockets = netpeer::OpenSockets();
    for (uint32_t i = 0; i < kSections; ++i) InitializeCriticalSectionAndSpinCount(&gSections[i].Lock, i * 50);
    // Accepted sockets are of the same kind: those of the one kind wait for operations with a routine too.
    gListener = Listen(&gPort, WSA_FLAG_OVERLAPPED);
    gRough = Listen(&gRoughPort, 0);
    HANDLE acceptors[3];
    for (HANDLE &acceptor : acceptors) acceptor = Start(Acceptor);
    DWORD outsiderId;
    const HANDLE outsider = os::CreateThread(nullptr, 0, Outsider, nullptr, 0, &outsiderId);
    for (uint32_t i = 0; i < kWorkers; ++i) Spawn(i);
    const uint64_t end = os::GetTickCount64() + gSeconds * 1000ull;
    while (os::GetTickCount64() < end) {
        for (uint32_t i = 0; i < kWorkers; ++i) {
            if (WaitForSingleObject(gSlots[i].Thread.load(), 0) != WAIT_OBJECT_0) continue;
            Join(gSlots[i].Thread.exchange(nullptr), 0);
            Spawn(i);
        }
        Sleep(5);
    }
    gStop = true;
    // A worker that a neighbour suspended last is let go by its own ResumeThread; wait for each.
    for (uint32_t i = 0; i < kWorkers; ++i) Join(gSlots[i].Thread.exchange(nullptr), 0);
    Wait(outsider);
    os::CloseHandle(outsider);
    closesocket(gListener);
    closesocket(gRough);
    for (const HANDLE acceptor : acceptors) Join(acceptor, 31);
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
    for (size_t i = 0; i < 5; ++i) Await(before[i].first, [&] { return TakeCounts()[i].second == before[i].second; });
    Await("sockets left behind", [&] { return netpeer::OpenSockets() == sockets; });
    CheckTables();
    // The kernel's workers of each ring go, all but one or two, five seconds after their last work.
    Await("kernel threads left behind", [&] { return os::KernelThreadCount() <= kernelThreads + 36; });
    std::remove(gFileName.c_str());
    std::printf("stress: %u schedulers and %u of the library's making, %s, %u records:", gNumSchedulers,
                gSchedulersMade.load() - gNumSchedulers, os::IoBackendName(), gShellSerial.load());
    for (uint32_t i = 0; i < kCounts; ++i) {
        std::printf(" %llu %s", static_cast<unsigned long long>(gCounts[i].load()), kCountNames[i]);
        if (gCounts[i].load() == 0) Fail(kCountNames[i]);
    }
    std::printf("\n");
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    return Main(argc, argv, {"Schedulers=2", "StackPages=16", "QuantumLengthMs=30", "DynamicSchedulersEnabled=1"},
                MainRoutine);
}
