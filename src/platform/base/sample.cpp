// platform/base/sample.cpp - where a kernel thread is at this moment, for a report about one that does not give way.
//
// The thread is sent a signal; its handler stores the interrupted registers, a piece of the stack above them and the
// running fiber's data, and returns. Everything else is done by the one who asks, on its own thread: following frame
// pointers, and where the code keeps none, looking for words on the stack that may be return addresses.
//
// One question at a time [gAskLock]. gState says whose the record is: kIdle and kTaken the asker's, kTaking the
// handler's. An answer that comes after the asker has given up finds kIdle and changes nothing.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "platform/base/fiber_internal.h"
#include "platform/base/futex.h"
#include "platform/base/minidump.h"

namespace os {

namespace {

constexpr size_t kStackPiece = 8192;
constexpr uint64_t kPatienceNs = 200 * 1000000ull;

enum State : uint32_t { kIdle = 0, kAsked = 1, kTaking = 2, kTaken = 3 };

struct Answer {
    uintptr_t Pc, Sp, Fp;
    void *FiberData;
    size_t StackBytes;
    char Stack[kStackPiece];
};

constinit std::atomic<uint32_t> gAskLock{0};  // one word is enough: who finds it taken goes without
constinit std::atomic<uint32_t> gState{kIdle};
constinit int gThread = 0;  // while kAsked: whose answer is wanted
constinit int gSignal = 0;  // [gAskLock]
Answer gAnswer;

void OnSampleSignal(int, siginfo_t *, void *machine) {
    const int savedErrno = errno;
    uint32_t asked = kAsked;
    if (static_cast<int>(syscall(SYS_gettid)) == std::atomic_ref<int>(gThread).load(std::memory_order_relaxed) &&
        gState.compare_exchange_strong(asked, kTaking, std::memory_order_acquire)) {
        const greg_t *registers = static_cast<const ucontext_t *>(machine)->uc_mcontext.gregs;
        gAnswer.Pc = static_cast<uintptr_t>(registers[REG_RIP]);
        gAnswer.Sp = static_cast<uintptr_t>(registers[REG_RSP]);
        gAnswer.Fp = static_cast<uintptr_t>(registers[REG_RBP]);
        const FiberContext *fiber = PeekThreadBlock()->Current;
        gAnswer.FiberData = fiber != nullptr ? fiber->Data : nullptr;
        // The piece may reach past the end of the stack: what is not there is not copied.
        gAnswer.StackBytes = ReadOwnMemory(reinterpret_cast<const void *>(gAnswer.Sp), gAnswer.Stack, kStackPiece);
        gState.store(kTaken, std::memory_order_release);
        FutexWake(&gState, 1);
    }
    errno = savedErrno;
}

// A real-time signal that nobody else handles; -1 when there is none. Calls that it interrupts go on by themselves
// where the kernel allows that.
int ClaimSignal() {
    if (gSignal != 0) return gSignal;
    struct sigaction action = {};
    action.sa_sigaction = OnSampleSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    gSignal = -1;
    for (int candidate = SIGRTMAX; candidate > SIGRTMIN + 4 && gSignal == -1; --candidate) {
        struct sigaction current;
        if (sigaction(candidate, nullptr, &current) != 0 || current.sa_handler != SIG_DFL) continue;
        if (sigaction(candidate, &action, nullptr) == 0) gSignal = candidate;
    }
    return gSignal;
}

bool Await() {
    const uint64_t deadline = MonotonicNs() + kPatienceNs;
    for (;;) {
        const uint32_t state = gState.load(std::memory_order_acquire);
        if (state == kTaken) return true;
        if (!FutexWait(&gState, state, deadline) && MonotonicNs() >= deadline) break;
    }
    // Taken back, unless the handler is at it: that is a matter of microseconds.
    uint32_t asked = kAsked;
    if (gState.compare_exchange_strong(asked, kIdle, std::memory_order_acq_rel)) return false;
    while (gState.load(std::memory_order_acquire) != kTaken) YieldProcessor();
    return true;
}

uintptr_t WordAt(size_t offset) {
    uintptr_t word;
    memcpy(&word, gAnswer.Stack + offset, sizeof word);
    return word;
}

// Whether the bytes before `address` are a call instruction, in code.
bool MayReturnTo(uintptr_t address) {
    unsigned char before[7];
    if (address < 4096 || !IsCode(reinterpret_cast<const void *>(address))) return false;
    if (ReadOwnMemory(reinterpret_cast<const void *>(address - sizeof before), before, sizeof before) != sizeof before)
        return false;
    if (before[2] == 0xE8) return true;
    for (int length : {2, 3, 4, 6, 7}) {
        const unsigned char *at = before + sizeof before - length;
        if (at[0] == 0xFF && (at[1] & 0x38) == 0x10) return true;
        if (length > 2 && (at[0] & 0xF0) == 0x40 && at[1] == 0xFF && (at[2] & 0x38) == 0x10) return true;
    }
    return false;
}

// At a function's first instructions and at its last one the frame pointer is its caller's, so following it misses the
// caller. Where on the stack the return address lies then; kStackPiece anywhere else.
size_t BareReturnAddress() {
    unsigned char code[6];  // the byte before, and what comes next
    if (ReadOwnMemory(reinterpret_cast<const void *>(gAnswer.Pc - 1), code, sizeof code) != sizeof code)
        return kStackPiece;
    static const unsigned char kMark[] = {0xF3, 0x0F, 0x1E, 0xFA};  // endbr64
    static const unsigned char kOwnFrame[] = {0x48, 0x89, 0xE5};    // mov %rsp, %rbp
    constexpr unsigned char kPush = 0x55, kRet = 0xC3;
    if (code[1] == kPush || code[1] == kRet || memcmp(code + 1, kMark, sizeof kMark) == 0) return 0;
    return code[0] == kPush && memcmp(code + 1, kOwnFrame, sizeof kOwnFrame) == 0 ? sizeof(uintptr_t) : kStackPiece;
}

void FollowFrames(ThreadSample *sample) {
    sample->Frames[0] = reinterpret_cast<void *>(gAnswer.Pc);
    sample->Count = 1;
    uintptr_t frame = gAnswer.Fp;
    size_t from = 0;
    const size_t bare = BareReturnAddress();
    if (bare + sizeof(uintptr_t) <= gAnswer.StackBytes && MayReturnTo(WordAt(bare))) {
        sample->Frames[sample->Count++] = reinterpret_cast<void *>(WordAt(bare));
        from = bare + sizeof(uintptr_t);
    }
    while (sample->Count < kSampleFrames && frame >= gAnswer.Sp + from && frame % sizeof(uintptr_t) == 0 &&
           frame + 2 * sizeof(uintptr_t) <= gAnswer.Sp + gAnswer.StackBytes) {
        const size_t offset = frame - gAnswer.Sp;
        const uintptr_t back = WordAt(offset + sizeof(uintptr_t));
        if (!MayReturnTo(back)) break;
        sample->Frames[sample->Count++] = reinterpret_cast<void *>(back);
        from = offset + 2 * sizeof(uintptr_t);
        frame = WordAt(offset);
    }
    // Code without frame pointers: what looks like a return address is one, or was one a moment ago.
    sample->Sure = sample->Count;
    for (size_t at = from; at + sizeof(uintptr_t) <= gAnswer.StackBytes && sample->Count < kSampleFrames;
         at += sizeof(uintptr_t)) {
        const uintptr_t word = WordAt(at);
        if (MayReturnTo(word)) sample->Frames[sample->Count++] = reinterpret_cast<void *>(word);
    }
}

}  // namespace

bool SampleThread(DWORD threadId, ThreadSample *sample) {
    if (ShouldFail("SampleThread")) return false;
    if (gAskLock.exchange(1, std::memory_order_acquire) != 0) return false;
    bool taken = false;
    const int signal = ClaimSignal();
    if (signal != -1) {
        std::atomic_ref<int>(gThread).store(static_cast<int>(threadId), std::memory_order_relaxed);
        gState.store(kAsked, std::memory_order_release);
        taken = syscall(SYS_tgkill, getpid(), threadId, signal) == 0 && Await();
        if (taken) {
            sample->FiberData = gAnswer.FiberData;
            FollowFrames(sample);
        }
        gState.store(kIdle, std::memory_order_release);
    }
    gAskLock.store(0, std::memory_order_release);
    return taken;
}

uint64_t ProcessorWaitMs(DWORD threadId) {
    // Nanoseconds on a processor, then those of waiting for one.
    char text[96];
    snprintf(text, sizeof text, "/proc/self/task/%u/schedstat", threadId);
    const int fd = open(text, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    unsigned long long waited = 0;
    text[got > 0 ? got : 0] = '\0';
    return sscanf(text, "%*u %llu", &waited) == 1 ? waited / 1000000 : 0;
}

}  // namespace os
