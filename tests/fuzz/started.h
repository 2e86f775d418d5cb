// tests/fuzz/started.h - runs a fuzzer's inputs on a user thread of the started library.
//
// The library starts once, on a thread of its own, with one scheduler. Its main routine takes inputs from libFuzzer's
// thread; between two of them it keeps its scheduler waiting, so that nothing runs that no input has asked for.
#ifndef ZVX_TESTS_FUZZ_STARTED_H
#define ZVX_TESTS_FUZZ_STARTED_H

#include <atomic>
#include <thread>

#include "fuzz/fuzz.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

// Stacks of user threads are no roots to the leak checker.
extern "C" inline __attribute__((used)) int __lsan_is_turned_off() { return 1; }

namespace fuzz {

using Body = void (*)(Input input);
inline Body gBody;
inline Input gInput;
inline std::atomic<uint32_t> gTurn{0};  // odd: the input is the user thread's

inline DWORD WINAPI TakeInputs(LPVOID) {
    for (uint32_t turn = 1;; turn += 2) {
        for (uint32_t now = gTurn; now != turn; now = gTurn) gTurn.wait(now);
        gBody(gInput);
        gTurn = turn + 1;
        gTurn.notify_all();
    }
}

// From LLVMFuzzerTestOneInput.
inline void RunStarted(Body body, const uint8_t *data, size_t size) {
    if (gBody == nullptr) {
        gBody = body;
        setenv("ZVX_FIBERS_Schedulers", "1", 1);
        setenv("ZVX_FIBERS_StackPages", "64", 1);
        setenv("ZVX_FIBERS_PrintToConsole", "0", 1);
        std::thread([] { InitUserThreadScheduler(TakeInputs, nullptr, nullptr); }).detach();
    }
    gInput = Input{data, size};
    const uint32_t turn = ++gTurn;
    gTurn.notify_all();
    while (gTurn == turn) gTurn.wait(turn);
}

}  // namespace fuzz

#endif  // ZVX_TESTS_FUZZ_STARTED_H
