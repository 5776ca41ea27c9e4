// PFCP messages: the header, the records of every message (generated from pfcp.tlv), and the build
// and parse operations over the TLV walker in mode TLV_MODE_T2_L2. Bytes to records and back,
// nothing else: no socket, no state.
//
// Sending: zero a pfcp_message_t, set h.type and the present fields, then either
//   pfcp_encode_message (header and body into the caller's span), or
//   pfcp_build_msg, __mv_buff__pull of 16 (session message) or 8 (node message), pfcp__set_request_header.
// Receiving: pfcp_decode_datagram checks the header against the datagram and fills the record; its
// octet strings point into the datagram.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "gen/pfcp_tables.h"
#include "mv_bytes.h"

#define PFCP_VERSION 1
#define PFCP_HEADER_LEN 16     // with the SEID
#define PFCP_NODE_HEADER_LEN 8 // without it
#define PFCP_SEID_LEN 8
#define PFCP_BITRATE_LEN 10

#define PFCP_CAUSE_REQUEST_ACCEPTED 1
#define PFCP_CAUSE_MORE_USAGE_REPORT_TO_SEND 2
#define PFCP_CAUSE_REQUEST_REJECTED 64
#define PFCP_CAUSE_SESSION_CONTEXT_NOT_FOUND 65
#define PFCP_CAUSE_MANDATORY_IE_MISSING 66
#define PFCP_CAUSE_CONDITIONAL_IE_MISSING 67
#define PFCP_CAUSE_INVALID_LENGTH 68
#define PFCP_CAUSE_MANDATORY_IE_INCORRECT 69
#define PFCP_CAUSE_INVALID_FORWARDING_POLICY 70
#define PFCP_CAUSE_INVALID_F_TEID_ALLOCATION_OPTION 71
#define PFCP_CAUSE_NO_ESTABLISHED_PFCP_ASSOCIATION 72
#define PFCP_CAUSE_RULE_CREATION_MODIFICATION_FAILURE 73
#define PFCP_CAUSE_PFCP_ENTITY_IN_CONGESTION 74
#define PFCP_CAUSE_NO_RESOURCES_AVAILABLE 75
#define PFCP_CAUSE_SERVICE_NOT_SUPPORTED 76
#define PFCP_CAUSE_SYSTEM_FAILURE 77

#define PFCP_APPLY_ACTION_DROP 1
#define PFCP_APPLY_ACTION_FORW 2
#define PFCP_APPLY_ACTION_BUFF 4
#define PFCP_APPLY_ACTION_NOCP 8
#define PFCP_APPLY_ACTION_DUPL 16

#define PFCP_INTERFACE_ACCESS 0
#define PFCP_INTERFACE_CORE 1
#define PFCP_INTERFACE_SGI_N6_LAN 2
#define PFCP_INTERFACE_CP_FUNCTION 3
#define PFCP_INTERFACE_LI_FUNCTION 4

#define PFCP_NODE_ID_IPV4 0
#define PFCP_NODE_ID_IPV6 1
#define PFCP_NODE_ID_FQDN 2

#define PFCP_OUTER_HEADER_REMOVAL_GTPU_UDP_IPV4 0
#define PFCP_OUTER_HEADER_REMOVAL_GTPU_UDP_IPV6 1
#define PFCP_OUTER_HEADER_REMOVAL_UDP_IPV4 2
#define PFCP_OUTER_HEADER_REMOVAL_UDP_IPV6 3
#define PFCP_OUTER_HEADER_REMOVAL_IPV4 4
#define PFCP_OUTER_HEADER_REMOVAL_IPV6 5
#define PFCP_OUTER_HEADER_REMOVAL_GTPU_UDP_IP 6

#define PFCP_OUTER_HEADER_CREATION_GTPU_UDP_IPV4 0x0100
#define PFCP_OUTER_HEADER_CREATION_GTPU_UDP_IPV6 0x0200

#define PFCP_GATE_OPEN 0
#define PFCP_GATE_CLOSE 1
#define PFCP_UE_IP_SRC 0
#define PFCP_UE_IP_DST 1

#define PFCP_MEASUREMENT_METHOD_DURAT 1
#define PFCP_MEASUREMENT_METHOD_VOLUM 2
#define PFCP_MEASUREMENT_METHOD_EVENT 4

#define PFCP_REPORT_TYPE_DLDR 1
#define PFCP_REPORT_TYPE_USAR 2
#define PFCP_REPORT_TYPE_ERIR 4
#define PFCP_REPORT_TYPE_UPIR 8

struct pfcp_header_t {
    struct {
        uint8_t version : 3;
        uint8_t spare1 : 3;
        uint8_t mp : 1;
        uint8_t seid_presence : 1;
    } flags;
    uint8_t type;
    uint16_t length;
    uint64_t seid;
    uint32_t sqn;
};

// One record for any message; large (the union is as big as a Session Modification Request with
// all its arrays), so it lives on the stack of the function that sends or receives, one per call.
struct pfcp_message_t {
    pfcp_header_t h;
    union {
#define PFCP_UNION_MEMBER(T, member, type, desc) T member;
        PFCP_MESSAGE_RECORDS(PFCP_UNION_MEMBER)
#undef PFCP_UNION_MEMBER
    };
};

// True for the types that ask for an answer; the answer of request type t is t + 1.
bool pfcp_is_request(uint8_t type);
// True for the session messages (50 to 57), which carry a SEID.
inline bool pfcp_is_session_message(uint8_t type) { return type >= 50 && type <= 57; }
// "PFCP Heartbeat Request", or "unknown".
const char* pfcp_message_name(uint8_t type);

// ---------------------------------------------------------------- spans

// Header and body of `msg` (h.type, h.flags.seid_presence, h.seid, h.sqn) into `out`. Returns the
// octets written, or -1 (unknown type, an element that does not encode, no room); res says why.
[[nodiscard]] int pfcp_encode_message(const pfcp_message_t* msg, std::span<uint8_t> out, tlv_result_t* res = nullptr);
// The same from one message's own record (pfcp_heartbeat_request_t and so on), which is small
// where pfcp_message_t is large.
[[nodiscard]] int pfcp_encode_record(uint8_t type, const void* record, int seid_presence, uint64_t seid, uint32_t sqn,
                                     std::span<uint8_t> out, tlv_result_t* res = nullptr);

// Why a datagram was not taken.
enum pfcp_rx_error_e : uint8_t {
    PFCP_RX_OK = 0,
    PFCP_RX_SHORT,    // shorter than its header
    PFCP_RX_VERSION,  // not version 1
    PFCP_RX_LENGTH,   // the length field does not match the datagram
    PFCP_RX_TYPE,     // a type outside 1..57
    PFCP_RX_UNKNOWN,  // a type inside it that no message has
    PFCP_RX_BODY,     // the elements do not decode
};

struct pfcp_rx_result_t {
    pfcp_rx_error_e error;
    uint8_t version;
    uint8_t type;
    uint16_t length;    // the header's length field
    uint32_t received;  // the datagram's size less 4
    tlv_result_t tlv;   // what the element walk met (skipped and dropped elements too)
};

// Checks the header against the datagram and decodes the message into `msg` (the header always, the
// body only for a known type). Returns 1, 0 for a type no message has, -1 for a bad datagram.
[[nodiscard]] int pfcp_decode_datagram(std::span<const uint8_t> datagram, pfcp_message_t* msg,
                                       pfcp_rx_result_t* res = nullptr);
// One line about a refused datagram, in the stack's words.
int pfcp_format_rx_error(const pfcp_rx_result_t* res, char* buf, size_t size);

// ---------------------------------------------------------------- JSON form

// {"message":"PFCP Heartbeat Request","type":1,"sequence":7[,"seid":N],"ies":{...}}: the seid member
// is there exactly when the header carries one (a number, or "0x..." text above 2^63); ies is the
// record's JSON form (tlv_json.h).
void pfcp_message_json(const pfcp_message_t* msg, std::string& out);
// Fills `msg` from that form ("type" or "message" names the message; "sequence" and "ies" may be left
// out). Octet strings live in `store`. False with `err` set.
class tlv_json_store;
[[nodiscard]] bool pfcp_message_from_json(const char* text, pfcp_message_t* msg, tlv_json_store& store,
                                          std::string& err);

// ---------------------------------------------------------------- buffers

// The body of `msg` (by desc) in a new buffer of its exact size with TLV_MAX_HEADROOM octets free in
// front for the header; null if it does not encode. The caller frees it with __mv_buff__free.
[[nodiscard]] __mv_buff_t* pfcp_tlv_build_msg(const tlv_desc_t* desc, const void* msg, int mode);
// pfcp_tlv_build_msg for the message of h.type; null for an unknown type.
[[nodiscard]] __mv_buff_t* pfcp_build_msg(const pfcp_message_t* pfcp_message);
[[nodiscard]] __mv_buff_t* pfcp_build__pfcp_association_setup_request(const pfcp_association_setup_request_t* msg);
// Decodes a body (the buffer's data and len) into the record of h.type, zeroed first. 1, -1, or 0
// for an unknown type.
[[nodiscard]] int pfcp_parse_msg(pfcp_message_t* pfcp_message, __mv_buff_t* pmsg, tlv_result_t* res = nullptr);
// tlv_decode of a body buffer: 1 or -1.
[[nodiscard]] int tlv_parse_msg(void* msg, const tlv_desc_t* desc, __mv_buff_t* pmsg, int mode,
                                tlv_result_t* res = nullptr);
// Writes the header in front of a body whose buffer has been pulled back by 16 (seid_presence 1) or
// 8 octets, with the length taken from the buffer. Serves requests and responses alike.
void pfcp__set_request_header(__mv_buff_t* pmsg, uint8_t type, uint32_t seqNo, int seid_presence, uint64_t seid);

// ---------------------------------------------------------------- element bodies

// The octet layouts of the elements the engine fills itself. Each writes into `out` and returns the
// octets written; IPv4 addresses are in host order.
int pfcp_node_id_ipv4(uint8_t out[5], uint32_t ipv4);
int pfcp_f_seid_ipv4(uint8_t out[13], uint64_t seid, uint32_t ipv4);
int pfcp_f_teid_ipv4(uint8_t out[9], uint32_t teid, uint32_t ipv4);
int pfcp_ue_ip_address_ipv4(uint8_t out[5], uint8_t flags, uint32_t ipv4);
int pfcp_outer_header_creation_gtpu_ipv4(uint8_t out[10], uint32_t teid, uint32_t ipv4);
int pfcp_bitrate(uint8_t out[PFCP_BITRATE_LEN], uint64_t ul, uint64_t dl);
int pfcp_volume_quota_total(uint8_t out[9], uint64_t total);
// Reads an F-SEID: the SEID, and the IPv4 address when the V4 flag is set (else 0). False when the
// element is too short for what its flags say.
[[nodiscard]] bool pfcp_read_f_seid(const tlv_octet_t& ie, uint64_t& seid, uint32_t& ipv4);
// Reads an IPv4 Node ID. False for another type or a short element.
[[nodiscard]] bool pfcp_read_node_id_ipv4(const tlv_octet_t& ie, uint32_t& ipv4);
