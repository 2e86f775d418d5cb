// diag/timesource.h - the processor's cycle counter against the operating system's clock.
#ifndef ZVX_DIAG_TIMESOURCE_H
#define ZVX_DIAG_TIMESOURCE_H

#include <cstdint>

#include "platform/os.h"

namespace zvx {

extern double gCpuFrequency;     // init: counter ticks per second
extern uint64_t gTscTicksPerMs;  // init

inline uint64_t ReadTsc() { return os::ReadTsc(); }
double MeasureTscRate();  // one measurement over a 50 ms sleep; blocks the kernel thread
void CalcFreq();          // sets gCpuFrequency and gTscTicksPerMs; start-up only

}  // namespace zvx

#endif  // ZVX_DIAG_TIMESOURCE_H
