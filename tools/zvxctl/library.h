// tools/zvxctl/library.h - the library in another process: its table of names, its schedulers, its user threads.
//
// The records belong to threads that go on running while they are read. What a pointer leads to is compared with what
// it must be; a list that changes under the reader is read again a few times, and then what was found is shown.
#ifndef ZVXCTL_LIBRARY_H
#define ZVXCTL_LIBRARY_H

#include <optional>
#include <string_view>

#include "process.h"
#include "symbols.h"

namespace zvxctl {

struct Row {
    uint32_t Kind;
    uint32_t Size;
    uint64_t Number;  // address, offset, size or value
};

struct Library {
    Process Of;
    Address Base = 0;
    Address End = 0;
    std::string File;
    std::string Version;
    std::map<std::string, Row, std::less<>> Rows;
};

// Fails when the process has no library, another layout of its table, or has not initialised it yet.
Library OpenLibrary(pid_t pid);
// As above without the last check, and false instead of an end.
bool TryOpenLibrary(const Process &process, Library *library, std::string *why);
bool IsInitialised(const Library &library);

// The number of a row; fails when this version of the library has none. Optional: nothing.
uint64_t Number(const Library &library, std::string_view name);
std::optional<uint64_t> Optional(const Library &library, std::string_view name);
// The name, without its prefix, of the constant that begins so and has the value.
std::string NameOfValue(const Library &library, std::string_view prefix, uint64_t value);

// A global of at most eight bytes, or of text; 0 or empty when it cannot be read.
uint64_t Global(const Library &library, std::string_view name);
std::string GlobalText(const Library &library, std::string_view name);
// The folder of the trace files as this process reaches it, ending in a slash.
std::string TraceFolder(const Library &library);

// A copy of a record, with its fields by name.
struct Record {
    Address At = 0;
    std::vector<char> Bytes;
};
bool ReadRecord(const Library &library, std::string_view type, Address at, Record *record);
// A field of at most eight bytes; 0 when the record has no such field.
uint64_t Field(const Library &library, const Record &record, std::string_view name);
// The address of a field in the other process.
Address FieldAddress(const Library &library, const Record &record, std::string_view name);

struct SchedulerState {
    Address At = 0;
    Record Copy;
    uint32_t Index = 0;
    uint32_t Thread = 0;     // kernel thread
    char ThreadState = '-';  // R, S, D, ... of the kernel's
    double ThreadCpu = 0;    // seconds
    double ThreadWait = 0;   // seconds, as ProcessorWaitOf
    bool InPort = false;
    Address OnProcessor = 0;       // the user thread, or the scheduler's own fiber, whose stack its kernel thread is on
    bool OnProcessorRuns = false;  // false while the idle routine borrows that stack
    Address InitFiber = 0;
    double HeldMs = 0;  // how long the one that runs has had the processor
    uint32_t Runnable = 0;
    uint32_t Outstanding = 0;                // operations
    std::map<std::string, uint32_t> Counts;  // of its lists, by field name
};
uint64_t CyclesNow();  // the cycle counter, which the library's marks of time are made of
std::vector<SchedulerState> ReadSchedulers(const Library &library);

struct UserThread {
    Address At = 0;
    uint32_t Serial = 0;
    uint32_t ThreadId = 0;
    uint32_t Scheduler = 0;
    uint32_t State = 0;
    std::string Tag;
    std::string StateText;
    std::string Waits;  // what for
    double CpuMs = 0;
    std::optional<double> WaitMs;  // since it gave up the processor; of a polled wait since that began
    std::string Where;
    bool Running = false;
};
struct ReadOptions {
    bool Places = true;  // find out where each is parked
    std::optional<uint32_t> Scheduler;
};
std::vector<UserThread> ReadThreads(const Library &library, const std::vector<SchedulerState> &schedulers,
                                    const ReadOptions &options, Symbols *symbols);

}  // namespace zvxctl

#endif  // ZVXCTL_LIBRARY_H
