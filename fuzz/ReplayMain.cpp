// Puts the files of the directories that it is given to a fuzz target, one by one: what the fuzzer
// has once found, and what it begins with, holds on.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::vector<std::string> paths;
    for (int n = 1; n < argc; ++n) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[n])) {
            paths.push_back(entry.path().string());
        }
    }
    std::sort(paths.begin(), paths.end());
    if (paths.empty()) {
        std::ignore = std::fprintf(stderr, "no seeds\n");
        return 1;
    }
    for (const std::string& path : paths) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        // Before it is tried: it may be the last.
        std::ignore = std::fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu seeds hold\n", paths.size());
    return 0;
}
