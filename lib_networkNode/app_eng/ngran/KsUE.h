// The UE record: one flat record per emulated subscriber, taken from one block at
// start and never given back. Every protocol keeps its per-UE state here, so this
// header stands alone: a protocol module includes it without the engine header.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "mv_core.h"
#include "mv_strings.h"

struct json_t;
struct __ks_scanario;
struct __ks_step_execution;
struct __ks_step_child;
struct __mv_ks__test_exec;
struct __mv_ks__test_command;
struct __mv_ks__RanAmfConn;
struct __mv_ks__RanMMEConn;
struct __mv_ks__ngran_UeContext;
typedef __mv_ks__RanAmfConn MV_KsRanAmfConnection;
typedef __mv_ks__ngran_UeContext MV_KsNGRanUeContext;

#define RM_STATUS__DEREGISTERED 0
#define RM_STATUS__REGISTERED 1
#define RM_STATUS__INPROGRESS 2
#define RM_STATUS__REJECTED 3
#define CM_STATUS__IDLE 0
#define CM_STATUS__CONNECTED 1

#define KS_UE_PDU_SESSIONS 16
#define KS_UE_EPS_BEARERS 5
#define KS_UE_NSSAIS 16
#define KS_UE_FLOWS 10

// Access types of latching: the gNB context and the N3IWF context.
#define KS_ACCESS__3GPP 1
#define KS_ACCESS__NON3GPP 3

// A NAS timer value as the network gave it.
struct MV_KsNasTimer {
    uint8_t Unit;
    uint8_t Value;
    uint8_t isset;
};

// Security and registration state of one access.
struct __mv_ks__ue_ctx {
    uint64_t sqn;
    uint8_t sqn_sync_failed;
    uint8_t rand[17];
    uint8_t autn[17];
    char snn[40];
    uint8_t xres_star[17];
    uint8_t auts[17];
    uint8_t kausf[33];
    uint8_t knas_int[17];
    uint8_t knas_enc[17];
    uint8_t kasme[36];
    uint32_t security_context_available;
    uint8_t is_new_sec_context;
    uint8_t ngKSI;  // 7: no key
    uint8_t TSC;
    uint32_t dl_count;
    uint8_t dl_seq;
    uint32_t ul_count;
    uint8_t ul_seq;
    uint32_t RegistrationStatus;
    uint32_t ueContextSetupCompleted;
    uint32_t RMStatus;
    uint32_t CMStatus;
    uint32_t NASErrorMessage;
    uint32_t NASErrorCause;
    uint32_t NGAPErrorMessage;
    uint32_t NGAPErrorCauseType;
    uint32_t NGAPErrorCause;
    MV_KsNasTimer T3512;
    MV_KsNasTimer T3502;
    char snn_mcc[4];
    char snn_mnc[4];
    uint8_t selected_integrity_algo;
    uint8_t selected_ciphering_algo;
    uint8_t* registrationReqPayload;
    uint32_t registrationReqPayloadLen;
    MV_KsNGRanUeContext* ranUeContext;
    MV_KsNGRanUeContext* ranUeContext_XnHandover;
    MV_KsNGRanUeContext* ranUeContext_N2Handover;
    MV_Mutex ranUeContextLock;
    MV_KsRanAmfConnection* ranAmfConnection;
    __mv_ks__RanMMEConn* ranMMeConnection;
};
typedef __mv_ks__ue_ctx MV_KsUECtx;

struct __mv_ks__ue;

struct __mv_ks__ue_pdu_session {
    uint8_t AccessType;
    uint8_t pduSessionId;
    uint8_t isStarted;
    uint64_t ambrDL;
    uint64_t ambrUL;
    uint8_t pDUSessionType;
    void* gtpUSocket;
    char UPF__UPTLA_ipv4[17];
    uint32_t UPF__UPTLA_ipv4_int;  // host order
    uint8_t UPF__UPTLA_ipv6[17];
    uint8_t UPF__UPTLA_ipv;
    uint32_t ranIP;
    uint32_t gtpTEID;
    uint32_t upfTEID;
    uint32_t ranTEID;  // the gNB's downlink TEID while the session stands, 0 before
    uint8_t PduAddressIPv6[17];
    uint32_t u_pduAddress;
    uint8_t PduAddress[17];
    uint8_t PduAddressLength;
    uint8_t PduAddress_SessionType;
    uint32_t Flows[KS_UE_FLOWS];
    uint32_t GTPSequence[KS_UE_FLOWS];
    uint32_t IPSequence[KS_UE_FLOWS];
    uint32_t FlowDstIP[KS_UE_FLOWS];
    uint16_t FlowsSrcPort[KS_UE_FLOWS];
    uint16_t FlowsDstPort[KS_UE_FLOWS];
    uint8_t ProtocolType[KS_UE_FLOWS];
    uint8_t IPVersion[KS_UE_FLOWS];
    uint32_t FlowsCount;
    uint8_t QosFlowIdentifier;
    uint64_t PktsSentCount;
    uint64_t PktsRecvCount;
    __mv_ks__ue* ksUe;
};
typedef __mv_ks__ue_pdu_session MV_KsUEPduSession;

struct __mv_ks__ue_eps_bearer {
    uint8_t EPSBearerID;
    uint8_t LinkedEPSBearerID;
    uint32_t IPv4;
    uint8_t IPv6[16];
    void* teid_c_row;
    void* teid_u_row;
    uint32_t PGW_C_Teid;
    uint32_t PGW_C_IPv4;
    uint32_t PGW_U_IPv4;
    uint32_t PGW_U_Teid;
    uint32_t SGW_U_IPv4;
    uint32_t SGW_U_Teid;
    uint32_t ENB_U_IPv4;
    uint32_t ENB_U_Teid;
    uint32_t UEIPv4;
    uint8_t UEIPv6[16];
    uint32_t RAN_U_Teid;
    __mv_ks__ue* ksUE;
    uint32_t Cause;
};
typedef __mv_ks__ue_eps_bearer MV_KsUEEpsBearer;

struct MV_KsNssai_t {
    uint8_t sst;
    uint8_t sd[4];  // 3 used
    uint8_t sd_isset;
    uint8_t hplmnsst;
    uint8_t hplmnsd[4];
    uint8_t hplmnsd_isset;
};

// The file-level values of a subscriber list file.
struct __mv_ks__ue_file_config {
    uint32_t ConcurrentSessions;
    char MCC[4];
    char MNC[4];
    uint8_t SubKey[17];
    uint8_t OPc[17];
    uint64_t SQN;
    uint64_t IMEI;
    char IMEI_SV[3];
    uint64_t Delay;
    uint32_t SST;
    uint8_t SD[4];  // 3 used
    uint8_t SD_isset;
    uint32_t UEUsageSettings;
    uint32_t scID;
    __ks_scanario* ksScanario;
};

// One entry of the configuration's UEFiles.
struct __mv_ks__uefile {
    char FileName[249];
    int32_t Enabled;
    __mv_ks__ue_file_config ueFileConfig;
};
typedef __mv_ks__uefile UEFile;

// The outcome of a Diameter credit-control exchange.
struct MV_KsDiamResult {
    uint32_t AppId;
    uint32_t CommandCode;
    uint32_t RequestNumber;
    uint32_t RequestType;
    uint32_t ResultCode;
};

struct __mv_ks__ue {
    __mv_ks__ue* Next;  // configured list; the pool's link while free
    __mv_ks__ue* RanAmf_Next;
    __mv_ks__ue* RanAmf_Prev;
    __mv_ks__ue* TestNext;
    __mv_ks__ue* STestNext;
    uint32_t AMFConnId;
    uint32_t AMFScanarioId;
    uint16_t bInitialContextRequest, bFOR, bAuthOptions, bIdentityRequestOption, bSecurityModeCommandOption,
        bRegistrationAcceptOption;
    uint64_t ueId;
    uint16_t _init;
    uint8_t K[17];
    uint8_t OPc[17];
    MV_KsUECtx TGPP;
    MV_KsUECtx NTGPP;
    uint32_t SQNHandlingType;
    uint16_t SC_EA0, SC_EA1, SC_EA2, SC_EA3, SC_IA0, SC_IA1, SC_IA2, SC_IA3;
    char TAI_MCC[4], TAI_MNC[4];
    uint8_t TAI_PLMN[4];
    uint32_t TAI_TAC;
    uint8_t TAI_CellID;
    char snn_mcc[4], snn_mnc[4], mcc[4], mnc[4];
    uint64_t msin;
    uint16_t uRoutingIndicator;
    __mv_string10_t fgGuti;
    __mv_string60_t supi;
    __mv_string20_t imei;
    __mv_string20_t imeisv;
    __mv_string5_t plmnId;
    uint64_t l_imsi;
    __mv_string20_t msisdn;
    __mv_string60_t apn;
    MV_KsNssai_t sNssais[KS_UE_NSSAIS];
    uint32_t sNssaisCount;
    MV_KsUEPduSession pduSessions[KS_UE_PDU_SESSIONS];
    MV_Mutex pduSessionsRecvCountLock;  // also guards release of the execution list
    uint8_t ProcedureTransactionIdentity;
    time_t lastTime;
    // execution state
    __ks_scanario* ksScanario;
    __ks_step_execution* ksStepExecutionHead;
    __ks_step_execution* ksStepExecutionCurrent;
    __ks_step_execution* ksStepExecution;
    uint32_t ksStepExecutionItemCount;
    uint32_t CommandId;
    uint32_t TestId;
    __mv_ks__test_exec* testExec;
    MV_Mutex ChildLock;
    __ks_step_child* ChildHead;
    __ks_step_child* ChildCurrent;
    uint32_t TestIterNo;
    uint32_t TotalExecutedCount;
    uint32_t TotalExecutedCounter;
    int32_t CompletedKsStep;
    int32_t TotalKsSteps;
    uint32_t EndOfTest;
    uint32_t TimeOut;
    uint32_t ChildStepCounter;
    uint32_t StepCode;
    uint32_t _initT3PP, _initT3PP_retryCounter, _initNT3PP, _initNT3PP_retryCounter;
    uint32_t AppError;
    json_t* lastULI;  // location of the last step that set one
    char last_sn_mcc[4], last_sn_mnc[4];
    uint32_t last_tac;
    uint32_t tac_isset;
    __mv_ks__test_command* commandHead;
    __mv_ks__test_command* commandCurrent;
    MV_Mutex commandLock;
    // EPS access
    uint32_t MMEConnId;
    __mv_ks__RanMMEConn* ranMME;
    __mv_ks__RanMMEConn* targetMME;
    void* eNBRow;
    uint32_t mmeS1APId;
    uint8_t s1ap_mainState, s1ap_subState, EMM_Status, ECM_Status;
    uint8_t guti_MCCMNC[3];
    uint16_t guti_MMEGroupID;
    uint8_t guti_MMECode;
    uint8_t guti_TMSI[4];
    uint8_t guti_isset;
    // PFCP
    uint32_t PFCPConnId;
    void* pfcp_session;
    // Diameter and EIR
    uint32_t HSSConnId, LTEEIRConnId, FGEIRConnId;
    uint32_t FGEIR_EquipmentStaus, FGEIR_ExpResultCode, FGEIR_ResultCode, FGEIR_HasResult, FGEIR_E2EId;
    MV_Timer* FGEIR_timer;
    uint32_t PCRFConnId;
    // bearers
    MV_KsUEEpsBearer MME_EPSBearers[KS_UE_EPS_BEARERS];
    uint32_t MME_EPSBearersCount;
    uint8_t DeleteBearerRequest_BearerId;
    MV_KsUEEpsBearer EPSBearers[KS_UE_EPS_BEARERS];
    uint32_t EPSBearersCount;
    // GTP peers
    uint32_t PGWConnId, PGWConnError;
    void* sgw_local_c_teid_row;
    uint32_t sgw_fteid;  // the peer's TEID-C
    void* pgw_ksTEConn;
    void* sgw_ksTEConn;
    uint32_t ggsn_c_teid, ggsn_u_teid;
    void* ggsn_ksTEConn;
    uint32_t GGSNConnId;
    uint8_t ggsn_nsapi;
    uint32_t ggsn_sgsn_status, ggsn_sgsn_cause, ggsn_sgsn_c_ip, ggsn_sgsn_c_teid, ggsn_sgsn_u_ip, ggsn_sgsn_u_teid,
        ggsn_sgsn_ueip;
    uint32_t SGWConnId, SMFConnId, AAAConnId;
    // NAS timers
    uint32_t RegistrationFailCounter;
    MV_Timer *timer3502, *timer3510, *timer3511, *timer3512, *timer3516, *timer3517, *timer3519, *timer3520,
        *timer3521, *timer3525, *timer3540;
    // console options and AAA
    uint32_t PCAPFileId, PlainNasMessage, Exclude5GSTMSI;
    void* ksTEConn;
    uint32_t sentReSync;
    char aaa_swm_sessions[100];
    // step timer
    MV_Timer* defTimer;
    uint8_t defTimerOnTimeout;
    uint8_t defTimerCounter;
    uint8_t defTimerMaxAttempts;
    uint32_t defStepCode;
    // credit control
    uint32_t PCRF_GxCCRType, PCRF_RxCCRType, CHF_GyCCRType, CHF_RoCCRType;
    char diam_cca_gy_sessionId[100], diam_pcrf_gx_sessionId[100], diam_pcrf_rx_sessionId[100];
    // wireline access
    uint16_t PPPoE_SessionId;
    uint8_t PPPoE_VSNCP_Ack_Received;
    uint8_t AGF_RG_MAC[6];
    uint8_t AGF_MAC[6];
    uint32_t static_UEIPv4;  // host order
    MV_KsDiamResult PCRFResult;
    MV_KsDiamResult CHFResult;
    // SUCI concealment: 0 null scheme, 1 profile A, 2 profile B, with the home network's
    // key id and public key (32 octets for A; 33 compressed or 65 for B).
    uint8_t SuciProtectionScheme;
    uint8_t SuciHomeNetworkKeyId;
    uint8_t SuciHomeNetworkPublicKey[65];
    uint8_t SuciHomeNetworkPublicKeyLen;

    // Bookkeeping of the engine's own, after the record's fields.
    // The step timer's arming: the timer record's generation for a safe clear, and a
    // sequence the expiry carries so that a late expiry of an older arming is ignored.
    uint64_t defTimerGen;
    std::atomic<uint32_t> defTimerSeq;
    std::atomic<uint32_t> defTimerFiredSeq;
    uint8_t isReleased;  // on the pool's free list
};
typedef __mv_ks__ue MV_KsUE;

// The SUPI as text, for log lines.
inline const char* KsUE__supi(const MV_KsUE* ue) { return reinterpret_cast<const char*>(ue->supi.val); }

// ---------------------------------------------------------------- the pool

// The pool is the smaller of `iMaximumUE` and MaximumUE. Returns 0 when the block
// cannot be had.
int KsEngine__InitializeksUE_Pool(uint32_t iMaximumUE);
void KsEngine__CreateksUE_Pool(int size, int lm);
// Forgets every UE and gives the block back, for benchmarks and tests that load more
// than once in one process. Nothing may hold a UE across it; a pool is made afresh
// with KsEngine__InitializeksUE_Pool.
void KsEngine__DropUETable();
// A zeroed record with its locks, or null on an empty pool.
MV_KsUE* KsEngine__AllocateKsUE();
// Gives back a record that was never configured; a configured UE is linked in the
// configured list and the IMSI index and is refused with a log line.
void KsEngine__ReleaseKsUE(MV_KsUE* ksUe);
uint64_t KsEngine__GetUEId(MV_KsUE* ksUe);
// Constant time; null for an id that no record has had yet.
MV_KsUE* KsEngine__FindUEByUEId(uint64_t ueId);

// ---------------------------------------------------------------- the IMSI index

void KsEngine__FindUEByIMSI(MV_KsUE** ksUe, const char* imsi);
int KsEngine__FindUEByIMSIExists(const char* imsi);
void KsEngine__AddUEByIMSI(MV_KsUE* ksUe, const char* imsi);
// The IMSI text of a number: "%lu", padded on the left with '0' to 15 digits when
// IMSIPrefixWithZERO is 1. Loading and a test's range lookup both use it.
void KsEngine__IMSIText(uint64_t imsi, char* out, size_t cap);

// ---------------------------------------------------------------- subscribers

// `msin` holds the whole IMSI. Returns the new UE, the existing one of that IMSI,
// or null when the pool is empty.
MV_KsUE* KsEngine__AddUE(UEFile* ueFile, const char* mcc, const char* mnc, const char* subKey, const char* opc,
                         uint64_t imei, uint64_t msin, uint32_t scID, int asciiToHex, long int msisdn,
                         const char* apn);
// Overwrites K and OPc (32 hex digits each) of a known UE; 1, or 0 for an unknown IMSI.
int KsEngine__UpdateOPCSubKey(const char* imsi, const char* OPC, const char* SubKey);
// The subscriber files of UEFiles. Returns 0 when a file cannot be read: start-up
// then stops, after the text is printed.
int KsEngine__LoadUEConfigs();
int KsEngine__LoadSupiRangeFormat(UEFile* ueFile, json_t* root);
int KsEngine__LoadListFormat(UEFile* ueFile, json_t* root);
// The ranges of data/uel.json; returns the number of UEs created.
int KsEngine__ConfigureUEList(json_t* ueList);
// One element of data/uel.json (also what the console adds); returns the UEs created.
int KsEngine__ConfigureUEListEntry(json_t* element);
// The UEAddlData file named by the configuration, if any.
void KsEngine__LoadUEAddlData(json_t* cfg);

// ---------------------------------------------------------------- PLMN and serving network

// Three bytes of TS 24.008 PLMN coding; a 2-digit MNC puts 0xF in the high nibble of
// the second byte.
void KsEngine__get_plmnHex(uint8_t* outPlmnHex, const char* mcc, const char* mnc);
// The same bytes, for the NAS registration path and the template manager.
void KsEngine__get_plmnHex2(uint8_t* outPlmnHex, const char* mcc, const char* mnc);
// The digits of three PLMN bytes; an MNC filler of 0xF gives a 2-digit MNC.
void KsEngine__get_mcc_mnc(const uint8_t* plmnHex, char* mcc, char* mnc);
// The TS 24.501 serving network name: "5G:mnc" with the MNC in three digits, ".mcc"
// with the MCC, and the 3GPP network domain.
void KsEngine__BuildSNN(char* out, size_t cap, const char* mcc, const char* mnc);
void KsEngine__SetUEsSNN(MV_KsUE* ksUe, uint8_t accessType, MV_KsRanAmfConnection* conn);
void KsEngine__SetUEsSNN2(MV_KsUE* ksUe, const uint8_t* plmn);

// ---------------------------------------------------------------- N2 handover index

void KsEngine__AddUEToN2Handover(MV_KsUE* ksUe, uint64_t amf_id);
void KsEngine__RemoveUEFromN2Handover(uint64_t amf_id);
MV_KsUE* KsEngine__FindFromN2Handover(uint64_t amf_id);

// ---------------------------------------------------------------- latching

void KsEngine__FindRANAndLatch(MV_KsUE* ksUe, uint8_t accessType, uint32_t* attached, uint32_t amfRanConnId);
// Once a second: binds up to LatchPerSecond UEs of the configured list.
void KsEngine__LatchUEs();
void KsEngine__IncrExecTestCasesCount();
void KsEngine__DecrExecTestCasesCount();
uint32_t KsEngine__getExecTestCasesCount();
