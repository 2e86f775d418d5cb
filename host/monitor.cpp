// host/monitor.cpp - the process monitor, and what INFO tells.
//
// "PMON" runs once a second, at background class. It ends connections whose client lets the server wait, cleans up
// after sessions whose thread was ended by somebody else, removes expired keys, and wakes the log writer after a flush
// that failed.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "admin.h"
#include "checkpoint.h"
#include "session.h"

namespace host {

namespace {

std::atomic<ULONGLONG> sStart{0};      // the monitor's
constexpr uint32_t kGraceSeconds = 5;  // from the end of a connection to the end of a thread that does not notice

// Seconds are whole and begin at any time within one, so that a limit is over only when one more has begun.
EndReason WhyEnd(SessionState state, uint32_t seconds) {
    if (state == SessionState::kSending && seconds > gOptions.SendTimeout) return EndReason::kSlowReader;
    if (state == SessionState::kReceiving && seconds > gOptions.RequestTimeout) return EndReason::kSlowRequest;
    if (state == SessionState::kIdle && gOptions.IdleTimeout != 0 && seconds > gOptions.IdleTimeout) {
        return EndReason::kIdle;
    }
    return EndReason::kNone;
}

// One look at all sessions. Threads that must be ended are only named here: ending one waits, which nobody may do
// with the section held.
void LookAtSessions(uint32_t now, std::vector<HANDLE> *hopeless, std::vector<Session *> *dead) {
    Guard guard(&gSessions.Section);
    for (SessionSlot *slot = gSessions.Slots; slot != gSessions.Slots + gSessions.Used; slot++) {
        const SessionState state = slot->State.load(std::memory_order_relaxed);
        if (slot->Who == nullptr || state == SessionState::kRunning || state == SessionState::kCommitting) continue;
        if (slot->End.load() == EndReason::kNone) {
            const EndReason reason = WhyEnd(state, now - slot->Since.load(std::memory_order_relaxed));
            if (reason == EndReason::kNone) continue;
            slot->End = reason;
            slot->EndedAt = now;
            // The session wakes, and says why it ends where the client can still read it.
            shutdown(slot->Who->Socket, reason == EndReason::kSlowReader ? SD_BOTH : SD_RECEIVE);
            Count(gCounters.Cleaned);
        } else if (slot->End.load() == EndReason::kHopeless || now - slot->EndedAt >= kGraceSeconds) {
            DWORD code = STILL_ACTIVE;
            if (GetExitCodeThread(slot->Who->Thread, &code) && code != STILL_ACTIVE) {
                dead->push_back(slot->Who);
            } else if (state == SessionState::kSending && slot->End.load() < EndReason::kSlowReader) {
                // Its last words, which nobody takes: the send fails, and the session ends with all that it holds.
                slot->End = EndReason::kSlowReader;
                slot->EndedAt = now;
                shutdown(slot->Who->Socket, SD_BOTH);
            } else if (slot->End.load() != EndReason::kHopeless) {
                // Told a second before it is ended: should it come back from its wait just then, it goes no further and
                // is not met with a section in its hands.
                slot->End = EndReason::kHopeless;
            } else {
                // A handle of our own: the session may end by itself and close its handle, which is another's then.
                HANDLE own = nullptr;
                const HANDLE self = GetCurrentProcess();
                if (DuplicateHandle(self, slot->Who->Thread, self, &own, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
                    hopeless->push_back(own);
                }
            }
        }
    }
}

}  // namespace

DWORD WINAPI Monitor(LPVOID event) {
    IdentifyUserThread("PMON", event);
    std::vector<HANDLE> hopeless;
    std::vector<Session *> dead;
    // The clock by which clients are judged. Time in which this process did not run, because it or its machine was
    // stopped, is no client's slowness: what they sent meanwhile has not been looked at.
    constexpr ULONGLONG kLongestStep = 2000;
    ULONGLONG counted = 0;
    ULONGLONG last = GetTickCount64();
    sStart = last;
    for (;;) {
        WaitForUserThreadPost(event, 1000);
        const ULONGLONG now = GetTickCount64();
        counted += std::min(now - last, kLongestStep);
        last = now;
        gSeconds = static_cast<uint32_t>(counted / 1000);
        hopeless.clear();
        dead.clear();
        LookAtSessions(gSeconds.load(), &hopeless, &dead);
        WatchAdminPipe(gSeconds.load());
        MendLog();
        // They wait in a send or a receive, or behind it, so that they own nothing but their record, which is freed the
        // next time.
        for (const HANDLE thread : hopeless) {
            TerminateThread(thread, 1);
            CloseHandle(thread);
        }
        for (Session *session : dead) FreeSession(session);
        // Clients may make keys that end as fast as they are removed: the sessions are looked at in time all the same.
        while (SweepExpired() > 1000 && GetTickCount64() - last < 1000) Sleep(0);
    }
}

// ---- INFO --------------------------------------------------------------------------------------------

namespace {

struct Text {
    std::string Out;
    std::string_view Wanted;

    bool Section(std::string_view name, const char *title) {
        bool wanted = Wanted.size() == name.size();
        for (size_t i = 0; wanted && i < name.size(); i++) wanted = (Wanted[i] | 0x20) == name[i];
        if (!wanted && Wanted != "all" && Wanted != "default" && Wanted != "everything") return false;
        if (!Out.empty()) Out += "\r\n";
        Out += std::string("# ") + title + "\r\n";
        return true;
    }
    void Line(const char *name, const std::string &value) { Out += std::string(name) + ":" + value + "\r\n"; }
    void Line(const char *name, uint64_t value) { Line(name, std::to_string(value)); }
};

std::string Ratio(uint64_t a, uint64_t b) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", b != 0 ? static_cast<double>(a) / static_cast<double>(b) : 0.0);
    return text;
}

}  // namespace

std::string InfoText(std::string_view section) {
    Text text{{}, section};
    if (text.Section("server", "Server")) {
        text.Line("redis_version", "7.0.0");
        text.Line("server_name", "keyhost");
        text.Line("process_id", GetCurrentProcessId());
        text.Line("tcp_port", gOptions.Port);
        text.Line("uptime_in_seconds", (GetTickCount64() - sStart.load()) / 1000);
        text.Line("io_backend", ZvxIoBackendName());
        text.Line("kernel_threads", ZvxKernelThreadCount());
    }
    if (text.Section("clients", "Clients")) {
        text.Line("connected_clients", gSessions.Count.load());
        text.Line("maxclients", gOptions.MaxSessions);
        text.Line("query_buffer_bytes", Figure(gCounters.BufferBytes));
    }
    if (text.Section("persistence", "Persistence")) {
        const LogFigures log = GetLogFigures();
        text.Line("durability", gOptions.Sync == Durability::kAlways ? "always"
                                : gOptions.Sync == Durability::kNo   ? "no"
                                                                     : "everysec");
        text.Line("log_status", log.Refusing                      ? "refusing writes: " + ReasonOf(log.Error)
                                : log.FlushError != ERROR_SUCCESS ? "not durable: " + ReasonOf(log.FlushError)
                                                                  : "ok");
        text.Line("log_sequence", log.Seq);
        text.Line("log_settled", log.Settled);
        text.Line("log_segment", log.End.Segment);
        text.Line("log_offset", log.End.Offset);
        text.Line("log_segments", log.Segments);
        text.Line("log_segments_free", log.Free);
        text.Line("checkpoints", Figure(gCounters.Checkpoints));
        text.Line("checkpoint_in_progress", CheckpointRuns() ? 1 : 0);
    }
    if (text.Section("stats", "Stats")) {
        text.Line("total_connections_received", Figure(gCounters.Connections));
        text.Line("rejected_connections", Figure(gCounters.Rejected));
        text.Line("total_commands_processed", Figure(gCounters.Commands));
        text.Line("commits", Figure(gCounters.Commits));
        text.Line("log_writes", Figure(gCounters.LogWrites));
        text.Line("commits_per_write", Ratio(Figure(gCounters.Commits), Figure(gCounters.LogWrites)));
        text.Line("log_bytes", Figure(gCounters.LogBytes));
        text.Line("refused_writes", Figure(gCounters.Refused));
        text.Line("expired_keys", Figure(gCounters.Expired));
        text.Line("sessions_cleaned", Figure(gCounters.Cleaned));
    }
    if (text.Section("schedulers", "Schedulers")) {
        text.Line("schedulers", ZvxSchedulerCount());
        for (DWORD i = 0; i < ZvxSchedulerCount(); i++) {
            DWORD threads = 0;
            DWORD switches = 0;
            if (!ZvxSchedulerFigures(i, &threads, &switches)) break;
            const std::string name = "scheduler" + std::to_string(i);
            text.Line(name.c_str(),
                      "user_threads=" + std::to_string(threads) + ",switches=" + std::to_string(switches));
        }
    }
    if (text.Section("keyspace", "Keyspace")) {
        uint64_t expiring = 0;
        const uint64_t keys = KeyCount(&expiring);
        if (keys != 0) text.Line("db0", "keys=" + std::to_string(keys) + ",expires=" + std::to_string(expiring));
    }
    return text.Out;
}

}  // namespace host
