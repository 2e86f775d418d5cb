// tests/integration/filesum_test.cpp - the example against the utility whose output it prints.
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <tuple>

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
        unsigned crc;
        unsigned long long size;
        int used = 0;
        if (sscanf(line.c_str(), "%u %llu %n", &crc, &size, &used) == 2 && used > 0) {
            records.push_back(line);
        } else if (!records.empty()) {
            records.back() += '\n' + line;
        }
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
    WriteRandom(root + "/with space", 100, seed++);
    WriteRandom(root + "/line\nfeed", 200, seed++);
    WriteRandom(root + "/back\\slash", 300, seed++);
    WriteRandom(root + "/-dash", 400, seed++);
    WriteRandom(root + "/\xC3\xA4\xFF", 500, seed++);
    WriteRandom(root + "/three megabytes", 3 << 20, seed++);
    if (symlink("d0", (root + "/link to folder").c_str()) != 0 ||
        symlink("nowhere", (root + "/dangling").c_str()) != 0) {
        ADD_FAILURE() << "no symbolic links";
    }
}

// The tree in a folder of its own, so that output files are not part of it.
class Filesum : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        Root = Scratch.File("tree");
        MakeTree(Root);
    }
    std::string Expected() const { return "find '" + Root + "' -type f -print0 | xargs -0 cksum"; }
    ScratchFolder Scratch;
    std::string Root;
};

}  // namespace

TEST_P(Filesum, PrintsWhatCksumPrints) {
    const ToolResult expected = RunTool(Scratch, Expected());
    ASSERT_EQ(expected.Exit, 0) << expected.Err;
    ASSERT_EQ(expected.Out.size(), 12u * 12 + 6);
    for (const char *threads : {"64", "1000"}) {
        const std::string command = std::string(FILESUM) + " --schedulers " + std::to_string(GetParam()) +
                                    " --user-threads " + threads + " '" + Root + "'";
        const ToolResult got = RunTool(Scratch, command);
        EXPECT_EQ(got.Exit, 0) << got.Err;
        EXPECT_EQ(got.Out, expected.Out);
        EXPECT_NE(got.Err.find(std::to_string(GetParam()) + " schedulers"), std::string::npos) << got.Err;
        EXPECT_NE(got.Err.find(ZvxIoBackendName()), std::string::npos) << got.Err;
    }
}
INSTANTIATE_TEST_SUITE_P(Schedulers, Filesum, testing::Values(1u, 2u, 8u), testing::PrintToStringParamName());

class FilesumPlain : public Filesum {};

TEST_P(FilesumPlain, KernelThreadsPrintTheSame) {
    const ToolResult expected = RunTool(Scratch, Expected());
    for (const char *mode : {"--threads", "--disable-fibers"}) {
        const ToolResult got =
            RunTool(Scratch, std::string(FILESUM) + " --user-threads 16 " + mode + " '" + Root + "'");
        EXPECT_EQ(got.Exit, 0) << got.Err;
        EXPECT_EQ(got.Out, expected.Out) << mode;
        EXPECT_NE(got.Err.find(" 0 schedulers"), std::string::npos) << got.Err;
    }
}

TEST_P(FilesumPlain, UnreadableFilesAreNamedAndTheRestIsSummed) {
    chmod((Root + "/d1/f4096").c_str(), 0);
    chmod((Root + "/d2").c_str(), 0);
    const ToolResult expected = RunTool(Scratch, Expected());
    for (const char *mode : {"", "--threads "}) {
        const ToolResult got =
            RunTool(Scratch, std::string(FILESUM) + " " + mode + "'" + Root + "' '" + Root + "/missing'");
        EXPECT_EQ(got.Exit, 1);
        EXPECT_EQ(got.Out, expected.Out);
        for (const char *name : {"/d1/f4096", "/d2"}) {
            EXPECT_NE(got.Err.find("filesum: " + Root + name + ": Permission denied\n"), std::string::npos) << got.Err;
        }
        EXPECT_NE(got.Err.find("filesum: " + Root + "/missing: No such file or directory\n"), std::string::npos)
            << got.Err;
    }
}

TEST_P(FilesumPlain, OptionsAreChecked) {
    EXPECT_EQ(RunTool(Scratch, std::string(FILESUM) + " --help").Exit, 0);
    for (const char *bad :
         {"--user-threads 0", "--user-threads -5", "--user-threads 12x", "--schedulers 32", "--nonsense"}) {
        const ToolResult got = RunTool(Scratch, std::string(FILESUM) + " " + bad);
        EXPECT_EQ(got.Exit, 2) << bad;
        EXPECT_FALSE(got.Err.empty()) << bad;
    }
    // Settings of the environment hold where no option says otherwise.
    const ToolResult env = RunTool(Scratch, "ZVX_FIBERS_Schedulers=3 " FILESUM " '" + Root + "/d0'");
    EXPECT_NE(env.Err.find(" 3 schedulers"), std::string::npos) << env.Err;
}
INSTANTIATE_TEST_SUITE_P(One, FilesumPlain, testing::Values(1u), testing::PrintToStringParamName());
