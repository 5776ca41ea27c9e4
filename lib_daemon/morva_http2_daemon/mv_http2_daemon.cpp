// The daemon's record, its pools of contexts and headers, the API root tables, the
// owner's slots, request timers and header lists.
#include "mv_http2_daemon_internal.h"

#include <jansson.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "mv_alloc.h"
#include "mv_fifo.h"

__mv_http2_daemon* __http2Daemon = nullptr;
const char siNull[] = "";


namespace {

std::once_flag initOnce;

mv_fifo::CoreFifo<MV_Http2Header> headerPool() {
    auto* d = __http2Daemon;
    return {d->Http2HeaderHead, d->Http2HeaderCurrent, d->Http2HeaderLock, d->Http2HeaderTotalCount,
            d->Http2HeaderAvailableCount};
}
mv_fifo::CoreFifo<MV_Http2Context> contextPool() {
    auto* d = __http2Daemon;
    return {d->Http2ContextHead, d->Http2ContextCurrent, d->Http2ContextLock, d->Http2ContextTotalCount,
            d->Http2ContextAvailableCount};
}

void* jsonMalloc(size_t size) {
    if (__http2Daemon) ++__http2Daemon->allocTimes;
    return __mv_http2_block_alloc(size);
}
void jsonFree(void* p) {
    if (!p) return;
    if (__http2Daemon) ++__http2Daemon->freeTimes;
    __mv_http2_block_free(p);
}

}  // namespace

void __mv_http2_deamon_set_json_alloc_funcs() { json_set_alloc_funcs(jsonMalloc, jsonFree); }

void __mv_http2_deamon_initalize() {
    std::call_once(initOnce, [] {
        __mv_http2_engine_init();
        auto* d = __mv_arena_new<__mv_http2_daemon>();
        d->apiRootTable = __mv_power_table_create();
        d->apiRootTableConnPool = __mv_power_table_create();
        d->http2ConnPoolSize = 2;
        d->http2LoadBalancingMode = 1;
        __http2Daemon = d;
        headerPool().add(500, 1);
        contextPool().add(100, 1);
        __mv_http2_engine_set_app_message_handler(__mv_http2_deamon_recv_message_handler);
        __mv_http2_engine_set_app_request_error_handler(__mv_http2_deamon_send_app_error);
        __mv_http2_engine_set__set_window_update_handler(__mv_http2_deamon__send_response_data_frame);
        __mv_http2_engine_set_stream_error_handler(__mv_http2_deamon_stream_error_handler);
    });
}

void __mv_http2_deamon_set_nf_request_handler(fn_http2_nf_request_handler handler) {
    __mv_http2_deamon_initalize();
    __http2Daemon->NfRequestHandler = handler;
}

// ---------------------------------------------------------------- headers

void __mv_http2_deamon_free_headers(MV_Http2HeaderList* list) {
    if (!list) return;
    for (MV_Http2Header* h = list->Head; h; h = h->Next)
        if (!h->Shared) __mv_freeM(h->key);
    // The whole list goes back to the pool under one lock.
    auto* d = __http2Daemon;
    if (list->Head) {
        std::lock_guard g(d->Http2HeaderLock);
        for (MV_Http2Header* h = list->Head; h;) {
            MV_Http2Header* next = h->Next;
            h->key = h->value = nullptr;
            if (!h->isReleased) {
                h->isReleased = 1;
                h->Next = nullptr;
                if (d->Http2HeaderCurrent) d->Http2HeaderCurrent->Next = h;
                else d->Http2HeaderHead = h;
                d->Http2HeaderCurrent = h;
                ++d->Http2HeaderAvailableCount;
            }
            h = next;
        }
    }
    *list = MV_Http2HeaderList{};
}

namespace {

inline char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }

void append(MV_Http2HeaderList* list, MV_Http2Header* h) {
    h->Next = nullptr;
    if (list->Current) list->Current->Next = h;
    else list->Head = h;
    list->Current = h;
    ++list->Count;
}

// Appends a header; names go in lower case. `limit` 0 takes any number.
int addHeader(MV_Http2HeaderList* list, const char* key, int klen, const char* val, int vlen, int limit) {
    if (!list || !key || !val) return 0;
    if (limit && list->Count >= limit) {
        printf("maximum headers exceeded count=%d\n", list->Count);
        return 0;
    }
    auto* block = static_cast<char*>(__mv_allocM(size_t(klen) + size_t(vlen) + 2));
    if (!block) {
        printf("header item key failed %d\n", __LINE__);
        return 0;
    }
    for (int i = 0; i < klen; ++i) block[i] = lowerAscii(key[i]);
    block[klen] = 0;
    memcpy(block + klen + 1, val, size_t(vlen));
    block[klen + 1 + vlen] = 0;
    MV_Http2Header* h = headerPool().allocate(500);
    h->key = block;
    h->value = block + klen + 1;
    h->Shared = 0;
    append(list, h);
    return 1;
}

}  // namespace

int __mv_http2_deamon___decode_shared(MV_Http2HeaderList* list, uint8_t* block, int len) {
    int pos = 0, n = 0, nl, vl;
    const char *name, *value;
    // Records for all fields under one lock; names and values stay in the block.
    auto* d = __http2Daemon;
    auto pool = headerPool();
    std::lock_guard g(d->Http2HeaderLock);
    while (__mv_http2_engine_next_header(block, len, &pos, &name, &nl, &value, &vl) == 1) {
        if (!d->Http2HeaderHead) pool.appendNew(500);
        MV_Http2Header* h = d->Http2HeaderHead;
        d->Http2HeaderHead = h->Next;
        if (!d->Http2HeaderHead) d->Http2HeaderCurrent = nullptr;
        --d->Http2HeaderAvailableCount;
        h->isReleased = 0;
        h->key = const_cast<char*>(name);
        h->value = const_cast<char*>(value);
        h->Shared = 1;
        append(list, h);
        ++n;
    }
    return n;
}

int __mv_http2_deamon___add(MV_Http2HeaderList* list, const char* key, const char* val, int limit) {
    if (!key || !val) return 0;
    return addHeader(list, key, int(strlen(key)), val, int(strlen(val)), limit);
}

// Sets a header the daemon owns (pseudo-headers and the like): replaced when present.
int __mv_http2_deamon___set(MV_Http2HeaderList* list, const char* key, const char* val) {
    for (MV_Http2Header* h = list->Head; h; h = h->Next) {
        if (strcmp(h->key, key) == 0) {
            size_t kl = strlen(key), vl = strlen(val);
            auto* block = static_cast<char*>(__mv_allocM(kl + vl + 2));
            if (!block) return 0;
            memcpy(block, key, kl + 1);
            memcpy(block + kl + 1, val, vl + 1);
            if (!h->Shared) __mv_freeM(h->key);
            h->key = block;
            h->value = block + kl + 1;
            h->Shared = 0;
            return 1;
        }
    }
    return __mv_http2_deamon___add(list, key, val, 0);
}

int __mv_http2_deamon_add_request_header(MV_Http2Context* c, const char* key, const char* val) {
    return c ? __mv_http2_deamon___add(&c->Request.Headers, key, val, MV_HTTP2_MAX_HEADERS) : 0;
}
int __mv_http2_deamon_add_response_header(MV_Http2Context* c, const char* key, const char* val) {
    return c ? __mv_http2_deamon___add(&c->Response.Headers, key, val, MV_HTTP2_MAX_HEADERS) : 0;
}
int __mv_http2_deamon_add_request_content_type(MV_Http2Context* c, const char* data) {
    return __mv_http2_deamon_add_request_header(c, "content-type", data);
}
int __mv_http2_deamon_add_response_content_type(MV_Http2Context* c, const char* data) {
    return __mv_http2_deamon_add_response_header(c, "content-type", data);
}
int __mv_http2_deamon_add_request_content_length(MV_Http2Context* c, long contentLength) {
    char t[24];
    snprintf(t, sizeof t, "%ld", contentLength);
    return __mv_http2_deamon_add_request_header(c, "content-length", t);
}
int __mv_http2_deamon_add_response_content_length(MV_Http2Context* c, long contentLength) {
    char t[24];
    snprintf(t, sizeof t, "%ld", contentLength);
    return __mv_http2_deamon_add_response_header(c, "content-length", t);
}
int __mv_http2_deamon_add_response_status(MV_Http2Context* c, int status) {
    char t[16];
    snprintf(t, sizeof t, "%d", status);
    return __mv_http2_deamon_add_response_header(c, ":status", t);
}
MV_Http2HeaderList* __mv_http2_deamon_get_request_headers(MV_Http2Context* c) { return c ? &c->Request.Headers : nullptr; }
MV_Http2HeaderList* __mv_http2_deamon_get_response_headers(MV_Http2Context* c) {
    return c ? &c->Response.Headers : nullptr;
}
int __mv_http2_deamon_get_request_header_count(MV_Http2Context* c) { return c ? c->Request.Headers.Count : 0; }
int __mv_http2_deamon_get_response_header_count(MV_Http2Context* c) { return c ? c->Response.Headers.Count : 0; }

const char* __mv_http2_deamon_get_header(MV_Http2HeaderList* headers, const char* key) {
    if (!headers || !key) return nullptr;
    for (MV_Http2Header* h = headers->Head; h; h = h->Next)
        if (strcmp(h->key, key) == 0) return h->value;
    return nullptr;
}

int __mv_http2_deamon_getRequestMethod(MV_Http2Context* c) {
    if (!c || !c->Request.method) return -1;
    static constexpr const char* kMethods[] = {"get", "post", "put", "patch", "delete"};
    const char* m = c->Request.method;
    bool lower = true, upper = true;
    for (const char* p = m; *p; ++p) {
        lower = lower && !isupper(static_cast<unsigned char>(*p));
        upper = upper && !islower(static_cast<unsigned char>(*p));
    }
    if (!lower && !upper) return -1;
    for (int i = 0; i < 5; ++i)
        if (strcasecmp(m, kMethods[i]) == 0) return i + 1;
    return -1;
}

int __mv_http2_deamon_get_decode_headers(MV_Http2HeaderList* list, const uint8_t* in, int inlen) {
    int pos = 0, n = 0, nl, vl;
    const char *name, *value;
    while (__mv_http2_engine_next_header(in, inlen, &pos, &name, &nl, &value, &vl) == 1) {
        addHeader(list, name, nl, value, vl, 0);
        ++n;
    }
    return n;
}

int __mv_http2_deamon_get_header_buffer(MV_Http2Connection* conn, MV_Http2HeaderList* list, uint8_t* buffer,
                                        int bufLength) {
    if (!list || list->Count == 0) return 0;
    nghttp2_nv stackNv[48];
    nghttp2_nv* nv = list->Count <= 48 ? stackNv : static_cast<nghttp2_nv*>(__mv_allocM(sizeof(nghttp2_nv) * size_t(list->Count)));
    if (!nv) return -1;
    // Pseudo-headers must all come before the others.
    int n = 0;
    for (int pass = 0; pass < 2; ++pass)
        for (MV_Http2Header* h = list->Head; h; h = h->Next) {
            if ((h->key[0] == ':') != (pass == 0)) continue;
            nv[n++] = nghttp2_nv{reinterpret_cast<uint8_t*>(h->key), reinterpret_cast<uint8_t*>(h->value),
                                 strlen(h->key), strlen(h->value), NGHTTP2_NV_FLAG_NONE};
        }
    int rc = __mv_http2_engine_encode_headers(conn, nv, size_t(n), buffer, size_t(bufLength));
    if (nv != stackNv) __mv_freeM(nv);
    return rc;
}

// ---------------------------------------------------------------- contexts

namespace {

MV_Http2Context* allocateContext(MV_Http2Connection* conn) {
    MV_Http2Context* c = contextPool().allocate(100);
    if (!c) return nullptr;  // the pool could not grow: the caller sees all busy
    uint64_t gen = c->Generation.load() + 1;
    c->Generation = gen;
    c->userData = c->userData2 = c->userData3 = nullptr;
    c->udata_1[0] = c->udata_2[0] = c->udata_3[0] = 0;
    c->int1 = c->int2 = c->int3 = 0;
    c->conn = conn;
    c->StreamId = 0;
    c->httpConnRowVersion = conn ? conn->RowVersion.load() : 0;
    c->Request.initalized = 1;
    c->Request.Headers = MV_Http2HeaderList{};
    c->Request.path = c->Request.method = c->Request.content_type = siNull;
    c->Request.content_length = 0;
    c->Request.Url[0] = 0;
    c->Request.UrlPartCount = 0;
    c->Request.QueryStrings = MV_Http2HeaderList{};
    c->Request.PathParameters = MV_Http2HeaderList{};
    c->Request.StreamId = 0;
    c->Request.Context = c;
    c->Request.HeaderBlock = nullptr;
    c->Response.initalized = 1;
    c->Response.Headers = MV_Http2HeaderList{};
    c->Response.content_type = siNull;
    c->Response.content_length = 0;
    c->Response.HttpStatusCode = 0;
    c->Response.StreamId = 0;
    c->Response.Context = c;
    c->Response.ErrorCode = 0;
    c->Response.HeaderBlock = nullptr;
    c->timer = nullptr;
    c->callback = nullptr;
    c->clearPath = __mv_http2_deamon_clearPath;
    c->ConnGen = 0;
    c->TimerCoreGen = 0;
    c->TimerSeconds = 0;
    c->TimerHandler = nullptr;
    c->Counted = 0;
    ++__http2Daemon->Http2ContextUsedCount;
    return c;
}

MV_Http2ConnectionPool* poolFor(const char* apiRoot, bool create) {
    auto* d = __http2Daemon;
    int len = int(strlen(apiRoot));
    void* found = nullptr;
    __mv_power_table_fnd(d->apiRootTableConnPool, apiRoot, len, &found);
    if (found || !create) return static_cast<MV_Http2ConnectionPool*>(found);
    std::lock_guard g(d->apiRootTableLockConnPool);
    __mv_power_table_fnd(d->apiRootTableConnPool, apiRoot, len, &found);
    if (found) return static_cast<MV_Http2ConnectionPool*>(found);
    char ip[64];
    int port = 0, tls = 0, ipver = 4;
    if (__mv_http2_engine_parse_uri(apiRoot, ip, &port, &tls, &ipver) != 1) {
        printf("should not see apiRoot=%s decoding failed %d|%s|%s\n", apiRoot, __LINE__, __func__, __FILE_NAME__);
        D_LOG(MV_LOG_ERROR, "unable to resolved address for apiRoot=%s <%s|%s|%d>", apiRoot, __FILE_NAME__, __func__,
              __LINE__);
        return nullptr;
    }
    MV_Http2ConnectionPool* pool = nullptr;
    __mv_http2_engine_create_connection_pool(d->http2ConnPoolSize, ip, port, ipver, tls, &pool);
    if (!pool) {
        printf("CreateConnectionPool got empty connPool=%p %d|%s|%s\n", static_cast<void*>(pool), __LINE__, __func__,
               __FILE_NAME__);
        return nullptr;
    }
    pool->http2LoadBalancingMode = d->http2LoadBalancingMode;
    __mv_power_table_add(d->apiRootTableConnPool, apiRoot, len, pool);
    return pool;
}

}  // namespace

MV_Http2Context* __mv_http2_deamon_get_new_request_context_on(MV_Http2Connection* conn) {
    __mv_http2_deamon_initalize();
    return allocateContext(conn);
}

MV_Http2Context* __mv_http2_deamon_get_new_request_context_from_pool(const char* apiRoot) {
    __mv_http2_deamon_initalize();
    if (!apiRoot) return nullptr;
    MV_Http2ConnectionPool* pool = poolFor(apiRoot, true);
    if (!pool) return nullptr;
    MV_Http2Connection* conn = nullptr;
    if (__mv_http2_engine_get_connection_from_pool(pool, &conn) != 1 || !conn) {
        D_LOG(MV_LOG_ERROR, "HTTP2 -> all streams in all connection are busy  %d|%s|%s", __LINE__, __func__,
              __FILE_NAME__);
        return nullptr;
    }
    return allocateContext(conn);
}

MV_Http2Connection* __mv_http2_deamon_find_conn_by_apiRoot(const char* apiRoot) {
    __mv_http2_deamon_initalize();
    if (!apiRoot) return nullptr;
    auto* d = __http2Daemon;
    int len = int(strlen(apiRoot));
    void* found = nullptr;
    __mv_power_table_fnd(d->apiRootTable, apiRoot, len, &found);
    if (found) return static_cast<MV_Http2Connection*>(found);
    std::lock_guard g(d->apiRootTableLock);
    __mv_power_table_fnd(d->apiRootTable, apiRoot, len, &found);
    if (found) return static_cast<MV_Http2Connection*>(found);
    MV_Http2Connection* conn = nullptr;
    if (__mv_http2_engine_get_connection_by_host_name(apiRoot, &conn) != 1 || !conn) {
        D_LOG(MV_LOG_ERROR, "unable to resolved address for apiRoot=%s <%s|%s|%d>", apiRoot, __FILE_NAME__, __func__,
              __LINE__);
        return nullptr;
    }
    __mv_power_table_add(d->apiRootTable, apiRoot, len, conn);
    return conn;
}

MV_Http2Context* __mv_http2_deamon_get_new_request_context(const char* apiRoot) {
    MV_Http2Connection* conn = __mv_http2_deamon_find_conn_by_apiRoot(apiRoot);
    return conn ? allocateContext(conn) : nullptr;
}

MV_Http2ConnectionPool* __mv_http2_deamon_find_pool_by_apiRoot(const char* apiRoot) {
    __mv_http2_deamon_initalize();
    return apiRoot ? poolFor(apiRoot, false) : nullptr;
}

int __mv_http2_deamon_set_connection_pool(const char* apiRoot, int http2ConnPoolSize, int http2LoadBalancingMode) {
    __mv_http2_deamon_initalize();
    if (!apiRoot) return 0;
    MV_Http2ConnectionPool* pool = poolFor(apiRoot, true);
    if (!pool) return 0;
    if (http2LoadBalancingMode == 1 || http2LoadBalancingMode == 2) pool->http2LoadBalancingMode = http2LoadBalancingMode;
    if (http2ConnPoolSize >= 3 && http2ConnPoolSize <= 99) {
        pool->http2ConnPoolSize = http2ConnPoolSize;
        __mv_http2_engine__scaleup_pool(pool);
    }
    return 1;
}

void __mv_http2_deamon_releaseHttp2Context(MV_Http2Context* http2Context) {
    if (!http2Context) return;
    __mv_http2_clear_timer(http2Context);
    if (http2Context->Counted && http2Context->conn && (http2Context->StreamId & 1)) {
        __mv_http2_engine_add_decr_sent_request(http2Context->conn);
    }
    http2Context->Counted = 0;
    ++http2Context->Generation;
    if (contextPool().release(http2Context)) --__http2Daemon->Http2ContextUsedCount;
}

void __mv_http2_deamon_free_memory_and_releaseHttp2Context(MV_Http2Context* httpContext) {
    if (!httpContext || httpContext->isReleased) return;
    __mv_http2_deamon_free_headers(&httpContext->Request.Headers);
    __mv_http2_deamon_free_headers(&httpContext->Response.Headers);
    __mv_http2_deamon_free_headers(&httpContext->Request.QueryStrings);
    __mv_http2_deamon_free_headers(&httpContext->Request.PathParameters);
    __mv_http2_block_free(httpContext->Request.HeaderBlock);
    __mv_http2_block_free(httpContext->Response.HeaderBlock);
    httpContext->Request.HeaderBlock = httpContext->Response.HeaderBlock = nullptr;
    httpContext->Request.path = httpContext->Request.method = httpContext->Request.content_type = siNull;
    httpContext->Response.content_type = siNull;
    __mv_http2_deamon_releaseHttp2Context(httpContext);
}

void __mv_http2_deamon_free_data(uint8_t* data) { __mv_http2_block_free(data); }

int __mv_http2_deamon_clearPath(MV_Http2Context* c) {
    if (!c || !c->conn || c->StreamId <= 0) return 0;
    return __mv_http2_engine_clearPath_if(c->conn, c->ConnGen, c->StreamId, c);
}

// ---------------------------------------------------------------- slots

void __mv_http2_set_userData(MV_Http2Context* c, uint8_t* data) { c->userData = data; }
uint8_t* __mv_http2_get_userData(MV_Http2Context* c) { return c->userData; }
void __mv_http2_set_userData2(MV_Http2Context* c, uint8_t* data) { c->userData2 = data; }
uint8_t* __mv_http2_get_userData2(MV_Http2Context* c) { return c->userData2; }
void __mv_http2_set_userData3(MV_Http2Context* c, uint8_t* data) { c->userData3 = data; }
uint8_t* __mv_http2_get_userData3(MV_Http2Context* c) { return c->userData3; }
void __mv_http2_set_userint1(MV_Http2Context* c, int64_t v) { c->int1 = v; }
int64_t __mv_http2_get_userint1(MV_Http2Context* c) { return c->int1; }
void __mv_http2_set_userint2(MV_Http2Context* c, int64_t v) { c->int2 = v; }
int64_t __mv_http2_get_userint2(MV_Http2Context* c) { return c->int2; }
void __mv_http2_set_userint3(MV_Http2Context* c, int64_t v) { c->int3 = v; }
int64_t __mv_http2_get_userint3(MV_Http2Context* c) { return c->int3; }

namespace {
void setChars(u_char* slot, const u_char* data, int len) {
    slot[0] = 0;
    if (!data || len < 0 || len >= 99) return;
    memcpy(slot, data, size_t(len));
    slot[len] = 0;
}
}  // namespace

void __mv_http2_set_userchar1(MV_Http2Context* c, const u_char* data, int len) { setChars(c->udata_1, data, len); }
u_char* __mv_http2_get_userchar1(MV_Http2Context* c) { return c->udata_1; }
void __mv_http2_set_userchar2(MV_Http2Context* c, const u_char* data, int len) { setChars(c->udata_2, data, len); }
u_char* __mv_http2_get_userchar2(MV_Http2Context* c) { return c->udata_2; }
void __mv_http2_set_userchar3(MV_Http2Context* c, const u_char* data, int len) { setChars(c->udata_3, data, len); }
u_char* __mv_http2_get_userchar3(MV_Http2Context* c) { return c->udata_3; }

// ---------------------------------------------------------------- timers

namespace {

// What a timer knew when it was armed: it acts only on that request of that context.
struct TimerTicket {
    MV_Http2Context* ctx;
    uint64_t ctxGen;
    MV_Http2Connection* conn;
    uint32_t connGen;
    int32_t streamId;
    fn_http2_timer_handler th;
};

void onTimer(void* data) {
    auto* t = static_cast<TimerTicket*>(data);
    TimerTicket k = *t;
    __mv_http2_block_free(t);
    if (k.ctx->Generation != k.ctxGen) return;
    if (k.streamId > 0 && k.conn && !k.conn->isServer) {
        // Whoever takes the request out of the map owns it: the answer, or this timer.
        if (__mv_http2_engine_clearPath_if(k.conn, k.connGen, k.streamId, k.ctx) != 1) return;
        D_LOG(MV_LOG_INFO, "request timed out StreamId=%d <%s|%s|%d>", k.streamId, __FILE_NAME__, __func__, __LINE__);
    }
    k.ctx->timer = nullptr;
    k.th(k.ctx);
}

}  // namespace

// Arms the context's timer for the request as it stands. Called before it can leave.
int __mv_http2_deamon___arm_timer(MV_Http2Context* c) {
    if (c->TimerSeconds < 1 || !c->TimerHandler) return 0;
    auto* t = static_cast<TimerTicket*>(__mv_http2_block_alloc(sizeof(TimerTicket)));
    if (!t) return 0;
    *t = TimerTicket{c, c->Generation.load(), c->conn, c->ConnGen, c->StreamId, c->TimerHandler};
    MV_Timer* timer = __mv_core_start_timer(t, onTimer, c->TimerSeconds);
    if (!timer) {
        __mv_http2_block_free(t);
        return 0;
    }
    c->timer = timer;
    c->TimerCoreGen = __mv_core_timer_generation(timer);
    return 1;
}

int __mv_http2_set_timer(MV_Http2Context* http2Context, int secs, fn_http2_timer_handler th) {
    if (!http2Context || secs < 1 || !th) return 0;
    __mv_http2_clear_timer(http2Context);
    http2Context->TimerSeconds = secs;
    http2Context->TimerHandler = th;
    // A request on its way already is timed from now; one not sent yet from its sending.
    if (http2Context->StreamId > 0 || !http2Context->conn || http2Context->conn->isServer)
        return __mv_http2_deamon___arm_timer(http2Context);
    return 1;
}

void __mv_http2_clear_timer(MV_Http2Context* http2Context) {
    if (!http2Context) return;
    if (http2Context->timer) __mv_core_clear_timer_gen(http2Context->timer, http2Context->TimerCoreGen);
    http2Context->timer = nullptr;
    http2Context->TimerSeconds = 0;
    http2Context->TimerHandler = nullptr;
}

// ---------------------------------------------------------------- statistics and helper tables

void __mv_http2_deamon_print_stats() {
    auto* d = __http2Daemon;
    if (!d) return;
    __mv_log(MV_PER_LOG, LOG_CAT_HTTP2, MV_LOG_CRITICAL, "Contexts: AvailableCount=%06d TotalCount=%06d Used=%06ld",
             d->Http2ContextAvailableCount, d->Http2ContextTotalCount, d->Http2ContextUsedCount.load());
}

void __mv_http2_deamon__print_stats() {
    auto* d = __http2Daemon;
    if (!d) return;
    __mv_log(MV_PER_LOG, LOG_CAT_HTTP2, MV_LOG_CRITICAL, "allocTimes=%10ld callocTimes=%10ld freeTimes=%10ld reallocTimes=%10ld",
             d->allocTimes.load(), d->callocTimes.load(), d->freeTimes.load(), d->reallocTimes.load());
}

namespace {
int requestHeaderCount(MV_Http2Context* c) { return __mv_http2_deamon_get_request_header_count(c); }
int responseHeaderCount(MV_Http2Context* c) { return __mv_http2_deamon_get_response_header_count(c); }
}  // namespace

__mv_http2_RequestHelper __http2RequestHelper = {
    __mv_http2_deamon_add_request_header,  __mv_http2_deamon_add_request_content_type, requestHeaderCount,
    __mv_http2_deamon_send_get_request,    __mv_http2_deamon_send_post_request,        __mv_http2_deamon_send_patch_request,
    __mv_http2_deamon_send_put_request,    __mv_http2_deamon_send_delete_request};
__mv_http2_ResponseHelper __http2ResponseHelper = {__mv_http2_deamon_add_response_header,
                                                   __mv_http2_deamon_add_response_content_type, responseHeaderCount,
                                                   __mv_http2_deamon_send_response};
