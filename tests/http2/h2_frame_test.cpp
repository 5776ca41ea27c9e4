// The frame machine on connections without a socket: bytes in as the peer would send
// them, what the engine wrote parsed back, messages as the application line hands them
// over. Bad frames of every kind, stream states, windows both ways, header blocks in
// arrival order, and the small pieces under them (the id map, blocks, the flat form).
#include <map>
#include <random>

#include "http2_env.h"
#include "mv_alloc.h"

namespace {

class FrameEnv : public ::testing::Environment {
public:
    void SetUp() override {
        h2t::root() = kst::makeTempDir("h2f");
        __init_morva_core();
        __mv_init_logger((h2t::root() + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
        __mv_http2_engine_init_detached();
    }
    void TearDown() override { kst::removeTree(h2t::root()); }
};
::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new FrameEnv);

struct Frame {
    int type, flags;
    int32_t sid;
    std::string payload;
    uint32_t u32(size_t at = 0) const {
        const auto* p = reinterpret_cast<const uint8_t*>(payload.data()) + at;
        return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    }
};

std::string frame(int type, int flags, int32_t sid, const std::string& payload = "") {
    size_t n = payload.size();
    std::string f = {char(n >> 16), char(n >> 8), char(n), char(type), char(flags), char(sid >> 24), char(sid >> 16),
                     char(sid >> 8), char(sid)};
    return f + payload;
}
std::string u32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string setting(int id, uint32_t v) { return std::string{char(id >> 8), char(id)} + u32(v); }

// A message as the line handed it over.
struct Got {
    int kind;  // MV_HTTP2_MSG_DELIVER or MV_HTTP2_MSG_FAILED
    int32_t sid;
    int code;
    std::map<std::string, std::string> headers;
    std::string data;
};

std::mutex gMu;
std::map<MV_Http2Connection*, struct Wire*> gWires;

// One detached connection and everything that passed it.
struct Wire {
    MV_Http2Connection* c;
    std::string out;
    std::vector<Got> got;

    explicit Wire(bool server) {
        c = __mv_http2_engine_new_detached_connection(server, sink);
        {
            std::lock_guard g(gMu);
            gWires[c] = this;
        }
        if (!server) __mv_http2_engine_refresh_client_connection(c);
    }
    ~Wire() {
        std::lock_guard g(gMu);
        gWires.erase(c);
    }
    static void sink(MV_Http2Connection* conn, const uint8_t* p, int n) {
        std::lock_guard g(gMu);
        if (auto it = gWires.find(conn); it != gWires.end()) it->second->out.append(reinterpret_cast<const char*>(p), size_t(n));
    }
    void feed(const std::string& b) {
        __mv_http2_engine_receive_bytes(c, reinterpret_cast<const uint8_t*>(b.data()), b.size());
        __mv_http2_engine_run_app_line(c);
    }
    // The server's preface, for a client.
    void settings(const std::string& entries = "") { feed(frame(MORVA_HTTP2_SETTINGS, 0, 0, entries)); }
    std::vector<Frame> written() const {
        std::vector<Frame> fs;
        size_t at = out.compare(0, 24, MORVA_HTTP2_CLIENT_MAGIC) == 0 ? 24 : 0;
        while (at + 9 <= out.size()) {
            const auto* p = reinterpret_cast<const uint8_t*>(out.data()) + at;
            size_t n = size_t(p[0]) << 16 | size_t(p[1]) << 8 | p[2];
            fs.push_back({p[3], p[4], int32_t((uint32_t(p[5]) << 24 | uint32_t(p[6]) << 16 | uint32_t(p[7]) << 8 | p[8]) & 0x7fffffff),
                          out.substr(at + 9, n)});
            at += 9 + n;
        }
        return fs;
    }
    int goaway() const {
        for (const Frame& f : written())
            if (f.type == MORVA_HTTP2_GOAWAY) return int(f.u32(4));
        return -1;
    }
    int rst(int32_t sid) const {
        for (const Frame& f : written())
            if (f.type == MORVA_HTTP2_RST_STREAM && f.sid == sid) return int(f.u32());
        return -1;
    }
    // A request the client sends, opening its next stream.
    int32_t request(const std::string& body = "", bool end = true) {
        static nghttp2_nv nv[] = {{(uint8_t*)":method", (uint8_t*)"POST", 7, 4, 0},
                                  {(uint8_t*)":path", (uint8_t*)"/t", 5, 2, 0},
                                  {(uint8_t*)":scheme", (uint8_t*)"http", 7, 4, 0},
                                  {(uint8_t*)":authority", (uint8_t*)"t:1", 10, 3, 0}};
        MV_Http2SendGuard g(c);
        int32_t sid = __mv_http2_engine_getNextStreamId(c);
        int rc = __mv_http2_engine_send_nv(c, sid, nv, 4, reinterpret_cast<const uint8_t*>(body.data()), long(body.size()),
                                           end ? 0 : 1);
        return rc > 0 ? sid : -rc;
    }
};

void onMessage(MV_HttpMessage* m) {
    std::lock_guard g(gMu);
    auto it = gWires.find(m->conn);
    if (it == gWires.end()) return;
    Got got{MV_HTTP2_MSG_DELIVER, m->StreamId, 0, {}, m->data ? std::string((char*)m->data, size_t(m->datalen)) : ""};
    int pos = 0, nl, vl;
    const char *n, *v;
    while (__mv_http2_engine_next_header(m->header, m->headerlen, &pos, &n, &nl, &v, &vl) == 1)
        got.headers[std::string(n, size_t(nl))] = std::string(v, size_t(vl));
    it->second->got.push_back(got);
    __mv_http2_block_free(m->header);
    __mv_http2_block_free(m->data);
}

void onFailed(MV_Http2Connection* c, int32_t sid, void*, int code) {
    std::lock_guard g(gMu);
    if (auto it = gWires.find(c); it != gWires.end()) it->second->got.push_back({MV_HTTP2_MSG_FAILED, sid, code, {}, ""});
}

class Frames : public ::testing::Test {
protected:
    void SetUp() override {
        __mv_http2_engine_set_app_message_handler(onMessage);
        __mv_http2_engine_set_stream_error_handler(onFailed);
    }
};

// ---------------------------------------------------------------- pieces

TEST_F(Frames, FrameHeadersDecodeTheFlagsTheirTypeDefines) {
    struct Case {
        int type, flags;
        MV_Http2FrameFlags want;
    };
    const Case cases[] = {
        {MORVA_HTTP2_DATA, 0x09, {1, 0, 1, 0, 0}},      {MORVA_HTTP2_HEADERS, 0x2d, {1, 1, 1, 0, 1}},
        {MORVA_HTTP2_SETTINGS, 0x01, {0, 0, 0, 1, 0}},  {MORVA_HTTP2_PING, 0x01, {0, 0, 0, 1, 0}},
        {MORVA_HTTP2_CONTINUATION, 0x05, {0, 1, 0, 0, 0}}, {MORVA_HTTP2_GOAWAY, 0xff, {0, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        std::string f = frame(c.type, c.flags, int32_t(0x80000005), "abc");  // the reserved bit set
        MV_Http2FrameHeader h;
        __mv_http2_frame_decode_header(reinterpret_cast<const uint8_t*>(f.data()), &h);
        EXPECT_EQ(h.PayLoadLength, 3);
        EXPECT_EQ(h.StreamId, 5);
        EXPECT_EQ(h.FrameFlags.EndStream, c.want.EndStream);
        EXPECT_EQ(h.FrameFlags.EndHeaders, c.want.EndHeaders);
        EXPECT_EQ(h.FrameFlags.Padded, c.want.Padded);
        EXPECT_EQ(h.FrameFlags.IsAck, c.want.IsAck);
        EXPECT_EQ(h.FrameFlags.Priority, c.want.Priority);
    }
}

// Random inserts and erases against std::map: the backward shift of erase must never
// lose an entry or leave one unfindable.
TEST_F(Frames, TheStreamIdMapAgreesWithAnOrderedMap) {
    MV_Http2IdMap m;
    std::map<int32_t, void*> ref;
    std::mt19937 rng(7);
    for (int i = 0; i < 200000; ++i) {
        int32_t id = int32_t(rng() % 3000) * 2 + 1;
        if (rng() % 3) {
            void* v = reinterpret_cast<void*>(uintptr_t(i + 1));
            m.insert(id, v);
            ref[id] = v;
        } else {
            void* want = ref.count(id) ? ref[id] : nullptr;
            ASSERT_EQ(m.erase(id), want) << i;
            ref.erase(id);
        }
        if (i % 1000 == 0) {
            for (auto& [k, v] : ref) ASSERT_EQ(m.find(k), v);
        }
    }
    EXPECT_EQ(m.count(), int(ref.size()));
}

TEST_F(Frames, BlocksComeFromThePoolsOrTheHeapAndGoBackOnce) {
    for (size_t size : {size_t(10), size_t(5000), size_t(10 * 1024 * 1024)}) {
        SCOPED_TRACE(size);
        auto* p = static_cast<uint8_t*>(__mv_http2_block_alloc(size));
        ASSERT_NE(p, nullptr);
        memset(p, 0x5a, size);
        __mv_http2_block_set_used(p, 7);
        p = static_cast<uint8_t*>(__mv_http2_block_realloc(p, size * 2));
        EXPECT_EQ(p[size - 1], 0x5a);
        EXPECT_EQ(__mv_http2_block_used(p), 7u);
        __mv_http2_block_free(p);
        // A pooled block given back twice is refused; pool memory never leaves the process.
        if (size < MV_ALLOCM_MAX_SIZE / 2) __mv_http2_block_free(p);
    }
    EXPECT_NE(h2t::stackLog().find("free of a block that is not one"), std::string::npos);
}

// ---------------------------------------------------------------- bad frames

// Each ends the connection with a GOAWAY of its code; the connection stops taking frames.
TEST_F(Frames, ConnectionErrorsAnswerWithTheirGoawayCode) {
    struct Case {
        const char* what;
        std::string bytes;  // after the server's SETTINGS, on a client with stream 1 open
        int code;
        bool skipSettings = false;
    };
    const Case cases[] = {
        {"first frame not SETTINGS", frame(MORVA_HTTP2_PING, 0, 0, "12345678"), MORVA_HTTP2_PROTOCOL_ERROR, true},
        {"frame past the maximum", frame(MORVA_HTTP2_DATA, 0, 1, std::string(16385, 'x')), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"SETTINGS not a multiple of 6", frame(MORVA_HTTP2_SETTINGS, 0, 0, "12345"), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"SETTINGS ACK with payload", frame(MORVA_HTTP2_SETTINGS, 1, 0, setting(3, 1)), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"SETTINGS on a stream", frame(MORVA_HTTP2_SETTINGS, 0, 1), MORVA_HTTP2_PROTOCOL_ERROR},
        {"ENABLE_PUSH 2", frame(MORVA_HTTP2_SETTINGS, 0, 0, setting(2, 2)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"INITIAL_WINDOW_SIZE past 2^31-1", frame(MORVA_HTTP2_SETTINGS, 0, 0, setting(4, 0x80000000u)),
         MORVA_HTTP2_FLOW_CONTROL_ERROR},
        {"MAX_FRAME_SIZE below 16384", frame(MORVA_HTTP2_SETTINGS, 0, 0, setting(5, 100)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"PING of 7 bytes", frame(MORVA_HTTP2_PING, 0, 0, "1234567"), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"PING on a stream", frame(MORVA_HTTP2_PING, 0, 1, "12345678"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"WINDOW_UPDATE of 0 on the connection", frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 0, u32(0)),
         MORVA_HTTP2_PROTOCOL_ERROR},
        {"WINDOW_UPDATE of 3 bytes", frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 0, "abc"), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"connection window past 2^31-1", frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 0, u32(0x7fffffff)),
         MORVA_HTTP2_FLOW_CONTROL_ERROR},
        {"RST_STREAM of 3 bytes", frame(MORVA_HTTP2_RST_STREAM, 0, 1, "abc"), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"RST_STREAM on stream 0", frame(MORVA_HTTP2_RST_STREAM, 0, 0, u32(0)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"RST_STREAM on a stream never opened", frame(MORVA_HTTP2_RST_STREAM, 0, 9, u32(8)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"GOAWAY of 7 bytes", frame(MORVA_HTTP2_GOAWAY, 0, 0, "1234567"), MORVA_HTTP2_FRAME_SIZE_ERROR},
        {"GOAWAY on a stream", frame(MORVA_HTTP2_GOAWAY, 0, 1, u32(0) + u32(0)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"DATA on stream 0", frame(MORVA_HTTP2_DATA, 0, 0, "x"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"DATA on a stream never opened", frame(MORVA_HTTP2_DATA, 0, 7, "x"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"HEADERS on stream 0", frame(MORVA_HTTP2_HEADERS, 4, 0, "\x88"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"HEADERS on a stream never opened", frame(MORVA_HTTP2_HEADERS, 4, 5, "\x88"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"HEADERS pushed without a promise", frame(MORVA_HTTP2_HEADERS, 4, 2, "\x88"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"CONTINUATION without HEADERS", frame(MORVA_HTTP2_CONTINUATION, 4, 1, "\x88"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"a header block interrupted", frame(MORVA_HTTP2_HEADERS, 0, 1, "\x88") + frame(MORVA_HTTP2_PING, 0, 0, "12345678"),
         MORVA_HTTP2_PROTOCOL_ERROR},
        {"padding as long as the frame", frame(MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_PADDED, 1, "\x04xyz"),
         MORVA_HTTP2_PROTOCOL_ERROR},
        {"HEADERS block that does not decode", frame(MORVA_HTTP2_HEADERS, 5, 1, "\xff\xff\xff\xff\xff\xff"),
         MORVA_HTTP2_COMPRESSION_ERROR},
        {"HEADERS index past the table", frame(MORVA_HTTP2_HEADERS, 5, 1, "\xff\x49"), MORVA_HTTP2_COMPRESSION_ERROR},
        {"a promised stream id that is odd", frame(MORVA_HTTP2_PUSH_PROMISE, 4, 1, u32(3) + "\x88"),
         MORVA_HTTP2_PROTOCOL_ERROR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Wire w(false);
        ASSERT_EQ(w.request(), 1);
        if (!c.skipSettings) w.settings();
        w.feed(c.bytes);
        EXPECT_EQ(w.goaway(), c.code);
        EXPECT_NE(w.c->isActive, MV_HTTP2_CONN_ACTIVE);
        // The request fails with the connection.
        ASSERT_FALSE(w.got.empty());
        EXPECT_EQ(w.got.back().kind, MV_HTTP2_MSG_FAILED);
    }
}

// Each ends one stream with a RST_STREAM of its code; the connection goes on.
TEST_F(Frames, StreamErrorsResetTheStreamAndTheConnectionGoesOn) {
    struct Case {
        const char* what;
        std::string bytes;  // on a client with stream 1 open
        int code;
    };
    const Case cases[] = {
        {"WINDOW_UPDATE of 0 on a stream", frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 1, u32(0)), MORVA_HTTP2_PROTOCOL_ERROR},
        {"stream window past 2^31-1", frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 1, u32(0x7fffffff)),
         MORVA_HTTP2_FLOW_CONTROL_ERROR},
        {"DATA before HEADERS", frame(MORVA_HTTP2_DATA, 0, 1, "x"), MORVA_HTTP2_PROTOCOL_ERROR},
        {"PRIORITY of 4 bytes", frame(MORVA_HTTP2_PRIORITY, 0, 1, "abcd"), MORVA_HTTP2_FRAME_SIZE_ERROR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Wire w(false);
        ASSERT_EQ(w.request(), 1);
        w.settings();
        w.feed(c.bytes);
        EXPECT_EQ(w.rst(1), c.code);
        ASSERT_FALSE(w.got.empty());
        EXPECT_EQ(w.got.back().kind, MV_HTTP2_MSG_FAILED);
        EXPECT_EQ(w.got.back().code, c.code);
        EXPECT_EQ(w.goaway(), -1);
        // The connection goes on: the next stream is answered.
        int32_t next = w.request();
        ASSERT_GT(next, 1);
        w.feed(frame(MORVA_HTTP2_HEADERS, 5, next, "\x88"));
        ASSERT_FALSE(w.got.empty());
        EXPECT_EQ(w.got.back().kind, MV_HTTP2_MSG_DELIVER);
        EXPECT_EQ(w.got.back().headers[":status"], "200");
    }
}

// Frames on a stream that has ended draw STREAM_CLOSED; its late header block still
// feeds the decoder, so that the table stays in step.
TEST_F(Frames, FramesAfterTheEndOfAStreamAreRefusedAndDecoded) {
    Wire w(false);
    ASSERT_EQ(w.request(), 1);
    w.settings();
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));  // stream 1 ends
    ASSERT_EQ(w.got.size(), 1u);
    // a literal "x-late: v" added to the table, then DATA, on the ended stream
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, std::string("\x40\x06x-late\x01v", 10)) + frame(MORVA_HTTP2_DATA, 1, 1, "z"));
    EXPECT_EQ(w.rst(1), MORVA_HTTP2_STREAM_CLOSED);
    ASSERT_EQ(w.request(), 3);
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 3, "\x88\xbe"));  // index 62: the entry made above
    ASSERT_EQ(w.got.size(), 2u);
    EXPECT_EQ(w.got[1].headers["x-late"], "v");
    EXPECT_EQ(w.goaway(), -1);
}

// Frame types this end does not know are skipped; the connection goes on.
TEST_F(Frames, UnknownFrameTypesAreSkipped) {
    Wire w(false);
    ASSERT_EQ(w.request(), 1);
    w.settings();
    w.feed(frame(11, 0, 0, "abc") + frame(13, 0xff, 1, "abc") + frame(200, 0, 0, "") +
           frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));
    EXPECT_EQ(w.c->invalidFrameCount, 3);
    ASSERT_EQ(w.got.size(), 1u);
    EXPECT_EQ(w.got[0].kind, MV_HTTP2_MSG_DELIVER);
    EXPECT_EQ(w.goaway(), -1);
}

// ---------------------------------------------------------------- messages

// HEADERS with CONTINUATION, padding and priority fields, then padded DATA frames, fed
// one byte at a time (TCP may split anywhere): one message, the data joined.
TEST_F(Frames, AMessageIsAssembledFromItsFramesHoweverTheBytesArrive) {
    for (size_t step : {size_t(1), size_t(7), size_t(100000)}) {
        SCOPED_TRACE(step);
        Wire w(false);
        ASSERT_EQ(w.request(), 1);
        std::string block = std::string("\x88", 1) + std::string("\x40\x05x-one\x03uno", 11) +
                            std::string("\x40\x05x-two\x03" "dos", 11);
        std::string bytes = frame(MORVA_HTTP2_SETTINGS, 0, 0) +
                            frame(MORVA_HTTP2_HEADERS, MORVA_HTTP2_FLAG_PADDED | MORVA_HTTP2_FLAG_PRIORITY, 1,
                                  std::string("\x02\x00\x00\x00\x00\x10", 6) + block.substr(0, 5) + std::string(2, '\0')) +
                            frame(MORVA_HTTP2_CONTINUATION, 0, 1, block.substr(5, 10)) +
                            frame(MORVA_HTTP2_CONTINUATION, MORVA_HTTP2_FLAG_END_HEADERS, 1, block.substr(15)) +
                            frame(MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_PADDED, 1, std::string("\x04", 1) + "first;" + std::string(4, '\0')) +
                            frame(MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_END_STREAM, 1, "second");
        for (size_t at = 0; at < bytes.size(); at += step) w.feed(bytes.substr(at, step));
        ASSERT_EQ(w.got.size(), 1u);
        EXPECT_EQ(w.got[0].headers[":status"], "200");
        EXPECT_EQ(w.got[0].headers["x-one"], "uno");
        EXPECT_EQ(w.got[0].headers["x-two"], "dos");
        EXPECT_EQ(w.got[0].data, "first;second");
        EXPECT_EQ(w.goaway(), -1);
    }
}

// Stream 1's header block makes a table entry that stream 3's block uses; stream 3 ends
// first. Blocks are decoded in the order they arrived, not in the order streams end.
TEST_F(Frames, HeaderBlocksAreDecodedInArrivalOrder) {
    Wire w(false);
    ASSERT_EQ(w.request(), 1);
    ASSERT_EQ(w.request(), 3);
    w.settings();
    w.feed(frame(MORVA_HTTP2_HEADERS, 4, 1, std::string("\x88\x40\x04x-id\x03one", 11)) +
           frame(MORVA_HTTP2_HEADERS, 5, 3, "\x88\xbe") + frame(MORVA_HTTP2_DATA, 1, 1, "body of 1"));
    ASSERT_EQ(w.got.size(), 2u);
    EXPECT_EQ(w.got[0].sid, 3);
    EXPECT_EQ(w.got[0].headers["x-id"], "one");
    EXPECT_EQ(w.got[1].sid, 1);
    EXPECT_EQ(w.got[1].headers["x-id"], "one");
    EXPECT_EQ(w.got[1].data, "body of 1");
}

// ---------------------------------------------------------------- sending

TEST_F(Frames, BodiesAndBlocksAreCutToThePeersFrameSize) {
    Wire w(false);
    w.settings();
    w.feed(frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 0, u32(1000000)));
    w.out.clear();
    ASSERT_EQ(w.request(std::string(40000, 'b')), 1);
    std::vector<Frame> data;
    for (const Frame& f : w.written())
        if (f.type == MORVA_HTTP2_DATA) data.push_back(f);
    // 40000 bytes with a window of 65535: three frames of at most 16384, the end on the last.
    ASSERT_EQ(data.size(), 3u);
    EXPECT_EQ(data[0].payload.size(), 16384u);
    EXPECT_EQ(data[2].payload.size(), 40000u - 2 * 16384);
    EXPECT_EQ(data[0].flags, 0);
    EXPECT_EQ(data[2].flags, MORVA_HTTP2_FLAG_END_STREAM);
    // A header block larger than a frame: HEADERS, then CONTINUATION, END_HEADERS on the last.
    w.out.clear();
    std::string big(40000, 'v');
    nghttp2_nv nv[] = {{(uint8_t*)":method", (uint8_t*)"GET", 7, 3, 0},
                       {(uint8_t*)"x-big", (uint8_t*)big.data(), 5, big.size(), NGHTTP2_NV_FLAG_NO_INDEX}};
    {
        MV_Http2SendGuard g(w.c);
        ASSERT_GT(__mv_http2_engine_send_nv(w.c, __mv_http2_engine_getNextStreamId(w.c), nv, 2, nullptr, 0, 0), 0);
    }
    auto fs = w.written();
    ASSERT_GE(fs.size(), 2u);
    EXPECT_EQ(fs[0].type, MORVA_HTTP2_HEADERS);
    EXPECT_EQ(fs[0].flags, MORVA_HTTP2_FLAG_END_STREAM);
    for (size_t i = 1; i < fs.size(); ++i) {
        EXPECT_EQ(fs[i].type, MORVA_HTTP2_CONTINUATION);
        EXPECT_EQ(fs[i].flags, i + 1 == fs.size() ? MORVA_HTTP2_FLAG_END_HEADERS : 0);
        EXPECT_LE(fs[i].payload.size(), 16384u);
    }
}

// The peer's windows bound what leaves: a stream window of 100, then one lowered below
// zero by SETTINGS, then opened again by WINDOW_UPDATE.
TEST_F(Frames, DataWaitsForThePeersWindow) {
    Wire w(false);
    w.settings(setting(MORVA_HTTP2_SETTINGS_INITIAL_WINDOW_SIZE, 100));
    w.out.clear();
    std::string body = h2t::pattern(1000, 3);
    ASSERT_EQ(w.request(body), 1);
    auto sent = [&] {
        std::string d;
        for (const Frame& f : w.written())
            if (f.type == MORVA_HTTP2_DATA) d += f.payload;
        return d;
    };
    EXPECT_EQ(sent(), body.substr(0, 100));
    w.feed(frame(MORVA_HTTP2_SETTINGS, 0, 0, setting(MORVA_HTTP2_SETTINGS_INITIAL_WINDOW_SIZE, 50)));  // -50 left
    w.feed(frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 1, u32(40)));
    EXPECT_EQ(sent().size(), 100u);
    w.feed(frame(MORVA_HTTP2_WINDOW_UPDATE, 0, 1, u32(960)));
    EXPECT_EQ(sent(), body);
    EXPECT_EQ(w.written().back().flags, MORVA_HTTP2_FLAG_END_STREAM);
    EXPECT_EQ(__mv_http2_engine_pending_bytes(w.c), 0);
}

TEST_F(Frames, StreamIdsAndThePeersStreamLimit) {
    Wire w(false);
    w.settings(setting(MORVA_HTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, 2));
    EXPECT_EQ(w.request(), 1);
    EXPECT_EQ(w.request(), 3);
    EXPECT_EQ(w.request(), 0);  // refused: two are open
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));
    EXPECT_EQ(w.request(), 7);  // id 5 went to the refused attempt
    Wire s(true);
    EXPECT_EQ(__mv_http2_engine_getNextStreamId(s.c), 2);
    EXPECT_EQ(__mv_http2_engine_getNextStreamId(s.c), 4);
    // Ids never go back on a connection: past the limit it drains and stops taking streams.
    w.c->StreamId = 99999999;
    EXPECT_EQ(__mv_http2_engine_getNextStreamId(w.c), 0);
    EXPECT_EQ(w.c->GoAwayReceived, 1);
}

// A GOAWAY from the peer: streams above its last id fail as refused (safe to send again),
// the one below completes, and the connection closes when it is done.
TEST_F(Frames, APeersGoawayLetsTheStreamsItTookFinish) {
    Wire w(false);
    w.settings();
    ASSERT_EQ(w.request(), 1);
    ASSERT_EQ(w.request(), 3);
    w.feed(frame(MORVA_HTTP2_GOAWAY, 0, 0, u32(1) + u32(0) + "bye"));
    ASSERT_EQ(w.got.size(), 1u);
    EXPECT_EQ(w.got[0].sid, 3);
    EXPECT_EQ(w.got[0].code, MORVA_HTTP2_REFUSED_STREAM);
    EXPECT_EQ(w.request(), 0);  // no new streams
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 1, "\x88"));
    ASSERT_EQ(w.got.size(), 2u);
    EXPECT_EQ(w.got[1].kind, MV_HTTP2_MSG_DELIVER);
    EXPECT_EQ(w.c->isActive, MV_HTTP2_CONN_IDLE);
    // The next request opens a new life with ids from 1.
    ASSERT_EQ(__mv_http2_engine_refresh_client_connection(w.c), 1);
    EXPECT_EQ(w.request(), 1);
}

TEST_F(Frames, PingIsEchoedAndSettingsAcknowledged) {
    Wire w(false);
    w.settings(setting(MORVA_HTTP2_SETTINGS_MAX_FRAME_SIZE, 20000) + setting(99, 1));
    w.feed(frame(MORVA_HTTP2_PING, 0, 0, "kestrane"));
    auto fs = w.written();
    bool ack = false, pong = false;
    for (const Frame& f : fs) {
        ack = ack || (f.type == MORVA_HTTP2_SETTINGS && f.flags == 1 && f.payload.empty());
        pong = pong || (f.type == MORVA_HTTP2_PING && f.flags == 1 && f.payload == "kestrane");
    }
    EXPECT_TRUE(ack);
    EXPECT_TRUE(pong);
    EXPECT_EQ(w.c->Peer_FrameSize, 20000);
}

// ---------------------------------------------------------------- the server side

TEST_F(Frames, AServerTakesAPrefaceSplitAnywhereAndRefusesAWrongOne) {
    Wire ok(true);
    std::string magic = MORVA_HTTP2_CLIENT_MAGIC;
    ok.feed(magic.substr(0, 5));
    EXPECT_EQ(ok.c->isActive, MV_HTTP2_CONN_ACTIVE);
    ok.feed(magic.substr(5) + frame(MORVA_HTTP2_SETTINGS, 0, 0));
    EXPECT_EQ(ok.c->isPrefaceReceived, 1);
    EXPECT_EQ(ok.written().front().type, MORVA_HTTP2_SETTINGS);  // ours
    Wire bad(true);
    bad.feed("GET / HTTP/1.1\r\n");
    EXPECT_EQ(bad.c->isActive, MV_HTTP2_CONN_IDLE);
    EXPECT_NE(h2t::stackLog().find("NOT a MAGIC? buffer=[GET / HTTP/1.1..]"), std::string::npos);
}

// Streams past our limit are refused, their blocks still decoded; ids must rise.
TEST_F(Frames, AServerRefusesStreamsPastItsLimitAndIdsThatGoBack) {
    Wire w(true);
    w.c->MaxConcurrentStreams = 1;
    std::string get = "\x82\x86\x84\x41\x01h";  // GET http / :authority h
    w.feed(std::string(MORVA_HTTP2_CLIENT_MAGIC) + frame(MORVA_HTTP2_SETTINGS, 0, 0) +
           frame(MORVA_HTTP2_HEADERS, 5, 1, get) +
           frame(MORVA_HTTP2_HEADERS, 5, 3, get + std::string("\x40\x02x-\x01y", 6)) +
           frame(MORVA_HTTP2_HEADERS, 5, 5, "\x82\x86\x84\xbe"));  // refers to stream 3's entry
    EXPECT_EQ(w.rst(3), MORVA_HTTP2_REFUSED_STREAM);
    EXPECT_EQ(w.rst(5), MORVA_HTTP2_REFUSED_STREAM);
    ASSERT_EQ(w.got.size(), 1u);
    EXPECT_EQ(w.goaway(), -1);
    w.feed(frame(MORVA_HTTP2_HEADERS, 5, 3, get));
    EXPECT_EQ(w.goaway(), MORVA_HTTP2_PROTOCOL_ERROR);
}

}  // namespace
