// tests/support/child.h - running a piece of a test in a child process, with its output caught.
//
// For everything that ends the process: the exact text, the exit code and what is left behind are compared by the
// parent. The child starts as a copy of the test's process and never returns into it.
#ifndef ZVX_TESTS_SUPPORT_CHILD_H
#define ZVX_TESTS_SUPPORT_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace zvx::test {

struct ChildResult {
    int ExitCode;        // -1 when a signal ended it
    std::string Output;  // standard output
};

// Runs body() in a child process; the child ends with 99 when it returns.
template <typename Body>
ChildResult RunChild(Body body) {
    ChildResult result{-1, ""};
    std::fflush(nullptr);
    int ends[2];
    if (pipe(ends) != 0) return result;
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        alarm(20);
        body();
        _exit(99);
    }
    close(ends[1]);
    char buffer[4096];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof(buffer))) > 0;)
        result.Output.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFEXITED(status)) result.ExitCode = WEXITSTATUS(status);
    return result;
}

// A fresh, empty directory for this test, without a separator at its end.
inline std::string FreshDirectory(const std::string &name) {
    const auto path = std::filesystem::temp_directory_path() / ("zvx_" + name + "_" + std::to_string(getpid()));
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
    return path.string();
}

// The only file of a directory: its name, empty when there is not exactly one.
inline std::string OnlyFile(const std::string &directory) {
    std::string name;
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        name = entry.path().filename().string();
        files++;
    }
    return files == 1 ? name : "";
}

inline std::string ReadWhole(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace zvx::test

#endif  // ZVX_TESTS_SUPPORT_CHILD_H
