// The application line of a connection and HPACK. Work for one connection runs on one
// FSM line in the order the reader found it, so the decoder's table, which the whole
// connection shares, sees the header blocks in the order they arrived, whatever order
// their streams end in. The encoder belongs to whoever holds the send guard.
#include <cerrno>

#include "mv_http2_internal.h"

// ---------------------------------------------------------------- posting

MV_HttpMessage* h2___msg(MV_Http2Connection* c, int kind, int32_t sid) {
    MV_HttpMessage* m = __mv_http2Engine->MessagePool.allocate();
    m->conn = c;
    m->StreamId = sid;
    m->Kind = kind;
    m->ConnGen = c->ConnGen;
    return m;
}

void __mv_http2_engine_release_message(MV_HttpMessage* msg) {
    if (!msg) return;
    __mv_http2_block_free(msg->header);
    __mv_http2_block_free(msg->data);
    msg->header = msg->data = nullptr;
    __mv_http2Engine->MessagePool.release(msg);
}

namespace {

void lineExec(void* data);

void postChain(MV_Http2Connection* c, MV_HttpMessage* head, MV_HttpMessage* tail) {
    if (!head) return;
    if (c->Detached) {
        if (c->DetachedTail) c->DetachedTail->Next = head;
        else c->DetachedHead = head;
        c->DetachedTail = tail;
        return;
    }
    auto* e = __mv_http2Engine;
    if (__mv_core_queue_fsm2(e->appMessageQueue, uint32_t(c->id) % uint32_t(e->appMessageQueueThreads), head,
                             lineExec) != 1) {
        ++e->TotalQueueRejected;
        H2_LOG(MV_LOG_CRITICAL, "application line refused messages of ConnId=%u <%s|%s|%d>", c->ConnId, __FILE_NAME__,
               __func__, __LINE__);
        for (MV_HttpMessage* m = head; m;) {
            MV_HttpMessage* n = m->Next;
            __mv_http2_engine_release_message(m);
            m = n;
        }
    }
}

}  // namespace

void h2___post(MV_Http2Connection* c, MV_HttpMessage* m) {
    m->Next = nullptr;
    if (tl_h2ReaderConn == c) {
        // The reader's messages of one pass go together: one wake-up of the line.
        if (c->PassTail) c->PassTail->Next = m;
        else c->PassHead = m;
        c->PassTail = m;
        return;
    }
    postChain(c, m, m);
}

void h2___post_pass(MV_Http2Connection* c) {
    MV_HttpMessage* head = c->PassHead;
    MV_HttpMessage* tail = c->PassTail;
    c->PassHead = c->PassTail = nullptr;
    postChain(c, head, tail);
}

void h2___post_failed(MV_Http2Connection* c, int32_t sid, int code) {
    MV_HttpMessage* m = h2___msg(c, MV_HTTP2_MSG_FAILED, sid);
    m->ErrorCode = code;
    if (!c->isServer) {
        std::lock_guard g(c->sentRequestContextsLock);
        m->Context = c->sentRequestContexts.erase(sid);
    }
    h2___post(c, m);
}

// ---------------------------------------------------------------- decoding

namespace {

// Decodes one block into the flat form; null on a block that does not decode.
uint8_t* inflateBlock(MV_Http2Connection* c, const uint8_t* in, long inlen, int* outlen) {
    if (!c->http2Inflator && nghttp2_hd_inflate_new2(&c->http2Inflator, &mem_http2) != 0) return nullptr;
    long cap = inlen * 2 + 256;
    auto* out = static_cast<uint8_t*>(__mv_http2_block_alloc(size_t(cap)));
    if (!out) return nullptr;
    int pos = 0, fields = 0;
    for (;;) {
        nghttp2_nv nv;
        int flags = 0;
        ssize_t rv = nghttp2_hd_inflate_hd2(c->http2Inflator, &nv, &flags, in, size_t(inlen), 1);
        if (rv < 0 || ++fields > MORVA_HTTP2_HD_MAX_NV) {
            __mv_http2_block_free(out);
            return nullptr;
        }
        in += rv;
        inlen -= rv;
        if (flags & NGHTTP2_HD_INFLATE_EMIT) {
            long need = pos + 10L + long(nv.namelen) + long(nv.valuelen);
            if (need > cap) {
                while (cap < need) cap *= 2;
                auto* grown = static_cast<uint8_t*>(__mv_http2_block_realloc(out, size_t(cap)));
                if (!grown) {
                    __mv_http2_block_free(out);
                    return nullptr;
                }
                out = grown;
            }
            pos = __mv_http2_engine_put_header(out, int(cap), pos, reinterpret_cast<const char*>(nv.name),
                                               int(nv.namelen), reinterpret_cast<const char*>(nv.value),
                                               int(nv.valuelen));
        }
        if (flags & NGHTTP2_HD_INFLATE_FINAL) {
            nghttp2_hd_inflate_end_headers(c->http2Inflator);
            break;
        }
        if (!(flags & NGHTTP2_HD_INFLATE_EMIT) && inlen == 0) break;
    }
    *outlen = pos;
    return out;
}

// Joins a later block (trailers, after informational responses) to the kept one.
uint8_t* joinBlocks(uint8_t* first, int firstLen, uint8_t* second, int secondLen, int* outlen) {
    if (!first) {
        *outlen = secondLen;
        return second;
    }
    auto* j = static_cast<uint8_t*>(__mv_http2_block_realloc(first, size_t(firstLen + secondLen)));
    if (!j) {
        __mv_http2_block_free(second);
        *outlen = firstLen;
        return first;
    }
    memcpy(j + firstLen, second, size_t(secondLen));
    __mv_http2_block_free(second);
    *outlen = firstLen + secondLen;
    return j;
}

// Blocks decoded ahead of their message are kept by stream id; their length rides in
// the block's head.
void dropKept(MV_Http2Connection* c, int32_t sid) { __mv_http2_block_free(c->AppHeaders.erase(sid)); }

// The kept block of the stream joined with a new one (informational answers, trailers).
uint8_t* withKept(MV_Http2Connection* c, int32_t sid, uint8_t* fields, int len, int* outlen) {
    auto* kept = static_cast<uint8_t*>(c->AppHeaders.erase(sid));
    if (!kept) {
        *outlen = len;
        return fields;
    }
    if (!fields) {
        *outlen = int(__mv_http2_block_used(kept));
        return kept;
    }
    return joinBlocks(kept, int(__mv_http2_block_used(kept)), fields, len, outlen);
}

void deliver(MV_Http2Connection* c, MV_HttpMessage* m) {
    auto* e = __mv_http2Engine;
    if (c->AppDecodeFailed) {
        // Its header block did not decode: the connection is closing, the request fails.
        if (e->StreamErrorHandler) e->StreamErrorHandler(c, m->StreamId, m->Context, MORVA_HTTP2_COMPRESSION_ERROR);
        return;
    }
    H2_LOG(MV_LOG_DEBUG, "RECEIVED StreamId=%d headerlen=%d datalen=%ld <%s|%s|%d>", m->StreamId, m->headerlen,
           m->datalen, __FILE_NAME__, __func__, __LINE__);
    if (e->AppMessageHandler) {
        MV_HttpMessage copy = *m;
        m->header = m->data = nullptr;
        e->AppMessageHandler(&copy);
        return;
    }
    if (e->AppRequestHandler) {
        uint8_t* h = m->header;
        uint8_t* d = m->data;
        m->header = m->data = nullptr;
        e->AppRequestHandler(c, m->StreamId, h, m->headerlen, d, m->datalen);
    }
}

void onHeaderBlock(MV_Http2Connection* c, MV_HttpMessage* m) {
    if (c->AppDecodeFailed) {
        if (m->AlsoDeliver) deliver(c, m);
        return;
    }
    int len = 0;
    int inlen = m->headerlen;
    uint8_t* fields = inflateBlock(c, m->header, inlen, &len);
    __mv_http2_block_free(m->header);
    m->header = nullptr;
    m->headerlen = 0;
    if (!fields) {
        c->AppDecodeFailed = 1;
        H2_LOG(MV_LOG_ERROR, "nghttp2_hd_inflate_hd failed inlen=%d <%s|%d>", inlen, __func__, __LINE__);
        if (c->ConnGen == m->ConnGen && c->isActive == MV_HTTP2_CONN_ACTIVE)
            h2___connection_error(c, MORVA_HTTP2_COMPRESSION_ERROR, "header block does not decode",
                                  MORVA_HTTP2_HEADERS, m->StreamId);
        if (m->AlsoDeliver) deliver(c, m);
        return;
    }
    if (m->Discard) {
        __mv_http2_block_free(fields);
        return;
    }
    fields = withKept(c, m->StreamId, fields, len, &len);
    if (m->AlsoDeliver) {
        m->header = fields;
        m->headerlen = len;
        deliver(c, m);
        return;
    }
    __mv_http2_block_set_used(fields, uint32_t(len));
    c->AppHeaders.insert(m->StreamId, fields);
}

void runOne(MV_HttpMessage* m) {
    MV_Http2Connection* c = m->conn;
    if (m->ConnGen != c->AppGen) {
        // A new life of the connection: its peer's table starts empty.
        h2___app_line_reset(c);
        c->AppGen = m->ConnGen;
    }
    auto* e = __mv_http2Engine;
    switch (m->Kind) {
        case MV_HTTP2_MSG_HEADERS:
            onHeaderBlock(c, m);
            break;
        case MV_HTTP2_MSG_DELIVER:
            m->header = withKept(c, m->StreamId, nullptr, 0, &m->headerlen);
            deliver(c, m);
            break;
        case MV_HTTP2_MSG_FAILED:
            dropKept(c, m->StreamId);
            if (e->StreamErrorHandler) e->StreamErrorHandler(c, m->StreamId, m->Context, m->ErrorCode);
            break;
        case MV_HTTP2_MSG_PUMP: {
            c->PumpQueued = 0;
            std::lock_guard g(c->StreamLock);
            h2___pump_locked(c);
            break;
        }
        default:
            break;
    }
    __mv_http2_engine_release_message(m);
}

void lineExec(void* data) {
    auto* m = static_cast<MV_HttpMessage*>(data);
    MV_Http2Connection* c = m->conn;
    // Answers written by the handlers of this batch go out together at its end.
    MV_Http2Connection* outer = tl_h2CorkConn;
    tl_h2CorkConn = c;
    while (m) {
        MV_HttpMessage* next = m->Next;
        m->Next = nullptr;
        runOne(m);
        m = next;
    }
    tl_h2CorkConn = outer;
    h2___flush(c, true);
}

}  // namespace

void h2___app_line_reset(MV_Http2Connection* c) {
    if (c->http2Inflator) {
        nghttp2_hd_inflate_del(c->http2Inflator);
        c->http2Inflator = nullptr;
    }
    c->AppHeaders.drain([](int32_t, void* v) { __mv_http2_block_free(v); });
    c->AppDecodeFailed = 0;
}

void h2___app_line_run(MV_HttpMessage* m) { runOne(m); }

void __mv_http2_engine_run_app_line(MV_Http2Connection* conn) {
    while (MV_HttpMessage* m = conn->DetachedHead) {
        conn->DetachedHead = nullptr;
        conn->DetachedTail = nullptr;
        lineExec(m);
    }
}

// ---------------------------------------------------------------- encoding

namespace {
bool encoderReady(MV_Http2Connection* c) {
    uint32_t want = c->Peer_HeaderTableSize;
    if (want > MORVA_HTTP2_DEFAULT_HEADER_TABLE_SIZE) want = MORVA_HTTP2_DEFAULT_HEADER_TABLE_SIZE;
    if (!c->http2Deflator) {
        if (nghttp2_hd_deflate_new2(&c->http2Deflator, want, &mem_http2) != 0) return false;
        c->DeflatorTableSize = want;
    } else if (want != c->DeflatorTableSize) {
        // The peer changed its table size: the next block starts with the size update.
        if (nghttp2_hd_deflate_change_table_size(c->http2Deflator, want) != 0) return false;
        c->DeflatorTableSize = want;
    }
    return true;
}
}  // namespace

size_t __mv_http2_engine_encode_bound(MV_Http2Connection* conn, const nghttp2_nv* nv, size_t nvlen) {
    if (!conn || !encoderReady(conn)) return 0;
    return nghttp2_hd_deflate_bound(conn->http2Deflator, nv, nvlen);
}

int __mv_http2_engine_encode_headers(MV_Http2Connection* conn, const nghttp2_nv* nv, size_t nvlen, uint8_t* out,
                                     size_t outcap) {
    if (!conn || !out || !encoderReady(conn)) return -1;
    ssize_t n = nghttp2_hd_deflate_hd(conn->http2Deflator, out, outcap, nv, nvlen);
    return n < 0 ? -1 : int(n);
}
