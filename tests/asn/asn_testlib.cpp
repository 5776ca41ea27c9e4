#include "asn_testlib.h"

#include <cstdio>
#include <cstring>
#include <sys/wait.h>

#include "mv_asn_internal.h"

using mv_asn_detail::at;
using mv_asn_detail::itemByPtr;
using mv_asn_detail::st;

namespace {

const char kPrintable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 '()+,-./:=?";
}  // namespace

void AsnFiller::fill(const MvAsnType* t, void* slot, int depth) {
    bool bounded = (t->flags & MV_ASN_F_LB) && (t->flags & MV_ASN_F_UB);
    auto sizeOf = [&](int64_t cap) -> uint32_t {
        if (!(t->flags & MV_ASN_F_UB)) return minimal ? 1 : uint32_t(1 + below(uint64_t(cap)));
        int64_t hi = t->ub < t->lb + cap ? t->ub : t->lb + cap;
        if (minimal || depth > 3) hi = t->lb + (t->lb == 0 ? 1 : 0) < t->ub ? t->lb + (t->lb == 0 ? 1 : 0) : t->lb;
        return uint32_t(t->lb + int64_t(below(uint64_t(hi - t->lb + 1))));
    };
    switch (t->kind) {
        case MV_ASN_K_INT: {
            uint64_t v;
            if (bounded) {
                uint64_t span = uint64_t(t->ub) - uint64_t(t->lb);
                uint64_t r = below(4);
                v = r == 0 ? 0 : r == 1 ? span : (span == ~0ull ? rng() : below(span + 1));
                v += uint64_t(t->lb);
                if (t->ext && below(8) == 0) v = uint64_t(t->ub) + 1 + below(1000);
                // the root of these is 1..30 and a few single values up to 181
                std::string n = t->name;
                if ((n == "ExpectedActivityPeriod" || n == "ExpectedIdlePeriod") && v <= 181) v = 1 + below(30);
            } else {
                v = below(1u << 20);
            }
            st(slot, v);
            return;
        }
        case MV_ASN_K_ENUM:
            st(slot, uint8_t(below(t->nAll)));
            return;
        case MV_ASN_K_BOOL:
            st(slot, uint8_t(below(2)));
            return;
        case MV_ASN_K_NULL:
            st(slot, uint8_t(1));
            return;
        case MV_ASN_K_SINGLE:
            if (t->item) fill(t->item, slot, depth);
            return;
        default:
            break;
    }
    void* rec = __mv_asn_new_record(t);
    st(slot, rec);
    switch (t->kind) {
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_OID:
        case MV_ASN_K_PRTSTR: {
            std::vector<uint8_t> v;
            std::string name = t->name;
            if (name == "PLMNIdentity" || name == "PLMNidentity") {
                // digits that a dissector reads as an MCC and a two-digit MNC
                v = {uint8_t(below(10) << 4 | below(10)), uint8_t(0xF0 | below(10)), uint8_t(below(10) << 4 | below(10))};
            } else if (name == "NGRANTraceID" || name == "E-UTRAN-Trace-ID") {
                v = {0x02, 0xF8, 0x39};
                for (int i = 0; i < 5; i++) v.push_back(uint8_t(rng()));
            } else if (name == "IMSI" || name == "TBCD-STRING" || name == "MSClassmark2") {
                uint32_t n = sizeOf(5);
                for (uint32_t i = 0; i < n; i++) v.push_back(uint8_t(below(10) << 4 | below(10)));
            } else if (name.size() > 12 && (name.compare(name.size() - 12, 12, "NGAP-Message") == 0 ||
                                            name.compare(name.size() - 10, 10, "S1-Message") == 0)) {
                // a whole PDU of the protocol: an overload stop with no IEs
                v = {0x00, uint8_t(name.find("NGAP") != std::string::npos ? 23 : 35), 0x40, 0x03, 0x00, 0x00, 0x00};
            } else if (name == "WarningMessageContents") {
                v.assign(84, 0x20);
                v[0] = 1;       // one page of 82 octets and its length octet
                v[83] = 82;
            } else if (t->item) {
                // an OCTET STRING (CONTAINING X) carries a real encoding of X
                void* inner = nullptr;
                fill(t->item, &inner, depth + 1);
                static __mv_asn_coding_context c;
                __mv_asn_init_CodingContext(&c);
                if (__mv_asn_encode_type(t->item, &inner, 1, &c) == 1) {
                    __mv_asn_pad_bits(&c);
                    v.assign(c.buffer, c.buffer + c.pos);
                }
                __mv_asn_free_type(t->item, &inner);
                if (v.empty()) v.push_back(0);
            } else {
                uint32_t n = sizeOf(12);
                if (n == 0 && !(t->flags & MV_ASN_F_UB)) n = 1;
                for (uint32_t i = 0; i < n; i++)
                    v.push_back(t->kind == MV_ASN_K_PRTSTR ? uint8_t(kPrintable[below(sizeof kPrintable - 1)])
                                                           : uint8_t(rng()));
            }
            uint8_t* d = __mv_asn_alloc_n_copy(v.data(), uint32_t(v.size()));
            st(rec, d);
            st(at(rec, 8), uint32_t(v.size()));
            return;
        }
        case MV_ASN_K_BITSTR: {
            uint32_t bits = sizeOf(40);
            if (std::string(t->name) == "TransportLayerAddress") bits = below(2) ? 32 : 128;
            if (bits == 0) bits = 1;
            uint32_t bytes = (bits + 7) / 8;
            std::vector<uint8_t> v(bytes);
            for (auto& b : v) b = uint8_t(rng());
            if (bits % 8) v[bytes - 1] &= uint8_t(0xFF << (8 - bits % 8));
            st(rec, __mv_asn_alloc_n_copy(v.data(), bytes));
            st(at(rec, 8), bytes);
            st(at(rec, 12), int(bits));
            return;
        }
        case MV_ASN_K_SEQ:
            for (unsigned i = 0; i < t->nRoot; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.type->kind == MV_ASN_K_EXTC) continue;
                if (m.optional) {
                    bool on = allOptional || (!minimal && depth < 4 && below(2));
                    if (skipOptional.count(m.type->name)) on = false;
                    if (!on) continue;
                    st(at(rec, uint32_t(m.presOff)), 1);
                }
                fill(m.type, at(rec, m.off), depth + 1);
            }
            return;
        case MV_ASN_K_SEQOF: {
            uint32_t n = sizeOf(depth > 1 ? 1 : 3);
            if (n == 0 && t->lb > 0) n = uint32_t(t->lb);
            bool byPtr = itemByPtr(t);
            __mv_asn_list* list = nullptr;
            for (uint32_t i = 0; i < n; i++) {
                void* cell = nullptr;
                if (byPtr) {
                    fill(t->item, &cell, depth + 1);
                } else {
                    cell = __mv_asn_alloc(8);
                    fill(t->item, cell, depth + 1);
                }
                __mv_asn_list_add(&list, cell);
            }
            st(rec, list);
            return;
        }
        case MV_ASN_K_CHOICE: {
            std::vector<unsigned> ok;
            for (unsigned i = 0; i < t->nAll; i++)
                if (!(t->members[i].type->kind == MV_ASN_K_SINGLE && !t->members[i].type->item)) ok.push_back(i);
            unsigned sel = ok[below(ok.size())];
            st(rec, uint8_t(sel));
            fill(t->members[sel].type, at(rec, t->members[sel].off), depth + 1);
            return;
        }
        case MV_ASN_K_MSG:
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnIE& ie = t->ies[i];
                bool on = ie.presence == 2 || allOptional || (!minimal && below(2));
                if (ie.presence != 2 && skipOptional.count(ie.type->name)) on = false;
                if (!on) continue;
                st(at(rec, ie.issetOff), 1);
                fill(ie.type, at(rec, ie.off), depth + 1);
            }
            return;
        default:
            return;
    }
}

void* AsnFiller::pdu(const MvAsnPdu* p) {
    void* rec = nullptr;
    fill(p->type, &rec, 0);
    return rec;
}

std::vector<uint8_t> encodePdu(const MvAsnPdu* p, const void* rec) {
    static __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_asn_encode_pdu(p, rec, &ctx) < 1) return {};
    return std::vector<uint8_t>(ctx.buffer, ctx.buffer + ctx.pos);
}

int decodePdu(const MvAsnPdu* p, const std::vector<uint8_t>& bytes, void** rec) {
    static __mv_asn_coding_context ctx;
    *rec = __mv_asn_new_record(p->type);
    if (!__mv_asn_init_decode(&ctx, bytes.data(), bytes.size())) return -1;
    return __mv_asn_decode_pdu(p, *rec, &ctx);
}

std::string toHex(const std::vector<uint8_t>& b) {
    static const char* hx = "0123456789abcdef";
    std::string s;
    for (uint8_t c : b) {
        s += hx[c >> 4];
        s += hx[c & 15];
    }
    return s;
}

std::vector<uint8_t> fromHex(const std::string& h) {
    std::vector<uint8_t> v;
    for (size_t i = 0; i + 1 < h.size(); i += 2) v.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
    return v;
}

int runCommand(const std::string& cmd, std::string* out) {
    FILE* f = popen(cmd.c_str(), "r");
    if (!f) return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        if (out) out->append(buf, n);
    int st = pclose(f);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool haveProgram(const char* name) {
    return runCommand(std::string("command -v ") + name + " >/dev/null 2>&1", nullptr) == 0;
}

const char* const kTsharkOpaque =
    "nas-5gs,nas-eps,nr-rrc,lte-rrc,rrc,ranap,x2ap,xnap,nrppa,lppa,bssgp,gcsna,gsm_a_rr,gsm_a_dtap,gsm_a_bssmap,"
    "gsm_a_common";

std::string namePackets(const std::string& out, const std::vector<std::string>& names) {
    std::string report;
    size_t p = out.find("packet(s): ");
    if (p == std::string::npos) return report;
    size_t e = out.find(" (", p);
    std::string list = out.substr(p + 11, e - p - 11);
    size_t s = 0;
    while (s < list.size()) {
        size_t q = list.find(' ', s);
        if (q == std::string::npos) q = list.size();
        std::string num = list.substr(s, q - s);
        if (!num.empty() && isdigit(static_cast<unsigned char>(num[0]))) {
            size_t i = size_t(std::stoul(num));
            if (i >= 1 && i <= names.size()) report += names[i - 1] + "\n";
        }
        s = q + 1;
    }
    return report;
}
