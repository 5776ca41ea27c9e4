// The HTTP/2 endpoint: clear-text HTTP/2 with prior knowledge on the socket engine's
// TCP. It frames and unframes messages, keeps stream states and flow control in both
// directions, the connections of each peer and pools of them, and hands whole messages
// to the layer above on the connection's application line ("fsm_thread" of its own FSM
// queue), where header blocks are also decoded, in the order they arrived.
//
// Threads, in short:
//   reading     __mv_http2_engine_on_buffer_recv on the socket engine's TCP delivery
//               thread: frames, stream states, windows, control answers. No HPACK.
//   app line    one of `appMessageQueueThreads` FSM lines, chosen by the connection's
//               `id`: header blocks decoded in arrival order, messages and stream
//               failures handed to the handlers, in order, per connection.
//   sending     any thread. Frames go into the connection's outbound buffer; whoever
//               finds no writer at work writes what has gathered (see mv_http2_send.cpp).
//   "h2-mont"   once a second: idle accepted connections are closed.
//
// Blocks handed to a handler (`header`, `data`) belong to it and go back with
// __mv_http2_block_free. `header` holds decoded fields in the flat form that
// __mv_http2_engine_next_header walks.
#pragma once

#include <nghttp2/nghttp2.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "mv_core.h"
#include "mv_pool.h"
#include "mv_socket_engine.h"

#define MORVA_HTTP2_CLIENT_MAGIC "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
#define MORVA_HTTP2_CLIENT_MAGIC_LEN 24
#define MORVA_HTTP2_DEFAULT_WEIGHT 16
#define MORVA_HTTP2_MAX_WEIGHT 256
#define MORVA_HTTP2_MIN_WEIGHT 1
#define MORVA_HTTP2_MAX_WINDOW_SIZE 2147483647
#define MORVA_HTTP2_INITIAL_WINDOW_SIZE 65535
#define MORVA_HTTP2_INITIAL_CONNECTION_WINDOW_SIZE 65535
#define MORVA_HTTP2_DEFAULT_HEADER_TABLE_SIZE 4096
#define MORVA_HTTP2_INITIAL_MAX_CONCURRENT_STREAMS 2147483647
#define MORVA_HTTP2_HD_ENTRY_OVERHEAD 32
#define MORVA_HTTP2_HD_MAX_NV 65536
#define MORVA_HTTP2_STATIC_TABLE_LENGTH 61

#define MORVA_HTTP2_FRAME_HEADER_LEN 9
#define MORVA_HTTP2_MIN_FRAME_SIZE 16384
#define MORVA_HTTP2_MAX_FRAME_SIZE 16777215

// Frame types
#define MORVA_HTTP2_DATA 0
#define MORVA_HTTP2_HEADERS 1
#define MORVA_HTTP2_PRIORITY 2
#define MORVA_HTTP2_RST_STREAM 3
#define MORVA_HTTP2_SETTINGS 4
#define MORVA_HTTP2_PUSH_PROMISE 5
#define MORVA_HTTP2_PING 6
#define MORVA_HTTP2_GOAWAY 7
#define MORVA_HTTP2_WINDOW_UPDATE 8
#define MORVA_HTTP2_CONTINUATION 9
#define MORVA_HTTP2_ALTSVC 10
#define MORVA_HTTP2_ORIGIN 12

// Flags
#define MORVA_HTTP2_FLAG_END_STREAM 0x01
#define MORVA_HTTP2_FLAG_ACK 0x01
#define MORVA_HTTP2_FLAG_END_HEADERS 0x04
#define MORVA_HTTP2_FLAG_PADDED 0x08
#define MORVA_HTTP2_FLAG_PRIORITY 0x20

// Settings ids
#define MORVA_HTTP2_SETTINGS_HEADER_TABLE_SIZE 1
#define MORVA_HTTP2_SETTINGS_ENABLE_PUSH 2
#define MORVA_HTTP2_SETTINGS_MAX_CONCURRENT_STREAMS 3
#define MORVA_HTTP2_SETTINGS_INITIAL_WINDOW_SIZE 4
#define MORVA_HTTP2_SETTINGS_MAX_FRAME_SIZE 5
#define MORVA_HTTP2_SETTINGS_MAX_HEADER_LIST_SIZE 6
#define MORVA_HTTP2_SETTINGS_ENABLE_CONNECT_PROTOCOL 8

// Error codes
#define MORVA_HTTP2_NO_ERROR 0
#define MORVA_HTTP2_PROTOCOL_ERROR 1
#define MORVA_HTTP2_INTERNAL_ERROR 2
#define MORVA_HTTP2_FLOW_CONTROL_ERROR 3
#define MORVA_HTTP2_SETTINGS_TIMEOUT 4
#define MORVA_HTTP2_STREAM_CLOSED 5
#define MORVA_HTTP2_FRAME_SIZE_ERROR 6
#define MORVA_HTTP2_REFUSED_STREAM 7
#define MORVA_HTTP2_CANCEL 8
#define MORVA_HTTP2_COMPRESSION_ERROR 9
#define MORVA_HTTP2_CONNECT_ERROR 10
#define MORVA_HTTP2_ENHANCE_YOUR_CALM 11
#define MORVA_HTTP2_INADEQUATE_SECURITY 12
#define MORVA_HTTP2_HTTP_1_1_REQUIRED 13
#define MORVA_HTTP2_ERROR_CODE_COUNT 14
// Not on the wire: the stream was lost with its connection (closed, or refused before sending).
#define MORVA_HTTP2_CONNECTION_LOST -1

#define HTTP2_MAX_EPOLL_THREADS 10
#define HTTP2_MAX_EPOLL_EVENTS 20
#define HTTP2_FRAME_TYPE_COUNT 10
#define EVENT_HANDLER_ON_ACCEPT 1
#define EVENT_HANDLER_ON_CLOSE 2
#define EVENT_HANDLER_ON_BUFFER_RECV 3
#define EVENT_HANDLER_ON_WINDOW_UPDATE 4

#define MORVA_HTTP2_MAX_SERVERS 10

struct MV_Http2Connection;
struct MV_Http2ConnectionPool;

// ---------------------------------------------------------------- frames

struct MV_Http2FrameFlags {
    uint8_t EndStream;
    uint8_t EndHeaders;
    uint8_t Padded;
    uint8_t IsAck;
    uint8_t Priority;
};

// The standard's 9-byte frame header, decoded.
struct MV_Http2FrameHeader {
    int PayLoadLength;
    uint8_t Type;
    uint8_t Flags;
    int32_t StreamId;
    MV_Http2FrameFlags FrameFlags;
};

// Writes the 9-byte header; returns 9.
int __mv_http2_frame_encode_header(uint8_t* out, int len, int type, int flags, int32_t streamId);
// Decodes 9 bytes; the flags a type defines are spelled out in FrameFlags.
void __mv_http2_frame_decode_header(const uint8_t* in, MV_Http2FrameHeader* h);
// "PROTOCOL_ERROR", "DATA" and the like, for log lines.
const char* __mv_http2_error_name(int code);
const char* __mv_http2_frame_name(int type);

// ---------------------------------------------------------------- blocks

// Blocks that cross to the application: size classes below their limit, the system
// heap above it (a 10 MB body), one free for both.
[[nodiscard]] void* __mv_http2_block_alloc(size_t size);
[[nodiscard]] void* __mv_http2_block_realloc(void* ptr, size_t size);
void __mv_http2_block_free(void* ptr);
// A length kept in the block's head (the part of it in use).
void __mv_http2_block_set_used(void* ptr, uint32_t used);
uint32_t __mv_http2_block_used(const void* ptr);

// nghttp2's allocator hooks on the blocks above (mem_http2).
void* __mv_http2_malloc(size_t size, void* mem_user_data);
void __mv_http2_free(void* ptr, void* mem_user_data);
void* __mv_http2_calloc(size_t nmemb, size_t size, void* mem_user_data);
void* __mv_http2_realloc(void* ptr, size_t size, void* mem_user_data);
extern nghttp2_mem mem_http2;

// ---------------------------------------------------------------- messages and streams

// Kinds of work on a connection's application line.
#define MV_HTTP2_MSG_HEADERS 1   // a header block to decode (and keep for its message)
#define MV_HTTP2_MSG_DELIVER 2   // a whole message
#define MV_HTTP2_MSG_FAILED 3    // a stream that ended without its message
#define MV_HTTP2_MSG_PUMP 4      // data waiting for the window: write what now fits

// The unit handed to the application.
struct MV_HttpMessage {
    MV_HttpMessage* Next;
    int IsRequest;
    MV_Http2Connection* conn;
    int32_t StreamId;
    uint8_t* header;
    int headerlen;
    uint8_t* data;
    long datalen;
    // below: how the line treats it
    int Kind;
    int ErrorCode;           // MV_HTTP2_MSG_FAILED: the stream's error code
    uint32_t ConnGen;        // the connection's life it belongs to
    void* Context;           // MV_HTTP2_MSG_FAILED: the waiting entry, taken out of the map
    uint8_t EndStream;       // MV_HTTP2_MSG_HEADERS: the block closed the stream
    uint8_t Discard;         // MV_HTTP2_MSG_HEADERS: decode for the table only
    uint8_t AlsoDeliver;     // MV_HTTP2_MSG_HEADERS: the message ends here too (data, Context set)
};

// One stream of a connection, from its first frame to its close, both directions.
struct MV_Http2Stream {
    MV_Http2Stream* Prev;   // the connection's list of streams with data waiting to go out
    MV_Http2Stream* Next;
    MV_Http2Connection* conn;
    int32_t StreamId;
    int Count;              // frames received
    long TotalBufferSize;   // payload bytes received
    uint8_t State;          // MV_HTTP2_STREAM_...
    uint8_t InSendList;
    uint8_t HeaderBlockDone;  // the first header block has been seen
    uint8_t HeadersSent;    // our header block went out
    uint8_t LocalEnded;     // we sent END_STREAM
    uint8_t RemoteEnded;    // the peer sent END_STREAM
    // receiving
    int32_t RecvWindow;     // what the peer may still send on this stream
    int32_t RecvConsumed;   // taken since the last WINDOW_UPDATE of the stream
    uint8_t* Data;          // the body so far
    long DataLen;
    long DataCap;
    // sending
    int64_t SendWindow;     // what the peer lets us send; may fall below 0 on a SETTINGS change
    uint8_t* OutData;       // our bytes that did not fit the window yet
    long OutLen;
    long OutPos;
    long OutCap;
    uint8_t OutEnd;         // END_STREAM goes with the last of OutData
};

#define MV_HTTP2_STREAM_IDLE 0
#define MV_HTTP2_STREAM_OPEN 1
#define MV_HTTP2_STREAM_HALF_CLOSED_LOCAL 2
#define MV_HTTP2_STREAM_HALF_CLOSED_REMOTE 3
#define MV_HTTP2_STREAM_CLOSED 4

// Open addressing from a stream id to a record: stream lookups and the map of waiting
// requests are hit several times per message and never scan.
class MV_Http2IdMap {
public:
    void* find(int32_t id) const;
    void insert(int32_t id, void* v);  // replaces
    void* erase(int32_t id);           // the value taken out, or null
    int count() const { return int(count_); }
    // Takes every entry out, in no particular order.
    template <class F>
    void drain(F&& f) {
        for (auto& s : slots_)
            if (s.id) {
                int32_t id = s.id;
                void* v = s.v;
                s = Slot{};
                f(id, v);
            }
        count_ = 0;
    }
    template <class F>
    void forEach(F&& f) const {
        for (const auto& s : slots_)
            if (s.id) f(s.id, s.v);
    }

private:
    struct Slot {
        int32_t id = 0;
        void* v = nullptr;
    };
    void grow();
    std::vector<Slot> slots_;
    uint32_t count_ = 0;
};

// ---------------------------------------------------------------- servers

struct MV_Http2ServerInfo {
    int Port;
    int IPVersion;
    int isStarted;
    int Tls;
    char Cert[249];
    char pKey[249];
    MV_Socket* siSocket;
    char IP[46];  // the address to listen on; empty is any
};

// ---------------------------------------------------------------- connections

#define MV_HTTP2_CONN_IDLE 0
#define MV_HTTP2_CONN_CONNECTING 1
#define MV_HTTP2_CONN_ACTIVE 2
// After our GOAWAY for an error: input is dropped, the socket closes a moment later, so
// that the peer reads the GOAWAY before the reset of the close.
#define MV_HTTP2_CONN_CLOSING 3

// One per TCP connection, from the arena, never freed; a client record is connected
// again after a close, an accepted one is reused with its child socket.
struct MV_Http2Connection {
    MV_Http2Connection* Next;
    MV_Http2ConnectionPool* Pool;
    MV_Http2Connection* PoolNext;
    int id;                       // index in the pool; selects the application line
    std::atomic<int> RowVersion;  // raised at each accept on the same record
    char PeerFQDN[249];
    char PeerIP[46];
    int PeerPort;
    int PeerIPVersion;
    int Tls;
    MV_Socket* siSocket;
    char Authority[64];  // "ip:port" ("[ip]:port"), as requests name the peer
    std::atomic<int> StartGracefulShutdown;  // set when we send a GOAWAY
    std::atomic<int32_t> LastReceivedStreamId;
    std::atomic<int32_t> LastSuccesfulStreamId;
    int32_t StreamId;  // last stream id given out
    MV_Mutex StreamId_Lock;
    // open streams by id, and the streams with data waiting for the window
    MV_Http2IdMap Streams;
    MV_Http2Stream* StreamHead;
    MV_Http2Stream* StreamCurrent;
    std::atomic<int> StreamCount;  // open streams
    std::atomic<int> WaitingCount;  // streams on the list above, read without the lock
    MV_Mutex StreamLock;
    // file responses waiting to be sent (the daemon's)
    void* ResponseStreamHeader;
    void* ResponseStreamCurrent;
    std::atomic<int> ResponseStreamCount;
    MV_Mutex ResponseStreamLock;
    std::atomic<int> waitingForWindowUpdate;
    MV_Mutex WaitingForWindowUpdateLock;
    std::recursive_mutex RecvFrameLock;  // the reader; a close from inside a read takes it again
    std::atomic<int> invalidFrameCount;
    MV_Mutex StreamSendLock;  // stream ids and header blocks leave in the order they are made
    MV_Mutex PrefaceLock;     // connection set-up and close
    std::atomic<int> isPrefaceReceived;
    std::atomic<int> isPrefaceSent;
    std::atomic<int> isPushEnabled;
    std::atomic<int> isSettingsSent;
    std::atomic<int> isActive;  // MV_HTTP2_CONN_...
    std::atomic<int> ReceivedSettingsAck;
    std::atomic<int> ReceivedPushPromise;
    int MaxConcurrentStreams;
    int InitialWindowSize;
    int EnablePush;
    uint32_t ConnId;
    std::atomic<long> SentContextCount;
    MV_Mutex SentContextCountLock;
    int isServer;
    MV_Http2ServerInfo* serverInfo;
    char sGoAwayOpagueData[5];
    char sPingOpagueData[9];
    std::atomic<int> ProtocalError;
    std::atomic<uint32_t> Peer_HeaderListSize;
    std::atomic<uint32_t> Peer_HeaderTableSize;
    std::atomic<int> Peer_MaxConcurrentStreams;
    std::atomic<int> Peer_InitialWindowSize;
    std::atomic<int> Peer_EnablePush;
    std::atomic<int> Peer_FrameSize;
    std::atomic<int> windowUpdateValue;
    // stream id to the waiting request context
    MV_Http2IdMap sentRequestContexts;
    MV_Mutex sentRequestContextsLock;
    std::atomic<long> lastCommunication;  // timer tick of the last traffic
    nghttp2_hd_inflater* http2Inflator;   // the application line's own

    // ---- below: what the fields above do not hold
    std::atomic<uint32_t> ConnGen;  // one life of the connection: raised at each connect and accept
    // receiving (the reader's)
    std::vector<uint8_t> RxBuf;
    size_t RxPos;
    int32_t RecvWindow;            // connection window the peer may still fill
    int32_t RecvConsumed;
    std::atomic<int32_t> HighestPeerStreamId;   // highest stream the peer opened
    std::atomic<int32_t> HighestLocalStreamId;  // highest stream we opened
    int32_t ContinuationStreamId;  // a header block waits for CONTINUATION on this stream
    uint8_t ContinuationEndStream;
    uint8_t ContinuationDiscard;
    uint8_t* HeaderBlock;          // the header block being gathered
    long HeaderBlockLen;
    long HeaderBlockCap;
    int FirstFrameSeen;            // the peer's first frame must be SETTINGS
    std::atomic<int> PeerSettingsReceived;  // its first SETTINGS are in force
    std::atomic<int> GoAwayReceived;
    std::atomic<int32_t> GoAwayLastStreamId;
    std::atomic<int> GoAwayErrorCode;
    std::atomic<long> ClosingSince;  // timer tick of the GOAWAY that began the close
    // sending
    std::atomic<int64_t> SendWindow;  // connection window the peer gave us
    MV_Mutex OutLock;
    std::vector<uint8_t> OutBuf;      // frames gathered for the next write
    std::vector<uint8_t> WriteBuf;    // frames being written (the writer's)
    std::atomic<int> Writing;
    std::atomic<int> PumpQueued;
    nghttp2_hd_deflater* http2Deflator;  // under StreamSendLock
    uint32_t DeflatorTableSize;
    // the application line's: header blocks decoded ahead of their message
    MV_Http2IdMap AppHeaders;
    uint32_t AppGen;
    int AppDecodeFailed;
    // counts
    std::atomic<uint64_t> FramesReceived;
    std::atomic<uint64_t> FramesSent;
    std::atomic<uint64_t> StreamsOpened;
    // a connection with no socket (tests, fuzzing, benchmarks)
    int Detached;
    void (*DetachedSink)(MV_Http2Connection* conn, const uint8_t* bytes, int len);
    MV_HttpMessage* DetachedHead;
    MV_HttpMessage* DetachedTail;
    // the reader's messages of one pass, posted together at its end
    MV_HttpMessage* PassHead;
    MV_HttpMessage* PassTail;
};

struct MV_Http2ConnectionPool {
    MV_Http2ConnectionPool* Next;
    int id;
    std::atomic<int> LastServerdItem;
    MV_Http2Connection* PoolHead;
    MV_Http2Connection* PoolCurrent;
    std::atomic<int> PoolCount;
    MV_Mutex PoolLock;
    int http2ConnPoolSize;
    int http2LoadBalancingMode;
    std::atomic<uint64_t> http2MessageCount;
    MV_Mutex http2MessageCountLock;
    char PeerFQDN[249];
    char PeerIP[46];
    int PeerPort;
    int PeerIPVersion;
    int Tls;
};

// ---------------------------------------------------------------- handlers

// A whole message, on the connection's application line; header and data are the handler's.
typedef void (*fn_http2_app_request_handler)(MV_Http2Connection* conn, int32_t StreamId, uint8_t* header,
                                              int headerlen, uint8_t* data, long datalen);
// A message the endpoint could not take (the application queue refused it).
typedef void (*fn_http2_app_error_handler)(MV_Http2Connection* conn, int32_t StreamId, int httpStatusCode);
// The peer opened its window; on a reading thread.
typedef void (*fn_http2_window_update_handler)(MV_Http2Connection* conn);
// The whole record instead of its six values; Context holds what waited for a response
// (taken out of the map when the stream ended). Takes precedence over the form above.
typedef void (*fn_http2_app_message_handler)(MV_HttpMessage* msg);
// A stream that ended without its message (reset, refused, connection lost), on the
// application line. `context` is what was waiting for it, already out of the map.
typedef void (*fn_http2_stream_error_handler)(MV_Http2Connection* conn, int32_t StreamId, void* context,
                                             int errorCode);

// ---------------------------------------------------------------- the engine record

struct __mv_http2_connection_manager;

struct __mv_http2_engine {
    MV_Http2ServerInfo Server[MORVA_HTTP2_MAX_SERVERS];
    int ServerCount;

    int HeaderListSize;
    int HeaderTableSize;
    int MaxConcurrentStreams;
    int InitialWindowSize;
    int EnablePush;
    int FrameSize;
    int HeaderTableSize_ShareToPeer;
    int EnablePush_ShareToPeer;
    int MaxConcurrentStreams_ShareToPeer;
    int WindowSize_ShareToPeer;
    int FrameSize_ShareToPeer;
    int HeaderListSize_ShareToPeer;

    MV_TypedPool<MV_HttpMessage> MessagePool;
    MV_TypedPool<MV_Http2Stream> StreamPool;
    std::atomic<long> TotalQueueRejected;
    std::atomic<long> TotalFrameReceived;
    std::atomic<int> TotalStreamsReceivedPerSecond;
    std::atomic<int> TotalStreamsReceived;

    MV_Http2ConnectionPool* PoolHead;
    MV_Http2ConnectionPool* PoolCurrent;
    MV_Mutex PoolLock;
    MV_Http2Connection* ConnectionHead;
    MV_Http2Connection* ConnectionCurrent;
    MV_Mutex ConnectionLock;
    std::atomic<uint32_t> HttpConnId;

    int (*GetConnectionByUri)(const char* baseUri, MV_Http2Connection** httpConn);
    int (*GetConnectionByIP)(const char* ip, int ipversion, int port, int tlsEnabled, MV_Http2Connection** httpConn);
    int (*AddHost)(int version, int port);
    int (*AddTlsHost)(int version, int port, const char* serverCert, const char* certPublicKey);
    int (*StartServer)();
    int (*CreateConnectionPool)(int count, const char* ip, int port, int ipversion, int tls,
                                MV_Http2ConnectionPool** connectionPool);

    void* appMessageQueue;
    int appMessageQueueThreads;
    int clientConnectionTimeOut_toCloseIt;

    fn_http2_app_request_handler AppRequestHandler;
    fn_http2_app_message_handler AppMessageHandler;
    fn_http2_app_error_handler AppRequestErrorHandler;
    fn_http2_window_update_handler WindowUpdateHandler;
    fn_http2_stream_error_handler StreamErrorHandler;

    // Errors by code, sent and received, for the statistics line and for tests.
    std::atomic<long> ErrorsSent[MORVA_HTTP2_ERROR_CODE_COUNT];
    std::atomic<long> ErrorsReceived[MORVA_HTTP2_ERROR_CODE_COUNT];
    std::atomic<long> TotalFramesSent;
};

extern __mv_http2_engine* __mv_http2Engine;

// The operations of a connection, by the names the layers above use.
struct __mv_http2_connection_manager {
    int (*Connect)(MV_Http2Connection* conn);
    int (*IsConnected)(MV_Http2Connection* conn);
    int (*IsServer)(MV_Http2Connection* conn);
    int (*IsPushEnabled)(MV_Http2Connection* conn);
    int (*IsPrefaceSent)(MV_Http2Connection* conn);
    int (*IsSettingSent)(MV_Http2Connection* conn);
    int (*IsPrefaceReceived)(MV_Http2Connection* conn);
    int (*HasFrameBuffer)(MV_Http2Connection* conn);
    int (*SendPreface)(MV_Http2Connection* conn);
    int (*SendSettingsAck)(MV_Http2Connection* conn);
    int (*SendWindowUpdate)(MV_Http2Connection* conn, int32_t streamId, int32_t increment);
    int (*SendGoAway)(MV_Http2Connection* conn, int errorCode);
    int (*SendPing)(MV_Http2Connection* conn, const uint8_t* opaque8);
    int (*SendPriority)(MV_Http2Connection* conn, int32_t streamId);
    int (*SendRstStream)(MV_Http2Connection* conn, int32_t streamId, int errorCode);
    int (*SendPushPromise)(MV_Http2Connection* conn, int32_t streamId);
    int (*SendSettings)(MV_Http2Connection* conn);
    int (*SendEmptySettings)(MV_Http2Connection* conn);
    int (*SendFrame)(MV_Http2Connection* conn, int type, int32_t streamId, int iendheader, int endstream,
                     const uint8_t* data, int len);
    int (*Send)(MV_Http2Connection* conn, int32_t StreamId, const uint8_t* header, int headerlen, const uint8_t* data,
                long datalen);
    int (*SendData)(MV_Http2Connection* conn, const uint8_t* bytes, int len);
};
extern __mv_http2_connection_manager __mv_http2ConnMgr;

struct __mv_http2_connection_pool_manager {
    int (*GetPoolCount)(MV_Http2ConnectionPool* pool);
    int (*GetNext)(MV_Http2ConnectionPool* pool, MV_Http2Connection** conn);
    int (*GetConnection)(MV_Http2ConnectionPool* pool, MV_Http2Connection** conn);
};
extern __mv_http2_connection_pool_manager __mv_http2ConnPoolMgr;

// ---------------------------------------------------------------- start and servers

// Once: socket engine, defaults, records, the application lines, "h2-mont".
void __mv_http2_engine_init();
// Notes a listener; 1, or 0 when the table is full. ip may be null (any).
int __mv_http2_engine_add_host(int version, int port);
int __mv_http2_engine_add_host2(const char* ip, int version, int port);
// No cipher work is done here: a TLS listener is refused with a log line (0).
int __mv_http2_engine_add_tls_host(int version, int port, const char* serverCert, const char* certPublicKey);
// Epoll threads and a TCP server per noted listener; 1.
int __mv_http2_engine_start_hosts();

// Socket callbacks.
void __mv_http2_engine_on_accept(MV_Socket* newSocket, MV_Socket* hostSocket);
void __mv_http2_engine_on_close(MV_Socket* siSocket);
void __mv_http2_engine_on_buffer_recv(MV_Socket* siSocket);

void __mv_http2_engine_set_app_request_handler(fn_http2_app_request_handler app_req_handler);
void __mv_http2_engine_set_app_request_error_handler(fn_http2_app_error_handler fp_handler);
void __mv_http2_engine_set__set_window_update_handler(fn_http2_window_update_handler wuh);
void __mv_http2_engine_set_stream_error_handler(fn_http2_stream_error_handler seh);
void __mv_http2_engine_set_app_message_handler(fn_http2_app_message_handler amh);
// Gives a message record back, with the blocks it still holds.
void __mv_http2_engine_release_message(MV_HttpMessage* msg);
// 3 to 100, before __mv_http2_engine_init makes the lines; 1 taken, 0 not.
int __mv_http2_engine_set_app_thread_count(int numThreads);
// 0 and 500 or more mean 100.
void __mv_http2_engine_set_max_concurrent_streams(int iMaxConcurrentStreams);

// ---------------------------------------------------------------- sending

// A whole message on a stream: HEADERS (with CONTINUATION when the block is larger than a
// frame) and the data within the peer's windows; what does not fit yet follows as the
// peer opens them. A client's first send on a new id opens the stream. `header` is an
// encoded block (__mv_http2_engine_encode_headers). Bytes queued, 0 when the stream
// cannot take it (closed, reset, over the peer's stream limit), -1 on a bad argument,
// -EIO when the connection is down.
int __mv_http2_engine_send(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* header, int headerlen,
                           const uint8_t* data, long datalen);
// The same with the fields encoded here, under the caller's MV_Http2SendGuard, once the
// stream is known to take them. END_STREAM goes with the data when remDataLen is 0.
int __mv_http2_engine_send_nv(MV_Http2Connection* httpConn, int32_t StreamId, const nghttp2_nv* nv, size_t nvlen,
                              const uint8_t* data, long datalen, long remDataLen);
// A message in pieces: END_STREAM goes with the piece whose remDataLen is 0.
int __mv_http2_engine_begin_stream(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* header, int headerlen,
                                   const uint8_t* data, long datalen, long remDataLen);
int __mv_http2_engine_data_stream(MV_Http2Connection* httpConn, int32_t StreamId, const uint8_t* data, long datalen,
                                  long remDataLen);
// A raw frame (DATA, HEADERS, CONTINUATION only; others -1). No stream state is kept:
// for tests and odd peers. A null connection prints "connection got null %d\n" and gives -EIO.
int __mv_http2_engine_send_frame(MV_Http2Connection* conn, int type, int32_t streamId, int iendheader, int endstream,
                                 const uint8_t* data, int len);
// Writes what has gathered on the connection, unless this thread holds its send guard
// or is the application line running the connection's messages (then at their end).
void __mv_http2_engine_flush(MV_Http2Connection* conn);
// Bytes waiting to be written on the connection, and in the streams for the window.
long __mv_http2_engine_pending_bytes(MV_Http2Connection* conn);

// Holds the connection's StreamSendLock: ids are taken and header blocks encoded and
// queued in one order. The flush waits for the guard's end.
class MV_Http2SendGuard {
public:
    explicit MV_Http2SendGuard(MV_Http2Connection* c);
    ~MV_Http2SendGuard();
    MV_Http2SendGuard(const MV_Http2SendGuard&) = delete;
    MV_Http2SendGuard& operator=(const MV_Http2SendGuard&) = delete;

private:
    MV_Http2Connection* conn_;
    MV_Http2Connection* outer_;
};

// ---------------------------------------------------------------- HPACK

// Encodes a header list with the connection's encoder; call under MV_Http2SendGuard, and
// queue the block before the guard ends. Bytes written, or -1.
int __mv_http2_engine_encode_headers(MV_Http2Connection* conn, const nghttp2_nv* nv, size_t nvlen, uint8_t* out,
                                     size_t outcap);
// Upper bound of an encoding of nvlen fields.
size_t __mv_http2_engine_encode_bound(MV_Http2Connection* conn, const nghttp2_nv* nv, size_t nvlen);
// Walks the flat form of decoded fields: 1 with a field, 0 at the end.
int __mv_http2_engine_next_header(const uint8_t* block, int blocklen, int* pos, const char** name, int* namelen,
                                  const char** value, int* valuelen);
// Appends one field in the flat form; for tests and the layers above.
int __mv_http2_engine_put_header(uint8_t* block, int cap, int pos, const char* name, int namelen, const char* value,
                                 int valuelen);

// ---------------------------------------------------------------- connections

// On a client: connected, preface and our SETTINGS sent. 1, 0 for a server connection,
// -1 when the connection cannot be made or is closing after a GOAWAY with streams open.
int __mv_http2_engine_refresh_client_connection(MV_Http2Connection* httpConn);
// Clients 1, 3, 5...; servers 2, 4, 6...; 0 when the connection's ids are used up
// (it then closes when its streams end, and the next refresh starts again at 1).
int32_t __mv_http2_engine_getNextStreamId(MV_Http2Connection* httpConn);
int __mv_http2_engine_get_connection_by_ip(const char* ip, int ipversion, int port, int tlsEnabled,
                                           MV_Http2Connection** httpConn);
int __mv_http2_engine_get_connection_by_host_name(const char* baseUri, MV_Http2Connection** httpConn);
int __mv_http2_engine_find_connection(const char* ip, int ipversion, int port, int bCreateIfNotExists, int tls,
                                      MV_Http2Connection** pHttpConn);
// 1, or 0 when the host does not resolve. serverIp holds at least 46 bytes.
int __mv_http2_engine_parse_uri(const char* baseUri, char* serverIp, int* iport, int* tls, int* ipver);
// Closes the connection with a GOAWAY of the code (NO_ERROR for a plain close).
void __mv_http2_engine_close_connection(MV_Http2Connection* conn, int errorCode);

int __mv_http2_engine_create_connection_pool(int count, const char* ip, int port, int ipversion, int tls,
                                             MV_Http2ConnectionPool** connectionPool);
int __mv_http2_engine_get_connection_from_pool(MV_Http2ConnectionPool* httpConnPool, MV_Http2Connection** pHttpConn);
int __mv_http2_engine_get_next_connection(MV_Http2ConnectionPool* httpConnPool, MV_Http2Connection** pHttpConn);
int __mv_http2_engine_get_connection_pool_count(MV_Http2ConnectionPool* httpConnPool);
int __mv_http2_engine__scaleup_pool(MV_Http2ConnectionPool* connectionPool);

// The map of waiting requests, by stream id. find_and_Delete takes the entry out and
// hands it over (1), or logs "Context Not Found for StreamId=%u <%s|%d>" (0). clearPath
// takes it out when it is still there: 1 if it was, 0 otherwise.
int __mv_http2_engine_add_stream_to_connection(MV_Http2Connection* httpConn, int32_t StreamId, void* data);
int __mv_http2_engine_find_and_Delete_from_connection(MV_Http2Connection* httpConn, int32_t StreamId, void** data);
int __mv_http2_engine_clearPath(MV_Http2Connection* httpConn, int32_t StreamId);
// Takes the entry out only if it is still `data` of that life of the connection; 1 if so.
int __mv_http2_engine_clearPath_if(MV_Http2Connection* httpConn, uint32_t connGen, int32_t StreamId, void* data);

void __mv_http2_engine_add_incr_sent_request(MV_Http2Connection* httpConn);
void __mv_http2_engine_add_decr_sent_request(MV_Http2Connection* httpConn);
long __mv_http2_engine_get_sent_request_count(MV_Http2Connection* httpConn);

void __mv_http2_engine_print_stats();

// ---------------------------------------------------------------- the receive machine

// Frames in `bytes` as if read from the connection's socket (the reader's path without a
// socket): for the frame decoder's fuzzing, tests and benchmarks.
void __mv_http2_engine_receive_bytes(MV_Http2Connection* conn, const uint8_t* bytes, size_t len);
// A connection with no socket whose writes go to `sink`; closes call `onClose` if set.
typedef void (*fn_http2_test_sink)(MV_Http2Connection* conn, const uint8_t* bytes, int len);
MV_Http2Connection* __mv_http2_engine_new_detached_connection(int isServer, fn_http2_test_sink sink);
// A detached connection closed and begun again, as a new one would be.
void __mv_http2_engine_reset_detached(MV_Http2Connection* conn);
// The records and defaults alone, without sockets or threads (fuzzing, benchmarks).
void __mv_http2_engine_init_detached();
// Runs the application line's work of the connection on this thread (detached connections).
void __mv_http2_engine_run_app_line(MV_Http2Connection* conn);
