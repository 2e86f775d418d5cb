// tools/zvxctl/trace.cpp - a few seconds of every scheduler as a file in the trace event format, for a viewer.
//
// The library writes events into a ring for each scheduler while gTimelineWanted is not 0 (src/diag/timeline.h has the
// protocol). This end sets the word to its own process number, empties the rings faster than they fill where it can,
// and clears the word however it ends. A second zvxctl leaves a word alone whose process still lives.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace zvxctl {

namespace {

struct Event {
    uint64_t Tsc;
    uint32_t Serial;
    uint16_t Kind;
    uint16_t Arg;
    Address Tag;
    uint32_t Scheduler;
};

struct Ring {
    uint32_t Scheduler = 0;
    Address SchedulerAt = 0;
    Address At = 0;      // 0 until the scheduler has one
    uint64_t Taken = 0;  // events before this one were read, or were there before
};

struct Recorder {
    const Library &Of;
    std::vector<Ring> Rings;
    std::vector<Event> Events;
    std::vector<char> Copy;
    uint64_t Lost = 0;     // overwritten before they were read
    uint64_t Dropped = 0;  // beyond the limit
    uint64_t Most = 0;
};

bool ReadRingAddress(const Library &library, Ring *ring) {
    return ReadValue(library.Of, ring->SchedulerAt + Number(library, "Scheduler.TimelineMemory"), &ring->At) &&
           ring->At != 0;
}

bool ReadWritten(const Library &library, const Ring &ring, uint64_t *written) {
    return ReadValue(library.Of, ring.At + Number(library, "TimelineRing.Written"), written);
}

template <typename T>
T FieldAt(const char *event, uint64_t offset) {
    T value;
    std::memcpy(&value, event + offset, sizeof value);
    return value;
}

// Copies what was written since the last call. False when there was nothing.
bool Drain(Recorder *recorder, Ring *ring) {
    const Library &library = recorder->Of;
    if (ring->At == 0 && !ReadRingAddress(library, ring)) return false;
    const uint64_t capacity = Number(library, "kTimelineEvents");
    const uint64_t eventBytes = Number(library, "TimelineEvent");
    const Address events = ring->At + Number(library, "TimelineRing.Events");
    uint64_t written = 0;
    if (!ReadWritten(library, *ring, &written) || written <= ring->Taken) return false;
    if (written - ring->Taken > capacity) {
        recorder->Lost += written - ring->Taken - capacity;
        ring->Taken = written - capacity;
    }
    const uint64_t from = ring->Taken;
    const uint64_t count = written - from;
    recorder->Copy.resize(count * eventBytes);
    // In two pieces where the ring wraps.
    const uint64_t first = std::min(count, capacity - from % capacity);
    if (!Read(library.Of, events + from % capacity * eventBytes, recorder->Copy.data(), first * eventBytes))
        return false;
    if (first < count &&
        !Read(library.Of, events, recorder->Copy.data() + first * eventBytes, (count - first) * eventBytes))
        return false;
    // What the scheduler has overwritten meanwhile, and the one that it may be overwriting now.
    uint64_t after = 0;
    if (!ReadWritten(library, *ring, &after)) return false;
    const uint64_t oldest = after >= capacity ? after - capacity + 1 : 0;
    ring->Taken = written;
    const uint64_t tsc = Number(library, "TimelineEvent.Tsc"), serial = Number(library, "TimelineEvent.Serial"),
                   kind = Number(library, "TimelineEvent.Kind"), arg = Number(library, "TimelineEvent.Arg"),
                   tag = Number(library, "TimelineEvent.Tag");
    for (uint64_t i = 0; i < count; ++i) {
        if (from + i < oldest) {
            recorder->Lost++;
            continue;
        }
        if (recorder->Events.size() >= recorder->Most) {
            recorder->Dropped += count - i;
            break;
        }
        const char *event = recorder->Copy.data() + i * eventBytes;
        recorder->Events.push_back({FieldAt<uint64_t>(event, tsc), FieldAt<uint32_t>(event, serial),
                                    FieldAt<uint16_t>(event, kind), FieldAt<uint16_t>(event, arg),
                                    FieldAt<Address>(event, tag), ring->Scheduler});
    }
    return true;
}

// Rings of schedulers that there were at the start, from what they hold now.
void FindRings(Recorder *recorder) {
    for (const SchedulerState &scheduler : ReadSchedulers(recorder->Of)) {
        Ring ring;
        ring.Scheduler = scheduler.Index;
        ring.SchedulerAt = scheduler.At;
        if (ReadRingAddress(recorder->Of, &ring)) ReadWritten(recorder->Of, ring, &ring.Taken);
        recorder->Rings.push_back(ring);
    }
}

// ---- The switch of the library -----------------------------------------------------------------------

struct Switch {
    const Library &Of;
    Address Word;
    uint32_t Own = static_cast<uint32_t>(getpid());
    bool Set = false;

    explicit Switch(const Library &library) : Of(library), Word(Number(library, "gTimelineWanted")) {}
    Switch(const Switch &) = delete;
    Switch &operator=(const Switch &) = delete;
    ~Switch() {
        try {
            TurnOff();
        } catch (const Failure &) {
            // The process has ended, and the word with it.
        }
    }
    uint32_t Holder() const {
        uint32_t value = 0;
        if (!ReadValue(Of.Of, Word, &value)) Fail("the timeline of process {} cannot be read", Of.Of.Pid);
        return value;
    }
    void TurnOn() {
        const uint32_t holder = Holder();
        if (holder != 0 && holder != Own && IsAlive(static_cast<pid_t>(holder)))
            Fail("process {} is being traced already, by process {}", Of.Of.Pid, holder);
        if (!Write(Of.Of, Word, &Own, sizeof Own)) Fail("the timeline of process {} cannot be turned on", Of.Of.Pid);
        Set = true;
        // Of two that saw 0 at the same moment the later one has it.
        SleepMs(20);
        if (Holder() != Own) {
            Set = false;
            Fail("process {} is being traced already", Of.Of.Pid);
        }
    }
    void TurnOff() {
        const uint32_t none = 0;
        if (Set && Holder() == Own) Write(Of.Of, Word, &none, sizeof none);
        Set = false;
    }
};

// ---- The file ----------------------------------------------------------------------------------------

std::string JsonText(const std::string &text) {
    std::string out;
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        // What is not ASCII need not be UTF-8: a tag is whatever the host says.
        out += static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7F ? c : '?';
    }
    return out;
}

// Two groups of rows in the viewer, which calls them processes.
constexpr int kSchedulerRows = 1;
constexpr int kThreadRows = 2;

struct Writer {
    const Library &Of;
    FILE *File;
    uint64_t Origin = 0;
    double CyclesPerUs = 1;
    std::map<Address, std::string> Tags;
    bool First = true;

    double Us(uint64_t tsc) const { return tsc <= Origin ? 0 : static_cast<double>(tsc - Origin) / CyclesPerUs; }
    const std::string &Tag(Address at) {
        const auto [found, fresh] = Tags.try_emplace(at);
        if (fresh) found->second = at == 0 ? "?" : JsonText(ReadText(Of.Of, at, 32));
        return found->second;
    }
    template <typename... Args>
    void Line(fmt::format_string<Args...> format, Args &&...args) {
        fmt::print(File, "{}\n", First ? "" : ",");
        First = false;
        fmt::print(File, format, std::forward<Args>(args)...);
    }
};

struct Counts {
    uint64_t Runs = 0, Waits = 0, Posts = 0, Done = 0;
};

// An event that has begun: a run on a scheduler, or a wait of a user thread.
struct Begun {
    uint64_t Tsc = 0;
    uint32_t Serial = 0;
    uint16_t Reason = 0;
    Address Tag = 0;
};

void WriteNames(Writer *writer, const std::vector<Ring> &rings, const std::map<uint32_t, Address> &threads) {
    const auto name = [&](const char *what, int group, uint32_t row, const std::string &text) {
        writer->Line(R"({{"name":"{}","ph":"M","pid":{},"tid":{},"args":{{"name":"{}"}}}})", what, group, row, text);
    };
    name("process_name", kSchedulerRows, 0, "schedulers");
    name("process_name", kThreadRows, 0, "user threads that wait");
    for (const Ring &ring : rings)
        name("thread_name", kSchedulerRows, ring.Scheduler, fmt::format("scheduler {}", ring.Scheduler));
    for (const auto &[serial, tag] : threads)
        name("thread_name", kThreadRows, serial, fmt::format("{} #{}", writer->Tag(tag), serial));
}

// The events are sorted by time. A run lasts from its thread's dispatch to its yield on the same scheduler, a wait from
// the yield to the next dispatch, wherever that is.
Counts WriteEvents(Writer *writer, const std::vector<Event> &events) {
    const Library &library = writer->Of;
    const auto code = [&](const char *name) { return static_cast<uint16_t>(Number(library, name)); };
    const uint16_t run = code("kTimelineRun"), yield = code("kTimelineYield"), post = code("kTimelinePost"),
                   done = code("kTimelineDone"), idle = code("kTimelineIdle"), awake = code("kTimelineAwake");
    const uint16_t yieldUser = code("Yield_USER"), yieldSched = code("Yield_SCHED"), yieldExit = code("Yield_EXIT");
    std::map<uint16_t, std::string> reasons;
    std::map<uint32_t, Begun> runs, idles;  // by scheduler
    std::map<uint32_t, Begun> waits;        // by serial
    std::map<uint32_t, uint64_t> arrows;    // by serial: the post that will be followed by a run
    std::map<uint32_t, Address> threads;
    Counts counts;
    const auto slice = [&](const std::string &name, int group, uint32_t row, uint64_t from, uint64_t to,
                           uint32_t serial) {
        writer->Line(R"({{"name":"{}","ph":"X","pid":{},"tid":{},"ts":{:.3f},"dur":{:.3f},"args":{{"thread":{}}}}})",
                     name, group, row, writer->Us(from), writer->Us(std::max(from, to)) - writer->Us(from), serial);
    };
    for (const Event &e : events) {
        if (e.Kind == run) {
            runs[e.Scheduler] = {e.Tsc, e.Serial, 0, e.Tag};
            if (const auto wait = waits.find(e.Serial); wait != waits.end()) {
                auto &reason = reasons[wait->second.Reason];
                if (reason.empty()) reason = NameOfValue(library, "Yield_", wait->second.Reason);
                threads[e.Serial] = e.Tag;
                slice(reason, kThreadRows, e.Serial, wait->second.Tsc, e.Tsc, e.Serial);
                waits.erase(wait);
                counts.Waits++;
            }
            if (const auto arrow = arrows.find(e.Serial); arrow != arrows.end()) {
                writer->Line(
                    R"({{"name":"post","cat":"post","ph":"f","bp":"e","id":{},"pid":{},"tid":{},"ts":{:.3f}}})",
                    arrow->second, kSchedulerRows, e.Scheduler, writer->Us(e.Tsc));
                arrows.erase(arrow);
            }
        } else if (e.Kind == yield) {
            if (const auto begun = runs.find(e.Scheduler); begun != runs.end()) {
                if (begun->second.Serial == e.Serial) {
                    slice(writer->Tag(e.Tag), kSchedulerRows, e.Scheduler, begun->second.Tsc, e.Tsc, e.Serial);
                    counts.Runs++;
                }
                runs.erase(begun);
            }
            // Giving way is no wait, and of an exit nothing comes back.
            if (e.Arg != yieldUser && e.Arg != yieldSched && e.Arg != yieldExit)
                waits[e.Serial] = {e.Tsc, e.Serial, e.Arg, e.Tag};
        } else if (e.Kind == post) {
            counts.Posts++;
            writer->Line(R"({{"name":"post {} #{}","ph":"i","s":"t","pid":{},"tid":{},"ts":{:.3f}}})",
                         writer->Tag(e.Tag), e.Serial, kSchedulerRows, e.Scheduler, writer->Us(e.Tsc));
            writer->Line(R"({{"name":"post","cat":"post","ph":"s","id":{},"pid":{},"tid":{},"ts":{:.3f}}})",
                         counts.Posts, kSchedulerRows, e.Scheduler, writer->Us(e.Tsc));
            arrows[e.Serial] = counts.Posts;
        } else if (e.Kind == done) {
            counts.Done++;
            writer->Line(R"({{"name":"operation of {} #{} ended, {}","ph":"i","s":"t","pid":{},"tid":{},"ts":{:.3f}}})",
                         writer->Tag(e.Tag), e.Serial, e.Arg != 0 ? "packet" : "polled", kSchedulerRows, e.Scheduler,
                         writer->Us(e.Tsc));
        } else if (e.Kind == idle) {
            idles[e.Scheduler] = {e.Tsc, 0, 0, 0};
        } else if (e.Kind == awake) {
            if (const auto begun = idles.find(e.Scheduler); begun != idles.end()) {
                slice("in its port", kSchedulerRows, e.Scheduler, begun->second.Tsc, e.Tsc, 0);
                idles.erase(begun);
            }
        }
    }
    // Who still runs or waits has done so for at least as long as was recorded.
    const uint64_t end = events.empty() ? 0 : events.back().Tsc;
    for (const auto &[scheduler, begun] : runs)
        slice(writer->Tag(begun.Tag), kSchedulerRows, scheduler, begun.Tsc, end, begun.Serial);
    for (const auto &[serial, begun] : waits) {
        threads[serial] = begun.Tag;
        slice(NameOfValue(library, "Yield_", begun.Reason), kThreadRows, serial, begun.Tsc, end, serial);
    }
    counts.Runs += runs.size();
    counts.Waits += waits.size();
    WriteNames(writer, {}, threads);
    return counts;
}

Counts WriteFile(Recorder *recorder, const TraceOptions &options) {
    std::stable_sort(recorder->Events.begin(), recorder->Events.end(),
                     [](const Event &a, const Event &b) { return a.Tsc < b.Tsc; });
    FILE *file = std::fopen(options.Output.c_str(), "w");
    if (file == nullptr) Fail("cannot write {}: {}", options.Output, std::strerror(errno));
    Writer writer{recorder->Of, file, 0, 1, {}};
    writer.Origin = recorder->Events.empty() ? 0 : recorder->Events.front().Tsc;
    writer.CyclesPerUs = static_cast<double>(std::max<uint64_t>(1, Global(recorder->Of, "gTscTicksPerMs"))) / 1000;
    std::fputc('[', file);
    Counts counts;
    try {
        WriteNames(&writer, recorder->Rings, {});
        counts = WriteEvents(&writer, recorder->Events);
    } catch (const Failure &) {
        // The process ended, and with it the names of what was recorded last: the file is closed as what it is.
    }
    std::fputs("\n]\n", file);
    const bool whole = std::ferror(file) == 0;
    if (std::fclose(file) != 0 || !whole) Fail("cannot write {}: {}", options.Output, std::strerror(errno));
    return counts;
}

}  // namespace

int RecordTrace(const TraceOptions &options) {
    const Library library = OpenLibrary(options.Pid);
    // Before anything is turned on.
    FILE *probe = std::fopen(options.Output.c_str(), "a");
    if (probe == nullptr) Fail("cannot write {}: {}", options.Output, std::strerror(errno));
    std::fclose(probe);
    CatchSignals();
    Recorder recorder{library, {}, {}, {}};
    recorder.Most = options.MostEvents;
    FindRings(&recorder);
    bool ended = false;
    {
        Switch timeline(library);
        timeline.TurnOn();
        const uint64_t until = MonotonicMs() + static_cast<uint64_t>(options.Seconds * 1000);
        try {
            while (!gStop && MonotonicMs() < until) {
                bool more = false;
                for (Ring &ring : recorder.Rings) more |= Drain(&recorder, &ring);
                // A busy ring holds some ten milliseconds.
                SleepMs(more ? 1 : 5);
                if (timeline.Holder() != timeline.Own) Fail("another program has taken the timeline over");
            }
            timeline.TurnOff();
            for (Ring &ring : recorder.Rings) Drain(&recorder, &ring);
        } catch (const Failure &) {
            if (IsAlive(options.Pid)) throw;
            ended = true;
        }
    }
    const Counts counts = WriteFile(&recorder, options);
    fmt::print("{}: {} runs, {} waits, {} posts, {} completions of {} schedulers\n", options.Output, counts.Runs,
               counts.Waits, counts.Posts, counts.Done, recorder.Rings.size());
    for (const Ring &ring : recorder.Rings)
        if (ring.At == 0)
            fmt::print("scheduler {} recorded nothing: it did not come to its timer check (zvxctl sched {})\n",
                       ring.Scheduler, options.Pid);
    if (recorder.Lost != 0)
        fmt::print("{} events were lost: they were overwritten before they could be read\n", recorder.Lost);
    if (recorder.Dropped != 0)
        fmt::print("{} events beyond the limit of {} were left out (--limit)\n", recorder.Dropped, options.MostEvents);
    if (ended) Fail("process {} has ended while it was traced", options.Pid);
    return 0;
}

}  // namespace zvxctl
