// What the GTP-U tests share: a send slot as octets, tshark over tunnelled packets with every
// checksum checked, a plain UDP socket for the other end, and the runtime started once.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtpu_codec.h"
#include "gtpu_ip.h"
#include "gtpu_path.h"
#include "ks_tshark.h"
#include "mv_core.h"

namespace kgt {

using Bytes = std::vector<uint8_t>;
using kst::fromHex;
using kst::toHex;

inline Bytes slotBytes(const gtpu_tx_slot& s) {
    Bytes b(s.head, s.head + s.headLen);
    if (s.tailLen) b.insert(b.end(), s.tail, s.tail + s.tailLen);
    return b;
}

// tshark with the IPv4, UDP and TCP checksums checked (ICMP's always are): a bad one is an expert
// error, which fails the verdict.
inline kst::TsharkRun tshark(const std::vector<Bytes>& packets, const std::vector<std::string>& names) {
    return kst::runTshark(KS_WSDECODE, "gtpu", GTPU_PORT,
                          // Inner flows take random ports in 6000-10000, where tshark knows SAP, MPLS,
                          // X11 and more: their payload is plain data, whatever port it landed on.
                          "-o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -o tcp.check_checksum:TRUE "
                          "-d udp.port==6000-10000,data -d tcp.port==6000-10000,data",
                          packets,
                          names);
}

// A plain UDP socket: sends what a test makes, reads what the code under test sent.
class UdpPeer {
public:
    explicit UdpPeer(const std::string& ip, uint16_t port = 0) {
        gtpu_peer_set(&addr, ip.c_str(), port);
        fd = socket(addr.sa.sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int bytes = 4 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
        socklen_t len = gtpu_peer_len(addr);
        if (bind(fd, &addr.sa, len) != 0 || getsockname(fd, &addr.sa, &len) != 0) ADD_FAILURE() << "bind " << ip;
    }
    UdpPeer(const UdpPeer&) = delete;
    ~UdpPeer() { close(fd); }
    void send(const gtpu_peer& to, const Bytes& b) const {
        EXPECT_EQ(sendto(fd, b.data(), b.size(), 0, &to.sa, gtpu_peer_len(to)), ssize_t(b.size()));
    }
    // The next datagram within `seconds`; empty when none came.
    Bytes recv(double seconds, gtpu_peer* from = nullptr) const {
        pollfd pf{fd, POLLIN, 0};
        if (poll(&pf, 1, int(seconds * 1000)) != 1) return {};
        Bytes b(65536);
        gtpu_peer f{};
        socklen_t fl = sizeof f;
        ssize_t n = recvfrom(fd, b.data(), b.size(), 0, &f.sa, &fl);
        b.resize(n > 0 ? size_t(n) : 0);
        if (from) *from = f;
        return b;
    }
    gtpu_peer addr{};
    int fd = -1;
};

// The runtime the code under test logs to and takes memory from, started once per process in a
// scratch directory; returns the directory.
inline const std::string& startRuntime() {
    static const std::string dir = [] {
        std::string d = kst::makeTempDir("gtpu");
        __init_morva_core();
        __mv_init_logger((d + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
        __mv_set_log_level(MV_APP_LOG, MV_LOG_INFO);
        return d;
    }();
    return dir;
}

}  // namespace kgt
