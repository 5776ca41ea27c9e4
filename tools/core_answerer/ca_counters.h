// Counters of the answerer: every NGAP and NAS message by kind and direction, and the
// events a tester looks for. Written from several threads, read on demand.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace ca {

#define CA_EVENTS(X)                                                                         \
    X(AssociationsUp, "sctp.associations_up")                                                \
    X(AssociationsLost, "sctp.associations_lost")                                            \
    X(SendFailed, "sctp.send_failed")                                                        \
    X(NgapMalformed, "ngap.malformed")                                                       \
    X(NgapUnknownUe, "ngap.unknown_ue")                                                      \
    X(NgapUnhandled, "ngap.unhandled")                                                       \
    X(NasMalformed, "nas.malformed")                                                         \
    X(NasMacFailed, "nas.mac_failed")                                                        \
    X(NasPlainRefused, "nas.plain_refused")                                                  \
    X(NasUnexpected, "nas.unexpected")                                                       \
    X(UnknownSubscriber, "ue.unknown_subscriber")                                            \
    X(Registered, "ue.registered")                                                           \
    X(RegistrationRejected, "ue.registration_rejected")                                      \
    X(Deregistered, "ue.deregistered")                                                       \
    X(AuthResync, "auth.resynchronised")                                                     \
    X(AuthRejected, "auth.rejected")                                                         \
    X(SecurityModeRejected, "smc.rejected_by_ue")                                            \
    X(SessionsUp, "pdu.established")                                                         \
    X(SessionsReleased, "pdu.released")                                                      \
    X(SessionsRejected, "pdu.rejected")                                                      \
    X(ContextsReleased, "ue.contexts_released")                                              \
    X(ServiceAccepted, "ue.service_accepted")                                                \
    X(ServiceRejected, "ue.service_rejected")                                                \
    X(Retransmissions, "nas.retransmissions")                                                \
    X(ProceduresAbandoned, "nas.procedures_abandoned")                                       \
    X(KnobDropped, "knob.dropped")                                                           \
    X(KnobDelayed, "knob.delayed")                                                           \
    X(KnobBadMac, "knob.bad_mac")                                                            \
    X(KnobPlain, "knob.plain")                                                               \
    X(KnobStatus, "knob.status")                                                             \
    X(KnobIgnored, "knob.ignored")                                                           \
    X(KnobRejected, "knob.rejected")

enum class Ev : uint8_t {
#define CA_EV_ENUM(e, n) e,
    CA_EVENTS(CA_EV_ENUM)
#undef CA_EV_ENUM
        Count
};

class Counters {
public:
    Counters();
    void ngapRx(unsigned pduIndex) { bump(ngap_[pduIndex * 2]); }
    void ngapTx(unsigned pduIndex) { bump(ngap_[pduIndex * 2 + 1]); }
    // epd 0x7E or 0x2E
    void nasRx(uint8_t epd, uint8_t type) { bump(nas_[slot(epd, type, 0)]); }
    void nasTx(uint8_t epd, uint8_t type) { bump(nas_[slot(epd, type, 1)]); }
    void add(Ev e, uint64_t n = 1) { ev_[size_t(e)].fetch_add(n, std::memory_order_relaxed); }
    uint64_t get(Ev e) const { return ev_[size_t(e)].load(std::memory_order_relaxed); }
    // "COUNTER name value" lines for every counter that is not 0, then "END".
    std::string text() const;

private:
    static void bump(std::atomic<uint64_t>& a) { a.fetch_add(1, std::memory_order_relaxed); }
    static size_t slot(uint8_t epd, uint8_t type, int dir) { return (size_t(epd == 0x2E) * 256 + type) * 2 + size_t(dir); }
    std::unique_ptr<std::atomic<uint64_t>[]> ngap_;
    std::unique_ptr<std::atomic<uint64_t>[]> nas_;
    std::atomic<uint64_t> ev_[size_t(Ev::Count)] = {};
};

}  // namespace ca
