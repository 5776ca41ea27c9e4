// Where the scripts of the real core network are: KS_RIG_DIR when set, else ../shared/peers/core
// beside the source tree (a fresh clone in CI), else the place this machine's developers use.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

namespace kst {

inline std::string rigDir() {
    if (const char* d = getenv("KS_RIG_DIR"); d && *d) return d;
#ifdef KS_SOURCE_DIR
    std::string beside = std::string(KS_SOURCE_DIR) + "/../shared/peers/core";
    if (access((beside + "/start-core.sh").c_str(), R_OK) == 0) return beside;
#endif
    return "/work/shared/peers/core";
}

// The core is shared by everyone on this machine: one user at a time, by this lock.
class RigLock {
public:
    RigLock() = default;
    RigLock(const RigLock&) = delete;
    RigLock& operator=(const RigLock&) = delete;
    bool take(int seconds) {
        fd_ = open("/tmp/ksrig.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd_ < 0) return false;
        for (int i = 0; i < seconds * 10; i++) {
            if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
    ~RigLock() {
        if (fd_ >= 0) close(fd_);  // the lock goes with the descriptor
    }

private:
    int fd_ = -1;
};

// The core started with `env` before start-core.sh, its output in `log`; stopped however the test ends.
class RigCore {
public:
    RigCore(std::string env, std::string log) : env_(std::move(env)), log_(std::move(log)) {}
    RigCore(const RigCore&) = delete;
    RigCore& operator=(const RigCore&) = delete;
    bool start() {
        started_ = system((env_ + " bash " + rigDir() + "/start-core.sh >" + log_ + " 2>&1").c_str()) == 0;
        return started_;
    }
    ~RigCore() {
        if (started_ && system(("bash " + rigDir() + "/stop-core.sh >>" + log_ + " 2>&1").c_str()) != 0)
            fprintf(stderr, "stop-core.sh failed, see %s\n", log_.c_str());
    }
    const std::string& log() const { return log_; }

private:
    std::string env_, log_;
    bool started_ = false;
};

}  // namespace kst
