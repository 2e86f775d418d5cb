// tests/tools/parked_host.cpp - a host whose user threads wait in every way, for the tests of the tools.
//
//   parked_host parked   eight threads that wait, each under its own tag and in a function of its own name
//   parked_host load     the same, and two threads that post each other without a pause
//   parked_host hang     the same as parked, and one thread that never yields
//   parked_host abort    the same as hang, and then the process aborts
//   parked_host many N   N threads that wait for a post
//   parked_host plain    loads the library and does not initialise it
//   parked_host closed   as plain, and nobody may look into the process
#include <netinet/in.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zvxkvt/osapi.h"
#include "zvxkvt/sockets.h"
#include "zvxkvt/zvxkvt.h"

namespace {

std::string gMode;
uint32_t gMany;
std::atomic<uint32_t> gWaiting;
CRITICAL_SECTION gSection;
HANDLE gObject;
HANDLE gPosts[2];  // of the two that post each other

// Where threads are parked, each in a function of its own. The call is not the last thing that it does: a tail call
// would leave no frame of it behind.
#define PLACE(name, call)                                                                                   \
    extern "C" __attribute__((noinline, visibility("default"))) DWORD name([[maybe_unused]] HANDLE event) { \
        call;                                                                                               \
        return gWaiting++;                                                                                  \
    }
SOCKET Listen() {
    WSADATA data;
    WSAStartup(0x202, &data);
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(listener, 5);
    return listener;
}
PLACE(SleepsForLong, Sleep(3600000))
PLACE(AwaitsAPost, WaitForUserThreadPost(event, INFINITE))
PLACE(AwaitsAPostInTime, WaitForUserThreadPost(event, 3600000))
PLACE(OwnsTheSection, EnterCriticalSection(&gSection); Sleep(3600000))
PLACE(AwaitsTheSection, EnterCriticalSection(&gSection))
PLACE(AwaitsAnObject, WaitForSingleObject(gObject, INFINITE))
PLACE(AwaitsAClient, accept(Listen(), nullptr, nullptr))
PLACE(NeverYields, for (;;) gWaiting.load(std::memory_order_relaxed))

template <int Own>
DWORD Posts(HANDLE event) {
    gPosts[Own] = event;
    for (;;) {
        if (gPosts[1 - Own] != nullptr) PostUserThread(gPosts[1 - Own]);
        WaitForUserThreadPost(event, 10);
    }
}

struct Kind {
    const char *Tag;
    DWORD (*Place)(HANDLE event);
};
const Kind kParked[] = {{"ZZZ", SleepsForLong},  {"PMON", AwaitsAPost},   {"SHAD", AwaitsAPostInTime},
                        {"OWN", OwnsTheSection}, {"OBJ", AwaitsAnObject}, {"NET", AwaitsAClient}};
const Kind kContender{"CRIT", AwaitsTheSection}, kSpinner{"SPIN", NeverYields}, kWaiter{"MANY", AwaitsAPost};
const Kind kPing{"PING", Posts<0>}, kPong{"PONG", Posts<1>};

DWORD Park(LPVOID argument) {
    const auto *kind = static_cast<const Kind *>(argument);
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    IdentifyUserThread(kind->Tag, event);
    gWaiting++;
    return kind->Place(event);
}

void Start(const Kind &kind) {
    const HANDLE thread = CreateThread(nullptr, 0, Park, const_cast<Kind *>(&kind), 0, nullptr);
    if (thread == nullptr) std::abort();
    CloseHandle(thread);
}

void Announce() {
    std::printf("ready\n");
    std::fflush(stdout);
}

DWORD MainRoutine(LPVOID) {
    InitializeCriticalSection(&gSection);
    gObject = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (gMode == "many") {
        for (uint32_t i = 0; i < gMany; i++) Start(kWaiter);
        while (gWaiting < gMany) Sleep(10);
    } else {
        for (const Kind &kind : kParked) Start(kind);
        while (gWaiting < 6) Sleep(1);
        Sleep(50);
        Start(kContender);
        while (gWaiting < 7) Sleep(1);
        Sleep(50);
    }
    if (gMode == "load") {
        Start(kPing);
        Start(kPong);
    }
    if (gMode == "hang" || gMode == "abort") {
        Start(kSpinner);
        while (gWaiting < 8) {
            // With one scheduler this does not come back: the process hangs, and says so before.
            Announce();
            if (gMode == "abort") std::signal(SIGALRM, [](int) { std::abort(); }), alarm(1);
            Sleep(1);
        }
    }
    Announce();
    return SleepsForLong(nullptr);
}

}  // namespace

int main(int argc, char **argv) {
    gMode = argc > 1 ? argv[1] : "";
    gMany = argc > 2 ? static_cast<uint32_t>(std::atoi(argv[2])) : 0;
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // the tools are no parents of this process
    if (gMode == "closed") prctl(PR_SET_DUMPABLE, 0);
    if (gMode == "plain" || gMode == "closed") {
        Announce();
        Sleep(3600000);
    }
    InitUserThreadScheduler(MainRoutine, nullptr, nullptr);
}
