// tests/stress/stress.h - what the stress programs and the fault host share: the end by a failure, threads,
// operations with routines, settings and the start.
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

// For a library that has not started: KEY=VALUE. What the environment says already stays.
inline void SetSettings(std::initializer_list<std::string> settings) {
    for (const std::string &setting : settings) {
        const size_t at = setting.find('=');
        setenv(("ZVX_FIBERS_" + setting.substr(0, at)).c_str(), setting.c_str() + at + 1, 0);
    }
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
    SetSettings(settings);
    std::printf("stress: seed %llu\n", static_cast<unsigned long long>(gSeed));
    std::fflush(stdout);
    static uint32_t indicator;
    zvx::InitParams params{&indicator, nullptr, nullptr, 0, nullptr};
    zvx::InitUserThreadScheduler(routine, nullptr, &params);
    return 1;
}

}  // namespace stress

#endif  // ZVX_TESTS_STRESS_STRESS_H
