// kernel/query.cpp - figures about the running library. Any thread may ask; nothing here changes anything.
#include "kernel/query.h"

#include "config/settings.h"

namespace zvx {

uint32_t SchedulerCount() {
    return FiberModeActive() ? gNumSchedulers : 0;
}

}  // namespace zvx
