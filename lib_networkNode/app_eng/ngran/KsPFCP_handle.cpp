// Answers and reports of the UPF. The receive thread finds the UE by the SEID in the header,
// leaves the answer in the session's slot and posts it to the UE's line, where the step's
// state, the counters and the completion are changed; a report is answered at once.
#include <cstring>
#include <mutex>

#include "KsPFCP.h"
#include "mv_tables.h"
#include "pfcp_codec.h"
#include "pfcp_node.h"

namespace {

// Completes the step only while it is still the UE's: the step timer may have moved it on.
void complete(MV_KsUE* ue, uint32_t code) {
    if (KsScanario__CurrentStepEquals(ue, code) == 1 || (!ue->ksScanario && ue->CommandId))
        KS_COMPLETE_STEP(ue, code);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] pfcp answer for step %u after the step ended <%s|%s|%d>",
                 KsUE__supi(ue), code, __FILE_NAME__, __func__, __LINE__);
}

void onEstablishment(MV_KsUE* ue, pfcp_cp_sess_t* s, const KsPFCPAnswer& a) {
    if (a.cause < 0) {
        s->Status = KsPFCP__STATUS__RECV_FAILED__PFCP_ESTABLISHMENT;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionEstablishmentErrorResponse);
    } else if (a.cause == PFCP_CAUSE_REQUEST_ACCEPTED) {
        s->Status = KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionEstablishmentResponse);
    } else {
        s->Status = KsPFCP__STATUS__RECV_ERROR__PFCP_ESTABLISHMENT;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionEstablishmentErrorResponse);
    }
    if (a.cause >= 0 && a.upfSeid) s->upf_seid = a.upfSeid;
    const char* follow = KsPFCP_GetPFCPSettingValue(59);
    if (s->Status == KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE && follow && follow[0] == '1') {
        s->sent_smr_attached_to_ser = 1;
        KsTEConnection* conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
        KsPFCP__send_pfcp_sesson_modification_request_raninfo(ue, conn);
        return;
    }
    complete(ue, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST);
}

void onModification(MV_KsUE* ue, pfcp_cp_sess_t* s, const KsPFCPAnswer& a) {
    if (a.cause < 0) {
        s->Status = KsPFCP__STATUS__RECV_FAILED__PFCP_MODIFICATION;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationErrorResponse);
    } else if (a.cause != PFCP_CAUSE_REQUEST_ACCEPTED) {
        s->Status = KsPFCP__STATUS__RECV_ERROR__PFCP_MODIFICATION;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationErrorResponse);
    } else {
        s->Status = KsPFCP__STATUS__RECV__PFCP_MODIFICATION_RESPONSE;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationResponse);
    }
    if (s->ignore_pfcp_smr) return;
    if (s->sent_smr_attached_to_ser) {
        s->sent_smr_attached_to_ser = 0;
        complete(ue, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST);
        return;
    }
    complete(ue, KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST);
}

void onDeletion(MV_KsUE* ue, pfcp_cp_sess_t* s) {
    if (s->Status == KsPFCP__STATUS__SENT__PFCP_DELETE_REQUEST) {
        KsPFCP__count(ue, &KsTestExec::PFCPSessionDeleteResponse);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[%s] pfcp-delete response received for SEID=%ld  <%s|%s|%d>",
                 KsUE__supi(ue), long(s->cp_seid), __FILE_NAME__, __func__, __LINE__);
        KsPFCP__release_session(ue);
    }
    complete(ue, KS_STEP__PFCP_SESSION_DELETE_REQUEST);
}

// On the UE's line: the answer the receive thread left, if it still belongs to the
// request the step waits for.
void answerOnLine(void* v) {
    auto* ue = static_cast<MV_KsUE*>(v);
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) return;
    KsPFCPAnswer a;
    {
        std::lock_guard g(s->answerLock);
        if (!s->answerPending) return;
        s->answerPending = false;
        a = s->answer;
    }
    if (a.seqNo != s->waitingSeq) {
        ++ksPfcpTally.StaleAnswers;
        return;
    }
    s->waitingSeq = 0;
    switch (a.type) {
        case PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE: onEstablishment(ue, s, a); break;
        case PFCP_SESSION_MODIFICATION_RESPONSE_TYPE: onModification(ue, s, a); break;
        case PFCP_SESSION_DELETION_RESPONSE_TYPE: onDeletion(ue, s); break;
        default: break;
    }
}

void countTriggeredAnswer(MV_KsUE* ue, int cause) {
    if (cause == PFCP_CAUSE_REQUEST_ACCEPTED) KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationResponse);
    else KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationErrorResponse);
}

void onReport(pfcp_message_t* msg, __mv_pfcp_node* node, uint32_t seqNo, uint64_t SEID) {
    pfcp_cp_sess_t* s = nullptr;
    MV_KsUE* ue = KsPFCP__ue_of_seid(SEID, &s);
    pfcp_message_t answerRecord;
    pfcp_message_t* answer = &answerRecord;
    if (!ue) {
        // The protocol has an answer for this: the UPF learns the session is gone.
        ++ksPfcpTally.UnknownSeid;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "pfcp session report for unknown SEID=%lu from %s:%d answered with cause %d <%s|%s|%d>",
                 (unsigned long)SEID, node ? node->address : "?", node ? node->port : 0,
                 PFCP_CAUSE_SESSION_CONTEXT_NOT_FOUND, __FILE_NAME__, __func__, __LINE__);
        KsPFCP__build_report_response(answer, 0, PFCP_CAUSE_SESSION_CONTEXT_NOT_FOUND);
        __mv_pfcp__send_response(node, answer, seqNo);
        return;
    }
    KsPFCP__count(ue, &KsTestExec::PFCPReceivedReportRequest);
    KsPFCP__build_report_response(answer, s->upf_seid, PFCP_CAUSE_REQUEST_ACCEPTED);
    if (__mv_pfcp__send_response(node, answer, seqNo) > 0) {
        KsPFCP__count(ue, &KsTestExec::PFCPSentReportResponse);
        ++ksPfcpTally.ReportsAnswered;
    }
    const auto& rep = msg->pfcp_session_report_request;
    const char* modify = KsPFCP_GetPFCPSettingValue(9);
    if (rep.usage_report.presence && rep.usage_report.urr_id.presence && modify && modify[0] == '1') {
        KsTEConnection* conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
        KsPFCP__send_pfcp_sesson_modification_request(ue, conn, rep.usage_report.urr_id.u32, 1);
    }
}

}  // namespace

void KsPFCP__onmsg(pfcp_message_t* msg, __mv_pfcp_node* node, uint32_t seqNo, uint64_t SEID, void* userData) {
    uint8_t type = msg->h.type;
    if (type == PFCP_SESSION_REPORT_REQUEST_TYPE) {
        onReport(msg, node, seqNo, SEID);
        return;
    }
    if (type != PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE && type != PFCP_SESSION_MODIFICATION_RESPONSE_TYPE &&
        type != PFCP_SESSION_DELETION_RESPONSE_TYPE)
        return;
    pfcp_cp_sess_t* s = nullptr;
    MV_KsUE* ue = KsPFCP__ue_of_seid(SEID, &s);
    if (!ue || (userData && userData != ue)) {
        ++ksPfcpTally.UnknownSeid;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "pfcp-session not found, %s received for SEID=%ld from %s:%d, dropped <%s|%s|%d>",
                 pfcp_message_name(type), long(SEID), node ? node->address : "?", node ? node->port : 0,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsPFCPAnswer a{};
    a.type = type;
    a.seqNo = seqNo;
    a.cause = -1;
    if (type == PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE) {
        const auto& r = msg->pfcp_session_establishment_response;
        if (r.cause.presence) a.cause = r.cause.u8;
        uint64_t seid = 0;
        uint32_t ip = 0;
        if (r.up_f_seid.presence && pfcp_read_f_seid(r.up_f_seid, seid, ip)) a.upfSeid = seid;
    } else if (type == PFCP_SESSION_MODIFICATION_RESPONSE_TYPE) {
        const auto& r = msg->pfcp_session_modification_response;
        if (r.cause.presence) a.cause = r.cause.u8;
        if (seqNo == s->triggeredSeq) {
            // A modification no step waits for: counted here, nothing to complete.
            s->triggeredSeq = 0;
            countTriggeredAnswer(ue, a.cause);
            return;
        }
    } else {
        const auto& r = msg->pfcp_session_deletion_response;
        if (r.cause.presence) a.cause = r.cause.u8;
    }
    {
        std::lock_guard g(s->answerLock);
        s->answer = a;
        s->answerPending = true;
    }
    if (KsEngine__PostToUELine(ue, answerOnLine) != 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] pfcp answer could not reach the UE's line <%s|%s|%d>",
                 KsUE__supi(ue), __FILE_NAME__, __func__, __LINE__);
    }
}

void KsPFCP__onRequestFailed(__mv_pfcp_node* node, uint8_t type, uint32_t seqNo, uint64_t SEID, void* userData,
                             int reason) {
    (void)userData;
    ++ksPfcpTally.RequestsFailed;
    // The UE's step timer runs the step once more, then moves on.
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "%s seq=%u SEID=%lu to %s:%d got no answer (reason %d); the step timer decides <%s|%s|%d>",
             pfcp_message_name(type), seqNo, (unsigned long)SEID, node ? node->address : "?", node ? node->port : 0,
             reason, __FILE_NAME__, __func__, __LINE__);
}

void KsPFCP__onAssociation(__mv_pfcp_node* node, int state, int cause) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, state == PFCP_ASSOCIATION__ASSOCIATED ? MV_LOG_INFO : MV_LOG_ERROR,
             "UPF %s:%d association %s (cause %d) <%s|%s|%d>", node ? node->address : "?", node ? node->port : 0,
             state == PFCP_ASSOCIATION__ASSOCIATED ? "up" : state == 0 ? "down" : "refused", cause, __FILE_NAME__,
             __func__, __LINE__);
}
