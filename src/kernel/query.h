// kernel/query.h - figures about the running library that tools and examples show.
#ifndef ZVX_KERNEL_QUERY_H
#define ZVX_KERNEL_QUERY_H

#include <cstdint>

namespace zvx {

uint32_t SchedulerCount();  // static schedulers; 0 outside fiber mode
// User threads and passes through the selection (wraps) of a scheduler, both as of now; false for no such scheduler.
bool SchedulerFigures(uint32_t index, uint32_t *userThreads, uint32_t *switches);

}  // namespace zvx

#endif  // ZVX_KERNEL_QUERY_H
