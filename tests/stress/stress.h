// tests/stress/stress.h - what the stress host and the fault host share: the end by a failure, operations with
// routines, and settings.
#ifndef ZVX_TESTS_STRESS_STRESS_H
#define ZVX_TESTS_STRESS_STRESS_H

#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
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

}  // namespace stress

#endif  // ZVX_TESTS_STRESS_STRESS_H
