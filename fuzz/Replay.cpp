// Runs a fuzz target on the inputs in the folders that are named, without a fuzzer: what was found
// once stays found in every build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/TemporaryFolder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            const std::string content = TemporaryFolder::read(entry.path().string());
            // A block that ends with the input, so that a look behind it is seen.
            const auto block = std::make_unique_for_overwrite<uint8_t[]>(content.size());
            content.copy(reinterpret_cast<char*>(block.get()), content.size());
            std::printf("%s\n", entry.path().c_str());
            std::fflush(stdout);
            (void)LLVMFuzzerTestOneInput(block.get(), content.size());
            ++inputs;
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs == 0 ? 1 : 0;
}
