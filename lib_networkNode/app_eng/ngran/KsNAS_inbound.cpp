// The inbound door for every NAS PDU of a UE: the security header first, then the
// 5GMM handlers by message type.
#include "KsEngine_step.h"
#include "KsNAS.h"
#include "Kestrane_nodes.h"
#include "mv_core.h"

namespace {

// The one place where NAS input the UE cannot take ends: counted in NASErrors and logged
// with the UE, its AMF and what the message looked like. The reason's own line is
// written where it was found.
void dropped(MV_KsUE* ue, const u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode, const char* why) {
    if (__ksEngine) ++__ksEngine->NASErrors;
    const MV_KsNGRanUeContext* ctx = KsNAS__getUECtx(ue, bearer)->ranUeContext;
    const MV_KsRanAmfConnection* conn = ctx ? ctx->ranAmfConn : nullptr;
    const MV_KsAmf* amf = conn ? conn->amf : nullptr;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "[%s][%u] NAS message from AMF-ID[%u] ranAmfConn-ID=%u dropped: %s, ngapProcCode=%u octets=%u "
             "EPD=%02X SHT=%u <%s|%s|%d>",
             KsUE__supi(ue), unsigned(ue->ueId), amf ? amf->ID : 0u, conn ? conn->ID : 0u, why, ngapProcCode, len,
             len > 0 ? data[0] : 0u, len > 1 ? data[1] & 0x0Fu : 0u, __FILE_NAME__, __func__, __LINE__);
}

}  // namespace

void KsNAS__processNasMessage2(MV_KsUE* ksUe, u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode,
                               __ks_step_child* stepChild) {
    if (!ksUe) return;
    __naspduDecode decode{};
    // The header type the message came under, before the header is taken off.
    uint8_t outerSht = len >= 2 && data[0] == MV_5GS_MM_EPD ? uint8_t(data[1] & 0x0F) : 0;
    if (KsNAS__process_security_header(ksUe, data, len, bearer, ngapProcCode, &decode) != 1) {
        dropped(ksUe, data, len, bearer, ngapProcCode, "security header");
        return;
    }
    if (decode.iMandatoryDecoded != 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] Mandatory Decoding failed for MessageType<%u> SHT<%u> DownlinkNASTransport <%s|%s|%d>",
                 KsUE__supi(ksUe), unsigned(ksUe->ueId), unsigned(decode.MessageType), decode.SecurityHeaderType,
                 __FILE_NAME__, __func__, __LINE__);
        dropped(ksUe, data, len, bearer, ngapProcCode, "mandatory IEs not decoded");
    } else {
        KsNAS___dispatch5GMM(ksUe, &decode, bearer, ngapProcCode, stepChild, outerSht);
    }
    __mv_naspdu_freeNASPduDecode(&decode);
}

void KsNAS__processNasMessage(MV_KsUE* ksUe, u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode) {
    KsNAS__processNasMessage2(ksUe, data, len, bearer, ngapProcCode, nullptr);
}
