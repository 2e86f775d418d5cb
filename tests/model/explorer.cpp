// tests/model/explorer.cpp - see explorer.h: the search in the parent process, and one run in a child.
//
// A run belongs to one kernel thread. The explorer's own code runs on the test's fiber, or inside a hook of the running
// scheduler, where gInScheduler is false.
#include "explorer.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "alloc/alloc.h"
#include "sched/internal.h"
#include "sched_fixture.h"

extern "C" const char __executable_start[];  // the linker's: places in the source are told from here

namespace zvx::model {

namespace script = os::script;

namespace {

constexpr uint32_t kMaxChoices = 4096;
constexpr uint32_t kMaxWords = 1024;
constexpr uint32_t kMaxActors = 4;
constexpr uint32_t kMaxIdleMs = 5000;    // of model time, without an end: the scenario hangs
constexpr uint32_t kMaxSteps = 400'000;  // accesses of one run: it goes round in circles
constexpr uint32_t kFairSteps = 100;     // accesses after which the others get their turn

enum Outcome : int { kPassed = 0, kCutOff = 10, kViolated = 11 };

// ---- Shared by parent and runs -----------------------------------------------------------------------

struct Choice {
    uint8_t Options;
    uint8_t Taken;
};

struct SharedState {
    Choice Path[kMaxChoices];
    uint32_t Prefix;  // choices that are given
    uint32_t Length;  // choices made
    const volatile void *Contended[kMaxWords];
    uint32_t NumContended;
    unsigned long long Steps;
    char Text[2048];
};
SharedState *gShared;

// ---- Words -------------------------------------------------------------------------------------------

struct Word {
    uint8_t Readers = 0, Writers = 0;  // masks of actors
    bool Contended = false;            // a place for choices
    bool Ignored = false;
};
std::unordered_map<const volatile void *, Word> gWords;

// ---- Actors ------------------------------------------------------------------------------------------

struct Actor {
    Scheduler *S;
    os::FiberContext *Context;
    os::ThreadBlock Block;  // Slots, StaticTls, LastError, InlineBudget, SpinLocksHeld, Io
    bool Blocked;
    uint64_t WakeAt;  // blocked: tick at which the wait ends by itself
    // Preempted: the access that it was about to make, and whether anybody made it matter.
    const volatile void *Pending;
    bool PendingWrite;
    bool Useful;
    bool Spins;  // since its latest write
    uint32_t SpinWrites;
};
Actor gActors[kMaxActors];
uint32_t gNumActors;

struct Event {
    const char *Name;
    std::function<OVERLAPPED *()> Running;
    uint32_t Bytes;
    bool Fired;
};
std::vector<Event> gEvents;

struct RunState {
    uint32_t Current = 0;        // who runs, or ran last
    uint32_t Next = kMaxActors;  // whom the explorer's fiber switches to
    uint32_t Preemptions = 0;
    uint32_t Turns = 0;
    uint32_t Ticks = 0;
    uint32_t Steps = 0;
    uint32_t StepsInARow = 0;
    uint32_t Writes = 0;  // and events: what a spinning scheduler waits for
    bool Quiet = false;   // it looks at the same words again, and nobody has written any: no choices
} gRun;

Bounds gBounds;
bool gSearching;  // a run; false while the scenario is set up
bool gTelling;    // a run is told: who goes on, and before what, with the place in the program
const Scenario *gScenario;
os::FiberContext *gExplorer;

__attribute__((format(printf, 2, 3))) void Trace(const void *pc, const char *format, ...) {
    if (!gTelling) return;
    char line[512];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    std::printf("  %-60s %zx\n", line, pc == nullptr ? 0 : static_cast<const char *>(pc) - __executable_start - 1);
}

[[noreturn]] void EndRun(Outcome outcome) {
    gShared->Steps += gRun.Steps;
    for (const auto &[address, word] : gWords) {
        if (word.Contended || word.Ignored || word.Writers == 0) continue;
        const uint32_t users = word.Readers | word.Writers;
        if ((users & (users - 1)) == 0 || gShared->NumContended == kMaxWords) continue;
        gShared->Contended[gShared->NumContended++] = address;
    }
    _exit(outcome);
}

// The given choice, or the first option; how many options there were is noted.
uint32_t Choose(uint32_t options) {
    if (options == 1 || !gSearching) return 0;
    if (gShared->Length == kMaxChoices) Violation("too many choices in one run");
    Choice *choice = &gShared->Path[gShared->Length];
    if (gShared->Length < gShared->Prefix) {
        // The option that was taken last was one of as many options then.
        if (choice->Options != options || choice->Taken >= options) Violation("two runs of one schedule differ");
    } else {
        *choice = {static_cast<uint8_t>(options), 0};
    }
    gShared->Length++;
    return choice->Taken;
}

void SaveBlock(os::ThreadBlock *to, const os::ThreadBlock *from) {
    to->Slots = from->Slots;
    to->StaticTls = from->StaticTls;
    to->LastError = from->LastError;
    to->InlineBudget = from->InlineBudget;
    to->SpinLocksHeld = from->SpinLocksHeld;
    to->Io = from->Io;
}

// A word of a scheduler by its place in it, another by its address.
std::string NameOf(const volatile void *word) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", const_cast<const void *>(word));
    for (uint32_t i = 0; i < gNumActors; ++i) {
        const size_t at = reinterpret_cast<uintptr_t>(word) - reinterpret_cast<uintptr_t>(gActors[i].S);
        if (at < sizeof(Scheduler)) std::snprintf(text, sizeof text, "S%u+%zu", i, at);
    }
    return text;
}

bool HasNews(const Actor &actor) {
    return os::IoNeedsAttention(actor.S->Io) || script::QueuedPackets(actor.S->Port) != 0;
}

// How it may go on: the running actor, another one, one whose wait ends early, an event, or time that passes because
// nobody can.
struct Option {
    enum Kind : uint8_t { kGoOn, kSwitch, kTick, kEvent, kPass } What;
    uint8_t Index;
};

// Decides who goes on; true when that is the running scheduler. `canGoOn`: it is not blocked. `mustGive`: it spins, and
// goes on only where nobody else can.
bool Decide(bool canGoOn, bool mustGive) {
    for (;;) {
        const bool paid = canGoOn && !mustGive;  // whoever comes in between costs a preemption
        Option options[32];
        uint32_t n = 0;
        if (paid) options[n++] = {Option::kGoOn, 0};
        if (!paid || gRun.Preemptions < gBounds.Preemptions) {
            for (uint32_t step = 1; step <= gNumActors; ++step) {  // in turn
                const auto i = static_cast<uint8_t>((gRun.Current + step) % gNumActors);
                if (i == gRun.Current && canGoOn) continue;
                if (!gActors[i].Blocked || HasNews(gActors[i])) options[n++] = {Option::kSwitch, i};
            }
            const bool nobody = !canGoOn && n == 0;
            for (uint8_t i = 0; i < gEvents.size(); ++i)
                if (!gEvents[i].Fired && gEvents[i].Running() != nullptr) options[n++] = {Option::kEvent, i};
            if (nobody && n != 0) options[n++] = {Option::kPass, 0};
            if (gRun.Ticks < gBounds.Ticks && !nobody && (paid || (!canGoOn && n != 0))) {
                for (uint8_t i = 0; i < gNumActors; ++i)
                    if (gActors[i].Blocked && !HasNews(gActors[i])) options[n++] = {Option::kTick, i};
            }
        }
        if (n == 0) {
            gRun.Next = kMaxActors;
            return canGoOn;
        }
        if (!paid && (gRun.Quiet || gRun.Turns == gBounds.Turns)) n = 1;
        const uint32_t which = Choose(n);
        const Option taken = options[which];
        if (taken.What == Option::kGoOn) return true;
        if (paid)
            gRun.Preemptions++;
        else if (which != 0)
            gRun.Turns++;
        if (taken.What == Option::kPass) {
            gRun.Next = kMaxActors;
            return false;
        }
        if (taken.What == Option::kEvent) {
            Event &event = gEvents[taken.Index];
            Trace(nullptr, "    event: %s", event.Name);
            event.Fired = true;
            script::EndOperation(event.Running(), STATUS_SUCCESS, event.Bytes);
            gRun.Writes++;
            for (Actor &actor : gActors) actor.Useful = true;
            continue;
        }
        Actor &next = gActors[taken.Index];
        if (taken.What == Option::kTick) {
            gRun.Ticks++;
            Trace(nullptr, "    the wait of S%u ends early", taken.Index);
        }
        const uint64_t now = os::GetTickCount64();
        if (next.Blocked && !HasNews(next) && next.WakeAt > now) script::AdvanceClock(next.WakeAt - now);
        next.Blocked = false;
        gRun.Next = taken.Index;
        return false;
    }
}

// The running scheduler stops here; returns when it goes on.
void Leave() {
    os::ThreadBlock *block = os::CurrentThreadBlock();
    Actor &actor = gActors[gRun.Current];
    actor.Context = block->Current;
    SaveBlock(&actor.Block, block);
    os::SwitchToFiber(block, gExplorer);
    SaveBlock(block, &actor.Block);
}

void CountStep() {
    if (++gRun.Steps > kMaxSteps) Violation("a run without an end");
}

// A wait in a port, from the scripted operating system.
void OnPortWait(HANDLE port, DWORD ms) {
    gInScheduler = false;
    Actor &actor = gActors[gRun.Current];
    FlushStores();
    if (port != actor.S->Port) Violation("a wait in somebody else's port");
    gRun.StepsInARow = 0;
    if (ms == 0) {  // it polls and polls
        if (!Decide(true, true)) Leave();
    } else if (!HasNews(actor)) {
        actor.Blocked = true;
        actor.WakeAt = os::GetTickCount64() + ms;
        Trace(nullptr, "S%u waits in its port, %u ms", gRun.Current, ms);
        if (!Decide(false, false)) Leave();
    }
    gInScheduler = true;
}

// Everybody is blocked. False when the scenario has come to its end; else time passes until somebody can go on.
bool PassTime(uint64_t started) {
    uint64_t next = UINT64_MAX;
    for (uint32_t i = 0; i < gNumActors; ++i) {
        const Scheduler *S = gActors[i].S;
        next = std::min(next, gActors[i].WakeAt);
        if (PostsWaiting(S)) Violation("S%u sleeps in its port, and a post in a lane waits for it", i);
        for (const FIBER_MESSAGE *msg = S->Messages.load(std::memory_order_relaxed); msg != nullptr; msg = msg->Next)
            if (msg->Kind == MSG_POST || msg->Kind == MSG_OBJECTS || gPortWaitMs > 1)
                Violation("S%u sleeps in its port, and a message waits for it", i);
    }
    if (AllEnded()) return false;
    const uint64_t now = os::GetTickCount64();
    if (now - started > kMaxIdleMs) Violation("it does not come to an end");
    if (next > now) script::AdvanceClock(next - now);
    for (uint32_t i = 0; i < gNumActors; ++i)
        if (gActors[i].WakeAt <= os::GetTickCount64()) gActors[i].Blocked = false;
    return true;
}

// Until everybody is blocked.
void RunAll() {
    os::ThreadBlock *block = os::CurrentThreadBlock();
    os::ThreadBlock own;
    SaveBlock(&own, block);
    Decide(false, false);
    while (gRun.Next != kMaxActors) {
        gRun.Current = gRun.Next;
        gRun.Next = kMaxActors;
        gRun.StepsInARow = 0;
        Actor &actor = gActors[gRun.Current];
        if (actor.Pending != nullptr && !actor.Useful) EndRun(kCutOff);
        actor.Pending = nullptr;
        Trace(nullptr, "S%u runs", gRun.Current);
        SaveBlock(block, &actor.Block);
        gInScheduler = true;
        os::SwitchToFiber(block, actor.Context);
        gInScheduler = false;
        SaveBlock(block, &own);
    }
}

[[noreturn]] void Run() {
    gSearching = true;
    const uint64_t started = os::GetTickCount64();
    for (Actor &actor : gActors) actor.Blocked = false;
    do {
        RunAll();
    } while (PassTime(started));
    if (gScenario->Check != nullptr) gScenario->Check();
    int32_t messages = 0;
    for (uint32_t i = 0; i < gNumActors; ++i) {
        CheckScheduler(gActors[i].S);
        messages += gActors[i].S->ChunkTypeCount[ALLOC_FIBER_MESSAGE].load();
    }
    MUST(messages == 0);
    EndRun(kPassed);
}

// ---- The search --------------------------------------------------------------------------------------

unsigned long long gExecutions, gCutOff, gDeepest;

// One run in a child. Returns its outcome; a child that ended by itself is a violation.
Outcome RunChild() {
    gShared->Length = 0;
    gShared->Text[0] = 0;
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (child == 0) Run();
    int status = 0;
    waitpid(child, &status, 0);
    gExecutions++;
    gDeepest = std::max<unsigned long long>(gDeepest, gShared->Length);
    const int outcome = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    gCutOff += outcome == kCutOff;
    if (outcome == kPassed || outcome == kCutOff || outcome == kViolated) return static_cast<Outcome>(outcome);
    std::snprintf(gShared->Text, sizeof gShared->Text, "the process ended: status %x", status);
    return kViolated;
}

// The next path in depth-first order; false when there is none.
bool NextPath() {
    uint32_t length = gShared->Length;
    while (length > 0 && gShared->Path[length - 1].Taken + 1u >= gShared->Path[length - 1].Options) length--;
    if (length == 0) return false;
    gShared->Path[length - 1].Taken++;
    gShared->Prefix = length;
    return true;
}

void BuildScenario() {
    test::InitLibrary();
    script::gScript.OnPortWait = OnPortWait;
    script::gScript.OnSpin = [] { MayStop(true); };
    script::gScript.OnSleep = [](DWORD) { WhileSpinning(); };
    gExplorer = os::CurrentThreadBlock()->Current;
    // The handle table is made now, and its empty pages are forgotten again: they would be copied for every run.
    PSEHAND entry{};
    entry.Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(AvoidCompletionEvent));
    InsertHandle(&entry);
    RemoveHandle(&entry);
    os::UnpinHandleValue(HandleValue(&entry));
    constexpr size_t kPage = 4096;
    const auto table = (reinterpret_cast<uintptr_t>(gHandleTable.load()) + kPage - 1) & ~(kPage - 1);
    madvise(reinterpret_cast<void *>(table), kFirstHandleSlots * sizeof(HandleSlot) - kPage, MADV_DONTNEED);
    gPortWaitMs = gScenario->PortWaitMs;
    for (uint32_t i = 0; i < gScenario->Schedulers; ++i) {
        Scheduler *S = test::NewScheduler();
        S->AffinityMask = 1u << i;
        Actor &actor = gActors[gNumActors++];
        actor.S = S;
        actor.Context = S->InitFiber->OsFiber;
        SaveBlock(&actor.Block, os::CurrentThreadBlock());
        actor.Block.Io = S->Io;
        // No part of a protocol: a hint to a running user thread, and the count for placing new ones.
        for (const volatile void *word :
             std::initializer_list<const volatile void *>{&S->QuantumStartTick, &S->FiberCount, &S->DebugRequest})
            gWords[word].Ignored = true;
    }
    BeginScenario();
    gScenario->Setup();
}

Outcome Search() {
    uint32_t known = 0, rounds = 1;
    Outcome outcome;
    for (;;) {
        outcome = RunChild();
        if (outcome >= kViolated) break;
        if (gShared->NumContended != known) {
            known = gShared->NumContended;
            for (uint32_t i = 0; i < known; ++i) gWords[gShared->Contended[i]].Contended = true;
            gShared->Prefix = 0;
            rounds++;
        } else if (!NextPath()) {
            break;
        }
    }
    std::printf(
        "%s: %llu runs (%llu cut off), %llu accesses, %llu choices at most in a run, %u shared words, %u rounds, "
        "preemptions %u, turns %u, ticks %u%s: %s\n",
        gScenario->Name, gExecutions, gCutOff, gShared->Steps, gDeepest, gShared->NumContended, rounds,
        gBounds.Preemptions, gBounds.Turns, gBounds.Ticks, gBuffering ? ", buffers" : "",
        outcome >= kViolated ? "VIOLATED" : "holds");
    return outcome;
}

}  // namespace

// ---- For scenarios -----------------------------------------------------------------------------------

void RunToRest() {
    for (Actor &actor : gActors) actor.Blocked = false;
    RunAll();
}

void MayStop(bool mustGive) {
    gInScheduler = false;
    if (!Decide(true, mustGive)) {
        Trace(__builtin_return_address(0), "S%u stopped", gRun.Current);
        Leave();
    }
    gInScheduler = true;
}

void AddEnd(const char *name, uint32_t bytes, std::function<OVERLAPPED *()> running) {
    gEvents.push_back({name, std::move(running), bytes, false});
    gWords[gActors[1].S->Io->Tail].Contended = true;
}

void Violation(const char *format, ...) {
    gInScheduler = false;
    va_list values;
    va_start(values, format);
    std::vsnprintf(gShared->Text, sizeof gShared->Text, format, values);
    va_end(values);
    Trace(nullptr, "VIOLATION: %s", gShared->Text);
    EndRun(kViolated);
}

// ---- Hooks -------------------------------------------------------------------------------------------

void BeforeAccess(const volatile void *address, bool write, const void *pc) {
    if (!gInScheduler) return;
    gInScheduler = false;
    CountStep();
    Word *word = &gWords[address];
    if (!word->Ignored) {
        Actor &actor = gActors[gRun.Current];
        if (word->Contended) {
            const char *verb = write ? "writes" : "reads";
            if (write) {
                actor.Spins = false;
                gRun.Writes++;
            }
            const bool again = actor.Spins && actor.SpinWrites == gRun.Writes;
            const bool mustGive = ++gRun.StepsInARow > kFairSteps;
            if (mustGive) gRun.StepsInARow = 0;
            if (!again && !Decide(true, mustGive)) {
                Trace(pc, "S%u stopped before it %s %s", gRun.Current, verb, NameOf(address).c_str());
                // What it has stored and nobody sees yet will be seen after this access: later is not the same.
                actor.Useful = mustGive || gBuffered != 0;
                actor.Pending = address;
                actor.PendingWrite = write;
                Leave();
            }
            if (!again) Trace(pc, "S%u %s %s", gRun.Current, verb, NameOf(address).c_str());
        }
        for (Actor &other : gActors)
            if (other.Pending == address && (write || other.PendingWrite)) other.Useful = true;
        if (gSearching) (write ? word->Writers : word->Readers) |= static_cast<uint8_t>(1u << gRun.Current);
    }
    gInScheduler = true;
}

void WhileSpinning() {
    if (!gInScheduler) return;
    gInScheduler = false;
    CountStep();
    FlushStores();
    Actor &actor = gActors[gRun.Current];
    gRun.Quiet = actor.Spins && actor.SpinWrites == gRun.Writes;
    actor.Spins = true;
    actor.SpinWrites = gRun.Writes;
    const bool goesOn = Decide(true, true);
    gRun.Quiet = false;
    if (!goesOn) {
        Trace(nullptr, "S%u spins", gRun.Current);
        Leave();
    }
    gInScheduler = true;
}

// ---- Store buffers -----------------------------------------------------------------------------------

uint32_t RunningScheduler() {
    return gRun.Current;
}

void NoteDelayedStore(const volatile void *address) {
    if (gSearching) gWords[address].Writers |= static_cast<uint8_t>(1u << gRun.Current);
    gRun.Writes++;
    for (Actor &other : gActors)
        if (other.Pending == address) other.Useful = true;
}

}  // namespace zvx::model

// ---- Command line ------------------------------------------------------------------------------------

using namespace zvx::model;

int main(int argc, char **argv) {
    bool wide = false, expectViolation = false;
    for (int i = 1; i < argc; ++i) {
        wide |= std::strcmp(argv[i], "--wide") == 0;
        gBuffering |= std::strcmp(argv[i], "--buffers") == 0;
        expectViolation |= std::strcmp(argv[i], "--expect-violation") == 0;
        for (uint32_t k = 0; k < gNumScenarios; ++k)
            if (std::strcmp(gScenarios[k].Name, argv[i]) == 0) gScenario = &gScenarios[k];
    }
    if (gScenario == nullptr) {
        std::printf("usage: %s SCENARIO [--wide] [--buffers] [--expect-violation]\nscenarios:", argv[0]);
        for (uint32_t i = 0; i < gNumScenarios; ++i) std::printf(" %s", gScenarios[i].Name);
        std::printf("\n");
        return 2;
    }
    void *memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 1;
    gShared = static_cast<SharedState *>(memory);
    gBounds = wide ? gScenario->Wide : gScenario->Quick;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    BuildScenario();
    const Outcome outcome = Search();
    if (outcome >= kViolated) {
        std::printf("%s: %s\n", expectViolation ? "as expected" : "violated", gShared->Text);
        gShared->Prefix = gShared->Length;
        gTelling = !expectViolation;
        if (gTelling) RunChild();  // the same again
    }
    return (outcome >= kViolated) == expectViolation ? 0 : 1;
}
