#include "ca_counters.h"

#include "ca_asn.h"
#include "ca_nas.h"

namespace ca {

namespace {
const char* const kEventNames[] = {
#define CA_EV_NAME(e, n) n,
    CA_EVENTS(CA_EV_NAME)
#undef CA_EV_NAME
};
}  // namespace

Counters::Counters()
    : ngap_(new std::atomic<uint64_t>[mv_asn_amf::kPduCount * 2]()), nas_(new std::atomic<uint64_t>[2 * 256 * 2]()) {}

std::string Counters::text() const {
    std::string out;
    auto line = [&](const std::string& name, uint64_t v) {
        if (v) out += "COUNTER " + name + " " + std::to_string(v) + "\n";
    };
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i) {
        line(std::string("ngap.rx.") + mv_asn_amf::kPdus[i].name, ngap_[i * 2].load());
        line(std::string("ngap.tx.") + mv_asn_amf::kPdus[i].name, ngap_[i * 2 + 1].load());
    }
    for (int sm = 0; sm < 2; ++sm)
        for (int t = 0; t < 256; ++t) {
            uint8_t epd = sm ? 0x2E : 0x7E;
            const char* n = nasName(epd, uint8_t(t));
            std::string name = n && *n ? n : (sm ? "5GSM-" : "5GMM-") + std::to_string(t);
            line("nas.rx." + name, nas_[slot(epd, uint8_t(t), 0)].load());
            line("nas.tx." + name, nas_[slot(epd, uint8_t(t), 1)].load());
        }
    for (size_t e = 0; e < size_t(Ev::Count); ++e) line(kEventNames[e], ev_[e].load());
    return out + "END\n";
}

}  // namespace ca
