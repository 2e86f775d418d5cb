// tools/zvxctl/threads.cpp - the user threads of a process: their lists, what each waits for, where it is parked.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "library.h"

namespace zvxctl {

namespace {

constexpr uint32_t kMostThreads = 2000000;
constexpr int kListAttempts = 4;
constexpr int kMostFrames = 32;

struct Reader {
    const Library &Of;
    Symbols *Names;
    std::map<Address, std::string> Tags;  // texts by pointer: thousands of sessions share a few
    uint64_t CyclesPerMs = 1;
};

// Whether the record is a user thread's: its operations name it.
bool IsFiber(const Library &library, const Record &fiber) {
    const uint64_t ops = Number(library, "Fiber.OwnOvs");
    const uint64_t magicAt = ops + Number(library, "FIBEROVERLAPPED.Magic");
    const uint64_t ownerAt = ops + Number(library, "FIBEROVERLAPPED.Fiber");
    uint32_t magic = 0;
    Address owner = 0;
    if (magicAt + 4 > fiber.Bytes.size() || ownerAt + 8 > fiber.Bytes.size()) return false;
    std::memcpy(&magic, fiber.Bytes.data() + magicAt, 4);
    std::memcpy(&owner, fiber.Bytes.data() + ownerAt, 8);
    return magic == Number(library, "FIBEROVERLAPPED_MAGIC") && owner == fiber.At;
}

struct ListWalk {
    std::vector<Record> Fibers;
    bool Whole = false;  // nothing changed under the walk
};

// The list whose head is at `head`, linked by the field `link`, while its owner may be changing it: each step must lead
// to a fiber that names the one before as its predecessor. Where that fails, the rest is read from the other end.
ListWalk WalkOnce(const Library &library, Address head, std::string_view link) {
    ListWalk walk;
    const uint64_t next = Number(library, "ListLink.Next");
    const uint64_t previous = Number(library, "ListLink.Prev");
    const uint64_t linkAt = Number(library, link);
    const uint64_t count = Number(library, "ListHead.Count");
    uint32_t length = 0;
    if (!ReadValue(library.Of, head + count, &length)) return walk;
    std::set<Address> seen;
    // Forward by Next with Prev as the check, then backward by Prev with Next.
    for (const auto &[onward, back] : {std::pair{next, previous}, std::pair{previous, next}}) {
        Address before = head;
        Address at = 0;
        if (!ReadValue(library.Of, head + onward, &at)) return walk;
        while (at != head && seen.size() < kMostThreads) {
            Record fiber;
            Address came = 0;
            if (!ReadRecord(library, "Fiber", at - linkAt, &fiber) || !IsFiber(library, fiber)) break;
            std::memcpy(&came, fiber.Bytes.data() + linkAt + back, sizeof came);
            if (came != before || !seen.insert(at).second) break;
            before = at;
            std::memcpy(&at, fiber.Bytes.data() + linkAt + onward, sizeof at);
            walk.Fibers.push_back(std::move(fiber));
        }
        if (at == head) break;
    }
    uint32_t after = 0;
    walk.Whole = ReadValue(library.Of, head + count, &after) && after == length && walk.Fibers.size() == length;
    return walk;
}

std::vector<Record> WalkList(const Library &library, Address head, std::string_view link) {
    ListWalk best;
    for (int attempt = 0; attempt < kListAttempts && !best.Whole; ++attempt) {
        ListWalk walk = WalkOnce(library, head, link);
        if (walk.Whole || walk.Fibers.size() > best.Fibers.size()) best = std::move(walk);
    }
    return std::move(best.Fibers);
}

// ---- What it waits for -------------------------------------------------------------------------------

std::string OperationText(const Library &library, const Record &fiber) {
    Address ov = Field(library, fiber, "Fiber.IoWaitOv");
    if (ov == 0) ov = Field(library, fiber, "Fiber.CurOv");
    Record operation;
    if (ov == 0 || !ReadRecord(library, "FIBEROVERLAPPED", ov - Number(library, "FIBEROVERLAPPED.Ov"), &operation) ||
        Field(library, operation, "FIBEROVERLAPPED.Magic") != Number(library, "FIBEROVERLAPPED_MAGIC"))
        return "operation";
    const uint64_t type = Field(library, operation, "FIBEROVERLAPPED.HandleType");
    const bool pipe = type == Number(library, "PHAND_HTYPE_CreateNamedPipeA") ||
                      type == Number(library, "PHAND_HTYPE_CreateNamedPipeW");
    static const std::pair<const char *, const char *> kTexts[] = {
        {"RECEIVE", "socket receive"},      {"SEND", "socket send"},
        {"ACCEPT", "socket accept"},        {"READ_FILE", "file read"},
        {"WRITE_FILE", "file write"},       {"CONNECT_NAMED_PIPE", "pipe connect"},
        {"READ_FILE_EX", "file read (Ex)"}, {"WRITE_FILE_EX", "file write (Ex)"},
        {"FLUSH_FILE", "file flush"}};
    const std::string code = NameOfValue(library, "OP_", Field(library, operation, "FIBEROVERLAPPED.OpArg"));
    std::string text = "operation " + code;
    for (const auto &[name, words] : kTexts)
        if (code == name) text = words;
    if (pipe && text.compare(0, 4, "file") == 0) text.replace(0, 4, "pipe");
    return fmt::format("{} h={:x}", text, Field(library, operation, "FIBEROVERLAPPED.OsHandle"));
}

std::string TimedWaitText(const Library &library, const Record &fiber, uint32_t flags, uint32_t limit) {
    std::string text;
    if (flags & Number(library, "FIBER_POST_WAIT")) {
        const uint64_t mask = Field(library, fiber, "Fiber.PostWaitMask");
        text = (mask & Number(library, "POST_SECTION")) != 0 ? "critical section" : "post";
    } else if (flags & Number(library, "FIBER_SLICE_FILED")) {
        return "object (polled)";
    } else if (flags & Number(library, "FIBER_OBJECT_WAIT")) {
        text = "object";
    } else if (flags & Number(library, "FIBER_POLL_OWN_OVS")) {
        text = fmt::format("own operations ({})", Field(library, fiber, "Fiber.PendingApcIos"));
    } else {
        text = "sleep";
    }
    if (limit != 0xFFFFFFFF) text += fmt::format(" <= {} ms", limit);
    return text;
}

// ---- Where it is parked ------------------------------------------------------------------------------

// A stack of the other process; its top is read in one piece.
struct Stack {
    const Library &Of;
    Address Low, High;  // bounds
    Address Top;        // lowest byte in use
    char Bytes[4096];
    size_t Held;

    bool Word(Address at, Address *value) const {
        if (at >= Top && at - Top + sizeof *value <= Held) {
            std::memcpy(value, Bytes + (at - Top), sizeof *value);
            return true;
        }
        return at >= Low && at + sizeof *value <= High && ReadValue(Of.Of, at, value);
    }
    bool Fill() {
        Held = 0;
        if (Top < Low || Top >= High) return false;
        Held = static_cast<size_t>(std::min<Address>(sizeof Bytes, High - Top));
        return Read(Of.Of, Top, Bytes, Held);
    }
};

bool InLibrary(const Library &library, Address code) {
    return code >= library.Base && code < library.End;
}

// The first function outside the library that the chain of frames leads to, and the library's function that it called.
// The library keeps frame pointers, so that its own frames are a chain; the host's need not be.
std::string PlaceFrom(Reader *reader, const Stack &stack, Address base, Address code) {
    const Library &library = reader->Of;
    Address inside = 0;
    Address within = 0;  // the frame below that one
    for (int i = 0; i < kMostFrames && code != 0; ++i) {
        if (!InLibrary(library, code)) {
            const Mapping *mapping = MappingOf(library.Of, code - 1);
            if (mapping == nullptr || !mapping->Executable) return "";  // it ran while it was read
            const std::string caller = NameOf(reader->Names, library.Of, code - 1, false);
            if (inside == 0) return caller;
            return fmt::format("{} > {}", caller, NameOf(reader->Names, library.Of, inside - 1, true));
        }
        within = inside;
        inside = code;
        const Address frame = base;
        if (!stack.Word(frame, &base) || !stack.Word(frame + 8, &code) || base <= frame) break;
    }
    // One of the library's own: below its start.
    return within != 0 ? NameOf(reader->Names, library.Of, within - 1, true) : "";
}

std::string ParkedPlace(Reader *reader, const Record &context) {
    const Library &library = reader->Of;
    Stack stack{library,
                Field(library, context, "FiberContext.StackLow"),
                Field(library, context, "FiberContext.StackHigh"),
                Field(library, context, "FiberContext.StackPointer"),
                {},
                0};
    uint16_t frame[8];
    Address base = 0;
    Address code = 0;
    if (!stack.Fill() || !ReadValue(library.Of, Number(library, "zvx_switch_frame"), &frame) ||
        !stack.Word(stack.Top + frame[5], &base) || !stack.Word(stack.Top + frame[6], &code))
        return "";
    return PlaceFrom(reader, stack, base, code);
}

// The scheduler idles on the user thread's stack, where its kernel thread sleeps: the kernel tells the stack pointer
// and not the frame pointer, so that the lowest frame is looked for that leads up through the library to the host.
std::string BorrowedPlace(Reader *reader, const SchedulerState &scheduler, const Record &context) {
    const Library &library = reader->Of;
    // It wakes up every now and then, but not for long.
    Address top = 0;
    for (int i = 0; i < 10 && top == 0; ++i) {
        top = SleepingStackPointer(library.Of.Pid, scheduler.Thread);
        if (top == 0) usleep(100);
    }
    Stack stack{library,
                Field(library, context, "FiberContext.StackLow"),
                Field(library, context, "FiberContext.StackHigh"),
                top,
                {},
                0};
    if (!stack.Fill()) return "";
    for (Address at = (stack.Top + 7) & ~Address{7}; at + 16 <= stack.Top + stack.Held; at += 8) {
        Address base = 0;
        Address code = 0;
        stack.Word(at, &base);
        stack.Word(at + 8, &code);
        if (base <= at || base >= stack.High || !InLibrary(library, code)) continue;
        const std::string place = PlaceFrom(reader, stack, base, code);
        if (place.find(" > ") != std::string::npos) return place;
    }
    return "";
}

// ---- One user thread ---------------------------------------------------------------------------------

UserThread Describe(Reader *reader, const SchedulerState &scheduler, const Record &fiber, bool places) {
    const Library &library = reader->Of;
    UserThread thread;
    thread.At = fiber.At;
    thread.Serial = static_cast<uint32_t>(Field(library, fiber, "Fiber.ShellSerial"));
    thread.ThreadId = static_cast<uint32_t>(Field(library, fiber, "Fiber.OsThreadId"));
    thread.Scheduler = scheduler.Index;
    thread.State = static_cast<uint32_t>(Field(library, fiber, "Fiber.State"));
    const Address tag = Field(library, fiber, "Fiber.Tag");
    const auto [known, fresh] = reader->Tags.try_emplace(tag);
    if (fresh && tag != 0) known->second = ReadText(library.Of, tag, 32);
    thread.Tag = known->second;
    const auto flags = static_cast<uint32_t>(Field(library, fiber, "Fiber.Flags"));
    const auto limit = static_cast<uint32_t>(Field(library, fiber, "Fiber.WaitTimeoutMs"));
    thread.CpuMs =
        static_cast<double>(Field(library, fiber, "Fiber.CpuCycles")) / static_cast<double>(reader->CyclesPerMs);
    const bool onProcessor = fiber.At == scheduler.OnProcessor;
    // The scheduler was read a moment before: what the thread itself says by now counts too.
    thread.Running = onProcessor && scheduler.OnProcessorRuns && thread.State == Number(library, "FSTATE_RUNNING");
    thread.StateText = NameOfValue(library, "FSTATE_", thread.State);
    if (thread.State == Number(library, "FSTATE_IO_WAIT")) {
        thread.Waits = OperationText(library, fiber);
    } else if (thread.State == Number(library, "FSTATE_TIMED_WAIT")) {
        thread.Waits = TimedWaitText(library, fiber, flags, limit);
    }
    if (!thread.Running && thread.State != Number(library, "FSTATE_RUNNING")) {
        // A polled wait yields anew every few milliseconds, and keeps its own beginning.
        const bool polled =
            thread.State == Number(library, "FSTATE_TIMED_WAIT") && (flags & Number(library, "FIBER_SLICE_FILED")) != 0;
        const uint64_t since = Field(library, fiber, polled ? "Fiber.PolledTsc" : "Fiber.ParkedTsc");
        const uint64_t now = CyclesNow();
        if (since != 0 && reader->CyclesPerMs != 0)
            thread.WaitMs =
                now > since ? static_cast<double>(now - since) / static_cast<double>(reader->CyclesPerMs) : 0;
    }
    if (thread.Running) {
        thread.CpuMs += scheduler.HeldMs;
        thread.Where = fmt::format("on the processor for {:.0f} ms", scheduler.HeldMs);
    } else if ((flags & Number(library, "FIBER_STARTED")) == 0) {
        if (places)
            thread.Where =
                NameOf(reader->Names, library.Of, Field(library, fiber, "Fiber.StartRoutine"), true) + " (not begun)";
    } else if (places) {
        // The registers of a stack that is in use are those of an earlier time.
        Record context;
        if (ReadRecord(library, "FiberContext", Field(library, fiber, "Fiber.OsFiber"), &context))
            thread.Where = onProcessor ? BorrowedPlace(reader, scheduler, context) : ParkedPlace(reader, context);
        if (onProcessor && thread.Where.empty()) thread.Where = "(its scheduler idles on this stack)";
    }
    if (flags & Number(library, "FIBER_TERMINATE")) thread.Waits += " (terminated)";
    return thread;
}

}  // namespace

std::vector<UserThread> ReadThreads(const Library &library, const std::vector<SchedulerState> &schedulers,
                                    const ReadOptions &options, Symbols *symbols) {
    Reader reader{library, symbols, {}};
    reader.CyclesPerMs = std::max<uint64_t>(1, Global(library, "gTscTicksPerMs"));
    std::vector<UserThread> threads;
    std::set<Address> seen;
    for (const SchedulerState &scheduler : schedulers) {
        if (options.Scheduler && *options.Scheduler != scheduler.Index) continue;
        const auto add = [&](const Record &fiber) {
            if (Field(library, fiber, "Fiber.Sched") != scheduler.At) return;  // it has moved, or the record was freed
            if (fiber.At == scheduler.InitFiber || !seen.insert(fiber.At).second) return;
            threads.push_back(Describe(&reader, scheduler, fiber, options.Places));
        };
        for (const Record &fiber :
             WalkList(library, FieldAddress(library, scheduler.Copy, "Scheduler.AllFibers"), "Fiber.SchedFibersLink"))
            add(fiber);
        // One that has never run is in a queue only.
        const Address queues = FieldAddress(library, scheduler.Copy, "Scheduler.RunQueues");
        std::vector<Address> heads{FieldAddress(library, scheduler.Copy, "Scheduler.ReadyList"),
                                   FieldAddress(library, scheduler.Copy, "Scheduler.SuspendedFibers")};
        for (uint64_t i = 0; i < 6; ++i) heads.push_back(queues + i * Number(library, "ListHead"));
        for (const Address head : heads) {
            uint32_t count = 0;
            if (!ReadValue(library.Of, head + Number(library, "ListHead.Count"), &count) || count == 0) continue;
            for (const Record &fiber : WalkOnce(library, head, "Fiber.RunLink").Fibers)
                if ((Field(library, fiber, "Fiber.Flags") & Number(library, "FIBER_STARTED")) == 0) add(fiber);
        }
    }
    return threads;
}

}  // namespace zvxctl
