// The answerer's readers of what UEs send, its subscriber files and its knobs, without
// any procedure around them.
#include <gtest/gtest.h>

#include "ca_config.h"
#include "ca_knobs.h"
#include "ca_timer.h"
#include "ca_nas.h"
#include "ks_test_util.h"
#include "mv_nas_util.h"

namespace {

using ca::Bytes;
using ca::NasMessage;
using ca::NasParse;

// A registration request as the engine's codec writes it, with IEs of every form:
// half octet, TLV, the fixed-length last visited TAI, TLV-E.
Bytes registrationRequest() {
    static NASPduFGMM_RegistrationRequest r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    r.b1 = 0x79;
    const uint8_t suci[] = {0x01, 0x00, 0xF1, 0x10, 0xF0, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10};
    __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, suci, sizeof suci);
    r.mNonCurrentNativeNASKeySetIdentifier = {0, 3, 1};
    r.mFGMMCapability.isset = 1;
    r.mUESecurityCapability.Length = 2;
    r.mUESecurityCapability.data[0] = r.mUESecurityCapability.data[1] = 0xE0;
    r.mUESecurityCapability.isset = 1;
    __mv_naspdu_addSNSSAI(&r.mRequestedNSSAI, 1, nullptr, nullptr, nullptr);
    r.mLastVisitedRegisteredTAI.isset = 1;
    r.mMICOIndication = {0, 1, 1};
    r.mEPSNASMessageContainer.Length = 3;
    r.mEPSNASMessageContainer.isset = 1;
    r.mUplinkDataStatus.Length = 2;
    r.mUplinkDataStatus.data[0] = 0x02;
    r.mUplinkDataStatus.isset = 1;
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    EXPECT_EQ(__mv_naspdu_fgmm_encodeRegistrationRequest(&r, &ctx), 0);
    return Bytes(ctx.buffer, ctx.buffer + ctx.pos);
}

TEST(NasReader, ReadsEveryFormOfIeAndRefusesEveryCut) {
    Bytes msg = registrationRequest();
    NasMessage m;
    ASSERT_EQ(ca::parseUplink(msg, m), NasParse::Ok);
    EXPECT_EQ(m.type, 65);
    EXPECT_EQ(m.b1, 0x79);
    EXPECT_EQ(m.lv.size(), 13u);
    for (uint8_t iei : {0xC, 0x10, 0x2E, 0x2F, 0x52, 0xB, 0x70, 0x40}) EXPECT_TRUE(m.find(iei)) << std::hex << int(iei);
    EXPECT_EQ(m.find(0x52)->value.size(), 6u);  // the TAI holds its fixed six octets
    EXPECT_EQ(m.find(0xC)->value[0] & 0x0F, 3);
    EXPECT_EQ(m.find(0x40)->value.size(), 2u);
    EXPECT_EQ(m.find(0x70)->value.size(), 3u);
    // Every shorter message is refused or read as far as it goes, never past its end.
    for (size_t n = 0; n < msg.size(); ++n) {
        SCOPED_TRACE(n);
        Bytes cut(msg.begin(), msg.begin() + long(n));
        NasParse p = ca::parseUplink(cut, m);
        if (p != NasParse::Ok) continue;
        for (uint8_t i = 0; i < m.ieCount; ++i) {
            EXPECT_GE(m.ies[i].value.data(), cut.data());
            EXPECT_LE(m.ies[i].value.data() + m.ies[i].value.size(), cut.data() + cut.size());
        }
    }
}

TEST(NasReader, SessionMessagesAndTheirTransport) {
    struct Case {
        Bytes msg;
        NasParse want;
        uint8_t type;
    } cases[] = {
        // UL NAS transport: N1 SM, a request for session 5, PDU session ID, request type, DNN
        {{0x7E, 0x00, 0x67, 0x01, 0x00, 0x06, 0x2E, 0x05, 0x01, 0xC1, 0xFF, 0xFF, 0x12, 0x05, 0x81, 0x25, 0x02, 0x01, 0x61},
         NasParse::Ok, 103},
        // establishment request: data rate, PDU session type, maximum packet filters (TV of 3)
        {{0x2E, 0x05, 0x01, 0xC1, 0xFF, 0xFF, 0x93, 0x55, 0x00, 0x10}, NasParse::Ok, 193},
        {{0x2E, 0x05, 0x01, 0xC1, 0xFF}, NasParse::Short, 193},
        {{0x2E, 0x05, 0x01, 0xC1, 0xFF, 0xFF, 0x55, 0x00}, NasParse::Malformed, 193},
        {{0x7E, 0x00, 0x99}, NasParse::UnknownType, 0x99},
        {{0x7E, 0x00}, NasParse::Short, 0},
        {{0x2F, 0x00, 0x41}, NasParse::Malformed, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.type));
        NasMessage m;
        EXPECT_EQ(ca::parseUplink(c.msg, m), c.want);
        if (c.want != NasParse::Ok) continue;
        EXPECT_EQ(m.type, c.type);
        if (c.type == 103) {
            EXPECT_EQ(m.lv.size(), 6u);
            EXPECT_EQ(m.find(0x12)->value[0], 5);
            EXPECT_EQ(m.find(0x8)->value[0] & 0x0F, 1);
            EXPECT_EQ(m.find(0x25)->value.size(), 2u);
        } else {
            EXPECT_EQ(m.psi, 5);
            EXPECT_EQ(m.find(0x9)->value[0] & 0x07, 3);
            EXPECT_EQ(m.find(0x55)->value.size(), 2u);
        }
    }
}

TEST(NasReader, MobileIdentities) {
    ca::MobileIdentity id;
    // SUCI, null scheme, MSIN 0000000001 of 001/01
    const uint8_t suci[] = {0x01, 0x00, 0xF1, 0x10, 0xF0, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10};
    ASSERT_TRUE(ca::decodeIdentity(suci, id));
    EXPECT_EQ(id.type, 1);
    EXPECT_EQ(ca::imsiDigits(id.plmn, id.schemeOutput), "001010000000001");
    // 5G-GUTI: region 0xCA, set 0x3FF, pointer 0x3F, TMSI 0x01020304
    const uint8_t guti[] = {0xF2, 0x00, 0xF1, 0x10, 0xCA, 0xFF, 0xFF, 0x01, 0x02, 0x03, 0x04};
    ASSERT_TRUE(ca::decodeIdentity(guti, id));
    EXPECT_EQ(id.type, 2);
    EXPECT_EQ(id.region, 0xCA);
    EXPECT_EQ(id.set, 0x3FF);
    EXPECT_EQ(id.pointer, 0x3F);
    EXPECT_EQ(id.tmsi, 0x01020304u);
    const uint8_t stmsi[] = {0xF4, 0x00, 0x41, 0x0A, 0x0B, 0x0C, 0x0D};
    ASSERT_TRUE(ca::decodeIdentity(stmsi, id));
    EXPECT_EQ(id.type, 4);
    EXPECT_EQ(id.set, 1);
    EXPECT_EQ(id.pointer, 1);
    EXPECT_EQ(id.tmsi, 0x0A0B0C0Du);
    __naspdu_fgs_mobile_identity imei{};
    __mv_nas_util_encode_fg_imei(&imei, "356938035643803", 15);
    ASSERT_TRUE(ca::decodeIdentity({imei.data, imei.Length}, id));
    EXPECT_EQ(id.digits, "356938035643803");
    // lengths no identity has
    for (Bytes b : {Bytes{0x01, 0x00}, Bytes{0xF2, 0x00}, Bytes{0xF4, 1, 2}, Bytes{}, Bytes{0x07}}) {
        EXPECT_FALSE(ca::decodeIdentity(b, id)) << b.size();
    }
}

TEST(Subscribers, BothFileFormsAndTheirMistakes) {
    std::string dir = kst::makeTempDir("casubs");
    struct Case {
        const char* text;
        bool ok;
        size_t count;
    } cases[] = {
        {R"([{"MSINStart": "001010000000001", "MSINEnd": "001010000000100", "MCC": "001", "MNC": "01",
              "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC", "OPC": "E8ED289DEBA952E4283B54E88E6183CA"},
             {"MSINStart": "310410000000001", "MSINEnd": "310410000000001", "MCC": "310", "MNC": "410",
              "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC", "OP": "CDC202D5123E20F62B6D676AC72CB318", "SQN": 4096}])",
         true, 101},
        {R"({"Format": 1, "SupiRange": [{"MCC": "001", "MNC": "01", "SubKey": "465b5ce8b199b49faa5f0a2ee238a6bc",
             "OPc": "cd63cb71954a9f4e48a5994e37a02baf", "MSINStart": 1010000000001, "MSINEnd": 1010000000004}]})",
         true, 4},
        {R"([{"MSINStart": "001010000000005", "MSINEnd": "001010000000001", "MCC": "001", "MNC": "01",
              "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC", "OPC": "E8ED289DEBA952E4283B54E88E6183CA"}])",
         false, 0},
        {R"([{"MSINStart": "001010000000001", "MSINEnd": "001010000000002", "MCC": "001", "MNC": "01",
              "SubKey": "465B5CE8", "OPC": "E8ED289DEBA952E4283B54E88E6183CA"}])",
         false, 0},
        {R"([{"MSINStart": "001010000000001", "MSINEnd": "001010000000002", "MCC": "001", "MNC": "01",
              "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC"}])",
         false, 0},
        {R"([])", false, 0},
        {R"({"not": "ranges"})", false, 0},
        {R"([{"MSINStart": )", false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        kst::writeFile(dir + "/ues.json", c.text);
        ca::Subscribers s;
        std::string err;
        ASSERT_EQ(s.load(dir + "/ues.json", 0, err), c.ok) << err;
        if (!c.ok) {
            EXPECT_NE(err.find(dir), std::string::npos) << "the reason names the file: " << err;
            continue;
        }
        EXPECT_EQ(s.count(), c.count);
        int64_t last = s.find(s.imsi(uint32_t(c.count - 1)));
        EXPECT_EQ(last, int64_t(c.count - 1));
        EXPECT_EQ(s.find("001010000000000"), -1);
        EXPECT_EQ(s.find("00101000000000x"), -1);
    }
    kst::writeFile(dir + "/ues.json", cases[0].text);
    ca::Subscribers s;
    std::string err;
    ASSERT_TRUE(s.load(dir + "/ues.json", 7, err));
    EXPECT_EQ(s.find("001010000000001"), 0);
    EXPECT_EQ(s.imsi(99), "001010000000100");
    EXPECT_EQ(s.find("310410000000001"), 100);
    EXPECT_EQ(s.state(0).sqn, 7u);     // the command line's first SQN
    EXPECT_EQ(s.state(100).sqn, 4096u);  // the range's own
    // OPc made from OP: Milenage's first test set
    const uint8_t opc[] = {0xCD, 0x63, 0xCB, 0x71, 0x95, 0x4A, 0x9F, 0x4E, 0x48, 0xA5, 0x99, 0x4E, 0x37, 0xA0, 0x2B, 0xAF};
    EXPECT_EQ(memcmp(s.range(100).opc, opc, 16), 0);
    kst::removeTree(dir);
}

TEST(KnobRules, CountsAndNames) {
    ca::Knobs k;
    std::string err;
    ASSERT_TRUE(k.add("drop registrationaccept 2", err)) << err;
    ASSERT_TRUE(k.add("delay InitialContextSetupRequest 250", err)) << err;
    ASSERT_TRUE(k.add("reject PDUSessionEstablishmentRequest 27 1", err)) << err;
    uint32_t arg = 0;
    EXPECT_FALSE(k.take(ca::KnobAction::Drop, "AuthenticationRequest"));
    EXPECT_TRUE(k.take(ca::KnobAction::Drop, "RegistrationAccept"));
    EXPECT_TRUE(k.take(ca::KnobAction::Drop, "RegistrationAccept"));
    EXPECT_FALSE(k.take(ca::KnobAction::Drop, "RegistrationAccept")) << "two only";
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(k.take(ca::KnobAction::Delay, "InitialContextSetupRequest", &arg)) << "for good";
        EXPECT_EQ(arg, 250u);
    }
    EXPECT_TRUE(k.take(ca::KnobAction::Reject, "PDUSessionEstablishmentRequest", &arg));
    EXPECT_EQ(arg, 27u);
    EXPECT_EQ(k.list(), "delay InitialContextSetupRequest 250 always used=3\n");
    for (const char* bad : {"", "drop", "explode RegistrationAccept", "drop RegistrationAcceptt", "delay DownlinkNASTransport x",
                            "status RegistrationAccept", "drop RegistrationAccept 1 2"})
        EXPECT_FALSE(k.add(bad, err)) << bad;
    k.clear();
    EXPECT_TRUE(k.empty());
}

TEST(TimerThread, RunsInOrderAndNeverACancelledOne) {
    ca::Timers t;
    t.start();
    std::mutex m;
    std::vector<int> ran;
    auto note = [&](int i) {
        std::lock_guard g(m);
        ran.push_back(i);
    };
    t.after(30, [&] { note(3); });
    uint64_t second = t.after(20, [&] { note(2); });
    t.after(10, [&] { note(1); });
    t.cancel(second);
    t.cancel(second);  // twice is harmless
    t.cancel(12345);   // so is an id that never was
    ASSERT_TRUE(kst::waitFor([&] {
        std::lock_guard g(m);
        return ran.size() == 2;
    }, 10));
    EXPECT_EQ(ran, (std::vector<int>{1, 3}));
    EXPECT_EQ(t.pending(), 0u);
    // Cancelling the timer the thread is waiting for, while it waits.
    uint64_t waitedFor = t.after(300, [&] { note(4); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    t.cancel(waitedFor);
    t.after(10, [&] { note(5); });
    ASSERT_TRUE(kst::waitFor([&] {
        std::lock_guard g(m);
        return ran.size() == 3;
    }, 10));
    EXPECT_EQ(ran.back(), 5);
    t.stop();
}

}  // namespace
