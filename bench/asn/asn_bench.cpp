// Encode and decode rates of NG Setup and of the messages on the UE path, one core, with the runtime
// up as in the engine; allocs_per_decode counts the blocks of the size classes a decode takes (and
// its free gives back), bytes_held what one decoded message holds until it is freed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "mv_alloc.h"
#include "mv_amf_asn.h"

namespace {


// The messages, in the JSON form of kestrane-pdu.
const std::string kNGSetupRequest = R"({"pdu":"NGSetupRequest","ies":{
  "id-GlobalRANNodeID":{"globalGNB-ID":{"pLMNIdentity":"02f839","gNB-ID":{"gNB-ID":{"bits":"00000100","bitslen":32}}}},
  "id-RANNodeName":"kestrane-gnb",
  "id-SupportedTAList":[{"tAC":"000001","broadcastPLMNList":[{"pLMNIdentity":"02f839","tAISliceSupportList":[{"s-NSSAI":{"sST":"01"}}]}]}],
  "id-DefaultPagingDRX":"v128"}})";

const std::string kInitialUEMessage = R"({"pdu":"InitialUEMessage","ies":{
  "id-RAN-UE-NGAP-ID":1234,
  "id-NAS-PDU":"7e004179000d0102f839f0ff000000000000102e04f0f0f0f07e004179000d0102f839f0ff000000000000102e04f0f0f0f07e00",
  "id-UserLocationInformation":{"userLocationInformationNR":{
    "nR-CGI":{"pLMNIdentity":"02f839","nRCellIdentity":{"bits":"0000001000","bitslen":36}},
    "tAI":{"pLMNIdentity":"02f839","tAC":"000001"}}},
  "id-RRCEstablishmentCause":"mo-Signalling",
  "id-UEContextRequest":"requested"}})";

const std::string kDownlinkNASTransport = R"({"pdu":"DownlinkNASTransport","ies":{
  "id-AMF-UE-NGAP-ID":73588229205,
  "id-RAN-UE-NGAP-ID":1234,
  "id-NAS-PDU":"7e005600020000217ec26c1d2a0d8b1e3ab3d52a45b9ad3a2010b1d2d7c4e1c880007e5f3f4c4b5c9ea1"}})";

// The transfer of one PDU session: an aggregate bit rate, the uplink tunnel, one QoS flow.
const std::string kSetupTransfer = R"(
    "pDUSessionResourceSetupRequestTransfer":{
      "id-PDUSessionAggregateMaximumBitRate":{"pDUSessionAggregateMaximumBitRateDL":1000000000,"pDUSessionAggregateMaximumBitRateUL":500000000},
      "id-UL-NGU-UP-TNLInformation":{"gTPTunnel":{"transportLayerAddress":{"bits":"7f000004","bitslen":32},"gTP-TEID":"00000100"}},
      "id-PDUSessionType":"ipv4",
      "id-QosFlowSetupRequestList":[{"qosFlowIdentifier":1,"qosFlowLevelQosParameters":{
        "qosCharacteristics":{"nonDynamic5QI":{"fiveQI":9}},
        "allocationAndRetentionPriority":{"priorityLevelARP":8,"pre-emptionCapability":"shall-not-trigger-pre-emption",
                                          "pre-emptionVulnerability":"not-pre-emptable"}}}]})";

const std::string kInitialContextSetupRequest = R"({"pdu":"InitialContextSetupRequest","ies":{
  "id-AMF-UE-NGAP-ID":73588229205,
  "id-RAN-UE-NGAP-ID":1234,
  "id-UEAggregateMaximumBitRate":{"uEAggregateMaximumBitRateDL":2000000000,"uEAggregateMaximumBitRateUL":1000000000},
  "id-GUAMI":{"pLMNIdentity":"02f839","aMFRegionID":{"bits":"ca","bitslen":8},"aMFSetID":{"bits":"fe00","bitslen":10},
              "aMFPointer":{"bits":"00","bitslen":6}},
  "id-PDUSessionResourceSetupListCxtReq":[{"pDUSessionID":5,"s-NSSAI":{"sST":"01","sD":"000001"},
)" + kSetupTransfer + R"(}],
  "id-AllowedNSSAI":[{"s-NSSAI":{"sST":"01","sD":"000001"}}],
  "id-UESecurityCapabilities":{"nRencryptionAlgorithms":{"bits":"e000","bitslen":16},"nRintegrityProtectionAlgorithms":{"bits":"e000","bitslen":16},
                               "eUTRAencryptionAlgorithms":{"bits":"e000","bitslen":16},"eUTRAintegrityProtectionAlgorithms":{"bits":"e000","bitslen":16}},
  "id-SecurityKey":{"bits":"a1b2c3d4e5f60718293a4b5c6d7e8f90a1b2c3d4e5f60718293a4b5c6d7e8f90","bitslen":256},
  "id-NAS-PDU":"7e02d9f3a5c1047e0042010177000bf202f839cafe0000000001540702f83900000115020101"}})";

const std::string kPDUSessionResourceSetupRequest = R"({"pdu":"PDUSessionResourceSetupRequest","ies":{
  "id-AMF-UE-NGAP-ID":73588229205,
  "id-RAN-UE-NGAP-ID":1234,
  "id-PDUSessionResourceSetupListSUReq":[{"pDUSessionID":5,
    "pDUSessionNAS-PDU":"7e02c1a2b3c4057e00680100152e0501c211000901000631310101ff0906010003e8010003e80a0123456789",
    "s-NSSAI":{"sST":"01","sD":"000001"},
)" + kSetupTransfer + R"(}]}})";

struct Message {
    const MvAsnPdu* pdu = nullptr;
    void* rec = nullptr;
};

Message build(const std::string& json) {
    Message m;
    std::string err;
    m.pdu = __mv_asn_pdu_from_json(mv_asn_amf::kPdus, mv_asn_amf::kPduCount, json.c_str(), &m.rec, &err);
    if (!m.pdu) {
        fprintf(stderr, "bench message does not build: %s\n", err.c_str());
        abort();
    }
    return m;
}

// Bytes a decoded message holds until it is freed: blocks of the size classes, chunks of regions.
double bytesHeld(const MvAsnPdu* pdu, const std::vector<uint8_t>& bytes) {
    static __mv_asn_coding_context d;
    uint64_t used[MV_MEMORY_POOL_CLASSES];
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; i++) used[i] = __mv_memory_pool_stats(i).Used;
    MvAsnRegionStats c0 = __mv_asn_region_stats();
    if (__mv_asn_init_decode(&d, bytes.data(), bytes.size()) != 1) return -1;
    void* r = __mv_asn_new_record(pdu->type);
    if (__mv_asn_decode_pdu(pdu, r, &d) != 1) return -1;
    double held = 0;
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; i++) {
        MV_MemoryPoolStats s = __mv_memory_pool_stats(i);
        held += double(s.Used - used[i]) * double(s.size);
    }
    MvAsnRegionStats c1 = __mv_asn_region_stats();
    auto inUse = [](const MvAsnRegionStats& c) { return double(c.carved) - double(c.shared) - double(c.cachedHere); };
    held += (inUse(c1) - inUse(c0)) * double(c1.chunkSize);
    __mv_asn_memfree_pdu(pdu, r);
    return held;
}

uint64_t blocksTaken() {
    uint64_t n = 0;
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; i++) n += __mv_memory_pool_stats(i).Used;
    return n;
}

__mv_asn_coding_context g_ctx;

void encodeLoop(benchmark::State& state, const std::string& json) {
    Message m = build(json);
    for (auto _ : state) {
        __mv_asn_init_CodingContext(&g_ctx);
        if (__mv_asn_encode_pdu(m.pdu, m.rec, &g_ctx) < 1) state.SkipWithError("encode failed");
        uint16_t produced = g_ctx.pos;
        benchmark::DoNotOptimize(produced);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(g_ctx.pos);
    __mv_asn_memfree_pdu(m.pdu, m.rec);
}

void decodeLoop(benchmark::State& state, const std::string& json) {
    Message m = build(json);
    __mv_asn_init_CodingContext(&g_ctx);
    if (__mv_asn_encode_pdu(m.pdu, m.rec, &g_ctx) < 1) state.SkipWithError("encode failed");
    std::vector<uint8_t> bytes(g_ctx.buffer, g_ctx.buffer + g_ctx.pos);
    __mv_asn_memfree_pdu(m.pdu, m.rec);
    static __mv_asn_coding_context d;
    double held = bytesHeld(m.pdu, bytes);
    uint64_t before = blocksTaken();
    for (auto _ : state) {
        if (__mv_asn_init_decode(&d, bytes.data(), bytes.size()) != 1) state.SkipWithError("too long");
        void* r = __mv_asn_new_record(m.pdu->type);
        if (__mv_asn_decode_pdu(m.pdu, r, &d) != 1) state.SkipWithError("decode failed");
        __mv_asn_memfree_pdu(m.pdu, r);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(bytes.size());
    state.counters["bytes_held"] = held;
    state.counters["allocs_per_decode"] = double(blocksTaken() - before) / double(state.iterations());
}

#define KS_CODEC_BENCH(Name)                                                     \
    void BM_Encode_##Name(benchmark::State& s) { encodeLoop(s, k##Name); }       \
    void BM_Decode_##Name(benchmark::State& s) { decodeLoop(s, k##Name); }       \
    BENCHMARK(BM_Encode_##Name);                                                 \
    BENCHMARK(BM_Decode_##Name);

KS_CODEC_BENCH(NGSetupRequest)
KS_CODEC_BENCH(InitialUEMessage)
KS_CODEC_BENCH(DownlinkNASTransport)
KS_CODEC_BENCH(InitialContextSetupRequest)
KS_CODEC_BENCH(PDUSessionResourceSetupRequest)

}  // namespace

int main(int argc, char** argv) {
    __init_morva_core();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
