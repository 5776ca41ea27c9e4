// The PFCP stack of the control-plane side: one UDP socket through the socket engine, the peer list,
// associations and heartbeats both ways, sequence numbers, retransmission and the answers to repeated
// requests. It holds no session state: session messages go up through the handlers it was given,
// and the emulation above sends its requests and answers through it.
//
// Threads:
//   the queue lines        take datagrams from the socket engine and queue them in arrival order;
//   the receive thread     (the one consumer of pfcpMsgQueue) decodes, answers node requests and
//                          calls OnSessionMessage and OnAssociation;
//   "pfcp-evt"             starts associations, sends heartbeats, retransmits, and calls
//                          OnRequestFailed and OnAssociation;
//   any thread             may send (__mv_pfcp__send_request, __mv_pfcp__send_response, __mv_pfcp__send_msg).
// A received record and its octet strings are valid only during the handler's call.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "mv_socket_engine.h"
#include "pfcp_codec.h"

#define PFCP_NODE_TYPE__GATWEAY 1    // this stack: the control-plane side
#define PFCP_NODE_TYPE__USERPLANE 2  // a UPF added by configuration
#define PFCP_NODE_TYPE__LEARNED 0    // a peer that sent us a request first

// isAssociationStarted
#define PFCP_ASSOCIATION__NOT_STARTED 0
#define PFCP_ASSOCIATION__REQUEST_SENT 1
#define PFCP_ASSOCIATION__SEND_FAILED 2
#define PFCP_ASSOCIATION__ASSOCIATED 4

#define PFCP_DEFAULT_PORT 8805
#define PFCP_MAX_LEARNED_PEERS 1024

// Why an association went down or was not made (the cause of OnAssociation).
#define PFCP_DOWN__HEARTBEAT_LOST 1  // more heartbeats unanswered than allowed
#define PFCP_DOWN__PEER_RESTARTED 2  // the peer's recovery time stamp changed
#define PFCP_DOWN__PEER_RELEASED 3   // the peer asked for a release
#define PFCP_DOWN__RELEASED 4        // we released it
#define PFCP_DOWN__REFUSED 5         // the peer answered our setup request with a cause other than accepted

// Why a request failed (the reason of OnRequestFailed).
#define PFCP_FAILED__NO_RESPONSE 1
#define PFCP_FAILED__VERSION_NOT_SUPPORTED 2

// Answers the peer sent to requests it had already answered are replayed from here.
#define PFCP_RESPONSE_CACHE 32

struct __mv_pfcp_cached_response {
    uint32_t seq;
    uint8_t type;       // the request's
    uint8_t state;      // 0 empty, 1 request in the handler, 2 answered
    __mv_buff_t* msg;   // the answer as sent
    int64_t expiresMs;
};

struct __mv_pfcp_node {
    std::atomic<__mv_pfcp_node*> Next;  // peers are appended and never removed: read without a lock
    int port;
    int ipversion;
    char address[50];
    struct sockaddr_in addr;
    struct sockaddr_in6 addr6;
    std::atomic<uint32_t> upfAccesIP;
    std::atomic<int> isAssociationStarted;
    std::atomic<int> nodeType;
    int id;
    // Monotonic clock readings; under Lock.
    struct timeval lastheartbeatsent;
    struct timeval lastmsgsent;
    struct timeval lastmsg;
    std::atomic<int> pending_heartbeat_response;
    std::atomic<int> heartBeatStatus;  // 1 while heartbeats are answered

    MV_Mutex Lock;
    std::atomic<uint32_t> peerRecoveryTimeStamp;  // from its last association or heartbeat, 0 before
    std::atomic<int> released;                     // 1 after our release: no new association until asked
    std::atomic<int> lastCause;                    // of its last association setup response
    __mv_pfcp_cached_response cache[PFCP_RESPONSE_CACHE];
    unsigned cacheNext;
};
typedef __mv_pfcp_node __mv_pfcp_node_t;

// Timings, in milliseconds; the defaults are the engine's. Set before __mv_pfcp__initalize.
struct __mv_pfcp_timers {
    int AssociationRetryMs = 6000;   // a new setup request when the last got no accepted answer for longer
    int HeartbeatIntervalMs = 13000;
    int HeartbeatMaxPending = 3;     // the peer is down with more heartbeats unanswered
    int T1Ms = 3000;                 // a request is sent again after this long without an answer
    int N1 = 1;                      // times; then it has failed
    int TickMs = 100;                // how often "pfcp-evt" looks at deadlines
    uint32_t MaxOpenRequests = 16384;
};

// The session messages (types 50 to 57): a request of the peer, or the answer to one of ours.
typedef void (*__mv_pfcp_on_msg)(pfcp_message_t* msg, __mv_pfcp_node_t* node, uint32_t seqNo, uint64_t SEID);

struct __mv_pfcp_handlers {
    // As __mv_pfcp_on_msg, with the userData given to __mv_pfcp__send_request for an answer (null
    // for a request of the peer). On the receive thread.
    void (*OnSessionMessage)(pfcp_message_t* msg, __mv_pfcp_node_t* node, uint32_t seqNo, uint64_t SEID,
                             void* userData) = nullptr;
    // A request of ours had no answer (PFCP_FAILED__*). On "pfcp-evt", or the receive thread for a
    // version-not-supported answer.
    void (*OnRequestFailed)(__mv_pfcp_node_t* node, uint8_t type, uint32_t seqNo, uint64_t SEID, void* userData,
                            int reason) = nullptr;
    // A peer's association came up (state 4, cause 0), went down (state 0, cause PFCP_DOWN__*), or
    // was refused (state 1, PFCP_DOWN__REFUSED; the node's lastCause holds the peer's Cause). On the
    // receive thread or "pfcp-evt".
    void (*OnAssociation)(__mv_pfcp_node_t* node, int state, int cause) = nullptr;
};

// What the stack has seen since it started.
#define PFCP_STATS_FIELDS(X)                                                                              \
    X(rxDatagrams) X(rxQueueFull) X(rxBadVersion) X(rxBadLength) X(rxBadType) X(rxDecodeFailed)             \
    X(rxUnknownPeer) X(rxUnexpectedIEs) X(rxDroppedIEs) X(rxDuplicateRequests) X(rxLateResponses)           \
    X(rxWrongSeid) X(rxSessionMessages) X(txRequests) X(txResponses) X(txFailed) X(retransmissions)          \
    X(requestsFailed) X(associationsUp) X(associationsDown) X(associationsRefused) X(heartbeatsSent)         \
    X(heartbeatsAnswered) X(heartbeatsReceived) X(peersLearned) X(versionNotSupportedSent)
struct __mv_pfcp_stats {
#define PFCP_STAT_FIELD(name) uint64_t name;
    PFCP_STATS_FIELDS(PFCP_STAT_FIELD)
#undef PFCP_STAT_FIELD
};

struct __mv_pfcp {
    int type;
    int port;
    char networkInstance[51];
    char address[51];
    int ipversion;
    MV_Socket* serverSocket;
    struct sockaddr_in addr;
    struct sockaddr_in6 addr6;
    int nodeIdType;
    char nodeIdValue[121];
    int hearbeatInterval;  // seconds, from the timers
    std::atomic<__mv_pfcp_node*> nodeHead;  // read without nodeLock: peers are only ever appended
    std::atomic<__mv_pfcp_node*> nodeCurrent;
    MV_Mutex nodeLock;
    std::atomic<int> nodeCount;
    void* pfcpMsgQueue;
    std::atomic<uint32_t> seqNo;  // the first sequence number; the transactions hand out the rest
};

extern __mv_pfcp* __pfcpStack;

// ---------------------------------------------------------------- start

void __mv_pfcp__set_timers(const __mv_pfcp_timers* timers);
void __mv_pfcp__setOnPfcpMsg(__mv_pfcp_on_msg fp);
void __mv_pfcp__setHandlers(const __mv_pfcp_handlers* handlers);
// Once only (a second call returns 0 and changes nothing): the UDP socket at address:port, the
// receive queue and its thread, the event thread. 1 started; -1 for an address that is not IPv4 or a
// port already in use, with a log line.
int __mv_pfcp__initalize(int type, int port, int ipver, const char* address, int nodeIdType, const char* nodeIdValue);

// ---------------------------------------------------------------- peers

// A UPF to associate with: "pfcp-evt" sends its setup request at once. Null for an IPv6 or bad
// address, or before the stack started. Adding the same address and port again returns that node.
__mv_pfcp_node_t* __mv_pfcp__add_upf(const char* ipaddress, int ipv, int port);
// The node of that address and port; with add 1 a learned peer is made when there is none.
__mv_pfcp_node_t* __mv_pfcp__find_node_by_ip(const char* ip, int ipv, int port, int add);
__mv_pfcp_node_t* __mv_pfcp__get_root_node();
__mv_pfcp_node_t* __mv_pfcp__get_next_node(__mv_pfcp_node_t* node);
// Sends an Association Release Request; the node takes no new association until __mv_pfcp__associate.
// 1 sent, 0 not associated, -1 failed.
int __mv_pfcp__release_association(__mv_pfcp_node_t* node);
void __mv_pfcp__associate(__mv_pfcp_node_t* node);

// ---------------------------------------------------------------- sending

// A sequence number for a request the caller builds itself (pfcp_build_msg, pfcp__set_request_header,
// __mv_pfcp__send_msg); 0 when too many requests are open.
uint32_t __mv_pfcp__get_seqno();
// Sends a built datagram and takes it: a request on a number from __mv_pfcp__get_seqno is kept for
// retransmission until answered, an answer is kept for a repeated request; anything else is freed.
// Returns the octets sent.
int __mv_pfcp__send_msg(__mv_pfcp_node_t* node, __mv_buff_t* pmsg);
// Builds and sends a request of msg->h.type (with h.seid for a session message) on a fresh sequence
// number, and tracks it: the answer reaches OnSessionMessage with `userData`, and one that carries a
// SEID other than `localSeid` (when not 0) is refused. Returns the sequence number, 0 when nothing
// went out (too many open requests, a message that does not encode, a failed send).
uint32_t __mv_pfcp__send_request(__mv_pfcp_node_t* node, pfcp_message_t* msg, uint64_t localSeid, void* userData);
// Builds and sends the answer of msg->h.type (with h.seid for a session message) to the request
// `seqNo`. Returns the octets sent.
int __mv_pfcp__send_response(__mv_pfcp_node_t* node, pfcp_message_t* msg, uint32_t seqNo);

// ---------------------------------------------------------------- queries

uint32_t __mv_pfcp__getIPv4_addr();          // host order
const uint8_t* __mv_pfcp__getIPv6_addr();    // 16 octets
int __mv_pfcp__node_ipversion();
void __mv_pfcp__set_accessip(uint32_t ip, __mv_pfcp_node_t* node);
uint32_t __mv_pfcp__get_accessip(__mv_pfcp_node_t* node);
// The recovery time stamp this stack sends (seconds since 1900).
uint32_t __mv_pfcp__recovery_time_stamp();
void __mv_pfcp__get_stats(__mv_pfcp_stats* out);
uint32_t __mv_pfcp__open_requests();
