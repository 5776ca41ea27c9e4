#include "ca_knobs.h"

#include <cstdlib>
#include <strings.h>

#include "ca_asn.h"
#include "ca_nas.h"

namespace ca {

namespace {

struct ActionName {
    KnobAction a;
    const char* name;
    int args;  // 0 none, 1 required, 2 required unless the kind has no cause
};
constexpr ActionName kActions[] = {
    {KnobAction::Drop, "drop", 0},     {KnobAction::Delay, "delay", 1},   {KnobAction::BadMac, "bad-mac", 0},
    {KnobAction::Plain, "plain", 0},   {KnobAction::Status, "status", 1}, {KnobAction::Ignore, "ignore", 0},
    {KnobAction::Reject, "reject", 2},
};

const char* actionName(KnobAction a) {
    for (const auto& n : kActions)
        if (n.a == a) return n.name;
    return "?";
}

std::vector<std::string_view> words(std::string_view s) {
    std::vector<std::string_view> w;
    size_t p = 0;
    while (p < s.size()) {
        while (p < s.size() && (s[p] == ' ' || s[p] == '\t')) ++p;
        size_t e = p;
        while (e < s.size() && s[e] != ' ' && s[e] != '\t') ++e;
        if (e > p) w.push_back(s.substr(p, e - p));
        p = e;
    }
    return w;
}

bool number(std::string_view s, uint32_t& v) {
    if (s.empty() || s.size() > 9) return false;
    v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + uint32_t(c - '0');
    }
    return true;
}

bool sameName(std::string_view a, const char* b) { return strlen(b) == a.size() && strncasecmp(a.data(), b, a.size()) == 0; }

}  // namespace

std::string canonicalKind(std::string_view name) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i)
        if (sameName(name, mv_asn_amf::kPdus[i].name)) return mv_asn_amf::kPdus[i].name;
    for (int epd : {0x7E, 0x2E})
        for (int t = 0; t < 256; ++t) {
            const char* n = nasName(uint8_t(epd), uint8_t(t));
            if (n && *n && sameName(name, n)) return n;
        }
    return "";
}

bool Knobs::add(std::string_view line, std::string& err) {
    auto w = words(line);
    if (w.size() < 2) {
        err = "a knob is ACTION KIND [ARG] [COUNT]";
        return false;
    }
    const ActionName* an = nullptr;
    for (const auto& n : kActions)
        if (w[0] == n.name) an = &n;
    if (!an) {
        err = "unknown knob action '" + std::string(w[0]) + "'";
        return false;
    }
    Knob k{an->a, canonicalKind(w[1])};
    if (k.kind.empty()) {
        err = "no NAS or NGAP message is named '" + std::string(w[1]) + "'";
        return false;
    }
    size_t next = 2;
    // An authentication reject has no cause: the number behind it is the count.
    int args = an->args == 2 ? (k.kind == "AuthenticationResponse" ? 0 : 1) : an->args;
    if (args == 1) {
        if (w.size() <= next || !number(w[next], k.arg)) {
            err = std::string(an->name) + " needs a number after the kind";
            return false;
        }
        k.hasArg = true;
        ++next;
    }
    if (w.size() > next && !number(w[next++], k.left)) {
        err = "the count must be a number";
        return false;
    }
    if (w.size() > next) {
        err = "too many words";
        return false;
    }
    std::lock_guard g(lock_);
    knobs_.push_back(k);
    count_ = knobs_.size();
    return true;
}

void Knobs::clear() {
    std::lock_guard g(lock_);
    knobs_.clear();
    count_ = 0;
}

std::string Knobs::list() const {
    std::lock_guard g(lock_);
    std::string out;
    for (const Knob& k : knobs_) {
        out += std::string(actionName(k.action)) + " " + k.kind;
        if (k.hasArg) out += " " + std::to_string(k.arg);
        out += k.left ? " left=" + std::to_string(k.left) : " always";
        out += " used=" + std::to_string(k.used) + "\n";
    }
    return out;
}

bool Knobs::take(KnobAction a, std::string_view kind, uint32_t* arg, bool* hasArg) {
    if (empty()) return false;
    std::lock_guard g(lock_);
    for (size_t i = 0; i < knobs_.size(); ++i) {
        Knob& k = knobs_[i];
        if (k.action != a || k.kind != kind) continue;
        if (arg) *arg = k.arg;
        if (hasArg) *hasArg = k.hasArg;
        ++k.used;
        if (k.left && --k.left == 0) {
            knobs_.erase(knobs_.begin() + long(i));
            count_ = knobs_.size();
        }
        return true;
    }
    return false;
}

}  // namespace ca
