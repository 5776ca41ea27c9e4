// The core and its logger, started once for every test of the group.
#pragma once

#include <string>

namespace kst_tables {
const std::string& root();
}
