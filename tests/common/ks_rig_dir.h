// Where the scripts of the real core network are: KS_RIG_DIR when set, else ../shared/peers/core
// beside the source tree (a fresh clone in CI), else the place this machine's developers use.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kst {

inline std::string rigDir() {
    if (const char* d = getenv("KS_RIG_DIR"); d && *d) return d;
#ifdef KS_SOURCE_DIR
    std::string beside = std::string(KS_SOURCE_DIR) + "/../shared/peers/core";
    if (access((beside + "/start-core.sh").c_str(), R_OK) == 0) return beside;
#endif
    return "/work/shared/peers/core";
}

}  // namespace kst
