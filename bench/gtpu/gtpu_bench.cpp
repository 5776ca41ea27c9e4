// The user plane's hot paths on one core. Sending: T-PDUs built per packet (tunnel header, inner
// IPv4 and UDP headers with their checksums, a shared zero payload) and sent in batches of 64 by
// sendmmsg, against the same packets prebuilt and sent by a plain sendmmsg loop and by one sendto
// each, to a loopback sink that is never read (the kernel drops what overflows it, the same for
// all). Receiving: the decoder alone, and datagrams matched to their UE through the TEID table.
// Replay: a capture's packets rewritten per UE and sent.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gtpu_codec.h"
#include "gtpu_ip.h"
#include "gtpu_node.h"
#include "gtpu_path.h"
#include "gtpu_pcap.h"
#include "mv_core.h"

namespace {

const uint8_t kZeros[2048] = {};

void startRuntime() {
    static bool once = [] {
        char dir[] = "/tmp/ks_gtpu_bench_XXXXXX";
        if (!mkdtemp(dir)) abort();
        __init_morva_core();
        __mv_init_logger((std::string(dir) + "/logs/").c_str());
        return true;
    }();
    (void)once;
}

// A UDP socket on loopback that nobody reads, with a small buffer so that the kernel drops early.
struct Sink {
    Sink() {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        int small = 64 << 10;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        gtpu_peer_set(&addr, "127.0.0.1", 0);
        socklen_t l = sizeof addr.v4;
        if (bind(fd, &addr.sa, l) != 0 || getsockname(fd, &addr.sa, &l) != 0) abort();
    }
    ~Sink() { close(fd); }
    int fd;
    gtpu_peer addr{};
};

// One uplink T-PDU of UE `ue` with `payload` zero octets behind UDP: returns the head's length.
size_t buildHead(uint8_t* head, uint32_t ue, uint16_t seq, size_t payload) {
    gtpu_inner f;
    f.protocol = GTPU_IP_UDP;
    f.srcV4 = 0x0a2d0000 + ue;
    f.dstV4 = 0x08080808;
    f.srcPort = 6000;
    f.dstPort = 7000;
    f.ipId = seq;
    size_t il = gtpu_build_inner_headers(std::span<uint8_t>(head + 16, GTPU_SLOT_HEAD - 16), f, payload, 0);
    gtpu_tpdu_hdr h;
    h.teid = 0x1000 + ue;
    h.seq = seq;
    h.qfi = 9;
    if (!il || gtpu_build_tpdu_header(std::span<uint8_t>(head, 16), h, il + payload) != 16) abort();
    return 16 + il;
}

void BM_GtpuBuiltSendmmsg(benchmark::State& state) {
    Sink sink;
    gtpu_path path;
    if (gtpu_path_open(&path, "127.0.0.1", 0) != 1) abort();
    auto batch = std::make_unique<gtpu_tx_batch>();
    const size_t payload = size_t(state.range(0));
    uint16_t seq = 0;
    uint64_t sent = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < GTPU_BATCH; i++) {
            gtpu_tx_slot* s = batch->next();
            s->headLen = uint16_t(buildHead(s->head, i, seq++, payload));
            s->tail = kZeros;
            s->tailLen = uint32_t(payload);
            s->to = sink.addr;
        }
        sent += unsigned(gtpu_path_send(&path, batch.get()));
    }
    gtpu_path_close(&path);
    state.SetItemsProcessed(int64_t(sent));
}
BENCHMARK(BM_GtpuBuiltSendmmsg)->Arg(64)->Arg(1400);

// The same packets, built once, contiguous, and sent as they are.
struct Prebuilt {
    explicit Prebuilt(size_t payload) : bytes(GTPU_BATCH) {
        for (unsigned i = 0; i < GTPU_BATCH; i++) {
            uint8_t head[GTPU_SLOT_HEAD];
            size_t hl = buildHead(head, i, uint16_t(i), payload);
            bytes[i].assign(head, head + hl);
            bytes[i].insert(bytes[i].end(), kZeros, kZeros + payload);
        }
    }
    std::vector<std::vector<uint8_t>> bytes;
};

void BM_PlainSendmmsg(benchmark::State& state) {
    Sink sink;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    Prebuilt pkts(size_t(state.range(0)));
    mmsghdr msg[GTPU_BATCH];
    iovec iov[GTPU_BATCH];
    for (unsigned i = 0; i < GTPU_BATCH; i++) {
        iov[i] = iovec{pkts.bytes[i].data(), pkts.bytes[i].size()};
        msg[i] = mmsghdr{};
        msg[i].msg_hdr.msg_name = &sink.addr;
        msg[i].msg_hdr.msg_namelen = sizeof sink.addr.v4;
        msg[i].msg_hdr.msg_iov = &iov[i];
        msg[i].msg_hdr.msg_iovlen = 1;
    }
    uint64_t sent = 0;
    for (auto _ : state) {
        int r = sendmmsg(fd, msg, GTPU_BATCH, 0);
        if (r > 0) sent += unsigned(r);
    }
    close(fd);
    state.SetItemsProcessed(int64_t(sent));
}
BENCHMARK(BM_PlainSendmmsg)->Arg(64)->Arg(1400);

void BM_PlainSendtoEach(benchmark::State& state) {
    Sink sink;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    Prebuilt pkts(size_t(state.range(0)));
    uint64_t sent = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < GTPU_BATCH; i++)
            sent += sendto(fd, pkts.bytes[i].data(), pkts.bytes[i].size(), 0, &sink.addr.sa, sizeof sink.addr.v4) > 0;
    }
    close(fd);
    state.SetItemsProcessed(int64_t(sent));
}
BENCHMARK(BM_PlainSendtoEach)->Arg(64)->Arg(1400);

// Building alone: what the generator adds to the system's work per packet.
void BM_GtpuBuildOnly(benchmark::State& state) {
    uint8_t head[GTPU_SLOT_HEAD];
    uint16_t seq = 0;
    for (auto _ : state) {
        size_t n = buildHead(head, seq & 1023, seq, size_t(state.range(0)));
        ++seq;
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(head);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GtpuBuildOnly)->Arg(64)->Arg(1400);

std::vector<uint8_t> tpdu(uint32_t ue) {
    std::vector<uint8_t> d(GTPU_SLOT_HEAD + 64);
    d.resize(buildHead(d.data(), ue, 1, 64) + 64);
    return d;
}

void BM_GtpuDecode(benchmark::State& state) {
    std::vector<uint8_t> d = tpdu(7);
    gtpu_msg_t m;
    for (auto _ : state) {
        int r = gtpu_decode(d, &m);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(m);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GtpuDecode);

// Received T-PDUs of 10,000 UEs, each decoded, its TEID looked up and its owner's count raised.
std::atomic<uint64_t>* gPerUe = nullptr;
void BM_GtpuRxMatchedToUe(benchmark::State& state) {
    startRuntime();
    constexpr uint32_t kUes = 10000;
    std::vector<std::atomic<uint64_t>> perUe(kUes);
    gPerUe = perUe.data();
    MV_IndexTable* teids = __mv_IndexTable_create(1, kUes);
    std::vector<std::vector<uint8_t>> dgrams;
    for (uint32_t i = 0; i < kUes; i++) {
        uint32_t id = __mv_IndexTable_allocateRowId(teids, &perUe[i]);
        auto d = tpdu(0);
        d[4] = uint8_t((id + 0x1000) >> 24);
        d[5] = uint8_t((id + 0x1000) >> 16);
        d[6] = uint8_t((id + 0x1000) >> 8);
        d[7] = uint8_t(id + 0x1000);
        dgrams.push_back(std::move(d));
    }
    __mv_gtpu_config cfg;
    cfg.ip = "127.0.0.1";
    cfg.port = 0;
    cfg.teidTable = teids;
    cfg.teidOffset = 0x1000;
    cfg.receiver = false;
    cfg.handlers.OnTPDU = [](void* owner, void*, const gtpu_msg_t*, const gtpu_peer*) {
        static_cast<std::atomic<uint64_t>*>(owner)->fetch_add(1, std::memory_order_relaxed);
    };
    __mv_gtpu_node* node = __mv_gtpu__open(&cfg);
    if (!node) abort();
    gtpu_peer from;
    gtpu_peer_set(&from, "127.0.0.1", 2152);
    uint32_t i = 0;
    for (auto _ : state) {
        __mv_gtpu__handle_datagram(node, dgrams[i], from);
        if (++i == kUes) i = 0;
    }
    __mv_gtpu_stats s;
    __mv_gtpu__get_stats(node, &s);
    if (s.rxTpdu != uint64_t(state.iterations())) state.SkipWithError("a T-PDU was not matched");
    __mv_gtpu__close(node);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GtpuRxMatchedToUe);

// A capture's replayable packets, each rewritten for the next of 1,000 UEs and sent in batches.
void BM_GtpuCaptureReplay(benchmark::State& state) {
    startRuntime();
    auto cap = gtpu_capture_load(KS_GTPU_DATA "/ue_traffic.pcap");
    if (!cap || cap->packets.empty()) {
        state.SkipWithError("no capture");
        return;
    }
    Sink sink;
    gtpu_path path;
    if (gtpu_path_open(&path, "127.0.0.1", 0) != 1) abort();
    auto batch = std::make_unique<gtpu_tx_batch>();
    uint8_t v6[16] = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    uint64_t sent = 0;
    uint32_t ue = 0;
    size_t k = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < GTPU_BATCH; i++) {
            const gtpu_capture_packet& p = cap->packets[k];
            if (++k == cap->packets.size()) {
                k = 0;
                ue = (ue + 1) % 1000;
            }
            gtpu_tpdu_hdr h;
            h.teid = 0x1000 + ue;
            h.qfi = 5;
            gtpu_rewrite rw;
            rw.srcV4 = 0x0a2d0000 + ue;
            rw.srcV6 = v6;
            gtpu_tx_slot* s = batch->next();
            if (!gtpu_replay_slot(s, *cap, p, h, rw)) {
                batch->drop_last();
                continue;
            }
            s->to = sink.addr;
        }
        sent += unsigned(gtpu_path_send(&path, batch.get()));
    }
    gtpu_path_close(&path);
    state.SetItemsProcessed(int64_t(sent));
}
BENCHMARK(BM_GtpuCaptureReplay);

}  // namespace

BENCHMARK_MAIN();
