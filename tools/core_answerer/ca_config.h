// What the answerer is told on its command line, and the subscribers it serves.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ca_nas.h"

namespace ca {

struct HomeNetworkKey {
    uint8_t id = 0;
    uint8_t scheme = 0;  // 1 profile A, 2 profile B
    Bytes priv;
};

struct Options {
    // transport
    std::vector<std::string> bind{"127.0.0.1"};
    int port = 38412;
    int sctpUdpPort = 0;  // 0: SCTP straight on IP
    int sctpUdpRemotePort = 0;
    int controlPort = 0;  // UDP control channel on the first bind address; 0 none
    bool stdinControl = true;
    bool sctpBundle = false;  // let the stack bundle small messages (no SCTP_NODELAY)

    // identity of the AMF
    std::string name = "core-answerer";
    std::string mcc, mnc;  // empty: the first subscriber range's
    uint8_t region = 0x01;
    uint16_t set = 0x001;
    uint8_t pointer = 0x01;
    uint8_t capacity = 255;
    std::vector<SNssai> slices;  // empty: SST 1 and SST 1 with SD 010203

    // subscribers and authentication
    std::string subscribers;  // uel.json form or a UE file of the engine
    uint64_t sqn = 0;
    int maxAuthAttempts = 5;
    std::vector<HomeNetworkKey> hnKeys;

    // procedures
    std::vector<uint8_t> nia{2}, nea{2};  // preference order
    uint8_t nasBearer = 1;                // the BEARER input of NAS security for 3GPP access
    std::string identityRequest;          // "", "suci", "imei", "imeisv"
    bool imeisvInSmc = false;
    enum class AcceptIn { Auto, Ics, Dl } acceptIn = AcceptIn::Auto;
    uint8_t t3512 = 0x21;  // one hour
    std::string dnn = "internet";
    std::string uePool = "10.45.0.0/16";
    std::string upfAddress;  // empty: the first bind address
    uint8_t fiveQi = 9;
    uint16_t sessionAmbrMbps = 1000;
    uint64_t ueAmbrBps = 2000000000ull;

    // network timers of NAS procedures, in ms; 0 does not retransmit
    uint32_t t3550 = 6000, t3560 = 6000, t3570 = 6000, t3522 = 6000;
    int retransmissions = 4;

    // misbehaviour, in the control channel's syntax
    std::vector<std::string> knobs;

    // logging
    std::string logDir = "./logs/";
    int logLevel = 4;
};

// Parses argv into o; false with a reason in err (also for --help, with the usage).
bool parseOptions(int argc, char** argv, Options& o, std::string& err);
const char* usageText();

// ---------------------------------------------------------------- subscribers

struct SubscriberRange {
    uint64_t first = 0, last = 0;  // IMSIs as numbers
    int digits = 15;               // length of the IMSI text
    uint8_t k[16] = {}, opc[16] = {};
    std::string mcc, mnc;
    uint64_t sqn = 0;
    uint32_t base = 0;  // index of the first subscriber of the range
};

// Per subscriber, kept across registrations.
struct UeContext;
struct SubscriberState {
    uint64_t sqn = 0;  // the last SQN sent in a vector
    uint8_t tmsiGen = 0;
    UeContext* ue = nullptr;
};

class Subscribers {
public:
    // Reads the uel.json form (an array of ranges) or a UE file of the engine's first
    // format (an object with SupiRange); false with the reason in err.
    bool load(const std::string& path, uint64_t sqn, std::string& err);
    // Index of the subscriber with these IMSI digits, or -1.
    int64_t find(std::string_view imsi) const;
    size_t count() const { return states_.size(); }
    const SubscriberRange& range(uint32_t index) const;
    std::string imsi(uint32_t index) const;
    SubscriberState& state(uint32_t index) { return states_[index]; }
    const std::vector<SubscriberRange>& ranges() const { return ranges_; }

private:
    std::vector<SubscriberRange> ranges_;
    std::vector<SubscriberState> states_;
};

// 32 hexadecimal digits into 16 octets (or any even count into n octets).
bool fromHex(std::string_view s, uint8_t* out, size_t n);
Bytes fromHex(std::string_view s);

}  // namespace ca
