// A scripted AMF for the gNB's tests and benchmark: an NGAP peer on an SCTP server socket
// of the socket engine, in the engine's own process. It answers NG Setup as it is told,
// records every message a gNB sends (bytes, stream, PPID) and sends whatever a test asks
// for: AMF procedures from the codec's JSON form, or raw bytes. Its own receive handler
// decodes with the codec directly, so it never meets the engine's NGAP handler.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "mv_socket_engine.h"

namespace kgt {

struct AmfReceived {
    MV_Socket* assoc = nullptr;
    uint8_t code = 0, form = 0;
    uint16_t stream = 0;
    uint32_t ppid = 0;
    std::vector<uint8_t> bytes;
};

enum class SetupAnswer {
    Response,                 // NGSetupResponse with every mandatory IE
    ResponseRetainingUEs,     // the same with UERetentionInformation
    ResponseWithoutCapacity,  // relativeAMFCapacity left out
    Failure,                  // NGSetupFailure, misc / unspecified
    Silent,                   // no answer
};

class ScriptedAmf {
public:
    ScriptedAmf(std::string ip, int port, std::string name);
    ScriptedAmf(const ScriptedAmf&) = delete;
    ScriptedAmf& operator=(const ScriptedAmf&) = delete;

    // Listens; true when the listener stands.
    bool start();
    void setSetupAnswer(SetupAnswer a) { answer_ = a; }
    // Keeps only counts of the messages received, not their bytes (for long runs).
    void keepBytes(bool keep) { keepBytes_ = keep; }

    std::vector<AmfReceived> received() const;
    // Messages of that procedure code and form received so far.
    size_t count(uint8_t code, uint8_t form) const;
    size_t receivedTotal() const { return total_; }
    size_t setupsAnswered() const { return answered_; }
    // The association whose last NG Setup named that RAN node, or null; only open ones.
    MV_Socket* association(const std::string& ranName) const;
    size_t openAssociations() const;
    // The peer address of an association ("ip-132-port").
    std::string peerOf(MV_Socket* assoc) const;

    // A PDU in the codec's JSON form, encoded and sent; the bytes sent or a value below 1.
    int sendJson(MV_Socket* assoc, const std::string& json, uint16_t stream = 0);
    // Any bytes, good or bad; not kept in sent().
    int sendBytes(MV_Socket* assoc, const std::vector<uint8_t>& bytes, uint16_t stream = 0);
    // Every PDU the AMF has sent from its JSON form, for the independent decoder.
    std::vector<std::vector<uint8_t>> sent() const;
    // Closes the association from this side.
    void drop(MV_Socket* assoc);

    const std::string& name() const { return name_; }
    int port() const { return port_; }

    // Encodes a JSON-form PDU; empty on failure.
    static std::vector<uint8_t> encode(const std::string& json);
    // JSON forms of the AMF's procedures.
    static std::string ngReset();
    static std::string amfConfigurationUpdate(const std::string& newName);
    static std::string errorIndication(uint64_t ranUeNgapId, const std::string& causeJson);
    static std::string overloadStart();
    static std::string overloadStop();
    static std::string amfStatusIndication();
    static std::string downlinkNasTransport(uint64_t amfUeNgapId, uint64_t ranUeNgapId);

private:
    struct Assoc {
        std::string ranName;
        bool open = false;
    };
    static void onAccept(MV_Socket* child, MV_Socket* parent);
    static void onBuffer(MV_SocketSCTPBuffer* b);
    static void onClose(MV_Socket* s);
    void handle(MV_Socket* s, const uint8_t* bytes, int len, uint16_t stream, uint32_t ppid);
    std::string setupAnswer(const std::vector<uint8_t>& request, std::string* ranName) const;

    std::string ip_, name_;
    int port_;
    std::atomic<SetupAnswer> answer_{SetupAnswer::Response};
    std::atomic<bool> keepBytes_{true};
    mutable std::mutex lock_;
    std::vector<AmfReceived> received_;
    std::map<std::pair<uint8_t, uint8_t>, size_t> counts_;
    std::map<MV_Socket*, Assoc> assocs_;
    std::vector<std::vector<uint8_t>> sent_;
    std::atomic<size_t> total_{0}, answered_{0};
};

}  // namespace kgt
