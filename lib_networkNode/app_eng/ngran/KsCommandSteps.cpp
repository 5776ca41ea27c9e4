// Console commands: the prebuilt steps they run, how a command becomes a step
// execution on its UE, and the UE's queue of commands.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "KsPool.h"
#include "KsEngine_registry.h"
#include "Kestrane.h"
#include "Kestrane_nodes.h"
#include "KsTemplateEng_step.h"
#include "mv_bytes.h"

namespace {

using StepField = KsStep* __mv_ks__engine::*;

struct CommandRow {
    uint32_t Command;
    StepField Step;
};

constexpr const char* kInvalid2 = "%s InvalidOption=%u ExecuteByTemplate2 <%s|%s|%d>";

// In command order: lookups bisect it.
constexpr CommandRow kCommands[] = {
    {1, &__mv_ks__engine::step_initialRegistration},
    {2, &__mv_ks__engine::step_updateRegistration},
    {3, &__mv_ks__engine::step_perodicRegistration},
    {4, &__mv_ks__engine::step_deRegistration},
    {5, &__mv_ks__engine::release_ue_logical_connection},
    {6, &__mv_ks__engine::step_release_ue_context},
    {9, &__mv_ks__engine::step_initialRegistration2},
    {10, &__mv_ks__engine::clear_guti},
    {11, &__mv_ks__engine::step_deRegistration_switchOff},
    {12, &__mv_ks__engine::step_N2Handover},
    {13, &__mv_ks__engine::step_XnHandover},
    {14, &__mv_ks__engine::step_sendTPDU},
    {15, &__mv_ks__engine::step_sendPCAP_TPDU_1_Packet},
    {16, &__mv_ks__engine::step_sendPCAP_TPDU_All_Packet},
    {19, &__mv_ks__engine::step_eraseRegistrationInfo},
    {20, &__mv_ks__engine::step_runScanario},
    {21, &__mv_ks__engine::step_initialRegistrationWithGUTI},
    {22, &__mv_ks__engine::step_initialEmergengyRegistration},
    {24, &__mv_ks__engine::step_sendTPDU2},
    {25, &__mv_ks__engine::step_sendTPDU_ICMP},
    {26, &__mv_ks__engine::step_sendTPDU2_ICMP},
    {27, &__mv_ks__engine::step_sendTPDUPackets},
    {28, &__mv_ks__engine::step_stopTPDUPackets},
    {301, &__mv_ks__engine::step_mme_Attach},
    {302, &__mv_ks__engine::step_mme_TrackingAreaUpdate},
    {303, &__mv_ks__engine::step_mme_Detach},
    {304, &__mv_ks__engine::step_mme_ServiceRequest},
    {305, &__mv_ks__engine::step_mme_ExtendedServiceRequest},
    {306, &__mv_ks__engine::step_mme_ControlPlaneServiceRequest},
    {307, &__mv_ks__engine::step_mme_X2BasedHandover_PathSwitchRequest},
    {308, &__mv_ks__engine::step_mme_S1BasedHandover},
    {309, &__mv_ks__engine::step_mme_UEContextReleaseRequest},
    {310, &__mv_ks__engine::step_mme_ClearGUTI},
    {601, &__mv_ks__engine::step_aaaSTa_Diameter_EAP_Request},
    {602, &__mv_ks__engine::step_aaaSTa_Abort_Session_Request},
    {603, &__mv_ks__engine::step_aaaSTa_Re_Auth_Request},
    {604, &__mv_ks__engine::step_aaaSTa_Session_Termination_Request},
    {605, &__mv_ks__engine::step_aaaSWm_Diameter_EAP_Request},
    {606, &__mv_ks__engine::step_aaaSWm_AA_Request},
    {607, &__mv_ks__engine::step_aaaSWm_Session_Termination_Request},
    {608, &__mv_ks__engine::step_aaaSWm_Abort_Session_Request},
    {609, &__mv_ks__engine::step_aaaSWm_Re_Auth_Request},
    {610, &__mv_ks__engine::step_aaaSWx_Multimedia_Auth_Request},
    {611, &__mv_ks__engine::step_aaaSWx_Push_Profile_Request},
    {612, &__mv_ks__engine::step_aaaSWx_Server_Assignment_Request},
    {613, &__mv_ks__engine::step_aaaSWx_Registration_Termination_Request},
    {614, &__mv_ks__engine::step_aaaS6b_Diameter_EAP_Request},
    {615, &__mv_ks__engine::step_aaaS6b_AA_Request},
    {616, &__mv_ks__engine::step_aaaS6b_Session_Termination_Request},
    {617, &__mv_ks__engine::step_aaaS6b_Abort_Session_Request},
    {901, &__mv_ks__engine::step_smfCreatePDUSessionRequest},
    {902, &__mv_ks__engine::step_smfModifyPDUSessionRequest},
    {903, &__mv_ks__engine::step_smfReleasePDUSessionRequest},
    {1201, &__mv_ks__engine::step_sgwCreateSessionRequest},
    {1202, &__mv_ks__engine::step_sgwCreateBearerRequest},
    {1203, &__mv_ks__engine::step_sgwModifyBearerRequest},
    {1204, &__mv_ks__engine::step_sgwDeleteSessionRequest},
    {1205, &__mv_ks__engine::step_sgwDeleteBearerRequest},
    {1501, &__mv_ks__engine::step_pgwCreateSessionRequest},
    {1502, &__mv_ks__engine::step_pgwCreateBearerRequest},
    {1503, &__mv_ks__engine::step_pgwModifyBearerRequest},
    {1504, &__mv_ks__engine::step_pgwDeleteSessionRequest},
    {1505, &__mv_ks__engine::step_pgwDeleteBearerRequest},
    {1506, &__mv_ks__engine::step_pgwModifyBearerCommand},
    {1507, &__mv_ks__engine::step_pgwDeleteBearerCommand},
    {1508, &__mv_ks__engine::step_pgwBearerResourceCommand},
    {1509, &__mv_ks__engine::step_pgwRemoteUEReportNotification},
    {1510, &__mv_ks__engine::step_pgwChangeNotificationRequest},
    {1511, &__mv_ks__engine::step_pgwResumeNotification},
    {1512, &__mv_ks__engine::step_pgwSuspendNotification},
    {1513, &__mv_ks__engine::step_pgwUpdatePDNCOnnectionSetRequest},
    {1514, &__mv_ks__engine::step_pgwIPv4GTPUTCPPacket},
    {1515, &__mv_ks__engine::step_pgwIPv4GTPUUDPPacket},
    {1516, &__mv_ks__engine::step_pgwIPv4GTPUUDPLargePacket},
    {1517, &__mv_ks__engine::step_pgwIPv6GTPUTCPPacket},
    {1518, &__mv_ks__engine::step_pgwIPv6GTPUUDPPacket},
    {1519, &__mv_ks__engine::step_pgwIPv6GTPUUDPLargePacket},
    {1520, &__mv_ks__engine::step_pgwGTPUPCAPFile},
    {1521, &__mv_ks__engine::step_pgwGTPUPacketByProtocolType},
    {1522, &__mv_ks__engine::step_pgwMoveSessionTo3G},
    {1523, &__mv_ks__engine::step_pgwClearAllSessions},
    {1801, &__mv_ks__engine::step_pcrfGxCCRI},
    {1802, &__mv_ks__engine::step_pcrfGxCCRU},
    {1803, &__mv_ks__engine::step_pcrfGxCCRT},
    {1804, &__mv_ks__engine::step_pcrfRxCCRI},
    {1805, &__mv_ks__engine::step_pcrfRxCCRU},
    {1806, &__mv_ks__engine::step_pcrfRxCCRT},
    {2101, &__mv_ks__engine::step_fgEIR},
    {2401, &__mv_ks__engine::step_lteEIR},
    {2701, &__mv_ks__engine::step_hssULR},
    {2702, &__mv_ks__engine::step_hssAIR},
    {2703, &__mv_ks__engine::step_hssPUR},
    {2704, &__mv_ks__engine::step_hssNR},
    {2705, &__mv_ks__engine::step_hssShUDR},
    {2706, &__mv_ks__engine::step_hssShPUR},
    {2707, &__mv_ks__engine::step_hssShSNR},
    {2708, &__mv_ks__engine::step_hssShPNR},
    {2709, &__mv_ks__engine::step_hssCxUAR},
    {2710, &__mv_ks__engine::step_hssCxSAR},
    {2711, &__mv_ks__engine::step_hssCxLIR},
    {2712, &__mv_ks__engine::step_hssCxMAR},
    {2713, &__mv_ks__engine::step_hssCxRTR},
    {2714, &__mv_ks__engine::step_hssCxPPR},
    {2715, &__mv_ks__engine::step_hssSWxMAR},
    {2716, &__mv_ks__engine::step_hssSWxSAR},
    {3001, &__mv_ks__engine::step_pfcpSessionEstablishmentRequest},
    {3002, &__mv_ks__engine::step_pfcpSessionUpdateRequest},
    {3003, &__mv_ks__engine::step_pfcpSessionDeleteRequest},
    {3004, &__mv_ks__engine::step_pfcpGTPU},
    {3005, &__mv_ks__engine::step_pfcpGTPUMultiple},
    {3006, &__mv_ks__engine::step_pfcpGTPURotate},
    {3007, &__mv_ks__engine::step_pfcpGTPUMultipleRotate},
    {3008, &__mv_ks__engine::step_pfcpGTPU_DNS_53},
    {3009, &__mv_ks__engine::step_pfcpGTPU_DNS_853},
    {3010, &__mv_ks__engine::step_pfcpGTPPing},
    {3011, &__mv_ks__engine::step_pfcpGTP_ICMP_Server1},
    {3012, &__mv_ks__engine::step_pfcpGTP_ICMP_Server2},
    {3013, &__mv_ks__engine::step_pfcpGTP_ICMP_Server3},
    {3014, &__mv_ks__engine::step_pfcpGTPUIPv6},
    {3015, &__mv_ks__engine::step_pfcpGTPUSCTP},
    {3016, &__mv_ks__engine::step_pfcpGTPUESP},
    {3017, &__mv_ks__engine::step_pfcpGTPU_UDPFragBegin},
    {3018, &__mv_ks__engine::step_pfcpGTPU_UDPFragMid},
    {3019, &__mv_ks__engine::step_pfcpGTPU_UDPFragEnd},
    {3020, &__mv_ks__engine::step_pfcpGTPU_TCP_MaxPayload},
    {3021, &__mv_ks__engine::step_pfcpGTPU_UDP_MaxPayload},
    {3022, &__mv_ks__engine::step_pfcpGTPUIPv6_TCP_MaxPayload},
    {3023, &__mv_ks__engine::step_pfcpGTPUIPv6_UDP_MaxPayload},
    {3024, &__mv_ks__engine::step_pfcpGTPU_SCTP_MaxPayload},
    {3025, &__mv_ks__engine::step_pfcpGTPUIPv6_SCTP_MaxPayload},
    {3026, &__mv_ks__engine::step_pfcpGTPU_Ext2SEQ},
    {3027, &__mv_ks__engine::step_pfcpGTPU_Ext2NoSEQ},
    {3028, &__mv_ks__engine::step_pfcpGTPU_ExtSEQ},
    {3029, &__mv_ks__engine::step_pfcpGTPU_NoExtNoSEQ},
    {3030, &__mv_ks__engine::step_pfcpGTPU_RunPCAPFile},
    {3031, &__mv_ks__engine::step_pfcpGTPU_1LExtSEQ},
    {3032, &__mv_ks__engine::step_pfcpGTPU_2LExtSEQ},
    {3301, &__mv_ks__engine::step_chfGyCCRI},
    {3302, &__mv_ks__engine::step_chfGyCCRU},
    {3303, &__mv_ks__engine::step_chfGyCCRT},
    {3304, &__mv_ks__engine::step_chfGyCCREB},
    {3601, &__mv_ks__engine::step_nrfNRFInstance_Put},
    {3602, &__mv_ks__engine::step_nrfNRFInstance_Patch},
    {3603, &__mv_ks__engine::step_nrfNRFInstance_Delete},
    {3604, &__mv_ks__engine::step_nrfNRFInstance_Get},
    {3605, &__mv_ks__engine::step_nrfNRFInstances_Get},
    {3606, &__mv_ks__engine::step_nrfDiscNRFInstances_Get},
    {3901, &__mv_ks__engine::step_ausfUEAuthenction_Post},
    {3902, &__mv_ks__engine::step_ausfUEAuthenctionAka_Put},
    {3903, &__mv_ks__engine::step_ausfUEAuthenctionEap_Post},
    {4201, &__mv_ks__engine::step_udmSDM_Get},
    {4202, &__mv_ks__engine::step_udmNSSAI_Get},
    {4203, &__mv_ks__engine::step_udmAMData_Get},
    {4204, &__mv_ks__engine::step_udmSMFSelectData_Get},
    {4205, &__mv_ks__engine::step_udmUEContextInSMFData_Get},
    {4206, &__mv_ks__engine::step_udmUEContextInSMSFData_Get},
    {4207, &__mv_ks__engine::step_udmTraceData_Get},
    {4208, &__mv_ks__engine::step_udmSMData_Get},
    {4209, &__mv_ks__engine::step_udmSMSData_Get},
    {4210, &__mv_ks__engine::step_udmSMSMNG_Get},
    {4211, &__mv_ks__engine::step_udmSDMSubscription_Post},
    {4212, &__mv_ks__engine::step_udmSDMSubscription_Delete},
    {4213, &__mv_ks__engine::step_udmSDMSubscription_Patch},
    {4214, &__mv_ks__engine::step_udmSDM_GPSI_IdTranslate_Get},
    {4215, &__mv_ks__engine::step_udmSDM_AMData_SORAck_Put},
    {4216, &__mv_ks__engine::step_udmSDM_AMData_UPUAck_Put},
    {4217, &__mv_ks__engine::step_udmSDM_SharedData_Get},
    {4218, &__mv_ks__engine::step_udmSDM_SharedData_Post},
    {4219, &__mv_ks__engine::step_udmSDM_SharedData_Delete},
    {4220, &__mv_ks__engine::step_udmSDM_SharedData_Patch},
    {4221, &__mv_ks__engine::step_udmAuthEvents_GenerateAuthData_Post},
    {4222, &__mv_ks__engine::step_udmAuthEvents_Post},
    {4223, &__mv_ks__engine::step_udmRegistration_AMF_3GPP_Put},
    {4224, &__mv_ks__engine::step_udmRegistration_AMF_3GPP_Patch},
    {4225, &__mv_ks__engine::step_udmRegistration_AMF_3GPP_Get},
    {4226, &__mv_ks__engine::step_udmRegistration_AMF_Non3GPP_Put},
    {4227, &__mv_ks__engine::step_udmRegistration_AMF_Non3GPP_Patch},
    {4228, &__mv_ks__engine::step_udmRegistration_AMF_Non3GPP_Get},
    {4229, &__mv_ks__engine::step_udmRegistration_SMF_PSUSessionId_Put},
    {4230, &__mv_ks__engine::step_udmRegistration_SMF_PSUSessionId_Delete},
    {4231, &__mv_ks__engine::step_udmRegistration_SMSF_3GPP_Put},
    {4232, &__mv_ks__engine::step_udmRegistration_SMSF_3GPP_Delete},
    {4233, &__mv_ks__engine::step_udmRegistration_SMSF_3GPP_Get},
    {4234, &__mv_ks__engine::step_udmRegistration_SMSF_Non3GPP_Put},
    {4235, &__mv_ks__engine::step_udmRegistration_SMSF_Non3GPP_Delete},
    {4236, &__mv_ks__engine::step_udmRegistration_SMSF_Non3GPP_Get},
    {4501, &__mv_ks__engine::step_n26_IdentificationRequest},
    {4502, &__mv_ks__engine::step_n26_ContextRequest},
    {4503, &__mv_ks__engine::step_n26_ForwardRelocationRequest},
    {4504, &__mv_ks__engine::step_n26_ForwardAccessContextNotification},
    {4505, &__mv_ks__engine::step_n26_RelocationCancelRequest},
    {4506, &__mv_ks__engine::step_n26_ConfigurationTransferTunnel},
    {4901, &__mv_ks__engine::step_ggsn_CreatePDPContextRequest},
    {4902, &__mv_ks__engine::step_ggsn_DeletePDPContextRequest},
    {4903, &__mv_ks__engine::step_ggsn_UpdatePDPContextRequest},
    {4905, &__mv_ks__engine::step_ggsn_Send_GTPTCP_Pcacket},
    {4906, &__mv_ks__engine::step_ggsn_Send_GTPUDP_Pcacket},
    {4907, &__mv_ks__engine::step_ggsn_MoveSessionTo4G},
    {4908, &__mv_ks__engine::step_ggsn_ClearAllSessions},
};

constexpr bool commandsSorted() {
    for (size_t i = 1; i < std::size(kCommands); ++i)
        if (kCommands[i - 1].Command >= kCommands[i].Command) return false;
    return true;
}
static_assert(commandsSorted());

KsStep* commandStep(uint32_t command) {
    // A module's command stands before a built-in one of its number.
    if (const KsCommandStepRow* r = KsEngine___registeredCommandStep(command)) return r->Step;
    auto it = std::lower_bound(std::begin(kCommands), std::end(kCommands), command,
                               [](const CommandRow& r, uint32_t c) { return r.Command < c; });
    return it != std::end(kCommands) && it->Command == command ? __ksEngine->*(it->Step) : nullptr;
}

void allFlags(KsStep* st) { st->EA0 = st->EA1 = st->EA2 = st->IA0 = st->IA1 = st->IA2 = 1; }

void registration(KsStep* st, uint32_t type, uint32_t ueContextRequest) {
    st->RegistrationType = type;
    st->UEContextRequest = ueContextRequest;
    allFlags(st);
}

void pduSession(KsStep* st, uint8_t id, uint32_t kind) {
    auto* info = __mv_arena_new<__ks_pduSessionInfo>();
    info->PDUSessionId = id;
    info->PDUSessionRequestType = kind;
    st->pduSessionHead = st->pduSessionCurrent = info;
}

void traffic(KsStep* st, uint32_t packetsPerSecond) {
    st->PacketsPerSecond = packetsPerSecond;
    st->Flows = 1;
    st->UploadBytes = 500;
}

void logNullStep(const char* func) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Cannot Add Command ksStep is NULL <%s|%s|%d>", __FILE_NAME__, func,
             __LINE__);
}

void logInvalid(MV_KsUE* ksUe, uint32_t option, const char* form) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, form, KsUE__supi(ksUe), option, __FILE_NAME__, __func__, __LINE__);
}

// Command 17: the console's options for the UE itself.
void updateUE(MV_KsTestCommand* c, MV_KsUE* ue) {
    ue->TGPP.sqn = c->SQN;
    ue->SC_EA0 = c->EA0;
    ue->SC_EA1 = c->EA1;
    ue->SC_EA2 = c->EA2;
    ue->SC_IA0 = c->IA0;
    ue->SC_IA1 = c->IA1;
    ue->SC_IA2 = c->IA2;
    ue->TAI_TAC = c->TAC;
    if (c->GUTI[0] != '-') {
        char hex[21];
        memcpy(hex, c->GUTI, 20);
        hex[20] = 0;
        uint8_t guti[10];
        if (strlen(hex) == 20 && strspn(hex, "0123456789abcdefABCDEF") == 20 && __mv_ascii_to_hex(hex, 20, guti, 10) == 10) {
            memcpy(ue->fgGuti.val, guti, 10);
            ue->fgGuti.len = 10;
            ue->fgGuti.isset = 1;
        } else {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%s GUTI=[%s] is not 20 hexadecimal characters, kept %s|%d",
                     KsUE__supi(ue), hex, __func__, __LINE__);
        }
    }
    ue->bInitialContextRequest = c->InitialContextRequest;
    ue->bFOR = c->FOR;
    ue->AMFScanarioId = c->ScanarioId;
    ue->bAuthOptions = c->AuthOptions;
    ue->bIdentityRequestOption = c->IdentityRequestOption;
    ue->bSecurityModeCommandOption = c->SecurityModeCommandOption;
    ue->bRegistrationAcceptOption = c->RegistrationAcceptOption;
    ue->AMFConnId = c->RANAMFConnId;
    ue->PlainNasMessage = c->PlainNasMessage;
    ue->Exclude5GSTMSI = c->Exclude5GSTMSI;
    if (ue->TGPP.ranUeContext) ue->TGPP.ranUeContext->amf_id = c->NGAPAMFUEId;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s UPDATED SQN=%lu %s|%s|%d", KsUE__supi(ue),
             (unsigned long)ue->TGPP.sqn, __FILE_NAME__, __func__, __LINE__);
}

// Failure injection of a registration command, from the console's options.
void injection(KsStep* st, const MV_KsTestCommand* c) {
    st->SyncFailure = st->SyncFailureMaxCount = 0;
    st->AuthenticationRequestIgnoreCount = st->IdentityRequestIgnoreCount = 0;
    st->SecurityModeCommandIgnoreCount = st->RegistrationAcceptIgnoreCount = 0;
    uint32_t a = c->AuthOptions;
    if (a >= 1 && a <= 3) {
        st->SyncFailure = 1;
        st->SyncFailureMaxCount = a;
    } else if (a >= 4 && a <= 8) {
        st->AuthenticationRequestIgnoreCount = uint8_t(a - 3);
    } else if (a == 9) {
        st->AuthenticationRequestIgnoreCount = 7;
    } else if (a == 10) {
        st->AuthenticationRequestIgnoreCount = 8;
    }
    if (c->IdentityRequestOption >= 1 && c->IdentityRequestOption <= 7) st->IdentityRequestIgnoreCount = 1;
    if (c->SecurityModeCommandOption >= 1 && c->SecurityModeCommandOption <= 7)
        st->SecurityModeCommandIgnoreCount = uint8_t(c->SecurityModeCommandOption);
    if (c->RegistrationAcceptOption >= 1 && c->RegistrationAcceptOption <= 7)
        st->RegistrationAcceptIgnoreCount = uint8_t(c->RegistrationAcceptOption);
}

}  // namespace

// ---------------------------------------------------------------- prebuilt steps

void KsScanario__CreateCommandSteps() {
    std::lock_guard g(__ksEngine->step_lock);
#define KS_MAKE_COMMAND_STEP(name, code) \
    if ((code) != 0) __ksEngine->name = KsScanario__NewStep((code), 0);
    KS_COMMAND_STEP_FIELDS(KS_MAKE_COMMAND_STEP)
#undef KS_MAKE_COMMAND_STEP
    __mv_ks__engine* e = __ksEngine;
    registration(e->step_initialRegistration, 1, 0);
    registration(e->step_initialRegistration2, 1, 1);
    registration(e->step_updateRegistration, 2, 0);
    registration(e->step_perodicRegistration, 3, 0);
    registration(e->step_emergencyRegistration, 4, 0);
    e->step_deRegistration->Cause = 0;
    e->step_deRegistration_switchOff->Cause = 1;  // the switch-off flag
    pduSession(e->step_pdu_session_1, 1, KS_STEP__PDU_SESSION_ESTABLISHMENT_REQUEST);
    pduSession(e->step_pdu_session_2, 2, KS_STEP__PDU_SESSION_ESTABLISHMENT_REQUEST);
    pduSession(e->step_pdu_session_1_modification, 1, KS_STEP__PDU_SESSION_MODIFICAION_REQUEST);
    pduSession(e->step_pdu_session_2_modification, 2, KS_STEP__PDU_SESSION_MODIFICAION_REQUEST);
    pduSession(e->step_pdu_session_1_release, 1, KS_STEP__PDU_SESSION_RELEASE_REQUEST);
    pduSession(e->step_pdu_session_2_release, 2, KS_STEP__PDU_SESSION_RELEASE_REQUEST);
    for (KsStep* st : {e->step_sendTPDU, e->step_sendTPDU2}) traffic(st, 5);
    for (KsStep* st : {e->step_sendTPDU_ICMP, e->step_sendTPDU2_ICMP, e->step_sendTPDUPackets}) traffic(st, 3);
    for (KsStep* st : {e->step_sendPCAP_TPDU_1_Packet, e->step_sendPCAP_TPDU_All_Packet}) traffic(st, 1);
    size_t n = 0;
    KsCommandStepRow* rows = KsEngine___registeredCommandSteps(&n);
    for (size_t i = 0; i < n; ++i) rows[i].Step = KsScanario__NewStep(rows[i].StepCode, rows[i].StepIndex);
}

// ---------------------------------------------------------------- the command queue

MV_KsTestCommand* KsScanario__NewTestCommand() {
    if (!__ksEngine->commandPool) return nullptr;
    void* p = __mv_pool_allocate(__ksEngine->commandPool);
    return p ? new (p) MV_KsTestCommand{} : nullptr;
}

void KsScanario__ReleaseTestCommand(MV_KsTestCommand* command) {
    if (command) __mv_pool_release(command);
}

void KsScanario__QueueTestCommand(MV_KsUE* ksUe, MV_KsTestCommand* command) {
    if (!ksUe || !command) return;
    std::lock_guard g(ksUe->commandLock);
    command->Next = nullptr;
    if (ksUe->commandCurrent) ksUe->commandCurrent->Next = command;
    else ksUe->commandHead = command;
    ksUe->commandCurrent = command;
}

MV_KsTestCommand* KsScanario__PopTestCommand(MV_KsUE* ksUe) {
    if (!ksUe) return nullptr;
    std::lock_guard g(ksUe->commandLock);
    MV_KsTestCommand* c = ksUe->commandHead;
    if (!c) return nullptr;
    ksUe->commandHead = c->Next;
    if (!ksUe->commandHead) ksUe->commandCurrent = nullptr;
    c->Next = nullptr;
    return c;
}

// ---------------------------------------------------------------- a command becomes a step

void KsScanario__AddCommand(MV_KsTestCommand* command, MV_KsUE* ksUe, KsStep* ksStep) {
    if (!command || !ksUe) return;
    if (!ksStep) {
        logNullStep(__func__);
        return;
    }
    uint32_t n = command->Command;
    {
        // Prebuilt steps are shared by all UEs: a command's options stay in the step
        // until the next command that uses it.
        std::lock_guard g(__ksEngine->step_lock);
        ksStep->nas5G_regTemplate = ksStep->ngap_initUEMessTemplate = ksStep->ngap_uplinkNASTranTemplate = nullptr;
        ksStep->nas5G_pduSessionTemplate = ksStep->nas5G_ulNASTransport = nullptr;
        ksStep->InitialContextRequest = command->InitialContextRequest;
        ksStep->FoR = command->FOR;
        ksStep->EA0 = ksUe->SC_EA0;
        ksStep->EA1 = ksUe->SC_EA1;
        ksStep->EA2 = ksUe->SC_EA2;
        ksStep->IA0 = ksUe->SC_IA0;
        ksStep->IA1 = ksUe->SC_IA1;
        ksStep->IA2 = ksUe->SC_IA2;
        if (n == 1521) ksStep->ServiceType = command->RANAMFConnId;
        if (n == 27 || n == 28) {
            ksStep->FoR = command->FOR;
            ksStep->EA0 = command->AuthOptions;
        }
        if (n == 2 || n == 9) {
            ksStep->StepType = ksStep->StepCode = KS_STEP__REGISTRATION;
            ksStep->RegistrationType = n == 2 ? 2 : 1;
            ksStep->UEContextRequest = command->InitialContextRequest;
            ksStep->EA0 = command->EA0;
            ksStep->EA1 = command->EA1;
            ksStep->EA2 = command->EA2;
            ksStep->IA0 = command->IA0;
            ksStep->IA1 = command->IA1;
            ksStep->IA2 = command->IA2;
            injection(ksStep, command);
        }
        if (command->MCC[0] && command->MCC[1]) {
            snprintf(ksStep->ul_sn_mcc, sizeof ksStep->ul_sn_mcc, "%.3s", command->MCC);
            snprintf(ksStep->ul_sn_mnc, sizeof ksStep->ul_sn_mnc, "%.3s", command->MNC);
            ksStep->tac = command->TAC;
            ksStep->tac_isset = 1;
        } else {
            ksStep->tac_isset = 0;
        }
        ksStep->NgKSI = command->NgKSI;
    }
    ksUe->CommandId = n;

    KsStepExecution* e = KsScanario__AppendExecution(ksUe, ksStep, uint32_t(ksUe->TotalKsSteps));
    e->RANAMFConnId = command->RANAMFConnId;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Added Command=%u KsStepCode=%u to UE=%s  TotalKsSteps=%u  <%s|%s|%d>", n,
             ksStep->StepCode, KsUE__supi(ksUe), uint32_t(ksUe->TotalKsSteps), __FILE_NAME__, __func__, __LINE__);
    ++ksUe->TotalKsSteps;
}

void KsScanario__AddTestCommand(MV_KsTestCommand* command, MV_KsUE* ksUe) {
    if (!command || !ksUe) return;
    uint32_t n = command->Command;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "executing command=%u for SUPI=%s  <%s|%s|%d>", n, KsUE__supi(ksUe),
             __FILE_NAME__, __func__, __LINE__);
    switch (n) {
        case 7:
        case 8: {
            KsStep* st = nullptr;
            if (command->AuthOptions == 1) st = n == 7 ? __ksEngine->step_pdu_session_1 : __ksEngine->step_pdu_session_2;
            else if (command->AuthOptions == 3)
                st = n == 7 ? __ksEngine->step_pdu_session_1_release : __ksEngine->step_pdu_session_2_release;
            if (st) KsScanario__AddCommand(command, ksUe, st);
            return;
        }
        case 17: updateUE(command, ksUe); return;
        case 18:
            ksUe->SQNHandlingType = command->InitialContextRequest;
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s UPDATED SQN HANDLING TYPE=%lu %s|%s|%d", KsUE__supi(ksUe),
                     (unsigned long)ksUe->SQNHandlingType, __FILE_NAME__, __func__, __LINE__);
            return;
        case 23: KsScanario__AddTemplatedTestCommand(command, ksUe); return;
        case 9999: KsScanario__AddTemplatedTestCommand2(command, ksUe); return;
        default:
            if (KsStep* st = commandStep(n)) KsScanario__AddCommand(command, ksUe, st);
    }
}

// ---------------------------------------------------------------- templated commands

void KsScanario__AddTemplatedTestCommand(MV_KsTestCommand* command, MV_KsUE* ksUe) {
    static constexpr StepField kByOption[] = {
        &__mv_ks__engine::step_initialRegistration,      &__mv_ks__engine::step_updateRegistration,
        &__mv_ks__engine::step_perodicRegistration,      &__mv_ks__engine::step_emergencyRegistration,
        &__mv_ks__engine::step_deRegistration,           &__mv_ks__engine::step_deRegistration_switchOff,
        &__mv_ks__engine::step_release_ue_context,       &__mv_ks__engine::step_pdu_session_1,
        &__mv_ks__engine::step_pdu_session_1_modification, &__mv_ks__engine::step_pdu_session_1_release,
        &__mv_ks__engine::step_service_request,
    };
    uint32_t option = command->IdentityRequestOption;
    if (option >= std::size(kByOption)) {
        logInvalid(ksUe, option, "%s InvalidOption=%u ExecuteByTemplate <%s|%s|%d>");
        return;
    }
    KsStep* st = __ksEngine->*kByOption[option];
    if (!st) {
        logInvalid(ksUe, option, "%s InvalidOption=%u ExecuteByTemplate, ksStep is NULL <%s|%s|%d>");
        return;
    }
    KsScanario__AddCommand(command, ksUe, st);
    // The three template positions ride in the option fields of the command.
    KsTemplateEng__FindTemplatesFotRequestByTemplateFor5G(option, command->InitialContextRequest, command->FOR,
                                                          command->AuthOptions, st);
}

namespace {

// The templated commands (9999) by application type: which prebuilt step the command's
// fields pick, and where its templates are looked up. A module's row of the same type
// stands before these.
KsStep* pickPFCP(const MV_KsTestCommand* c, MV_KsUE* ue) {
    __mv_ks__engine* e = __ksEngine;
    switch (c->IdentityRequestOption) {
        case 0:
        case 3: return e->step_pfcpSessionEstablishmentRequest;
        case 1: return e->step_pfcpSessionUpdateRequest;
        case 2: return e->step_pfcpSessionDeleteRequest;
        default: logInvalid(ue, c->IdentityRequestOption, kInvalid2); return nullptr;
    }
}

KsStep* pickPGW(const MV_KsTestCommand* c, MV_KsUE* ue) {
    __mv_ks__engine* e = __ksEngine;
    switch (c->IdentityRequestOption) {
        case 0: return e->step_pgwCreateSessionRequest;
        case 1: return e->step_pgwModifyBearerRequest;
        case 2: return e->step_pgwDeleteSessionRequest;
        default: logInvalid(ue, c->IdentityRequestOption, kInvalid2); return nullptr;
    }
}

KsStep* pickGGSN(const MV_KsTestCommand* c, MV_KsUE* ue) {
    __mv_ks__engine* e = __ksEngine;
    switch (c->IdentityRequestOption) {
        case 0: return e->step_ggsn_CreatePDPContextRequest;
        case 1: return e->step_ggsn_UpdatePDPContextRequest;
        case 2: return e->step_ggsn_DeletePDPContextRequest;
        default: logInvalid(ue, c->IdentityRequestOption, kInvalid2); return nullptr;
    }
}

// Diameter commands by interface and command code.
struct DiamRow {
    uint16_t itf, cmd;
    StepField step;
};

template <size_t N>
KsStep* pickDiam(const DiamRow (&rows)[N], const MV_KsTestCommand* c, MV_KsUE* ue) {
    for (const DiamRow& r : rows)
        if (r.itf == c->EA1 && r.cmd == c->FOR) return __ksEngine->*r.step;
    logInvalid(ue, c->FOR, kInvalid2);
    return nullptr;
}

KsStep* pickHSS(const MV_KsTestCommand* c, MV_KsUE* ue) {
    static constexpr DiamRow kHss[] = {
        {1, 316, &__mv_ks__engine::step_hssULR},   {1, 318, &__mv_ks__engine::step_hssAIR},
        {1, 321, &__mv_ks__engine::step_hssPUR},   {1, 323, &__mv_ks__engine::step_hssNR},
        {2, 306, &__mv_ks__engine::step_hssShUDR}, {2, 307, &__mv_ks__engine::step_hssShPUR},
        {2, 308, &__mv_ks__engine::step_hssShSNR}, {2, 309, &__mv_ks__engine::step_hssShPNR},
        {3, 300, &__mv_ks__engine::step_hssCxUAR}, {3, 301, &__mv_ks__engine::step_hssCxSAR},
        {3, 302, &__mv_ks__engine::step_hssCxLIR}, {3, 303, &__mv_ks__engine::step_hssCxMAR},
        {4, 301, &__mv_ks__engine::step_hssSWxSAR}, {4, 303, &__mv_ks__engine::step_hssSWxMAR},
        {4, 304, &__mv_ks__engine::step_hssCxRTR}, {4, 305, &__mv_ks__engine::step_hssCxPPR},
    };
    return pickDiam(kHss, c, ue);
}

KsStep* pickAAA(const MV_KsTestCommand* c, MV_KsUE* ue) {
    static constexpr DiamRow kAaa[] = {
        {2, 265, &__mv_ks__engine::step_aaaSWm_AA_Request},
        {2, 268, &__mv_ks__engine::step_aaaSWm_Diameter_EAP_Request},
        {2, 275, &__mv_ks__engine::step_aaaSWm_Session_Termination_Request},
    };
    return pickDiam(kAaa, c, ue);
}

KsStep* pickPCRF(const MV_KsTestCommand* c, MV_KsUE*) {
    return c->AuthOptions == 2 ? __ksEngine->step_pcrfRxCCRI : __ksEngine->step_pcrfGxCCRI;
}

// The Ro steps are never made: their command is told that its step is missing.
KsStep* pickCHF(const MV_KsTestCommand* c, MV_KsUE*) {
    KsStep* st = c->AuthOptions == 2 ? __ksEngine->step_chfRoCCRI : __ksEngine->step_chfGyCCRI;
    if (!st) logNullStep("KsScanario__AddCommand");
    return st;
}

void templatesPFCP(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateForPFCP(c->IdentityRequestOption, c->InitialContextRequest, st);
}
void templatesPGW(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateByAppType("PGW", c->IdentityRequestOption, c->InitialContextRequest, st);
}
void templatesGGSN(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateByAppType("GGSN", c->IdentityRequestOption, c->InitialContextRequest, st);
}
void templatesHSS(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(7, "HSS", c->EA1, c->FOR, c->InitialContextRequest, st);
}
void templatesAAA(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(11, "AAA", c->EA1, c->FOR, c->InitialContextRequest, st);
}
void templatesPCRF(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(10, "PCRF", c->AuthOptions, c->FOR, c->InitialContextRequest, st);
}
void templatesCHF(const MV_KsTestCommand* c, KsStep* st) {
    KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(12, "CHF", c->AuthOptions, c->FOR, c->InitialContextRequest, st);
}

constexpr KsTemplatedCommand kTemplated[] = {
    {2, pickPFCP, templatesPFCP},  {5, pickPGW, templatesPGW},   {7, pickHSS, templatesHSS},
    {10, pickPCRF, templatesPCRF}, {11, pickAAA, templatesAAA},  {12, pickCHF, templatesCHF},
    {31, pickGGSN, templatesGGSN},
};

const KsTemplatedCommand* templatedCommand(uint32_t appType) {
    if (const KsTemplatedCommand* r = KsEngine___registeredTemplatedCommand(appType)) return r;
    for (const KsTemplatedCommand& r : kTemplated)
        if (r.AppType == appType) return &r;
    return nullptr;
}

}  // namespace

void KsScanario__AddTemplatedTestCommand2(MV_KsTestCommand* command, MV_KsUE* ksUe) {
    const KsTemplatedCommand* row = templatedCommand(command->EA0);
    if (!row) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "unhandled TEMPLATE command for KsTEAppId=%d %s|%d\n",
                 int(command->EA0), __func__, __LINE__);
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR, "unhandled TEMPLATE command for KsTEAppId=%d %s|%d\n",
                 int(command->EA0), __func__, __LINE__);
        return;
    }
    // An out-of-range request or a missing prebuilt step has been told by pick.
    KsStep* st = row->pick(command, ksUe);
    if (!st) return;
    KsScanario__AddCommand(command, ksUe, st);
    if (row->templates) row->templates(command, st);
    uint32_t req = command->IdentityRequestOption, tpl = command->InitialContextRequest;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s request=%u  templateId=%u  regTemplate=%p [%s] <%s|%s|%d>",
             KsUE__supi(ksUe), req, tpl, (void*)st->nas5G_regTemplate, st->nas5G_regTemplate ? "template" : "-",
             __FILE_NAME__, __func__, __LINE__);
}
