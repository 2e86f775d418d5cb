// kernel/query.h - figures about the running library that tools and examples show.
#ifndef ZVX_KERNEL_QUERY_H
#define ZVX_KERNEL_QUERY_H

#include <cstdint>

namespace zvx {

uint32_t SchedulerCount();  // static schedulers; 0 outside fiber mode

}  // namespace zvx

#endif  // ZVX_KERNEL_QUERY_H
