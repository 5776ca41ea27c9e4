// Starts the real engine in this process, in a scratch directory, once per test
// binary: register kst::InProcessEngine as a gtest environment with the data files
// and configuration members the group needs. The console is off (CLIPort 0).
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "Kestrane.h"
#include "ks_test_util.h"

namespace kst {

class InProcessEngine : public ::testing::Environment {
public:
    // `files` maps names under data/ to their text; `config` is added to the
    // configuration object.
    InProcessEngine(const char* tag, std::map<std::string, std::string> files, std::string config = "")
        : tag_(tag), files_(std::move(files)), config_(std::move(config)) {}

    void SetUp() override {
        dir_ = makeTempDir(tag_);
        mkdir((dir_ + "/data").c_str(), 0700);
        for (const auto& [name, text] : files_) writeFile(dir_ + "/data/" + name, text);
        std::string cfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 5000, "IMSIPrefixWithZERO": 1, "CLIPort": 0)";
        if (!config_.empty()) cfg += ", " + config_;
        writeFile(dir_ + "/cfg.json", cfg + "}");
        if (chdir(dir_.c_str()) != 0) FAIL();
        std::string path = dir_ + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), path.data(), nullptr};
        ASSERT_EQ(KsEngine__Startup(2, argv), 1);
    }
    void TearDown() override { removeTree(dir_); }
    const std::string& dir() const { return dir_; }

private:
    const char* tag_;
    std::map<std::string, std::string> files_;
    std::string config_;
    std::string dir_;
};

}  // namespace kst
