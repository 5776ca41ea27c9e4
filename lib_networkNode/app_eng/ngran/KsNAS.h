// The emulated 5G UE's NAS: its security (authentication, keys, the security header both
// ways), its subscriber identity (SUCI), and the inbound door for NAS PDUs. Every
// operation runs on the UE's FSM line, so the UE's fields carry no lock.
#pragma once

#include <cstdint>
#include <span>

#include "KsUE.h"
#include "mv_asn.h"
#include "mv_naspdu.h"

struct __ks_step;
struct __ks_step_child;

// The per-access state: bearer 1 is TGPP, anything else NTGPP.
MV_KsUECtx* KsNAS__getUECtx(MV_KsUE* ue, uint8_t bearer);

// ---------------------------------------------------------------- SUCI

// The longest SUCI value built here: 8 octets of header, an ECIES output of at most 41
// octets of overhead, and a MSIN of at most 10 octets.
constexpr int KS_SUCI_MAX_LEN = 64;

// A SUCI value of the null scheme into suci (KS_SUCI_MAX_LEN octets), as a mobile identity
// carries it: type octet, PLMN, routing indicator, scheme, key id, MSIN. `supi` and
// `supilen` are the MSIN digits (at most 20). 1, or -1 for digits that are not a MSIN or a
// routing indicator of more than four digits.
[[nodiscard]] int KsNAS__encode_suci2(const uint8_t* plmn, uint16_t routingIndicator, const char* supi, int supilen,
                                      uint8_t* suci, int* sucilen);
// The same under a protection scheme: 0 null, 1 profile A, 2 profile B with the home
// network's key id and public key. ephPrivate (32 octets) fixes the ephemeral key for
// known-answer tests; empty draws a fresh one.
[[nodiscard]] int KsNAS__encode_suci3(const uint8_t* plmn, uint16_t routingIndicator, const char* supi, int supilen,
                                      uint8_t scheme, uint8_t hnKeyId, const uint8_t* hnPublicKey, int hnPublicKeyLen,
                                      std::span<const uint8_t> ephPrivate, uint8_t* suci, int* sucilen);
// The UE's SUCI. The PLMN is, by increasing priority, that of the RAN of the bearer's
// connection, the UE's `mcc` and `mnc`, and the step's `mcc` and `mnc` (step may be
// null). The MSIN is the SUPI after MCC and MNC ("imsi-" and 15 digits, or 15 digits),
// or the SUPI whole. The scheme and key are the UE's. 1, or -1 with a log line.
[[nodiscard]] int KsNAS__build_suci(MV_KsUE* ue, uint8_t bearer, const __ks_step* step, uint8_t* suci, int* sucilen,
                                    std::span<const uint8_t> ephPrivate = {});
// The UE's SUCI as the mobile identity of a message; 1, or -1 (the IE is left unset).
[[nodiscard]] int KsNAS__set_suci_identity(MV_KsUE* ue, uint8_t bearer, const __ks_step* step,
                                           NASPdu_FGSMobileIdentity* ie);

// The UE security capability a registration request offers without a template: EA0 to
// EA2 and IA0 to IA2 from the step's flags, in bits 7 to 5 of two octets.
void KsNAS__set_ue_security_capability(const __ks_step* step, NASPdu_FGUESecurityCapability* ie);

// ---------------------------------------------------------------- authentication

// 5GMM causes of an authentication failure.
constexpr uint8_t KS_5GMM_CAUSE_MAC_FAILURE = 20;
constexpr uint8_t KS_5GMM_CAUSE_SYNCH_FAILURE = 21;
constexpr uint8_t KS_5GMM_CAUSE_NGKSI_ALREADY_IN_USE = 71;
constexpr uint8_t KS_5GMM_CAUSE_PROTOCOL_ERROR = 111;
// Status of an authentication request whose ngKSI is above 7; it never reaches the library.
constexpr int KS_AUTH_STATUS_INVALID_NGKSI = -11;

// One authentication of the UE on the bearer's access, with the RAND and AUTN already
// stored in its context: takes the request's ngKSI (above 7 gives -11 without the
// library), runs the SQN procedure around __mv_algo__ue_authenticate2 and returns its
// status, 0 when RES* and KAUSF are in the context, -4 with the AUTS in it.
// forceSyncFailure makes a good AUTN fail with an AUTS, once.
[[nodiscard]] int KsNAS__authenticate(MV_KsUE* ue, uint8_t bearer, uint8_t ngKSI, int forceSyncFailure);
// The 5GMM cause for a non-zero authentication status (0 for status 0).
uint8_t KsNAS__authentication_failure_cause(int status);

// ---------------------------------------------------------------- the security header

// Protects the plain message in buffer[0..pos) of the context when the access has a
// security context: ciphered, then the 7-octet header with the MAC, type 4 on the first
// uplink of a new context and 2 after. 1 protected, 0 left plain (no context), -1 not
// sendable (logged): the message does not fit the context or an algorithm is unknown.
[[nodiscard]] int KsNAS__encapulate_security_header(MV_KsUE* ue, __mv_asn_coding_context* context, uint8_t bearer);

// The inbound half of the security header: checks and removes it by security header type,
// deciphering in place, and decodes the plain message into decode. 1 when the decoder
// ran (the caller tests iMandatoryDecoded and frees decode), 0 when the message was
// dropped (logged as the type asks).
[[nodiscard]] int KsNAS__process_security_header(MV_KsUE* ue, uint8_t* data, uint32_t len, uint8_t bearer,
                                                 uint8_t ngapProcCode, __naspduDecode* decode);

// ---------------------------------------------------------------- the step runner

// Registers the runner of StepIndex 0..999 and 12000 and above.
void KsNAS__Init();
// Runs the UE's current step on the bearer's access (1 3GPP, 2 non-3GPP).
void KsNAS__runStep_FQ(MV_KsUE* ksUe, int bearer);
// Timer expiries of the sleep step, and the completion it posts to the UE's line.
void KsNAS__on_tgpp_sleep_complete(void* ue);
void KsNAS__on_ntgpp_sleep_complete(void* ue);
void KsNAS__on_sleep_complete_handler(void* ue);
// Timer callback of a PDU session step with several sessions: asks for the next one.
void KsNAS__send_pdusession_request_3gpp(void* ue);
// Within a PDU session step (code 6): marks the session of that id set up; while others
// are pending the next is asked for after a second, else the step completes after one.
void KsScanario__UpdatePduSesssionStep(uint8_t pduSessionId, MV_KsUE* ksUe);
// Completes the PDU session step on the UE's line (a timer callback).
void KsScanario__PduNextStep(void* ue);

// ---------------------------------------------------------------- inbound NAS

// Every NAS PDU for the UE: the security header, then the 5GMM dispatch.
void KsNAS__processNasMessage2(MV_KsUE* ksUe, u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode,
                               __ks_step_child* stepChild);
void KsNAS__processNasMessage(MV_KsUE* ksUe, u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode);
// The 5GMM handlers of a decoded message, by message type; the caller frees the decode.
// outerSht is the security header type the message arrived under (0 plain).
void KsNAS___dispatch5GMM(MV_KsUE* ksUe, __naspduDecode* decode, uint8_t bearer, uint8_t ngapProcCode,
                          __ks_step_child* stepChild, uint8_t outerSht);

// ---------------------------------------------------------------- the gNB below

// What the UE needs of the gNB: the uplink of a NAS PDU (InitialUEMessage on a fresh RAN
// UE context, UplinkNASTransport after; the send's result, below 1 when it failed, in
// which case the gNB has already called KsNAS__NGAPSendingMessageFailed), and giving a
// RAN UE context back. Tests put an in-memory network in its place; null restores the gNB.
struct KsNASLower {
    int (*SendNas)(MV_KsUE* ue, u_char* data, uint32_t len, uint8_t bearer, uint32_t nasMessageType,
                   uint32_t childNasMessageType, uint32_t childNasMessCateId, uint8_t initial);
    void (*ReleaseRanUeContext)(MV_KsUE* ue, uint8_t bearer);
};
void KsNAS__SetLower(const KsNASLower* lower);

// A UE message the gNB could not send: the UE's run ends now rather than at a timeout.
void KsNAS__NGAPSendingMessageFailed(MV_KsUE* ksUe);

// ---------------------------------------------------------------- mobility management

void KsNAS__send_registration_request(MV_KsUE* ksUe, uint8_t bearer, int emergency);
void KsNAS__send_registration_request__for_3gpp(void* ue);
void KsNAS__send_deregistration_request(MV_KsUE* ksUe, uint8_t bearer);
void KsNAS__send_service_request(MV_KsUE* ksUe, uint8_t bearer);
void KsNAS__send_service_request_for_3gpp(void* ue);
// The switch-off timer of a deregistration: completes the step without an accept.
void KsNAS__stepDeRegistrationSwitchOff(void* ue);

void KsNAS__handle__identity_request(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode, uint8_t outerSht);
void KsNAS__handle__authentication_request(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode,
                                           uint8_t outerSht);
void KsNAS__handle__authentication_reject(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__security_mode_command_request(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__registration_accept(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__registration_reject(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__deregistration_request(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__deregistration_accept(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__service_accept(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__service_reject(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__configuration_update_command(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);
void KsNAS__handle__5GMM_cause(MV_KsUE*, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode);

// ---------------------------------------------------------------- session management

void KsNAS__send_pdusession_request(MV_KsUE* ksUe, uint8_t bearer);
void KsNAS__send_pdusession_modification_complete(MV_KsUE* ksUe, uint8_t pduSessionId, uint8_t bearer);
void KsNAS__send_pdusession_release_complete(MV_KsUE* ksUe, uint8_t pduSessionId, uint8_t bearer);
void KsNAS__handle__dl_nas_transport(MV_KsUE* ksUe, __naspduDecode* decode, uint8_t bearer, uint8_t ngapProcCode,
                                     __ks_step_child* stepChild);
// The UE's record of a session id 1..15; null for 0 (logged with the caller's place) and
// for ids past the table.
MV_KsUEPduSession* KsNAS__getKsUEPduSession(MV_KsUE* ksUe, uint8_t pduSessionId, const char* file, const char* func,
                                            int line);
// Per-session settings of the "AMF" member of data/set.json, by session id 1..5.
const char* KsNAS__getDNN(uint8_t pduSessionId);
uint8_t KsNAS__getFQI(uint8_t pduSessionId);
uint8_t KsNAS__getPDNType(uint8_t pduSessionId);
uint8_t KsNAS__getRATType(uint8_t pduSessionId);
uint8_t KsNAS__getRANProtoVersion();

// Step time-out callbacks of the two accesses (the execution is the argument).
void KsNAS__stepTGPPTimeOut(void* execution);
void KsNAS__stepNTGPPTimeOut(void* execution);
// Starts a UE's run on its 3GPP access.
void __KsNAS__Connect(MV_KsUE* ksUe, uint8_t bearer);
