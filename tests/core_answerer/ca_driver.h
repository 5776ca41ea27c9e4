// A scripted gNB with UEs, for the core answerer's tests and benchmark: NG Setup, then
// for each UE registration with 5G-AKA and the security mode command, PDU sessions,
// deregistration, UE context release and service request, answering what the network
// sends on its own. Built on the engine's NAS codec (the messages a UE sends and the
// decoders a UE reads with), the NGAP codec and the crypto library's UE operations, and
// independent of the answerer's NAS code. It knows no socket: PDUs go out through
// `send` and come in through receive(), so it runs in memory or over SCTP.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace cad {

using Bytes = std::vector<uint8_t>;

// How one UE behaves, beyond doing the right thing.
struct UeBehaviour {
    uint32_t sqn = 0;              // the SQN the UE holds at start (its low 32 bits)
    int syncFailures = 0;          // answer that many authentication requests with a synch failure
    bool macFailure = false;       // answer authentication requests with cause #20
    bool wrongRes = false;         // answer with a RES* that is not the right one
    int ignoreAuth = 0, ignoreSmc = 0, ignoreIdentity = 0;  // leave that many requests unanswered
    bool rejectSmc = false;        // answer the security mode command with a reject, #24
    uint8_t ea = 0xF0, ia = 0xF0;  // offered 5G-EA and 5G-IA octets (EA0 in the top bit)
    bool contextRequest = false;   // UEContextRequest in the InitialUEMessage
    bool useGuti = true;           // register with the 5G-GUTI the network gave, once it did
    bool cipherInitial = false;    // cipher initial messages too (header type 2), as the engine's UE does
    uint8_t suciScheme = 0;        // 0 null scheme, 1 profile A
    uint8_t hnKeyId = 0;
    Bytes hnPublicKey;
};

struct SessionState {
    uint8_t type = 0;  // of the PDU address: 1 IPv4, 2 IPv6, 3 IPv4v6
    std::string ipv4;
    Bytes iid;
    bool accepted = false, resources = false, released = false, modified = false;
    int rejectCause = -1;
    uint32_t upfTeid = 0;
    std::string dnn;
};

struct Ue {
    size_t index = 0;
    std::string imsi;
    UeBehaviour b;
    // NG
    uint64_t ranId = 0, amfId = 0;
    bool connected = false;
    uint16_t stream = 1;
    // security
    uint32_t sqn = 0;
    int syncLeft = 0, authIgnoreLeft = 0, smcIgnoreLeft = 0, identityIgnoreLeft = 0;
    uint8_t rand[16] = {}, resStar[16] = {}, kausf[32] = {};
    std::string snn;
    bool sec = false, newCtx = false;
    uint8_t nia = 0, nea = 0, kint[16] = {}, kenc[16] = {}, ngksi = 7;
    uint32_t ul = 0, dl = 0;
    uint8_t guti[10] = {};
    bool hasGuti = false;
    Bytes regPlain;
    uint8_t pti = 0;
    // what happened
    bool registered = false, authRejected = false, deregisteredByNetwork = false;
    int rejectCause = -1, statusCause = -1, serviceRejectCause = -1, smcCount = 0;
    int serviceAccepts = 0, deregAccepts = 0, contextReleases = 0, macFailures = 0, plainAfterSecurity = 0;
    bool acceptInIcs = false;
    std::map<std::string, int> rx;  // NAS and NGAP messages received, by name
    std::map<uint8_t, SessionState> sessions;
    std::vector<std::string> events;
};

class Driver {
public:
    struct Config {
        std::string mcc = "001", mnc = "01";
        std::string firstImsi = "001010000000001";
        std::string k = "465B5CE8B199B49FAA5F0A2EE238A6BC";   // the default UE range's keys
        std::string opc = "E8ED289DEBA952E4283B54E88E6183CA";
        uint32_t tac = 1;
        uint32_t gnbId = 0x10;
        std::string gnbAddress = "10.231.0.1";  // the gNB's N3 address in its answers
        uint8_t nasBearer = 1;
        bool keepPdus = true;  // keep every PDU received, for tshark
        std::string imei = "356938035643803";
    };
    explicit Driver(Config c);

    // Where PDUs go; bytes sent or a value below 1.
    std::function<int(uint16_t stream, const uint8_t*, size_t)> send;
    void receive(uint16_t stream, std::span<const uint8_t> pdu);

    void ngSetup();
    // NG Setups one after the other, `window` at a time: a plain exchange of messages
    // through the answerer, for the benchmark's raw rate.
    void ngSetupMany(size_t count, size_t window);
    size_t setupCount() const { return setups_.load(); }
    bool setupDone();
    bool setupFailed();

    // UE i has the IMSI firstImsi + i.
    void registerUe(size_t i, const UeBehaviour& b = {});
    void establish(size_t i, uint8_t psi, uint8_t type, const std::string& dnn = "internet");
    void modify(size_t i, uint8_t psi);
    void releaseSession(size_t i, uint8_t psi);
    void deregister(size_t i, bool switchOff);
    void releaseContext(size_t i);  // the gNB asks for the UE context's release
    void serviceRequest(size_t i, uint8_t serviceType = 1);
    // Bad input: an NGAP PDU as given; a NAS PDU in an UplinkNASTransport of UE i.
    void sendRaw(const Bytes& ngap, uint16_t stream = 1);
    void sendNas(size_t i, const Bytes& nas, uint64_t amfIdOverride = 0, uint64_t ranIdOverride = 0);
    // NAS octets protected as UE i would send them now (for replays and corruptions).
    Bytes protect(size_t i, const Bytes& plain);

    // Registers UEs first..first+count-1, at most `window` at a time, each starting when
    // an earlier one is registered; for the benchmark.
    void registerMany(size_t first, size_t count, size_t window);
    size_t registeredCount() const { return registered_.load(); }

    // Reads UE i under the lock.
    template <class F>
    auto with(size_t i, F&& f) {
        std::lock_guard g(mu_);
        return f(ue(i));
    }
    // Waits until pred(UE i) holds; false at the deadline.
    bool waitUe(size_t i, const std::function<bool(const Ue&)>& pred, double seconds);
    std::vector<Bytes> received();
    size_t count(const std::string& name);

private:
    Ue& ue(size_t i);
    Ue* ueByRan(uint64_t ran);
    Bytes suciOf(const Ue& u) const;
    void startRegistration(Ue& u);
    void sendUplink(Ue& u, const uint8_t* nas, size_t n, bool initial, bool contextRequest = false);
    void sendMm(Ue& u, const uint8_t* plain, size_t n, bool initial = false);
    void protectInto(Ue& u, const uint8_t* plain, size_t n, uint8_t sht, Bytes& out);
    void downlinkNas(Ue& u, std::span<const uint8_t> pdu);
    void handleMm(Ue& u, uint8_t type, void* rec, std::span<const uint8_t> plain);
    void handleSm(Ue& u, std::span<const uint8_t> sm);
    void authenticationRequest(Ue& u, void* rec);
    void securityModeCommand(Ue& u, void* rec);
    void smRequest(Ue& u, uint8_t psi, const uint8_t* sm, size_t n, uint8_t requestType, const std::string& dnn);
    // The gNB's part of one session: the UPF's tunnel taken, its own tunnel as the
    // response transfer.
    Bytes takeSession(Ue& u, uint8_t psi, std::span<const uint8_t> requestTransfer);
    void contextSetupRequest(Ue& u, void* rec);
    void sessionSetupRequest(Ue& u, void* rec);
    void sessionReleaseCommand(Ue& u, void* rec);
    void releaseCommand(void* rec);
    void sendPdu(uint16_t stream, const void* ctx);
    Bytes setupRequest();
    void note(Ue& u, const std::string& e);
    void registeredNow(Ue& u);

    Config c_;
    uint8_t k_[16] = {}, opc_[16] = {}, plmn_[3] = {};
    uint64_t firstImsi_ = 0;
    std::mutex mu_;
    std::map<size_t, Ue> ues_;
    std::unordered_map<uint64_t, size_t> byRan_;
    uint64_t nextRan_ = 1;
    bool setup_ = false, setupFailed_ = false;
    std::vector<Bytes> received_;
    std::map<std::string, size_t> counts_;
    // registerMany
    size_t manyNext_ = 0, manyEnd_ = 0;
    std::atomic<size_t> registered_{0};
    Bytes setupPdu_;
    size_t setupsLeft_ = 0;
    std::atomic<size_t> setups_{0};
};

}  // namespace cad
