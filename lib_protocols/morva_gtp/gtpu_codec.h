// GTP-U, version 1: the header with its optional fields and extension headers (the PDU session
// container with the QFI in both directions, the UDP port), the messages this side sends and
// answers (T-PDU, echo request and response, end marker, error indication), and one strict decoder.
// Bytes to records and back, nothing else: no socket, no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#define GTPU_PORT 2152
#define GTPU_VERSION 1
#define GTPU_HEADER_LEN 8   // flags, type, length, TEID
#define GTPU_OPTIONAL_LEN 4 // sequence, N-PDU number, next extension type: present with E, S or PN
// The longest header the builders write: the optional fields and three extension headers.
#define GTPU_HEADER_MAX 28

// Message types
#define GTPU_ECHO_REQUEST 1
#define GTPU_ECHO_RESPONSE 2
#define GTPU_ERROR_INDICATION 26
#define GTPU_SUPPORTED_EXT_HEADERS_NOTIFICATION 31
#define GTPU_END_MARKER 254
#define GTPU_TPDU 255

// Flags of octet 0
#define GTPU_FLAGS_V1 0x30  // version 1, protocol type GTP
#define GTPU_FLAG_PN 0x01
#define GTPU_FLAG_S 0x02
#define GTPU_FLAG_E 0x04

// Extension header types. The two high bits say who must understand one: 1x, the receiving
// endpoint (which then drops what it does not know).
#define GTPU_EXT_NONE 0x00
#define GTPU_EXT_UDP_PORT 0x40
#define GTPU_EXT_PDU_SESSION_CONTAINER 0x85

// PDU types of the PDU session container
#define GTPU_PDU_TYPE_DL 0
#define GTPU_PDU_TYPE_UL 1

// Information elements
#define GTPU_IE_RECOVERY 14
#define GTPU_IE_TEID_DATA_I 16
#define GTPU_IE_PEER_ADDRESS 133
#define GTPU_IE_EXT_HEADER_TYPE_LIST 141
#define GTPU_IE_PRIVATE_EXTENSION 255

// ---------------------------------------------------------------- building

// The header of a T-PDU as this side sends it.
struct gtpu_tpdu_hdr {
    uint32_t teid = 0;
    uint16_t seq = 0;
    uint8_t flags = GTPU_FLAG_S | GTPU_FLAG_E;  // S and E as wanted; E adds the PDU session container
    uint8_t pduType = GTPU_PDU_TYPE_UL;          // the container's: uplink from a gNB, downlink towards one
    uint8_t qfi = 1;
    uint8_t rqi = 0;  // downlink only: reflective QoS
};

// Writes the header of a T-PDU that `payloadLen` octets follow. Returns its length (8, 12 or 16),
// or 0 when `out` is short or the message would pass the 16-bit length.
size_t gtpu_build_tpdu_header(std::span<uint8_t> out, const gtpu_tpdu_hdr& h, size_t payloadLen);

// The header forms of the header test steps, `gtpType` 1 to 6: no optional fields; one container
// with a sequence; two containers without and with a sequence; a two-word container; a two-word
// container and two more. Containers carry QFI 1; only forms 2 and 4 carry the sequence (`seq`, or
// the payload length when it is 0). Returns the header length, or 0.
size_t gtpu_build_form_header(std::span<uint8_t> out, int gtpType, uint32_t teid, uint16_t seq, size_t payloadLen);

// Signalling messages; each returns its length, or 0 when `out` is short.
size_t gtpu_build_echo_request(std::span<uint8_t> out, uint16_t seq);
size_t gtpu_build_echo_response(std::span<uint8_t> out, uint16_t seq);
size_t gtpu_build_end_marker(std::span<uint8_t> out, uint32_t teid);
// To the sender of a T-PDU for a TEID this side does not know: that TEID, this side's address (4 or
// 16 octets), and the T-PDU's source port when `udpPort` is not 0.
size_t gtpu_build_error_indication(std::span<uint8_t> out, uint32_t teid, std::span<const uint8_t> address,
                                   uint16_t udpPort);

// ---------------------------------------------------------------- decoding

enum gtpu_rx_error : uint8_t {
    GTPU_RX_OK = 0,
    GTPU_RX_SHORT,          // shorter than the header its flags announce
    GTPU_RX_VERSION,        // not version 1
    GTPU_RX_PROTOCOL_TYPE,  // GTP' (PT 0)
    GTPU_RX_LENGTH,         // the length field disagrees with the datagram, or a T-PDU carries nothing
    GTPU_RX_EXTENSION,      // an extension header of length 0, or a chain that does not end inside the message
    GTPU_RX_EXTENSION_UNSUPPORTED,  // an extension header the endpoint must understand and does not
    GTPU_RX_IE,             // an information element cut short, of an unknown fixed length, or missing
    GTPU_RX_ERROR_COUNT
};

struct gtpu_msg_t {
    uint8_t flags;
    uint8_t type;
    uint16_t length;
    uint32_t teid;
    uint16_t seq;   // with S
    uint8_t npdu;   // with PN
    uint8_t extCount;
    uint8_t hasContainer;  // the first PDU session container
    uint8_t pduType;
    uint8_t qfi;
    uint8_t rqi;           // downlink: RQI; uplink: 0
    uint8_t hasUdpPort;
    uint16_t udpPort;
    std::span<const uint8_t> payload;  // behind the header: the T-PDU, or the information elements
};

// Reads one datagram. 1 with `m` filled, or -1 with the reason in `err`; never reads past it.
// Unknown message types decode: the header is all there is to check.
[[nodiscard]] int gtpu_decode(std::span<const uint8_t> datagram, gtpu_msg_t* m, gtpu_rx_error* err = nullptr);

struct gtpu_ies_t {
    uint8_t hasRecovery;
    uint8_t recovery;
    uint8_t hasTeidDataI;
    uint32_t teidDataI;
    uint8_t peerAddressLen;  // 0 absent, 4 or 16
    uint8_t peerAddress[16];
    uint8_t extTypeCount;    // of an extension header type list
    uint8_t extTypes[32];
};

// The information elements of a signalling message. 1, or -1 (GTPU_RX_IE) for an element cut short,
// a fixed-length type this side does not know (the rest cannot be found), or a peer address that is
// neither 4 nor 16 octets.
[[nodiscard]] int gtpu_decode_ies(std::span<const uint8_t> ies, gtpu_ies_t* out);

// "Echo Request", ..., "unknown".
const char* gtpu_message_name(uint8_t type);
const char* gtpu_rx_error_text(gtpu_rx_error err);
