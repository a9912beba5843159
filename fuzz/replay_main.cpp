// replay_main.cpp -- runs a fuzz target over its corpus as a plain test: every file under the given directories (or
// the given files) is fed to LLVMFuzzerTestOneInput once, from a buffer of exactly its size, so every seed and
// every crash ever found stays a regression test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    size_t count = 0, unreadable = 0;
    const auto replay = [&](const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> bytes(in ? fs::file_size(p) : 0);
        if (!in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size()))) ++unreadable;
        else ++count, LLVMFuzzerTestOneInput(bytes.empty() ? nullptr : bytes.data(), bytes.size());
    };
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) replay(argv[i]);
        else
            for (const auto& e : fs::recursive_directory_iterator(argv[i]))
                if (e.is_regular_file()) replay(e.path());
    }
    std::fprintf(stderr, "replayed %zu inputs, %zu unreadable\n", count, unreadable);
    return unreadable != 0 || count == 0 ? 1 : 0;
}
