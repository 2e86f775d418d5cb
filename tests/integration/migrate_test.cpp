// tests/integration/migrate_test.cpp - user threads with a scheduler of their own: who gets one, how many there are,
// what becomes of one whose thread has ended. What may happen on the way is the stress test's.
#include <sys/syscall.h>
#include <unistd.h>

#include <set>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct Migration : HostTest {};

constexpr std::pair<const char *, const char *> kEnabled{"DynamicSchedulersEnabled", "1"};

long KernelThread() {
    return syscall(SYS_gettid);
}

// Moves, says where it has got to, and stays until it is let go. It works there: sleeps and waits.
struct Moved {
    std::atomic<long> At{0};
    std::atomic<bool> Go{false};
    HostThread Thread;
    explicit Moved(const char *tag)
        : Thread([this, tag]() -> DWORD {
              MigrateUserThread(tag);
              At = KernelThread();
              HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
              HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 5));
              HOST_CHECK(CloseHandle(event));
              while (!Go) Sleep(1);
              HOST_EQ(At.load(), KernelThread());  // it stays
              return 7;
          }) {
        while (At == 0) Sleep(1);
    }
    ~Moved() {
        Go = true;
        HOST_EQ(7u, Thread.Join());
    }
};

}  // namespace

TEST_P(Migration, OnlyTheWritersMoveAndOnlyWhenAsked) {
    // One static scheduler: who stays is on its kernel thread.
    const struct {
        const char *Enabled;
        std::vector<const char *> Stay, Move;
    } cases[] = {
        {"0", {"LGWR"}, {}}, {"1", {"SHAD", "LGWR1", "dbw0", ""}, {"LGWR", "DBW7"}}, {"2", {"DBW0"}, {"LGWR"}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Enabled);
        EXPECT_HOST_OK(RunHost(Options({{kEnabled.first, c.Enabled}}), [&c] {
            std::deque<Moved> moved;
            std::set<long> places{KernelThread()};
            for (const char *tag : c.Stay) HOST_EQ(KernelThread(), Moved(tag).At.load());
            for (const char *tag : c.Move) HOST_CHECK(places.insert(moved.emplace_back(tag).At).second);
        }));
    }
    // With binding and priorities: what the kernel refuses is no error, and stacks are still made there.
    EXPECT_HOST_OK(RunHost(Options({kEnabled, {"DynamicSchedulersBind", "1"}, {"SetThreadPriority", "9"}}), [] {
        std::deque<Moved> all;
        for (int i = 0; i < 3; i++) all.emplace_back("DBW1");
    }));
}

TEST_P(Migration, SixteenAtOnceThenReusedAndASeventeenthIsFatal) {
    EXPECT_HOST_OK(RunHost(Options({kEnabled}), [] {
        std::set<long> first;
        for (int round = 0; round < 3; round++) {
            std::deque<Moved> all;
            std::set<long> used;
            for (int i = 0; i < 16; i++) used.insert(all.emplace_back(i % 2 ? "LGWR" : "DBW0").At);
            HOST_EQ(16u, used.size());
            HOST_EQ(0u, used.count(KernelThread()));
            if (round == 0) first = used;
            HOST_CHECK(used == first);  // the same kernel threads serve again
            all.clear();
            Sleep(20);  // a thread gives its scheduler back a moment after its handle is signalled
        }
    }));
    const ChildResult result = RunHost(Options({kEnabled}), [] {
        std::deque<Moved> all;
        for (int i = 0; i < 17; i++) all.emplace_back("DBW0");
    });
    EXPECT_EQ(1, result.ExitCode);
    EXPECT_NE(std::string::npos, result.Output.find("Can not spawn any more dynamic schedulers MAX[16]"));
}

// With the operating system's events for posts; the library's own messages are the stress host's.
TEST_P(Migration, PostsByEventReachTheOtherSide) {
    EXPECT_HOST_OK(RunHost(Options({kEnabled, {"DynamicSchedUseNTPostWait", "1"}}), [] {
        const HANDLE there = CreateEventA(nullptr, FALSE, FALSE, nullptr),
                     back = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        constexpr int kRounds = 2000;
        IdentifyUserThread("OTHR", back);
        HostThread mover([&]() -> DWORD {
            MigrateUserThread("LGWR");
            IdentifyUserThread("LGWR", there);
            for (int i = 0; i < kRounds; i++) {
                HOST_CHECK(PostUserThread(back));
                HOST_EQ(WAIT_OBJECT_0, WaitForUserThreadPost(there, 10000));
            }
            UnidentifyUserThread(0);
            return 0;
        });
        for (int i = 0; i < kRounds; i++) {
            HOST_EQ(WAIT_OBJECT_0, WaitForUserThreadPost(back, 10000));
            HOST_CHECK(PostUserThread(there));
        }
        HOST_EQ(0u, mover.Join());
    }));
}

// The latch sleep of a writer's role keeps its processor, which may be the one that the other scheduler needs.
TEST_P(Migration, WhoWaitsForAnotherSchedulersAnswerSleeps) {
    EXPECT_HOST_OK(RunHost(Options({kEnabled}), [] {
        std::atomic<int> stage{0};
        HostThread target([&]() -> DWORD {
            while (stage != 2) Sleep(1);
            return 3;
        });
        HostThread mover([&]() -> DWORD {
            MigrateUserThread("LGWR");
            IdentifyUserThread("LGWR", CreateEventA(nullptr, FALSE, FALSE, nullptr));
            stage = 1;
            usleep(20000);  // the other scheduler is asleep by then
            const clock_t before = clock();
            HOST_EQ(0u, SuspendThread(target.Handle));
            HOST_CHECK(clock() - before < CLOCKS_PER_SEC / 10);
            HOST_EQ(1u, ResumeThread(target.Handle));
            UnidentifyUserThread(0);
            return 0;
        });
        while (stage == 0) Sleep(1);
        usleep(400000);  // in the kernel: no user thread of this scheduler runs, nor does the scheduler
        HOST_EQ(0u, mover.Join());
        stage = 2;
        HOST_EQ(3u, target.Join());
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Migration, testing::Values(1));
