// The reader: bytes of a connection into frames, frames into stream states, windows,
// answers and messages for the application line. It runs on the socket engine's TCP
// delivery thread for every connection of the process, so it never waits for a writer
// and does no HPACK: header blocks go to the application line whole, in arrival order.
#include <climits>

#include "mv_http2_internal.h"

thread_local MV_Http2Connection* tl_h2ReaderConn = nullptr;

namespace {

struct Frame {
    MV_Http2FrameHeader h;
    const uint8_t* p;  // payload
};

int localMaxFrame() {
    auto* e = __mv_http2Engine;
    return e->FrameSize_ShareToPeer == 1 && e->FrameSize > MORVA_HTTP2_MIN_FRAME_SIZE ? e->FrameSize
                                                                                        : MORVA_HTTP2_MIN_FRAME_SIZE;
}

// An id the peer could not have used yet: above what either side opened.
bool isIdle(MV_Http2Connection* c, int32_t sid) {
    bool ours = c->isServer ? (sid & 1) == 0 : (sid & 1) == 1;
    return ours ? sid > c->HighestLocalStreamId : sid > c->HighestPeerStreamId;
}

// Padding and, for HEADERS, the priority fields come off the payload; false when the
// lengths do not add up (a connection error, already raised).
bool strip(MV_Http2Connection* c, const Frame& f, const uint8_t** data, long* len, int priorityLen) {
    const uint8_t* p = f.p;
    long n = f.h.PayLoadLength;
    if (f.h.FrameFlags.Padded) {
        if (n < 1 || p[0] >= n) {
            h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "padding as long as the frame", f.h.Type, f.h.StreamId);
            return false;
        }
        n -= 1 + p[0];
        p += 1;
    }
    if (priorityLen) {
        if (n < priorityLen) {
            h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "frame shorter than its fields", f.h.Type,
                                  f.h.StreamId);
            return false;
        }
        p += priorityLen;
        n -= priorityLen;
    }
    *data = p;
    *len = n;
    return true;
}

// The peer ended its side of the stream: the message goes to the line. StreamLock held.
void remoteEnded(MV_Http2Connection* c, MV_Http2Stream* s) {
    s->RemoteEnded = 1;
    s->State = s->State == MV_HTTP2_STREAM_HALF_CLOSED_LOCAL ? MV_HTTP2_STREAM_CLOSED
                                                              : MV_HTTP2_STREAM_HALF_CLOSED_REMOTE;
    // A header block just gathered in this pass carries the message too: one job, not two.
    MV_HttpMessage* m = c->PassTail;
    bool joined = m && m->Kind == MV_HTTP2_MSG_HEADERS && m->StreamId == s->StreamId && !m->Discard &&
                  !m->AlsoDeliver && m->ConnGen == c->ConnGen && tl_h2ReaderConn == c;
    if (joined) m->AlsoDeliver = 1;
    else m = h2___msg(c, MV_HTTP2_MSG_DELIVER, s->StreamId);
    m->IsRequest = c->isServer;
    m->data = s->Data;
    m->datalen = s->DataLen;
    s->Data = nullptr;
    s->DataLen = s->DataCap = 0;
    if (!c->isServer) {
        std::lock_guard g(c->sentRequestContextsLock);
        m->Context = c->sentRequestContexts.erase(s->StreamId);
    }
    ++__mv_http2Engine->TotalStreamsReceived;
    ++__mv_http2Engine->TotalStreamsReceivedPerSecond;
    c->LastSuccesfulStreamId = s->StreamId;
    H2_LOG(MV_LOG_DEBUG,
           "End Of Stream - Total Buffer Size for StreamId=%u TotalBufferSize=%ld Frames=%d httpConn=%p <%s|%d>",
           unsigned(s->StreamId), s->TotalBufferSize, s->Count, static_cast<void*>(c), __func__, __LINE__);
    if (!joined) h2___post(c, m);
    h2___stream_maybe_close(c, s);
}

// A complete header block: decoded on the line before any later one.
void headerBlockDone(MV_Http2Connection* c, int32_t sid, uint8_t* block, long len, bool endStream, bool discard) {
    MV_HttpMessage* m = h2___msg(c, MV_HTTP2_MSG_HEADERS, sid);
    m->header = block;
    m->headerlen = int(len);
    m->EndStream = endStream;
    m->Discard = discard;
    h2___post(c, m);
    if (discard || !endStream) return;
    std::lock_guard g(c->StreamLock);
    if (auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid))) remoteEnded(c, s);
}

// Starts a header block; with END_HEADERS it is done at once.
void beginHeaderBlock(MV_Http2Connection* c, const Frame& f, const uint8_t* frag, long len, bool discard) {
    uint8_t* block = nullptr;
    long blen = 0, bcap = 0;
    if (!h2___append(block, blen, bcap, frag, len) && len > 0) {
        h2___connection_error(c, MORVA_HTTP2_INTERNAL_ERROR, "no memory for a header block", f.h.Type, f.h.StreamId);
        return;
    }
    bool endStream = f.h.Type == MORVA_HTTP2_HEADERS && f.h.FrameFlags.EndStream;
    if (f.h.FrameFlags.EndHeaders) {
        headerBlockDone(c, f.h.StreamId, block, blen, endStream, discard);
        return;
    }
    c->ContinuationStreamId = f.h.StreamId;
    c->ContinuationEndStream = endStream;
    c->ContinuationDiscard = discard;
    c->HeaderBlock = block;
    c->HeaderBlockLen = blen;
    c->HeaderBlockCap = bcap;
}

void onContinuation(MV_Http2Connection* c, const Frame& f) {
    if (!c->ContinuationStreamId) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "CONTINUATION without a header block", f.h.Type,
                              f.h.StreamId);
        return;
    }
    if (c->HeaderBlockLen + f.h.PayLoadLength > kH2MaxHeaderBlock) {
        h2___connection_error(c, MORVA_HTTP2_ENHANCE_YOUR_CALM, "header block past its limit", f.h.Type, f.h.StreamId);
        return;
    }
    if (!h2___append(c->HeaderBlock, c->HeaderBlockLen, c->HeaderBlockCap, f.p, f.h.PayLoadLength)) {
        h2___connection_error(c, MORVA_HTTP2_INTERNAL_ERROR, "no memory for a header block", f.h.Type, f.h.StreamId);
        return;
    }
    if (!f.h.FrameFlags.EndHeaders) return;
    uint8_t* block = c->HeaderBlock;
    long len = c->HeaderBlockLen;
    int32_t sid = c->ContinuationStreamId;
    c->HeaderBlock = nullptr;
    c->HeaderBlockLen = c->HeaderBlockCap = 0;
    c->ContinuationStreamId = 0;
    headerBlockDone(c, sid, block, len, c->ContinuationEndStream, c->ContinuationDiscard);
}

void onHeaders(MV_Http2Connection* c, const Frame& f) {
    int32_t sid = f.h.StreamId;
    if (sid == 0) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "HEADERS on stream 0", f.h.Type, sid);
        return;
    }
    const uint8_t* frag;
    long len;
    if (!strip(c, f, &frag, &len, f.h.FrameFlags.Priority ? 5 : 0)) return;
    bool discard = false;
    {
        std::unique_lock g(c->StreamLock);
        auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid));
        if (!s) {
            bool peers = c->isServer ? (sid & 1) == 1 : (sid & 1) == 0;
            if (c->isServer && peers && sid > c->HighestPeerStreamId) {
                c->HighestPeerStreamId = sid;
                if (c->StartGracefulShutdown || c->StreamCount >= c->MaxConcurrentStreams) {
                    // Refused, but its block still feeds the decoder's table.
                    discard = true;
                    h2___queue_rst(c, sid, MORVA_HTTP2_REFUSED_STREAM);
                } else if ((s = h2___stream_new(c, sid))) {
                    s->State = MV_HTTP2_STREAM_OPEN;
                    ++c->StreamsOpened;
                } else {
                    discard = true;
                    h2___queue_rst(c, sid, MORVA_HTTP2_REFUSED_STREAM);
                }
            } else if (isIdle(c, sid) || (c->isServer && peers)) {
                g.unlock();
                h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR,
                                      c->isServer ? "stream id below one already used" : "HEADERS on a stream never opened",
                                      f.h.Type, sid);
                return;
            } else {
                // A stream that has closed: the block is decoded for the table and dropped.
                discard = true;
                h2___stream_error(c, nullptr, sid, MORVA_HTTP2_STREAM_CLOSED, "HEADERS on a closed stream");
            }
        } else if (s->RemoteEnded) {
            discard = true;
            h2___stream_error(c, s, sid, MORVA_HTTP2_STREAM_CLOSED, "HEADERS after the end of the stream");
        }
        if (s && !discard) {
            s->HeaderBlockDone = 1;
            ++s->Count;
        }
    }
    beginHeaderBlock(c, f, frag, len, discard);
}

void onPushPromise(MV_Http2Connection* c, const Frame& f) {
    auto* e = __mv_http2Engine;
    if (c->isServer || f.h.StreamId == 0 || (e->EnablePush_ShareToPeer == 1 && !e->EnablePush)) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "PUSH_PROMISE not allowed here", f.h.Type, f.h.StreamId);
        return;
    }
    const uint8_t* frag;
    long len;
    if (!strip(c, f, &frag, &len, 4)) return;
    int32_t promised = int32_t(h2___get_u32(frag - 4) & 0x7fffffffu);
    if ((promised & 1) || promised <= c->HighestPeerStreamId) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "promised stream id not new", f.h.Type, f.h.StreamId);
        return;
    }
    c->HighestPeerStreamId = promised;
    c->ReceivedPushPromise = 1;
    H2_LOG(MV_LOG_INFO, "push_promise StreamId=%d refused <%s|%d>", promised, __func__, __LINE__);
    // Nothing here takes pushed responses: the promise is refused, its block decoded for the table.
    h2___queue_rst(c, promised, MORVA_HTTP2_CANCEL);
    beginHeaderBlock(c, f, frag, len, true);
}

void onData(MV_Http2Connection* c, const Frame& f) {
    int32_t sid = f.h.StreamId;
    if (sid == 0) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "DATA on stream 0", f.h.Type, sid);
        return;
    }
    long flowLen = f.h.PayLoadLength;  // padding counts against the windows too
    if (flowLen > c->RecvWindow) {
        h2___connection_error(c, MORVA_HTTP2_FLOW_CONTROL_ERROR, "DATA past the connection window", f.h.Type, sid);
        return;
    }
    c->RecvWindow -= int32_t(flowLen);
    c->RecvConsumed += int32_t(flowLen);
    const uint8_t* data;
    long len;
    if (!strip(c, f, &data, &len, 0)) return;
    {
        std::unique_lock g(c->StreamLock);
        auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid));
        if (!s) {
            if (isIdle(c, sid)) {
                g.unlock();
                h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "DATA on a stream never opened", f.h.Type, sid);
                return;
            }
            h2___stream_error(c, nullptr, sid, MORVA_HTTP2_STREAM_CLOSED, "DATA on a closed stream");
        } else if (s->RemoteEnded) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_STREAM_CLOSED, "DATA after the end of the stream");
        } else if (!s->HeaderBlockDone) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_PROTOCOL_ERROR, "DATA before HEADERS");
        } else if (flowLen > s->RecvWindow) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_FLOW_CONTROL_ERROR, "DATA past the stream window");
        } else if (s->DataLen + len > kH2MaxBody) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_ENHANCE_YOUR_CALM, "body past its limit");
        } else if (!h2___append(s->Data, s->DataLen, s->DataCap, data, len)) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_INTERNAL_ERROR, "no memory for the body");
        } else {
            s->RecvWindow -= int32_t(flowLen);
            ++s->Count;
            s->TotalBufferSize += len;
            if (f.h.FrameFlags.EndStream) {
                remoteEnded(c, s);
            } else {
                // The bytes are ours now: the peer may send as many again.
                s->RecvConsumed += int32_t(flowLen);
                if (s->RecvConsumed >= h2___local_stream_window() / 2) {
                    h2___queue_window_update(c, sid, s->RecvConsumed);
                    s->RecvWindow += s->RecvConsumed;
                    s->RecvConsumed = 0;
                }
            }
        }
    }
    if (c->RecvConsumed >= h2___local_connection_window() / 2) {
        c->windowUpdateValue = c->RecvConsumed;
        h2___queue_window_update(c, 0, c->RecvConsumed);
        c->RecvWindow += c->RecvConsumed;
        c->RecvConsumed = 0;
    }
}

void onRstStream(MV_Http2Connection* c, const Frame& f) {
    if (f.h.PayLoadLength != 4) {
        h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "RST_STREAM of a length other than 4", f.h.Type,
                              f.h.StreamId);
        return;
    }
    bool idle;
    {
        std::lock_guard g(c->StreamLock);
        idle = f.h.StreamId == 0 || isIdle(c, f.h.StreamId);
    }
    if (idle) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "RST_STREAM on stream 0 or a stream never opened",
                              f.h.Type, f.h.StreamId);
        return;
    }
    int code = int(h2___get_u32(f.p));
    if (code >= 0 && code < MORVA_HTTP2_ERROR_CODE_COUNT) ++__mv_http2Engine->ErrorsReceived[code];
    char peer[80];
    h2___conn_peer_text(c, peer, sizeof peer);
    H2_LOG(MV_LOG_ERROR, "rst-stream received iErrorCode=%d (%s) StreamId=%d peer=%s %s|%s|%d", code,
           __mv_http2_error_name(code), f.h.StreamId, peer, __FILE_NAME__, __func__, __LINE__);
    std::lock_guard g(c->StreamLock);
    auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(f.h.StreamId));
    if (!s) return;  // already closed on our side
    h2___post_failed(c, f.h.StreamId, code);
    h2___stream_free(c, s);
}

void onSettings(MV_Http2Connection* c, const Frame& f) {
    if (f.h.StreamId != 0) {
        c->ProtocalError = 25;
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "SETTINGS on a stream", f.h.Type, f.h.StreamId);
        return;
    }
    if (f.h.FrameFlags.IsAck) {
        if (f.h.PayLoadLength != 0) {
            h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "SETTINGS ACK with a payload", f.h.Type, 0);
            return;
        }
        c->ReceivedSettingsAck = 1;
        return;
    }
    if (f.h.PayLoadLength % 6 != 0) {
        h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "SETTINGS length not a multiple of 6", f.h.Type, 0);
        return;
    }
    bool windowGrew = false;
    for (int at = 0; at < f.h.PayLoadLength; at += 6) {
        int id = f.p[at] << 8 | f.p[at + 1];
        uint32_t v = h2___get_u32(f.p + at + 2);
        switch (id) {
            case MORVA_HTTP2_SETTINGS_HEADER_TABLE_SIZE:
                c->Peer_HeaderTableSize = v;  // the encoder follows at its next block
                break;
            case MORVA_HTTP2_SETTINGS_ENABLE_PUSH:
                if (v > 1) {
                    h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "ENABLE_PUSH other than 0 or 1", f.h.Type, 0);
                    return;
                }
                c->Peer_EnablePush = int(v);
                break;
            case MORVA_HTTP2_SETTINGS_MAX_CONCURRENT_STREAMS:
                c->Peer_MaxConcurrentStreams = v > INT_MAX ? INT_MAX : int(v);
                H2_LOG(MV_LOG_INFO, "ConnId=%u httpConn->Peer_MaxConcurrentStreams=%d <%s|%d>", c->ConnId,
                       c->Peer_MaxConcurrentStreams.load(), __func__, __LINE__);
                break;
            case MORVA_HTTP2_SETTINGS_INITIAL_WINDOW_SIZE: {
                if (v > uint32_t(MORVA_HTTP2_MAX_WINDOW_SIZE)) {
                    h2___connection_error(c, MORVA_HTTP2_FLOW_CONTROL_ERROR, "INITIAL_WINDOW_SIZE past the maximum",
                                          f.h.Type, 0);
                    return;
                }
                std::unique_lock g(c->StreamLock);
                int64_t delta = int64_t(v) - c->Peer_InitialWindowSize;
                bool overflow = false;
                c->Streams.forEach([&](int32_t, void* p) {
                    auto* s = static_cast<MV_Http2Stream*>(p);
                    s->SendWindow += delta;
                    if (s->SendWindow > MORVA_HTTP2_MAX_WINDOW_SIZE) overflow = true;
                });
                c->Peer_InitialWindowSize = int(v);
                if (overflow) {
                    g.unlock();
                    h2___connection_error(c, MORVA_HTTP2_FLOW_CONTROL_ERROR, "a stream window past the maximum",
                                          f.h.Type, 0);
                    return;
                }
                windowGrew = windowGrew || delta > 0;
                break;
            }
            case MORVA_HTTP2_SETTINGS_MAX_FRAME_SIZE:
                if (v < MORVA_HTTP2_MIN_FRAME_SIZE || v > MORVA_HTTP2_MAX_FRAME_SIZE) {
                    h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "MAX_FRAME_SIZE out of range", f.h.Type, 0);
                    return;
                }
                c->Peer_FrameSize = int(v);
                break;
            case MORVA_HTTP2_SETTINGS_MAX_HEADER_LIST_SIZE:
                c->Peer_HeaderListSize = v;
                break;
            default:
                break;  // unknown settings are ignored
        }
    }
    h2___queue_control(c, MORVA_HTTP2_SETTINGS, MORVA_HTTP2_FLAG_ACK, 0, nullptr, 0);
    c->PeerSettingsReceived = 1;
    if (windowGrew) {
        std::lock_guard g(c->StreamLock);
        h2___pump_locked(c);
    }
}

void onPing(MV_Http2Connection* c, const Frame& f) {
    if (f.h.StreamId != 0) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "PING on a stream", f.h.Type, f.h.StreamId);
        return;
    }
    if (f.h.PayLoadLength != 8) {
        h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "PING of a length other than 8", f.h.Type, 0);
        return;
    }
    if (f.h.FrameFlags.IsAck) {
        H2_LOG(MV_LOG_DEBUG, "received ping ack <%s|%d>", __func__, __LINE__);
        return;
    }
    h2___queue_control(c, MORVA_HTTP2_PING, MORVA_HTTP2_FLAG_ACK, 0, f.p, 8);
}

void onGoaway(MV_Http2Connection* c, const Frame& f) {
    if (f.h.StreamId != 0) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "GOAWAY on a stream", f.h.Type, f.h.StreamId);
        return;
    }
    if (f.h.PayLoadLength < 8) {
        h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "GOAWAY shorter than 8", f.h.Type, 0);
        return;
    }
    int32_t last = int32_t(h2___get_u32(f.p) & 0x7fffffffu);
    int code = int(h2___get_u32(f.p + 4));
    if (code >= 0 && code < MORVA_HTTP2_ERROR_CODE_COUNT) ++__mv_http2Engine->ErrorsReceived[code];
    char opaque[41] = "";
    int olen = f.h.PayLoadLength - 8 < 40 ? f.h.PayLoadLength - 8 : 40;
    for (int i = 0; i < olen; ++i) opaque[i] = f.p[8 + i] >= 32 && f.p[8 + i] < 127 ? char(f.p[8 + i]) : '.';
    opaque[olen] = 0;
    char peer[80];
    h2___conn_peer_text(c, peer, sizeof peer);
    H2_LOG(MV_LOG_ERROR,
           "received goaway iLastStreamId=%d iErrorCode=%d (%s) StreamId=%d opaqueData=%s peer=%s closing connection "
           "%s|%s|%d",
           last, code, __mv_http2_error_name(code), f.h.StreamId, opaque, peer, __FILE_NAME__, __func__, __LINE__);
    c->GoAwayErrorCode = code;
    c->GoAwayLastStreamId = last;
    c->GoAwayReceived = 1;
    {
        // Streams above the last one the peer took were never processed: they fail now.
        std::lock_guard g(c->StreamLock);
        std::vector<MV_Http2Stream*> gone;
        c->Streams.forEach([&](int32_t sid, void* p) {
            bool ours = c->isServer ? (sid & 1) == 0 : (sid & 1) == 1;
            if (ours && sid > last) gone.push_back(static_cast<MV_Http2Stream*>(p));
        });
        for (MV_Http2Stream* s : gone) {
            h2___post_failed(c, s->StreamId, MORVA_HTTP2_REFUSED_STREAM);
            h2___stream_free(c, s);
        }
    }
    // After an error the peer is closing anyway; a graceful one lets the rest finish.
    if (code != MORVA_HTTP2_NO_ERROR) h2___socket_close(c);
}

// The layer above sends the next slices of its file responses.
void windowJob(void* conn) {
    if (auto h = __mv_http2Engine->WindowUpdateHandler) h(static_cast<MV_Http2Connection*>(conn));
}

void onWindowUpdate(MV_Http2Connection* c, const Frame& f) {
    if (f.h.PayLoadLength != 4) {
        h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "WINDOW_UPDATE of a length other than 4", f.h.Type,
                              f.h.StreamId);
        return;
    }
    int32_t inc = int32_t(h2___get_u32(f.p) & 0x7fffffffu);
    int32_t sid = f.h.StreamId;
    c->windowUpdateValue = inc;
    std::unique_lock g(c->StreamLock);
    if (sid == 0) {
        if (inc == 0 || c->SendWindow + inc > MORVA_HTTP2_MAX_WINDOW_SIZE) {
            g.unlock();
            h2___connection_error(c, inc == 0 ? MORVA_HTTP2_PROTOCOL_ERROR : MORVA_HTTP2_FLOW_CONTROL_ERROR,
                                  inc == 0 ? "WINDOW_UPDATE of 0" : "connection window past the maximum", f.h.Type, 0);
            return;
        }
        c->SendWindow += inc;
    } else {
        auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid));
        if (!s) {
            if (isIdle(c, sid)) {
                g.unlock();
                h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "WINDOW_UPDATE on a stream never opened",
                                      f.h.Type, sid);
            }
            return;  // a stream that closed a moment ago
        }
        if (inc == 0) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_PROTOCOL_ERROR, "WINDOW_UPDATE of 0");
            return;
        }
        if (s->SendWindow + inc > MORVA_HTTP2_MAX_WINDOW_SIZE) {
            h2___stream_error(c, s, sid, MORVA_HTTP2_FLOW_CONTROL_ERROR, "stream window past the maximum");
            return;
        }
        s->SendWindow += inc;
    }
    if (c->StreamHead) h2___pump_locked(c);
    g.unlock();
    if (__mv_http2Engine->WindowUpdateHandler && c->ResponseStreamCount > 0) __mv_core_queue(c, windowJob);
}

void onPriority(MV_Http2Connection* c, const Frame& f) {
    if (f.h.StreamId == 0) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "PRIORITY on stream 0", f.h.Type, 0);
        return;
    }
    if (f.h.PayLoadLength != 5) {
        std::lock_guard g(c->StreamLock);
        h2___stream_error(c, static_cast<MV_Http2Stream*>(c->Streams.find(f.h.StreamId)), f.h.StreamId,
                          MORVA_HTTP2_FRAME_SIZE_ERROR, "PRIORITY of a length other than 5");
    }
    // Priorities are not kept.
}

void processFrame(MV_Http2Connection* c, const Frame& f) {
    if (c->ContinuationStreamId &&
        (f.h.Type != MORVA_HTTP2_CONTINUATION || f.h.StreamId != c->ContinuationStreamId)) {
        h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "a header block interrupted", f.h.Type, f.h.StreamId);
        return;
    }
    if (!c->FirstFrameSeen) {
        if (f.h.Type != MORVA_HTTP2_SETTINGS || f.h.FrameFlags.IsAck) {
            h2___connection_error(c, MORVA_HTTP2_PROTOCOL_ERROR, "the peer's first frame is not SETTINGS", f.h.Type,
                                  f.h.StreamId);
            return;
        }
        c->FirstFrameSeen = 1;
    }
    switch (f.h.Type) {
        case MORVA_HTTP2_DATA: onData(c, f); break;
        case MORVA_HTTP2_HEADERS: onHeaders(c, f); break;
        case MORVA_HTTP2_PRIORITY: onPriority(c, f); break;
        case MORVA_HTTP2_RST_STREAM: onRstStream(c, f); break;
        case MORVA_HTTP2_SETTINGS: onSettings(c, f); break;
        case MORVA_HTTP2_PUSH_PROMISE: onPushPromise(c, f); break;
        case MORVA_HTTP2_PING: onPing(c, f); break;
        case MORVA_HTTP2_GOAWAY: onGoaway(c, f); break;
        case MORVA_HTTP2_WINDOW_UPDATE: onWindowUpdate(c, f); break;
        case MORVA_HTTP2_CONTINUATION: onContinuation(c, f); break;
        case MORVA_HTTP2_ALTSVC:
        case MORVA_HTTP2_ORIGIN: break;
        default: {
            // Frames of types this end does not know are skipped, as the standard asks.
            int n = ++c->invalidFrameCount;
            H2_LOG(MV_LOG_WARNING, "received invalid frame with Type=%d, Total received invalid frames=%d <%s|%s|%d>",
                   f.h.Type, n, __FILE_NAME__, __func__, __LINE__);
            break;
        }
    }
}

// Frames are read while the connection is being made or is up; not once it is closing.
bool readable(MV_Http2Connection* c) {
    int a = c->isActive;
    return a == MV_HTTP2_CONN_CONNECTING || a == MV_HTTP2_CONN_ACTIVE;
}

bool alive(MV_Http2Connection* c, uint32_t gen) { return c->ConnGen == gen && readable(c); }

}  // namespace

int h2___local_connection_window() {
    int w = __mv_http2Engine->InitialWindowSize;
    return w > MORVA_HTTP2_INITIAL_CONNECTION_WINDOW_SIZE ? w : MORVA_HTTP2_INITIAL_CONNECTION_WINDOW_SIZE;
}

int h2___local_stream_window() {
    auto* e = __mv_http2Engine;
    return e->WindowSize_ShareToPeer == 1 ? e->InitialWindowSize : MORVA_HTTP2_INITIAL_WINDOW_SIZE;
}

void h2___rx_parse(MV_Http2Connection* c) {
    uint32_t gen = c->ConnGen;
    const int maxFrame = localMaxFrame();
    while (alive(c, gen)) {
        size_t avail = c->RxBuf.size() - c->RxPos;
        const uint8_t* p = c->RxBuf.data() + c->RxPos;
        if (c->isServer && !c->isPrefaceReceived) {
            size_t n = avail < MORVA_HTTP2_CLIENT_MAGIC_LEN ? avail : MORVA_HTTP2_CLIENT_MAGIC_LEN;
            if (memcmp(p, MORVA_HTTP2_CLIENT_MAGIC, n) != 0) {
                char shown[25];
                for (size_t i = 0; i < n; ++i) shown[i] = p[i] >= 32 && p[i] < 127 ? char(p[i]) : '.';
                shown[n] = 0;
                char peer[80];
                h2___conn_peer_text(c, peer, sizeof peer);
                H2_LOG(MV_LOG_ERROR, "NOT a MAGIC? buffer=[%s] readbytes=[%d] peer=%s <%s|%s|%d>", shown, int(n), peer,
                       __FILE_NAME__, __func__, __LINE__);
                c->RxBuf.clear();
                c->RxPos = 0;
                h2___socket_close(c);
                return;
            }
            if (n < MORVA_HTTP2_CLIENT_MAGIC_LEN) break;  // the rest of the preface is on its way
            c->RxPos += MORVA_HTTP2_CLIENT_MAGIC_LEN;
            c->isPrefaceReceived = 1;
            h2___queue_preface_and_settings(c);
            continue;
        }
        if (avail < MORVA_HTTP2_FRAME_HEADER_LEN) break;
        Frame f;
        __mv_http2_frame_decode_header(p, &f.h);
        if (f.h.PayLoadLength > maxFrame) {
            h2___connection_error(c, MORVA_HTTP2_FRAME_SIZE_ERROR, "frame longer than the maximum", f.h.Type,
                                  f.h.StreamId);
            return;
        }
        if (avail < size_t(MORVA_HTTP2_FRAME_HEADER_LEN + f.h.PayLoadLength)) break;
        f.p = p + MORVA_HTTP2_FRAME_HEADER_LEN;
        c->RxPos += MORVA_HTTP2_FRAME_HEADER_LEN + size_t(f.h.PayLoadLength);
        ++c->FramesReceived;
        ++__mv_http2Engine->TotalFrameReceived;
        c->LastReceivedStreamId = f.h.StreamId;
        processFrame(c, f);
        if (c->GoAwayReceived && c->StreamCount == 0 && alive(c, gen)) h2___socket_close(c);
    }
    if (!alive(c, gen)) return;
    // Keep what is not a whole frame yet at the front.
    if (c->RxPos > 0) {
        c->RxBuf.erase(c->RxBuf.begin(), c->RxBuf.begin() + long(c->RxPos));
        c->RxPos = 0;
    }
}

void __mv_http2_engine_on_buffer_recv(MV_Socket* siSocket) {
    auto* c = static_cast<MV_Http2Connection*>(siSocket->transportEng);
    if (!c) return;
    uint8_t chunk[65536];
    for (;;) {
        int signal;
        {
            std::lock_guard g(c->RecvFrameLock);
            MV_Http2Connection* outer = tl_h2ReaderConn;
            tl_h2ReaderConn = c;
            siSocket->ReadInProgress = 1;
            signal = siSocket->ReadSignal;
            c->lastCommunication = __mv_core_get_server_timer_tick();
            for (;;) {
                int n = __mv_socket_engine_tcp_get_buffer(siSocket, chunk, sizeof chunk);
                __mv_socket_engine_tcp_release_used_buffer(siSocket);
                if (n <= 0) break;
                if (!readable(c)) continue;  // bytes of a closed or closing life
                c->RxBuf.insert(c->RxBuf.end(), chunk, chunk + n);
                h2___rx_parse(c);
            }
            h2___post_pass(c);
            tl_h2ReaderConn = outer;
            siSocket->ReadInProgress = 0;
        }
        if (c->isActive != MV_HTTP2_CONN_IDLE) h2___flush(c, false);
        // Bytes that came while this pass ran did not post the socket again.
        if (siSocket->ReadSignal == signal) break;
    }
}

void __mv_http2_engine_receive_bytes(MV_Http2Connection* conn, const uint8_t* bytes, size_t len) {
    std::lock_guard g(conn->RecvFrameLock);
    MV_Http2Connection* outer = tl_h2ReaderConn;
    tl_h2ReaderConn = conn;
    if (readable(conn)) {
        conn->RxBuf.insert(conn->RxBuf.end(), bytes, bytes + len);
        h2___rx_parse(conn);
    }
    h2___post_pass(conn);
    tl_h2ReaderConn = outer;
    if (conn->isActive != MV_HTTP2_CONN_IDLE) h2___flush(conn, false);
}
