#include <gtest/gtest.h>

#include "ks_test_util.h"
#include "mv_core.h"
#include "tables_env.h"

namespace {
std::string gRoot;

class TablesEnv : public ::testing::Environment {
public:
    void SetUp() override {
        gRoot = kst::makeTempDir("tables");
        __init_morva_core();
        __mv_init_logger((gRoot + "/logs/").c_str());
    }
    void TearDown() override { kst::removeTree(gRoot); }
};

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new TablesEnv);
}  // namespace

const std::string& kst_tables::root() { return gRoot; }
