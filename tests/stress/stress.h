// tests/stress/stress.h - what the stress programs share: options, the end by a failure, and the start of the library.
#ifndef ZVX_TESTS_STRESS_STRESS_H
#define ZVX_TESTS_STRESS_STRESS_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

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
    std::fprintf(stderr, "stress: FAILED: %s (%llu, %llu) seed %llu\n", what, static_cast<unsigned long long>(a),
                 static_cast<unsigned long long>(b), static_cast<unsigned long long>(gOptions.Seed));
    std::abort();
}

inline int64_t ChunksInUse(uint32_t type) {
    int64_t sum = 0;
    for (uint32_t i = 0; i < zvx::gSchedulersMade.load(); ++i) sum += zvx::gSchedulers[i]->ChunkTypeCount[type];
    return sum;
}

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
