// tests/stress/stress.h - what the stress programs share: options, the start of the library, threads and a file of
// known contents, the end by a failure, and what must be back at the end.
#ifndef ZVX_TESTS_STRESS_STRESS_H
#define ZVX_TESTS_STRESS_STRESS_H

#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "alloc/alloc.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "net/net.h"
#include "sched/sched.h"
#include "sched/startup.h"

namespace stress {

struct Options {
    uint32_t Schedulers = 2, Seconds = 5;
    uint64_t Seed = 0;
    uint32_t Load;  // workers or clients
    std::vector<std::pair<std::string, std::string>> Settings{{"StackPages", "16"}};
};
inline Options gOptions;

[[noreturn]] inline void Fail(const char *what, uint64_t a = 0, uint64_t b = 0) {
    std::fflush(stdout);
    std::fprintf(stderr, "FAILED: %s (%llu, %llu) seed %llu\n", what, static_cast<unsigned long long>(a),
                 static_cast<unsigned long long>(b), static_cast<unsigned long long>(gOptions.Seed));
    std::abort();
}

inline int64_t ChunksInUse(uint32_t type) {
    int64_t sum = 0;
    for (uint32_t i = 0; i < zvx::gSchedulersMade.load(); ++i) sum += zvx::gSchedulers[i]->ChunkTypeCount[type];
    return sum;
}

// ---- On user threads ---------------------------------------------------------------------------------

template <typename Condition>
void Await(const char *what, Condition condition) {
    for (int i = 0; i < 4000; ++i) {
        if (condition()) return;
        zvx::Sleep(5);
    }
    Fail(what);
}

inline HANDLE Start(LPTHREAD_START_ROUTINE routine, uintptr_t param = 0, DWORD flags = 0) {
    const HANDLE thread = zvx::CreateThread(nullptr, 0, routine, reinterpret_cast<void *>(param), flags, nullptr);
    if (thread == nullptr) Fail("CreateThread", os::GetLastError());
    return thread;
}

inline void Join(HANDLE thread, DWORD wanted) {
    DWORD code = 0;
    if (zvx::WaitForSingleObject(thread, 60000) != WAIT_OBJECT_0) Fail("a thread does not end", wanted);
    if (!zvx::GetExitCodeThread(thread, &code) || code != wanted) Fail("exit code", code, wanted);
    zvx::CloseHandle(thread);
}

// Retired records come back once every scheduler has gone idle or made a pass.
inline void CheckAllBack(uint32_t handles) {
    using namespace zvx;
    Await("handles left behind", [&] { return gHandleCount == handles; });
    Await("handle entries left behind",
          [] { return ChunksInUse(ALLOC_PSEHAND) == static_cast<int64_t>(gHandleCount); });
    CheckHandleTable();
    CheckScheduler(SchedOf(CallingFiber()));
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

inline sockaddr_in Loopback(uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = __builtin_bswap32(0x7F000001);
    name.sin_port = __builtin_bswap16(port);
    return name;
}
// On a free port of this machine.
inline SOCKET Listen(uint16_t *port, DWORD flags) {
    const SOCKET s = zvx::WSASocketA(AF_INET, SOCK_STREAM, 0, nullptr, 0, flags);
    sockaddr_in name = Loopback(0);
    int length = sizeof name;
    if (os::bind(s, reinterpret_cast<sockaddr *>(&name), length) != 0 || os::listen(s, 200) != 0 ||
        os::getsockname(s, reinterpret_cast<sockaddr *>(&name), &length) != 0)
        Fail("no listening socket", os::GetLastError());
    *port = __builtin_bswap16(name.sin_port);
    return s;
}

// A file whose words tell their place.
constexpr uint32_t kFileBytes = 1 << 20;
inline std::string gFileName;
inline uint32_t PatternAt(uint64_t offset) {
    return static_cast<uint32_t>(offset * 2654435761u ^ (offset >> 7));
}
inline void MakeFile() {
    gFileName = "stress_" + std::to_string(os::GetCurrentProcessId()) + ".dat";
    std::FILE *file = std::fopen(gFileName.c_str(), "wb");
    if (file == nullptr) Fail("cannot make the data file");
    for (uint32_t offset = 0; offset < kFileBytes; offset += 4) {
        const uint32_t word = PatternAt(offset);
        std::fwrite(&word, 4, 1, file);
    }
    std::fclose(file);
}

// ---- The start ---------------------------------------------------------------------------------------

inline int Lookup(const char *name, char *buffer, int capacity) {
    for (const auto &[key, value] : gOptions.Settings)
        if ("ZVX_FIBERS_" + key == name)
            return std::snprintf(buffer, static_cast<size_t>(capacity), "%s", value.c_str());
    return zvx::LookupEnvironment(name, buffer, capacity);
}

// The whole of main: `load` names the option for gOptions.Load. Does not return when the library starts.
inline int Main(int argc, char **argv, const char *load, uint32_t mostLoad, LPTHREAD_START_ROUTINE mainRoutine) {
    gOptions.Seed = os::GetTickCount64() ^ (uint64_t{os::GetCurrentProcessId()} << 20);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const uint64_t value = std::strtoull(argv[i + 1], nullptr, 10);
        if (name == "--schedulers")
            gOptions.Schedulers = static_cast<uint32_t>(value);
        else if (name == "--seconds")
            gOptions.Seconds = static_cast<uint32_t>(value);
        else if (name == "--seed")
            gOptions.Seed = value;
        else if (name == load && value <= mostLoad)
            gOptions.Load = static_cast<uint32_t>(value);
        else
            return 2;
    }
    gOptions.Settings.emplace_back("Schedulers", std::to_string(gOptions.Schedulers));
    std::printf("stress: seed %llu\n", static_cast<unsigned long long>(gOptions.Seed));
    std::fflush(stdout);
    static uint32_t indicator;
    zvx::InitParams params{&indicator, nullptr, nullptr, 0, Lookup};
    zvx::InitUserThreadScheduler(mainRoutine, nullptr, &params);
    return 1;
}

}  // namespace stress

#endif  // ZVX_TESTS_STRESS_STRESS_H
