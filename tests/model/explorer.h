// tests/model/explorer.h - runs the library's own code under every schedule of a few schedulers, up to a bound.
//
// How the search goes is in docs/testing.md. The parent process builds the scenario once; each run is a fork of it.
// There is a choice
//   - before an access to a word that two schedulers share and one of them writes. Going on costs nothing, switching to
//     another scheduler costs one preemption;
//   - before the lock of the ports' queues, which stands for the operating system's calls about ports;
//   - when a scheduler blocks in its port or spins: the next in turn, or at the cost of one turn another;
//   - an event of the scenario (an operation ends) may come in instead, at the price of a preemption, or of a turn
//     where nobody runs. A wait in a port may time out early, at the price of a preemption and a tick.
//
// What is seen is every interleaving of whole operations (sequential consistency); with the option "buffers" stores
// that are not sequentially consistent stay unseen by others until the next locked operation or fence.
#ifndef ZVX_TESTS_MODEL_EXPLORER_H
#define ZVX_TESTS_MODEL_EXPLORER_H

#include <functional>

#include "sched/records.h"

namespace zvx::model {

struct Bounds {
    uint32_t Preemptions;
    uint32_t Turns;  // where nobody can go on running: how often another than the next in turn is taken
    uint32_t Ticks;  // waits in a port that may end early because time passes while others run
};

// Setup runs once, in the parent, with an initialised library and its schedulers, at most four. Check (may be null)
// looks at the outcome of a run. Neither may be preempted.
struct Scenario {
    const char *Name;
    uint32_t Schedulers;
    uint32_t PortWaitMs;
    void (*Setup)();
    void (*Check)();
    Bounds Quick;
    Bounds Wide;
};
extern const Scenario gScenarios[];
extern const uint32_t gNumScenarios;
// Before every Setup.
void BeginScenario();
// Asked when every scheduler is blocked in its port and nothing will end the wait but the time; until it says true time
// passes, which is bounded.
bool AllEnded();

// ---- For Setup ---------------------------------------------------------------------------------------

// An operation of the second scheduler that ends by itself, once, with `bytes`; `running`: null where it does not run.
void AddEnd(const char *name, uint32_t bytes, std::function<OVERLAPPED *()> running);
// Lets everybody run until all are blocked, without any choice. The search starts afterwards, with nobody blocked.
void RunToRest();
// ---- Anywhere ----------------------------------------------------------------------------------------

// From a user thread: another scheduler may come in here. `mustGive`: it goes on only where nobody else can.
void MayStop(bool mustGive = false);
// The property does not hold: ends the run, and the search.
[[noreturn]] void Violation(const char *format, ...) __attribute__((format(printf, 1, 2)));
#define MUST(condition)                                                                              \
    do {                                                                                             \
        if (!(condition)) ::zvx::model::Violation("%s:%d: %s", __FILE_NAME__, __LINE__, #condition); \
    } while (0)

// ---- What the hooks of the instrumented library report (hooks.cpp) ------------------------------------

// True while code of a scheduler runs; false in the explorer, where no hook does anything.
extern bool gInScheduler;
extern bool gBuffering;     // option "buffers"
extern uint32_t gBuffered;  // stores that are delayed now

// The running scheduler is about to use the word at `address`; returns when it may. `pc` is where.
void BeforeAccess(const volatile void *address, bool write, const void *pc);
// It waits for somebody else: a spin lock, a look for messages.
void WhileSpinning();

// Option "buffers": stores that only their own scheduler sees become visible, at the latest when it gives the processor
// away.
void FlushStores();
uint32_t RunningScheduler();
void NoteDelayedStore(const volatile void *address);

}  // namespace zvx::model

#endif  // ZVX_TESTS_MODEL_EXPLORER_H
