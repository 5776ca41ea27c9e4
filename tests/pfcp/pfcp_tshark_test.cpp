// Independent readers and writers: tshark reads every sample message the codec writes, and the codec
// reads answers and reports that scapy's PFCP layers build.
#include "pfcp_testlib.h"

namespace {

using namespace kpf;

const std::vector<std::string> kFields = {"pfcp.msg_type",  "pfcp.seqno",  "pfcp.seid",   "pfcp.f_teid.teid",
                                          "pfcp.pdr_id",    "pfcp.far_id", "pfcp.qer_id", "pfcp.urr_id",
                                          "pfcp.ue_ip_addr_ipv4", "pfcp.cause", "pfcp.node_id_ipv4"};

TEST(PfcpTshark, EverySampleDissectsCleanWithTheValuesItCarries) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::vector<Bytes> packets;
    for (const Sample& s : samples()) packets.push_back(sampleBytes(s));
    TsharkRun run = runTshark(packets, kFields);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), packets.size());
    for (size_t i = 0; i < packets.size(); i++) {
        SCOPED_TRACE(samples()[i].name);
        EXPECT_EQ(run.fields[i]["pfcp.msg_type"], std::to_string(packets[i][1]));
    }
    // The session establishment as a UE's session fills it: both SEIDs, the access F-TEID, the rule
    // ids, the UE's address.
    auto& est = run.fields[15];
    EXPECT_EQ(est["pfcp.seid"], "0x0000000000000000,0x00000000000001f6");
    EXPECT_EQ(est["pfcp.f_teid.teid"], "0x000003e8");
    EXPECT_EQ(est["pfcp.pdr_id"], "1,2");
    EXPECT_EQ(est["pfcp.far_id"], "1,2,1,2");
    EXPECT_EQ(est["pfcp.qer_id"], "1,1,1");
    EXPECT_EQ(est["pfcp.urr_id"], "1");
    EXPECT_EQ(est["pfcp.ue_ip_addr_ipv4"], "10.45.0.1");
    EXPECT_EQ(est["pfcp.node_id_ipv4"], "10.200.0.1");
    EXPECT_EQ(run.fields[16]["pfcp.seid"], "0x00000000000001f6,0x0000000000abcdef");
    EXPECT_EQ(run.fields[17]["pfcp.far_id"], "1");
    EXPECT_EQ(run.fields[19]["pfcp.seqno"], "111");
}

struct ScapyCase {
    const char* name;
    std::vector<const char*> has;  // pieces of the decoded message's JSON form
};

TEST(PfcpScapy, TheDecoderReadsAnswersAndReportsAnotherEncoderBuilt) {
    std::string out;
    if (runCommand("/usr/bin/python3 -c 'import scapy.contrib.pfcp' 2>/dev/null", nullptr) != 0)
        GTEST_SKIP() << "python3-scapy is not installed";
    ASSERT_EQ(runCommand("/usr/bin/python3 " KS_PFCP_TEST_DIR "/scapy_messages.py", &out), 0);
    const std::vector<ScapyCase> cases = {
        {"association_setup_response", {"\"type\":6", "\"cause\":1", "\"node_id\":\"000ac80002\""}},
        {"association_setup_rejected", {"\"cause\":64"}},
        {"heartbeat_request", {"\"sequence\":7001", "\"recovery_time_stamp\":3911484802"}},
        {"heartbeat_response", {"\"recovery_time_stamp\":3911484802"}},
        {"session_establishment_response",
         {"\"seid\":502", "\"up_f_seid\":\"020000000000abcdef0ac80002\"",
          "\"created_pdr\":[{\"pdr_id\":2,\"local_f_teid\":\"01000003e80ac80002\"}]"}},
        {"session_establishment_rejected", {"\"cause\":73"}},
        {"session_modification_response", {"\"usage_report\":{\"urr_id\":1,\"ur_seqn\":\"00000001\""}},
        {"session_deletion_response", {"\"volume_measurement\":\"0700000000000030000000000000000c"}},
        {"session_report_request", {"\"report_type\":2", "\"usage_report\":{\"urr_id\":1"}},
        {"downlink_data_report", {"\"report_type\":1", "\"downlink_data_report\":{\"pdr_id\":1"}},
        {"node_report_request", {"\"remote_gtp_u_peer\":\"020a000009\""}},
    };
    std::istringstream lines(out);
    std::map<std::string, Bytes> got;
    std::string name, hex;
    while (lines >> name >> hex) got[name] = fromHex(hex);
    ASSERT_EQ(got.size(), cases.size());
    std::vector<Bytes> packets;
    for (const ScapyCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes& d = got[c.name];
        packets.push_back(d);
        auto m = newMessage();
        pfcp_rx_result_t rx;
        ASSERT_EQ(pfcp_decode_datagram(d, m.get(), &rx), 1);
        EXPECT_EQ(rx.tlv.unexpected + rx.tlv.dropped, 0u);
        std::string j = json(m.get());
        for (const char* piece : c.has) EXPECT_NE(j.find(piece), std::string::npos) << piece << " in " << j;
        // Both encoders put the elements in the standard's order: ours writes the same octets again.
        EXPECT_EQ(toHex(encode(m.get())), toHex(d));
    }
    if (tsharkAvailable()) {
        TsharkRun run = runTshark(packets, {"pfcp.msg_type"});
        EXPECT_EQ(run.rc, 0) << "scapy's own messages: " << run.report;
    }
}

}  // namespace
