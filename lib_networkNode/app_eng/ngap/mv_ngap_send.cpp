// The send path: encode on the caller's stack, one socket send, no allocation.
#include <cerrno>

#include "mv_ngap_internal.h"

namespace {

// Bytes sent or -1; stream below 0 takes the socket engine's round robin.
int sendOn(const uint8_t* buffer, int len, MV_NGAPNode* node, int stream) {
    if (!node) {
        MV_NGAP_LOG(MV_LOG_ERROR, "Received NGAPNode as NULL  <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    MV_Socket* s = node->siSocket;
    if (!s) {
        MV_NGAP_LOG(MV_LOG_ERROR, "NGAPNode=%p has no socket <%s|%s|%d>", static_cast<void*>(node), __FILE_NAME__,
                    __func__, __LINE__);
        return -1;
    }
    if (!buffer || len < 1) return -1;
    MV_NGAP_LOG(MV_LOG_DEBUG, "sending sctp buffer on fd=%d isConnected=%d isActive=%d with len=%d <%s|%s|%d>",
                s->fd.load(), s->isConnected.load(), s->isActive.load(), len, __FILE_NAME__, __func__, __LINE__);
    if (stream < 0) return __mv_socket_engine_sctp_send_ngap(s, buffer, len);
    return __mv_socket_engine_sctp_send_ngap2(s, buffer, len, uint16_t(stream));
}

}  // namespace

int __mv_ngap_sendmsg(const uint8_t* buffer, int len, MV_NGAPNode* node) { return sendOn(buffer, len, node, -1); }

int __mv_ngap_sendmsg2(const uint8_t* buffer, int len, MV_NGAPNode* node, uint16_t streamId) {
    return sendOn(buffer, len, node, streamId);
}

uint16_t __mv_ngap_ue_stream(const MV_NGAPNode* node, uint64_t ueNgapId) {
    const MV_Socket* s = node ? node->siSocket : nullptr;
    uint16_t n = s ? s->peer_max_o_streams.load(std::memory_order_relaxed) : 0;
    return n > 1 ? uint16_t(1 + ueNgapId % (n - 1u)) : 0;
}

int __mv_ngap___send_pdu(const char* name, mv_ngap_encoder enc, void* record, MV_NGAPNode* node, int64_t ueKey) {
    // Only the head is reset: the encoder clears each byte as it starts it.
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    int written = enc(record, &ctx);
    if (written < 1) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s sts=%d <%s|%s|%d>", name, written, __FILE_NAME__, __func__,
                    __LINE__);
        return -1;
    }
    const int sts = 0;  // the lines below show a good encoding's status as they always have
    if (ctx.pos == 0) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s bufpos=0 sts=%d <%s|%s|%d>", name, sts, __FILE_NAME__,
                    __func__, __LINE__);
        return -ENOENT;
    }
    uint16_t stream = ueKey < 0 ? 0 : __mv_ngap_ue_stream(node, uint64_t(ueKey));
    int sent = __mv_ngap_sendmsg2(ctx.buffer, ctx.pos, node, stream);
    if (sent > 0)
        MV_NGAP_LOG(MV_LOG_DEBUG, "%s sentBytes=%d sts=%d len=%d <%s|%s|%d>", name, sent, sts, int(ctx.pos),
                    __FILE_NAME__, __func__, __LINE__);
    else
        MV_NGAP_LOG(MV_LOG_CRITICAL, "%s Send Failed sentBytes=%d sts=%d len=%d <%s|%s|%d>", name, sent, sts,
                    int(ctx.pos), __FILE_NAME__, __func__, __LINE__);
    return sent;
}

#define MV_NGAP_DEFINE_SEND(N)                                                                  \
    int __mv_ngap_send_##N(__mv_amf_dt_##N* record, MV_NGAPNode* node) {                        \
        return __mv_ngap___send_pdu(                                                            \
            #N,                                                                                 \
            [](void* r, __mv_asn_coding_context* c) {                                           \
                return __mv_amf_encode_pdu_##N(static_cast<__mv_amf_dt_##N*>(r), c);            \
            },                                                                                  \
            record, node, __mv_ngap___ue_key(record));                                          \
    }
MV_NGAP_PDU_LIST(MV_NGAP_DEFINE_SEND)
