// sched/cleanup.cpp - clean-up functions of the waits that a user thread is in.
//
// A wait that owns a resource registers a function that undoes it when the thread is terminated while parked,
// or a routine is injected into it. Registrations are strictly nested, two at most. The table belongs to its
// fiber: it is changed by code that runs as that fiber.
#include "diag/trace.h"
#include "sched/sched.h"

namespace zvx {

enum : uint32_t { kCleanupTerminate = 1, kCleanupBeforeRoutine = 2, kCleanupAfterRoutine = 3 };

uint32_t TermCleanupFuncSet(Fiber *F, TermCleanupFunc func) {
    TermCleanupTable *table = &F->TermCleanup;
    if (table->Count == 2) FatalExit("TermCleanupFuncSet: limit hit %u", table->Count);
    table->Funcs[table->Count] = func;
    return table->Count++;
}

void TermCleanupFuncRemove(Fiber *F, TermCleanupFunc) {
    TermCleanupTable *table = &F->TermCleanup;
    if (table->Count != 1 && table->Count != 2) FatalExit("TermCleanupFuncRemove: limit hit %u", table->Count);
    table->Count--;
}

void RunTermCleanups(Fiber *F, Scheduler *S) {
    TermCleanupTable *table = &F->TermCleanup;
    for (;;) {
        while (table->Count > 0) {
            table->Count--;
            table->Funcs[table->Count](F, S, table->Args[table->Count], kCleanupTerminate);
        }
        if (!(F->Flags & FIBER_EXEC_RUNNING)) return;
        // Terminated inside an injected routine: the interrupted wait is undone as well.
        RestoreTermCleanups(F, S);
        F->Flags &= ~static_cast<uint32_t>(FIBER_EXEC_PENDING | FIBER_EXEC_RUNNING);
    }
}

void SuspendTermCleanups(Fiber *F, Scheduler *S) {
    TermCleanupTable *table = &F->TermCleanup;
    table->SavedCount = table->Count;
    while (table->Count > 0) {
        uint32_t i = --table->Count;
        table->Funcs[i](F, S, table->Args[i], kCleanupBeforeRoutine);
        table->SavedFuncs[i] = table->Funcs[i];
        for (int k = 0; k < 3; ++k) table->SavedArgs[i][k] = table->Args[i][k];
    }
}

void RestoreTermCleanups(Fiber *F, Scheduler *S) {
    TermCleanupTable *table = &F->TermCleanup;
    while (table->Count < table->SavedCount) {
        uint32_t i = table->Count;
        for (int k = 0; k < 3; ++k) table->Args[i][k] = table->SavedArgs[i][k];
        table->Funcs[i] = table->SavedFuncs[i];
        table->Funcs[i](F, S, table->Args[i], kCleanupAfterRoutine);
        table->Count++;
    }
    table->SavedCount = 0;
}

}  // namespace zvx
