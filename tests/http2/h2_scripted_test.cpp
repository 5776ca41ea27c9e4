// The client against a scripted server on raw frames (python3-hpack for the header
// blocks): what a real server does rarely (CONTINUATION, padding, a one-byte window, PING,
// frames on a closed stream, settings changed in the middle of a response) and what it
// never does (bad frames, bad header blocks, data past the window, streams it may not
// use, random bytes). The server keeps every byte the engine wrote, and tshark reads them.
#include "http2_env.h"

namespace {

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new h2t::DaemonEnv);

using h2t::Answer;

struct Peer {
    std::string addr = h2t::uniqueLoopback();
    int port = 0;
    std::string dir;
    std::unique_ptr<h2t::Child> child;

    Peer(const char* mode, const char* scenario, const std::string& host = "", int hostPort = 0) {
        static int n = 0;
        dir = h2t::root() + "/peer_" + scenario + std::to_string(++n);
        mkdir(dir.c_str(), 0700);
        if (!host.empty()) addr = host;
        port = hostPort ? hostPort : h2t::freePort(addr);
        child = std::make_unique<h2t::Child>(
            std::vector<std::string>{"/usr/bin/python3", KS_H2_SCRIPTED, mode, addr, std::to_string(port), scenario, dir},
            dir + "/stdout");
        if (std::string(mode) == "server") kst::waitFor([&] { return access((dir + "/ready").c_str(), F_OK) == 0; }, 20);
    }
    std::string events() const { return kst::readFile(dir + "/events"); }
    bool saw(const std::string& line, double seconds = 20) const {
        return kst::waitFor([&] { return events().find(line) != std::string::npos; }, seconds);
    }
    std::string wrote(int conn = 1) const { return kst::readFile(dir + "/conn" + std::to_string(conn) + ".bin"); }
    std::string apiRoot() const { return "http://" + addr + ":" + std::to_string(port); }
};

bool havePeer() { return access("/usr/bin/python3", X_OK) == 0 && system("/usr/bin/python3 -c 'import hpack' 2>/dev/null") == 0; }

class Scripted : public ::testing::Test {
protected:
    void SetUp() override {
        if (!havePeer()) GTEST_SKIP() << "python3-hpack is not installed";
    }
    // One request on a fresh connection of its own (the peer plays its scenario on its
    // first connection only).
    static int send(const Peer& p, int method, const std::string& path, const std::string& body, Answer* a,
                    MV_Http2Connection** connOut = nullptr) {
        MV_Http2Connection* conn = __mv_http2_deamon_find_conn_by_apiRoot(p.apiRoot().c_str());
        if (connOut) *connOut = conn;
        return h2t::request(__mv_http2_deamon_get_new_request_context_on(conn), method, path, body, a);
    }
    // tshark reads everything the engine wrote on the peer's first connection.
    static void expectCleanWire(const Peer& p, std::initializer_list<int> mustHave = {}) {
        if (!h2t::haveProgram("tshark")) return;
        h2t::Dissection d = h2t::dissect(p.wrote(), p.port, "scripted");
        EXPECT_EQ(d.problems, 0) << d.problemText;
        for (int t : mustHave) EXPECT_GT(d.frameTypes[t], 0) << "no " << __mv_http2_frame_name(t) << " frame dissected";
    }
};

TEST_F(Scripted, ContinuationFramesCarryOneHeaderBlock) {
    Peer p("server", "continuation");
    Answer a;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/c", "", &a), 0);
    ASSERT_TRUE(a.wait());
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.body, "continued");
    EXPECT_EQ(a.headers["x-big"].size(), 40000u);
    EXPECT_EQ(a.headers["x-big"].find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos);
    expectCleanWire(p, {MORVA_HTTP2_HEADERS, MORVA_HTTP2_SETTINGS});
}

TEST_F(Scripted, PaddingAndPriorityFieldsAreTakenOff) {
    Peer p("server", "padding");
    Answer a;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/p", "", &a), 0);
    ASSERT_TRUE(a.wait());
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.headers["x-pad"], "yes");
    EXPECT_EQ(a.body, "padded-body-ends-here");
    expectCleanWire(p);
}

TEST_F(Scripted, AWindowOfOneByteSendsOneByteAtATime) {
    Peer p("server", "window1");
    Answer a;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_POST, "/w", "0123456789", &a), 0);
    ASSERT_TRUE(a.wait());
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.body, "0123456789");
    std::string ev = p.events();
    EXPECT_EQ(kst::countOccurrences(ev, "frame type=0 flags=0 sid=1 len=1\n") +
                  kst::countOccurrences(ev, "frame type=0 flags=1 sid=1 len=1\n"),
              10u)
        << ev;
    EXPECT_EQ(ev.find("frame type=0 flags=0 sid=1 len=2"), std::string::npos);
    expectCleanWire(p, {MORVA_HTTP2_DATA});
}

TEST_F(Scripted, APingIsAnsweredWithItsData) {
    Peer p("server", "ping");
    Answer a;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/ping", "", &a), 0);
    ASSERT_TRUE(a.wait());
    EXPECT_EQ(a.body, "pong");
    EXPECT_TRUE(p.saw("frame type=6 flags=1 sid=0 len=8 data=6b65737472616e65"));  // "kestrane" back, ACK set
    expectCleanWire(p, {MORVA_HTTP2_PING});
}

// After stream 1 ends the server sends DATA and a header block on it. Both are refused
// with STREAM_CLOSED, and the block still feeds the decoder: the answer on stream 3
// refers to the table entry it made.
TEST_F(Scripted, FramesOnAClosedStreamAreRefusedAndTheTableStaysInStep) {
    Peer p("server", "closed_stream");
    MV_Http2Connection* conn = nullptr;
    Answer first, second;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/1", "", &first, &conn), 0);
    ASSERT_TRUE(first.wait());
    EXPECT_EQ(first.body, "first");
    ASSERT_TRUE(p.saw("frame type=3 flags=0 sid=1 len=4 code=5"));
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/2", "", &second), 0);
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(second.status, 200);
    EXPECT_EQ(second.body, "second");
    EXPECT_EQ(second.headers["x-late"], "late-value-stays-in-table");
    EXPECT_EQ(second.connGen, first.connGen);
    EXPECT_EQ(kst::countOccurrences(p.events(), "code=5"), 2u);  // the DATA and the HEADERS
    EXPECT_EQ(p.events().find("frame type=7"), std::string::npos);
    expectCleanWire(p, {MORVA_HTTP2_RST_STREAM});
}

// The server starts its response, then changes its settings (stream window 1000 to
// 70000, frames up to 20000, no header table) while the upload and the response go on.
TEST_F(Scripted, SettingsChangedMidResponseTakeEffect) {
    Peer p("server", "settings_mid");
    std::string up = h2t::pattern(100000, 4);
    Answer a, after;
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_POST, "/up", up, &a), 0);
    ASSERT_TRUE(a.wait());
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.body, "part-one;part-two;received=100000");
    ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/after", "", &after), 0);
    ASSERT_TRUE(after.wait());
    EXPECT_EQ(after.body, "after");
    std::string ev = p.events();
    // Frames before the change keep to 1000 bytes; after it some use the larger frames.
    size_t firstData = ev.find("frame type=0 flags=0 sid=1 len=");
    ASSERT_NE(firstData, std::string::npos);
    EXPECT_LE(atoi(ev.c_str() + firstData + 31), 1000);
    int largest = 0;
    for (size_t at = ev.find("frame type=0 "); at != std::string::npos; at = ev.find("frame type=0 ", at + 1))
        largest = std::max(largest, atoi(ev.c_str() + ev.find("len=", at) + 4));
    EXPECT_GT(largest, 16384);
    EXPECT_LE(largest, 20000);
    EXPECT_TRUE(p.saw("frame type=4 flags=1 sid=0 len=0"));  // our ACK
    // The next header block begins with the table size update to 0.
    EXPECT_NE(ev.find("frame type=1 flags=5 sid=3 len="), std::string::npos);
    size_t h3 = ev.find("sid=3", ev.find("frame type=1 flags=5 sid=3"));
    EXPECT_NE(ev.find("first=32", h3), std::string::npos) << ev;
    expectCleanWire(p, {MORVA_HTTP2_DATA, MORVA_HTTP2_SETTINGS});
}

// Bad input from the server: the stream or the connection ends with the right code, a
// line is logged, and the next request (a new connection, answered plainly) works.
TEST_F(Scripted, BadInputEndsTheStreamOrConnectionWithTheRightCode) {
    struct Case {
        const char* scenario;
        int code;
        bool connection;  // GOAWAY and close, else RST_STREAM
        const char* logged;
    };
    const Case cases[] = {
        {"bigframe", MORVA_HTTP2_FRAME_SIZE_ERROR, true, "connection error FRAME_SIZE_ERROR (6): frame longer"},
        {"badhpack", MORVA_HTTP2_COMPRESSION_ERROR, true, "nghttp2_hd_inflate_hd failed"},
        {"hpackindex", MORVA_HTTP2_COMPRESSION_ERROR, true, "connection error COMPRESSION_ERROR (9)"},
        {"idle_stream", MORVA_HTTP2_PROTOCOL_ERROR, true, "HEADERS on a stream never opened"},
        {"junk", MORVA_HTTP2_FRAME_SIZE_ERROR, true, "connection error FRAME_SIZE_ERROR (6)"},
        {"overwindow", MORVA_HTTP2_FLOW_CONTROL_ERROR, false, "DATA past the stream window"},
    };
    auto* e = __mv_http2Engine;
    std::vector<std::string> wires;
    std::vector<int> ports;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scenario);
        bool smallWindow = std::string(c.scenario) == "overwindow";
        if (smallWindow) {  // a window smaller than a frame, told to the peer
            e->WindowSize_ShareToPeer = 1;
            e->InitialWindowSize = 8192;
        }
        Peer p("server", c.scenario);
        MV_Http2Connection* conn = nullptr;
        Answer bad, next;
        ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/bad", "", &bad, &conn), 0);
        ASSERT_TRUE(bad.wait());
        EXPECT_EQ(bad.status, 0);
        std::string expect = (c.connection ? "frame type=7 flags=0 sid=0 len=12 code=" : "frame type=3 flags=0 sid=1 len=4 code=") +
                             std::to_string(c.code);
        EXPECT_TRUE(p.saw(expect)) << p.events();
        EXPECT_TRUE(kst::waitFor([&] { return h2t::stackLog().find(c.logged) != std::string::npos; }, 10));
        if (c.connection) {
            EXPECT_TRUE(kst::waitFor([&] { return conn->isActive != MV_HTTP2_CONN_ACTIVE; }, 10));
        }
        ASSERT_GT(send(p, MORVA_HTTP2_REQUEST_METHOD_GET, "/after", "", &next), 0);
        ASSERT_TRUE(next.wait());
        EXPECT_EQ(next.status, 200);
        EXPECT_EQ(next.connGen != bad.connGen, c.connection);
        if (smallWindow) {
            e->WindowSize_ShareToPeer = 0;
            e->InitialWindowSize = 16777216;
        }
        wires.push_back(p.wrote());
        ports.push_back(p.port);
    }
    // What the engine wrote on each bad connection, GOAWAYs and RST_STREAMs too, in one tshark run.
    if (!h2t::haveProgram("tshark")) return;
    h2t::Dissection d = h2t::dissect(wires, 8080, "bad_input");
    EXPECT_EQ(d.problems, 0) << d.problemText;
    EXPECT_EQ(d.frameTypes[MORVA_HTTP2_GOAWAY], 5);
    EXPECT_EQ(d.frameTypes[MORVA_HTTP2_RST_STREAM], 1);
}

// ---------------------------------------------------------------- the engine's server

std::atomic<int> served{0};
std::string gFile;  // served under /file/now (at once) and /file/queued (as the window opens)

void answerOk(MV_Http2Context* ctx, uint8_t* data, long datalen) {
    ++served;
    std::string path = ctx->Request.path;
    if (path.rfind("/file/", 0) == 0) {
        __mv_http2_deamon_free_data(data);
        int rc = path == "/file/now" ? __mv_http2_deamon_send_file(ctx, gFile.c_str())
                                     : __mv_http2_deamon_send_file2(ctx, gFile.c_str());
        if (rc < 1) __mv_http2_deamon_send_response(ctx, nullptr, 0, 404);
        __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
        return;
    }
    std::string body = "served " + std::string(ctx->Request.method) + " " + ctx->Request.path + " " +
                       std::to_string(datalen);
    __mv_http2_deamon_free_data(data);
    __mv_http2_deamon_add_response_content_type(ctx, "text/plain");
    __mv_http2_deamon_send_response(ctx, reinterpret_cast<const uint8_t*>(body.data()), long(body.size()), 200);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}

struct OurServer {
    std::string addr = h2t::uniqueLoopback();
    int port = h2t::freePort(addr);
    OurServer() {
        __mv_http2_deamon_set_nf_request_handler(answerOk);
        __mv_http2_engine_add_host2(addr.c_str(), 4, port);
        __mv_http2_engine_start_hosts();
        kst::waitFor([&] { return h2t::accepts(addr, port); }, 10);
    }
};

class Server : public Scripted {};

TEST_F(Server, BadClientsGetAGoawayWithTheRightCodeAndTheServerGoesOn) {
    OurServer srv;
    struct Case {
        const char* scenario;
        int code;
    };
    // A megabyte of random bytes after the preface: its first "frame" is longer than the
    // maximum. A stream id below one already used is a protocol error.
    const Case cases[] = {{"junk_after_preface", MORVA_HTTP2_FRAME_SIZE_ERROR}, {"backwards", MORVA_HTTP2_PROTOCOL_ERROR}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scenario);
        Peer bad("client", c.scenario, srv.addr, srv.port);
        EXPECT_TRUE(bad.saw("frame type=7 flags=0 sid=0 len=12 code=" + std::to_string(c.code)));
        EXPECT_TRUE(bad.saw("done"));
        Peer good("client", "ok", srv.addr, srv.port);
        EXPECT_TRUE(good.saw("done"));
        EXPECT_TRUE(good.saw("frame type=0 flags=1 sid=1"));
    }
    EXPECT_NE(h2t::stackLog().find("connection error FRAME_SIZE_ERROR (6): frame longer than the maximum"), std::string::npos);
}

// A file of 3 MB, sent at once and queued: the queued one waits for the client's window
// (a megabyte at most waits on the connection) and goes on with each WINDOW_UPDATE.
TEST_F(Server, FilesAreServedWholeAtOnceAndAsTheWindowOpens) {
    OurServer srv;
    std::string bytes = h2t::pattern(3 * 1024 * 1024, 11);
    gFile = h2t::root() + "/served.mp4";
    kst::writeFile(gFile, bytes);
    std::string root = "http://" + srv.addr + ":" + std::to_string(srv.port);
    for (const char* path : {"/file/now", "/file/queued", "/file/missing"}) {
        SCOPED_TRACE(path);
        if (std::string(path) == "/file/missing") gFile = h2t::root() + "/none";
        Answer a;
        ASSERT_GT(h2t::request(__mv_http2_deamon_get_new_request_context(root.c_str()), MORVA_HTTP2_REQUEST_METHOD_GET,
                               path, "", &a),
                  0);
        ASSERT_TRUE(a.wait(60));
        if (std::string(path) == "/file/missing") {
            EXPECT_EQ(a.status, 404);
            continue;
        }
        EXPECT_EQ(a.status, 200);
        EXPECT_EQ(a.headers["content-type"], "video/mp4");
        EXPECT_EQ(a.headers["accept-ranges"], "bytes");
        EXPECT_TRUE(a.body == bytes) << a.body.size();
    }
}

// An independent client, h2load, against the engine's server; tshark reads what the
// server wrote.
TEST_F(Server, H2loadRequestsAllSucceed) {
    if (!h2t::haveProgram("h2load")) GTEST_SKIP() << "h2load is not installed";
    OurServer srv;
    h2t::Proxy proxy(srv.addr, srv.port);
    std::string out = h2t::root() + "/h2load.out";
    std::string cmd = "h2load -n 2000 -c 4 -m 10 http://" + srv.addr + ":" + std::to_string(proxy.port) +
                      "/load >" + out + " 2>&1";
    int before = served;
    ASSERT_EQ(system(cmd.c_str()), 0) << kst::readFile(out);
    std::string text = kst::readFile(out);
    EXPECT_NE(text.find("2000 succeeded, 0 failed, 0 errored"), std::string::npos) << text;
    EXPECT_EQ(served - before, 2000);
    if (!h2t::haveProgram("tshark")) return;
    auto answered = proxy.answered();
    ASSERT_EQ(answered.size(), 4u);
    h2t::Dissection d = h2t::dissect(answered[0], proxy.port, "server_side");
    EXPECT_EQ(d.problems, 0) << d.problemText;
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_HEADERS], 100);
    EXPECT_GT(d.frameTypes[MORVA_HTTP2_DATA], 100);
}

}  // namespace
