// tests/platform/overflow_test.cpp - the report of a stack overflow, in child processes.
#include <signal.h>

#include <regex>

#include "support.h"

using namespace os;

namespace {

// Touches its frame before it goes deeper, as any function does; the result is used after the call, so that no
// compiler makes a loop of it.
__attribute__((noinline)) int Recurse(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return depth == 0 ? 0 : Recurse(depth + 1) + frame[0];
}

void Overflow(void *) {
    printf("%d", Recurse(1));
}

void RunFiber(void (*start)(void *), size_t stack) {
    ConvertThreadToFiber(const_cast<char *>("main"));
    SetFiberTagFunction([](const void *data) { return static_cast<const char *>(data); });
    SwitchToFiber(CurrentThreadBlock(), CreateFiber(stack, start, const_cast<char *>("SHAD")));
}

volatile uintptr_t gWild = 8;  // an address that nothing is mapped at

void WriteWild(void *) {
    *reinterpret_cast<volatile int *>(gWild) = 1;
}

}  // namespace

// The text is exactly one line; the address at its end is any.
TEST(Overflow, IsReportedWithTheTagOnceAndKillsBySignal) {
    for (const char *guard : {"", "mprotect"}) {
        const ChildResult result = RunInChild([guard] {
            setenv("ZVXKVT_GUARD", guard, 1);
            RunFiber(Overflow, 131072);
        });
        EXPECT_EQ(result.Signal, SIGSEGV);
        const char *size = kSanitized ? "524288" : "131072";
        const std::regex line("zvxkvt: stack overflow in user thread SHAD \\(stack of " + std::string(size) +
                              " bytes at 0x[0-9a-f]+\\)\n");
        EXPECT_TRUE(std::regex_match(result.Output, line)) << result.Output;
    }
    // A kernel thread that is no fiber is reported by its identifier.
    const ChildResult plain = RunInChild([] { Together([] { ArmStackOverflowReport(), Overflow(nullptr); }); });
    EXPECT_EQ(plain.Signal, SIGSEGV);
    EXPECT_EQ(plain.Output.find("zvxkvt: stack overflow in kernel thread "), 0u) << plain.Output;
}

TEST(Overflow, OtherFaultsTakeTheirOwnCourse) {
    // No handler before ours: the plain death of a wild pointer, without a word.
    const ChildResult wild = RunInChild([] { RunFiber(WriteWild, 65536); });
    EXPECT_EQ(wild.Output.find("zvxkvt"), std::string::npos) << wild.Output;
    EXPECT_TRUE(kSanitized || (wild.Signal == SIGSEGV && wild.Output.empty()));
    // A host's handler that was there first gets what is not ours.
    const ChildResult chained = RunInChild([] {
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t *info, void *) {
            _exit(info->si_addr == reinterpret_cast<void *>(gWild) ? 33 : 34);
        };
        sigaction(SIGSEGV, &action, nullptr);
        RunFiber(WriteWild, 65536);
    });
    EXPECT_EQ(chained.ExitCode, 33) << chained.Output;
}
