// The stack record, hosts and peers over the socket engine, the read path from bytes to
// messages, the base protocol (capability exchange, watchdog, disconnect), the send path.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "mv_fifo.h"
#include "mv_diam_internal.h"

__mv_diam_stack* __mvDiamStack = nullptr;

namespace {

constexpr int kBufferGrowth = 2000;
constexpr int kMaxMissedDWA = 10;
// A DPR unanswered this long ends the connection all the same.
constexpr int kDpaWaitSeconds = 3;
// After our DPA the peer closes; if it does not, we do, after this grace.
constexpr int kCloseAfterDpaSeconds = 2;

std::once_flag stackOnce;
std::atomic<fn_mv_diam_msg_handler> msgHandler{nullptr};

mv_fifo::CoreFifo<MV_DiamBuffer> bufferPool() {
    auto* s = __mvDiamStack;
    return {s->diamBufferPoolHead, s->diamBufferPoolCurrent, s->diamBufferPoolLock, s->diamBufferPoolTotal,
            s->diamBufferPoolAvailable};
}

MV_DiamBuffer* allocateBuffer() {
    MV_DiamBuffer* b = bufferPool().allocate(kBufferGrowth);
    ++__mvDiamStack->diamBufferPoolUsed;
    b->len = b->pos = 0;
    b->error = 0;
    return b;
}

void releaseBuffer(MV_DiamBuffer* b) {
    if (bufferPool().release(b)) --__mvDiamStack->diamBufferPoolUsed;
}

MV_DiamNode* hostOf(MV_DiamNode* node) { return node && node->hostNode ? node->hostNode : node; }

bool isBaseCommand(uint32_t cmd) { return cmd == MV_DIAM_CMD_CE || cmd == MV_DIAM_CMD_DW || cmd == MV_DIAM_CMD_DP; }

bool connected(MV_DiamNode* node) {
    MV_Socket* s = node->vSiSocket.load();
    return s && __mv_socket_engine_is_connected(s);
}

void wake(MV_DiamNode* node) {
    {
        std::lock_guard g(node->WakeLock);
        node->WakePending = true;
    }
    node->Wake.notify_all();
}

// Waits up to `until` or a wake-up; true when woken.
bool sleepUntil(MV_DiamNode* node, std::chrono::steady_clock::time_point until) {
    std::unique_lock lk(node->WakeLock);
    bool woken = node->Wake.wait_until(lk, until, [node] { return node->WakePending; });
    node->WakePending = false;
    return woken;
}

void resetConnectionState(MV_DiamNode* node) {
    node->isCERSuccess = 0;
    node->RequestNumber = 0;
    node->SentMessages = 0;
    node->IdleSeconds = 0;
    node->MissedDWA = 0;
    node->DPRSent = 0;
    node->CloseAfterDPA = 0;
    node->PartialSeconds = 0;
}

void addToPeerTable(MV_DiamNode* node) {
    auto* st = __mvDiamStack;
    std::lock_guard g(st->peerTableLock);
    node->peerTableNext = nullptr;
    node->peerTablePrev = st->peerTableCurrent;
    if (st->peerTableCurrent) st->peerTableCurrent->peerTableNext = node;
    else st->peerTableHead = node;
    st->peerTableCurrent = node;
}

// ---------------------------------------------------------------- base protocol messages

// Host-IP-Address of every local address, or of the connection's own address when none is configured.
void addHostIPs(MV_DiamMessage* msg, MV_DiamNode* host, MV_DiamNode* peer) {
    int added = 0;
    auto addText = [&](const char* ip, int version) {
        uint8_t a[16];
        if (version == 6 && inet_pton(AF_INET6, ip, a) == 1) {
            __mv_diam_add_ipV6address_avp(msg, 257, 0, 1, a);
            ++added;
        } else if (inet_pton(AF_INET, ip, a) == 1 && memcmp(a, "\0\0\0\0", 4) != 0) {
            __mv_diam_add_ipV4address_avp(msg, 257, 0, 1, a);
            ++added;
        }
    };
    uint32_t n = host ? (host->sIPCount ? host->sIPCount : uint32_t(host->IPCount > 0 ? host->IPCount : 0)) : 0;
    for (uint32_t i = 0; i < n && i < 5; ++i) addText(host->sIP[i], host->IPVersion);
    if (added == 0 && peer && peer != host)
        for (uint32_t i = 0; i < peer->sHostIPCount && i < 5; ++i) addText(peer->sHostIP[i], peer->sHostIPVersion);
    if (added == 0 && peer) {
        // A host that listens on every address: the one the connection uses.
        MV_Socket* s = peer->vSiSocket.load();
        int fd = s && s->TransportType == MV_TRANSPORT_TCP ? __mv_socket_engine_get_fd(s) : -1;
        sockaddr_storage a{};
        socklen_t len = sizeof a;
        if (fd > 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
            if (a.ss_family == AF_INET6)
                __mv_diam_add_ipV6address_avp(msg, 257, 0, 1, &reinterpret_cast<sockaddr_in6*>(&a)->sin6_addr);
            else
                __mv_diam_add_ipV4address_avp(msg, 257, 0, 1, &reinterpret_cast<sockaddr_in*>(&a)->sin_addr);
        }
    }
}

void addApplications(MV_DiamMessage* msg, const MV_DiamNode* apps) {
    for (uint32_t i = 0; i < apps->AuthApplicationIdCount && i < 5; ++i)
        __mv_diam_add_uint32_avp(msg, 258, 0, 0, apps->AuthApplicationId[i]);
    for (uint32_t i = 0; i < apps->AcctApplicationIdCount && i < 5; ++i)
        __mv_diam_add_uint32_avp(msg, 259, 0, 0, apps->AcctApplicationId[i]);
    for (uint32_t i = 0; i < apps->VendorSpecificAuthApplicationIdCount && i < 5; ++i) {
        MV_DiamAvp* g = __mv_diam_add_grouped_avp(msg, 260, 0, 1);
        __mv_diam_add_uint32_avp_to_grpavp(g, 266, 0, 1, apps->VendorSpecificAuthApplicationVendorId[i]);
        __mv_diam_add_uint32_avp_to_grpavp(g, 258, 0, 1, apps->VendorSpecificAuthApplicationId[i]);
    }
    for (uint32_t i = 0; i < apps->VendorSpecificAcctApplicationIdCount && i < 5; ++i) {
        MV_DiamAvp* g = __mv_diam_add_grouped_avp(msg, 260, 0, 1);
        __mv_diam_add_uint32_avp_to_grpavp(g, 266, 0, 1, apps->VendorSpecificAcctApplicationVendorId[i]);
        __mv_diam_add_uint32_avp_to_grpavp(g, 259, 0, 1, apps->VendorSpecificAcctApplicationId[i]);
    }
}

const char* productName(const MV_DiamNode* host) { return host->sProductName[0] ? host->sProductName : "Kestrane"; }

// A base-protocol request: R set, P clear, Application-Id 0.
MV_DiamMessage* baseRequest(uint32_t cmd, uint32_t hbh, uint32_t e2e) {
    MV_DiamMessage* m = __mv_diam_create_message2(cmd, 0, hbh, e2e, 1);
    if (m) m->Header.Flags = MV_DIAM_FLAG_REQUEST;
    return m;
}

// A base-protocol answer: R and P clear, the request's identifiers.
MV_DiamMessage* baseAnswer(MV_DiamMessage* request) {
    MV_DiamMessage* a = __mv_diam_create_answer(request);
    if (a) a->Header.Flags = 0;
    return a;
}

uint32_t originStateId(const MV_DiamNode* host) {
    return host && host->OriginStateId ? host->OriginStateId : __mvDiamStack->OriginStateId;
}

int sendCER(MV_DiamNode* peer) {
    MV_DiamMessage* m = baseRequest(MV_DIAM_CMD_CE, 0, 0);
    __mv_diam_create_cer_request(m, hostOf(peer), peer);
    int rc = __mv_diam___send(m, peer, true);
    __mv_diam_freeMessage2(m);
    return rc;
}

int sendDWR(MV_DiamNode* node) {
    MV_DiamNode* host = hostOf(node);
    MV_DiamMessage* m = baseRequest(MV_DIAM_CMD_DW, 0, 0);
    __mv_diam_add_host_name(m, host);
    __mv_diam_add_host_realm(m, host);
    __mv_diam_add_uint32_avp(m, 278, 0, 1, originStateId(host));
    int rc = __mv_diam___send(m, node, true);
    __mv_diam_freeMessage2(m);
    if (rc > 0) ++node->SentDWR;
    return rc;
}

int sendDPR(MV_DiamNode* node, uint32_t cause) {
    MV_DiamNode* host = hostOf(node);
    MV_DiamMessage* m = __mv_diam_create_request(MV_DIAM_CMD_DP, 0);
    m->Header.Flags = MV_DIAM_FLAG_REQUEST;
    __mv_diam_add_host_name(m, host);
    __mv_diam_add_host_realm(m, host);
    __mv_diam_add_uint32_avp(m, 273, 0, 1, cause);
    int rc = __mv_diam___send(m, node, true);
    __mv_diam_freeMessage2(m);
    return rc;
}

// ---------------------------------------------------------------- processing

// An Enumerated the built-in table does not type reads as its four bytes.
uint32_t enumerated(const MV_DiamMessage* msg, uint32_t code) {
    MV_DiamAvp* a = __mv_diam_find_avp(code, 0, msg);
    if (!a) return 0xFFFFFFFF;
    if (a->DataType == MV_DIAM_TYPE_UINT32) return a->usIntVal;
    if (a->DataType != MV_DIAM_TYPE_OCTETSTRING || a->usInt64Val != 4) return 0xFFFFFFFF;
    return uint32_t(a->data[0]) << 24 | uint32_t(a->data[1]) << 16 | uint32_t(a->data[2]) << 8 | a->data[3];
}

void processCER(MV_DiamMessage* msg) {
    MV_DiamNode* node = msg->srcDiamNode;
    MV_DiamNode* host = hostOf(node);
    char peer[300];
    __mv_diam___peer_text(node, peer, sizeof peer);
    if (!(msg->Header.Flags & MV_DIAM_FLAG_REQUEST)) {
        uint32_t rc = __mv_diam_get_result_code(msg);
        if (rc == DIAMETER_SUCCESS) {
            __mv_diam__copy_routing_info(msg, node);
            uint32_t osi = 0;
            if (__mv_diam_get_uint32_avp_value(msg, 278, &osi)) node->PeerOriginStateId = osi;
            node->isCERSuccess = 1;
            MV_DIAM_LOG(MV_LOG_INFO, "Received CEA with result code=%u <%s|%s|%d>", rc, __FILE_NAME__, __func__,
                        __LINE__);
            __mv_diam_freeMessage2(msg);
            return;
        }
        node->isCERSuccess = 2;
        MV_DIAM_LOG(MV_LOG_ERROR, "CEA failed result code=%u closing connection <%s|%s|%d>", rc, __FILE_NAME__,
                    __func__, __LINE__);
        __mv_diam_freeMessage2(msg);
        __mv_diam___close(node);
        return;
    }
    static constexpr uint32_t kRequired[] = {264, 296, 257, 266, 269};
    if (uint32_t missing = __mv_diam_validate_mandatory_avps(5, kRequired, msg)) {
        MV_DIAM_LOG(MV_LOG_ERROR, "Missing AVPCode<%u> in CER Request, sending error (%s|%s|%d)", missing,
                    __FILE_NAME__, __func__, __LINE__);
        __mv_diam_send_error(msg, DIAMETER_MISSING_AVP, missing, 0, host);
        __mv_diam_freeMessage2(msg);
        __mv_diam___close(node);
        return;
    }
    if (__mv_diam_get_applicationid(msg) != MV_DIAM_APP_RELAY) {
        int offered = 0, common = 0;
        auto check = [&](uint32_t app) {
            ++offered;
            if (app == MV_DIAM_APP_RELAY) ++common;
            for (uint32_t i = 0; i < host->AuthApplicationIdCount && i < 5; ++i) common += host->AuthApplicationId[i] == app;
            for (uint32_t i = 0; i < host->VendorSpecificAuthApplicationIdCount && i < 5; ++i)
                common += host->VendorSpecificAuthApplicationId[i] == app;
        };
        for (MV_DiamAvp* a = msg->Head; a; a = a->Next) {
            if (a->AvpCode == 258 && a->DataType == MV_DIAM_TYPE_UINT32) check(a->usIntVal);
            if (a->AvpCode == 260)
                for (MV_DiamAvp* c = a->GroupHead; c; c = c->Next)
                    if (c->AvpCode == 258 && c->DataType == MV_DIAM_TYPE_UINT32) check(c->usIntVal);
        }
        if (offered > 0 && common == 0) {
            __mv_diam_send_error(msg, DIAMETER_NO_COMMON_APPLICATION, 0, 0, host);
            MV_DIAM_LOG(MV_LOG_ERROR, " no common application found in CER closing connection <%s|%s|%d>",
                        __FILE_NAME__, __func__, __LINE__);
            __mv_diam_freeMessage2(msg);
            __mv_diam___close(node);
            return;
        }
    }
    __mv_diam__copy_routing_info(msg, node);
    uint32_t osi = 0;
    if (__mv_diam_get_uint32_avp_value(msg, 278, &osi)) node->PeerOriginStateId = osi;
    node->isCERSuccess = 1;

    MV_DiamMessage* cea = baseAnswer(msg);
    __mv_diam_add_uint32_avp(cea, 268, 0, 1, DIAMETER_SUCCESS);
    __mv_diam_add_host_name(cea, host);
    __mv_diam_add_host_realm(cea, host);
    addHostIPs(cea, host, node);
    __mv_diam_add_uint32_avp(cea, 266, 0, 1, host->VendorId);
    __mv_diam_add_string_avp(cea, 269, 0, 0, productName(host), uint32_t(strlen(productName(host))));
    __mv_diam_add_uint32_avp(cea, 278, 0, 1, originStateId(host));
    __mv_diam_add_string_avp(cea, 281, 0, 0, "DIAMETER_SUCCESS", 16);
    addApplications(cea, host);
    __mv_diam_add_uint32_avp(cea, 267, 0, 0, 1);
    __mv_diam___send(cea, node, true);
    __mv_diam_freeMessage2(cea);
    MV_DIAM_LOG(MV_LOG_INFO, "CER accepted from %s, CEA sent <%s|%s|%d>", peer, __FILE_NAME__, __func__, __LINE__);
    __mv_diam_freeMessage2(msg);
}

void processDWR(MV_DiamMessage* msg) {
    MV_DiamNode* node = msg->srcDiamNode;
    if (msg->Header.Flags & MV_DIAM_FLAG_REQUEST) {
        ++node->ReceivedDWR;
        MV_DiamNode* host = hostOf(node);
        MV_DiamMessage* dwa = baseAnswer(msg);
        __mv_diam_add_uint32_avp(dwa, 268, 0, 1, DIAMETER_SUCCESS);
        __mv_diam_add_host_name(dwa, host);
        __mv_diam_add_host_realm(dwa, host);
        __mv_diam_add_uint32_avp(dwa, 278, 0, 1, originStateId(host));
        __mv_diam___send(dwa, node, true);
        __mv_diam_freeMessage2(dwa);
    }
    __mv_diam_freeMessage2(msg);
}

void processDPR(MV_DiamMessage* msg) {
    MV_DiamNode* node = msg->srcDiamNode;
    char peer[300];
    __mv_diam___peer_text(node, peer, sizeof peer);
    if (!(msg->Header.Flags & MV_DIAM_FLAG_REQUEST)) {
        MV_DIAM_LOG(MV_LOG_INFO, "DPA received from %s result code=%u, closing connection <%s|%s|%d>", peer,
                    __mv_diam_get_result_code(msg), __FILE_NAME__, __func__, __LINE__);
        __mv_diam_freeMessage2(msg);
        if (node->DPRSent) __mv_diam___close(node);
        return;
    }
    uint32_t cause = enumerated(msg, 273);
    node->LastDisconnectCause = cause;
    MV_DiamNode* host = hostOf(node);
    MV_DiamMessage* dpa = baseAnswer(msg);
    __mv_diam_add_uint32_avp(dpa, 268, 0, 1, DIAMETER_SUCCESS);
    __mv_diam_add_host_name(dpa, host);
    __mv_diam_add_host_realm(dpa, host);
    __mv_diam___send(dpa, node, true);
    __mv_diam_freeMessage2(dpa);
    // The peer closes once it has our answer; the watchdog closes after a grace if it does not.
    node->CloseAfterDPA = 1;
    MV_DIAM_LOG(MV_LOG_INFO, "DPR received from %s Disconnect-Cause=%u, DPA sent, connection closing <%s|%s|%d>", peer,
                cause, __FILE_NAME__, __func__, __LINE__);
    __mv_diam_freeMessage2(msg);
}

void processMessage(MV_DiamMessage* msg) {
    switch (__mv_diam_get_cmdcode(msg)) {
        case MV_DIAM_CMD_CE: processCER(msg); return;
        case MV_DIAM_CMD_DW: processDWR(msg); return;
        case MV_DIAM_CMD_DP: processDPR(msg); return;
        default: break;
    }
    if (fn_mv_diam_msg_handler h = __mv_diam___msg_handler()) h(msg);
    else __mv_diam_freeMessage2(msg);
}

}  // namespace

// ---------------------------------------------------------------- the read path

void __mv_diam_node_buffer_handler(MV_DiamBuffer* buf) {
    MV_DiamNode* node = buf->srcDiamNode;
    MV_Socket* sock = buf->siSocket;
    uint32_t gen = buf->connGen;
    MV_DiamDecodeStatus st{};
    std::span<const uint8_t> bytes(buf->buffer, buf->len);
    MV_DiamMessage* msg = __mv_diam_decodeMessage(bytes, &st);
    uint32_t len = buf->len;
    char peer[300];
    if (!msg || st.Code) {
        ++__mvDiamStack->Counters.DecodeErrors;
        if (node) ++node->DecodeErrors;
        __mv_diam___peer_text(node, peer, sizeof peer);
    }
    if (!msg) {
        MV_DIAM_LOG(MV_LOG_ERROR, "message of %u bytes from %s: %s, dropped <%s|%s|%d>", len, peer, st.Reason,
                    __FILE_NAME__, __func__, __LINE__);
        releaseBuffer(buf);
        return;
    }
    msg->siSocket = sock;
    msg->srcDiamNode = node;
    msg->siConnGen = gen;
    if (st.Code) {
        // A header that is itself unsound (version, length) names no request worth an answer.
        bool request = (msg->Header.Flags & MV_DIAM_FLAG_REQUEST) && st.Code != DIAMETER_UNSUPPORTED_VERSION &&
                       st.Code != DIAMETER_INVALID_MESSAGE_LENGTH;
        uint32_t cmd = __mv_diam_get_cmdcode(msg);
        MV_DIAM_LOG(MV_LOG_ERROR,
                    "malformed %s Command-Code=%u Application-Id=%u of %u bytes from %s: %s at byte %u (AVP %u "
                    "Vendor-Id %u), %s <%s|%s|%d>",
                    request ? "request" : "answer", cmd, __mv_diam_get_applicationid(msg), len, peer, st.Reason,
                    st.Offset, st.AvpCode, st.AvpVendor, request ? "answered with an error" : "dropped",
                    __FILE_NAME__, __func__, __LINE__);
        if (request) __mv_diam___send_decode_error(msg, st, bytes);
        releaseBuffer(buf);
        __mv_diam_freeMessage2(msg);
        // A capability exchange that cannot be read leaves nothing to talk about.
        if (cmd == MV_DIAM_CMD_CE && node && node->isCERSuccess != 1) __mv_diam___close(node);
        return;
    }
    releaseBuffer(buf);
    processMessage(msg);
}

namespace {

void decodeWorker(void* data, int) { __mv_diam_node_buffer_handler(static_cast<MV_DiamBuffer*>(data)); }

// One whole message of a connection, before decoding.
void onMessage(MV_DiamNode* node, MV_DiamBuffer* buf) {
    node->IdleSeconds = 0;
    const uint8_t* h = buf->buffer;
    uint32_t cmd = uint32_t(h[5]) << 16 | uint32_t(h[6]) << 8 | h[7];
    bool request = h[4] & MV_DIAM_FLAG_REQUEST;
    uint32_t app = uint32_t(h[8]) << 24 | uint32_t(h[9]) << 16 | uint32_t(h[10]) << 8 | h[11];
    if (node->RequestNumber.fetch_add(1) == 0 && cmd != MV_DIAM_CMD_CE) {
        MV_DIAM_LOG(MV_LOG_ERROR, "expected CER/CEA in first msg got %u, closing connection <%s|%s|%d>", cmd,
                    __FILE_NAME__, __func__, __LINE__);
        releaseBuffer(buf);
        __mv_diam___close(node);
        return;
    }
    if (cmd == MV_DIAM_CMD_DW && !request && app == 0) {
        node->MissedDWA = 0;
        ++node->ReceivedDWA;
    }
    ++__mvDiamStack->TotalMessagesReceived;
    auto* st = __mvDiamStack;
    // A quiet stack decodes here and spares the hand-over; a loaded one frees the reader.
    // The base protocol stays in order with the connection.
    if (!isBaseCommand(cmd) && st->diamBufferPoolUsed.load() * 10 >= st->diamBufferPoolTotal && st->decodeQueue) {
        ++st->Counters.QueuedDecodes;
        __mv_core_queue_item_force(st->decodeQueue, buf, 1);
        return;
    }
    __mv_diam_node_buffer_handler(buf);
}

void onTcpData(MV_Socket* s) {
    auto* node = static_cast<MV_DiamNode*>(s->parentData1);
    for (;;) {
        int waiting = __mv_socket_engine_buffer_data_length(s);
        if (waiting < 4) return;
        if (!node) {  // not ours (yet): nothing to frame it for
            uint8_t sink[1520];
            while (__mv_socket_engine_tcp_get_buffer(s, sink, sizeof sink) > 0) {
            }
            __mv_socket_engine_tcp_release_used_buffer(s);
            return;
        }
        uint8_t head[4];
        if (__mv_socket_engine_tcp_get_sample_buffer(s, head, 4) != 4) return;
        uint32_t len = __mv_diam_peek_length(head);
        if (head[0] != 1 || len < MV_DIAM_HEADER_LEN || len % 4 != 0 || len > MV_DIAM_BUFFER_SIZE) {
            // The stream cannot be framed any more: only a new connection recovers it.
            char peer[300];
            __mv_diam___peer_text(node, peer, sizeof peer);
            ++__mvDiamStack->Counters.DecodeErrors;
            ++node->DecodeErrors;
            if (node->isHost)
                MV_DIAM_LOG(MV_LOG_ERROR, "invalid message length %d, closing connection <%s|%s|%d>", int(len),
                            __FILE_NAME__, __func__, __LINE__);
            else
                MV_DIAM_LOG(MV_LOG_ERROR, "invalid iMsgSize=%d <%s|%s|%d>", int(len), __FILE_NAME__, __func__, __LINE__);
            MV_DIAM_LOG(MV_LOG_ERROR, "stream from %s cannot be framed (version=%u length=%u), closing connection <%s|%s|%d>",
                        peer, head[0], len, __FILE_NAME__, __func__, __LINE__);
            __mv_diam___close(node);
            return;
        }
        if (uint32_t(waiting) < len) return;
        MV_DiamBuffer* b = allocateBuffer();
        int got = __mv_socket_engine_tcp_get_buffer(s, b->buffer, int(len));
        __mv_socket_engine_tcp_release_used_buffer(s);
        if (got != int(len)) {  // closed under us
            releaseBuffer(b);
            return;
        }
        node->PartialSeconds = 0;
        b->len = len;
        b->srcDiamNode = node;
        b->siSocket = s;
        b->connGen = node->ConnGen;
        onMessage(node, b);
    }
}

void onSctpData(MV_SocketSCTPBuffer* sb) {
    MV_Socket* s = sb->siSocket;
    auto* node = static_cast<MV_DiamNode*>(s ? s->parentData1 : nullptr);
    int n = sb->len - sb->pos;
    if (!node || n < MV_DIAM_HEADER_LEN || n > MV_DIAM_BUFFER_SIZE) {
        if (node) {
            char peer[300];
            __mv_diam___peer_text(node, peer, sizeof peer);
            ++__mvDiamStack->Counters.DecodeErrors;
            ++node->DecodeErrors;
            MV_DIAM_LOG(MV_LOG_ERROR, "invalid message length %d from %s on stream %u, dropped <%s|%s|%d>", n, peer,
                        unsigned(sb->streamId), __FILE_NAME__, __func__, __LINE__);
        }
        __mv_socket_engine_release_sctp_socket_buffer(sb);
        return;
    }
    MV_DiamBuffer* b = allocateBuffer();
    memcpy(b->buffer, sb->buff + sb->pos, size_t(n));
    __mv_socket_engine_release_sctp_socket_buffer(sb);
    b->len = uint32_t(n);
    b->srcDiamNode = node;
    b->siSocket = s;
    b->connGen = node->ConnGen;
    onMessage(node, b);
}

void onClose(MV_Socket* s) {
    auto* node = static_cast<MV_DiamNode*>(s->parentData1);
    if (!node) return;
    ++node->ConnGen;
    resetConnectionState(node);
    // An accepted socket goes back to the engine, which hands it to the next connection.
    if (node->isHost && !node->isListener) {
        MV_Socket* mine = s;
        node->vSiSocket.compare_exchange_strong(mine, nullptr);
    }
    char peer[300];
    __mv_diam___peer_text(node, peer, sizeof peer);
    MV_DIAM_LOG(MV_LOG_INFO, "Diameter connection %s to %s closed <%s|%s|%d>", node->Id, peer, __FILE_NAME__, __func__,
                __LINE__);
    wake(node);
}

// ---------------------------------------------------------------- threads

uint32_t firstApplication(const MV_DiamNode* n) {
    if (n->AuthApplicationIdCount) return n->AuthApplicationId[0];
    return n->VendorSpecificAuthApplicationIdCount ? n->VendorSpecificAuthApplicationId[0] : 0;
}

int connectOnce(MV_DiamNode* node, MV_Socket* s) {
    if (node->IPTransportType == MV_DIAM_TRANSPORT_SCTP) return __mv_socket_engine_sctp_connect_socket(s);
    return s->Connect(s);
}

MV_Socket* makeClientSocket(MV_DiamNode* node) {
    MV_Socket* s;
    if (node->IPTransportType == MV_DIAM_TRANSPORT_SCTP) {
        MV_SctpSocketInfo info{};
        info.ipVersion = node->sHostIPVersion == 6 || node->IPVersion == 6 ? 6 : 4;
        info.ipCount = int(node->sHostIPCount > 5 ? 5 : node->sHostIPCount);
        for (int i = 0; i < info.ipCount; ++i) snprintf(info.IP[i], sizeof info.IP[i], "%s", node->sHostIP[i]);
        info.Port = node->CPort;
        info.RemotePort = node->IPPort;
        info.RemoteIpCount = int(node->sIPCount ? (node->sIPCount > 5 ? 5 : node->sIPCount) : 1);
        for (int i = 0; i < info.RemoteIpCount; ++i) snprintf(info.RemoteIP[i], sizeof info.RemoteIP[i], "%s", node->sIP[i]);
        info.PPID = MV_DIAM_SCTP_PPID;
        info.UseEPoll = 0;  // the socket's own reader; this thread connects it
        info.MaxOStreams = node->SCTP_MaxOStreams;
        info.MaxIStreams = node->SCTP_MaxIStreams;
        s = __mv_socket_engine_create_sctp_client_socket(&info);
        s->disableClientAutoReConnect = 1;
        s->OnBufferReceive = onSctpData;
    } else {
        const char* cip = node->sHostIPCount ? node->sHostIP[0] : nullptr;
        s = __mv_socket_engine_create_client_socket2(node->sIP[0], node->IPVersion, MV_TRANSPORT_TCP, node->IPPort, 0,
                                                     nullptr, cip, node->CPort);
        if (cip && node->CPort > 0) {
            // The engine binds a TCP client to these two fields.
            snprintf(s->RemoteIPAddresses[0].IP, sizeof s->RemoteIPAddresses[0].IP, "%s", cip);
            s->RemoteIPAddressCount = 1;
            s->RemoteIPPort = uint32_t(node->CPort);
        }
        s->OnBufferReceive = onTcpData;
    }
    s->parentData1 = node;
    s->OnClose = onClose;
    return s;
}

void normaliseTimers(MV_DiamNode* node) {
    if (node->DWRTimer < 1 || node->DWRTimer > 100) node->DWRTimer = 30;
    if (node->ReConnectSecs < 1 || node->ReConnectSecs > 30) node->ReConnectSecs = 5;
}

void* peerThread(void* arg) {
    auto* node = static_cast<MV_DiamNode*>(arg);
    normaliseTimers(node);
    MV_Socket* s = makeClientSocket(node);
    node->vSiSocket = s;
    bool readerStarted = false;
    auto nextTick = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (;;) {
        bool up = __mv_socket_engine_is_connected(s);
        if (!node->isEnabled && up && !node->DPRSent) {
            if (node->isCERSuccess == 1 && sendDPR(node, MV_DIAM_DISCONNECT_DO_NOT_WANT_TO_TALK_TO_YOU) > 0) {
                node->DPRSent = 1;
                MV_DIAM_LOG(MV_LOG_INFO, "peer %s disabled, DPR sent <%s|%s|%d>", node->Id, __FILE_NAME__, __func__,
                            __LINE__);
            } else {
                __mv_diam___close(node);
            }
        }
        if (node->isEnabled && !up) {
            resetConnectionState(node);
            if (connectOnce(node, s) != 1) {
                MV_DIAM_LOG(MV_LOG_ERROR,
                            "Connecting to DIAM Node failed for server ip=%s port=%d AuthApplicationId=%u <%s|%s|%d>",
                            node->sIP[0], node->IPPort, firstApplication(node->AdvertisedApps ? node->AdvertisedApps : node),
                            __FILE_NAME__, __func__, __LINE__);
                auto retry = std::chrono::steady_clock::now() + std::chrono::seconds(node->ReConnectSecs);
                while (node->isEnabled && std::chrono::steady_clock::now() < retry) sleepUntil(node, retry);
                continue;
            }
            if (node->IPTransportType == MV_DIAM_TRANSPORT_SCTP && !readerStarted) {
                __mv_socket_engine_sctp_client_socket_start_read_thread(s);
                readerStarted = true;
            }
            ++node->ConnGen;
            ++node->Connects;
            MV_DIAM_LOG(MV_LOG_INFO, "connected to DIAM Node %s ip=%s port=%d, sending CER <%s|%s|%d>", node->Id,
                        node->sIP[0], node->IPPort, __FILE_NAME__, __func__, __LINE__);
            sendCER(node);
            node->CERCounter = 1;
            nextTick = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        }
        sleepUntil(node, nextTick);
        if (std::chrono::steady_clock::now() >= nextTick) {
            nextTick += std::chrono::seconds(1);
            if (__mv_socket_engine_is_connected(s)) __mv_diam___watchdog_tick(node);
        }
    }
    return nullptr;
}

// The thread of one accepted connection; it waits, idle, for the next when its connection ends.
void* connectionThread(void* arg) {
    auto* t = static_cast<__mv_diam_client_thread*>(arg);
    MV_DiamNode* node = t->node;
    auto nextTick = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (;;) {
        sleepUntil(node, nextTick);
        auto now = std::chrono::steady_clock::now();
        if (now < nextTick) continue;
        nextTick = now + std::chrono::seconds(1);
        if (!connected(node)) {
            std::lock_guard g(__mvDiamStack->ClientThreadLock);
            if (!connected(node)) t->isIdle = 1;
            continue;
        }
        __mv_diam___watchdog_tick(node);
    }
    return nullptr;
}

void copyApplications(MV_DiamNode* dst, const MV_DiamNode* src) {
    memcpy(dst->AuthApplicationId, src->AuthApplicationId, sizeof dst->AuthApplicationId);
    memcpy(dst->AcctApplicationId, src->AcctApplicationId, sizeof dst->AcctApplicationId);
    memcpy(dst->VendorSpecificAuthApplicationId, src->VendorSpecificAuthApplicationId,
           sizeof dst->VendorSpecificAuthApplicationId);
    memcpy(dst->VendorSpecificAuthApplicationVendorId, src->VendorSpecificAuthApplicationVendorId,
           sizeof dst->VendorSpecificAuthApplicationVendorId);
    memcpy(dst->VendorSpecificAcctApplicationId, src->VendorSpecificAcctApplicationId,
           sizeof dst->VendorSpecificAcctApplicationId);
    memcpy(dst->VendorSpecificAcctApplicationVendorId, src->VendorSpecificAcctApplicationVendorId,
           sizeof dst->VendorSpecificAcctApplicationVendorId);
    dst->AuthApplicationIdCount = src->AuthApplicationIdCount;
    dst->AcctApplicationIdCount = src->AcctApplicationIdCount;
    dst->VendorSpecificAuthApplicationIdCount = src->VendorSpecificAuthApplicationIdCount;
    dst->VendorSpecificAcctApplicationIdCount = src->VendorSpecificAcctApplicationIdCount;
}

void copyIdentity(MV_DiamNode* conn, const MV_DiamNode* host) {
    snprintf(conn->Id, sizeof conn->Id, "%.24s-conn", host->Id);
    conn->isHost = 1;
    conn->isEnabled = 1;
    conn->hostNode = const_cast<MV_DiamNode*>(host);
    conn->IPTransportType = host->IPTransportType;
    conn->IPVersion = host->IPVersion;
    conn->DWRTimer = host->DWRTimer.load();
    conn->ReConnectSecs = host->ReConnectSecs;
    conn->VendorId = host->VendorId;
    conn->sHostName[0] = 0;
    conn->sRealm[0] = 0;
}

void onAccept(MV_Socket* child, MV_Socket* parent) {
    auto* host = static_cast<MV_DiamNode*>(parent->parentData1);
    auto* st = __mvDiamStack;
    __mv_diam_client_thread* t = nullptr;
    bool fresh = false;
    {
        std::lock_guard g(st->ClientThreadLock);
        for (__mv_diam_client_thread* x = st->ClientThreadHead; x; x = x->Next)
            if (x->isIdle && x->TransportType == host->IPTransportType) {
                t = x;
                break;
            }
        if (!t) {
            t = __mv_arena_new<__mv_diam_client_thread>();
            t->node = __mv_arena_new<MV_DiamNode>();
            t->node->ptrClientThread = t;
            t->TransportType = host->IPTransportType;
            if (st->ClientThreadCurrent) st->ClientThreadCurrent->Next = t;
            else st->ClientThreadHead = t;
            st->ClientThreadCurrent = t;
            fresh = true;
        }
        t->isIdle = 0;
    }
    MV_DiamNode* conn = t->node;
    copyIdentity(conn, host);
    resetConnectionState(conn);
    ++conn->ConnGen;
    ++conn->Connects;
    conn->vSiSocket = child;
    child->parentData1 = conn;
    child->OnClose = onClose;
    if (host->IPTransportType == MV_DIAM_TRANSPORT_SCTP) child->OnBufferReceive = onSctpData;
    else child->OnBufferReceive = onTcpData;
    if (fresh) {
        addToPeerTable(conn);
        __mv_create_pthread2(connectionThread, t, "mv_dm_poll");
    }
    wake(conn);
}

}  // namespace

// ---------------------------------------------------------------- stack

fn_mv_diam_msg_handler __mv_diam___msg_handler() {
    fn_mv_diam_msg_handler h = msgHandler.load(std::memory_order_relaxed);
    return h ? h : __mv_diam_dispatch_by_application;
}

void __mv_diam_set_msg_handler(fn_mv_diam_msg_handler handler) { msgHandler = handler; }

int __mv_diam_stack_init(json_t* json) {
    std::call_once(stackOnce, [json] {
        __init_morva_core();
        __mv_socket_engine_init();
        auto* st = __mv_arena_new<__mv_diam_stack>();
        st->start_time = time(nullptr);
        st->OriginStateId = __mv_core_getU16RAND();
        json_int_t pool = json ? json_integer_value(json_object_get(json, "DiamBuffPoolSize")) : 0;
        json_int_t threads = json ? json_integer_value(json_object_get(json, "DiamStackThreads")) : 0;
        st->diamBuffPoolSize = pool >= 1 && pool <= 9999 ? int(pool) : 3000;
        st->diamStackThreads = threads >= 1 && threads <= 149 ? int(threads) : 20;
        __mvDiamStack = st;
        bufferPool().add(st->diamBuffPoolSize, 1);
        __mv_core_create_queue(&st->decodeQueue, decodeWorker, st->diamStackThreads, 100000);
        __mv_diam___ensure_table();
        __mv_add_app_event_handler(__mv_diam_print_stats);
        MV_DIAM_LOG(MV_LOG_INFO, "diameter stack up: buffers=%d decode threads=%d Origin-State-Id=%u <%s|%s|%d>",
                    st->diamBuffPoolSize, st->diamStackThreads, st->OriginStateId, __FILE_NAME__, __func__, __LINE__);
    });
    return 1;
}

MV_DiamNode* __mv_diam_new_node(const char* id, const char* hostName, const char* realm) {
    auto* n = __mv_arena_new<MV_DiamNode>();
    snprintf(n->Id, sizeof n->Id, "%s", id ? id : "");
    snprintf(n->sHostName, sizeof n->sHostName, "%s", hostName ? hostName : "");
    snprintf(n->sRealm, sizeof n->sRealm, "%s", realm ? realm : "");
    snprintf(n->sProductName, sizeof n->sProductName, "Kestrane");
    n->VendorId = MV_DIAM_VENDOR_3GPP;
    n->IPVersion = 4;
    n->sHostIPVersion = 4;
    n->IPTransportType = MV_DIAM_TRANSPORT_TCP;
    n->SCTP_MaxOStreams = 3;
    n->SCTP_MaxIStreams = 3;
    n->DWRTimer = 30;
    n->ReConnectSecs = 5;
    n->isEnabled = 1;
    n->LastDisconnectCause = 0xFFFFFFFF;
    return n;
}

int __mv_diam_start_host(MV_DiamNode* node) {
    if (!node) return -1;
    __mv_diam_stack_init(nullptr);
    if (node->IPTransportType != MV_DIAM_TRANSPORT_TCP && node->IPTransportType != MV_DIAM_TRANSPORT_SCTP) {
        printf("DIAM NODE HOST IPTransportType[%d] NOT Implemented %s|%d\n", node->IPTransportType, __func__, __LINE__);
        return -1;
    }
    int expected = 0;
    if (!node->isStarted.compare_exchange_strong(expected, 1)) return 0;
    normaliseTimers(node);
    node->isHost = 1;
    node->isListener = 1;
    addToPeerTable(node);
    MV_Socket* s;
    if (node->IPTransportType == MV_DIAM_TRANSPORT_SCTP) {
        MV_SctpSocketInfo info{};
        info.ipVersion = node->IPVersion == 6 ? 6 : 4;
        info.ipCount = int(node->sIPCount > 5 ? 5 : node->sIPCount);
        for (int i = 0; i < info.ipCount; ++i) snprintf(info.IP[i], sizeof info.IP[i], "%s", node->sIP[i]);
        info.Port = node->IPPort;
        info.PPID = MV_DIAM_SCTP_PPID;
        info.UseEPoll = 1;
        info.MaxOStreams = node->SCTP_MaxOStreams;
        info.MaxIStreams = node->SCTP_MaxIStreams;
        s = __mv_socket_engine_create_sctp_server_socket(&info);
        s->OnBufferReceive = onSctpData;
    } else {
        s = __mv_socket_engine_create_server_socket(node->sIPCount ? node->sIP[0] : nullptr, node->IPVersion,
                                                    MV_TRANSPORT_TCP, node->IPPort, 0, nullptr, nullptr);
        s->OnBufferReceive = onTcpData;
    }
    s->parentData1 = node;
    s->OnAccept = onAccept;
    s->OnClose = onClose;
    node->vSiSocket = s;
    __mv_socket_engine_start_server_socket(s);
    MV_DIAM_LOG(MV_LOG_INFO, "diameter host %s listening on %s port %d transport %d <%s|%s|%d>", node->Id,
                node->sIPCount ? node->sIP[0] : "any", node->IPPort, node->IPTransportType, __FILE_NAME__, __func__,
                __LINE__);
    return 1;
}

int __mv_diam_start_peer(MV_DiamNode* node) {
    if (!node) return -1;
    __mv_diam_stack_init(nullptr);
    if (node->IPTransportType != MV_DIAM_TRANSPORT_TCP && node->IPTransportType != MV_DIAM_TRANSPORT_SCTP) {
        printf("DIAM NODE PEER IPTransportType[%d] NOT Implemented %s|%d\n", node->IPTransportType, __func__, __LINE__);
        return -1;
    }
    int expected = 0;
    if (!node->isStarted.compare_exchange_strong(expected, 1)) return 0;
    node->isHost = 0;
    // A CEA replaces the node's lists with what the peer serves; every CER offers what was
    // configured.
    auto* apps = __mv_arena_new<MV_DiamNode>();
    copyApplications(apps, node);
    node->AdvertisedApps = apps;
    addToPeerTable(node);
    __mv_create_pthread2(peerThread, node,
                         node->IPTransportType == MV_DIAM_TRANSPORT_SCTP ? "mv_d-pc-s" : "mv_d-pc-t");
    return 1;
}

void __mv_diam_disable_peer(MV_DiamNode* node) {
    if (!node) return;
    node->isEnabled = 0;
    wake(node);
}

void __mv_diam_enable_peer(MV_DiamNode* node) {
    if (!node) return;
    node->isEnabled = 1;
    wake(node);
}

int __mv_diam__get_peer_status(MV_DiamNode* node) {
    MV_Socket* s = node ? node->vSiSocket.load() : nullptr;
    if (!s) return 10;
    if (!__mv_socket_engine_is_connected(s)) return 8;
    return node->isCERSuccess == 1 ? 20 : 11;
}

void __mv_diam_for_each_connection(MV_DiamNode* host, void (*fn)(MV_DiamNode* conn, void* arg), void* arg) {
    if (!host || !fn || !__mvDiamStack) return;
    std::vector<MV_DiamNode*> found;
    {
        std::lock_guard g(__mvDiamStack->peerTableLock);
        for (MV_DiamNode* n = __mvDiamStack->peerTableHead; n; n = n->peerTableNext)
            if (n->hostNode == host && n->isHost && connected(n)) found.push_back(n);
    }
    for (MV_DiamNode* n : found) fn(n, arg);
}

void __mv_diam_print_stats() {
    auto* st = __mvDiamStack;
    if (!st || __mv_log_get_level(MV_PER_LOG) < MV_LOG_DEBUG) return;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
             "Diam: Received=%lu Sent=%lu DecodeErrors=%lu UnknownAnswers=%lu Timeouts=%lu TableFull=%lu "
             "Unhandled=%lu Queued=%lu Buffers[Total=%d Used=%ld]",
             (unsigned long)st->TotalMessagesReceived.load(), (unsigned long)st->TotalMessagesSent.load(),
             (unsigned long)st->Counters.DecodeErrors.load(), (unsigned long)st->Counters.UnknownAnswers.load(),
             (unsigned long)st->Counters.Timeouts.load(), (unsigned long)st->Counters.TableFull.load(),
             (unsigned long)st->Counters.UnhandledMessages.load(), (unsigned long)st->Counters.QueuedDecodes.load(),
             st->diamBufferPoolTotal, st->diamBufferPoolUsed.load());
    std::lock_guard g(st->peerTableLock);
    for (MV_DiamNode* n = st->peerTableHead; n; n = n->peerTableNext) {
        if (n->isListener) continue;
        __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
                 "Diam: Node=%s Peer=%s status=%d Received=%lu Sent=%lu SendFailed=%lu DWR[sent=%lu rcvd=%lu] "
                 "DWA=%lu Missed=%d DecodeErrors=%lu Connects=%lu",
                 n->Id, n->sHostName, __mv_diam__get_peer_status(n), (unsigned long)n->RequestNumber.load(),
                 (unsigned long)n->SentMessages.load(), (unsigned long)n->SentMessagesFailed.load(),
                 (unsigned long)n->SentDWR.load(), (unsigned long)n->ReceivedDWR.load(),
                 (unsigned long)n->ReceivedDWA.load(), n->MissedDWA.load(), (unsigned long)n->DecodeErrors.load(),
                 (unsigned long)n->Connects.load());
    }
}

// ---------------------------------------------------------------- watchdog

bool __mv_diam___watchdog_tick(MV_DiamNode* node) {
    char peer[300];
    auto closeWith = [&](const char* why) {
        __mv_diam___peer_text(node, peer, sizeof peer);
        MV_DIAM_LOG(MV_LOG_ERROR, "%s (%s) <%s|%s|%d>", why, peer, __FILE_NAME__, __func__, __LINE__);
        __mv_diam___close(node);
        return false;
    };
    if (node->DPRSent && ++node->DPRSent > kDpaWaitSeconds) return closeWith("no DPA to our DPR, closing connection");
    if (node->CloseAfterDPA && ++node->CloseAfterDPA > kCloseAfterDpaSeconds)
        return closeWith("peer disconnected by DPR, closing connection");
    MV_Socket* s = node->vSiSocket.load();
    if (s && s->TransportType == MV_TRANSPORT_TCP && __mv_socket_engine_buffer_data_length(s) > 0) {
        if (++node->PartialSeconds > node->DWRTimer)
            return closeWith("an incomplete message waited longer than the watchdog interval, closing connection");
    } else {
        node->PartialSeconds = 0;
    }
    if (node->MissedDWA > kMaxMissedDWA) {
        if (node->isHost)
            MV_DIAM_LOG(MV_LOG_ERROR, "server is not respondig for dwr, closing connection <%s|%s|%d>", __FILE_NAME__,
                        __func__, __LINE__);
        else
            MV_DIAM_LOG(MV_LOG_ERROR, "diam peer/server not responding., closing connection <%s|%s|%d>", __FILE_NAME__,
                        __func__, __LINE__);
        __mv_diam___close(node);
        return false;
    }
    int idle = ++node->IdleSeconds;
    if (node->isHost && node->isCERSuccess != 1 && idle >= node->DWRTimer)
        return closeWith("no CER on an accepted connection within the watchdog interval, closing connection");
    if (idle >= node->DWRTimer) {
        if (node->isCERSuccess == 1) {
            sendDWR(node);
            ++node->MissedDWA;
        } else if (!node->isHost) {
            sendCER(node);
            ++node->CERCounter;
        }
        node->IdleSeconds = 0;
    }
    return true;
}

// ---------------------------------------------------------------- sending

void __mv_diam___peer_text(const MV_DiamNode* node, char* out, size_t cap) {
    if (!node) {
        snprintf(out, cap, "(no node)");
        return;
    }
    char ip[64] = "";
    int port = 0;
    MV_Socket* s = node->vSiSocket.load();
    if (s && node->isHost && !node->isListener) __mv_socket_engine__get_client_ip_port(s, ip, &port);
    if (!ip[0]) {
        snprintf(ip, sizeof ip, "%s", node->sIP[0]);
        port = node->IPPort;
    }
    snprintf(out, cap, "node=%s peer=%s %s:%d", node->Id, node->sHostName[0] ? node->sHostName : "?", ip, port);
}

void __mv_diam___close(MV_DiamNode* node) {
    MV_Socket* s = node ? node->vSiSocket.load() : nullptr;
    if (!s || s->parentData1 != node) return;
    if (s->TransportType == MV_TRANSPORT_SCTP) __mv_socket_engine_sctp__close_client_connection(s);
    else if (s->Close) s->Close(s);
}

int __mv_diam___send(MV_DiamMessage* msg, MV_DiamNode* node, bool baseProtocol) {
    if (!msg || !node) return -1;
    MV_Socket* s = node->vSiSocket.load();
    if (!s || !__mv_socket_engine_is_connected(s) ||
        (!baseProtocol && (node->isCERSuccess != 1 || node->DPRSent || node->CloseAfterDPA))) {
        ++node->SentMessagesFailed;
        return -1;
    }
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    int n = __mv_diam_encodeMessage(msg, buf, sizeof buf);
    if (n < 0) {
        ++node->SentMessagesFailed;
        MV_DIAM_LOG(MV_LOG_ERROR, "message of Command-Code=%u does not fit %d bytes, not sent <%s|%s|%d>",
                    __mv_diam_get_cmdcode(msg), MV_DIAM_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
        return -2;
    }
    int rc;
    if (s->TransportType == MV_TRANSPORT_SCTP) {
        // The base protocol keeps stream 0; the rest takes the streams in turn.
        uint16_t stream = baseProtocol ? 0 : __mv_socket_sctp_next_streamid(0, s);
        rc = __mv_socket_engine_sctp_send2(s, buf, n, stream, MV_DIAM_SCTP_PPID);
    } else {
        // Sends of several threads must not interleave their pieces on the stream.
        std::lock_guard g(node->SendLock);
        rc = __mv_socket_engine_tcp_send_socket_data(s, buf, n, 0);
    }
    if (rc < 1) {
        ++node->SentMessagesFailed;
        return rc < 0 ? rc : -1;
    }
    ++node->SentMessages;
    if (__mvDiamStack) ++__mvDiamStack->TotalMessagesSent;
    return rc;
}

int __mv_diam_send_message(MV_DiamMessage* msg, MV_DiamNode* node) {
    if (!msg || !node) return -1;
    if (node->isListener) {
        // A listening host sends on its first connection that has done its capability exchange.
        MV_DiamNode* conn = nullptr;
        if (__mvDiamStack) {
            std::lock_guard g(__mvDiamStack->peerTableLock);
            for (MV_DiamNode* n = __mvDiamStack->peerTableHead; n && !conn; n = n->peerTableNext)
                if (n->hostNode == node && n->isHost && n->isCERSuccess == 1 && connected(n)) conn = n;
        }
        if (!conn) {
            ++node->SentMessagesFailed;
            return -1;
        }
        node = conn;
    }
    return __mv_diam___send(msg, node, isBaseCommand(__mv_diam_get_cmdcode(msg)));
}

int __mv_diam_send_answer(MV_DiamMessage* request, MV_DiamMessage* answer) {
    if (!request || !answer) return -1;
    MV_DiamNode* node = request->srcDiamNode;
    if (!node || node->ConnGen.load() != request->siConnGen) {
        if (node) ++node->SentMessagesFailed;
        MV_DIAM_LOG(MV_LOG_ERROR, "answer to Command-Code=%u not sent: the connection of the request is gone <%s|%s|%d>",
                    __mv_diam_get_cmdcode(answer), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    return __mv_diam___send(answer, node, true);
}

// ---------------------------------------------------------------- builders

int __mv_diam_create_cer_request(MV_DiamMessage* msg, MV_DiamNode* hostNode, MV_DiamNode* peerNode) {
    if (!msg || !hostNode) return -1;
    __mv_diam_add_host_name(msg, hostNode);
    __mv_diam_add_host_realm(msg, hostNode);
    addHostIPs(msg, hostNode, peerNode);
    // Vendor-Id is a required AVP of CER, 0 included.
    __mv_diam_add_uint32_avp(msg, 266, 0, 1, hostNode->VendorId);
    __mv_diam_add_string_avp(msg, 269, 0, 0, productName(hostNode), uint32_t(strlen(productName(hostNode))));
    __mv_diam_add_uint32_avp(msg, 299, 0, 1, 0);
    MV_DiamNode* apps = peerNode ? peerNode : hostNode;
    addApplications(msg, apps->AdvertisedApps ? apps->AdvertisedApps : apps);
    __mv_diam_add_uint32_avp(msg, 267, 0, 0, 1);
    return 1;
}

namespace {
// An answer to request with Session-Id, the host's origin, Result-Code and Origin-State-Id.
MV_DiamMessage* errorAnswer(MV_DiamMessage* request, uint32_t resultCode, MV_DiamNode* host) {
    MV_DiamMessage* a = __mv_diam_create_answer(request);
    if (!a) return nullptr;
    if (resultCode >= 3000 && resultCode < 4000) a->Header.Flags |= MV_DIAM_FLAG_ERROR;
    if (MV_DiamAvp* sid = __mv_diam_find_avp(263, 0, request); sid && sid->DataType == MV_DIAM_TYPE_OCTETSTRING)
        __mv_diam_add_string_avp(a, 263, 0, 1, sid->data, uint32_t(sid->usInt64Val));
    if (host) {
        __mv_diam_add_host_name(a, host);
        __mv_diam_add_host_realm(a, host);
    }
    if (resultCode) __mv_diam_add_uint32_avp(a, 268, 0, 1, resultCode);
    if (uint32_t osi = originStateId(host)) __mv_diam_add_uint32_avp(a, 278, 0, 1, osi);
    return a;
}

int sendAndFree(MV_DiamMessage* request, MV_DiamMessage* answer) {
    int rc = __mv_diam_send_answer(request, answer);
    __mv_diam_freeMessage2(answer);
    return rc;
}
}  // namespace

int __mv_diam_send_error(MV_DiamMessage* request, uint32_t resultCode, uint32_t failedAvp,
                         uint32_t experimentalResultCode, MV_DiamNode* hostNode) {
    if (!request) return -1;
    MV_DiamMessage* a = errorAnswer(request, resultCode, hostNode ? hostNode : hostOf(request->srcDiamNode));
    if (!a) return -1;
    if (failedAvp) {
        MV_DiamAvp* f = __mv_diam_add_grouped_avp(a, 279, 0, 1);
        switch (__mv_diam_get_data_type(failedAvp, __mv_diam_get_applicationid(request))) {
            case MV_DIAM_TYPE_INT32: __mv_diam_add_int32_avp_to_grpavp(f, failedAvp, 0, 0, 0); break;
            case MV_DIAM_TYPE_UINT32: __mv_diam_add_uint32_avp_to_grpavp(f, failedAvp, 0, 0, 0); break;
            case MV_DIAM_TYPE_INT64: __mv_diam_add_int64_avp_to_grpavp(f, failedAvp, 0, 0, 0); break;
            case MV_DIAM_TYPE_UINT64: __mv_diam_add_uint64_avp_to_grpavp(f, failedAvp, 0, 0, 0); break;
            case MV_DIAM_TYPE_GROUPED: __mv_diam_add_grouped_avp_toavp(f, failedAvp, 0, 0); break;
            default: __mv_diam_add_string_avp_to_grpavp(f, failedAvp, 0, 0, nullptr, 0); break;
        }
    }
    if (experimentalResultCode) __mv_diam_add_experimental_result_code_avp(a, MV_DIAM_VENDOR_3GPP, experimentalResultCode);
    return sendAndFree(request, a);
}

int __mv_diam___send_decode_error(MV_DiamMessage* request, const MV_DiamDecodeStatus& st,
                                  std::span<const uint8_t> bytes) {
    MV_DiamMessage* a = errorAnswer(request, st.Code, hostOf(request->srcDiamNode));
    if (!a) return -1;
    if (st.AvpCode && st.Offset + 8 <= bytes.size()) {
        // The offending AVP as far as it came: its code, flags and vendor and the value
        // bytes that were there; a group with an empty value.
        const uint8_t* h = bytes.data() + st.Offset;
        uint32_t len = uint32_t(h[5]) << 16 | uint32_t(h[6]) << 8 | h[7];
        uint32_t hdr = st.AvpVendor ? 12 : 8;
        size_t end = std::min<size_t>(st.Offset + std::max(len, hdr), bytes.size());
        size_t n = end > st.Offset + hdr ? end - st.Offset - hdr : 0;
        MV_DiamAvp* f = __mv_diam_add_grouped_avp(a, 279, 0, 1);
        int m = (h[4] & MV_DIAM_AVP_FLAG_MANDATORY) ? 1 : 0;
        if (__mv_diam_get_data_type(st.AvpCode, __mv_diam_get_applicationid(request)) == MV_DIAM_TYPE_GROUPED)
            __mv_diam_add_grouped_avp_toavp(f, st.AvpCode, st.AvpVendor, m);
        else
            __mv_diam_add_string_avp_to_grpavp(f, st.AvpCode, st.AvpVendor, m, h + hdr, uint32_t(n));
    }
    return sendAndFree(request, a);
}

void __mv_diam__copy_routing_info(MV_DiamMessage* msg, MV_DiamNode* node) {
    if (!msg || !node) return;
    node->AuthApplicationIdCount = node->AcctApplicationIdCount = 0;
    node->VendorSpecificAuthApplicationIdCount = node->VendorSpecificAcctApplicationIdCount = 0;
    auto text = [msg](uint32_t code, char* dst, size_t cap) {
        const uint8_t* v;
        uint32_t len;
        if (__mv_diam_get_string_avp_value(msg, code, &v, &len))
            snprintf(dst, cap, "%.*s", int(len < cap ? len : cap - 1), reinterpret_cast<const char*>(v));
    };
    // A host-side connection learns who it talks to; a peer whose name was left empty too.
    if (node->isHost || !node->sHostName[0]) text(264, node->sHostName, sizeof node->sHostName);
    if (node->isHost || !node->sRealm[0]) text(296, node->sRealm, sizeof node->sRealm);
    for (MV_DiamAvp* a = msg->Head; a; a = a->Next) {
        if (a->AvpCode == 258 && a->DataType == MV_DIAM_TYPE_UINT32 && node->AuthApplicationIdCount < 5)
            node->AuthApplicationId[node->AuthApplicationIdCount++] = a->usIntVal;
        else if (a->AvpCode == 259 && a->DataType == MV_DIAM_TYPE_UINT32 && node->AcctApplicationIdCount < 5)
            node->AcctApplicationId[node->AcctApplicationIdCount++] = a->usIntVal;
        else if (a->AvpCode == 260) {
            MV_DiamAvp* v = __mv_diam_find_avp_in_group(266, 0, a);
            MV_DiamAvp* auth = __mv_diam_find_avp_in_group(258, 0, a);
            MV_DiamAvp* acct = __mv_diam_find_avp_in_group(259, 0, a);
            uint32_t vendor = v && v->DataType == MV_DIAM_TYPE_UINT32 ? v->usIntVal : 0;
            if (auth && auth->DataType == MV_DIAM_TYPE_UINT32 && node->VendorSpecificAuthApplicationIdCount < 5) {
                uint32_t i = node->VendorSpecificAuthApplicationIdCount++;
                node->VendorSpecificAuthApplicationId[i] = auth->usIntVal;
                node->VendorSpecificAuthApplicationVendorId[i] = vendor;
            } else if (acct && acct->DataType == MV_DIAM_TYPE_UINT32 && node->VendorSpecificAcctApplicationIdCount < 5) {
                uint32_t i = node->VendorSpecificAcctApplicationIdCount++;
                node->VendorSpecificAcctApplicationId[i] = acct->usIntVal;
                node->VendorSpecificAcctApplicationVendorId[i] = vendor;
            }
        }
    }
}
