// tests/stress/stress.h - what the stress programs share: options, the start of the library, threads and the end by a
// failure.
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

// ---- The start ---------------------------------------------------------------------------------------

inline int Lookup(const char *name, char *buffer, int capacity) {
    for (const auto &[key, value] : gOptions.Settings)
        if ("ZVX_FIBERS_" + key == name)
            return std::snprintf(buffer, static_cast<size_t>(capacity), "%s", value.c_str());
    return zvx::LookupEnvironment(name, buffer, capacity);
}

// The whole of main. Does not return when the library starts.
inline int Main(int argc, char **argv, LPTHREAD_START_ROUTINE mainRoutine) {
    gOptions.Seed = os::GetTickCount64() ^ (uint64_t{os::GetCurrentProcessId()} << 20);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const uint64_t value = std::strtoull(argv[i + 1], nullptr, 10);
        if (name == "--schedulers") gOptions.Schedulers = static_cast<uint32_t>(value);
        if (name == "--seconds") gOptions.Seconds = static_cast<uint32_t>(value);
        if (name == "--seed") gOptions.Seed = value;
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
