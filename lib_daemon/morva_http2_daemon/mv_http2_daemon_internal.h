// What the daemon's own files share.
#pragma once

#include "mv_http2_daemon.h"

#define D_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_HTTP2, level, fmt, ##__VA_ARGS__)

// Appends a header (`limit` 0: any number); names in lower case. 1 or 0.
int __mv_http2_deamon___add(MV_Http2HeaderList* list, const char* key, const char* val, int limit);
// Replaces a header the daemon owns, or appends it.
int __mv_http2_deamon___set(MV_Http2HeaderList* list, const char* key, const char* val);
// Arms the context's timer for its request as it stands; called before the request can leave.
int __mv_http2_deamon___arm_timer(MV_Http2Context* c);
// The endpoint's handlers.
void __mv_http2_deamon_recv_message_handler(MV_HttpMessage* msg);
void __mv_http2_deamon_stream_error_handler(MV_Http2Connection* conn, int32_t StreamId, void* context, int errorCode);
// Encodes the list and sends it with the data on the context's stream, under the send guard.
int __mv_http2_deamon___send_message(MV_Http2Context* c, MV_Http2HeaderList* list, const uint8_t* data, long datalen,
                                     long remDataLen);
// Header records for the decoded fields of `block`, pointing into it (the caller keeps
// the block as long as the list). The fields added.
int __mv_http2_deamon___decode_shared(MV_Http2HeaderList* list, uint8_t* block, int len);
