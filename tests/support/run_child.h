// tests/support/run_child.h - a piece of a test in a child process, for everything that ends the process.
//
// The child starts as a copy of the test's process and never returns into it.
#ifndef ZVX_TESTS_SUPPORT_RUN_CHILD_H
#define ZVX_TESTS_SUPPORT_RUN_CHILD_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

struct ChildResult {
    pid_t Process = -1;
    int Signal = 0;      // that ended it, 0 if none did
    int ExitCode = -1;   // without a signal
    std::string Output;  // what it wrote
};

// Runs body() in a child, which ends with `code` when it returns. Its output is collected; its standard error with it
// when it is asked for, or else in *errors if that is given. A signal ends it after 20 seconds.
template <typename Body>
ChildResult RunInChild(Body body, int code, bool errorsToo, std::string *errors = nullptr) {
    ChildResult result;
    std::fflush(nullptr);
    const int output = memfd_create("output", MFD_CLOEXEC), other = memfd_create("errors", MFD_CLOEXEC);
    result.Process = fork();
    if (result.Process == 0) {
        dup2(output, STDOUT_FILENO);
        if (errorsToo || errors != nullptr) dup2(errorsToo ? output : other, STDERR_FILENO);
        alarm(20);
        body();
        _exit(code);
    }
    int status = 0;
    waitpid(result.Process, &status, 0);
    if (WIFSIGNALED(status)) result.Signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    const auto take = [](int file, std::string *text) {
        if (text != nullptr) text->resize(static_cast<size_t>(lseek(file, 0, SEEK_END)));
        if (text != nullptr && pread(file, text->data(), text->size(), 0) < 0) text->clear();
        close(file);
    };
    take(output, &result.Output);
    take(other, errors);
    return result;
}

#endif  // ZVX_TESTS_SUPPORT_RUN_CHILD_H
