// tests/stress/stress.h - what the stress programs and the fault host share: calls and the end by a failure, threads,
// sockets, operations with routines, what must be back, settings and the start.
#ifndef ZVX_TESTS_STRESS_STRESS_H
#define ZVX_TESTS_STRESS_STRESS_H

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "alloc/alloc.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "net/net.h"
#include "platform/base/minidump.h"
#include "sched/sched.h"
#include "sched/startup.h"
#include "support/net_peer.h"

namespace stress {

inline uint64_t gSeed = 0;
inline uint32_t gSeconds = 5;

[[noreturn]] inline void Fail(const char *what, uint64_t a = 0, uint64_t b = 0) {
    std::fflush(stdout);
    std::fprintf(stderr, "FAILED: %s (%llu, %llu) seed %llu\n", what, static_cast<unsigned long long>(a),
                 static_cast<unsigned long long>(b), static_cast<unsigned long long>(gSeed));
    std::abort();
}

inline int64_t ChunksInUse(uint32_t type) {
    int64_t sum = 0;
    for (uint32_t i = 0; i < zvx::gSchedulersMade.load(); ++i) sum += zvx::gSchedulers[i]->ChunkTypeCount[type];
    return sum;
}

// Seconds of patience, of which only those count in which no kernel thread of this process went long without a
// processor. Where processes are scheduled in groups, as by session or container, a loaded machine has been seen to let
// threads that could run stand for seconds: what does not happen meanwhile is not lost.
struct Patience {
    int Seconds;
    std::map<std::string, uint64_t> Waited{};  // of each thread, nanoseconds

    // After another second of waiting: whether to go on.
    bool Lasts() {
        bool starved = false;
        for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
            uint64_t ran = 0, waited = 0;
            std::ifstream(task.path() / "schedstat") >> ran >> waited;
            const auto [entry, isNew] = Waited.try_emplace(task.path().filename(), waited);
            starved |= !isNew && waited - entry->second > 300'000'000;
            entry->second = waited;
        }
        return starved || --Seconds > 0;
    }
};

void Await(const char *what, auto condition) {
    Patience patience{20};
    for (int i = 1; !condition(); ++i) {
        if (i % 200 == 0 && !patience.Lasts()) Fail(what);
        zvx::Sleep(5);
    }
}

// A call that must succeed; where one call of the platform is made to fail, at the second time.
inline bool gOneFails = false;
void Try(const char *name, auto call) {
    for (bool again = gOneFails;; again = false) {
        os::SetLastError(0);
        if (call()) return;
        if (!again) Fail(name, os::GetLastError());
        std::printf("refused %s %u\n", name, os::GetLastError());
    }
}

inline HANDLE Start(LPTHREAD_START_ROUTINE routine, uintptr_t param = 0, DWORD flags = 0) {
    HANDLE thread = nullptr;
    auto *const argument = reinterpret_cast<void *>(param);
    Try("CreateThread",
        [&] { return (thread = zvx::CreateThread(nullptr, 0, routine, argument, flags, nullptr)) != nullptr; });
    return thread;
}

inline void Close(HANDLE handle) {
    Try("CloseHandle", [&] { return zvx::CloseHandle(handle); });
}

inline void Wait(HANDLE handle) {
    Patience patience{50};
    Try("WaitForSingleObject", [&] {
        DWORD result;
        while ((result = zvx::WaitForSingleObject(handle, 1000)) == WAIT_TIMEOUT)
            if (!patience.Lasts()) Fail("a wake-up was lost");
        return result == WAIT_OBJECT_0;
    });
}

inline void Join(HANDLE thread, DWORD wanted) {
    Wait(thread);
    DWORD code = 0;
    Try("GetExitCodeThread", [&] { return zvx::GetExitCodeThread(thread, &code); });
    if (code != wanted) Fail("exit code", code, wanted);
    Close(thread);
}

// What a host takes and gives back, by name. The sixth is for the fault host, which no race detector watches: a free
// list is its own scheduler's.
inline std::vector<std::pair<const char *, int64_t>> TakeCounts() {
    int64_t userThreads = 0, osHandles = 0, descriptors = 0, operations = ChunksInUse(zvx::ALLOC_FIBEROVERLAPPED);
    for (uint32_t i = 0; i < zvx::gSchedulersMade.load(); ++i) {
        userThreads += zvx::gSchedulers[i]->FiberCount.load();
        if (gOneFails) operations -= zvx::gSchedulers[i]->FreeOvs.Count;
    }
    os::VisitHandles([](HANDLE, const os::Object *, void *count) { ++*static_cast<int64_t *>(count); }, &osHandles);
    for (int fd = 0; fd < 1024; ++fd) descriptors += fcntl(fd, F_GETFD) >= 0;
    return {{"user threads", userThreads},
            {"handles", zvx::gHandleCount},
            {"sections", ChunksInUse(zvx::ALLOC_FIBER_CRITICAL_SECTION)},
            {"messages", ChunksInUse(zvx::ALLOC_FIBER_MESSAGE)},
            {"dynamic schedulers", zvx::gNumDynamicSchedulers.load()},
            {"operations", operations},
            {"handles of the platform", osHandles},
            {"descriptors", descriptors}};
}

inline void CheckTables() {
    // Retired records come back once every scheduler has gone idle or made a pass.
    Await("handle entries", [] { return ChunksInUse(zvx::ALLOC_PSEHAND) == static_cast<int64_t>(zvx::gHandleCount); });
    zvx::CheckHandleTable();
    zvx::CheckScheduler(zvx::SchedOf(zvx::CallingFiber()));
}

// An operation with a routine, for files and, with one more argument, for sockets.
struct Routine {
    OVERLAPPED Ov;
    DWORD Error, Bytes, Done;
};
template <typename... Flags>
void OnRoutine(DWORD error, DWORD bytes, OVERLAPPED *ov, Flags...) {
    auto *routine = reinterpret_cast<Routine *>(ov);
    routine->Error = error;
    routine->Bytes = bytes;
    routine->Done++;
}

// On a free port of this machine.
inline SOCKET Listen(uint16_t *port, DWORD flags = WSA_FLAG_OVERLAPPED) {
    SOCKET s = INVALID_SOCKET;
    Try("WSASocketA",
        [&] { return (s = zvx::WSASocketA(AF_INET, SOCK_STREAM, 0, nullptr, 0, flags)) != INVALID_SOCKET; });
    sockaddr_in name = netpeer::Loopback();
    auto *const address = reinterpret_cast<sockaddr *>(&name);
    int length = sizeof name;
    Try("bind", [&] { return os::bind(s, address, length) == 0; });
    Try("listen", [&] { return os::listen(s, 200) == 0; });
    Try("getsockname", [&] { return os::getsockname(s, address, &length) == 0; });
    *port = __builtin_bswap16(name.sin_port);
    return s;
}

inline SOCKET Connect(uint16_t port) {
    SOCKET s = INVALID_SOCKET;
    Try("socket", [&] { return (s = zvx::socket(AF_INET, SOCK_STREAM, 0)) != INVALID_SOCKET; });
    const sockaddr_in name = netpeer::Loopback(port);
    Try("connect", [&] { return os::connect(s, reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0; });
    return s;
}

inline void Send(SOCKET s, const char *data, int bytes) {
    Try("send", [&] { return zvx::send(s, data, bytes, 0) == bytes; });
}

inline void Receive(SOCKET s, char *data, int bytes) {
    for (int done = 0, got = 0; done < bytes; done += got) {
        Try("recv", [&] { return (got = zvx::recv(s, data + done, bytes - done, 0)) != SOCKET_ERROR; });
        if (got == 0) Fail("the connection ended", static_cast<uint64_t>(done));
    }
}

inline void CloseSocket(SOCKET s) {
    Try("closesocket", [&] { return zvx::closesocket(s) == 0; });
}

// For a library that has not started: KEY=VALUE. What the environment says already stays.
inline void SetSettings(std::initializer_list<std::string> settings) {
    for (const std::string &setting : settings) {
        const size_t at = setting.find('=');
        setenv(("ZVX_FIBERS_" + setting.substr(0, at)).c_str(), setting.c_str() + at + 1, 0);
    }
}

inline int Begin(std::initializer_list<std::string> settings, LPTHREAD_START_ROUTINE routine, const char *traces) {
    SetSettings(settings);
    static uint32_t indicator;
    zvx::InitParams params{&indicator, nullptr, traces, 0, nullptr};
    zvx::InitUserThreadScheduler(routine, nullptr, &params);
    return 1;
}

// Options, then the library: --schedulers N, --seconds N, --seed N.
inline int Main(int argc, char **argv, std::initializer_list<std::string> settings, LPTHREAD_START_ROUTINE routine) {
    gSeed = os::GetTickCount64() ^ (uint64_t{os::GetCurrentProcessId()} << 20);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--schedulers") SetSettings({std::string("Schedulers=") + argv[i + 1]});
        if (name == "--seconds") gSeconds = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        if (name == "--seed") gSeed = std::strtoull(argv[i + 1], nullptr, 10);
    }
    std::printf("stress: seed %llu\n", static_cast<unsigned long long>(gSeed));
    std::fflush(stdout);
    return Begin(settings, routine, nullptr);
}

}  // namespace stress

#endif  // ZVX_TESTS_STRESS_STRESS_H
