// tests/fuzz/replay_main.cpp - runs a fuzzer over files and folders of inputs, where there is no libFuzzer.
#include <fstream>
#include <vector>

#include "fuzz/fuzz.h"

int main(int argc, char **argv) {
    size_t inputs = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            inputs++;
        }
    }
    std::printf("%zu inputs\n", inputs);
    std::fflush(stdout);
    // Not through destructors: a started library's threads are at work.
    std::quick_exit(inputs != 0 ? 0 : 1);
}
