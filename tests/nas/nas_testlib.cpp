#include "nas_testlib.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#ifndef KS_WSDECODE
#define KS_WSDECODE "wsdecode.sh"
#endif

std::string toHex(const std::vector<uint8_t>& b) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (uint8_t x : b) {
        s += d[x >> 4];
        s += d[x & 15];
    }
    return s;
}

std::vector<uint8_t> fromHex(const std::string& h) {
    std::vector<uint8_t> b;
    std::string digits;
    for (char c : h)
        if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) b.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return b;
}

namespace {

// Samples by member name first (the same IE type means different things in different places).
const std::map<std::string, std::string> kByMember = {
    // SUCI: MCC 001, MNC 01, routing indicator 1234, null scheme, MSIN 0123456789
    {"mFGSMobileIdentity", "01 00f110 2143 00 00 1032547698"},
    {"mAdditionalGUTI", "f2 00f110 cb 0040 c0ffee01"},
    {"mFGGUTI", "f2 00f110 cb 0040 c0ffee01"},
    {"mFGSTMSI", "f4 0040 c0ffee01"},
    {"mIMEISV", "45 23 01 89 67 45 23 01 f6"},
    // a tracking area update request inside the registration request
    {"mEPSNASMessageContainer", "07 48 01 0b f6 00f110 8001 01 c0ffee01"},
    // a service request as the plain initial message
    {"mNASMessageContainer", "7e 00 4c 10 00 07 f4 0040 c0ffee01"},
    {"mPayloadContainer", "2e 05 01 c1 ffff 91 a1"},
    {"mLADNIndication", "09 08 696e7465726e6574"},
    {"mFullNameForNetwork", "80 4b 65 73 74 72 61 6e 65"},
    {"mShortNameForNetwork", "80 4b 53"},
    // EPS identities
    {"mEPSMobileIdentity", "09 10 10 10 32 54 76 98"},
    {"mGUTI", "f6 00f110 8001 01 c0ffee01"},
    {"mOldGUTI", "f6 00f110 8001 01 c0ffee01"},
    {"mMobileIdentity", "09 10 10 10 32 54 76 98"},
    {"mMSIdentity", "09 10 10 10 32 54 76 98"},
    {"mMTMSI", "f4 c0ffee01"},
    {"mRES", "0011223344556677"},
    {"mReplayedNASMessageContainer", "07 45 01 08 09 10 10 10 32 54 76 98"},
    {"mESMMessageContainer", "02 01 d0 31 d1"},
    {"mNASMessageContainer_EMM", "09 04"},
    {"mT3412Value", "21"},
};

const std::map<std::string, std::string> kByType = {
    {"NASKeySetIdentifier", "01"},
    {"FGMMCapability", "07"},
    {"FGUESecurityCapability", "e0 e0"},
    {"NSSAI", "04 01 010203 01 02"},
    {"FGSTrackingAreaIdentity", "00f110 000001"},
    {"S1UENetworkCapability", "f0 f0 c0 40"},
    {"UplinkDataStatus", "20 00"},
    {"PDUSessionStatus", "20 00"},
    {"MICOIndication", "01"},
    {"UEStatus", "01"},
    {"AllowedPDUSessionStatus", "20 00"},
    {"UEUsageSetting", "01"},
    {"FGSDRXParameters", "02"},
    {"PayloadContainerType", "01"},
    {"NetworkSlicingIndication", "01"},
    {"FGSUpdateType", "01"},
    {"MobileStationClassmark2", "57 58 a6"},
    {"SupportedCodecList", "04 02 60 00 00 02 1f 02"},
    {"EPSBearerContextStatus", "20 00"},
    {"ExtendedDRXParameters", "05"},
    {"GPRSTimer", "21"},
    {"GPRSTimer2", "21"},
    {"GPRSTimer3", "21"},
    {"UERadioCapabilityID", "31 32"},
    {"N5GCIndication", "01"},
    {"FGSRegistrationResult", "01"},
    {"FGMMCause", "16"},
    {"TimeZone", "40"},
    {"TimeZoneAndTime", "52 11 02 21 43 65 40"},
    {"DaylightSavingTime", "00"},
    {"ABBA", "00 00"},
    {"RAND", "00112233445566778899aabbccddeeff"},
    {"AUTN", "0123456789abcdef0123456789abcdef"},
    {"EAPMessage", "03 01 00 04"},
    {"AuthenticationResponseParameter", "ffeeddccbbaa99887766554433221100"},
    {"AuthenticationFailureParameter", "0102030405060708090a0b0c0d0e"},
    {"NASSecurityAlgorithms", "02"},
    {"Additional5GSecurityInformation", "02"},
    {"IMEISVRequest", "01"},
    {"PDUSessionIdentity2", "01"},
    {"RequestType", "01"},
    {"SNSSAI", "01 010203"},
    {"DNN", "08 696e7465726e6574"},
    {"IntegrityProtectionMaximumDataRate", "ff ff"},
    {"PDUSessionType", "01"},
    {"SSCMode", "01"},
    {"FGSMCapability", "00"},
    {"MaximumNumberOfSupportedPacketFilters", "00 20"},
    {"AlwaysOnPDUSessionRequested", "01"},
    {"ExtendedProtocolConfigurationOptions", "80 000d 00"},
    {"QoSRules", "01 0006 31 31 01 01 ff 01"},
    {"SessionAMBR", "06 0064 06 0032"},
    {"FGSMCause", "24"},
    {"PDUAddress", "01 0a2d0002"},
    {"MappedEPSBearerContexts", "05 0004 41 01 01 09"},
    {"QoSFlowDescriptions", "01 20 41 01 01 09"},
    {"AllowedSSCMode", "01"},
    {"FGSMCongestionReattemptIndicator", "01"},
    {"UENetworkCapability", "f0 f0 c0 40 01 00 00"},
    {"PTMSISignature", "010203"},
    {"TrackingAreaIdentity", "00f110 0001"},
    {"DRXParameter", "00 00"},
    {"MSNetworkCapability", "e5 60 34"},
    {"LocationAreaIdentification", "00f110 0001"},
    {"TMSIStatus", "00"},
    {"MobileStationClassmark3", "60 14 04 ef 65 23 3b 88 78 d2 9a"},
    {"AdditionalUpdateType", "01"},
    {"VoiceDomainPreference", "02"},
    {"DeviceProperties", "00"},
    {"GUTIType", "00"},
    {"MSNetworkFeatureSupport", "01"},
    {"NetworkResourceIdentifierContainer", "00 40"},
    {"UEAdditionalSecurityCapability", "00 00 00 00"},
    {"AdditionalInformationRequested", "01"},
    {"N1UENetworkCapability", "00"},
    {"UERadioCapabilityIDAvailability", "01"},
    {"WUSAssistanceInformation", "20"},
    {"NBS1DRXParameter", "00"},
    {"EMMCause", "03"},
    {"ExtendedEMMCause", "00"},
    {"TrackingAreaIdentityList", "00 00f110 0001"},
    {"PLMNList", "00f120"},
    {"EmergencyNumberList", "03 01 19 f1"},
    {"EPSNetworkFeatureSupport", "01"},
    {"AdditionalUpdateResult", "00"},
    {"DCNID", "00 01"},
    {"SMSServicesStatus", "00"},
    {"Non3GPPNWProvidedPolicies", "00"},
    {"NetworkPolicy", "00"},
    {"ExtendedEmergencyNumberList", "00 03 393131 00"},
    {"CipheringKeyData", "0001 0102030405060708090a0b0c0d0e0f10 00 00000000 2211022143 0001 00"},
    {"UERadioCapabilityIDDeletionIndication", "01"},
    {"HeaderCompressionConfigurationStatus", "00 00"},
    {"CipheringKeySequenceNumber", "07"},
    {"Nonce", "01020304"},
    {"UERadioCapabilityInformationUpdateNeeded", "01"},
    {"CSFBResponse", "01"},
    {"EMMNASMessageContainer", "09 04"},
    {"PagingIdentity", "00"},
    {"CLI", "91 21 43 65"},
    {"SSCode", "11"},
    {"LCSIndicator", "01"},
    {"LCSClientIdentity", "30 00"},
    {"GenericMessageContainerType", "03"},
    {"GenericMessageContainer", "01"},
    {"AdditionalInformation", "01"},
    {"EPSUESecurityCapability", "e0 e0"},
    {"HashMME", "0102030405060708"},
    {"EPSQoS", "09"},
    {"AccessPointName", "08 696e7465726e6574"},
    {"PDNAddress", "01 0a2d0002"},
    {"TrafficFlowTemplate", "21 31 00 02 30 11"},
    {"TransactionIdentifier", "00"},
    {"QualityOfService", "0b 92 1f 91 96 fe fe 74 72 01 01"},
    {"LLCServiceAccessPointIdentifier", "00"},
    {"RadioPriority", "01"},
    {"PacketFlowIdentifier", "00"},
    {"APNAggregateMaximumBitRate", "fe fe"},
    {"ESMCause", "1a"},
    {"ProtocolConfigurationOptions", "80 000d 00"},
    {"ConnectivityType", "01"},
    {"WLANOffloadAcceptability", "00"},
    {"NBIFOMContainer", "01 01 01"},
    {"HeaderCompressionConfiguration", "00 00 0f"},
    {"ControlPlaneOnlyIndication", "01"},
    {"ServingPLMNRateControl", "00 10"},
    {"ExtendedAPNAggregateMaximumBitRate", "03 0001 03 0001"},
    {"ExtendedEPSQoS", "03 0001 0001 03 0001 0001"},
    {"ReAttemptIndicator", "01"},
    {"ESMInformationTransferFlag", "01"},
    {"UserDataContainer", "00"},
    {"ReleaseAssistanceIndication", "00"},
    {"RemoteUEContextList", "01 0a 01 09 10 10 10 32 54 76 98 00"},
    {"PKMFAddress", "01 7f000001"},
};

// The octet of half-octet fields in front of a message body, by message.
const std::map<std::string, std::string> kB1 = {
    {"RegistrationRequest", "79"},       // ngKSI 7, follow-on request, initial registration
    {"DeregistrationRequestUEI", "01"},  // 3GPP access
    {"DeregistrationRequestUET", "01"},
    {"ServiceRequest", "10"},            // service type 1 (data)
    {"AuthenticationRequest", "00"},
    {"AuthenticationResult", "00"},
    {"IdentityRequest", "01"},           // SUCI
    {"Notification", "01"},
    {"ULNASTransport", "01"},            // N1 SM information
    {"DLNASTransport", "01"},
    {"PDUSessionEstablishmentAccept", "11"},  // IPv4, SSC mode 1
    {"Attach_request", "02"},            // combined attach, KSI 0
    {"Attach_accept", "01"},
    {"Detach_request", "01"},
    {"Tracking_area_update_request", "00"},
    {"Tracking_area_update_accept", "00"},
    {"Extended_service_request", "00"},
    {"Control_plane_service_request", "00"},
    {"Authentication_request", "00"},
    {"Identity_request", "01"},
    {"Activate_dedicated_EPS_bearer_context_request", "05"},
    {"PDN_connectivity_request", "31"},  // IPv4v6, initial request
    {"PDN_disconnect_request", "05"},
    {"Bearer_resource_allocation_request", "05"},
    {"Bearer_resource_modification_request", "05"},
};

// The activate default EPS bearer context request an attach accept carries.
const char* kDefaultBearer = "52 01 c1 01 09 09 08 696e7465726e6574 05 01 0a2d0002";

}  // namespace

std::vector<uint8_t> sampleValue(const NasMsgDesc* m, const NasElem* e) {
    std::string name = e->name;
    if (e->type->fmt == NAS_F_RAW8) {
        auto it = kB1.find(m->name);
        if (name == "mNgKSI" || name == "mNASKeySetIdentifier") return {0x00};
        return fromHex(it != kB1.end() ? it->second : "01");
    }
    if (m->discriminator == MV_EPS_MM_PD) {
        if (name == "mNASMessageContainer") name = "mNASMessageContainer_EMM";
        if (name == "mESMMessageContainer" && std::string(m->name) == "Attach_accept") return fromHex(kDefaultBearer);
        if (name == "mESMMessageContainer" && std::string(m->name) == "Attach_complete") return fromHex("52 00 c2");
        if (name == "mIMEISV") return fromHex("33 11 22 33 44 55 66 77 f8");
        if (name == "mAdditionalGUTI") return fromHex(kByMember.at("mGUTI"));
    }
    if (m->discriminator == MV_EPS_SM_PD && name == "mTFT" && std::string(m->name).rfind("Modify", 0) == 0)
        return fromHex("21 31 00 02 30 11");
    auto it = kByMember.find(name);
    if (it != kByMember.end()) return fromHex(it->second);
    auto jt = kByType.find(e->type->name);
    if (jt != kByType.end()) return fromHex(jt->second);
    ADD_FAILURE() << "no sample for " << m->name << "." << name << " (" << e->type->name << ")";
    return {0};
}

void setIe(const NasElem* e, void* record, const std::vector<uint8_t>& v) {
    const NasIeType* t = e->type;
    auto* p = static_cast<uint8_t*>(record) + e->off;
    switch (t->fmt) {
        case NAS_F_RAW8: p[0] = v.empty() ? 0 : v[0]; return;
        case NAS_F_HALF:
            p[1] = v.empty() ? 0 : v[0] & 0x0F;
            p[2] = 1;
            return;
        default: break;
    }
    if (t->kind == NAS_K_PDUADDR) {
        auto* a = reinterpret_cast<__naspdu_pdu_address*>(p);
        a->Length = uint8_t(v.size());
        a->PDUSessionType = v[0];
        memcpy(a->data, v.data() + 1, v.size() - 1);
        a->isset = 1;
        return;
    }
    if (t->kind == NAS_K_AMBR) {
        auto* a = reinterpret_cast<__naspdu_session_ambr*>(p);
        a->DownlinkUnit = v[0];
        a->Downlink = uint16_t(v[1] << 8 | v[2]);
        a->UplinkUnit = v[3];
        a->Uplink = uint16_t(v[4] << 8 | v[5]);
        a->isset = 1;
        return;
    }
    uint32_t len = uint32_t(v.size());
    uint32_t stored = t->kind == NAS_K_FGMMCAP ? len - 1 : len;
    if (t->wide) {
        uint16_t l = uint16_t(stored);
        memcpy(p + 1, &l, 2);
    } else {
        p[1] = uint8_t(stored);
    }
    memcpy(p + (t->wide ? 3 : 2), v.data(), len);
    p[t->size - 1] = 1;
}

void* sampleRecord(const NasMsgDesc* m, bool allOptional, const std::set<std::string>& leaveOut) {
    void* r = calloc(1, m->size);
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (!(e->flags & NAS_EL_ENC)) continue;
        if (!(e->flags & NAS_EL_MAND) && !allOptional) continue;
        if (leaveOut.count(e->name)) continue;
        setIe(e, r, sampleValue(m, e));
    }
    return r;
}

std::vector<uint8_t> encodeRecord(const NasMsgDesc* m, void* record) {
    static __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_encode_message(m, record, &ctx) != 0) return {};
    return std::vector<uint8_t>(ctx.buffer, ctx.buffer + ctx.pos);
}

void decodeAny(const std::vector<uint8_t>& bytes, NasDecoded& out) {
    if (!bytes.empty() && (bytes[0] == MV_5GS_MM_EPD || bytes[0] == MV_5GS_SM_EPD)) {
        out.rc = __mv_naspdu_DecodeFGMessage(&out.d, bytes.data(), uint32_t(bytes.size()));
        return;
    }
    out.d.buffer = bytes.data();
    out.d.length = int(bytes.size());
    out.rc = __mv_naspdu_DecodeMessage(&out.d);
}

int runCommand(const std::string& cmd, std::string* out) {
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        if (out) out->append(buf, n);
    int st = pclose(p);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool tsharkAvailable() {
    return runCommand("command -v tshark >/dev/null 2>&1 && command -v text2pcap >/dev/null 2>&1", nullptr) == 0;
}

namespace {

// Reads the JSON tshark writes: every "key": "value" pair with the depth of the object holding it, packet
// by packet (the objects of the top array). Duplicate keys are kept, which a JSON library would merge.
std::vector<TsharkFields> scanJson(const std::string& s) {
    std::vector<TsharkFields> packets;
    int depth = 0;
    size_t i = 0;
    auto readString = [&](std::string& v) {
        v.clear();
        for (i++; i < s.size() && s[i] != '"'; i++) {
            if (s[i] == '\\' && i + 1 < s.size()) i++;
            v += s[i];
        }
        i++;
    };
    std::string key, val;
    while (i < s.size()) {
        char c = s[i];
        if (c == '{' || c == '[') {
            depth++;
            if (c == '{' && depth == 2) packets.emplace_back();
            i++;
        } else if (c == '}' || c == ']') {
            depth--;
            i++;
        } else if (c == '"') {
            readString(key);
            size_t j = i;
            while (j < s.size() && isspace(static_cast<unsigned char>(s[j]))) j++;
            if (j < s.size() && s[j] == ':') {
                j++;
                while (j < s.size() && isspace(static_cast<unsigned char>(s[j]))) j++;
                i = j;
                if (j < s.size() && s[j] == '"') {
                    readString(val);
                    if (!packets.empty()) packets.back().push_back({key, val, depth});
                } else if (!packets.empty()) {
                    packets.back().push_back({key, "", depth});  // an object or array follows
                }
            }
        } else {
            i++;
        }
    }
    return packets;
}

}  // namespace

TsharkRun runTshark(const char* proto, const std::vector<std::vector<uint8_t>>& packets) {
    TsharkRun run;
    std::string dir = ::testing::TempDir();
    std::string args;
    for (size_t i = 0; i < packets.size(); i++) {
        std::string f = dir + "/nas_" + std::to_string(getpid()) + "_" + std::to_string(i) + ".hex";
        std::ofstream(f) << toHex(packets[i]) << "\n";
        args += " " + f;
    }
    std::string err = dir + "/nas_" + std::to_string(getpid()) + ".err";
    std::string json;
    run.rc = runCommand(std::string("sh ") + KS_WSDECODE + " -j -o nas-5gs.null_decipher:TRUE -o nas-eps.dissect_plain:TRUE pdu:" + proto + args +
                            " 2>" + err,
                        &json);
    std::ifstream in(err);
    run.report.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    run.packets = scanJson(json);
    for (size_t i = 0; i < packets.size(); i++)
        unlink((dir + "/nas_" + std::to_string(getpid()) + "_" + std::to_string(i) + ".hex").c_str());
    unlink(err.c_str());
    return run;
}

namespace {
bool endsWith(const std::string& s, const char* tail) {
    size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}
}  // namespace

std::vector<std::string> fieldValues(const TsharkFields& f, const std::string& key) {
    std::vector<std::string> out;
    for (const TsharkField& x : f)
        if (x.key == key) out.push_back(x.value);
    return out;
}

std::vector<std::string> tsharkIeis(const TsharkFields& f) {
    // IEs are the objects right under the message, whose type field is a direct child of it.
    int msgDepth = -1;
    for (const TsharkField& x : f)
        if (x.key == "nas_5gs.mm.message_type" || x.key == "nas_5gs.sm.message_type" ||
            x.key == "nas_eps.nas_msg_emm_type" || x.key == "nas_eps.nas_msg_esm_type") {
            msgDepth = x.depth;
            break;
        }
    std::vector<std::string> out;
    for (const TsharkField& f1 : f) {
        if (!endsWith(f1.key, "elem_id") || f1.depth != msgDepth + 1) continue;
        unsigned x = unsigned(strtoul(f1.value.c_str(), nullptr, 16));
        char buf[8];
        snprintf(buf, sizeof buf, x < 0x10 ? "%X-" : "%02X", x);
        out.push_back(buf);
    }
    return out;
}

std::vector<std::string> encodedIeis(const NasMsgDesc* m, const void* record) {
    std::vector<std::string> out;
    const auto* r = static_cast<const uint8_t*>(record);
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (!(e->flags & NAS_EL_ENC) || (e->flags & NAS_EL_MAND)) continue;
        const uint8_t* p = r + e->off;
        bool set = p[e->type->fmt == NAS_F_HALF ? 2 : e->type->size - 1] == 1;
        if (!set) continue;
        char buf[8];
        snprintf(buf, sizeof buf, e->type->fmt == NAS_F_HALF ? "%X-" : "%02X", e->iei);
        out.push_back(buf);
    }
    return out;
}
