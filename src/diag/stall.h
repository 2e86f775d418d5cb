// diag/stall.h - reports about user threads that keep their scheduler for too long.
#ifndef ZVX_DIAG_STALL_H
#define ZVX_DIAG_STALL_H

namespace zvx {

// Start-up. With "StallReportMs" above 0, starts the kernel thread that watches the schedulers; otherwise nothing. One
// that cannot be started costs the reports only.
void StartStallWatch();

}  // namespace zvx

#endif  // ZVX_DIAG_STALL_H
