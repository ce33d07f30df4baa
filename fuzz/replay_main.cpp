// Runs a fuzz target once on each saved input, without fuzzing: for builds without libFuzzer,
// so that the seed corpora and the reproducers of past findings run under the sanitizers.
//
// usage: fuzz-TARGET FILE|FOLDER...

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_support.h"

int main(int argc, char** argv) {
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file()) inputs.push_back(entry.path().string());
            }
        } else if (std::filesystem::exists(path)) {
            inputs.push_back(path.string());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const std::string& input : inputs) {
        std::ifstream in(input, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
