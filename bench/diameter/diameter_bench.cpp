// The Diameter codec on one core, and requests with answers on one TCP connection against
// a fast scripted answerer, beside the plain socket loop against the same answerer in the
// same run: how much of a round trip the stack itself costs.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mv_diam.h"

namespace {

constexpr uint32_t kGx = 16777238;

// A credit-control request of 20 AVPs, groups and vendor AVPs among them.
MV_DiamMessage* request20(uint32_t e2e) {
    MV_DiamMessage* m = __mv_diam_create_message2(272, kGx, 1, e2e, 1);
    __mv_diam_add_string_avp(m, 263, 0, 1, "ks.realm;1700000000;1501;20001", 30);
    __mv_diam_add_uint32_avp(m, 258, 0, 1, kGx);
    __mv_diam_add_string_avp(m, 264, 0, 1, "pcef.ks.realm", 13);
    __mv_diam_add_string_avp(m, 296, 0, 1, "ks.realm", 8);
    __mv_diam_add_string_avp(m, 283, 0, 1, "pcrf.realm", 10);
    __mv_diam_add_uint32_avp(m, 416, 0, 1, 1);
    __mv_diam_add_uint32_avp(m, 415, 0, 1, 0);
    MV_DiamAvp* sub = __mv_diam_add_grouped_avp(m, 443, 0, 1);
    __mv_diam_add_uint32_avp_to_grpavp(sub, 450, 0, 1, 1);
    __mv_diam_add_string_avp_to_grpavp(sub, 444, 0, 1, "001010123456789", 15);
    uint8_t ip[4] = {10, 45, 0, 1};
    __mv_diam_add_string_avp(m, 8, 0, 1, ip, 4);
    __mv_diam_add_uint32_avp(m, 1027, MV_DIAM_VENDOR_3GPP, 1, 5);
    __mv_diam_add_uint32_avp(m, 1032, MV_DIAM_VENDOR_3GPP, 1, 1004);
    MV_DiamAvp* qos = __mv_diam_add_grouped_avp(m, 1016, MV_DIAM_VENDOR_3GPP, 1);
    __mv_diam_add_uint32_avp_to_grpavp(qos, 1041, MV_DIAM_VENDOR_3GPP, 1, 50000000);
    __mv_diam_add_string_avp(m, 30, 0, 1, "internet", 8);
    __mv_diam_add_uint64_avp(m, 421, 0, 1, 123456789);
    return m;
}

uint32_t types(uint32_t code, uint32_t) {
    switch (code) {
        case 416: case 415: case 450: case 1027: case 1041: return 4;
        case 443: case 1016: return 6;
        case 421: return 5;
        default: return 0;
    }
}

void BM_Encode20AvpRequest(benchmark::State& st) {
    MV_DiamMessage* m = request20(1);
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    int n = 0;
    for (auto _ : st) {
        n = __mv_diam_encodeMessage(m, buf, sizeof buf);
        benchmark::DoNotOptimize(buf);
    }
    st.counters["bytes"] = n;
    st.SetItemsProcessed(st.iterations());
    __mv_diam_freeMessage2(m);
}
BENCHMARK(BM_Encode20AvpRequest);

void BM_BuildAndEncode20AvpRequest(benchmark::State& st) {
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    for (auto _ : st) {
        MV_DiamMessage* m = request20(1);
        benchmark::DoNotOptimize(__mv_diam_encodeMessage(m, buf, sizeof buf));
        __mv_diam_freeMessage2(m);
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_BuildAndEncode20AvpRequest);

void BM_Decode20AvpRequest(benchmark::State& st) {
    __mv_diam_set_dict_pre_handler(types);
    MV_DiamMessage* m = request20(1);
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    int n = __mv_diam_encodeMessage(m, buf, sizeof buf);
    __mv_diam_freeMessage2(m);
    for (auto _ : st) {
        MV_DiamDecodeStatus s{};
        MV_DiamMessage* d = __mv_diam_decodeMessage(std::span<const uint8_t>(buf, size_t(n)), &s);
        benchmark::DoNotOptimize(d);
        __mv_diam_freeMessage2(d);
    }
    st.SetItemsProcessed(st.iterations());
    __mv_diam_set_dict_pre_handler(nullptr);
}
BENCHMARK(BM_Decode20AvpRequest);

// ---------------------------------------------------------------- the answerer

// Answers every request on its connection at once: the request's header with R cleared
// and a fixed Result-Code 2001, Origin-Host and Origin-Realm, written in batches.
class Answerer {
public:
    Answerer() {
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        setsockopt(lfd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(lfd_, reinterpret_cast<sockaddr*>(&a), len);
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&a), &len);
        listen(lfd_, 16);
        port_ = ntohs(a.sin_port);
        std::thread([this] {
            for (;;) {
                int c = accept(lfd_, nullptr, nullptr);
                if (c < 0) return;
                std::thread(serve, c).detach();
            }
        }).detach();
    }
    int port() const { return port_; }

private:
    static void put(std::vector<uint8_t>& b, uint32_t code, const std::string& text) {
        uint32_t len = 8 + uint32_t(text.size());
        uint8_t h[8] = {uint8_t(code >> 24), uint8_t(code >> 16), uint8_t(code >> 8), uint8_t(code), 0x40,
                        uint8_t(len >> 16), uint8_t(len >> 8), uint8_t(len)};
        b.insert(b.end(), h, h + 8);
        b.insert(b.end(), text.begin(), text.end());
        while (b.size() % 4) b.push_back(0);
    }
    static void serve(int c) {
        int on = 1;
        setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::vector<uint8_t> tail;
        put(tail, 268, std::string("\0\0\x07\xd1", 4));
        put(tail, 264, "answerer.bench.realm");
        put(tail, 296, "bench.realm");
        std::vector<uint8_t> in, out;
        uint8_t buf[65536];
        for (;;) {
            ssize_t n = read(c, buf, sizeof buf);
            if (n <= 0) break;
            in.insert(in.end(), buf, buf + n);
            size_t at = 0;
            while (in.size() - at >= 20) {
                uint32_t len = uint32_t(in[at + 1]) << 16 | uint32_t(in[at + 2]) << 8 | in[at + 3];
                if (len < 20 || in.size() - at < len) break;
                if (in[at + 4] & 0x80) {
                    size_t start = out.size();
                    out.insert(out.end(), in.begin() + long(at), in.begin() + long(at) + 20);
                    out.insert(out.end(), tail.begin(), tail.end());
                    uint32_t alen = uint32_t(out.size() - start);
                    out[start + 1] = uint8_t(alen >> 16);
                    out[start + 2] = uint8_t(alen >> 8);
                    out[start + 3] = uint8_t(alen);
                    out[start + 4] &= 0x7F;
                }
                at += len;
            }
            in.erase(in.begin(), in.begin() + long(at));
            if (!out.empty() && write(c, out.data(), out.size()) != ssize_t(out.size())) break;
            out.clear();
        }
        close(c);
    }
    int lfd_ = -1;
    int port_ = 0;
};

Answerer& answerer() {
    static Answerer* a = new Answerer;
    return *a;
}

std::atomic<long> answered{0};
void onAnswer(MV_DiamMessage* m) {
    if (__mv_diam_answer_object(m)) {
        answered.fetch_add(1, std::memory_order_release);
        answered.notify_one();
    }
    __mv_diam_freeMessage2(m);
}

MV_DiamNode* benchPeer() {
    static MV_DiamNode* p = [] {
        __init_morva_core();
        __mv_init_logger("/tmp/ks_bench_diameter/");
        __mv_socket_engine_init();
        __mv_socket_engine_start();
        __mv_diam_create_IndexTable(1552, 65536);
        __mv_diam_stack_init(nullptr);
        __mv_diam_register_app_handler(kGx, onAnswer);
        MV_DiamNode* host = __mv_diam_new_node("bench", "pcef.bench.realm", "bench.realm");
        snprintf(host->sIP[0], sizeof host->sIP[0], "127.0.0.1");
        host->sIPCount = 1;
        host->AuthApplicationId[0] = kGx;
        host->AuthApplicationIdCount = 1;
        MV_DiamNode* peer = __mv_diam_new_node("bench-peer", "answerer.bench.realm", "bench.realm");
        snprintf(peer->sIP[0], sizeof peer->sIP[0], "127.0.0.1");
        peer->sIPCount = 1;
        peer->IPPort = answerer().port();
        peer->hostNode = host;
        peer->AuthApplicationId[0] = kGx;
        peer->AuthApplicationIdCount = 1;
        __mv_diam_start_peer(peer);
        while (__mv_diam__get_peer_status(peer) != 20) usleep(10000);
        return peer;
    }();
    return p;
}

// The 7 AVPs of the requests of the round-trip runs.
void requestAvps(MV_DiamMessage* m, MV_DiamNode* peer) {
    __mv_diam_add_string_avp(m, 263, 0, 1, "ks.realm;1700000000;1501;20001", 30);
    __mv_diam_add_uint32_avp(m, 258, 0, 1, kGx);
    __mv_diam_add_host_name(m, peer->hostNode);
    __mv_diam_add_host_realm(m, peer->hostNode);
    __mv_diam_add_peer_realm(m, peer);
    __mv_diam_add_uint32_avp(m, 416, 0, 1, 1);
    __mv_diam_add_uint32_avp(m, 415, 0, 1, 0);
}

double cpuSeconds() {
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

void waitBelow(long sent, long window) {
    for (long a = answered.load(std::memory_order_acquire); sent - a >= window; a = answered.load(std::memory_order_acquire))
        answered.wait(a, std::memory_order_acquire);
}

// Requests made through the session table and sent one by one, up to `window` waiting;
// each answer decoded, found by its End-to-End Identifier and freed.
void BM_StackRequestsWithAnswers(benchmark::State& st) {
    MV_DiamNode* peer = benchPeer();
    long window = st.range(0);
    static int ue;
    long sent = answered.load();
    double cpu0 = cpuSeconds();
    for (auto _ : st) {
        waitBelow(sent, window);
        MV_DiamMessage* m = __mv_diam_create_request3(272, kGx, &ue, nullptr, 0);
        if (!m) {
            st.SkipWithError("no free row");
            break;
        }
        requestAvps(m, peer);
        if (__mv_diam_send_message(m, peer) < 1) st.SkipWithError("send failed");
        __mv_diam_freeMessage2(m);
        ++sent;
    }
    waitBelow(sent, 1);
    st.counters["cpu_us_per_request"] = (cpuSeconds() - cpu0) * 1e6 / double(st.iterations());
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_StackRequestsWithAnswers)->Arg(1)->Arg(64)->Arg(512)->UseRealTime()->MinTime(2.0);

// The same bytes from a plain blocking socket against the same answerer, its answers read
// by a second thread that counts whole messages.
void BM_PlainSocketRequestsWithAnswers(benchmark::State& st) {
    benchPeer();
    long window = st.range(0);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(answerer().port()));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    uint8_t req[MV_DIAM_BUFFER_SIZE];
    // The stack's request of the run above, in bytes.
    MV_DiamMessage* small = __mv_diam_create_message2(272, kGx, 1, 1, 1);
    requestAvps(small, benchPeer());
    int n = __mv_diam_encodeMessage(small, req, sizeof req);
    __mv_diam_freeMessage2(small);
    std::atomic<long> got{0};
    std::thread reader([&] {
        std::vector<uint8_t> in;
        uint8_t buf[65536];
        for (;;) {
            ssize_t r = read(fd, buf, sizeof buf);
            if (r <= 0) return;
            in.insert(in.end(), buf, buf + r);
            size_t at = 0;
            long whole = 0;
            while (in.size() - at >= 4) {
                uint32_t len = uint32_t(in[at + 1]) << 16 | uint32_t(in[at + 2]) << 8 | in[at + 3];
                if (in.size() - at < len) break;
                at += len;
                ++whole;
            }
            in.erase(in.begin(), in.begin() + long(at));
            got.fetch_add(whole, std::memory_order_release);
            got.notify_one();
        }
    });
    long sent = 0;
    double cpu0 = cpuSeconds();
    for (auto _ : st) {
        for (long g = got.load(std::memory_order_acquire); sent - g >= window; g = got.load(std::memory_order_acquire))
            got.wait(g, std::memory_order_acquire);
        if (write(fd, req, size_t(n)) != n) break;
        ++sent;
    }
    for (long g = got.load(); g < sent; g = got.load()) got.wait(g);
    st.counters["cpu_us_per_request"] = (cpuSeconds() - cpu0) * 1e6 / double(st.iterations());
    st.SetItemsProcessed(st.iterations());
    shutdown(fd, SHUT_RDWR);
    reader.join();
    close(fd);
}
BENCHMARK(BM_PlainSocketRequestsWithAnswers)->Arg(1)->Arg(64)->Arg(512)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
