// The fuzz target's regression corpus, replayed by the ordinary test run: the target aborts on any
// broken promise of the codec, and the sanitizer builds catch reads past an input.
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(PfcpFuzzCorpus, EveryRegressionInputPassesTheTargetsChecks) {
    DIR* d = opendir(KS_PFCP_CORPUS);
    ASSERT_NE(d, nullptr) << KS_PFCP_CORPUS;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(std::string(KS_PFCP_CORPUS) + "/" + e->d_name, std::ios::binary);
        std::vector<uint8_t> in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(e->d_name);
        LLVMFuzzerTestOneInput(in.data(), in.size());
        n++;
    }
    closedir(d);
    EXPECT_GT(n, 30);
}
