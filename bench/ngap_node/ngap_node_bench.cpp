// The NGAP node layer against the bare codec, in the same run.
//   In memory: the layer's receive (pooled buffer in, decode, handler call, record freed)
//   against the codec's decode of the same bytes.
//   On one association of the userspace stack (private network namespace, root): sends
//   per second through __mv_ngap_send_<PDU> against the codec's encode plus the socket
//   engine's send, and received messages per second decoded by the layer against the
//   same messages only counted.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "mv_ngap_internal.h"
#include "ngap_samples.h"

namespace {

using namespace mv_asn_amf;

bool inPrivateNetns = false;
constexpr int kBatch = 100;

std::atomic<long> received{0};
void bump() {
    received.fetch_add(1, std::memory_order_release);
    received.notify_all();
}
void waitAtLeast(long target) {
    for (long now = received.load(std::memory_order_acquire); now < target; now = received.load(std::memory_order_acquire))
        received.wait(now, std::memory_order_acquire);
}

const MvAsnPdu* pduNamed(const char* name) {
    for (unsigned i = 0; i < kPduCount; i++)
        if (strcmp(kPdus[i].name, name) == 0) return &kPdus[i];
    return nullptr;
}

// The application's part of a receive: free the record, count it.
void countingHandler(uint8_t code, uint8_t form, void* msg, MV_NGAPNode*) {
    __mv_asn_memfree_pdu(__mv_ngap___form_pdu(code, form), msg);
    bump();
}

__mv_amf_dt_NAS_PDU* nasPdu(size_t n) {
    std::vector<uint8_t> v(n, 0x7e);
    return kng::s2(__mv_amf_init_NAS_PDU2, v.data(), uint32_t(n));
}

__mv_amf_dt_UserLocationInformation* userLocation() {
    auto* u = kng::newRec<__mv_amf_dt_UserLocationInformation>(T_UserLocationInformation);
    u->SelectedChoice = 1;  // userLocationInformationNR
    auto* nr = kng::newRec<__mv_amf_dt_UserLocationInformationNR>(T_UserLocationInformationNR);
    const uint8_t plmn[3] = {0x02, 0xF8, 0x39}, cell[5] = {0, 0, 0, 0x10, 0}, tac[3] = {0, 0, 1};
    nr->nR_CGI = kng::newRec<__mv_amf_dt_NR_CGI>(T_NR_CGI);
    nr->nR_CGI->pLMNIdentity = kng::s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    nr->nR_CGI->nRCellIdentity = kng::s2(__mv_amf_init_NRCellIdentity2, cell, 5);
    nr->nR_CGI->nRCellIdentity->bitslen = 36;
    nr->tAI = kng::newRec<__mv_amf_dt_TAI>(T_TAI);
    nr->tAI->pLMNIdentity = kng::s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    nr->tAI->tAC = kng::s2(__mv_amf_init_TAC2, tac, 3);
    u->u.userLocationInformationNR = nr;
    return u;
}

// The uplink message of every UE step, and the downlink answer.
__mv_amf_dt_UplinkNASTransport* uplink() {
    auto* m = kng::newRec<__mv_amf_dt_UplinkNASTransport>(T_UplinkNASTransport);
    m->aMFUENGAPID = 0x1122334455ull;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = 1234;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = nasPdu(60);
    m->nASPDU_isset = 1;
    m->userLocationInformation = userLocation();
    m->userLocationInformation_isset = 1;
    return m;
}

std::vector<uint8_t> downlinkBytes() {
    auto* m = kng::newRec<__mv_amf_dt_DownlinkNASTransport>(T_DownlinkNASTransport);
    m->aMFUENGAPID = 0x1122334455ull;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = 1234;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = nasPdu(40);
    m->nASPDU_isset = 1;
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    int n = __mv_amf_encode_pdu_DownlinkNASTransport(m, &ctx);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
    return std::vector<uint8_t>(ctx.buffer, ctx.buffer + (n > 0 ? n : 0));
}

// ---------------------------------------------------------------- one association

MV_NGAPNode gnbNode{}, amfNode{};
std::atomic<int> connected{0}, accepted{0};
void onConnected(MV_Socket* s) {
    gnbNode.siSocket = s;
    __mv_socket_engine__set_sendlock(s, 1);
    ++connected;
}
void onAccept(MV_Socket* child, MV_Socket*) {
    amfNode.siSocket = child;
    child->transportEng = &amfNode;
    ++accepted;
}
// The AMF side of the send runs: count what arrives, no decode.
void countOnly(MV_SocketSCTPBuffer* b) {
    bump();
    __mv_socket_engine_release_sctp_socket_buffer(b);
}
// The gNB side: through the layer, or (to compare) only counted.
std::atomic<bool> decodeOnGnb{true};
void gnbReceive(MV_SocketSCTPBuffer* b) {
    if (decodeOnGnb.load(std::memory_order_relaxed)) __mv_ngap_on_buffer_recv(b);
    else countOnly(b);
}

void setup() {
    static bool done = false;
    if (done) return;
    done = true;
    // A private namespace with its own loopback keeps the userspace stack away from every
    // other SCTP speaker of the host.
    if (geteuid() == 0 && unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0) inPrivateNetns = true;
    __init_morva_core();
    __mv_init_logger("/tmp/ks_bench_ngap/");
    __mv_set_log_level(MV_STK_LOG, MV_LOG_ERROR);
    __mv_socket_engine_init();
    __mv_ngap_set_app_messahe_handler(countingHandler);
    if (!inPrivateNetns) return;

    MV_SctpSocketInfo s{};
    s.ipVersion = 4;
    s.ipCount = 1;
    snprintf(s.IP[0], sizeof s.IP[0], "127.0.0.1");
    s.Port = 38412;
    s.PPID = MV_NGAP_PPID;
    s.UseEPoll = 1;
    s.MaxOStreams = s.MaxIStreams = 16;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&s);
    srv->OnAccept = onAccept;
    srv->OnBufferReceive = countOnly;
    __mv_socket_engine_start_server_socket(srv);

    MV_SctpSocketInfo c{};
    c.ipVersion = 4;
    c.ipCount = 1;
    snprintf(c.IP[0], sizeof c.IP[0], "127.0.0.1");
    c.RemotePort = 38412;
    c.RemoteIpCount = 1;
    snprintf(c.RemoteIP[0], sizeof c.RemoteIP[0], "127.0.0.1");
    c.PPID = MV_NGAP_PPID;
    c.UseEPoll = 2;
    c.MaxOStreams = c.MaxIStreams = 16;
    MV_Socket* cli = __mv_socket_engine_create_sctp_client_socket(&c);
    cli->transportEng = &gnbNode;
    cli->OnConnected = onConnected;
    cli->OnBufferReceive = gnbReceive;
    __mv_socket_engine_sctp_client_socket_start_read_thread(cli);
    for (int i = 0; i < 1000 && (connected == 0 || accepted == 0); ++i) usleep(10000);
}

bool associationReady(benchmark::State& st) {
    if (!inPrivateNetns || !connected || !accepted) {
        st.SkipWithError("needs root for a private network namespace and raw SCTP sockets");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- in memory

void BM_CodecDecodeDownlink(benchmark::State& st) {
    setup();
    std::vector<uint8_t> bytes = downlinkBytes();
    static __mv_asn_coding_context ctx;
    const MvAsnPdu* p = pduNamed("DownlinkNASTransport");
    for (auto _ : st) {
        if (__mv_asn_init_decode(&ctx, bytes.data(), bytes.size()) != 1) st.SkipWithError("too long");
        void* rec = __mv_asn_new_record(p->type);
        benchmark::DoNotOptimize(__mv_asn_decode_pdu(p, rec, &ctx));
        __mv_asn_memfree_pdu(p, rec);
    }
    st.SetItemsProcessed(st.iterations());
}

// The reader's part alone: take a pooled buffer, fill it, give it back.
void BM_SocketBufferOnly(benchmark::State& st) {
    setup();
    std::vector<uint8_t> bytes = downlinkBytes();
    for (auto _ : st) {
        MV_SocketSCTPBuffer* b = __mv_socket_engine_get_sctp_socket_buffer();
        memcpy(b->buff, bytes.data(), bytes.size());
        b->pos = 0;
        b->len = int(bytes.size());
        benchmark::DoNotOptimize(b);
        __mv_socket_engine_release_sctp_socket_buffer(b);
    }
    st.SetItemsProcessed(st.iterations());
}

void BM_LayerReceiveDownlink(benchmark::State& st) {
    setup();
    std::vector<uint8_t> bytes = downlinkBytes();
    static MV_Socket* sock = __mv_arena_new<MV_Socket>();
    static MV_NGAPNode node{};
    node.siSocket = sock;
    sock->transportEng = &node;
    for (auto _ : st) {
        MV_SocketSCTPBuffer* b = __mv_socket_engine_get_sctp_socket_buffer();
        memcpy(b->buff, bytes.data(), bytes.size());
        b->pos = 0;
        b->len = int(bytes.size());
        b->siSocket = sock;
        __mv_ngap_on_buffer_recv(b);
    }
    st.SetItemsProcessed(st.iterations());
}

void BM_CodecEncodeUplink(benchmark::State& st) {
    setup();
    auto* m = uplink();
    static __mv_asn_coding_context ctx;
    for (auto _ : st) {
        __mv_asn_init_CodingContext(&ctx);
        benchmark::DoNotOptimize(__mv_amf_encode_pdu_UplinkNASTransport(m, &ctx));
    }
    __mv_amf_memfree_pdu_UplinkNASTransport(m);
    st.SetItemsProcessed(st.iterations());
}

// ---------------------------------------------------------------- on the association

void BM_AssocLayerSendUplink(benchmark::State& st) {
    setup();
    if (!associationReady(st)) return;
    auto* m = uplink();
    long want = received.load();
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) __mv_ngap_send_UplinkNASTransport(m, &gnbNode);
        want += kBatch;
        waitAtLeast(want);
    }
    __mv_amf_memfree_pdu_UplinkNASTransport(m);
    st.SetItemsProcessed(st.iterations() * kBatch);
}

void BM_AssocCodecThenRawSendUplink(benchmark::State& st) {
    setup();
    if (!associationReady(st)) return;
    auto* m = uplink();
    static __mv_asn_coding_context ctx;
    long want = received.load();
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) {
            __mv_asn_init_CodingContext(&ctx);
            if (__mv_amf_encode_pdu_UplinkNASTransport(m, &ctx) > 0)
                __mv_socket_engine_sctp_send_ngap(gnbNode.siSocket, ctx.buffer, ctx.pos);
        }
        want += kBatch;
        waitAtLeast(want);
    }
    __mv_amf_memfree_pdu_UplinkNASTransport(m);
    st.SetItemsProcessed(st.iterations() * kBatch);
}

// The AMF side sends ready bytes; the gNB side decodes through the layer (handler frees and
// counts), or, in the second run, only counts the buffers.
void assocReceive(benchmark::State& st, bool decode) {
    setup();
    if (!associationReady(st)) return;
    std::vector<uint8_t> bytes = downlinkBytes();
    decodeOnGnb = decode;
    long want = received.load();
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) __mv_socket_engine_sctp_send_ngap(amfNode.siSocket, bytes.data(), int(bytes.size()));
        want += kBatch;
        waitAtLeast(want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
}
void BM_AssocLayerReceiveDownlink(benchmark::State& st) { assocReceive(st, true); }
void BM_AssocCountOnlyReceiveDownlink(benchmark::State& st) { assocReceive(st, false); }

}  // namespace

BENCHMARK(BM_CodecDecodeDownlink);
BENCHMARK(BM_SocketBufferOnly);
BENCHMARK(BM_LayerReceiveDownlink);
BENCHMARK(BM_CodecEncodeUplink);
BENCHMARK(BM_AssocLayerSendUplink)->UseRealTime();
BENCHMARK(BM_AssocCodecThenRawSendUplink)->UseRealTime();
BENCHMARK(BM_AssocLayerReceiveDownlink)->UseRealTime();
BENCHMARK(BM_AssocCountOnlyReceiveDownlink)->UseRealTime();

BENCHMARK_MAIN();
