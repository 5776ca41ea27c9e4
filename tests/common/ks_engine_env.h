// Starts the real engine in-process in a scratch directory filled with the given
// files, for test groups that look at what start-up loaded. ctest runs each test in
// a process of its own, so every test sees a freshly started engine.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "Kestrane.h"
#include "ks_test_util.h"

namespace kst {

class EngineInDir : public ::testing::Environment {
public:
    // `files` maps paths relative to the scratch directory to their text; "cfg.json"
    // is the configuration.
    EngineInDir(const char* tag, std::map<std::string, std::string> files) : tag_(tag), files_(std::move(files)) {}

    void SetUp() override {
        dir_ = makeTempDir(tag_);
        mkdir((dir_ + "/data").c_str(), 0700);
        for (const auto& [name, text] : files_) writeFile(dir_ + "/" + name, text);
        std::string cfg = dir_ + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        // GoogleTest reports the tests after a failed environment as skipped, which
        // ctest counts as a pass: a start-up that fails ends the program instead.
        if (chdir(dir_.c_str()) != 0 || KsEngine__Startup(2, argv) != 1) {
            fprintf(stderr, "the engine did not start in %s\n", dir_.c_str());
            std::_Exit(1);
        }
    }
    void TearDown() override { removeTree(dir_); }

    const std::string& dir() const { return dir_; }
    std::string appLog() const { return readLogDir(dir_ + "/logs//app"); }

private:
    const char* tag_;
    std::map<std::string, std::string> files_;
    std::string dir_;
};

// The UE of IMSI 00101 followed by n in ten digits, or null.
inline MV_KsUE* ueOf001(int n) {
    char imsi[20];
    snprintf(imsi, sizeof imsi, "00101%010d", n);
    MV_KsUE* u = nullptr;
    KsEngine__FindUEByIMSI(&u, imsi);
    return u;
}

// Runs the engine binary in a scratch directory with the given files until it stops by
// itself, or until it has printed that start-up is complete (then it is ended with
// SIGTERM), or until `seconds` pass; returns what it printed.
inline ChildResult runEngineBinary(const std::string& binary, const std::map<std::string, std::string>& files,
                                   double seconds) {
    std::string dir = makeTempDir("bin");
    mkdir((dir + "/data").c_str(), 0700);
    for (const auto& [name, text] : files) writeFile(dir + "/" + name, text);
    std::string outPath = dir + "/.child_stdout";
    ChildResult r;
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        int fd = open(outPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        std::string cfg = dir + "/cfg.json";
        execl(binary.c_str(), binary.c_str(), cfg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    bool reaped = false;
    bool started = waitFor(
        [&] {
            reaped = waitpid(pid, &status, WNOHANG) == pid;
            return reaped || readFile(outPath).find("Initalization of KsTest is completed") != std::string::npos;
        },
        seconds);
    if (!reaped) {
        r.timedOut = !started;
        kill(pid, started ? SIGTERM : SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (WIFEXITED(status)) r.exitStatus = WEXITSTATUS(status);
    r.out = readFile(outPath);
    removeTree(dir);
    return r;
}

}  // namespace kst
