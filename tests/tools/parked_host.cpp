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
#include <cstring>
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
HANDLE gPing, gPong;

#define PLACE extern "C" __attribute__((noinline, visibility("default")))

HANDLE Identify(const char *tag) {
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    IdentifyUserThread(tag, event);
    gWaiting++;
    return event;
}

// The calls are not the last thing that these do: a tail call would leave no frame of theirs behind.
PLACE DWORD SleepsForLong() {
    Sleep(3600000);
    return gWaiting++;
}
PLACE DWORD AwaitsAPost(HANDLE event) {
    WaitForUserThreadPost(event, INFINITE);
    return gWaiting++;
}
PLACE DWORD AwaitsAPostInTime(HANDLE event) {
    WaitForUserThreadPost(event, 3600000);
    return gWaiting++;
}
PLACE DWORD AwaitsTheSection() {
    EnterCriticalSection(&gSection);
    return gWaiting++;
}
PLACE DWORD OwnsTheSection() {
    EnterCriticalSection(&gSection);
    Sleep(3600000);
    return gWaiting++;
}
PLACE DWORD AwaitsAnObject() {
    WaitForSingleObject(gObject, INFINITE);
    return gWaiting++;
}
PLACE DWORD AwaitsAClient() {
    WSADATA data;
    WSAStartup(0x202, &data);
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(listener, 5);
    accept(listener, nullptr, nullptr);
    return gWaiting++;
}
PLACE DWORD NeverYields() {
    for (;;) gWaiting.load(std::memory_order_relaxed);
}

DWORD Sleeper(LPVOID) {
    return Identify("ZZZ"), SleepsForLong();
}
DWORD Poster(LPVOID) {
    return AwaitsAPost(Identify("PMON"));
}
DWORD Session(LPVOID) {
    return AwaitsAPostInTime(Identify("SHAD"));
}
DWORD Owner(LPVOID) {
    return Identify("OWN"), OwnsTheSection();
}
DWORD Contender(LPVOID) {
    return Identify("CRIT"), AwaitsTheSection();
}
DWORD Watcher(LPVOID) {
    return Identify("OBJ"), AwaitsAnObject();
}
DWORD Listener(LPVOID) {
    return Identify("NET"), AwaitsAClient();
}
DWORD Spinner(LPVOID) {
    return Identify("SPIN"), NeverYields();
}
DWORD Waiter(LPVOID) {
    return AwaitsAPost(Identify("MANY"));
}

DWORD Ping(LPVOID) {
    gPing = Identify("PING");
    for (;;) {
        if (gPong != nullptr) PostUserThread(gPong);
        WaitForUserThreadPost(gPing, 10);
    }
}
DWORD Pong(LPVOID) {
    gPong = Identify("PONG");
    for (;;) {
        WaitForUserThreadPost(gPong, 10);
        if (gPing != nullptr) PostUserThread(gPing);
    }
}

void Start(LPTHREAD_START_ROUTINE routine) {
    const HANDLE thread = CreateThread(nullptr, 0, routine, nullptr, 0, nullptr);
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
        for (uint32_t i = 0; i < gMany; i++) Start(Waiter);
        while (gWaiting < gMany) Sleep(10);
    } else {
        for (const auto routine : {Sleeper, Poster, Session, Owner, Watcher, Listener}) Start(routine);
        while (gWaiting < 6) Sleep(1);
        Sleep(50);
        Start(Contender);
        while (gWaiting < 7) Sleep(1);
        Sleep(50);
    }
    if (gMode == "load") {
        Start(Ping);
        Start(Pong);
    }
    if (gMode == "hang" || gMode == "abort") {
        Start(Spinner);
        while (gWaiting < 8) {
            // With one scheduler this does not come back: the process hangs, and says so before.
            Announce();
            if (gMode == "abort") std::signal(SIGALRM, [](int) { std::abort(); }), alarm(1);
            Sleep(1);
        }
    }
    Announce();
    return SleepsForLong();
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
