// replay_main.cpp -- runs a fuzz target over its corpus as a plain test:
// every file under the given directories (or the given files) is fed to
// LLVMFuzzerTestOneInput once. Used by the normal and sanitizer builds, so
// every seed and every crash ever found stays a regression test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int replayFile(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", p.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the file's size, so the sanitizers see any overread.
    std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return 0;
}

int main(int argc, char** argv) {
    size_t count = 0;
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto& e : std::filesystem::recursive_directory_iterator(arg)) {
                if (!e.is_regular_file()) continue;
                failures += replayFile(e.path());
                ++count;
            }
        } else {
            failures += replayFile(arg);
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    if (count == 0) {
        std::fprintf(stderr, "no corpus inputs found\n");
        return 1;
    }
    return failures ? 1 : 0;
}
