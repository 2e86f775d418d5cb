// bench/host.h - starts the library for a benchmark: settings from the options, the case as the main routine.
//
// In fiber mode the library never gives the process back, so a case runs as the first user thread, prints its lines and
// ends the process. Linked with the library's internals, so that a case may look at records and send messages itself.
#ifndef ZVX_BENCH_HOST_H
#define ZVX_BENCH_HOST_H

#include <atomic>

#include "bench/harness.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "sched/sched.h"
#include "sched/startup.h"

namespace bench {

inline Options gOptions;
inline void (*gCase)();

inline int Lookup(const char *name, char *buffer, int capacity) {
    const auto room = static_cast<size_t>(capacity);
    const auto is = [name](const char *key) { return std::strcmp(name, key) == 0; };
    if (is("ZVX_FIBERS_Schedulers")) return std::snprintf(buffer, room, "%u", gOptions.Schedulers);
    if (is("ZVX_FIBERS_PortWaitMs")) return std::snprintf(buffer, room, "%u", gOptions.PortWaitMs);
    return zvx::LookupEnvironment(name, buffer, capacity);
}

inline DWORD RunCase(void *) {
    gOptions.Backend = os::IoBackendName();
    gCase();
    os::ExitProcess(0);
}

// Does not return.
inline void RunHost(void (*body)()) {
    static uint32_t indicator;
    gCase = body;
    zvx::InitParams params{&indicator, nullptr, nullptr, 0, Lookup};
    zvx::InitUserThreadScheduler(RunCase, nullptr, &params);
    Fail("the library came back");
}

inline HANDLE Create(LPTHREAD_START_ROUTINE routine, void *param = nullptr, DWORD mask = 0) {
    const HANDLE thread = zvx::ZCreateThreadWithAffinity(nullptr, 0, routine, param, 0, nullptr, mask);
    if (thread == nullptr) Fail("CreateThread", os::GetLastError());
    return thread;
}

inline void CreateAndForget(LPTHREAD_START_ROUTINE routine, void *param = nullptr, DWORD mask = 0) {
    if (!zvx::CloseHandle(Create(routine, param, mask))) Fail("CloseHandle", os::GetLastError());
}

struct NamedCase {
    const char *Name;
    void (*Body)();
};

// The case that --case names, of those in `cases`.
inline int HostMain(int argc, char **argv, const NamedCase *cases, size_t count) {
    if (ParseOptions(argc, argv, &gOptions)) {
        for (size_t i = 0; i < count; ++i)
            if (gOptions.Case == cases[i].Name) RunHost(cases[i].Body);
    }
    std::fprintf(stderr,
                 "usage: %s --case NAME [--threads N] [--schedulers N] [--port-wait-ms N]\n"
                 "       [--repetitions N] [--repetition-ms N] [--seconds N] [--file NAME]\ncases:",
                 argv[0]);
    for (size_t i = 0; i < count; ++i) std::fprintf(stderr, " %s", cases[i].Name);
    std::fprintf(stderr, "\n");
    return 2;
}

}  // namespace bench

#endif  // ZVX_BENCH_HOST_H
