// NAS message codec: the 5GMM and 5GSM messages of TS 24.501 and the EMM and ESM messages of TS 24.301
// as flat records. Encoders write the plain message through the coding context; decoders read a plain
// message through the cursor `__naspduDecode`. Security is not the codec's business beyond building and
// reading the security header's octets.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

#include "mv_asn.h"
#include "mv_naspdu_ies.h"
#include "mv_naspdu_msgs.h"

#define MV_5GS_MM_EPD 126  // 0x7E
#define MV_5GS_SM_EPD 46   // 0x2E
#define MV_EPS_MM_PD 7
#define MV_EPS_SM_PD 2
#define NAS_SECURITY_MAC_SIZE 4

#define NAS_SECURITY_HEADER_PLAIN_NAS_MESSAGE 0
#define NAS_SECURITY_HEADER_INTEGRITY_PROTECTED 1
#define NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_CIPHERED 2
#define NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_NEW_SECURITY_CONTEXT 3
#define NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_CIPHERED_WITH_NEW_SECURITY_CONTEXT 4
#define NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_PARTICALLY_CIPHTERD 5
#define NAS_SECURITY_HEADER_FOR_SERVICE_REQUEST_MESSAGE 12

// Cursor statuses.
#define NAS_DECODE_OK 0
#define NAS_DECODE_ENDED_INSIDE_IE 3      // the message ended inside an IE, or an IE is shorter than its value
#define NAS_DECODE_IE_TOO_LARGE 4         // a mandatory IE is longer than its record member holds
#define NAS_DECODE_IE_NOT_TAKEN 5         // an IEI the message does not take

// The security header of a protected message. ProtocolDiscriminator is the whole first octet's
// discriminator: 0x7E for 5GS, 7 for EPS.
struct __attribute__((packed)) __naspduFGSecurityHeader {
    uint8_t ProtocolDiscriminator;
    uint8_t EPSBIOrSHT;  // security header type, 0 to 15
    uint8_t MAC[NAS_SECURITY_MAC_SIZE];
    uint8_t SequenceNumber;
};
typedef __naspduFGSecurityHeader NASPduFGSecurityHeader;

// The plain 5GS header: discriminator, then the PDU session id and PTI for 5GSM or the octet of the
// security header type for 5GMM, then the message type.
struct __attribute__((packed)) __naspduFGHeader {
    uint8_t ProtocolDiscriminator;
    uint8_t PSIOrSHT;
    uint8_t IsSMMsg;
    uint8_t PDUSessionId;
    uint8_t ProcedureTransactionIdentity;
    uint8_t ProcedureTransactionIdentity_isset;
    uint8_t MessageType;
};
typedef __naspduFGHeader NASPduFGHeader;

// The plain EPS header. ProtocolDiscriminator is the whole first octet: the discriminator in the low
// nibble, the security header type (EMM) or EPS bearer identity (ESM) in the high nibble.
struct __attribute__((packed)) __naspduHeader {
    uint8_t ProtocolDiscriminator;
    uint8_t ProcedureTransactionIdentity;
    uint8_t ProcedureTransactionIdentity_isset;
    uint8_t MessageType;
};
typedef __naspduHeader NASPduHeader;

// ---------------------------------------------------------------- message records

#define NAS_MEMBER_M(T, m) NASPdu_##T m;
#define NAS_MEMBER_U(T, m) NASPdu_##T m;
#define NAS_MEMBER_O(T, m) NASPdu_##T m;
#define NAS_MEMBER_E(T, m) NASPdu_##T m;
#define NAS_MEMBER_R(T, m) NASPdu_##T m;
#define NAS_MEMBER_K(T, m) NASPdu_##T m;
#define NAS_MEMBER_S(T, m)
#define NAS_MEMBER(kind, T, m, iei) NAS_MEMBER_##kind(T, m)

#define NAS_RECORD_FGMM(Name, type)                                  \
    struct __attribute__((packed)) __naspduFGMM_##Name {             \
        __naspduFGSecurityHeader sHeader;                            \
        __naspduFGHeader pHeader;                                    \
        NAS_FGMM_##Name(NAS_MEMBER)                                  \
    };                                                               \
    typedef __naspduFGMM_##Name NASPduFGMM_##Name;
#define NAS_RECORD_FGSM(Name, type)                                  \
    struct __attribute__((packed)) __naspduFGSM_##Name {             \
        __naspduFGSecurityHeader sHeader;                            \
        __naspduFGHeader pHeader;                                    \
        NAS_FGSM_##Name(NAS_MEMBER)                                  \
    };                                                               \
    typedef __naspduFGSM_##Name NASPduFGSM_##Name;
#define NAS_RECORD_EMM(Name, DecName, type)                          \
    struct __attribute__((packed)) __naspdu##Name {                  \
        __naspduFGSecurityHeader sHeader;                            \
        __naspduHeader pHeader;                                      \
        NAS_EMM_##Name(NAS_MEMBER)                                   \
    };                                                               \
    typedef __naspdu##Name NASPdu##Name;
#define NAS_RECORD_ESM(Name, DecName, type)                          \
    struct __attribute__((packed)) __naspdu##Name {                  \
        __naspduFGSecurityHeader sHeader;                            \
        __naspduHeader pHeader;                                      \
        NAS_ESM_##Name(NAS_MEMBER)                                   \
    };                                                               \
    typedef __naspdu##Name NASPdu##Name;

NAS_FGMM_MESSAGES(NAS_RECORD_FGMM)
NAS_FGSM_MESSAGES(NAS_RECORD_FGSM)
NAS_EMM_MESSAGES(NAS_RECORD_EMM)
NAS_ESM_MESSAGES(NAS_RECORD_ESM)

// ---------------------------------------------------------------- decoding cursor

struct __attribute__((packed)) __naspduDecode {
    int MessageType;
    void* messageObj;          // the decoded record; freed by __mv_naspdu_freeNASPduDecode
    const uint8_t* buffer;     // the message, not copied
    int length;
    int pos;
    int iStatus;               // NAS_DECODE_...
    uint8_t iMandatoryDecoded;  // 1 once every mandatory field was read
    uint8_t iLastElementId;
    uint8_t iUnSuccessfulElementId;
    uint8_t MMType;            // 5 for 5GS, 4 for EPS
    uint8_t ProtocolDiscriminator;
    uint32_t errorLineNo;      // the check that set status 3 or 4
    uint8_t SecurityHeaderType;
};
typedef __naspduDecode MV_NASPduDecode;

// ---------------------------------------------------------------- operations

// Message encoders: 0 with the octets in buffer[0..pos) of the context; -1 when they did not fit it.
#define NAS_DECLARE_FGMM(Name, type)                                                                   \
    int __mv_naspdu_fgmm_encode##Name(__naspduFGMM_##Name* record, __mv_asn_coding_context* context); \
    int __mv_naspdu_Decode_NASPduFGMM_##Name(__naspduDecode* decode);
#define NAS_DECLARE_FGSM(Name, type)                                                                   \
    int __mv_naspdu_fgsm_encode##Name(__naspduFGSM_##Name* record, __mv_asn_coding_context* context); \
    int __mv_naspdu_Decode_NASPduFGSM_##Name(__naspduDecode* decode);
#define NAS_DECLARE_EMM(Name, DecName, type)                                                     \
    int __mv_naspdu_encode##Name(__naspdu##Name* record, __mv_asn_coding_context* context); \
    int __mv_naspdu_Decode_EMM_NAS_##DecName(__naspduDecode* decode);
#define NAS_DECLARE_ESM(Name, DecName, type)                                                     \
    int __mv_naspdu_encode##Name(__naspdu##Name* record, __mv_asn_coding_context* context); \
    int __mv_naspdu_Decode_ESM_NAS_##DecName(__naspduDecode* decode);
NAS_FGMM_MESSAGES(NAS_DECLARE_FGMM)
NAS_FGSM_MESSAGES(NAS_DECLARE_FGSM)
NAS_EMM_MESSAGES(NAS_DECLARE_EMM)
NAS_ESM_MESSAGES(NAS_DECLARE_ESM)
#undef NAS_DECLARE_FGMM
#undef NAS_DECLARE_FGSM
#undef NAS_DECLARE_EMM
#undef NAS_DECLARE_ESM

// One encoder and one decoder per IE type. An iei of 0 writes a mandatory IE without identifier; a
// half-octet IE takes the low nibble of iei into the high nibble of its octet (12 for "C-"). Encoders
// return 0 (nothing written unless isset is 1), decoders read the IE at the cursor with its identifier
// already taken: 1 taken, 0 stepped over (longer than the record holds), -1 with iStatus set.
#define NAS_DECLARE_IE(Name, CType, fmt, kind, n)                                                     \
    int __mv_naspdu_encode##Name(uint8_t iei, const CType* ie, __mv_asn_coding_context* context); \
    int __mv_naspdu_decode##Name(CType* ie, __naspduDecode* decode);
NAS_IE_TYPES(NAS_DECLARE_IE)
#undef NAS_DECLARE_IE

// Plain 5GS message: 0 when a message decoder ran (its outcome is in iStatus and iMandatoryDecoded),
// -1 for an empty or headless message, -ENOENT for another discriminator, -ESRCH for an unknown type.
int __mv_naspdu_DecodeFGMessage(__naspduDecode* decode, const uint8_t* data, uint32_t len);
// Plain EPS message in decode->buffer and decode->length; the same results.
int __mv_naspdu_DecodeMessage(__naspduDecode* decode);
void __mv_naspdu_freeNASPduDecode(__naspduDecode* decode);
void __mv_naspdu_initNASPduDecode(int type, void* record, __naspduDecode* decode, uint8_t mmType,
                                  uint8_t discriminator);

// Headers. Encoders return 0 (-1 when the context is full); decoders 1, or -1 with iStatus 3.
int __mv_naspdu_encodeFGPlainHeader(const __naspduFGHeader* header, __mv_asn_coding_context* context);
int __mv_naspdu_decodeFGPlainHeader(__naspduFGHeader* header, __naspduDecode* decode);
int __mv_naspdu_encodePlainHeader(const __naspduHeader* header, __mv_asn_coding_context* context);
int __mv_naspdu_decodeNASHeader(__naspduHeader* header, __naspduDecode* decode);
// The security header of a protected message: 7 octets for 5GS (0x7E, type, MAC, sequence number), 6 for
// EPS (type and discriminator, MAC, sequence number), chosen by header->ProtocolDiscriminator.
int __mv_naspdu_encodeSecurityHeader(const __naspduFGSecurityHeader* header, __mv_asn_coding_context* context);
// Reads the security header in front of a protected 5GS or EPS message: its length (7 or 6, the plain
// message follows), 0 for a plain message (session management messages are always plain), -1 for too
// few octets or another discriminator.
int __mv_naspdu_decodeSecurityHeader(__naspduFGSecurityHeader* header, const uint8_t* data, uint32_t len);

// Cause texts; an empty text for a value the standard does not give.
const char* __mv_naspdu_get5GMMCause(int value);
const char* __mv_naspdu_get5GSMCause(int value);

// NSSAI items. addSNSSAI: sd, mappedSst and mappedSd are null when absent (a mapped SD goes only with an
// SD and a mapped SST); 1 added, 0 refused (Length 245 or more). getSNSSAI: fills up to maxItems items
// from an NSSAI value, returns their number, -1 for an item length the standard does not give, -ENOENT
// for an item that runs past the value.
struct __attribute__((packed)) __naspdu_snssai_item {
    uint8_t sst;
    uint8_t sd_isset;
    uint8_t sd[3];
    uint8_t mappedSst_isset;
    uint8_t mappedSst;
    uint8_t mappedSd_isset;
    uint8_t mappedSd[3];
};
typedef __naspdu_snssai_item NASPdu_SNSSAIItem;
int __mv_naspdu_addSNSSAI(__naspdu_nssai* nssai, uint8_t sst, const uint8_t* sd, const uint8_t* mappedSst,
                          const uint8_t* mappedSd);
int __mv_naspdu_getSNSSAI(const uint8_t* data, uint32_t len, __naspdu_snssai_item* items, int maxItems);
// Appends one entry to a multiple-payload container: 1 added, 0 when it does not fit.
int __mv_naspdu_addPayload(uint8_t type, uint16_t len, const uint8_t* data, __naspdu_payload_container* container);

// The message's name, "" when the family has no such type (family: 0x7E, 0x2E, 7 or 2).
const char* __mv_naspdu_message_name(uint8_t discriminator, uint8_t type);
// A readable account of a decoded message and its cursor, as text lines or one JSON object.
void __mv_naspdu_describe(const __naspduDecode* decode, std::string& out, bool json);
