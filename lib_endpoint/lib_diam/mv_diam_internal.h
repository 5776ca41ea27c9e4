// What the stack's own files share; users include mv_diam.h.
#pragma once

#include <cstdarg>

#include "mv_diam.h"

#define MV_DIAM_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_CORE, level, fmt, ##__VA_ARGS__)


// Memory of messages and AVPs: the size classes once the runtime is up, the system heap
// in tools and fuzzers that run the codec alone. Chosen once, at the first block.
void* __mv_diam___alloc(size_t size);
void __mv_diam___free(void* p);

void __mv_diam___codec_log(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The server-side read thread of one accepted connection ("mv_dm_poll").
struct __mv_diam_client_thread {
    __mv_diam_client_thread* Next;
    MV_DiamNode* node;  // the connection's own node record, reused with the thread
    int TransportType;
    std::atomic<int> isIdle;
};

// The message handler in force.
fn_mv_diam_msg_handler __mv_diam___msg_handler();
// The once-a-second watchdog of one connection, run by its thread. Returns false when it closed it.
bool __mv_diam___watchdog_tick(MV_DiamNode* node);
// Sends the encoded bytes of a base-protocol or application message on the node's connection.
int __mv_diam___send(MV_DiamMessage* msg, MV_DiamNode* node, bool baseProtocol);
// The text of a node's peer for log lines: "host ip:port" or the configured address.
void __mv_diam___peer_text(const MV_DiamNode* node, char* out, size_t cap);
// Closes the node's connection; OnClose follows.
void __mv_diam___close(MV_DiamNode* node);
// Made on first use.
void __mv_diam___ensure_table();
// Decodes one received message, frees its buffer and passes the message on: the base
// protocol to the stack, the rest to the message handler.
void __mv_diam_node_buffer_handler(MV_DiamBuffer* buf);
// The error answer to a request that does not decode: Failed-AVP holds the offending AVP as
// far as it came in bytes.
int __mv_diam___send_decode_error(MV_DiamMessage* request, const MV_DiamDecodeStatus& st,
                                  std::span<const uint8_t> bytes);
