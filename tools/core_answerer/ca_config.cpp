#include "ca_config.h"

#include <jansson.h>

#include <cstdlib>
#include <cstring>

#include "mvalgo_prim.h"

namespace ca {

namespace {

const char kUsage[] =
    "usage: core_answerer [options]\n"
    "An NGAP/NAS answerer for tests: NG Setup, registration with 5G-AKA, security mode, PDU sessions,\n"
    "deregistration, UE context release and service request, for the subscribers of a UE range.\n"
    "\n"
    "transport\n"
    "  --bind IP[,IP...]          local SCTP addresses, bound explicitly (127.0.0.1)\n"
    "  --port N                   SCTP port (38412)\n"
    "  --sctp-udp PORT[:REMOTE]   SCTP inside UDP on PORT (the peer's port if it differs); raw IP without\n"
    "  --sctp-bundle              let SCTP bundle messages while earlier ones wait for their SACK (more\n"
    "                             throughput under load, a delay when one message follows another)\n"
    "  --control-port N           also read control lines on this UDP port of the first bind address\n"
    "  --no-stdin                 do not read control lines on standard input\n"
    "the network\n"
    "  --name TEXT                AMF name (core-answerer)\n"
    "  --plmn MCCMNC              served PLMN (the first subscriber range's)\n"
    "  --amf-region N, --amf-set N, --amf-pointer N   GUAMI (1, 1, 1)\n"
    "  --slice SST[:SD]           a supported S-NSSAI, repeatable (1 and 1:010203)\n"
    "  --subscribers FILE         UE ranges with K and OPc (config/data/uel.json)\n"
    "  --sqn N                    first SQN of every subscriber (0, or the range's SQN)\n"
    "  --max-auth-attempts N      authentications in one registration before a reject (5)\n"
    "  --hn-key ID:A|B:HEX        home network private key for concealed SUCIs, repeatable\n"
    "  --nia LIST, --nea LIST     algorithms 0 to 3 in preference order (2 and 2)\n"
    "  --nas-bearer N             BEARER input of NAS integrity and ciphering for 3GPP access (1)\n"
    "  --identity-request TYPE    ask every UE for suci (before authentication), imei or imeisv (after\n"
    "                             security mode); otherwise only an unknown 5G-GUTI asks for the SUCI\n"
    "  --imeisv-request           ask for the IMEISV in the security mode command\n"
    "  --accept-in auto|ics|dl    registration accept in InitialContextSetupRequest or DownlinkNASTransport;\n"
    "                             auto: ICS when the gNB asked for a UE context (auto)\n"
    "  --t3512 OCTET              T3512 in the accept, GPRS timer 3 coding (0x21: one hour)\n"
    "  --dnn TEXT                 DNN of sessions whose request names none (internet)\n"
    "  --ue-pool CIDR             IPv4 addresses of PDU sessions (10.45.0.0/16)\n"
    "  --upf IP                   N3 address of the UPF in the session transfers (the first bind address)\n"
    "  --five-qi N, --session-ambr MBPS\n"
    "  --t3550 MS, --t3560 MS, --t3570 MS, --t3522 MS   NAS retransmission timers (6000; 0: never)\n"
    "  --retransmissions N        retransmissions before the procedure is given up (4)\n"
    "misbehaviour\n"
    "  --knob \"LINE\"              a knob, as the control line 'knob LINE', repeatable\n"
    "logging\n"
    "  --log-dir DIR              (./logs/)   --log-level 1..5 (4: each UE's progress)\n"
    "\n"
    "control lines (standard input, or the UDP control port):\n"
    "  knob drop KIND [COUNT]           do not send messages of KIND (a NAS or NGAP message name)\n"
    "  knob delay KIND MS [COUNT]       send them MS milliseconds late\n"
    "  knob bad-mac KIND [COUNT]        send them with a wrong MAC\n"
    "  knob plain KIND [COUNT]          send them without security protection\n"
    "  knob status KIND CAUSE [COUNT]   send a 5GMM STATUS with CAUSE instead\n"
    "  knob ignore KIND [COUNT]         do not act on received messages of KIND\n"
    "  knob reject KIND CAUSE [COUNT]   answer KIND with its reject: RegistrationRequest (registration\n"
    "                                   reject, in clear), SecurityModeComplete (registration reject,\n"
    "                                   protected), AuthenticationResponse (authentication reject,\n"
    "                                   no CAUSE), ServiceRequest, PDUSessionEstablishmentRequest,\n"
    "                                   PDUSessionModificationRequest, PDUSessionReleaseRequest\n"
    "  knobs | clear | counters | ues | abort (close every association) | dereg all|IMSI [rereg] | quit\n"
    "COUNT is how many messages the knob acts on (0 or none: all). SIGUSR1 prints the counters.\n";

bool num(std::string_view s, uint64_t& v) {
    if (s.empty()) return false;
    std::string t(s);
    char* end = nullptr;
    v = strtoull(t.c_str(), &end, 0);
    return end && *end == 0;
}

bool algoList(std::string_view s, std::vector<uint8_t>& out) {
    out.clear();
    size_t p = 0;
    while (p <= s.size()) {
        size_t c = s.find(',', p);
        uint64_t v;
        if (!num(s.substr(p, c == std::string_view::npos ? s.npos : c - p), v) || v > 3) return false;
        out.push_back(uint8_t(v));
        if (c == std::string_view::npos) break;
        p = c + 1;
    }
    return !out.empty();
}

bool slice(std::string_view s, SNssai& out) {
    size_t c = s.find(':');
    uint64_t sst;
    if (!num(s.substr(0, c), sst) || sst > 255) return false;
    out = SNssai{};
    out.sst = uint8_t(sst);
    if (c == std::string_view::npos) return true;
    out.hasSd = true;
    return s.size() - c - 1 == 6 && fromHex(s.substr(c + 1), out.sd, 3);
}

bool hnKey(std::string_view s, HomeNetworkKey& k) {
    size_t a = s.find(':'), b = s.find(':', a == s.npos ? a : a + 1);
    uint64_t id;
    if (a == s.npos || b == s.npos || !num(s.substr(0, a), id) || id > 255) return false;
    std::string_view prof = s.substr(a + 1, b - a - 1);
    k.id = uint8_t(id);
    k.scheme = prof == "A" || prof == "a" || prof == "1" ? 1 : prof == "B" || prof == "b" || prof == "2" ? 2 : 0;
    k.priv = fromHex(s.substr(b + 1));
    return k.scheme && k.priv.size() == 32;
}

}  // namespace

const char* usageText() { return kUsage; }

bool fromHex(std::string_view s, uint8_t* out, size_t n) {
    if (s.size() != 2 * n) return false;
    auto nib = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (size_t i = 0; i < n; ++i) {
        int h = nib(s[2 * i]), l = nib(s[2 * i + 1]);
        if (h < 0 || l < 0) return false;
        out[i] = uint8_t(h << 4 | l);
    }
    return true;
}

Bytes fromHex(std::string_view s) {
    Bytes b(s.size() / 2);
    if (s.size() % 2 || !fromHex(s, b.data(), b.size())) return {};
    return b;
}

bool parseOptions(int argc, char** argv, Options& o, std::string& err) {
    for (int i = 1; i < argc; ++i) {
        std::string_view k = argv[i];
        if (k == "--help" || k == "-h") {
            err = kUsage;
            return false;
        }
        if (k == "--no-stdin") {
            o.stdinControl = false;
            continue;
        }
        if (k == "--sctp-bundle") {
            o.sctpBundle = true;
            continue;
        }
        if (k == "--imeisv-request") {
            o.imeisvInSmc = true;
            continue;
        }
        if (i + 1 >= argc) {
            err = "option " + std::string(k) + " needs a value";
            return false;
        }
        std::string_view v = argv[++i];
        uint64_t n = 0;
        bool ok = true;
        if (k == "--bind") {
            o.bind.clear();
            size_t p = 0;
            while (p <= v.size()) {
                size_t c = v.find(',', p);
                o.bind.emplace_back(v.substr(p, c == v.npos ? v.npos : c - p));
                if (c == v.npos) break;
                p = c + 1;
            }
        } else if (k == "--port") {
            ok = num(v, n) && n > 0 && n < 65536;
            o.port = int(n);
        } else if (k == "--sctp-udp") {
            size_t c = v.find(':');
            uint64_t r = 0;
            ok = num(v.substr(0, c), n) && n < 65536 && (c == v.npos || (num(v.substr(c + 1), r) && r < 65536));
            o.sctpUdpPort = int(n);
            o.sctpUdpRemotePort = int(r);
        } else if (k == "--control-port") {
            ok = num(v, n) && n < 65536;
            o.controlPort = int(n);
        } else if (k == "--name") {
            o.name = v;
        } else if (k == "--plmn") {
            ok = (v.size() == 5 || v.size() == 6) && num(v, n);
            o.mcc = v.substr(0, 3);
            o.mnc = v.substr(3);
        } else if (k == "--amf-region") {
            ok = num(v, n) && n < 256;
            o.region = uint8_t(n);
        } else if (k == "--amf-set") {
            ok = num(v, n) && n < 1024;
            o.set = uint16_t(n);
        } else if (k == "--amf-pointer") {
            ok = num(v, n) && n < 64;
            o.pointer = uint8_t(n);
        } else if (k == "--slice") {
            SNssai s;
            ok = slice(v, s);
            o.slices.push_back(s);
        } else if (k == "--subscribers") {
            o.subscribers = v;
        } else if (k == "--sqn") {
            ok = num(v, n) && n < (1ull << 48);
            o.sqn = n;
        } else if (k == "--max-auth-attempts") {
            ok = num(v, n) && n > 0 && n < 100;
            o.maxAuthAttempts = int(n);
        } else if (k == "--hn-key") {
            HomeNetworkKey h;
            ok = hnKey(v, h);
            o.hnKeys.push_back(h);
        } else if (k == "--nia") {
            ok = algoList(v, o.nia);
        } else if (k == "--nea") {
            ok = algoList(v, o.nea);
        } else if (k == "--nas-bearer") {
            ok = num(v, n) && n < 32;
            o.nasBearer = uint8_t(n);
        } else if (k == "--identity-request") {
            ok = v == "suci" || v == "imei" || v == "imeisv";
            o.identityRequest = v;
        } else if (k == "--accept-in") {
            ok = v == "auto" || v == "ics" || v == "dl";
            o.acceptIn = v == "ics" ? Options::AcceptIn::Ics : v == "dl" ? Options::AcceptIn::Dl : Options::AcceptIn::Auto;
        } else if (k == "--t3512") {
            ok = num(v, n) && n < 256;
            o.t3512 = uint8_t(n);
        } else if (k == "--dnn") {
            ok = !v.empty() && v.size() < 100;
            o.dnn = v;
        } else if (k == "--ue-pool") {
            o.uePool = v;
        } else if (k == "--upf") {
            o.upfAddress = v;
        } else if (k == "--five-qi") {
            ok = num(v, n) && n < 256;
            o.fiveQi = uint8_t(n);
        } else if (k == "--session-ambr") {
            ok = num(v, n) && n > 0 && n < 65536;
            o.sessionAmbrMbps = uint16_t(n);
        } else if (k == "--t3550" || k == "--t3560" || k == "--t3570" || k == "--t3522") {
            ok = num(v, n) && n < 3600000;
            (k == "--t3550" ? o.t3550 : k == "--t3560" ? o.t3560 : k == "--t3570" ? o.t3570 : o.t3522) = uint32_t(n);
        } else if (k == "--retransmissions") {
            ok = num(v, n) && n < 100;
            o.retransmissions = int(n);
        } else if (k == "--knob") {
            o.knobs.emplace_back(v);
        } else if (k == "--log-dir") {
            o.logDir = std::string(v) + (v.back() == '/' ? "" : "/");
        } else if (k == "--log-level") {
            ok = num(v, n) && n >= 1 && n <= 5;
            o.logLevel = int(n);
        } else {
            err = "unknown option " + std::string(k) + " (--help lists them)";
            return false;
        }
        if (!ok) {
            err = "bad value '" + std::string(v) + "' for " + std::string(k);
            return false;
        }
    }
    if (o.slices.empty()) {
        SNssai a, b;
        b.hasSd = true;
        b.sd[0] = 0x01, b.sd[1] = 0x02, b.sd[2] = 0x03;
        o.slices = {a, b};
    }
    if (o.bind.empty() || o.bind[0].empty()) {
        err = "--bind needs an address";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- subscribers

namespace {

// A member given as text or as a number.
bool imsiMember(json_t* o, const char* key, uint64_t& v, int& digits) {
    json_t* m = json_object_get(o, key);
    if (json_is_integer(m)) {
        v = uint64_t(json_integer_value(m));
        digits = 15;
        return true;
    }
    const char* s = json_string_value(m);
    if (!s || !*s || strlen(s) > 15) return false;
    char* end = nullptr;
    v = strtoull(s, &end, 10);
    digits = int(strlen(s));
    return end && *end == 0;
}

const char* firstString(json_t* o, std::initializer_list<const char*> keys) {
    for (const char* k : keys)
        if (const char* s = json_string_value(json_object_get(o, k))) return s;
    return nullptr;
}

}  // namespace

bool Subscribers::load(const std::string& path, uint64_t sqn, std::string& err) {
    json_error_t je;
    json_t* root = json_load_file(path.c_str(), 0, &je);
    if (!root) {
        err = path + ": " + je.text + " (line " + std::to_string(je.line) + ")";
        return false;
    }
    json_t* list = json_is_array(root) ? root : json_object_get(root, "SupiRange");
    if (!json_is_array(list)) {
        json_decref(root);
        err = path + ": neither a list of ranges nor an object with SupiRange";
        return false;
    }
    ranges_.clear();
    uint64_t total = 0;
    size_t i;
    json_t* e;
    json_array_foreach(list, i, e) {
        SubscriberRange r;
        int d2 = 0;
        const char* k = firstString(e, {"SubKey", "K", "Ki"});
        const char* opc = firstString(e, {"OPC", "OPc", "Opc"});
        const char* op = firstString(e, {"OP", "Op"});
        const char* mcc = firstString(e, {"MCC"});
        const char* mnc = firstString(e, {"MNC"});
        bool ok = imsiMember(e, "MSINStart", r.first, r.digits) && imsiMember(e, "MSINEnd", r.last, d2) &&
                  r.first <= r.last && k && fromHex(k, r.k, 16) && mcc && mnc;
        if (ok && opc) {
            ok = fromHex(opc, r.opc, 16);
        } else if (ok && op) {
            uint8_t opb[16];
            ok = fromHex(op, opb, 16) && __mv_algo__milenage_opc(std::span<const uint8_t, 16>(r.k, 16),
                                                                 std::span<const uint8_t, 16>(opb, 16),
                                                                 std::span<uint8_t, 16>(r.opc, 16)) == 0;
        } else {
            ok = false;
        }
        if (!ok) {
            json_decref(root);
            err = path + ": range " + std::to_string(i + 1) +
                  " needs MSINStart <= MSINEnd, SubKey and OPC (32 hexadecimal digits each), MCC and MNC";
            return false;
        }
        r.mcc = mcc;
        r.mnc = mnc;
        json_t* s = json_object_get(e, "SQN");
        r.sqn = json_is_integer(s) ? uint64_t(json_integer_value(s)) : sqn;
        r.base = uint32_t(total);
        total += r.last - r.first + 1;
        // 5G-TMSIs carry the subscriber's index in 24 bits
        if (total > 0xFFFFFF) {
            json_decref(root);
            err = path + ": more than 16777215 subscribers";
            return false;
        }
        ranges_.push_back(r);
    }
    json_decref(root);
    if (ranges_.empty()) {
        err = path + ": no ranges";
        return false;
    }
    states_.assign(total, SubscriberState{});
    for (const SubscriberRange& r : ranges_)
        for (uint64_t n = 0; n <= r.last - r.first; ++n) states_[r.base + n].sqn = r.sqn;
    return true;
}

int64_t Subscribers::find(std::string_view imsi) const {
    uint64_t v = 0;
    if (imsi.empty() || imsi.size() > 15) return -1;
    for (char c : imsi) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + uint64_t(c - '0');
    }
    for (const SubscriberRange& r : ranges_)
        if (v >= r.first && v <= r.last && int(imsi.size()) == r.digits) return int64_t(r.base + (v - r.first));
    return -1;
}

const SubscriberRange& Subscribers::range(uint32_t index) const {
    for (const SubscriberRange& r : ranges_)
        if (index >= r.base && index - r.base <= r.last - r.first) return r;
    return ranges_.back();
}

std::string Subscribers::imsi(uint32_t index) const {
    const SubscriberRange& r = range(index);
    std::string s = std::to_string(r.first + (index - r.base));
    if (int(s.size()) < r.digits) s.insert(0, size_t(r.digits) - s.size(), '0');
    return s;
}

}  // namespace ca
