// Replays fuzzer inputs through a fuzz target's LLVMFuzzerTestOneInput, the
// way an ordinary test runs: each argument is a file or a directory whose
// files (in name order) are fed one by one. A broken promise aborts inside
// the target; an argument that yields no input at all is an error, so that a
// missing corpus cannot pass unnoticed.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& argument) {
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    if (std::filesystem::is_directory(argument, error)) {
        for (const auto& entry : std::filesystem::directory_iterator(argument)) {
            if (entry.is_regular_file()) inputs.push_back(entry.path());
        }
        std::sort(inputs.begin(), inputs.end());
    } else if (std::filesystem::is_regular_file(argument, error)) {
        inputs.push_back(argument);
    }
    return inputs;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...\n", argv[0]);
        return 2;
    }
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::filesystem::path> inputs = inputsOf(argv[i]);
        if (inputs.empty()) {
            std::fprintf(stderr, "%s: no input files\n", argv[i]);
            return 1;
        }
        for (const std::filesystem::path& path : inputs) {
            std::ifstream file(path, std::ios::binary);
            if (!file) {
                std::fprintf(stderr, "%s: cannot read\n", path.c_str());
                return 1;
            }
            const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                          std::istreambuf_iterator<char>());
            // Printed first, so that an abort inside names the culprit.
            std::fprintf(stderr, "replaying %s\n", path.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    std::printf("%zu passed, 0 failed\n", replayed);
    return 0;
}
