// Encode and decode rates of the messages on the UE path and of NG Setup.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "mv_amf_asn.h"

namespace {

using namespace mv_asn_amf;

__mv_asn_coding_context g_ctx;

template <class T>
T* newRec(const MvAsnType& t) {
    return static_cast<T*>(__mv_asn_new_record(&t));
}

// The init operations fill a pointer; records are packed, so go through a local.
template <class R>
R* s2(int (*init)(R**, const uint8_t*, uint32_t), const uint8_t* bytes, uint32_t n) {
    R* r = nullptr;
    init(&r, bytes, n);
    return r;
}

__mv_amf_dt_NAS_PDU* nasPdu(size_t n) {
    std::vector<uint8_t> v(n, 0x7e);
    __mv_amf_dt_NAS_PDU* p = nullptr;
    p = s2(__mv_amf_init_NAS_PDU2, v.data(), uint32_t(n));
    return p;
}

__mv_amf_dt_UserLocationInformation* userLocation() {
    auto* u = newRec<__mv_amf_dt_UserLocationInformation>(T_UserLocationInformation);
    u->SelectedChoice = 1;  // userLocationInformationNR
    auto* nr = newRec<__mv_amf_dt_UserLocationInformationNR>(T_UserLocationInformationNR);
    const uint8_t plmn[3] = {0x02, 0xF8, 0x39}, cell[5] = {0, 0, 0, 0x10, 0}, tac[3] = {0, 0, 1};
    nr->nR_CGI = newRec<__mv_amf_dt_NR_CGI>(T_NR_CGI);
    nr->nR_CGI->pLMNIdentity = s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    nr->nR_CGI->nRCellIdentity = s2(__mv_amf_init_NRCellIdentity2, cell, 5);
    nr->nR_CGI->nRCellIdentity->bitslen = 36;
    nr->tAI = newRec<__mv_amf_dt_TAI>(T_TAI);
    nr->tAI->pLMNIdentity = s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    nr->tAI->tAC = s2(__mv_amf_init_TAC2, tac, 3);
    u->u.userLocationInformationNR = nr;
    return u;
}

__mv_amf_dt_InitialUEMessage* initialUe() {
    auto* m = newRec<__mv_amf_dt_InitialUEMessage>(T_InitialUEMessage);
    m->rANUENGAPID = 1234;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = nasPdu(60);
    m->nASPDU_isset = 1;
    m->userLocationInformation = userLocation();
    m->userLocationInformation_isset = 1;
    m->rRCEstablishmentCause = 3;
    m->rRCEstablishmentCause_isset = 1;
    m->uEContextRequest = 0;
    m->uEContextRequest_isset = 1;
    return m;
}

__mv_amf_dt_DownlinkNASTransport* downlink() {
    auto* m = newRec<__mv_amf_dt_DownlinkNASTransport>(T_DownlinkNASTransport);
    m->aMFUENGAPID = 0x1122334455ull;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = 1234;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = nasPdu(40);
    m->nASPDU_isset = 1;
    return m;
}

__mv_amf_dt_NGSetupRequest* ngSetup() {
    auto* m = newRec<__mv_amf_dt_NGSetupRequest>(T_NGSetupRequest);
    const uint8_t plmn[3] = {0x02, 0xF8, 0x39}, gnb[4] = {0, 0, 1, 0}, tac[3] = {0, 0, 1}, sst[1] = {1};
    auto* g = newRec<__mv_amf_dt_GlobalRANNodeID>(T_GlobalRANNodeID);
    auto* gg = newRec<__mv_amf_dt_GlobalGNB_ID>(T_GlobalGNB_ID);
    gg->pLMNIdentity = s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    gg->gNB_ID = newRec<__mv_amf_dt_GNB_ID>(T_GNB_ID);
    gg->gNB_ID->u.gNB_ID = s2(__mv_amf_init_GNB_ID_gNB_ID2, gnb, 4);
    gg->gNB_ID->u.gNB_ID->bitslen = 32;
    g->u.globalGNB_ID = gg;
    m->globalRANNodeID = g;
    m->globalRANNodeID_isset = 1;
    const char* name = "kestrane-gnb";
    m->rANNodeName = s2(__mv_amf_init_RANNodeName2, reinterpret_cast<const uint8_t*>(name), uint32_t(strlen(name)));
    m->rANNodeName_isset = 1;
    auto* ta = newRec<__mv_amf_dt_SupportedTAItem>(T_SupportedTAItem);
    ta->tAC = s2(__mv_amf_init_TAC2, tac, 3);
    ta->broadcastPLMNList = newRec<__mv_amf_dt_BroadcastPLMNList>(T_BroadcastPLMNList);
    auto* bp = newRec<__mv_amf_dt_BroadcastPLMNItem>(T_BroadcastPLMNItem);
    bp->pLMNIdentity = s2(__mv_amf_init_PLMNIdentity2, plmn, 3);
    bp->tAISliceSupportList = newRec<__mv_amf_dt_SliceSupportList>(T_SliceSupportList);
    auto* ss = newRec<__mv_amf_dt_SliceSupportItem>(T_SliceSupportItem);
    ss->s_NSSAI = newRec<__mv_amf_dt_S_NSSAI>(T_S_NSSAI);
    ss->s_NSSAI->sST = s2(__mv_amf_init_SST2, sst, 1);
    __mv_asn_list* l = nullptr;
    __mv_asn_list_add(&l, ss);
    bp->tAISliceSupportList->SliceSupportItem = l;
    l = nullptr;
    __mv_asn_list_add(&l, bp);
    ta->broadcastPLMNList->BroadcastPLMNItem = l;
    m->supportedTAList = newRec<__mv_amf_dt_SupportedTAList>(T_SupportedTAList);
    l = nullptr;
    __mv_asn_list_add(&l, ta);
    m->supportedTAList->SupportedTAItem = l;
    m->supportedTAList_isset = 1;
    m->defaultPagingDRX = 2;
    m->defaultPagingDRX_isset = 1;
    return m;
}

template <class Rec, int (*Enc)(Rec*, __mv_asn_coding_context*)>
void encodeLoop(benchmark::State& state, Rec* m) {
    for (auto _ : state) {
        __mv_asn_init_CodingContext(&g_ctx);
        if (Enc(m, &g_ctx) != 0) state.SkipWithError("encode failed");
        uint16_t produced = g_ctx.pos;
        benchmark::DoNotOptimize(produced);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Rec, int (*Enc)(Rec*, __mv_asn_coding_context*), int (*Dec)(Rec*, __mv_asn_coding_context*),
          void (*Free)(Rec*)>
void decodeLoop(benchmark::State& state, Rec* m, const MvAsnType& t) {
    __mv_asn_init_CodingContext(&g_ctx);
    Enc(m, &g_ctx);
    std::vector<uint8_t> bytes(g_ctx.buffer, g_ctx.buffer + g_ctx.pos);
    static __mv_asn_coding_context d;
    for (auto _ : state) {
        __mv_asn_init_decode(&d, bytes.data(), bytes.size());
        auto* r = static_cast<Rec*>(__mv_asn_new_record(&t));
        if (Dec(r, &d) != 1) state.SkipWithError("decode failed");
        Free(r);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(bytes.size());
}

void BM_Encode_InitialUEMessage(benchmark::State& s) {
    auto* m = initialUe();
    encodeLoop<__mv_amf_dt_InitialUEMessage, __mv_amf_encode_pdu_InitialUEMessage>(s, m);
    __mv_amf_memfree_pdu_InitialUEMessage(m);
}
void BM_Decode_InitialUEMessage(benchmark::State& s) {
    auto* m = initialUe();
    decodeLoop<__mv_amf_dt_InitialUEMessage, __mv_amf_encode_pdu_InitialUEMessage,
               __mv_amf_decode_pdu_InitialUEMessage, __mv_amf_memfree_pdu_InitialUEMessage>(s, m, T_InitialUEMessage);
    __mv_amf_memfree_pdu_InitialUEMessage(m);
}
void BM_Encode_DownlinkNASTransport(benchmark::State& s) {
    auto* m = downlink();
    encodeLoop<__mv_amf_dt_DownlinkNASTransport, __mv_amf_encode_pdu_DownlinkNASTransport>(s, m);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
}
void BM_Decode_DownlinkNASTransport(benchmark::State& s) {
    auto* m = downlink();
    decodeLoop<__mv_amf_dt_DownlinkNASTransport, __mv_amf_encode_pdu_DownlinkNASTransport,
               __mv_amf_decode_pdu_DownlinkNASTransport, __mv_amf_memfree_pdu_DownlinkNASTransport>(
        s, m, T_DownlinkNASTransport);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);
}
void BM_Encode_NGSetupRequest(benchmark::State& s) {
    auto* m = ngSetup();
    encodeLoop<__mv_amf_dt_NGSetupRequest, __mv_amf_encode_pdu_NGSetupRequest>(s, m);
    __mv_amf_memfree_pdu_NGSetupRequest(m);
}
void BM_Decode_NGSetupRequest(benchmark::State& s) {
    auto* m = ngSetup();
    decodeLoop<__mv_amf_dt_NGSetupRequest, __mv_amf_encode_pdu_NGSetupRequest, __mv_amf_decode_pdu_NGSetupRequest,
               __mv_amf_memfree_pdu_NGSetupRequest>(s, m, T_NGSetupRequest);
    __mv_amf_memfree_pdu_NGSetupRequest(m);
}

BENCHMARK(BM_Encode_InitialUEMessage);
BENCHMARK(BM_Decode_InitialUEMessage);
BENCHMARK(BM_Encode_DownlinkNASTransport);
BENCHMARK(BM_Decode_DownlinkNASTransport);
BENCHMARK(BM_Encode_NGSetupRequest);
BENCHMARK(BM_Decode_NGSetupRequest);

}  // namespace

BENCHMARK_MAIN();
