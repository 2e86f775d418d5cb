// host/base.h - what every file of the server shares: options, counters, checksums, sections, clocks.
//
// The server uses the C++ standard library and include/zvxkvt/, nothing else. Any user thread calls what is here;
// nothing here waits, except Guard when its section is taken, and GiveWay.
#ifndef HOST_BASE_H
#define HOST_BASE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

namespace host {

enum class Durability : uint8_t { kAlways, kEverySecond, kNo };

// init: written by main before the library starts, read by everybody.
struct Options {
    std::string Bind = "127.0.0.1";
    uint32_t Port = 6379;  // 0: the system chooses one
    std::string Dir = ".";
    std::string TraceDir;  // empty: Dir
    std::string Schedulers = "1";
    bool Threads = false;
    bool MayMigrate = false;  // the log writer may have a scheduler of its own
    bool Migrate = false;     // and has it from the start
    Durability Sync = Durability::kAlways;
    uint32_t MaxSessions = 10000;
    uint64_t MaxValue = 8 << 20;       // bytes of a key or a value
    uint64_t MaxBuffers = 256 << 20;   // bytes of all half-received requests together
    uint64_t SegmentBytes = 32 << 20;  // of a log file, more where a request needs it
    uint64_t CheckpointBytes = 0;      // log written since the last checkpoint that asks for the next; 0: two segments
    uint32_t SendTimeout = 30;         // seconds that a client may leave an answer unread
    uint32_t RequestTimeout = 60;      // seconds that a request may stay half-sent
    uint32_t IdleTimeout = 0;          // seconds without a request; 0: no limit
    bool Admin = false;                // there is a pipe for the administrator
    std::string AdminPipe;             // its name; empty: one with the process's number
};
extern Options gOptions;

// A request in whole: a command, its keys and one or two values of the largest size.
inline uint64_t MaxRequest() {
    return 2 * gOptions.MaxValue + (1 << 20);
}

// atomic, relaxed: figures for INFO only.
struct Counters {
    std::atomic<uint64_t> Connections{0};
    std::atomic<uint64_t> Rejected{0};  // above the limit of sessions
    std::atomic<uint64_t> Commands{0};
    std::atomic<uint64_t> Commits{0};    // records that became durable (or were written, where nobody waits)
    std::atomic<uint64_t> LogWrites{0};  // batches
    std::atomic<uint64_t> LogBytes{0};
    std::atomic<uint64_t> Refused{0};  // records that were taken back
    std::atomic<uint64_t> Checkpoints{0};
    std::atomic<uint64_t> Expired{0};
    std::atomic<uint64_t> Cleaned{0};  // sessions that PMON ended
    std::atomic<uint64_t> BufferBytes{0};
};
extern Counters gCounters;

inline void Count(std::atomic<uint64_t> &counter, uint64_t n = 1) {
    counter.fetch_add(n, std::memory_order_relaxed);
}
inline uint64_t Figure(const std::atomic<uint64_t> &counter) {
    return counter.load(std::memory_order_relaxed);
}

// 1 while some user thread has run for too long; written by the library.
extern uint32_t gQuantumIndicator;
// In long computations: yields when it was the calling thread.
inline void GiveWay() {
    if (std::atomic_ref<uint32_t>(gQuantumIndicator).load(std::memory_order_relaxed) != 0) [[unlikely]]
        UserThreadQuantumExpiredCheck();
}

// Set by SIGTERM, SIGINT and SHUTDOWN; the main routine looks at it.
extern std::atomic<bool> gStop;
// A message for the operator on standard error, then the end of the process with code 1.
[[noreturn]] void Refuse(const char *format, ...) __attribute__((format(printf, 1, 2)));
// The reason of a last error, for messages.
std::string ReasonOf(DWORD error);
// An event that is not set and resets itself, for the posts of one user thread. Without one nobody could wake that
// thread: the server does not start.
HANDLE MakePostEvent();

// Holds a section for a scope. The order in which sections nest: shards by rising index, then the log's, then that of
// the sessions. None is held over a call that waits, except for the next section of that order.
class Guard {
  public:
    explicit Guard(CRITICAL_SECTION *section) : Section(section) { EnterCriticalSection(Section); }
    ~Guard() { LeaveCriticalSection(Section); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

  private:
    CRITICAL_SECTION *Section;
};

uint32_t Crc32c(uint32_t crc, const void *data, size_t size);
uint64_t HashKey(std::string_view key);
uint64_t RandomNumber();  // not for secrets

inline int64_t NowMs() {  // since 1970
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace host

#endif  // HOST_BASE_H
