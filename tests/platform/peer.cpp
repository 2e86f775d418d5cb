// tests/platform/peer.cpp - another process: does what a test tells it to, one line at a time.
//
// With arguments it is a program to be started: see main. Without, it reads commands from standard input and answers
// each with one line; it works on one object at a time.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/os_process.h"

namespace {

HANDLE gObject;

// The number that answers the command.
DWORD Obey(const char *verb, const char *name, unsigned first, unsigned second) {
    if (strcmp(verb, "create-event") == 0) {
        gObject = os::CreateEventA(nullptr, static_cast<BOOL>(first), static_cast<BOOL>(second), name);
    } else if (strcmp(verb, "create-mutex") == 0) {
        gObject = os::CreateMutexA(nullptr, static_cast<BOOL>(first), name);
    } else if (strcmp(verb, "create-semaphore") == 0) {
        gObject = os::CreateSemaphoreA(nullptr, static_cast<LONG>(first), static_cast<LONG>(second), name);
    } else if (strcmp(verb, "open-event") == 0) {
        gObject = os::OpenEventA(EVENT_ALL_ACCESS, FALSE, name);
    } else if (strcmp(verb, "open-mutex") == 0) {
        gObject = os::OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name);
    } else if (strcmp(verb, "open-semaphore") == 0) {
        gObject = os::OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, name);
    } else if (strcmp(verb, "close") == 0) {
        return os::CloseHandle(gObject) ? 0 : os::GetLastError();
    } else if (strcmp(verb, "set") == 0) {
        return os::SetEvent(gObject) ? 0 : os::GetLastError();
    } else if (strcmp(verb, "release-mutex") == 0) {
        return os::ReleaseMutex(gObject) ? 0 : os::GetLastError();
    } else if (strcmp(verb, "release-semaphore") == 0) {
        return os::ReleaseSemaphore(gObject, static_cast<LONG>(first), nullptr) ? 0 : os::GetLastError();
    } else if (strcmp(verb, "wait") == 0) {
        return os::WaitForSingleObject(gObject, first);
    } else {
        return 9999;
    }
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
    const char *what = words[1];
    if (strcmp(what, "words") == 0) {
        for (int i = 2; i < count; i++) printf("[%s]", words[i]);
        return 7;
    }
    if (strcmp(what, "where") == 0) {
        char folder[4096];
        const char *value = getenv("ZVX_PEER");
        uint32_t process = 0, system = 0;
        os::GetProcessAffinityMask(os::GetCurrentProcess(), &process, &system);
        printf("%s %s %d", getcwd(folder, sizeof folder), value != nullptr ? value : "-", __builtin_popcount(process));
        return 0;
    }
    if (strcmp(what, "copy") == 0) {
        for (int c; (c = getchar()) != EOF;) putchar(c);
        return 0;
    }
    if (strcmp(what, "exit") == 0) return atoi(words[2]);
    if (strcmp(what, "stay") == 0) sleep(30);
    return 1;
}
