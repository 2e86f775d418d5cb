// tests/platform/peer.cpp - another process: does what a test tells it to, one line at a time.
//
// With arguments it is a program to be started: see main. Without, it reads commands from standard input and answers
// each with one line, a result or an error; it works on one object at a time.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/os_process.h"

namespace {

HANDLE gObject;

DWORD Obey(const std::string &verb, const char *name, unsigned first, unsigned second) {
    const auto error = [](BOOL done) { return done ? 0 : os::GetLastError(); };
    const BOOL initial = static_cast<BOOL>(first);
    const LONG count = static_cast<LONG>(first);
    if (verb == "close") return error(os::CloseHandle(gObject));
    if (verb == "set") return error(os::SetEvent(gObject));
    if (verb == "release-mutex") return error(os::ReleaseMutex(gObject));
    if (verb == "release-semaphore") return error(os::ReleaseSemaphore(gObject, count, nullptr));
    if (verb == "wait") return os::WaitForSingleObject(gObject, first);
    if (verb == "create-event") gObject = os::CreateEventA(nullptr, initial, static_cast<BOOL>(second), name);
    if (verb == "create-mutex") gObject = os::CreateMutexA(nullptr, initial, name);
    if (verb == "open-event") gObject = os::OpenEventA(EVENT_ALL_ACCESS, FALSE, name);
    if (verb == "open-mutex") gObject = os::OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name);
    if (verb == "open-semaphore") gObject = os::OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, name);
    return os::GetLastError();
}

int ObeyLines() {
    char line[512];
    while (fgets(line, sizeof line, stdin) != nullptr) {
        char verb[32] = "", name[400] = "";
        unsigned first = 0, second = 0;
        sscanf(line, "%31s %399s %u %u", verb, name, &first, &second);
        printf("%u\n", Obey(verb, name, first, second));
        fflush(stdout);
    }
    return 0;
}

}  // namespace

// "words" prints its arguments and ends with 7; "where" its directory, the value of ZVX_PEER and how many processors it
// may use; "copy" copies standard input to standard output; "exit N"; "stay".
int main(int count, char **words) {
    if (count < 2) return ObeyLines();
    const std::string what = words[1];
    if (what == "words") {
        for (int i = 2; i < count; i++) printf("[%s]", words[i]);
        return 7;
    }
    if (what == "where") {
        char folder[4096];
        const char *value = getenv("ZVX_PEER");
        uint32_t process = 0, system = 0;
        os::GetProcessAffinityMask(os::GetCurrentProcess(), &process, &system);
        printf("%s %s %d", getcwd(folder, sizeof folder), value != nullptr ? value : "-", __builtin_popcount(process));
        return 0;
    }
    if (what == "copy") {
        for (int c; (c = getchar()) != EOF;) putchar(c);
        return 0;
    }
    if (what == "exit") return atoi(words[2]);
    if (what == "stay") sleep(30);
    return 1;
}
