// The UE's PDU sessions as the gNB sees them: the core's uplink tunnel, QFI and AMBR
// from the transfers the AMF sends, and the gNB's downlink tunnel in the answers.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "KsEngine_step.h"
#include "KsNGAP.h"
#include "mv_tables.h"

MV_KsUEPduSession* KsNGAP___sessionOf(MV_KsUE* ue, uint64_t sessionId) {
    if (!ue || sessionId < 1 || sessionId > 15) return nullptr;
    for (MV_KsUEPduSession& s : ue->pduSessions)
        if (s.pduSessionId == sessionId) return &s;
    // The NAS side names a session when it asks for it; a session the core sets up on its
    // own still gets the record of its index.
    MV_KsUEPduSession& s = ue->pduSessions[sessionId];
    if (s.pduSessionId != 0) return nullptr;
    s.pduSessionId = uint8_t(sessionId);
    s.ksUe = ue;
    return &s;
}

void KsNGAP__set_pdusession_ambr(uint8_t sessionId, MV_KsUE* ue, uint64_t dl, uint64_t ul) {
    MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId);
    if (!s) return;
    s->ambrDL = dl;
    s->ambrUL = ul;
    s->isStarted = 0;
}

int KsNGAP__set_pdusession_transport_info(uint8_t sessionId, MV_KsUE* ue, uint8_t pDUSessionType,
                                          const uint8_t* gTP_TEID, uint32_t teidLen, const uint8_t* tlaData,
                                          uint32_t tlaLen) {
    MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId);
    if (!s || !gTP_TEID || teidLen != 4 || !tlaData || (tlaLen != 4 && tlaLen != 16 && tlaLen != 20)) return 0;
    s->pDUSessionType = pDUSessionType;
    s->QosFlowIdentifier = 1;
    s->gtpTEID = uint32_t(gTP_TEID[0]) << 24 | uint32_t(gTP_TEID[1]) << 16 | uint32_t(gTP_TEID[2]) << 8 | gTP_TEID[3];
    if (auto* table = static_cast<MV_PowerTable*>(__ksEngine->cpTeidTable))
        __mv_power_table_add_lk(table, s->gtpTEID, s);
    if (tlaLen == 4 || tlaLen == 20) {
        s->UPF__UPTLA_ipv4_int = uint32_t(tlaData[0]) << 24 | uint32_t(tlaData[1]) << 16 | uint32_t(tlaData[2]) << 8 |
                                 tlaData[3];
        snprintf(s->UPF__UPTLA_ipv4, sizeof s->UPF__UPTLA_ipv4, "%u.%u.%u.%u", tlaData[0], tlaData[1], tlaData[2],
                 tlaData[3]);
    }
    if (tlaLen == 16) memcpy(s->UPF__UPTLA_ipv6, tlaData, 16);
    if (tlaLen == 20) memcpy(s->UPF__UPTLA_ipv6, tlaData + 4, 16);
    s->UPF__UPTLA_ipv = tlaLen == 4 ? 1 : tlaLen == 16 ? 2 : 3;
    s->isStarted = 1;
    return 1;
}

void KsNGAP__set_pdusession_release_transport_info(MV_KsUE* ue, uint8_t sessionId) {
    if (MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId)) s->isStarted = 0;
}

void KsNGAP__set_pdusession_qosFlowIdentifier(uint8_t sessionId, MV_KsUE* ue, uint8_t qosFlowId) {
    if (MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId)) s->QosFlowIdentifier = qosFlowId;
}

uint32_t KsNGAP__get_pdusession_ran_teid(uint8_t sessionId, MV_KsUE* ue) {
    MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId);
    return s ? s->gtpTEID + 5 : 0;
}
