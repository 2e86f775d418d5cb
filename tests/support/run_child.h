// tests/support/run_child.h - a piece of a test in a child process, for everything that ends the process.
//
// The child starts as a copy of the test's process and never returns into it.
#ifndef ZVX_TESTS_SUPPORT_RUN_CHILD_H
#define ZVX_TESTS_SUPPORT_RUN_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

struct ChildResult {
    int Signal = 0;      // that ended it, 0 if none did
    int ExitCode = -1;   // without a signal
    std::string Output;  // what it wrote
};

// Runs body() in a child, which ends with `code` when it returns. Its output is collected, standard error with it
// when it is asked for.
template <typename Body>
ChildResult RunInChild(Body body, int code, bool errorsToo) {
    ChildResult result;
    std::fflush(nullptr);
    int ends[2];
    if (pipe(ends) != 0) return result;
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        if (errorsToo) dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        alarm(20);
        body();
        _exit(code);
    }
    close(ends[1]);
    char buffer[4096];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
        result.Output.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) result.Signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    return result;
}

#endif  // ZVX_TESTS_SUPPORT_RUN_CHILD_H
