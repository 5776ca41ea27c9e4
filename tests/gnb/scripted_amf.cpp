#include "scripted_amf.h"

#include <cstdio>
#include <cstring>

#include "mv_amf_asn.h"
#include "mv_ngap.h"

namespace kgt {

namespace {

const MvAsnPdu* pduOf(uint8_t code, uint8_t form) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i)
        if (mv_asn_amf::kPdus[i].procedureCode == code && mv_asn_amf::kPdus[i].form == form) return &mv_asn_amf::kPdus[i];
    return nullptr;
}

const char* kGuami =
    R"({"pLMNIdentity": "00f110", "aMFRegionID": {"bits": "ca", "bitslen": 8}, "aMFSetID": {"bits": "ffc0", "bitslen": 10},
        "aMFPointer": {"bits": "fc", "bitslen": 6}})";

}  // namespace

ScriptedAmf::ScriptedAmf(std::string ip, int port, std::string name)
    : ip_(std::move(ip)), name_(std::move(name)), port_(port) {}

bool ScriptedAmf::start() {
    MV_SctpSocketInfo s{};
    s.ipVersion = 4;
    s.ipCount = 1;
    snprintf(s.IP[0], sizeof s.IP[0], "%s", ip_.c_str());
    s.Port = port_;
    s.PPID = MV_NGAP_PPID;
    s.UseEPoll = 1;
    s.MaxOStreams = s.MaxIStreams = 16;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&s);
    if (!srv) return false;
    srv->parentData1 = this;
    srv->OnAccept = onAccept;
    srv->OnBufferReceive = onBuffer;
    srv->OnClose = onClose;
    return __mv_socket_engine_start_server_socket(srv) == 1;
}

void ScriptedAmf::onAccept(MV_Socket* child, MV_Socket* parent) {
    auto* amf = static_cast<ScriptedAmf*>(parent->parentData1);
    child->parentData1 = amf;
    child->OnBufferReceive = onBuffer;
    child->OnClose = onClose;
    std::lock_guard g(amf->lock_);
    amf->assocs_[child] = Assoc{"", true};
}

void ScriptedAmf::onClose(MV_Socket* s) {
    auto* amf = static_cast<ScriptedAmf*>(s->parentData1);
    if (!amf) return;
    std::lock_guard g(amf->lock_);
    amf->assocs_[s].open = false;
}

void ScriptedAmf::onBuffer(MV_SocketSCTPBuffer* b) {
    MV_Socket* s = b->siSocket;
    auto* amf = s ? static_cast<ScriptedAmf*>(s->parentData1) : nullptr;
    if (amf && b->len > b->pos) amf->handle(s, b->buff + b->pos, b->len - b->pos, b->streamId, b->ppid);
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

void ScriptedAmf::handle(MV_Socket* s, const uint8_t* bytes, int len, uint16_t stream, uint32_t ppid) {
    AmfReceived r;
    r.assoc = s;
    r.code = len > 1 ? bytes[1] : 0xFF;
    r.form = uint8_t(bytes[0] >> 5);
    r.stream = stream;
    r.ppid = ppid;
    r.bytes.assign(bytes, bytes + len);
    std::string answer, ranName;
    if (r.code == 21 && r.form == 0) answer = setupAnswer(r.bytes, &ranName);
    {
        std::lock_guard g(lock_);
        ++counts_[{r.code, r.form}];
        if (r.code == 21 && r.form == 0) {
            Assoc& a = assocs_[s];
            a.ranName = ranName;
            a.open = true;
        }
        if (keepBytes_) received_.push_back(std::move(r));
    }
    ++total_;
    if (!answer.empty() && sendJson(s, answer) > 0) ++answered_;
}

std::string ScriptedAmf::setupAnswer(const std::vector<uint8_t>& request, std::string* ranName) const {
    const MvAsnPdu* p = pduOf(21, 0);
    __mv_asn_coding_context ctx;
    void* rec = __mv_asn_new_record(p->type);
    if (__mv_asn_init_decode(&ctx, request.data(), request.size()) == 1 && __mv_asn_decode_pdu(p, rec, &ctx) == 1) {
        auto* m = static_cast<MV_AMF_DT_NGSetupRequest*>(rec);
        if (m->rANNodeName_isset == 1 && m->rANNodeName)
            ranName->assign(reinterpret_cast<const char*>(m->rANNodeName->data), m->rANNodeName->length);
    }
    __mv_asn_memfree_pdu(p, rec);
    SetupAnswer a = answer_;
    if (a == SetupAnswer::Silent) return "";
    if (a == SetupAnswer::Failure) return R"({"pdu": "NGSetupFailure", "ies": {"id-Cause": {"misc": "unspecified"}}})";
    std::string ies = R"("id-AMFName": ")" + name_ + R"(", "id-ServedGUAMIList": [{"gUAMI": )" + kGuami + "}]";
    if (a != SetupAnswer::ResponseWithoutCapacity) ies += R"(, "id-RelativeAMFCapacity": 200)";
    ies += R"(, "id-PLMNSupportList": [{"pLMNIdentity": "00f110", "sliceSupportList": [{"s-NSSAI": {"sST": "01"}}]}])";
    if (a == SetupAnswer::ResponseRetainingUEs) ies += R"(, "id-UERetentionInformation": "ues-retained")";
    return R"({"pdu": "NGSetupResponse", "ies": {)" + ies + "}}";
}

std::vector<AmfReceived> ScriptedAmf::received() const {
    std::lock_guard g(lock_);
    return received_;
}

size_t ScriptedAmf::count(uint8_t code, uint8_t form) const {
    std::lock_guard g(lock_);
    auto it = counts_.find({code, form});
    return it == counts_.end() ? 0 : it->second;
}

MV_Socket* ScriptedAmf::association(const std::string& ranName) const {
    std::lock_guard g(lock_);
    for (const auto& [s, a] : assocs_)
        if (a.open && a.ranName == ranName) return s;
    return nullptr;
}

size_t ScriptedAmf::openAssociations() const {
    std::lock_guard g(lock_);
    size_t n = 0;
    for (const auto& [s, a] : assocs_) n += a.open;
    return n;
}

std::string ScriptedAmf::peerOf(MV_Socket* assoc) const { return assoc ? assoc->ClientConnectionId : ""; }

std::vector<uint8_t> ScriptedAmf::encode(const std::string& json) {
    void* rec = nullptr;
    std::string err;
    const MvAsnPdu* p = __mv_asn_pdu_from_json(mv_asn_amf::kPdus, mv_asn_amf::kPduCount, json.c_str(), &rec, &err);
    if (!p) {
        fprintf(stderr, "scripted AMF: %s in %s\n", err.c_str(), json.c_str());
        return {};
    }
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    std::vector<uint8_t> out;
    if (__mv_asn_encode_pdu(p, rec, &ctx) > 0) out.assign(ctx.buffer, ctx.buffer + ctx.pos);
    __mv_asn_memfree_pdu(p, rec);
    return out;
}

int ScriptedAmf::sendJson(MV_Socket* assoc, const std::string& json, uint16_t stream) {
    std::vector<uint8_t> b = encode(json);
    int n = b.empty() ? -1 : sendBytes(assoc, b, stream);
    if (n > 0 && keepBytes_) {
        std::lock_guard g(lock_);
        sent_.push_back(std::move(b));
    }
    return n;
}

int ScriptedAmf::sendBytes(MV_Socket* assoc, const std::vector<uint8_t>& bytes, uint16_t stream) {
    if (!assoc || bytes.empty()) return -1;
    return __mv_socket_engine_sctp_send2(assoc, bytes.data(), int(bytes.size()), stream, MV_NGAP_PPID);
}

std::vector<std::vector<uint8_t>> ScriptedAmf::sent() const {
    std::lock_guard g(lock_);
    return sent_;
}

void ScriptedAmf::drop(MV_Socket* assoc) {
    if (assoc) __mv_socket_engine_sctp__close_client_connection(assoc);
}

std::string ScriptedAmf::ngReset() {
    return R"({"pdu": "NGReset", "ies": {"id-Cause": {"misc": "om-intervention"}, "id-ResetType": {"nG-Interface": "reset-all"}}})";
}

std::string ScriptedAmf::amfConfigurationUpdate(const std::string& newName) {
    return R"({"pdu": "AMFConfigurationUpdate", "ies": {"id-AMFName": ")" + newName + R"("}})";
}

std::string ScriptedAmf::errorIndication(uint64_t ranUeNgapId, const std::string& causeJson) {
    return R"({"pdu": "ErrorIndication", "ies": {"id-RAN-UE-NGAP-ID": )" + std::to_string(ranUeNgapId) +
           R"(, "id-Cause": )" + causeJson + "}}";
}

std::string ScriptedAmf::overloadStart() { return R"({"pdu": "OverloadStart", "ies": {}})"; }
std::string ScriptedAmf::overloadStop() { return R"({"pdu": "OverloadStop", "ies": {}})"; }

std::string ScriptedAmf::amfStatusIndication() {
    return R"({"pdu": "AMFStatusIndication", "ies": {"id-UnavailableGUAMIList": [{"gUAMI": )" + std::string(kGuami) +
           "}]}}";
}

std::string ScriptedAmf::downlinkNasTransport(uint64_t amfUeNgapId, uint64_t ranUeNgapId) {
    return R"({"pdu": "DownlinkNASTransport", "ies": {"id-AMF-UE-NGAP-ID": )" + std::to_string(amfUeNgapId) +
           R"(, "id-RAN-UE-NGAP-ID": )" + std::to_string(ranUeNgapId) + R"(, "id-NAS-PDU": "7e004403"}})";
}

}  // namespace kgt
