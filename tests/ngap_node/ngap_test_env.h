// What the NGAP node layer's tests share: a started socket engine logging into a scratch
// directory, a recorder behind the application handler, sample PDUs, pooled buffers.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "asn_testlib.h"
#include "ks_test_util.h"
#include "mv_ngap_internal.h"

namespace kng {

inline std::string& root() {
    static std::string r;
    return r;
}

class NgapEnv : public ::testing::Environment {
public:
    explicit NgapEnv(bool sockets = true) : sockets_(sockets) {}
    void SetUp() override {
        root() = kst::makeTempDir("ngap");
        __init_morva_core();
        __mv_init_logger((root() + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
        __mv_set_log_level(MV_CMN_LOG, MV_LOG_DEBUG);
        if (sockets_) __mv_socket_engine_init();
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", root().c_str());
        else kst::removeTree(root());
    }

private:
    bool sockets_;
};

inline std::string stackLog() { return kst::readLogDir(root() + "/logs//stk"); }
inline std::string commonLog() { return kst::readLogDir(root() + "/logs//cmn"); }
inline size_t stackLines(const std::string& text) { return kst::countOccurrences(stackLog(), text); }

inline std::string threadName() {
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// The codec's view of a record: the PDU's name, form, code and every IE set.
inline std::string pduJson(const MvAsnPdu* p, const void* rec) {
    std::string out;
    __mv_asn_json_pdu(p, rec, out);
    return out;
}

// One call of the application handler, as it arrived.
struct Delivery {
    uint8_t code = 0, form = 0, messageId = 0, decodingError = 0;
    uint16_t ieCount = 0;
    std::string json, thread;
    MV_NGAPNode* node = nullptr;
    void* transport = nullptr;
};

struct Recorder {
    std::mutex m;
    std::vector<Delivery> got;
    std::atomic<int> count{0};

    size_t size() {
        std::lock_guard g(m);
        return got.size();
    }
    Delivery last() {
        std::lock_guard g(m);
        return got.empty() ? Delivery{} : got.back();
    }
    std::vector<Delivery> all() {
        std::lock_guard g(m);
        return got;
    }
    void clear() {
        std::lock_guard g(m);
        got.clear();
        count = 0;
    }
};

inline Recorder& recorder() {
    static Recorder r;
    return r;
}

// The application handler of the tests: records the message and frees it, as the
// application must.
inline void recordingHandler(uint8_t code, uint8_t form, void* msg, MV_NGAPNode* node) {
    Delivery d;
    d.code = code;
    d.form = form;
    d.node = node;
    d.thread = threadName();
    const MvAsnPdu* p = __mv_ngap___form_pdu(code, form);
    auto* head = static_cast<__mv_asn_pdu_head*>(msg);
    d.messageId = head->messageId;
    d.transport = head->transportObject;
    d.ieCount = head->iECount;
    d.decodingError = head->decodingError;
    if (p) {
        d.json = pduJson(p, msg);
        __mv_asn_memfree_pdu(p, msg);
    }
    Recorder& r = recorder();
    {
        std::lock_guard g(r.m);
        r.got.push_back(std::move(d));
    }
    ++r.count;
}

// The codec's PDU by name.
inline const MvAsnPdu* pduNamed(const std::string& name) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; i++)
        if (name == mv_asn_amf::kPdus[i].name) return &mv_asn_amf::kPdus[i];
    return nullptr;
}

// A record with random in-range values; octets of other protocols stay out of optional IEs.
inline void* samplePdu(const MvAsnPdu* p, uint32_t seed, int shape = 0) {
    AsnFiller fill(seed);
    fill.allOptional = shape == 1;
    fill.minimal = shape == 2;
    fill.skipOptional = {"EN-DCSONConfigurationTransfer", "NAS-PDU", "NASSecurityParameterstoE-UTRAN",
                         "NASSecurityParametersfromE-UTRAN"};
    return fill.pdu(p);
}

// A pooled SCTP buffer holding bytes as the reader would hand it over.
inline MV_SocketSCTPBuffer* bufferWith(const std::vector<uint8_t>& bytes, MV_Socket* socket) {
    MV_SocketSCTPBuffer* b = __mv_socket_engine_get_sctp_socket_buffer();
    size_t n = bytes.size() < sizeof b->buff ? bytes.size() : sizeof b->buff;
    if (n) memcpy(b->buff, bytes.data(), n);
    b->pos = 0;
    b->len = int(n);
    b->siSocket = socket;
    b->streamId = 1;
    b->ppid = MV_NGAP_PPID;
    return b;
}

inline int buffersInUse() {
    MV_SocketPoolCounts c = __mv_socket_engine_sctp_pool_counts();
    return c.Total - c.Available;
}

// The send operation of every PDU by its name, through the generated family.
struct NamedSend {
    const char* name;
    int (*send)(void* record, MV_NGAPNode* node);
};
#define KNG_SEND_ENTRY(N) \
    {#N, [](void* r, MV_NGAPNode* n) { return __mv_ngap_send_##N(static_cast<__mv_amf_dt_##N*>(r), n); }},
inline const std::vector<NamedSend>& sendTable() {
    static const std::vector<NamedSend> t = {MV_NGAP_PDU_LIST(KNG_SEND_ENTRY)};
    return t;
}
#undef KNG_SEND_ENTRY

inline const NamedSend* sendNamed(const std::string& name) {
    for (const NamedSend& s : sendTable())
        if (name == s.name) return &s;
    return nullptr;
}

}  // namespace kng
