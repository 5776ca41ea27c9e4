// A test's counters, one MV_Counter per message kind of each protocol; the
// engine-wide N1 counters and tallies; the once-a-second performance block and the
// RAN statistics. Protocol code counts with __mv_counter_increment_request on the
// test record's field of the message's name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mv_tables.h"

struct __mv_ks__test_exec;

// Every counter of a test: X(field, display name). The display name is the field's
// but for three.
#define KS_TEST_COUNTERS_AMF(X)                                          \
    X(RegistrationRequest, "RegistrationRequest")                       \
    X(RegistrationAccept, "RegistrationAccept")                         \
    X(RegistrationComplete, "RegistrationComplete")                     \
    X(RegistrationReject, "RegistrationReject")                         \
    X(RegistrationTimeout, "RegistrationTimeout")                       \
    X(AuthenticationRequest, "AuthenticationRequest")                   \
    X(AuthenticationResult, "AuthenticationResponse")                   \
    X(AuthenticationFailure, "AuthenticationFailure")                   \
    X(AuthenticationReject, "AuthenticationReject")                     \
    X(AuthenticationTimeout, "AuthenticationTimeout")                   \
    X(SecurityModeCommand, "SecurityModeCommand")                       \
    X(SecurityModeComplete, "SecurityModeComplete")                     \
    X(SecurityModeReject, "SecurityModeReject")                         \
    X(SecurityModeTimeout, "SecurityModeCommandTimeout")                \
    X(IdentityRequest, "IdentityRequest")                               \
    X(IdentityResponse, "IdentityResponse")                             \
    X(DeregistrationRequest, "DeregistrationRequest")                   \
    X(DeregistrationAccept, "DeregistrationAccept")                     \
    X(ConfigurationUpdateCommand, "ConfigurationUpdateCommand")         \
    X(ConfigurationUpdateComplete, "ConfigurationUpdateComplete")       \
    X(ServiceRequest, "ServiceRequest")                                 \
    X(ServiceAccept, "ServiceAccept")                                   \
    X(ServiceReject, "ServiceReject")                                   \
    X(ServiceTimeout, "ServiceRequestTimeout")                          \
    X(InitailContextSetupRequest, "InitailContextSetupRequest")         \
    X(InitailContextSetupResponse, "InitailContextSetupResponse")       \
    X(UEContextReleaseRequest, "UEContextReleaseRequest")               \
    X(UEContextReleaseCommand, "UEContextReleaseCommand")               \
    X(UEContextReleaseComplete, "UEContextReleaseComplete")             \
    X(PDUSessionEstablishmentRequest, "PDUSessionEstablishmentRequest") \
    X(PDUSessionEstablishmentAccept, "PDUSessionEstablishmentAccept")   \
    X(PDUSessionEstablishmentReject, "PDUSessionEstablishmentReject")   \
    X(PDUSessionEstablishmentTimeout, "PDUSessionEstablishmentTimeout") \
    X(PDUSessionReleaseRequest, "PDUSessionReleaseRequest")             \
    X(PDUSessionReleaseCommand, "PDUSessionReleaseCommand")             \
    X(PDUSessionReleaseComplete, "PDUSessionReleaseComplete")           \
    X(PDUSessionReleaseTimeout, "PDUSessionReleaseTimeout")             \
    X(ErrorIndication, "ErrorIndication")                               \
    X(NGAPSendFailed, "NGAPSendFailed")

#define KS_COUNTER_SAME(X, f) X(f, #f)

#define KS_TEST_COUNTERS_UPF(X)                                  \
    KS_COUNTER_SAME(X, PFCPSessionEstablishmentRequest)          \
    KS_COUNTER_SAME(X, PFCPSessionEstablishmentResponse)         \
    KS_COUNTER_SAME(X, PFCPSessionEstablishmentErrorResponse)    \
    KS_COUNTER_SAME(X, PFCPSessionEstablishmentSendFailed)       \
    KS_COUNTER_SAME(X, PFCPSessionModificationRequest)           \
    KS_COUNTER_SAME(X, PFCPSessionModificationResponse)          \
    KS_COUNTER_SAME(X, PFCPSessionModificationErrorResponse)     \
    KS_COUNTER_SAME(X, PFCPSessionModificationSendFailed)        \
    KS_COUNTER_SAME(X, PFCPSessionDeleteRequest)                 \
    KS_COUNTER_SAME(X, PFCPSessionDeleteResponse)                \
    KS_COUNTER_SAME(X, PFCPSessionDeleteErrorResponse)           \
    KS_COUNTER_SAME(X, PFCPSessionDeleteSendFailed)              \
    KS_COUNTER_SAME(X, PFCPReceivedReportRequest)                \
    KS_COUNTER_SAME(X, PFCPSentReportResponse)                   \
    KS_COUNTER_SAME(X, PFCPSentGTPPacket)                        \
    KS_COUNTER_SAME(X, PFCPRecvGTPPacket)

// The nine GTPv2 session counters of a PGW or SGW test, with their prefix.
#define KS_TEST_COUNTERS_GTPV2(X, p)                 \
    KS_COUNTER_SAME(X, p##CreateSesssionRequest)       \
    KS_COUNTER_SAME(X, p##CreateSesssionResponse)      \
    KS_COUNTER_SAME(X, p##CreateSesssionErrorResponse) \
    KS_COUNTER_SAME(X, p##ModifyBearerRequest)         \
    KS_COUNTER_SAME(X, p##ModifyBearerResponse)        \
    KS_COUNTER_SAME(X, p##ModifyBearerErrorResponse)   \
    KS_COUNTER_SAME(X, p##DeleteSessionRequest)        \
    KS_COUNTER_SAME(X, p##DeleteSessionResponse)       \
    KS_COUNTER_SAME(X, p##DeleteSessionErrorResponse)
#define KS_TEST_COUNTERS_PGW(X) KS_TEST_COUNTERS_GTPV2(X, PGW_)
#define KS_TEST_COUNTERS_SGW(X) KS_TEST_COUNTERS_GTPV2(X, SGW_)

// Four names per Diameter command; the spellings are the console's.
#define KS_COUNTER_DIAM4(X, a, b, c, d) \
    KS_COUNTER_SAME(X, a) KS_COUNTER_SAME(X, b) KS_COUNTER_SAME(X, c) KS_COUNTER_SAME(X, d)

#define KS_TEST_COUNTERS_HSS(X)                                                                              \
    KS_COUNTER_DIAM4(X, HSSS6A_ULRequest, HSSS6A_ULAnswer, HSSS6A_ULSendFailed, HSSS6A_ULTimeout)           \
    KS_COUNTER_DIAM4(X, HSSS6A_AIRequest, HSSS6A_AIAnswer, HSSS6A_AISendFailed, HSSS6A_AITimeout)           \
    KS_COUNTER_DIAM4(X, HSSS6A_PURequest, HSSS6A_PUAnswer, HSSS6A_PUSendFailed, HSSS6A_PUTimeout)           \
    KS_COUNTER_DIAM4(X, HSSS6A_NRequest, HSSS6A_NAnswer, HSSS6A_NRSendFailed, HSSS6A_NRTimeout)             \
    KS_COUNTER_DIAM4(X, HSSSh_UDRequest, HSSSh_UDAnswer, HSSSh_UDRSendFailed, HSSSh_UDTimeout)              \
    KS_COUNTER_DIAM4(X, HSSSh_ProfileUpdateRequest, HSSSh_ProfileUpdateAnswer, HSSSh_ProfileUpdateRSendFailed, \
                     HSSSh_ProfileUpdateRequestTimeout)                                                    \
    KS_COUNTER_DIAM4(X, HSSSh_SubscriberNotificationRequest, HSSSh_SubscriberNotificationAnswer,           \
                     HSSSh_SubscriberNotificationRSendFailed, HSSSh_SubscriberNotificationRequestTimeout)  \
    KS_COUNTER_DIAM4(X, HSSSh_PushNotificationRequest, HSSSh_PushNotificationAnswer,                       \
                     HSSSh_PushNotificationRSendFailed, HSSSh_PushNotificationRequestTimeout)              \
    KS_COUNTER_DIAM4(X, HSSCx_UserAuthorizationRequest, HSSCx_UserAuthorizationAnswer,                     \
                     HSSCx_UserAuthorizationRequestSendFailed, HSSCx_UserAuthorizationRequestTimeout)      \
    KS_COUNTER_DIAM4(X, HSSCx_ServerAssignmentRequest, HSSCx_ServerAssignmentAnswer,                       \
                     HSSCx_ServerAssignmentRequestSendFailed, HSSCx_ServerAssignmentRequestTimeout)        \
    KS_COUNTER_DIAM4(X, HSSCx_LocationInfoRequest, HSSCx_LocationInfoAnswer,                               \
                     HSSCx_LocationInfoRequestSendFailed, HSSCx_LocationInfoRequestTimeout)                \
    KS_COUNTER_DIAM4(X, HSSCx_MultimediaAuthRequest, HSSCx_MultimediaAuthAnswer,                           \
                     HSSCx_MultimediaAuthRequestSendFailed, HSSCx_MultimediaAuthRequestTimeout)            \
    KS_COUNTER_DIAM4(X, HSSCx_RegistrationTerminationRequest, HSSCx_RegistrationTerminationAnswer,         \
                     HSSCx_RegistrationTerminationRquestSendFailed, HSSCx_RegistrationTerminationRequestTimeout) \
    KS_COUNTER_DIAM4(X, HSSSWx_MultimediaAuthRequest, HSSSWx_MultimediaAuthAnswer,                         \
                     HSSSWx_MultimediaAuthRequestSendFailed, HSSSWx_MultimediaAuthRequestTimeout)          \
    KS_COUNTER_DIAM4(X, HSSSWx_ServerAssignmentRequest, HSSSWx_ServerAssignmentAnswer,                     \
                     HSSSWx_ServerAssignmentRequestSendFailed, HSSSWx_ServerAssignmentRequestTimeout)

#define KS_TEST_COUNTERS_EIR(X) \
    KS_COUNTER_DIAM4(X, EIR4GRequest, EIR4GResponse, EIR4GRequestSendFailed, EIR4GRequestTimeout)

// Credit control: the base name, ...Answer, ...SendFailed, ...Timeout.
#define KS_COUNTER_CC(X, b) KS_COUNTER_DIAM4(X, b, b##Answer, b##SendFailed, b##Timeout)

#define KS_TEST_COUNTERS_PCRF(X)                                                                      \
    KS_COUNTER_CC(X, PCRFGx_CreditControlRequestInitial) KS_COUNTER_CC(X, PCRFGx_CreditControlRequestUpdate) \
    KS_COUNTER_CC(X, PCRFGx_CreditControlRequestTerminate)                                            \
    KS_COUNTER_CC(X, PCRFRx_CreditControlRequestInitial) KS_COUNTER_CC(X, PCRFRx_CreditControlRequestUpdate) \
    KS_COUNTER_CC(X, PCRFRx_CreditControlRequestTerminate)

#define KS_TEST_COUNTERS_CHF(X)                                                                       \
    KS_COUNTER_CC(X, CHFGy_CreditControlRequestInitial) KS_COUNTER_CC(X, CHFGy_CreditControlRequestUpdate) \
    KS_COUNTER_CC(X, CHFGy_CreditControlRequestTerminate)

#define KS_COUNTER_AAA(X, b) KS_COUNTER_DIAM4(X, b##_Request, b##_Answer, b##_RequestSendFailed, b##_Timeout)
#define KS_TEST_COUNTERS_AAA(X) \
    KS_COUNTER_AAA(X, AAASWm_Diameter_EAP) KS_COUNTER_AAA(X, AAASWm_AA) KS_COUNTER_AAA(X, AAASWm_Session_Teminate)

#define KS_COUNTER_GGSN3(X, b) KS_COUNTER_SAME(X, b##Request) KS_COUNTER_SAME(X, b##Response) KS_COUNTER_SAME(X, b##ErrorResponse)
#define KS_TEST_COUNTERS_GGSN(X) \
    KS_COUNTER_GGSN3(X, GGSN_CreatePDPContext) KS_COUNTER_GGSN3(X, GGSN_UpdatePDPContext) KS_COUNTER_GGSN3(X, GGSN_DeletePDPContext)

// The whole block of a test record. ExecutionTimeout ends it and belongs to every
// type; StepSendFailed counts steps whose protocol is not part of this build.
#define KS_TEST_COUNTERS(X)      \
    KS_TEST_COUNTERS_AMF(X)      \
    KS_TEST_COUNTERS_UPF(X)      \
    KS_TEST_COUNTERS_PGW(X)      \
    KS_TEST_COUNTERS_SGW(X)      \
    KS_TEST_COUNTERS_HSS(X)      \
    KS_TEST_COUNTERS_EIR(X)      \
    KS_TEST_COUNTERS_PCRF(X)     \
    KS_TEST_COUNTERS_AAA(X)      \
    KS_TEST_COUNTERS_CHF(X)      \
    KS_TEST_COUNTERS_GGSN(X)     \
    KS_COUNTER_SAME(X, StepSendFailed) \
    KS_COUNTER_SAME(X, ExecutionTimeout)

#define KS_TEST_COUNTER_FIELD(field, name) MV_Counter field;

// The counters of type 1 in the order and with the numbers of the console's test
// report: X(id, field). The other types number theirs by position (see below).
#define KS_CONSOLE_COUNTERS_AMF(X)                                                                           \
    X(1, RegistrationRequest) X(2, RegistrationReject) X(3, RegistrationAccept) X(4, RegistrationComplete)   \
    X(5, RegistrationTimeout) X(6, AuthenticationRequest) X(7, AuthenticationResult)                         \
    X(8, AuthenticationFailure) X(9, AuthenticationReject) X(10, AuthenticationTimeout) X(11, ServiceRequest) \
    X(12, ServiceAccept) X(13, ServiceReject) X(14, ServiceTimeout) X(15, SecurityModeCommand)               \
    X(16, SecurityModeComplete) X(17, SecurityModeReject) X(18, SecurityModeTimeout) X(19, IdentityRequest)  \
    X(20, IdentityResponse) X(21, DeregistrationRequest) X(22, DeregistrationAccept)                         \
    X(23, ConfigurationUpdateCommand) X(24, ConfigurationUpdateComplete) X(25, InitailContextSetupRequest)   \
    X(26, InitailContextSetupResponse) X(27, UEContextReleaseRequest) X(28, UEContextReleaseCommand)         \
    X(29, UEContextReleaseComplete) X(30, ErrorIndication) X(31, PDUSessionEstablishmentRequest)             \
    X(32, PDUSessionEstablishmentAccept) X(33, PDUSessionEstablishmentTimeout)                               \
    X(34, PDUSessionEstablishmentReject) X(35, PDUSessionReleaseRequest) X(36, PDUSessionReleaseCommand)     \
    X(37, PDUSessionReleaseComplete) X(38, PDUSessionReleaseTimeout)

// How the console numbers the counters of the other types: from `First`, by one
// within a group of `Group` counters (0: one group), `GroupStep` apart per group.
struct KsCounterNumbering {
    uint32_t AppType;
    uint16_t First, Group, GroupStep;
};
inline constexpr KsCounterNumbering kKsCounterNumbering[] = {
    {2, 301, 0, 0},   {5, 1171, 3, 10}, {6, 1301, 3, 10}, {7, 901, 4, 10},   {8, 601, 0, 0},
    {10, 1051, 4, 10}, {11, 1141, 4, 10}, {12, 1111, 4, 10}, {31, 1401, 0, 0},
};
constexpr uint16_t KsCounterNumber(const KsCounterNumbering& n, size_t position) {
    return n.Group ? uint16_t(n.First + (position / n.Group) * n.GroupStep + position % n.Group)
                   : uint16_t(n.First + position);
}

// The display name of a console counter number of an application type (50000 is
// ExecutionTimeout, 39 NGAPSendFailed of type 1), or null. Needs no engine.
const char* KsEngine__CounterNameByID(uint32_t AppType, uint32_t id);

// The 26 engine-wide N1 counters: X(field, display name).
#define KS_N1_COUNTERS(X)                                                         \
    KS_COUNTER_SAME(X, Sent_N1_Registration)                                      \
    KS_COUNTER_SAME(X, Sent_N1_DeRegistration)                                    \
    KS_COUNTER_SAME(X, Sent_N1_SessionEstablishmentRequest)                       \
    KS_COUNTER_SAME(X, Sent_N1_SessionModificationRequest)                        \
    KS_COUNTER_SAME(X, Sent_N1_SessionReleaseRequest)                             \
    KS_COUNTER_SAME(X, Sent_N1_SessionModificationComplete)                       \
    KS_COUNTER_SAME(X, Sent_N1_SessionReleaseComplete)                            \
    X(Sent_N1_SendServiceRequest, "Sent_N1_ServiceRequest")                       \
    KS_COUNTER_SAME(X, Revd_N1_AuthenticationReject)                              \
    KS_COUNTER_SAME(X, Revd_N1_RegistrationReject)                                \
    KS_COUNTER_SAME(X, Revd_N1_IdentityRequest)                                   \
    KS_COUNTER_SAME(X, Ignr_N1_IdentityRequest)                                   \
    KS_COUNTER_SAME(X, Sent_N1_IdentityResponse)                                  \
    KS_COUNTER_SAME(X, Revd_N1_AuthenticationRequest)                             \
    KS_COUNTER_SAME(X, Ignr_N1_AuthenticationRequest)                             \
    KS_COUNTER_SAME(X, Sent_N1_AuthenticationResponse)                            \
    KS_COUNTER_SAME(X, Revd_N1_SecurityModeCommand)                               \
    KS_COUNTER_SAME(X, Ignr_N1_SecurityModeCommand)                               \
    KS_COUNTER_SAME(X, Sent_N1_SecurityModeComplete)                              \
    KS_COUNTER_SAME(X, Revd_N1_ConfigurationUpdateCommand)                        \
    KS_COUNTER_SAME(X, Sent_N1_ConfigurationUpdateCommpete)                       \
    KS_COUNTER_SAME(X, Revd_N1_ServiceReject)                                     \
    KS_COUNTER_SAME(X, Revd_N1_ServiceAccept)                                     \
    KS_COUNTER_SAME(X, Revd_N1_RegistrationAccept)                                \
    KS_COUNTER_SAME(X, Ignr_N1_RegistrationAccept)                                \
    KS_COUNTER_SAME(X, Revd_N1_DeRegistrationAccept)

#define KS_N1_COUNTER_FIELD(field, name) MV_Counter* field;

// ---------------------------------------------------------------- tables

typedef MV_Counter __mv_ks__test_exec::*KsCounterField;

// A counter as the console numbers it.
struct KsCounterRow {
    uint16_t ID;
    KsCounterField Field;
};

// The counters of an application type: those printed each second, in print order;
// those the console's test report sends, in its order; and those only reset.
struct KsCounterBlock {
    uint32_t AppType;
    const KsCounterField* Printed;
    size_t PrintedCount;
    const KsCounterRow* Console;
    size_t ConsoleCount;
    const KsCounterField* ResetOnly;
    size_t ResetOnlyCount;
};

// The block of an application type; a type without counters of its own gets an
// empty block (only ExecutionTimeout is printed for it).
const KsCounterBlock& KsEngine__CounterBlock(uint32_t AppType);
// Every counter of the record with its display name, for initialising and for tools.
struct KsCounterName {
    KsCounterField Field;
    const char* Name;
};
const KsCounterName* KsEngine__CounterNames(size_t* count);

// ---------------------------------------------------------------- operations

// Every counter of the record with limit 10000000 and its display name.
void KsEngine__InitTestCounters(__mv_ks__test_exec* tstItem);
// total 1: a test starts; 0: a pass starts (Total stays); 2: a pass ended.
void KsEngine__ReInit_MVCounters(__mv_ks__test_exec* tstItem, int total);
// The counter block of a running test to the performance log.
void Kestrane___writeTestStats(__mv_ks__test_exec* tstItem, int completed);
// The engine-wide N1 counters of start-up.
void KsEngine__CreateN1Counters();

// Global tallies, each under its own lock.
void KsEngine__IncrUERegistered();
void KsEngine__IncrUEDeRegistered();
void KsEngine__IncrUERegistrationRejected();
void KsEngine__TimeOut();

// One second's block of the performance thread: pools, step rate, queues, sockets,
// then every running test's counters.
void KsEngine__WritePerformanceBlock();

// ---------------------------------------------------------------- RAN statistics

// What the rebuild of the per-connection counts needs from the RAN registry and the
// UE table; the engine's source is the node registry, tests may give their own.
struct KsRanStatsCounts {
    uint32_t UEContexts;
    uint32_t PDUSessions;
    uint32_t Registrations;
};
struct KsRanStatsUE {
    uint32_t RMStatus;  // of the 3GPP access
    uint32_t CMStatus;
    uint32_t AMFConnId;
    uint32_t Latched;          // latched on either access
    uint32_t StartedSessions;  // of the UE's 16 PDU sessions
};
struct KsRanStatsSource {
    // Zeroes the counts of every connection of every RAN.
    void (*ZeroAll)();
    // The counts of the connection with that id, or null.
    KsRanStatsCounts* (*FindConnection)(uint32_t connId);
    // Calls fn for every configured UE.
    void (*ForEachUE)(void (*fn)(const KsRanStatsUE& ue, void* arg), void* arg);
    // Makes the rebuilt counts visible, or null when FindConnection hands out the
    // live counts.
    void (*Publish)();
};
// Null restores the node registry.
void KsEngine__SetRanStatsSource(const KsRanStatsSource* source);
// One call a second; the counts are rebuilt from the UEs on every sixth call.
void KsEngine__doRanStats();
// The rebuild itself.
void KsEngine___rebuildRanStats(const KsRanStatsSource* source);
