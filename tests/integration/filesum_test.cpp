// tests/integration/filesum_test.cpp - the example against the utility whose output it prints.
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

struct ToolResult {
    int Exit = -1;
    std::vector<std::string> Out;  // sorted; records, not lines: a name may hold a line feed
    std::string Err;
};

std::string ReadAll(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A checksum record begins a line with two numbers; what does not continues a name.
std::vector<std::string> Records(const std::string &text) {
    std::vector<std::string> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        unsigned long long crc, size;
        if (records.empty() || sscanf(line.c_str(), "%llu %llu ", &crc, &size) == 2)
            records.push_back(line);
        else
            records.back() += '\n' + line;
    }
    std::sort(records.begin(), records.end());
    return records;
}

// Runs a shell command as a user whom file permissions bind, even when the tests run as root.
ToolResult RunTool(const ScratchFolder &scratch, const std::string &command) {
    const std::string out = scratch.File("out"), err = scratch.File("err");
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        constexpr int kDacOverride = 1, kDacReadSearch = 2;
        prctl(PR_CAPBSET_DROP, kDacOverride);
        prctl(PR_CAPBSET_DROP, kDacReadSearch);
        const std::string line = "exec > '" + out + "' 2> '" + err + "'; " + command;
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(126);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ToolResult result;
    result.Exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.Out = Records(ReadAll(out));
    result.Err = ReadAll(err);
    return result;
}

void WriteRandom(const std::string &path, size_t size, uint32_t seed) {
    std::string data(size, '\0');
    for (char &c : data) c = static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24);
    std::ofstream(path, std::ios::binary) << data;
}

// Sizes around the chunk and the step of the checksum, odd names, folders in folders.
void MakeTree(const std::string &root) {
    mkdir(root.c_str(), 0755);
    uint32_t seed = 1;
    for (int d = 0; d < 12; d++) {
        std::string folder = root + "/d" + std::to_string(d % 4);
        mkdir(folder.c_str(), 0755);
        if (d >= 4) mkdir((folder += "/sub " + std::to_string(d)).c_str(), 0755);
        for (size_t size : {0u, 1u, 15u, 16u, 17u, 255u, 4096u, 32767u, 32768u, 32769u, 65536u, 100001u}) {
            WriteRandom(folder + "/f" + std::to_string(size), size, seed++);
        }
    }
    for (const char *name : {"/with space", "/line\nfeed", "/back\\slash", "/-dash", "/\xC3\xA4\xFF"})
        WriteRandom(root + name, 100 * seed, seed), seed++;
    WriteRandom(root + "/three megabytes", 3 << 20, seed);
    EXPECT_EQ(symlink("d0", (root + "/link to folder").c_str()), 0);
    EXPECT_EQ(symlink("nowhere", (root + "/dangling").c_str()), 0);
}

// The tree in a folder of its own, so that output files are not part of it.
class Filesum : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        MakeTree(Root);
    }
    ToolResult Expected() const { return RunTool(Scratch, "find '" + Root + "' -type f -print0 | xargs -0 cksum"); }
    ScratchFolder Scratch;
    std::string Root = Scratch.File("tree");
};

}  // namespace

TEST_P(Filesum, PrintsWhatCksumPrints) {
    const ToolResult expected = Expected();
    ASSERT_EQ(expected.Exit, 0) << expected.Err;
    ASSERT_EQ(expected.Out.size(), 12u * 12 + 6);
    const std::string schedulers = std::to_string(GetParam());
    for (const std::string mode : {"--user-threads 64", "--user-threads 1000", "--threads", "--disable-fibers"}) {
        const ToolResult got = RunTool(Scratch, FILESUM " --schedulers " + schedulers + " " + mode + " '" + Root + "'");
        EXPECT_EQ(got.Exit, 0) << got.Err;
        EXPECT_EQ(got.Out, expected.Out) << mode;
        const bool fibers = mode[2] == 'u';
        EXPECT_NE(got.Err.find((fibers ? " " + schedulers : " 0") + " schedulers"), std::string::npos) << got.Err;
        EXPECT_TRUE(!fibers || got.Err.find(ZvxIoBackendName()) != std::string::npos) << got.Err;
    }
}

TEST_P(Filesum, UnreadableFilesAreNamedAndTheRestIsSummed) {
    chmod((Root + "/d1/f4096").c_str(), 0);
    chmod((Root + "/d2").c_str(), 0);
    const ToolResult expected = Expected();
    for (const char *mode : {"", "--threads"}) {
        const ToolResult got = RunTool(Scratch, FILESUM " " + (mode + (" '" + Root + "' '" + Root + "/missing'")));
        EXPECT_EQ(got.Exit, 1);
        EXPECT_EQ(got.Out, expected.Out);
        for (const char *text :
             {"/d1/f4096: Permission denied\n", "/d2: Permission denied\n", "/missing: No such file or directory\n"})
            EXPECT_NE(got.Err.find("filesum: " + Root + text), std::string::npos) << got.Err;
    }
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Filesum, testing::Values(1u, 2u, 8u), testing::PrintToStringParamName());
