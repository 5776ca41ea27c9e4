// The NGAP messages the answerer sends, built as codec records and encoded into a
// coding context, and the few fields it reads out of what gNBs send.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "ca_asn.h"
#include "ca_nas.h"

namespace ca {

struct Guami {
    uint8_t plmn[3] = {};
    uint8_t region = 0;
    uint16_t set = 0;    // 10 bits
    uint8_t pointer = 0; // 6 bits
};

// An NGAP Cause: the CHOICE index (0 radio network, 1 transport, 2 NAS, 3 protocol,
// 4 miscellaneous) and the value's index in its enumeration.
struct NgCause {
    uint8_t group = 0;
    uint8_t value = 0;
};
NgCause radioCause(const char* name);
NgCause nasCause(const char* name);
NgCause protocolCause(const char* name);
NgCause miscCause(const char* name);
std::string causeText(NgCause c);

// One PDU session in a setup list: the item's NAS PDU (may be empty) and its transfer.
struct SessionItem {
    uint8_t psi = 0;
    SNssai snssai;
    std::span<const uint8_t> nas;
    std::span<const uint8_t> transfer;
};

bool buildNgSetupResponse(const std::string& amfName, const Guami& g, uint8_t capacity, const uint8_t plmn[3],
                          const std::vector<SNssai>& slices, Ctx& ctx);
bool buildNgSetupFailure(NgCause c, Ctx& ctx);
// The acknowledgement of an NG Reset; ids lists the UE associations of a partial reset.
bool buildNgResetAcknowledge(const std::vector<std::pair<uint64_t, uint64_t>>& ids, bool partial, Ctx& ctx);
bool buildDownlinkNasTransport(uint64_t amfId, uint64_t ranId, std::span<const uint8_t> nas, Ctx& ctx);

struct ContextSetup {
    uint64_t amfId = 0, ranId = 0;
    Guami guami;
    std::vector<SNssai> allowed;
    uint8_t nrEnc[2] = {}, nrInt[2] = {}, eutraEnc[2] = {}, eutraInt[2] = {};
    uint8_t kgnb[32] = {};
    std::span<const uint8_t> nas;
    std::vector<SessionItem> sessions;
    uint64_t ueAmbrBps = 0;  // sent with sessions
};
bool buildInitialContextSetupRequest(const ContextSetup& c, Ctx& ctx);
bool buildSessionSetupRequest(uint64_t amfId, uint64_t ranId, const std::vector<SessionItem>& sessions,
                              uint64_t ueAmbrBps, Ctx& ctx);
bool buildSessionReleaseCommand(uint64_t amfId, uint64_t ranId, std::span<const uint8_t> nas,
                                const std::vector<std::pair<uint8_t, std::span<const uint8_t>>>& transfers, Ctx& ctx);
bool buildUeContextReleaseCommand(uint64_t amfId, uint64_t ranId, NgCause c, Ctx& ctx);
// Ids of 0 are left out.
bool buildErrorIndication(uint64_t amfId, bool hasAmf, uint64_t ranId, bool hasRan, NgCause c, Ctx& ctx);

// The session transfers, each the whole value of its octet string.
struct UpTunnel {
    uint8_t addr[20] = {};  // IPv4, IPv6, or both (IPv4 first)
    uint8_t addrLen = 0;
    uint32_t teid = 0;
};
// pduType: the NGAP PDUSessionType index (0 IPv4, 1 IPv6, 2 IPv4v6).
bool buildSetupRequestTransfer(uint8_t pduType, const UpTunnel& upf, uint8_t qfi, uint8_t fiveQi, uint64_t ambrBps,
                               Ctx& ctx);
bool buildReleaseCommandTransfer(NgCause c, Ctx& ctx);
// The gNB's downlink tunnel from a setup response transfer.
bool readSetupResponseTransfer(std::span<const uint8_t> bytes, UpTunnel& gnb);

// From the NR user location of an uplink message: the TAI (PLMN and 3-octet TAC).
bool readNrTai(const __mv_amf_dt_UserLocationInformation* uli, uint8_t plmn[3], uint8_t tac[3]);
// The 5G-S-TMSI IE of an InitialUEMessage.
bool readFiveGSTmsi(const __mv_amf_dt_FiveG_S_TMSI* s, uint16_t& set, uint8_t& pointer, uint32_t& tmsi);
// The PLMNs a gNB broadcasts in its supported TA list.
std::vector<std::array<uint8_t, 3>> readBroadcastPlmns(const __mv_amf_dt_SupportedTAList* list);
// A readable name of the RAN node of an NG Setup request.
std::string ranNodeText(const __mv_amf_dt_NGSetupRequest* m);

}  // namespace ca
