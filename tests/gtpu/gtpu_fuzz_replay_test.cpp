// The fuzz target's regression corpus, replayed by the ordinary test run: the target aborts on any
// broken promise of the decoder, and the sanitizer builds catch reads past an input.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(GtpuFuzzCorpus, EveryRegressionInputPassesTheTargetsChecks) {
    DIR* d = opendir(KS_GTPU_CORPUS);
    ASSERT_NE(d, nullptr) << KS_GTPU_CORPUS;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(std::string(KS_GTPU_CORPUS) + "/" + e->d_name, std::ios::binary);
        std::vector<uint8_t> in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(e->d_name);
        // Exactly its size on the heap, so that a read past it is caught.
        std::unique_ptr<uint8_t[]> exact(new uint8_t[in.size() + !in.size()]);
        std::copy(in.begin(), in.end(), exact.get());
        LLVMFuzzerTestOneInput(exact.get(), in.size());
        n++;
    }
    closedir(d);
    EXPECT_GE(n, 20);
}
