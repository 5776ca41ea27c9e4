// The main of a fuzz target in the ordinary build: feeds every file of the corpus folders (or
// files) on its command line to the target, in name order, each in a heap block of exactly its
// size as the fuzzer gives it. A crash or a sanitizer report fails the test; so does a corpus
// that is missing or empty, which would otherwise pass without testing anything.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto& e : fs::directory_iterator(argv[i], ec))
                if (e.is_regular_file()) inputs.push_back(e.path());
        } else if (fs::is_regular_file(argv[i], ec)) {
            inputs.emplace_back(argv[i]);
        } else {
            fprintf(stderr, "no corpus at %s\n", argv[i]);
            return 1;
        }
    }
    if (inputs.empty()) {
        fprintf(stderr, "usage: %s corpus-folder-or-file... (and at least one input)\n", argv[0]);
        return 1;
    }
    std::sort(inputs.begin(), inputs.end());
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    for (const fs::path& p : inputs) {
        std::ifstream f(p, std::ios::binary);
        if (!f) {
            fprintf(stderr, "cannot read %s\n", p.c_str());
            return 1;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), exact.get());
        // Named first, so the input behind a crash is the last line of the output.
        fprintf(stderr, "%s (%zu octets)\n", p.filename().c_str(), bytes.size());
        LLVMFuzzerTestOneInput(exact.get(), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
