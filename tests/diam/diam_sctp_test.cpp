// Over SCTP (the userspace stack) between this process in one network namespace and a
// second node of ours in another: a multi-homed association, capability exchange,
// watchdogs both ways, requests tracked to their answers, malformed messages that leave
// the association up, disconnect by DPR, an association lost and made again. tshark reads
// every message this side sends.
#include "../endpoint/netns.h"
#include <set>

#include "diam_env.h"

namespace {

#define REQUIRE_NETNS()                                                                           \
    do {                                                                                          \
        if (!kse::Netns::get().skipReason.empty()) GTEST_SKIP() << kse::Netns::get().skipReason; \
    } while (0)

constexpr int kPort = 3868;
constexpr const char* kRealm = "sctp.realm";

ksd::Recorder* recorder = nullptr;
void onGxAnswer(MV_DiamMessage* msg) {
    if (!(__mv_diam_get_cmdflags(msg) & MV_DIAM_FLAG_REQUEST))
        recorder->add({__mv_diam_get_cmdcode(msg), __mv_diam_get_applicationid(msg), ntohl(__mv_diam_get_e2eid(msg)),
                       __mv_diam_get_result_code(msg), __mv_diam_get_cmdflags(msg), __mv_diam_answer_object(msg)});
    __mv_diam_freeMessage2(msg);
}

using ksd::ccr;

TEST(DiamSctp, TheWholeExchangeWithASecondNodeInAnotherNamespace) {
    REQUIRE_NETNS();
    ksd::Recorder& rec = *new ksd::Recorder;
    recorder = &rec;
    __mv_diam_register_app_handler(ksd::kGx, onGxAnswer);
    std::unique_ptr<ksd::Capture> cap;
    if (ksd::tsharkPresent())
        cap = std::make_unique<ksd::Capture>(ksd::root() + "/sctp.pcapng", "kva",
                                             std::string("sctp and (src host ") + kse::Netns::A[0] + " or src host " +
                                                 kse::Netns::A[1] + ")");
    std::string logs = ksd::root() + "/node/";
    kse::Peer node({KS_DIAM_NODE, "--addrs", std::string(kse::Netns::B[0]) + "," + kse::Netns::B[1], "--port",
                    std::to_string(kPort), "--dwr", "1", "--host", std::string("node.") + kRealm, "--realm", kRealm,
                    "--logs", logs});
    ASSERT_EQ(node.waitLine("READY", 15), "READY");

    MV_DiamNode* local = ksd::makeHost("sctp", std::string("ks.") + kRealm, kRealm, kse::Netns::A[0], 0,
                                       MV_DIAM_TRANSPORT_SCTP);
    MV_DiamNode* p = ksd::makePeer(local, std::string("node.") + kRealm, kRealm, kse::Netns::B[0], kPort, 1,
                                   MV_DIAM_TRANSPORT_SCTP);
    snprintf(p->sIP[1], sizeof p->sIP[1], "%s", kse::Netns::B[1]);
    p->sIPCount = 2;
    snprintf(p->sHostIP[0], sizeof p->sHostIP[0], "%s", kse::Netns::A[0]);
    snprintf(p->sHostIP[1], sizeof p->sHostIP[1], "%s", kse::Netns::A[1]);
    p->sHostIPCount = 2;
    p->SCTP_MaxOStreams = 4;
    p->SCTP_MaxIStreams = 4;
    ASSERT_EQ(__mv_diam_start_peer(p), 1);
    ASSERT_TRUE(ksd::waitStatus(p, 20, 30)) << "status " << __mv_diam__get_peer_status(p);
    EXPECT_GE(p->vSiSocket.load()->peer_max_o_streams.load(), 2);

    // Watchdogs: ours at one second of silence, then, ours made long, the node's.
    ASSERT_TRUE(kst::waitFor([&] { return p->ReceivedDWA >= 2; }, 20));
    p->DWRTimer = 60;
    ASSERT_TRUE(kst::waitFor([&] { return p->ReceivedDWR >= 2; }, 20));

    // Requests on the streams in turn, each answer tracked to its object; one the node does not serve.
    int ue[6];
    for (int i = 0; i < 6; ++i) {
        MV_DiamMessage* m = ccr(local, p, ksd::kGx, &ue[i]);
        ASSERT_GT(__mv_diam_send_message(m, p), 0);
        __mv_diam_freeMessage2(m);
    }
    MV_DiamMessage* m = ccr(local, p, 16777999, nullptr);
    ASSERT_GT(__mv_diam_send_message(m, p), 0);
    __mv_diam_freeMessage2(m);
    ASSERT_TRUE(kst::waitFor([&] { return rec.count() >= 6; }, 15));
    std::set<void*> objects;
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(rec.at(i).resultCode, uint32_t(DIAMETER_SUCCESS));
        objects.insert(rec.at(i).object);
    }
    EXPECT_EQ(objects.size(), 6u);
    EXPECT_FALSE(objects.count(nullptr));

    // Malformed messages from the node: each logged and dropped (the request answered 5014);
    // the association stays.
    uint64_t errors = p->DecodeErrors;
    node.send("bad");
    EXPECT_EQ(node.waitLine("ANSWER", 10), "ANSWER cmd=272 result=5014");
    EXPECT_TRUE(kst::waitFor([&] { return p->DecodeErrors >= errors + 5; }, 10)) << p->DecodeErrors - errors;
    EXPECT_GE(__mvDiamStack->Counters.UnknownAnswers.load(), 1u);
    EXPECT_EQ(__mv_diam__get_peer_status(p), 20);
    uint64_t connects = p->Connects;

    // Disconnect by DPR and back.
    __mv_diam_disable_peer(p);
    ASSERT_TRUE(ksd::waitStatus(p, 8, 15));
    EXPECT_TRUE(kst::waitFor([] { return ksd::stackLog().find("DPA received from") != std::string::npos; }, 5));
    __mv_diam_enable_peer(p);
    ASSERT_TRUE(ksd::waitStatus(p, 20, 30));

    // The node drops the association: it is made again.
    node.send("close");
    ASSERT_TRUE(kst::waitFor([&] { return __mv_diam__get_peer_status(p) != 20; }, 15));
    ASSERT_TRUE(ksd::waitStatus(p, 20, 30));
    EXPECT_GE(p->Connects, connects + 2);
    __mv_diam_disable_peer(p);
    ASSERT_TRUE(ksd::waitStatus(p, 8, 15));

    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok());
    std::string seen = cap->summary("");
    for (const char* want : {"1 257", "1 280", "0 280 0 2001", "1 272 16777238", "0 272 16777238 5014", "1 282"})
        EXPECT_NE(seen.find(want), std::string::npos) << want << " not on the wire:\n" << seen;
    EXPECT_EQ(ksd::wsdecode("-o sctp.checksum:CRC-32C -r " + cap->path() + " diameter"), "");
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: every thread and stack socket of this process is then in A.
    if (!::testing::GTEST_FLAG(list_tests)) kse::Netns::get().enter();
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
