// tools/zvxctl/commands.h - what each command does. Each returns the exit code, or ends by Failure.
#ifndef ZVXCTL_COMMANDS_H
#define ZVXCTL_COMMANDS_H

#include <csignal>

#include "library.h"

namespace zvxctl {

extern volatile std::sig_atomic_t gStop;  // set by Ctrl-C and SIGTERM once CatchSignals was called
void CatchSignals();
void SleepMs(uint64_t ms);  // returns early when gStop is set

// show.cpp
int ListInstances();
struct ThreadsOptions {
    pid_t Pid = 0;
    std::string Sort;  // empty: by scheduler and number
    std::optional<uint32_t> Scheduler;
    bool NoPlaces = false;
};
int ShowThreads(const ThreadsOptions &options);
int ShowSchedulers(pid_t pid);
int ShowUsage(pid_t pid);

// top.cpp
struct TopOptions {
    pid_t Pid = 0;
    uint32_t Count = 0;  // pictures; 0: until it is stopped
    double Seconds = 2;  // between two of them
};
int ShowTop(const TopOptions &options);

// trace.cpp
struct TraceOptions {
    pid_t Pid = 0;
    double Seconds = 3;
    std::string Output;
    uint64_t MostEvents = 2000000;
};
int RecordTrace(const TraceOptions &options);

// ask.cpp
struct DumpOptions {
    pid_t Pid = 0;
    double Seconds = 60;
};
int RequestDump(const DumpOptions &options);
struct LogOptions {
    pid_t Pid = 0;
    bool Follow = false;
    bool Trace = false;  // the trace log rather than the ring log
};
int PrintLog(const LogOptions &options);
int SendAdminCommand(const std::string &pipe, const std::vector<std::string> &words, double seconds);

}  // namespace zvxctl

#endif  // ZVXCTL_COMMANDS_H
