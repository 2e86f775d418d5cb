// bench/platform_bench.cpp - the floor under a yield: os::SwitchToFiber among fibers in a ring, and nothing else.
//
// No scheduler runs here; the main thread is one of the fibers.
#include "bench/harness.h"
#include "platform/os.h"

namespace {

using namespace bench;

Options gOptions;
std::vector<os::FiberContext *> gRing;
os::ThreadBlock *gBlock;

// Each fiber knows its successor only, as a run queue would.
void Turn(void *next) {
    for (;;) os::SwitchToFiber(gBlock, gRing[reinterpret_cast<uintptr_t>(next)]);
}

// With the fiber after next brought into the cache, as the scheduler does.
void TurnAndPrefetch(void *next) {
    const auto index = reinterpret_cast<uintptr_t>(next);
    for (;;) {
        os::PrefetchFiber(gRing[(index + 1) % gRing.size()]);
        os::SwitchToFiber(gBlock, gRing[index]);
    }
}

double Laps(uint64_t n) {
    const uint64_t laps = (n + gRing.size() - 1) / gRing.size();
    const double start = NowNs();
    for (uint64_t i = 0; i < laps; ++i) os::SwitchToFiber(gBlock, gRing[1]);
    return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(laps * gRing.size());
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Impl = "bare switch";
    gOptions.Case = "switch";
    if (!ParseOptions(argc, argv, &gOptions) || gOptions.Threads < 2) {
        std::fprintf(stderr, "usage: %s [--case switch|switch_prefetch] [--threads N]\n", argv[0]);
        return 2;
    }
    const bool prefetch = gOptions.Case == "switch_prefetch";
    if (prefetch) gOptions.Impl = "bare switch, prefetching";
    gBlock = os::CurrentThreadBlock();
    gRing.push_back(os::ConvertThreadToFiber(nullptr));
    for (uint32_t i = 1; i < gOptions.Threads; ++i) {
        const uintptr_t next = (i + 1) % gOptions.Threads;
        gRing.push_back(os::CreateFiber(1 << 20, prefetch ? TurnAndPrefetch : Turn, reinterpret_cast<void *>(next)));
        if (gRing.back() == nullptr) Fail("CreateFiber", os::GetLastError());
    }
    Measure(gOptions, "yield/" + std::to_string(gOptions.Threads), Laps, gOptions.Threads * 4);
    return 0;
}
