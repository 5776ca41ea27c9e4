// The session transfer containers: round trips, the octets a peer reads (tshark on them
// inside the PDUs that carry them), and what the decoder makes of damaged octets.
#include <fstream>

#include "ngap_samples.h"
#include "ngap_test_env.h"

#ifndef KS_WSDECODE
#define KS_WSDECODE "wsdecode.sh"
#endif

namespace {

using mv_asn_amf::T_PDUSessionResourceModifyRequestTransfer;
using mv_asn_amf::T_PDUSessionResourceSetupRequestTransfer;
typedef MV_AMF_DT_PDUSessionResourceSetupRequestTransfer SetupTransfer;
typedef MV_AMF_DT_PDUSessionResourceModifyRequestTransfer ModifyTransfer;

std::string typeJson(const MvAsnType& t, const void* rec) {
    std::string out;
    __mv_asn_json_type(&t, &rec, out);
    return out;
}

// Decodes octets into a fresh record; the caller frees it.
int decodeTransfer(const std::vector<uint8_t>& bytes, SetupTransfer** out) {
    static __mv_asn_coding_context ctx;
    *out = kng::newRec<SetupTransfer>(T_PDUSessionResourceSetupRequestTransfer);
    if (!__mv_asn_init_decode(&ctx, bytes.data(), bytes.size())) return -1;
    return __mv_ngap_decode_pdu_PDUSessionResourceSetupRequestTransfer(*out, &ctx);
}

template <class R>
R* randomTransfer(const MvAsnType& t, uint32_t seed, int shape) {
    AsnFiller fill(seed);
    fill.allOptional = shape == 1;
    fill.minimal = shape == 2;
    void* rec = nullptr;
    fill.fill(&t, &rec);
    return static_cast<R*>(rec);
}

// tshark on PDUs; the capture is kept in keep. Empty when clean, else tshark's complaint.
std::string dissect(const std::vector<std::vector<uint8_t>>& pdus, const std::string& keep) {
    std::string args;
    for (size_t i = 0; i < pdus.size(); i++) {
        std::string f = kng::root() + "/transfer_" + std::to_string(i) + ".hex";
        std::ofstream(f) << toHex(pdus[i]) << "\n";
        args += " " + f;
    }
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + " -q -k " + keep + " ngap" + args + " 2>&1", &out);
    return rc == 0 ? "" : out.empty() ? "wsdecode failed" : out;
}

TEST(NgapTransfer, SetupTransferRoundTripsInEveryShape) {
    for (uint32_t seed = 0; seed < 40; seed++) {
        int shape = int(seed % 3);
        SCOPED_TRACE("seed " + std::to_string(seed));
        auto* rec = randomTransfer<SetupTransfer>(T_PDUSessionResourceSetupRequestTransfer, seed, shape);
        std::vector<uint8_t> bytes = kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer, rec);
        ASSERT_GE(bytes.size(), 3u);
        EXPECT_EQ(bytes[0], 0x00) << "no extension, then alignment";
        EXPECT_EQ(bytes[1] << 8 | bytes[2], rec->pDUSessionAggregateMaximumBitRate_isset +
                                                rec->uLNGUUPTNLInformation_isset +
                                                rec->additionalULNGUUPTNLInformation_isset +
                                                rec->dataForwardingNotPossible_isset + rec->pDUSessionType_isset +
                                                rec->securityIndication_isset + rec->networkInstance_isset +
                                                rec->qosFlowSetupRequestList_isset + rec->commonNetworkInstance_isset);
        SetupTransfer* back = nullptr;
        EXPECT_EQ(decodeTransfer(bytes, &back), 1);
        EXPECT_EQ(typeJson(T_PDUSessionResourceSetupRequestTransfer, back),
                  typeJson(T_PDUSessionResourceSetupRequestTransfer, rec));
        EXPECT_EQ(back->decodingError, 0);
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(back);
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(rec);
    }
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(nullptr);
}

TEST(NgapTransfer, TsharkReadsTheTransfersInsideTheirPdus) {
    if (!haveProgram("tshark")) GTEST_SKIP() << "tshark is not installed";
    std::vector<std::vector<uint8_t>> pdus;
    SetupTransfer* hand = kng::handTransfer();
    std::vector<uint8_t> handBytes =
        kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer, hand);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(hand);
    ASSERT_FALSE(handBytes.empty());
    auto* setup = kng::setupRequestWith(handBytes);
    pdus.push_back(encodePdu(kng::pduNamed("PDUSessionResourceSetupRequest"), setup));
    __mv_amf_memfree_pdu_PDUSessionResourceSetupRequest(setup);

    for (uint32_t seed = 0; seed < 12; seed++) {
        auto* st = randomTransfer<SetupTransfer>(T_PDUSessionResourceSetupRequestTransfer, 100 + seed, int(seed % 3));
        auto* s = kng::setupRequestWith(kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer, st));
        pdus.push_back(encodePdu(kng::pduNamed("PDUSessionResourceSetupRequest"), s));
        __mv_amf_memfree_pdu_PDUSessionResourceSetupRequest(s);
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(st);

        auto* mt = randomTransfer<ModifyTransfer>(T_PDUSessionResourceModifyRequestTransfer, 200 + seed, int(seed % 3));
        std::vector<uint8_t> mb = kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceModifyRequestTransfer, mt);
        ASSERT_FALSE(mb.empty());
        auto* m = kng::modifyRequestWith(mb);
        pdus.push_back(encodePdu(kng::pduNamed("PDUSessionResourceModifyRequest"), m));
        __mv_amf_memfree_pdu_PDUSessionResourceModifyRequest(m);
        __mv_amf_memfree_PDUSessionResourceModifyRequestTransfer(mt);
    }
    for (const auto& p : pdus) ASSERT_FALSE(p.empty());

    std::string cap = kng::root() + "/transfers.pcapng";
    EXPECT_EQ(dissect(pdus, cap), "");
    // The first packet's transfer, field by field as tshark reads it.
    std::string out;
    ASSERT_EQ(runCommand("tshark -r " + cap +
                             " -Y frame.number==1 -T fields -E separator='|' -e ngap.pDUSessionAggregateMaximumBitRateDL "
                             "-e ngap.TransportLayerAddressIPv4 -e ngap.gTP_TEID -e ngap.PDUSessionType "
                             "-e ngap.qosFlowIdentifier -e ngap.fiveQI -e ngap.priorityLevelARP 2>/dev/null",
                         &out),
              0);
    EXPECT_EQ(out, "1000000|10.0.0.1|01020304|0|9|9|8\n");
}

TEST(NgapTransfer, DecoderSkipsUnknownIEsKeepsWhatDecodedAndNeverReadsPastTheOctets) {
    SetupTransfer* hand = kng::handTransfer();
    std::vector<uint8_t> bytes = kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer, hand);
    std::string want = typeJson(T_PDUSessionResourceSetupRequestTransfer, hand);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(hand);
    ASSERT_EQ(bytes[2], 4);

    // An IE of a later release (id 200, ignore, one octet) after the third.
    std::vector<uint8_t> withUnknown = bytes;
    SetupTransfer* probe = nullptr;
    {
        std::vector<uint8_t> empty = {0x00, 0x00, 0x00};
        EXPECT_EQ(decodeTransfer(empty, &probe), 1) << "an empty container";
        EXPECT_EQ(typeJson(T_PDUSessionResourceSetupRequestTransfer, probe), "{}");
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);
    }
    withUnknown.insert(withUnknown.end(), {0x00, 200, 0x40, 0x01, 0x00});
    withUnknown[2] = 5;
    EXPECT_EQ(decodeTransfer(withUnknown, &probe), 1);
    EXPECT_EQ(typeJson(T_PDUSessionResourceSetupRequestTransfer, probe), want);
    EXPECT_EQ(probe->iECount, 5);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);

    // The same IE twice: the second replaces the first (and the first is freed).
    std::vector<uint8_t> twice = bytes;
    twice.insert(twice.end(), {0x00, 134, 0x00, 0x01, 0x20});  // PDUSessionType ipv4v6
    twice[2] = 5;
    EXPECT_EQ(decodeTransfer(twice, &probe), 1);
    EXPECT_EQ(probe->pDUSessionType, 2);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);

    // An empty octet string is a value: CommonNetworkInstance (id 166) stays set, length 0.
    std::vector<uint8_t> emptyString = bytes;
    emptyString.insert(emptyString.end(), {0x00, 166, 0x40, 0x01, 0x00});
    emptyString[2] = 5;
    EXPECT_EQ(decodeTransfer(emptyString, &probe), 1);
    ASSERT_EQ(probe->commonNetworkInstance_isset, 1);
    EXPECT_EQ(probe->commonNetworkInstance->length, 0u);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);

    // Every cut of the octets: a status below 1, decodingError, and what decoded before it.
    for (size_t n = 1; n < bytes.size(); n++) {
        SCOPED_TRACE("first " + std::to_string(n) + " octets");
        std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + long(n));
        int sts = decodeTransfer(cut, &probe);
        EXPECT_LT(sts, 1);
        EXPECT_EQ(probe->decodingError, 1);
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);
    }
    std::vector<uint8_t> firstIE(bytes.begin(), bytes.end() - 2);
    EXPECT_LT(decodeTransfer(firstIE, &probe), 1);
    EXPECT_EQ(probe->pDUSessionAggregateMaximumBitRate_isset, 1) << "the IEs before the damage stay";
    EXPECT_EQ(probe->qosFlowSetupRequestList_isset, 0);
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(probe);
}

TEST(NgapTransfer, EncodersRefuseWhatTheyCannotWrite) {
    __mv_asn_coding_context ctx;
    EXPECT_EQ(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer(nullptr, &ctx), -1);
    EXPECT_EQ(__mv_ngap_encode_pdu_PDUSessionResourceModifyRequestTransfer(nullptr, &ctx), -1);
    SetupTransfer* t = kng::handTransfer();
    t->pDUSessionType = 9;  // no such value
    EXPECT_LT(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer(t, &ctx), 0);
    EXPECT_EQ(ctx.pos, 0);
    EXPECT_NE(kng::stackLog().find("encoding failed for PDUSessionResourceSetupRequestTransfer"), std::string::npos);
    t->pDUSessionType = 0;
    int n = __mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer(t, &ctx);
    EXPECT_GT(n, 3);
    EXPECT_EQ(n, int(ctx.pos)) << "the byte count";
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(t);
}

}  // namespace
