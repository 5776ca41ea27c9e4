// libFuzzer target of the core answerer's reading of what UEs send: the uplink NAS reader
// with what a handler reads next (identities, NSSAIs, S-NSSAIs, the inner message of a
// container), and the check and opening of a protected message under a context drawn
// from the input. Inputs sit in blocks of exactly their size, so that the address
// sanitizer catches any read past them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ca_nas.h"

namespace {

void check(bool ok) {
    if (!ok) abort();
}

void readIes(const ca::NasMessage& m, std::span<const uint8_t> in, int depth) {
    check(m.ieCount <= m.ies.size());
    for (uint8_t i = 0; i < m.ieCount; ++i) {
        const auto& v = m.ies[i].value;
        check(v.empty() || (v.data() >= in.data() && v.data() + v.size() <= in.data() + in.size()));
        ca::MobileIdentity id;
        ca::SNssai s;
        (void)ca::decodeIdentity(v, id);
        (void)ca::readNssai(v);
        (void)ca::readSnssai(v, s);
        ca::NasMessage inner;  // a NAS message container or a payload inside
        if (depth < 2 && ca::parseUplink(v, inner) == ca::NasParse::Ok) readIes(inner, v, depth + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    std::vector<uint8_t> in(data + 1, data + size);
    ca::NasMessage m;
    switch (data[0] % 3) {
        case 0: {
            if (ca::parseUplink(in, m) != ca::NasParse::Ok) break;
            check(m.lv.empty() || (m.lv.data() >= in.data() && m.lv.data() + m.lv.size() <= in.data() + in.size()));
            ca::MobileIdentity id;
            if (ca::decodeIdentity(m.lv, id) && id.type == 1) (void)ca::imsiDigits(id.plmn, id.schemeOutput);
            ca::NasMessage sm;
            if (m.type == 103 && ca::parseUplink(m.lv, sm) == ca::NasParse::Ok) readIes(sm, m.lv, 1);
            readIes(m, in, 0);
            break;
        }
        case 1: {
            ca::MobileIdentity id;
            if (ca::decodeIdentity(in, id) && id.type == 1) (void)ca::imsiDigits(id.plmn, id.schemeOutput);
            (void)ca::readNssai(in);
            break;
        }
        default: {
            // A context of the input's first octets, then the message itself.
            if (in.size() < 3) break;
            ca::NasSecurity s;
            s.nia = in[0] & 3;
            s.nea = (in[0] >> 2) & 3;
            s.ul = uint32_t(in[1]) << 8 | in[2];
            std::vector<uint8_t> msg(in.begin() + 3, in.end());
            ca::Bytes plain;
            uint32_t before = s.ul;
            if (s.open(msg, plain) != ca::NasSecurity::Open::Ok) check(s.ul == before);
            else check(plain.size() + 7 == msg.size());
            break;
        }
    }
    return 0;
}
