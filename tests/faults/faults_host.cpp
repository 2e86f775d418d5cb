// tests/faults/faults_host.cpp - a host for faults.py: faults_host SCENARIO FOLDER [POINTS].
//
// One run is one scenario with at most one call of the platform that fails. A function of the library that reports
// that is told ("refused NAME ERROR") and called again, and the second call must succeed: what the library has given up
// in the first must not be missing. Every wait has a limit or is a hang that the driver sees. What a scenario took must
// be back at its end, by the counts of the library and of the platform, compared with those after a round without
// faults.
//
// Built on the internals, for those counts. The points of `startup` come in the environment, so that they count from
// the first call of the process; those of the others are armed after the first round.
#include <filesystem>

#include "dedicated/dedicated.h"
#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "postwait/postwait.h"
#include "stress/stress.h"

namespace {

using namespace zvx;
using namespace stress;

std::string gScenario, gFolder, gPoints;
constexpr DWORD kLong = 30000;

HANDLE NewEvent(bool manual) {
    HANDLE event = nullptr;
    Try("CreateEvent", [&] { return (event = CreateEventA(nullptr, manual, FALSE, nullptr)) != nullptr; });
    return event;
}

// ---- A session ---------------------------------------------------------------------------------------

constexpr int kBlock = 300000;  // more than a socket takes at once
uint16_t gPort;

// The other end, a user thread too: connecting to a socket that listens blocks nobody.
DWORD Client(void *) {
    static char out[kBlock], in[kBlock];
    SOCKET s = Connect(gPort);
    // An accept that fails after the client has come takes the connection with it.
    for (int got = -1; got != 1;) {
        Try("recv", [&] {
            got = zvx::recv(s, in, 1, 0);
            if (got == SOCKET_ERROR && os::GetLastError() == WSAECONNRESET) got = 0;
            return got != SOCKET_ERROR;
        });
        if (got == 1) break;
        CloseSocket(s);
        s = Connect(gPort);
    }
    for (int i = 0; i < kBlock; ++i) out[i] = static_cast<char>(static_cast<uint32_t>(i) * 2654435761u >> 13);
    Send(s, out, kBlock);
    std::memset(in, 0, sizeof in);
    Receive(s, in, kBlock);
    if (std::memcmp(in, out, kBlock) != 0) Fail("the echo differs");
    Sleep(3);  // the server waits in its select by now
    Send(s, "select", 6);
    Receive(s, in, 1);
    Send(s, "routine", 7);
    char byte;
    int got = 1;
    Try("recv", [&] { return (got = zvx::recv(s, &byte, 1, 0)) != SOCKET_ERROR; });
    if (got != 0) Fail("no end of the connection");
    CloseSocket(s);
    return 11;
}

// The bytes of an operation whose start has succeeded; 0 when its routine tells an error.
DWORD AwaitRoutine(const char *name, const Routine &routine) {
    for (int i = 0; i < 300 && routine.Done == 0; ++i) SleepEx(100, TRUE);
    if (routine.Done != 1) Fail("a completion routine was lost");
    if (routine.Error != 0) std::printf("refused %s %u\n", name, routine.Error);
    return routine.Error == 0 ? routine.Bytes : 0;
}

void ServeSocket(SOCKET s) {
    static char block[kBlock];
    Send(s, "g", 1);
    Receive(s, block, kBlock);
    Send(s, block, kBlock);
    Try("select", [&] {
        zvx_fd_set set{1, {s}};
        const os::TimeVal limit{kLong / 1000, 0};
        const int ready = zvx::select(0, &set, nullptr, nullptr, &limit);
        if (ready == 0) Fail("select: a wake-up was lost");
        return ready == 1;
    });
    Receive(s, block, 6);
    char text[16] = {};
    Routine routine{};
    WSABUF one{sizeof text, text};
    DWORD flags = 0;
    Try("WSARecv", [&] {
        return WSARecv(s, &one, 1, nullptr, &flags, &routine.Ov, OnRoutine<DWORD>) == 0 ||
               os::GetLastError() == WSA_IO_PENDING;
    });
    Send(s, "x", 1);
    const DWORD got = AwaitRoutine("WSARecv", routine);
    if (routine.Error == 0 && (got == 0 || text[0] != 'r')) Fail("a routine's bytes", got);
    if (got < 7) Receive(s, text, static_cast<int>(7 - got));
}

// `before`: what comes before every try.
template <typename Before>
SOCKET Accept(SOCKET listener, Before before) {
    SOCKET s = INVALID_SOCKET;
    sockaddr_in name{};
    int length = sizeof name;
    Try("accept", [&] {
        before();
        return (s = zvx::accept(listener, reinterpret_cast<sockaddr *>(&name), &length)) != INVALID_SOCKET;
    });
    return s;
}

void Sockets() {
    const SOCKET listener = Listen(&gPort);
    const HANDLE client = Start(Client);
    const SOCKET s = Accept(listener, [] {});
    ServeSocket(s);
    CloseSocket(s);
    CloseSocket(listener);
    Join(client, 11);
}

// ---- Events, sections and posts ----------------------------------------------------------------------

struct Shared {
    CRITICAL_SECTION Lock;
    HANDLE Go, Done, Post;
    uint32_t Count;  // [Lock]
};

DWORD Partner(void *param) {
    auto *shared = static_cast<Shared *>(param);
    IdentifyUserThread("SHAD", shared->Done);
    Wait(shared->Go);
    EnterCriticalSection(&shared->Lock);
    Sleep(1);
    shared->Count++;
    LeaveCriticalSection(&shared->Lock);
    Try("PostUserThread", [&] { return PostUserThread(shared->Post); });
    if (WaitForUserThreadPost(shared->Done, kLong) != WAIT_OBJECT_0) Fail("a post was lost");
    UnidentifyUserThread(0);
    return 12;
}

void Objects() {
    Shared shared{};
    Try("InitializeCriticalSection", [&] { return InitializeCriticalSectionAndSpinCount(&shared.Lock, 20); });
    shared.Go = NewEvent(true);
    shared.Done = NewEvent(false);
    shared.Post = NewEvent(false);
    IdentifyUserThread("MAIN", shared.Post);
    const HANDLE partners[] = {Start(Partner, reinterpret_cast<uintptr_t>(&shared))};
    Sleep(1);
    EnterCriticalSection(&shared.Lock);
    Try("SetEvent", [&] { return SetEvent(shared.Go); });
    Sleep(2);
    shared.Count++;
    LeaveCriticalSection(&shared.Lock);
    if (WaitForUserThreadPost(shared.Post, kLong) != WAIT_OBJECT_0) Fail("a post was lost");
    const HANDLE list[] = {shared.Done, nullptr};
    Try("PostMultipleUserThreads", [&] { return PostMultipleUserThreads(list) == -1; });
    const HANDLE all[] = {shared.Go, partners[0]};
    Try("WaitForMultipleObjects", [&] {
        const DWORD result = WaitForMultipleObjects(2, all, TRUE, kLong);
        if (result == WAIT_TIMEOUT) Fail("wait for all: a wake-up was lost");
        return result == WAIT_OBJECT_0;
    });
    Try("ResetEvent", [&] { return ResetEvent(shared.Go); });
    if (WaitForSingleObject(shared.Go, 2) == WAIT_OBJECT_0) Fail("an event is still set");
    Join(partners[0], 12);
    UnidentifyUserThread(0);
    if (shared.Count != 2) Fail("count under the lock", shared.Count);
    DeleteCriticalSection(&shared.Lock);
    for (const HANDLE event : {shared.Go, shared.Done, shared.Post}) Close(event);
}

void Files() {
    const std::string path = gFolder + "/file";
    HANDLE file = INVALID_HANDLE_VALUE;
    const auto open = [&](DWORD access, DWORD disposition, DWORD flags) {
        Try("CreateFileA", [&] {
            file = CreateFileA(path.c_str(), access, 0, nullptr, disposition, flags, nullptr);
            return file != INVALID_HANDLE_VALUE;
        });
    };
    open(GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS, 0);
    static char out[20000], in[20000];
    std::memset(out, 'o', sizeof out);
    std::memset(in, 0, sizeof in);
    DWORD moved = 0;
    Try("WriteFile", [&] { return WriteFile(file, out, sizeof out, &moved, nullptr) && moved == sizeof out; });
    Try("SetFilePointer", [&] { return SetFilePointer(file, 0, nullptr, FILE_BEGIN) == 0; });
    Try("ReadFile", [&] { return ReadFile(file, in, sizeof in, &moved, nullptr) && moved == sizeof in; });
    if (std::memcmp(in, out, sizeof in) != 0) Fail("the file differs");
    Close(file);
    open(GENERIC_READ, OPEN_EXISTING, FILE_FLAG_OVERLAPPED);
    Routine routine{};
    Try("ReadFileEx", [&] { return ReadFileEx(file, in, 5000, &routine.Ov, OnRoutine<>); });
    const DWORD got = AwaitRoutine("ReadFileEx", routine);
    if (routine.Error == 0 && got != 5000) Fail("a routine's bytes", got);
    Close(file);
}

// A call that a thread of its own makes: no process here has a window to be idle.
void Dedicated() {
    Try("WaitForInputIdle", [&] {
        return zvx::WaitForInputIdle(os::GetCurrentProcess(), 1000) == WAIT_FAILED &&
               os::GetLastError() == ERROR_NOT_GUI_PROCESS;
    });
}

// ---- Ends of threads ---------------------------------------------------------------------------------

DWORD Returns(void *) {
    return 21;
}
DWORD Exits(void *) {
    Sleep(1);
    ExitThread(22);
    return 0;
}
DWORD SleepsForEver(void *) {
    for (;;) Sleep(INFINITE);
}
// In a receive that nobody answers, with a read of its own on its stack.
DWORD Receives(void *param) {
    const auto s = reinterpret_cast<SOCKET>(param);
    char byte;
    for (;;) zvx::recv(s, &byte, 1, 0);
}
// Owns a section at its end.
DWORD OwnsSection(void *param) {
    EnterCriticalSection(&static_cast<Shared *>(param)->Lock);
    return 23;
}
DWORD Moves(void *) {
    MigrateUserThread("DBW9");
    Sleep(1);
    return 24;
}

void Terminate(HANDLE thread, DWORD code) {
    Try("TerminateThread", [&] { return TerminateThread(thread, code); });
    Join(thread, code);
}

void Ends() {
    Join(Start(Returns), 21);
    Join(Start(Exits), 22);
    const HANDLE suspended = Start(Returns, 0, CREATE_SUSPENDED);
    Try("ResumeThread", [&] { return ResumeThread(suspended) == 1; });
    Join(suspended, 21);
    const HANDLE asleep = Start(SleepsForEver);
    Sleep(1);
    Try("SuspendThread", [&] { return SuspendThread(asleep) == 0; });
    Terminate(asleep, 31);
    uint16_t port;
    const SOCKET listener = Listen(&port);
    int peer = -1;
    SOCKET s = Accept(listener, [&] {
        close(peer);
        peer = netpeer::Connect(port);
    });
    const HANDLE receiving = Start(Receives, s);
    Sleep(2);
    Terminate(receiving, 32);
    CloseSocket(s);
    CloseSocket(listener);
    close(peer);
    Shared shared{};
    Try("InitializeCriticalSection", [&] { return InitializeCriticalSectionAndSpinCount(&shared.Lock, 0); });
    Join(Start(OwnsSection, reinterpret_cast<uintptr_t>(&shared)), 23);
    if (!TryEnterCriticalSection(&shared.Lock)) Fail("a section is owned by a thread that has ended");
    LeaveCriticalSection(&shared.Lock);
    DeleteCriticalSection(&shared.Lock);
    Join(Start(Moves), 24);
}

// ---- The course of a run -----------------------------------------------------------------------------

DWORD MainRoutine(void *) {
    const auto round = [&] {
        if (gScenario == "startup") {
            // The thread that writes the ring log opens its file when it first runs.
            const auto opened = [] {
                for (const auto &entry : std::filesystem::directory_iterator(gFolder))
                    if (entry.path().string().ends_with("fiber_stats.txt")) return true;
                return false;
            };
            for (int i = 0; i < 600 && !opened(); ++i) Sleep(5);
            const HANDLE threads[] = {Start(Returns), Start(Exits), Start(Moves)};
            for (DWORD i = 0; i < 3; ++i) Join(threads[i], i == 2 ? 24 : 21 + i);
        } else if (gScenario == "session") {
            Sockets();
            Objects();
            Files();
            do Dedicated();
            while (OrphanedCalls() != 0);  // one that had not ended when it was given up goes with the next
        } else if (gScenario == "exit") {
            Ends();
        }
    };
    round();
    if (gScenario != "startup") {
        Sleep(20);
        TracePrintf("a stall may be reported at any time, and opens this file\n");
        // Twice: what is made once and kept is made by now.
        round();
        Sleep(20);
        const auto before = TakeCounts();
        os::ArmFailPoints(gPoints.c_str());
        round();
        // A handle that cannot be closed stays open, whoever closes it.
        const bool open =
            gPoints.find(",CloseHandle:") != gPoints.npos || gPoints.find(",closesocket:") != gPoints.npos;
        for (size_t i = 0; i < before.size(); ++i)
            Await(before[i].first, [&] { return TakeCounts()[i].second <= before[i].second + (open && i >= 6); });
        CheckTables();
    }
    if (gScenario == "fatal") FatalExit("the end of the test %d\n", 7);
    std::printf("whole %s\n", os::IoBackendName());
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) return 2;
    gScenario = argv[1];
    gFolder = argv[2];
    if (argc > 3) gPoints = argv[3];
    gOneFails = true;
    return Begin({"Schedulers=2", "StackPages=16", "DynamicSchedulersEnabled=1", "LogToFile=1", "PrintToConsole=0",
                  "StallReportMs=100", "SetThreadPriority=1", "EnableLargePages=1"},
                 MainRoutine, (gFolder + "/").c_str());
}
