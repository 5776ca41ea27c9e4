// What the endpoint's own files share; the layers above use mv_http2.h.
#pragma once

#include <cstring>

#include "mv_http2.h"

#define H2_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_HTTP2, level, fmt, ##__VA_ARGS__)

// Receive buffers of a stream or a header block grow to this before the peer is stopped.
constexpr long kH2MaxHeaderBlock = 1 << 20;
// A message body larger than this ends its stream: a peer that never ends one must not
// take all memory.
constexpr long kH2MaxBody = 256L << 20;
// The outbound buffer is fed from the streams' waiting data up to this.
constexpr size_t kH2OutHighWater = 256 * 1024;

// ---------------------------------------------------------------- codec (pure)

inline void h2___put_u32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline uint32_t h2___get_u32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// ---------------------------------------------------------------- records

// A writer's view of a frame in OutBuf: reserve header + payload, fill, done.
uint8_t* h2___out_reserve(MV_Http2Connection* c, int type, int flags, int32_t sid, int payloadLen);
// Queues a control frame; the caller flushes once its locks are released.
void h2___queue_control(MV_Http2Connection* c, int type, int flags, int32_t sid, const uint8_t* payload, int len);
void h2___queue_goaway(MV_Http2Connection* c, int code);
void h2___queue_rst(MV_Http2Connection* c, int32_t sid, int code);
void h2___queue_window_update(MV_Http2Connection* c, int32_t sid, int32_t increment);
// Our SETTINGS, by the _ShareToPeer flags; with the preface on a client.
void h2___queue_preface_and_settings(MV_Http2Connection* c);
// Moves waiting stream data into OutBuf as the windows allow. Call with StreamLock held.
void h2___pump_locked(MV_Http2Connection* c);
// Writes OutBuf unless a writer is at work; `mayPump` lets the writer refill from the streams.
void h2___flush(MV_Http2Connection* c, bool mayPump);
// The same, after waiting briefly for a writer at work: for a GOAWAY before a close.
void h2___flush_now(MV_Http2Connection* c);
// Raw write through the socket engine (or a detached sink); the one place bytes leave.
int h2___socket_write(MV_Http2Connection* c, const uint8_t* p, int len);
void h2___socket_close(MV_Http2Connection* c);
// The socket closed: streams fail, the connection's state goes back to idle.
void h2___conn_closed(MV_Http2Connection* c);
// After our GOAWAY: the streams fail now, the socket closes a moment later (monitor).
void h2___begin_close(MV_Http2Connection* c);

// Streams
MV_Http2Stream* h2___stream_new(MV_Http2Connection* c, int32_t sid);
// Takes the stream off the map and the send list and frees it. StreamLock held.
void h2___stream_free(MV_Http2Connection* c, MV_Http2Stream* s);
void h2___stream_unlist(MV_Http2Connection* c, MV_Http2Stream* s);
// Closes the stream if both sides have ended. StreamLock held.
void h2___stream_maybe_close(MV_Http2Connection* c, MV_Http2Stream* s);
// Appends to a block from __mv_http2_block_alloc, growing it. False if it cannot grow.
bool h2___append(uint8_t*& buf, long& len, long& cap, const uint8_t* p, long n);

// Connection errors: log, GOAWAY with the code, close. Streams: RST_STREAM and a failure.
void h2___connection_error(MV_Http2Connection* c, int code, const char* why, int frameType, int32_t sid);
// StreamLock held; the stream (if any) is freed.
void h2___stream_error(MV_Http2Connection* c, MV_Http2Stream* s, int32_t sid, int code, const char* why);

// The application line
void h2___post(MV_Http2Connection* c, MV_HttpMessage* m);
MV_HttpMessage* h2___msg(MV_Http2Connection* c, int kind, int32_t sid);
void h2___post_failed(MV_Http2Connection* c, int32_t sid, int code);
void h2___app_line_run(MV_HttpMessage* m);
void h2___app_line_reset(MV_Http2Connection* c);

// State of a fresh life of the connection (connect or accept); PrefaceLock held.
void h2___conn_reset(MV_Http2Connection* c);
void h2___conn_peer_text(MV_Http2Connection* c, char* out, size_t cap);
MV_Http2Connection* h2___conn_new();

// Per-thread: the connection whose send guard this thread holds, and the one whose
// messages the application line is running (its writes wait for the end of the batch).
extern thread_local MV_Http2Connection* tl_h2GuardConn;
extern thread_local MV_Http2Connection* tl_h2CorkConn;
// The connection whose bytes this thread is reading (its messages wait for the pass's end).
extern thread_local MV_Http2Connection* tl_h2ReaderConn;
// Posts the messages the reader gathered in this pass.
void h2___post_pass(MV_Http2Connection* c);
// Frames of RxBuf, as far as they are whole. Reader's lock held.
void h2___rx_parse(MV_Http2Connection* c);
int h2___local_stream_window();
// Ours to give at once on every connection (the preface's WINDOW_UPDATE opens it).
int h2___local_connection_window();
