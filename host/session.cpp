// host/session.cpp - the listener and the loop of a session.
//
// Everything runs on user threads: the listener's, and one per session that receives, runs what it received, waits for
// the log and sends, with plain calls that wait. Nobody else touches a session's buffers.
#include "session.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace host {

Sessions gSessions;
std::atomic<uint32_t> gSeconds{0};

namespace {

constexpr size_t kMediumBuffer = 16 << 10;
constexpr size_t kMostMarks = 1024;
constexpr std::string_view kMisconf =
    "-MISCONF The log cannot be written: writes are refused until it can, and this one is not in effect\r\n";

void ReleaseInput(Session *session) {
    if (session->In == session->SmallIn) return;
    std::free(session->In);
    gCounters.BufferBytes.fetch_sub(session->InCapacity, std::memory_order_relaxed);
    session->In = session->SmallIn;
    session->InCapacity = Session::kSmall;
}

// False with an answer in the output when the request is larger than any may be, or buffers are used up.
bool GrowInput(Session *session) {
    const size_t limit = MaxRequest() + (4 << 20);
    const size_t capacity = session->InCapacity * 2 < kMediumBuffer ? kMediumBuffer : session->InCapacity * 2;
    const uint64_t held = session->In == session->SmallIn ? 0 : session->InCapacity;
    if (session->InCapacity >= limit) {
        session->PutError("Protocol error: too big request");
        return false;
    }
    if (gCounters.BufferBytes.fetch_add(capacity - held, std::memory_order_relaxed) + capacity > gOptions.MaxBuffers) {
        gCounters.BufferBytes.fetch_sub(capacity - held, std::memory_order_relaxed);
        session->PutError("too many large requests at a time");
        return false;
    }
    char *larger = static_cast<char *>(std::realloc(held == 0 ? nullptr : session->In, capacity));
    if (larger == nullptr) {
        gCounters.BufferBytes.fetch_sub(capacity - held, std::memory_order_relaxed);
        session->PutError("no memory for the request");
        return false;
    }
    if (held == 0) std::memcpy(larger, session->SmallIn, session->InUsed);
    session->In = larger;
    session->InCapacity = capacity;
    return true;
}

// Waits for bytes. False at the end of the connection.
bool Receive(Session *session) {
    if (session->InBegin == session->InUsed) {
        session->InBegin = session->InUsed = 0;
        ReleaseInput(session);
    } else if (session->InBegin != 0) {
        session->InUsed -= session->InBegin;
        std::memmove(session->In, session->In + session->InBegin, session->InUsed);
        session->InBegin = 0;
    }
    if (session->InUsed == session->InCapacity && !GrowInput(session)) {
        session->Closing = true;
        return true;
    }
    // The time of an incomplete request runs from its first bytes: more of them now and then must not begin it anew.
    const bool receiving = session->InUsed != 0;
    if (receiving && session->Unfinished) {
        session->Slot->State.store(SessionState::kReceiving, std::memory_order_relaxed);
    } else {
        session->Enter(receiving ? SessionState::kReceiving : SessionState::kIdle);
    }
    session->Unfinished = receiving;
    const size_t room = session->InCapacity - session->InUsed;
    const int got = recv(session->Socket, session->In + session->InUsed, static_cast<int>(room), 0);
    session->GoOn();
    if (got > 0) session->InUsed += static_cast<size_t>(got);
    return got > 0;
}

void SayBroken(Session *session) {
    const char *const error = session->Request.Error;
    std::string text = error;
    if (text.back() == '\'') text = text + (session->Request.Got < ' ' ? '?' : session->Request.Got) + "'";
    session->PutError(text);
    session->EndAnswer();
    session->Closing = true;
}

// Every whole request of the input.
void RunRequests(Session *session) {
    const RespLimits limits{gOptions.MaxValue, MaxRequest()};
    while (!session->Closing && !session->Broken && session->InBegin < session->InUsed) {
        char *const data = session->In + session->InBegin;
        RespRequest &request = session->Request;
        const RespState state = request.Parse(data, session->InUsed - session->InBegin, limits);
        if (state == RespState::kMore) return;
        if (state == RespState::kBroken) {
            SayBroken(session);
            return;
        }
        if (request.Count != 0) {
            session->AnswerBegin = session->OutUsed;
            session->Commands++;
            Execute(session, data, request);
            session->EndAnswer();
        }
        session->InBegin += request.At;
        session->Unfinished = false;
        request.Reset();
        if (session->OutUsed >= kSpillBytes || session->Marks.size() >= kMostMarks) session->Flush();
        GiveWay();
    }
}

void Serve(Session *session) {
    while (!session->Closing && !session->Broken) {
        if (!Receive(session)) break;
        RunRequests(session);
        session->Flush();
    }
    if (session->Slot->End.load() == EndReason::kSlowRequest || session->Slot->End.load() == EndReason::kIdle) {
        session->PutError(session->Slot->End.load() == EndReason::kIdle ? "closed after a long time without a request"
                                                                        : "the request did not come to an end in time");
        session->Flush();
    }
}

DWORD WINAPI SessionThread(LPVOID argument) {
    Session *const session = static_cast<Session *>(argument);
    // The listener holds the section until the handle of this thread is in the record.
    EnterCriticalSection(&gSessions.Section);
    LeaveCriticalSection(&gSessions.Section);
    IdentifyUserThread("SHAD", session->Wait.Event);
    Serve(session);
    UnidentifyUserThread(0);
    FreeSession(session);
    return 0;
}

// The answer that a client gets who is one too many. It fits the buffer of a socket that has sent nothing yet.
void TurnAway(SOCKET client, std::string_view text) {
    send(client, text.data(), static_cast<int>(text.size()), 0);
    shutdown(client, SD_SEND);
    closesocket(client);
    Count(gCounters.Rejected);
}

// The section is held, and there is a free one because sessions are counted.
SessionSlot *TakeSlot(Session *session) {
    uint32_t index = gSessions.Used;
    if (gSessions.Free.empty()) {
        gSessions.Used++;
    } else {
        index = gSessions.Free.back();
        gSessions.Free.pop_back();
    }
    SessionSlot *const slot = &gSessions.Slots[index];
    slot->Since = gSeconds.load();
    slot->State = SessionState::kRunning;
    slot->End = EndReason::kNone;
    slot->Who = session;
    return slot;
}

void StartSession(SOCKET client) {
    if (gSessions.Count.load() >= gOptions.MaxSessions) {
        TurnAway(client, "-ERR max number of clients reached\r\n");
        return;
    }
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    Session *const session = event != nullptr ? new Session : nullptr;
    if (session != nullptr) {
        session->Socket = client;
        session->Wait.Event = event;
        Guard guard(&gSessions.Section);
        session->Thread = CreateThread(nullptr, 0, SessionThread, session, 0, nullptr);
        if (session->Thread != nullptr) {
            session->Id = gSessions.NextId++;
            session->Slot = TakeSlot(session);
            gSessions.Count.fetch_add(1);
            return;
        }
    }
    const std::string reason = ReasonOf(GetLastError());
    delete session;
    if (event != nullptr) CloseHandle(event);
    TurnAway(client, "-ERR no session: " + reason + "\r\n");
}

}  // namespace

// ---- Output ------------------------------------------------------------------------------------------

void Session::GrowOutput(size_t size) {
    size_t capacity = OutCapacity * 2 < kMediumBuffer ? kMediumBuffer : OutCapacity * 2;
    while (capacity - OutUsed < size) capacity *= 2;
    char *larger = static_cast<char *>(std::realloc(Out == SmallOut ? nullptr : Out, capacity));
    if (larger == nullptr) Refuse("no memory for an answer of %zu bytes", capacity);
    if (Out == SmallOut) std::memcpy(larger, SmallOut, OutUsed);
    Out = larger;
    OutCapacity = capacity;
}

void Session::PutLine(char kind, int64_t value) {
    char *const at = Room(24);
    char digits[20];
    size_t count = 0;
    uint64_t left = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        digits[count++] = static_cast<char>('0' + left % 10);
        left /= 10;
    } while (left != 0);
    size_t put = 0;
    at[put++] = kind;
    if (value < 0) at[put++] = '-';
    while (count != 0) at[put++] = digits[--count];
    at[put++] = '\r';
    at[put++] = '\n';
    OutUsed += put;
}

void Session::PutBulk(std::string_view bytes) {
    PutLine('$', static_cast<int64_t>(bytes.size()));
    char *const at = Room(bytes.size() + 2);
    std::memcpy(at, bytes.data(), bytes.size());
    at[bytes.size()] = '\r';
    at[bytes.size() + 1] = '\n';
    OutUsed += bytes.size() + 2;
}

void Session::PutError(std::string_view text) {
    Put("-ERR ");
    Put(text);
    Put("\r\n");
}

void Session::EndAnswer() {
    if (Depends == 0) [[likely]]
        return;
    Marks.push_back(Mark{AnswerBegin, OutUsed, Depends});
    if (Depends > AwaitedSeq) AwaitedSeq = Depends;
    Depends = 0;
}

void Session::Enter(SessionState state) {
    Slot->Since.store(gSeconds.load(std::memory_order_relaxed), std::memory_order_relaxed);
    Slot->State.store(state, std::memory_order_relaxed);
}

void Session::GoOn() {
    while (Slot->End.load(std::memory_order_relaxed) == EndReason::kHopeless) Sleep(INFINITE);
    Slot->State.store(SessionState::kRunning, std::memory_order_relaxed);
}

namespace {

// Waits for the fate of the records behind the answers, and puts the refusal in place of those that were not to be.
// Whether the last answer was one of them.
bool Commit(Session *session) {
    if (session->AwaitedSeq == 0) return false;
    session->Enter(SessionState::kCommitting);
    AwaitRecord(&session->Wait, session->AwaitedSeq);
    session->Slot->State.store(SessionState::kRunning, std::memory_order_relaxed);
    session->AwaitedSeq = 0;
    bool refused = false;
    std::string rebuilt;
    size_t copied = 0;
    for (const Session::Mark &mark : session->Marks) {
        refused = WasRefused(mark.Seq);
        if (!refused) continue;
        rebuilt.append(session->Out + copied, mark.Begin - copied);
        rebuilt += kMisconf;
        copied = mark.End;
    }
    const bool last = refused && session->Marks.back().End == session->OutUsed;
    session->Marks.clear();
    if (copied != 0) {
        rebuilt.append(session->Out + copied, session->OutUsed - copied);
        session->OutUsed = 0;
        session->Put(rebuilt);
    }
    return last;
}

void SendOutput(Session *session) {
    constexpr size_t kMost = 1 << 30;
    for (size_t sent = 0; sent < session->OutUsed && !session->Broken;) {
        const size_t left = session->OutUsed - sent;
        const int size = static_cast<int>(left < kMost ? left : kMost);
        session->Enter(SessionState::kSending);
        const int moved = send(session->Socket, session->Out + sent, size, 0);
        session->GoOn();
        if (moved != size) session->Broken = true;
        sent += static_cast<size_t>(size);
    }
    session->OutUsed = session->AnswerBegin = 0;
}

}  // namespace

bool Session::Spill() {
    // Everything the answer depends on is known by now, so that a refusal takes the place of its first byte.
    EndAnswer();
    const bool refused = Commit(this);
    SendOutput(this);
    return !refused && !Broken;
}

void Session::Flush() {
    Commit(this);
    SendOutput(this);
    Count(gCounters.Commands, Commands);
    Commands = 0;
    if (Out != SmallOut) {
        std::free(Out);
        Out = SmallOut;
        OutCapacity = kSmall;
    }
    if (Marks.capacity() > 32) std::vector<Mark>().swap(Marks);
}

// ---- Life --------------------------------------------------------------------------------------------

void InitSessions() {
    InitializeCriticalSection(&gSessions.Section);
    gSessions.Slots = static_cast<SessionSlot *>(std::calloc(gOptions.MaxSessions, sizeof(SessionSlot)));
    if (gSessions.Slots == nullptr) Refuse("no memory for %u sessions", gOptions.MaxSessions);
}

void FreeSession(Session *session) {
    ForgetWaiter(&session->Wait);
    {
        Guard guard(&gSessions.Section);
        session->Slot->Who = nullptr;
        gSessions.Free.push_back(static_cast<uint32_t>(session->Slot - gSessions.Slots));
        gSessions.Count.fetch_sub(1);
    }
    ReleaseInput(session);
    if (session->Out != session->SmallOut) std::free(session->Out);
    closesocket(session->Socket);
    CloseHandle(session->Wait.Event);
    CloseHandle(session->Thread);
    delete session;
}

SOCKET OpenListener(uint32_t *port) {
    WSADATA data;
    WSAStartup(0x0202, &data);
    const auto refuse = [](int error) {
        Refuse("cannot listen on %s:%u: %s", gOptions.Bind.c_str(), gOptions.Port,
               error == static_cast<int>(WSAEADDRINUSE) ? "the address is in use"
                                                        : ("error " + std::to_string(error)).c_str());
    };
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
    if (listener == INVALID_SOCKET) refuse(WSAGetLastError());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(gOptions.Port));
    address.sin_addr.s_addr = inet_addr(gOptions.Bind.c_str());
    if (address.sin_addr.s_addr == INADDR_NONE) Refuse("--bind wants an IPv4 address, not '%s'", gOptions.Bind.c_str());
    // Accepted sockets inherit these. Probes find clients that went away without a word.
    const int on = 1, idle = 60, interval = 15, probes = 4;
    const auto set = [listener](int level, int name, int value) {
        setsockopt(listener, level, name, reinterpret_cast<const char *>(&value), sizeof value);
    };
    set(SOL_SOCKET, SO_REUSEADDR, on);
    set(SOL_SOCKET, SO_KEEPALIVE, on);
    set(IPPROTO_TCP, TCP_NODELAY, on);
    set(IPPROTO_TCP, TCP_KEEPIDLE, idle);
    set(IPPROTO_TCP, TCP_KEEPINTVL, interval);
    set(IPPROTO_TCP, TCP_KEEPCNT, probes);
    int length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener, 4096) != 0 || getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        refuse(WSAGetLastError());
    }
    *port = ntohs(address.sin_port);
    return listener;
}

DWORD WINAPI Listener(LPVOID argument) {
    const SOCKET listener = reinterpret_cast<SOCKET>(argument);
    for (;;) {
        const SOCKET client = accept(listener, nullptr, nullptr);
        if (client != INVALID_SOCKET) {
            Count(gCounters.Connections);
            StartSession(client);
            continue;
        }
        if (gStop.load()) return 0;
        // Out of descriptors or memory, which ends when a session does.
        static uint32_t complained = ~0u;
        if (complained != gSeconds.load()) std::fprintf(stderr, "keyhost: accept: error %d\n", WSAGetLastError());
        complained = gSeconds.load();
        Sleep(50);
    }
}

}  // namespace host
