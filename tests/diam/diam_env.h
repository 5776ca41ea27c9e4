// What the Diameter tests share: a started stack logging into a scratch directory,
// nodes made as an interface would make them, a recorder of application messages, a
// capture that tshark checks, and byte helpers for hand-made messages.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "diam_msgs.h"
#include "ks_test_util.h"

namespace ksd {

inline std::string& root() {
    static std::string r;
    return r;
}

class DiamEnv : public ::testing::Environment {
public:
    void SetUp() override {
        root() = kst::makeTempDir("diam");
        __init_morva_core();
        __mv_init_logger((root() + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
        __mv_socket_engine_init();
        __mv_diam_create_IndexTable(1552, 4096);
        __mv_diam_stack_init(nullptr);
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", root().c_str());
        else kst::removeTree(root());
    }
};

inline std::string stackLog() { return kst::readLogDir(root() + "/logs//stk"); }

inline int freeTcpPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

constexpr uint32_t kS6a = 16777251;
constexpr uint32_t kGx = 16777238;

// A local host identity with S6a and Gx, as the interface modules configure theirs.
inline MV_DiamNode* makeHost(const std::string& id, const std::string& host, const std::string& realm,
                             const char* ip, int port, int transport = MV_DIAM_TRANSPORT_TCP) {
    MV_DiamNode* n = __mv_diam_new_node(id.c_str(), host.c_str(), realm.c_str());
    n->IPTransportType = transport;
    snprintf(n->sIP[0], sizeof n->sIP[0], "%s", ip);
    n->sIPCount = 1;
    n->IPCount = 1;
    n->IPPort = port;
    n->VendorSpecificAuthApplicationId[0] = kS6a;
    n->VendorSpecificAuthApplicationVendorId[0] = MV_DIAM_VENDOR_3GPP;
    n->VendorSpecificAuthApplicationId[1] = kGx;
    n->VendorSpecificAuthApplicationVendorId[1] = MV_DIAM_VENDOR_3GPP;
    n->VendorSpecificAuthApplicationIdCount = 2;
    return n;
}

// A peer of `host` at ip:port whose identity is peerHost@realm; DWRTimer in seconds.
inline MV_DiamNode* makePeer(MV_DiamNode* host, const std::string& peerHost, const std::string& realm, const char* ip,
                             int port, int dwr, int transport = MV_DIAM_TRANSPORT_TCP) {
    MV_DiamNode* n = makeHost(std::string(host->Id) + "-peer", peerHost, realm, ip, port, transport);
    n->hostNode = host;
    n->PeerInit = 1;
    n->DWRTimer = dwr;
    n->ReConnectSecs = 1;
    return n;
}

inline bool waitStatus(MV_DiamNode* n, int status, double seconds) {
    return kst::waitFor([&] { return __mv_diam__get_peer_status(n) == status; }, seconds);
}

// Application messages that reached a registered handler.
struct Seen {
    uint32_t cmd, app, e2e, resultCode, flags;
    void* object;
};
struct Recorder {
    std::mutex m;
    std::vector<Seen> seen;
    void add(const Seen& s) {
        std::lock_guard g(m);
        seen.push_back(s);
    }
    size_t count() {
        std::lock_guard g(m);
        return seen.size();
    }
    Seen at(size_t i) {
        std::lock_guard g(m);
        return seen.at(i);
    }
};

// ---------------------------------------------------------------- bytes by hand

struct Bytes {
    std::vector<uint8_t> b;
    Bytes& u8(uint8_t v) {
        b.push_back(v);
        return *this;
    }
    Bytes& u24(uint32_t v) { return u8(uint8_t(v >> 16)).u8(uint8_t(v >> 8)).u8(uint8_t(v)); }
    Bytes& u32(uint32_t v) { return u8(uint8_t(v >> 24)).u24(v & 0xFFFFFF); }
    Bytes& raw(const void* p, size_t n) {
        auto* c = static_cast<const uint8_t*>(p);
        b.insert(b.end(), c, c + n);
        return *this;
    }
    Bytes& text(const std::string& s) { return raw(s.data(), s.size()); }
    Bytes& pad() {
        while (b.size() % 4) b.push_back(0);
        return *this;
    }
    // An AVP with its header; len overrides the length field when not 0.
    Bytes& avp(uint32_t code, uint8_t flags, const std::vector<uint8_t>& value, uint32_t vendor = 0, uint32_t len = 0) {
        uint32_t hdr = (flags & MV_DIAM_AVP_FLAG_VENDOR) ? 12 : 8;
        u32(code).u8(flags).u24(len ? len : uint32_t(hdr + value.size()));
        if (flags & MV_DIAM_AVP_FLAG_VENDOR) u32(vendor);
        raw(value.data(), value.size());
        return pad();
    }
    // A header; the length is set by done().
    static Bytes header(uint8_t flags, uint32_t cmd, uint32_t app, uint32_t hbh, uint32_t e2e) {
        Bytes x;
        x.u8(1).u24(0).u8(flags).u24(cmd).u32(app).u32(hbh).u32(e2e);
        return x;
    }
    std::vector<uint8_t> done() {
        uint32_t n = uint32_t(b.size());
        b[1] = uint8_t(n >> 16);
        b[2] = uint8_t(n >> 8);
        b[3] = uint8_t(n);
        return b;
    }
};

inline std::vector<uint8_t> u32v(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
inline std::vector<uint8_t> textv(const std::string& s) { return {s.begin(), s.end()}; }

inline std::string hex(const uint8_t* p, size_t n) {
    static const char* d = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}

inline std::string encodeHex(MV_DiamMessage* m) {
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    int n = __mv_diam_encodeMessage(m, buf, sizeof buf);
    return n > 0 ? hex(buf, size_t(n)) : "";
}

// ---------------------------------------------------------------- tshark

inline bool tsharkPresent() { return system("tshark -v >/dev/null 2>&1") == 0; }

// wsdecode.sh -w on hand-made messages or a capture; "" when clean, else its complaint.
inline std::string wsdecode(const std::string& args) {
    std::string out = root() + "/wsdecode.out";
    std::string cmd = std::string("sh ") + KS_WSDECODE + " -q -w " + args + " >" + out + " 2>&1";
    int rc = system(cmd.c_str());
    return rc == 0 ? "" : kst::readFile(out);
}

// A capture for as long as the object lives.
class Capture {
public:
    Capture(const std::string& path, const char* iface, const std::string& filter) : path_(path) {
        std::string err = path + ".err";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            int fd = open(err.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 2);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            execlp("tshark", "tshark", "-i", iface, "-f", filter.c_str(), "-w", path.c_str(), nullptr);
            _exit(127);
        }
        ok_ = kst::waitFor([&] { return kst::readFile(err).find("Capturing on") != std::string::npos; }, 15);
        if (ok_) usleep(1000000);  // the line comes a little before packets are really taken
    }
    ~Capture() { stop(); }
    void stop() {
        if (pid_ <= 0) return;
        usleep(500000);  // the capture lags the last packets a little
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    bool ok() const { return ok_; }
    const std::string& path() const { return path_; }
    // Every Diameter message of the capture as "R/A cmd app result" lines.
    std::string summary(const std::string& decodeAs) {
        stop();
        std::string out = path_ + ".txt";
        std::string cmd = "tshark -r " + path_ + " " + decodeAs +
                          " -Y diameter -T fields -E separator=' ' -e diameter.flags.request -e diameter.cmd.code "
                          "-e diameter.applicationId -e diameter.Result-Code > " + out + " 2>/dev/null";
        if (system(cmd.c_str()) != 0) return "";
        return kst::readFile(out);
    }

private:
    std::string path_;
    pid_t pid_ = -1;
    bool ok_ = false;
};

}  // namespace ksd
