// tests/integration/migrate_test.cpp - user threads with a scheduler of their own: who gets one, how many there are,
// what becomes of one whose thread has ended. What may happen on the way is the stress test's.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <set>

#include "support/host_runner.h"
#include "zvxkvt/sockets.h"

using namespace hosttest;

namespace {

class Migration : public HostTest {
  protected:
    HostOptions Enabled(const char *value, std::initializer_list<std::pair<std::string, std::string>> more = {}) {
        HostOptions options = Options();
        options.Settings.emplace_back("DynamicSchedulersEnabled", value);
        for (const auto &setting : more) options.Settings.push_back(setting);
        return options;
    }
};

long KernelThread() {
    return syscall(SYS_gettid);
}

// Moves, says where it has got to, and stays until it is let go. It works there: sleeps, waits, reads.
struct Moved {
    std::atomic<long> At{0};
    std::atomic<bool> Go{false};
    HostThread Thread;
    explicit Moved(const char *tag, bool work = true)
        : Thread([this, tag, work]() -> DWORD {
              MigrateUserThread(tag);
              At = KernelThread();
              if (work) {
                  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
                  HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 5));
                  char byte = 0;
                  DWORD got = 0;
                  HANDLE file = CreateFileA("/proc/self/cmdline", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            0, nullptr);
                  HOST_CHECK(ReadFile(file, &byte, 1, &got, nullptr) && got == 1);
                  HOST_CHECK(CloseHandle(file) && CloseHandle(event));
              }
              while (!Go) Sleep(1);
              HOST_EQ(At.load(), KernelThread());  // it stays
              return 7;
          }) {
        while (At == 0) Sleep(1);
    }
    void End() {
        Go = true;
        HOST_EQ(7u, Thread.Join());
    }
};

}  // namespace

TEST_P(Migration, OnlyTheWritersMoveAndOnlyWhenAsked) {
    const auto stays = [](const char *tag) {
        const long home = KernelThread();
        Moved one(tag);
        HOST_EQ(home, one.At.load());  // one static scheduler
        one.End();
    };
    EXPECT_HOST_OK(RunHost(Options(), [&] { stays("LGWR"); }));
    EXPECT_HOST_OK(RunHost(Enabled("1"), [&] {
        for (const char *tag : {"SHAD", "LGWR1", "dbw0", ""}) stays(tag);
        Moved log("LGWR"), writer("DBW7");
        HOST_CHECK(log.At != KernelThread() && writer.At != KernelThread() && log.At != writer.At);
        log.End();
        writer.End();
    }));
    EXPECT_HOST_OK(RunHost(Enabled("2"), [&] {
        stays("DBW0");
        Moved log("LGWR");
        HOST_CHECK(log.At != KernelThread());
        log.End();
    }));
    // With binding and priorities: what the kernel refuses is no error, and stacks are still made there.
    EXPECT_HOST_OK(RunHost(Enabled("1", {{"DynamicSchedulersBind", "1"}, {"SetThreadPriority", "9"}}), [] {
        std::deque<Moved> all;
        for (int i = 0; i < 3; i++) all.emplace_back("DBW1");
        for (Moved &one : all) one.End();
    }));
}

TEST_P(Migration, SixteenAtOnceThenReusedAndASeventeenthIsFatal) {
    EXPECT_HOST_OK(RunHost(Enabled("1"), [] {
        std::set<long> first;
        for (int round = 0; round < 3; round++) {
            std::deque<Moved> all;
            std::set<long> used;
            for (int i = 0; i < 16; i++) {
                all.emplace_back(i % 2 ? "LGWR" : "DBW0");
                used.insert(all.back().At);
            }
            HOST_EQ(16u, used.size());
            HOST_EQ(0u, used.count(KernelThread()));
            if (round == 0) first = used;
            HOST_CHECK(used == first);  // the same kernel threads serve again
            for (Moved &one : all) one.End();
            Sleep(20);  // a thread gives its scheduler back a moment after its handle is signalled
        }
    }));
    const HostResult result = RunHost(Enabled("1"), [] {
        std::deque<Moved> all;
        for (int i = 0; i < 17; i++) all.emplace_back("DBW0", false);
    });
    EXPECT_NE(0, result.Exit);
    EXPECT_NE(std::string::npos, (result.Out + result.Err).find("Can not spawn any more dynamic schedulers MAX[16]"));
}

TEST_P(Migration, AnOutstandingReadIsAwaitedAndItsRoutineRunsOnTheOtherSide) {
    EXPECT_HOST_OK(RunHost(Enabled("1"), [] {
        // A listening pair of the host's own: the read ends only when the other side has written.
        SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        HOST_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address));
        HOST_EQ(0, listen(listener, 1));
        int length = sizeof address;
        HOST_EQ(0, getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length));
        std::atomic<bool> moving{false};
        std::atomic<long> at{0};
        HostThread mover([&]() -> DWORD {
            SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
            HOST_EQ(0, connect(s, reinterpret_cast<sockaddr *>(&address), sizeof address));
            static long ran = 0;
            static char buffer[8];
            WSABUF part{sizeof buffer, buffer};
            static WSAOVERLAPPED ov;
            DWORD flags = 0, got = 0;
            const int result = WSARecv(s, &part, 1, &got, &flags, &ov,
                                       [](DWORD, DWORD, WSAOVERLAPPED *, DWORD) { ran = KernelThread(); });
            HOST_CHECK(result == 0 || WSAGetLastError() == WSA_IO_PENDING);
            moving = true;
            MigrateUserThread("LGWR");
            at = KernelThread();
            HOST_EQ(0, ran);
            HOST_EQ(static_cast<DWORD>(WAIT_IO_COMPLETION), SleepEx(5000, TRUE));
            HOST_EQ(at.load(), ran);
            HOST_EQ('x', buffer[0]);
            HOST_EQ(1, send(s, "y", 1, 0));
            closesocket(s);
            return 0;
        });
        SOCKET peer = accept(listener, nullptr, nullptr);
        while (!moving) Sleep(1);
        Sleep(50);
        HOST_EQ(0, at.load());  // it waits
        HOST_EQ(1, send(peer, "x", 1, 0));
        HOST_EQ(0u, mover.Join());
        HOST_CHECK(at != 0 && at != KernelThread());
        char reply = 0;
        HOST_EQ(1, recv(peer, &reply, 1, 0));
        HOST_EQ('y', reply);
    }));
}

TEST_P(Migration, PostsAndSectionsReachTheOtherSide) {
    for (const char *nt : {"0", "1"}) {
        EXPECT_HOST_OK(RunHost(Enabled("1", {{"DynamicSchedUseNTPostWait", nt}}), [] {
            HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
            HANDLE back = CreateEventA(nullptr, FALSE, FALSE, nullptr);
            IdentifyUserThread("OTHR", back);
            CRITICAL_SECTION section;
            InitializeCriticalSection(&section);
            uint64_t sum = 0;
            std::atomic<bool> ready{false};
            constexpr int kRounds = 2000;
            HostThread mover([&]() -> DWORD {
                MigrateUserThread("LGWR");
                IdentifyUserThread("LGWR", event);
                ready = true;
                for (int i = 0; i < kRounds; i++) {
                    HOST_EQ(WAIT_OBJECT_0, WaitForUserThreadPost(event, 10000));
                    EnterCriticalSection(&section);
                    sum++;
                    LeaveCriticalSection(&section);
                    HOST_CHECK(PostUserThread(back));
                }
                UnidentifyUserThread(0);
                return 0;
            });
            while (!ready) Sleep(1);
            for (int i = 0; i < kRounds; i++) {
                HOST_CHECK(PostUserThread(event));
                EnterCriticalSection(&section);
                sum++;
                LeaveCriticalSection(&section);
                HOST_EQ(WAIT_OBJECT_0, WaitForUserThreadPost(back, 10000));
            }
            HOST_EQ(0u, mover.Join());
            HOST_EQ(uint64_t{2 * kRounds}, sum);
            DeleteCriticalSection(&section);
        }));
    }
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Migration, testing::Values(1));
