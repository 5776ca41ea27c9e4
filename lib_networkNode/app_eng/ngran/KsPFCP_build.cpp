// The session requests and the report answer as records: a UE's session and the
// connection's addresses in, a filled message out. No I/O and no state change here.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "KsPFCP.h"
#include "pfcp_codec.h"
#include "pfcp_node.h"

namespace {

// The network instance in the label form of a name, which a UPF matches against its DNNs.
constexpr uint8_t kInternet[] = {8, 'i', 'n', 't', 'e', 'r', 'n', 'e', 't'};
constexpr uint64_t kDefaultMbr = 10240;

uint32_t ipv4Of(const char* text) {
    in_addr a{};
    return text && inet_pton(AF_INET, text, &a) == 1 ? ntohl(a.s_addr) : 0;
}

// The UPF's GTP-U address: the server's second address, else its PFCP one.
uint32_t upfGtpIpv4(const KsTEConnection* conn) {
    const KsTEServer* s = conn ? conn->ksServer : nullptr;
    if (!s) return 0;
    uint32_t ip = ipv4Of(s->IP_2);
    return ip ? ip : ipv4Of(s->IP_1);
}

// The engine's GTP-U address: the client's second address, else its PFCP one.
uint32_t localGtpIpv4(const KsTEConnection* conn) {
    const KsTEClient* c = conn ? conn->ksClient : nullptr;
    if (!c) return __mv_pfcp__getIPv4_addr();
    uint32_t ip = ipv4Of(c->IP_2);
    return ip ? ip : ipv4Of(c->IP_1);
}

void setOctets(tlv_octet_t& o, const uint8_t* data, uint32_t len) {
    if (!data) return;
    o.presence = 1;
    o.data = data;
    o.len = len;
}

template <class F>
void format(tlv_octet_t& o, KsPFCPScratch& scratch, size_t size, F fill) {
    uint8_t* p = scratch.take(size);
    if (!p) return;
    setOctets(o, p, uint32_t(fill(p)));
}

// '1' IPv6, '2' IPv4v6, anything else IPv4; as PDN Type values 2, 3, 1.
uint8_t pdnType() {
    const char* v = KsPFCP_GetPFCPSettingValue(5);
    if (v && v[0] == '1') return 2;
    if (v && v[0] == '2') return 3;
    return 1;
}

uint64_t settingU64(uint32_t key, uint64_t dflt) {
    const char* v = KsPFCP_GetPFCPSettingValue(key);
    return v && *v ? strtoull(v, nullptr, 10) : dflt;
}

// The UE's address(es) by PDN type, as the destination of downlink traffic.
void ueIpAddress(tlv_octet_t& o, const pfcp_cp_sess_t* s, uint8_t pdn, KsPFCPScratch& scratch) {
    format(o, scratch, 21, [&](uint8_t* p) {
        uint32_t v4 = s->ipv4 ? s->ipv4->ipv4 : 0;
        const uint8_t* v6 = s->ipv6 ? s->ipv6->ip6 : nullptr;
        if (pdn == 2 && v6) {
            p[0] = 0x05;
            memcpy(p + 1, v6, 16);
            return 17;
        }
        if (pdn == 3 && v6) {
            p[0] = 0x07;
            p[1] = uint8_t(v4 >> 24), p[2] = uint8_t(v4 >> 16), p[3] = uint8_t(v4 >> 8), p[4] = uint8_t(v4);
            memcpy(p + 5, v6, 16);
            return 21;
        }
        return pfcp_ue_ip_address_ipv4(p, 0x06, v4);
    });
}

void cpFSeid(tlv_octet_t& o, const pfcp_cp_sess_t* s, KsPFCPScratch& scratch) {
    format(o, scratch, 13, [&](uint8_t* p) { return pfcp_f_seid_ipv4(p, s->cp_seid, __mv_pfcp__getIPv4_addr()); });
}

void volumeQuota(tlv_octet_t& o, uint32_t settingKey, KsPFCPScratch& scratch) {
    uint64_t total = settingU64(settingKey, 4096);
    format(o, scratch, 9, [&](uint8_t* p) { return pfcp_volume_quota_total(p, total); });
}

void outerHeaderCreation(tlv_octet_t& o, const pfcp_cp_sess_t* s, const KsTEConnection* conn, KsPFCPScratch& scratch) {
    uint32_t teid = s->teid + KsPFCP__max_ran_ue_ids();
    uint32_t ip = localGtpIpv4(conn);
    format(o, scratch, 10, [&](uint8_t* p) { return pfcp_outer_header_creation_gtpu_ipv4(p, teid, ip); });
}

}  // namespace

void KsPFCP__build_establishment(pfcp_message_t* m, const pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                 KsPFCPScratch& scratch) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = 0;
    auto& r = m->pfcp_session_establishment_request;
    format(r.node_id, scratch, 5, [](uint8_t* p) { return pfcp_node_id_ipv4(p, __mv_pfcp__getIPv4_addr()); });
    cpFSeid(r.cp_f_seid, s, scratch);
    uint8_t pdn = pdnType();

    // Downlink: from the core, to the UE's address.
    auto& core = r.create_pdr[0];
    core.presence = 1;
    core.pdr_id = {1, 1};
    core.precedence = {1, 255};
    core.pdi.presence = 1;
    core.pdi.source_interface = {1, PFCP_INTERFACE_CORE};
    setOctets(core.pdi.network_instance, kInternet, sizeof kInternet);
    ueIpAddress(core.pdi.ue_ip_address, s, pdn, scratch);
    core.far_id = {1, 1};
    core.qer_id = {1, 1};

    // Uplink: from the access side on the UPF's tunnel, its header removed.
    auto& access = r.create_pdr[1];
    access.presence = 1;
    access.pdr_id = {1, 2};
    access.precedence = {1, 255};
    access.pdi.presence = 1;
    access.pdi.source_interface = {1, PFCP_INTERFACE_ACCESS};
    uint32_t upfTeid = s->teid + KsPFCP__max_ran_ue_ids();
    uint32_t upfIp = upfGtpIpv4(conn);
    format(access.pdi.local_f_teid, scratch, 9, [&](uint8_t* p) { return pfcp_f_teid_ipv4(p, upfTeid, upfIp); });
    setOctets(access.pdi.network_instance, kInternet, sizeof kInternet);
    access.pdi.qfi = {1, 1};
    static constexpr uint8_t kRemoveGtpu[] = {PFCP_OUTER_HEADER_REMOVAL_GTPU_UDP_IPV4};
    setOctets(access.outer_header_removal, kRemoveGtpu, 1);
    access.far_id = {1, 2};
    access.qer_id = {1, 1};

    auto& dl = r.create_far[0];
    dl.presence = 1;
    dl.far_id = {1, 1};
    dl.apply_action = {1, PFCP_APPLY_ACTION_FORW};
    dl.forwarding_parameters.presence = 1;
    dl.forwarding_parameters.destination_interface = {1, PFCP_INTERFACE_ACCESS};
    auto& ul = r.create_far[1];
    ul.presence = 1;
    ul.far_id = {1, 2};
    ul.apply_action = {1, PFCP_APPLY_ACTION_FORW};
    ul.forwarding_parameters.presence = 1;
    ul.forwarding_parameters.destination_interface = {1, PFCP_INTERFACE_CORE};

    auto& urr = r.create_urr[0];
    urr.presence = 1;
    urr.urr_id = {1, 1};
    urr.measurement_method = {1, PFCP_MEASUREMENT_METHOD_VOLUM};
    // Reporting Triggers is mandatory in a Create URR: a report when the volume quota is used up.
    static constexpr uint8_t kVolumeQuotaTrigger[] = {0x00, 0x01};
    setOctets(urr.reporting_triggers, kVolumeQuotaTrigger, sizeof kVolumeQuotaTrigger);
    volumeQuota(urr.volume_quota, 10, scratch);

    auto& qer = r.create_qer[0];
    qer.presence = 1;
    qer.qer_id = {1, 1};
    qer.gate_status = {1, PFCP_GATE_OPEN};
    format(qer.mbr, scratch, PFCP_BITRATE_LEN, [](uint8_t* p) { return pfcp_bitrate(p, kDefaultMbr, kDefaultMbr); });
    const char* qfi = KsPFCP_GetPFCPSettingValue(34);
    qer.qfi = {1, uint8_t(qfi && *qfi ? atoi(qfi) + 1 : 1)};

    r.pdn_type = {1, pdn};
}

void KsPFCP__build_modification_default(pfcp_message_t* m, const pfcp_cp_sess_t* s, uint32_t urrid,
                                        KsPFCPScratch& scratch) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_MODIFICATION_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = s->upf_seid;
    auto& r = m->pfcp_session_modification_request;
    cpFSeid(r.cp_f_seid, s, scratch);
    auto& u = r.update_urr[0];
    u.presence = 1;
    u.urr_id = {1, urrid ? urrid : 1};
    u.measurement_method = {1, PFCP_MEASUREMENT_METHOD_VOLUM};
    volumeQuota(u.volume_quota, 11, scratch);
}

void KsPFCP__build_modification_raninfo(pfcp_message_t* m, const pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                        KsPFCPScratch& scratch) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_MODIFICATION_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = s->upf_seid;
    auto& r = m->pfcp_session_modification_request;
    cpFSeid(r.cp_f_seid, s, scratch);
    // Downlink now goes into the RAN's tunnel.
    auto& f = r.update_far[0];
    f.presence = 1;
    f.far_id = {1, 1};
    f.update_forwarding_parameters.presence = 1;
    outerHeaderCreation(f.update_forwarding_parameters.outer_header_creation, s, conn, scratch);
}

void KsPFCP__build_deletion(pfcp_message_t* m, const pfcp_cp_sess_t* s) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_DELETION_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = s->upf_seid;
}

void KsPFCP__build_report_response(pfcp_message_t* m, uint64_t upfSeid, uint8_t cause) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_REPORT_RESPONSE_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = upfSeid;
    m->pfcp_session_report_response.cause = {1, cause};
}
