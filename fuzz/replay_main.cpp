// Replays inputs through a fuzz target without libFuzzer, so that the seed corpus runs as a
// plain test in every build: each file named on the command line, and each file of each
// directory named, goes once through LLVMFuzzerTestOneInput. A broken property aborts (the
// target's FUZZ_REQUIRE); otherwise the program says how many inputs it replayed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        for (const auto& f : fs::directory_iterator(argv[i]))
            if (f.is_regular_file()) inputs.push_back(f.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& p : inputs) {
        std::ifstream f(p, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(f), {}};
        std::fprintf(stderr, "%s\n", p.c_str());  // the input a failure belongs to
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
