// bench/harness.h - what every benchmark program shares, ours and the peers: options, repetitions, one line a case.
//
// A case is a body that does n operations and returns how long they took. The harness finds an n that takes long
// enough, runs the body once to warm up and then several times, and prints one JSON object a line with the median over
// the repetitions. It knows nothing of any library under test and starts no thread.
//
// The fields of a line: name (of the case), impl, backend, schedulers, iterations (operations a repetition),
// repetitions, unit, better ("lower" or "higher"), median, deviation (median absolute deviation), min, max. A case may
// add numbers of its own behind them.
#ifndef ZVX_BENCH_HARNESS_H
#define ZVX_BENCH_HARNESS_H

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Options {
    std::string Case;         // which case to run
    uint32_t Threads = 2;     // user threads (or what stands for them)
    uint32_t Schedulers = 1;  // ours only
    uint32_t PortWaitMs = 1;  // ours only
    uint32_t Repetitions = 7;
    double RepetitionMs = 100;    // shortest time of one repetition
    double Seconds = 2;           // length of a case that runs for a time
    uint32_t Port = 0;            // of the peers' servers
    std::string File;             // data file of the file cases
    std::string Impl = "zvxkvt";  // name of the implementation in the output
    std::string Backend;          // I/O back end in the output
};

inline double NowNs() {
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// Keeps the compiler from proving that nobody needs `value`.
template <typename T>
inline void Keep(T const &value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

// Options come in pairs, "--name value". False for one that nobody knows.
inline bool ParseOptions(int argc, char **argv, Options *options) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 >= argc) return false;
        const std::string value = argv[i + 1];
        const auto number = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
        if (name == "--case")
            options->Case = value;
        else if (name == "--threads")
            options->Threads = number;
        else if (name == "--schedulers")
            options->Schedulers = number;
        else if (name == "--port-wait-ms")
            options->PortWaitMs = number;
        else if (name == "--port")
            options->Port = number;
        else if (name == "--repetitions")
            options->Repetitions = number != 0 ? number : 1;
        else if (name == "--repetition-ms")
            options->RepetitionMs = std::atof(value.c_str());
        else if (name == "--seconds")
            options->Seconds = std::atof(value.c_str());
        else if (name == "--file")
            options->File = value;
        else if (name == "--impl")
            options->Impl = value;
        else
            return false;
    }
    return true;
}

inline double Percentile(std::vector<double> samples, double percent) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const double place = percent / 100 * static_cast<double>(samples.size() - 1);
    const auto below = static_cast<size_t>(place);
    if (below + 1 >= samples.size()) return samples.back();
    const double part = place - static_cast<double>(below);
    return samples[below] * (1 - part) + samples[below + 1] * part;
}

inline double Median(const std::vector<double> &samples) {
    return Percentile(samples, 50);
}

inline double Deviation(const std::vector<double> &samples) {
    const double middle = Median(samples);
    std::vector<double> away;
    for (double sample : samples) away.push_back(std::fabs(sample - middle));
    return Median(away);
}

using Extras = std::vector<std::pair<std::string, double>>;

// One line on standard output. `samples` are per operation in `unit`.
inline void Report(const Options &options, const std::string &name, uint64_t iterations,
                   const std::vector<double> &samples, const char *unit = "ns", const char *better = "lower",
                   const Extras &extras = {}) {
    std::printf(
        "{\"name\":\"%s\",\"impl\":\"%s\",\"backend\":\"%s\",\"schedulers\":%u,\"iterations\":%llu,"
        "\"repetitions\":%zu,\"unit\":\"%s\",\"better\":\"%s\",\"median\":%.4g,\"deviation\":%.3g,"
        "\"min\":%.4g,\"max\":%.4g",
        name.c_str(), options.Impl.c_str(), options.Backend.c_str(), options.Schedulers,
        static_cast<unsigned long long>(iterations), samples.size(), unit, better, Median(samples), Deviation(samples),
        Percentile(samples, 0), Percentile(samples, 100));
    for (const auto &extra : extras) std::printf(",\"%s\":%.6g", extra.first.c_str(), extra.second);
    std::printf("}\n");
    std::fflush(stdout);
}

// Processor time of the whole process so far, in seconds, user and system.
inline double ProcessorSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// `body(n)` does n operations and returns the nanoseconds they took. Finds n, warms up, repeats, reports.
template <typename Body>
void Measure(const Options &options, const std::string &name, Body body, uint64_t first = 64,
             uint64_t most = uint64_t{1} << 40, bool wholeBody = true) {
    const double wanted = options.RepetitionMs * 1e6;
    uint64_t n = first;
    bool sure = false;
    for (;;) {
        const double took = body(n);  // the warm-up as well
        if (n >= most || (sure && took >= wanted * 0.7)) break;
        if (took >= wanted && !sure) {
            sure = true;  // or it was slow because everything was done for the first time
            continue;
        }
        const double grow = took > 0 ? wanted * 1.2 / took : 16.0;
        n = static_cast<uint64_t>(static_cast<double>(n) * (grow < 1.3 ? 1.3 : grow > 16 ? 16 : grow)) + 1;
        if (n > most) n = most;
        sure = false;
    }
    std::vector<double> samples;
    std::vector<double> cpu;
    for (uint32_t i = 0; i < options.Repetitions; ++i) {
        const double before = ProcessorSeconds();
        const double took = body(n);
        cpu.push_back((ProcessorSeconds() - before) * 1e9 / static_cast<double>(n));
        samples.push_back(took / static_cast<double>(n));
    }
    // Where everything between start and end was measured, the processor time says the same without the other
    // programs of the machine.
    Extras extras;
    if (wholeBody) extras.push_back({"cpu_ns", Median(cpu)});
    Report(options, name, n, samples, "ns", "lower", extras);
}

// Kilobytes (or the count) behind `field` in the status file of this process; 0 when there is none.
inline double StatusValue(const char *field) {
    std::FILE *file = std::fopen("/proc/self/status", "r");
    if (file == nullptr) return 0;
    char line[256];
    double value = 0;
    const size_t length = std::strlen(field);
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, field, length) == 0 && line[length] == ':') value = std::atof(line + length + 1);
    }
    std::fclose(file);
    return value;
}

// A small generator, so that every program reads the same places in the same order.
struct Random {
    uint64_t State;
    uint64_t Next() {
        State ^= State << 13;
        State ^= State >> 7;
        State ^= State << 17;
        return State;
    }
};

[[noreturn]] inline void Fail(const char *what, long long detail = 0) {
    std::fprintf(stderr, "bench: %s (%lld)\n", what, detail);
    std::fflush(nullptr);
    std::_Exit(1);
}

constexpr uint32_t kReadBytes = 8192;

// The data file must have been filled: reads of holes measure something else.
inline uint64_t BlocksOfFile(const std::string &name) {
    std::FILE *file = std::fopen(name.c_str(), "rb");
    if (file == nullptr) Fail("the data file is missing; name it with --file");
    if (std::fseek(file, 0, SEEK_END) != 0) Fail("the data file has no end");
    const long bytes = std::ftell(file);
    std::fclose(file);
    if (bytes < static_cast<long>(kReadBytes)) Fail("the data file is too small");
    return static_cast<uint64_t>(bytes) / kReadBytes;
}

// Brings the file into the page cache.
inline void ReadWholeFile(const std::string &name) {
    std::FILE *file = std::fopen(name.c_str(), "rb");
    if (file == nullptr) Fail("the data file is missing");
    std::vector<char> buffer(1 << 20);
    while (std::fread(buffer.data(), 1, buffer.size(), file) == buffer.size()) {
    }
    std::fclose(file);
}

}  // namespace bench

#endif  // ZVX_BENCH_HARNESS_H
