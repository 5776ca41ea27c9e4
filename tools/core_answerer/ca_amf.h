// The answerer's network side: gNB associations, one NG connection per UE keyed by its
// AMF UE NGAP ID, one 5GMM context per subscriber kept across connections, and the
// procedures that drive them. It knows nothing of sockets: messages come in through
// onMessage and go out through the Transport it is given, so tests can run it in
// memory as well as over SCTP.
//
// Threads: every entry point takes the one lock, so the state is touched by one
// thread at a time whichever thread delivers (the SCTP delivery thread, the timer
// thread, the control channel).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ca_config.h"
#include "ca_counters.h"
#include "ca_knobs.h"
#include "ca_nas.h"
#include "ca_ngap.h"
#include "ca_timer.h"

namespace ca {

using AssocKey = const void*;

struct Transport {
    // Sends one NGAP PDU on the association's stream; bytes sent, or a value below 1.
    std::function<int(AssocKey, uint16_t stream, const uint8_t*, size_t)> send;
    // Ends the association (the close comes back through onClose).
    std::function<void(AssocKey)> close;
};

struct Session {
    uint8_t psi = 0;
    uint8_t state = 0;  // 1 resources asked of the gNB, 2 active, 3 release commanded, 4 being reactivated
    uint8_t type = 1;   // 1 IPv4, 2 IPv6, 3 IPv4v6
    uint8_t pti = 0;
    uint32_t ipv4 = 0;  // host order, 0 when none
    uint8_t iid[8] = {};
    uint32_t upfTeid = 0;
    UpTunnel gnb;
    SNssai snssai;
    Bytes dnn;
};

// A subscriber's 5GMM context, kept across NG connections and registrations.
struct UeContext {
    uint32_t sub = 0;
    std::string imsi;
    uint8_t ngksi = 7;  // 7: no key set yet
    bool secValid = false;
    NasSecurity sec;
    uint8_t kamf[32] = {};
    uint32_t tmsi = 0;
    bool hasGuti = false;
    bool registered = false;
    uint8_t ueSecCap[8] = {};
    uint8_t ueSecCapLen = 0;
    std::string pei;
    std::vector<Session> sessions;
    uint64_t conn = 0;  // AMF UE NGAP ID of the UE's NG connection, 0 when idle

    Session* session(uint8_t psi);
};

enum class Phase : uint8_t { Start, Identity, Auth, Smc, Pei, Accept, Registered, Releasing };

// One UE-associated NG connection.
struct Conn {
    uint64_t amfId = 0, ranId = 0;
    AssocKey assoc = nullptr;
    uint16_t stream = 0;
    UeContext* ue = nullptr;
    Phase phase = Phase::Start;
    bool secActive = false;   // NAS security in use on this connection
    bool contextRequested = false;
    bool icsDone = false;     // the gNB holds a UE context (an InitialContextSetup answered)
    bool icsPending = false;
    uint8_t plmn[3] = {}, tac[3] = {};
    bool hasTai = false;
    uint32_t lastUlCount = 0;

    // registration in progress
    uint8_t regType = 1;
    bool followOn = false;
    bool initialPlain = true;  // the registration request came without verified protection
    bool suciAsked = false;
    std::vector<SNssai> requested;
    bool hasPduStatus = false;
    uint16_t pduStatus = 0;
    uint8_t ueSecCap[8] = {};
    uint8_t ueSecCapLen = 0;
    std::vector<SNssai> allowed;

    // authentication and the security mode command
    uint8_t rand[16] = {}, autn[16] = {}, resStar[16] = {}, kausf[32] = {};
    int authAttempts = 0;
    NasSecurity pendingSec;
    uint8_t pendingKamf[32] = {};
    uint8_t pendingKsi = 0;
    std::string snn;

    // the NAS procedure a network timer guards
    uint8_t retxTimer = 0;  // 50, 60, 70, 22 for T3550, T3560, T3570, T3522; 0 none
    Bytes retxPlain;
    uint8_t retxSht = 0;
    int retxLeft = 0;
    uint32_t retxGen = 0;
    uint64_t retxTimerId = 0;
};

struct Assoc {
    AssocKey key = nullptr;
    std::string peer;
    bool setup = false;
    std::string ran;
    std::unordered_map<uint64_t, uint64_t> byRan;  // RAN UE NGAP ID to AMF UE NGAP ID
};

class Amf {
public:
    Amf(const Options& o, Subscribers& subs, Counters& counters, Knobs& knobs, Timers& timers, Transport t);
    // Stop the timers first: their callbacks come back here.
    ~Amf();
    Amf(const Amf&) = delete;
    Amf& operator=(const Amf&) = delete;
    // Checks what the options name (PLMN, addresses, pool); false with the reason.
    bool init(std::string& err);

    void onAccept(AssocKey a, const std::string& peer);
    void onClose(AssocKey a);
    void onMessage(AssocKey a, uint16_t stream, std::span<const uint8_t> pdu);
    // One control line; the answer to print. Sets *quit for "quit".
    std::string control(std::string_view line, bool* quit);
    std::string summary();

    // Counts for tests and the summary.
    size_t connections();
    size_t registeredUes();

private:
    struct Wrapped {
        Bytes bytes;
        const char* mm = "";  // name of the 5GMM message
        const char* sm = "";  // name of the 5GSM message it carries, if any
    };

    // associations and NGAP (ca_amf.cpp)
    void handleNgap(Assoc& as, uint16_t stream, std::span<const uint8_t> pdu);
    void ngSetup(Assoc& as, const __mv_amf_dt_NGSetupRequest* m);
    void ngReset(Assoc& as, const __mv_amf_dt_NGReset* m);
    void initialUe(Assoc& as, uint16_t stream, const __mv_amf_dt_InitialUEMessage* m);
    Conn* ueConn(Assoc& as, const char* what, uint64_t amfId, int amfSet, uint64_t ranId, int ranSet);
    void contextSetupResponse(Conn& c, const __mv_amf_dt_InitialContextSetupResponse* m);
    void contextSetupFailure(Conn& c, const __mv_amf_dt_InitialContextSetupFailure* m);
    void sessionSetupResponse(Conn& c, const __mv_amf_dt_PDUSessionResourceSetupResponse* m);
    void releaseRequest(Conn& c, const __mv_amf_dt_UEContextReleaseRequest* m);
    void releaseComplete(Conn& c);
    void dropConn(uint64_t amfId, const char* why);
    void dropAssoc(AssocKey a);
    void sendNgap(AssocKey a, uint16_t stream, const Ctx& ctx, const char* pdu, const char* mm = "", const char* sm = "");
    void sendToUe(Conn& c, const Ctx& ctx, const char* pdu, const Wrapped* nas = nullptr);
    void errorIndication(Assoc& as, uint16_t stream, uint64_t amfId, bool hasAmf, uint64_t ranId, bool hasRan,
                         NgCause cause);
    void releaseContext(Conn& c, NgCause cause);
    void drainEvents();

    // NAS and 5GMM (ca_amf_mm.cpp)
    // True when an ignore knob takes the received message of this kind.
    bool ignored(const Conn* c, const char* kind);
    void uplinkNas(Conn& c, std::span<const uint8_t> pdu, bool initial, const uint32_t* ngapTmsi);
    bool wrap(Conn& c, const Ctx& plain, uint8_t sht, Wrapped& out);
    // A NAS message in a DownlinkNASTransport, protected as the connection's security
    // stands (or with the given header type), under a network timer when one is named.
    void sendNas(Conn& c, const Ctx& plain, uint8_t retxTimer = 0, int shtOverride = -1);
    void armRetx(Conn& c, uint8_t timer, const Ctx& plain, uint8_t sht, bool fresh);
    void stopRetx(Conn& c);
    void onRetx(uint64_t amfId, uint32_t gen);
    void registrationRequest(Conn& c, const NasMessage& m, std::span<const uint8_t> plain, bool verified);
    // 1 the connection has its UE, 0 the SUCI is to be asked for, -1 rejected here.
    int resolveIdentity(Conn& c, const MobileIdentity& id);
    void attach(Conn& c, UeContext& ue);
    UeContext* ueByTmsi(uint32_t tmsi);
    void nextRegistrationStep(Conn& c);
    void identityResponse(Conn& c, const NasMessage& m);
    void startAuthentication(Conn& c);
    void authenticationResponse(Conn& c, const NasMessage& m);
    void authenticationFailure(Conn& c, const NasMessage& m);
    void securityModeComplete(Conn& c, const NasMessage& m);
    void securityModeReject(Conn& c, const NasMessage& m);
    void sendAccept(Conn& c);
    void registrationComplete(Conn& c);
    void deregistrationRequest(Conn& c, const NasMessage& m);
    void serviceRequest(Conn& c, const NasMessage& m, bool verified);
    void rejectRegistration(Conn& c, uint8_t cause);
    void authenticationReject(Conn& c);
    void gmmStatus(Conn& c, uint8_t cause);
    void networkDeregistration(Conn& c, bool reregister);
    uint8_t sht(const Conn& c) const { return c.secActive ? 2 : 0; }
    UeContext& contextOf(uint32_t sub);
    void kgnb(const Conn& c, uint8_t out[32]);
    void contextSetup(Conn& c, std::span<const uint8_t> nas, const std::vector<SessionItem>& sessions);
    void releaseSessionsLocally(UeContext& ue);

    // 5GSM (ca_amf_sm.cpp)
    void ulNasTransport(Conn& c, const NasMessage& m);
    void sessionEstablishment(Conn& c, const NasMessage& sm, const NasMessage& mm);
    void sessionRelease(Conn& c, const NasMessage& sm);
    void sessionReleaseComplete(Conn& c, const NasMessage& sm);
    void sessionModification(Conn& c, const NasMessage& sm);
    void sendSm(Conn& c, const Ctx& sm, uint8_t psi);
    bool sessionTransfer(const Session& s, Ctx& ctx);
    void freeSession(UeContext& ue, uint8_t psi);
    uint32_t allocIpv4();

    void log(int level, const Conn* c, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

    const Options& o_;
    Subscribers& subs_;
    Counters& n_;
    Knobs& knobs_;
    Timers& timers_;
    Transport t_;

    std::mutex mu_;
    std::unordered_map<AssocKey, std::unique_ptr<Assoc>> assocs_;
    std::unordered_map<uint64_t, std::unique_ptr<Conn>> conns_;
    uint64_t nextAmfId_ = 1;

    // association events from the socket threads, applied under mu_
    std::mutex evMu_;
    std::vector<std::pair<AssocKey, std::string>> accepted_;
    std::vector<AssocKey> closed_;
    std::atomic<bool> events_{false};

    Guami guami_;
    uint8_t plmn_[3] = {};
    std::string snnDefault_;
    UpTunnel upf_;
    uint32_t poolBase_ = 0, poolSize_ = 0, poolNext_ = 0;
    std::vector<uint32_t> poolFree_;
    uint64_t nextIid_ = 1;
    uint32_t nextTeid_ = 1;
    std::mt19937_64 rng_;
};

// The serving network name of a PLMN: "5G:mnc001.mcc001.3gppnetwork.org".
std::string servingNetworkName(const uint8_t plmn[3]);

}  // namespace ca
