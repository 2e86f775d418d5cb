// tests/support/child.h - a fatal error in a child process: the exact text, the exit code and the trace file that is
// left behind are compared by the parent.
#ifndef ZVX_TESTS_SUPPORT_CHILD_H
#define ZVX_TESTS_SUPPORT_CHILD_H

#include <regex>

#include "diag/trace.h"
#include "run_child.h"
#include "scripted_os.h"

namespace zvx::test {

struct Folder : ScratchFolder {
    // The name of the only file; empty when there is not exactly one.
    std::string OnlyFile() const {
        std::string name;
        for (const auto &entry : std::filesystem::directory_iterator(Name)) {
            if (!name.empty()) return "";
            name = entry.path().filename().string();
        }
        return name;
    }
    std::string Text() const { return ReadWhole(File(OnlyFile())); }
};

// How FatalExit ended the process that ran body().
struct Killed {
    std::string Output;  // with "|" for each " (see <trace file>)\n"; after "N: " if N was the exit code, not 1
    std::string Lines;   // of the trace file, without their time stamps
};

Killed Kill(auto body) {
    const Folder folder;
    const auto traced = [&] {
        TraceInit(folder.Name.c_str());
        // Short but real, so that threads that wait for one another make progress.
        os::script::gScript.OnSleep = [](DWORD ms) {
            os::script::AdvanceClock(ms);
            usleep(ms == 0 ? 0 : 200);
        };
        body();
    };
    const ChildResult child = RunInChild(traced, 99, false);
    std::string output = child.ExitCode == 1 ? child.Output : std::to_string(child.ExitCode) + ": " + child.Output;
    const std::string see = " (see " + folder.File(folder.OnlyFile()) + ")\n";
    for (size_t at; (at = output.find(see)) != output.npos;) output.replace(at, see.size(), "|");
    return {output, std::regex_replace(folder.Text(), std::regex("(^|\n)\\[[^\\]]*\\] "), "$1")};
}

}  // namespace zvx::test

#endif  // ZVX_TESTS_SUPPORT_CHILD_H
