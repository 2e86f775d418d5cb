// tests/platform/named_test.cpp - events, mutexes and semaphores by name, between processes that know nothing else of
// each other.
#include <sys/prctl.h>
#include <sys/socket.h>

#include <csignal>

#include "platform/base/shared_names.h"
#include "platform/os_process.h"
#include "support.h"

namespace {

// Of this process alone, so that tests that run at the same time do not meet.
const std::string gName = "zvx_test_" + std::to_string(getpid());

// Another process, which obeys: it is a copy of this one, so it knows the functions. It works on one object.
HANDLE gObject;

struct Peer {
    using Order = DWORD (*)(DWORD argument);
    pid_t Pid;
    int Ends[2];

    Peer() {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, Ends));
        Pid = fork();
        if (Pid == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);  // a case that is skipped half-way destroys nothing
        std::pair<Order, DWORD> next;
        while (Pid == 0) {
            if (read(Ends[0], &next, sizeof next) != sizeof next) _exit(1);
            const DWORD answer = next.first(next.second);
            if (write(Ends[0], &answer, sizeof answer) != sizeof answer) _exit(2);
        }
    }
    ~Peer() { Kill(); }
    Peer(const Peer &) = delete;

    void Tell(Order order, DWORD argument = 0) const {
        const std::pair<Order, DWORD> next{order, argument};
        EXPECT_EQ(static_cast<ssize_t>(sizeof next), write(Ends[1], &next, sizeof next));
    }
    DWORD Answer() const {
        DWORD answer;
        return read(Ends[1], &answer, sizeof answer) == sizeof answer ? answer : 0xDEAD;
    }
    DWORD Ask(Order order, DWORD argument = 0) const {
        Tell(order, argument);
        return Answer();
    }
    void Kill() {
        if (Pid > 0) kill(Pid, SIGKILL), waitpid(Pid, nullptr, 0);
        Pid = -1;
    }
};

// Orders; the answer is a result or an error.
template <auto Function>
DWORD Open(DWORD) {
    return ErrorOf(gObject = Function(0, FALSE, gName.c_str()));
}
template <auto Function>
DWORD Do(DWORD) {
    return ErrorOf(Function(gObject));
}
DWORD Wait(DWORD ms) {
    return os::WaitForSingleObject(gObject, ms);
}
DWORD Release(DWORD count) {
    return ErrorOf(os::ReleaseSemaphore(gObject, static_cast<LONG>(count), nullptr));
}
DWORD CreateManualAndSet(DWORD) {
    return gObject = os::CreateEventA(nullptr, TRUE, TRUE, ("Global\\" + gName).c_str()), os::GetLastError();
}

struct Named : testing::Test {
    void SetUp() override {
        if (!os::SharedNamesReady()) GTEST_SKIP() << "no shared memory";
    }
};

}  // namespace

TEST_F(Named, NamesAreOnesOwnUntilTheLastHandleAndProcessIsGone) {
    Peer peer;
    EXPECT_EQ(peer.Ask(Open<os::OpenEventA>), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(peer.Ask(CreateManualAndSet), ERROR_SUCCESS);
    // Under every form of the name, with the state and the kind that it was made with.
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, ("Local\\" + gName).c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
    for (int i = 0; i < 2; i++) EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_OBJECT_0) << "manual";
    EXPECT_EQ(ErrorOf(os::OpenMutexA(0, FALSE, gName.c_str())), ERROR_INVALID_HANDLE) << "of another type";
    EXPECT_EQ(peer.Ask(Do<os::CloseHandle>), ERROR_SUCCESS);
    EXPECT_EQ(peer.Ask(Open<os::OpenEventA>), ERROR_SUCCESS) << "this process still has it";
    os::CloseHandle(event);
    const HANDLE again = os::OpenEventA(0, FALSE, gName.c_str());
    EXPECT_EQ(os::WaitForSingleObject(again, 0), WAIT_OBJECT_0) << "the other process still has it";
    os::CloseHandle(again);
    peer.Kill();
    EXPECT_EQ(ErrorOf(os::OpenEventA(0, FALSE, gName.c_str())), ERROR_FILE_NOT_FOUND)
        << "the name of a process that died";
    const HANDLE semaphore = os::CreateSemaphoreA(nullptr, 1, 1, gName.c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_SUCCESS) << "free for another type";
    os::CloseHandle(semaphore);
}

TEST_F(Named, EventsWakeSleepersOfOtherProcesses) {
    Peer one, two;
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, gName.c_str());
    for (Peer *peer : {&one, &two}) {
        EXPECT_EQ(peer->Ask(Open<os::OpenEventA>), ERROR_SUCCESS);
        peer->Tell(Wait, 20000);
    }
    Pause(50);
    EXPECT_TRUE(os::SetEvent(event));
    Pause(20);
    EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "an automatic event ended no wait";
    EXPECT_TRUE(os::SetEvent(event));
    EXPECT_TRUE(one.Answer() == WAIT_OBJECT_0 && two.Answer() == WAIT_OBJECT_0);
    // And the other way round, while this thread sleeps; where the kernel sleeps on one word only, it looks every few
    // milliseconds.
    for (const bool oneWord : {false, true}) {
        for (uint32_t call = 1; oneWord && call < 30; call++) os::FailCall("futex_waitv", call, 0);
        one.Tell([](DWORD) { return Pause(50), Do<os::SetEvent>(0); });
        EXPECT_EQ(os::WaitForSingleObject(event, 10), WAIT_TIMEOUT);
        EXPECT_EQ(os::WaitForSingleObject(event, 20000), WAIT_OBJECT_0);
        EXPECT_EQ(one.Answer(), 0u);
    }
    os::CloseHandle(event);
}

TEST_F(Named, AKilledOwnerLeavesAnAbandonedMutex) {
    Peer peer;
    const auto own = [](DWORD) { return gObject = os::CreateMutexA(nullptr, TRUE, gName.c_str()), os::GetLastError(); };
    EXPECT_EQ(peer.Ask(own), ERROR_SUCCESS);
    const HANDLE mutex = os::CreateMutexA(nullptr, TRUE, gName.c_str());
    EXPECT_EQ(os::GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(ErrorOf(os::ReleaseMutex(mutex)), ERROR_NOT_OWNER) << "opened, not taken";
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20), WAIT_TIMEOUT);
    EXPECT_EQ(peer.Ask(Do<os::ReleaseMutex>), 0u);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "again by its owner";
    EXPECT_EQ(peer.Ask(Wait, 20), WAIT_TIMEOUT);
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(peer.Ask(Wait, 20), WAIT_TIMEOUT) << "released once of twice";
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(peer.Ask(Wait, 20000), WAIT_OBJECT_0);
    // A sleeper notices the death, which wakes nobody.
    std::thread killer([&] { Pause(100), peer.Kill(); });
    EXPECT_EQ(os::WaitForSingleObject(mutex, 20000), WAIT_ABANDONED_0);
    killer.join();
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0) << "told once";
    EXPECT_TRUE(os::ReleaseMutex(mutex));
    // A thread of this process that ends with it leaves it abandoned for other processes.
    std::thread([&] { EXPECT_EQ(os::WaitForSingleObject(mutex, 0), WAIT_OBJECT_0); }).join();
    Peer last;
    EXPECT_EQ(last.Ask(Open<os::OpenMutexA>), ERROR_SUCCESS);
    EXPECT_EQ(last.Ask(Wait, 20000), WAIT_ABANDONED_0);
    os::CloseHandle(mutex);
}

TEST_F(Named, WaitForAllTakesSharedObjectsInOneStep) {
    Peer peer;
    const HANDLE semaphore = os::CreateSemaphoreA(nullptr, 0, 3, gName.c_str());
    const HANDLE mine = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE both[] = {semaphore, mine};
    EXPECT_EQ(peer.Ask(Open<os::OpenSemaphoreA>), ERROR_SUCCESS);
    EXPECT_EQ(peer.Ask(Release, 4), ERROR_TOO_MANY_POSTS);
    std::atomic<DWORD> result{0xDEAD};
    std::thread waiter([&] { result = os::WaitForMultipleObjects(2, both, TRUE, 20000); });
    Pause(30);
    // The other process makes one half of it true and takes it back: the wait must not have held it.
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(peer.Ask(Release, 1), 0u);
        EXPECT_EQ(peer.Ask(Wait, 0), WAIT_OBJECT_0);
    }
    os::SetEvent(mine);
    Pause(30);
    EXPECT_EQ(result.load(), 0xDEADu);
    EXPECT_EQ(os::WaitForSingleObject(mine, 0), WAIT_OBJECT_0) << "nor the half that is this process's";
    os::SetEvent(mine);
    EXPECT_EQ(peer.Ask(Release, 1), 0u);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT);
    peer.Tell(Release, 2);
    EXPECT_EQ(os::WaitForMultipleObjects(2, both, FALSE, 20000), WAIT_OBJECT_0);
    for (const HANDLE handle : both) os::CloseHandle(handle);
}

TEST_F(Named, ADeathUnderTheLockOfTheTableStopsNobody) {
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, gName.c_str());
    EXPECT_EQ(SIGKILL, RunInChild([] { os::LockShared(), raise(SIGKILL); }).Signal);
    EXPECT_TRUE(os::SetEvent(event));
    EXPECT_EQ(os::WaitForSingleObject(event, 1000), WAIT_OBJECT_0);
    os::CloseHandle(event);
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
    EXPECT_EQ(ErrorOf(os::OpenMutexA(0, FALSE, "alone")), ERROR_FILE_NOT_FOUND);
}
