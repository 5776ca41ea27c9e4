// The UE's PDU sessions as the gNB sees them: the core's uplink tunnel, QFI and AMBR
// from the transfers the AMF sends, and the gNB's downlink tunnel in the answers.
#include <arpa/inet.h>

#include <atomic>
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
    MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId);
    if (!s) return;
    s->isStarted = 0;
    if (s->ranTEID == 0) return;
    if (const KsUserPlane* up = KsEngine__UserPlane()) up->ReleaseDownlinkTEID(s->ranTEID);
    s->ranTEID = 0;
}

void KsNGAP__set_pdusession_qosFlowIdentifier(uint8_t sessionId, MV_KsUE* ue, uint8_t qosFlowId) {
    if (MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId)) s->QosFlowIdentifier = qosFlowId;
}

namespace {
std::atomic<uint64_t> gFallbackTeids{0};
std::atomic<bool> gToldNoUserPlane{false}, gToldNoTeid{false};
}  // namespace

uint64_t KsNGAP__FallbackDownlinkTeids() { return gFallbackTeids.load(); }

uint32_t KsNGAP__get_pdusession_ran_teid(uint8_t sessionId, MV_KsUE* ue) {
    MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, sessionId);
    if (!s) return 0;
    // A session set up again (after idle, or modified) keeps the tunnel the core knows.
    if (s->ranTEID) return s->ranTEID;
    const KsUserPlane* t = KsEngine__UserPlane();
    if (uint32_t teid = t ? t->AllocateDownlinkTEID(s) : 0) {
        s->ranTEID = teid;
        return teid;
    }
    // The core still needs a number in the answer; traffic to it reaches no session, so say
    // so once rather than for every session of a load test.
    ++gFallbackTeids;
    std::atomic<bool>& told = t ? gToldNoTeid : gToldNoUserPlane;
    if (!told.exchange(true))
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_WARNING,
                 "[%s] %s: downlink TEID of PDU session %u is the core's TEID + 5, T-PDUs to it reach no session  %s|%s|%d",
                 KsUE__supi(ue),
                 t ? "the user plane gave no downlink TEID (table full or not made)" : "no user plane in this build",
                 unsigned(sessionId), __FILE_NAME__, __func__, __LINE__);
    return s->gtpTEID + 5;
}
