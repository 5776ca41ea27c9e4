// The PFCP steps of a scenario (codes 39 to 70), the requests they send, the UPF node behind
// connection command 1 of application type 2, and the module's registrations.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "KsPFCP.h"
#include "KsTemplateEng.h"
#include "pfcp_codec.h"
#include "pfcp_node.h"

namespace {

const char* upfName(const KsTEConnection* conn) {
    return conn && conn->ksServer ? conn->ksServer->IP_1 : "?";
}

__mv_pfcp_node* upfNode(KsTEConnection* conn) { return conn ? conn->ksServer_upf_node.load() : nullptr; }

// Sends a built request on the UE's session; the sequence number, 0 when nothing went out.
uint32_t sendOnSession(MV_KsUE* ue, pfcp_cp_sess_t* s, KsTEConnection* conn, pfcp_message_t* m) {
    return __mv_pfcp__send_request(upfNode(conn), m, s->cp_seid, ue);
}

// The template the current step names, or null for the default request.
const MV_Template* stepTemplate(MV_KsUE* ue) {
    KsStep* st = KsScanario__GetKsExecutionStep(ue);
    return st ? st->nas5G_regTemplate : nullptr;
}

// A step that cannot send: counted as a failed send of its message and completed at once.
void cannotSend(MV_KsUE* ue, uint32_t code, MV_Counter KsTestExec::*field, const char* why) {
    KsPFCP__count(ue, field);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] PFCP StepCode=%u not sent: %s <%s|%s|%d>", KsUE__supi(ue),
             code, why, __FILE_NAME__, __func__, __LINE__);
    KS_COMPLETE_STEP(ue, code);
}

}  // namespace

// ---------------------------------------------------------------- requests

void KsPFCP__send_pfcp_sesson_establishment_request(MV_KsUE* ue, KsTEConnection* conn) {
    pfcp_cp_sess_t* s = KsPFCP__session_of(ue, conn);
    if (!s) {
        ++ksPfcpTally.PoolExhausted;
        cannotSend(ue, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST, &KsTestExec::PFCPSessionEstablishmentSendFailed,
                   "no free session, address or tunnel id");
        return;
    }
    pfcp_message_t m;
    KsPFCPScratch scratch;
    if (const MV_Template* t = stepTemplate(ue)) {
        KsPFCP__build_establishment_by_template(&m, s, conn, t, scratch);
    } else {
        KsPFCP__build_establishment(&m, s, conn, scratch);
        s->ul_mbr = s->dl_mbr = 10240;
    }
    s->sent_smr_attached_to_ser = 0;
    s->ignore_pfcp_smr = 0;
    KsPFCP__count(ue, &KsTestExec::PFCPSessionEstablishmentRequest);
    uint32_t seq = sendOnSession(ue, s, conn, &m);
    if (!seq) {
        s->Status = KsPFCP__STATUS__SEND_FAILED__PFCP_ESTABLISHMENT_REQUEST;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionEstablishmentSendFailed);
        KS_COMPLETE_STEP(ue, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST);
        return;
    }
    s->waitingSeq = seq;
    s->Status = KsPFCP__STATUS__SENT__PFCP_ESTABLISHMENT_REQUEST;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST);
}

void KsPFCP__send_pfcp_sesson_modification_request(MV_KsUE* ue, KsTEConnection* conn, uint32_t urrid, int triggered) {
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) {
        if (!triggered)
            cannotSend(ue, KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST, &KsTestExec::PFCPSessionModificationSendFailed,
                       "the UE has no PFCP session");
        return;
    }
    pfcp_message_t m;
    KsPFCPScratch scratch;
    // A modification the UPF's report asked for is always the default one.
    const MV_Template* t = triggered ? nullptr : stepTemplate(ue);
    if (t) KsPFCP__build_modification_by_template(&m, s, conn, t, scratch);
    else KsPFCP__build_modification_default(&m, s, urrid, scratch);
    s->ignore_pfcp_smr = triggered == 1 ? 1 : 0;
    KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationRequest);
    uint32_t seq = sendOnSession(ue, s, conn, &m);
    if (!seq) {
        s->Status = KsPFCP__STATUS__SEND_FAILED__PFCP_MODIFICATION_REQUEST;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationSendFailed);
        if (!triggered) KS_COMPLETE_STEP(ue, KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST);
        return;
    }
    s->Status = KsPFCP__STATUS__SENT__PFCP_MODIFICATION_REQUEST;
    if (triggered) {
        s->triggeredSeq = seq;
        return;
    }
    s->waitingSeq = seq;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST);
}

void KsPFCP__send_pfcp_sesson_modification_request_raninfo(MV_KsUE* ue, KsTEConnection* conn) {
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) return;
    pfcp_message_t m;
    KsPFCPScratch scratch;
    KsPFCP__build_modification_raninfo(&m, s, conn, scratch);
    s->ignore_pfcp_smr = 0;
    KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationRequest);
    uint32_t seq = sendOnSession(ue, s, conn, &m);
    if (!seq) {
        s->Status = KsPFCP__STATUS__SEND_FAILED__PFCP_MODIFICATION_REQUEST;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionModificationSendFailed);
        s->sent_smr_attached_to_ser = 0;
        KS_COMPLETE_STEP(ue, KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST);
        return;
    }
    s->waitingSeq = seq;
    s->Status = KsPFCP__STATUS__SENT__PFCP_MODIFICATION_REQUEST;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST);
}

void KsPFCP__send_pfcp_sesson_delete_request(MV_KsUE* ue, KsTEConnection* conn) {
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) {
        cannotSend(ue, KS_STEP__PFCP_SESSION_DELETE_REQUEST, &KsTestExec::PFCPSessionDeleteSendFailed,
                   "the UE has no PFCP session");
        return;
    }
    if (s->Status == KsPFCP__STATUS__SENT__PFCP_DELETE_REQUEST) {
        // The earlier request was never answered: the session is given up on our side.
        KsPFCP__release_session(ue);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] pfcp-sesson-delete-request comprimised   UPF=[%s:%u]   %s|%s|%d", KsUE__supi(ue), upfName(conn),
                 conn && conn->ksServer ? conn->ksServer->Port_1 : 0, __FILE_NAME__, __func__, __LINE__);
        KS_COMPLETE_STEP(ue, KS_STEP__PFCP_SESSION_DELETE_REQUEST);
        return;
    }
    pfcp_message_t m;
    KsPFCP__build_deletion(&m, s);
    KsPFCP__count(ue, &KsTestExec::PFCPSessionDeleteRequest);
    uint32_t seq = sendOnSession(ue, s, conn, &m);
    if (!seq) {
        s->Status = KsPFCP__STATUS__SEND_FAILED__PFCP_DELETE_REQUEST;
        KsPFCP__count(ue, &KsTestExec::PFCPSessionDeleteSendFailed);
        KS_COMPLETE_STEP(ue, KS_STEP__PFCP_SESSION_DELETE_REQUEST);
        return;
    }
    s->waitingSeq = seq;
    s->Status = KsPFCP__STATUS__SENT__PFCP_DELETE_REQUEST;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__PFCP_SESSION_DELETE_REQUEST);
}

// ---------------------------------------------------------------- the step runner

void KsPFCP__runStep_FQ(MV_KsUE* ksUe) {
    KsStepExecution* ex = KsScanario__GetKsExecution(ksUe);
    if (!ex) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Test Step Got NULL, halting test for this supi=[%s] <%s|%s|%d>",
                 KsUE__supi(ksUe), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsStep* st = ex->ksStep;
    if (!st) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ksStep is NULL, coding issue %s|%s|%d", __FILE_NAME__, __func__,
                 __LINE__);
        return;
    }
    ksUe->ksStepExecution = ex;
    ksUe->StepCode = st->StepCode;
    KsTEConnection* conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
    if (!conn || !upfNode(conn)) {
        ++ksPfcpTally.StepsWithoutConnection;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] UPF-PFCP KsTEConnection=%p NOT Found StepCode[%u|%s] MovingNext <%s|%s|%d>", KsUE__supi(ksUe),
                 (void*)conn, st->StepCode, "PFCP", __FILE_NAME__, __func__, __LINE__);
        KS_COMPLETE_STEP(ksUe, st->StepCode);
        return;
    }
    switch (st->StepCode) {
        case KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST: KsPFCP__send_pfcp_sesson_establishment_request(ksUe, conn); break;
        case KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST:
            KsPFCP__send_pfcp_sesson_modification_request(ksUe, conn, 0, 0);
            break;
        case KS_STEP__PFCP_SESSION_DELETE_REQUEST: KsPFCP__send_pfcp_sesson_delete_request(ksUe, conn); break;
        default: KsPFCP__runUserPlaneStep(ksUe, conn, st); break;
    }
}

// ---------------------------------------------------------------- the UPF node

namespace {

int ipVersionOf(const char* ip) {
    in_addr a4;
    in6_addr a6;
    if (inet_pton(AF_INET, ip, &a4) == 1) return 4;
    if (inet_pton(AF_INET6, ip, &a6) == 1) return 6;
    return 0;
}

std::atomic<int> gStarted{0};
MV_Mutex gAddLock;

// Pools for as many sessions as UEs can hold them, but no more than the engine has UEs (a few
// when it has none, so that a UPF can still be brought up).
constexpr uint32_t kPoolWithoutUEs = 16;
uint32_t poolSize() {
    uint32_t n = KsPFCP__max_ran_ue_ids();
    uint32_t ues = __ksEngine && __ksEngine->ksUETotal > 0 ? uint32_t(__ksEngine->ksUETotal) : kPoolWithoutUEs;
    return ues < n ? ues : n;
}

}  // namespace

void KsPFCP_AddPFCPNode(uint32_t CommandID, KsTEClient* ksClient, KsTEServer* ksServer, KsTEConnection* ksTEConn) {
    (void)CommandID;
    if (!ksClient || !ksServer || !ksTEConn) return;
    std::lock_guard g(gAddLock);
    if (!gStarted) {
        if (!KsPFCP_Initalize(poolSize())) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "PFCP session pools could not be made <%s|%s|%d>",
                     __FILE_NAME__, __func__, __LINE__);
            return;
        }
        __mv_pfcp_handlers h;
        h.OnSessionMessage = KsPFCP__onmsg;
        h.OnRequestFailed = KsPFCP__onRequestFailed;
        h.OnAssociation = KsPFCP__onAssociation;
        __mv_pfcp__setHandlers(&h);
        gStarted = 1;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "UPF node of ConnectionId=%u towards %s:%u <%s|%s|%d>",
             ksTEConn->ConnectionId, ksServer->IP_1, ksServer->Port_1, __FILE_NAME__, __func__, __LINE__);
    printf("local-pfcp ip=%s:%d local-gtp ip=%s:%d\n", ksClient->IP_1, ksClient->Port_1, ksClient->IP_2,
           ksClient->Port_2);
    printf("upf-pfcp ip=%s:%d upf-gtp ip=%s:%d\n", ksServer->IP_1, ksServer->Port_1, ksServer->IP_2, ksServer->Port_2);
    int v = ipVersionOf(ksClient->IP_1);
    if (v) __mv_pfcp__initalize(PFCP_NODE_TYPE__GATWEAY, ksClient->Port_1, v, ksClient->IP_1, 0, ksClient->IP_1);
    if (ipVersionOf(ksServer->IP_1)) {
        __mv_pfcp_node* node = __mv_pfcp__add_upf(ksServer->IP_1, ipVersionOf(ksServer->IP_1), ksServer->Port_1);
        if (!node) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UPF %s:%u could not be added (IPv4 only) <%s|%s|%d>",
                     ksServer->IP_1, ksServer->Port_1, __FILE_NAME__, __func__, __LINE__);
            return;
        }
        ksTEConn->ksServer_upf_node = node;
        if (ksServer->ConnectionStatus == 0) ksServer->ConnectionStatus = 1;
        ksServer->ksTE = ksTEConn;
    }
    KsPFCP__set_elements(ksClient, ksServer);
    int dataPlanePort = __ksEngine && __ksEngine->config
                            ? int(json_integer_value(json_object_get(__ksEngine->config, "DataPlanePort")))
                            : 0;
    if (dataPlanePort < 1) KsPFCP__open_gtp(ksClient, ksServer, ksTEConn, KsPFCP__teid_table());
    else
        printf("GTP Data Plane Not Binded, because external DataPlane Configured on Port=%d  %s|%d\n", dataPlanePort,
               __func__, __LINE__);
    size_t ipLen = strnlen(ksServer->IP_2, sizeof ksTEConn->upf_gtp_server_node_ip - 1);
    memcpy(ksTEConn->upf_gtp_server_node_ip, ksServer->IP_2, ipLen);
    ksTEConn->upf_gtp_server_node_ip[ipLen] = 0;
    ksTEConn->upf_gtp_server_node_port = ksServer->Port_2;
}

void KsPFCP__UpdateConnStatus(KsTEServer* ksServer, KsTEConnection* ksTEConn) {
    if (!ksServer) return;
    __mv_pfcp_node* node = ksTEConn ? ksTEConn->ksServer_upf_node.load() : nullptr;
    if (node && node->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED) ksServer->ConnectionStatus = 2;
    else if (ksServer->ConnectionStatus == 2) ksServer->ConnectionStatus = 1;
    else ksServer->ConnectionStatus = 0;
}

// ---------------------------------------------------------------- start

namespace {
int startStep(json_t* cfg) {
    (void)cfg;
    return KsPFCP_Init();
}
}  // namespace

// The console's user-plane commands 3004 to 3032 and the step code each runs; they come to
// this runner by the index of the scenario's user-plane step.
constexpr uint32_t kUserPlaneCommandCodes[] = {42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56,
                                               57, 58, 59, 60, 61, 62, 63, 67, 66, 65, 64, 68, 69, 70};
constexpr uint32_t kFirstUserPlaneCommand = 3004;
constexpr uint32_t kUserPlaneStepIndex = 1004;

void KsPFCP__Init() {
    KsEngine__RegisterRunner(1000, 1999, "KsPFCP__runStep_FQ", KsPFCP__runStep_FQ);
    for (uint32_t i = 0; i < std::size(kUserPlaneCommandCodes); ++i)
        KsEngine__RegisterCommandStep(kFirstUserPlaneCommand + i, kUserPlaneCommandCodes[i], kUserPlaneStepIndex);
    KsEngine__RegisterStartStep(KsStartSlot::PFCP, startStep);
    KsTE__RegisterNodeCommand(KS_APP_TYPE__UPF, KsPFCP_AddPFCPNode, nullptr, KsPFCP__UpdateConnStatus);
}
