// The client against nghttpd, an independent server: bodies of every size both ways,
// many streams on one connection, a hundred connections, the server's limits obeyed,
// its RST_STREAM and GOAWAY survived, and tshark's reading of what the engine wrote.
#include "http2_env.h"

namespace {

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new h2t::DaemonEnv);

using h2t::Answer;

const int kSizes[] = {0, 1024, 100 * 1024, 10 * 1024 * 1024};

class Nghttpd : public ::testing::Test {
protected:
    void SetUp() override {
        if (!h2t::haveProgram("nghttpd")) GTEST_SKIP() << "nghttpd is not installed";
    }
};

TEST_F(Nghttpd, GetAndPostBodiesOfEverySizeArriveWhole) {
    h2t::Nghttpd server({"--echo-upload"});
    for (int size : kSizes) server.file("f" + std::to_string(size), h2t::pattern(size_t(size), uint32_t(size)));
    std::string root = server.apiRoot();
    for (int size : kSizes) {
        SCOPED_TRACE(size);
        std::string expect = h2t::pattern(size_t(size), uint32_t(size));
        Answer get, post;
        ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                               "/f" + std::to_string(size), "", &get),
                  0);
        ASSERT_TRUE(get.wait(60));
        EXPECT_EQ(get.status, 200);
        EXPECT_EQ(get.headers["content-length"], std::to_string(size));
        EXPECT_TRUE(get.body == expect) << "GET body of " << get.body.size() << " bytes differs";
        std::string up = h2t::pattern(size_t(size), uint32_t(size) + 7);
        ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_POST,
                               "/echo", up, &post),
                  0);
        ASSERT_TRUE(post.wait(60));
        EXPECT_EQ(post.status, 200);
        EXPECT_TRUE(post.body == up) << "POST echo of " << post.body.size() << " bytes differs";
    }
}

TEST_F(Nghttpd, ManyStreamsAtOnceShareOneConnection) {
    h2t::Nghttpd server;
    for (int i = 0; i < 90; ++i) server.file("s" + std::to_string(i), h2t::pattern(size_t(100 + i * 37), uint32_t(i)));
    std::string root = server.apiRoot();
    MV_Http2Connection* conn = __mv_http2_deamon_find_conn_by_apiRoot(root.c_str());
    ASSERT_NE(conn, nullptr);
    std::vector<std::unique_ptr<Answer>> answers;
    for (int i = 0; i < 90; ++i) {
        answers.push_back(std::make_unique<Answer>());
        ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                               "/s" + std::to_string(i), "", answers.back().get()),
                  0);
    }
    for (int i = 0; i < 90; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(answers[size_t(i)]->wait());
        EXPECT_EQ(answers[size_t(i)]->status, 200);
        EXPECT_TRUE(answers[size_t(i)]->body == h2t::pattern(size_t(100 + i * 37), uint32_t(i)));
        EXPECT_EQ(answers[size_t(i)]->connGen, answers[0]->connGen);
    }
    EXPECT_EQ(conn->HighestLocalStreamId, 179);  // 90 streams, one connection
}

TEST_F(Nghttpd, AHundredConnectionsEachCarryTheirRequests) {
    h2t::Nghttpd server;
    server.file("small", "hello from nghttpd");
    MV_Http2ConnectionPool* pool = nullptr;
    ASSERT_EQ(__mv_http2_engine_create_connection_pool(100, server.addr.c_str(), server.port, 4, 0, &pool), 1);
    std::vector<std::unique_ptr<Answer>> answers;
    int k = 0;
    for (MV_Http2Connection* c = pool->PoolHead; c; c = c->PoolNext)
        for (int r = 0; r < 3; ++r, ++k) {
            answers.push_back(std::make_unique<Answer>());
            ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context_on(c), MORVA_HTTP2_REQUEST_METHOD_GET,
                                   "/small", "", answers.back().get()),
                      0);
        }
    ASSERT_EQ(k, 300);
    for (auto& a : answers) {
        ASSERT_TRUE(a->wait());
        EXPECT_EQ(a->status, 200);
        EXPECT_EQ(a->body, "hello from nghttpd");
    }
    int used = 0;
    for (MV_Http2Connection* c = pool->PoolHead; c; c = c->PoolNext) used += c->HighestLocalStreamId == 5;
    EXPECT_EQ(used, 100);
}

// nghttpd allows 3 streams and a window of 1023 bytes: twelve uploads of 100 KB all go
// through, and the server never has to refuse a stream or end the connection.
TEST_F(Nghttpd, TheServersStreamLimitAndWindowsAreObeyed) {
    h2t::Nghttpd server({"--echo-upload", "-m", "3", "-w", "10", "-W", "14"});
    std::string root = server.apiRoot();
    MV_Http2Connection* conn = __mv_http2_deamon_find_conn_by_apiRoot(root.c_str());
    long rstBefore = __mv_http2Engine->ErrorsReceived[MORVA_HTTP2_REFUSED_STREAM] +
                     __mv_http2Engine->ErrorsReceived[MORVA_HTTP2_FLOW_CONTROL_ERROR] +
                     __mv_http2Engine->ErrorsReceived[MORVA_HTTP2_PROTOCOL_ERROR];
    std::vector<std::unique_ptr<Answer>> answers(12);
    int sent = 0, refused = 0, maxOpen = 0;
    while (sent < 12) {
        answers[size_t(sent)] = std::make_unique<Answer>();
        int rc = h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_POST,
                              "/up", h2t::pattern(100 * 1024, uint32_t(sent)), answers[size_t(sent)].get());
        maxOpen = std::max(maxOpen, conn->StreamCount.load());
        if (rc > 0) {
            ++sent;
            continue;
        }
        ++refused;  // at the server's limit: wait for a stream to end
        ASSERT_TRUE(kst::waitFor([&] { return conn->StreamCount < 3; }, 30));
    }
    for (int i = 0; i < 12; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(answers[size_t(i)]->wait(60));
        EXPECT_EQ(answers[size_t(i)]->status, 200);
        EXPECT_TRUE(answers[size_t(i)]->body == h2t::pattern(100 * 1024, uint32_t(i)));
    }
    EXPECT_EQ(conn->Peer_MaxConcurrentStreams, 3);
    EXPECT_EQ(conn->Peer_InitialWindowSize, 1023);
    EXPECT_LE(maxOpen, 3);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(__mv_http2Engine->ErrorsReceived[MORVA_HTTP2_REFUSED_STREAM] +
                  __mv_http2Engine->ErrorsReceived[MORVA_HTTP2_FLOW_CONTROL_ERROR] +
                  __mv_http2Engine->ErrorsReceived[MORVA_HTTP2_PROTOCOL_ERROR],
              rstBefore);
}

// A connection-specific header makes a malformed request: nghttpd resets that stream only.
TEST_F(Nghttpd, AServerResetFailsOneRequestAndTheConnectionGoesOn) {
    h2t::Nghttpd server({"--echo-upload"});
    server.file("after", "still here");
    std::string root = server.apiRoot();
    Answer bad, good;
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context(root.c_str());
    __mv_http2_deamon_add_request_header(ctx, "connection", "keep-alive");  // not allowed in HTTP/2
    ASSERT_GT(h2t::request(ctx, MORVA_HTTP2_REQUEST_METHOD_POST, "/up", "ten bytes!", &bad), 0);
    ASSERT_TRUE(bad.wait());
    EXPECT_EQ(bad.status, 0);
    EXPECT_EQ(bad.error, MORVA_HTTP2_PROTOCOL_ERROR);
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                           "/after", "", &good),
              0);
    ASSERT_TRUE(good.wait());
    EXPECT_EQ(good.status, 200);
    EXPECT_EQ(good.body, "still here");
    EXPECT_EQ(good.connGen, bad.connGen);
    EXPECT_NE(h2t::stackLog().find("rst-stream received iErrorCode=1 (PROTOCOL_ERROR)"), std::string::npos);
}

// HEADERS on an even stream is a connection error for a server: nghttpd sends GOAWAY and
// closes. The request in flight fails, and the next one opens a new connection.
TEST_F(Nghttpd, AServerGoawayFailsWhatIsInFlightAndTheNextRequestReconnects) {
    h2t::Nghttpd server;
    server.file("big", h2t::pattern(10 * 1024 * 1024, 3));
    server.file("small", "after goaway");
    std::string root = server.apiRoot();
    MV_Http2Connection* conn = __mv_http2_deamon_find_conn_by_apiRoot(root.c_str());
    Answer warm;
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                           "/small", "", &warm),
              0);
    ASSERT_TRUE(warm.wait());
    Answer inFlight, after;
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                           "/big", "", &inFlight),
              0);
    const uint8_t emptyBlock[] = {0x82};  // :method GET, enough for a frame
    ASSERT_GT(__mv_http2_engine_send_frame(conn, MORVA_HTTP2_HEADERS, 2, 1, 1, emptyBlock, 1), 0);
    ASSERT_TRUE(inFlight.wait());
    EXPECT_EQ(inFlight.status, 0);
    ASSERT_TRUE(kst::waitFor([&] { return conn->isActive == MV_HTTP2_CONN_IDLE; }, 10));
    ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                           "/small", "", &after),
              0);
    ASSERT_TRUE(after.wait());
    EXPECT_EQ(after.status, 200);
    EXPECT_EQ(after.body, "after goaway");
    EXPECT_NE(after.connGen, warm.connGen);
    EXPECT_NE(h2t::stackLog().find("received goaway"), std::string::npos);
}

// Everything the engine wrote on a connection with bodies both ways, through tshark.
TEST_F(Nghttpd, EveryFrameTheEngineSendsDissectsClean) {
    if (!h2t::haveProgram("tshark")) GTEST_SKIP() << "tshark is not installed";
    h2t::Nghttpd server({"--echo-upload", "-w", "14"});
    server.file("doc", h2t::pattern(200 * 1024, 9));
    h2t::Proxy proxy(server.addr, server.port);
    std::string root = "http://" + server.addr + ":" + std::to_string(proxy.port);
    std::vector<std::unique_ptr<Answer>> answers;
    for (int i = 0; i < 6; ++i) {
        answers.push_back(std::make_unique<Answer>());
        MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context(root.c_str());
        __mv_http2_deamon_add_request_content_type(ctx, "application/json");
        __mv_http2_deamon_add_request_header(ctx, "X-Long-Header", std::string(30000, 'h').c_str());
        ASSERT_GT(h2t::request(ctx, i % 2 ? MORVA_HTTP2_REQUEST_METHOD_POST : MORVA_HTTP2_REQUEST_METHOD_GET,
                               i % 2 ? "/up" : "/doc", i % 2 ? h2t::pattern(40000, uint32_t(i)) : "",
                               answers.back().get()),
                  0);
    }
    for (auto& a : answers) {
        ASSERT_TRUE(a->wait());
        EXPECT_EQ(a->status, 200);
    }
    auto written = proxy.written();
    ASSERT_EQ(written.size(), 1u);
    h2t::Dissection d = h2t::dissect(written[0], proxy.port, "nghttpd_client");
    EXPECT_EQ(d.problems, 0) << d.problemText;
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_HEADERS], 5);
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_CONTINUATION], 5);  // a 30 KB header runs past one frame
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_DATA], 5);
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_SETTINGS], 1);       // ours and the ACK of the server's
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_WINDOW_UPDATE], 1);  // a 200 KB body was consumed
}

}  // namespace
