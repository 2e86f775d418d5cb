// tests/platform/named_test.cpp - events, mutexes and semaphores by name, between processes that know nothing else of
// each other.
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <csignal>

#include "platform/base/shared_names.h"
#include "platform/os_process.h"
#include "support.h"

namespace {

// Another process that obeys, see peer.cpp.
class Peer {
  public:
    Peer() {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        Pid = fork();
        if (Pid == 0) {
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) dup2(ends[0], fd);
            execl(ZVX_PEER, ZVX_PEER, nullptr);
            _exit(127);
        }
        close(ends[0]);
        Line = ends[1];
    }
    ~Peer() {
        Kill();
        close(Line);
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    void Tell(const std::string &command) const { dprintf(Line, "%s\n", command.c_str()); }
    DWORD Answer() const {
        char text[32] = {};
        return read(Line, text, sizeof text - 1) > 0 ? static_cast<DWORD>(strtoul(text, nullptr, 10)) : 0xDEAD;
    }
    DWORD Ask(const std::string &command) const {
        Tell(command);
        return Answer();
    }
    void Kill() {
        if (Pid <= 0) return;
        kill(Pid, SIGKILL);
        waitpid(Pid, nullptr, 0);
        Pid = -1;
    }

  private:
    pid_t Pid = -1;
    int Line = -1;
};

// Of this process alone, so that tests that run at the same time do not meet.
std::string Name(const std::string &prefix = "") {
    return prefix + "zvx_test_" + std::to_string(getpid());
}

struct Named : testing::Test {
    void SetUp() override {
        if (!os::SharedNamesReady()) GTEST_SKIP() << "no shared memory";
    }
    const std::string Plain = Name();
};

}  // namespace

TEST_F(Named, NamesAreOnesOwnUntilTheLastHandleAndProcessIsGone) {
    Peer peer;
    EXPECT_EQ(peer.Ask("open-event " + Plain), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(peer.Ask("create-event " + Name("Global\\") + " 1 1"), ERROR_SUCCESS);
    // Under every form of the name, with the state and the kind that it was made with.
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, Name("Local\\").c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
    for (int i = 0; i < 2; i++) EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_OBJECT_0) << "manual";
    EXPECT_EQ(FailureOf(os::OpenMutexA(0, FALSE, Plain.c_str())), ERROR_INVALID_HANDLE) << "of another type";
    EXPECT_EQ(peer.Ask("close"), ERROR_SUCCESS);
    EXPECT_EQ(peer.Ask("open-event " + Plain), ERROR_SUCCESS) << "this process still has it";
    os::CloseHandle(event);
    const HANDLE again = os::OpenEventA(0, FALSE, Plain.c_str());
    EXPECT_EQ(os::WaitForSingleObject(again, 0), WAIT_OBJECT_0) << "the other process still has it";
    os::CloseHandle(again);
    peer.Kill();
    EXPECT_EQ(FailureOf(os::OpenEventA(0, FALSE, Plain.c_str())), ERROR_FILE_NOT_FOUND)
        << "the name of a process that died";
    os::CreateSemaphoreA(nullptr, 1, 1, Plain.c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS) << "free for another type";
}

TEST_F(Named, NamesThatAreNone) {
    const struct {
        std::string Name;
        DWORD Error;
    } cases[] = {{"Global\\", ERROR_INVALID_NAME},
                 {"Global\\a\\b", ERROR_PATH_NOT_FOUND},
                 {"global\\x", ERROR_PATH_NOT_FOUND},
                 {std::string(256, 'x'), ERROR_FILENAME_EXCED_RANGE}};
    for (const auto &one : cases)
        EXPECT_EQ(FailureOf(os::CreateEventA(nullptr, FALSE, FALSE, one.Name.c_str())), one.Error) << one.Name;
    EXPECT_EQ(FailureOf(os::OpenSemaphoreA(0, FALSE, nullptr)), ERROR_INVALID_PARAMETER);
    // Wide and narrow forms meet; a character that is none has no name.
    EXPECT_NE(os::CreateMutexW(nullptr, FALSE, L"zvx_\u00e4\u20ac\U0001F600"), nullptr);
    EXPECT_EQ(FailureOf(os::OpenMutexA(0, FALSE, "zvx_\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80")), 0u);
    const WCHAR bad[] = {0xD800, 0};
    EXPECT_EQ(FailureOf(os::CreateSemaphoreW(nullptr, 0, 1, bad)), ERROR_INVALID_NAME);
}

TEST_F(Named, EventsWakeSleepersOfOtherProcesses) {
    Peer one, two;
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, Plain.c_str());
    for (Peer *peer : {&one, &two}) {
        EXPECT_EQ(peer->Ask("open-event " + Plain), ERROR_SUCCESS);
        peer->Tell("wait - 20000");
    }
    Pause(50);
    EXPECT_TRUE(os::SetEvent(event));
    Pause(20);
    EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "an automatic event ended no wait";
    EXPECT_TRUE(os::SetEvent(event));
    EXPECT_EQ(one.Answer(), WAIT_OBJECT_0);
    EXPECT_EQ(two.Answer(), WAIT_OBJECT_0);
    // And the other way round, while this thread sleeps.
    one.Tell("set");
    EXPECT_EQ(os::WaitForSingleObject(event, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(one.Answer(), 0u);
}

TEST_F(Named, AKilledOwnerLeavesAnAbandonedMutex) {
    Peer peer;
    EXPECT_EQ(peer.Ask("create-mutex " + Plain + " 1"), ERROR_SUCCESS);
    const HANDLE mutex = os::CreateMutexA(nullptr, TRUE, Plain.c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(FailureOf(os::ReleaseMutex(mutex)), ERROR_NOT_OWNER) << "opened, not taken";
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20), WAIT_TIMEOUT);
    EXPECT_EQ(peer.Ask("release-mutex"), 0u);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "again by its owner";
    EXPECT_EQ(peer.Ask("wait - 20"), WAIT_TIMEOUT);
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(peer.Ask("wait - 20"), WAIT_TIMEOUT) << "released once of twice";
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(peer.Ask("wait - 20000"), WAIT_OBJECT_0);
    // A sleeper notices the death, which wakes nobody; a tester notices it too.
    std::thread killer([&] { Pause(100), peer.Kill(); });
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20000), WAIT_ABANDONED_0);
    killer.join();
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "told once";
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    Peer tested;
    EXPECT_EQ(tested.Ask("open-mutex " + Plain), ERROR_SUCCESS);
    EXPECT_EQ(tested.Ask("wait - 0"), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
    tested.Kill();
    DWORD result;
    for (int i = 0; (result = os::WaitForSingleObject(mutex, 0)) == WAIT_TIMEOUT && i < 2000; i++) Pause(1);
    EXPECT_EQ(result, WAIT_ABANDONED_0);
    // A thread of this process that ends with it leaves it abandoned for other processes.
    os::ReleaseMutex(mutex);
    std::thread([&] { EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0); }).join();
    Peer last;
    EXPECT_EQ(last.Ask("open-mutex " + Plain), ERROR_SUCCESS);
    EXPECT_EQ(last.Ask("wait - 20000"), WAIT_ABANDONED_0);
}

TEST_F(Named, WaitForAllTakesSharedObjectsInOneStep) {
    Peer peer;
    const HANDLE semaphore = os::CreateSemaphoreA(nullptr, 0, 3, Plain.c_str());
    const HANDLE mine = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE both[] = {semaphore, mine};
    EXPECT_EQ(peer.Ask("open-semaphore " + Plain), ERROR_SUCCESS);
    EXPECT_EQ(peer.Ask("release-semaphore - 4"), ERROR_TOO_MANY_POSTS);
    std::atomic<DWORD> result{0xDEAD};
    std::thread waiter([&] { result = os::WaitForMultipleObjects(2, both, TRUE, 20000); });
    Pause(30);
    // The other process makes one half of it true and takes it back: the wait must not have held it.
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(peer.Ask("release-semaphore - 1"), 0u);
        EXPECT_EQ(peer.Ask("wait - 0"), WAIT_OBJECT_0);
    }
    os::SetEvent(mine);
    Pause(30);
    EXPECT_EQ(result.load(), 0xDEADu);
    EXPECT_EQ(os::WaitForSingleObject(mine, 0), WAIT_OBJECT_0) << "nor the half that is this process's";
    os::SetEvent(mine);
    EXPECT_EQ(peer.Ask("release-semaphore - 1"), 0u);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT);
    peer.Tell("release-semaphore - 2");
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 20000), WAIT_OBJECT_0);
}

TEST_F(Named, ADeathUnderTheLockOfTheTableStopsNobody) {
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, Plain.c_str());
    EXPECT_EQ(RunChild([] {
                  os::LockShared();
                  raise(SIGKILL);
              }).Signal,
              SIGKILL);
    EXPECT_TRUE(os::SetEvent(event));
    EXPECT_EQ(os::WaitForSingleObject(event, 1000), WAIT_OBJECT_0);
}

// Where the kernel sleeps on one word only, a wait looks every few milliseconds.
TEST_F(Named, WithoutASleepOnSeveralWords) {
    Peer peer;
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, Plain.c_str());
    EXPECT_EQ(peer.Ask("open-event " + Plain), ERROR_SUCCESS);
    for (uint32_t call = 1; call < 30; call++) os::FailCall("futex_waitv", call, 0);
    std::thread setter([&] {
        Pause(50);
        EXPECT_EQ(peer.Ask("set"), 0u);
    });
    EXPECT_EQ(os::WaitForSingleObject(event, 20), WAIT_TIMEOUT);
    EXPECT_EQ(os::WaitForSingleObject(event, 20000), WAIT_OBJECT_0);
    setter.join();
}

TEST(NamedInOneProcess, WithoutSharedMemory) {
    os::FailCall("SharedNames", 1, ERROR_ACCESS_DENIED);
    const HANDLE mutex = os::CreateMutexA(nullptr, TRUE, "Global\\alone");
    ASSERT_FALSE(os::SharedNamesReady());
    EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS);
    const HANDLE again = os::OpenMutexA(0, FALSE, "alone");
    std::thread([&] { EXPECT_EQ(os::WaitForSingleObject(again, 10), WAIT_TIMEOUT); }).join();
    EXPECT_TRUE(os::ReleaseMutex(again));
    std::thread([&] { EXPECT_EQ(os::WaitForSingleObject(again, 10), WAIT_OBJECT_0); }).join();
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_ABANDONED_0);
    for (const HANDLE handle : {mutex, again}) os::CloseHandle(handle);
    EXPECT_EQ(FailureOf(os::OpenMutexA(0, FALSE, "alone")), ERROR_FILE_NOT_FOUND);
}

// Four processes count up and down under one mutex; a lost exclusion or a lost wake-up shows.
TEST_F(Named, ManyProcessesHandAMutexRound) {
    const HANDLE mutex = os::CreateMutexA(nullptr, FALSE, Plain.c_str());
    auto *counter = static_cast<std::atomic<uint32_t> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    constexpr uint32_t kProcesses = 4, kTurns = 500;
    std::vector<pid_t> children;
    for (uint32_t i = 0; i < kProcesses; i++) {
        const pid_t child = fork();
        if (child == 0) {
            const HANDLE own = os::OpenMutexA(0, FALSE, Plain.c_str());
            bool good = own != nullptr;
            for (uint32_t turn = 0; turn < kTurns && good; turn++) {
                good = os::WaitForSingleObject(own, 20000) == WAIT_OBJECT_0;
                const uint32_t before = counter->load(std::memory_order_relaxed);
                if (turn % 16 == 0) sched_yield();
                counter->store(before + 1, std::memory_order_relaxed);
                good = os::ReleaseMutex(own) && good;
            }
            _exit(good ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(counter->load(), kProcesses * kTurns);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
}
