// platform/base/overflow.cpp - the report of a stack overflow.
//
// A handler for SIGSEGV, SIGBUS and SIGFPE on an alternate stack, one per kernel thread. When the faulting address lies
// in the guard below a stack that we know, it writes one line to standard error and lets the signal take its default
// course; a fault in a guarded call ends that call; every other one goes on to whoever handled it before. The handler
// runs in the middle of anything, so it reads memory and calls write and sigaction, nothing else.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/base/fiber_internal.h"
#include "platform/base/guarded.h"
#include "platform/base/thread_block.h"

namespace os {

namespace {

using TagFunction = const char *(*)(const void *);

// Room for the frame of the widest vector registers and for the handlers of others that run after ours.
constexpr size_t kSignalStackBytes = 64 * 1024;
// The kernel leaves at least this much unmapped below the stack of the first thread, which has no guard of ours.
constexpr size_t kFirstThreadGuard = 64 * 1024;

std::atomic<TagFunction> gTagOf{nullptr};
pthread_once_t gInstallOnce = PTHREAD_ONCE_INIT;
struct sigaction gPreviousSegv;  // init: what was there before ours
struct sigaction gPreviousBus;   // init
struct sigaction gPreviousFpe;   // init

const struct sigaction &PreviousOf(int signal) {
    return signal == SIGSEGV ? gPreviousSegv : signal == SIGBUS ? gPreviousBus : gPreviousFpe;
}

// Text of a bounded length, put together without the C library.
struct Line {
    char Text[256];
    size_t Length = 0;

    void Add(const char *text, size_t most) {
        for (size_t i = 0; i < most && text[i] != 0 && Length < sizeof Text; ++i) {
            const bool printable = text[i] == '\n' || (text[i] >= ' ' && text[i] <= '~');
            Text[Length++] = printable ? text[i] : '?';
        }
    }
    void AddNumber(uint64_t value, unsigned base) {
        char digits[24];
        size_t count = 0;
        do {
            digits[count++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value != 0);
        while (count > 0) Add(&digits[--count], 1);
    }
};

struct Victim {
    const void *Data;  // fiber data, or kNoFiberData for a thread that is no fiber
    const char *Low;
    const char *High;
};

// Whose guard the address lies in.
bool FindVictim(const char *address, Victim *victim) {
    const ThreadBlock *block = PeekThreadBlock();
    const FiberContext *fiber = block->Current;
    if (fiber == nullptr || address < fiber->StackLow - fiber->GuardBytes || address >= fiber->StackLow) {
        // Half-way through a switch the block already names the next fiber.
        fiber = ContextOfGuard(address);
    }
    if (fiber != nullptr) {
        *victim = {fiber->Data, fiber->StackLow, fiber->StackHigh};
        return true;
    }
    const ThreadLocals *locals = reinterpret_cast<const ThreadLocals *>(block);
    if (locals->StackLow != nullptr && address >= locals->StackLow - locals->GuardBytes && address < locals->StackLow) {
        *victim = {reinterpret_cast<const void *>(kNoFiberData), locals->StackLow, locals->StackHigh};
        return true;
    }
    return false;
}

void Report(const Victim &victim) {
    Line line;
    line.Add("zvxkvt: stack overflow in ", sizeof line.Text);
    if (reinterpret_cast<uintptr_t>(victim.Data) == kNoFiberData) {
        line.Add("kernel thread ", sizeof line.Text);
        line.AddNumber(PeekThreadBlock()->ThreadId, 10);
    } else {
        TagFunction tagOf = gTagOf.load(std::memory_order_acquire);
        const char *tag = tagOf != nullptr ? tagOf(victim.Data) : nullptr;
        line.Add("user thread ", sizeof line.Text);
        line.Add(tag != nullptr && tag[0] != 0 ? tag : "without a tag", 64);
    }
    line.Add(" (stack of ", sizeof line.Text);
    line.AddNumber(static_cast<uint64_t>(victim.High - victim.Low), 10);
    line.Add(" bytes at 0x", sizeof line.Text);
    line.AddNumber(reinterpret_cast<uintptr_t>(victim.Low), 16);
    line.Add(")\n", sizeof line.Text);
    [[maybe_unused]] const ssize_t put = write(STDERR_FILENO, line.Text, line.Length);
}

void TakeDefaultCourse(int signal, const siginfo_t *info) {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    // A fault happens again when we return; a signal that somebody sent does not.
    if (info->si_code <= 0) raise(signal);
}

void OnFault(int signal, siginfo_t *info, void *machine) {
    const int savedErrno = errno;
    Victim victim;
    if (info->si_code > 0 && signal != SIGFPE && FindVictim(static_cast<const char *>(info->si_addr), &victim)) {
        Report(victim);
        TakeDefaultCourse(signal, info);
        errno = savedErrno;
        return;
    }
    errno = savedErrno;
    if (info->si_code > 0) LeaveGuardedCall();
    const struct sigaction &previous = PreviousOf(signal);
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(signal, info, machine);
    } else if (previous.sa_handler == SIG_DFL || (previous.sa_handler == SIG_IGN && info->si_code > 0)) {
        TakeDefaultCourse(signal, info);
    } else if (previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
    }
}

void Install() {
    struct sigaction ours = {};
    ours.sa_sigaction = OnFault;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&ours.sa_mask);
    // What was there is read first, so that a fault on another thread meanwhile finds it in place.
    sigaction(SIGSEGV, nullptr, &gPreviousSegv);
    sigaction(SIGBUS, nullptr, &gPreviousBus);
    sigaction(SIGFPE, nullptr, &gPreviousFpe);
    sigaction(SIGSEGV, &ours, nullptr);
    sigaction(SIGBUS, &ours, nullptr);
    sigaction(SIGFPE, &ours, nullptr);
    // A file that has reached the process's limit is a write that fails, for the trace and for dumps too. A handler
    // and not SIG_IGN, which programs that the process starts would inherit.
    struct sigaction limit;
    if (sigaction(SIGXFSZ, nullptr, &limit) != 0 || limit.sa_handler != SIG_DFL) return;
    limit = {};
    limit.sa_handler = [](int) {};
    limit.sa_flags = SA_RESTART;
    sigemptyset(&limit.sa_mask);
    sigaction(SIGXFSZ, &limit, nullptr);
}

void FindOwnStack(ThreadLocals *locals) {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    void *low = nullptr;
    size_t bytes = 0;
    size_t guard = 0;
    pthread_attr_getstack(&attributes, &low, &bytes);
    pthread_attr_getguardsize(&attributes, &guard);
    pthread_attr_destroy(&attributes);
    locals->StackLow = static_cast<char *>(low);
    locals->StackHigh = locals->StackLow + bytes;
    locals->GuardBytes = getpid() == gettid() ? kFirstThreadGuard : guard;
}

}  // namespace

void SetFiberTagFunction(const char *(*tagOf)(const void *fiberData)) {
    gTagOf.store(tagOf, std::memory_order_release);
}

void ArmStackOverflowReport() {
    const int savedErrno = errno;
    ThreadLocals *locals = CurrentThreadLocals();
    pthread_once(&gInstallOnce, Install);
    if (locals->StackLow == nullptr) FindOwnStack(locals);
    stack_t current = {};
    // An alternate stack that is there already, a sanitizer's or the host's, serves as well and is freed by its owner.
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) != 0) {
        void *memory = mmap(nullptr, kSignalStackBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
        if (memory != MAP_FAILED) {
            stack_t ours = {};
            ours.ss_sp = memory;
            ours.ss_size = kSignalStackBytes;
            sigaltstack(&ours, nullptr);
            locals->SignalStack = memory;
        }
    }
    errno = savedErrno;
}

void DisarmSignalStack(ThreadLocals *locals) {
    if (locals->SignalStack == nullptr) return;
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == locals->SignalStack) {
        stack_t none = {};
        none.ss_flags = SS_DISABLE;
        sigaltstack(&none, nullptr);
    }
    munmap(locals->SignalStack, kSignalStackBytes);
    locals->SignalStack = nullptr;
}

}  // namespace os
