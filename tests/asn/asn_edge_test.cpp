// The cases that carry weight: length forms at 127/128, the largest UE ids, an extended BitRate,
// list bounds, a CHOICE index with no alternative, an unknown IE, the IE name tables, and decoders
// given truncated or corrupted input.
#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <memory>

#include "asn_testlib.h"
#include "mv_core.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

namespace {

using namespace mv_asn_amf;

__mv_asn_coding_context g_ctx;

std::vector<uint8_t> bytesOf(const __mv_asn_coding_context& c) { return {c.buffer, c.buffer + c.pos}; }

__mv_amf_dt_NAS_PDU* nas(size_t n) {
    std::vector<uint8_t> v(n, 0x7e);
    __mv_amf_dt_NAS_PDU* p = nullptr;
    __mv_amf_init_NAS_PDU2(&p, v.data(), uint32_t(v.size()));
    return p;
}

__mv_amf_dt_DownlinkNASTransport* downlink(unsigned long long amf, unsigned long long ran, size_t nasLen) {
    __mv_amf_dt_DownlinkNASTransport* m = nullptr;
    __mv_amf_init_DownlinkNASTransport(&m);
    m->aMFUENGAPID = amf;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = ran;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = nas(nasLen);
    m->nASPDU_isset = 1;
    return m;
}

TEST(AsnEdge, OpenTypeAndPduLengthForms) {
    struct Case {
        size_t nasLen;
        uint8_t ieLen0;  // first length octet of the NAS-PDU IE
        bool pduLong;
    };
    // the IE value is the NAS length octet(s) plus the NAS bytes
    for (const Case& c : {Case{126, 127, true}, Case{127, 0x80, true}, Case{10, 11, false}}) {
        SCOPED_TRACE(c.nasLen);
        auto* m = downlink(1, 2, c.nasLen);
        __mv_asn_init_CodingContext(&g_ctx);
        ASSERT_GT(__mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx), 0);
        std::vector<uint8_t> b = bytesOf(g_ctx);
        // byte 3 is the PDU length; with 0x80 set the IE count moves to bytes 6 and 7
        size_t countAt = c.pduLong ? 6 : 5;
        EXPECT_EQ(bool(b[3] & 0x80), c.pduLong);
        EXPECT_EQ(b[countAt] << 8 | b[countAt + 1], 3);
        std::string hex = toHex(b);
        // id 38, criticality reject, then the open-type length: 127 in one octet, 128 in two
        std::string nasIe = c.ieLen0 == 0x80 ? "00260080807f" : "002600" + toHex({c.ieLen0});
        EXPECT_NE(hex.find(nasIe), std::string::npos) << hex;
        void* back = nullptr;
        EXPECT_EQ(decodePdu(&kPdus[0], b, &back), -1);  // another message's tables refuse it
        __mv_asn_memfree_pdu(&kPdus[0], back);
        ASSERT_EQ(__mv_asn_init_decode(&g_ctx, b.data(), b.size()), 1);
        auto* d = static_cast<__mv_amf_dt_DownlinkNASTransport*>(__mv_asn_new_record(&T_DownlinkNASTransport));
        EXPECT_EQ(__mv_amf_decode_pdu_DownlinkNASTransport(d, &g_ctx), 1);
        EXPECT_EQ(d->iECount, 3);
        ASSERT_EQ(d->nASPDU_isset, 1);
        EXPECT_EQ(d->nASPDU->length, c.nasLen);
        __mv_amf_memfree_pdu_DownlinkNASTransport(d);
        __mv_amf_memfree_pdu_DownlinkNASTransport(m);
    }
}

std::vector<std::string> gLogged;
void keepLine(int, const char* line) { gLogged.push_back(line); }

TEST(AsnEdge, CodingBufferBoundIsNeverPassed) {
    __mv_asn_set_log_sink(keepLine, MV_LOG_ERROR);
    // NAS-PDUs around the bound: the PDU either fits in the buffer or is refused with a log line
    bool fitted = false, refused = false;
    for (size_t n = 4960; n <= 4990; n++) {
        SCOPED_TRACE(n);
        gLogged.clear();
        auto* m = downlink(1, 2, n);
        __mv_asn_init_CodingContext(&g_ctx);
        int r = __mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx);
        __mv_amf_memfree_pdu_DownlinkNASTransport(m);
        if (r > 0) {
            EXPECT_EQ(r, int(g_ctx.pos)) << "the byte count";
            fitted = true;
            EXPECT_LE(g_ctx.pos, MV_ASN_BUFFER_SIZE);
            EXPECT_TRUE(gLogged.empty());
            // and what fits is read back
            std::vector<uint8_t> b = bytesOf(g_ctx);
            const MvAsnPdu* p = __mv_asn_find_pdu(kPdus, kPduCount, b.data(), b.size());
            ASSERT_NE(p, nullptr);
            void* back = nullptr;
            EXPECT_EQ(decodePdu(p, b, &back), 1);
            __mv_asn_memfree_pdu(p, back);
        } else {
            refused = true;
            EXPECT_LT(r, 0);
            ASSERT_FALSE(gLogged.empty());
            EXPECT_NE(gLogged[0].find("does not fit the coding buffer of 5000 bytes"), std::string::npos) << gLogged[0];
        }
    }
    EXPECT_TRUE(fitted && refused) << "the range crosses the bound";

    // a received PDU larger than the buffer is not copied in
    gLogged.clear();
    std::vector<uint8_t> big(MV_ASN_BUFFER_SIZE + 1, 0);
    __mv_asn_coding_context d;
    EXPECT_EQ(__mv_asn_init_decode(&d, big.data(), big.size()), 0);
    EXPECT_EQ(d.len, 0);
    ASSERT_EQ(gLogged.size(), 1u);
    EXPECT_NE(gLogged[0].find("PDU of 5001 bytes is larger than the coding buffer (5000), dropped"), std::string::npos);
    EXPECT_EQ(__mv_asn_init_decode(&d, big.data(), MV_ASN_BUFFER_SIZE), 1);
    __mv_asn_set_log_sink(nullptr, 0);
}

// Where X.691 decides the form: after three bits of something else, a whole number of 129 to 255
// values is an unaligned bit-field, of 256 an aligned octet; an ENUMERATED extension value is its
// index as a normally small number with nothing aligned after it.
TEST(AsnEdge, WholeNumberAndEnumeratedFormsFollowX691) {
    struct Case {
        const char* what;
        int64_t ub;
        uint64_t v;
        const char* hex;
    };
    for (const Case& c : {Case{"0..127", 127, 0x7F, "bfc0"}, Case{"0..128", 128, 0x80, "b000"},
                          Case{"0..254", 254, 0xFE, "bfc0"}, Case{"0..255", 255, 0xAA, "a0aa"},
                          Case{"0..256", 256, 0xAA, "a000aa"}}) {
        SCOPED_TRACE(c.what);
        __mv_asn_init_CodingContext(&g_ctx);
        ASSERT_EQ(__mv_asn_add_value_bits(5, 3, &g_ctx), 1);  // 101
        ASSERT_EQ(__mv_asn_AddConstrainedInteger(c.v, 0, 0, c.ub, 0, &g_ctx), 1);
        __mv_asn_pad_bits(&g_ctx);
        EXPECT_EQ(toHex(bytesOf(g_ctx)), c.hex);
        __mv_asn_coding_context d;
        ASSERT_EQ(__mv_asn_init_decode(&d, g_ctx.buffer, g_ctx.pos), 1);
        uint64_t skip = 0, v = 0;
        int isset = 0;
        ASSERT_EQ(__mv_asn_get_bits(3, &skip, &d), 1);
        EXPECT_EQ(__mv_asn_GetConstrainedInteger(&v, &isset, 0, c.ub, 0, &d), 1);
        EXPECT_EQ(v, c.v);
    }
    // ENUMERATED { a, b, c, ... , d, e }: e is extension index 1: bit 1, then 0 and six bits of 1,
    // and the next bit follows at once
    __mv_asn_init_CodingContext(&g_ctx);
    ASSERT_EQ(__mv_asn_AddEnum(4, 1, 1, 3, 2, &g_ctx), 1);
    ASSERT_EQ(__mv_asn_add_bit(1, &g_ctx), 1);
    __mv_asn_pad_bits(&g_ctx);
    EXPECT_EQ(toHex(bytesOf(g_ctx)), "8180");
    __mv_asn_coding_context d;
    ASSERT_EQ(__mv_asn_init_decode(&d, g_ctx.buffer, g_ctx.pos), 1);
    EXPECT_EQ(__mv_asn_get_bit_val(&d), 1);
    EXPECT_EQ(__mv_asn_GetEnum(1, 3, &d), 4);
    EXPECT_EQ(__mv_asn_get_bit_val(&d), 1);
}

TEST(AsnEdge, LargestUeIdsAndTheirLengthFields) {
    auto* m = downlink((1ull << 40) - 1, 0xFFFFFFFFull, 3);
    __mv_asn_init_CodingContext(&g_ctx);
    ASSERT_GT(__mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx), 0);
    std::string hex = toHex(bytesOf(g_ctx));
    // AMF-UE-NGAP-ID: 3-bit octet count 4 (five octets); RAN-UE-NGAP-ID: 2-bit count 3 (four octets)
    EXPECT_NE(hex.find("000a00068" "0ffffffffff"), std::string::npos) << hex;
    EXPECT_NE(hex.find("00550005c0ffffffff"), std::string::npos) << hex;
    m->aMFUENGAPID = 1ull << 40;  // above the bound of a type with no extension
    __mv_asn_init_CodingContext(&g_ctx);
    EXPECT_LT(__mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx), 0);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
}

TEST(AsnEdge, ExtendedBitRateTakesTheExtensionBitAndALengthOctet) {
    struct Case {
        unsigned long long v;
        const char* hex;
    };
    // root: extension bit 0, a 3-bit octet count (six octets), aligned octets; above: bit 1 and
    // an unconstrained number behind a length octet
    for (const Case& c : {Case{4000000000000ull, "5003a352944000"}, Case{4000000000001ull, "800603a352944001"}}) {
        SCOPED_TRACE(c.v);
        __mv_asn_init_CodingContext(&g_ctx);
        ASSERT_EQ(__mv_amf_Encode_BitRate(c.v, 1, &g_ctx), 1);
        __mv_asn_pad_bits(&g_ctx);
        EXPECT_EQ(toHex(bytesOf(g_ctx)), c.hex);
        __mv_asn_coding_context d;
        ASSERT_EQ(__mv_asn_init_decode(&d, g_ctx.buffer, g_ctx.pos), 1);
        unsigned long long v = 0;
        int isset = 0;
        EXPECT_EQ(__mv_amf_Decode_BitRate(&v, &isset, 1, &d), 1);
        EXPECT_EQ(v, c.v);
        EXPECT_EQ(isset, 1);
    }
}

TEST(AsnEdge, ListBoundsAreRefused) {
    struct Case {
        int items;
        int status;
    };
    for (const Case& c : {Case{0, -1}, Case{257, -ENOENT}, Case{1, 1}}) {
        SCOPED_TRACE(c.items);
        __mv_amf_dt_SupportedTAList* l = nullptr;
        __mv_amf_init_SupportedTAList(&l);
        for (int i = 0; i < c.items; i++) {
            AsnFiller f{uint32_t(i)};
            f.minimal = true;
            void* item = nullptr;
            f.fill(&T_SupportedTAItem, &item);
            __mv_asn_list* list = l->SupportedTAItem;
            __mv_asn_list_add(&list, item);
            l->SupportedTAItem = list;
        }
        __mv_asn_init_CodingContext(&g_ctx);
        EXPECT_EQ(__mv_amf_Encode_SupportedTAList(l, 0, &g_ctx), c.status);
        __mv_amf_memfree_SupportedTAList(l);
    }
}

TEST(AsnEdge, ChoiceIndexWithoutAlternativeIsRefused) {
    // GlobalRANNodeID: 2-bit index 3 is choice-Extensions, which this release leaves empty
    uint8_t v[] = {0x02, 0xC0, 0x00};
    __mv_asn_coding_context d;
    ASSERT_EQ(__mv_asn_init_decode(&d, v, sizeof v), 1);
    __mv_amf_dt_GlobalRANNodeID* r = nullptr;
    int isset = 7;
    EXPECT_EQ(__mv_amf_Decode_GlobalRANNodeID(&r, &isset, 0, &d), -1);
    EXPECT_EQ(d.iError, unsigned(MV_ASN_DECODE_ERROR_CHOICE));
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(isset, 0);
    __mv_amf_init_GlobalRANNodeID(&r);
    r->SelectedChoice = 3;
    __mv_asn_init_CodingContext(&g_ctx);
    EXPECT_EQ(__mv_amf_Encode_GlobalRANNodeID(r, 0, &g_ctx), -1);
    __mv_amf_memfree_GlobalRANNodeID(r);
}

TEST(AsnEdge, UnknownIeIsSkippedAndDecodingGoesOn) {
    auto* m = downlink(5, 6, 4);
    __mv_asn_init_CodingContext(&g_ctx);
    ASSERT_GT(__mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx), 0);
    std::vector<uint8_t> b = bytesOf(g_ctx);
    // rename the first IE (AMF-UE-NGAP-ID, id 10) to an id the message does not have
    ASSERT_EQ(b[7], 0x00);
    ASSERT_EQ(b[8], 0x0a);
    b[8] = 0xF0;
    ASSERT_EQ(__mv_asn_init_decode(&g_ctx, b.data(), b.size()), 1);
    auto* d = static_cast<__mv_amf_dt_DownlinkNASTransport*>(__mv_asn_new_record(&T_DownlinkNASTransport));
    EXPECT_EQ(__mv_amf_decode_pdu_DownlinkNASTransport(d, &g_ctx), 1);
    EXPECT_EQ(d->aMFUENGAPID_isset, 0);
    EXPECT_EQ(d->rANUENGAPID_isset, 1);
    EXPECT_EQ(d->rANUENGAPID, 6u);
    EXPECT_EQ(d->nASPDU_isset, 1);
    __mv_amf_memfree_pdu_DownlinkNASTransport(d);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
}

// An empty string is a value: the IE stays set, with a record of length 0.
TEST(AsnEdge, ReceivedEmptyStringStaysSet) {
    auto* m = downlink(5, 6, 0);
    __mv_asn_init_CodingContext(&g_ctx);
    ASSERT_GT(__mv_amf_encode_pdu_DownlinkNASTransport(m, &g_ctx), 0);
    std::vector<uint8_t> sent = bytesOf(g_ctx);
    __mv_asn_coding_context d;
    ASSERT_EQ(__mv_asn_init_decode(&d, sent.data(), sent.size()), 1);
    auto* r = static_cast<__mv_amf_dt_DownlinkNASTransport*>(__mv_asn_new_record(&T_DownlinkNASTransport));
    EXPECT_EQ(__mv_amf_decode_pdu_DownlinkNASTransport(r, &d), 1);
    ASSERT_EQ(r->nASPDU_isset, 1);
    ASSERT_NE(r->nASPDU, nullptr);
    EXPECT_EQ(r->nASPDU->length, 0u);
    EXPECT_EQ(r->iECount, 3);
    EXPECT_EQ(toHex(encodePdu(__mv_asn_find_pdu(kPdus, kPduCount, sent.data(), sent.size()), r)), toHex(sent));
    __mv_amf_memfree_pdu_DownlinkNASTransport(r);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
}

TEST(AsnEdge, IeNameTables) {
    const char* n = nullptr;
    EXPECT_EQ(__mv_amf_get_ie_name(1, &n), 1);
    EXPECT_STREQ(n, "id-AMFName");
    EXPECT_EQ(__mv_amf_get_ie_name(173, &n), 1);
    EXPECT_STREQ(n, "id-SCTP-TLAs");
    EXPECT_EQ(__mv_amf_get_ie_name(113, &n), 0);
    EXPECT_STREQ(n, "INVALID-IE-ID");
    EXPECT_EQ(__mv_amf_get_ie_name(174, &n), 0);
    EXPECT_EQ(__mv_mme_get_ie_name(0, &n), 1);
    EXPECT_STREQ(n, S1AP_IE_id_MME_UE_S1AP_ID);
    EXPECT_EQ(__mv_mme_get_ie_name(298, &n), 1);
    EXPECT_STREQ(n, "id-RequestTypeAdditionalInfo");
    EXPECT_EQ(__mv_mme_get_ie_name(299, &n), 0);
    EXPECT_STREQ(n, S1AP_IE_id_NULL);
}

// Truncations and bit flips of valid encodings of every PDU form: the decoder returns, and never
// reads past the end (the sanitizer build checks that).
TEST(AsnEdge, CorruptedInputNeverCrashes) {
    struct Family {
        const MvAsnPdu* pdus;
        unsigned count;
    };
    for (const Family& f : {Family{mv_asn_amf::kPdus, mv_asn_amf::kPduCount},
                            Family{mv_asn_mme::kPdus, mv_asn_mme::kPduCount}}) {
        std::mt19937 rng(42);
        for (unsigned i = 0; i < f.count; i++) {
            const MvAsnPdu* p = &f.pdus[i];
            if (p->type->flags & MV_ASN_F_PRIVATE) continue;
            AsnFiller fill(i + 3);
            fill.allOptional = true;
            void* rec = fill.pdu(p);
            std::vector<uint8_t> good = encodePdu(p, rec);
            __mv_asn_memfree_pdu(p, rec);
            if (good.empty()) continue;
            for (int k = 0; k < 60; k++) {
                std::vector<uint8_t> bad = good;
                if (k < 20) {
                    bad.resize(rng() % bad.size());
                } else {
                    for (int flips = 1 + int(rng() % 4); flips > 0; flips--) bad[rng() % bad.size()] ^= uint8_t(1u << (rng() % 8));
                }
                // a copy on the heap of exactly its size, so that a read past it is caught
                std::unique_ptr<uint8_t[]> exact(new uint8_t[bad.size() + 1]);
                memcpy(exact.get(), bad.data(), bad.size());
                void* r = nullptr;
                int res = decodePdu(p, bad, &r);
                EXPECT_LE(res, 1);
                __mv_asn_memfree_pdu(p, r);
            }
        }
    }
}

}  // namespace
