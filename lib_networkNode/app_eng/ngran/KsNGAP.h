// The gNB towards its AMFs: the SCTP association of each RAN and AMF pair, NG Setup
// and its answers, NG Reset, RAN configuration update, the top-level NGAP dispatch,
// and the small builders of PLMN, TAI, cell and location IEs.
#pragma once

#include <jansson.h>

#include <cstdint>

#include "Kestrane_nodes.h"
#include "mv_amf_asn.h"

struct MV_Socket;
struct __mv_ngap_node;
typedef __mv_ngap_node MV_NGAPNode;

// ---------------------------------------------------------------- connections (KsNGAP_path.cpp)

// The gNB's start: its NGAP handler joins start-up, and RAN-AMF connections open here.
void KsNGAP__Init();

int KsNGAP__StartAMFConnection(MV_KsRanAmfConnection* conn);
void KsNGAP_on_connected_to_amf(MV_Socket* siSocket);
void KsNGAP_on_amf_connection_close(MV_Socket* siSocket);
// Builds and sends NG Setup on the node's association; the send result.
int KsNGAP__ap__create_and_send__NGSetupRequest(MV_NGAPNode* node);
// The console's connection commands (10001, 10003, 10004, 10002). 1 done, 0 refused,
// -1 without a connection.
int KsNGAP__close_NGConnection(MV_KsRanAmfConnection* conn);
int KsNGAP__send_NGSetup(MV_KsRanAmfConnection* conn);
int KsNGAP__send_NGRanConfigurationUpdate(MV_KsRanAmfConnection* conn);
int KsNGAP__send_NGReset_Request(MV_KsRanAmfConnection* conn);
// Ready for UE-associated messages: NG Setup succeeded and nothing closed it since.
bool KsNGAP__OkToSend(const MV_KsRanAmfConnection* conn);
// The connection record an association's node belongs to, or null.
MV_KsRanAmfConnection* KsNGAP___ConnectionOfNode(MV_NGAPNode* node);
void KsNGAP___SetCloseCause(MV_NGAPNode* node, int cause);
// Closes the connection's association through the path; the close event follows.
int KsNGAP___closeAssociation(MV_KsRanAmfConnection* conn);

// The one place that reaches the network: opening an association, sending a PDU record
// (which stays the caller's), and closing. Tests put their own in its place; null
// restores the sockets.
struct KsNGAPPath {
    int (*Start)(MV_KsRanAmfConnection* conn);
    // The bytes sent, or a value below 1.
    int (*Send)(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn);
    int (*Close)(MV_KsRanAmfConnection* conn);
};
void KsNGAP__SetPath(const KsNGAPPath* path);

// ---------------------------------------------------------------- handlers (KsNGAP_handle.cpp)

// The application callback of the NGAP node layer: owns and frees `msg`.
void KsNGAP__handle_ngap_message(uint8_t procedureCode, uint8_t messageType, void* msg, MV_NGAPNode* node);
// The node layer's error callback: input from the AMF that could not be taken as it came
// is counted in NGAPErrors and logged with the AMF and the message kind.
void KsNGAP__handle_bad_input(MV_NGAPNode* node, int procedureCode, int form, const char* reason);
// `node` may be null where no association stands (tests); its CloseCause is then left.
void KsNGAP__handle_NGSetupResponse(MV_KsRanAmfConnection* conn, MV_AMF_DT_NGSetupResponse* msg);
void KsNGAP__handle_NGSetupFailure(MV_KsRanAmfConnection* conn, MV_NGAPNode* node, MV_AMF_DT_NGSetupFailure* msg);
void KsNGAP__handle_ErrorIndication(MV_KsRanAmfConnection* conn, MV_AMF_DT_ErrorIndication* msg);

// RAN UE NGAP ids: computed from a context's slot and generation, and back.
uint64_t KsNGAP___GetKsNGRanUeContext_UEId(const MV_KsNGRanUeContext* ctx);
MV_KsNGRanUeContext* KsNGAP___GetKsNGRanUeContext(const MV_KsNGRan* ran, uint64_t rANUENGAPID);
// Gives the UE's RAN context of that bearer back and takes the UE off its connection.
void KsNGAP__ReleaseRanUeContext(MV_KsUE* ue, uint8_t bearer);

// ---------------------------------------------------------------- UE-associated signalling (KsNGAP_ue.cpp)

// The UE's NAS side, which sits above the gNB: the NAS module registers it at start, and
// the gNB reaches it only through these (downlink NAS PDUs on the UE's line, and a send
// that could not be made).
struct KsNGAPNasEntry {
    void (*ProcessNasMessage)(MV_KsUE* ue, u_char* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode);
    void (*SendingMessageFailed)(MV_KsUE* ue);
};
void KsNGAP__RegisterNasEntry(const KsNGAPNasEntry* entry);
const KsNGAPNasEntry* KsNGAP__GetNasEntry();

// The one entry for a NAS PDU going up: InitialUEMessage on a fresh RAN UE context,
// UplinkNASTransport once the core has answered on it. Gives the result of the send.
int KsNGAP___sendNasMessage(MV_KsUE* ue, u_char* data, uint32_t len, uint8_t bearer, uint32_t nasMessageType,
                            uint32_t childNasMessageType, uint32_t childNasMessCateId, uint8_t initial);

// The UE's RAN context of a bearer (1 3GPP, 2 non-3GPP), or null.
MV_KsNGRanUeContext* KsNGAP__getRanUeContext(MV_KsUE* ue, uint8_t bearer);
// A pool context for the bearer, on the RAN of the bearer's connection, and the UE on that
// connection's list. An empty pool ends the process: the pool's size is a hard limit of a
// test, set by the operator.
MV_KsNGRanUeContext* KsNGAP__CreateRanUeContext(MV_KsUE* ue, uint8_t bearer);
// Gives the bearer's context back under the bearer's lock; the UE stays on the connection's
// list. 1, or -1 for a null UE.
int KsNGAP___releaseUeContext(MV_KsUE* ue, uint8_t bearer);
uint64_t KsNGAP___GetRANUEId(MV_KsUE* ue, uint8_t bearer);
// The UE (or its ueId, -1) whose context on the node's RAN has that RAN UE NGAP id.
MV_KsUE* KsNGAP__Find_UE_By_RanUENgapId(MV_NGAPNode* node, uint64_t id);
int64_t KsNGAP__Find_UEId_By_RanUENgapId(MV_NGAPNode* node, uint64_t id);

int KsNGAP___send_InitialUEMessage(MV_KsNGRanUeContext* ctx, u_char* data, uint32_t len, uint32_t nasMessageType,
                                   uint32_t childNasMessageType, uint32_t childNasMessCateId);
int KsNGAP___send_UplinkNasTransport(MV_KsNGRanUeContext* ctx, u_char* data, uint32_t len, uint32_t nasMessageType,
                                     uint32_t childNasMessageType, uint32_t childNasMessCateId);
// The NR location: the PLMN (engine order) in cell and TAI, the cell as four big-endian
// bytes and a zero byte (36 bits), the TAC in three bytes; also names the serving network.
void KsNGAP___setUserLocationInformation(MV_KsUE* ue, MV_AMF_DT_UserLocationInformation** uli, const uint8_t* plmn,
                                         uint32_t cellId, uint32_t tac);
int KsNGAP___send_InitialContextSetupResponse(MV_KsNGRanUeContext* ctx, const uint8_t* pduSessionIdList,
                                              uint32_t count);
int KsNGAP___send_UEContextReleaseRequest(MV_KsUE* ue, MV_KsNGRanUeContext* ctx, uint8_t bearer);
int KsNGAP___send_PDUSessionResourceReleaseResponse(MV_KsNGRanUeContext* ctx, uint64_t amfId, uint64_t ranId,
                                                    const uint8_t* pduSessionIdList, uint32_t count,
                                                    MV_KsRanAmfConnection* conn);
int KsNGAP___send_ErrorIndication(uint64_t amfId, uint64_t ranId, uint8_t causeChoice, uint8_t cause,
                                  MV_KsRanAmfConnection* conn);
int KsNGAP___send_CellTrafficTrace(MV_KsNGRanUeContext* ctx);
// Sends a record through the path (tests' or the sockets'); the record stays the caller's.
int KsNGAP___sendRecord(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn);

// ---------------------------------------------------------------- PDU sessions (KsNGAP_pduSession.cpp)

// The UE's session record of that id (1..15): the one holding the id, else the free slot of
// that index, which takes the id. Null for an id outside 1..15.
MV_KsUEPduSession* KsNGAP___sessionOf(MV_KsUE* ue, uint64_t sessionId);
void KsNGAP__set_pdusession_ambr(uint8_t sessionId, MV_KsUE* ue, uint64_t dl, uint64_t ul);
// The core's uplink tunnel: TEID (4 octets) and address (4 IPv4, 16 IPv6, 20 both). 1 when
// stored, 0 for octets of another length.
int KsNGAP__set_pdusession_transport_info(uint8_t sessionId, MV_KsUE* ue, uint8_t pDUSessionType,
                                          const uint8_t* gTP_TEID, uint32_t teidLen, const uint8_t* tlaData,
                                          uint32_t tlaLen);
void KsNGAP__set_pdusession_release_transport_info(MV_KsUE* ue, uint8_t sessionId);
void KsNGAP__set_pdusession_qosFlowIdentifier(uint8_t sessionId, MV_KsUE* ue, uint8_t qosFlowId);
// The gNB's downlink TEID of the session: one the user plane hands out, kept until the session
// is released (which gives it back). Without a user plane, or with its table full, the core's
// uplink TEID plus 5, logged once and counted.
uint32_t KsNGAP__get_pdusession_ran_teid(uint8_t sessionId, MV_KsUE* ue);
uint64_t KsNGAP__FallbackDownlinkTeids();

// ---------------------------------------------------------------- UE-associated handlers (KsNGAP_ueHandle.cpp)

// A UE-associated message on its way from the read thread to the UE's line; owns its record.
struct KsNGAPUeMessage {
    uint8_t Code, Form;
    void* Record;
    MV_NGAPNode* Node;
    MV_KsRanAmfConnection* Conn;
};
// The read-thread tests of each UE-associated message: 1 when the message was taken (posted
// to its line, or answered), 0 when it was dropped. The caller frees the record unless taken.
int KsNGAP__handle_ue_message(const KsNGAPUeMessage& m);
// Frees a decoded record of that procedure and form as the dispatch does.
void KsNGAP___freeRecord(uint8_t procedureCode, uint8_t form, void* record);
// Posts fn(obj) to the line of `key`. 1 posted, 0 when the lines do not run.
int KsNGAP__run_thread(void* obj, uint64_t key, fnexec fn);
// Counters of input from the AMF that no UE could take (bad or stale ids, empty NAS PDUs).
uint64_t KsNGAP__DroppedUeMessages();

// ---------------------------------------------------------------- console commands (KsNGAP_command.cpp)

// A console command queued at the UE: on the caller's thread the UE is latched to a RAN when
// it has none (no test runs for it then), and the command goes on to the UE's line.
void KsNGAP__run_command(MV_KsUE* ue);
// On the UE's line: the head command becomes the UE's steps and the first is started; while
// a command's step still runs, the next one stays queued.
void KsNGAP__run_command_async(void* ue);
// Gives back executions that no longer run (none current, or a test that ended).
void KsNGAP__deleteKsStepExecution(MV_KsUE* ue);

// ---------------------------------------------------------------- builders (KsNGAP_build.cpp)

// What a builder could not read or left out of a record. Builders change no state and
// print nothing: they note, and the caller reports (KsNGAP___reportBuildNotes).
struct KsNgapBuildNote {
    enum Kind : uint8_t { BadHexTAC, BadHexPLMN, PlmnWithoutSlice, TaWithoutPlmn } kind;
    const char* text;  // a bad hexadecimal value, as the JSON tree holds it
    uint8_t plmn[3], tac[3];
};
struct KsNgapBuildNotes {
    static constexpr size_t kMax = 16;
    KsNgapBuildNote notes[kMax];
    size_t count = 0;
    size_t past = 0;  // notes beyond kMax, counted only
    void add(const KsNgapBuildNote& n) {
        if (count < kMax) notes[count++] = n;
        else ++past;
    }
};

// Three PLMN bytes of TS 38.413 (TS 24.008 digit order); short inputs leave `out`.
void KsNGAP_get_plmnHex(uint8_t* out, const char* mcc, const char* mnc);
// The engine keeps PLMNs in the TS 24.008 order that NAS carries (third MNC digit in
// the high nibble of the second byte). NGAP's PLMN Identity packs the six digits in
// order instead (TS 38.413 9.3.3.5): the first MNC digit there. The two agree for a
// 2-digit MNC; these convert at the NGAP boundary.
void KsNGAP___plmnToWire(const uint8_t* enginePlmn, uint8_t* wire);
void KsNGAP___plmnFromWire(const uint8_t* wire, uint8_t* enginePlmn);
// The ten bytes of a 5G-GUTI value.
void KsNGAP_set_fgguti(uint8_t* data, const uint8_t* hexPlmn, uint8_t region, uint16_t amfSetId, uint8_t pointer,
                       uint32_t tmsi);
void KsNGAP_set_fgguti2(uint8_t* data, const char* mcc, const char* mnc, uint8_t region, uint16_t amfSetId,
                        uint8_t pointer, uint32_t tmsi);
void KsNGAP__setCause(MV_AMF_DT_Cause* cause, uint8_t group, uint8_t value);
void KsNGAP_utils_set_TAC(MV_AMF_DT_TAC** tac, uint32_t value);
void KsNGAP_utils_set_PLMNIdentity(MV_AMF_DT_PLMNIdentity** plmn, const uint8_t* hexPlmn);
void KsNGAP_utils_set_TAI(MV_AMF_DT_TAI** tai, const uint8_t* hexPlmn, uint32_t tac);
// Five bytes of 36 bits; null gives 00 00 00 34 21.
void KsNGAP_utils_set_NRCellIdentity(MV_AMF_DT_NRCellIdentity** cell, const uint8_t* bytes5);
void KsNGAP_utils_set_NR_CGI(MV_AMF_DT_NR_CGI** cgi, const uint8_t* hexPlmn);
void KsNGAP_utils_set_UserLocationInformationNR(MV_AMF_DT_UserLocationInformationNR** nr, const uint8_t* hexPlmn);
// Alternative 1, NR, with no time stamp: the PLMN, the default cell and TAC 1.
void KsNGAP_utils_set_UserLocationInformation(MV_AMF_DT_UserLocationInformation** uli, const uint8_t* hexPlmn);
// A location from JSON (Type 1, ULINR with NRCGI and TAI); 1 when built, else 0. When the
// TAI names its PLMN, taiPlmn (3 octets, may be null) receives it and *taiPlmnSet is 1.
int KsNGAP___build_UserLocationInformation_json(MV_AMF_DT_UserLocationInformation** uli, json_t* json,
                                                uint8_t* taiPlmn, int* taiPlmnSet);
// The same, and the TAI's PLMN names the UE's serving network (KsNGAP_handle.cpp).
int KsNGAP_utils_set_UserLocationInformation_json(MV_AMF_DT_UserLocationInformation** uli, json_t* json, MV_KsUE* ue);
// One SupportedTAItem from a JSON entry, appended to the list; 1 when added.
int KsNGAP__add_tai_json(MV_AMF_DT_SupportedTAList** list, json_t* entry, KsNgapBuildNotes* notes = nullptr);

// The records the connection commands send, built from the RAN node: the caller frees
// them with the PDU's memfree operation.
MV_AMF_DT_NGSetupRequest* KsNGAP___build_NGSetupRequest(const MV_KsNGRan* ran, KsNgapBuildNotes* notes = nullptr);
MV_AMF_DT_RANConfigurationUpdate* KsNGAP___build_RANConfigurationUpdate(const MV_KsNGRan* ran,
                                                                         KsNgapBuildNotes* notes = nullptr);
// The lines of what the builders noted: the design's texts (KsNGAP_path.cpp).
void KsNGAP___reportBuildNotes(const KsNgapBuildNotes& notes);
MV_AMF_DT_NGReset* KsNGAP___build_NGReset(void);

// The self check; 0 does nothing (start-up passes 0).
void KsTDD_run(int bRun);
// Allocates, looks up by the derived RAN UE NGAP id and releases 21 rounds of the whole
// context pool on the first RAN, logging each. Returns how many lookups missed their
// context, or -1 when there is no RAN or a context could not be had.
int KsTDD_runUeContextTest(void);
