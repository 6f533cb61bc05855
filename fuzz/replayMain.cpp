// Replays saved inputs through a fuzz target's entry point, for builds without libFuzzer:
// every file of every folder named on the command line, in name order.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path folder(argv[i]);
        if (!std::filesystem::is_directory(folder)) continue; // no inputs of that kind yet
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            std::ifstream in(file, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            // Copied to a buffer of the exact size, so that a read past the end shows.
            std::vector<std::uint8_t> exact(bytes.begin(), bytes.end());
            std::printf("replaying %s (%zu bytes)\n", file.filename().c_str(), exact.size());
            static std::uint8_t none = 0;
            LLVMFuzzerTestOneInput(exact.empty() ? &none : exact.data(), exact.size());
            ++replayed;
        }
    }
    std::printf("%zu inputs replayed\n", replayed);
    return 0;
}
