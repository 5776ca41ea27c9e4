// The 5G UE's procedures run by the step runner against the core answerer in memory:
// registration with 5G-AKA and the security mode command, PDU sessions of several types
// and their release, deregistration both ways, the idle UE's service request, the test
// knobs on both sides, a failed send and bad input. tshark reads every NAS message the UE
// sent (NEA0, so the dissector sees inside).
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "Kestrane.h"
#include "KsTemplateEng.h"
#include "ks_engine_env.h"
#include "nas_net.h"
#include "mvalgo.h"
#include "nas_testlib.h"

namespace {

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "nasproc", {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 200, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                                 "DefaultTimeoutSeconds": 30, "LogLevel": {"APPLICATION": 5, "COMMON": 5}})"},
                {"data/uel.json", kst::readFile(KS_UEL)}})));

MV_KsRanAmfConnection gConn{};

uint32_t ended(MV_KsUE* ue) { return std::atomic_ref<uint32_t>(ue->EndOfTest).load(); }

// One UE of the default range with its current step, ready to run on the 3GPP access.
struct Ue {
    explicit Ue(int n) : ue(kst::ueOf001(n)) {
        if (!ue) return;
        ue->TGPP.ranAmfConnection = &gConn;
        const uint8_t plmn[3] = {0x00, 0xF1, 0x10};
        KsEngine__SetUEsSNN2(ue, plmn);
    }
    // Makes st the UE's step and runs it; true when the step ended within the time.
    bool run(nsp::Net& net, const KsStep& st, double seconds = 20) {
        start(net, st);
        return net.pumpUntil([&] { return ended(ue) == 1; }, seconds);
    }
    // Starts the step; the network's answers wait on the queue.
    void start(nsp::Net& net, const KsStep& st) {
        step = st;
        exec = KsStepExecution{};
        exec.ksStep = &step;
        exec.ksUe = ue;
        __ks_pduSessionSetupInfo* prev = nullptr;
        for (size_t i = 0; i < infos.size(); ++i) {
            setups[i] = __ks_pduSessionSetupInfo{};
            setups[i].Info = &infos[i];
            if (prev) prev->Next = &setups[i];
            else exec.pduSessionSetupHead = &setups[i];
            prev = &setups[i];
        }
        ue->ksStepExecution = ue->ksStepExecutionHead = &exec;
        std::atomic_ref<uint32_t>(ue->EndOfTest).store(0);
        net.runOnly([&] { KsNAS__runStep_FQ(ue, KS_BEARER__3GPP); });
    }
    void session(uint8_t id, uint8_t type, uint32_t requestType = 1) {
        __ks_pduSessionInfo i{};
        i.PDUSessionId = id;
        i.PDUSessionType = type;
        i.PDUSessionType_isset = type ? 1 : 0;
        i.PDUSessionRequestType = requestType;
        snprintf(i.DNNName, sizeof i.DNNName, "internet");
        infos.push_back(i);
    }
    MV_KsUE* ue;
    KsStep step{};
    KsStepExecution exec{};
    std::vector<__ks_pduSessionInfo> infos;
    __ks_pduSessionSetupInfo setups[8]{};
};

KsStep stepOf(uint32_t code) {
    KsStep s{};
    s.StepCode = code;
    s.RegistrationType = 1;
    s.EA0 = s.EA1 = s.EA2 = s.IA0 = s.IA1 = s.IA2 = 1;
    return s;
}

// A fresh UE record state: no context, no GUTI, no sessions (UEs are shared by the tests).
void forget(MV_KsUE* ue) {
    for (MV_KsUECtx* c : {&ue->TGPP, &ue->NTGPP}) {
        c->security_context_available = 0;
        c->ngKSI = 7;
        c->RMStatus = 0;
        c->CMStatus = 0;
        c->ranUeContext = nullptr;
    }
    ue->fgGuti.isset = 0;
    for (auto& s : ue->pduSessions) s.PduAddress_SessionType = 0;
}


// A downlink message protected with the UE's own context, as its network would send it
// next: for input the answerer would never make.
std::vector<uint8_t> protectDown(MV_KsUE* ue, const uint8_t* plain, size_t n) {
    MV_KsUECtx* c = &ue->TGPP;
    std::vector<uint8_t> b(7 + n);
    b[0] = 0x7E;
    b[1] = 2;
    b[6] = uint8_t(c->dl_count);
    memcpy(b.data() + 7, plain, n);
    EXPECT_EQ(__mv_algo__nas_encrypt(c->selected_ciphering_algo, c->knas_enc, c->dl_count, 1, 1, b.data() + 7,
                                     uint32_t(n)),
              0);
    EXPECT_EQ(__mv_algo__nas_mac_calculate(c->selected_integrity_algo, c->knas_int, c->dl_count, 1, 1, b.data() + 6,
                                           uint32_t(n + 1), b.data() + 2),
              0);
    return b;
}

// A DL NAS transport with an establishment accept for session psi with an address of that type.
std::vector<uint8_t> acceptFor(MV_KsUE* ue, uint8_t psi, uint8_t addressType) {
    NASPduFGSM_PDUSessionEstablishmentAccept a;
    memset(static_cast<void*>(&a), 0, sizeof a);
    a.pHeader.PDUSessionId = psi;
    a.pHeader.ProcedureTransactionIdentity = ue->ProcedureTransactionIdentity;
    a.pHeader.ProcedureTransactionIdentity_isset = 1;
    a.b1 = uint8_t(0x10 | addressType);
    const uint8_t rule[] = {0x01, 0x00, 0x06, 0x31, 0x31, 0x01, 0x01, 0xFF, 0x01};
    memcpy(a.mAuthorizedQoSRules.data, rule, sizeof rule);
    a.mAuthorizedQoSRules.Length = sizeof rule;
    a.mAuthorizedQoSRules.isset = 1;
    a.mSessionAMBR.Length = 6;
    a.mSessionAMBR.DownlinkUnit = a.mSessionAMBR.UplinkUnit = 6;
    a.mSessionAMBR.Downlink = a.mSessionAMBR.Uplink = 100;
    a.mSessionAMBR.isset = 1;
    a.mPDUAddress.PDUSessionType = addressType;
    const uint8_t addr[12] = {0, 0, 0, 0, 0, 0, 0, 7, 10, 45, 0, 99};
    size_t alen = addressType == 1 ? 4 : addressType == 2 ? 8 : 12;
    memcpy(a.mPDUAddress.data, addressType == 1 ? addr + 8 : addr, alen);
    a.mPDUAddress.Length = uint8_t(alen + 1);
    a.mPDUAddress.isset = 1;
    __mv_asn_coding_context sm;
    __mv_asn_init_CodingContext(&sm);
    EXPECT_EQ(__mv_naspdu_fgsm_encodePDUSessionEstablishmentAccept(&a, &sm), 0);
    static NASPduFGMM_DLNASTransport t;
    memset(static_cast<void*>(&t), 0, sizeof t);
    t.b1 = 1;
    memcpy(t.mPayloadContainer.data, sm.buffer, sm.pos);
    t.mPayloadContainer.Length = sm.pos;
    t.mPayloadContainer.isset = 1;
    t.mPDUSessionID.Value = psi;
    t.mPDUSessionID.Length = 1;
    t.mPDUSessionID.isset = 1;
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    EXPECT_EQ(__mv_naspdu_fgmm_encodeDLNASTransport(&t, &ctx), 0);
    return protectDown(ue, ctx.buffer, ctx.pos);
}

size_t countType(const nsp::Net& n, uint32_t t) {
    return size_t(std::count(n.uplinkTypes.begin(), n.uplinkTypes.end(), t));
}

TEST(NasProcedures, RegistrationRunsFiveGAkaSecurityModeAndAcceptEndToEnd) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(1);
    ASSERT_NE(u.ue, nullptr);
    forget(u.ue);
    uint64_t n1Before = __ksEngine->Sent_N1_Registration->Request;
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED));
    EXPECT_EQ(u.ue->TGPP.security_context_available, 1u);
    EXPECT_EQ(u.ue->TGPP.selected_integrity_algo, 2);
    EXPECT_EQ(u.ue->TGPP.selected_ciphering_algo, 2);
    EXPECT_EQ(u.ue->fgGuti.isset, 1);
    EXPECT_EQ(u.ue->TGPP.registrationReqPayload, nullptr) << "freed at the accept";
    EXPECT_EQ(net.uplinkTypes, (std::vector<uint32_t>{65, 87, 94, 67}));
    EXPECT_EQ(net.counter("ue.registered"), 1u);
    EXPECT_EQ(__ksEngine->Sent_N1_Registration->Request - n1Before, 1u);
    // The complete is the first message under the new context, the accept's answer the next.
    EXPECT_EQ(net.uplinkNas[2][1], 4);
    EXPECT_EQ(net.uplinkNas[3][1], 2);
}

TEST(NasProcedures, SessionsOfSeveralTypesReleaseIdleServiceRequestAndDeregistration) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(2);
    forget(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    u.ue->ProcedureTransactionIdentity = 0;
    // Two sessions in one step, one after the other.
    u.session(1, 1);
    u.session(2, 3);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__PDU_SESSION)));
    EXPECT_EQ(u.ue->pduSessions[1].PduAddress_SessionType, 1);
    EXPECT_NE(u.ue->pduSessions[1].u_pduAddress, 0u);
    EXPECT_EQ(u.ue->pduSessions[2].PduAddress_SessionType, 3);
    EXPECT_EQ(u.ue->pduSessions[2].PduAddressIPv6[0], 0xFE);
    EXPECT_EQ(countType(net, 103), 2u);
    // The first session request of the UE carries procedure transaction identity 1 (in
    // the 5GSM message inside the plain UL NAS transport, which the test cannot see
    // ciphered), so it is read from the UE's counter.
    EXPECT_EQ(u.ue->ProcedureTransactionIdentity, 2);

    // Release of session 1: request, command, complete.
    u.infos.clear();
    u.session(1, 1, 3);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__PDU_SESSION)));
    EXPECT_EQ(u.ue->pduSessions[1].PduAddress_SessionType, 0);
    EXPECT_EQ(u.ue->pduSessions[2].PduAddress_SessionType, 3);

    // The UE's context is released: the next session step first asks for service.
    net.releaseForTest(u.ue);
    EXPECT_EQ(u.ue->TGPP.CMStatus, uint32_t(CM_STATUS__IDLE));
    size_t srBefore = countType(net, 76);
    u.infos.clear();
    u.session(3, 1);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__PDU_SESSION)));
    EXPECT_EQ(countType(net, 76) - srBefore, 1u) << "a service request before the session request";
    EXPECT_EQ(u.ue->pduSessions[3].PduAddress_SessionType, 1);

    // Deregistration, normal.
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__DEREGISTRATION)));
    EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__DEREGISTERED));
    EXPECT_EQ(u.ue->pduSessions[2].PduAddress_SessionType, 0);
    EXPECT_EQ(net.counter("nas.tx.DeregistrationAcceptUEI") + net.counter("nas.tx.DeregistrationAccept"), 1u)
        << net.control("counters");
}

TEST(NasProcedures, ServiceRequestStepAndSwitchOffDeregistration) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(3);
    forget(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    net.releaseForTest(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__SERVICE_REQUEST)));
    EXPECT_EQ(net.counter("ue.service_accepts") + net.counter("nas.tx.ServiceAccept"), 1u) << net.control("counters");
    EXPECT_EQ(u.ue->TGPP.CMStatus, uint32_t(CM_STATUS__CONNECTED));
    KsStep off = stepOf(KS_STEP__DEREGISTRATION);
    off.Cause = 1;
    ASSERT_TRUE(u.run(net, off, 20)) << "ends by its own timer, with no accept";
    EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__DEREGISTERED));
    EXPECT_EQ(u.ue->TGPP.registrationReqPayload, nullptr) << "a switch-off keeps no payload";
}

TEST(NasProcedures, AuthenticationKnobsSyncFailureMacFailureAndIgnore) {
    nsp::Net net({"--t3560", "200"});
    ASSERT_TRUE(net.ok) << net.error;
    {
        Ue u(4);
        forget(u.ue);
        // A first registration puts the UE's SQN in step with the network's: the forced
        // failure needs the AUTN's SQN to be the one the UE expects.
        ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
        forget(u.ue);
        u.ue->TGPP.sqn += 32;  // the UE trails the network by one vector after a success
        KsStep st = stepOf(KS_STEP__REGISTRATION);
        st.SyncFailure = 1;
        st.SyncFailureMaxCount = 1;
        ASSERT_TRUE(u.run(net, st));
        EXPECT_GE(countType(net, 89), 1u) << "synch failures with AUTS";
        EXPECT_EQ(u.exec.SyncFailureCounter, 1);
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED)) << "the answerer resynchronised";
        printf("synch failures sent: %zu\n", countType(net, 89));
        if (getenv("NASPROC_DEBUG")) {
            std::string log = gEnv->appLog();
            for (size_t p = log.find("SQN-UE"); p != std::string::npos; p = log.find("SQN-UE", p + 1))
                printf("%s\n", log.substr(p, 80).c_str());
        }
    }
    {
        Ue u(5);
        forget(u.ue);
        KsStep st = stepOf(KS_STEP__REGISTRATION);
        st.MACFailure = 1;
        ASSERT_TRUE(u.run(net, st));
        EXPECT_EQ(u.ue->TGPP.NASErrorMessage, 88u) << "authentication reject";
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__DEREGISTERED));
    }
    {
        Ue u(6);
        forget(u.ue);
        KsStep st = stepOf(KS_STEP__REGISTRATION);
        st.AuthenticationRequestIgnoreCount = 1;
        st.SecurityModeCommandIgnoreCount = 1;
        ASSERT_TRUE(u.run(net, st));
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED)) << "the retransmissions were answered";
        EXPECT_EQ(u.exec.AuthenticationRequestIgnoreCounter, 1);
        EXPECT_EQ(u.exec.SecurityModeCommandIgnoreCounter, 1);
    }
}

TEST(NasProcedures, RejectsAndStatusEndTheStepWithTheirCauses) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    {
        Ue u(7);
        forget(u.ue);
        KsStep st = stepOf(KS_STEP__REGISTRATION);
        st.SecurityModeReject = 1;
        ASSERT_TRUE(u.run(net, st));
        EXPECT_EQ(u.ue->TGPP.NASErrorMessage, 68u) << "registration reject after the security mode reject";
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__DEREGISTERED));
    }
    {
        Ue u(8);
        forget(u.ue);
        net.control("knob reject RegistrationRequest 3 1");
        ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
        EXPECT_EQ(u.ue->TGPP.NASErrorCause, 3u);
        EXPECT_EQ(u.ue->TGPP.ranUeContext, nullptr) << "the RAN context is given back";
    }
    {
        Ue u(9);
        forget(u.ue);
        net.control("knob status RegistrationAccept 111 1");
        ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
        EXPECT_EQ(u.ue->TGPP.NASErrorMessage, 100u);
        EXPECT_EQ(u.ue->TGPP.NASErrorCause, 111u);
    }
}

TEST(NasProcedures, AFailedSendEndsTheRunAndBadInputTouchesNothing) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(10);
    forget(u.ue);
    net.failSends = 1;
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION), 5));
    EXPECT_EQ(u.ue->AppError, 2u);
    EXPECT_EQ(u.ue->defTimer, nullptr) << "no step timer left behind";

    Ue v(11);
    forget(v.ue);
    ASSERT_TRUE(v.run(net, stepOf(KS_STEP__REGISTRATION)));
    uint64_t errors = __ksEngine->NASErrors;
    uint32_t dl = v.ue->TGPP.dl_count;
    // A protected message with a wrong MAC, and a truncated one: dropped, counted, no state moves.
    std::vector<uint8_t> bad = {0x7E, 0x02, 1, 2, 3, 4, uint8_t(dl), 0x7E, 0x00, 0x54};
    net.run([&] { KsNAS__processNasMessage(v.ue, bad.data(), uint32_t(bad.size()), 1, 4); });
    std::vector<uint8_t> cut = {0x7E, 0x02, 1};
    net.run([&] { KsNAS__processNasMessage(v.ue, cut.data(), uint32_t(cut.size()), 1, 4); });
    EXPECT_EQ(__ksEngine->NASErrors - errors, 2u);
    EXPECT_EQ(v.ue->TGPP.dl_count, dl);
    EXPECT_EQ(v.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED));
}

TEST(NasProcedures, AcceptsForSessionsNotAskedForOrOfAnotherTypeAreDropped) {
    nsp::Net net;
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(13);
    forget(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    // The network's answer waits on the queue while the test answers first.
    u.session(1, 1);
    u.start(net, stepOf(KS_STEP__PDU_SESSION));
    for (auto [psi, type] : {std::pair<uint8_t, uint8_t>{5, 1}, {1, 2}}) {
        auto pdu = acceptFor(u.ue, psi, type);
        net.runOnly([&] { KsNAS__processNasMessage(u.ue, pdu.data(), uint32_t(pdu.size()), 1, 4); });
        EXPECT_EQ(ended(u.ue), 0u) << "session " << int(psi) << " type " << int(type);
    }
    EXPECT_EQ(u.ue->pduSessions[5].PduAddress_SessionType, 0);
    EXPECT_EQ(u.ue->pduSessions[1].PduAddress_SessionType, 0);
    const auto good = acceptFor(u.ue, 1, 1);
    auto first = good;  // the UE deciphers in place
    net.runOnly([&] { KsNAS__processNasMessage(u.ue, first.data(), uint32_t(first.size()), 1, 4); });
    // The network's own accept, at a COUNT the test's messages used up, fails its MAC.
    EXPECT_TRUE(net.pumpUntil([&] { return ended(u.ue) == 1; }));
    EXPECT_EQ(u.ue->pduSessions[1].PduAddress_SessionType, 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(u.ue->pduSessions[1].PduAddress), "10.45.0.99");
    // The same message again: its sequence number is stale, its MAC fails, nothing moves.
    uint64_t errors = __ksEngine->NASErrors;
    auto again = good;
    net.run([&] { KsNAS__processNasMessage(u.ue, again.data(), uint32_t(again.size()), 1, 4); });
    EXPECT_EQ(__ksEngine->NASErrors - errors, 1u);
}

TEST(NasProcedures, IdentityRequestsIgnoredThenAnsweredAndTheNetworksDeregistration) {
    {
        nsp::Net net({"--identity-request", "suci", "--t3570", "200"});
        ASSERT_TRUE(net.ok) << net.error;
        Ue u(14);
        forget(u.ue);
        KsStep st = stepOf(KS_STEP__REGISTRATION);
        st.IdentityRequestIgnoreCount = 1;
        ASSERT_TRUE(u.run(net, st));
        EXPECT_EQ(u.exec.IdentityRequestIgnoreCounter, 1);
        EXPECT_EQ(countType(net, 92), 1u) << "the retransmitted request is answered with the SUCI";
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED));
        // The network deregisters the UE: it accepts and is deregistered.
        net.control("dereg all");
        net.pump();
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__DEREGISTERED));
        EXPECT_EQ(countType(net, 0), 1u) << "the deregistration accept";
    }
    {
        nsp::Net net({"--identity-request", "imei"});
        ASSERT_TRUE(net.ok) << net.error;
        Ue u(15);
        forget(u.ue);
        ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
        EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED));
        EXPECT_EQ(countType(net, 92), 1u) << "the IMEI, asked under protection";
    }
}

// A registration template replaces the defaults with its elements; without a security context
// the request on the wire carries only the cleartext ones, and the whole request reaches the AMF
// in the security mode complete's container.
TEST(NasProcedures, RegistrationTemplateGivesTheElementsAndTheFirstRequestOnlyTheCleartextOnes) {
    if (runCommand("command -v tshark >/dev/null 2>&1", nullptr) != 0) GTEST_SKIP() << "no tshark";
    json_t* j = json_loads(R"({"Type": "NAS5G", "Templates": [{"Name": "reg-sst1", "MessageType": 65, "Elements": [
        {"ID": "10", "ValueType": "Json", "Value": {"Hex": "07"}},
        {"ID": "2E", "ValueType": "UEProperty"},
        {"ID": "2F", "ValueType": "Json", "Value": {"Hex": "0101"}},
        {"ID": "52", "ValueType": "Json", "Value": {"HexPLMN": "00F110", "TAC": 7}},
        {"ID": "18", "ValueType": "Json", "Value": {"Hex": "01"}},
        {"ID": "40", "ValueType": "Json", "Value": {"Hex": "0020"}},
        {"ID": "50", "ValueType": "Json", "Value": {"Hex": "01"}},
        {"ID": "A-", "ValueType": "Int", "Value": 1}]}]})",
                           0, nullptr);
    ASSERT_TRUE(j);
    KsTemplateEng__LoadTemplate(j, "nasproc.json");
    json_decref(j);
    MV_Template* tpl = KsTemplateEng__FindTemplateByMessageId("reg-sst1", "NAS5G", 65);
    ASSERT_NE(tpl, nullptr);

    nsp::Net net({"--nea", "0"});
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(14);
    forget(u.ue);
    KsStep st = stepOf(KS_STEP__REGISTRATION);
    st.nas5G_regTemplate = tpl;
    ASSERT_TRUE(u.run(net, st));
    EXPECT_EQ(u.ue->TGPP.RMStatus, uint32_t(RM_STATUS__REGISTERED));
    ASSERT_GE(net.uplinkNas.size(), 3u);

    std::string dir = kst::makeTempDir("nasproc_tpl");
    auto dissect = [&](const std::vector<uint8_t>& pdu) {
        std::string f = dir + "/p.hex", out;
        kst::writeFile(f, kst::toHex(pdu) + "\n");
        EXPECT_EQ(runCommand(std::string("sh ") + KS_WSDECODE + " -o nas-5gs.null_decipher:TRUE pdu:nas-5gs " + f +
                                 " 2>&1",
                             &out),
                  0)
            << out;
        return out;
    };
    std::string first = dissect(net.uplinkNas[0]);
    EXPECT_NE(first.find("UE security capability"), std::string::npos) << first;
    for (const char* absent : {"NSSAI", "5GMM capability", "Last visited registered TAI", "UE's usage setting"})
        EXPECT_EQ(first.find(absent), std::string::npos) << absent << " is no cleartext element\n" << first;
    std::string whole = dissect(net.uplinkNas[2]);  // the security mode complete and its container
    for (const char* present : {"Requested NSSAI", "5GMM capability", "UE's usage setting", "Uplink data status",
                                "N5GC indication", "Last visited registered TAI"})
        EXPECT_NE(whole.find(present), std::string::npos) << present << "\n" << whole;
    EXPECT_EQ(whole.find("5GS update type"), std::string::npos) << "a template without it leaves it out";
    EXPECT_EQ(whole.find("PDU session status"), std::string::npos) << "one octet where two are needed leaves it out";
    EXPECT_NE(whole.find("Slice/service type (SST): eMBB (1)"), std::string::npos) << whole;
    EXPECT_EQ(whole.find("Slice differentiator"), std::string::npos) << "SST 1 alone, as the template said";
    EXPECT_NE(whole.find("TAC: 7"), std::string::npos) << whole;
    kst::removeTree(dir);
}

// A session step's templates: the establishment request carries what its template names and
// nothing of the defaults, the UL NAS transport the template's S-NSSAI and DNN.
TEST(NasProcedures, SessionTemplatesShapeTheEstablishmentRequestAndItsTransport) {
    if (runCommand("command -v tshark >/dev/null 2>&1", nullptr) != 0) GTEST_SKIP() << "no tshark";
    json_t* j = json_loads(R"({"Type": "NAS5G", "Templates": [
        {"Name": "est-tpl", "MessageType": 193, "Elements": [
            {"ID": "IntegrityProtectionMaximumDatarate", "ValueType": "Json", "Value": {"Uplink": 255, "Downlink": 1}},
            {"ID": "9-", "ValueType": "Int", "Value": 1},
            {"ID": "A-", "ValueType": "Int", "Value": 1},
            {"ID": "55", "ValueType": "Int", "Value": 16},
            {"ID": "B-", "ValueType": "Int", "Value": 1},
            {"ID": "7B", "ValueType": "Json", "Value": {"PC000D": 1, "PC0011": 1}}]},
        {"Name": "ul-tpl", "MessageType": 103, "Elements": [
            {"ID": "22", "ValueType": "Json", "Value": {"Hex": "01"}},
            {"ID": "25", "ValueType": "String", "Value": "\binternet"}]}]})",
                           0, nullptr);
    ASSERT_TRUE(j);
    KsTemplateEng__LoadTemplate(j, "nasproc-sm.json");
    json_decref(j);
    KsTemplateEng__DoInterfaceIndex(KsTemplateEng__FindInterface("NAS5G"));
    MV_Template* est = KsTemplateEng__FindTemplateByMessageId("est-tpl", "NAS5G", 193);
    MV_Template* ul = KsTemplateEng__FindTemplateByMessageId("ul-tpl", "NAS5G", 103);
    ASSERT_TRUE(est && ul);

    nsp::Net net({"--nea", "0"});
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(15);
    forget(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    size_t before = net.uplinkNas.size();
    u.session(1, 3);  // the template's type 1 wins over the step's 3
    KsStep st = stepOf(KS_STEP__PDU_SESSION);
    st.nas5G_pduSessionTemplate = est;
    st.nas5G_ulNASTransport = ul;
    ASSERT_TRUE(u.run(net, st));
    ASSERT_GT(net.uplinkNas.size(), before);
    EXPECT_EQ(u.ue->pduSessions[1].PduAddress_SessionType, 1) << "an IPv4 session, as the template asked";

    std::string dir = kst::makeTempDir("nasproc_smtpl"), f = dir + "/p.hex", out;
    kst::writeFile(f, kst::toHex(net.uplinkNas[before]) + "\n");
    EXPECT_EQ(runCommand(std::string("sh ") + KS_WSDECODE + " -o nas-5gs.null_decipher:TRUE pdu:nas-5gs " + f + " 2>&1",
                         &out),
              0)
        << out;
    for (const char* present : {"SSC mode 1", "Always-on PDU session requested", "Maximum number of supported packet filters",
                                "Extended protocol configuration options", "S-NSSAI", "DNN: internet"})
        EXPECT_NE(out.find(present), std::string::npos) << present << "\n" << out;
    EXPECT_EQ(out.find("5GSM capability"), std::string::npos) << "not in the template";
    kst::removeTree(dir);
}

TEST(NasProcedures, EveryMessageTheUeSendsDissectsClean) {
    if (runCommand("command -v tshark >/dev/null 2>&1", nullptr) != 0) GTEST_SKIP() << "no tshark";
    nsp::Net net({"--nea", "0"});
    ASSERT_TRUE(net.ok) << net.error;
    Ue u(12);
    forget(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__REGISTRATION)));
    u.session(1, 1);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__PDU_SESSION)));
    u.infos.clear();
    u.session(1, 1, 3);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__PDU_SESSION)));
    net.releaseForTest(u.ue);
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__SERVICE_REQUEST)));
    ASSERT_TRUE(u.run(net, stepOf(KS_STEP__DEREGISTRATION)));
    ASSERT_GE(net.uplinkNas.size(), 9u);

    std::string dir = kst::makeTempDir("nasproc_ws");
    std::string args;
    for (size_t i = 0; i < net.uplinkNas.size(); ++i) {
        std::string f = dir + "/p" + std::to_string(i) + ".hex";
        kst::writeFile(f, kst::toHex(net.uplinkNas[i]) + "\n");
        args += " " + f;
    }
    std::string pcap = dir + "/all.pcapng", err = dir + "/err";
    const std::string opt = " -o nas-5gs.null_decipher:TRUE";
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + " -q -k " + pcap + opt + " pdu:nas-5gs" + args + " 2>" + err,
                        nullptr);
    EXPECT_EQ(rc, 0) << kst::readFile(err);
    std::string text;
    runCommand("tshark -n -r " + pcap + opt +
                   " -T fields -E separator='|' -E occurrence=a -E aggregator=, -e nas_5gs.security_header_type"
                   " -e nas_5gs.seq_no -e nas_5gs.mm.message_type -e nas_5gs.pdu_session_id -e nas_5gs.sm.message_type"
                   " -e nas_5gs.mm.suci.msin -e nas_5gs.cmn.dnn 2>/dev/null",
               &text);
    EXPECT_NE(text.find("0x41"), std::string::npos) << text;  // the registration request
    EXPECT_NE(text.find("0xc1"), std::string::npos) << text;  // the session establishment request
    EXPECT_NE(text.find("internet"), std::string::npos) << text;
    kst::removeTree(dir);
}

}  // namespace
