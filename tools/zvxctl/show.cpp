// tools/zvxctl/show.cpp - the tables: instances, user threads, schedulers.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace zvxctl {

namespace {

std::string Duration(double seconds) {
    const auto whole = static_cast<uint64_t>(seconds);
    if (whole < 60) return fmt::format("{}s", whole);
    if (whole < 3600) return fmt::format("{}m{:02}s", whole / 60, whole % 60);
    if (whole < 86400) return fmt::format("{}h{:02}m", whole / 3600, whole / 60 % 60);
    return fmt::format("{}d{:02}h", whole / 86400, whole / 3600 % 24);
}

std::string Cut(const std::string &text, size_t width) {
    return text.size() <= width ? text : text.substr(0, width - 1) + "~";
}

// Columns as wide as what is in them; the last one takes the rest. Numbers ('>') to the right.
void PrintTable(const std::vector<std::pair<const char *, char>> &heads,
                const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths;
    for (const auto &[name, align] : heads) widths.push_back(std::string_view(name).size());
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string out;
    const auto line = [&](const auto &text) {
        for (size_t i = 0; i < heads.size(); ++i) {
            if (i != 0) out += "  ";
            if (heads[i].second == '>')
                out += fmt::format("{:>{}}", text(i), widths[i]);
            else
                out += i + 1 == heads.size() ? std::string(text(i)) : fmt::format("{:<{}}", text(i), widths[i]);
        }
        while (!out.empty() && out.back() == ' ') out.pop_back();
        out += '\n';
    };
    line([&](size_t i) { return std::string_view(heads[i].first); });
    for (const auto &row : rows) line([&](size_t i) { return std::string_view(row[i]); });
    std::fwrite(out.data(), 1, out.size(), stdout);
}

// Up to eight characters that are kept in a word.
std::string ShortTag(uint64_t word) {
    std::string text;
    for (; word != 0; word >>= 8) {
        const char c = static_cast<char>(word & 0xFF);
        text += c >= 0x20 && c < 0x7F ? c : '?';
    }
    return text;
}

}  // namespace

int ListInstances() {
    std::vector<std::vector<std::string>> rows;
    uint32_t hidden = 0;
    for (const pid_t pid : AllProcesses()) {
        if (pid == getpid()) continue;
        Process process;
        if (!TryOpenProcess(pid, &process)) {
            hidden += IsAlive(pid) && UidOf(pid) != geteuid() ? 1 : 0;
            continue;
        }
        Library library;
        std::string why;
        const auto row = [&](const std::string &version, const std::string &sid, const std::string &schedulers,
                             const std::string &threads) {
            rows.push_back({std::to_string(pid), UserOf(pid), sid, version, schedulers, threads, BackendOf(pid),
                            Duration(UptimeOf(pid)), Cut(CommandOf(pid), 200)});
        };
        // A process may end, or turn out to be another user's, while it is looked at: a line less.
        try {
            if (!TryOpenLibrary(process, &library, &why)) {
                if (library.Base != 0) row("?", "-", "-", "-");
                continue;
            }
            if (!IsInitialised(library)) {
                row(library.Version, "-", "-", "-");
                continue;
            }
            const std::vector<SchedulerState> schedulers = ReadSchedulers(library);
            uint64_t threads = 0;
            for (const SchedulerState &s : schedulers) threads += Field(library, s.Copy, "Scheduler.FiberCount");
            const std::string sid = GlobalText(library, "gSid");
            row(library.Version, sid.empty() ? "-" : sid, std::to_string(schedulers.size()), std::to_string(threads));
        } catch (const Failure &) {
        }
    }
    PrintTable({{"PID", '>'},
                {"USER", '<'},
                {"SID", '<'},
                {"VERSION", '<'},
                {"SCHEDULERS", '>'},
                {"THREADS", '>'},
                {"IO", '<'},
                {"UPTIME", '>'},
                {"COMMAND", '<'}},
               rows);
    if (hidden != 0)
        fmt::print(stderr, "zvxctl: {} processes of other users cannot be looked at without CAP_SYS_PTRACE\n", hidden);
    return 0;
}

int ShowThreads(const ThreadsOptions &options) {
    const Library library = OpenLibrary(options.Pid);
    const std::vector<SchedulerState> schedulers = ReadSchedulers(library);
    if (options.Scheduler && std::none_of(schedulers.begin(), schedulers.end(),
                                          [&](const auto &s) { return s.Index == *options.Scheduler; }))
        Fail("process {} has no scheduler {}", options.Pid, *options.Scheduler);
    Symbols symbols;
    ReadOptions what;
    what.Places = !options.NoPlaces;
    what.Scheduler = options.Scheduler;
    std::vector<UserThread> threads = ReadThreads(library, schedulers, what, &symbols);
    std::stable_sort(threads.begin(), threads.end(), [&](const UserThread &a, const UserThread &b) {
        if (options.Sort == "cpu" && a.CpuMs != b.CpuMs) return a.CpuMs > b.CpuMs;
        if (options.Sort == "wait" && a.WaitMs != b.WaitMs) return a.WaitMs.value_or(-1) > b.WaitMs.value_or(-1);
        if (options.Sort == "tag" && a.Tag != b.Tag) return a.Tag < b.Tag;
        return std::pair(a.Scheduler, a.Serial) < std::pair(b.Scheduler, b.Serial);
    });
    std::vector<std::vector<std::string>> rows;
    rows.reserve(threads.size());
    for (const UserThread &t : threads) {
        rows.push_back({std::to_string(t.Serial), t.Tag, fmt::format("x{:X}", t.ThreadId), std::to_string(t.Scheduler),
                        t.StateText, t.Waits.empty() ? "-" : t.Waits, fmt::format("{:.1f}", t.CpuMs),
                        t.WaitMs ? fmt::format("{:.0f}", *t.WaitMs) : "-", t.Where});
    }
    PrintTable({{"N", '>'},
                {"TAG", '<'},
                {"THREAD", '>'},
                {"SCHED", '>'},
                {"STATE", '<'},
                {"WAITS FOR", '<'},
                {"CPU MS", '>'},
                {"WAIT MS", '>'},
                {"WHERE", '<'}},
               rows);
    return 0;
}

int ShowSchedulers(pid_t pid) {
    const Library library = OpenLibrary(pid);
    const std::vector<SchedulerState> schedulers = ReadSchedulers(library);
    const double perMs = static_cast<double>(std::max<uint64_t>(1, Global(library, "gTscTicksPerMs")));
    std::vector<std::vector<std::string>> rows;
    const auto nameOf = [&](Address fiber) -> std::string {
        Record record;
        if (fiber == 0 || !ReadRecord(library, "Fiber", fiber, &record)) return "-";
        return fmt::format("{} #{}", ReadText(library.Of, Field(library, record, "Fiber.Tag"), 32),
                           Field(library, record, "Fiber.ShellSerial"));
    };
    for (const SchedulerState &s : schedulers) {
        const auto count = [&](const char *name) {
            const auto found = s.Counts.find(name);
            return found == s.Counts.end() ? 0u : found->second;
        };
        const auto field = [&](const char *name) { return Field(library, s.Copy, name); };
        std::string now = "idle, looks for work";
        if (s.InPort)
            now = "waits in its port";
        else if (s.OnProcessorRuns && s.OnProcessor != s.InitFiber)
            now = fmt::format("runs {} for {:.0f} ms", nameOf(s.OnProcessor), s.HeldMs);
        else if (s.OnProcessor == 0)
            now = "-";
        // The longer one of this second so far and the one before; the name as it was then.
        uint64_t hold = field("Scheduler.LongestHold");
        uint64_t holder = field("Scheduler.LongestHolderTag");
        if (field("Scheduler.SecondHold") > hold) {
            hold = field("Scheduler.SecondHold");
            holder = field("Scheduler.SecondHolder");
        }
        rows.push_back(
            {std::to_string(s.Index), std::to_string(s.Thread), std::string(1, s.ThreadState),
             std::to_string(field("Scheduler.FiberCount")), std::to_string(s.Runnable),
             std::to_string(count("TimedWaiters")), std::to_string(count("InfiniteWaiters")),
             std::to_string(count("IoWaiters")), std::to_string(count("SuspendedFibers")),
             std::to_string(s.Outstanding), std::to_string(field("Scheduler.SwitchCount")),
             std::to_string(field("Scheduler.Posts")), std::to_string(field("Scheduler.DonePolled")),
             std::to_string(field("Scheduler.DoneByPacket")),
             hold == 0 ? "-" : fmt::format("{:.2f} ms {}", static_cast<double>(hold) / perMs, ShortTag(holder)), now});
    }
    // TIMED, INFIN., I/O and SUSP. are user threads that wait; K is the kernel's state of the scheduler's thread.
    PrintTable({{"SCHED", '>'},
                {"TID", '>'},
                {"K", '<'},
                {"THREADS", '>'},
                {"RUNNABLE", '>'},
                {"TIMED", '>'},
                {"INFIN.", '>'},
                {"I/O", '>'},
                {"SUSP.", '>'},
                {"OPS", '>'},
                {"SWITCHES", '>'},
                {"POSTS", '>'},
                {"POLLED", '>'},
                {"PACKETS", '>'},
                {"LONGEST HOLD", '<'},
                {"NOW", '<'}},
               rows);
    return 0;
}

int ShowUsage(pid_t pid) {
    const Library library = OpenLibrary(pid);
    const std::vector<SchedulerState> schedulers = ReadSchedulers(library);
    const auto print = [](std::string_view name, int64_t value) { fmt::print("{} {}\n", name, value); };
    int64_t threads = 0, operations = 0;
    for (const SchedulerState &s : schedulers) {
        threads += static_cast<int64_t>(Field(library, s.Copy, "Scheduler.FiberCount"));
        operations += s.Outstanding;
    }
    print("schedulers", static_cast<int64_t>(schedulers.size()));
    print("user_threads", threads);
    print("operations", operations);
    print("handles",
          static_cast<int64_t>(Global(library, "gNextFreshHandle") - 1 - Global(library, "gFreeHandleCount")));
    print("library_handles", static_cast<int64_t>(Global(library, "gHandleCount")));
    print("sections", static_cast<int64_t>(Global(library, "gOsCritSecCount")));
    print("memory_bytes", static_cast<int64_t>(Global(library, "gTotalVirtualAlloc")));
    // A record may be made by one scheduler and freed by another: only the sum says how many there are.
    const uint64_t counts = Number(library, "Scheduler.ChunkTypeCount");
    for (const auto &[type, name] :
         {std::pair("ALLOC_PSEHAND", "records_handle"), std::pair("ALLOC_FIBEROVERLAPPED", "records_operation"),
          std::pair("ALLOC_FIBER_MESSAGE", "records_message"),
          std::pair("ALLOC_FIBER_CRITICAL_SECTION", "records_section"), std::pair("ALLOC_STRING", "records_string")}) {
        int64_t sum = 0;
        for (const SchedulerState &s : schedulers) {
            int32_t count = 0;
            std::memcpy(&count, s.Copy.Bytes.data() + counts + Number(library, type) * sizeof count, sizeof count);
            sum += count;
        }
        print(name, sum);
    }
    return 0;
}

}  // namespace zvxctl
