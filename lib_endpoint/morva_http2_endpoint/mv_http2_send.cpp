// The one place where frames leave. Every sender builds its frames straight into the
// connection's outbound buffer under OutLock; whoever then finds no writer at work
// becomes the writer and writes all that has gathered, so that concurrent senders share
// system calls and nobody ever waits for another's write. Data that the peer's windows
// do not take yet waits on its stream and is moved into the buffer as windows open
// (the pump). h2___socket_write is the single adapter to the socket engine.
#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>

#include "mv_http2_internal.h"

thread_local MV_Http2Connection* tl_h2GuardConn = nullptr;
thread_local MV_Http2Connection* tl_h2CorkConn = nullptr;

MV_Http2SendGuard::MV_Http2SendGuard(MV_Http2Connection* c) : conn_(c), outer_(tl_h2GuardConn) {
    conn_->StreamSendLock.lock();
    tl_h2GuardConn = conn_;
}

MV_Http2SendGuard::~MV_Http2SendGuard() {
    tl_h2GuardConn = outer_;
    conn_->StreamSendLock.unlock();
    __mv_http2_engine_flush(conn_);
}

// ---------------------------------------------------------------- the socket adapter

int h2___socket_write(MV_Http2Connection* c, const uint8_t* p, int len) {
    if (c->Detached) {
        if (c->DetachedSink) c->DetachedSink(c, p, len);
        return len;
    }
    MV_Socket* s = c->siSocket;
    if (!s) return -1;
    return __mv_socket_engine_tcp_send_socket_data(s, p, len, 0);
}

void h2___socket_close(MV_Http2Connection* c) {
    if (c->Detached) {
        h2___conn_closed(c);
        return;
    }
    if (MV_Socket* s = c->siSocket) s->Close(s);
}

// ---------------------------------------------------------------- building into OutBuf

uint8_t* h2___out_reserve(MV_Http2Connection* c, int type, int flags, int32_t sid, int payloadLen) {
    size_t at = c->OutBuf.size();
    c->OutBuf.resize(at + MORVA_HTTP2_FRAME_HEADER_LEN + size_t(payloadLen));
    uint8_t* p = c->OutBuf.data() + at;
    __mv_http2_frame_encode_header(p, payloadLen, type, flags, sid);
    ++c->FramesSent;
    ++__mv_http2Engine->TotalFramesSent;
    return p + MORVA_HTTP2_FRAME_HEADER_LEN;
}

void h2___queue_control(MV_Http2Connection* c, int type, int flags, int32_t sid, const uint8_t* payload, int len) {
    std::lock_guard g(c->OutLock);
    uint8_t* p = h2___out_reserve(c, type, flags, sid, len);
    if (len > 0) memcpy(p, payload, size_t(len));
}

void h2___flush_now(MV_Http2Connection* c) {
    // Waits a little for another writer, so that a GOAWAY goes out before the close;
    // a batch of the application line holding the connection's writes lets this one go.
    for (int i = 0; i < 500 && c->Writing.load(); ++i) usleep(100);
    MV_Http2Connection* cork = tl_h2CorkConn;
    if (cork == c) tl_h2CorkConn = nullptr;
    h2___flush(c, false);
    tl_h2CorkConn = cork;
}

void h2___queue_goaway(MV_Http2Connection* c, int code) {
    uint8_t p[12];
    h2___put_u32(p, uint32_t(c->HighestPeerStreamId));
    h2___put_u32(p + 4, uint32_t(code));
    // Opaque data: a mark of when it was sent, for matching the two ends' logs.
    char tick[16];
    snprintf(tick, sizeof tick, "%u", htonl(uint32_t(__mv_core_get_server_timer_tick())));
    memcpy(c->sGoAwayOpagueData, tick, 4);
    c->sGoAwayOpagueData[4] = 0;
    memcpy(p + 8, c->sGoAwayOpagueData, 4);
    c->StartGracefulShutdown = 1;
    c->ProtocalError = code;
    if (code >= 0 && code < MORVA_HTTP2_ERROR_CODE_COUNT) ++__mv_http2Engine->ErrorsSent[code];
    H2_LOG(MV_LOG_INFO, "sending MORVA_HTTP2_GOAWAY=%d len=%d <%d>", code, 12, __LINE__);
    h2___queue_control(c, MORVA_HTTP2_GOAWAY, 0, 0, p, 12);
}

void h2___queue_rst(MV_Http2Connection* c, int32_t sid, int code) {
    uint8_t p[4];
    h2___put_u32(p, uint32_t(code));
    if (code >= 0 && code < MORVA_HTTP2_ERROR_CODE_COUNT) ++__mv_http2Engine->ErrorsSent[code];
    H2_LOG(MV_LOG_INFO, "sending MORVA_HTTP2_RST_STREAM=%d len=%d <%d>", code, 4, __LINE__);
    h2___queue_control(c, MORVA_HTTP2_RST_STREAM, 0, sid, p, 4);
}

void h2___queue_window_update(MV_Http2Connection* c, int32_t sid, int32_t increment) {
    if (increment <= 0) return;
    uint8_t p[4];
    h2___put_u32(p, uint32_t(increment) & 0x7fffffffu);
    h2___queue_control(c, MORVA_HTTP2_WINDOW_UPDATE, 0, sid, p, 4);
}

void h2___queue_preface_and_settings(MV_Http2Connection* c) {
    auto* e = __mv_http2Engine;
    struct Entry {
        int flag;
        int id;
        uint32_t value;
    };
    const Entry entries[] = {
        {e->HeaderTableSize_ShareToPeer, MORVA_HTTP2_SETTINGS_HEADER_TABLE_SIZE, uint32_t(e->HeaderTableSize)},
        {e->EnablePush_ShareToPeer, MORVA_HTTP2_SETTINGS_ENABLE_PUSH, uint32_t(e->EnablePush ? 1 : 0)},
        {e->MaxConcurrentStreams_ShareToPeer, MORVA_HTTP2_SETTINGS_MAX_CONCURRENT_STREAMS,
         uint32_t(c->MaxConcurrentStreams)},
        {e->WindowSize_ShareToPeer, MORVA_HTTP2_SETTINGS_INITIAL_WINDOW_SIZE, uint32_t(e->InitialWindowSize)},
        {e->FrameSize_ShareToPeer, MORVA_HTTP2_SETTINGS_MAX_FRAME_SIZE, uint32_t(e->FrameSize)},
        {e->HeaderListSize_ShareToPeer, MORVA_HTTP2_SETTINGS_MAX_HEADER_LIST_SIZE, uint32_t(e->HeaderListSize)},
    };
    uint8_t payload[6 * 6];
    int n = 0;
    for (const auto& en : entries) {
        if (en.flag != 1) continue;
        payload[n] = uint8_t(en.id >> 8);
        payload[n + 1] = uint8_t(en.id);
        h2___put_u32(payload + n + 2, en.value);
        n += 6;
    }
    {
        std::lock_guard g(c->OutLock);
        if (!c->isServer) {
            const auto* magic = reinterpret_cast<const uint8_t*>(MORVA_HTTP2_CLIENT_MAGIC);
            c->OutBuf.insert(c->OutBuf.end(), magic, magic + MORVA_HTTP2_CLIENT_MAGIC_LEN);
            H2_LOG(MV_LOG_DEBUG, "sending MAGIC bufferlen=%d <%d>", MORVA_HTTP2_CLIENT_MAGIC_LEN, __LINE__);
            c->isPrefaceSent = 1;
        }
        uint8_t* p = h2___out_reserve(c, MORVA_HTTP2_SETTINGS, 0, 0, n);
        memcpy(p, payload, size_t(n));
        c->isSettingsSent = 1;
        // The connection window is ours to give: open it wide at once, so that large
        // bodies of many streams are not paced by round trips.
        int32_t extra = c->RecvWindow - MORVA_HTTP2_INITIAL_CONNECTION_WINDOW_SIZE;
        if (extra > 0) {
            uint8_t* w = h2___out_reserve(c, MORVA_HTTP2_WINDOW_UPDATE, 0, 0, 4);
            h2___put_u32(w, uint32_t(extra));
        }
    }
}

// ---------------------------------------------------------------- streams waiting for the window

namespace {

int frameLimit(MV_Http2Connection* c) {
    int f = c->Peer_FrameSize;
    return f > 0 ? f : __mv_http2Engine->FrameSize;
}

// Our END_STREAM went out. StreamLock held.
void localEnded(MV_Http2Connection* c, MV_Http2Stream* s) {
    s->LocalEnded = 1;
    s->State = s->State == MV_HTTP2_STREAM_HALF_CLOSED_REMOTE ? MV_HTTP2_STREAM_CLOSED
                                                               : MV_HTTP2_STREAM_HALF_CLOSED_LOCAL;
    h2___stream_maybe_close(c, s);
}

void listStream(MV_Http2Connection* c, MV_Http2Stream* s) {
    if (s->InSendList) return;
    s->InSendList = 1;
    s->Next = nullptr;
    s->Prev = c->StreamCurrent;
    if (c->StreamCurrent) c->StreamCurrent->Next = s;
    else c->StreamHead = s;
    c->StreamCurrent = s;
    ++c->WaitingCount;
}

// DATA frames of the stream's waiting bytes that the windows take now; one frame per
// call so that streams take turns. OutLock and StreamLock held. True if one went.
bool emitOne(MV_Http2Connection* c, MV_Http2Stream* s, int limit) {
    long rem = s->OutLen - s->OutPos;
    if (rem == 0) {
        if (!s->OutEnd) return false;
        h2___out_reserve(c, MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_END_STREAM, s->StreamId, 0);
        s->OutEnd = 0;
        return true;
    }
    int64_t win = s->SendWindow < c->SendWindow ? s->SendWindow : int64_t(c->SendWindow);
    if (win <= 0) return false;
    long n = rem < limit ? rem : limit;
    if (n > win) n = long(win);
    bool last = n == rem;
    int flags = last && s->OutEnd ? MORVA_HTTP2_FLAG_END_STREAM : 0;
    uint8_t* p = h2___out_reserve(c, MORVA_HTTP2_DATA, flags, s->StreamId, int(n));
    memcpy(p, s->OutData + s->OutPos, size_t(n));
    s->OutPos += n;
    s->SendWindow -= n;
    c->SendWindow -= n;
    if (last && s->OutEnd) s->OutEnd = 0;
    return true;
}

// After emitting: a stream with nothing more to send leaves the list. StreamLock held.
void settle(MV_Http2Connection* c, MV_Http2Stream* s, bool endSent) {
    if (s->OutPos == s->OutLen && !s->OutEnd) {
        __mv_http2_block_free(s->OutData);
        s->OutData = nullptr;
        s->OutLen = s->OutPos = s->OutCap = 0;
        h2___stream_unlist(c, s);
        if (endSent) localEnded(c, s);
    }
}

}  // namespace

void h2___stream_unlist(MV_Http2Connection* c, MV_Http2Stream* s) {
    if (!s->InSendList) return;
    if (s->Prev) s->Prev->Next = s->Next;
    else c->StreamHead = s->Next;
    if (s->Next) s->Next->Prev = s->Prev;
    else c->StreamCurrent = s->Prev;
    s->Prev = s->Next = nullptr;
    s->InSendList = 0;
    --c->WaitingCount;
}

void h2___pump_locked(MV_Http2Connection* c) {
    int limit = frameLimit(c);
    for (;;) {
        bool progress = false;
        for (MV_Http2Stream* s = c->StreamHead; s;) {
            MV_Http2Stream* next = s->Next;
            bool hadEnd = s->OutEnd;
            bool went;
            {
                std::lock_guard g(c->OutLock);
                if (c->OutBuf.size() >= kH2OutHighWater) return;
                went = emitOne(c, s, limit);
            }
            if (went) {
                progress = true;
                settle(c, s, hadEnd && !s->OutEnd);
            }
            s = next;
        }
        if (!progress) return;
    }
}

// ---------------------------------------------------------------- the writer

namespace {
// A closing connection still writes: its GOAWAY is on the way.
bool writable(MV_Http2Connection* c) {
    int a = c->isActive;
    return a == MV_HTTP2_CONN_ACTIVE || a == MV_HTTP2_CONN_CLOSING;
}
}  // namespace

void h2___flush(MV_Http2Connection* c, bool mayPump) {
    if (c == tl_h2GuardConn || c == tl_h2CorkConn) return;
    for (;;) {
        if (c->Writing.exchange(1)) return;
        for (;;) {
            {
                std::lock_guard g(c->OutLock);
                if (!writable(c) || c->OutBuf.empty()) break;
                c->OutBuf.swap(c->WriteBuf);
            }
            int len = int(c->WriteBuf.size());
            int rc = h2___socket_write(c, c->WriteBuf.data(), len);
            c->WriteBuf.clear();
            if (rc != len) {
                c->Writing = 0;
                // A stream cut in the middle of a frame cannot go on.
                if (writable(c)) {
                    char peer[80];
                    h2___conn_peer_text(c, peer, sizeof peer);
                    H2_LOG(MV_LOG_ERROR, "sending data failed at  <%s|%d> peer=%s wrote=%d of len=%d closing", __func__,
                           __LINE__, peer, rc, len);
                    h2___socket_close(c);
                }
                return;
            }
            c->lastCommunication = __mv_core_get_server_timer_tick();
            if (c->WaitingCount > 0) {
                if (mayPump) {
                    std::lock_guard g(c->StreamLock);
                    h2___pump_locked(c);
                } else if (!c->PumpQueued.exchange(1)) {
                    h2___post(c, h2___msg(c, MV_HTTP2_MSG_PUMP, 0));
                }
            }
        }
        c->Writing = 0;
        // Bytes queued while this writer was finishing would otherwise wait for the next sender.
        std::lock_guard g(c->OutLock);
        if (!writable(c) || c->OutBuf.empty()) return;
    }
}

void __mv_http2_engine_flush(MV_Http2Connection* conn) {
    if (conn) h2___flush(conn, true);
}

long __mv_http2_engine_pending_bytes(MV_Http2Connection* conn) {
    if (!conn) return 0;
    long n;
    {
        std::lock_guard g(conn->OutLock);
        n = long(conn->OutBuf.size());
    }
    std::lock_guard g(conn->StreamLock);
    for (MV_Http2Stream* s = conn->StreamHead; s; s = s->Next) n += s->OutLen - s->OutPos;
    return n;
}

// ---------------------------------------------------------------- messages

namespace {

// HEADERS and CONTINUATION of one block. OutLock held.
void emitHeaderBlock(MV_Http2Connection* c, int32_t sid, const uint8_t* header, int headerlen, bool endStream) {
    int limit = frameLimit(c);
    int first = headerlen < limit ? headerlen : limit;
    int flags = (endStream ? MORVA_HTTP2_FLAG_END_STREAM : 0) | (first == headerlen ? MORVA_HTTP2_FLAG_END_HEADERS : 0);
    uint8_t* p = h2___out_reserve(c, MORVA_HTTP2_HEADERS, flags, sid, first);
    memcpy(p, header, size_t(first));
    for (int at = first; at < headerlen;) {
        int n = headerlen - at < limit ? headerlen - at : limit;
        p = h2___out_reserve(c, MORVA_HTTP2_CONTINUATION, at + n == headerlen ? MORVA_HTTP2_FLAG_END_HEADERS : 0, sid,
                             n);
        memcpy(p, header + at, size_t(n));
        at += n;
    }
}

// Adds bytes to what waits on the stream. StreamLock held.
bool addWaiting(MV_Http2Stream* s, const uint8_t* data, long datalen) {
    if (s->OutPos > 0 && s->OutPos == s->OutLen) s->OutPos = s->OutLen = 0;
    return h2___append(s->OutData, s->OutLen, s->OutCap, data, datalen);
}

// The stream a send goes on; a client's new id opens it. StreamLock held. Null with
// *why when it cannot take a message.
MV_Http2Stream* streamForSend(MV_Http2Connection* c, int32_t sid, bool opening, const char** why) {
    auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid));
    if (s) {
        if (opening && s->HeadersSent) {
            *why = "headers already sent";
            return nullptr;
        }
        if (s->LocalEnded || s->OutEnd) {
            *why = "stream already ended";
            return nullptr;
        }
        return s;
    }
    if (!opening || c->isServer || (sid & 1) == 0 || sid <= c->HighestLocalStreamId) {
        *why = "stream not open";
        return nullptr;
    }
    if (c->GoAwayReceived) {
        *why = "connection is going away";
        return nullptr;
    }
    if (c->StreamCount >= c->Peer_MaxConcurrentStreams) {
        *why = "peer's stream limit reached";
        return nullptr;
    }
    s = h2___stream_new(c, sid);
    if (!s) {
        *why = "no stream record";
        return nullptr;
    }
    s->State = MV_HTTP2_STREAM_OPEN;
    c->HighestLocalStreamId = sid;
    return s;
}

// A header list to encode now, once the stream is known to take it: a block encoded and
// then not sent would leave the peer's decoder behind ours.
struct Fields {
    const nghttp2_nv* nv;
    size_t nvlen;
};

int sendMessage(MV_Http2Connection* c, int32_t sid, const uint8_t* header, int headerlen, const Fields* fields,
                const uint8_t* data, long datalen, bool endStream) {
    if (!c) return -EIO;
    if (sid <= 0 || headerlen < 0 || datalen < 0 || (headerlen > 0 && !header) || (datalen > 0 && !data)) return -1;
    if (c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    int queued = 0;
    uint8_t stackBlock[6144];
    uint8_t* heapBlock = nullptr;
    struct FreeBlock {
        uint8_t*& p;
        ~FreeBlock() { __mv_http2_block_free(p); }
    } freeBlock{heapBlock};
    {
        std::lock_guard g(c->StreamLock);
        const char* why = "";
        MV_Http2Stream* s = streamForSend(c, sid, headerlen > 0 || fields, &why);
        if (!s) {
            char peer[80];
            h2___conn_peer_text(c, peer, sizeof peer);
            H2_LOG(MV_LOG_ERROR, "send refused on StreamId=%d: %s peer=%s <%s|%s|%d>", sid, why, peer, __FILE_NAME__,
                   __func__, __LINE__);
            return 0;
        }
        if (fields) {
            size_t bound = __mv_http2_engine_encode_bound(c, fields->nv, fields->nvlen);
            uint8_t* out = stackBlock;
            if (bound > sizeof stackBlock) out = heapBlock = static_cast<uint8_t*>(__mv_http2_block_alloc(bound));
            int n = out ? __mv_http2_engine_encode_headers(c, fields->nv, fields->nvlen, out, bound) : -1;
            if (n < 0) {
                H2_LOG(MV_LOG_ERROR, "header encoding failed on StreamId=%d <%s|%s|%d>", sid, __FILE_NAME__, __func__,
                       __LINE__);
                if (!s->HeadersSent && !s->InSendList && s->DataLen == 0 && !c->isServer) h2___stream_free(c, s);
                return 0;
            }
            header = out;
            headerlen = n;
        }
        bool waiting = s->InSendList;
        {
            std::lock_guard o(c->OutLock);
            if (headerlen > 0) {
                emitHeaderBlock(c, sid, header, headerlen, endStream && datalen == 0);
                s->HeadersSent = 1;
                queued += headerlen + MORVA_HTTP2_FRAME_HEADER_LEN;
            }
            // What the windows take now goes straight into the frames; the rest waits.
            int limit = frameLimit(c);
            long at = 0;
            while (!waiting && at < datalen) {
                int64_t win = s->SendWindow < c->SendWindow ? s->SendWindow : int64_t(c->SendWindow);
                if (win <= 0 || c->OutBuf.size() >= kH2OutHighWater) break;
                long n = datalen - at < limit ? datalen - at : limit;
                if (n > win) n = long(win);
                bool last = at + n == datalen;
                uint8_t* p = h2___out_reserve(c, MORVA_HTTP2_DATA, last && endStream ? MORVA_HTTP2_FLAG_END_STREAM : 0,
                                              sid, int(n));
                memcpy(p, data + at, size_t(n));
                s->SendWindow -= n;
                c->SendWindow -= n;
                at += n;
            }
            queued += int(at);
            if (at < datalen) {
                if (!addWaiting(s, data + at, datalen - at)) {
                    H2_LOG(MV_LOG_CRITICAL, "no memory for %ld bytes waiting on StreamId=%d <%s|%s|%d>", datalen - at,
                           sid, __FILE_NAME__, __func__, __LINE__);
                    return 0;
                }
                s->OutEnd = endStream ? 1 : 0;
                listStream(c, s);
                queued += int(datalen - at);
            } else if (waiting && endStream) {
                s->OutEnd = 1;
            } else if (endStream && (datalen > 0 || headerlen == 0)) {
                if (datalen == 0) h2___out_reserve(c, MORVA_HTTP2_DATA, MORVA_HTTP2_FLAG_END_STREAM, sid, 0);
            }
        }
        if (endStream && !s->InSendList && !s->OutEnd) localEnded(c, s);
        else if (s->InSendList) h2___pump_locked(c);
    }
    __mv_http2_engine_flush(c);
    return queued > 0 ? queued : 1;
}

}  // namespace

int __mv_http2_engine_send(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* header, int headerlen,
                           const uint8_t* data, long datalen) {
    return sendMessage(httpConn, StreamId, header, headerlen, nullptr, data, datalen, true);
}

int __mv_http2_engine_send_nv(MV_Http2Connection* httpConn, int32_t StreamId, const nghttp2_nv* nv, size_t nvlen,
                              const uint8_t* data, long datalen, long remDataLen) {
    if (!nv || nvlen == 0) return -1;
    Fields f{nv, nvlen};
    return sendMessage(httpConn, StreamId, nullptr, 0, &f, data, datalen, remDataLen == 0);
}

int __mv_http2_engine_begin_stream(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* header, int headerlen,
                                   const uint8_t* data, long datalen, long remDataLen) {
    return sendMessage(httpConn, StreamId, header, headerlen, nullptr, data, datalen, remDataLen == 0);
}

int __mv_http2_engine_data_stream(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* data, long datalen,
                                  long remDataLen) {
    return sendMessage(httpConn, StreamId, nullptr, 0, nullptr, data, datalen, remDataLen == 0);
}

int __mv_http2_engine_send_frame(MV_Http2Connection* conn, int type, int32_t streamId, int iendheader, int endstream,
                                 const uint8_t* data, int len) {
    if (!conn) {
        printf("connection got null %d\n", __LINE__);
        return -EIO;
    }
    if (type != MORVA_HTTP2_DATA && type != MORVA_HTTP2_HEADERS && type != MORVA_HTTP2_CONTINUATION) return -1;
    if (len < 0 || (len > 0 && !data)) return -1;
    if (conn->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    int flags = (endstream && type != MORVA_HTTP2_CONTINUATION ? MORVA_HTTP2_FLAG_END_STREAM : 0) |
                (iendheader && type != MORVA_HTTP2_DATA ? MORVA_HTTP2_FLAG_END_HEADERS : 0);
    {
        std::lock_guard g(conn->OutLock);
        uint8_t* p = h2___out_reserve(conn, type, flags, streamId, len);
        if (len > 0) memcpy(p, data, size_t(len));
    }
    __mv_http2_engine_flush(conn);
    return len + MORVA_HTTP2_FRAME_HEADER_LEN;
}
