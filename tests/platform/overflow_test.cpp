// tests/platform/overflow_test.cpp - the report of a stack overflow, in child processes.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "child.h"
#include "platform/base/fiber_internal.h"
#include "platform/os.h"

using namespace os;

namespace {

// Touches its frame before it goes deeper, as any function does; the result is used after the call, so that no
// compiler makes a loop of it.
__attribute__((noinline)) int Recurse(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return depth == 0 ? 0 : Recurse(depth + 1) + frame[0];
}

void OverflowFiber(void *) {
    printf("%d", Recurse(1));
}

const char *TagOf(const void *data) {
    return static_cast<const char *>(data);
}

void RunFiber(void (*start)(void *), const char *tag, size_t stack) {
    ConvertThreadToFiber(const_cast<char *>("main"));
    SetFiberTagFunction(TagOf);
    FiberContext *fiber = CreateFiber(stack, start, const_cast<char *>(tag));
    SwitchToFiber(CurrentThreadBlock(), fiber);
}

volatile uintptr_t gWild = 8;  // an address that nothing is mapped at

constexpr size_t kFactor =
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    4;
#else
    1;
#endif

// The text is exactly that line; the address at its end is any.
bool IsReport(const std::string &text, const char *who, size_t bytes) {
    const std::string before =
        std::string("zvxkvt: stack overflow in ") + who + " (stack of " + std::to_string(bytes) + " bytes at 0x";
    if (text.compare(0, before.size(), before) != 0) return false;
    const size_t after = text.find_first_not_of("0123456789abcdef", before.size());
    return after > before.size() && text.substr(after) == ")\n";
}

}  // namespace

TEST(Overflow, IsReportedWithTheTagOnceAndKillsBySignal) {
    const ChildResult tagged = RunChild([] { RunFiber(OverflowFiber, "SHAD", 131072); });
    EXPECT_EQ(tagged.Signal, SIGSEGV);
    EXPECT_TRUE(IsReport(tagged.Output, "user thread SHAD", 131072 * kFactor)) << tagged.Output;

    const ChildResult untagged = RunChild([] { RunFiber(OverflowFiber, "", 16384); });
    EXPECT_EQ(untagged.Signal, SIGSEGV);
    EXPECT_TRUE(IsReport(untagged.Output, "user thread without a tag", 16384 * kFactor)) << untagged.Output;

    // The old kind of guard.
    const ChildResult old = RunChild([] {
        setenv("ZVXKVT_GUARD", "mprotect", 1);
        RunFiber(OverflowFiber, "DBW0", 1 << 20);
    });
    EXPECT_EQ(old.Signal, SIGSEGV);
    EXPECT_TRUE(IsReport(old.Output, "user thread DBW0", (1 << 20) * kFactor)) << old.Output;
}

// A frame whose lowest bytes are touched first steps over part of the guard.
TEST(Overflow, AFrameOfThreePagesStillMeetsTheGuard) {
    const ChildResult result = RunChild([] {
        RunFiber(
            [](void *) {
                const char *low, *high;
                FiberStackBounds(CurrentThreadBlock()->Current, &low, &high);
                *const_cast<volatile char *>(low - 3 * 4096) = 1;
            },
            "PMON", 65536);
    });
    EXPECT_EQ(result.Signal, SIGSEGV);
    EXPECT_NE(result.Output.find("in user thread PMON"), std::string::npos) << result.Output;
}

TEST(Overflow, AKernelThreadThatIsNoFiberIsReportedByItsIdentifier) {
    const ChildResult result = RunChild([] {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 512 * 1024);
        pthread_t thread;
        pthread_create(
            &thread, &attributes,
            [](void *) -> void * {
                ArmStackOverflowReport();
                printf("%d", Recurse(1));
                return nullptr;
            },
            nullptr);
        pthread_join(thread, nullptr);
    });
    EXPECT_EQ(result.Signal, SIGSEGV);
    EXPECT_EQ(result.Output.find("zvxkvt: stack overflow in kernel thread "), 0u) << result.Output;
    EXPECT_EQ(std::count(result.Output.begin(), result.Output.end(), '\n'), 1) << result.Output;
}

TEST(Overflow, OtherFaultsTakeTheirOwnCourse) {
    // No handler before ours: the plain death of a wild pointer, without a word.
    const ChildResult wild =
        RunChild([] { RunFiber([](void *) { *reinterpret_cast<volatile int *>(gWild) = 1; }, "SHAD", 65536); });
    EXPECT_EQ(wild.Output.find("zvxkvt"), std::string::npos) << wild.Output;
#if !defined(ZVX_ASAN) && !defined(ZVX_TSAN)
    EXPECT_EQ(wild.Signal, SIGSEGV);
    EXPECT_EQ(wild.Output, "");
#endif

    // A signal that somebody sent is no fault that happens again by itself.
    const ChildResult sent = RunChild([] {
        ConvertThreadToFiber(nullptr);
        signal(SIGSEGV, SIG_DFL);
        ArmStackOverflowReport();
        raise(SIGSEGV);
        puts("survived");
        fflush(stdout);
    });
    EXPECT_EQ(sent.Signal, SIGSEGV);
    EXPECT_EQ(sent.Output, "");

    // A host's handler that was there first gets what is not ours.
    const ChildResult chained = RunChild([] {
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t *info, void *) {
            _exit(info->si_addr == reinterpret_cast<void *>(gWild) ? 33 : 34);
        };
        sigaction(SIGSEGV, &action, nullptr);
        RunFiber([](void *) { *reinterpret_cast<volatile int *>(gWild) = 1; }, "SHAD", 65536);
    });
    EXPECT_EQ(chained.ExitCode, 33) << chained.Output;
}
