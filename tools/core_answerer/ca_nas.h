// The network's side of NAS: the security context of one UE (protecting downlink
// messages, checking and opening uplink ones), the reading of what UEs send, and the
// builders of what the network sends, on the engine's NAS codec.
//
// Uplink messages are read here rather than with the codec's decoders: those read
// the messages a UE receives and stop at the IEs a UE sends, which are what the
// network needs. Every read goes through a bounded view.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mv_naspdu.h"

namespace ca {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------- security

// One 5G NAS security context as the AMF keeps it. COUNTs are 24 bits: an overflow
// counter and the sequence number of the header.
struct NasSecurity {
    uint8_t nia = 0, nea = 0;
    uint8_t kint[16] = {}, kenc[16] = {};
    uint32_t dl = 0;  // COUNT of the next downlink message
    uint32_t ul = 0;  // COUNT the next uplink message is expected to carry
    uint8_t bearer = 1;

    // Wraps plain octets with security header type sht (1 to 4) at the next downlink
    // COUNT, ciphering for types 2 and 4; out gets the 7-octet header and the message.
    void protect(std::span<const uint8_t> plain, uint8_t sht, Bytes& out);

    enum class Open { Ok, Short, BadMac };
    // Checks the MAC of a protected uplink message at the COUNT rebuilt from its
    // sequence number and, for ciphered types, deciphers; plain gets the message.
    // On success the expected COUNT moves past it, so a replay fails the MAC.
    Open open(std::span<const uint8_t> in, Bytes& plain, uint32_t* count = nullptr);
};

// ---------------------------------------------------------------- reading uplink messages

// One message from a UE: its header, mandatory fields and the optional IEs found.
struct NasMessage {
    uint8_t epd = 0;   // 0x7E or 0x2E
    uint8_t type = 0;  // message type
    uint8_t psi = 0, pti = 0;  // 5GSM header
    uint8_t b1 = 0;            // the first octet of a message with half-octet fields in front
    uint8_t cause = 0;         // the mandatory cause of a message that has one
    std::span<const uint8_t> lv;  // the mandatory LV-E (identity, payload container), or the
                                  // fixed octets behind the header of a 5GSM request
    struct Ie {
        uint8_t iei;
        std::span<const uint8_t> value;  // a half-octet IE: one octet with the value in its low nibble
    };
    std::array<Ie, 32> ies{};
    uint8_t ieCount = 0;

    // The value of an optional IE; null data when the message has none. Half-octet IEs
    // are found by their nibble (0xC for "C-").
    const Ie* find(uint8_t iei) const;
};

enum class NasParse { Ok, Short, UnknownType, Malformed };
// Reads a plain 5GMM or 5GSM message sent by a UE.
NasParse parseUplink(std::span<const uint8_t> plain, NasMessage& out);
const char* nasParseText(NasParse p);

// A 5GS mobile identity.
struct MobileIdentity {
    uint8_t type = 0;  // 1 SUCI, 2 5G-GUTI, 3 IMEI, 4 5G-S-TMSI, 5 IMEISV, 0 none
    // SUCI of the IMSI format
    uint8_t plmn[3] = {};
    uint8_t supiFormat = 0;  // 0 IMSI, 1 NAI
    uint8_t scheme = 0, keyId = 0;
    std::span<const uint8_t> schemeOutput;
    // 5G-GUTI (plmn above) and 5G-S-TMSI
    uint8_t region = 0;
    uint16_t set = 0;
    uint8_t pointer = 0;
    uint32_t tmsi = 0;
    std::string digits;  // IMEI, IMEISV
};
bool decodeIdentity(std::span<const uint8_t> value, MobileIdentity& out);
// MCC, MNC and MSIN digits from a SUCI's PLMN and BCD MSIN ("001010000000001").
std::string imsiDigits(const uint8_t plmn[3], std::span<const uint8_t> msinBcd);

// ---------------------------------------------------------------- building downlink messages

// Each builder writes the plain message into ctx.buffer[0..pos); false when it does
// not fit (nothing then to send).
using Ctx = __mv_asn_coding_context;

// A NAS message record through the codec's encoder; true when ctx holds the message.
template <class R>
bool encodeNas(int (*enc)(R*, Ctx*), R& rec, Ctx& ctx) {
    __mv_asn_init_CodingContext(&ctx);
    return enc(&rec, &ctx) == 0 && ctx.iError == 0 && ctx.pos > 0;
}
// The same for a 5GSM message of a PDU session and a procedure transaction.
template <class R>
bool encodeNasSm(int (*enc)(R*, Ctx*), R& rec, uint8_t psi, uint8_t pti, Ctx& ctx) {
    rec.pHeader.PDUSessionId = psi;
    rec.pHeader.ProcedureTransactionIdentity = pti;
    rec.pHeader.ProcedureTransactionIdentity_isset = 1;
    return encodeNas(enc, rec, ctx);
}

struct SNssai {
    uint8_t sst = 1;
    bool hasSd = false;
    uint8_t sd[3] = {};
    bool operator==(const SNssai& o) const {
        return sst == o.sst && hasSd == o.hasSd && (!hasSd || (sd[0] == o.sd[0] && sd[1] == o.sd[1] && sd[2] == o.sd[2]));
    }
};
// S-NSSAIs of an NSSAI IE value; stops at a malformed item.
std::vector<SNssai> readNssai(std::span<const uint8_t> value);
// An S-NSSAI IE value (no IEI, no length).
bool readSnssai(std::span<const uint8_t> value, SNssai& out);

bool buildIdentityRequest(uint8_t identityType, Ctx& ctx);
bool buildAuthenticationRequest(uint8_t ngksi, const uint8_t rand[16], const uint8_t autn[16], Ctx& ctx);
bool buildAuthenticationReject(Ctx& ctx);
bool buildSecurityModeCommand(uint8_t nia, uint8_t nea, uint8_t ngksi, std::span<const uint8_t> ueSecCap,
                              bool imeisvRequest, bool rinmr, Ctx& ctx);

struct AcceptContents {
    uint8_t guti[10] = {};  // PLMN, AMF region, set and pointer, 5G-TMSI
    std::span<const uint8_t> taiList;  // TAI list IE value
    std::vector<SNssai> allowed;
    uint8_t t3512 = 0;  // GPRS timer 3 octet
    bool hasPduStatus = false;
    uint16_t pduStatus = 0;  // bit n: PSI n active
};
bool buildRegistrationAccept(const AcceptContents& a, Ctx& ctx);
bool buildRegistrationReject(uint8_t cause, Ctx& ctx);
bool buildDeregistrationAccept(Ctx& ctx);
bool buildDeregistrationRequest(bool reregister, uint8_t cause, Ctx& ctx);
bool buildServiceAccept(bool hasPduStatus, uint16_t pduStatus, bool hasReactivation, uint16_t reactivation, Ctx& ctx);
bool buildServiceReject(uint8_t cause, Ctx& ctx);
bool buildGmmStatus(uint8_t cause, Ctx& ctx);
// A DL NAS transport carrying N1 SM information for a PDU session.
bool buildDlNasTransport(uint8_t psi, std::span<const uint8_t> sm, Ctx& ctx);

struct SessionAccept {
    uint8_t psi = 0, pti = 0;
    uint8_t type = 1;  // 1 IPv4, 2 IPv6, 3 IPv4v6
    uint8_t ipv4[4] = {};
    uint8_t iid[8] = {};
    SNssai snssai;
    std::span<const uint8_t> dnn;  // DNN IE value as the UE gave it, or empty
    uint8_t qfi = 1;
    uint16_t ambrMbps = 1000;
    uint8_t cause = 0;  // a 5GSM cause to add (50 or 51 when another type was given), 0 none
};
bool buildSessionAccept(const SessionAccept& a, Ctx& ctx);
bool buildSessionReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx);
bool buildSessionReleaseCommand(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx);
bool buildSessionReleaseReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx);
bool buildSessionModificationCommand(uint8_t psi, uint8_t pti, uint16_t ambrMbps, Ctx& ctx);
bool buildSessionModificationReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx);
bool buildGsmStatus(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx);

// The message's name as the codec knows it ("RegistrationAccept"), "" when none.
const char* nasName(uint8_t epd, uint8_t type);

}  // namespace ca
