// The NAS codec from the inside: every message's decoder gives back what its encoder wrote, no cut of
// any message reads past its end, and the partial decoders stop, skip and go on where they should.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "nas_testlib.h"

namespace {

// The value part of a member, without the identifier the decoder fills in.
std::vector<uint8_t> valueOf(const NasElem* e, const void* rec) {
    const auto* p = static_cast<const uint8_t*>(rec) + e->off;
    if (e->type->fmt == NAS_F_RAW8) return {p[0]};
    if (e->type->kind == NAS_K_AMBR) return std::vector<uint8_t>(p + 2, p + e->type->size);  // Length is the decoder's
    return std::vector<uint8_t>(p + 1, p + e->type->size);
}

// Decodes octets through the entry points, from a heap block of exactly their size so that the address
// sanitizer sees any read past the end.
void decodeExact(const std::vector<uint8_t>& b, NasDecoded& out) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[b.size() ? b.size() : 1]);
    if (!b.empty()) memcpy(copy.get(), b.data(), b.size());
    if (!b.empty() && (b[0] == MV_5GS_MM_EPD || b[0] == MV_5GS_SM_EPD)) {
        out.rc = __mv_naspdu_DecodeFGMessage(&out.d, copy.get(), uint32_t(b.size()));
    } else {
        out.d.buffer = copy.get();
        out.d.length = int(b.size());
        out.rc = __mv_naspdu_DecodeMessage(&out.d);
    }
    out.d.buffer = nullptr;  // the block goes now; the record holds copies
}

TEST(NasCodec, EveryMessageGivesBackWhatItsDecoderReads) {
    for (const NasFamily& fam : kNasFamilies)
        for (uint16_t i = 0; i < fam.count; i++) {
            const NasMsgDesc* m = fam.msgs[i];
            SCOPED_TRACE(m->name);
            EXPECT_EQ(__mv_naspdu_find_message(fam.discriminator, m->type), m);
            // IEs the decoder refuses would end its walk early: leave them out.
            std::set<std::string> refused;
            for (uint16_t k = 0; k < m->nElems; k++)
                if ((m->elems[k].flags & (NAS_EL_ENC | NAS_EL_READ | NAS_EL_SKIP)) == NAS_EL_ENC) refused.insert(m->elems[k].name);
            void* rec = sampleRecord(m, true, refused);
            std::vector<uint8_t> bytes = encodeRecord(m, rec);
            ASSERT_FALSE(bytes.empty());
            NasDecoded d;
            decodeExact(bytes, d);
            ASSERT_EQ(d.rc, 0);
            EXPECT_EQ(d.d.MessageType, m->type);
            EXPECT_EQ(d.d.iMandatoryDecoded, 1);
            EXPECT_EQ(d.d.iStatus, 0);
            EXPECT_EQ(d.d.pos, int(bytes.size()));
            for (uint16_t k = 0; k < m->nElems; k++) {
                const NasElem* e = &m->elems[k];
                if ((e->flags & (NAS_EL_ENC | NAS_EL_READ)) != (NAS_EL_ENC | NAS_EL_READ)) continue;
                EXPECT_EQ(valueOf(e, d.d.messageObj), valueOf(e, rec)) << e->name;
            }
            free(rec);
        }
}

TEST(NasCodec, NoCutOfAnyMessageReadsPastItsEnd) {
    for (const NasFamily& fam : kNasFamilies)
        for (uint16_t i = 0; i < fam.count; i++) {
            const NasMsgDesc* m = fam.msgs[i];
            void* rec = sampleRecord(m, true);
            std::vector<uint8_t> bytes = encodeRecord(m, rec);
            free(rec);
            for (size_t n = 0; n <= bytes.size(); n++) {
                SCOPED_TRACE(std::string(m->name) + " cut at " + std::to_string(n));
                NasDecoded d;
                decodeExact({bytes.begin(), bytes.begin() + long(n)}, d);
                EXPECT_TRUE(d.rc == 0 || d.rc == -1);
                EXPECT_LE(d.d.pos, int(n));
                if (d.rc == 0 && !d.d.iMandatoryDecoded) {
                    EXPECT_EQ(d.d.iStatus, NAS_DECODE_ENDED_INSIDE_IE);
                }
                if (n == bytes.size()) {
                    EXPECT_EQ(d.d.iMandatoryDecoded, 1);
                }
            }
        }
}

struct Dec {
    NasDecoded d;
    explicit Dec(const std::string& hex) { decodeExact(fromHex(hex), d); }
    template <class T>
    T* rec() { return d.rec<T>(); }
};

TEST(NasCodec, EntryPointsRefuseWhatIsNotTheirs) {
    EXPECT_EQ(Dec("").d.rc, -1);
    EXPECT_EQ(Dec("7e00").d.rc, -1);
    EXPECT_EQ(Dec("2e0501").d.rc, -1);
    EXPECT_EQ(Dec("3f0041").d.rc, -ENOENT);
    EXPECT_EQ(Dec("0e0041").d.rc, -ENOENT);  // neither EMM nor ESM
    Dec unknown("7e00ff");
    EXPECT_EQ(unknown.d.rc, -ESRCH);
    EXPECT_EQ(unknown.d.d.iMandatoryDecoded, 0);
    EXPECT_EQ(unknown.d.d.messageObj, nullptr);
    EXPECT_EQ(Dec("07ff").d.rc, -ESRCH);
    Dec plainSht("7e0341");  // the type octet is still the third; the security header type is only noted
    EXPECT_EQ(plainSht.d.d.SecurityHeaderType, 3);
}

TEST(NasCodec, PartialDecodersStopSkipAndGoOn) {
    {  // cut inside the RAND: the mandatory part stands, the walk ends in the IE
        Dec a("7e0056 02 020000 21 0011223344");
        EXPECT_EQ(a.d.d.iMandatoryDecoded, 1);
        EXPECT_EQ(a.d.d.iStatus, NAS_DECODE_ENDED_INSIDE_IE);
        EXPECT_NE(a.d.d.errorLineNo, 0u);
        EXPECT_EQ(a.rec<__naspduFGMM_AuthenticationRequest>()->mRAND.isset, 0);
    }
    {  // a TAI list right behind the result ends the walk before the GUTI
        Dec a("7e0042 0101 54070002f839000001 77000bf202f839cafe0112345678");
        EXPECT_EQ(a.d.d.iMandatoryDecoded, 1);
        EXPECT_EQ(a.d.d.iStatus, NAS_DECODE_IE_NOT_TAKEN);
        EXPECT_EQ(a.d.d.iUnSuccessfulElementId, 0x54);
        EXPECT_EQ(a.rec<__naspduFGMM_RegistrationAccept>()->mFGGUTI.isset, 0);
    }
    {  // half-octet IEs it steps over do not end the walk
        Dec a("7e0042 0101 b1 91 5e0121 a1 d0 16012c");
        EXPECT_EQ(a.d.d.iStatus, 0);
        EXPECT_EQ(a.rec<__naspduFGMM_RegistrationAccept>()->mT3502Value.Value, 0x2c);
        EXPECT_EQ(a.d.d.iLastElementId, 0x16);
    }
    {  // the identity type is the handler's business, 5G-S-TMSI included
        Dec a("7e005b04");
        EXPECT_EQ(a.d.d.iMandatoryDecoded, 1);
        EXPECT_EQ(a.rec<__naspduFGMM_IdentityRequest>()->b1 & 7, 4);
    }
    {  // DL NAS transport steps over what it does not take and goes on
        Dec a("7e0068 01 0001 00 2403 aabbcc 81 5816 3701 21 9f 1205");
        auto* r = a.rec<__naspduFGMM_DLNASTransport>();
        EXPECT_EQ(a.d.d.iStatus, NAS_DECODE_IE_NOT_TAKEN);
        EXPECT_EQ(a.d.d.iUnSuccessfulElementId, 0x9f);
        EXPECT_EQ(r->mFGMMCause.Value, 0x16);
        EXPECT_EQ(r->mBackOffTimerValue.Value, 0x21);
        EXPECT_EQ(r->mPDUSessionID.Value, 5);
        EXPECT_EQ(a.d.d.pos, a.d.d.length);
    }
    {  // security mode command: its other IEs are stepped over whole, stray octets one at a time
        Dec a("7e005d 02 02 02e0e0 e1 5702 ff 1904e0e0e0e0 360102 3802e000");
        auto* r = a.rec<__naspduFGMM_SecurityModeCommand>();
        EXPECT_EQ(a.d.d.iStatus, 0);
        EXPECT_EQ(r->mIMEISVRequest.Value, 1);
        EXPECT_EQ(r->mAdditional5GSecurityInformation.Value, 2);
    }
    {  // an IPv4 PDU address of length 5 is followed directly by the next IE
        Dec a("2e0501c2 11 0000 06060064060032 29050109080706 5612");
        auto* r = a.rec<__naspduFGSM_PDUSessionEstablishmentAccept>();
        EXPECT_EQ(a.d.d.iStatus, 0);
        EXPECT_EQ(r->mPDUAddress.Length, 5);
        EXPECT_EQ(r->mPDUAddress.PDUSessionType, 1);
        EXPECT_EQ(r->mPDUAddress.data[0], 9);
        EXPECT_EQ(r->mRQTimerValue.Value, 0x12);
    }
    {  // IPv4v6: eight octets of interface identifier and four of address
        Dec a("2e0501c2 13 0000 06060064060032 290d03 0102030405060708 0a2d0002");
        auto* r = a.rec<__naspduFGSM_PDUSessionEstablishmentAccept>();
        EXPECT_EQ(r->mPDUAddress.PDUSessionType, 3);
        EXPECT_EQ(r->mPDUAddress.data[8], 0x0a);
    }
    {  // a session-AMBR needs its six value octets
        Dec a("2e0501c2 11 0000 0405006406");
        EXPECT_EQ(a.d.d.iMandatoryDecoded, 0);
        EXPECT_EQ(a.d.d.iStatus, NAS_DECODE_ENDED_INSIDE_IE);
    }
    {  // an optional IE longer than its member is stepped over, and the walk goes on
        std::string dnn(2 * 103, 'a');
        Dec a("2e0501c2 11 0000 06060064060032 2567" + dnn + " 5612");
        auto* r = a.rec<__naspduFGSM_PDUSessionEstablishmentAccept>();
        EXPECT_EQ(a.d.d.iStatus, 0);
        EXPECT_EQ(r->mDNN.isset, 0);
        EXPECT_EQ(r->mRQTimerValue.Value, 0x12);
    }
    {  // a mandatory one fails the message
        std::string tai(2 * 97, '0');
        Dec a("0742 01 21 61" + tai + " 0000");
        EXPECT_EQ(a.d.d.iMandatoryDecoded, 0);
        EXPECT_EQ(a.d.d.iStatus, NAS_DECODE_IE_TOO_LARGE);
    }
    {  // the detach request in both directions
        Dec ue("0745 09 0809101010325476 98");
        EXPECT_EQ(ue.rec<__naspduDetachRequest>()->mEPSMobileIdentity.Length, 8);
        Dec nw("0745 03");
        EXPECT_EQ(nw.d.d.iMandatoryDecoded, 1);
        EXPECT_EQ(nw.rec<__naspduDetachRequest>()->mEPSMobileIdentity.isset, 0);
    }
}

std::vector<uint8_t> encodeIe(int (*f)(uint8_t, const __naspdu_ie_l8<13>*, __mv_asn_coding_context*), uint8_t iei,
                              const __naspdu_ie_l8<13>& ie) {
    static __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    EXPECT_EQ(f(iei, &ie, &c), 0);
    return {c.buffer, c.buffer + c.pos};
}

TEST(NasCodec, EncodersWriteWhatIsSetInTheStandardsForm) {
    __naspdu_ie_l8<13> cap{};
    EXPECT_TRUE(encodeIe(__mv_naspdu_encodeFGMMCapability, 0x10, cap).empty());  // not set, not written
    cap.isset = 1;
    cap.data[0] = 0x07;
    EXPECT_EQ(toHex(encodeIe(__mv_naspdu_encodeFGMMCapability, 0x10, cap)), "100107");
    static __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    __naspdu_ie_l8<8> sec{};
    sec.Length = 6;
    sec.isset = 1;
    memcpy(sec.data, "\xe0\xe0\x80\x80\x01\x02", 6);
    __mv_naspdu_encodeFGUESecurityCapability(0x2E, &sec, &c);
    __naspdu_ie_byte upd{};
    upd.Value = 1;
    upd.isset = 1;
    __mv_naspdu_encodeFGSUpdateType(0x53, &upd, &c);
    __naspdu_ie_half half{};
    half.Value = 3;
    half.isset = 1;
    __mv_naspdu_encodeNASKeySetIdentifier(12, &half, &c);
    EXPECT_EQ(toHex({c.buffer, c.buffer + c.pos}), "2e04e0e08080" "530101" "c3");

    __naspduFGMM_RegistrationReject rej{};  // the mandatory cause is not set either
    __mv_asn_init_CodingContext(&c);
    EXPECT_EQ(__mv_naspdu_fgmm_encodeRegistrationReject(&rej, &c), 0);
    EXPECT_EQ(toHex({c.buffer, c.buffer + c.pos}), "7e0044");

    // A message larger than the coding context is refused, not written past it.
    static __naspduFGMM_ULNASTransport big{};
    big.mPayloadContainer.Length = sizeof big.mPayloadContainer.data;
    big.mPayloadContainer.isset = 1;
    __mv_asn_init_CodingContext(&c);
    EXPECT_EQ(__mv_naspdu_fgmm_encodeULNASTransport(&big, &c), -1);
    EXPECT_LE(c.pos, MV_ASN_BUFFER_SIZE);
}

TEST(NasCodec, SecurityHeaderOctets) {
    static __mv_asn_coding_context c;
    for (uint8_t pd : {uint8_t(MV_5GS_MM_EPD), uint8_t(MV_EPS_MM_PD)}) {
        __naspduFGSecurityHeader h{pd, 2, {0xde, 0xad, 0xbe, 0xef}, 0x2a}, back{};
        __mv_asn_init_CodingContext(&c);
        __mv_naspdu_encodeSecurityHeader(&h, &c);
        std::vector<uint8_t> b(c.buffer, c.buffer + c.pos);
        EXPECT_EQ(toHex(b), pd == MV_5GS_MM_EPD ? "7e02deadbeef2a" : "27deadbeef2a");
        EXPECT_EQ(__mv_naspdu_decodeSecurityHeader(&back, b.data(), uint32_t(b.size())), int(b.size()));
        EXPECT_EQ(memcmp(&back, &h, sizeof h), 0);
        EXPECT_EQ(__mv_naspdu_decodeSecurityHeader(&back, b.data(), uint32_t(b.size() - 1)), -1);
    }
    __naspduFGSecurityHeader h{};
    const uint8_t plain5g[] = {0x7e, 0x00, 0x41}, serviceReq[] = {0xc7, 0, 0, 0}, other[] = {0x55};
    EXPECT_EQ(__mv_naspdu_decodeSecurityHeader(&h, plain5g, 3), 0);
    EXPECT_EQ(__mv_naspdu_decodeSecurityHeader(&h, serviceReq, 4), 0);
    EXPECT_EQ(h.EPSBIOrSHT, 12);
    EXPECT_EQ(__mv_naspdu_decodeSecurityHeader(&h, other, 1), -1);
}

TEST(NasCodec, NssaiItemsAndPayloadEntries) {
    __naspdu_nssai n{};
    const uint8_t sd[3] = {1, 2, 3}, msst = 9, msd[3] = {4, 5, 6};
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 1, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 2, nullptr, &msst, nullptr), 1);
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 3, sd, nullptr, nullptr), 1);
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 4, sd, &msst, nullptr), 1);
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 5, sd, &msst, msd), 1);
    EXPECT_EQ(toHex({n.data, n.data + n.Length}), "0101" "020209" "0403010203" "050401020309" "08050102030904050" "6");
    __naspdu_snssai_item items[8];
    ASSERT_EQ(__mv_naspdu_getSNSSAI(n.data, n.Length, items, 8), 5);
    EXPECT_EQ(items[1].mappedSst, 9);
    EXPECT_EQ(items[4].mappedSd[2], 6);
    EXPECT_EQ(__mv_naspdu_getSNSSAI(n.data, n.Length - 1, items, 8), -ENOENT);
    const uint8_t bad[] = {3, 1, 2, 3};
    EXPECT_EQ(__mv_naspdu_getSNSSAI(bad, 4, items, 8), -1);
    n.Length = 245;
    EXPECT_EQ(__mv_naspdu_addSNSSAI(&n, 1, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(n.Length, 245);

    static __naspdu_payload_container pc{};
    const uint8_t sm[] = {0x2e, 0x05, 0x01, 0xd1};
    EXPECT_EQ(__mv_naspdu_addPayload(1, 4, sm, &pc), 1);
    EXPECT_EQ(__mv_naspdu_addPayload(2, 0, nullptr, &pc), 1);
    EXPECT_EQ(toHex({pc.data, pc.data + pc.Length}), "02" "000701" "2e0501d1" "000302");
    EXPECT_EQ(__mv_naspdu_addPayload(1, sizeof pc.data, sm, &pc), 0);
}

TEST(NasCodec, CauseTextsAndNames) {
    EXPECT_STREQ(__mv_naspdu_get5GMMCause(21), "Synch_failure");
    EXPECT_STREQ(__mv_naspdu_get5GMMCause(111), "Protocol error unspecified");
    EXPECT_STREQ(__mv_naspdu_get5GMMCause(4), "");
    EXPECT_STREQ(__mv_naspdu_get5GSMCause(36), "Regular_deactivation");
    EXPECT_STREQ(__mv_naspdu_get5GSMCause(111), "Protocol_error__unspecified");
    EXPECT_STREQ(__mv_naspdu_get5GSMCause(-1), "");
    EXPECT_STREQ(__mv_naspdu_message_name(MV_5GS_MM_EPD, 100), "5GMMStatus");
    EXPECT_STREQ(__mv_naspdu_message_name(MV_EPS_SM_PD, 208), "PDN_connectivity_request");
    EXPECT_STREQ(__mv_naspdu_message_name(MV_EPS_MM_PD, 1), "");
}

}  // namespace
