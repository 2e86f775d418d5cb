// bench/process_bench.cpp - what a process costs that does nothing: memory of parked threads, processor time of idle
// schedulers.
#include "bench/host.h"

namespace {

using namespace bench;

// ---- Parked threads ----------------------------------------------------------------------------------

std::atomic<uint32_t> gParked;

DWORD Park(void *) {
    gParked.fetch_add(1, std::memory_order_relaxed);
    for (;;) zvx::Sleep(INFINITE);
}

struct Memory {
    double ResidentKiB;
    double PageTableKiB;
    double KernelThreads;
};

Memory MemoryWith(uint32_t threads) {
    for (uint32_t have = gParked.load(); have < threads; ++have) CreateAndForget(Park);
    while (gParked.load() < threads) zvx::Sleep(1);
    zvx::Sleep(50);
    return {StatusValue("VmRSS"), StatusValue("VmPTE"), StatusValue("Threads")};
}

void ParkCase() {
    constexpr uint32_t kFew = 1000;
    if (gOptions.Threads <= kFew) Fail("needs --threads above", kFew);
    const Memory few = MemoryWith(kFew);
    const Memory many = MemoryWith(gOptions.Threads);
    const double more = gOptions.Threads - kFew;
    Report(gOptions, "park/resident", gOptions.Threads, {(many.ResidentKiB - few.ResidentKiB) / more}, "KiB");
    Report(gOptions, "park/page_tables", gOptions.Threads, {(many.PageTableKiB - few.PageTableKiB) / more}, "KiB");
    Report(gOptions, "park/kernel_threads", gOptions.Threads, {many.KernelThreads}, "threads");
}

// ---- An idle process ---------------------------------------------------------------------------------

void IdleCase() {
    zvx::Sleep(300);
    const double cpu = ProcessorSeconds();
    const double start = NowNs();
    zvx::Sleep(static_cast<DWORD>(gOptions.Seconds * 1000));
    const double seconds = (NowNs() - start) / 1e9;
    Report(gOptions, "idle/port_wait_" + std::to_string(gOptions.PortWaitMs), 1,
           {(ProcessorSeconds() - cpu) * 1000 / seconds}, "ms/s");
}

const NamedCase kCases[] = {{"park", ParkCase}, {"idle", IdleCase}};

}  // namespace

int main(int argc, char **argv) {
    return HostMain(argc, argv, kCases, sizeof kCases / sizeof kCases[0]);
}
