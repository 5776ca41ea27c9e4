// The app log of a test process that runs no engine: the logger writes into a scratch
// directory, and lines are read back from its app channel.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ks_test_util.h"
#include "mv_core.h"

namespace nst {

class LogDir : public ::testing::Environment {
public:
    void SetUp() override {
        dir_ = kst::makeTempDir("nassec");
        __mv_init_logger(dir_.c_str());
    }
    void TearDown() override { kst::removeTree(dir_); }
    std::string app() const { return kst::readLogDir(dir_ + "/app"); }

private:
    std::string dir_;
};
inline LogDir* gLog = static_cast<LogDir*>(::testing::AddGlobalTestEnvironment(new LogDir));
// Lines of the app log written since `mark` (its size before).
inline std::string logSince(size_t mark) {
    std::string all = gLog->app();
    return mark < all.size() ? all.substr(mark) : std::string();
}
inline size_t logMark() { return gLog->app().size(); }

}  // namespace nst
