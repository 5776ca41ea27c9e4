#include "gtpu_node.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "mv_core.h"
#include "mv_loggate.h"

#define GTPU_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_CORE, level, fmt, ##__VA_ARGS__)

namespace {

enum Gate { G_DECODE, G_TOO_LONG, G_UNKNOWN_TEID, G_TYPE, G_IE, G_ERROR_INDICATION, G_COUNT };

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

struct __mv_gtpu_node {
    gtpu_path path;
    MV_IndexTable* teidTable = nullptr;
    uint32_t teidOffset = 0;
    __mv_gtpu_handlers h;
#define GTPU_STAT_ATOMIC(name) std::atomic<uint64_t> name{0};
    GTPU_STATS_FIELDS(GTPU_STAT_ATOMIC)
#undef GTPU_STAT_ATOMIC
    MV_LogGate gates[G_COUNT];
    std::atomic<bool> run{false};
    bool threaded = false;
    MV_Sem exited;
    gtpu_rx_batch* rx = nullptr;
};

namespace {

// What a peer sends can come in floods: these lines pass a gate per kind.
void logRx(__mv_gtpu_node* n, Gate gate, int level, const char* what, const char* verb, const char* detail,
           const gtpu_peer& from) {
    uint64_t skipped = 0;
    if (!n->gates[gate].pass(nowMs(), skipped)) return;
    char peer[80];
    gtpu_peer_text(from, peer, sizeof peer);
    GTPU_LOG(level, "gtpu %s %s from %s: %s (%lu more like it not logged)  %s|%s|%d", what, verb, peer, detail,
             (unsigned long)skipped, __FILE_NAME__, __func__, __LINE__);
}
void logDrop(__mv_gtpu_node* n, Gate gate, const char* what, const char* detail, const gtpu_peer& from) {
    logRx(n, gate, MV_LOG_WARNING, what, "dropped", detail, from);
}

void countRefusal(__mv_gtpu_node* n, gtpu_rx_error e) {
    switch (e) {
        case GTPU_RX_SHORT: ++n->rxShort; break;
        case GTPU_RX_VERSION: ++n->rxBadVersion; break;
        case GTPU_RX_PROTOCOL_TYPE: ++n->rxProtocolType; break;
        case GTPU_RX_LENGTH: ++n->rxBadLength; break;
        case GTPU_RX_EXTENSION: ++n->rxBadExtension; break;
        case GTPU_RX_EXTENSION_UNSUPPORTED: ++n->rxUnsupportedExtension; break;
        default: ++n->rxBadIE; break;
    }
}

void answerEcho(__mv_gtpu_node* n, const gtpu_msg_t& m, const gtpu_peer& from) {
    uint8_t rsp[16];
    size_t len = gtpu_build_echo_response(rsp, m.seq);
    int r = gtpu_path_send_one(&n->path, from, rsp, len);
    if (r == int(len)) {
        ++n->txEchoResponse;
        return;
    }
    ++n->txFailed;
    char peer[80];
    GTPU_LOG(MV_LOG_ERROR, "sending Echo Response Failed - sendBytes=%d to %s  %s|%s|%d", r,
             gtpu_peer_text(from, peer, sizeof peer), __FILE_NAME__, __func__, __LINE__);
}

void* rxThread(void* arg) {
    auto* n = static_cast<__mv_gtpu_node*>(arg);
    while (n->run.load(std::memory_order_acquire)) {
        int got = gtpu_path_recv(&n->path, n->rx, 1000);
        if (got < 0) break;
        for (int i = 0; i < got; i++) {
            const mmsghdr& m = n->rx->msg[i];
            if (m.msg_hdr.msg_flags & MSG_TRUNC) {
                ++n->rxDatagrams;
                ++n->rxTooLong;
                logDrop(n, G_TOO_LONG, "datagram", "longer than a receive buffer", n->rx->from[i]);
                continue;
            }
            __mv_gtpu__handle_datagram(n, std::span<const uint8_t>(n->rx->buf[i], m.msg_len), n->rx->from[i]);
        }
    }
    n->exited.post();
    return nullptr;
}

}  // namespace

__mv_gtpu_node* __mv_gtpu__open(const __mv_gtpu_config* cfg) {
    if (!cfg) return nullptr;
    auto* n = new __mv_gtpu_node;
    int r = gtpu_path_open(&n->path, cfg->ip, cfg->port);
    if (r != 1) {
        GTPU_LOG(MV_LOG_CRITICAL, "gtpu endpoint not opened on %s port %d: %s  %s|%s|%d", cfg->ip ? cfg->ip : "(none)",
                 cfg->port, r == -EINVAL ? "not an IPv4 or IPv6 address" : strerror(-r), __FILE_NAME__, __func__,
                 __LINE__);
        delete n;
        return nullptr;
    }
    n->teidTable = cfg->teidTable;
    n->teidOffset = cfg->teidOffset;
    n->h = cfg->handlers;
    if (cfg->receiver) {
        n->rx = new gtpu_rx_batch;
        n->run = true;
        n->threaded = true;
        if (__mv_create_pthread2(rxThread, n, "gtpu-rx") != 0) {
            n->run = false;
            n->threaded = false;
        }
    }
    char local[80];
    GTPU_LOG(MV_LOG_INFO, "gtpu endpoint on %s  %s|%s|%d", gtpu_peer_text(n->path.local, local, sizeof local),
             __FILE_NAME__, __func__, __LINE__);
    return n;
}

void __mv_gtpu__close(__mv_gtpu_node* n) {
    if (!n) return;
    if (n->threaded) {
        n->run.store(false, std::memory_order_release);
        gtpu_path_wake(&n->path);
        n->exited.wait();
    }
    gtpu_path_close(&n->path);
    delete n->rx;
    delete n;
}

const gtpu_peer* __mv_gtpu__local(const __mv_gtpu_node* n) { return &n->path.local; }

int __mv_gtpu__send_batch(__mv_gtpu_node* n, gtpu_tx_batch* b) {
    unsigned count = b->count;
    if (!count) return 0;
    uint64_t bytes = 0;
    for (unsigned i = 0; i < count; i++) bytes += b->slot[i].headLen + b->slot[i].tailLen;
    int err = 0;
    int sent = gtpu_path_send(&n->path, b, &err);
    n->txPackets += uint64_t(sent);
    n->txFailed += count - unsigned(sent);
    // Bytes of the batch, less an estimate for failures: exact when nothing failed, which is the rule.
    n->txBytes += sent == int(count) ? bytes : bytes / count * unsigned(sent);
    if (err) {
        char peer[80];
        GTPU_LOG(MV_LOG_ERROR, "sending gtp-udp packets failed: %u of %u to %s and others, errno=%d  %s|%s|%d",
                 count - unsigned(sent), count, gtpu_peer_text(b->slot[0].to, peer, sizeof peer), err, __FILE_NAME__,
                 __func__, __LINE__);
    }
    return sent;
}

int __mv_gtpu__send_one(__mv_gtpu_node* n, const gtpu_peer& to, const void* buf, size_t len) {
    int r = gtpu_path_send_one(&n->path, to, buf, len);
    if (r == int(len)) {
        ++n->txPackets;
        n->txBytes += len;
    } else {
        ++n->txFailed;
    }
    return r;
}

int __mv_gtpu__send_echo_request(__mv_gtpu_node* n, const gtpu_peer& to, uint16_t seq) {
    uint8_t req[12];
    size_t len = gtpu_build_echo_request(req, seq);
    int r = gtpu_path_send_one(&n->path, to, req, len);
    if (r == int(len)) ++n->txEchoRequest;
    else ++n->txFailed;
    return r;
}

void* __mv_gtpu__teid_owner(const __mv_gtpu_node* n, uint32_t teid, void** owner2) {
    if (owner2) *owner2 = nullptr;
    if (!n->teidTable || teid == 0) return nullptr;
    MV_IndexRow* row = __mv_IndexTable_FindRow(n->teidTable, teid - n->teidOffset);
    if (!row) return nullptr;
    void* owner = __mv_indexRow_getObject(row);
    if (owner && owner2) *owner2 = __mv_indexRow_getObject2(row);
    return owner;
}

void __mv_gtpu__handle_datagram(__mv_gtpu_node* n, std::span<const uint8_t> d, const gtpu_peer& from) {
    ++n->rxDatagrams;
    gtpu_msg_t m;
    gtpu_rx_error e;
    if (gtpu_decode(d, &m, &e) != 1) {
        countRefusal(n, e);
        logDrop(n, G_DECODE, d.size() > 1 ? gtpu_message_name(d[1]) : "datagram",
                gtpu_rx_error_text(e), from);
        return;
    }
    switch (m.type) {
        case GTPU_TPDU:
        case GTPU_END_MARKER: {
            void* owner2 = nullptr;
            void* owner = __mv_gtpu__teid_owner(n, m.teid, &owner2);
            if (!owner) {
                ++n->rxUnknownTeid;
                char teid[32];
                snprintf(teid, sizeof teid, "unknown TEID 0x%08x", m.teid);
                logDrop(n, G_UNKNOWN_TEID, gtpu_message_name(m.type), teid, from);
                return;
            }
            if (m.type == GTPU_TPDU) {
                ++n->rxTpdu;
                n->rxTpduBytes += m.payload.size();
                if (n->h.OnTPDU) n->h.OnTPDU(owner, owner2, &m, &from);
            } else {
                ++n->rxEndMarker;
                if (n->h.OnEndMarker) n->h.OnEndMarker(owner, owner2, &m, &from);
            }
            return;
        }
        case GTPU_ECHO_REQUEST:
            ++n->rxEchoRequest;
            answerEcho(n, m, from);
            return;
        case GTPU_ECHO_RESPONSE: {
            gtpu_ies_t ies;
            if (gtpu_decode_ies(m.payload, &ies) != 1) {
                ++n->rxBadIE;
                logDrop(n, G_IE, "Echo Response", gtpu_rx_error_text(GTPU_RX_IE), from);
                return;
            }
            ++n->rxEchoResponse;
            if (n->h.OnEchoResponse) n->h.OnEchoResponse(m.seq, &from);
            return;
        }
        case GTPU_ERROR_INDICATION: {
            gtpu_ies_t ies;
            if (gtpu_decode_ies(m.payload, &ies) != 1 || !ies.hasTeidDataI || !ies.peerAddressLen) {
                ++n->rxBadIE;
                logDrop(n, G_IE, "Error Indication", "TEID or peer address missing or malformed", from);
                return;
            }
            ++n->rxErrorIndication;
            char teid[48];
            snprintf(teid, sizeof teid, "the peer holds no tunnel 0x%08x", ies.teidDataI);
            logRx(n, G_ERROR_INDICATION, MV_LOG_ERROR, "Error Indication", "received", teid, from);
            if (n->h.OnErrorIndication) n->h.OnErrorIndication(&ies, &from);
            return;
        }
        case GTPU_SUPPORTED_EXT_HEADERS_NOTIFICATION:
            ++n->rxExtHeadersNotification;
            return;
        default:
            ++n->rxUnknownType;
            char type[32];
            snprintf(type, sizeof type, "message type %u", m.type);
            logDrop(n, G_TYPE, "message", type, from);
            return;
    }
}

void __mv_gtpu__get_stats(const __mv_gtpu_node* n, __mv_gtpu_stats* out) {
#define GTPU_STAT_COPY(name) out->name = n->name.load(std::memory_order_relaxed);
    GTPU_STATS_FIELDS(GTPU_STAT_COPY)
#undef GTPU_STAT_COPY
}
