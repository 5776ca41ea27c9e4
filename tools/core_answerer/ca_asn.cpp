#include "ca_asn.h"

#include <cstdio>
#include <unordered_map>

#include "mv_nas_util.h"

namespace ca {

const MvAsnPdu* ngapPdu(std::string_view name) {
    // Every send names its PDU: a table built once rather than a walk of the names.
    static const auto* byName = [] {
        auto* m = new std::unordered_map<std::string_view, const MvAsnPdu*>;
        for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i) (*m)[mv_asn_amf::kPdus[i].name] = &mv_asn_amf::kPdus[i];
        return m;
    }();
    auto it = byName->find(name);
    return it == byName->end() ? nullptr : it->second;
}

int NgapRecord::decode(std::span<const uint8_t> bytes) {
    reset();
    pdu_ = __mv_asn_find_pdu(mv_asn_amf::kPdus, mv_asn_amf::kPduCount, bytes.data(), bytes.size());
    if (!pdu_) return 0;
    __mv_asn_coding_context ctx;
    if (__mv_asn_init_decode(&ctx, bytes.data(), bytes.size()) != 1) return -1;
    rec_ = __mv_asn_new_record(pdu_->type);
    return asnDecoded(__mv_asn_decode_pdu(pdu_, rec_, &ctx)) ? 1 : -1;
}

bool encodeAndFree(const MvAsnPdu* p, void* rec, __mv_asn_coding_context& ctx) {
    __mv_asn_init_CodingContext(&ctx);
    bool ok = p && rec && asnEncoded(__mv_asn_encode_pdu(p, rec, &ctx)) && ctx.pos > 0;
    if (p && rec) __mv_asn_memfree_pdu(p, rec);
    return ok;
}

uint8_t enumValue(const MvAsnType& t, std::string_view name) {
    for (unsigned i = 0; t.names && i < t.nAll; ++i)
        if (name == t.names[i]) return uint8_t(i);
    fprintf(stderr, "core_answerer: %s has no value %.*s\n", t.name, int(name.size()), name.data());
    return 0;
}

bool plmnFromDigits(std::string_view mcc, std::string_view mnc, uint8_t out[3]) {
    auto num = [](std::string_view s, uint16_t& v) {
        v = 0;
        for (char c : s) {
            if (c < '0' || c > '9') return false;
            v = uint16_t(v * 10 + (c - '0'));
        }
        return !s.empty();
    };
    uint16_t c = 0, n = 0;
    if (mcc.size() != 3 || (mnc.size() != 2 && mnc.size() != 3) || !num(mcc, c) || !num(mnc, n)) return false;
    return __mv_nas_util__mccmnc_to_plmn(out, c, n, int(mnc.size())) == 1;
}

void plmnDigits(const uint8_t plmn[3], char mcc[4], char mnc[4]) { __mv_nas_util__plmn_to_mccmnc(plmn, mcc, mnc); }

}  // namespace ca
