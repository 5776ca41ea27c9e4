// The gNB's UE side in memory: a DownlinkNASTransport from bytes to the UE's NAS entry on
// its line, against the bare decode of the same bytes; RAN UE contexts made and given back.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "mv_ngap.h"
#include "mv_socket_engine.h"

namespace {

std::atomic<uint64_t> gNasIn{0};
void nasIn(MV_KsUE*, u_char*, uint32_t, uint8_t, uint8_t) { gNasIn.fetch_add(1, std::memory_order_relaxed); }
void nasFailed(MV_KsUE*) {}
const KsNGAPNasEntry kNas{nasIn, nasFailed};

int sendNothing(uint8_t, uint8_t, void*, MV_KsRanAmfConnection*) { return 1; }
int noStart(MV_KsRanAmfConnection*) { return 1; }
int noClose(MV_KsRanAmfConnection*) { return 0; }
const KsNGAPPath kPath{noStart, sendNothing, noClose};

struct World {
    MV_Socket sock{};
    MV_NGAPNode node{};
    MV_KsRanAmfConnection* conn = nullptr;
    MV_KsUE* ue = nullptr;
    std::vector<uint8_t> downlink;
    const MvAsnPdu* pdu = nullptr;
};

World& world() {
    static World w;
    static bool done = [] {
        char tmpl[] = "/tmp/ks_bench_gnb_ue_XXXXXX";
        std::string dir = mkdtemp(tmpl);
        mkdir((dir + "/data").c_str(), 0700);
        std::ofstream(dir + "/cfg.json") << R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 100, "MaxRANUEID": 100000,
                                              "CLIPort": 0})";
        if (chdir(dir.c_str()) != 0) return false;
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        if (KsEngine__Startup(2, argv) != 1) return false;
        KsNGAP__SetPath(&kPath);
        KsNGAP__RegisterNasEntry(&kNas);
        auto* ran = new MV_KsNGRan{};
        ran->ID = 1;
        ran->AccessType = KS_ACCESS_TYPE__GNB;
        ran->UEIDStartNo = 1;
        w.conn = new MV_KsRanAmfConnection{};
        w.conn->ran = ran;
        w.conn->amf = new MV_KsAmf{};
        w.conn->isOKToRun = 1;
        w.conn->ConnStatus = KS_NGCONN__READY;
        w.sock.parentData1 = w.conn;
        w.node.siSocket = &w.sock;
        w.ue = KsEngine__AllocateKsUE();
        w.ue->TGPP.ranAmfConnection = w.conn;
        MV_KsNGRanUeContext* ctx = KsNGAP__CreateRanUeContext(w.ue, 1);
        ctx->amf_id = 42;
        for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i)
            if (mv_asn_amf::kPdus[i].procedureCode == 4 && mv_asn_amf::kPdus[i].form == 0) w.pdu = &mv_asn_amf::kPdus[i];
        auto* r = static_cast<MV_AMF_DT_DownlinkNASTransport*>(__mv_asn_new_record(w.pdu->type));
        r->aMFUENGAPID = 42;
        r->aMFUENGAPID_isset = 1;
        r->rANUENGAPID = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
        r->rANUENGAPID_isset = 1;
        const uint8_t nas[] = {0x7e, 0x00, 0x56, 0x01, 0x02, 0x00, 0x00, 0x21, 0x01, 0x02, 0x03, 0x04, 0x05};
        MV_AMF_DT_NAS_PDU* n = nullptr;
        __mv_amf_init_NAS_PDU2(&n, nas, sizeof nas);
        r->nASPDU = n;
        r->nASPDU_isset = 1;
        __mv_asn_coding_context c;
        memset(&c, 0, sizeof c);
        if (__mv_amf_encode_pdu_DownlinkNASTransport(r, &c) < 1) return false;
        w.downlink.assign(c.buffer, c.buffer + c.pos);
        __mv_asn_memfree_pdu(w.pdu, r);
        return true;
    }();
    if (!done) abort();
    return w;
}

void* decode(const World& w, __mv_asn_coding_context& c) {
    void* rec = __mv_asn_new_record(w.pdu->type);
    if (!__mv_asn_init_decode(&c, w.downlink.data(), w.downlink.size()) || __mv_asn_decode_pdu(w.pdu, rec, &c) != 1)
        abort();
    return rec;
}

void BM_DownlinkNasDecodeOnly(benchmark::State& st) {
    World& w = world();
    static __mv_asn_coding_context c;
    for (auto _ : st) __mv_asn_memfree_pdu(w.pdu, decode(w, c));
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_DownlinkNasDecodeOnly);

// Decode, the read thread's tests, the UE found by its id, the post to its line, and the
// line's delivery to the NAS entry; the lines are drained every 1,024 messages.
void BM_DownlinkNasToUesLine(benchmark::State& st) {
    World& w = world();
    static __mv_asn_coding_context c;
    uint64_t posted = gNasIn.load();
    for (auto _ : st) {
        KsNGAP__handle_ngap_message(4, 0, decode(w, c), &w.node);
        if ((++posted & 1023) == 0)
            while (gNasIn.load(std::memory_order_relaxed) < posted) sched_yield();
    }
    while (gNasIn.load() < posted) sched_yield();
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_DownlinkNasToUesLine)->UseRealTime();

void BM_RanUeContextCreateRelease(benchmark::State& st) {
    World& w = world();
    MV_KsUE* ue = KsEngine__AllocateKsUE();
    ue->TGPP.ranAmfConnection = w.conn;
    for (auto _ : st) {
        benchmark::DoNotOptimize(KsNGAP__CreateRanUeContext(ue, 1));
        KsNGAP__ReleaseRanUeContext(ue, 1);
    }
    st.SetItemsProcessed(st.iterations());
    st.counters["bytes_per_context"] = double(sizeof(MV_KsNGRanUeContext));
}
BENCHMARK(BM_RanUeContextCreateRelease);

}  // namespace

BENCHMARK_MAIN();
