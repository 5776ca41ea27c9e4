// The HTTP/2 daemon: requests and responses for the network-function layers on top of
// the endpoint. One context follows a request from its creation to its answer; header
// lists, HPACK, connection pools per API root and the dispatch of what arrives live here.
//
// A client request, in short:
//   ctx = __mv_http2_deamon_get_new_request_context_from_pool("http://10.0.0.5:8080");
//   __mv_http2_set_userData(ctx, ue);                    // the UE (or any owner) rides along
//   __mv_http2_set_timer(ctx, 5, onTimeout);             // optional; armed when the request leaves
//   __mv_http2_deamon_add_request_content_type(ctx, "application/json");
//   if (__mv_http2_deamon_send_post_request(ctx, "/nudm-uecm/v1/...", body, len, onResponse) < 1)
//       __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx);    // not sent: still ours
// Exactly one of onResponse and onTimeout runs, once, on their threads:
//   onResponse(ctx, data, datalen) on the connection's application line, with
//     ctx->Response.HttpStatusCode (0 when the stream failed: ctx->Response.ErrorCode says
//     why, MORVA_HTTP2_CONNECTION_LOST for a lost connection), the response headers and
//     the body. It owns ctx and data: __mv_http2_deamon_free_data(data), then
//     __mv_http2_deamon_free_memory_and_releaseHttp2Context(ctx).
//   onTimeout(ctx) on a queue line, when no answer came in time; the stream has been
//     cancelled and a late answer is dropped. It owns ctx and releases it.
// After a successful send the caller no longer touches ctx: the answer may come first.
#pragma once

#include <atomic>
#include <cstdint>

#include "mv_core.h"
#include "mv_http2.h"
#include "mv_tables.h"

#define MORVA_HTTP2_REQUEST_METHOD_GET 1
#define MORVA_HTTP2_REQUEST_METHOD_POST 2
#define MORVA_HTTP2_REQUEST_METHOD_PUT 3
#define MORVA_HTTP2_REQUEST_METHOD_PATCH 4
#define MORVA_HTTP2_REQUEST_METHOD_DELETE 5

#define MV_HTTP2_MAX_HEADERS 30
#define MV_HTTP2_HEADER_BUFFER 6144
#define MV_HTTP2_USER_AGENT "MORVA-5G-ENGINE"

struct MV_Http2Context;

// One header; key and value share one pooled block, or lie in the decoded block of the
// message they came with (Shared).
struct MV_Http2Header {
    MV_Http2Header* Next;
    int isReleased;
    char* key;
    char* value;
    int Shared;
};

struct MV_Http2HeaderList {
    MV_Http2Header* Head;
    MV_Http2Header* Current;
    int Count;
};

struct MV_Http2Request {
    int initalized;
    MV_Http2HeaderList Headers;
    const char* path;
    const char* method;
    const char* content_type;
    long content_length;
    char Url[512];
    char UrlParts[10][50];
    int UrlPartCount;
    MV_Http2HeaderList QueryStrings;
    MV_Http2HeaderList PathParameters;
    int32_t StreamId;
    MV_Http2Context* Context;
    uint8_t* HeaderBlock;  // the decoded fields the header list points into
};

struct MV_Http2Response {
    int initalized;
    MV_Http2HeaderList Headers;
    const char* content_type;
    long content_length;
    int HttpStatusCode;
    int32_t StreamId;
    MV_Http2Context* Context;
    int ErrorCode;  // why a stream failed (HttpStatusCode 0): an HTTP/2 code or MORVA_HTTP2_CONNECTION_LOST
    uint8_t* HeaderBlock;  // the decoded fields the header list points into
};

typedef void (*fn_http2_response_cb)(MV_Http2Context* context, uint8_t* data, long datalen);
typedef void (*fn_http2_timer_handler)(void* context);
typedef void (*fn_http2_nf_request_handler)(MV_Http2Context* context, uint8_t* data, long datalen);

struct MV_Http2Context {
    MV_Http2Context* Next;
    int isReleased;
    uint8_t* userData;
    uint8_t* userData2;
    uint8_t* userData3;
    u_char udata_1[100];
    u_char udata_2[100];
    u_char udata_3[100];
    int64_t int1;
    int64_t int2;
    int64_t int3;
    MV_Http2Connection* conn;
    int32_t StreamId;
    int httpConnRowVersion;
    MV_Http2Request Request;
    MV_Http2Response Response;
    MV_Timer* timer;
    fn_http2_response_cb callback;
    int (*clearPath)(MV_Http2Context* context);
    // below: what the fields above do not hold
    std::atomic<uint64_t> Generation;  // raised at every allocation: a stale timer finds another
    uint32_t ConnGen;                  // the life of the connection the request went on
    uint64_t TimerCoreGen;
    int TimerSeconds;                  // armed when the request leaves
    fn_http2_timer_handler TimerHandler;
    int Counted;                       // counted in the connection's SentContextCount
};

struct __mv_http2_daemon {
    MV_Http2Header* Http2HeaderHead;
    MV_Http2Header* Http2HeaderCurrent;
    int Http2HeaderAvailableCount;
    int Http2HeaderTotalCount;
    MV_Mutex Http2HeaderLock;
    MV_Http2Context* Http2ContextHead;
    MV_Http2Context* Http2ContextCurrent;
    int Http2ContextAvailableCount;
    int Http2ContextTotalCount;
    std::atomic<long> Http2ContextUsedCount;
    MV_Mutex Http2ContextLock;
    MV_PowerTable* apiRootTable;
    MV_Mutex apiRootTableLock;
    MV_PowerTable* apiRootTableConnPool;
    MV_Mutex apiRootTableLockConnPool;
    int http2ConnPoolSize;
    int http2LoadBalancingMode;
    std::atomic<fn_http2_nf_request_handler> NfRequestHandler;
    std::atomic<long> allocTimes, callocTimes, freeTimes, reallocTimes;
    std::atomic<long> ResponsesWithoutContext;
};

extern __mv_http2_daemon* __http2Daemon;
extern const char siNull[];

// A file response waiting on a connection.
struct MV_HttpResponseStream {
    MV_HttpResponseStream* Next;
    int32_t StreamId;
    int type;
    uint8_t* content;
    long len;
    long pos;
    MV_ExecTime execTime;
    MV_Http2Connection* conn;
    uint32_t ConnGen;
};

struct MV_Http2MultipartItem {
    MV_Http2MultipartItem* Next;
    char MimeType[100];
    int EncodingFormat;  // 0 raw, 1 hexadecimal text
    uint8_t* data;
    long datalen;
    u_char Id[249];
};

struct MV_Http2Multipart {
    MV_Http2MultipartItem* Head;
    MV_Http2MultipartItem* Current;
    int Count;
    char contentType[249];
    uint8_t* out;
    long pos;
    long maxoutlen;
    long outlen;
};

// ---------------------------------------------------------------- start

// Once, at the very start of main: JSON through the pools for the whole process (blocks
// above the size classes from the heap, and blocks made before the core from it too).
void __mv_http2_deamon_set_json_alloc_funcs();
// Starts the endpoint, the record, the tables, and registers the daemon's handlers.
void __mv_http2_deamon_initalize();
void __mv_http2_deamon_set_nf_request_handler(fn_http2_nf_request_handler handler);

// ---------------------------------------------------------------- contexts

// A context bound to a connection of the pool of apiRoot with room for a stream, or null.
MV_Http2Context* __mv_http2_deamon_get_new_request_context_from_pool(const char* apiRoot);
// The same on the one shared connection of apiRoot.
MV_Http2Context* __mv_http2_deamon_get_new_request_context(const char* apiRoot);
// A context bound to a given connection.
MV_Http2Context* __mv_http2_deamon_get_new_request_context_on(MV_Http2Connection* conn);
// Sizes 3 to 99 and modes 1 and 2 are taken, others leave the pool as it is. 1 or 0.
int __mv_http2_deamon_set_connection_pool(const char* apiRoot, int http2ConnPoolSize, int http2LoadBalancingMode);
MV_Http2Connection* __mv_http2_deamon_find_conn_by_apiRoot(const char* apiRoot);
MV_Http2ConnectionPool* __mv_http2_deamon_find_pool_by_apiRoot(const char* apiRoot);
void __mv_http2_deamon_free_memory_and_releaseHttp2Context(MV_Http2Context* httpContext);
void __mv_http2_deamon_releaseHttp2Context(MV_Http2Context* http2Context);
// A response body handed to a callback or handler.
void __mv_http2_deamon_free_data(uint8_t* data);
// Takes the request out of the connection's map if it is still there: 1 if it was.
int __mv_http2_deamon_clearPath(MV_Http2Context* http2Context);

// ---------------------------------------------------------------- the owner's slots

void __mv_http2_set_userData(MV_Http2Context* c, uint8_t* data);
uint8_t* __mv_http2_get_userData(MV_Http2Context* c);
void __mv_http2_set_userData2(MV_Http2Context* c, uint8_t* data);
uint8_t* __mv_http2_get_userData2(MV_Http2Context* c);
void __mv_http2_set_userData3(MV_Http2Context* c, uint8_t* data);
uint8_t* __mv_http2_get_userData3(MV_Http2Context* c);
void __mv_http2_set_userint1(MV_Http2Context* c, int64_t v);
int64_t __mv_http2_get_userint1(MV_Http2Context* c);
void __mv_http2_set_userint2(MV_Http2Context* c, int64_t v);
int64_t __mv_http2_get_userint2(MV_Http2Context* c);
void __mv_http2_set_userint3(MV_Http2Context* c, int64_t v);
int64_t __mv_http2_get_userint3(MV_Http2Context* c);
// A text of 99 bytes or more leaves the slot empty.
void __mv_http2_set_userchar1(MV_Http2Context* c, const u_char* data, int len);
u_char* __mv_http2_get_userchar1(MV_Http2Context* c);
void __mv_http2_set_userchar2(MV_Http2Context* c, const u_char* data, int len);
u_char* __mv_http2_get_userchar2(MV_Http2Context* c);
void __mv_http2_set_userchar3(MV_Http2Context* c, const u_char* data, int len);
u_char* __mv_http2_get_userchar3(MV_Http2Context* c);

// ---------------------------------------------------------------- timers

// th(context) on a queue line after about secs seconds, if no answer came first (see above).
// Before the send, the timer is armed as the request leaves. 1, or 0 for secs below 1.
int __mv_http2_set_timer(MV_Http2Context* http2Context, int secs, fn_http2_timer_handler th);
void __mv_http2_clear_timer(MV_Http2Context* http2Context);

// ---------------------------------------------------------------- headers

// Names are kept in lower case. A null value adds nothing; the 31st header of a list
// is dropped with "maximum headers exceeded count=%d\n". 1 added, 0 not.
int __mv_http2_deamon_add_request_header(MV_Http2Context* http2Context, const char* key, const char* val);
int __mv_http2_deamon_add_response_header(MV_Http2Context* http2Context, const char* key, const char* val);
int __mv_http2_deamon_add_request_content_type(MV_Http2Context* http2Context, const char* data);
int __mv_http2_deamon_add_response_content_type(MV_Http2Context* http2Context, const char* data);
int __mv_http2_deamon_add_request_content_length(MV_Http2Context* http2Context, long contentLength);
int __mv_http2_deamon_add_response_content_length(MV_Http2Context* http2Context, long contentLength);
int __mv_http2_deamon_add_response_status(MV_Http2Context* http2Context, int status);
MV_Http2HeaderList* __mv_http2_deamon_get_request_headers(MV_Http2Context* http2Context);
MV_Http2HeaderList* __mv_http2_deamon_get_response_headers(MV_Http2Context* http2Context);
int __mv_http2_deamon_get_request_header_count(MV_Http2Context* http2Context);
int __mv_http2_deamon_get_response_header_count(MV_Http2Context* http2Context);
// The first value with exactly that name, or null.
const char* __mv_http2_deamon_get_header(MV_Http2HeaderList* headers, const char* key);
// 1 to 5 for a method in all lower or all upper case, -1 otherwise.
int __mv_http2_deamon_getRequestMethod(MV_Http2Context* http2Context);
// Decodes the endpoint's flat form of fields into a list; the fields received.
int __mv_http2_deamon_get_decode_headers(MV_Http2HeaderList* list, const uint8_t* in, int inlen);
// Encodes a list (pseudo-headers first) with the connection's encoder, under its send guard.
int __mv_http2_deamon_get_header_buffer(MV_Http2Connection* conn, MV_Http2HeaderList* list, uint8_t* buffer,
                                        int bufLength);
void __mv_http2_deamon_free_headers(MV_Http2HeaderList* list);

// ---------------------------------------------------------------- requests and responses

// The bytes queued, positive when the request left; below 1 it did not and ctx is still the caller's.
int __mv_http2_deamon_send_get_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                       fn_http2_response_cb cb);
int __mv_http2_deamon_send_post_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                        fn_http2_response_cb cb);
int __mv_http2_deamon_send_patch_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                         fn_http2_response_cb cb);
int __mv_http2_deamon_send_put_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                       fn_http2_response_cb cb);
int __mv_http2_deamon_send_delete_request(MV_Http2Context* ctx, const char* path, const uint8_t* data, long datalen,
                                          fn_http2_response_cb cb);

int __mv_http2_deamon_send_response(MV_Http2Context* http2Context, const uint8_t* data, long datalen,
                                    int httpStatusCode);
// 500, no body; the context is freed.
int __mv_http2_deamon_error_in_request(MV_Http2Context* http2Context);
// 302, no body; the context is freed.
int __mv_http2_deamon_send_no_route(MV_Http2Context* http2Context);
void __mv_http2_deamon_send_app_error(MV_Http2Connection* httpConn, int32_t StreamId, int httpStatusCode);

// ---------------------------------------------------------------- files

// At once on this thread, in slices. -1 if stat fails, -ENOENT for an empty file.
int __mv_http2_deamon_send_file(MV_Http2Context* http2Context, const char* fileName);
// Queued on the connection and sent from a queue line, more as the peer opens its window.
int __mv_http2_deamon_send_file2(MV_Http2Context* http2Context, const char* fileName);
// The queue line's job: the files waiting on the connection, as far as little else waits.
void __mv_http2_deamon_send_file3(void* connection);
void __mv_http2_deamon__send_response_data_frame(MV_Http2Connection* conn);

// ---------------------------------------------------------------- multipart

MV_Http2Multipart* __mv_http2_createHttp2Multipart();
void __mv_http2_freeHttp2Multipart(MV_Http2Multipart* http2Multipart);
int __mv_http2_add_Http2MultipartItem(MV_Http2Multipart* http2Multipart, const char* mimeType, int EncodingFormat,
                                      const uint8_t* data, long datalen, const char* id);
// Fills out/outlen and contentType; -1 for an empty list, else the length.
int __mv_http2_encodeHttp2Multipart(MV_Http2Multipart* http2Multipart);
MV_Http2Multipart* __mv_http2_decodeHttp2Multipart2(const char* contentType, const uint8_t* data, long datalen);

// ---------------------------------------------------------------- helper tables and statistics

struct __mv_http2_RequestHelper {
    int (*AddHeader)(MV_Http2Context*, const char*, const char*);
    int (*AddContentType)(MV_Http2Context*, const char*);
    int (*GetHeadersCount)(MV_Http2Context*);
    int (*SendGetRequest)(MV_Http2Context*, const char*, const uint8_t*, long, fn_http2_response_cb);
    int (*SendPostRequest)(MV_Http2Context*, const char*, const uint8_t*, long, fn_http2_response_cb);
    int (*SendPatchRequest)(MV_Http2Context*, const char*, const uint8_t*, long, fn_http2_response_cb);
    int (*SendPutRequest)(MV_Http2Context*, const char*, const uint8_t*, long, fn_http2_response_cb);
    int (*SendDeleteRequest)(MV_Http2Context*, const char*, const uint8_t*, long, fn_http2_response_cb);
};
struct __mv_http2_ResponseHelper {
    int (*AddHeader)(MV_Http2Context*, const char*, const char*);
    int (*AddContentType)(MV_Http2Context*, const char*);
    int (*GetHeadersCount)(MV_Http2Context*);
    int (*SendResponse)(MV_Http2Context*, const uint8_t*, long, int);
};
extern __mv_http2_RequestHelper __http2RequestHelper;
extern __mv_http2_ResponseHelper __http2ResponseHelper;

void __mv_http2_deamon_print_stats();
void __mv_http2_deamon__print_stats();
