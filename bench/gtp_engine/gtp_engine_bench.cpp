// The GTP-U module's own paths in a running engine, each beside the same work without the
// module: received T-PDUs counted on their UE's session against T-PDUs the endpoint drops for
// an unknown TEID (the decode and lookup alone); a capture replayed through one UE's tunnel;
// one PFCP step packet built and sent against a plain sendto of the same bytes.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "KsGTP.h"
#include "Kestrane.h"

namespace {

constexpr int kUEs = 1000;
std::vector<uint32_t> downlink;  // a TEID per UE
int sinkFd = -1;
gtpu_peer sink{};

bool startEngine() {
    static bool ok = [] {
        char tmpl[] = "/tmp/ks_bench_gtp_XXXXXX";
        std::string dir = mkdtemp(tmpl);
        mkdir((dir + "/data").c_str(), 0700);
        mkdir((dir + "/pcap_protocols").c_str(), 0700);
        auto write = [&](const std::string& name, const std::string& text) {
            std::ofstream(dir + "/" + name, std::ios::binary) << text;
        };
        std::ifstream cap(std::string(KS_GTPU_DATA) + "/ue_traffic.pcap", std::ios::binary);
        std::stringstream ss;
        ss << cap.rdbuf();
        write("pcap_protocols/ue_traffic.pcap", ss.str());
        write("cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "UPF_SRC_PORT": 0, "MaximumUE": 2000, "IMSIPrefixWithZERO": 1,
                              "CLIPort": 0})");
        write("data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000001000",
                                     "MSISDNBegin": "1", "MCC": "001", "MNC": "01"}])");
        if (chdir(dir.c_str()) != 0) return false;
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        if (KsEngine__Startup(2, argv) != 1 || !__gtpv1Server || !__gtpv1Server->gtpServerSocket) return false;
        sinkFd = socket(AF_INET, SOCK_DGRAM, 0);
        gtpu_peer_set(&sink, "127.0.0.1", 0);
        socklen_t len = sizeof sink.v4;
        if (bind(sinkFd, &sink.sa, len) != 0 || getsockname(sinkFd, &sink.sa, &len) != 0) return false;
        for (int n = 1; n <= kUEs; ++n) {
            char imsi[20];
            snprintf(imsi, sizeof imsi, "00101%010d", n);
            MV_KsUE* u = nullptr;
            KsEngine__FindUEByIMSI(&u, imsi);
            if (!u) return false;
            MV_KsUEPduSession& s = u->pduSessions[1];
            s.ksUe = u;
            s.UPF__UPTLA_ipv = 1;
            s.UPF__UPTLA_ipv4_int = 0x7f000001;
            s.gtpTEID = 0x1000u + uint32_t(n);
            s.u_pduAddress = 0x0a2d0000u + uint32_t(n);
            s.isStarted = 1;
            downlink.push_back(KsGTP__AllocateDownlinkTEID(&s));
        }
        return true;
    }();
    return ok;
}

// Drains the sink so that the kernel's buffer never refuses a send.
void drain() {
    uint8_t b[2048];
    while (recv(sinkFd, b, sizeof b, MSG_DONTWAIT) > 0) {
    }
}

std::vector<std::vector<uint8_t>> tpdus(bool known) {
    std::vector<std::vector<uint8_t>> v;
    for (int i = 0; i < kUEs; ++i) {
        gtpu_inner f;
        f.protocol = GTPU_IP_UDP;
        f.srcV4 = 0x08080808;
        f.dstV4 = 0x0a2d0000u + uint32_t(i + 1);
        std::vector<uint8_t> inner(128);
        inner.resize(gtpu_build_inner_packet(inner, f, std::vector<uint8_t>(64, 0)));
        gtpu_tpdu_hdr h;
        h.teid = known ? downlink[size_t(i)] : 0xfff00000u + uint32_t(i);
        h.pduType = GTPU_PDU_TYPE_DL;
        std::vector<uint8_t> d(16 + inner.size());
        gtpu_build_tpdu_header(d, h, inner.size());
        std::copy(inner.begin(), inner.end(), d.begin() + 16);
        v.push_back(d);
    }
    return v;
}

void rx(benchmark::State& state, bool known) {
    if (!startEngine()) return state.SkipWithError("engine did not start");
    auto pkts = tpdus(known);
    gtpu_peer from{};
    gtpu_peer_set(&from, "127.0.0.2", GTPU_PORT);
    size_t i = 0;
    for (auto _ : state) {
        const auto& p = pkts[i++ % pkts.size()];
        __mv_gtpu__handle_datagram(__gtpv1Server->gtpServerSocket, p, from);
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
void BM_RxMatchedToUE(benchmark::State& state) { rx(state, true); }
void BM_RxUnknownTeidDropped(benchmark::State& state) { rx(state, false); }
BENCHMARK(BM_RxMatchedToUE);
BENCHMARK(BM_RxUnknownTeidDropped);

void BM_CaptureReplayOneUE(benchmark::State& state) {
    if (!startEngine()) return state.SkipWithError("engine did not start");
    gtpu_rewrite rw;
    rw.srcV4 = 0x0a2d0001;
    int64_t packets = 0;
    for (auto _ : state) {
        uint64_t bytes = 0;
        int n = KsGTP__send_direct_capture(nullptr, sink, 0, 0x1001, 0, rw, &bytes);
        if (n <= 0) return state.SkipWithError("replay sent nothing");
        packets += n;
        state.PauseTiming();
        drain();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(packets);
}
BENCHMARK(BM_CaptureReplayOneUE);

KsGTPDirectPacket tcpPacket() {
    KsGTPDirectPacket p;
    p.teid = 0x1001;
    p.inner.protocol = GTPU_IP_TCP;
    p.inner.srcV4 = 0x0a2d0001;
    p.inner.dstV4 = 0x0a0a0a0a;
    p.inner.srcPort = 7000;
    p.inner.dstPort = 8000;
    p.payloadLen = 300;
    return p;
}

void BM_PfcpDirectSend(benchmark::State& state) {
    if (!startEngine()) return state.SkipWithError("engine did not start");
    KsGTPDirectPacket p = tcpPacket();
    int64_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(KsGTP__send_direct(nullptr, sink, p));
        if (++n % 256 == 0) drain();
    }
    state.SetItemsProcessed(n);
}
BENCHMARK(BM_PfcpDirectSend);

// The same 360 octets from a plain socket: what the system call alone costs.
void BM_PlainSendtoSameBytes(benchmark::State& state) {
    if (!startEngine()) return state.SkipWithError("engine did not start");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<uint8_t> b(16 + 40 + 300, 0);
    int64_t n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(sendto(fd, b.data(), b.size(), 0, &sink.sa, sizeof sink.v4));
        if (++n % 256 == 0) drain();
    }
    close(fd);
    state.SetItemsProcessed(n);
}
BENCHMARK(BM_PlainSendtoSameBytes);

}  // namespace

BENCHMARK_MAIN();
