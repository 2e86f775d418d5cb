// tests/unit/sched_switch_test.cpp - which fiber runs next, and when; time-outs, sleeps and polled waits under a clock
// that the test moves.
#include <random>

#include "child.h"
#include "kernel/critsec.h"
#include "postwait/postwait.h"
#include "sched/internal.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct SwitchTest : SchedTest {
    // A user thread that notes its name whenever it is woken, and parks again.
    Fiber *Parked(const std::string &name, uint32_t role = ROLE_NONE, uint32_t schedClass = CLASS_NORMAL) {
        Fiber *F = NewFiber(S, [name](Fiber *self) {
            for (;; Note(name)) ParkForEver(self);
        });
        F->Role = role;
        F->SchedClass = schedClass;
        RunUntilIdle(S);
        return F;
    }
    void Wake(Fiber *F, uint32_t queue) {
        UnlinkTimedWaiter(S, F);
        MakeRunnable(S, F, queue);
    }
    Fiber *Sleeper(const std::string &name, DWORD ms, uint32_t role = ROLE_NONE) {
        return Run([name, ms](Fiber *) { Sleep(ms), Note(name); }, role);
    }
};

TEST_F(SwitchTest, QueuesAreServedInTheirOrder) {
    Fiber *high = Parked("high", ROLE_LGWR, CLASS_HIGH), *dbwr = Parked("dbwr", ROLE_DBWR, CLASS_BACKGROUND);
    Fiber *post = Parked("post"), *file = Parked("file"), *socket = Parked("socket"), *ready = Parked("ready");
    Fiber *other = Parked("other", ROLE_OTHER, CLASS_BACKGROUND);
    auto wakeAll = [&] {
        Wake(other, gPRQ);  // a background class goes to ORQ wherever it was to be put
        Wake(dbwr, gPRQ);
        Wake(socket, gSRQ);
        Wake(file, gFRQ);
        Wake(post, gPRQ);
        Wake(high, gFRQ);
        UnlinkTimedWaiter(S, ready);
        ready->State = FSTATE_READY;
        AppendReady(S, ready);
        RunUntilIdle(S);
        return TakeNotes();
    };
    // Database writers are served ahead of every queue while nothing delays them.
    EXPECT_EQ(wakeAll(), (Names{"ready", "dbwr", "high", "post", "file", "socket", "other"}));
    gLPRQMaxDelay = 100;
    EXPECT_EQ(wakeAll(), (Names{"ready", "high", "post", "file", "socket", "dbwr", "other"}));
    gLPRQMaxDelay = 3;  // so many passes go first
    EXPECT_EQ(wakeAll(), (Names{"ready", "high", "post", "file", "dbwr", "socket", "other"}));
    gLPRQMaxDelay = 0;
    SetOption(su_PFOneRQ);  // of these two the more recent head
    post->LastRunStamp = 0;
    EXPECT_EQ(wakeAll(), (Names{"ready", "dbwr", "high", "file", "post", "socket", "other"}));
    ClearOption(su_PFOneRQ);
    std::swap(gPRQ, gFRQ);  // "RunQOrder" 1
    EXPECT_EQ(wakeAll(), (Names{"ready", "dbwr", "high", "file", "post", "socket", "other"}));
    EXPECT_FALSE(AttachFiber(S, ready)) << "it is not on its way from another scheduler";
}

// However many were placed together: the order is that of placing each as it comes, in front of the first with an equal
// or smaller stamp, or behind all when it is of a low class.
TEST_F(SwitchTest, WokenAndAppendedInTheOrderOfTheirComing) {
    std::mt19937 random(1);
    std::vector<Fiber *> fibers;
    for (int i = 0; i < 80; i++) fibers.push_back(Parked(std::to_string(i)));
    for (int round = 0; round < 200; round++) {
        const uint32_t queue = round % 4 == 0 ? gSRQ : gORQ;
        std::vector<std::pair<uint32_t, std::string>> expected;
        for (size_t i = 0; i < fibers.size(); i++) {
            const auto any = static_cast<uint32_t>(random());
            const uint32_t stamp = any % (round % 2 == 0 ? 1000 : 20) + (expected.size() < 20 ? 500 : 0);
            const bool low = queue == gORQ && random() % 3 == 0;
            fibers[i]->LastRunStamp = stamp;
            fibers[i]->SchedClass = low ? CLASS_BACKGROUND : CLASS_NORMAL;
            Wake(fibers[i], queue);
            CheckScheduler(S);
            auto place = expected.begin();
            while (place != expected.end() && (low || place->first > stamp)) ++place;
            expected.insert(place, {stamp, std::to_string(i)});
        }
        Names names;
        for (const auto &[stamp, name] : expected) names.push_back(name);
        RunUntilIdle(S);
        ASSERT_EQ(TakeNotes(), names) << round;
    }
}

// Under one that always wakes itself into a higher queue, without an idle moment.
TEST_F(SwitchTest, FullSweepsServeALowQueueAndFreeWhatHasExited) {
    bool stop = false;
    uint32_t passes = 0;
    NewFiber(S, [&](Fiber *self) {
        self->SchedClass = CLASS_HIGH;
        while (!stop && ++passes < 50000) {
            self->State = FSTATE_READY;
            MakeRunnable(S, self, gHPRQ);
            self->State = FSTATE_RUNNING;
            SchedYield(self, Yield_POSTER);
        }
    });
    Fiber *brief = NewFiber(S, [](Fiber *) {});
    brief->Generation = 0xFFFFFFFF;  // wraps past 0, which stands for no thread
    Run([&](Fiber *self) {
        // Started, given way once, then run: two sweeps at most.
        EXPECT_LT(passes, 2100u);
        for (int i = 0; i < 3 && Generation(brief) != 1; ++i) SchedYield(self, Yield_USER);
        EXPECT_EQ(Generation(brief), 1u);
        EXPECT_EQ(brief->OsFiber, nullptr);
        stop = true;
    });
    EXPECT_TRUE(stop);
}

// ---- Time --------------------------------------------------------------------------------------------

// Of those that are over at one check the order of entry counts, not the time. The tick count wraps in the middle.
TEST_F(SwitchTest, ExpiryInOrderOfEntryAtOneCheckAndByTimeAcrossChecks) {
    script::gScript.TickMs.store(0xFFFFFFF0ull);
    for (auto [name, ms] : {std::pair{"a30", 30u}, {"b10", 10}, {"c25", 25}, {"d10", 10}}) Sleeper(name, ms);
    const std::pair<uint32_t, Names> steps[] = {{9, {}}, {2, {"b10", "d10"}}, {13, {}}, {50, {"a30", "c25"}}};
    for (const auto &[ms, notes] : steps) {
        Advance(ms);
        EXPECT_EQ(TakeNotes(), notes);
    }
    // Checks keep their spacing.
    gTimerInterval = 20;
    Advance(20);
    Sleeper("again", 5);
    Advance(10);
    EXPECT_EQ(TakeNotes(), Names{}) << "the last check is 10 ms ago";
    Advance(10);
    EXPECT_EQ(TakeNotes(), Names{"again"});
}

// A wait that ends early takes its fiber out of the heap wherever it stands; the others are unaffected.
TEST_F(SwitchTest, HeapHoldsUnderRandomEntriesAndRemovals) {
    std::mt19937 random(12345);
    std::vector<Fiber *> waiting;
    uint32_t late = 0, ended = 0;
    for (int i = 0; i < 300; ++i) {
        const auto ms = static_cast<DWORD>(1 + random() % 500);
        waiting.push_back(Run([&, ms, due = os::GetTickCount64() + ms](Fiber *self) {
            self->WaitTimeoutMs = ms;
            SchedYield(self, Yield_TIMER_WAIT);
            ended++, late += os::GetTickCount64() > due + gTimerInterval;
        }));
        Fiber *&victim = waiting[random() % waiting.size()];
        if (i % 3 == 0 && victim != nullptr && victim->State == FSTATE_TIMED_WAIT)
            Wake(std::exchange(victim, nullptr), gORQ);
        Advance(static_cast<uint32_t>(random() % 3));
    }
    Pass(1000);
    EXPECT_TRUE(ended == 300 && late == 0 && S->TimeoutHeap == nullptr) << ended << " ended, " << late << " late";
}

// Short sleeps of server threads are latch yields; of others the nearest time-out bounds the wait in the port.
TEST_F(SwitchTest, SleepsAndTheWaitInThePort) {
    const DWORD &waited = script::gScript.LastPortWaitMs;
    gPortWaitMs = 100;
    Sleeper("shad", 10, ROLE_SHAD);
    Sleeper("lgwr", 0, ROLE_LGWR);
    EXPECT_EQ(TakeNotes(), (Names{"shad", "lgwr"})) << "no time has passed";
    EXPECT_EQ(waited, 100u);
    Sleeper("long", 11, ROLE_SHAD);
    EXPECT_EQ(waited, 11u);
    Sleeper("plain", 10, ROLE_OTHER);
    EXPECT_TRUE(waited == 10 && S->TimedWaiters.Count == 2);
    Advance(9);
    EXPECT_EQ(waited, 1u);
    gPortWaitMs = 1;
    Advance(100);
    EXPECT_EQ(waited, 1u);
}

// ---- Ends of the process, and the quantum ------------------------------------------------------------

CRITICAL_SECTION gSection;

void EnterAndSleep(Fiber *) {
    InitializeCriticalSection(&gSection);
    EnterCriticalSection(&gSection);
    Sleep(INFINITE);
}

TEST(SchedFatal, EachEndHasItsText) {
    const struct {
        const char *Text;                  // up to its first address
        void (*Body)(Fiber *);             // of a user thread
        void (*First)(Fiber *) = nullptr;  // of another one that runs before
    } cases[] = {
        {"EnterCriticalSection: unwrapped critical section\n", [](Fiber *) { EnterCriticalSection(&gSection); }},
        {"DeleteCriticalSection: Owner not null: owner[", [](Fiber *) { DeleteCriticalSection(&gSection); },
         EnterAndSleep},
        {"Couldn't free critical section: current[", [](Fiber *) { LeaveCriticalSection(&gSection); }, EnterAndSleep},
        {"PostEvent handle is not null\n",
         [](Fiber *) {
             for (int i = 0; i < 2; ++i) IdentifyUserThread("SHAD", os::CreateEventA(nullptr, FALSE, FALSE, nullptr));
         }},
        {"We need more dynamic TLS slots 64\n",
         [](Fiber *F) {
             gTlsHighWater = 63;
             CaptureTls(F);  // the last one that is carried
             while (TlsAlloc() < 64) continue;
             CaptureTls(F);
         }},
        {"ZReadFile: NOT WRAPPED SOCKET\n",
         [](Fiber *F) {
             ReadFile(HandleValue(NewEntry(SchedOf(F), PHAND_HTYPE_socket)), nullptr, 1, nullptr, nullptr);
         }},
    };
    for (const auto &c : cases) {
        const std::string expected = std::string("ZORVEX KILLED: ") + c.Text;
        const std::string output = Kill([&] {
                                       InitLibrary();
                                       Scheduler *S = NewScheduler();
                                       for (auto body : {c.First, c.Body}) {
                                           if (body != nullptr) NewFiber(S, body);
                                           RunUntilIdle(S);
                                       }
                                   }).Output;
        EXPECT_TRUE(expected.back() == '\n' ? output == expected + "|" : output.rfind(expected, 0) == 0) << output;
    }
}

TEST_F(SchedTest, TheQuantumFollowsTheSlowestScheduler) {
    Scheduler *other = NewScheduler();
    const struct {
        uint32_t Tick, Start, OtherStart;
        bool Expired;
    } cases[] = {{10, 7, 8, false}, {11, 7, 8, true}, {11, 12 /* ahead: from 0 */, 8, true}, {11, 11, 11, false}};
    for (const auto &c : cases) {
        gQuantumTick = c.Tick;
        S->QuantumStartTick = c.Start;
        other->QuantumStartTick = c.OtherStart;
        EXPECT_EQ(UpdateQuantumIndicator(true), c.Expired);
    }
    other->QuantumStartTick = 1;
    other->Idling = 1;  // waits in its port, and keeps nobody from running
    EXPECT_FALSE(UpdateQuantumIndicator(true));
    // The check yields only beyond the quantum, and starts a new one.
    Run([&](Fiber *) {
        for (const uint32_t ticks : {3u, 4u}) {
            gQuantumTick = S->QuantumStartTick.load() + ticks;
            UserThreadQuantumExpiredCheck();
            Note(S->QuantumStartTick.load() == gQuantumTick.load() ? "new" : "same");
        }
    });
    EXPECT_EQ(TakeNotes(), (Names{"same", "new"}));
}

}  // namespace
}  // namespace zvx::test
