// What the HTTP/2 tests share: a started daemon logging into a scratch directory, a
// loopback address and ports of this process's own, peer processes (nghttpd, the
// scripted server) started and stopped by pid, a recording proxy, answers gathered from
// callbacks, and tshark over what the engine wrote.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ks_test_util.h"
#include "mv_http2_daemon.h"

namespace h2t {

inline std::string& root() {
    static std::string r;
    return r;
}

class DaemonEnv : public ::testing::Environment {
public:
    void SetUp() override {
        root() = kst::makeTempDir("h2");
        __init_morva_core();
        __mv_init_logger((root() + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
        __mv_http2_deamon_initalize();
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", root().c_str());
        else kst::removeTree(root());
    }
};

inline std::string stackLog() { return kst::readLogDir(root() + "/logs//stk"); }

// A loopback address no other test process of this machine uses now.
inline std::string uniqueLoopback() {
    static std::atomic<int> n{0};
    int pid = int(getpid());
    int k = ++n;
    return "127." + std::to_string(1 + (pid >> 8) % 250) + "." + std::to_string(pid & 0xff) + "." +
           std::to_string(1 + k % 250);
}

inline int freePort(const std::string& addr) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, addr.c_str(), &a.sin_addr);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

inline bool accepts(const std::string& addr, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, addr.c_str(), &a.sin_addr);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

inline bool haveProgram(const char* name) {
    std::string cmd = std::string("command -v ") + name + " >/dev/null 2>&1";
    return system(cmd.c_str()) == 0;
}

// A peer program, ended by its pid when the test is done.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& outFile) {
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(outFile.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
    }
    ~Child() { stop(); }
    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    bool running() { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

private:
    pid_t pid_ = -1;
};

// Bytes a test can compare: deterministic, not compressible to nothing.
inline std::string pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        s[i] = char(x);
    }
    return s;
}

// nghttpd on this process's loopback address, serving a directory.
class Nghttpd {
public:
    explicit Nghttpd(const std::vector<std::string>& extra = {}) : addr(uniqueLoopback()) {
        dir = root() + "/htdocs_" + std::to_string(++counter());
        mkdir(dir.c_str(), 0700);
        port = freePort(addr);
        std::vector<std::string> argv = {"nghttpd", "--no-tls", "-a", addr, "-d", dir};
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back(std::to_string(port));
        child = std::make_unique<Child>(argv, dir + ".out");
        kst::waitFor([&] { return accepts(addr, port); }, 20);
    }
    void file(const std::string& name, const std::string& bytes) { kst::writeFile(dir + "/" + name, bytes); }
    std::string apiRoot() const { return "http://" + addr + ":" + std::to_string(port); }

    std::string addr, dir;
    int port = 0;
    std::unique_ptr<Child> child;

private:
    static int& counter() {
        static int c = 0;
        return c;
    }
};

// An answer as a callback saw it.
struct Answer {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    int status = -1;
    int error = 0;
    std::string body;
    std::map<std::string, std::string> headers;
    uint32_t connGen = 0;

    bool wait(double seconds = 30) {
        std::unique_lock g(m);
        return cv.wait_for(g, std::chrono::milliseconds(int(seconds * 1000)), [&] { return done; });
    }
};

// The callback every test request uses: userData is the Answer.
inline void onAnswer(MV_Http2Context* ctx, uint8_t* data, long datalen) {
    auto* a = reinterpret_cast<Answer*>(__mv_http2_get_userData(ctx));
    {
        std::lock_guard g(a->m);
        a->status = ctx->Response.HttpStatusCode;
        a->error = ctx->Response.ErrorCode;
        if (data) a->body.assign(reinterpret_cast<char*>(data), size_t(datalen));
        for (MV_Http2Header* h = ctx->Response.Headers.Head; h; h = h->Next) a->headers[h->key] = h->value;
        a->connGen = ctx->ConnGen;
        a->done = true;
        a->cv.notify_all();  // under the lock: the waiter may destroy the Answer once it sees done
    }
    __mv_http2_deamon_free_data(data);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}

// Sends on a context; the Answer is filled by onAnswer. Returns the send's result.
inline int request(MV_Http2Context* ctx, int method, const std::string& path, const std::string& body, Answer* a) {
    __mv_http2_set_userData(ctx, reinterpret_cast<uint8_t*>(a));
    const auto* p = reinterpret_cast<const uint8_t*>(body.data());
    long n = long(body.size());
    int rc;
    switch (method) {
        case MORVA_HTTP2_REQUEST_METHOD_POST: rc = __mv_http2_deamon_send_post_request(ctx, path.c_str(), p, n, onAnswer); break;
        case MORVA_HTTP2_REQUEST_METHOD_PUT: rc = __mv_http2_deamon_send_put_request(ctx, path.c_str(), p, n, onAnswer); break;
        default: rc = __mv_http2_deamon_send_get_request(ctx, path.c_str(), p, n, onAnswer); break;
    }
    if (rc < 1) __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
    return rc;
}

// ---------------------------------------------------------------- tshark

// A capture (raw IPv4 link type) of TCP directions to `dstPort`, each the bytes of one
// connection as consecutive segments from a port of its own, for tshark to dissect as
// HTTP/2 from each connection's first byte on.
inline std::string writeCapture(const std::vector<std::string>& streams, int dstPort, const std::string& path) {
    std::string out;
    auto u16 = [&](uint16_t v) { out.append(reinterpret_cast<char*>(&v), 2); };
    auto u32 = [&](uint32_t v) { out.append(reinterpret_cast<char*>(&v), 4); };
    u32(0xa1b2c3d4);
    u16(2);
    u16(4);
    u32(0);
    u32(0);
    u32(65535);
    u32(101);  // raw IP
    const size_t seg = 4096;
    uint32_t packet = 0;
    for (size_t k = 0; k < streams.size(); ++k) {
        const std::string& bytes = streams[k];
        int srcPort = 40000 + int(k);
        uint32_t seq = 1;
        for (size_t at = 0; at < bytes.size(); at += seg) {
            size_t n = std::min(seg, bytes.size() - at);
            uint8_t ip[20] = {0x45, 0, 0, 0, 0, 0, 0x40, 0, 64, 6, 0, 0, 127, 0, 0, 1, 127, 0, 0, 2};
            uint16_t total = uint16_t(20 + 20 + n);
            ip[2] = uint8_t(total >> 8);
            ip[3] = uint8_t(total);
            uint8_t tcp[20] = {uint8_t(srcPort >> 8), uint8_t(srcPort), uint8_t(dstPort >> 8), uint8_t(dstPort),
                               uint8_t(seq >> 24),    uint8_t(seq >> 16), uint8_t(seq >> 8),     uint8_t(seq),
                               0, 0, 0, 0, 0x50, 0x18 /* PSH ACK */, 0xff, 0xff, 0, 0, 0, 0};
            uint32_t caplen = uint32_t(40 + n);
            u32(packet++);
            u32(0);
            u32(caplen);
            u32(caplen);
            out.append(reinterpret_cast<char*>(ip), 20);
            out.append(reinterpret_cast<char*>(tcp), 20);
            out.append(bytes, at, n);
            seq += uint32_t(n);
        }
    }
    kst::writeFile(path, out);
    return path;
}

struct Dissection {
    int problems = -1;              // malformed packets or expert errors
    std::string problemText;
    std::map<int, int> frameTypes;  // HTTP/2 frame type -> count
};

// tshark over the connections' bytes, in one run: the frames it found and what it disliked.
inline Dissection dissect(const std::vector<std::string>& streams, int port, const std::string& tag) {
    Dissection d;
    std::string cap = writeCapture(streams, port, root() + "/" + tag + ".pcap");
    std::string cmd = "tshark -o gui.max_tree_depth:10000 -o tcp.desegment_tcp_streams:TRUE -d tcp.port==" +
                      std::to_string(port) + ",http2 -r " + cap +
                      " -T fields -E separator=/t -e frame.number -e http2.type -e _ws.malformed"
                      " -e _ws.expert.severity -e _ws.expert.message 2>/dev/null";
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        pclose(p);
    }
    if (out.empty()) return d;
    d.problems = 0;
    constexpr long kError = 0x00800000;  // the expert severity of an error
    size_t at = 0;
    while (at < out.size()) {
        size_t end = out.find('\n', at);
        if (end == std::string::npos) end = out.size();
        std::string line = out.substr(at, end - at);
        at = end + 1;
        std::vector<std::string> cols;
        for (size_t c = 0;;) {
            size_t t = line.find('\t', c);
            cols.push_back(line.substr(c, t == std::string::npos ? std::string::npos : t - c));
            if (t == std::string::npos) break;
            c = t + 1;
        }
        cols.resize(5);
        for (size_t c = 0; c < cols[1].size();) {
            size_t e = cols[1].find(',', c);
            if (e == std::string::npos) e = cols[1].size();
            if (e > c) ++d.frameTypes[atoi(cols[1].substr(c, e - c).c_str())];
            c = e + 1;
        }
        bool bad = !cols[2].empty();
        for (size_t c = 0; c < cols[3].size();) {
            size_t e = cols[3].find(',', c);
            if (e == std::string::npos) e = cols[3].size();
            if (strtol(cols[3].substr(c, e - c).c_str(), nullptr, 0) >= kError) bad = true;
            c = e + 1;
        }
        if (bad) {
            ++d.problems;
            d.problemText += line + "\n";
        }
    }
    return d;
}

inline Dissection dissect(const std::string& bytes, int port, const std::string& tag) {
    return dissect(std::vector<std::string>{bytes}, port, tag);
}

// ---------------------------------------------------------------- a recording proxy

// Stands between a client and a server; keeps what each side wrote, per connection.
class Proxy {
public:
    Proxy(const std::string& addr, int upstreamPort) : addr_(addr), up_(upstreamPort) {
        port = freePort(addr);
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(lfd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port));
        inet_pton(AF_INET, addr.c_str(), &a.sin_addr);
        bind(lfd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(lfd_, 64);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~Proxy() {
        stop_ = true;
        shutdown(lfd_, SHUT_RDWR);
        close(lfd_);
        acceptor_.join();
        for (auto& t : pumps_) t.join();
    }
    // What the client side wrote, per connection; what the server side wrote.
    std::vector<std::string> written() {
        std::lock_guard g(m_);
        return sent_;
    }
    std::vector<std::string> answered() {
        std::lock_guard g(m_);
        return received_;
    }
    int port = 0;

private:
    void acceptLoop() {
        for (;;) {
            int c = accept(lfd_, nullptr, nullptr);
            if (c < 0) return;
            int u = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(uint16_t(up_));
            inet_pton(AF_INET, addr_.c_str(), &a.sin_addr);
            if (connect(u, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                close(c);
                close(u);
                continue;
            }
            size_t slot;
            {
                std::lock_guard g(m_);
                slot = sent_.size();
                sent_.emplace_back();
                received_.emplace_back();
            }
            pumps_.emplace_back([this, c, u, slot] { pump(c, u, slot); });
        }
    }
    void pump(int c, int u, size_t slot) {
        pollfd p[2] = {{c, POLLIN, 0}, {u, POLLIN, 0}};
        char buf[65536];
        while (!stop_) {
            if (poll(p, 2, 100) <= 0) continue;
            for (int i = 0; i < 2; ++i) {
                if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                ssize_t n = read(p[i].fd, buf, sizeof buf);
                if (n <= 0) {
                    close(c);
                    close(u);
                    return;
                }
                {
                    std::lock_guard g(m_);
                    (i == 0 ? sent_ : received_)[slot].append(buf, size_t(n));
                }
                for (ssize_t off = 0; off < n;) {
                    ssize_t w = write(p[1 - i].fd, buf + off, size_t(n - off));
                    if (w <= 0) break;
                    off += w;
                }
            }
        }
        close(c);
        close(u);
    }
    std::string addr_;
    int up_;
    int lfd_;
    std::atomic<bool> stop_{false};
    std::thread acceptor_;
    std::vector<std::thread> pumps_;
    std::mutex m_;
    std::vector<std::string> sent_, received_;
};

}  // namespace h2t
