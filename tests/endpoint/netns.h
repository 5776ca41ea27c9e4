// Two network namespaces joined by a veth pair, for SCTP tests: userspace stacks on
// raw IP see every SCTP packet of their namespace, so each end gets its own.
//
// The test process moves itself into namespace A before it starts any thread and
// keeps a descriptor of B for the peers it starts there. The names are removed at
// once, so the namespaces live exactly as long as the processes in them: nothing is
// left behind, even when a test crashes.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ks_test_util.h"

namespace kse {

struct Netns {
    int fdB = -1;
    std::string skipReason;

    // Addresses inside the namespaces only.
    static constexpr const char* A[5] = {"10.231.0.1", "10.231.0.11", "10.231.0.12", "10.231.0.13", "10.231.0.14"};
    static constexpr const char* B[4] = {"10.231.0.2", "10.231.0.21", "10.231.0.22", "10.231.0.23"};

    static Netns& get() {
        static Netns n;
        return n;
    }

    // Call from main before anything starts a thread.
    void enter() {
        if (geteuid() != 0) {
            skipReason = "needs root to make network namespaces and raw SCTP sockets";
            return;
        }
        if (system("ip -V >/dev/null 2>&1") != 0) {
            skipReason = "needs ip (iproute2)";
            return;
        }
        std::string a = "ksa" + std::to_string(getpid()), b = "ksb" + std::to_string(getpid());
        std::string cmd = "set -e; ip netns add " + a + "; ip netns add " + b + "; ip -n " + a +
                          " link add kva type veth peer name kvb netns " + b + "; ip -n " + a + " link set lo up; ip -n " +
                          b + " link set lo up;";
        for (const char* ip : A) cmd += " ip -n " + a + " addr add " + ip + "/24 dev kva;";
        for (const char* ip : B) cmd += " ip -n " + b + " addr add " + ip + "/24 dev kvb;";
        cmd += " ip -n " + a + " link set kva up; ip -n " + b + " link set kvb up";
        bool ok = system((cmd + " 2>/dev/null").c_str()) == 0;
        int fdA = ok ? open(("/run/netns/" + a).c_str(), O_RDONLY | O_CLOEXEC) : -1;
        fdB = ok ? open(("/run/netns/" + b).c_str(), O_RDONLY | O_CLOEXEC) : -1;
        if (fdA >= 0 && setns(fdA, CLONE_NEWNET) != 0) fdA = -1;
        if (system(("ip netns del " + a + " 2>/dev/null; ip netns del " + b + " 2>/dev/null").c_str()) != 0) {
        }
        if (fdA < 0 || fdB < 0) {
            skipReason = "could not make the network namespaces";
            return;
        }
        close(fdA);
    }
};

// A child process in namespace B with its stdin and stdout on pipes; killed with us.
class Peer {
public:
    Peer(const std::vector<std::string>& argv, bool inB = true) {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (inB && setns(Netns::get().fdB, CLONE_NEWNET) != 0) _exit(126);
            dup2(in[0], 0);
            dup2(out[1], 1);
            close(in[1]);
            close(out[0]);
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to_ = in[1];
        from_ = out[0];
        fcntl(from_, F_SETFL, O_NONBLOCK);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { stop(); }

    void send(const std::string& line) {
        std::string l = line + "\n";
        if (write(to_, l.data(), l.size()) < 0) {
        }
    }

    // Waits for a line that starts with prefix; returns it, or "" at the deadline.
    std::string waitLine(const std::string& prefix, double seconds) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        for (;;) {
            char tmp[4096];
            ssize_t n;
            while ((n = read(from_, tmp, sizeof tmp)) > 0) buf_.append(tmp, size_t(n));
            size_t nl;
            while ((nl = buf_.find('\n', scanned_)) != std::string::npos) {
                std::string line = buf_.substr(scanned_, nl - scanned_);
                scanned_ = nl + 1;
                lines_.push_back(line);
                if (line.rfind(prefix, 0) == 0) return line;
            }
            if (std::chrono::steady_clock::now() >= end) return "";
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // The last complete line seen so far that starts with prefix, or "".
    std::string last(const std::string& prefix) {
        waitLine("\x01", 0);
        for (auto l = lines_.rbegin(); l != lines_.rend(); ++l)
            if (l->rfind(prefix, 0) == 0) return *l;
        return "";
    }
    // Every complete line seen so far that starts with prefix.
    int count(const std::string& prefix) {
        waitLine("\x01", 0);
        int c = 0;
        for (const auto& l : lines_) c += l.rfind(prefix, 0) == 0;
        return c;
    }
    void stop() {
        if (pid_ <= 0) return;
        send("quit");
        for (int i = 0; i < 100; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        close(to_);
        close(from_);
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int to_ = -1, from_ = -1;
    std::string buf_;
    size_t scanned_ = 0;
    std::vector<std::string> lines_;
};

// tshark on an interface of namespace A (or of B), for as long as the object lives.
class Capture {
public:
    explicit Capture(const std::string& path, const char* iface = "kva", const char* filter = "sctp", bool inB = false)
        : path_(path) {
        std::string err = path + ".err";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (inB && setns(Netns::get().fdB, CLONE_NEWNET) != 0) _exit(126);
            int fd = open(err.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 2);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            execlp("tshark", "tshark", "-i", iface, "-f", filter, "-w", path.c_str(), nullptr);
            _exit(127);
        }
        ok_ = kst::waitFor([&] { return kst::readFile(err).find("Capturing on") != std::string::npos; }, 15);
        // The line comes a little before packets are really taken.
        if (ok_) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    ~Capture() { stop(); }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    bool ok() const { return ok_; }
    // One line per packet of the fields named, separated by '|'; stops the capture.
    std::string fields(const std::string& fieldArgs =
                           "-e sctp.checksum.status -e sctp.chunk_type -e sctp.data_payload_proto_id "
                           "-e sctp.parameter_ipv4_address") {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the capture lags the last packets a little
        stop();
        std::string out = path_ + ".txt";
        std::string cmd = "tshark -r " + path_ + " -o sctp.checksum:CRC-32C -T fields -E separator='|' " + fieldArgs +
                          " > " + out + " 2>/dev/null";
        if (system(cmd.c_str()) != 0) return "";
        return kst::readFile(out);
    }
    static bool present() { return system("tshark -v >/dev/null 2>&1") == 0; }

private:
    std::string path_;
    pid_t pid_ = -1;
    bool ok_ = false;
};

}  // namespace kse
