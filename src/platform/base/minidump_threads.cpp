// platform/base/minidump_threads.cpp - registers and stacks of every kernel thread, while the threads run on.
//
// Each thread is sent a signal. Its handler copies the interrupted registers and the stack above them into the
// thread's place in a table and returns, so a thread is held up for some microseconds, and what the dump shows of it
// is one moment. A thread that does not answer (it blocks signals, is stopped in a handler, or the kernel does not let
// it go) is shown as far as the kernel tells where it is blocked. The thread that writes looks at itself.
//
// A place is claimed by its Word, which holds the thread and the state in one:
//   - the writer stores (thread, kAsked) before it sends the signal;
//   - the handler of that thread takes it from there to kTaking, fills the place, and stores kTaken;
//   - the writer takes an unanswered place from kAsked back to kFree. A handler that comes later finds nothing to do,
//     or the question of a later dump, which it answers.
// The table's memory is never unmapped, because a handler may look at it at any time.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "platform/base/fiber_internal.h"
#include "platform/base/futex.h"
#include "platform/base/minidump.h"

namespace os {

namespace {

using minidump::Context;

constexpr size_t kStackLimit = 64 * 1024;    // bytes of a stack that are written, counted from its top frame
constexpr size_t kUnknownStack = 16 * 1024;  // of a stack whose end is not known
constexpr uintptr_t kRedZone = 128;          // below the stack pointer, in use by a leaf function
constexpr uint64_t kPatienceNs = 200 * 1000000ull;
constexpr uint64_t kTakingPatienceNs = 1000000000;
constexpr uint32_t kFirstPlaces = 64;
constexpr uint32_t kMaxPlaces = 16384;

enum PlaceState : uint64_t { kFree = 0, kAsked = 1, kTaking = 2, kTaken = 3 };

constexpr uint64_t WordOf(int tid, PlaceState state) {
    return static_cast<uint64_t>(static_cast<uint32_t>(tid)) << 8 | state;
}

struct Place {
    std::atomic<uint64_t> Word;  // see above
    uint32_t StackBytes;         // the rest belongs to whoever is in kTaking, and to the writer from kTaken on
    uint64_t StackStart;
    Context Registers;
    char Stack[kStackLimit];
};

struct Table {
    uint32_t Count;  // init
    Place *Places;   // init
};

constinit std::atomic<Table *> gTable{nullptr};
constinit std::atomic<uint32_t> gAnswers{0};  // raised by every answer; futex of the writer
constinit std::atomic<int> gSignal{0};        // 0 until the first dump, -1 when there is none to be had
// The writer's, under gDumpInProgress: threads that did not answer an earlier dump and have its signal still before
// them. They are not sent another and not waited for, so that a sweep does not pay for them in every file. After a
// while they are asked once more: by then the identifier may be another thread's.
constexpr uint32_t kMaxSilent = 64;
constexpr uint64_t kForgetSilentNs = 10 * 1000000000ull;
int gSilent[kMaxSilent];
uint32_t gSilentCount;
uint64_t gSilentSince;

// ---- On the thread that is looked at -------------------------------------------------------------------

uintptr_t StackEnd(uintptr_t at) {
    const ThreadBlock *block = PeekThreadBlock();
    const FiberContext *fiber = block->Current;
    const auto within = [at](const char *low, const char *high) {
        return at >= reinterpret_cast<uintptr_t>(low) && at < reinterpret_cast<uintptr_t>(high);
    };
    if (fiber != nullptr && within(fiber->StackLow, fiber->StackHigh))
        return reinterpret_cast<uintptr_t>(fiber->StackHigh);
    const ThreadLocals *locals = reinterpret_cast<const ThreadLocals *>(block);
    if (within(locals->StackLow, locals->StackHigh)) return reinterpret_cast<uintptr_t>(locals->StackHigh);
    // Half-way through a switch, or a thread that is not ours: as far as there is memory.
    return at + kUnknownStack;
}

// What is above `pointer`, where the calling thread was interrupted, or another one is blocked.
void CopyStack(Place *place, uintptr_t pointer, uintptr_t end) {
    uintptr_t start = pointer - kRedZone;
    size_t bytes = end - start < kStackLimit ? end - start : kStackLimit;
    place->StackStart = start;
    place->StackBytes =
        static_cast<uint32_t>(ReadOwnMemory(reinterpret_cast<const void *>(start), place->Stack, bytes));
    if (place->StackBytes != 0) return;
    // The red zone may lie in the guard.
    start = pointer & ~uintptr_t{kPageBytes - 1};
    bytes = end - start < kStackLimit ? end - start : kStackLimit;
    place->StackStart = start;
    place->StackBytes =
        static_cast<uint32_t>(ReadOwnMemory(reinterpret_cast<const void *>(start), place->Stack, bytes));
}

void StoreRegisters(Context *to, const ucontext_t *from) {
    const greg_t *r = from->uc_mcontext.gregs;
    const auto value = [r](int which) { return static_cast<uint64_t>(r[which]); };
    memset(to, 0, sizeof *to);
    to->Flags = minidump::kContextFull;
    to->Rax = value(REG_RAX), to->Rcx = value(REG_RCX), to->Rdx = value(REG_RDX), to->Rbx = value(REG_RBX);
    to->Rsp = value(REG_RSP), to->Rbp = value(REG_RBP), to->Rsi = value(REG_RSI), to->Rdi = value(REG_RDI);
    to->R8 = value(REG_R8), to->R9 = value(REG_R9), to->R10 = value(REG_R10), to->R11 = value(REG_R11);
    to->R12 = value(REG_R12), to->R13 = value(REG_R13), to->R14 = value(REG_R14), to->R15 = value(REG_R15);
    to->Rip = value(REG_RIP);
    to->Eflags = static_cast<uint32_t>(value(REG_EFL));
    const uint64_t segments = value(REG_CSGSFS);
    to->Cs = static_cast<uint16_t>(segments), to->Gs = static_cast<uint16_t>(segments >> 16);
    to->Fs = static_cast<uint16_t>(segments >> 32), to->Ss = static_cast<uint16_t>(segments >> 48);
    if (from->uc_mcontext.fpregs == nullptr) return;
    static_assert(sizeof *from->uc_mcontext.fpregs == sizeof to->Fxsave);
    memcpy(to->Fxsave, from->uc_mcontext.fpregs, sizeof to->Fxsave);
    to->Mxcsr = from->uc_mcontext.fpregs->mxcsr;
}

void Take(Place *place, const ucontext_t *machine) {
    StoreRegisters(&place->Registers, machine);
    CopyStack(place, place->Registers.Rsp, StackEnd(place->Registers.Rsp));
}

void OnDumpSignal(int, siginfo_t *, void *machine) {
    const int savedErrno = errno;
    const int self = static_cast<int>(syscall(SYS_gettid));
    const Table *table = gTable.load(std::memory_order_acquire);
    for (uint32_t i = 0; table != nullptr && i < table->Count; ++i) {
        Place *place = &table->Places[i];
        uint64_t word = WordOf(self, kAsked);
        if (place->Word.load(std::memory_order_relaxed) != word) continue;
        if (!place->Word.compare_exchange_strong(word, WordOf(self, kTaking), std::memory_order_acquire)) continue;
        Take(place, static_cast<const ucontext_t *>(machine));
        place->Word.store(WordOf(self, kTaken), std::memory_order_release);
        gAnswers.fetch_add(1, std::memory_order_release);
        FutexWake(&gAnswers, 1);
        break;
    }
    errno = savedErrno;
}

// ---- On the thread that writes -------------------------------------------------------------------------

// A real-time signal that nobody else in the process handles. Calls that it interrupts go on by themselves where the
// kernel allows that at all.
int DumpSignal() {
    int signal = gSignal.load(std::memory_order_acquire);
    if (signal != 0) return signal;
    struct sigaction action = {};
    action.sa_sigaction = OnDumpSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    sigdelset(&action.sa_mask, SIGSEGV);
    sigdelset(&action.sa_mask, SIGBUS);
    signal = -1;
    for (int candidate = SIGRTMIN + 4; candidate <= SIGRTMAX && signal == -1; ++candidate) {
        struct sigaction current;
        if (sigaction(candidate, nullptr, &current) != 0 || current.sa_handler != SIG_DFL) continue;
        if (sigaction(candidate, &action, nullptr) == 0) signal = candidate;
    }
    gSignal.store(signal, std::memory_order_release);
    return signal;
}

// The identifiers of the process's threads, as many as have room.
uint32_t ListThreads(int *tids, uint32_t room) {
    const int folder = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return 0;
    uint32_t count = 0;
    alignas(dirent64) char entries[2048];
    for (;;) {
        const long got = syscall(SYS_getdents64, folder, entries, sizeof entries);
        if (got <= 0) break;
        for (long at = 0; at < got;) {
            const dirent64 *entry = reinterpret_cast<const dirent64 *>(entries + at);
            at += entry->d_reclen;
            int tid = 0;
            for (const char *digit = entry->d_name; *digit >= '0' && *digit <= '9'; ++digit)
                tid = tid * 10 + (*digit - '0');
            if (tid != 0 && count < room) tids[count++] = tid;
        }
    }
    close(folder);
    return count;
}

// A table with that many places. An older one that is too small stays where it is.
Table *TableFor(uint32_t count) {
    Table *table = gTable.load(std::memory_order_relaxed);
    if (table != nullptr && table->Count >= count) return table;
    uint32_t places = kFirstPlaces;
    while (places < count) places *= 2;
    char *pages = static_cast<char *>(MapDumpPages(kPageBytes + places * sizeof(Place)));
    if (pages == nullptr) return table;
    table = reinterpret_cast<Table *>(pages);
    *table = {places, reinterpret_cast<Place *>(pages + kPageBytes)};
    gTable.store(table, std::memory_order_release);
    return table;
}

bool IsSilent(int tid) {
    for (uint32_t i = 0; i < gSilentCount; ++i)
        if (gSilent[i] == tid) return true;
    return false;
}

void RemoveSilent(int tid) {
    for (uint32_t i = 0; i < gSilentCount; ++i)
        if (gSilent[i] == tid) gSilent[i] = gSilent[--gSilentCount];
}

void AddSilent(int tid) {
    if (gSilentCount == 0) gSilentSince = MonotonicNs();
    if (gSilentCount < kMaxSilent) gSilent[gSilentCount++] = tid;
}

bool Exists(int tid) {
    return syscall(SYS_tgkill, getpid(), tid, 0) == 0 || errno != ESRCH;
}

// Waits until every place that is waited for has been taken, or its thread is gone.
void AwaitAnswers(Table *table, const int *tids, const bool *waited, uint32_t count) {
    const uint64_t deadline = MonotonicNs() + kPatienceNs;
    uint64_t step = 50 * 1000;
    uint32_t first = 0;
    for (;;) {
        const uint32_t seen = gAnswers.load(std::memory_order_acquire);
        while (first < count && (!waited[first] || table->Places[first].Word.load(std::memory_order_acquire) ==
                                                       WordOf(tids[first], kTaken)))
            ++first;
        if (first == count) return;
        const uint64_t now = MonotonicNs();
        if (now >= deadline) return;
        if (!FutexWait(&gAnswers, seen, now + step)) {
            if (!Exists(tids[first])) {
                ++first;
                continue;
            }
            if (step < 2000000) step *= 2;
        }
    }
}

// Where the kernel says that the thread is blocked: "number six-arguments stack-pointer instruction". Nothing for
// one that runs.
void AskKernel(int tid, Place *place) {
    place->StackBytes = 0;
    memset(&place->Registers, 0, sizeof place->Registers);
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/syscall", tid);
    char text[256];
    const size_t length = ReadWholeFile(path, text, sizeof text - 1);
    text[length] = 0;
    const char *instruction = strrchr(text, ' ');
    if (instruction == nullptr || text[0] == 'r') return;  // "running"
    const char *pointer = instruction;
    while (pointer > text && pointer[-1] != ' ') --pointer;
    const uint64_t sp = strtoull(pointer, nullptr, 16);
    const uint64_t pc = strtoull(instruction, nullptr, 16);
    if (sp == 0 || pc == 0) return;
    place->Registers.Flags = minidump::kContextControl;
    place->Registers.Rsp = sp;
    place->Registers.Rip = pc;
    CopyStack(place, sp, sp + kUnknownStack);
}

void Show(int tid, const Place *place, void (*visit)(const ThreadShot &, void *), void *arg) {
    ThreadShot shot;
    shot.Tid = tid;
    shot.StackBytes = place->StackBytes;
    shot.StackStart = place->StackStart;
    shot.Stack = place->Stack;
    shot.Context = place->Registers;
    visit(shot, arg);
}

// Takes the question back; false when the place is being filled right now and does not get ready.
bool Withdraw(Place *place, int tid) {
    uint64_t word = WordOf(tid, kAsked);
    if (place->Word.compare_exchange_strong(word, kFree, std::memory_order_acq_rel)) return true;
    const uint64_t deadline = MonotonicNs() + kTakingPatienceNs;
    while (place->Word.load(std::memory_order_acquire) == WordOf(tid, kTaking)) {
        if (MonotonicNs() > deadline) return false;
        YieldProcessor();
    }
    return true;
}

[[gnu::noinline]] void TakeSelf(Place *place) {
    ucontext_t machine;
    getcontext(&machine);
    Take(place, &machine);
}

}  // namespace

void VisitThreads(bool exclusive, void (*visit)(const ThreadShot &shot, void *arg), void *arg) {
    // The writer's own place, and the list of threads: in a mapping, since the stack may be a fiber's.
    struct Scratch {
        Place Own;
        int Tids[kMaxPlaces];
        bool Waited[kMaxPlaces];
    };
    static constinit std::atomic<Scratch *> kept{nullptr};
    Scratch *scratch = exclusive ? kept.load(std::memory_order_relaxed) : nullptr;
    if (scratch == nullptr) scratch = static_cast<Scratch *>(MapDumpPages(sizeof(Scratch)));
    if (scratch == nullptr) return;
    if (exclusive) kept.store(scratch, std::memory_order_relaxed);
    const int self = static_cast<int>(syscall(SYS_gettid));
    TakeSelf(&scratch->Own);
    Show(self, &scratch->Own, visit, arg);

    int *tids = scratch->Tids;
    uint32_t count = ListThreads(tids, kMaxPlaces);
    for (uint32_t i = 0; i < count; ++i)
        if (tids[i] == self) tids[i--] = tids[--count];
    Table *table = exclusive ? TableFor(count) : nullptr;
    const int signal = exclusive ? DumpSignal() : -1;
    const uint32_t asked = table == nullptr || signal == -1 ? 0 : count < table->Count ? count : table->Count;
    if (asked != 0 && gSilentCount != 0 && MonotonicNs() - gSilentSince > kForgetSilentNs) gSilentCount = 0;
    for (uint32_t i = 0; i < asked; ++i) {
        table->Places[i].Word.store(WordOf(tids[i], kAsked), std::memory_order_release);
        scratch->Waited[i] = !IsSilent(tids[i]) && syscall(SYS_tgkill, getpid(), tids[i], signal) == 0;
    }
    AwaitAnswers(table, tids, scratch->Waited, asked);
    for (uint32_t i = 0; i < asked; ++i) {
        Place *place = &table->Places[i];
        if (!Withdraw(place, tids[i])) continue;
        if (place->Word.load(std::memory_order_acquire) == WordOf(tids[i], kTaken)) {
            RemoveSilent(tids[i]);
        } else if (Exists(tids[i])) {
            if (scratch->Waited[i]) AddSilent(tids[i]);
            AskKernel(tids[i], place);
        } else {
            RemoveSilent(tids[i]);
            continue;
        }
        Show(tids[i], place, visit, arg);
    }
    for (uint32_t i = asked; i < count; ++i) {
        AskKernel(tids[i], &scratch->Own);
        Show(tids[i], &scratch->Own, visit, arg);
    }
}

}  // namespace os
