// The catalogue of scenario steps: the builder of each scenario step id, what it puts
// into the step and which Dict keys it reads; the printable step names; the template
// slots of a step.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KsEngine_registry.h"
#include "Kestrane.h"
#include "KsTemplateEng.h"
#include "Kestrane_util.h"

const char* const step_names[KS_STEP__LAST + 1] = {
    "INVALID_STEP-0",
    "KS_STEP__REGISTRATION",
    "KS_STEP__SLEEP",
    "KS_STEP__SERVICE_REQUEST",
    "KS_STEP__DEREGISTRATION",
    "KS_STEP__UE_CONTEXT_RELEASE_REQUEST",
    "KS_STEP__PDU_SESSION",
    "KS_STEP__LOAD_TPDU",
    "CLEAR_GUTI",
    "RELEASE_UE_LOGICAL_CONNECTION",
    "N2_HANDOVER",
    "XN_HANDOVER",
    "KS_STEP__TEST_TPDU",
    "KS_STEP__TEST_TPDU_PCAP_1_PACKET",
    "KS_STEP__TEST_TPDU_PCAP_ALL_PACKETS",
    "KS_STEP__UPDATE_SQN",
    "KS_STEP__HANDLE_SQN_TYPE",
    "KS_STEP__ERASE_REGISTRATION_DATA",
    "KS_STEP__RUN_SCANARIO",
    "KS_STEP__REGISTRATION_WITH_GUTI",
    "KS_STEP__REGISTRATION_WITH_PEI",
    "21",
    "22",
    "23",
    "KS_STEP__TEST_TPDU2",
    "KS_STEP__TEST_TPDU_ICMP",
    "KS_STEP__TEST_TPDU_ICMP2",
    "KS_STEP__TEST_TPDU_PACKETS",
    "KS_STEP__TEST_TPDU_STOP_PACKETS",
    "KS_STEP__MME_ATTACH",
    "KS_STEP__MME_TRACKING_AREA_UPDATE",
    "KS_STEP__MME_DETACH",
    "KS_STEP__MME_SERVICE_REQUEST",
    "KS_STEP__MME_EXTENDED_SERVICE_REQUEST",
    "KS_STEP__MME_CONTROL_PLANE_SERVICE_REQUEST",
    "KS_STEP__MME_X2_HANDOVER__PATH_SWITCH_REQUEST",
    "KS_STEP__MME_S2_HANDOVER",
    "KS_STEP__MME_RELEASE_UE_CONTEXT",
    "KS_STEP__MME_CLEAR_GUTI",
    "KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST",
    "KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST",
    "KS_STEP__PFCP_SESSION_DELETE_REQUEST",
    "KS_STEP__PFCP_SESSION_GTP_U",
    "KS_STEP__PFCP_SESSION_GTP_U_MULTIPLE_PACKETS",
    "KS_STEP__PFCP_SESSION_GTP_U_ROTATE_PACKET",
    "KS_STEP__PFCP_SESSION_GTP_U_MULTIPLE_ROTATE_PACKETS",
    "KS_STEP__PFCP_SESSION_GTP_U_DNS_PACKET_53",
    "KS_STEP__PFCP_SESSION_GTP_U_DNS_PACKET_853",
    "KS_STEP__PFCP_GTP_SEND_GTP_PING",
    "KS_STEP__PFCP_GTP_SEND_GTP_ICMP_SERVER_1",
    "KS_STEP__PFCP_GTP_SEND_GTP_ICMP_SERVER_2",
    "KS_STEP__PFCP_GTP_SEND_GTP_ICMP_SERVER_3",
    "KS_STEP__PFCP_GTP_U_IPv6",
    "KS_STEP__PFCP_GTP_U_SCTP",
    "KS_STEP__PFCP_GTP_U_ESP",
    "KS_STEP__PFCP_GTP_U_UDP_FRAG_BEGIN",
    "KS_STEP__PFCP_GTP_U_UDP_FRAG_MID",
    "KS_STEP__PFCP_GTP_U_UDP_FRAG_END",
    "KS_STEP__PFCP_GTP_U_TCP_FULL",
    "KS_STEP__PFCP_GTP_U_UDP_FULL",
    "KS_STEP__PFCP_GTP_U_IPv6_TCP_FULL",
    "KS_STEP__PFCP_GTP_U_IPv6_UDP_FULL",
    "KS_STEP__PFCP_GTP_U_SCTP_FULL",
    "KS_STEP__PFCP_GTP_U_IPv6_SCTP_FULL",
    "KS_STEP__PFCP_GTP_U_NoExtNoSEQ",
    "KS_STEP__PFCP_GTP_U_ExtSEQ",
    "KS_STEP__PFCP_GTP_U_Ext2NoSEQ",
    "KS_STEP__PFCP_GTP_U_Ext2SEQ",
    "KS_STEP__PFCP_GTP_U_RUN_PCAP_File",
    "KS_STEP__PFCP_GTP_U_1LExtSEQ",
    "KS_STEP__PFCP_GTP_U_2LExtSEQ",
    "KS_STEP__HSS_ULR_REQUEST",
    "KS_STEP__HSS_AIR_REQUEST",
    "KS_STEP__HSS_PUR_REQUEST",
    "KS_STEP__HSS_NOTIFY_REQUEST",
    "KS_STEP__HSS_SH_User-Data-Request",
    "KS_STEP__HSS_SH_Profile-Update-Request",
    "KS_STEP__HSS_SH_Subscribe-Notifications-Request",
    "KS_STEP__HSS_SH_Push-Notification-Request",
    "KS_STEP__HSS_Cx_User-Authorization-Request",
    "KS_STEP__HSS_Cx_Server-Assignment-Request",
    "KS_STEP__HSS_Cx_Location-Info-Request",
    "KS_STEP__HSS_Cx_Multimedia-Auth-Request",
    "KS_STEP__HSS_Cx_Registration-Termination-Request",
    "KS_STEP__HSS_Cx_Push-Profile-Request",
    "KS_STEP__HSS_SWx_MAR",
    "KS_STEP__HSS_SWx_SAR",
    "KS_STEP__LTE_EIR_REQUEST",
    "KS_STEP__5G_EIR_REQUEST",
    "KS_STEP__PCRF_Gx_CREDIT_CONTROL_REQUEST",
    "KS_STEP__PCRF_Gx_CREDIT_UPDATE_REQUEST",
    "KS_STEP__PCRF_Gx_CREDIT_TERMINATE_REQUEST",
    "KS_STEP__PCRF_Rx_CREDIT_CONTROL_REQUEST",
    "KS_STEP__PCRF_Rx_CREDIT_UPDATE_REQUEST",
    "KS_STEP__PCRF_Rx_CREDIT_TERMINATE_REQUEST",
    "KS_STEP__PGW_CREATE_SESSION_REQUEST",
    "KS_STEP__PGW_CREATE_BEARER_REQUEST",
    "KS_STEP__PGW_MODIFY_BEARER_REQUEST",
    "KS_STEP__PGW_DELETE_BEARER_REQUEST",
    "KS_STEP__PGW_DELETE_SESSION_REQUEST",
    "KS_STEP__PGW_REMOTE_UE_REPORT_NOTIFICATION",
    "KS_STEP__PGW_CHANGE_NOTIFICATION_REQUEST",
    "KS_STEP__PGW_RESUME_NOTIFICATION",
    "KS_STEP__PGW_MODIFY_BEARER_COMMAND",
    "KS_STEP__PGW_DELETE_BEARER_COMMAND",
    "KS_STEP__PGW_BEARER_RESOURCE_COMMAND",
    "KS_STEP__PGW_SUSPEND_NOTIFICATION",
    "KS_STEP__PGW_UPDATE_PDN_CONNECTION_SET_REQUEST",
    "KS_STEP__PGW_IPV4_GTP_U_TCP_PACKET_REQUEST",
    "KS_STEP__PGW_IPV4_GTP_U_UDP_PACKET_REQUEST",
    "KS_STEP__PGW_IPV4_GTP_U_UDP_LARGE_PACKET_REQUEST",
    "KS_STEP__PGW_IPV6_GTP_U_TCP_PACKET_REQUEST",
    "KS_STEP__PGW_IPV6_GTP_U_UDP_PACKET_REQUEST",
    "KS_STEP__PGW_IPV6_GTP_U_UDP_LARGE_PACKET_REQUEST",
    "KS_STEP__PGW_GTPU_PCAP_FILE_REQUEST",
    "KS_STEP__PGW_GTPU_PACKET_BY_PROTOCOL_TYPE_REQUEST",
    "KS_STEP__PGW_GTP_PDU",
    "KS_STEP__PGW_MOVE_SESSION_TO_3G",
    "KS_STEP__PGW_CLEAR_ALL_SESSIONS",
    "KS_STEP__SGW_CREATE_SESSION_REQUEST",
    "KS_STEP__SGW_CREATE_BEARER_REQUEST",
    "KS_STEP__SGW_MODIFY_BEARER_REQUEST",
    "KS_STEP__SGW_DELETE_BEARER_REQUEST",
    "KS_STEP__SGW_DELETE_SESSION_REQUEST",
    "KS_STEP__SGW_GTP_PDU",
    "KS_STEP__SMF_CREATE_PDU_SESSION_REQUEST",
    "KS_STEP__SMF_MODIFY_PDU_SESSION_REQUEST",
    "KS_STEP__SMF_RELEASE_PDU_SESSION_REQUEST",
    "KS_STEP__AAA_STa_Diameter_EAP_Request",
    "KS_STEP__AAA_STa_Abort_Session_Request",
    "KS_STEP__AAA_STa_Re_Auth_Request",
    "KS_STEP__AAA_STa_Session_Termination_Request",
    "KS_STEP__AAA_SWm_Diameter_EAP_Request",
    "KS_STEP__AAA_SWm_AA_Request",
    "KS_STEP__AAA_SWm_Session_Termination_Request",
    "KS_STEP__AAA_SWm_Abort_Session_Request",
    "KS_STEP__AAA_SWm_Re_Auth_Request",
    "KS_STEP__AAA_SWx_Multimedia_Auth_Request",
    "KS_STEP__AAA_SWx_Push_Profile_Request",
    "KS_STEP__AAA_SWx_Server_Assignment_Request",
    "KS_STEP__AAA_SWx_Registration_Termination_Request",
    "KS_STEP__AAA_S6b_Diameter_EAP_Request",
    "KS_STEP__AAA_S6b_AA_Request",
    "KS_STEP__AAA_S6b_Session_Termination_Request",
    "KS_STEP__AAA_S6b_Abort_Session_Request",
    "KS_STEP__CHF_Gy_CREDIT_CONTROL_REQUEST",
    "KS_STEP__CHF_Gy_CREDIT_UPDATE_REQUEST",
    "KS_STEP__CHF_Gy_CREDIT_TERMINATE_REQUEST",
    "KS_STEP__CHF_Gy_CREDIT_EVENT_BASED",
    "KS_STEP__NRF_NFINSTANCE_PUT",
    "KS_STEP__NRF_NFINSTANCE_PATCH",
    "KS_STEP__NRF_NFINSTANCE_DELETE",
    "KS_STEP__NRF_NFINSTANCE_GET",
    "KS_STEP__NRF_NFINSTANCES_GET",
    "KS_STEP__NRF_DISC_NFINSTANCES_GET",
    "KS_STEP__AUSF_AUTHENTICATION_INFO",
    "KS_STEP__AUSF_AUTHENTICATION_AKA_CONFIRM",
    "KS_STEP__AUSF_AUTHENTICATION_EAP_CONFIRM",
    "KS_STEP__UDM_SDM_GET_DATASETS",
    "KS_STEP__UDM_NSSAI_GET",
    "KS_STEP__UDM_AMDATA_GET",
    "KS_STEP__UDM_SMFSELECTDATA_GET",
    "KS_STEP__UDM_UECONTEXTINSMFDATA_GET",
    "KS_STEP__UDM_UECONTEXTINSMSFDATA_GET",
    "KS_STEP__UDM_TRACEDATA_GET",
    "KS_STEP__UDM_SMDATA_GET",
    "KS_STEP__UDM_SMSDATA_GET",
    "KS_STEP__UDM_SMSMNGDATA_GET",
    "KS_STEP__UDM_SDMSUBSCRIPTION_POST",
    "KS_STEP__UDM_SDMSUBSCRIPTION_DELETE",
    "KS_STEP__UDM_SDMSUBSCRIPTION_PATCH",
    "KS_STEP__UDM_SDM_GPSI_ID_TRANSLATE",
    "KS_STEP__UDM_SDM_AMDATA_SORACK_PUT",
    "KS_STEP__UDM_SDM_AMDATA_UPUACK_PUT",
    "KS_STEP__UDM_SDM_SHAREDDATA_GET",
    "KS_STEP__UDM_SDM_SHAREDDATA_POST",
    "KS_STEP__UDM_SDM_SHAREDDATA_DELETE",
    "KS_STEP__UDM_SDM_SHAREDDATA_PATCH",
    "KS_STEP__UDM_AE_GENERATE_AUTHDATA_POST",
    "KS_STEP__UDM_AE_POST",
    "KS_STEP__UDM_REGISTRATION_AMF_3GPP_PUT",
    "KS_STEP__UDM_REGISTRATION_AMF_3GPP_PATCH",
    "KS_STEP__UDM_REGISTRATION_AMF_3GPP_GET",
    "KS_STEP__UDM_REGISTRATION_AMF_NON3GPP_PUT",
    "KS_STEP__UDM_REGISTRATION_AMF_NON3GPP_PATCH",
    "KS_STEP__UDM_REGISTRATION_AMF_NON3GPP_GET",
    "KS_STEP__UDM_REGISTRATION_SMF_PDUSESSIONID_PUT",
    "KS_STEP__UDM_REGISTRATION_SMF_PDUSESSIONID_DELETE",
    "KS_STEP__UDM_REGISTRATION_SMSF_3GPP_PUT",
    "KS_STEP__UDM_REGISTRATION_SMSF_3GPP_DELETE",
    "KS_STEP__UDM_REGISTRATION_SMSF_3GPP_GET",
    "KS_STEP__UDM_REGISTRATION_SMSF_NON3GPP_PUT",
    "KS_STEP__UDM_REGISTRATION_SMSF_NON3GPP_DELETE",
    "KS_STEP__UDM_REGISTRATION_SMSF_NON3GPP_GET",
    "KS_STEP__N26_IDENTIFICATION_REQUEST",
    "KS_STEP__N26_CONTEXT_REQUEST",
    "KS_STEP__N26_FORWARD_RELOCATION_REQUEST",
    "KS_STEP__N26_FORWARD_ACCESS_CONTEXT_REQUEST",
    "KS_STEP__N26_RELOCATION_CANCEL_REQUEST",
    "KS_STEP__N26_CONFIGURATION_TRANSFER_TUNNEL",
    "KS_STEP__GGSN_CREATE_PDP_CONTEXT_REQUEST",
    "KS_STEP__GGSN_DELETE_PDP_CONTEXT_REQUEST",
    "KS_STEP__GGSN_UPDATE_PDP_CONTEXT_REQUEST",
    "KS_STEP__GGSN_IPV4_GTP_U_TCP_PACKET_REQUEST",
    "KS_STEP__GGSN_IPV4_GTP_U_UDP_PACKET_REQUEST",
    "KS_STEP__GGSN_MOVE_SESSION_TO_4G",
    "KS_STEP__GGSN_CLEAR_ALL_SESSIONS"
};

const char* KsScanario__StepName(uint32_t StepCode) {
    return StepCode <= KS_STEP__LAST ? step_names[StepCode] : step_names[0];
}

namespace {

using K = KsStepKind;

// In step id order: lookups bisect it.
constexpr KsStepCatalogueEntry kCatalogue[] = {
    {1, "Kestrane___ScanarioAddRegistrationStep", 1, 1, K::Registration, nullptr, -1, 0},
    {2, "Kestrane___ScanarioAddPDUSession", 6, 2, K::PduSession, nullptr, -1, 0},
    {3, "Kestrane___ScanarioAddSleep", 2, 3, K::Sleep, nullptr, -1, 0},
    {4, "Kestrane___ScanarioAddReleaseLogicalUEConnection", 5, 1, K::ReleaseLogicalUEConnection, nullptr, -1, 0},
    {5, "Kestrane___ScanarioAddServiceRequest", 3, 5, K::ServiceRequest, nullptr, -1, 0},
    {6, "Kestrane___ScanarioAddDeRegistration", 4, 6, K::DeRegistration, nullptr, -1, 0},
    {7, "Kestrane___ScanarioAddDataTPDU", 27, 7, K::DataTPDU, nullptr, -1, 0},
    {1001, "Kestrane___ScanarioAddPFCPSessionEstablishmentRequest", 39, 1001, K::Template, "PFCP", -1, 50},
    {1002, "Kestrane___ScanarioAddPFCPSessionModificationRequest", 40, 1002, K::Template, "PFCP", -1, 52},
    {1003, "Kestrane___ScanarioAddPFCPSessionDeleteRequest", 41, 1003, K::Plain, nullptr, -1, 0},
    {1004, "Kestrane___ScanarioAddPFCPGTPPDU", 43, 1004, K::PacketData, nullptr, -1, 0},
    {2001, "Kestrane___ScanarioAdd_SGWCreateSessionRequest", 119, 3001, K::Plain, nullptr, -1, 0},
    {2002, "Kestrane___ScanarioAdd_SGWCreateBearerRequest", 120, 3002, K::Plain, nullptr, -1, 0},
    {2003, "Kestrane___ScanarioAdd_SGWModifyBearerRequest", 121, 3003, K::Plain, nullptr, -1, 0},
    {2004, "Kestrane___ScanarioAdd_SGWDeleteBearerRequest", 122, 3004, K::Plain, nullptr, -1, 0},
    {2005, "Kestrane___ScanarioAdd_SGWDeleteSessionRequest", 123, 3005, K::Plain, nullptr, -1, 0},
    {2006, "Kestrane___ScanarioAdd_SGWGTPDataTPDURequest", 124, 3006, K::PacketData, nullptr, -1, 0},
    {3001, "Kestrane___ScanarioAdd_PGWCreateSessionRequest", 95, 2001, K::Template, "PGW", -1, 32},
    {3002, "Kestrane___ScanarioAdd_PGWCreateBearerRequest", 96, 2002, K::Plain, nullptr, -1, 0},
    {3003, "Kestrane___ScanarioAdd_PGWModifyBearerRequest", 97, 2003, K::Template, "PGW", -1, 34},
    {3004, "Kestrane___ScanarioAdd_PGWDeleteBearerRequest", 98, 2004, K::Plain, nullptr, -1, 0},
    {3005, "Kestrane___ScanarioAdd_PGWDeleteSessionRequest", 99, 2005, K::Template, "PGW", -1, 36},
    {3006, "Kestrane___ScanarioAdd_PGWGTPDataTPDURequest", 116, 2006, K::PacketData, nullptr, -1, 0},
    {4001, "Kestrane___ScanarioAdd_MMEAttach", 29, 4001, K::Plain, nullptr, -1, 0},
    {4002, "Kestrane___ScanarioAdd_MMETrackingAreaUpdate", 30, 4002, K::Plain, nullptr, -1, 0},
    {4003, "Kestrane___ScanarioAdd_MMEDetach", 31, 4003, K::Plain, nullptr, -1, 0},
    {4004, "Kestrane___ScanarioAdd_MMEServiceRequest", 32, 4004, K::Plain, nullptr, -1, 0},
    {4005, "Kestrane___ScanarioAdd_MMEExtendedServiceRequest", 33, 4005, K::Plain, nullptr, -1, 0},
    {4006, "Kestrane___ScanarioAdd_MMEControlPlaneServiceRequest", 34, 4006, K::Plain, nullptr, -1, 0},
    {4901, "Kestrane___ScanarioAdd_GGSNCreatePDPContextRequest", 200, 4901, K::Plain, nullptr, -1, 0},
    {4902, "Kestrane___ScanarioAdd_GGSNDeletePDPContextRequest", 201, 4902, K::Plain, nullptr, -1, 0},
    {4903, "Kestrane___ScanarioAdd_GGSNUpdatePDPContextRequest", 202, 4903, K::Plain, nullptr, -1, 0},
    {5001, "Kestrane___ScanarioAdd_4GEIREquipmentIdentityRequest", 87, 5001, K::Plain, nullptr, -1, 0},
    {6001, "Kestrane___ScanarioAdd_5GEIREquipmentIdentityRequest", 88, 6001, K::Plain, nullptr, -1, 0},
    {7001, "Kestrane___ScanarioAdd_AAASTa_Diameter_EAP_Request", 128, 7001, K::Plain, nullptr, -1, 0},
    {7002, "Kestrane___ScanarioAdd_AAASTa_Abort_Session_Request", 129, 7002, K::Plain, nullptr, -1, 0},
    {7003, "Kestrane___ScanarioAdd_AAASTa_Re_Auth_Request", 130, 7003, K::Plain, nullptr, -1, 0},
    {7004, "Kestrane___ScanarioAdd_AAASTa_Session_Termination_Request", 131, 7004, K::Plain, nullptr, -1, 0},
    {7005, "Kestrane___ScanarioAdd_AAASWm_Diameter_EAP_Request", 132, 7005, K::Template2, "AAA", 2, 268},
    {7006, "Kestrane___ScanarioAdd_AAASWm_AA_Request", 133, 7006, K::Template2, "AAA", 2, 265},
    {7007, "Kestrane___ScanarioAdd_AAASWm_Session_Termination_Request", 134, 7007, K::Template2, "AAA", 2, 275},
    {7008, "Kestrane___ScanarioAdd_AAASWm_Abort_Session_Request", 135, 7008, K::Plain, nullptr, -1, 0},
    {7009, "Kestrane___ScanarioAdd_AAASWm_Re_Auth_Request", 136, 7009, K::Plain, nullptr, -1, 0},
    {7010, "Kestrane___ScanarioAdd_AAASWx_Multimedia_Auth_Request", 137, 7010, K::Plain, nullptr, -1, 0},
    {7011, "Kestrane___ScanarioAdd_AAASWx_Push_Profile_Request", 138, 7011, K::Plain, nullptr, -1, 0},
    {7012, "Kestrane___ScanarioAdd_AAASWx_Server_Assignment_Request", 139, 7012, K::Plain, nullptr, -1, 0},
    {7013, "Kestrane___ScanarioAdd_AAASWx_Registration_Termination_Request", 140, 7013, K::Plain, nullptr, -1, 0},
    {7014, "Kestrane___ScanarioAdd_AAAS6b_Diameter_EAP_Request", 141, 7014, K::Plain, nullptr, -1, 0},
    {7015, "Kestrane___ScanarioAdd_AAAS6b_AA_Request", 142, 7015, K::Plain, nullptr, -1, 0},
    {7016, "Kestrane___ScanarioAdd_AAAS6b_Session_Termination_Request", 143, 7016, K::Plain, nullptr, -1, 0},
    {7017, "Kestrane___ScanarioAdd_AAAS6b_Abort_Session_Request", 144, 7017, K::Plain, nullptr, -1, 0},
    {8001, "Kestrane___ScanarioAdd_CHFCreditControlRequestInitial", 145, 8001, K::Template2, "CHF", 1, 272},
    {8002, "Kestrane___ScanarioAdd_CHFCreditControlRequestUpdate", 146, 8002, K::Plain, nullptr, -1, 0},
    {8003, "Kestrane___ScanarioAdd_CHFCreditControlRequestTerminate", 147, 8003, K::Plain, nullptr, -1, 0},
    {8004, "Kestrane___ScanarioAdd_CHFCreditControlRequestEventBased", 148, 8004, K::Plain, nullptr, -1, 0},
    {9001, "Kestrane___ScanarioAdd_GxCreditControlRequestInitial", 89, 9001, K::Template2, "PCRF", 0, 272},
    {9002, "Kestrane___ScanarioAdd_GxCreditControlRequestUpdate", 90, 9002, K::Plain, nullptr, -1, 0},
    {9003, "Kestrane___ScanarioAdd_GxCreditControlRequestTerminate", 91, 9003, K::Plain, nullptr, -1, 0},
    {9004, "Kestrane___ScanarioAdd_RxCreditControlRequestInitial", 92, 9004, K::Template2, "PCRF", 0, 272},
    {9005, "Kestrane___ScanarioAdd_RxCreditControlRequestUpdate", 93, 9005, K::Plain, nullptr, -1, 0},
    {9006, "Kestrane___ScanarioAdd_RxCreditControlRequestTerminate", 94, 9006, K::Plain, nullptr, -1, 0},
    {10001, "Kestrane___ScanarioAdd_HSSS6aUpdateLocationRequest", 71, 10001, K::Template2, "HSS", 1, 316},
    {10002, "Kestrane___ScanarioAdd_HSSS6aAuthenticationInformationRequest", 72, 10002, K::Template2, "HSS", 1, 318},
    {10003, "Kestrane___ScanarioAdd_HSSS6aPurgeUERequest", 73, 10003, K::Template2, "HSS", 1, 321},
    {10004, "Kestrane___ScanarioAdd_HSSS6aNotifyRequest", 74, 10004, K::Template2, "HSS", 1, 323},
    {10005, "Kestrane___ScanarioAdd_HSSShUserDataRequest", 75, 10005, K::Template2, "HSS", 2, 306},
    {10006, "Kestrane___ScanarioAdd_HSSShProfileUpdateRequest", 76, 10006, K::Template2, "HSS", 2, 307},
    {10007, "Kestrane___ScanarioAdd_HSSShSubscribeNotificationsRequest", 77, 10007, K::Template2, "HSS", 2, 308},
    {10008, "Kestrane___ScanarioAdd_HSSShPushNotificationRequest", 78, 10008, K::Template2, "HSS", 2, 309},
    {10009, "Kestrane___ScanarioAdd_HSSCxUserAuthorizationRequest", 79, 10009, K::Template2, "HSS", 3, 300},
    {10010, "Kestrane___ScanarioAdd_HSSCxServerAssignmentRequest", 80, 10010, K::Template2, "HSS", 3, 301},
    {10011, "Kestrane___ScanarioAdd_HSSCxLocationInfoRequest", 81, 10011, K::Template2, "HSS", 3, 302},
    {10012, "Kestrane___ScanarioAdd_HSSCxMultimediaAuthRequest", 82, 10012, K::Template2, "HSS", 3, 303},
    {10013, "Kestrane___ScanarioAdd_HSSCxRegistrationTerminationRequest", 83, 10013, K::Plain, nullptr, -1, 0},
    {10014, "Kestrane___ScanarioAdd_HSSCxPushProfileRequest", 84, 10014, K::Plain, nullptr, -1, 0},
    {11001, "Kestrane___ScanarioAdd_SMFCreatePDUSessionRequest", 125, 11001, K::Plain, nullptr, -1, 0},
    {11002, "Kestrane___ScanarioAdd_SMFModifyPDUSessionRequest", 126, 11002, K::Plain, nullptr, -1, 0},
    {11003, "Kestrane___ScanarioAdd_SMFReleasePDUSessionRequest", 127, 11003, K::Plain, nullptr, -1, 0},
};

constexpr bool sortedById() {
    for (size_t i = 1; i < std::size(kCatalogue); ++i)
        if (kCatalogue[i - 1].StepId >= kCatalogue[i].StepId) return false;
    return true;
}
static_assert(sortedById());

// A Dict value as text; numbers given as JSON numbers are taken as their text.
const char* valueText(json_t* v, char* buf, size_t cap) {
    if (json_is_string(v)) return json_string_value(v);
    if (json_is_integer(v)) {
        snprintf(buf, cap, "%lld", (long long)json_integer_value(v));
        return buf;
    }
    return nullptr;
}

// Per-step state while its Dict is applied in array order.
struct DictState {
    bool kindSeen = false;    // the PDU request kind was given before a key that needs it
    uint32_t packetSelect = 0;  // where key 24 goes: 0 PacketCount, 1 PacketDuration
};

void setDefaults(KsStep* st, const KsStepCatalogueEntry& e) {
    switch (e.Kind) {
        case K::Registration:
            st->EA0 = st->EA1 = st->EA2 = st->IA0 = st->IA1 = st->IA2 = 1;
            st->FoR = 0;
            st->RegistrationType = 1;
            break;
        case K::PduSession: {
            auto* info = __mv_arena_new<__ks_pduSessionInfo>();
            info->PDUSessionRequestType = KS_STEP__PDU_SESSION_ESTABLISHMENT_REQUEST;
            st->pduSessionHead = st->pduSessionCurrent = info;
            break;
        }
        case K::Sleep: st->SleepTime = 10; break;
        case K::ReleaseLogicalUEConnection:
            st->CauseGroup = 2;
            st->Cause = 0;
            break;
        case K::ServiceRequest: st->ServiceType = 0; break;
        case K::DeRegistration: st->Cause = 0; break;
        default: break;
    }
}

void packetKeys(KsStep* st, long long key, int v, DictState& ds) {
    if (key == 23) ds.packetSelect = uint32_t(v);
    else if (key == 24 && ds.packetSelect == 0) st->PacketCount = uint32_t(v);
    else if (key == 24 && ds.packetSelect == 1) st->PacketDuration = uint32_t(v);
}

void applyKey(KsStep* st, const KsStepCatalogueEntry& e, long long key, const char* value, DictState& ds) {
    int v = atoi(value);
    switch (e.Kind) {
        case K::Registration:
            if (key == 1) st->RegistrationType = v == 2 ? 3 : v == 3 ? 2 : 1;
            else if (key == 5) st->FoR = v == 1 ? 1 : 0;
            else if (key == 16 && v == 1) st->InitialContextRequest = st->UEContextRequest = 1;
            else if (key == 17) KsScanario__SetNASTemplate(st, Kestrane___ScanarioSetTemplate(st, value, "NAS5G", 65));
            else if (key == 18)
                KsScanario__SetNGAPInitTemplate(st, Kestrane___ScanarioSetTemplate(st, value, "NGAP", 15));
            else if (key == 19)
                KsScanario__SetUplinkNGAPTemplate(st, Kestrane___ScanarioSetTemplate(st, value, "NGAP", 46));
            break;
        case K::PduSession: {
            __ks_pduSessionInfo* info = st->pduSessionHead;
            if (key == 4) {
                info->PDUSessionId = uint8_t(v);
                st->PDUSessionId = uint32_t(v);
            } else if (key == 12) {
                snprintf(info->DNNName, sizeof info->DNNName, "%s", value);
            } else if (key == 2) {
                info->PDUSessionRequestType = (v >= 1 && v <= 3) ? uint32_t(v) : 1;
                ds.kindSeen = true;
            } else if (key == 20 && ds.kindSeen) {
                static constexpr uint32_t kSmMessage[] = {0, 193, 201, 209};
                KsScanario__SetSMNASTemplate(
                    st, Kestrane___ScanarioSetTemplate(st, value, "NAS5G", kSmMessage[info->PDUSessionRequestType]));
            } else if (key == 21) {
                st->nas5G_ulNASTransport = Kestrane___ScanarioSetTemplate(st, value, "NAS5G", 103);
            }
            break;
        }
        case K::Sleep:
            if (key == 3) {
                char* end = nullptr;
                errno = 0;
                unsigned long secs = strtoul(value, &end, 10);
                // The timer wheel has one lap; a sleep longer than that would wake early.
                if (end != value && errno == 0 && secs < MV_TIMER_WHEEL_SLOTS) st->SleepTime = uint32_t(secs);
                else
                    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                             "sleep step: Value=[%s] is not a number of seconds below %d, using %u %s|%d", value,
                             MV_TIMER_WHEEL_SLOTS, st->SleepTime, __func__, __LINE__);
            }
            break;
        case K::ReleaseLogicalUEConnection:
            if (key == 8) st->CauseGroup = uint8_t(v);
            else if (key == 9) st->Cause = uint8_t(v);
            break;
        case K::ServiceRequest:
            if (key == 7) st->ServiceType = uint32_t(v);
            break;
        case K::DeRegistration:
            if (key == 6) {
                // The console counts from 1: 1 normal, 2 switch-off.
                int c = v > 0 ? v - 1 : v;
                st->Cause = (c == 0 || c == 1) ? uint8_t(c) : 0;
            }
            break;
        case K::DataTPDU:
            if (key == 4) st->PDUSessionId = st->InitialContextRequest = uint32_t(v);
            else packetKeys(st, key, v, ds);
            break;
        case K::PacketData:
            if (key == 4) st->PDUSessionId = uint32_t(v);
            else packetKeys(st, key, v, ds);
            break;
        case K::Template:
            if (key == 22)
                KsScanario__SetNASTemplate(st, Kestrane___ScanarioSetTemplate(st, value, e.TemplateType, e.TemplateMessage));
            break;
        case K::Template2:
            if (key == 22)
                KsScanario__SetNASTemplate(st, Kestrane___ScanarioSetTemplate2(st, value, e.TemplateType,
                                                                               e.TemplateInterface, e.TemplateMessage));
            break;
        case K::Plain: break;
    }
}

void addById(KsScanario* scanario, uint32_t stepId, json_t* dict) {
    if (const KsStepCatalogueEntry* e = KsScanario__GetStepBuilder(stepId)) Kestrane___ScanarioAddStep(scanario, e, dict);
}

}  // namespace

const KsStepCatalogueEntry* KsScanario__Catalogue(size_t* count) {
    if (count) *count = std::size(kCatalogue);
    return kCatalogue;
}

const KsStepCatalogueEntry* KsScanario__GetStepBuilder(uint32_t stepId) {
    // A module's row stands before the built-in one of its step id.
    if (const KsStepCatalogueEntry* r = KsEngine___registeredStepBuilder(stepId)) return r;
    auto it = std::lower_bound(std::begin(kCatalogue), std::end(kCatalogue), stepId,
                               [](const KsStepCatalogueEntry& e, uint32_t id) { return e.StepId < id; });
    return it != std::end(kCatalogue) && it->StepId == stepId ? it : nullptr;
}

KsStep* Kestrane___ScanarioAddStep(KsScanario* scanario, const KsStepCatalogueEntry* e, json_t* dict) {
    if (!scanario || !e) return nullptr;
    KsStep* st = KsScanario__NewStep(e->StepCode, e->StepIndex);
    setDefaults(st, *e);
    DictState ds;
    size_t i;
    json_t* item;
    json_array_foreach(dict, i, item) {
        json_t* k = json_object_get(item, "Key");
        long long key;
        if (json_is_integer(k)) key = json_integer_value(k);
        else if (json_is_string(k)) key = atoll(json_string_value(k));
        else continue;
        char buf[32];
        const char* value = valueText(json_object_get(item, "Value"), buf, sizeof buf);
        if (!value) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%s: Dict Key=%lld has no text Value, ignored %s|%d",
                     e->Builder, key, __func__, __LINE__);
            continue;
        }
        applyKey(st, *e, key, value, ds);
    }
    KsScanario__AddStep(scanario, st);
    return st;
}

void Kestrane___ScanarioAddRegistrationStep(KsScanario* scanario, json_t* dict) { addById(scanario, 1, dict); }
void Kestrane___ScanarioAddPDUSession(KsScanario* scanario, json_t* dict) { addById(scanario, 2, dict); }
void Kestrane___ScanarioAddSleep(KsScanario* scanario, json_t* dict) { addById(scanario, 3, dict); }
void Kestrane___ScanarioAddReleaseLogicalUEConnection(KsScanario* scanario, json_t* dict) { addById(scanario, 4, dict); }
void Kestrane___ScanarioAddServiceRequest(KsScanario* scanario, json_t* dict) { addById(scanario, 5, dict); }
void Kestrane___ScanarioAddDeRegistration(KsScanario* scanario, json_t* dict) { addById(scanario, 6, dict); }
void Kestrane___ScanarioAddDataTPDU(KsScanario* scanario, json_t* dict) { addById(scanario, 7, dict); }

// ---------------------------------------------------------------- templates of a step

namespace {

// A name that finds nothing leaves the slot empty: the step sends its default message.
MV_Template* found(MV_Template* t, const char* name, const char* cType, int subType, uint32_t messageId) {
    if (!t && name && *name)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Template=[%s] Interface=%s SubType=%d MessageType=%u not found %s|%d", name, cType ? cType : "",
                 subType, messageId, __func__, __LINE__);
    return t;
}

}  // namespace

MV_Template* Kestrane___ScanarioSetTemplate(KsStep*, const char* name, const char* cType, uint32_t messageId) {
    return found(KsTemplateEng__FindTemplateByMessageId(name, cType, messageId), name, cType, -1, messageId);
}

MV_Template* Kestrane___ScanarioSetTemplate2(KsStep*, const char* name, const char* cType, int interface,
                                             uint32_t command) {
    return found(KsTemplateEng__FindTemplateByMessageId2(name, cType, interface, command), name, cType, interface,
                 command);
}

void KsScanario__SetNASTemplate(KsStep* ksStep, MV_Template* t) {
    if (ksStep) ksStep->nas5G_regTemplate = t;
}
void KsScanario__SetSMNASTemplate(KsStep* ksStep, MV_Template* t) {
    if (ksStep) ksStep->nas5G_pduSessionTemplate = t;
}
void KsScanario__SetNGAPInitTemplate(KsStep* ksStep, MV_Template* t) {
    if (ksStep) ksStep->ngap_initUEMessTemplate = t;
}
void KsScanario__SetUplinkNGAPTemplate(KsStep* ksStep, MV_Template* t) {
    if (ksStep) ksStep->ngap_uplinkNASTranTemplate = t;
}

// ---------------------------------------------------------------- a test's scenario

KsScanario* Kestrane___createScanarioForKsTestExec(KsTestExec* tstItem, uint32_t ScanarioID) {
    if (tstItem->ksScanario) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Scenario Object already exists for tstItem=%p %p ScanarioID=%u %s|%d",
                 (void*)tstItem, (void*)tstItem->ksScanario, ScanarioID, __func__, __LINE__);
        return tstItem->ksScanario;
    }
    json_t* found = nullptr;
    size_t i;
    json_t* sc;
    json_array_foreach(__ksEngine->scenarios, i, sc) {
        if (KsJson::number(sc, "ID", -1) == (long long)ScanarioID) {
            found = sc;
            break;
        }
    }
    if (!found) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "creating scenario failed for tstItem=%p, ScanarioID=%u Configuration NOT found for TestItem, "
                 "reconfigure TestItem with Scenario %s|%d",
                 (void*)tstItem, ScanarioID, __func__, __LINE__);
        return nullptr;
    }
    KsScanario* scanario = KsScanario__NewScanario(tstItem->TestId + 200001);
    json_t* steps = json_object_get(found, "Config");
    json_t* step;
    json_array_foreach(steps, i, step) {
        long long id = KsJson::number(step, "ID", 0);
        if (id <= 0 || id > 199999) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "Creating Scanario for StepID=%u Failed, StepID NOT-IN-RANGE tstItem=%p ScanarioID=%u %s|%d",
                     uint32_t(id), (void*)tstItem, ScanarioID, __func__, __LINE__);
            continue;
        }
        const KsStepCatalogueEntry* entry = KsScanario__GetStepBuilder(uint32_t(id));
        if (!entry) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "Creating Scanario for StepID=%u Failed, no step builder for StepID tstItem=%p ScanarioID=%u %s|%d",
                     uint32_t(id), (void*)tstItem, ScanarioID, __func__, __LINE__);
            continue;
        }
        Kestrane___ScanarioAddStep(scanario, entry, json_object_get(step, "Dict"));
    }
    tstItem->ksScanario = scanario;
    return scanario;
}
