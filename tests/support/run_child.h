// tests/support/run_child.h - a piece of a test in a child process, for everything that ends the process.
//
// The child starts as a copy of the test's process and never returns into it.
#ifndef ZVX_TESTS_SUPPORT_RUN_CHILD_H
#define ZVX_TESTS_SUPPORT_RUN_CHILD_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

struct ChildResult {
    int Signal = 0;      // that ended it, 0 if none did
    int ExitCode = -1;   // without a signal
    std::string Output;  // what it wrote
};

// Runs body() in a child, which ends with `code` when it returns. Its standard error is its output too, or else the
// test's. A signal ends it after 25 seconds.
ChildResult RunInChild(auto body, int code = 0, bool errorsToOutput = true) {
    ChildResult result;
    std::fflush(nullptr);
    const int output = memfd_create("output", MFD_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output, STDOUT_FILENO);
        if (errorsToOutput) dup2(output, STDERR_FILENO);
        alarm(25);
        body();
        _exit(code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) result.Signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    result.Output.resize(static_cast<size_t>(lseek(output, 0, SEEK_END)));
    if (pread(output, result.Output.data(), result.Output.size(), 0) < 0) result.Output.clear();
    close(output);
    return result;
}

inline std::string ReadWhole(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A folder that goes away with the object.
struct ScratchFolder {
    std::string Name;  // without a separator at its end
    ScratchFolder() {
        const char *base = getenv("TMPDIR");
        Name = std::string(base != nullptr ? base : "/tmp") + "/zvxtestXXXXXX";
        if (mkdtemp(Name.data()) == nullptr) std::abort();
    }
    ~ScratchFolder() { std::filesystem::remove_all(Name); }
    ScratchFolder(const ScratchFolder &) = delete;
    std::string File(const std::string &name) const { return Name + '/' + name; }
};

#endif  // ZVX_TESTS_SUPPORT_RUN_CHILD_H
