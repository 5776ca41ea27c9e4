// Helpers shared by the test groups: temporary directories, files, child processes
// and waiting for a condition.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kst {

inline std::string makeTempDir(const char* tag) {
    std::string tmpl = std::string("/tmp/ks_") + tag + "_XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back(0);
    if (!mkdtemp(buf.data())) return {};
    return buf.data();
}

inline void removeTree(const std::string& dir) {
    if (dir.rfind("/tmp/ks_", 0) != 0) return;  // never outside our own scratch space
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) {
    }
}

// Missing folders on the way are made.
inline void writeFile(const std::string& path, const std::string& text) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

inline std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

inline std::vector<std::string> listFiles(const std::string& dir) {
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    return out;
}

// Everything written so far to one log channel directory, all files joined.
inline std::string readLogDir(const std::string& dir) {
    std::string all;
    for (const auto& f : listFiles(dir)) all += readFile(f);
    return all;
}

inline size_t countOccurrences(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + needle.size())) ++n;
    return n;
}

inline bool waitFor(const std::function<bool()>& pred, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
}

// True when `text` has the shape of `pattern`, where '#' stands for any digit.
inline bool hasShape(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (pattern[i] == '#' ? (text[i] < '0' || text[i] > '9') : text[i] != pattern[i]) return false;
    }
    return true;
}

// A loopback address (127.a.b.c) that no other test process of this machine uses now, so that
// tests running at the same time never share a port.
inline std::string uniqueLoopback() {
    static std::atomic<int> n{0};
    int pid = int(getpid());
    int k = ++n;
    return "127." + std::to_string(1 + (pid >> 8) % 250) + "." + std::to_string(pid & 0xff) + "." +
           std::to_string(1 + k % 250);
}

// Runs a shell command; its standard output into `out`. The exit status, or -1.
inline int runCommand(const std::string& cmd, std::string* out) {
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        if (out) out->append(buf, n);
    int rc = pclose(p);
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

inline std::string toHex(const uint8_t* p, size_t n) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; i++) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}
inline std::string toHex(const std::vector<uint8_t>& b) { return toHex(b.data(), b.size()); }

inline std::vector<uint8_t> fromHex(const std::string& h) {
    std::vector<uint8_t> b;
    std::string digits;
    for (char c : h)
        if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) b.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return b;
}

struct ChildResult {
    int exitStatus = -1;  // -1 when killed by a signal or timed out
    bool timedOut = false;
    std::string out;
};

// Runs a program in `cwd` with stdout captured. After `seconds` it is sent
// `stopSignal` (so a long-running engine can be ended the way a user would).
inline ChildResult runChild(const std::vector<std::string>& argv, const std::string& cwd, double seconds,
                            int stopSignal = SIGKILL) {
    ChildResult r;
    std::string outPath = cwd + "/.child_stdout";
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) _exit(127);
        int fd = open(outPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
    for (;;) {
        pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) break;
        if (std::chrono::steady_clock::now() >= end) {
            r.timedOut = true;
            kill(pid, stopSignal);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (WIFEXITED(status)) r.exitStatus = WEXITSTATUS(status);
    r.out = readFile(outPath);
    return r;
}

}  // namespace kst
