// A small Diameter node library: a message object with a chain of AVP objects and
// its codec, one listening host and connecting peers over TCP or SCTP (both through
// the socket engine), capability exchange, watchdog and disconnect on its own, and
// the matching of every answer to the object that asked through the row of its
// End-to-End Identifier. Every other message goes to one application handler, by
// default the table of handlers that client modules register per Application-Id.
//
// Threads, in short:
//   "mv_d-pc-t" / "mv_d-pc-s"  one per peer (TCP / SCTP): connects, sends CER, runs the
//                              once-a-second watchdog, reconnects, disconnects by DPR.
//   "mv_dm_poll"               one per accepted connection of a host (reused when idle):
//                              the same watchdog, without CER.
//   socket engine delivery     frames and decodes what arrives; a loaded stack hands
//                              decoding to the decode threads of decodeQueue.
// So an application handler runs on the delivery thread or a decode thread; it owns
// the message it is given and frees it with __mv_diam_freeMessage2.
#pragma once

#include <jansson.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

#include "mv_core.h"
#include "mv_socket_engine.h"
#include "mv_tables.h"

struct __mv_diam_node;
struct __mv_diam_message;
struct __mv_diam_avp;
struct __mv_diam_buffer;
struct __mv_diam_client_thread;
typedef __mv_diam_node MV_DiamNode;
typedef __mv_diam_message MV_DiamMessage;
typedef __mv_diam_avp MV_DiamAvp;
typedef __mv_diam_buffer MV_DiamBuffer;

// One encoded or received message is at most this long.
#define MV_DIAM_BUFFER_SIZE 4096
#define MV_DIAM_HEADER_LEN 20
// Room for a Session-Id written by __mv_diam_generate_sessionid2, terminator included.
#define MV_DIAM_SESSIONID_SIZE 100

#define MV_DIAM_TRANSPORT_TCP 1
#define MV_DIAM_TRANSPORT_SCTP 3
// Payload protocol identifier of Diameter in clear over SCTP.
#define MV_DIAM_SCTP_PPID 46

// Header flags.
#define MV_DIAM_FLAG_REQUEST 0x80
#define MV_DIAM_FLAG_PROXYABLE 0x40
#define MV_DIAM_FLAG_ERROR 0x20
#define MV_DIAM_FLAG_RETRANSMIT 0x10
// AVP flags.
#define MV_DIAM_AVP_FLAG_VENDOR 0x80
#define MV_DIAM_AVP_FLAG_MANDATORY 0x40
#define MV_DIAM_AVP_FLAG_PROTECTED 0x20

// AVP data types (DataType).
#define MV_DIAM_TYPE_OCTETSTRING 1  // also UTF8String, DiameterIdentity, Address, Time
#define MV_DIAM_TYPE_INT32 2
#define MV_DIAM_TYPE_INT64 3
#define MV_DIAM_TYPE_UINT32 4  // also Enumerated
#define MV_DIAM_TYPE_UINT64 5
#define MV_DIAM_TYPE_GROUPED 6

// Commands and result codes the stack itself uses.
#define MV_DIAM_CMD_CE 257
#define MV_DIAM_CMD_DW 280
#define MV_DIAM_CMD_DP 282
#define MV_DIAM_APP_RELAY 0xFFFFFFFFu
#define MV_DIAM_VENDOR_3GPP 10415
#define DIAMETER_SUCCESS 2001
#define DIAMETER_UNABLE_TO_DELIVER 3002
#define DIAMETER_APPLICATION_UNSUPPORTED 3007
#define DIAMETER_INVALID_AVP_VALUE 5004
#define DIAMETER_MISSING_AVP 5005
#define DIAMETER_NO_COMMON_APPLICATION 5010
#define DIAMETER_UNSUPPORTED_VERSION 5011
#define DIAMETER_UNABLE_TO_COMPLY 5012
#define DIAMETER_INVALID_AVP_LENGTH 5014
#define DIAMETER_INVALID_MESSAGE_LENGTH 5015

// Disconnect-Cause values.
#define MV_DIAM_DISCONNECT_REBOOTING 0
#define MV_DIAM_DISCONNECT_BUSY 1
#define MV_DIAM_DISCONNECT_DO_NOT_WANT_TO_TALK_TO_YOU 2

// ---------------------------------------------------------------- records

// The header exactly as on the wire: multi-byte fields in network order.
struct __attribute__((packed)) __mv_diam_header {
    uint8_t Version;
    uint8_t Length[3];
    uint8_t Flags;  // Request, Proxyable, Error, Retransmit, 4 reserved bits
    uint8_t CommandCode[3];
    uint32_t ApplicationId;
    uint32_t HBHId;
    uint32_t E2EId;
};
static_assert(sizeof(__mv_diam_header) == MV_DIAM_HEADER_LEN);
static_assert(offsetof(__mv_diam_header, ApplicationId) == 8);
static_assert(offsetof(__mv_diam_header, E2EId) == 16);

struct __mv_diam_avp {
    int32_t AvpCode;
    uint32_t HeaderLen;  // 8, or 12 with a vendor
    uint32_t AvpLength;  // header and value, without padding
    uint32_t Padding;
    uint32_t AvpCount;  // children of a grouped AVP
    uint32_t VendorId;  // 0 means no V flag
    uint8_t DataType;
    int32_t intVal;
    uint32_t usIntVal;
    int64_t int64Val;
    uint64_t usInt64Val;  // for a string, the length of data
    uint8_t Flags;        // Vendor-Specific, Mandatory, Protected, 5 reserved bits
    uint8_t* data;        // a string's bytes with one NUL behind them
    MV_DiamAvp* Head;     // the grouped AVP this one belongs to, null at the top level
    MV_DiamAvp* Next;
    MV_DiamAvp* GroupHead;
    MV_DiamAvp* GroupCurrent;
};

struct __mv_diam_message {
    __mv_diam_header Header;
    void* diamAvpinfo;  // reserved
    MV_DiamAvp* Head;
    MV_DiamAvp* Next;  // the last AVP of the chain, where the next one goes
    uint32_t AvpCount;
    MV_Socket* siSocket;        // the socket the message came in on
    MV_DiamNode* srcDiamNode;   // the node it came from
    uint32_t siConnGen;         // the connection of srcDiamNode it came on
};

// A receive buffer: one message.
struct __mv_diam_buffer {
    MV_DiamBuffer* Next;
    uint8_t buffer[MV_DIAM_BUFFER_SIZE];
    uint32_t len;
    uint32_t pos;
    int error;
    MV_DiamNode* srcDiamNode;
    MV_Socket* siSocket;
    uint32_t connGen;
    int isReleased;
};

// One endpoint: a listening host, a connecting peer, or (made by the stack) one
// accepted connection of a host.
struct __mv_diam_node {
    MV_DiamNode* Next;
    char Id[31];
    char sHostName[201];
    char sRealm[201];
    char sProductName[201];
    uint32_t VendorId;
    uint32_t OriginStateId;
    uint32_t AuthApplicationId[5];
    uint32_t AuthApplicationIdCount;
    uint32_t VendorSpecificAuthApplicationId[5];
    uint32_t VendorSpecificAuthApplicationVendorId[5];
    uint32_t VendorSpecificAuthApplicationIdCount;
    uint32_t AcctApplicationId[5];
    uint32_t AcctApplicationIdCount;
    uint32_t VendorSpecificAcctApplicationId[5];
    uint32_t VendorSpecificAcctApplicationVendorId[5];
    uint32_t VendorSpecificAcctApplicationIdCount;
    // The server side of the node: where a host listens, where a peer connects.
    char sIP[5][41];
    uint32_t sIPCount;
    int IPVersion;
    int IPTransportType;  // 1 TCP, 3 SCTP
    int IPPort;
    int IPCount;
    std::atomic<int> isEnabled;  // a peer connects while not 0, and disconnects by DPR when cleared
    // The local end to bind for a client connection.
    char sHostIP[5][41];
    uint32_t sHostIPCount;
    int CPort;
    int sHostIPVersion;
    MV_DiamNode* hostNode;  // for a peer, its local host
    MV_DiamNode* peerTablePrev;
    MV_DiamNode* peerTableNext;
    __mv_diam_client_thread* ptrClientThread;
    std::atomic<uint64_t> RequestNumber;  // messages received on this connection; 0 none yet
    std::atomic<uint64_t> SentMessages;
    std::atomic<uint64_t> SentMessagesFailed;
    MV_Mutex RequestNumberLock;
    MV_Mutex SentMessagesLock;
    std::atomic<MV_Socket*> vSiSocket;
    std::atomic<uint8_t> isCERSuccess;  // 0 not yet, 1 done, 2 refused
    std::atomic<uint32_t> CERCounter;
    uint8_t isHost;
    int PeerInit;
    std::atomic<int> DWRTimer;  // seconds of silence before a DWR; may change while connected
    int ReConnectSecs;
    int IsApplicationServer;
    int DontConnect;
    int RoutedCount;
    uint16_t SCTP_MaxOStreams;
    uint16_t SCTP_MaxIStreams;

    // Kept by the stack.
    MV_DiamNode* AdvertisedApps;          // a copy of the applications to offer in CER, taken at start
    std::atomic<uint32_t> ConnGen;        // changes with every connection
    std::atomic<int> IdleSeconds;         // since the last message received
    std::atomic<int> MissedDWA;           // DWRs sent and not answered
    std::atomic<int> DPRSent;             // seconds since our DPR, 0 none pending
    std::atomic<int> CloseAfterDPA;       // seconds since our DPA to the peer's DPR, 0 none
    std::atomic<int> PartialSeconds;      // seconds an incomplete TCP message has waited
    std::atomic<int> isListener;          // the node a host listens on
    std::atomic<int> isStarted;
    std::atomic<uint64_t> ReceivedDWR;
    std::atomic<uint64_t> ReceivedDWA;
    std::atomic<uint64_t> SentDWR;
    std::atomic<uint64_t> DecodeErrors;
    std::atomic<uint64_t> Connects;
    std::atomic<uint32_t> PeerOriginStateId;
    std::atomic<uint32_t> LastDisconnectCause;  // of the peer's last DPR, or 0xFFFFFFFF
    MV_Mutex SendLock;  // one message at a time on a TCP stream
    std::mutex WakeLock;
    std::condition_variable Wake;
    bool WakePending;
};

// The table of application handlers sits in the stack; the engine installs its
// dispatcher as the message handler.
typedef void (*fn_mv_diam_msg_handler)(MV_DiamMessage* msg);
// A data type (1..6) for an AVP code in an application, 0 for none.
typedef uint32_t (*fn_mv_diam_dict_handler)(uint32_t avpCode, uint32_t applicationId);

// Counters of the whole stack (the nodes have their own).
struct MV_DiamStackCounters {
    std::atomic<uint64_t> DecodeErrors;        // malformed messages
    std::atomic<uint64_t> UnknownAnswers;      // answers whose End-to-End Identifier has no row
    std::atomic<uint64_t> Timeouts;            // requests whose row timed out
    std::atomic<uint64_t> TableFull;           // requests refused for want of a row
    std::atomic<uint64_t> UnhandledMessages;   // no handler for the application
    std::atomic<uint64_t> QueuedDecodes;       // handed to the decode threads
};

struct __mv_diam_stack {
    uint32_t isDRA;  // always 0
    uint32_t HBHId;
    MV_Mutex HBHIdLock;
    uint32_t E2EId;
    MV_Mutex E2EIdLock;
    uint32_t SessionIdMin;
    uint32_t SessionIdMax;
    MV_Mutex SessionIdLock;
    uint32_t OriginStateId;
    __mv_diam_client_thread* ClientThreadHead;
    __mv_diam_client_thread* ClientThreadCurrent;
    MV_Mutex ClientThreadLock;
    MV_DiamNode* peerTableHead;
    MV_DiamNode* peerTableCurrent;
    MV_Mutex peerTableLock;
    MV_DiamBuffer* diamBufferPoolHead;
    MV_DiamBuffer* diamBufferPoolCurrent;
    int diamBufferPoolAvailable;
    std::atomic<long> diamBufferPoolUsed;
    int diamBufferPoolTotal;
    MV_Mutex diamBufferPoolLock;
    time_t start_time;
    void* decodeQueue;
    int diamStackThreads;
    int diamBuffPoolSize;
    std::atomic<uint64_t> TotalMessagesReceived;
    std::atomic<uint64_t> TotalMessagesSent;
    MV_DiamStackCounters Counters;
};

extern __mv_diam_stack* __mvDiamStack;

// ---------------------------------------------------------------- stack and nodes

// Once; later calls do nothing. Optional keys "DiamBuffPoolSize" (up to 9999, default
// 3000) and "DiamStackThreads" (1 to 149, default 20). Starts the socket engine and the
// runtime if they are not up. Returns 1.
int __mv_diam_stack_init(json_t* json);
// The session table: maxSessions rows, End-to-End Identifiers from stNumber. Once; a
// second call returns 0. The stack makes one of 65536 rows from 1552 if none was made.
int __mv_diam_create_IndexTable(uint32_t stNumber, uint32_t maxSessions);
void __mv_diam_set_msg_handler(fn_mv_diam_msg_handler handler);
void __mv_diam_set_dict_pre_handler(fn_mv_diam_dict_handler h);
void __mv_diam_set_dict_post_handler(fn_mv_diam_dict_handler h);
// A listening server on sIP[..], IPPort over the node's transport. 1 started, 0 already, -1 refused.
int __mv_diam_start_host(MV_DiamNode* node);
// Starts the peer's thread, which connects while isEnabled is set. 1 started, 0 already, -1 refused.
int __mv_diam_start_peer(MV_DiamNode* node);
// Clears isEnabled: the peer disconnects by DPR (Disconnect-Cause DO_NOT_WANT_TO_TALK_TO_YOU)
// and stays away until isEnabled is set again (__mv_diam_enable_peer).
void __mv_diam_disable_peer(MV_DiamNode* node);
void __mv_diam_enable_peer(MV_DiamNode* node);
// 10 no socket, 8 socket not connected, 11 connected with no CEA yet, 20 connected and CER done.
int __mv_diam__get_peer_status(MV_DiamNode* node);
// A node record with the defaults of an interface's Add: TCP, IPv4, 3 SCTP streams each
// way, DWRTimer 30, ReConnectSecs 5, VendorId 10415, enabled. The record lives as long as
// the process.
MV_DiamNode* __mv_diam_new_node(const char* id, const char* hostName, const char* realm);
// The accepted connections of a host, in the peer table; fn is called under no lock.
void __mv_diam_for_each_connection(MV_DiamNode* host, void (*fn)(MV_DiamNode* conn, void* arg), void* arg);
// Stack and node statistics to the performance log at debug level (called once a second).
void __mv_diam_print_stats();

// ---------------------------------------------------------------- messages

// R and P set, E and T clear, the next Hop-by-Hop Identifier; the End-to-End Identifier
// from the stack's counter, from e2e, or from a row of the session table.
MV_DiamMessage* __mv_diam_create_request(uint32_t cmd, uint32_t app);
MV_DiamMessage* __mv_diam_create_request2(uint32_t cmd, uint32_t app, uint32_t e2e);
// Takes a row whose object is obj; with a handler and timeout_secs of 1 or more, handler(obj)
// runs on a queue line if no answer took the row in that time. Null when no row is free.
MV_DiamMessage* __mv_diam_create_request3(uint32_t cmd, uint32_t app, void* obj, timer_handler handler,
                                          int timeout_secs);
// Same command, application and identifiers; P as the request's; R, E, T clear.
MV_DiamMessage* __mv_diam_create_answer(MV_DiamMessage* request);
MV_DiamMessage* __mv_diam_create_message2(uint32_t cmd, uint32_t app, uint32_t hbh, uint32_t e2e, int isRequest);
// e2e in host order. The object of the row, the timer stopped and the row given back; null
// when no request holds that identifier (never sent, answered already, timed out).
void* __mv_diam_create_request3_getobject(uint32_t e2e);
// The object, the timer stopped, the row kept for a later getobject.
void* __mv_diam_create_request3_findobject(uint32_t e2e);
// After a failed send: timer, handler and object cleared, the row given back. 1 done, 0 no row.
int __mv_diam_create__request3__clear_timer(MV_DiamMessage* msg);
// For an answer handler: the object of the request, as getobject; for an answer that has
// none, logs the answer with its peer, counts it and returns null.
void* __mv_diam_answer_object(MV_DiamMessage* answer);
// Encodes and sends to the node (for a listening host: its first open connection). Bytes
// sent, or below 1: -1 no connection or capabilities not exchanged, -2 too long to encode.
int __mv_diam_send_message(MV_DiamMessage* msg, MV_DiamNode* node);
// On the connection the request came in on; counts on its srcDiamNode. -1 when that
// connection is gone.
int __mv_diam_send_answer(MV_DiamMessage* request, MV_DiamMessage* answer);
void __mv_diam_freeMessage2(MV_DiamMessage* msg);
uint32_t __mv_diam_get_cmdcode(const MV_DiamMessage* msg);
uint8_t __mv_diam_get_cmdflags(const MV_DiamMessage* msg);
uint32_t __mv_diam_get_applicationid(const MV_DiamMessage* msg);
uint32_t __mv_diam_get_hbhid(const MV_DiamMessage* msg);  // network order
uint32_t __mv_diam_get_e2eid(const MV_DiamMessage* msg);  // network order
uint32_t __mv_diam_get_length(const MV_DiamMessage* msg);

// ---------------------------------------------------------------- AVPs

// Each returns the new AVP, or null for a null parent. mandatory 1 sets the M flag;
// vendor not 0 sets V and the Vendor-Id.
MV_DiamAvp* __mv_diam_add_string_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     const void* value, uint32_t len);
MV_DiamAvp* __mv_diam_add_int32_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory, int32_t value);
MV_DiamAvp* __mv_diam_add_int64_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory, int64_t value);
MV_DiamAvp* __mv_diam_add_uint32_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     uint32_t value);
MV_DiamAvp* __mv_diam_add_uint64_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     uint64_t value);
MV_DiamAvp* __mv_diam_add_string_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               const void* value, uint32_t len);
MV_DiamAvp* __mv_diam_add_int32_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                              int32_t value);
MV_DiamAvp* __mv_diam_add_int64_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                              int64_t value);
MV_DiamAvp* __mv_diam_add_uint32_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               uint32_t value);
MV_DiamAvp* __mv_diam_add_uint64_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               uint64_t value);
MV_DiamAvp* __mv_diam_add_grouped_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory);
MV_DiamAvp* __mv_diam_add_grouped_avp_toavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory);
// Address AVPs: 00 01 and 4 bytes, or 00 02 and 16 bytes; addr in network order.
MV_DiamAvp* __mv_diam_add_ipV4address_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                          const void* addr4);
MV_DiamAvp* __mv_diam_add_ipV6address_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                          const void* addr16);
MV_DiamAvp* __mv_diam_add_ipV6address_avp_to_grouped_avp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor,
                                                         int mandatory, const void* addr16);
// A Time AVP: now plus secondsFromNow, in seconds since 1900, big-endian.
MV_DiamAvp* __mv_diam_add_time_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                   int64_t secondsFromNow);
// Vendor-Specific-Application-Id (260) of Vendor-Id 266 and Auth-Application-Id 258.
MV_DiamAvp* __mv_diam_add_vendor_specific_auth_applicationid_avp(MV_DiamMessage* msg, uint32_t vendorId,
                                                                  uint32_t authAppId);
// Origin-Host 264 and Origin-Realm 296 from a node; Destination-Host 293 and Destination-Realm 283.
MV_DiamAvp* __mv_diam_add_host_name(MV_DiamMessage* msg, MV_DiamNode* node);
MV_DiamAvp* __mv_diam_add_host_realm(MV_DiamMessage* msg, MV_DiamNode* node);
MV_DiamAvp* __mv_diam_add_peer_name(MV_DiamMessage* msg, MV_DiamNode* node);
MV_DiamAvp* __mv_diam_add_peer_realm(MV_DiamMessage* msg, MV_DiamNode* node);
// Experimental-Result (297) of Vendor-Id 266 and Experimental-Result-Code 298.
MV_DiamAvp* __mv_diam_add_experimental_result_code_avp(MV_DiamMessage* msg, uint32_t vendor, uint32_t code);

// ---------------------------------------------------------------- reading

// The index-th AVP of that code at the top level (index from 0), or null.
MV_DiamAvp* __mv_diam_find_avp(uint32_t code, int index, const MV_DiamMessage* msg);
MV_DiamAvp* __mv_diam_find_avp_in_group(uint32_t code, int index, const MV_DiamAvp* avp);
// 1 and the value of the first top-level AVP of that code, 0 when there is none (or it has
// another type).
int __mv_diam_get_uint32_avp_value(const MV_DiamMessage* msg, uint32_t code, uint32_t* value);
int __mv_diam_get_int32_avp_value(const MV_DiamMessage* msg, uint32_t code, int32_t* value);
int __mv_diam_get_uint64_avp_value(const MV_DiamMessage* msg, uint32_t code, uint64_t* value);
int __mv_diam_get_int64_avp_value(const MV_DiamMessage* msg, uint32_t code, int64_t* value);
// The bytes of a string AVP (not copied; they live as long as the message) and their length.
int __mv_diam_get_string_avp_value(const MV_DiamMessage* msg, uint32_t code, const uint8_t** value, uint32_t* len);
// The first code of `codes` with no AVP at the top level, or 0.
uint32_t __mv_diam_validate_mandatory_avps(int count, const uint32_t* codes, const MV_DiamMessage* msg);
uint32_t __mv_diam_get_result_code(const MV_DiamMessage* msg);               // 268, or 0
uint32_t __mv_diam_get_experimental_result_code(const MV_DiamMessage* msg);  // 298 in 297, or 0
// "session;<realm>;<time>;<min>;<max>" into str (MV_DIAM_SESSIONID_SIZE bytes); both counters
// go up by 1. Returns the length.
int __mv_diam_generate_sessionid2(char* str, MV_DiamNode* node);
// The data type of a code in an application: the pre-handler's if not 0, the built-in
// table's, the post-handler's if not 0, else 1.
uint32_t __mv_diam_get_data_type(uint32_t avpCode, uint32_t applicationId);

// ---------------------------------------------------------------- codec

// Why a decode stopped. Code is the Result-Code that answers it (0 when the message is whole).
struct MV_DiamDecodeStatus {
    uint32_t Code;
    uint32_t Offset;     // of the AVP (or header field) at fault
    uint32_t AvpCode;    // of the AVP at fault, 0 for the header
    uint32_t AvpVendor;
    const char* Reason;  // static text for the log
};

// Deeper groups are refused: no real application nests more than a handful, and the
// bound keeps a hostile message from taking the decoder's stack.
constexpr int kMvDiamMaxGroupDepth = 32;

// The codec's log lines go to the stack log, or here; tools point it at their own output.
typedef void (*fn_mv_diam_log_sink)(int level, const char* line);
void __mv_diam_set_log_sink(fn_mv_diam_log_sink sink);

// Lengths first, then the bytes. The encoded length, or -1 when it does not fit cap.
int __mv_diam_encodeMessage(MV_DiamMessage* msg, uint8_t* buf, uint32_t cap);
// Null when the header is unusable (shorter than 20 bytes, a version other than 1, a length
// that is not the buffer's); otherwise the message with every AVP read before a fault,
// and status->Code not 0 at a fault. Reads nothing outside bytes.
MV_DiamMessage* __mv_diam_decodeMessage(std::span<const uint8_t> bytes, MV_DiamDecodeStatus* status);
// Bytes of the header fields, for a caller that has only the bytes.
uint32_t __mv_diam_peek_length(std::span<const uint8_t> bytes);

// ---------------------------------------------------------------- base protocol

// CER from a host node and the peer node (the host's applications when peerNode is null).
int __mv_diam_create_cer_request(MV_DiamMessage* msg, MV_DiamNode* hostNode, MV_DiamNode* peerNode);
// An answer to request: Session-Id copied, Origin-Host, Origin-Realm of hostNode, Result-Code
// if not 0, Origin-State-Id, Failed-AVP holding an empty AVP of failedAvp if not 0, and
// Experimental-Result of vendor 10415 if experimentalResultCode is not 0. Sent; bytes sent.
int __mv_diam_send_error(MV_DiamMessage* request, uint32_t resultCode, uint32_t failedAvp,
                         uint32_t experimentalResultCode, MV_DiamNode* hostNode);
void __mv_diam__copy_routing_info(MV_DiamMessage* msg, MV_DiamNode* node);

// ---------------------------------------------------------------- application handlers

// The handler of every message of one Application-Id, registered by a client module at
// start. 1 registered, 0 the id already has another handler or the table is full.
int __mv_diam_register_app_handler(uint32_t applicationId, fn_mv_diam_msg_handler handler);
fn_mv_diam_msg_handler __mv_diam_find_app_handler(uint32_t applicationId);
// The message handler the stack uses unless another is set: the registered handler of the
// message's application; else a request is answered DIAMETER_APPLICATION_UNSUPPORTED and an
// answer is logged and freed.
void __mv_diam_dispatch_by_application(MV_DiamMessage* msg);
