// The real core network of ../shared/peers, for the tests that meet it: the machine's lock of the
// core (one user at a time, others may be waiting), starting and stopping it, and a capture on the
// engine's side of its veth.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "ks_rig_dir.h"
#include "ks_test_util.h"

namespace kst {

inline const char* const kRigEngineIp = "10.200.0.1";
inline const char* const kRigUpfIp = "10.200.0.2";

inline bool pathExists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

// Empty when the core can be used here, else why not (for GTEST_SKIP).
inline std::string rigMissing() {
    if (!pathExists("/opt/open5gs/bin/open5gs-upfd") || !pathExists(rigDir() + "/start-core.sh"))
        return "the real core is not installed (install.sh of ../shared/peers/core)";
    if (geteuid() != 0) return "the real core runs in a network namespace, which needs root";
    return "";
}

// The core is shared by everyone on this machine: one user at a time, by this lock.
class RigLock {
public:
    bool take(int seconds) {
        fd_ = open("/tmp/ksrig.lock", O_CREAT | O_RDWR, 0666);
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

// Starts the core without its 4G part; stops it however the test ends.
class RigCore {
public:
    explicit RigCore(const char* tag) : tag_(tag) {}
    bool start() {
        started_ = runCommand("WITH_4G=0 bash " + rigDir() + "/start-core.sh >" + log() + " 2>&1", nullptr) == 0;
        return started_;
    }
    ~RigCore() {
        if (started_) runCommand("bash " + rigDir() + "/stop-core.sh >>" + log() + " 2>&1", nullptr);
    }
    std::string log() const { return std::string("/tmp/ks_") + tag_ + "_core_" + std::to_string(getpid()) + ".log"; }

private:
    const char* tag_;
    bool started_ = false;
};

// tshark on the engine's side of the veth, with a capture filter, into a file removed at the end.
class RigCapture {
public:
    RigCapture(const std::string& file, const char* filter) : file_(file) {
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open("/dev/null", O_WRONLY);
            dup2(fd, 1);
            dup2(fd, 2);
            execlp("tshark", "tshark", "-q", "-i", "ksrig0", "-f", filter, "-w", file.c_str(), (char*)nullptr);
            _exit(127);
        }
    }
    void stop() {
        if (pid_ <= 0) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the last packets reach the file
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    ~RigCapture() {
        stop();
        unlink(file_.c_str());
    }

private:
    std::string file_;
    pid_t pid_ = -1;
};

}  // namespace kst
