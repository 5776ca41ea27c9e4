// The NGAP node layer without a network: the generated families against the codec's
// table, every PDU form through the receive path, every way a message is dropped, the
// send family's results and log lines, and sends and receives on many threads at once.
#include <cerrno>
#include <thread>

#include "ngap_samples.h"
#include "ngap_test_env.h"

namespace {

using kng::recorder;

// A node on a socket record that never connected: sends fail in the socket layer.
struct FakeNode {
    MV_Socket* socket = __mv_arena_new<MV_Socket>();
    MV_NGAPNode node{};
    FakeNode() {
        node.siSocket = socket;
        socket->transportEng = &node;
        socket->TransportType = MV_TRANSPORT_SCTP;
        socket->PPID = MV_NGAP_PPID;
    }
};

class Ngap : public ::testing::Test {
protected:
    void SetUp() override {
        recorder().clear();
        __mv_ngap_set_app_messahe_handler(kng::recordingHandler);
    }
    void TearDown() override { __mv_ngap_set_app_messahe_handler(nullptr); }
    FakeNode& fake = *new FakeNode;  // sockets live as long as the process
};

std::vector<uint8_t> encoded(const MvAsnPdu* p, const void* rec) { return encodePdu(p, rec); }

// What the application's error handler heard.
struct BadInput {
    MV_NGAPNode* node;
    int code, form;
    std::string reason;
};
std::vector<BadInput> gBadInput;
void recordBadInput(MV_NGAPNode* node, int code, int form, const char* reason) {
    gBadInput.push_back({node, code, form, reason});
}

// ---------------------------------------------------------------- tables

TEST(NgapTables, SendFamilyFollowsTheCodecsPduTableAndProceduresHaveTheStandardsForms) {
    const auto& sends = kng::sendTable();
    ASSERT_EQ(sends.size(), mv_asn_amf::kPduCount);
    ASSERT_EQ(sends.size(), 79u);
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; i++) EXPECT_STREQ(sends[i].name, mv_asn_amf::kPdus[i].name);

    // I initiating, S successful, U unsuccessful, by procedure code 0 to 52.
    const char* forms[MV_NGAP_PROCEDURE_COUNT] = {
        "ISU", "I",  "I",  "I",  "I",  "I",  "I", "I",   "I",  "I",  "IS", "I",   "ISU", "ISU", "ISU", "I", "I", "I",
        "I",   "I",  "IS", "ISU", "I", "I",  "I", "ISU", "IS", "IS", "IS", "IS",  "I",   "I",   "IS",  "I", "I", "ISU",
        "I",   "I",  "I",  "I",  "ISU", "IS", "I", "IS", "I",  "I",  "I",  "I",   "I",   "I",   "I",   "IS", "I"};
    for (unsigned code = 0; code < MV_NGAP_PROCEDURE_COUNT; code++) {
        std::string have;
        for (unsigned f = 0; f < 3; f++)
            if (__mv_ngap___form_pdu(code, f)) have += "ISU"[f];
        EXPECT_EQ(have, forms[code]) << "procedure " << code;
    }
    EXPECT_EQ(__mv_ngap___form_pdu(53, 0), nullptr);
    EXPECT_STREQ(__mv_ngap___form_pdu(21, 2)->name, "NGSetupFailure");
    EXPECT_STREQ(__mv_ngap___form_pdu(41, 1)->name, "UEContextReleaseComplete");
    EXPECT_STREQ(__mv_ngap___form_pdu(12, 1)->name, "HandoverCommand");
}

// ---------------------------------------------------------------- receiving

TEST_F(Ngap, EveryPduFormReachesTheHandlerDecodedAsEncodedAndEveryBufferGoesBack) {
    int inUse = kng::buffersInUse();
    int delivered = 0;
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; i++) {
        const MvAsnPdu* p = &mv_asn_amf::kPdus[i];
        if (p->type->flags & MV_ASN_F_PRIVATE) continue;  // its encoder refuses: no private IEs to send
        for (int shape = 0; shape < 3; shape++) {
            SCOPED_TRACE(std::string(p->name) + " shape " + std::to_string(shape));
            void* rec = kng::samplePdu(p, 1000 + i * 7 + uint32_t(shape), shape);
            std::string want = kng::pduJson(p, rec);
            std::vector<uint8_t> bytes = encoded(p, rec);
            __mv_asn_memfree_pdu(p, rec);
            ASSERT_FALSE(bytes.empty());
            __mv_ngap_on_buffer_recv(kng::bufferWith(bytes, fake.socket));
            ASSERT_EQ(recorder().size(), size_t(++delivered));
            kng::Delivery d = recorder().last();
            EXPECT_EQ(d.code, p->procedureCode);
            EXPECT_EQ(d.form, p->form);
            EXPECT_EQ(d.messageId, p->procedureCode);
            EXPECT_EQ(d.node, &fake.node);
            EXPECT_EQ(d.transport, &fake.node);
            EXPECT_EQ(d.decodingError, 0);
            EXPECT_EQ(d.json, want);
            EXPECT_EQ(d.thread, kng::threadName()) << "decoded and handed up on the delivering thread";
        }
    }
    EXPECT_EQ(kng::buffersInUse(), inUse);
}

TEST_F(Ngap, PrivateMessageFromAPeerIsDecodedAndItsIEsSkipped) {
    // One private IE: local id 5, criticality reject, a one-octet value.
    std::vector<uint8_t> pm = {0x00, 0x1f, 0x40, 0x09, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x01, 0x00};
    __mv_ngap_on_buffer_recv(kng::bufferWith(pm, fake.socket));
    ASSERT_EQ(recorder().size(), 1u);
    EXPECT_EQ(recorder().last().code, 31);
    EXPECT_EQ(recorder().last().decodingError, 0);
}

// What the handler gets when the PDU is shorter than it says: the record as far as it
// decoded, never a read past the bytes received.
TEST_F(Ngap, TruncatedPdusReachTheHandlerWithWhatDecoded) {
    const MvAsnPdu* p = kng::pduNamed("UplinkNASTransport");
    void* rec = kng::samplePdu(p, 7, 2);
    std::vector<uint8_t> whole = encoded(p, rec);
    __mv_asn_memfree_pdu(p, rec);
    ASSERT_LT(whole[3], 0x80) << "the sample must have a one-octet length";

    // Cut short without a matching length: nothing is decoded.
    std::vector<uint8_t> cut(whole.begin(), whole.end() - 3);
    size_t before = kng::stackLines("UplinkNASTransportinvalid length.");
    __mv_ngap_on_buffer_recv(kng::bufferWith(cut, fake.socket));
    ASSERT_EQ(recorder().size(), 1u);
    EXPECT_EQ(recorder().last().ieCount, 0);
    EXPECT_NE(recorder().last().json.find("\"ies\":{}"), std::string::npos) << recorder().last().json;
    EXPECT_EQ(kng::stackLines("UplinkNASTransportinvalid length."), before + 1);

    // Cut short with the length adjusted: the last IE runs past the end. The application
    // hears of it, and the record still goes up.
    cut = std::vector<uint8_t>(whole.begin(), whole.end() - 2);
    cut[3] = uint8_t(cut[3] - 2);
    gBadInput.clear();
    __mv_ngap_set_app_error_handler(recordBadInput);
    __mv_ngap_on_buffer_recv(kng::bufferWith(cut, fake.socket));
    __mv_ngap_set_app_error_handler(nullptr);
    ASSERT_EQ(gBadInput.size(), 1u);
    EXPECT_EQ(gBadInput[0].code, 46);
    EXPECT_EQ(gBadInput[0].form, 0);
    EXPECT_EQ(gBadInput[0].reason, "decoded in part");
    ASSERT_EQ(recorder().size(), 2u);
    kng::Delivery d = recorder().last();
    EXPECT_EQ(d.decodingError, 1);
    EXPECT_GE(d.ieCount, 1);
    EXPECT_LT(d.ieCount, 4);
    EXPECT_NE(kng::stackLog().find("Error while decoding IEId="), std::string::npos);
}

struct DropCase {
    const char* what;
    std::vector<uint8_t> bytes;
    const char* line;
    bool noHandler = false, noNode = false, badMarks = false;
    // What the application's error handler hears: nothing for a drop that is not the
    // peer's doing (no handler, no node).
    int code = -2, form = -2;
    const char* reason = nullptr;
};


TEST_F(Ngap, DroppedMessagesAreLoggedAndTheirBufferGoesBackOnce) {
    const MvAsnPdu* setup = kng::pduNamed("NGSetupRequest");
    void* rec = kng::samplePdu(setup, 3, 2);
    std::vector<uint8_t> ngSetup = encoded(setup, rec);
    __mv_asn_memfree_pdu(setup, rec);
    std::vector<uint8_t> form3 = ngSetup, ext = ngSetup, status = {0x20, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00};
    form3[0] = 0x60;
    ext[0] = 0x80;

    std::vector<DropCase> cases = {
        {"no handler", ngSetup, "ngap app handle message unset, dropping message", true},
        {"no node on the socket", ngSetup, "no NGAP node on socket", false, true},
        {"procedure code 53", {0x00, 53, 0x00, 0x03, 0x00, 0x00, 0x00}, "Unknown ProcedureCode=53, dropping request",
         false, false, false, 53, -1, "unknown procedure code"},
        {"procedure code 255", {0x00, 255, 0x00}, "Unknown ProcedureCode=255, dropping request", false, false, false,
         255, -1, "unknown procedure code"},
        {"form bits 3", form3, "Unknown pduMessageChoice=3 for NGSetup, dropping request", false, false, false, 21, 3,
         "unknown message form"},
        {"extension of the PDU choice", ext, "Unknown pduMessageChoice=4 for NGSetup, dropping request", false, false,
         false, 21, 4, "unknown message form"},
        {"AMFStatusIndication as a successful outcome", status, "invalid message received (no message defination)",
         false, false, false, 1, 1, "no such message form of the procedure"},
        {"one octet", {0x00}, "NGAP PDU of len=1 has no procedure code, dropping", false, false, false, -1, -1,
         "no procedure code"},
        {"no octet", {}, "NGAP PDU of len=0 has no procedure code, dropping", false, false, false, -1, -1,
         "no procedure code"},
        {"marks past the buffer", ngSetup, "outside its 5000 bytes, dropping", false, false, true, -1, -1,
         "buffer marks outside the buffer"},
    };
    __mv_ngap_set_app_error_handler(recordBadInput);
    for (const DropCase& c : cases) {
        SCOPED_TRACE(c.what);
        gBadInput.clear();
        __mv_ngap_set_app_messahe_handler(c.noHandler ? nullptr : kng::recordingHandler);
        MV_Socket* s = c.noNode ? __mv_arena_new<MV_Socket>() : fake.socket;
        int inUse = kng::buffersInUse();
        MV_SocketSCTPBuffer* b = kng::bufferWith(c.bytes, s);
        if (c.badMarks) b->len = MV_SOCKET_SCTP_BUFFER_SIZE + 1;
        EXPECT_EQ(kng::buffersInUse(), inUse + 1);
        size_t before = kng::stackLines(c.line);
        __mv_ngap_on_buffer_recv(b);
        EXPECT_EQ(kng::stackLines(c.line), before + 1);
        EXPECT_EQ(recorder().size(), 0u);
        EXPECT_EQ(kng::buffersInUse(), inUse);
        EXPECT_EQ(b->isReleased, 1);
        if (c.code == -2) {
            EXPECT_TRUE(gBadInput.empty());
        } else {
            ASSERT_EQ(gBadInput.size(), 1u) << "one report per message";
            EXPECT_EQ(gBadInput[0].node, &fake.node);
            EXPECT_EQ(gBadInput[0].code, c.code);
            EXPECT_EQ(gBadInput[0].form, c.form);
            EXPECT_EQ(gBadInput[0].reason, c.reason);
        }
    }
    __mv_ngap_set_app_error_handler(nullptr);
}

TEST_F(Ngap, HandlersByNameDecodeTheirFormAndTheDispatchGoesByCode) {
    const MvAsnPdu* p = kng::pduNamed("NGSetupFailure");
    void* rec = kng::samplePdu(p, 11, 0);
    std::vector<uint8_t> bytes = encoded(p, rec);
    std::string want = kng::pduJson(p, rec);
    __mv_asn_memfree_pdu(p, rec);

    EXPECT_EQ(__mv_ngap_handle_message(&fake.node, kng::bufferWith(bytes, fake.socket)), 1);
    EXPECT_EQ(recorder().last().json, want);
    EXPECT_EQ(__mv_amf_handle_NGSetup_Procedure(&fake.node, kng::bufferWith(bytes, fake.socket)), 1);
    EXPECT_EQ(recorder().last().form, 2);

    __mv_asn_coding_context ctx;
    ASSERT_EQ(__mv_asn_init_decode(&ctx, bytes.data(), bytes.size()), 1);
    EXPECT_EQ(__mv_amf_handle_NGSetup_UnSuccessfulMessage(&fake.node, &ctx), 1);
    EXPECT_EQ(recorder().last().json, want);
    ASSERT_EQ(__mv_asn_init_decode(&ctx, bytes.data(), bytes.size()), 1);
    EXPECT_EQ(__mv_amf_handle_OverloadStop_SuccessfulMessage(&fake.node, &ctx), 0) << "OverloadStop has no outcome";
    EXPECT_EQ(__mv_ngap_handle_message(&fake.node, nullptr), -1);
    EXPECT_EQ(recorder().size(), 3u);
}

// ---------------------------------------------------------------- sending

TEST_F(Ngap, SendFamilyResultsAndLogLines) {
    const MvAsnPdu* p = kng::pduNamed("NGSetupRequest");
    auto* rec = static_cast<MV_AMF_DT_NGSetupRequest*>(kng::samplePdu(p, 5, 0));
    std::string before = kng::pduJson(p, rec);

    size_t nullLines = kng::stackLines("Received NGAPNode as NULL");
    EXPECT_EQ(__mv_ngap_send_NGSetupRequest(rec, nullptr), -1);
    EXPECT_EQ(kng::stackLines("Received NGAPNode as NULL"), nullLines + 1);
    EXPECT_NE(kng::stackLog().find("NGSetupRequest Send Failed sentBytes=-1 sts=0 len="), std::string::npos);

    // Not connected: the socket layer refuses, the send reports it.
    size_t failed = kng::stackLines("NGSetupRequest Send Failed sentBytes=-1");
    EXPECT_EQ(__mv_ngap_send_NGSetupRequest(rec, &fake.node), -1);
    EXPECT_EQ(kng::stackLines("NGSetupRequest Send Failed sentBytes=-1"), failed + 1);
    EXPECT_NE(kng::stackLog().find("sending data on not-connected sctp socket"), std::string::npos);
    EXPECT_EQ(kng::pduJson(p, rec), before) << "the record stays the caller's, untouched";

    MV_NGAPNode noSocket{};
    EXPECT_EQ(__mv_ngap_send_NGSetupRequest(rec, &noSocket), -1);
    EXPECT_EQ(__mv_ngap_sendmsg(nullptr, 10, &fake.node), -1);

    // An encoder's refusal: a TAC of two octets where three are fixed.
    __mv_asn_list_item* ta = rec->supportedTAList->SupportedTAItem->Head;
    auto* item = static_cast<MV_AMF_DT_SupportedTAItem*>(ta->data);
    item->tAC->length = 2;
    EXPECT_EQ(__mv_ngap_send_NGSetupRequest(rec, &fake.node), -1);
    EXPECT_NE(kng::stackLog().find("encoding failed for NGSetupRequest sts=-1"), std::string::npos);
    item->tAC->length = 3;
    __mv_amf_memfree_pdu_NGSetupRequest(rec);

    EXPECT_EQ(__mv_ngap_send_OverloadStop(nullptr, &fake.node), -1);
    EXPECT_NE(kng::stackLog().find("encoding failed for OverloadStop sts=-1"), std::string::npos);
    EXPECT_EQ(__mv_ngap_send_PrivateMessage(nullptr, &fake.node), -1);

    // A PDU that would pass the coding buffer is refused, with the codec's line and ours.
    auto* ue = static_cast<MV_AMF_DT_InitialUEMessage*>(kng::samplePdu(kng::pduNamed("InitialUEMessage"), 9, 2));
    __mv_amf_memfree_NAS_PDU(ue->nASPDU);
    std::vector<uint8_t> nas(MV_ASN_BUFFER_SIZE - 10, 0x7e);  // the PDU around it passes the end
    ue->nASPDU = kng::s2(__mv_amf_init_NAS_PDU2, nas.data(), uint32_t(nas.size()));
    EXPECT_EQ(__mv_ngap_send_InitialUEMessage(ue, &fake.node), -1);
    EXPECT_NE(kng::stackLog().find("encoding does not fit the coding buffer of 5000 bytes"), std::string::npos);
    EXPECT_NE(kng::stackLog().find("encoding failed for InitialUEMessage sts="), std::string::npos);
    __mv_amf_memfree_pdu_InitialUEMessage(ue);

    // An encoder that reports success and writes nothing.
    int r = __mv_ngap___send_pdu("Hollow", [](void*, __mv_asn_coding_context*) { return 1; }, nullptr, &fake.node, -1);
    EXPECT_EQ(r, -ENOENT);
    EXPECT_NE(kng::stackLog().find("encoding failed for Hollow bufpos=0 sts=0"), std::string::npos);
}

// ---------------------------------------------------------------- threads

// Sends from several threads and receives on another: the layer's only shared word is the
// handler, and each coding context lives on its own thread's stack.
TEST_F(Ngap, SendsOnManyThreadsWhileMessagesAreReceived) {
    const MvAsnPdu* p = kng::pduNamed("DownlinkNASTransport");
    void* rec = kng::samplePdu(p, 21, 1);
    std::vector<uint8_t> bytes = encoded(p, rec);
    __mv_asn_memfree_pdu(p, rec);
    int inUse = kng::buffersInUse();
    std::atomic<int> refused{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 3; t++)
        senders.emplace_back([&, t] {
            auto* up = static_cast<MV_AMF_DT_UplinkNASTransport*>(
                kng::samplePdu(kng::pduNamed("UplinkNASTransport"), 40 + uint32_t(t), 0));
            for (int i = 0; i < 200; i++) refused += __mv_ngap_send_UplinkNASTransport(up, &fake.node) == -1;
            __mv_amf_memfree_pdu_UplinkNASTransport(up);
        });
    std::thread receiver([&] {
        for (int i = 0; i < 300; i++) __mv_ngap_on_buffer_recv(kng::bufferWith(bytes, fake.socket));
    });
    for (auto& t : senders) t.join();
    receiver.join();
    EXPECT_EQ(refused.load(), 600);
    EXPECT_EQ(recorder().count.load(), 300);
    EXPECT_EQ(kng::buffersInUse(), inUse);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new kng::NgapEnv);
    return RUN_ALL_TESTS();
}
