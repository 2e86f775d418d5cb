// tools/zvxctl/main.cpp - the command line of zvxctl.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "commands.h"

namespace zvxctl {

volatile std::sig_atomic_t gStop;

void CatchSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { gStop = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

void SleepMs(uint64_t ms) {
    timespec time{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    while (!gStop && nanosleep(&time, &time) != 0 && errno == EINTR) {
    }
}

}  // namespace zvxctl

int main(int argc, char **argv) {
    using namespace zvxctl;
    CLI::App app{"zvxctl - looks into a process that runs on libzvxkvt, from outside and without stopping it"};
    app.require_subcommand(1);
    app.footer(
        "Reading another process needs the right to trace it: the same user (and kernel.yama.ptrace_scope 0), or\n"
        "the capability CAP_SYS_PTRACE. Exit code: 0 done, 1 it could not be done, 2 the command line is wrong.");
    const auto withPid = [](CLI::App *command, pid_t *pid) {
        command->add_option("PID", *pid, "Process number (see zvxctl list)")->required()->check(CLI::PositiveNumber);
        return command;
    };

    app.add_subcommand("list", "The processes on this machine that run on the library");

    ThreadsOptions threads;
    CLI::App *command = withPid(
        app.add_subcommand("threads", "Every user thread: state, what it waits for, where it is parked"), &threads.Pid);
    command->add_option("--sort", threads.Sort, "cpu, wait (longest first) or tag; else by scheduler and number")
        ->check(CLI::IsMember({"cpu", "wait", "tag"}));
    command->add_option("--scheduler", threads.Scheduler, "Only those of this scheduler");
    command->add_flag("--no-places", threads.NoPlaces, "Do not look for the functions where they are parked");
    command->footer(
        "N is the number by which the gdb command `zvx bt N` knows the thread; THREAD is its id inside the process, "
        "as\n"
        "in the names of dumps. WAITS FOR shows the limit of a wait that has one, WAIT MS how long it has lasted.\n"
        "WHERE is the function of the host and, after >, the call of the library in which it waits.");

    pid_t schedPid = 0;
    command =
        withPid(app.add_subcommand("sched", "Every scheduler: its queues, counters, and what it does now"), &schedPid);
    command->footer(
        "TID and K: the scheduler's kernel thread and its state (R running, S asleep). TIMED, INFIN., I/O, SUSP.: "
        "user\n"
        "threads that wait with and without a limit, for an operation, or are suspended. OPS: operations under way.\n"
        "SWITCHES, POSTS, POLLED, PACKETS: so often since the start; the last two are operations that ended. LONGEST\n"
        "HOLD: the longest time without a yield in this second and the one before, and whose.");

    pid_t usagePid = 0;
    command = withPid(app.add_subcommand("usage", "What the library holds: handles, records, operations, memory"),
                      &usagePid);
    command->footer(
        "One figure a line, for scripts that look for growth. HANDLES are those of the operating system layer,\n"
        "LIBRARY_HANDLES those that the library knows more about; RECORDS_... are counted where they are made and\n"
        "freed, so that a figure taken in the middle may be off by a few. MEMORY_BYTES is never given back.");

    TopOptions top;
    command = withPid(app.add_subcommand("top", "Schedulers and busiest user threads, again and again"), &top.Pid);
    command->add_option("-n", top.Count, "End after so many pictures");
    command->add_option("-d", top.Seconds, "Seconds between two pictures")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 3600.0));

    TraceOptions trace;
    command = withPid(app.add_subcommand("trace", "Records every switch, wait, post and completion for a viewer"),
                      &trace.Pid);
    command->add_option("--seconds", trace.Seconds, "For so long")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
    command->add_option("--output", trace.Output, "File in the trace event format (JSON), for a browser's viewer")
        ->required();
    command->add_option("--limit", trace.MostEvents, "Events that are kept at most")->capture_default_str();

    DumpOptions dump;
    command =
        withPid(app.add_subcommand("dump", "Asks the process for dumps of its user threads, and prints their names"),
                &dump.Pid);
    command->add_option("--timeout", dump.Seconds, "Seconds to wait for them")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 86400.0));

    LogOptions log;
    command = withPid(app.add_subcommand("log", "Prints the ring log of the process"), &log.Pid);
    command->add_flag("--follow,-f", log.Follow, "Go on with what is added, until the process ends");
    command->add_flag("--trace", log.Trace, "The trace log instead");

    std::string pipe;
    std::vector<std::string> words;
    double seconds = 10;
    command =
        app.add_subcommand("admin", "Sends a command to the administration pipe of a server, and prints the answer");
    command->add_option("PIPE", pipe, R"(Name of the pipe, with or without \\.\pipe\)")->required();
    command->add_option("COMMAND", words, "The command and its arguments")->required();
    command->add_option("--timeout", seconds, "Seconds to wait for the pipe")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 3600.0));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kExitUsage;
    }
    try {
        const auto chosen = [&](const char *name) { return app.got_subcommand(name); };
        int code = 0;
        if (chosen("list")) code = ListInstances();
        if (chosen("threads")) code = ShowThreads(threads);
        if (chosen("sched")) code = ShowSchedulers(schedPid);
        if (chosen("usage")) code = ShowUsage(usagePid);
        if (chosen("top")) code = ShowTop(top);
        if (chosen("trace")) code = RecordTrace(trace);
        if (chosen("dump")) code = RequestDump(dump);
        if (chosen("log")) code = PrintLog(log);
        if (chosen("admin")) code = SendAdminCommand(pipe, words, seconds);
        return code;
    } catch (const Failure &failure) {
        std::fflush(stdout);
        fmt::print(stderr, "zvxctl: {}\n", failure.what());
        return failure.Code;
    } catch (const std::exception &error) {
        fmt::print(stderr, "zvxctl: {}\n", error.what());
        return kExitFailed;
    }
}
