// sched/figures.cpp - what an operator wants to see over time: once a second, each scheduler publishes its longest
// hold, and the first one queues a line for the ring log about all of them.
//
// The counts are kept where things happen, by their scheduler alone; nothing here runs on the switch path except that a
// time without a yield that is the longest of its second so far is noted, which becomes rarer as the second goes on.
#include <cstring>

#include "diag/ringlog.h"
#include "diag/timesource.h"
#include "sched/internal.h"

namespace zvx {

namespace {

struct Totals {
    uint64_t Sessions, Threads, Switches, Posts, Polled, Packets;
};

// Figures of a moment: other schedulers run on meanwhile.
Totals SumUp() {
    Totals sum{};
    const uint32_t made = gSchedulersMade.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < made; ++i) {
        const Scheduler *S = gSchedulers[i];
        if (S == nullptr) continue;
        sum.Sessions += S->ShadowCount.load(std::memory_order_relaxed);
        sum.Threads += S->FiberCount.load(std::memory_order_relaxed);
        sum.Switches += S->SwitchCount.load(std::memory_order_relaxed);
        sum.Posts += S->Posts.load(std::memory_order_relaxed);
        sum.Polled += S->DonePolled.load(std::memory_order_relaxed);
        sum.Packets += S->DoneByPacket.load(std::memory_order_relaxed);
    }
    return sum;
}

// SwitchCount is 32 bits wide and wraps every few minutes of a busy scheduler: the sum of a second never does.
uint64_t SwitchesSince(uint64_t now, uint64_t before) {
    return static_cast<uint32_t>(now - before);
}

void QueueLine(uint64_t elapsedMs) {
    static Totals last;  // scheduler 0's
    const Totals sum = SumUp();
    uint64_t hold = 0, holder = 0;
    uint32_t where = 0;
    const uint32_t made = gSchedulersMade.load(std::memory_order_acquire);
    for (uint32_t i = 0; i < made; ++i) {
        const Scheduler *S = gSchedulers[i];
        if (S == nullptr || S->SecondHold.load(std::memory_order_relaxed) <= hold) continue;
        hold = S->SecondHold.load(std::memory_order_relaxed);
        holder = S->SecondHolder.load(std::memory_order_relaxed);
        where = i;
    }
    char tag[sizeof holder + 1] = {};
    std::memcpy(tag, &holder, sizeof holder);
    const auto perSecond = [elapsedMs](uint64_t count) {
        return static_cast<unsigned long long>(count * 1000 / elapsedMs);
    };
    SYSTEMTIME now;
    os::GetLocalTime(&now);
    RingLogPrintf(
        "%04d-%02d-%02d %02d:%02d:%02d sessions %llu threads %llu switches %llu/s posts %llu/s polled %llu/s "
        "packets %llu/s hold %.3f ms [%s] on %u dropped %llu\n",
        now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
        static_cast<unsigned long long>(sum.Sessions), static_cast<unsigned long long>(sum.Threads),
        perSecond(SwitchesSince(sum.Switches, last.Switches)), perSecond(sum.Posts - last.Posts),
        perSecond(sum.Polled - last.Polled), perSecond(sum.Packets - last.Packets),
        static_cast<double>(hold) / static_cast<double>(gTscTicksPerMs), tag, where,
        static_cast<unsigned long long>(gRingDropped.load(std::memory_order_relaxed)));
    last = sum;
}

}  // namespace

void NoteLongHold(Scheduler *S, const Fiber *F, uint64_t cycles) {
    if (F == S->InitFiber) return;  // it waits in the port, and polls: that time is nobody's
    S->LongestHold = cycles;
    S->LongestHolder = F;
    // A copy: the host may take the text away once the thread has ended.
    char tag[sizeof S->LongestHolderTag] = {};
    const char *text = F->Tag.load(std::memory_order_relaxed);
    for (size_t i = 0; text != nullptr && i < sizeof tag && text[i] != 0; ++i) tag[i] = text[i];
    std::memcpy(&S->LongestHolderTag, tag, sizeof tag);
}

void RollSecond(Scheduler *S, uint64_t now) {
    S->SecondHold.store(S->LongestHold, std::memory_order_relaxed);
    S->SecondHolder.store(S->LongestHolderTag, std::memory_order_relaxed);
    S->LongestHold = 0;
    S->LongestHolder = nullptr;
    const uint64_t elapsed = now - S->SecondStart;
    S->SecondStart = now;
    if (S->Index == 0 && OptionSet(su_LogToFile)) QueueLine(elapsed);
}

}  // namespace zvx
