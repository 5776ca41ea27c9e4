// The daemon on a connection without a socket: what a request puts on the wire, who
// gets an answer, a time-out and a late answer, what goes back to the pools, header
// lists, the owner's slots, pools per API root, multipart bodies and JSON on the pools.
#include <jansson.h>

#include <map>

#include "http2_env.h"
#include "mv_alloc.h"

namespace {

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new h2t::DaemonEnv);

std::mutex gMu;
std::string gOut;
void sink(MV_Http2Connection*, const uint8_t* p, int n) {
    std::lock_guard g(gMu);
    gOut.append(reinterpret_cast<const char*>(p), size_t(n));
}

std::string frame(int type, int flags, int32_t sid, const std::string& payload = "") {
    size_t n = payload.size();
    std::string f = {char(n >> 16), char(n >> 8), char(n), char(type), char(flags), char(sid >> 24), char(sid >> 16),
                     char(sid >> 8), char(sid)};
    return f + payload;
}

// A client connection without a socket whose server answers by hand.
struct Link {
    MV_Http2Connection* c = __mv_http2_engine_new_detached_connection(0, sink);
    Link() {
        {
            std::lock_guard g(gMu);
            gOut.clear();
        }
        __mv_http2_engine_refresh_client_connection(c);
        feed(frame(MORVA_HTTP2_SETTINGS, 0, 0));
    }
    void feed(const std::string& b) {
        __mv_http2_engine_receive_bytes(c, reinterpret_cast<const uint8_t*>(b.data()), b.size());
        __mv_http2_engine_run_app_line(c);
    }
    // The fields of the last HEADERS the engine wrote, decoded by a decoder of our own.
    std::map<std::string, std::string> lastRequest(int* flags) {
        std::string out;
        {
            std::lock_guard g(gMu);
            out = gOut;
        }
        static nghttp2_hd_inflater* inf = nullptr;  // follows the engine's encoder across tests
        static MV_Http2Connection* infFor = nullptr;
        if (infFor != c) {
            if (inf) nghttp2_hd_inflate_del(inf);
            nghttp2_hd_inflate_new(&inf);
            infFor = c;
            decodedUpTo = 24;
        }
        std::map<std::string, std::string> fields;
        for (size_t at = decodedUpTo; at + 9 <= out.size();) {
            const auto* p = reinterpret_cast<const uint8_t*>(out.data()) + at;
            size_t n = size_t(p[0]) << 16 | size_t(p[1]) << 8 | p[2];
            if (p[3] == MORVA_HTTP2_HEADERS) {
                fields.clear();
                *flags = p[4];
                const uint8_t* in = p + 9;
                size_t left = n;
                for (;;) {
                    nghttp2_nv nv;
                    int fl = 0;
                    ssize_t rv = nghttp2_hd_inflate_hd2(inf, &nv, &fl, in, left, 1);
                    if (rv < 0) break;
                    in += rv;
                    left -= size_t(rv);
                    if (fl & NGHTTP2_HD_INFLATE_EMIT)
                        fields[std::string((char*)nv.name, nv.namelen)] = std::string((char*)nv.value, nv.valuelen);
                    if (fl & NGHTTP2_HD_INFLATE_FINAL) {
                        nghttp2_hd_inflate_end_headers(inf);
                        break;
                    }
                }
            }
            at += 9 + n;
            decodedUpTo = at;
        }
        return fields;
    }
    size_t decodedUpTo = 24;
};

using h2t::Answer;

TEST(Daemon, AGetWithoutABodyEndsItsStreamWithItsHeaders) {
    Link l;
    Answer a;
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(l.c);
    __mv_http2_deamon_add_request_header(ctx, "Accept", "application/json");
    ASSERT_GT(h2t::request(ctx, MORVA_HTTP2_REQUEST_METHOD_GET, "/nudm-sdm/v2/imsi-1", "", &a), 0);
    int flags = 0;
    auto f = l.lastRequest(&flags);
    EXPECT_EQ(flags, MORVA_HTTP2_FLAG_END_STREAM | MORVA_HTTP2_FLAG_END_HEADERS);
    EXPECT_EQ(f[":method"], "GET");
    EXPECT_EQ(f[":path"], "/nudm-sdm/v2/imsi-1");
    EXPECT_EQ(f[":scheme"], "http");
    EXPECT_EQ(f["content-length"], "0");
    EXPECT_EQ(f["accept"], "application/json");  // names in lower case
    EXPECT_EQ(f["user-agent"], MV_HTTP2_USER_AGENT);
    l.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));
    ASSERT_TRUE(a.wait(1));
    EXPECT_EQ(a.status, 200);
}

// The answer reaches its callback with status, headers and body, whatever the order
// of answers; one with no header block still reaches it, as a failed stream.
TEST(Daemon, AnswersFindTheirRequests) {
    Link l;
    Answer a1, a3, bare;
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context_on(l.c), MORVA_HTTP2_REQUEST_METHOD_POST, "/1",
                           "{\"a\":1}", &a1),
              0);
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context_on(l.c), MORVA_HTTP2_REQUEST_METHOD_GET, "/3", "",
                           &a3),
              0);
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context_on(l.c), MORVA_HTTP2_REQUEST_METHOD_GET, "/5", "",
                           &bare),
              0);
    // stream 3 answered first: 404 with a JSON body; then stream 1: 201 with a location
    l.feed(frame(MORVA_HTTP2_HEADERS, 4, 3, "\x8d\x5f\x10" "application/json") + frame(MORVA_HTTP2_DATA, 1, 3, "{}") +
           frame(MORVA_HTTP2_HEADERS, 5, 1, std::string("\x48\x03" "201", 5) + "\x6e\x04/x/1") +
           frame(MORVA_HTTP2_DATA, 1, 5, "no headers"));
    ASSERT_TRUE(a1.wait(1));
    ASSERT_TRUE(a3.wait(1));
    ASSERT_TRUE(bare.wait(1));
    EXPECT_EQ(a3.status, 404);
    EXPECT_EQ(a3.headers["content-type"], "application/json");
    EXPECT_EQ(a3.body, "{}");
    EXPECT_EQ(a1.status, 201);
    EXPECT_EQ(a1.headers["location"], "/x/1");
    EXPECT_EQ(bare.status, 0);
    EXPECT_EQ(bare.error, MORVA_HTTP2_PROTOCOL_ERROR);
}

std::atomic<int> timedOut{0};
void onTimeout(void* ctx) {
    ++timedOut;
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(static_cast<MV_Http2Context*>(ctx));
}

// No answer in time: the timer owns the context, the stream is cancelled, and a late
// answer is logged and dropped.
TEST(Daemon, ATimedOutRequestIsCancelledAndItsLateAnswerDropped) {
    Link l;
    Answer a;
    int before = timedOut;
    long lost = __http2Daemon->ResponsesWithoutContext;
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(l.c);
    ASSERT_EQ(__mv_http2_set_timer(ctx, 1, onTimeout), 1);
    ASSERT_GT(h2t::request(ctx, MORVA_HTTP2_REQUEST_METHOD_GET, "/slow", "", &a), 0);
    ASSERT_TRUE(kst::waitFor([&] { return timedOut > before; }, 10));
    {
        std::lock_guard g(gMu);
        EXPECT_NE(gOut.find(frame(MORVA_HTTP2_RST_STREAM, 0, 1, std::string("\0\0\0\x08", 4))), std::string::npos);
    }
    l.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));
    EXPECT_FALSE(a.wait(0.2));
    EXPECT_EQ(__http2Daemon->ResponsesWithoutContext, lost);  // the stream was gone: not even delivered
    EXPECT_EQ(l.c->StreamCount, 0);
}

// A thousand requests and answers later, every record and block is back in its pool.
TEST(Daemon, NothingIsLeftBehindByRequestsAndAnswers) {
    Link l;
    auto snapshot = [] {
        std::vector<uint32_t> v;
        for (int i = 0; i < MV_MEMORY_POOL_CLASSES; ++i) v.push_back(__mv_memory_pool_stats(i).Available);
        v.push_back(uint32_t(__http2Daemon->Http2ContextAvailableCount));
        v.push_back(uint32_t(__http2Daemon->Http2HeaderAvailableCount));
        return v;
    };
    auto once = [&](int i) {
        Answer a;
        MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(l.c);
        __mv_http2_deamon_add_request_content_type(ctx, "application/json");
        ASSERT_GT(h2t::request(ctx, MORVA_HTTP2_REQUEST_METHOD_POST, "/p", h2t::pattern(3000, uint32_t(i)), &a), 0);
        int32_t sid = 2 * i + 1;
        // the server takes the body (its window back), then answers
        l.feed(frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 0, std::string("\0\0\x0b\xb8", 4)) +
               frame(MORVA_HTTP2_HEADERS, 4, sid, std::string("\x88\x5c\x03" "100", 6)) +
               frame(MORVA_HTTP2_DATA, 1, sid, std::string(100, 'r')));
        ASSERT_TRUE(a.wait(1));
    };
    for (int i = 0; i < 300; ++i) once(i);  // the decoder's table full, the pools warm
    auto before = snapshot();
    for (int i = 300; i < 1300; ++i) once(i);
    EXPECT_EQ(snapshot(), before);
}

TEST(Daemon, HeaderListsKeepThirtyLowerCaseNames) {
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(nullptr);
    EXPECT_EQ(__mv_http2_deamon_add_request_header(ctx, "X-Null", nullptr), 0);
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ(__mv_http2_deamon_add_request_header(ctx, ("X-Item-" + std::to_string(i)).c_str(), "v"), 1);
    EXPECT_EQ(__mv_http2_deamon_add_request_header(ctx, "X-Item-30", "v"), 0);
    EXPECT_EQ(__mv_http2_deamon_get_request_header_count(ctx), 30);
    EXPECT_STREQ(__mv_http2_deamon_get_header(&ctx->Request.Headers, "x-item-29"), "v");
    EXPECT_EQ(__mv_http2_deamon_get_header(&ctx->Request.Headers, "X-Item-29"), nullptr);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}

TEST(Daemon, RequestMethodsAreKnownInOneCase) {
    const std::pair<const char*, int> cases[] = {{"GET", 1}, {"get", 1},     {"Get", -1},   {"POST", 2}, {"put", 3},
                                                 {"PATCH", 4}, {"delete", 5}, {"OPTIONS", -1}, {"", -1}};
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(nullptr);
    for (auto [m, want] : cases) {
        SCOPED_TRACE(m);
        ctx->Request.method = m;
        EXPECT_EQ(__mv_http2_deamon_getRequestMethod(ctx), want);
    }
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}

TEST(Daemon, OwnersTextSlotsHoldUpTo98Bytes) {
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(nullptr);
    std::string t98(98, 'a'), t99(99, 'b');
    __mv_http2_set_userchar1(ctx, reinterpret_cast<const u_char*>(t98.data()), 98);
    __mv_http2_set_userchar2(ctx, reinterpret_cast<const u_char*>(t99.data()), 99);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(__mv_http2_get_userchar1(ctx))), t98);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(__mv_http2_get_userchar2(ctx))), "");
    int ue = 7;
    __mv_http2_set_userData(ctx, reinterpret_cast<uint8_t*>(&ue));
    __mv_http2_set_userint1(ctx, 4294967296LL);
    EXPECT_EQ(__mv_http2_get_userData(ctx), reinterpret_cast<uint8_t*>(&ue));
    EXPECT_EQ(__mv_http2_get_userint1(ctx), 4294967296LL);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}

TEST(Daemon, PoolsPerApiRootTakeSizesFrom3To99) {
    std::string root = "http://127.0.0.1:" + std::to_string(h2t::freePort("127.0.0.1"));
    ASSERT_EQ(__mv_http2_deamon_set_connection_pool(root.c_str(), 2, 1), 1);
    MV_Http2ConnectionPool* p = __mv_http2_deamon_find_pool_by_apiRoot(root.c_str());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->PoolCount, 2);  // size 2 leaves the pool as it is
    EXPECT_EQ(__mv_http2_deamon_set_connection_pool(root.c_str(), 5, 2), 1);
    EXPECT_EQ(p->PoolCount, 5);
    EXPECT_EQ(p->http2LoadBalancingMode, 2);
    EXPECT_EQ(__mv_http2_deamon_set_connection_pool(root.c_str(), 100, 3), 1);
    EXPECT_EQ(p->PoolCount, 5);
    EXPECT_EQ(p->http2LoadBalancingMode, 2);
    // Mode 1 fills the first connection before the next; an unreachable peer gives contexts
    // (the connection is made when the request is sent).
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_from_pool(root.c_str());
    ASSERT_NE(ctx, nullptr);
    Answer a;
    EXPECT_LT(h2t::request(ctx, MORVA_HTTP2_REQUEST_METHOD_GET, "/", "", &a), 1);
    EXPECT_NE(h2t::stackLog().find("connection failed"), std::string::npos);
}

TEST(Daemon, BaseUrisGiveAddressPortAndScheme) {
    struct Case {
        const char* uri;
        const char* ip;
        int port, tls, ver;
    };
    const Case cases[] = {{"http://127.0.0.1:8080/", "127.0.0.1", 8080, 0, 4},
                          {"https://[::1]:9443", "::1", 9443, 1, 6},
                          {"http://127.0.0.2", "127.0.0.2", 80, 0, 4},
                          {"https://127.0.0.3/nnrf-disc/v1", "127.0.0.3", 443, 1, 4},
                          {"http://localhost:29510", "", 29510, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.uri);
        char ip[64] = "";
        int port = 0, tls = -1, ver = 0;
        ASSERT_EQ(__mv_http2_engine_parse_uri(c.uri, ip, &port, &tls, &ver), 1);
        if (*c.ip) {
            EXPECT_STREQ(ip, c.ip);
            EXPECT_EQ(ver, c.ver);
        }
        EXPECT_EQ(port, c.port);
        EXPECT_EQ(tls, c.tls);
    }
    char ip[64];
    int port, tls, ver;
    EXPECT_EQ(__mv_http2_engine_parse_uri("http://no-such-host.invalid:80", ip, &port, &tls, &ver), 0);
    EXPECT_EQ(__mv_http2_engine_parse_uri("not a uri", ip, &port, &tls, &ver), 0);
}

TEST(Daemon, MultipartBodiesRoundTrip) {
    MV_Http2Multipart* m = __mv_http2_createHttp2Multipart();
    const std::string json = "{\"n1SmMsg\":{\"contentId\":\"n1msg\"}}";
    const uint8_t n1[] = {0x2e, 0x01, 0x01, 0xc1, 0xff, 0x00, 0x0d, 0x0a};
    ASSERT_EQ(__mv_http2_add_Http2MultipartItem(m, "application/json", 0, reinterpret_cast<const uint8_t*>(json.data()),
                                                long(json.size()), nullptr),
              1);
    ASSERT_EQ(__mv_http2_add_Http2MultipartItem(m, "application/vnd.3gpp.5gnas", 0, n1, sizeof n1, "n1msg"), 1);
    ASSERT_EQ(__mv_http2_add_Http2MultipartItem(m, "text/plain", 1, n1, 2, "hex"), 1);
    ASSERT_GT(__mv_http2_encodeHttp2Multipart(m), 0);
    EXPECT_EQ(std::string(m->contentType).rfind("multipart/related; boundary=\"=-mb", 0), 0u);
    MV_Http2Multipart* d = __mv_http2_decodeHttp2Multipart2(m->contentType, m->out, m->outlen);
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(d->Count, 3);
    MV_Http2MultipartItem* i = d->Head;
    EXPECT_STREQ(i->MimeType, "application/json");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(i->data), size_t(i->datalen)), json);
    i = i->Next;
    EXPECT_STREQ(i->MimeType, "application/vnd.3gpp.5gnas");
    EXPECT_STREQ(reinterpret_cast<char*>(i->Id), "n1msg");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(i->data), size_t(i->datalen)), std::string((const char*)n1, sizeof n1));
    i = i->Next;
    EXPECT_EQ(std::string(reinterpret_cast<char*>(i->data), size_t(i->datalen)), "2E01");
    __mv_http2_freeHttp2Multipart(d);
    __mv_http2_freeHttp2Multipart(m);
    // Bodies that are not multipart/related, or have no boundary, are refused with a line.
    const uint8_t body[] = "--x\r\n\r\nabc\r\n--x--\r\n";
    EXPECT_EQ(__mv_http2_decodeHttp2Multipart2("application/json", body, sizeof body - 1), nullptr);
    EXPECT_EQ(__mv_http2_decodeHttp2Multipart2("multipart/related", body, sizeof body - 1), nullptr);
    MV_Http2Multipart* plain = __mv_http2_decodeHttp2Multipart2("multipart/related; boundary = x", body, sizeof body - 1);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(plain->Head->data), size_t(plain->Head->datalen)), "abc");
    __mv_http2_freeHttp2Multipart(plain);
    EXPECT_NE(h2t::stackLog().find("multipart/related boundry not found"), std::string::npos);
}

// JSON through the pools, and blocks past the size classes through the heap.
TEST(Daemon, JsonRunsOnThePoolsWithAnyBlockSize) {
    __mv_http2_deamon_set_json_alloc_funcs();
    std::string big(12 * 1024 * 1024, 'j');
    json_t* doc = json_pack("{s:s, s:[i,i,i], s:s}", "small", "x", "list", 1, 2, 3, "big", big.c_str());
    ASSERT_NE(doc, nullptr);
    char* text = json_dumps(doc, JSON_COMPACT);
    ASSERT_NE(text, nullptr);
    json_t* back = json_loads(text, 0, nullptr);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(strlen(json_string_value(json_object_get(back, "big"))), big.size());
    __mv_http2_block_free(text);  // made by the allocator set above
    json_decref(back);
    json_decref(doc);
    EXPECT_EQ(h2t::stackLog().find("free of a block that is not one"), std::string::npos);
}

}  // namespace
