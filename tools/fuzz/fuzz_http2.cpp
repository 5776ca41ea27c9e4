// libFuzzer target of the HTTP/2 frame decoder: the bytes a peer sends, into the
// frame machine of a client (with streams open, bodies waiting for the window) or of
// a server, in pieces of varying size, the application line run between pieces. What
// the engine writes back must always be whole frames within the peer's frame size.
//
// Input: byte 0 selects the side (bit 0: server) and the piece size (bits 1-7); the rest
// is what the peer sends.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mv_http2.h"

namespace {

std::vector<uint8_t> written;

void sink(MV_Http2Connection*, const uint8_t* p, int n) { written.insert(written.end(), p, p + n); }

void onMessage(MV_HttpMessage* m) {
    // Walk the decoded fields as the daemon would.
    int pos = 0, nl, vl;
    const char *n, *v;
    while (__mv_http2_engine_next_header(m->header, m->headerlen, &pos, &n, &nl, &v, &vl) == 1)
        if (n[nl] != 0 || v[vl] != 0) abort();
    __mv_http2_block_free(m->header);
    __mv_http2_block_free(m->data);
}

void onFailed(MV_Http2Connection*, int32_t, void*, int) {}

// Every frame the engine wrote is whole and no longer than the peer allows.
void checkWritten(MV_Http2Connection* c) {
    size_t at = 0;
    if (!c->isServer && written.size() >= MORVA_HTTP2_CLIENT_MAGIC_LEN &&
        memcmp(written.data(), MORVA_HTTP2_CLIENT_MAGIC, MORVA_HTTP2_CLIENT_MAGIC_LEN) == 0)
        at = MORVA_HTTP2_CLIENT_MAGIC_LEN;
    while (at < written.size()) {
        if (written.size() - at < MORVA_HTTP2_FRAME_HEADER_LEN) abort();
        MV_Http2FrameHeader h;
        __mv_http2_frame_decode_header(written.data() + at, &h);
        if (h.PayLoadLength > MORVA_HTTP2_MAX_FRAME_SIZE || written.size() - at < size_t(9 + h.PayLoadLength)) abort();
        if (h.Type > MORVA_HTTP2_CONTINUATION) abort();
        at += size_t(9 + h.PayLoadLength);
    }
}

struct Sides {
    MV_Http2Connection* client;
    MV_Http2Connection* server;
};

Sides& sides() {
    static Sides s = [] {
        __mv_http2_engine_init_detached();
        __mv_http2_engine_set_app_message_handler(onMessage);
        __mv_http2_engine_set_stream_error_handler(onFailed);
        return Sides{__mv_http2_engine_new_detached_connection(0, sink), __mv_http2_engine_new_detached_connection(1, sink)};
    }();
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    Sides& s = sides();
    bool server = data[0] & 1;
    size_t piece = (data[0] >> 1) ? (data[0] >> 1) : size;
    MV_Http2Connection* c = server ? s.server : s.client;
    written.clear();
    __mv_http2_engine_reset_detached(c);
    if (!server) {
        // Streams for the peer's frames to land on: one ended, one with a body waiting.
        static const nghttp2_nv nv[] = {{(uint8_t*)":method", (uint8_t*)"POST", 7, 4, 0},
                                        {(uint8_t*)":path", (uint8_t*)"/f", 5, 2, 0}};
        static std::vector<uint8_t> body(100000, 'b');
        MV_Http2SendGuard g(c);
        __mv_http2_engine_send_nv(c, __mv_http2_engine_getNextStreamId(c), nv, 2, nullptr, 0, 0);
        __mv_http2_engine_send_nv(c, __mv_http2_engine_getNextStreamId(c), nv, 2, body.data(), long(body.size()), 0);
    }
    for (size_t at = 1; at < size; at += piece) {
        size_t n = size - at < piece ? size - at : piece;
        // An exact copy, so that a read past the piece lands outside it.
        std::vector<uint8_t> bytes(data + at, data + at + n);
        __mv_http2_engine_receive_bytes(c, bytes.data(), bytes.size());
        __mv_http2_engine_run_app_line(c);
    }
    checkWritten(c);
    return 0;
}
