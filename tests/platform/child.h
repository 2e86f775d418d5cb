// tests/platform/child.h - runs a piece of a test in a child process and keeps what it wrote and how it ended.
//
// For ends of processes (fatal signals, limits that cannot be lifted again): the text is compared whole, which a
// pattern of the test framework cannot do, and so can the absence of a text be.
#ifndef ZVX_TESTS_PLATFORM_CHILD_H
#define ZVX_TESTS_PLATFORM_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <string>

struct ChildResult {
    int Signal = 0;      // that ended it, 0 if none did
    int ExitCode = -1;   // when no signal did
    std::string Output;  // standard output and error together
};

// The child leaves with code 0 when `body` returns; a failed expectation inside it must be turned into an exit code
// or a text by the body itself.
template <typename Body>
ChildResult RunChild(Body body) {
    ChildResult result;
    int ends[2];
    if (pipe(ends) != 0) return result;
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        body();
        _exit(0);
    }
    close(ends[1]);
    char buffer[4096];
    ssize_t got;
    while ((got = read(ends[0], buffer, sizeof buffer)) > 0) result.Output.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) result.Signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    return result;
}

#endif  // ZVX_TESTS_PLATFORM_CHILD_H
