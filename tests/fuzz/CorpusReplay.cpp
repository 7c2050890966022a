// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz harness once on each file of a directory, without libFuzzer:
// every build (gcc included, every build type) replays the harnesses'
// starting inputs, and a broken invariant aborts as it does in a fuzzing
// run (FuzzSupport.h).
//
// Usage: <harness>_corpus DIRECTORY
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1], error)) {
        if (entry.is_regular_file())
            inputs.push_back(entry.path());
    }
    if (error || inputs.empty()) {
        std::fprintf(stderr, "%s: no starting inputs in %s%s%s\n", argv[0], argv[1],
                     error ? ": " : "", error ? error.message().c_str() : "");
        return 1;
    }
    std::sort(inputs.begin(), inputs.end());
    LLVMFuzzerInitialize(&argc, &argv);
    for (const auto& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
        if (!file.good() && !file.eof()) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], input.c_str());
            return 1;
        }
        std::printf("%s (%zu bytes)\n", input.filename().c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu starting inputs replayed\n", inputs.size());
    return 0;
}
