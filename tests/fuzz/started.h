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
inline uint32_t gIndicator;

inline int Lookup(const char *name, char *buffer, int capacity) {
    const std::string_view key = name;
    const std::string_view value = key == "ZVX_FIBERS_Schedulers"       ? "1"
                                   : key == "ZVX_FIBERS_StackPages"     ? "64"
                                   : key == "ZVX_FIBERS_PrintToConsole" ? "0"
                                                                        : "";
    std::memcpy(buffer, value.data(), std::min(value.size(), static_cast<size_t>(capacity)));
    return static_cast<int>(value.size());
}

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
        std::thread([] {
            ZVXKVT_INIT_PARAMS params{};
            params.QuantumIndicator = &gIndicator;
            params.LookupValue = Lookup;
            params.TraceDirectory = "./";
            InitUserThreadScheduler(TakeInputs, nullptr, &params);
        }).detach();
    }
    gInput = Input{data, size};
    const uint32_t turn = ++gTurn;
    gTurn.notify_all();
    while (gTurn == turn) gTurn.wait(turn);
}

}  // namespace fuzz

#endif  // ZVX_TESTS_FUZZ_STARTED_H
