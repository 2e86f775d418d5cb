// tools/zvxctl/top.cpp - a picture of the process every few seconds: rates of its schedulers, its busiest user threads.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "commands.h"

namespace zvxctl {

namespace {

struct Picture {
    uint64_t AtMs = 0;
    std::vector<SchedulerState> Schedulers;
    std::vector<UserThread> Threads;
};

Picture Take(const Library &library, Symbols *symbols) {
    Picture picture;
    picture.AtMs = MonotonicMs();
    picture.Schedulers = ReadSchedulers(library);
    ReadOptions what;
    what.Places = false;
    picture.Threads = ReadThreads(library, picture.Schedulers, what, symbols);
    return picture;
}

// Counters of 32 bits wrap.
double Rate(const Library &library, const SchedulerState &now, const SchedulerState &before, const char *field,
            double seconds) {
    const uint64_t a = Field(library, before.Copy, field);
    const uint64_t b = Field(library, now.Copy, field);
    const uint64_t grown = b >= a ? b - a : static_cast<uint32_t>(b - a);
    return static_cast<double>(grown) / seconds;
}

std::string Draw(const Library &library, const Picture &before, const Picture &now, size_t mostRows) {
    const double seconds = std::max<double>(1, static_cast<double>(now.AtMs - before.AtMs)) / 1000;
    std::map<std::string, uint32_t> states;
    for (const UserThread &t : now.Threads) states[t.StateText]++;
    std::string out = fmt::format("zvxctl top - process {}, {} user threads", library.Of.Pid, now.Threads.size());
    for (const auto &[state, count] : states) out += fmt::format(", {} {}", count, state);
    out += fmt::format("\n\n{:>5} {:>8} {:>6} {:>6} {:>8} {:>9} {:>6} {:>11} {:>10} {:>10} {:>10}  {}\n", "SCHED",
                       "TID", "CPU%", "WAIT%", "THREADS", "RUNNABLE", "OPS", "SWITCHES/S", "POSTS/S", "POLLED/S", "PACKETS/S", "NOW");
    size_t rows = 3;
    for (const SchedulerState &s : now.Schedulers) {
        const auto old = std::find_if(before.Schedulers.begin(), before.Schedulers.end(),
                                      [&](const SchedulerState &b) { return b.At == s.At; });
        if (old == before.Schedulers.end()) continue;
        const auto rate = [&](const char *field) { return Rate(library, s, *old, field, seconds); };
        const std::string state = s.InPort ? "port"
                                  : s.OnProcessorRuns && s.OnProcessor != s.InitFiber
                                      ? fmt::format("runs, {:.0f} ms", s.HeldMs)
                                      : "idle";
        out += fmt::format("{:>5} {:>8} {:>6.1f} {:>6.1f} {:>8} {:>9} {:>6} {:>11.0f} {:>10.0f} {:>10.0f} {:>10.0f}  {}\n",
                           s.Index, s.Thread, 100 * (s.ThreadCpu - old->ThreadCpu) / seconds,
                           100 * (s.ThreadWait - old->ThreadWait) / seconds,
                           Field(library, s.Copy, "Scheduler.FiberCount"), s.Runnable, s.Outstanding,
                           rate("Scheduler.SwitchCount"), rate("Scheduler.Posts"), rate("Scheduler.DonePolled"),
                           rate("Scheduler.DoneByPacket"), state);
        rows++;
    }
    // By record and number: a record that was given to another thread meanwhile starts at nothing.
    std::map<Address, const UserThread *> old;
    for (const UserThread &t : before.Threads) old[t.At] = &t;
    std::vector<std::pair<double, const UserThread *>> busy;
    for (const UserThread &t : now.Threads) {
        const auto found = old.find(t.At);
        const bool same = found != old.end() && found->second->ThreadId == t.ThreadId;
        busy.emplace_back(std::max(0.0, t.CpuMs - (same ? found->second->CpuMs : 0)) / (seconds * 10), &t);
    }
    std::stable_sort(busy.begin(), busy.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    out += fmt::format("\n{:>7} {:<8} {:>5} {:>6} {:>10} {:<12} {}\n", "N", "TAG", "SCHED", "CPU%", "CPU MS", "STATE",
                       "WAITS FOR");
    rows += 2;
    for (const auto &[percent, t] : busy) {
        if (rows++ >= mostRows) break;
        out += fmt::format("{:>7} {:<8} {:>5} {:>6.1f} {:>10.1f} {:<12} {}\n", t->Serial, t->Tag.substr(0, 8),
                           t->Scheduler, percent, t->CpuMs, t->StateText, t->Waits.empty() ? "-" : t->Waits);
    }
    return out;
}

}  // namespace

int ShowTop(const TopOptions &options) {
    const Library library = OpenLibrary(options.Pid);
    const bool screen = isatty(STDOUT_FILENO) != 0;
    CatchSignals();
    Symbols symbols;
    Picture before = Take(library, &symbols);
    for (uint32_t n = 0; options.Count == 0 || n < options.Count; ++n) {
        SleepMs(static_cast<uint64_t>(options.Seconds * 1000));
        if (gStop) break;
        Picture now = Take(library, &symbols);
        winsize size{};
        if (!screen || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) size.ws_row = 30;
        std::string text = Draw(library, before, now, size.ws_row - 1u);
        if (screen) {
            // Home, and every line cleared to its end and the rest of the screen after the last: nothing flickers.
            std::string lines = "\x1b[H";
            for (const char c : text) lines += c == '\n' ? "\x1b[K\n" : std::string(1, c);
            text = lines + "\x1b[J";
        } else if (n != 0) {
            text = "\n" + text;
        }
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        before = std::move(now);
    }
    return 0;
}

}  // namespace zvxctl
