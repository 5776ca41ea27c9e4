// The security header both ways, for every pair of integrity and ciphering algorithms,
// against a network that rebuilds the COUNT from the sequence number as an AMF does;
// every security header type, the drops and their log lines, and the security mode
// command that starts a context.
#include "KsEngine_step.h"
#include "nassec_log.h"
#include "nassec_testlib.h"

using namespace nst;

namespace {

constexpr uint8_t kStatus = 0x64;  // 5GMM status, a message any access may receive

// A plain uplink message of n octets with a plausible head.
Bytes uplinkMessage(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    b[0] = 0x7E;
    if (n > 1) b[1] = 0;
    return b;
}

struct Pair {
    uint8_t nia, nea;
};
std::vector<Pair> allPairs() {
    std::vector<Pair> v;
    for (uint8_t i = 0; i <= 3; ++i)
        for (uint8_t e = 0; e <= 3; ++e) v.push_back({i, e});
    return v;
}
std::string name(Pair p) { return "NIA" + std::to_string(p.nia) + "/NEA" + std::to_string(p.nea); }

TEST(UplinkProtection, EveryAlgorithmPairOpensAtTheNetworkAcrossTheCountWrap) {
    std::mt19937 rng(11);
    for (Pair p : allPairs()) {
        SCOPED_TRACE(name(p));
        for (uint8_t bearer : {uint8_t(1), uint8_t(2)}) {
            SCOPED_TRACE("bearer " + std::to_string(bearer));
            UePtr ue = makeUe();
            Network net = randomNetwork(rng, p.nia, p.nea, bearer);
            shareContext(ue.get(), bearer, net);
            KsNAS__getUECtx(ue.get(), bearer)->is_new_sec_context = 1;
            for (int i = 0; i < 300; ++i) {
                Bytes plain = uplinkMessage(rng, 1 + size_t(rng() % 200)), out, opened;
                ASSERT_EQ(protectUplink(ue.get(), plain, out, bearer), 1);
                ASSERT_EQ(out.size(), plain.size() + 7);
                EXPECT_EQ(out[6], uint8_t(i));
                uint8_t sht = 0;
                ASSERT_TRUE(net.open(out, opened, sht)) << "message " << i;
                EXPECT_EQ(sht, i == 0 ? 4 : 2) << "message " << i;
                ASSERT_EQ(hex(opened), hex(plain)) << "message " << i;
                if (p.nea == 0) {
                    EXPECT_EQ(hex(Bytes(out.begin() + 7, out.end())), hex(plain));
                }
            }
            const MV_KsUECtx* c = KsNAS__getUECtx(ue.get(), bearer);
            EXPECT_EQ(c->ul_count, 300u);
            EXPECT_EQ(c->ul_seq, 300 % 256);
            EXPECT_EQ(c->is_new_sec_context, 0);
            // The other access kept its own counters.
            EXPECT_EQ(KsNAS__getUECtx(ue.get(), bearer == 1 ? 2 : 1)->ul_count, 0u);
        }
    }
}

TEST(UplinkProtection, WithoutContextPlainAndWhatCannotBeProtectedIsNotSent) {
    std::mt19937 rng(12);
    UePtr ue = makeUe();
    Bytes plain = uplinkMessage(rng, 40), out;
    EXPECT_EQ(protectUplink(ue.get(), plain, out), 0);
    EXPECT_EQ(hex(out), hex(plain));
    EXPECT_EQ(ue->TGPP.ul_count, 0u);

    Network net = randomNetwork(rng, 2, 2);
    shareContext(ue.get(), 1, net);
    size_t mark = logMark();
    __mv_asn_coding_context full{};
    full.pos = MV_ASN_BUFFER_SIZE - 6;  // one octet short of room for the header
    full.buffer[0] = 0x7E;
    EXPECT_EQ(KsNAS__encapulate_security_header(ue.get(), &full, 1), -1);
    EXPECT_EQ(full.pos, MV_ASN_BUFFER_SIZE - 6);
    EXPECT_EQ(full.buffer[0], 0x7E);

    ue->TGPP.selected_integrity_algo = 5;  // a command may name an algorithm nobody has
    EXPECT_EQ(protectUplink(ue.get(), plain, out), -1);
    EXPECT_EQ(hex(out), hex(plain));
    EXPECT_EQ(ue->TGPP.ul_count, 0u);
    EXPECT_EQ(kst::countOccurrences(logSince(mark), "cannot protect NAS message"), 2u);
}

TEST(DownlinkUnwrapping, EveryAlgorithmPairInOrderAcrossTheCountWrap) {
    std::mt19937 rng(21);
    for (Pair p : allPairs()) {
        SCOPED_TRACE(name(p));
        UePtr ue = makeUe();
        Network net = randomNetwork(rng, p.nia, p.nea);
        shareContext(ue.get(), 1, net);
        for (int i = 0; i < 300; ++i) {
            Bytes plain = {0x7E, 0x00, kStatus, uint8_t(i)};
            Received r;
            receive(ue.get(), net.protect(plain), r);
            ASSERT_EQ(r.rc, 1) << "message " << i;
            EXPECT_EQ(r.d.iMandatoryDecoded, 1);
            EXPECT_EQ(r.d.MessageType, kStatus);
            ASSERT_EQ(hex(r.decoded()), hex(plain)) << "message " << i;
        }
        EXPECT_EQ(ue->TGPP.dl_count, 300u);
        EXPECT_EQ(ue->TGPP.dl_seq, 300 % 256);
    }
}

TEST(DownlinkUnwrapping, WrongMacIsDroppedWithItsLogLineAndTheCountStays) {
    std::mt19937 rng(22);
    for (uint8_t nia : {0, 1, 2, 3}) {
        SCOPED_TRACE("NIA" + std::to_string(nia));
        UePtr ue = makeUe();
        Network net = randomNetwork(rng, nia, 2);
        shareContext(ue.get(), 1, net);
        Bytes good = net.protect({0x7E, 0x00, kStatus, 0x6F});
        // A flipped bit in the MAC, in the sequence number and in the body; NIA0 guards
        // nothing but its MAC of zeros.
        std::vector<size_t> flips = {3};
        if (nia != 0) flips = {3, 6, 9};
        for (size_t at : flips) {
            Bytes bad = good;
            bad[at] ^= 0x10;
            size_t mark = logMark();
            Received r;
            receive(ue.get(), bad, r);
            EXPECT_EQ(r.rc, 0) << "flipped octet " << at;
            EXPECT_EQ(ue->TGPP.dl_count, 0u);
            std::string log = logSince(mark);
            char want[128];
            snprintf(want, sizeof want, "[imsi-001010000000001][0] MAC validation failed received-mac[%02X%02X%02X%02X] isVaidMAC=false",
                     bad[2], bad[3], bad[4], bad[5]);
            EXPECT_NE(log.find(want), std::string::npos) << log;
            std::string keys = "selected_integrity_algo=" + std::to_string(nia) + "  cknas_int=";
            EXPECT_NE(log.find(keys), std::string::npos) << log;
            EXPECT_NE(log.find("dl_count=0  bearer=1  direction=1 ngKSI=7"), std::string::npos) << log;
        }
        Received r;
        receive(ue.get(), good, r);
        EXPECT_EQ(r.rc, 1);
        EXPECT_EQ(ue->TGPP.dl_count, 1u);
        // A lost message is not tolerated: the next one is checked, and deciphered, at the
        // UE's count (under NIA0 only the deciphering gives it away).
        net.protect({0x7E, 0x00, kStatus, 1});
        Received late;
        receive(ue.get(), net.protect({0x7E, 0x00, kStatus, 2}), late);
        EXPECT_EQ(late.rc, 0);
    }
}

TEST(DownlinkUnwrapping, DecipheredBodyThatIsNotFiveGmmIsDropped) {
    std::mt19937 rng(23);
    for (uint8_t nea : {1, 2, 3}) {
        UePtr ue = makeUe();
        Network net = randomNetwork(rng, 2, nea);
        shareContext(ue.get(), 1, net);
        size_t mark = logMark();
        Received r;
        receive(ue.get(), net.protect({0x2E, 0x05, 0x01, 0xC2}), r);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(ue->TGPP.dl_count, 0u);
        EXPECT_NE(logSince(mark).find("[imsi-001010000000001][0] decoding failed for ciphering-algo=" + std::to_string(nea)),
                  std::string::npos);
    }
}

// Every security header type of a 5GMM message, and what is too short to carry one.
TEST(DownlinkUnwrapping, EachSecurityHeaderTypeAndShortMessages) {
    std::mt19937 rng(24);
    struct Case {
        const char* what;
        std::string msg;
        int rc;
        int mandatory;        // iMandatoryDecoded when the decoder ran
        const char* logText;  // a line that must be written, or "" for none at all
    };
    const Case cases[] = {
        {"plain", "7e006420", 1, 1, nullptr},
        {"plain, cut before the message type", "7e00", 1, 0, nullptr},
        {"one octet", "7e", 1, 0, nullptr},
        {"empty", "", 1, 0, nullptr},
        {"5GSM first octet (byte 1 is a session id)", "2e0201c2", 1, 0, nullptr},
        {"integrity protected only", "7e01000000000f7e006420", 0, 0,
         "UNHANDLED [imsi-001010000000001][0] Process NAS Message ngapProcCode=4 securityHeaderType=1"},
        {"type 2 without a body", "7e0200000000ff", 0, 0, "of 7 octets with securityHeaderType=2 is shorter than 8"},
        {"type 3 cut before the algorithms", "7e0300000000007e005d", 0, 0,
         "of 10 octets with securityHeaderType=3 is shorter than 11"},
        {"type 3 that is no security mode command", "7e0300000000007e00562200", 0, 0,
         "[imsi-001010000000001][0] invalid message received ExpectedPD=7E Received=7E Expected-MessageType5D "
         "Received=56"},
        {"type 4", "7e04000000000f7e006420", 0, 0, ""},
        {"type 5", "7e05000000000f7e006420", 0, 0, ""},
        {"type 12", "7e0c000000000f7e006420", 0, 0, ""},
        {"type 15", "7e0f000000000f7e006420", 0, 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        UePtr ue = makeUe();
        shareContext(ue.get(), 1, randomNetwork(rng, 2, 2));
        size_t mark = logMark();
        Received r;
        receive(ue.get(), unhex(c.msg), r);
        EXPECT_EQ(r.rc, c.rc);
        if (c.rc == 1) {
            EXPECT_EQ(r.d.iMandatoryDecoded, c.mandatory);
        }
        std::string log = logSince(mark);
        if (c.logText && *c.logText) {
            EXPECT_NE(log.find(c.logText), std::string::npos) << log;
        } else if (c.logText) {
            EXPECT_EQ(log, "");
        }
        EXPECT_EQ(ue->TGPP.dl_count, 0u);
    }
}

// ---------------------------------------------------------------- the inbound door

// What the UE drops is counted once in NASErrors and logged with the UE; what it takes is
// not counted.
TEST(InboundDoor, WhatTheUEDropsIsCountedOnceAndNamed) {
    static __mv_ks__engine engine{};
    __mv_ks__engine* saved = __ksEngine;
    __ksEngine = &engine;
    std::mt19937 rng(25);
    UePtr ue = makeUe();
    shareContext(ue.get(), 1, randomNetwork(rng, 2, 2));
    struct Case {
        const char* msg;
        uint64_t errors;  // NASErrors after it
        const char* line;
    };
    const Case cases[] = {
        {"7e006420", 0, nullptr},
        {"7e0200000000ff", 1,
         "[imsi-001010000000001][0] NAS message from AMF-ID[0] ranAmfConn-ID=0 dropped: security header, "
         "ngapProcCode=4 octets=7 EPD=7E SHT=2"},
        {"7e00", 2, "dropped: mandatory IEs not decoded, ngapProcCode=4 octets=2 EPD=7E SHT=0"},
        {"7e05000000000f7e006420", 3, "dropped: security header, ngapProcCode=4 octets=11 EPD=7E SHT=5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.msg);
        size_t mark = logMark();
        Bytes m = unhex(c.msg);
        KsNAS__processNasMessage2(ue.get(), m.data(), uint32_t(m.size()), 1, 4, nullptr);
        EXPECT_EQ(engine.NASErrors.load(), c.errors);
        if (c.line) {
            EXPECT_NE(logSince(mark).find(c.line), std::string::npos) << logSince(mark);
        }
    }
    __ksEngine = saved;
}

// ---------------------------------------------------------------- security mode command

constexpr char kSupiDigits[] = "001010000000001";

// The AMF's NAS keys for the UE's KAUSF, as the network derives them.
void networkKeys(const MV_KsUECtx* c, Network& net) {
    uint8_t kseaf[32], kamf[32];
    const uint8_t abba[2] = {0, 0};
    ASSERT_EQ(__mv_algo__kseaf(std::span<const uint8_t, 32>(c->kausf, 32), c->snn, kseaf), 0);
    ASSERT_EQ(__mv_algo__kamf(kseaf, kSupiDigits, abba, kamf), 0);
    ASSERT_EQ(__mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_INT, net.nia, std::span<uint8_t, 16>(net.kint, 16)), 0);
    ASSERT_EQ(__mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_ENC, net.nea, std::span<uint8_t, 16>(net.kenc, 16)), 0);
}

Bytes securityModeCommand(uint8_t nia, uint8_t nea) { return {0x7E, 0x00, 0x5D, uint8_t(nea << 4 | nia), 0x01, 0x02, 0xE0, 0xE0}; }

TEST(SecurityModeCommand, StartsTheContextForEveryPairAndTheFirstUplinkSaysSo) {
    std::mt19937 rng(31);
    for (Pair p : allPairs()) {
        SCOPED_TRACE(name(p));
        UePtr ue = makeUe();
        MV_KsUECtx* c = &ue->TGPP;
        for (auto& x : c->kausf) x = uint8_t(rng());
        c->ul_count = 700;  // what an earlier context left
        c->ul_seq = uint8_t(700);
        c->dl_count = 9;
        Network net;
        net.nia = p.nia;
        net.nea = p.nea;
        networkKeys(c, net);

        Received r;
        receive(ue.get(), net.protect(securityModeCommand(p.nia, p.nea), 3), r);
        ASSERT_EQ(r.rc, 1);
        EXPECT_EQ(r.d.iMandatoryDecoded, 1);
        EXPECT_EQ(r.d.MessageType, 0x5D);
        EXPECT_EQ(c->security_context_available, 1u);
        EXPECT_EQ(c->is_new_sec_context, 1);
        EXPECT_EQ(c->selected_integrity_algo, p.nia);
        EXPECT_EQ(c->selected_ciphering_algo, p.nea);
        EXPECT_EQ(c->dl_count, 1u);
        EXPECT_EQ(c->ul_count, 0u);
        EXPECT_EQ(hex(c->knas_int, 16), hex(net.kint, 16));
        EXPECT_EQ(hex(c->knas_enc, 16), hex(net.kenc, 16));

        // The complete goes as type 4, everything after as type 2.
        for (int i = 0; i < 3; ++i) {
            Bytes plain = uplinkMessage(rng, 20), out, opened;
            uint8_t sht = 0;
            ASSERT_EQ(protectUplink(ue.get(), plain, out), 1);
            ASSERT_TRUE(net.open(out, opened, sht));
            EXPECT_EQ(sht, i == 0 ? 4 : 2);
            EXPECT_EQ(hex(opened), hex(plain));
        }
        Received next;
        receive(ue.get(), net.protect({0x7E, 0x00, kStatus, 0x6F}), next);
        EXPECT_EQ(next.rc, 1);
    }
}

TEST(SecurityModeCommand, WrongMacResetsTheCountsAndLeavesTheContextAsItStood) {
    std::mt19937 rng(32);
    for (uint32_t available : {0u, 1u}) {
        SCOPED_TRACE("security context before: " + std::to_string(available));
        UePtr ue = makeUe();
        MV_KsUECtx* c = &ue->TGPP;
        for (auto& x : c->kausf) x = uint8_t(rng());
        c->security_context_available = available;
        c->ul_count = c->dl_count = 300;
        c->ul_seq = c->dl_seq = uint8_t(300);
        Network net;
        networkKeys(c, net);
        Bytes smc = net.protect(securityModeCommand(2, 2), 3);
        smc[2] ^= 1;
        size_t mark = logMark();
        Received r;
        receive(ue.get(), smc, r);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(c->security_context_available, available);
        EXPECT_EQ(c->is_new_sec_context, 0);
        EXPECT_EQ(c->ul_count + c->dl_count + c->ul_seq + c->dl_seq, 0u);
        std::string log = logSince(mark);
        char want[160];
        snprintf(want, sizeof want,
                 "MAC validation failed received-mac[%02X%02X%02X%02X] expected-mac[%02X%02X%02X%02X] isVaidMAC=false "
                 "int_algo=2 cip_algo=2  pdulen=15",
                 smc[2], smc[3], smc[4], smc[5], smc[2] ^ 1, smc[3], smc[4], smc[5]);
        EXPECT_NE(log.find(want), std::string::npos) << log;
        EXPECT_NE(log.find("selected_integrity_algo=2  cknas_int="), std::string::npos);
    }
    // An integrity algorithm nobody has: keys are derived, but no MAC can match.
    UePtr ue = makeUe();
    Received r;
    receive(ue.get(), Bytes{0x7E, 0x03, 0, 0, 0, 0, 0, 0x7E, 0x00, 0x5D, 0x05, 0x01, 0x02, 0xE0, 0xE0}, r);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(ue->TGPP.security_context_available, 0u);
}

}  // namespace
