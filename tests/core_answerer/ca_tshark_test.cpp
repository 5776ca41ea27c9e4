// tshark reads every NGAP message the answerer sends, with the NAS inside (null
// ciphering, so the dissector sees each message whole), and finds none malformed.
#include <gtest/gtest.h>

#include <set>

#include "asn_testlib.h"
#include "ca_loop.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mvalgo.h"

#ifndef KS_WSDECODE
#define KS_WSDECODE "wsdecode.sh"
#endif

namespace {

std::string gDir;

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        gDir = kst::makeTempDir("catshark");
        __init_morva_core();
        __mv_init_logger((gDir + "/").c_str());
        ASSERT_EQ(__mv_ogs_init_crypto_fun(), 0);
    }
    void TearDown() override {
        if (!getenv("KS_KEEP_LOGS")) kst::removeTree(gDir);
    }
};

using cad::Bytes;
using cad::Ue;
using cat::Loop;

bool waitUe(Loop& l, size_t i, const std::function<bool(const Ue&)>& p) { return l.drv.waitUe(i, p, 20); }

Bytes ngReset() {
    void* rec = nullptr;
    std::string err;
    const MvAsnPdu* p = __mv_asn_pdu_from_json(
        mv_asn_amf::kPdus, mv_asn_amf::kPduCount,
        R"({"pdu": "NGReset", "ies": {"id-Cause": {"misc": "om-intervention"}, "id-ResetType": {"nG-Interface": "reset-all"}}})",
        &rec, &err);
    return p ? encodePdu(p, rec) : Bytes();
}

// Every procedure the answerer has, with null ciphering; what the gNB received.
std::vector<Bytes> everyMessage() {
    Loop l({"--nea", "0", "--identity-request", "suci", "--imeisv-request", "--accept-in", "ics", "--t3550", "0",
            "--t3560", "0", "--t3570", "0"});
    EXPECT_TRUE(l.ok) << l.error;
    EXPECT_TRUE(l.setup());
    // UE 0 lives it all: identity, authentication, security mode, accept in a context
    // setup, sessions of the three address types, modification, release, context
    // release, service request, deregistration by the network.
    l.drv.registerUe(0);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.registered; }));
    for (uint8_t psi : {1, 2, 3}) {
        l.drv.establish(0, psi, psi);
        EXPECT_TRUE(waitUe(l, 0, [psi](const Ue& u) { return u.sessions.at(psi).accepted && u.sessions.at(psi).resources; }));
    }
    l.drv.modify(0, 1);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.sessions.at(1).modified; }));
    l.drv.releaseSession(0, 2);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.sessions.at(2).released; }));
    l.drv.releaseContext(0);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.contextReleases == 1; }));
    l.drv.serviceRequest(0);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.serviceAccepts == 1; }));
    EXPECT_EQ(l.amf->control("dereg all rereg", nullptr).rfind("OK", 0), 0u);
    EXPECT_TRUE(waitUe(l, 0, [](const Ue& u) { return u.deregisteredByNetwork && u.contextReleases == 2; }));
    // The rejects and answers to what the network refuses.
    l.amf->control("knob reject RegistrationRequest 3 1", nullptr);
    l.drv.registerUe(1);
    EXPECT_TRUE(waitUe(l, 1, [](const Ue& u) { return u.rejectCause == 3; }));
    cad::UeBehaviour wrong;
    wrong.wrongRes = true;
    l.drv.registerUe(2, wrong);
    EXPECT_TRUE(waitUe(l, 2, [](const Ue& u) { return u.authRejected; }));
    l.amf->control("knob status AuthenticationRequest 111 1", nullptr);
    l.drv.registerUe(3);
    EXPECT_TRUE(waitUe(l, 3, [](const Ue& u) { return u.statusCause == 111; }));
    l.drv.registerUe(4);
    EXPECT_TRUE(waitUe(l, 4, [](const Ue& u) { return u.registered; }));
    l.drv.establish(4, 1, 5);  // Ethernet is not served
    l.drv.releaseSession(4, 9);
    l.drv.modify(4, 7);
    EXPECT_TRUE(waitUe(l, 4, [](const Ue& u) {
        return u.sessions.count(1) && u.sessions.at(1).rejectCause == 28 && u.sessions.count(9) &&
               u.sessions.at(9).rejectCause == 43 && u.sessions.count(7) && u.sessions.at(7).rejectCause == 43;
    }));
    l.drv.sendNas(4, l.drv.protect(4, {0x7E, 0x00, 0x60}));  // no such message type
    EXPECT_TRUE(waitUe(l, 4, [](const Ue& u) { return u.statusCause == 97; }));
    // nor a 5GSM message of type 0xFF for session 1
    l.drv.sendNas(4, l.drv.protect(4, {0x7E, 0x00, 0x67, 0x01, 0x00, 0x04, 0x2E, 0x01, 0x05, 0xFF, 0x12, 0x01}));
    EXPECT_TRUE(waitUe(l, 4, [](const Ue& u) { return u.rx.count("Status"); }));
    l.drv.deregister(4, false);
    EXPECT_TRUE(waitUe(l, 4, [](const Ue& u) { return u.deregAccepts == 1; }));
    l.drv.registerUe(5);
    EXPECT_TRUE(waitUe(l, 5, [](const Ue& u) { return u.registered; }));
    l.drv.releaseContext(5);
    EXPECT_TRUE(waitUe(l, 5, [](const Ue& u) { return u.contextReleases == 1; }));
    l.amf->control("knob reject ServiceRequest 22 1", nullptr);
    l.drv.serviceRequest(5);
    EXPECT_TRUE(waitUe(l, 5, [](const Ue& u) { return u.serviceRejectCause == 22; }));
    l.drv.registerUe(6, [] {
        cad::UeBehaviour b;
        b.macFailure = true;
        return b;
    }());
    EXPECT_TRUE(waitUe(l, 6, [](const Ue& u) { return u.authRejected; }));
    // Bad input the answerer answers with an error indication.
    l.drv.sendNas(5, {0x7E, 0x00, 0x43}, 99999, 77);
    l.drv.sendRaw({0x00, 0x2E, 0x40, 0x03, 0xFF, 0xFF});
    l.drv.sendRaw(ngReset(), 0);
    EXPECT_TRUE(Loop::waitFor([&] { return l.drv.count("ErrorIndication") == 2 && l.drv.count("NGResetAcknowledge") == 1; }, 20));
    l.settle();
    std::vector<Bytes> all = l.drv.received();
    Loop refused({"--plmn", "99999"});
    refused.drv.ngSetup();
    EXPECT_TRUE(Loop::waitFor([&] { return refused.drv.setupFailed(); }, 20));
    for (Bytes& b : refused.drv.received()) all.push_back(std::move(b));
    return all;
}

TEST(Wire, TsharkReadsEveryMessageTheAnswererSends) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    std::vector<Bytes> all = everyMessage();
    ASSERT_FALSE(HasFailure());
    std::set<std::string> kinds;
    for (const Bytes& b : all) {
        ca::NgapRecord r;
        ASSERT_EQ(r.decode(b), 1) << toHex(b);
        kinds.insert(r.pdu()->name);
    }
    for (const char* k : {"NGSetupResponse", "NGSetupFailure", "NGResetAcknowledge", "DownlinkNASTransport",
                          "InitialContextSetupRequest", "PDUSessionResourceSetupRequest", "PDUSessionResourceReleaseCommand",
                          "UEContextReleaseCommand", "ErrorIndication"})
        EXPECT_TRUE(kinds.count(k)) << k << " was never sent";
    std::string files;
    for (size_t i = 0; i < all.size(); ++i) {
        std::string f = gDir + "/pdu" + std::to_string(i) + ".hex";
        kst::writeFile(f, toHex(all[i]));
        files += " " + f;
    }
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + " -q -o nas-5gs.null_decipher:TRUE ngap" + files + " 2>&1",
                        &out);
    EXPECT_EQ(rc, 0) << out;
    // The NAS messages inside, by name, as tshark reads them.
    std::string names;
    runCommand(std::string("sh ") + KS_WSDECODE + " -k " + gDir + "/all.pcapng -q ngap" + files + " >/dev/null 2>&1; " +
                   "tshark -n -r " + gDir + "/all.pcapng -o nas-5gs.null_decipher:TRUE -T fields -e nas_5gs.mm.message_type " +
                   "-e nas_5gs.sm.message_type 2>/dev/null",
               &names);
    for (const char* t : {"0x42", "0x44", "0x46", "0x47", "0x4d", "0x4e", "0x56", "0x58", "0x5b", "0x5d", "0x64", "0x68",
                          "0xc2", "0xc3", "0xca", "0xcb", "0xd2", "0xd3", "0xd6"})
        EXPECT_NE(names.find(t), std::string::npos) << "no NAS message of type " << t << " in\n" << names;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Env);
    return RUN_ALL_TESTS();
}
