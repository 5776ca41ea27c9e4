// Requests out, responses in; requests in, responses out. Everything that arrives runs on
// the connection's application line; sends run on the caller's thread under the
// connection's send guard, so that stream ids and header blocks leave in one order.
#include <charconv>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mv_http2_daemon_internal.h"

namespace {

constexpr const char* kMethodNames[] = {"", "GET", "POST", "PUT", "PATCH", "DELETE"};

inline nghttp2_nv field(const char* n, size_t nl, const char* v, size_t vl) {
    return nghttp2_nv{reinterpret_cast<uint8_t*>(const_cast<char*>(n)), reinterpret_cast<uint8_t*>(const_cast<char*>(v)),
                      nl, vl, NGHTTP2_NV_FLAG_NONE};
}
inline nghttp2_nv field(const char* n, const char* v) { return field(n, strlen(n), v, strlen(v)); }

bool isOneOf(const char* key, const char* a, const char* b) { return strcmp(key, a) == 0 || strcmp(key, b) == 0; }

// The fields of a message: the daemon's own first (pseudo-headers), then the list's in
// its order with its pseudo-headers before the rest, then the daemon's closing ones.
// Fields the daemon sets itself are taken from it, not from the list. nv holds
// list->Count + 8.
int buildFields(MV_Http2HeaderList* list, const nghttp2_nv* lead, int nlead, const nghttp2_nv* tail, int ntail,
                const char* own1, const char* own2, nghttp2_nv* nv) {
    int n = 0;
    for (int i = 0; i < nlead; ++i) nv[n++] = lead[i];
    for (int pass = 0; pass < 2; ++pass)
        for (MV_Http2Header* h = list->Head; h; h = h->Next) {
            if ((h->key[0] == ':') != (pass == 0) || isOneOf(h->key, own1, own2)) continue;
            nv[n++] = field(h->key, h->value);
        }
    for (int i = 0; i < ntail; ++i) nv[n++] = tail[i];
    return n;
}

int sendRequest(MV_Http2Context* c, int method, const char* path, const uint8_t* data, long datalen,
                fn_http2_response_cb cb) {
    if (!c || !c->conn || !path || c->conn->isServer || datalen < 0) return -1;
    MV_Http2Connection* conn = c->conn;
    MV_Http2HeaderList* list = &c->Request.Headers;
    c->Request.method = kMethodNames[method];
    if (__mv_http2_engine_refresh_client_connection(conn) < 1) {
        D_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> connection to %s:%d not up", __func__, __LINE__,
              conn->PeerIP, conn->PeerPort);
        return -1;
    }
    char length[24];
    auto lenEnd = std::to_chars(length, length + sizeof length, datalen).ptr;
    const char* ua = __mv_http2_deamon_get_header(list, "user-agent");
    const nghttp2_nv lead[] = {field(":method", kMethodNames[method]), field(":scheme", conn->Tls ? "https" : "http"),
                               field(":authority", conn->Authority), field(":path", path)};
    const nghttp2_nv tail[] = {field("user-agent", ua ? ua : MV_HTTP2_USER_AGENT),
                               field("content-length", 14, length, size_t(lenEnd - length))};
    nghttp2_nv stackNv[48];
    nghttp2_nv* nv = list->Count + 8 <= 48 ? stackNv
                                           : static_cast<nghttp2_nv*>(__mv_http2_block_alloc(sizeof(nghttp2_nv) *
                                                                                              size_t(list->Count + 8)));
    if (!nv) return -1;
    int n = buildFields(list, lead, 4, tail, 2, "user-agent", "content-length", nv);
    int rc;
    {
        MV_Http2SendGuard guard(conn);
        int32_t sid = __mv_http2_engine_getNextStreamId(conn);
        if (sid <= 0) {
            D_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> no stream id left on the connection", __func__,
                  __LINE__);
            rc = -1;
        } else {
            // The request is findable before any byte of it can leave: its answer may come
            // back before this thread runs again.
            c->StreamId = c->Request.StreamId = c->Response.StreamId = sid;
            c->ConnGen = conn->ConnGen;
            c->callback = cb;
            c->clearPath = __mv_http2_deamon_clearPath;
            c->Counted = 1;
            __mv_http2_engine_add_incr_sent_request(conn);
            __mv_http2_engine_add_stream_to_connection(conn, sid, c);
            if (c->TimerSeconds > 0) __mv_http2_deamon___arm_timer(c);
            rc = __mv_http2_engine_send_nv(conn, sid, nv, size_t(n), data, datalen, 0);
            if (rc < 1) {
                __mv_http2_engine_clearPath(conn, sid);
                __mv_http2_engine_add_decr_sent_request(conn);
                c->Counted = 0;
                if (c->timer) __mv_core_clear_timer_gen(c->timer, c->TimerCoreGen);
                c->timer = nullptr;
                c->StreamId = 0;
                D_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> rc=%d", __func__, __LINE__, rc);
            }
        }
    }
    if (nv != stackNv) __mv_http2_block_free(nv);
    return rc;
}

void responseHandler(MV_Http2Context* ctx, MV_HttpMessage* m) {
    ctx->Response.content_type = siNull;
    ctx->Response.ErrorCode = 0;
    if (m->header) {
        int n = __mv_http2_deamon___decode_shared(&ctx->Response.Headers, m->header, m->headerlen);
        D_LOG(MV_LOG_DEBUG,
              "Headers After Decode StreamId=%u header=%p headerlen=%d data=%p datalen=%ld liItem=%p dh-sts=%d "
              "<%s|%s|%d>",
              unsigned(m->StreamId), static_cast<void*>(m->header), m->headerlen, static_cast<void*>(m->data),
              m->datalen, static_cast<void*>(ctx->Response.Headers.Head), n, __FILE_NAME__, __func__, __LINE__);
        MV_Http2HeaderList* h = &ctx->Response.Headers;
        if (const char* s = __mv_http2_deamon_get_header(h, ":status")) ctx->Response.HttpStatusCode = atoi(s);
        if (const char* s = __mv_http2_deamon_get_header(h, "content-length")) ctx->Response.content_length = atol(s);
        if (const char* s = __mv_http2_deamon_get_header(h, "content-type")) ctx->Response.content_type = s;
        __mv_http2_block_free(ctx->Response.HeaderBlock);
        ctx->Response.HeaderBlock = m->header;
        m->header = nullptr;
    }
    // The answer came: the timer has nothing left to do.
    if (ctx->timer) __mv_core_clear_timer_gen(ctx->timer, ctx->TimerCoreGen);
    ctx->timer = nullptr;
    uint8_t* data = m->data;
    m->data = nullptr;
    ctx->callback(ctx, data, m->datalen);
}

void requestHandler(MV_HttpMessage* m) {
    auto* d = __http2Daemon;
    fn_http2_nf_request_handler handler = d->NfRequestHandler;
    if (!handler) {
        printf("nf_request_handler is null %d|%s\n", __LINE__, __func__);
        return;
    }
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(m->conn);
    ctx->StreamId = ctx->Request.StreamId = ctx->Response.StreamId = m->StreamId;
    ctx->ConnGen = m->ConnGen;
    if (!m->header) {
        __mv_http2_deamon_error_in_request(ctx);
        return;
    }
    MV_Http2HeaderList* h = &ctx->Request.Headers;
    __mv_http2_deamon___decode_shared(h, m->header, m->headerlen);
    ctx->Request.HeaderBlock = m->header;
    m->header = nullptr;
    if (const char* s = __mv_http2_deamon_get_header(h, ":path")) ctx->Request.path = s;
    if (const char* s = __mv_http2_deamon_get_header(h, ":method")) ctx->Request.method = s;
    if (const char* s = __mv_http2_deamon_get_header(h, "content-type")) ctx->Request.content_type = s;
    if (const char* s = __mv_http2_deamon_get_header(h, "content-length")) ctx->Request.content_length = atol(s);
    uint8_t* data = m->data;
    m->data = nullptr;
    handler(ctx, data, m->datalen);
}

}  // namespace

void __mv_http2_deamon_recv_message_handler(MV_HttpMessage* m) {
    MV_Http2Connection* c = m->conn;
    bool odd = (m->StreamId & 1) == 1;
    if (c->isServer && odd) {
        requestHandler(m);
    } else if (!c->isServer && odd) {
        auto* ctx = static_cast<MV_Http2Context*>(m->Context);
        if (ctx && ctx->callback) {
            responseHandler(ctx, m);
        } else {
            ++__http2Daemon->ResponsesWithoutContext;
            D_LOG(MV_LOG_ERROR,
                  "response callback not found, cannot handover response to application StreamId=%d headerlen=%d "
                  "datalen=%ld <%s|%s|%d>",
                  m->StreamId, m->headerlen, m->datalen, __FILE_NAME__, __func__, __LINE__);
        }
    } else {
        D_LOG(MV_LOG_ERROR, "is_server=%d odd-even=%d invalid request send protocol error  <%s|%s|%d>", c->isServer,
              int(odd), __FILE_NAME__, __func__, __LINE__);
    }
    __mv_http2_block_free(m->header);
    __mv_http2_block_free(m->data);
    m->header = m->data = nullptr;
}

void __mv_http2_deamon_stream_error_handler(MV_Http2Connection* conn, int32_t StreamId, void* context, int errorCode) {
    if (conn->isServer || !context) return;
    auto* ctx = static_cast<MV_Http2Context*>(context);
    D_LOG(MV_LOG_ERROR, "request failed StreamId=%d error=%s (%d) peer=%s:%d <%s|%s|%d>", StreamId,
          __mv_http2_error_name(errorCode), errorCode, conn->PeerIP, conn->PeerPort, __FILE_NAME__, __func__,
          __LINE__);
    ctx->Response.HttpStatusCode = 0;
    ctx->Response.ErrorCode = errorCode;
    if (ctx->timer) __mv_core_clear_timer_gen(ctx->timer, ctx->TimerCoreGen);
    ctx->timer = nullptr;
    if (ctx->callback) ctx->callback(ctx, nullptr, 0);
}

int __mv_http2_deamon_send_get_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                       fn_http2_response_cb cb) {
    return sendRequest(ctx, MORVA_HTTP2_REQUEST_METHOD_GET, path, data, datalen, cb);
}
int __mv_http2_deamon_send_post_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                        fn_http2_response_cb cb) {
    return sendRequest(ctx, MORVA_HTTP2_REQUEST_METHOD_POST, path, data, datalen, cb);
}
int __mv_http2_deamon_send_patch_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                         fn_http2_response_cb cb) {
    return sendRequest(ctx, MORVA_HTTP2_REQUEST_METHOD_PATCH, path, data, datalen, cb);
}
int __mv_http2_deamon_send_put_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                       fn_http2_response_cb cb) {
    return sendRequest(ctx, MORVA_HTTP2_REQUEST_METHOD_PUT, path, data, datalen, cb);
}
int __mv_http2_deamon_send_delete_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                          fn_http2_response_cb cb) {
    return sendRequest(ctx, MORVA_HTTP2_REQUEST_METHOD_DELETE, path, data, datalen, cb);
}

// ---------------------------------------------------------------- responses

int __mv_http2_deamon___send_message(MV_Http2Context* c, MV_Http2HeaderList* list, const uint8_t* data, long datalen,
                                     long remDataLen) {
    if (!c || !c->conn || c->StreamId <= 0) return -1;
    nghttp2_nv stackNv[48];
    nghttp2_nv* nv = list->Count + 8 <= 48
                         ? stackNv
                         : static_cast<nghttp2_nv*>(__mv_http2_block_alloc(sizeof(nghttp2_nv) * size_t(list->Count + 8)));
    if (!nv) return -1;
    int n = buildFields(list, nullptr, 0, nullptr, 0, "", "", nv);
    int rc;
    {
        MV_Http2SendGuard guard(c->conn);
        rc = __mv_http2_engine_send_nv(c->conn, c->StreamId, nv, size_t(n), data, datalen, remDataLen);
    }
    if (nv != stackNv) __mv_http2_block_free(nv);
    if (rc < 1) D_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> StreamId=%d rc=%d", __func__, __LINE__, c->StreamId, rc);
    return rc;
}

int __mv_http2_deamon_send_response(MV_Http2Context* http2Context, const uint8_t* data, long datalen,
                                    int httpStatusCode) {
    MV_Http2Context* c = http2Context;
    if (!c || !c->conn || c->StreamId <= 0 || datalen < 0) return -1;
    char status[16], length[24];
    auto stEnd = std::to_chars(status, status + sizeof status, httpStatusCode).ptr;
    auto lenEnd = std::to_chars(length, length + sizeof length, datalen).ptr;
    c->Response.HttpStatusCode = httpStatusCode;
    MV_Http2HeaderList* list = &c->Response.Headers;
    const nghttp2_nv lead[] = {field(":status", 7, status, size_t(stEnd - status))};
    const nghttp2_nv tail[] = {field("content-length", 14, length, size_t(lenEnd - length))};
    nghttp2_nv stackNv[48];
    nghttp2_nv* nv = list->Count + 8 <= 48
                         ? stackNv
                         : static_cast<nghttp2_nv*>(__mv_http2_block_alloc(sizeof(nghttp2_nv) * size_t(list->Count + 8)));
    if (!nv) return -1;
    int n = buildFields(list, lead, 1, tail, 1, ":status", "content-length", nv);
    int rc;
    {
        MV_Http2SendGuard guard(c->conn);
        rc = __mv_http2_engine_send_nv(c->conn, c->StreamId, nv, size_t(n), data, datalen, 0);
    }
    if (nv != stackNv) __mv_http2_block_free(nv);
    if (rc < 1) D_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> StreamId=%d rc=%d", __func__, __LINE__, c->StreamId, rc);
    return rc;
}

int __mv_http2_deamon_error_in_request(MV_Http2Context* http2Context) {
    int rc = __mv_http2_deamon_send_response(http2Context, nullptr, 0, 500);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(http2Context);
    return rc;
}

int __mv_http2_deamon_send_no_route(MV_Http2Context* http2Context) {
    int rc = __mv_http2_deamon_send_response(http2Context, nullptr, 0, 302);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(http2Context);
    return rc;
}

void __mv_http2_deamon_send_app_error(MV_Http2Connection* httpConn, int32_t StreamId, int httpStatusCode) {
    if (!httpConn) return;
    MV_Http2Context* ctx = __mv_http2_deamon_get_new_request_context_on(httpConn);
    ctx->StreamId = StreamId;
    __mv_http2_deamon_send_response(ctx, nullptr, 0, httpStatusCode);
    __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);
}
