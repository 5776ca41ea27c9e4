// HTTP/2: small GETs a second against nghttpd through the daemon (the same connections
// and streams per connection that h2load gets in h2load_compare.sh), frames encoded and
// decoded a second without sockets, and HPACK of a typical SBI request's headers.
//
// The GET benchmark talks to the nghttpd named by KS_H2_TARGET (host:port, serving
// /small); without it, it starts one of its own on 127.0.0.1.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mv_http2_daemon.h"

namespace {

// ---------------------------------------------------------------- the target

struct Target {
    std::string host = "127.0.0.1";
    int port = 0;
    pid_t pid = -1;
};

bool targetStarted = false;

Target& target() {
    static Target t = [] {
        targetStarted = true;
        Target t;
        if (const char* env = getenv("KS_H2_TARGET")) {
            std::string s(env);
            size_t colon = s.rfind(':');
            t.host = s.substr(0, colon);
            t.port = atoi(s.c_str() + colon + 1);
            return t;
        }
        char dir[] = "/tmp/ks_h2bench_XXXXXX";
        if (!mkdtemp(dir)) return t;
        std::string file = std::string(dir) + "/small";
        FILE* f = fopen(file.c_str(), "w");
        fputs("small response\n", f);
        fclose(f);
        t.port = 20000 + int(getpid() % 20000);
        t.pid = fork();
        if (t.pid == 0) {
            int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
            execlp("nghttpd", "nghttpd", "--no-tls", "-a", t.host.c_str(), "-d", dir, std::to_string(t.port).c_str(),
                   (char*)nullptr);
            _exit(127);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return t;
    }();
    return t;
}

void startDaemon() {
    static bool once = [] {
        __init_morva_core();
        char dir[] = "/tmp/ks_h2benchlog_XXXXXX";
        if (mkdtemp(dir)) __mv_init_logger((std::string(dir) + "/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_ERROR);
        __mv_http2_deamon_initalize();
        return true;
    }();
    (void)once;
}

// ---------------------------------------------------------------- small GETs

struct Load {
    std::atomic<long> remaining{0};
    std::atomic<long> done{0};
    std::atomic<long> failed{0};
    long target = 0;
};
Load gLoad;

void issue(MV_Http2Connection* conn);

void onSmall(MV_Http2Context* ctx, uint8_t* data, long) {
    MV_Http2Connection* conn = ctx->conn;
    if (ctx->Response.HttpStatusCode != 200) ++gLoad.failed;
    __mv_http2_deamon_free_data(data);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
    // The waiting thread is woken once, at the end, not by every answer.
    if (++gLoad.done == gLoad.target) gLoad.done.notify_all();
    issue(conn);
}

void issue(MV_Http2Connection* conn) {
    if (gLoad.remaining.fetch_sub(1) <= 0) return;
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(conn);
    if (__mv_http2_deamon_send_get_request(ctx, "/small", nullptr, 0, onSmall) < 1) {
        __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
        ++gLoad.failed;
        if (++gLoad.done == gLoad.target) gLoad.done.notify_all();
    }
}

// Args: connections, streams per connection, requests per run.
void BM_SmallGetAgainstNghttpd(benchmark::State& state) {
    startDaemon();
    Target& t = target();
    int conns = int(state.range(0)), streams = int(state.range(1));
    long requests = state.range(2);
    MV_Http2ConnectionPool* pool = nullptr;
    __mv_http2_engine_create_connection_pool(conns, t.host.c_str(), t.port, 4, 0, &pool);
    for (MV_Http2Connection* c = pool->PoolHead; c; c = c->PoolNext) __mv_http2_engine_refresh_client_connection(c);
    for (auto _ : state) {
        gLoad.target = requests;
        gLoad.remaining = requests;
        gLoad.done = 0;
        gLoad.failed = 0;
        auto t0 = std::chrono::steady_clock::now();
        for (MV_Http2Connection* c = pool->PoolHead; c; c = c->PoolNext)
            for (int s = 0; s < streams; ++s) issue(c);
        for (long d = gLoad.done; d < requests; d = gLoad.done) gLoad.done.wait(d);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    state.SetItemsProcessed(state.iterations() * requests);
    state.counters["failed"] = double(gLoad.failed);
    for (MV_Http2Connection* c = pool->PoolHead; c; c = c->PoolNext)
        __mv_http2_engine_close_connection(c, MORVA_HTTP2_NO_ERROR);
}
BENCHMARK(BM_SmallGetAgainstNghttpd)
    ->ArgNames({"conns", "streams", "requests"})
    ->Args({1, 100, 200000})
    ->Args({4, 25, 200000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// h2load_compare.sh names the shape of its run: KS_H2_CONNS, KS_H2_STREAMS, KS_H2_REQUESTS.
const bool envShape = [] {
    const char* c = getenv("KS_H2_CONNS");
    if (!c) return false;
    const char* s = getenv("KS_H2_STREAMS");
    const char* r = getenv("KS_H2_REQUESTS");
    benchmark::RegisterBenchmark("BM_SmallGetAgainstNghttpd/env", BM_SmallGetAgainstNghttpd)
        ->Args({atoi(c), s ? atoi(s) : 100, r ? atol(r) : 200000})
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    return true;
}();

// ---------------------------------------------------------------- frames without sockets

void discard(MV_Http2Connection*, const uint8_t*, int) {}

// DATA frames of 100 bytes built and written (to a sink) one by one.
void BM_FramesEncoded(benchmark::State& state) {
    startDaemon();
    static MV_Http2Connection* c = [] {
        MV_Http2Connection* conn = __mv_http2_engine_new_detached_connection(0, discard);
        __mv_http2_engine_refresh_client_connection(conn);
        return conn;
    }();
    uint8_t payload[100] = {};
    for (auto _ : state) benchmark::DoNotOptimize(__mv_http2_engine_send_frame(c, MORVA_HTTP2_DATA, 1, 0, 0, payload, 100));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FramesEncoded);

// A buffer of frames read as from a socket: one response of 1000 DATA frames of 100
// bytes (what a large body is made of), with the WINDOW_UPDATEs they cause. The request
// that opens each stream is encoded and sent inside the timing, one per 1001 frames.
void BM_FramesDecoded(benchmark::State& state) {
    startDaemon();
    static MV_Http2Connection* c = [] {
        MV_Http2Connection* conn = __mv_http2_engine_new_detached_connection(0, discard);
        __mv_http2_engine_refresh_client_connection(conn);
        uint8_t settings[9] = {0, 0, 0, 4, 0, 0, 0, 0, 0};
        __mv_http2_engine_receive_bytes(conn, settings, 9);
        return conn;
    }();
    static int32_t sid = -1;
    nghttp2_nv nv[] = {{(uint8_t*)":method", (uint8_t*)"GET", 7, 3, 0}, {(uint8_t*)":path", (uint8_t*)"/x", 5, 2, 0},
                       {(uint8_t*)":scheme", (uint8_t*)"http", 7, 4, 0},
                       {(uint8_t*)":authority", (uint8_t*)"b:1", 10, 3, 0}};
    const int kFrames = 1000;
    std::vector<uint8_t> frames;
    auto frame = [&](int type, int flags, const uint8_t* p, int n) {
        uint8_t h[9] = {uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), uint8_t(type), uint8_t(flags), 0, 0, 0, 0};
        frames.insert(frames.end(), h, h + 9);
        frames.insert(frames.end(), p, p + n);
    };
    const uint8_t status200[] = {0x88};
    uint8_t body[100] = {};
    frame(MORVA_HTTP2_HEADERS, MORVA_HTTP2_FLAG_END_HEADERS, status200, 1);
    for (int i = 0; i < kFrames; ++i) frame(MORVA_HTTP2_DATA, i == kFrames - 1 ? MORVA_HTTP2_FLAG_END_STREAM : 0, body, 100);
    std::vector<size_t> idAt;
    for (size_t at = 0; at < frames.size();) {
        idAt.push_back(at + 5);
        at += 9 + (size_t(frames[at]) << 16 | size_t(frames[at + 1]) << 8 | frames[at + 2]);
    }
    for (auto _ : state) {
        sid += 2;
        {
            MV_Http2SendGuard g(c);
            __mv_http2_engine_send_nv(c, sid, nv, 4, nullptr, 0, 0);
        }
        for (size_t at : idAt) {
            frames[at] = uint8_t(sid >> 24);
            frames[at + 1] = uint8_t(sid >> 16);
            frames[at + 2] = uint8_t(sid >> 8);
            frames[at + 3] = uint8_t(sid);
        }
        __mv_http2_engine_receive_bytes(c, frames.data(), frames.size());
        __mv_http2_engine_run_app_line(c);
    }
    state.SetItemsProcessed(state.iterations() * (kFrames + 1));
}
BENCHMARK(BM_FramesDecoded);

// One request and its answer through the frame machine both ways, HPACK included: the
// request's HEADERS encoded, the answer's HEADERS and DATA decoded and delivered.
void BM_RequestResponseWithoutSockets(benchmark::State& state) {
    startDaemon();
    MV_Http2Connection* c = __mv_http2_engine_new_detached_connection(0, discard);
    __mv_http2_engine_refresh_client_connection(c);
    uint8_t settings[15] = {0, 0, 6, 4, 0, 0, 0, 0, 0, 0, 3, 0x7f, 0xff, 0xff, 0xff};
    __mv_http2_engine_receive_bytes(c, settings, 15);
    nghttp2_nv nv[] = {{(uint8_t*)":method", (uint8_t*)"GET", 7, 3, 0}, {(uint8_t*)":path", (uint8_t*)"/small", 5, 6, 0},
                       {(uint8_t*)":scheme", (uint8_t*)"http", 7, 4, 0},
                       {(uint8_t*)":authority", (uint8_t*)"127.0.0.1:8080", 10, 14, 0},
                       {(uint8_t*)"user-agent", (uint8_t*)MV_HTTP2_USER_AGENT, 10, 15, 0}};
    // :status 200, content-length 15 (a literal without indexing), and the body
    uint8_t answer[64];
    int32_t sid = 1;
    auto build = [&](int32_t id) {
        static const uint8_t block[] = {0x88, 0x0f, 0x0d, 0x02, '1', '5'};
        int n = 0;
        uint8_t h[9] = {0, 0, sizeof block, MORVA_HTTP2_HEADERS, MORVA_HTTP2_FLAG_END_HEADERS, uint8_t(id >> 24),
                        uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id)};
        memcpy(answer + n, h, 9);
        n += 9;
        memcpy(answer + n, block, sizeof block);
        n += int(sizeof block);
        uint8_t d[9] = {0, 0, 15, MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_END_STREAM, uint8_t(id >> 24), uint8_t(id >> 16),
                        uint8_t(id >> 8), uint8_t(id)};
        memcpy(answer + n, d, 9);
        n += 9;
        memcpy(answer + n, "small response\n", 15);
        return n + 15;
    };
    static long delivered = 0;
    __mv_http2_engine_set_app_request_handler([](MV_Http2Connection*, int32_t, uint8_t* h, int, uint8_t* d, long) {
        ++delivered;
        __mv_http2_block_free(h);
        __mv_http2_block_free(d);
    });
    fn_http2_app_message_handler saved = __mv_http2Engine->AppMessageHandler;
    __mv_http2Engine->AppMessageHandler = nullptr;
    for (auto _ : state) {
        {
            MV_Http2SendGuard g(c);
            __mv_http2_engine_send_nv(c, sid, nv, 5, nullptr, 0, 0);
        }
        int n = build(sid);
        __mv_http2_engine_receive_bytes(c, answer, size_t(n));
        __mv_http2_engine_run_app_line(c);
        sid += 2;
    }
    __mv_http2Engine->AppMessageHandler = saved;
    state.SetItemsProcessed(state.iterations());
    state.counters["delivered"] = double(delivered);
}
BENCHMARK(BM_RequestResponseWithoutSockets);

// The daemon's whole path for one GET and its answer, without sockets: a context, the
// request's headers and HEADERS frame, the answer's frames decoded, the response headers
// read and the callback called. What the GET benchmark's application line does per request.
void BM_DaemonRequestResponseWithoutSockets(benchmark::State& state) {
    startDaemon();
    MV_Http2Connection* c = __mv_http2_engine_new_detached_connection(0, discard);
    __mv_http2_engine_refresh_client_connection(c);
    uint8_t settings[15] = {0, 0, 6, 4, 0, 0, 0, 0, 0, 0, 3, 0x7f, 0xff, 0xff, 0xff};
    __mv_http2_engine_receive_bytes(c, settings, 15);
    // nghttpd's answer: :status 200, server, date, content-length, last-modified
    static const uint8_t block[] = {0x88, 0x76, 0x89, 0xaa, 0x63, 0x55, 0xe5, 0x80, 0xae, 0x17, 0x97, 0x07, 0x61, 0x96,
                                    0xdf, 0x69, 0x7e, 0x94, 0x03, 0x8a, 0x68, 0x1d, 0x8a, 0x08, 0x01, 0x6d, 0x40, 0x3f,
                                    0x71, 0x96, 0xe3, 0x4c, 0xa9, 0x8b, 0x46, 0xff, 0x5c, 0x02, 0x31, 0x35};
    uint8_t answer[128];
    auto build = [&](int32_t id) {
        int n = 0;
        uint8_t h[9] = {0, 0, sizeof block, MORVA_HTTP2_HEADERS, MORVA_HTTP2_FLAG_END_HEADERS, uint8_t(id >> 24),
                        uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id)};
        memcpy(answer + n, h, 9);
        n += 9;
        memcpy(answer + n, block, sizeof block);
        n += int(sizeof block);
        uint8_t d[9] = {0, 0, 15, MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_END_STREAM, uint8_t(id >> 24), uint8_t(id >> 16),
                        uint8_t(id >> 8), uint8_t(id)};
        memcpy(answer + n, d, 9);
        n += 9;
        memcpy(answer + n, "small response\n", 15);
        return n + 15;
    };
    static long ok = 0;
    auto cb = [](MV_Http2Context* ctx, uint8_t* data, long) {
        ok += ctx->Response.HttpStatusCode == 200;
        __mv_http2_deamon_free_data(data);
        __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
    };
    for (auto _ : state) {
        MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(c);
        __mv_http2_deamon_send_get_request(ctx, "/small", nullptr, 0, cb);
        int32_t sid = c->StreamId;
        int n = build(sid);
        __mv_http2_engine_receive_bytes(c, answer, size_t(n));
        __mv_http2_engine_run_app_line(c);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["ok"] = double(ok);
}
BENCHMARK(BM_DaemonRequestResponseWithoutSockets);

// ---------------------------------------------------------------- HPACK

// A typical SBI request: a UDM registration with a bearer token.
std::vector<nghttp2_nv> sbiHeaders(int ue) {
    static std::string token = "Bearer eyJhbGciOiJSUzI1NiIsInR5cCI6IkpXVCJ9." + std::string(220, 'x') + ".signature";
    static std::vector<std::string> paths = [] {
        std::vector<std::string> p;
        for (int i = 0; i < 1000; ++i)
            p.push_back("/nudm-uecm/v1/imsi-0010100000" + std::to_string(10000 + i) + "/registrations/amf-3gpp-access");
        return p;
    }();
    auto nv = [](const char* n, const std::string& v) {
        return nghttp2_nv{(uint8_t*)n, (uint8_t*)v.c_str(), strlen(n), v.size(), NGHTTP2_NV_FLAG_NONE};
    };
    static const std::string put = "PUT", http = "http", auth = "10.10.10.10:8080", json = "application/json",
                             len = "412", ua = MV_HTTP2_USER_AGENT, api = "http://udm.example.org:8080";
    return {nv(":method", put),   nv(":scheme", http),         nv(":authority", auth),
            nv(":path", paths[size_t(ue % 1000)]), nv("content-type", json), nv("content-length", len),
            nv("accept", json),   nv("user-agent", ua),        nv("3gpp-sbi-target-apiroot", api),
            nv("authorization", token)};
}

// The connection's encoder keeps its table, as the engine sends.
void BM_HpackEncodeSbiRequest(benchmark::State& state) {
    nghttp2_hd_deflater* d;
    nghttp2_hd_deflate_new2(&d, 4096, &mem_http2);
    uint8_t out[4096];
    int ue = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        auto nv = sbiHeaders(ue++);
        bytes = size_t(nghttp2_hd_deflate_hd(d, out, sizeof out, nv.data(), nv.size()));
    }
    nghttp2_hd_deflate_del(d);
    state.SetItemsProcessed(state.iterations());
    state.counters["block_bytes"] = double(bytes);
}
BENCHMARK(BM_HpackEncodeSbiRequest);

// A fresh encoder for every block, each standing alone.
void BM_HpackEncodeSbiRequestFreshEncoder(benchmark::State& state) {
    uint8_t out[4096];
    int ue = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        nghttp2_hd_deflater* d;
        nghttp2_hd_deflate_new2(&d, 4096, &mem_http2);
        auto nv = sbiHeaders(ue++);
        bytes = size_t(nghttp2_hd_deflate_hd(d, out, sizeof out, nv.data(), nv.size()));
        nghttp2_hd_deflate_del(d);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["block_bytes"] = double(bytes);
}
BENCHMARK(BM_HpackEncodeSbiRequestFreshEncoder);

// Blocks of one connection decoded in order, into the flat form the daemon reads.
void BM_HpackDecodeSbiRequest(benchmark::State& state) {
    startDaemon();
    const int kBlocks = 1000;
    std::vector<std::vector<uint8_t>> blocks;
    nghttp2_hd_deflater* d;
    nghttp2_hd_deflate_new2(&d, 4096, &mem_http2);
    for (int i = 0; i < kBlocks; ++i) {
        auto nv = sbiHeaders(i);
        std::vector<uint8_t> b(4096);
        b.resize(size_t(nghttp2_hd_deflate_hd(d, b.data(), b.size(), nv.data(), nv.size())));
        blocks.push_back(b);
    }
    nghttp2_hd_deflate_del(d);
    nghttp2_hd_inflater* inf = nullptr;
    int i = 0;
    uint8_t flat[8192];
    for (auto _ : state) {
        if (i % kBlocks == 0) {
            if (inf) nghttp2_hd_inflate_del(inf);
            nghttp2_hd_inflate_new2(&inf, &mem_http2);
        }
        const auto& b = blocks[size_t(i++ % kBlocks)];
        const uint8_t* in = b.data();
        size_t inlen = b.size();
        int pos = 0;
        for (;;) {
            nghttp2_nv nv;
            int flags = 0;
            ssize_t rv = nghttp2_hd_inflate_hd2(inf, &nv, &flags, in, inlen, 1);
            if (rv < 0) break;
            in += rv;
            inlen -= size_t(rv);
            if (flags & NGHTTP2_HD_INFLATE_EMIT)
                pos = __mv_http2_engine_put_header(flat, sizeof flat, pos, (const char*)nv.name, int(nv.namelen),
                                                   (const char*)nv.value, int(nv.valuelen));
            if (flags & NGHTTP2_HD_INFLATE_FINAL) {
                nghttp2_hd_inflate_end_headers(inf);
                break;
            }
        }
        benchmark::DoNotOptimize(pos);
    }
    nghttp2_hd_inflate_del(inf);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HpackDecodeSbiRequest);

struct StopTarget {
    ~StopTarget() {
        if (targetStarted && target().pid > 0) {
            kill(target().pid, SIGTERM);
            waitpid(target().pid, nullptr, 0);
        }
    }
} stopTarget;

}  // namespace

BENCHMARK_MAIN();
