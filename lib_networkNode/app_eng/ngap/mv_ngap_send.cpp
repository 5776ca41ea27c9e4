// The send path: encode on the caller's stack, one socket send, no allocation.
#include <cerrno>

#include "mv_ngap_internal.h"

int __mv_ngap_sendmsg(const uint8_t* buffer, int len, MV_NGAPNode* node) {
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
    return __mv_socket_engine_sctp_send_ngap(s, buffer, len);
}

int __mv_ngap___send_pdu(const char* name, mv_ngap_encoder enc, void* record, MV_NGAPNode* node) {
    // Only the head is reset: the encoder clears each byte as it starts it.
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    int sts = enc(record, &ctx);
    if (sts != 0) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s sts=%d <%s|%s|%d>", name, sts, __FILE_NAME__, __func__,
                    __LINE__);
        return -1;
    }
    if (ctx.pos == 0) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s bufpos=0 sts=%d <%s|%s|%d>", name, sts, __FILE_NAME__,
                    __func__, __LINE__);
        return -ENOENT;
    }
    int sent = __mv_ngap_sendmsg(ctx.buffer, ctx.pos, node);
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
            record, node);                                                                      \
    }
MV_NGAP_PDU_LIST(MV_NGAP_DEFINE_SEND)
