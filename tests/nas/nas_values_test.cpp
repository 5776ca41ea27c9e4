// Values, not just form: what the UE's messages carry is what tshark reads in them, and what our decoders
// take from messages a core sends (built octet by octet from TS 24.501 and TS 24.301) is what tshark
// reads there too.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "mv_nas_util.h"
#include "nas_testlib.h"

namespace {

std::string first(const TsharkFields& f, const std::string& key) {
    auto v = fieldValues(f, key);
    return v.empty() ? "<missing " + key + ">" : v.front();
}

std::string dump(const TsharkFields& f) {
    std::string s;
    for (const TsharkField& x : f)
        if (!x.value.empty() && x.key.rfind("frame", 0) != 0 && x.key.rfind("exported_pdu", 0) != 0 && x.key[0] != '_')
            s += "  " + x.key + " = " + x.value + "\n";
    return s;
}

std::string colonHex(const uint8_t* p, size_t n) {
    std::string s = toHex(std::vector<uint8_t>(p, p + n)), out;
    for (size_t i = 0; i < s.size(); i += 2) out += (i ? ":" : "") + s.substr(i, 2);
    return out;
}

int failures() { return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(); }

bool clean(const TsharkFields& f, std::string& why) {
    for (const TsharkField& x : f)
        if (x.key == "nas_5gs.extraneous_data" || x.key == "nas_eps.extraneous_data" || x.key == "_ws.malformed" ||
            x.key == "_ws.expert.message")
            why += x.key + " " + x.value + "; ";
    return why.empty();
}

// A packet and the checks on what tshark made of it.
struct Case {
    std::string name;
    std::vector<uint8_t> bytes;
    std::vector<std::pair<std::string, std::string>> expect;  // field, value
    std::function<void(const TsharkFields&)> more;
};

void runCases(const char* proto, const std::vector<Case>& cases) {
    std::vector<std::vector<uint8_t>> packets;
    for (const Case& c : cases) packets.push_back(c.bytes);
    TsharkRun run = runTshark(proto, packets);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.packets.size(), cases.size()) << run.report;
    for (size_t i = 0; i < cases.size(); i++) {
        const TsharkFields& f = run.packets[i];
        SCOPED_TRACE(cases[i].name + " " + toHex(cases[i].bytes));
        int before = failures();
        std::string why;
        EXPECT_TRUE(clean(f, why)) << why;
        for (auto& [k, v] : cases[i].expect) EXPECT_EQ(first(f, k), v) << k;
        if (cases[i].more) cases[i].more(f);
        if (failures() != before) ADD_FAILURE() << "tshark fields:\n" << dump(f);
    }
}

std::vector<uint8_t> out(const __mv_asn_coding_context& c) { return {c.buffer, c.buffer + c.pos}; }

// A protected message: the security header, then the plain message.
template <class Rec>
std::vector<uint8_t> protect(uint8_t pd, uint8_t sht, uint32_t mac, uint8_t sqn, Rec* rec,
                             int (*encode)(Rec*, __mv_asn_coding_context*)) {
    static __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    __naspduFGSecurityHeader h{};
    h.ProtocolDiscriminator = pd;
    h.EPSBIOrSHT = sht;
    for (int i = 0; i < 4; i++) h.MAC[i] = uint8_t(mac >> (24 - 8 * i));
    h.SequenceNumber = sqn;
    EXPECT_EQ(__mv_naspdu_encodeSecurityHeader(&h, &c), 0);
    EXPECT_EQ(encode(rec, &c), 0);
    return out(c);
}

template <class Rec>
std::vector<uint8_t> plain(Rec* rec, int (*encode)(Rec*, __mv_asn_coding_context*)) {
    static __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    EXPECT_EQ(encode(rec, &c), 0);
    return out(c);
}

template <class IE>
void setBytes(IE& ie, const std::string& hex) {
    auto v = fromHex(hex);
    memcpy(ie.data, v.data(), v.size());
    ie.Length = decltype(ie.Length)(v.size());
    ie.isset = 1;
}

// SUCI of the null scheme: type 1, PLMN, routing indicator digits, scheme 0, key 0, MSIN in BCD.
std::vector<uint8_t> suci(uint16_t mcc, uint16_t mnc, int mnclen, const char* ri, const char* msin) {
    std::vector<uint8_t> s(8);
    s[0] = 0x01;
    __mv_nas_util__mccmnc_to_plmn(s.data() + 1, mcc, mnc, mnclen);
    auto nib = [](const char* d, size_t i) { return uint8_t(i < strlen(d) ? d[i] - '0' : 0xF); };
    s[4] = uint8_t(nib(ri, 1) << 4 | nib(ri, 0));
    s[5] = uint8_t(nib(ri, 3) << 4 | nib(ri, 2));
    for (size_t i = 0; i < strlen(msin); i += 2) s.push_back(uint8_t(nib(msin, i + 1) << 4 | nib(msin, i)));
    return s;
}

// A TS 24.008 identity of digits (1 IMSI, 3 IMEISV): the same octets as the 5GS IMEI form.
template <class IE>
void digitsIdentity(IE& ie, const char* digits, uint8_t type) {
    __naspdu_fgs_mobile_identity tmp{};
    __mv_nas_util_encode_fg_imei(&tmp, digits, int(strlen(digits)));
    tmp.data[0] = uint8_t((tmp.data[0] & 0xF8) | type);
    memcpy(ie.data, tmp.data, tmp.Length);
    ie.Length = uint8_t(tmp.Length);
    ie.isset = 1;
}

TEST(NasValues, UeMessagesCarryTheirValuesIn5GS) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::vector<Case> cases;

    {  // registration request with a SUCI, protected, as a UE with a context sends it again
        __naspduFGMM_RegistrationRequest r{};
        r.b1 = 0x79;  // ngKSI 7, follow-on request, initial registration
        auto s = suci(208, 93, 2, "1234", "0123456789");
        __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, s.data(), int(s.size()));
        r.mFGMMCapability.isset = 1;
        setBytes(r.mUESecurityCapability, "e0e0");
        const uint8_t sd[3] = {1, 2, 3};
        __mv_naspdu_addSNSSAI(&r.mRequestedNSSAI, 1, sd, nullptr, nullptr);
        setBytes(r.mLastVisitedRegisteredTAI, "02f839000007");
        r.mFGSUpdateType.Value = 1;
        r.mFGSUpdateType.isset = 1;
        cases.push_back({"RegistrationRequest", protect(0x7E, 2, 0x11223344, 5, &r, __mv_naspdu_fgmm_encodeRegistrationRequest),
                         {{"nas_5gs.security_header_type", "2"},
                          {"nas_5gs.msg_auth_code", "0x11223344"},
                          {"nas_5gs.seq_no", "5"},
                          {"nas_5gs.mm.message_type", "0x41"},
                          {"nas_5gs.mm.nas_key_set_id.h1", "7"},
                          {"nas_5gs.mm.for", "1"},
                          {"nas_5gs.mm.type_id", "1"},
                          {"e212.mcc", "208"},
                          {"e212.mnc", "93"},
                          {"nas_5gs.mm.suci.routing_indicator", "1234"},
                          {"nas_5gs.mm.suci.scheme_id", "0"},
                          {"nas_5gs.mm.suci.msin", "0123456789"},
                          {"nas_5gs.mm.sst", "1"},
                          {"nas_5gs.mm.mm_sd", "66051"},
                          {"e212.5gstai.mcc", "208"},
                          {"nas_5gs.tac", "7"},
                          {"nas_5gs.mm.5gs_reg_type", "1"}},
                         nullptr});
    }
    {  // three-digit MNC, integrity protected only
        __naspduFGMM_RegistrationRequest r{};
        r.b1 = 0x01;
        auto s = suci(310, 260, 3, "0", "987654321");
        __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, s.data(), int(s.size()));
        cases.push_back({"RegistrationRequest3DigitMNC",
                         protect(0x7E, 1, 0xdeadbeef, 255, &r, __mv_naspdu_fgmm_encodeRegistrationRequest),
                         {{"nas_5gs.security_header_type", "1"},
                          {"nas_5gs.seq_no", "255"},
                          {"e212.mcc", "310"},
                          {"e212.mnc", "260"},
                          {"nas_5gs.mm.suci.routing_indicator", "0"},
                          {"nas_5gs.mm.suci.msin", "987654321"}},
                         nullptr});
    }
    {  // emergency registration with the IMEI
        __naspduFGMM_RegistrationRequest r{};
        r.b1 = 0x04;
        __mv_nas_util_encode_fg_imei(&r.mFGSMobileIdentity, "490154203237518", 15);
        cases.push_back({"RegistrationRequestIMEI", plain(&r, __mv_naspdu_fgmm_encodeRegistrationRequest),
                         {{"nas_5gs.mm.type_id", "3"}, {"nas_5gs.mm.odd_even", "1"}, {"nas_5gs.mm.imei", "490154203237518"}},
                         nullptr});
    }
    {  // identity response with the IMEISV
        __naspduFGMM_IdentityResponse r{};
        __mv_nas_util_encode_fg_imeisv(&r.mFGSMobileIdentity, "4901542032375181", 16);
        cases.push_back({"IdentityResponse", plain(&r, __mv_naspdu_fgmm_encodeIdentityResponse),
                         {{"nas_5gs.mm.type_id", "5"}, {"nas_5gs.mm.odd_even", "0"}, {"nas_5gs.mm.imeisv", "4901542032375181"}},
                         nullptr});
    }
    const uint8_t guti[10] = {0x02, 0xf8, 0x39, 0xca, 0xfe, 0x01, 0x12, 0x34, 0x56, 0x78};
    {  // de-registration with the 5G-GUTI, switch off
        __naspduFGMM_DeregistrationRequestUEI r{};
        r.b1 = 0x09;
        __mv_nas_util_encode_fg_guti(&r.mFGSMobileIdentity, guti, 10);
        cases.push_back({"DeregistrationRequestUEI", protect(0x7E, 2, 1, 7, &r, __mv_naspdu_fgmm_encodeDeregistrationRequestUEI),
                         {{"nas_5gs.mm.switch_off", "1"},
                          {"nas_5gs.mm.acc_type", "1"},
                          {"nas_5gs.mm.type_id", "2"},
                          {"e212.guami.mcc", "208"},
                          {"e212.guami.mnc", "93"},
                          {"nas_5gs.amf_region_id", "202"},
                          {"nas_5gs.amf_set_id", "1016"},
                          {"nas_5gs.amf_pointer", "1"},
                          {"nas_5gs.5g_tmsi", "305419896"}},
                         nullptr});
    }
    {  // service request with the 5G-S-TMSI from octet 4 of the GUTI
        __naspduFGMM_ServiceRequest r{};
        r.b1 = 0x10;
        __mv_nas_util_encode_fg_s_tmsi(&r.mFGSTMSI, guti + 4, 6);
        cases.push_back({"ServiceRequest", plain(&r, __mv_naspdu_fgmm_encodeServiceRequest),
                         {{"nas_5gs.mm.serv_type", "1"},
                          {"nas_5gs.mm.type_id", "4"},
                          {"nas_5gs.amf_set_id", "1016"},
                          {"nas_5gs.amf_pointer", "1"},
                          {"nas_5gs.5g_tmsi", "305419896"}},
                         nullptr});
    }
    {  // authentication response with RES*
        __naspduFGMM_AuthenticationResponse r{};
        setBytes(r.mAuthenticationResponseParameter, "ffeeddccbbaa99887766554433221100");
        cases.push_back({"AuthenticationResponse", plain(&r, __mv_naspdu_fgmm_encodeAuthenticationResponse),
                         {{"nas_eps.emm.res", "ff:ee:dd:cc:bb:aa:99:88:77:66:55:44:33:22:11:00"}},
                         nullptr});
    }
    {  // synchronisation failure with AUTS
        __naspduFGMM_AuthenticationFailure r{};
        r.mFGMMCause.Value = 21;
        r.mFGMMCause.isset = 1;
        setBytes(r.mAuthenticationFailureParameter, "0102030405060708090a0b0c0d0e");
        cases.push_back({"AuthenticationFailure", plain(&r, __mv_naspdu_fgmm_encodeAuthenticationFailure),
                         {{"nas_5gs.mm.5gmm_cause", "21"}, {"gsm_a.dtap.auts", "01:02:03:04:05:06:07:08:09:0a:0b:0c:0d:0e"}},
                         nullptr});
    }
    {  // security mode complete with the IMEISV and the registration request inside, new context
        __naspduFGMM_RegistrationRequest inner{};
        inner.b1 = 0x01;
        auto s = suci(1, 1, 2, "0", "0000000001");
        __mv_nas_util_encode_fg_suci(&inner.mFGSMobileIdentity, s.data(), int(s.size()));
        auto innerBytes = plain(&inner, __mv_naspdu_fgmm_encodeRegistrationRequest);
        __naspduFGMM_SecurityModeComplete r{};
        __mv_nas_util_encode_fg_imeisv(&r.mIMEISV, "3534900698733190", 16);
        r.mIMEISV.IEI = 0x77;
        memcpy(r.mNASMessageContainer.data, innerBytes.data(), innerBytes.size());
        r.mNASMessageContainer.Length = uint16_t(innerBytes.size());
        r.mNASMessageContainer.isset = 1;
        cases.push_back({"SecurityModeComplete", protect(0x7E, 4, 0x01020304, 0, &r, __mv_naspdu_fgmm_encodeSecurityModeComplete),
                         {{"nas_5gs.security_header_type", "4"},
                          {"nas_5gs.mm.imeisv", "3534900698733190"},
                          {"nas_5gs.mm.suci.msin", "0000000001"}},
                         nullptr});
    }
    {  // UL NAS transport carrying a PDU session establishment request
        __naspduFGSM_PDUSessionEstablishmentRequest sm{};
        sm.pHeader.PDUSessionId = 5;
        sm.pHeader.ProcedureTransactionIdentity = 1;
        setBytes(sm.mIntegrityProtectionMaximumDataRate, "ffff");
        sm.mPDUSessionType.Value = 1;
        sm.mPDUSessionType.isset = 1;
        setBytes(sm.mExtendedProtocolConfigurationOptions, "80000d00");
        auto smBytes = plain(&sm, __mv_naspdu_fgsm_encodePDUSessionEstablishmentRequest);
        __naspduFGMM_ULNASTransport r{};
        r.b1 = 0x01;
        memcpy(r.mPayloadContainer.data, smBytes.data(), smBytes.size());
        r.mPayloadContainer.Length = uint16_t(smBytes.size());
        r.mPayloadContainer.isset = 1;
        r.mPDUSessionID.Value = 5;
        r.mPDUSessionID.isset = 1;
        r.mRequestType.Value = 1;
        r.mRequestType.isset = 1;
        setBytes(r.mSNSSAI, "01010203");
        setBytes(r.mDNN, "08696e7465726e6574");
        cases.push_back({"ULNASTransport", protect(0x7E, 2, 0, 3, &r, __mv_naspdu_fgmm_encodeULNASTransport),
                         {{"nas_5gs.mm.pld_cont_type", "1"},
                          {"nas_5gs.pdu_session_id", "5"},
                          {"nas_5gs.proc_trans_id", "1"},
                          {"nas_5gs.sm.message_type", "0xc1"},
                          {"nas_5gs.sm.pdu_session_type", "1"},
                          {"nas_5gs.mm.req_type", "1"},
                          {"nas_5gs.mm.mm_sd", "66051"},
                          {"nas_5gs.cmn.dnn", "internet"}},
                         nullptr});
    }
    {  // PDU session release request, cause 36
        __naspduFGSM_PDUSessionReleaseRequest sm{};
        sm.pHeader.PDUSessionId = 2;
        sm.pHeader.ProcedureTransactionIdentity = 255;
        sm.mFGSMCause.Value = 36;
        sm.mFGSMCause.isset = 1;
        cases.push_back({"PDUSessionReleaseRequest", plain(&sm, __mv_naspdu_fgsm_encodePDUSessionReleaseRequest),
                         {{"nas_5gs.pdu_session_id", "2"}, {"nas_5gs.proc_trans_id", "255"}, {"nas_5gs.sm.5gsm_cause", "36"}},
                         nullptr});
    }
    runCases("nas-5gs", cases);
}

TEST(NasValues, UeMessagesCarryTheirValuesInEPS) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::vector<Case> cases;
    {  // the attach request of the EPS UE, protected as after a security mode command
        __naspduAttachRequest r{};
        r.b1 = 0x02;
        digitsIdentity(r.mEPSMobileIdentity, "001010123456789", 1);
        setBytes(r.mUENetworkCapability, "f0f0c040010000");
        setBytes(r.mESMMessageContainer, "0201d031d1");
        r.mDRXParameter.isset = 1;
        setBytes(r.mMSNetworkCapability, "e56034");
        cases.push_back({"Attach_request", protect(MV_EPS_MM_PD, 1, 0xcafef00d, 9, &r, __mv_naspdu_encodeAttachRequest),
                         {{"nas_eps.security_header_type", "1"},
                          {"nas_eps.msg_auth_code", "0xcafef00d"},
                          {"nas_eps.seq_no", "9"},
                          {"nas_eps.emm.eps_att_type", "2"},
                          {"e212.imsi", "001010123456789"},
                          {"nas_eps.esm_pdn_type", "3"},
                          {"nas_eps.esm_request_type", "1"},
                          {"nas_eps.emm.esm_msg_cont", "02:01:d0:31:d1"}},
                         nullptr});
    }
    {
        __naspduAuthenticationResponse r{};
        setBytes(r.mRES, "0011223344556677");
        cases.push_back({"Authentication_response", plain(&r, __mv_naspdu_encodeAuthenticationResponse),
                         {{"nas_eps.emm.res", "00:11:22:33:44:55:66:77"}},
                         nullptr});
    }
    {
        __naspduAuthenticationFailure r{};
        r.mEMMCause.Value = 21;
        r.mEMMCause.isset = 1;
        setBytes(r.mAuthenticationFailureParameter, "0e0d0c0b0a090807060504030201");
        cases.push_back({"Authentication_failure", plain(&r, __mv_naspdu_encodeAuthenticationFailure),
                         {{"nas_eps.emm.cause", "21"}, {"gsm_a.dtap.auts", "0e:0d:0c:0b:0a:09:08:07:06:05:04:03:02:01"}},
                         nullptr});
    }
    {
        __naspduSecurityModeComplete r{};
        digitsIdentity(r.mIMEISV, "4901542032375181", 3);
        cases.push_back({"Security_mode_complete", plain(&r, __mv_naspdu_encodeSecurityModeComplete),
                         {{"gsm_a.imeisv", "4901542032375181"}},
                         nullptr});
    }
    {
        __naspduDetachRequest r{};
        r.b1 = 0x01;
        digitsIdentity(r.mEPSMobileIdentity, "001010123456789", 1);
        cases.push_back({"Detach_request", plain(&r, __mv_naspdu_encodeDetachRequest),
                         {{"nas_eps.emm.switch_off", "0"}, {"nas_eps.emm.detach_type_ul", "1"}, {"e212.imsi", "001010123456789"}},
                         nullptr});
    }
    {
        __naspduTrackingAreaUpdateRequest r{};
        r.b1 = 0x00;
        setBytes(r.mOldGUTI, "f602f839800101c0ffee01");
        cases.push_back({"Tracking_area_update_request", plain(&r, __mv_naspdu_encodeTrackingAreaUpdateRequest),
                         {{"e212.gummei.mcc", "208"}, {"e212.gummei.mnc", "93"}, {"nas_eps.emm.mme_grp_id", "32769"},
                          {"nas_eps.emm.mme_code", "1"}, {"nas_eps.emm.m_tmsi", "3237998081"}},
                         nullptr});
    }
    {
        __naspduExtendedServiceRequest r{};
        r.b1 = 0x08;
        setBytes(r.mMTMSI, "f4c0ffee01");
        cases.push_back({"Extended_service_request", plain(&r, __mv_naspdu_encodeExtendedServiceRequest),
                         {{"nas_eps.emm.service_type", "8"}, {"3gpp.tmsi", "3237998081"}},
                         nullptr});
    }
    {
        __naspduESMInformationResponse r{};
        r.pHeader.ProcedureTransactionIdentity = 1;
        setBytes(r.mAccessPointName, "08696e7465726e6574");
        cases.push_back({"ESM_information_response", plain(&r, __mv_naspdu_encodeESMInformationResponse),
                         {{"nas_eps.esm.proc_trans_id", "1"}, {"gsm_a.gm.sm.apn", "internet"}},
                         nullptr});
    }
    runCases("nas-eps", cases);
}

// ---------------------------------------------------------------- messages a core sends

std::string u(unsigned v) { return std::to_string(v); }

// Decodes a capture the way the UE does: past the security header if there is one.
void decodeCapture(const std::vector<uint8_t>& bytes, NasDecoded& d, __naspduFGSecurityHeader* sh = nullptr) {
    __naspduFGSecurityHeader tmp{};
    int off = __mv_naspdu_decodeSecurityHeader(sh ? sh : &tmp, bytes.data(), uint32_t(bytes.size()));
    ASSERT_GE(off, 0);
    decodeAny(std::vector<uint8_t>(bytes.begin() + off, bytes.end()), d);
}

// The nested octets of a decoded message outlive the decode: keep them with the case.
struct Capture {
    std::string name;
    std::string hex;
    std::function<void(const std::vector<uint8_t>&, const TsharkFields&)> check;
};

void runCaptures(const char* proto, const std::vector<Capture>& caps) {
    std::vector<std::vector<uint8_t>> packets;
    for (const Capture& c : caps) packets.push_back(fromHex(c.hex));
    TsharkRun run = runTshark(proto, packets);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.packets.size(), caps.size()) << run.report;
    for (size_t i = 0; i < caps.size(); i++) {
        SCOPED_TRACE(caps[i].name + " " + toHex(packets[i]));
        std::string why;
        EXPECT_TRUE(clean(run.packets[i], why)) << why;
        int before = failures();
        caps[i].check(packets[i], run.packets[i]);
        if (failures() != before) ADD_FAILURE() << "tshark fields:\n" << dump(run.packets[i]);
    }
}

const char* kGuti = "77000bf202f839cafe0112345678";

// The GUTI of a record against tshark's reading of it.
void expectGuti(const uint8_t* v, const TsharkFields& f) {
    uint16_t mcc, mnc;
    __mv_nas_util__plmn_to_mccmnc2(v + 1, &mcc, &mnc);
    EXPECT_EQ(v[0], 0xF2);
    EXPECT_EQ(first(f, "e212.guami.mcc"), u(mcc));
    EXPECT_EQ(first(f, "e212.guami.mnc"), u(mnc));
    EXPECT_EQ(first(f, "nas_5gs.amf_region_id"), u(v[4]));
    EXPECT_EQ(first(f, "nas_5gs.amf_set_id"), u(unsigned(v[5]) << 2 | v[6] >> 6));
    EXPECT_EQ(first(f, "nas_5gs.amf_pointer"), u(v[6] & 0x3F));
    EXPECT_EQ(first(f, "nas_5gs.5g_tmsi"), u(unsigned(v[7]) << 24 | unsigned(v[8]) << 16 | unsigned(v[9]) << 8 | v[10]));
}

TEST(NasValues, CoreMessagesDecodeToWhatTsharkReadsIn5GS) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::string sm = "2e0501c2 11 0009 010006313101 01ff09 06 060064 060032 29 05 01 0a2d0002 22 04 01 010203"
                     " 79 0006 092041010109 7b 0008 80000d0408080808 25 09 08696e7465726e6574";
    std::string smHex;
    for (char c : sm)
        if (c != ' ') smHex += c;
    char len[24];
    snprintf(len, sizeof len, "%04zx", smHex.size() / 2);
    const std::vector<Capture> caps = {
        {"RegistrationAccept as a core sends it: the walk stops at the TAI list behind the GUTI",
         std::string("7e0042 0101 ") + kGuti + " 54070002f839000001 1502010150020000 5e0106 16012c",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_RegistrationAccept>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(d.d.iStatus, NAS_DECODE_IE_NOT_TAKEN);
             EXPECT_EQ(d.d.iUnSuccessfulElementId, 0x54);
             EXPECT_EQ(first(f, "nas_5gs.mm.reg_res.res"), u(r->mFGSRegistrationResult.Value & 7));
             ASSERT_EQ(r->mFGGUTI.isset, 1);
             expectGuti(r->mFGGUTI.data, f);
             EXPECT_EQ(r->mT3512Value.isset, 0);
         }},
        {"RegistrationAccept with the GUTI and both timers",
         std::string("7e0042 0101 ") + kGuti + " 5e0126 16012c",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_RegistrationAccept>();
             EXPECT_EQ(d.d.iStatus, 0);
             expectGuti(r->mFGGUTI.data, f);
             ASSERT_EQ(r->mT3512Value.isset, 1);
             ASSERT_EQ(r->mT3502Value.isset, 1);
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer3_unit"), u(r->mT3512Value.Value >> 5));
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer3_value"), u(r->mT3512Value.Value & 31));
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer2_unit"), u(r->mT3502Value.Value >> 5));
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer2_value"), u(r->mT3502Value.Value & 31));
         }},
        {"AuthenticationRequest",
         "7e0056 02 020000 21 00112233445566778899aabbccddeeff 2010 0123456789abcdef0123456789abcdef",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_AuthenticationRequest>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(d.d.iStatus, 0);
             EXPECT_EQ(first(f, "nas_5gs.mm.nas_key_set_id"), u(r->b1 & 7));
             EXPECT_EQ(first(f, "nas_5gs.mm.abba_contents"), colonHex(r->mABBA.data, r->mABBA.Length));
             EXPECT_EQ(first(f, "gsm_a.dtap.rand"), colonHex(r->mRAND.data, 16));
             EXPECT_EQ(first(f, "gsm_a.dtap.autn"), colonHex(r->mAUTN.data, r->mAUTN.Length));
         }},
        {"SecurityModeCommand with a new context; the replayed S1 capabilities hold an octet E0",
         "7e03 a1b2c3d4 00 7e005d 02 02 04e0e0c0c0 e1 5702 360102 38020000 1904e0e0c0c0",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             __naspduFGSecurityHeader sh{};
             decodeCapture(b, d, &sh);
             EXPECT_EQ(first(f, "nas_5gs.security_header_type"), u(sh.EPSBIOrSHT));
             EXPECT_EQ(first(f, "nas_5gs.msg_auth_code"), "0x" + toHex({sh.MAC, sh.MAC + 4}));
             EXPECT_EQ(first(f, "nas_5gs.seq_no"), u(sh.SequenceNumber));
             auto* r = d.rec<__naspduFGMM_SecurityModeCommand>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_5gs.mm.nas_sec_algo_enc"), u(r->mSelectedNASSecurityAlgorithms.Value >> 4));
             EXPECT_EQ(first(f, "nas_5gs.mm.nas_sec_algo_ip"), u(r->mSelectedNASSecurityAlgorithms.Value & 15));
             EXPECT_EQ(first(f, "nas_5gs.mm.nas_key_set_id"), u(r->mNgKSI & 7));
             ASSERT_EQ(r->mIMEISVRequest.isset, 1);
             EXPECT_EQ(first(f, "nas_eps.emm.imeisv_req"), u(r->mIMEISVRequest.Value & 7));
             ASSERT_EQ(r->mAdditional5GSecurityInformation.isset, 1);
             EXPECT_EQ(first(f, "nas_5gs.mm.rinmr"), u(r->mAdditional5GSecurityInformation.Value >> 1 & 1));
             EXPECT_EQ(first(f, "nas_5gs.mm.hdp"), u(r->mAdditional5GSecurityInformation.Value & 1));
         }},
        {"DLNASTransport with a PDU session establishment accept",
         std::string("7e0068 01 ") + len + smHex + " 1205",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* t = d.rec<__naspduFGMM_DLNASTransport>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(t->b1 & 15, 1);
             ASSERT_EQ(t->mPDUSessionID.isset, 1);
             EXPECT_EQ(fieldValues(f, "nas_5gs.pdu_session_id").back(), u(t->mPDUSessionID.Value));
             NasDecoded in;
             decodeAny({t->mPayloadContainer.data, t->mPayloadContainer.data + t->mPayloadContainer.Length}, in);
             auto* a = in.rec<__naspduFGSM_PDUSessionEstablishmentAccept>();
             ASSERT_EQ(in.d.iMandatoryDecoded, 1);
             EXPECT_EQ(in.d.iStatus, 0);
             auto* h = &a->pHeader;
             EXPECT_EQ(first(f, "nas_5gs.pdu_session_id"), u(h->PDUSessionId));
             EXPECT_EQ(first(f, "nas_5gs.proc_trans_id"), u(h->ProcedureTransactionIdentity));
             EXPECT_EQ(first(f, "nas_5gs.sm.pdu_session_type"), u(a->b1 & 7));
             EXPECT_EQ(first(f, "nas_5gs.sm.sel_sc_mode"), u(a->b1 >> 4 & 7));
             EXPECT_EQ(first(f, "nas_5gs.sm.qos_rule_id"), u(a->mAuthorizedQoSRules.data[0]));
             EXPECT_EQ(first(f, "nas_5gs.sm.qfi"), u(a->mAuthorizedQoSRules.data[a->mAuthorizedQoSRules.Length - 1] & 0x3F));
             EXPECT_EQ(first(f, "nas_5gs.sm.unit_for_session_ambr_dl"), u(a->mSessionAMBR.DownlinkUnit));
             EXPECT_EQ(first(f, "nas_5gs.sm.session_ambr_dl"), u(a->mSessionAMBR.Downlink));
             EXPECT_EQ(first(f, "nas_5gs.sm.unit_for_session_ambr_ul"), u(a->mSessionAMBR.UplinkUnit));
             EXPECT_EQ(first(f, "nas_5gs.sm.session_ambr_ul"), u(a->mSessionAMBR.Uplink));
             ASSERT_EQ(a->mPDUAddress.isset, 1);
             EXPECT_EQ(first(f, "nas_5gs.sm.pdu_addr_inf_ipv4"),
                       u(a->mPDUAddress.data[0]) + "." + u(a->mPDUAddress.data[1]) + "." + u(a->mPDUAddress.data[2]) +
                           "." + u(a->mPDUAddress.data[3]));
             EXPECT_EQ(a->mPDUAddress.PDUSessionType & 7, 1);
             EXPECT_EQ(first(f, "nas_5gs.mm.sst"), u(a->mSNSSAI.data[0]));
             EXPECT_EQ(first(f, "nas_5gs.mm.mm_sd"), u(unsigned(a->mSNSSAI.data[1]) << 16 | a->mSNSSAI.data[2] << 8 | a->mSNSSAI.data[3]));
             ASSERT_EQ(a->mQFDA.isset, 1);
             EXPECT_EQ(fieldValues(f, "nas_5gs.sm.qfi").back(), u(a->mQFDA.data[0] & 0x3F));
             ASSERT_EQ(a->mDNN.isset, 1);
             EXPECT_EQ(first(f, "nas_5gs.cmn.dnn"), std::string(reinterpret_cast<const char*>(a->mDNN.data + 1), a->mDNN.data[0]));
             EXPECT_EQ(first(f, "gsm_a.gm.sm.pco.dns.ipv4"), "8.8.8.8");
             EXPECT_EQ(a->mExtendedProtocolConfigurationOptions.Length, 8);
         }},
        {"ConfigurationUpdateCommand",
         std::string("7e0054 ") + kGuti + " 4303 804b53 47 5211022143 6540 490100",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_ConfigurationUpdateCommand>();
             EXPECT_EQ(d.d.iStatus, 0);
             expectGuti(r->mFGGUTI.data, f);
             EXPECT_EQ(r->mFullNameForNetwork.isset, 1);
             EXPECT_EQ(r->mUniversalTimeAndLocalTimeZone.isset, 1);
             EXPECT_EQ(first(f, "gsm_a.dtap.dst_adjustment"), u(r->mNetworkDaylightSavingTime.Value & 3));
         }},
        {"RegistrationReject: cause read, T3346 not taken",
         "7e0044 07 5f0121",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_RegistrationReject>();
             EXPECT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_5gs.mm.5gmm_cause"), u(r->mFGMMCause.Value));
             EXPECT_STREQ(__mv_naspdu_get5GMMCause(r->mFGMMCause.Value), "5GS_services_not_allowed");
         }},
        {"DeregistrationRequestUET",
         "7e0047 02 5803",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduFGMM_DeregistrationRequestUET>();
             EXPECT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_5gs.mm.acc_type"), u(r->b1 & 3));
             EXPECT_EQ(first(f, "nas_5gs.mm.re_reg_req"), u(r->b1 >> 2 & 1));
         }},
    };
    runCaptures("nas-5gs", caps);
}

TEST(NasValues, CoreMessagesDecodeToWhatTsharkReadsInEPS) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    const std::vector<Capture> caps = {
        {"Attach_accept with the default bearer",
         "0742 02 21 06 0002f8390001 0025 5201c1 0109 0908696e7465726e6574 05010a2d0002 5e04fefefafa 27088000"
         "0d0408080808 500bf602f839800101c0ffee01 1302f8390001 2305f412345678 1721 4a0302f829 640101",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduAttachAccept>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(d.d.iStatus, 0);
             EXPECT_EQ(first(f, "nas_eps.emm.EPS_attach_result"), u(r->b1 & 7));
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer_value"), u(r->mT3412Value.Value & 31));
             ASSERT_EQ(r->mGUTI.isset, 1);
             const uint8_t* g = r->mGUTI.data;
             uint16_t mcc, mnc;
             __mv_nas_util__plmn_to_mccmnc2(g + 1, &mcc, &mnc);
             EXPECT_EQ(first(f, "e212.gummei.mcc"), u(mcc));
             EXPECT_EQ(first(f, "e212.gummei.mnc"), u(mnc));
             EXPECT_EQ(first(f, "nas_eps.emm.mme_grp_id"), u(unsigned(g[4]) << 8 | g[5]));
             EXPECT_EQ(first(f, "nas_eps.emm.mme_code"), u(g[6]));
             EXPECT_EQ(first(f, "nas_eps.emm.m_tmsi"), u(unsigned(g[7]) << 24 | g[8] << 16 | g[9] << 8 | g[10]));
             EXPECT_EQ(r->mMSIdentity.isset, 1);
             EXPECT_EQ(r->mEquivalentPLMNs.Length, 3);
             EXPECT_EQ(r->mEPSNetworkFeatureSupport.isset, 1);
             NasDecoded esm;
             decodeAny({r->mESMMessageContainer.data, r->mESMMessageContainer.data + r->mESMMessageContainer.Length}, esm);
             auto* e = esm.rec<__naspduActivateDefaultEPSBearerContextRequest>();
             ASSERT_EQ(esm.d.iMandatoryDecoded, 1);
             EXPECT_EQ(esm.d.iStatus, 0);
             EXPECT_EQ(first(f, "nas_eps.bearer_id"), u(e->pHeader.ProtocolDiscriminator >> 4));
             EXPECT_EQ(first(f, "nas_eps.esm.proc_trans_id"), u(e->pHeader.ProcedureTransactionIdentity));
             EXPECT_EQ(first(f, "nas_eps.esm.qci"), u(e->mEPSQoS.data[0]));
             EXPECT_EQ(first(f, "gsm_a.gm.sm.apn"), "internet");
             EXPECT_EQ(e->mPDNAddress.data[0] & 7, 1);
             EXPECT_EQ(first(f, "nas_eps.esm.pdn_ipv4"),
                       u(e->mPDNAddress.data[1]) + "." + u(e->mPDNAddress.data[2]) + "." + u(e->mPDNAddress.data[3]) +
                           "." + u(e->mPDNAddress.data[4]));
             EXPECT_EQ(e->mAPNAMBR.Length, 4);
             EXPECT_EQ(e->mProtocolConfigurationOptions.Length, 8);
         }},
        {"Authentication_request",
         "0752 01 00112233445566778899aabbccddeeff 10 0123456789abcdef0123456789abcdef",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduAuthenticationRequest>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_eps.emm.nas_key_set_id"), u(r->b1 & 7));
             EXPECT_EQ(first(f, "gsm_a.dtap.rand"), colonHex(r->mRAND.data, 16));
             EXPECT_EQ(first(f, "gsm_a.dtap.autn"), colonHex(r->mAUTN.data, 16));
         }},
        {"Security_mode_command with a new context",
         "37 0a0b0c0d 00 075d 02 01 02e0e0 c1",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             __naspduFGSecurityHeader sh{};
             decodeCapture(b, d, &sh);
             EXPECT_EQ(first(f, "nas_eps.security_header_type"), u(sh.EPSBIOrSHT));
             EXPECT_EQ(first(f, "nas_eps.msg_auth_code"), "0x" + toHex({sh.MAC, sh.MAC + 4}));
             EXPECT_EQ(first(f, "nas_eps.seq_no"), u(sh.SequenceNumber));
             auto* r = d.rec<__naspduSecurityModeCommand>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_eps.emm.toc"), u(r->mSelectedNASSecurityAlgorithms.Value >> 4 & 7));
             EXPECT_EQ(first(f, "nas_eps.emm.toi"), u(r->mSelectedNASSecurityAlgorithms.Value & 7));
             EXPECT_EQ(first(f, "nas_eps.emm.nas_key_set_id"), u(r->mNASKeySetIdentifier & 7));
             EXPECT_EQ(first(f, "nas_eps.emm.imeisv_req"), u(r->mIMEISVRequest.Value & 7));
         }},
        {"Identity_request",
         "0755 01",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             EXPECT_EQ(first(f, "nas_eps.emm.id_type2"), u(d.rec<__naspduIdentityRequest>()->b1 & 7));
         }},
        {"Tracking_area_update_accept",
         "0749 00 5a21 500bf602f839800101c0ffee01 54060002f8390002 57022000",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduTrackingAreaUpdateAccept>();
             EXPECT_EQ(d.d.iStatus, 0);
             const uint8_t* g = r->mGUTI.data;
             EXPECT_EQ(first(f, "nas_eps.emm.m_tmsi"), u(unsigned(g[7]) << 24 | g[8] << 16 | g[9] << 8 | g[10]));
             EXPECT_EQ(first(f, "gsm_a.gm.gmm.gprs_timer_value"), u(r->mT3412Value.Value & 31));
             EXPECT_EQ(first(f, "nas_eps.emm.tai_tac"), u(unsigned(r->mTAIList.data[4]) << 8 | r->mTAIList.data[5]));
         }},
        {"Detach_request from the network",
         "0745 02 5307",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduDetachRequest>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(d.d.iStatus, 0);
             EXPECT_EQ(r->mEPSMobileIdentity.isset, 0);
             ASSERT_EQ(r->mEMMCause.isset, 1);
             EXPECT_EQ(first(f, "nas_eps.emm.cause"), u(r->mEMMCause.Value));
             EXPECT_EQ(first(f, "nas_eps.emm.detach_type_dl"), u(r->b1 & 7));
         }},
        {"EMM_information",
         "0761 4303804b53 4503804b53 4640 4752110221436540 490101",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduEMMInformation>();
             EXPECT_EQ(d.d.iStatus, 0);
             EXPECT_EQ(r->mFullNameForNetwork.isset + r->mShortNameForNetwork.isset + r->mLocalTimeZone.isset +
                           r->mUniversalTimeAndLocalTimeZone.isset,
                       4);
             EXPECT_EQ(first(f, "gsm_a.dtap.dst_adjustment"), u(r->mNetworkDaylightSavingTime.Value & 3));
         }},
        {"ESM_information_request",
         "0201d9",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             EXPECT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_eps.esm.proc_trans_id"), u(d.rec<__naspduESMInformationRequest>()->pHeader.ProcedureTransactionIdentity));
         }},
        {"Activate_dedicated_EPS_bearer_context_request",
         "6200c5 05 050140404040 06213100023011",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             auto* r = d.rec<__naspduActivateDedicatedEPSBearerContextRequest>();
             ASSERT_EQ(d.d.iMandatoryDecoded, 1);
             EXPECT_EQ(first(f, "nas_eps.bearer_id"), u(r->pHeader.ProtocolDiscriminator >> 4));
             EXPECT_EQ(first(f, "nas_eps.esm.linked_bearer_id"), u(r->b1 & 15));
             EXPECT_EQ(first(f, "nas_eps.esm.qci"), u(r->mEPSQoS.data[0]));
             EXPECT_EQ(r->mTFT.Length, 6);
         }},
        {"PDN_connectivity_reject",
         "0201d1 1b",
         [](const std::vector<uint8_t>& b, const TsharkFields& f) {
             NasDecoded d;
             decodeCapture(b, d);
             EXPECT_EQ(first(f, "nas_eps.esm.cause"), u(d.rec<__naspduPDNConnectivityReject>()->mESMCause.Value));
         }},
    };
    runCaptures("nas-eps", caps);
}

}  // namespace
