// Template lookups by name and by message type with 500 templates loaded, the walk a
// lookup would be without the name index, the iterator over one template's elements,
// a registration request built and encoded under its template beside the same request
// built from constants, loading the 500 templates at start, and the connection lookups
// the protocol modules make with 16 and 256 connections up.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KsTE.h"
#include "KsTemplateEng.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mv_nas_util.h"
#include "mv_naspdu.h"

namespace {

struct Wanted {
    std::string name;
    const char* iface;
    uint32_t message;
};

// What start-up prints is its business, not the report's.
template <class F>
void quietly(F f) {
    fflush(stdout);
    int saved = dup(1), quiet = open("/dev/null", O_WRONLY);
    dup2(quiet, 1);
    f();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(quiet);
}

// A registration request's template: the UE's own identity and capabilities, a literal
// 5GMM capability and requested NSSAI.
const char kRegistration[] = R"({"Type": "NAS5G", "Templates": [{"Name": "regSlice", "MessageType": 65, "Elements": [
  {"ID": "ngKSI", "ValueType": "UEProperty"},
  {"ID": "5GSMobileIdentity", "ValueType": "UEProperty"},
  {"ID": "10", "ValueType": "Hex", "Value": "05"},
  {"ID": "2E", "ValueType": "UEProperty"},
  {"ID": "2F", "ValueType": "Hex", "Value": "04010a0b0c0102"}]}]})";

// 299 NAS templates and the registration one, 100 NGAP and 100 Diameter templates of
// ten elements each, in six files.
struct Set {
    std::string dir;
    std::vector<Wanted> wanted;  // every template, in a scattered order

    Set() {
        dir = kst::makeTempDir("tplbench");
        struct Family {
            const char* type;
            const char* idKey;
            const char* elementsKey;
            int count;
        };
        const Family families[] = {{"NAS5G", "MessageType", "Elements", 299},
                                   {"NGAP", "ProcedureCode", "ProtocolIEs", 100},
                                   {"HSS", "CmdCode", "AVPs", 100}};
        int file = 0;
        for (const Family& f : families) {
            for (int first = 0; first < f.count; first += 100, ++file) {
                std::string text = std::string("{\"Type\": \"") + f.type + "\", \"Templates\": [";
                for (int t = first; t < first + 100 && t < f.count; ++t) {
                    char name[64];
                    snprintf(name, sizeof name, "%s-template-%04d", f.type, t);
                    uint32_t message = uint32_t(f.idKey[0] == 'C' ? 300 + t : 15 + t % 150);
                    wanted.push_back({name, f.type, message});
                    text += std::string(t > first ? "," : "") + "{\"Name\": \"" + name + "\", \"" + f.idKey +
                            "\": " + std::to_string(message) + ", \"" + f.elementsKey + "\": [";
                    for (int e = 0; e < 10; ++e)
                        text += std::string(e ? "," : "") +
                                (f.count == 299 ? R"({"ID": "2F", "ValueType": "Hex", "Value": "04010a0b0c"})"
                                                : R"({"ID": 85, "Code": 263, "ValueType": "Int", "Value": 7})");
                    text += "]}";
                }
                kst::writeFile(dir + "/templates/f" + std::to_string(file) + ".json", text + "]}");
            }
        }
        kst::writeFile(dir + "/templates/reg.json", kRegistration);
        wanted.push_back({"regSlice", "NAS5G", 65});
        // A fixed scatter, so that lookups do not walk the names in order.
        for (size_t i = 0; i < wanted.size(); ++i) std::swap(wanted[i], wanted[(i * 7919) % wanted.size()]);
    }
    ~Set() { kst::removeTree(dir); }

    void load() const {
        KsTemplateEng___Reset();
        int rc = 0;
        quietly([&] { rc = KsTemplateEng__InitFrom((dir + "/templates").c_str(), (dir + "/dictionary").c_str()); });
        if (rc != 1) abort();
    }
};

const Set& loaded() {
    static Set s;
    static bool once = (s.load(), true);
    (void)once;
    return s;
}

void BM_FindTemplateByName(benchmark::State& state) {
    const Set& s = loaded();
    size_t i = 0;
    for (auto _ : state) {
        const Wanted& w = s.wanted[i++ % s.wanted.size()];
        benchmark::DoNotOptimize(KsTemplateEng__FindTemplate(w.name.c_str(), w.iface, 0));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindTemplateByName);

void BM_FindTemplateByMessageId(benchmark::State& state) {
    const Set& s = loaded();
    size_t i = 0;
    for (auto _ : state) {
        const Wanted& w = s.wanted[i++ % s.wanted.size()];
        if (!KsTemplateEng__FindTemplateByMessageId(w.name.c_str(), w.iface, w.message)) state.SkipWithError("missed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindTemplateByMessageId);

// The same search as a walk of the interface's list: what a lookup costs without the index.
void BM_WalkByNameBare(benchmark::State& state) {
    const Set& s = loaded();
    size_t i = 0;
    for (auto _ : state) {
        const Wanted& w = s.wanted[i++ % s.wanted.size()];
        const MV_Template* found = nullptr;
        for (const MV_Template* t = KsTemplateEng__FindInterface(w.iface)->templateHead.load(); t && !found;
             t = t->Next.load())
            if (strcmp(t->sTemplateName, w.name.c_str()) == 0) found = t;
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WalkByNameBare);

// What a protocol does per message: every element of a template with its value.
void BM_IterateTemplate(benchmark::State& state) {
    const Set& s = loaded();
    const MV_Template* t = KsTemplateEng__FindTemplate(s.wanted[0].name.c_str(), s.wanted[0].iface, 0);
    for (auto _ : state) {
        int64_t sum = 0;
        for (const MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e))
            sum += KsTemplateEng__GetIndex(e) + KsTemplateEng__GetStrLen(e);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 10);
}
BENCHMARK(BM_IterateTemplate);

// ---------------------------------------------------------------- a template applied to a message

__mv_asn_coding_context gCtx;
const uint8_t kSuci[] = {0x01, 0x02, 0xf8, 0x39, 0x21, 0x43, 0x00, 0x00, 0x10, 0x32, 0x54, 0x76, 0x98};

void ueSecurityCapability(__naspduFGMM_RegistrationRequest& r) {
    r.mUESecurityCapability.data[0] = 0xe0;
    r.mUESecurityCapability.data[1] = 0xe0;
    r.mUESecurityCapability.Length = 2;
    r.mUESecurityCapability.isset = 1;
}

// What a registration builder does with its template: each element, by its index in the
// message's table, is taken from the UE or, when literal, copied as the template gives it.
bool applyRegistration(const MV_Template* t, __naspduFGMM_RegistrationRequest& r) {
    for (const MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetIndex(e)) {
            case 0: r.b1 = 0x71; break;
            case 1: __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, kSuci, sizeof kSuci); break;
            case 3: {
                int n = KsTemplateEng__GetHexValue(e, r.mFGMMCapability.data, sizeof r.mFGMMCapability.data);
                if (n <= 0) return false;
                r.mFGMMCapability.Length = uint8_t(n - 1);  // the codec counts the octets after the first
                r.mFGMMCapability.isset = 1;
                break;
            }
            case 4: ueSecurityCapability(r); break;
            case 5: {
                int n = KsTemplateEng__GetHexValue(e, r.mRequestedNSSAI.data, sizeof r.mRequestedNSSAI.data);
                if (n <= 0) return false;
                r.mRequestedNSSAI.Length = uint8_t(n);
                r.mRequestedNSSAI.isset = 1;
                break;
            }
        }
    }
    return true;
}

// The same request from constants: the cost the template adds is the difference.
void fillRegistration(__naspduFGMM_RegistrationRequest& r) {
    r.b1 = 0x71;
    __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, kSuci, sizeof kSuci);
    r.mFGMMCapability.data[0] = 0x05;
    r.mFGMMCapability.isset = 1;
    ueSecurityCapability(r);
    const uint8_t nssai[] = {0x04, 0x01, 0x0a, 0x0b, 0x0c, 0x01, 0x02};
    memcpy(r.mRequestedNSSAI.data, nssai, sizeof nssai);
    r.mRequestedNSSAI.Length = sizeof nssai;
    r.mRequestedNSSAI.isset = 1;
}

std::vector<uint8_t> encodeRegistration(__naspduFGMM_RegistrationRequest& r) {
    __mv_asn_init_CodingContext(&gCtx);
    if (__mv_naspdu_fgmm_encodeRegistrationRequest(&r, &gCtx) != 0) return {};
    return {gCtx.buffer, gCtx.buffer + gCtx.pos};
}

// A zeroed request filled by fill, then encoded, as a UE does for each registration.
template <class Fill>
void registrations(benchmark::State& state, Fill fill) {
    for (auto _ : state) {
        __naspduFGMM_RegistrationRequest r{};
        fill(r);
        __mv_asn_init_CodingContext(&gCtx);
        __mv_naspdu_fgmm_encodeRegistrationRequest(&r, &gCtx);
        benchmark::DoNotOptimize(gCtx.buffer[0]);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_RegistrationUnderTemplate(benchmark::State& state) {
    loaded();
    const MV_Template* t = KsTemplateEng__FindTemplateByMessageId("regSlice", "NAS5G", 65);
    __naspduFGMM_RegistrationRequest a{}, b{};
    if (!t || !applyRegistration(t, a)) return state.SkipWithError("no template");
    fillRegistration(b);
    if (encodeRegistration(a) != encodeRegistration(b)) return state.SkipWithError("the two builds differ");
    registrations(state, [t](__naspduFGMM_RegistrationRequest& r) { applyRegistration(t, r); });
}
BENCHMARK(BM_RegistrationUnderTemplate);

void BM_RegistrationFromConstants(benchmark::State& state) { registrations(state, fillRegistration); }
BENCHMARK(BM_RegistrationFromConstants);

// A lookup by name and message type, then the template applied and encoded: the whole of
// what a step's template costs a registration.
void BM_RegistrationLookupApplyEncode(benchmark::State& state) {
    loaded();
    registrations(state, [](__naspduFGMM_RegistrationRequest& r) {
        applyRegistration(KsTemplateEng__FindTemplateByMessageId("regSlice", "NAS5G", 65), r);
    });
}
BENCHMARK(BM_RegistrationLookupApplyEncode);

void BM_StartUpWith500Templates(benchmark::State& state) {
    const Set& s = loaded();
    for (auto _ : state) s.load();
    state.SetItemsProcessed(state.iterations() * 500);
}
BENCHMARK(BM_StartUpWith500Templates)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---------------------------------------------------------------- connection lookups

// Four application types, each with clients x servers pairs, all brought up (their
// nodes are not part of this bench: the connection records are what a lookup walks).
// Types 2, 3, 5 and 7 share the list in turn, so a type's pairs are spread over it.
struct Connections {
    uint32_t perType = 0;
    std::vector<uint32_t> ids[4];  // the ConnectionIds of each type, in a scattered order
    static constexpr uint32_t kTypes[4] = {2, 3, 5, 7};

    void make(uint32_t clients, uint32_t servers) {
        static bool once = [] {
            quietly([] {
                __init_morva_core();
                __mv_init_logger((kst::makeTempDir("tebench") + "/logs/").c_str());
            });
            return true;
        }();
        (void)once;
        KsTE___Reset();
        for (auto& v : ids) v.clear();
        perType = clients * servers;
        std::string text = "[";
        uint32_t id = 1;
        auto el = [&](int info, uint32_t type) {
            text += std::string(id > 1 ? "," : "") + "{\"ID\": " + std::to_string(id) +
                    ", \"ConnInfoType\": " + std::to_string(info) + ", \"TEApplicationType\": " + std::to_string(type) +
                    ", \"IP_1\": \"127.0.0.1\", \"Port_1\": " + std::to_string(1000 + id) +
                    ", \"IP_2\": \"127.0.0.2\", \"Port_2\": \"2152\", \"TransportType\": 1, \"Enabled\": 1}";
            ++id;
        };
        for (uint32_t type : kTypes)
            for (uint32_t c = 0; c < clients; ++c) el(2, type);
        for (uint32_t s = 0; s < servers; ++s)
            for (uint32_t type : kTypes) el(1, type);
        json_error_t err;
        json_t* noc = json_loads((text + "]").c_str(), 0, &err);
        if (!noc) abort();
        quietly([&] { KsTE__InitConfig(noc); });
        json_decref(noc);
        // Brought up round the types, so that each type's connections interleave.
        std::vector<std::pair<uint32_t, uint32_t>> pairs[4];
        for (int k = 0; k < 4; ++k)
            for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c))
                if (c->ApplicationType == kTypes[k])
                    for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s))
                        pairs[k].push_back({kTypes[k], s->ConnectionId});
        for (uint32_t i = 0; i < perType; ++i)
            for (int k = 0; k < 4; ++k) {
                if (KsTE__InitCommand(pairs[k][i].first, pairs[k][i].second, KS_TE_COMMAND__ADD_NODE) != 1) abort();
                ids[k].push_back(pairs[k][i].second);
            }
        for (auto& v : ids)
            for (size_t i = 0; i < v.size(); ++i) std::swap(v[i], v[(i * 7919) % v.size()]);
    }
};

// state.range(0) clients and state.range(1) servers per type: 2 x 2 (16 connections)
// and 8 x 8 (256).
const Connections& connections(const benchmark::State& state) {
    static Connections c;
    static int64_t made = -1;
    int64_t key = state.range(0) * 1000 + state.range(1);
    if (made != key) {
        c.make(uint32_t(state.range(0)), uint32_t(state.range(1)));
        made = key;
    }
    return c;
}

void connArgs(benchmark::internal::Benchmark* b) { b->Args({2, 2})->Args({8, 8}); }

// Lookups in turn over the four types, each with a ConnectionId of its own in scattered
// order; find(type, id, i) is one lookup and says whether it found its connection.
template <class Find>
void lookups(benchmark::State& state, Find find) {
    const Connections& c = connections(state);
    size_t i = 0;
    for (auto _ : state) {
        const auto& ids = c.ids[i % 4];
        if (!find(Connections::kTypes[i % 4], ids[(i / 4) % ids.size()], uint32_t((i * 7) % c.perType)))
            state.SkipWithError("missed");
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["connections"] = double(c.perType * 4);
}

void BM_ConnectionById(benchmark::State& state) {
    lookups(state, [](uint32_t, uint32_t id, uint32_t) { return KsTE__GetConnection(id); });
}
BENCHMARK(BM_ConnectionById)->Apply(connArgs);

void BM_ConnectionByTypeAndIndex(benchmark::State& state) {
    lookups(state, [](uint32_t type, uint32_t, uint32_t index) {
        return KsTE__GetConnectionByTEApplicationType(type, index);
    });
}
BENCHMARK(BM_ConnectionByTypeAndIndex)->Apply(connArgs);

void BM_ConnectionByTypeAndId(benchmark::State& state) {
    lookups(state, [](uint32_t type, uint32_t id, uint32_t) { return KsTE__GetConnectionByIDTEApplicationType(type, id); });
}
BENCHMARK(BM_ConnectionByTypeAndId)->Apply(connArgs);

// "Another connection of this type than the one that failed": the first that differs.
void BM_NextConnectionByType(benchmark::State& state) {
    lookups(state, [](uint32_t type, uint32_t id, uint32_t) {
        return KsTE__GetNextConnectionByTEApplicationType(type, id);
    });
}
BENCHMARK(BM_NextConnectionByType)->Apply(connArgs);

// A console command's way to its pair: clients of the type, then their servers.
void BM_FindServerForCommand(benchmark::State& state) {
    lookups(state, [](uint32_t type, uint32_t id, uint32_t) { return KsTE__FindServer(type, id, nullptr); });
}
BENCHMARK(BM_FindServerForCommand)->Apply(connArgs);

}  // namespace

BENCHMARK_MAIN();
