// The PFCP stack: the socket, the peers, the receive path, associations and heartbeats.
#include "pfcp_node.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "mv_alloc.h"
#include "pfcp_xact.h"
#include "tlv_bytes.h"

__mv_pfcp* __pfcpStack = nullptr;

#define PFCP_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_CORE, level, fmt, ##__VA_ARGS__)

namespace {

// Seconds from 1900 to 1970: PFCP time stamps count from 1900.
constexpr uint32_t kNtpOffset = 2208988800u;
constexpr int kQueueItems = 5000;
// The network instance the association answer names, as the engine has always sent it.
constexpr char kNetworkInstance[] = " internet";

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
timeval toTimeval(int64_t ms) { return timeval{time_t(ms / 1000), suseconds_t(ms % 1000 * 1000)}; }
int64_t fromTimeval(const timeval& t) { return int64_t(t.tv_sec) * 1000 + t.tv_usec / 1000; }

// At most kPerSecond lines a second of one kind, so a flood of bad datagrams costs counters, not
// disk; the next line that passes says how many were left out.
class LogGate {
public:
    static constexpr int kPerSecond = 10;
    // True when the line may go out; `skipped` then holds the lines left out before it.
    bool pass(int64_t now, uint64_t& skipped) {
        std::lock_guard g(m_);
        if (now / 1000 != second_) {
            second_ = now / 1000;
            n_ = 0;
        }
        if (n_ >= kPerSecond) {
            ++skipped_;
            return false;
        }
        ++n_;
        skipped = skipped_;
        skipped_ = 0;
        return true;
    }

private:
    std::mutex m_;
    int64_t second_ = -1;
    int n_ = 0;
    uint64_t skipped_ = 0;
};

enum Gate { G_VERSION, G_LENGTH, G_TYPE, G_DECODE, G_UNKNOWN_PEER, G_LATE, G_SEID, G_IES, G_QUEUE, G_COUNT };

struct Stats {
#define PFCP_STAT_ATOMIC(name) std::atomic<uint64_t> name{0};
    PFCP_STATS_FIELDS(PFCP_STAT_ATOMIC)
#undef PFCP_STAT_ATOMIC
};

struct Stack {
    __mv_pfcp_timers timers;
    __mv_pfcp_handlers handlers;
    __mv_pfcp_on_msg onMsg = nullptr;
    PfcpXactTable xacts;
    Stats stats;
    LogGate gates[G_COUNT];
    uint32_t recoveryTimeStamp = 0;
    std::mutex startLock;
    std::mutex evtLock;
    std::condition_variable evtWake;
    bool evtKick = false;
    int learned = 0;  // under nodeLock
};

// Never destroyed: the stack's threads run until the process ends.
Stack& S() {
    static Stack* s = new Stack;
    return *s;
}

void kickEvents() {
    {
        std::lock_guard g(S().evtLock);
        S().evtKick = true;
    }
    S().evtWake.notify_one();
}

const char* peerText(const __mv_pfcp_node* n) { return n ? n->address : "?"; }

bool sameAddr(const sockaddr_in& a, const sockaddr_in& b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

int sendTo(const sockaddr_in& to, const uint8_t* data, int len) {
    __mv_pfcp* st = __pfcpStack;
    if (!st || !st->serverSocket) return -1;
    return __mv_socket_engine_udp_send2(st->serverSocket, reinterpret_cast<const sockaddr*>(&to), sizeof to, data, len);
}
int sendRaw(__mv_pfcp_node* node, const uint8_t* data, int len) { return node ? sendTo(node->addr, data, len) : -1; }

// ---------------------------------------------------------------- peers

__mv_pfcp_node* findNode(const sockaddr_in& a) {
    if (!__pfcpStack) return nullptr;
    for (__mv_pfcp_node* n = __pfcpStack->nodeHead.load(std::memory_order_acquire); n; n = n->Next.load(std::memory_order_acquire))
        if (sameAddr(n->addr, a)) return n;
    return nullptr;
}

// Appends a peer; null when a learned one would pass the cap.
__mv_pfcp_node* addNode(const sockaddr_in& a, int nodeType) {
    __mv_pfcp* st = __pfcpStack;
    std::lock_guard g(st->nodeLock);
    if (__mv_pfcp_node* n = findNode(a)) return n;
    if (nodeType == PFCP_NODE_TYPE__LEARNED && S().learned >= PFCP_MAX_LEARNED_PEERS) return nullptr;
    auto* n = __mv_arena_new<__mv_pfcp_node>();
    n->addr = a;
    n->port = ntohs(a.sin_port);
    n->ipversion = 4;
    inet_ntop(AF_INET, &a.sin_addr, n->address, sizeof n->address);
    n->nodeType = nodeType;
    n->id = st->nodeCount++;
    if (nodeType == PFCP_NODE_TYPE__LEARNED) {
        ++S().learned;
        ++S().stats.peersLearned;
    }
    __mv_pfcp_node* tail = st->nodeCurrent.load();
    if (tail) tail->Next.store(n, std::memory_order_release);
    else st->nodeHead.store(n, std::memory_order_release);
    st->nodeCurrent = n;
    return n;
}

void setState(__mv_pfcp_node* node, int state, int cause) {
    int old = node->isAssociationStarted.exchange(state);
    if (old == state && state != PFCP_ASSOCIATION__REQUEST_SENT) return;
    if (state == PFCP_ASSOCIATION__ASSOCIATED) ++S().stats.associationsUp;
    else if (old == PFCP_ASSOCIATION__ASSOCIATED) ++S().stats.associationsDown;
    if (S().handlers.OnAssociation && (state == PFCP_ASSOCIATION__ASSOCIATED || old == PFCP_ASSOCIATION__ASSOCIATED ||
                                       cause == PFCP_DOWN__REFUSED))
        S().handlers.OnAssociation(node, state, cause);
}

// ---------------------------------------------------------------- answers to repeated requests

// 0 a new request (now marked as in hand), 1 a repeat of one still in hand (dropped), 2 a repeat of
// one answered (the answer went out again).
int repeatedRequest(__mv_pfcp_node* node, uint32_t seq, uint8_t type, int64_t now) {
    std::lock_guard g(node->Lock);
    for (auto& c : node->cache) {
        if (c.state == 0 || c.seq != seq || c.type != type || c.expiresMs < now) continue;
        if (c.state == 2 && c.msg) sendRaw(node, c.msg->data, int(c.msg->len));
        return c.state;
    }
    auto& c = node->cache[node->cacheNext++ % PFCP_RESPONSE_CACHE];
    if (c.msg) __mv_buff__free(c.msg);
    int keep = S().timers.T1Ms * (S().timers.N1 + 1) * 4;
    c = {seq, type, 1, nullptr, now + (keep > 10000 ? keep : 10000)};
    return 0;
}

// Keeps an answer for repeats of its request; false when no request waits for it (not taken).
bool keepAnswer(__mv_pfcp_node* node, uint32_t seq, uint8_t requestType, __mv_buff_t* msg) {
    std::lock_guard g(node->Lock);
    for (auto& c : node->cache) {
        if (c.state == 1 && c.seq == seq && c.type == requestType) {
            c.state = 2;
            c.msg = msg;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- sending

// The datagram of a record in a new buffer, or null.
__mv_buff_t* encodeRecord(uint8_t type, const void* record, int s, uint64_t seid, uint32_t seq) {
    // Most messages fit a small scratch area: one walk and a copy. A larger one is sized first.
    uint8_t scratch[4096];
    tlv_result_t r;
    int total = pfcp_encode_record(type, record, s, seid, seq, scratch, &r);
    bool sized = total < 0 && r.error == TLV_ERR_NO_ROOM;
    if (sized) {
        const tlv_desc_t* desc = pfcp_find_msg_desc(type);
        int body = desc ? tlv_encoded_size(desc, record, TLV_MODE_T2_L2) : -1;
        total = body < 0 ? -1 : body + (s ? PFCP_HEADER_LEN : PFCP_NODE_HEADER_LEN);
    }
    if (total < 0) return nullptr;
    __mv_buff_t* b = __mv_buff__alloc(uint32_t(total));
    if (!b) return nullptr;
    if (!sized) {
        memcpy(b->data, scratch, size_t(total));
    } else if (pfcp_encode_record(type, record, s, seid, seq, std::span<uint8_t>(b->data, size_t(total))) != total) {
        __mv_buff__free(b);
        return nullptr;
    }
    b->len = b->pos = uint32_t(total);
    return b;
}

// Sends a request and tracks it: marked sent before it goes out, since the answer may be read before
// sendto returns. Returns the sequence number or 0.
uint32_t sendRequest(__mv_pfcp_node* node, uint8_t type, const void* record, uint64_t seid, uint64_t localSeid,
                     void* userData, int* sentBytes) {
    Stack& s = S();
    if (sentBytes) *sentBytes = 0;
    int64_t now = nowMs();
    uint32_t seq = s.xacts.reserve(now);
    if (!seq) {
        PFCP_LOG(MV_LOG_ERROR, "pfcp %s to ip=%s port=%d not sent: %u requests open  %s|%s|%d", pfcp_message_name(type),
                 peerText(node), node->port, s.xacts.open(), __FILE_NAME__, __func__, __LINE__);
        ++s.stats.txFailed;
        return 0;
    }
    int sflag = pfcp_is_session_message(type) ? 1 : 0;
    __mv_buff_t* b = encodeRecord(type, record, sflag, seid, seq);
    if (!b) {
        PFCP_LOG(MV_LOG_ERROR, "pfcp %s to ip=%s port=%d does not encode  %s|%s|%d", pfcp_message_name(type),
                 peerText(node), node->port, __FILE_NAME__, __func__, __LINE__);
        ++s.stats.txFailed;
        return 0;  // the reservation lapses after T1
    }
    const uint8_t* data = b->data;
    int len = int(b->len);
    if (!s.xacts.sent(seq, node, type, seid, localSeid, userData, b, now)) {
        __mv_buff__free(b);
        return 0;
    }
    int n = sendRaw(node, data, len);
    if (sentBytes) *sentBytes = n;
    if (n != len) {
        ++s.stats.txFailed;
        __mv_pfcp_xact_info info;
        (void)s.xacts.match(seq, node, 0, 0, info);  // nothing went out: no retransmission either
        return 0;
    }
    ++s.stats.txRequests;
    return seq;
}

int sendResponse(__mv_pfcp_node* node, uint8_t type, const void* record, uint64_t seid, uint32_t seq) {
    __mv_buff_t* b = encodeRecord(type, record, pfcp_is_session_message(type) ? 1 : 0, seid, seq);
    if (!b) {
        ++S().stats.txFailed;
        return -1;
    }
    int n = sendRaw(node, b->data, int(b->len));
    if (n == int(b->len)) ++S().stats.txResponses;
    else ++S().stats.txFailed;
    if (!keepAnswer(node, seq, uint8_t(type - 1), b)) __mv_buff__free(b);
    return n;
}

struct LocalNodeId {
    uint8_t bytes[5];
    int len;
};
LocalNodeId localNodeId() {
    LocalNodeId id{};
    // Without a local IPv4 address the Node ID goes out empty, as it always has.
    if (__pfcpStack && __pfcpStack->ipversion == 4) id.len = pfcp_node_id_ipv4(id.bytes, __mv_pfcp__getIPv4_addr());
    return id;
}

void setOctets(tlv_octet_t& f, const uint8_t* p, int len) {
    f.presence = 1;
    f.data = p;
    f.len = uint32_t(len > 0 ? len : 0);
}
void setU8(tlv_uint8_t& f, uint8_t v) {
    f.presence = 1;
    f.u8 = v;
}
void setU32(tlv_uint32_t& f, uint32_t v) {
    f.presence = 1;
    f.u32 = v;
}

int sendAssociationSetupRequest(__mv_pfcp_node* node) {
    pfcp_association_setup_request_t r{};
    LocalNodeId id = localNodeId();
    setOctets(r.node_id, id.bytes, id.len);
    setU32(r.recovery_time_stamp, S().recoveryTimeStamp);
    setU8(r.cp_function_features, 17);
    {
        std::lock_guard g(node->Lock);
        node->lastmsgsent = toTimeval(nowMs());
    }
    node->isAssociationStarted = PFCP_ASSOCIATION__REQUEST_SENT;
    int sent = 0;
    uint32_t seq = sendRequest(node, PFCP_ASSOCIATION_SETUP_REQUEST_TYPE, &r, 0, 0, nullptr, &sent);
    int err = errno;
    if (!seq) {
        int expected = PFCP_ASSOCIATION__REQUEST_SENT;
        node->isAssociationStarted.compare_exchange_strong(expected, PFCP_ASSOCIATION__SEND_FAILED);
    }
    PFCP_LOG(seq ? MV_LOG_INFO : MV_LOG_ERROR, "sending PFCP association request to %08X|%s sentBytes=%d errno=%d  %s|%s|%d",
             ntohl(node->addr.sin_addr.s_addr), node->address, sent, seq ? 0 : err, __FILE_NAME__, __func__, __LINE__);
    return seq ? 1 : 0;
}

void sendHeartbeat(__mv_pfcp_node* node, int64_t now) {
    pfcp_heartbeat_request_t r{};
    setU32(r.recovery_time_stamp, S().recoveryTimeStamp);
    {
        std::lock_guard g(node->Lock);
        node->lastheartbeatsent = toTimeval(now);
    }
    node->pending_heartbeat_response++;
    int sent = 0;
    if (sendRequest(node, PFCP_HEARTBEAT_REQUEST_TYPE, &r, 0, 0, nullptr, &sent)) {
        ++S().stats.heartbeatsSent;
        return;
    }
    PFCP_LOG(MV_LOG_ERROR, "sending heart-beat message failed ip=%s port=%d sentBytes=%d errno=%d  %s|%s|%d",
             node->address, node->port, sent, errno, __FILE_NAME__, __func__, __LINE__);
}

// ---------------------------------------------------------------- the event thread

void checkAssociations(int64_t now) {
    __mv_pfcp* st = __pfcpStack;
    const __mv_pfcp_timers& t = S().timers;
    for (__mv_pfcp_node* n = st->nodeHead.load(std::memory_order_acquire); n; n = n->Next.load(std::memory_order_acquire)) {
        int state = n->isAssociationStarted;
        int64_t lastSent, lastHb;
        {
            std::lock_guard g(n->Lock);
            lastSent = fromTimeval(n->lastmsgsent);
            lastHb = fromTimeval(n->lastheartbeatsent);
        }
        if (st->type == PFCP_NODE_TYPE__GATWEAY && n->nodeType == PFCP_NODE_TYPE__USERPLANE && !n->released) {
            if (state == PFCP_ASSOCIATION__NOT_STARTED ||
                ((state == PFCP_ASSOCIATION__REQUEST_SENT || state == PFCP_ASSOCIATION__SEND_FAILED) &&
                 now - lastSent > t.AssociationRetryMs)) {
                sendAssociationSetupRequest(n);
                continue;
            }
        }
        if (state != PFCP_ASSOCIATION__ASSOCIATED) continue;
        if (n->pending_heartbeat_response > t.HeartbeatMaxPending) {
            PFCP_LOG(MV_LOG_ERROR, "pfcp peer ip=%s port=%d declared down: %d heartbeats unanswered  %s|%s|%d",
                     n->address, n->port, n->pending_heartbeat_response.load(), __FILE_NAME__, __func__, __LINE__);
            n->pending_heartbeat_response = 0;
            n->heartBeatStatus = 0;
            setState(n, PFCP_ASSOCIATION__NOT_STARTED, PFCP_DOWN__HEARTBEAT_LOST);
        } else if (n->nodeType == PFCP_NODE_TYPE__USERPLANE && now - lastHb >= t.HeartbeatIntervalMs) {
            sendHeartbeat(n, now);
        }
    }
}

void requestFailed(const __mv_pfcp_xact_info& f, int reason) {
    Stack& s = S();
    ++s.stats.requestsFailed;
    __mv_pfcp_node* node = f.node;
    PFCP_LOG(MV_LOG_ERROR, "pfcp %s seq=%u to ip=%s port=%d failed: %s after %u retransmissions  %s|%s|%d",
             pfcp_message_name(f.type), f.seq, peerText(node), node ? node->port : 0,
             reason == PFCP_FAILED__NO_RESPONSE ? "no response" : "version not supported", f.retries, __FILE_NAME__,
             __func__, __LINE__);
    if (f.type == PFCP_ASSOCIATION_RELEASE_REQUEST_TYPE && node)
        setState(node, PFCP_ASSOCIATION__NOT_STARTED, PFCP_DOWN__RELEASED);
    // Node requests are the stack's own business; only session requests go up.
    if (pfcp_is_session_message(f.type) && s.handlers.OnRequestFailed)
        s.handlers.OnRequestFailed(node, f.type, f.seq, f.seid, f.userData, reason);
}

void* eventThread(void*) {
    Stack& s = S();
    __mv_pfcp_xact_info failed[64];
    for (;;) {
        {
            std::unique_lock g(s.evtLock);
            s.evtWake.wait_for(g, std::chrono::milliseconds(s.timers.TickMs), [&] { return s.evtKick; });
            s.evtKick = false;
        }
        int64_t now = nowMs();
        int n, retransmitted = 0;
        do {
            n = s.xacts.expire(now, sendRaw, failed, 64, &retransmitted);
            for (int i = 0; i < n; i++) requestFailed(failed[i], PFCP_FAILED__NO_RESPONSE);
        } while (n == 64);
        s.stats.retransmissions += uint64_t(retransmitted);
        checkAssociations(now);
    }
    return nullptr;
}

// ---------------------------------------------------------------- node requests of the peer

// A peer's recovery time stamp: a change means it restarted and lost what it held for us.
void recovery(__mv_pfcp_node* node, const tlv_uint32_t& rts) {
    if (!rts.presence) return;
    uint32_t old = node->peerRecoveryTimeStamp.exchange(rts.u32);
    if (old && old != rts.u32 && node->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED) {
        PFCP_LOG(MV_LOG_ERROR, "pfcp peer ip=%s port=%d restarted (recovery time stamp %u, was %u)  %s|%s|%d",
                 node->address, node->port, rts.u32, old, __FILE_NAME__, __func__, __LINE__);
        setState(node, PFCP_ASSOCIATION__NOT_STARTED, PFCP_DOWN__PEER_RESTARTED);
    }
}

void touch(__mv_pfcp_node* node) {
    std::lock_guard g(node->Lock);
    node->lastmsg = toTimeval(nowMs());
}

void __mv_pfcp__handle_heartbeat_request(__mv_pfcp_node* node, pfcp_message_t* msg) {
    touch(node);
    ++S().stats.heartbeatsReceived;
    recovery(node, msg->pfcp_heartbeat_request.recovery_time_stamp);
    pfcp_heartbeat_response_t r{};
    setU32(r.recovery_time_stamp, S().recoveryTimeStamp);
    if (sendResponse(node, PFCP_HEARTBEAT_RESPONSE_TYPE, &r, 0, msg->h.sqn) < 1)
        PFCP_LOG(MV_LOG_ERROR, "sending heartbeat response failed to ip=%s port=%d  %s|%s|%d", node->address,
                 node->port, __FILE_NAME__, __func__, __LINE__);
}

void __mv_pfcp__handle_association_setup_request(__mv_pfcp_node* node, pfcp_message_t* msg) {
    PFCP_LOG(MV_LOG_INFO, "received pfcp association request from ip=%s port=%d  %s|%s|%d", node->address,
             node->port, __FILE_NAME__, __func__, __LINE__);
    const pfcp_association_setup_request_t& q = msg->pfcp_association_setup_request;
    pfcp_association_setup_response_t r{};
    LocalNodeId id = localNodeId();
    setOctets(r.node_id, id.bytes, id.len);
    setU32(r.recovery_time_stamp, S().recoveryTimeStamp);
    uint8_t features[2] = {0, 0};
    uint8_t resource[14] = {0x21};
    uint32_t ip = __mv_pfcp__getIPv4_addr();
    resource[1] = uint8_t(ip >> 24);
    resource[2] = uint8_t(ip >> 16);
    resource[3] = uint8_t(ip >> 8);
    resource[4] = uint8_t(ip);
    memcpy(resource + 5, kNetworkInstance, 9);
    bool ok = q.node_id.presence;
    if (ok) {
        setU8(r.cause, PFCP_CAUSE_REQUEST_ACCEPTED);
        setOctets(r.up_function_features, features, 2);
        setOctets(r.user_plane_ip_resource_information[0], resource, sizeof resource);
    } else {
        // An association needs to know who asks.
        setU8(r.cause, PFCP_CAUSE_MANDATORY_IE_MISSING);
    }
    int n = sendResponse(node, PFCP_ASSOCIATION_SETUP_RESPONSE_TYPE, &r, 0, msg->h.sqn);
    if (n < 1) {
        PFCP_LOG(MV_LOG_ERROR, "sending pfcp association response failed to ip=%s port=%d  %s|%s|%d", node->address,
                 node->port, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    PFCP_LOG(MV_LOG_INFO, "sending pfcp association response success to ip=%s port=%d  %s|%s|%d", node->address,
             node->port, __FILE_NAME__, __func__, __LINE__);
    if (!ok) return;
    touch(node);
    node->peerRecoveryTimeStamp = q.recovery_time_stamp.presence ? q.recovery_time_stamp.u32 : 0;
    node->pending_heartbeat_response = 0;
    node->heartBeatStatus = 1;
    {
        std::lock_guard g(node->Lock);
        node->lastheartbeatsent = toTimeval(nowMs());
    }
    setState(node, PFCP_ASSOCIATION__ASSOCIATED, 0);
}

// The answers that are our Node ID and a cause.
template <class Answer>
void answer(__mv_pfcp_node* node, uint8_t type, uint32_t seq, uint8_t cause) {
    Answer r{};
    LocalNodeId id = localNodeId();
    setOctets(r.node_id, id.bytes, id.len);
    setU8(r.cause, cause);
    sendResponse(node, type, &r, 0, seq);
}

void handleAssociationReleaseRequest(__mv_pfcp_node* node, pfcp_message_t* msg) {
    PFCP_LOG(MV_LOG_INFO, "received pfcp association release request from ip=%s port=%d  %s|%s|%d", node->address,
             node->port, __FILE_NAME__, __func__, __LINE__);
    answer<pfcp_association_release_response_t>(node, PFCP_ASSOCIATION_RELEASE_RESPONSE_TYPE, msg->h.sqn,
                                                PFCP_CAUSE_REQUEST_ACCEPTED);
    setState(node, PFCP_ASSOCIATION__NOT_STARTED, PFCP_DOWN__PEER_RELEASED);
}

void handleAssociationUpdateRequest(__mv_pfcp_node* node, pfcp_message_t* msg) {
    PFCP_LOG(MV_LOG_INFO, "received pfcp association update request from ip=%s port=%d  %s|%s|%d", node->address,
             node->port, __FILE_NAME__, __func__, __LINE__);
    answer<pfcp_association_update_response_t>(node, PFCP_ASSOCIATION_UPDATE_RESPONSE_TYPE, msg->h.sqn,
                                               node->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED
                                                   ? PFCP_CAUSE_REQUEST_ACCEPTED
                                                   : PFCP_CAUSE_NO_ESTABLISHED_PFCP_ASSOCIATION);
}

void handleNodeReportRequest(__mv_pfcp_node* node, pfcp_message_t* msg) {
    const auto& q = msg->pfcp_node_report_request;
    PFCP_LOG(MV_LOG_INFO, "received pfcp node report request (type %u) from ip=%s port=%d  %s|%s|%d",
             q.node_report_type.presence && q.node_report_type.len ? q.node_report_type.data[0] : 0, node->address,
             node->port, __FILE_NAME__, __func__, __LINE__);
    answer<pfcp_node_report_response_t>(node, PFCP_NODE_REPORT_RESPONSE_TYPE, msg->h.sqn, PFCP_CAUSE_REQUEST_ACCEPTED);
}

// ---------------------------------------------------------------- answers to our requests

void handleAssociationSetupResponse(__mv_pfcp_node* node, pfcp_message_t* msg) {
    const auto& r = msg->pfcp_association_setup_response;
    touch(node);
    if (!r.cause.presence || r.cause.u8 != PFCP_CAUSE_REQUEST_ACCEPTED) {
        // Refused: the request stays answered-but-open, and the next one goes after the retry interval.
        node->lastCause = r.cause.presence ? r.cause.u8 : 0;
        ++S().stats.associationsRefused;
        PFCP_LOG(MV_LOG_ERROR, "pfcp association refused by ip=%s port=%d cause=%u  %s|%s|%d", node->address,
                 node->port, r.cause.presence ? r.cause.u8 : 0, __FILE_NAME__, __func__, __LINE__);
        setState(node, PFCP_ASSOCIATION__REQUEST_SENT, PFCP_DOWN__REFUSED);
        return;
    }
    node->lastCause = PFCP_CAUSE_REQUEST_ACCEPTED;
    node->peerRecoveryTimeStamp = r.recovery_time_stamp.presence ? r.recovery_time_stamp.u32 : 0;
    node->pending_heartbeat_response = 0;
    node->heartBeatStatus = 1;
    {
        std::lock_guard g(node->Lock);
        node->lastheartbeatsent = toTimeval(nowMs());
    }
    PFCP_LOG(MV_LOG_INFO, "pfcp association accepted by ip=%s port=%d  %s|%s|%d", node->address, node->port,
             __FILE_NAME__, __func__, __LINE__);
    setState(node, PFCP_ASSOCIATION__ASSOCIATED, 0);
}

void handleHeartbeatResponse(__mv_pfcp_node* node, pfcp_message_t* msg) {
    touch(node);
    int p = node->pending_heartbeat_response;
    while (p > 0 && !node->pending_heartbeat_response.compare_exchange_weak(p, p - 1)) {
    }
    node->heartBeatStatus = 1;
    ++S().stats.heartbeatsAnswered;
    recovery(node, msg->pfcp_heartbeat_response.recovery_time_stamp);
}

void handleAssociationReleaseResponse(__mv_pfcp_node* node, pfcp_message_t* msg) {
    const auto& r = msg->pfcp_association_release_response;
    PFCP_LOG(MV_LOG_INFO, "pfcp association release answered by ip=%s port=%d cause=%u  %s|%s|%d", node->address,
             node->port, r.cause.presence ? r.cause.u8 : 0, __FILE_NAME__, __func__, __LINE__);
    setState(node, PFCP_ASSOCIATION__NOT_STARTED, PFCP_DOWN__RELEASED);
}

void upward(pfcp_message_t* msg, __mv_pfcp_node* node, void* userData) {
    Stack& s = S();
    ++s.stats.rxSessionMessages;
    if (s.handlers.OnSessionMessage) s.handlers.OnSessionMessage(msg, node, msg->h.sqn, msg->h.seid, userData);
    else if (s.onMsg) s.onMsg(msg, node, msg->h.sqn, msg->h.seid);
    else
        PFCP_LOG(MV_LOG_WARNING, "pfcp %s from ip=%s port=%d dropped: no session handler  %s|%s|%d",
                 pfcp_message_name(msg->h.type), node->address, node->port, __FILE_NAME__, __func__, __LINE__);
}

// ---------------------------------------------------------------- the receive path

void logDrop(Gate gate, int level, const char* what, const sockaddr_in& from) {
    uint64_t skipped = 0;
    if (!S().gates[gate].pass(nowMs(), skipped)) return;
    char ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
    if (skipped)
        PFCP_LOG(level, "%s from ip=%s port=%d (%lu more like it not logged)  %s|%s|%d", what, ip, ntohs(from.sin_port),
                 (unsigned long)skipped, __FILE_NAME__, __func__, __LINE__);
    else
        PFCP_LOG(level, "%s from ip=%s port=%d  %s|%s|%d", what, ip, ntohs(from.sin_port), __FILE_NAME__, __func__,
                 __LINE__);
}

// A request in a version we do not speak gets the answer that says so; its header may not be ours,
// so the number is read where version 1 would have it.
void versionNotSupported(std::span<const uint8_t> d, const sockaddr_in& from) {
    if (d.size() < 8 || !pfcp_is_request(d[1])) return;
    size_t at = (d[0] & 1) && d.size() >= 16 ? 12 : 4;
    const uint8_t rsp[8] = {0x20, PFCP_VERSION_NOT_SUPPORTED_RESPONSE_TYPE, 0, 4, d[at], d[at + 1], d[at + 2], 0};
    if (sendTo(from, rsp, sizeof rsp) == int(sizeof rsp)) ++S().stats.versionNotSupportedSent;
}

void dispatchRequest(__mv_pfcp_node* node, pfcp_message_t* msg) {
    uint8_t type = msg->h.type;
    int64_t now = nowMs();
    if (int r = repeatedRequest(node, msg->h.sqn, type, now)) {
        ++S().stats.rxDuplicateRequests;
        PFCP_LOG(MV_LOG_INFO, "received pfcp %s seq=%u again from ip=%s port=%d: %s  %s|%s|%d", pfcp_message_name(type),
                 msg->h.sqn, node->address, node->port, r == 2 ? "answered again" : "still in hand", __FILE_NAME__,
                 __func__, __LINE__);
        return;
    }
    switch (type) {
        case PFCP_HEARTBEAT_REQUEST_TYPE: __mv_pfcp__handle_heartbeat_request(node, msg); break;
        case PFCP_ASSOCIATION_SETUP_REQUEST_TYPE: __mv_pfcp__handle_association_setup_request(node, msg); break;
        case PFCP_ASSOCIATION_UPDATE_REQUEST_TYPE: handleAssociationUpdateRequest(node, msg); break;
        case PFCP_ASSOCIATION_RELEASE_REQUEST_TYPE: handleAssociationReleaseRequest(node, msg); break;
        case PFCP_NODE_REPORT_REQUEST_TYPE: handleNodeReportRequest(node, msg); break;
        default:
            if (pfcp_is_session_message(type)) {
                touch(node);
                upward(msg, node, nullptr);
            } else {
                PFCP_LOG(MV_LOG_WARNING, "pfcp %s from ip=%s port=%d not handled by this side  %s|%s|%d",
                         pfcp_message_name(type), node->address, node->port, __FILE_NAME__, __func__, __LINE__);
            }
    }
}

void dispatchResponse(__mv_pfcp_node* node, pfcp_message_t* msg, const sockaddr_in& from) {
    Stack& s = S();
    uint8_t type = msg->h.type;
    __mv_pfcp_xact_info info{};
    if (type == PFCP_VERSION_NOT_SUPPORTED_RESPONSE_TYPE) {
        if (s.xacts.match(msg->h.sqn, node, 0, 0, info) == PfcpXactTable::MATCHED)
            requestFailed(info, PFCP_FAILED__VERSION_NOT_SUPPORTED);
        return;
    }
    char what[160];
    switch (s.xacts.match(msg->h.sqn, node, type, msg->h.seid, info)) {
        case PfcpXactTable::NONE:
            ++s.stats.rxLateResponses;
            snprintf(what, sizeof what, "received pfcp %s seq=%u for no open request", pfcp_message_name(type), msg->h.sqn);
            logDrop(G_LATE, MV_LOG_WARNING, what, from);
            return;
        case PfcpXactTable::WRONG_SEID:
            ++s.stats.rxWrongSeid;
            snprintf(what, sizeof what, "received pfcp %s seq=%u for an unknown SEID=%lu", pfcp_message_name(type),
                     msg->h.sqn, (unsigned long)msg->h.seid);
            logDrop(G_SEID, MV_LOG_ERROR, what, from);
            return;
        case PfcpXactTable::MATCHED: break;
    }
    switch (type) {
        case PFCP_HEARTBEAT_RESPONSE_TYPE: handleHeartbeatResponse(node, msg); break;
        case PFCP_ASSOCIATION_SETUP_RESPONSE_TYPE: handleAssociationSetupResponse(node, msg); break;
        case PFCP_ASSOCIATION_RELEASE_RESPONSE_TYPE: handleAssociationReleaseResponse(node, msg); break;
        default:
            touch(node);
            if (pfcp_is_session_message(type)) upward(msg, node, info.userData);
    }
}

void receive(MV_SocketUdpBuffer* b) {
    Stack& s = S();
    ++s.stats.rxDatagrams;
    std::span<const uint8_t> d(b->buff + b->pos, size_t(b->len));
    const sockaddr_in& from = b->clientaddr;
    if (from.sin_family != AF_INET) return;  // the socket is IPv4
    pfcp_message_t msg;
    pfcp_rx_result_t rx;
    int rc = pfcp_decode_datagram(d, &msg, &rx);
    if (rc != 1) {
        char what[300];
        pfcp_format_rx_error(&rx, what, sizeof what);
        switch (rx.error) {
            case PFCP_RX_VERSION:
                ++s.stats.rxBadVersion;
                logDrop(G_VERSION, MV_LOG_ERROR, what, from);
                versionNotSupported(d, from);
                return;
            case PFCP_RX_SHORT:
            case PFCP_RX_LENGTH: ++s.stats.rxBadLength; logDrop(G_LENGTH, MV_LOG_ERROR, what, from); return;
            case PFCP_RX_TYPE:
            case PFCP_RX_UNKNOWN: ++s.stats.rxBadType; logDrop(G_TYPE, MV_LOG_ERROR, what, from); return;
            default: ++s.stats.rxDecodeFailed; logDrop(G_DECODE, MV_LOG_ERROR, what, from); return;
        }
    }
    if (rx.tlv.unexpected || rx.tlv.dropped) {
        s.stats.rxUnexpectedIEs += rx.tlv.unexpected;
        s.stats.rxDroppedIEs += rx.tlv.dropped;
        char what[200];
        snprintf(what, sizeof what, "%s: %u elements of no known place skipped (first type %u), %u repeats beyond room dropped",
                 pfcp_message_name(rx.type), rx.tlv.unexpected, rx.tlv.firstUnexpected, rx.tlv.dropped);
        logDrop(G_IES, MV_LOG_INFO, what, from);
    }
    __mv_pfcp_node* node = findNode(from);
    if (!node && pfcp_is_request(rx.type)) node = addNode(from, PFCP_NODE_TYPE__LEARNED);
    if (!node) {
        ++s.stats.rxUnknownPeer;
        char what[120];
        snprintf(what, sizeof what, "pfcp %s from no known peer dropped", pfcp_message_name(rx.type));
        logDrop(G_UNKNOWN_PEER, MV_LOG_WARNING, what, from);
        return;
    }
    if (pfcp_is_request(rx.type)) dispatchRequest(node, &msg);
    else dispatchResponse(node, &msg, from);
}

// On the one thread of pfcpMsgQueue: datagrams in arrival order.
void __mv_pfcp__udp_server_receive_queue(void* data, int) {
    auto* b = static_cast<MV_SocketUdpBuffer*>(data);
    receive(b);
    __mv_socket_engine_release_socket_udp_buffer(b);
}

// On a queue line: hands the datagram to the receive thread.
void __mv_pfcp__udp_server_receive(MV_SocketUdpBuffer* b) {
    if (__pfcpStack && __mv_core_queue_item(__pfcpStack->pfcpMsgQueue, b) == 1) return;
    ++S().stats.rxQueueFull;
    logDrop(G_QUEUE, MV_LOG_ERROR, "pfcp receive queue full, datagram dropped", b->clientaddr);
    __mv_socket_engine_release_socket_udp_buffer(b);
}

// True when nothing else holds the port: the socket engine ends the process on a failed bind, which
// a console command must not do.
bool portFree(const sockaddr_in& a) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    bool ok = bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

}  // namespace

// ---------------------------------------------------------------- start

void __mv_pfcp__set_timers(const __mv_pfcp_timers* timers) {
    if (timers) S().timers = *timers;
}
void __mv_pfcp__setOnPfcpMsg(__mv_pfcp_on_msg fp) { S().onMsg = fp; }
void __mv_pfcp__setHandlers(const __mv_pfcp_handlers* handlers) {
    if (handlers) S().handlers = *handlers;
}

int __mv_pfcp__initalize(int type, int port, int ipver, const char* address, int nodeIdType, const char* nodeIdValue) {
    Stack& s = S();
    std::lock_guard g(s.startLock);
    if (__pfcpStack) return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    if (ipver != 4 || !address || inet_pton(AF_INET, address, &a.sin_addr) != 1 || port < 1 || port > 65535) {
        PFCP_LOG(MV_LOG_CRITICAL, "pfcp stack not started: local address %s port %d is no IPv4 endpoint  %s|%s|%d",
                 address ? address : "(none)", port, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (!portFree(a)) {
        PFCP_LOG(MV_LOG_CRITICAL, "pfcp stack not started: %s:%d is in use (errno=%d)  %s|%s|%d", address, port, errno,
                 __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    __mv_socket_engine_init();
    uint32_t base = type == PFCP_NODE_TYPE__GATWEAY ? __mv_core_getU32RANDRange(100, 200)
                                                    : __mv_core_getU32RANDRange(200, 300);
    const __mv_pfcp_timers& t = s.timers;
    if (!s.xacts.init(base, t.MaxOpenRequests, t.T1Ms, t.N1, t.HeartbeatIntervalMs)) {
        PFCP_LOG(MV_LOG_CRITICAL, "pfcp stack not started: %u open requests do not fit the sequence numbers  %s|%s|%d",
                 t.MaxOpenRequests, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    auto* st = __mv_arena_new<__mv_pfcp>();
    st->type = type;
    st->port = port;
    snprintf(st->address, sizeof st->address, "%s", address);
    st->ipversion = 4;
    st->addr = a;
    st->nodeIdType = nodeIdType;
    snprintf(st->nodeIdValue, sizeof st->nodeIdValue, "%s", nodeIdValue ? nodeIdValue : "");
    st->hearbeatInterval = t.HeartbeatIntervalMs / 1000;
    st->seqNo = base;
    time_t start = __mvCore && __mvCore->startTime ? __mvCore->startTime : time(nullptr);
    s.recoveryTimeStamp = uint32_t(start) + kNtpOffset;
    __mv_core_create_queue(&st->pfcpMsgQueue, __mv_pfcp__udp_server_receive_queue, 1, kQueueItems);
    __pfcpStack = st;
    st->serverSocket = __mv_socket_engine_create_server_socket(address, 4, MV_TRANSPORT_UDP, port, 0, nullptr, nullptr);
    st->serverSocket->parentData1 = st;
    st->serverSocket->OnUdpPacketReceive = __mv_pfcp__udp_server_receive;
    __mv_socket_engine_start_server_socket(st->serverSocket);
    for (int i = 0; i < 200 && !st->serverSocket->isActive; i++) usleep(10000);
    __mv_create_pthread2(eventThread, nullptr, "pfcp-evt");
    PFCP_LOG(MV_LOG_INFO, "pfcp stack on %s:%d, first sequence number %u  %s|%s|%d", address, port, base, __FILE_NAME__,
             __func__, __LINE__);
    return 1;
}

// ---------------------------------------------------------------- peers

__mv_pfcp_node_t* __mv_pfcp__add_upf(const char* ipaddress, int ipv, int port) {
    if (!__pfcpStack) return nullptr;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    if (ipv == 6) {
        PFCP_LOG(MV_LOG_CRITICAL, "IPv6 Not Implemented in PFCP  %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    if (!ipaddress || inet_pton(AF_INET, ipaddress, &a.sin_addr) != 1 || port < 1 || port > 65535) {
        PFCP_LOG(MV_LOG_CRITICAL, "%s is not a valid IP address  %s|%s|%d", ipaddress ? ipaddress : "(none)",
                 __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    __mv_pfcp_node* n = addNode(a, PFCP_NODE_TYPE__USERPLANE);
    if (n) {
        n->nodeType = PFCP_NODE_TYPE__USERPLANE;  // a peer learned first becomes configured
        kickEvents();
    }
    return n;
}

__mv_pfcp_node_t* __mv_pfcp__find_node_by_ip(const char* ip, int ipv, int port, int add) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    if (!__pfcpStack || ipv != 4 || !ip || inet_pton(AF_INET, ip, &a.sin_addr) != 1) return nullptr;
    __mv_pfcp_node* n = findNode(a);
    return n || add != 1 ? n : addNode(a, PFCP_NODE_TYPE__LEARNED);
}

__mv_pfcp_node_t* __mv_pfcp__get_root_node() { return __pfcpStack ? __pfcpStack->nodeHead.load() : nullptr; }
__mv_pfcp_node_t* __mv_pfcp__get_next_node(__mv_pfcp_node_t* node) {
    return node ? node->Next.load(std::memory_order_acquire) : nullptr;
}

int __mv_pfcp__release_association(__mv_pfcp_node_t* node) {
    if (!node) return -1;
    node->released = 1;
    if (node->isAssociationStarted != PFCP_ASSOCIATION__ASSOCIATED) {
        node->isAssociationStarted = PFCP_ASSOCIATION__NOT_STARTED;
        return 0;
    }
    pfcp_association_release_request_t r{};
    LocalNodeId id = localNodeId();
    setOctets(r.node_id, id.bytes, id.len);
    return sendRequest(node, PFCP_ASSOCIATION_RELEASE_REQUEST_TYPE, &r, 0, 0, nullptr, nullptr) ? 1 : -1;
}

void __mv_pfcp__associate(__mv_pfcp_node_t* node) {
    if (!node) return;
    node->released = 0;
    kickEvents();
}

// ---------------------------------------------------------------- sending

uint32_t __mv_pfcp__get_seqno() { return S().xacts.reserve(nowMs()); }

int __mv_pfcp__send_msg(__mv_pfcp_node_t* node, __mv_buff_t* pmsg) {
    if (!pmsg) return -1;
    if (!node || pmsg->len < PFCP_NODE_HEADER_LEN) {
        __mv_buff__free(pmsg);
        return -1;
    }
    const uint8_t* d = pmsg->data;
    uint8_t type = d[1];
    bool sflag = d[0] & 1;
    if (sflag && pmsg->len < PFCP_HEADER_LEN) {
        __mv_buff__free(pmsg);
        return -1;
    }
    uint64_t seid = 0;
    uint32_t seq = 0;
    tlv::ByteReader rd(std::span<const uint8_t>(d + 4, pmsg->len - 4));
    bool ok = (!sflag || rd.u64(seid)) && rd.u24(seq);
    int len = int(pmsg->len);
    Stack& s = S();
    if (ok && pfcp_is_request(type) && s.xacts.sent(seq, node, type, seid, 0, nullptr, pmsg, nowMs())) {
        int n = sendRaw(node, d, len);  // the transaction owns the buffer now
        if (n == len) ++s.stats.txRequests;
        else ++s.stats.txFailed;
        return n;
    }
    int n = sendRaw(node, d, len);
    if (n == len) ++(pfcp_is_request(type) ? s.stats.txRequests : s.stats.txResponses);
    else ++s.stats.txFailed;
    if (pfcp_is_request(type) || !ok || !keepAnswer(node, seq, uint8_t(type - 1), pmsg)) __mv_buff__free(pmsg);
    return n;
}

uint32_t __mv_pfcp__send_request(__mv_pfcp_node_t* node, pfcp_message_t* msg, uint64_t localSeid, void* userData) {
    if (!node || !msg || !pfcp_is_request(msg->h.type)) return 0;
    return sendRequest(node, msg->h.type, &msg->pfcp_heartbeat_request, msg->h.seid, localSeid, userData, nullptr);
}

int __mv_pfcp__send_response(__mv_pfcp_node_t* node, pfcp_message_t* msg, uint32_t seqNo) {
    if (!node || !msg || pfcp_is_request(msg->h.type)) return -1;
    return sendResponse(node, msg->h.type, &msg->pfcp_heartbeat_request, msg->h.seid, seqNo);
}

// ---------------------------------------------------------------- queries

uint32_t __mv_pfcp__getIPv4_addr() { return __pfcpStack ? ntohl(__pfcpStack->addr.sin_addr.s_addr) : 0; }
const uint8_t* __mv_pfcp__getIPv6_addr() { return __pfcpStack ? __pfcpStack->addr6.sin6_addr.s6_addr : nullptr; }
int __mv_pfcp__node_ipversion() { return __pfcpStack ? __pfcpStack->ipversion : 0; }
void __mv_pfcp__set_accessip(uint32_t ip, __mv_pfcp_node_t* node) {
    if (node) node->upfAccesIP = ip;
}
uint32_t __mv_pfcp__get_accessip(__mv_pfcp_node_t* node) { return node ? node->upfAccesIP.load() : 0; }
uint32_t __mv_pfcp__recovery_time_stamp() { return S().recoveryTimeStamp; }
uint32_t __mv_pfcp__open_requests() { return S().xacts.open(); }

void __mv_pfcp__get_stats(__mv_pfcp_stats* out) {
    if (!out) return;
#define PFCP_STAT_COPY(name) out->name = S().stats.name.load();
    PFCP_STATS_FIELDS(PFCP_STAT_COPY)
#undef PFCP_STAT_COPY
}
