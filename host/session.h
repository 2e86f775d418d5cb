// host/session.h - sessions: one user thread, one connection, one client.
#ifndef HOST_SESSION_H
#define HOST_SESSION_H

#include <string>
#include <vector>

#include "log.h"
#include "resp.h"
#include "zvxkvt/sockets.h"

namespace host {

enum class SessionState : uint8_t { kRunning, kIdle, kReceiving, kCommitting, kSending };
enum class EndReason : uint8_t { kNone, kIdle, kSlowRequest, kSlowReader, kHopeless };

// What the monitor looks at, apart from the sessions: it passes thousands of these a second, one behind the other.
struct SessionSlot {
    struct Session *Who;              // [sessions] null: free
    std::atomic<uint32_t> Since;      // session's: monitor's second in which it entered State
    std::atomic<SessionState> State;  // session's
    std::atomic<EndReason> End;       // monitor's: why the connection was shut down
    uint32_t EndedAt;                 // monitor's: when
};

// One instance stands for a client, from accept to the end of its thread. The thread owns all that is not marked; the
// monitor reads its slot and shuts the connection down, which ends whatever the thread waits for. The session frees
// itself; where its thread was terminated, the monitor does.
//
// A session at rest holds no memory but this record: requests and answers that are larger than the two small buffers
// have buffers of their own for as long as they last.
struct Session {
    SessionSlot *Slot = nullptr;  // init
    HANDLE Thread = nullptr;      // [sessions] to write
    SOCKET Socket = INVALID_SOCKET;
    uint64_t Id = 0;  // init
    Waiter Wait;      // its post event, and what it waits for
    std::string Name;
    bool Closing = false;  // nothing more is read; what is in the output is sent
    bool Broken = false;   // the connection is gone
    bool Unfinished = false;  // the time of a request that is not complete runs already

    // Input: the bytes in [Begin, Used) are not dealt with, and Request begins at Begin.
    char *In = SmallIn;
    size_t InCapacity = kSmall;
    size_t InBegin = 0;
    size_t InUsed = 0;
    RespRequest Request;

    // Output since the last send. Answers that depend on records whose fate is open are noted, so that they can be
    // replaced should these be refused.
    struct Mark {
        size_t Begin, End;
        uint64_t Seq;
    };
    char *Out = SmallOut;
    size_t OutCapacity = kSmall;
    size_t OutUsed = 0;
    size_t AnswerBegin = 0;   // of the command that runs
    uint64_t Depends = 0;     // newest record that its answer depends on, 0 for none
    uint64_t AwaitedSeq = 0;  // newest of all in the output
    std::vector<Mark> Marks;
    uint64_t Commands = 0;  // since the last send

    static constexpr size_t kSmall = 1024;
    char SmallIn[kSmall];
    char SmallOut[kSmall];

    char *Room(size_t size) {
        if (OutCapacity - OutUsed < size) [[unlikely]]
            GrowOutput(size);
        return Out + OutUsed;
    }
    void Put(std::string_view bytes) {
        std::memcpy(Room(bytes.size()), bytes.data(), bytes.size());
        OutUsed += bytes.size();
    }
    void PutError(std::string_view text);  // without "-ERR "
    void PutInteger(int64_t value) { PutLine(':', value); }
    void PutArray(size_t count) { PutLine('*', static_cast<int64_t>(count)); }
    void PutBulk(std::string_view bytes);
    void PutNull() { Put("$-1\r\n"); }
    void PutLine(char kind, int64_t value);
    void GrowOutput(size_t size);

    // The answer of the command that runs is only true if the record becomes durable.
    void DependOn(uint64_t seq) {
        if (gOptions.Sync == Durability::kAlways && seq > Depends && seq > SettledSeq()) Depends = seq;
    }
    // Ends the command's answer.
    void EndAnswer();
    // In the middle of a long answer: sends what there is. False when the rest need not be made.
    bool Spill();
    // Waits for the records that the output depends on, and sends it.
    void Flush();

    void Enter(SessionState state);
    void GoOn();  // after a send or a receive
};

constexpr size_t kSpillBytes = 64 << 10;  // output that is sent before the input is through

// Runs one request; its answer is appended to the output.
void Execute(Session *session, const char *data, const RespRequest &request);
void InitCommands();

// The listening socket; *port receives the port that it got. Ends the process when there is none.
SOCKET OpenListener(uint32_t *port);
DWORD WINAPI Listener(LPVOID socket);
// "PMON": looks at every session once a second; and removes expired keys.
DWORD WINAPI Monitor(LPVOID);

// All sessions.
struct Sessions {
    CRITICAL_SECTION Section;
    SessionSlot *Slots = nullptr;    // init: one for each session that there may be
    std::vector<uint32_t> Free;      // [Section] slots that were left
    uint32_t Used = 0;               // [Section] slots that were ever taken
    std::atomic<uint32_t> Count{0};  // [Section] to write
    uint64_t NextId = 1;             // [Section]
};
extern Sessions gSessions;
extern std::atomic<uint32_t> gSeconds;  // the monitor's clock
void InitSessions();
// Takes the record out of the list and frees it with all that belongs to it.
void FreeSession(Session *session);

std::string InfoText(std::string_view section);

}  // namespace host

#endif  // HOST_SESSION_H
