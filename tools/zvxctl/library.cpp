// tools/zvxctl/library.cpp - finding the library's table, and reading globals, records and schedulers through it.
#include "library.h"

#include <algorithm>
#include <cstring>

#include "diag/inspect.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace zvxctl {

namespace {

constexpr uint32_t kMostRows = 4096;
constexpr size_t kMostRecordBytes = 1 << 20;

std::string BaseName(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

uint64_t ReadNumber(const char *from, size_t bytes) {
    uint64_t value = 0;
    std::memcpy(&value, from, std::min<size_t>(bytes, sizeof value));
    return value;
}

}  // namespace

bool TryOpenLibrary(const Process &process, Library *library, std::string *why) {
    library->Of = process;
    bool runs = false;  // and does not just read the file, as a debugger does
    for (const Mapping &mapping : process.Maps) {
        const std::string name = BaseName(mapping.Path);
        if (name.compare(0, 9, "libzvxkvt") != 0 || name.find(".so") == std::string::npos) continue;
        if (library->Base == 0 && mapping.Offset == 0) {
            library->Base = mapping.Start;
            library->File = mapping.Path;
        }
        if (mapping.Path != library->File) continue;
        library->End = mapping.End;
        runs |= mapping.Executable;
    }
    if (!runs) {
        library->Base = 0;
        *why = fmt::format("process {} does not use libzvxkvt", process.Pid);
        return false;
    }
    const Address table = FindDynamicSymbol(process, library->Base, "zvx_inspect");
    zvx::InspectHead head;
    if (table == 0 || !ReadValue(process, table, &head) || std::memcmp(head.Magic, "ZVXTABLE", 8) != 0) {
        *why = fmt::format("the library of process {} ({}) has no table for tools: it is older than this zvxctl",
                           process.Pid, library->File);
        return false;
    }
    head.Version[sizeof head.Version - 1] = 0;
    library->Version = head.Version;
    if (head.Layout != zvx::kInspectLayout) {
        *why = fmt::format("the library of process {} is version {} with table layout {}; this zvxctl reads layout {}",
                           process.Pid, library->Version, head.Layout, zvx::kInspectLayout);
        return false;
    }
    for (uint32_t i = 0; i < std::min(head.Rows, kMostRows); ++i) {
        zvx::InspectRow row;
        if (!ReadValue(process, table + head.HeadBytes + Address{head.RowBytes} * i, &row)) break;
        row.Name[sizeof row.Name - 1] = 0;
        library->Rows[row.Name] = {row.Kind, row.Size, row.Number};
    }
    return true;
}

bool IsInitialised(const Library &library) {
    return (Global(library, "OptionFlags") & Number(library, "su_FiberMode")) != 0;
}

Library OpenLibrary(pid_t pid) {
    Library library;
    std::string why;
    if (!TryOpenLibrary(OpenProcess(pid), &library, &why)) Fail("{}", why);
    if (!IsInitialised(library)) {
        Fail("process {} has no user threads: the library is not initialised yet, or told to use kernel threads "
             "(DisableFibers, FiberModeReq 0)",
             pid);
    }
    return library;
}

uint64_t Number(const Library &library, std::string_view name) {
    const std::optional<uint64_t> number = Optional(library, name);
    if (!number)
        Fail("the library of process {} (version {}) does not tell where {} is", library.Of.Pid, library.Version, name);
    return *number;
}

std::optional<uint64_t> Optional(const Library &library, std::string_view name) {
    const auto row = library.Rows.find(name);
    if (row == library.Rows.end()) return std::nullopt;
    return row->second.Number;
}

std::string NameOfValue(const Library &library, std::string_view prefix, uint64_t value) {
    for (auto row = library.Rows.lower_bound(prefix); row != library.Rows.end(); ++row) {
        if (row->first.compare(0, prefix.size(), prefix) != 0) break;
        if (row->second.Kind == zvx::kInspectConstant && row->second.Number == value)
            return row->first.substr(prefix.size());
    }
    return std::to_string(value);
}

uint64_t Global(const Library &library, std::string_view name) {
    const auto row = library.Rows.find(name);
    char bytes[8] = {};
    if (row == library.Rows.end() || row->second.Size > sizeof bytes ||
        !Read(library.Of, row->second.Number, bytes, row->second.Size))
        return 0;
    return ReadNumber(bytes, sizeof bytes);
}

std::string GlobalText(const Library &library, std::string_view name) {
    const auto row = library.Rows.find(name);
    return row == library.Rows.end() ? "" : ReadText(library.Of, row->second.Number, row->second.Size);
}

std::string TraceFolder(const Library &library) {
    std::string folder = GlobalText(library, "gTraceDir");
    // The library ends a folder without a slash in a backslash, which stands for the separator.
    if (!folder.empty() && folder.back() == '\\' && folder.find('/') == std::string::npos) folder.back() = '/';
    if (folder.empty() || folder[0] != '/') folder = WorkingFolderOf(library.Of.Pid) + "/" + folder;
    if (folder.back() != '/') folder += '/';
    return folder;
}

bool ReadRecord(const Library &library, std::string_view type, Address at, Record *record) {
    const uint64_t bytes = Number(library, type);
    if (bytes == 0 || bytes > kMostRecordBytes || at == 0 || at % 8 != 0) return false;
    record->At = at;
    record->Bytes.resize(bytes);
    return Read(library.Of, at, record->Bytes.data(), bytes);
}

uint64_t Field(const Library &library, const Record &record, std::string_view name) {
    const auto row = library.Rows.find(name);
    if (row == library.Rows.end() || row->second.Size > 8) return 0;
    if (row->second.Number + row->second.Size > record.Bytes.size()) return 0;
    return ReadNumber(record.Bytes.data() + row->second.Number, row->second.Size);
}

Address FieldAddress(const Library &library, const Record &record, std::string_view name) {
    return record.At + Number(library, name);
}

// Count of the list at a field of a record that was copied.
static uint32_t CountOf(const Library &library, const Record &record, uint64_t offset) {
    const uint64_t at = offset + Number(library, "ListHead.Count");
    return at + 4 <= record.Bytes.size() ? static_cast<uint32_t>(ReadNumber(record.Bytes.data() + at, 4)) : 0;
}

static void ReadScheduler(const Library &library, SchedulerState *state) {
    const Record &copy = state->Copy;
    state->Thread = static_cast<uint32_t>(Field(library, copy, "Scheduler.OsThreadId"));
    state->ThreadCpu = CpuOf(library.Of.Pid, state->Thread, &state->ThreadState);
    state->ThreadWait = ProcessorWaitOf(library.Of.Pid, state->Thread);
    state->InPort = Field(library, copy, "Scheduler.BlockedInPort") != 0;
    state->InitFiber = Field(library, copy, "Scheduler.InitFiber");
    for (const char *list : {"SuspendedFibers", "TimedWaiters", "InfiniteWaiters", "IoWaiters", "MigrationQueue",
                             "ExitedFibers", "AllFibers", "ReadyList", "LatchSleepers"}) {
        if (const auto offset = Optional(library, std::string("Scheduler.") + list))
            state->Counts[list] = CountOf(library, copy, *offset);
    }
    state->Runnable = state->Counts["ReadyList"] + state->Counts["LatchSleepers"];
    for (uint64_t i = 0; i < 6; ++i)
        state->Runnable +=
            CountOf(library, copy, Number(library, "Scheduler.RunQueues") + i * Number(library, "ListHead"));
    const Address io = Field(library, copy, "Scheduler.Io");
    if (const auto offset = Optional(library, "IoThread.Outstanding"); io != 0 && offset)
        ReadValue(library.Of, io + *offset, &state->Outstanding);

    Address running = 0;
    const Address block = Field(library, copy, "Scheduler.Os");
    if (block == 0 || !ReadValue(library.Of, block + Number(library, "ThreadBlock.FiberData"), &running)) return;
    Record fiber;
    if (!ReadRecord(library, "Fiber", running, &fiber)) return;
    state->OnProcessor = running;
    state->OnProcessorRuns =
        Field(library, fiber, "Fiber.State") == Number(library, "FSTATE_RUNNING") && !state->InPort;
    // The scheduler's own fiber is runnable whenever it does not run, and is no work. While it runs its idle routine on
    // another's stack it is in no queue.
    if (running != state->InitFiber && state->OnProcessorRuns && state->Runnable > 0) state->Runnable--;
    const uint64_t since = Field(library, copy, "Scheduler.DispatchTsc");
    const uint64_t perMs = Global(library, "gTscTicksPerMs");
    const uint64_t now = CyclesNow();
    if (state->OnProcessorRuns && since != 0 && perMs != 0 && now > since)
        state->HeldMs = static_cast<double>(now - since) / static_cast<double>(perMs);
}

// All processors of the machines that matter share it.
uint64_t CyclesNow() {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return 0;
#endif
}

std::vector<SchedulerState> ReadSchedulers(const Library &library) {
    std::vector<SchedulerState> schedulers;
    const auto row = library.Rows.find("gSchedulers");
    if (row == library.Rows.end()) Fail("the library does not tell where its schedulers are");
    std::vector<Address> slots(row->second.Size / sizeof(Address));
    if (!Read(library.Of, row->second.Number, slots.data(), slots.size() * sizeof(Address)))
        Fail("the schedulers of process {} cannot be read", library.Of.Pid);
    for (const Address at : slots) {
        SchedulerState state;
        state.At = at;
        if (at == 0 || !ReadRecord(library, "Scheduler", at, &state.Copy)) continue;
        state.Index = static_cast<uint32_t>(Field(library, state.Copy, "Scheduler.Index"));
        if (state.Index >= slots.size() || slots[state.Index] != at) continue;
        if (Field(library, state.Copy, "Scheduler.Running") == 0) continue;
        ReadScheduler(library, &state);
        schedulers.push_back(std::move(state));
    }
    return schedulers;
}

}  // namespace zvxctl
