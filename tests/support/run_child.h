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
#include <utility>

struct ChildResult {
    int Signal = 0;      // that ended it, 0 if none did
    int ExitCode = -1;   // without a signal
    std::string Output;  // what it wrote
    std::string Errors;  // what it wrote to its standard error, unless that was its output too
};

// Runs body() in a child, which ends with `code` when it returns. A signal ends it after 25 seconds.
template <typename Body>
ChildResult RunInChild(Body body, int code = 0, bool errorsToOutput = true) {
    ChildResult result;
    std::fflush(nullptr);
    const int output = memfd_create("output", MFD_CLOEXEC), errors = memfd_create("errors", MFD_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(errorsToOutput ? output : errors, STDERR_FILENO);
        alarm(25);
        body();
        _exit(code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) result.Signal = WTERMSIG(status);
    if (WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    for (auto [file, text] : {std::pair{output, &result.Output}, {errors, &result.Errors}}) {
        text->resize(static_cast<size_t>(lseek(file, 0, SEEK_END)));
        if (pread(file, text->data(), text->size(), 0) < 0) text->clear();
        close(file);
    }
    std::fputs(result.Errors.c_str(), stderr);
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
