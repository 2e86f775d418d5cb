// host/admin.cpp - commands of an administrator over a named pipe: one message asks, one message answers.
//
// Two user threads serve an instance each, so that a client that says nothing does not keep the next one out; the
// monitor ends its connection after a few seconds. Whoever may open the pipe may do everything: it is open to the user
// who runs the server, and to nobody else. A client that goes away at any point costs one failed read or write.
#include "admin.h"

#include <cstdio>

#include "checkpoint.h"
#include "session.h"

namespace host {

namespace {

constexpr DWORD kLongestRequest = 256;
constexpr uint32_t kPatience = 5;  // seconds for a client to ask, and once more for it to take the answer

// Since says whose turn it is to disconnect: 0 and a second are the thread's, kEnding is the monitor's for as long as
// it takes, kEnded the thread's again.
constexpr uint32_t kEnding = 0xFFFFFFFF;
constexpr uint32_t kEnded = 0xFFFFFFFE;

struct Instance {
    HANDLE Pipe = INVALID_HANDLE_VALUE;  // init
    std::atomic<uint32_t> Since{0};      // second, plus one, in which the client came; 0 without a client
};
Instance gInstances[2];

std::string ListSessions() {
    static const char *const kStates[] = {"running", "idle", "receiving", "committing", "sending"};
    std::string text = "sessions:" + std::to_string(gSessions.Count.load()) + "\r\n";
    const uint32_t now = gSeconds.load();
    Guard guard(&gSessions.Section);
    for (uint32_t i = 0; i < gSessions.Used; i++) {
        const SessionSlot &slot = gSessions.Slots[i];
        if (slot.Who == nullptr) continue;
        const uint32_t since = slot.Since.load(std::memory_order_relaxed);
        text += "id=" + std::to_string(slot.Who->Id) +
                " state=" + kStates[static_cast<size_t>(slot.State.load(std::memory_order_relaxed))] +
                " seconds=" + std::to_string(now > since ? now - since : 0) + "\r\n";
    }
    return text;
}

std::atomic<uint32_t> gProbed{0};

// Runs on each session's own user thread, in the middle of whatever it waits for.
void WINAPI ProbeRoutine() {
    gProbed.fetch_add(1);
}

// How many sessions can be reached within a second. One that ends meanwhile, or sends its answer, is not counted.
std::string ProbeSessions() {
    if (gOptions.Threads) return "not available";
    std::vector<HANDLE> events;
    {
        Guard guard(&gSessions.Section);
        for (uint32_t i = 0; i < gSessions.Used; i++) {
            if (gSessions.Slots[i].Who != nullptr) events.push_back(gSessions.Slots[i].Who->Wait.Event);
        }
    }
    gProbed = 0;
    uint32_t asked = 0;
    for (const HANDLE event : events) asked += UserThreadExecRoutine(event, ProbeRoutine) ? 1 : 0;
    for (int i = 0; i < 100 && gProbed.load() < asked; i++) Sleep(10);
    return "asked:" + std::to_string(asked) + " answered:" + std::to_string(gProbed.load());
}

// A handle of our own of the session's thread in the next slot from *slot on, which moves behind it; null when there is
// none any more. The session may end by itself and close its handle, which is another's then.
HANDLE NextSession(uint32_t *slot) {
    const HANDLE self = GetCurrentProcess();
    Guard guard(&gSessions.Section);
    while (*slot < gSessions.Used) {
        const Session *const session = gSessions.Slots[(*slot)++].Who;
        HANDLE own = nullptr;
        if (session != nullptr && DuplicateHandle(self, session->Thread, self, &own, 0, FALSE, DUPLICATE_SAME_ACCESS))
            return own;
    }
    return nullptr;
}

// Suspends every session and resumes it at once. That takes milliseconds for each, so no section is held: nobody could
// come or go meanwhile, and the monitor's clock would stand still.
std::string PauseSessions() {
    if (gOptions.Threads) return "not available";
    uint32_t paused = 0;
    uint32_t slot = 0;
    while (const HANDLE thread = NextSession(&slot)) {
        if (SuspendThread(thread) != 0xFFFFFFFF) {
            ResumeThread(thread);
            paused++;
        }
        CloseHandle(thread);
    }
    return "paused:" + std::to_string(paused);
}

std::string Answer(std::string_view request) {
    while (!request.empty() && (request.back() == '\n' || request.back() == '\r' || request.back() == '\0'))
        request.remove_suffix(1);
    if (request == "info") return InfoText("all");
    if (request == "sessions") return ListSessions();
    if (request == "probe") return ProbeSessions();
    if (request == "pause") return PauseSessions();
    if (request == "checkpoint") return RequestCheckpoint() ? "started" : "one is running already";
    if (request == "migrate-lgwr") return RequestLgwrMigration() ? "requested" : "not available";
    if (request == "shutdown") {
        gStop = true;
        return "shutting down";
    }
    return "unknown command";
}

// Begins or ends the time in which the client must do something. False when the monitor was faster: the client is gone.
bool SetSince(Instance *instance, uint32_t *since, uint32_t next) {
    uint32_t set = *since;
    if (!instance->Since.compare_exchange_strong(set, next)) return false;
    *since = next;
    return true;
}

// One client, from its coming to its answer. `*since` is what this thread has set.
void ServeClient(Instance *instance, uint32_t *since) {
    const HANDLE pipe = instance->Pipe;
    char request[kLongestRequest];
    DWORD size = 0;
    std::string answer;
    if (ReadFile(pipe, request, sizeof request, &size, nullptr)) {
        // How long the answer takes is not the client's doing.
        if (!SetSince(instance, since, 0)) return;
        answer = Answer({request, size});
        if (!SetSince(instance, since, gSeconds.load() + 1)) return;
    } else {
        // Read to its end, or its sender would not come to hear the answer.
        while (GetLastError() == ERROR_MORE_DATA && answer.empty()) {
            if (ReadFile(pipe, request, sizeof request, &size, nullptr)) answer = "request too long";
        }
        if (answer.empty()) return;
    }
    WriteFile(pipe, answer.data(), static_cast<DWORD>(answer.size()), &size, nullptr);
}

DWORD WINAPI Administrator(LPVOID argument) {
    Instance *const instance = static_cast<Instance *>(argument);
    for (;;) {
        // A client that came before the call, and even one that has gone again, is an error only by name.
        if (!ConnectNamedPipe(instance->Pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED &&
            GetLastError() != ERROR_NO_DATA) {
            std::fprintf(stderr, "keyhost: the administrator's pipe: %s\n", ReasonOf(GetLastError()).c_str());
            // Out of descriptors or memory, which ends.
            Sleep(1000);
            continue;
        }
        uint32_t since = gSeconds.load() + 1;
        instance->Since = since;
        ServeClient(instance, &since);
        if (!SetSince(instance, &since, 0)) {
            // The monitor is about to disconnect, and must not hit the next client.
            while (instance->Since.load() != kEnded) Sleep(1);
            instance->Since = 0;
        }
        DisconnectNamedPipe(instance->Pipe);
    }
}

}  // namespace

std::string OpenAdminPipe() {
    if (!gOptions.Admin) return {};
    const std::string name =
        "\\\\.\\pipe\\" +
        (gOptions.AdminPipe.empty() ? "keyhost." + std::to_string(GetCurrentProcessId()) : gOptions.AdminPipe);
    for (Instance &instance : gInstances) {
        const DWORD first = &instance == gInstances ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
        instance.Pipe = CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | first,
                                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS,
                                         DWORD{sizeof gInstances / sizeof gInstances[0]}, 0, 0, 0, nullptr);
        if (instance.Pipe == INVALID_HANDLE_VALUE) Refuse("%s: %s", name.c_str(), ReasonOf(GetLastError()).c_str());
        const HANDLE thread = CreateThread(nullptr, 0, Administrator, &instance, 0, nullptr);
        if (thread == nullptr) Refuse("no thread for the administrator: %s", ReasonOf(GetLastError()).c_str());
        CloseHandle(thread);
    }
    return name;
}

void WatchAdminPipe(uint32_t now) {
    for (Instance &instance : gInstances) {
        uint32_t since = instance.Since.load();
        if (since == 0 || since >= kEnded || now + 1 - since <= kPatience) continue;
        if (!instance.Since.compare_exchange_strong(since, kEnding)) continue;
        DisconnectNamedPipe(instance.Pipe);
        instance.Since = kEnded;
    }
}

}  // namespace host
