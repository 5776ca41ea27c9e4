// The SMF towards a UPF under test: one PFCP session per UE, bound to it through the SEID
// index table, set up, changed and torn down by the scenario's PFCP steps, with the UPF's
// reports answered. The stack below (pfcp_node.h) owns the socket and the association.
//
// Threads: the UE's line runs the steps and applies answers; the stack's receive thread
// decodes answers into the session's answer slot and posts them to the UE's line, and
// answers session reports itself.
#pragma once

#include <atomic>
#include <cstdint>

#include "KsEngine_step.h"
#include "KsTE.h"
#include "KsUE.h"

struct pfcp_message_t;
struct MV_IndexTable;
struct MV_IndexRow;

#define KsPFCP__STATUS__NONE 0
#define KsPFCP__STATUS__SENT__PFCP_ESTABLISHMENT_REQUEST 1
#define KsPFCP__STATUS__SEND_FAILED__PFCP_ESTABLISHMENT_REQUEST 2
#define KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE 3
#define KsPFCP__STATUS__RECV_ERROR__PFCP_ESTABLISHMENT 4
#define KsPFCP__STATUS__RECV_FAILED__PFCP_ESTABLISHMENT 5
#define KsPFCP__STATUS__SENT__PFCP_MODIFICATION_REQUEST 6
#define KsPFCP__STATUS__SEND_FAILED__PFCP_MODIFICATION_REQUEST 7
#define KsPFCP__STATUS__RECV__PFCP_MODIFICATION_RESPONSE 8
#define KsPFCP__STATUS__RECV_ERROR__PFCP_MODIFICATION 9
#define KsPFCP__STATUS__RECV_FAILED__PFCP_MODIFICATION 10
#define KsPFCP__STATUS__SENT__PFCP_DELETE_REQUEST 11
#define KsPFCP__STATUS__SEND_FAILED__PFCP_DELETE_REQUEST 12
#define KsPFCP__STATUS__RECV__PFCP_DELETE_RESPONSE 13
#define KsPFCP__STATUS__RECV_ERROR__PFCP_DELETE 14
#define KsPFCP__STATUS__RECV_FAILED__PFCP_DELETE 15

#define KS_STEP__PFCP_SESSION_ESTABLISHMENT_REQUEST 39
#define KS_STEP__PFCP_SESSION_MODIFICATION_REQUEST 40
#define KS_STEP__PFCP_SESSION_DELETE_REQUEST 41
#define KS_STEP__PFCP_FIRST 39
#define KS_STEP__PFCP_LAST 70

#define PFCP_SESSION_IP_FLOW_COUNT 10
#define KS_APP_TYPE__UPF 2

struct pfcp_cp_ipv4_t {
    pfcp_cp_ipv4_t* Next;
    uint32_t ipv4;  // host order
};
struct pfcp_cp_ipv6_t {
    pfcp_cp_ipv6_t* Next;
    uint8_t ip6[16];
};

struct pfcp_cp_sess_flow_t {
    uint32_t flowId, tcp_pack_seq, dst_ip;
    uint16_t src_port, dst_port;
    uint32_t packets_sent, packets_recv;
    uint64_t bytes_sent, bytes_recv;
};

// What the receive thread hands the UE's line about an answer to this session's request.
struct KsPFCPAnswer {
    uint8_t type;       // 51, 53, 55; 0 for a request the stack gave up on
    int16_t cause;      // -1 when the answer had none
    uint64_t upfSeid;   // from its F-SEID, 0 when none
    uint32_t seqNo;
};

struct pfcp_cp_sess_t {
    pfcp_cp_sess_t* next;
    pfcp_cp_sess_t* prev;
    uint64_t cp_seid;
    std::atomic<uint64_t> upf_seid;  // read by the receive thread for report answers
    uint32_t pdrid;
    pfcp_cp_ipv4_t* ipv4;
    pfcp_cp_ipv6_t* ipv6;
    uint32_t teid;
    MV_IndexRow* teid_indexRow;
    MV_IndexRow* seid_indexRow;
    uint32_t gtp_seq_no;
    pfcp_cp_sess_flow_t flows[PFCP_SESSION_IP_FLOW_COUNT];
    uint16_t flowCount, last_sent_flow_id;
    uint64_t bytes_sent, bytes_recv;
    uint64_t ul_mbr, dl_mbr;
    std::atomic<uint32_t> Status;
    uint32_t sent_smr_attached_to_ser;
    std::atomic<uint32_t> ignore_pfcp_smr;
    // The sequence number of the request a step waits for, and the answer slot.
    std::atomic<uint32_t> waitingSeq;
    std::atomic<uint32_t> triggeredSeq;  // of a modification no step waits for
    MV_Mutex answerLock;
    KsPFCPAnswer answer;
    bool answerPending;
};

// The module's counters beside the test's: what a test's counters cannot hold.
struct KsPFCPTally {
    std::atomic<uint64_t> SessionsCreated{0}, SessionsReleased{0}, UnknownSeid{0}, StaleAnswers{0},
        RequestsFailed{0}, PoolExhausted{0}, ReportsAnswered{0}, StepsWithoutConnection{0}, StepsNotImplemented{0},
        StepsWithoutSession{0};
};
extern KsPFCPTally ksPfcpTally;

struct __ks_pfcp;
extern __ks_pfcp* __ks_pfcp_instance;

// ---------------------------------------------------------------- operations

void KsPFCP__Init();                  // the module's start: registrations only
int KsPFCP_Init();                    // the emulation record, at engine start
void KsPFCP_AddPFCPNode(uint32_t CommandID, KsTEClient* ksClient, KsTEServer* ksServer, KsTEConnection* ksTEConn);
void KsPFCP__UpdateConnStatus(KsTEServer* ksServer, KsTEConnection* ksTEConn);
void KsPFCP__runStep_FQ(MV_KsUE* ksUe);
void KsPFCP__onmsg(pfcp_message_t* msg, __mv_pfcp_node* node, uint32_t seqNo, uint64_t SEID, void* userData);
void KsPFCP__onRequestFailed(__mv_pfcp_node* node, uint8_t type, uint32_t seqNo, uint64_t SEID, void* userData,
                             int reason);
void KsPFCP__onAssociation(__mv_pfcp_node* node, int state, int cause);

// ---------------------------------------------------------------- inside the module

// Each message kind has its own counter of the test; the UE counts in the test it runs in.
inline void KsPFCP__count(MV_KsUE* ue, MV_Counter KsTestExec::*field) {
    if (ue->testExec) __mv_counter_increment_request(&(ue->testExec->*field));
}

// Pools and tables (KsPFCP_path.cpp). Sessions, addresses and ids for `count` UEs; 1 or 0.
int KsPFCP_Initalize(uint32_t count);
// The UE's session, made or reused, with its addresses and ids; null when a pool is empty.
pfcp_cp_sess_t* KsPFCP__session_of(MV_KsUE* ue, KsTEConnection* conn);
// Returns addresses, ids and the record; clears the UE's session.
void KsPFCP__release_session(MV_KsUE* ue);
// The UE whose session has this local SEID, with its session; null when none.
MV_KsUE* KsPFCP__ue_of_seid(uint64_t seid, pfcp_cp_sess_t** sess);
uint32_t KsPFCP__max_ran_ue_ids();
void KsPFCP__set_elements(KsTEClient* ksClient, KsTEServer* ksServer);
// Free sessions and IPv4 addresses; returns the pools' size (0 before the first node).
int KsPFCP__pool_availability(uint32_t* sessions, uint32_t* ipv4);

// The user plane (KsPFCP_userPlane.cpp). The pair's GTP-U socket, at the client's IP_2/Port_2
// towards the server's, its tunnels found in `teidTable`; null in the connection when it cannot be.
void KsPFCP__open_gtp(KsTEClient* ksClient, KsTEServer* ksServer, KsTEConnection* ksTEConn, MV_IndexTable* teidTable);
MV_IndexTable* KsPFCP__teid_table();
// Codes 42 to 70: sends on the UE's session and completes the step.
void KsPFCP__runUserPlaneStep(MV_KsUE* ue, KsTEConnection* conn, const KsStep* st);
// The console's row of a simulated UE: the session's status, and its tunnel and traffic once up.
struct __uec_simulated_ue;
void KsPFCP__ProvideUE_PFCP_Status(__uec_simulated_ue* simUe, MV_KsUE* ksUE);

// Builders (KsPFCP_build.cpp): fill `m` for the UE's session; no I/O.
struct KsPFCPScratch;
void KsPFCP__build_establishment(pfcp_message_t* m, const pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                 KsPFCPScratch& scratch);
void KsPFCP__build_modification_default(pfcp_message_t* m, const pfcp_cp_sess_t* s, uint32_t urrid,
                                        KsPFCPScratch& scratch);
void KsPFCP__build_modification_raninfo(pfcp_message_t* m, const pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                        KsPFCPScratch& scratch);
// The template forms: the template's rules, the session's ids and addresses.
struct MV_Template;
void KsPFCP__build_establishment_by_template(pfcp_message_t* m, pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                             const MV_Template* t, KsPFCPScratch& scratch);
void KsPFCP__build_modification_by_template(pfcp_message_t* m, pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                            const MV_Template* t, KsPFCPScratch& scratch);
void KsPFCP__build_deletion(pfcp_message_t* m, const pfcp_cp_sess_t* s);
void KsPFCP__build_report_response(pfcp_message_t* m, uint64_t upfSeid, uint8_t cause);

// Requests (KsPFCP_runStep.cpp).
void KsPFCP__send_pfcp_sesson_establishment_request(MV_KsUE* ue, KsTEConnection* conn);
void KsPFCP__send_pfcp_sesson_modification_request(MV_KsUE* ue, KsTEConnection* conn, uint32_t urrid, int triggered);
void KsPFCP__send_pfcp_sesson_modification_request_raninfo(MV_KsUE* ue, KsTEConnection* conn);
void KsPFCP__send_pfcp_sesson_delete_request(MV_KsUE* ue, KsTEConnection* conn);

// IE bodies of one message are formatted here, on the sender's stack, and handed out by a
// running position; a request that needs more than this is cut short rather than overrun.
struct KsPFCPScratch {
    uint8_t buffer[2048];
    size_t bufferPos = 0;
    uint8_t* take(size_t n) {
        if (n > sizeof buffer - bufferPos) return nullptr;
        uint8_t* p = buffer + bufferPos;
        bufferPos += n;
        return p;
    }
};
