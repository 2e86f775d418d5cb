// kernel/query.cpp - figures about the running library. Any thread may ask; nothing here changes anything.
#include "kernel/query.h"

#include "config/settings.h"
#include "sched/records.h"

namespace zvx {

uint32_t SchedulerCount() {
    return FiberModeActive() ? gNumSchedulers : 0;
}

bool SchedulerFigures(uint32_t index, uint32_t *userThreads, uint32_t *switches) {
    if (index >= SchedulerCount() || gSchedulers[index] == nullptr) return false;
    *userThreads = gSchedulers[index]->FiberCount.load(std::memory_order_relaxed);
    *switches = gSchedulers[index]->SwitchCount.load(std::memory_order_relaxed);
    return true;
}

}  // namespace zvx
