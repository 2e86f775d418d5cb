// tests/unit/sched_fatal_test.cpp - the scheduler's own ends of the process: the exact text, exit code 1.
#include <gtest/gtest.h>

#include "alloc/alloc.h"
#include "child.h"
#include "kernel/critsec.h"
#include "postwait/postwait.h"
#include "sched/startup.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

void ExpectFatal(const std::string &text, const std::function<void(Scheduler *)> &body) {
    EXPECT_EQ(FatalTextOf([&] {
                  InitLibrary();
                  body(NewScheduler());
              }),
              text);
}

// As a user thread of S.
auto AsFiber(std::function<void(Fiber *)> body) {
    return [body](Scheduler *S) {
        NewFiber(S, body);
        RunUntilIdle(S);
    };
}

TEST(SchedFatal, SectionsAndIdentities) {
    static CRITICAL_SECTION section;
    static Fiber *owner;
    section = {};
    const auto ownedBySleeper = [](std::function<void(Fiber *)> body) {
        return [body](Scheduler *S) {
            owner = NewFiber(S, [](Fiber *) {
                InitializeCriticalSection(&section);
                EnterCriticalSection(&section);
                Sleep(INFINITE);
            });
            RunUntilIdle(S);
            NewFiber(S, body);
            RunUntilIdle(S);
        };
    };
    ExpectFatal("EnterCriticalSection: unwrapped critical section\n",
                AsFiber([](Fiber *) { EnterCriticalSection(&section); }));
    ExpectFatal("SetCriticalSectionSpinCount is not supported\n", AsFiber([](Fiber *) {
                    InitializeCriticalSection(&section);
                    SetCriticalSectionSpinCount(&section, 1);
                }));
    ExpectFatal("DeleteCriticalSection: Waiters list not null: num_waiters[2]\n", AsFiber([](Fiber *F) {
                    InitializeCriticalSection(&section);
                    EnterCriticalSection(&section);
                    for (int i = 0; i < 2; ++i) NewFiber(SchedOf(F), [](Fiber *) { EnterCriticalSection(&section); });
                    Sleep(0), Sleep(0), Sleep(0);
                    DeleteCriticalSection(&section);
                }));
    ExpectFatal("PostEvent handle is not null\n", AsFiber([](Fiber *) {
                    IdentifyUserThread("SHAD", os::CreateEventA(nullptr, FALSE, FALSE, nullptr));
                    IdentifyUserThread("SHAD", os::CreateEventA(nullptr, FALSE, FALSE, nullptr));
                }));
    // The two that name the threads.
    const auto killed = Kill([&] {
        InitLibrary();
        ownedBySleeper([](Fiber *F) {
            const auto word = [](const void *at) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(at)); };
            printf("%u %u ", word(F), word(owner));
            LeaveCriticalSection(&section);
        })(NewScheduler());
    });
    unsigned self = 0, other = 0, current = 0, holder = 0;
    ASSERT_EQ(
        sscanf(killed.Output.c_str(), "%u %u ZORVEX KILLED: Couldn't free critical section: current[%u] owner[%u]\n|",
               &self, &other, &current, &holder),
        4)
        << killed.Output;
    EXPECT_TRUE(self == current && other == holder && self != other) << killed.Output;
    EXPECT_EQ(FatalTextOf([&] {
                  InitLibrary();
                  ownedBySleeper([](Fiber *) { DeleteCriticalSection(&section); })(NewScheduler());
              }).find("DeleteCriticalSection: Owner not null: owner["),
              0u);
}

TEST(SchedFatal, Yields) {
    ExpectFatal("Recursive SchedYield detected current->State[6]", AsFiber([](Fiber *F) {
                    F->State = FSTATE_TIMED_WAIT;
                    SchedYield(F, Yield_USER);
                }));
    ExpectFatal("Invalid yield reason 9\n", AsFiber([](Fiber *F) { SchedYield(F, 9); }));
}

TEST(SchedFatal, CleanupTable) {
    auto nothing = [](Fiber *, Scheduler *, uintptr_t *, uint32_t) {};
    ExpectFatal("TermCleanupFuncSet: limit hit 2", AsFiber([&](Fiber *F) {
                    for (int i = 0; i < 3; ++i) TermCleanupFuncSet(F, nothing);
                }));
    ExpectFatal("TermCleanupFuncRemove: limit hit 0", AsFiber([&](Fiber *F) { TermCleanupFuncRemove(F, nothing); }));
}

TEST(SchedFatal, SlotsBeyondWhatFollowsAThread) {
    ExpectFatal("We need more dynamic TLS slots 64\n", AsFiber([](Fiber *F) {
                    gTlsHighWater = 63;
                    CaptureTls(F);  // the last one that is carried
                    while (TlsAlloc() < 64) {
                    }
                    CaptureTls(F);
                }));
    ExpectFatal("The static TLS HEAP is NULL\n", AsFiber([](Fiber *F) {
                    os::CurrentThreadBlock()->StaticTls = nullptr;
                    CaptureTls(F);
                }));
}

TEST(SchedFatal, APacketThatIsNobodys) {
    const std::string text = FatalTextOf([] {
        InitLibrary();
        Scheduler *S = NewScheduler();
        static FIBEROVERLAPPED stray;
        stray.Magic = 7;
        os::PostQueuedCompletionStatus(S->Port, 0, 0x10, &stray.Ov);
        RunUntilIdle(S);
    });
    EXPECT_EQ(text.find("ProcessIOCPMessage: Invalid Overlapped[0x"), 0u) << text;
    EXPECT_NE(text.find("] 7 != 2712847316\n"), std::string::npos) << text;
}

TEST(SchedFatal, BindingToNoScheduler) {
    ExpectFatal("Unknown affinity for null sched\n", [](Scheduler *) {
        SetSchedThreadAffinityAndPriority(os::GetCurrentThread(), nullptr, true, 1, 1, false);
    });
}

TEST(SchedPlacement, ProcessorsAreDealtInTurn) {
    InitLibrary();
    gProcessAffinityMask = 0b1010;
    gNextBitMask = 1;
    EXPECT_EQ(NextSchedulerMask(), 0b0010u);
    EXPECT_EQ(NextSchedulerMask(), 0b1000u);
    EXPECT_EQ(NextSchedulerMask(), 0b0010u);
    for (uint32_t &mask : gNodeMasks) mask = 0;
    gNodeMasks[3] = 0b1000;
    EXPECT_EQ(NodeOfMask(0b1000), 3);
    EXPECT_EQ(NodeOfMask(0b0100), 0);
}

TEST(SchedPlacement, AboveNormalIsConvertedAsTheSettingsSay) {
    InitLibrary();
    Scheduler *S = NewScheduler();
    SetOption(su_SetThreadPriority);
    auto given = [&](uint32_t set) {
        ClearOption(su_SetThreadPriorityConvertANtoHIGHEST | su_SetThreadPriorityConvertANtoTC);
        SetOption(set);
        SetSchedThreadAffinityAndPriority(os::GetCurrentThread(), S, false, 1, 1, false);
        return S->BasePriority;
    };
    EXPECT_EQ(given(0), 1);
    EXPECT_EQ(given(su_SetThreadPriorityConvertANtoTC), 15);
    EXPECT_EQ(given(su_SetThreadPriorityConvertANtoTC | su_SetThreadPriorityConvertANtoHIGHEST), 2);
    ClearOption(su_SetThreadPriority);
    S->BasePriority = 0;
    EXPECT_EQ(given(0), 0) << "without the setting a thread keeps its priority";
}

TEST(Quantum, TheIndicatorFollowsTheSlowestScheduler) {
    InitLibrary();
    Scheduler *S = NewScheduler();
    Scheduler *other = NewScheduler();
    static uint32_t indicator = 7;
    gQuantumIndicator = &indicator;
    gQuantumTick = 10;
    S->QuantumStartTick = 7;
    other->QuantumStartTick = 8;
    EXPECT_FALSE(UpdateQuantumIndicator(true)) << "three ticks are within the quantum";
    EXPECT_EQ(indicator, 0u);
    gQuantumTick = 11;
    EXPECT_TRUE(UpdateQuantumIndicator(true));
    EXPECT_EQ(indicator, 1u);
    S->QuantumStartTick = 12;  // ahead of the clock: counts from 0
    EXPECT_TRUE(UpdateQuantumIndicator(true));
    S->QuantumStartTick = 11;
    other->QuantumStartTick = 11;
    EXPECT_FALSE(UpdateQuantumIndicator(true));

    // The check yields only beyond the quantum, and starts a new one.
    other->QuantumStartTick = 11;
    NewFiber(S, [&](Fiber *) {
        uint32_t passes = S->SwitchCount.load();
        gQuantumTick = S->QuantumStartTick.load() + 3;
        UserThreadQuantumExpiredCheck();
        EXPECT_EQ(S->SwitchCount.load(), passes);
        gQuantumTick = S->QuantumStartTick.load() + 4;
        UserThreadQuantumExpiredCheck();
        EXPECT_GT(S->SwitchCount.load(), passes);
        EXPECT_EQ(S->QuantumStartTick.load(), gQuantumTick.load());
        Note("checked");
    });
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes().size(), 1u);
    uint32_t passes = S->SwitchCount.load();
    UserThreadQuantumExpiredCheck();  // not a user thread
    EXPECT_EQ(S->SwitchCount.load(), passes);
}

}  // namespace
}  // namespace zvx::test
