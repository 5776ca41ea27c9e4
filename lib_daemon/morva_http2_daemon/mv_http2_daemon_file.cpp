// File responses: at once on the caller's thread, or queued on the connection and sent
// from queue lines as the peer opens its window.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "mv_http2_daemon_internal.h"

namespace {

// More than this waiting on a connection and a queued file pauses until a WINDOW_UPDATE.
constexpr long kFilePauseBytes = 1 << 20;

const char* mediaType(const char* fileName) {
    const char* dot = strrchr(fileName, '.');
    if (!dot) return nullptr;
    if (strcmp(dot, ".mp4") == 0) return "video/mp4";
    if (strcmp(dot, ".mpd") == 0) return "application/dash+xml";
    if (strcmp(dot, ".m4s") == 0) return "video/iso.segment";
    return nullptr;
}

// -1 when stat fails, -ENOENT for an empty file, else the size.
long fileSize(const char* fileName) {
    struct stat st {};
    if (!fileName || stat(fileName, &st) != 0) return -1;
    return st.st_size == 0 ? -ENOENT : long(st.st_size);
}

void fileHeaders(MV_Http2Context* c, const char* fileName, long size) {
    char length[24];
    snprintf(length, sizeof length, "%ld", size);
    MV_Http2HeaderList* list = &c->Response.Headers;
    __mv_http2_deamon___set(list, ":status", "200");
    __mv_http2_deamon___set(list, "content-length", length);
    if (const char* t = mediaType(fileName)) __mv_http2_deamon___set(list, "content-type", t);
    __mv_http2_deamon___set(list, "accept-ranges", "bytes");
}

// Sends slices of the head file of the connection while little waits. ResponseStreamLock held.
void sendSlices(MV_Http2Connection* conn, long slice) {
    auto* rs = static_cast<MV_HttpResponseStream*>(conn->ResponseStreamHeader);
    while (rs) {
        if (rs->ConnGen != conn->ConnGen) {
            rs->pos = rs->len;  // the connection closed under it
        }
        while (rs->pos < rs->len && __mv_http2_engine_pending_bytes(conn) < kFilePauseBytes) {
            long n = rs->len - rs->pos < slice ? rs->len - rs->pos : slice;
            if (__mv_http2_engine_data_stream(conn, rs->StreamId, rs->content + rs->pos, n, rs->len - rs->pos - n) < 1) {
                rs->pos = rs->len;
                break;
            }
            rs->pos += n;
        }
        if (rs->pos < rs->len) return;  // the window handler goes on
        conn->ResponseStreamHeader = rs->Next;
        if (!rs->Next) conn->ResponseStreamCurrent = nullptr;
        --conn->ResponseStreamCount;
        __mv_http2_block_free(rs->content);
        __mv_http2_block_free(rs);
        rs = static_cast<MV_HttpResponseStream*>(conn->ResponseStreamHeader);
    }
}

}  // namespace

int __mv_http2_deamon_send_file(MV_Http2Context* c, const char* fileName) {
    if (!c || !c->conn) return -1;
    long size = fileSize(fileName);
    if (size < 0) return int(size);
    FILE* f = fopen(fileName, "rb");
    if (!f) return -1;
    fileHeaders(c, fileName, size);
    uint8_t buf[1024];
    size_t n = fread(buf, 1, 200, f);
    long sent = long(n);
    int rc = __mv_http2_deamon___send_message(c, &c->Response.Headers, buf, long(n), size - sent);
    while (rc > 0 && sent < size && (n = fread(buf, 1, sizeof buf, f)) > 0) {
        sent += long(n);
        rc = __mv_http2_engine_data_stream(c->conn, c->StreamId, buf, long(n), size - sent);
    }
    fclose(f);
    return rc;
}

int __mv_http2_deamon_send_file2(MV_Http2Context* c, const char* fileName) {
    if (!c || !c->conn) return -1;
    long size = fileSize(fileName);
    if (size < 0) return int(size);
    auto* content = static_cast<uint8_t*>(__mv_http2_block_alloc(size_t(size)));
    FILE* f = content ? fopen(fileName, "rb") : nullptr;
    if (!f || fread(content, 1, size_t(size), f) != size_t(size)) {
        if (f) fclose(f);
        __mv_http2_block_free(content);
        return -1;
    }
    fclose(f);
    fileHeaders(c, fileName, size);
    if (__mv_http2_deamon___send_message(c, &c->Response.Headers, nullptr, 0, size) < 1) {
        __mv_http2_block_free(content);
        return -1;
    }
    auto* rs = static_cast<MV_HttpResponseStream*>(__mv_http2_block_alloc(sizeof(MV_HttpResponseStream)));
    *rs = MV_HttpResponseStream{};
    rs->StreamId = c->StreamId;
    rs->content = content;
    rs->len = size;
    rs->conn = c->conn;
    rs->ConnGen = c->conn->ConnGen;
    __mv_StartExecTime(&rs->execTime);
    MV_Http2Connection* conn = c->conn;
    {
        std::lock_guard g(conn->ResponseStreamLock);
        auto* tail = static_cast<MV_HttpResponseStream*>(conn->ResponseStreamCurrent);
        if (tail) tail->Next = rs;
        else conn->ResponseStreamHeader = rs;
        conn->ResponseStreamCurrent = rs;
        ++conn->ResponseStreamCount;
    }
    __mv_core_queue(conn, __mv_http2_deamon_send_file3);
    return int(size);
}

void __mv_http2_deamon_send_file3(void* connection) {
    auto* conn = static_cast<MV_Http2Connection*>(connection);
    std::lock_guard g(conn->ResponseStreamLock);
    sendSlices(conn, 10240);
}

void __mv_http2_deamon__send_response_data_frame(MV_Http2Connection* conn) {
    if (!conn) return;
    std::lock_guard g(conn->ResponseStreamLock);
    sendSlices(conn, 4096);
}
