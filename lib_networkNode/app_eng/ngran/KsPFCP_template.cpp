// Session requests whose rules come from a message template: each top-level element of the
// template is one grouped IE (its id the IE type), its children the IEs inside. Values the
// session owns (tunnel ids, addresses, SEIDs) come from the session, whatever the template says.
// Builders only: a filled message out, no I/O.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KsPFCP.h"
#include "KsTemplateEng.h"
#include "pfcp_codec.h"
#include "pfcp_node.h"

namespace {

struct Ctx {
    pfcp_cp_sess_t* s;
    const KsTEConnection* conn;
    KsPFCPScratch& scratch;
    bool establishment;
    uint8_t pdnType = 0;  // set by a UE IP Address element, so that PDN Type follows it
};

using El = const MV_Element*;

bool isInt(El e) { return KsTemplateEng__GetValueType(e) == KsTMT__VALUE_TYPE__INT; }
int64_t intOf(El e) { return KsTemplateEng__GetIntValue(e); }

template <class T, class V>
void setNum(T& field, V v) {
    field.presence = 1;
    if constexpr (requires { field.u8; }) field.u8 = uint8_t(v);
    else if constexpr (requires { field.u16; }) field.u16 = uint16_t(v);
    else field.u32 = uint32_t(v);
}

void setOctets(tlv_octet_t& o, const uint8_t* p, size_t n) {
    if (!p) return;
    o.presence = 1;
    o.data = p;
    o.len = uint32_t(n);
}

uint32_t ipv4Of(const char* text) {
    in_addr a{};
    return text && inet_pton(AF_INET, text, &a) == 1 ? ntohl(a.s_addr) : 0;
}

void putBE(uint8_t* p, uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i, v >>= 8) p[i] = uint8_t(v);
}

uint64_t jsonU64(json_t* o, const char* key, bool* present) {
    json_t* v = json_object_get(o, key);
    *present = v && json_is_integer(v);
    return *present ? uint64_t(json_integer_value(v)) : 0;
}

// Volume Quota and Volume Threshold: flags for the volumes present, then each in 8 octets.
void volume(tlv_octet_t& o, El e, Ctx& c) {
    json_t* j = KsTemplateEng__GetJsonValue(e);
    if (!json_is_object(j)) return;
    uint8_t* p = c.scratch.take(25);
    if (!p) return;
    static constexpr const char* kKeys[] = {"TotalVolume", "UplinkVolume", "DownlinkVolume"};
    size_t n = 1;
    p[0] = 0;
    for (int i = 0; i < 3; ++i) {
        bool has = false;
        uint64_t v = jsonU64(j, kKeys[i], &has);
        if (!has) continue;
        p[0] |= uint8_t(1u << i);
        putBE(p + n, v, 8);
        n += 8;
    }
    setOctets(o, p, n);
}

void string(tlv_octet_t& o, El e, Ctx& c) {
    const char* v = KsTemplateEng__GetStrValue(e);
    if (!v) return;
    size_t n = strnlen(v, 255);
    uint8_t* p = c.scratch.take(n);
    if (!p) return;
    memcpy(p, v, n);
    setOctets(o, p, n);
}

// Outer header creation towards our GTP-U side; only GTP-U over IPv4 (256) is built.
void outerHeaderCreation(tlv_octet_t& o, El e, Ctx& c) {
    if (intOf(e) != 256) {
        printf("PFCP unhandled value=%d outer_header_creation %s|%s|%d\n", int(intOf(e)), __FILE_NAME__, __func__,
               __LINE__);
        return;
    }
    const KsTEClient* cl = c.conn ? c.conn->ksClient : nullptr;
    uint32_t ip = cl ? ipv4Of(cl->IP_2) : 0;
    uint8_t* p = c.scratch.take(10);
    if (p) setOctets(o, p, size_t(pfcp_outer_header_creation_gtpu_ipv4(p, c.s->teid + KsPFCP__max_ran_ue_ids(), ip)));
}

uint8_t pdnSetting() {
    const char* v = KsPFCP_GetPFCPSettingValue(5);
    return v && v[0] == '1' ? 2 : v && v[0] == '2' ? 3 : 1;
}

void ueIpAddress(tlv_octet_t& o, Ctx& c) {
    uint8_t pdn = pdnSetting();
    uint8_t* p = c.scratch.take(21);
    if (!p) return;
    uint32_t v4 = c.s->ipv4 ? c.s->ipv4->ipv4 : 0;
    size_t n;
    if (pdn == 2 && c.s->ipv6) {
        p[0] = 0x05;
        memcpy(p + 1, c.s->ipv6->ip6, 16);
        n = 17;
    } else if (pdn == 3 && c.s->ipv6) {
        p[0] = 0x07;
        putBE(p + 1, v4, 4);
        memcpy(p + 5, c.s->ipv6->ip6, 16);
        n = 21;
    } else {
        n = size_t(pfcp_ue_ip_address_ipv4(p, 0x06, v4));
    }
    setOctets(o, p, n);
    if (c.establishment && !c.pdnType) c.pdnType = pdn;
}

// The flow description with the first four "%s" replaced by the addresses and ports of the flow,
// by the direction the PDI names; nothing else in the text is read as a format.
void sdfFilter(tlv_octet_t& o, El e, int sourceInterface, Ctx& c) {
    const char* f = KsTemplateEng__GetStrValue(e);
    if (!f || !*f) return;
    char ue[INET_ADDRSTRLEN] = "0.0.0.0";
    if (c.s->ipv4) {
        in_addr a{htonl(c.s->ipv4->ipv4)};
        inet_ntop(AF_INET, &a, ue, sizeof ue);
    }
    auto setting = [](uint32_t k, const char* d) {
        const char* v = KsPFCP_GetPFCPSettingValue(k);
        return v ? v : d;
    };
    const char* peer = setting(60, "11.11.11.11");
    const char* peerPort = setting(61, "99999");
    const char* uePort = setting(62, "88888");
    const char* args[4];
    if (sourceInterface == 0) args[0] = ue, args[1] = uePort, args[2] = peer, args[3] = peerPort;
    else args[0] = peer, args[1] = peerPort, args[2] = ue, args[3] = uePort;
    char text[120];
    size_t n = 0;
    int used = 0;
    for (const char* q = f; *q && n < sizeof text - 1; ++q) {
        if (q[0] == '%' && q[1] == 's' && used < 4) {
            for (const char* a = args[used++]; *a && n < sizeof text - 1; ++a) text[n++] = *a;
            ++q;
        } else {
            text[n++] = *q;
        }
    }
    uint8_t* p = c.scratch.take(n + 4);
    if (!p) return;
    p[0] = 1;  // a flow description follows
    p[1] = 0;
    p[2] = 0;
    p[3] = uint8_t(n);
    memcpy(p + 4, text, n);
    setOctets(o, p, n + 4);
}

void fillPdi(pfcp_tlv_pdi_t& pdi, El group, Ctx& c) {
    pdi.presence = 1;
    int source = -1;
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e))
        if (KsTemplateEng__GetID(e) == 20) source = int(intOf(e));
    int sdf = 0;
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 20: setNum(pdi.source_interface, intOf(e)); break;
            case 21: {
                // The UPF's end of the tunnel we send on.
                const KsTEServer* sv = c.conn ? c.conn->ksServer : nullptr;
                uint8_t* p = c.scratch.take(9);
                if (p) setOctets(pdi.local_f_teid, p, size_t(pfcp_f_teid_ipv4(p, c.s->teid, sv ? ipv4Of(sv->IP_2) : 0)));
                break;
            }
            case 22: string(pdi.network_instance, e, c); break;
            case 23:
                if (sdf < 8) sdfFilter(pdi.sdf_filter[sdf++], e, source, c);
                break;
            case 93: ueIpAddress(pdi.ue_ip_address, c); break;
            case 124: setNum(pdi.qfi, intOf(e)); break;
            default: break;
        }
    }
}

void fillPdr(pfcp_tlv_create_pdr_t& pdr, El group, uint32_t slot, Ctx& c) {
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 56:
                pdr.presence = 1;  // the slot decides the id, so that ids never repeat
                setNum(pdr.pdr_id, slot + 1);
                break;
            case 29: setNum(pdr.precedence, intOf(e)); break;
            case 2: fillPdi(pdr.pdi, e, c); break;
            case 95: {
                uint8_t* p = c.scratch.take(1);
                if (p) *p = uint8_t(intOf(e)), setOctets(pdr.outer_header_removal, p, 1);
                break;
            }
            case 108: setNum(pdr.far_id, intOf(e)); break;
            case 109: setNum(pdr.qer_id, intOf(e)); break;
            default: break;
        }
    }
}

template <class Fwp>
void fillFwp(Fwp& fwp, El group, Ctx& c) {
    fwp.presence = 1;
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 22: string(fwp.network_instance, e, c); break;
            case 42: setNum(fwp.destination_interface, intOf(e)); break;
            case 84: outerHeaderCreation(fwp.outer_header_creation, e, c); break;
            default: break;
        }
    }
}

template <class Far>
void fillFar(Far& far, El group, Ctx& c) {
    far.presence = 1;
    if (isInt(group)) setNum(far.far_id, intOf(group));
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 44: setNum(far.apply_action, intOf(e)); break;
            case 4:
                if constexpr (requires { far.forwarding_parameters; }) fillFwp(far.forwarding_parameters, e, c);
                else fillFwp(far.update_forwarding_parameters, e, c);
                break;
            default: break;
        }
    }
}

template <class Urr>
void fillUrr(Urr& urr, El group, Ctx& c) {
    urr.presence = 1;
    if (isInt(group)) setNum(urr.urr_id, intOf(group));
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 62: setNum(urr.measurement_method, intOf(e)); break;
            case 73: volume(urr.volume_quota, e, c); break;
            case 31: volume(urr.volume_threshold, e, c); break;
            case 32: {
                uint8_t* p = c.scratch.take(4);
                if (p) putBE(p, uint64_t(intOf(e)), 4), setOctets(urr.time_threshold, p, 4);
                break;
            }
            default: break;
        }
    }
}

template <class Qer>
void fillQer(Qer& qer, El group, Ctx& c) {
    qer.presence = 1;
    if (isInt(group)) setNum(qer.qer_id, intOf(group));
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 25: setNum(qer.gate_status, intOf(e)); break;
            case 26: {
                json_t* j = KsTemplateEng__GetJsonValue(e);
                bool hu = false, hd = false;
                uint64_t ul = jsonU64(j, "ULMBR", &hu), dl = jsonU64(j, "DLMBR", &hd);
                uint8_t* p = c.scratch.take(PFCP_BITRATE_LEN);
                if (!p) break;
                setOctets(qer.mbr, p, size_t(pfcp_bitrate(p, ul, dl)));
                c.s->ul_mbr = ul;
                c.s->dl_mbr = dl;
                break;
            }
            case 28: setNum(qer.qer_correlation_id, intOf(e)); break;
            case 124: setNum(qer.qfi, intOf(e)); break;
            default: break;
        }
    }
}

void fillPdrUpdate(pfcp_tlv_update_pdr_t& pdr, El group, Ctx& c) {
    pdr.presence = 1;
    for (El e = KsTemplateEng__GetChildElement(group); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 56: setNum(pdr.pdr_id, intOf(e)); break;
            case 29: setNum(pdr.precedence, intOf(e)); break;
            case 2: fillPdi(pdr.pdi, e, c); break;
            case 108: setNum(pdr.far_id, intOf(e)); break;
            default: break;
        }
    }
}

// The next free slot of an array of rules, or null past its end (the element is skipped).
template <class T, size_t N>
T* slot(T (&arr)[N], uint32_t& used) {
    return used < N ? &arr[used++] : nullptr;
}

void cpFSeid(tlv_octet_t& o, Ctx& c) {
    uint8_t* p = c.scratch.take(13);
    if (p) setOctets(o, p, size_t(pfcp_f_seid_ipv4(p, c.s->cp_seid, __mv_pfcp__getIPv4_addr())));
}

}  // namespace

void KsPFCP__build_establishment_by_template(pfcp_message_t* m, pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                             const MV_Template* t, KsPFCPScratch& scratch) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    auto& r = m->pfcp_session_establishment_request;
    Ctx c{s, conn, scratch, true};
    uint8_t* node = scratch.take(5);
    if (node) setOctets(r.node_id, node, size_t(pfcp_node_id_ipv4(node, __mv_pfcp__getIPv4_addr())));
    cpFSeid(r.cp_f_seid, c);
    uint32_t pdrs = 0, fars = 0, urrs = 0, qers = 0;
    int64_t pdnFromTemplate = -1;
    for (El e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 1: {
                uint32_t at = pdrs;
                if (auto* p = slot(r.create_pdr, pdrs)) fillPdr(*p, e, at, c);
                break;
            }
            case 3:
                if (auto* p = slot(r.create_far, fars)) fillFar(*p, e, c);
                break;
            case 6:
                if (auto* p = slot(r.create_urr, urrs)) fillUrr(*p, e, c);
                break;
            case 7:
                if (auto* p = slot(r.create_qer, qers)) fillQer(*p, e, c);
                break;
            case 85: break;  // Create BAR: nothing of it is filled
            case 113: pdnFromTemplate = intOf(e); break;
            default: break;
        }
    }
    if (c.pdnType) setNum(r.pdn_type, c.pdnType);
    else if (pdnFromTemplate >= 0) setNum(r.pdn_type, pdnFromTemplate);
}

void KsPFCP__build_modification_by_template(pfcp_message_t* m, pfcp_cp_sess_t* s, const KsTEConnection* conn,
                                            const MV_Template* t, KsPFCPScratch& scratch) {
    memset(m, 0, sizeof *m);
    m->h.type = PFCP_SESSION_MODIFICATION_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = s->upf_seid;
    auto& r = m->pfcp_session_modification_request;
    Ctx c{s, conn, scratch, false};
    cpFSeid(r.cp_f_seid, c);
    uint32_t urrs = 0, qers = 0, updPdrs = 0, updFars = 0, updUrrs = 0, updQers = 0;
    for (El e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetID(e)) {
            case 6:
                if (auto* p = slot(r.create_urr, urrs)) fillUrr(*p, e, c);
                break;
            case 7:
                if (auto* p = slot(r.create_qer, qers)) fillQer(*p, e, c);
                break;
            case 9:
                if (auto* p = slot(r.update_pdr, updPdrs)) fillPdrUpdate(*p, e, c);
                break;
            case 10:
                if (auto* p = slot(r.update_far, updFars)) fillFar(*p, e, c);
                break;
            case 13:
                if (auto* p = slot(r.update_urr, updUrrs)) fillUrr(*p, e, c);
                break;
            case 14:
                if (auto* p = slot(r.update_qer, updQers)) fillQer(*p, e, c);
                break;
            default: break;  // Create BAR (85) and others: nothing filled
        }
    }
}
