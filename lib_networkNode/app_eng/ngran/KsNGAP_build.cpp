// Builders of the gNB: configuration records in, NGAP records out. No I/O, no state
// changes and no output here: what could not be built is noted for the caller.
#include <cstring>

#include "KsEngine_step.h"
#include "Kestrane_util.h"
#include "mv_bytes.h"
#include "KsNGAP.h"

namespace {

template <class Rec>
Rec* newRec() {
    return static_cast<Rec*>(__mv_asn_alloc(sizeof(Rec)));
}

template <class Str>
Str* octets(const uint8_t* bytes, uint32_t len) {
    Str* s = newRec<Str>();
    s->data = __mv_asn_alloc_n_copy(bytes, len);
    s->length = len;
    return s;
}

template <class Bits>
Bits* bits(const uint8_t* bytes, uint32_t len, int bitslen) {
    Bits* s = octets<Bits>(bytes, len);
    s->bitslen = bitslen;
    return s;
}

// Hexadecimal text of exactly `n` bytes.
bool hexBytes(const char* text, uint8_t* out, int n) {
    if (!text || strlen(text) != size_t(2 * n) || strspn(text, "0123456789abcdefABCDEF") != size_t(2 * n)) return false;
    return __mv_ascii_to_hex(text, 2 * n, out, n) == n;
}

// The codec's records are packed: a list head is copied out, extended and stored back.
template <class Holder>
void appendItem(Holder* holder, __mv_asn_list* Holder::*member, void* item) {
    __mv_asn_list* l = holder->*member;
    __mv_asn_list_add(&l, item);
    holder->*member = l;
}

MV_AMF_DT_PLMNIdentity* plmnRec(const uint8_t* hexPlmn);

void note(KsNgapBuildNotes* notes, KsNgapBuildNote::Kind kind, const char* text, const uint8_t* plmn,
          const uint8_t* tac) {
    if (!notes) return;
    KsNgapBuildNote n{kind, text, {0, 0, 0}, {0, 0, 0}};
    if (plmn) memcpy(n.plmn, plmn, 3);
    if (tac) memcpy(n.tac, tac, 3);
    notes->add(n);
}

MV_AMF_DT_SliceSupportList* sliceList(json_t* slices, bool hexForm) {
    if (!json_is_array(slices) || json_array_size(slices) == 0) return nullptr;
    MV_AMF_DT_SliceSupportList* list = nullptr;
    size_t i;
    json_t* s;
    json_array_foreach(slices, i, s) {
        uint8_t sst = 0, sd[3] = {0, 0, 0};
        const char* sdText;
        if (hexForm) {
            if (!hexBytes(json_string_value(json_object_get(s, "HexSST")), &sst, 1)) continue;
            sdText = json_string_value(json_object_get(s, "HexSD"));
        } else {
            json_t* v = json_object_get(s, "SST");
            if (!json_is_integer(v)) continue;
            sst = uint8_t(json_integer_value(v));
            sdText = json_string_value(json_object_get(s, "SD"));
        }
        auto* nssai = newRec<MV_AMF_DT_S_NSSAI>();
        nssai->sST = octets<MV_AMF_DT_SST>(&sst, 1);
        if (sdText) {
            // An SD of the wrong length is sent as three zero bytes.
            if (!hexBytes(sdText, sd, 3)) memset(sd, 0, sizeof sd);
            nssai->sD = octets<MV_AMF_DT_SD>(sd, 3);
            nssai->isPresent_sD = 1;
        }
        auto* item = newRec<MV_AMF_DT_SliceSupportItem>();
        item->s_NSSAI = nssai;
        if (!list) list = newRec<MV_AMF_DT_SliceSupportList>();
        appendItem(list, &MV_AMF_DT_SliceSupportList::SliceSupportItem, item);
    }
    return list;
}

MV_AMF_DT_SupportedTAList* supportedTAList(json_t* tas, KsNgapBuildNotes* notes) {
    if (!json_is_array(tas) || json_array_size(tas) == 0) return nullptr;
    MV_AMF_DT_SupportedTAList* list = nullptr;
    size_t i;
    json_t* ta;
    json_array_foreach(tas, i, ta) KsNGAP__add_tai_json(&list, ta, notes);
    return list;
}

MV_AMF_DT_GlobalRANNodeID* globalRANNodeID(const MV_KsNGRan* ran) {
    uint8_t id[4] = {uint8_t(ran->ID >> 24), uint8_t(ran->ID >> 16), uint8_t(ran->ID >> 8), uint8_t(ran->ID)};
    auto* g = newRec<MV_AMF_DT_GlobalRANNodeID>();
    switch (ran->AccessType) {
        case KS_ACCESS_TYPE__GNB: {
            g->SelectedChoice = 0;
            auto* gnb = newRec<MV_AMF_DT_GlobalGNB_ID>();
            gnb->pLMNIdentity = plmnRec(ran->HexPlmn);
            gnb->gNB_ID = newRec<MV_AMF_DT_GNB_ID>();
            gnb->gNB_ID->SelectedChoice = 0;
            gnb->gNB_ID->u.gNB_ID = bits<MV_AMF_DT_GNB_ID_gNB_ID>(id + 1, 3, 24);
            g->u.globalGNB_ID = gnb;
            break;
        }
        case KS_ACCESS_TYPE__ENB: {
            g->SelectedChoice = 1;
            auto* enb = newRec<MV_AMF_DT_GlobalNgENB_ID>();
            enb->pLMNIdentity = plmnRec(ran->HexPlmn);
            enb->ngENB_ID = newRec<MV_AMF_DT_NgENB_ID>();
            enb->ngENB_ID->SelectedChoice = 1;
            enb->ngENB_ID->u.shortMacroNgENB_ID = bits<MV_AMF_DT_NgENB_ID_shortMacroNgENB_ID>(id + 1, 3, 18);
            g->u.globalNgENB_ID = enb;
            break;
        }
        case KS_ACCESS_TYPE__N3IWF: {
            g->SelectedChoice = 2;
            auto* n3 = newRec<MV_AMF_DT_GlobalN3IWF_ID>();
            n3->pLMNIdentity = plmnRec(ran->HexPlmn);
            n3->n3IWF_ID = newRec<MV_AMF_DT_N3IWF_ID>();
            n3->n3IWF_ID->SelectedChoice = 0;
            n3->n3IWF_ID->u.n3IWF_ID = bits<MV_AMF_DT_N3IWF_ID_n3IWF_ID>(id + 2, 2, 16);
            g->u.globalN3IWF_ID = n3;
            break;
        }
        default:
            __mv_asn_free(g);
            return nullptr;
    }
    return g;
}

MV_AMF_DT_RANNodeName* nodeName(const MV_KsNGRan* ran) {
    size_t n = strnlen(ran->NodeName, sizeof ran->NodeName);
    // RANNodeName is PrintableString (SIZE(1..150)): an empty name cannot be sent.
    if (n == 0) return nullptr;
    return octets<MV_AMF_DT_RANNodeName>(reinterpret_cast<const uint8_t*>(ran->NodeName), uint32_t(n));
}

}  // namespace

// ---------------------------------------------------------------- PLMN and identities

void KsNGAP_get_plmnHex(uint8_t* out, const char* mcc, const char* mnc) { KsEngine__get_plmnHex(out, mcc, mnc); }

void KsNGAP___plmnToWire(const uint8_t* p, uint8_t* w) {
    w[0] = p[0];
    if ((p[1] >> 4) == 0x0F) {
        w[1] = p[1];
        w[2] = p[2];
        return;
    }
    // engine: [1] = MNC3|MCC3, [2] = MNC2|MNC1; wire: [1] = MNC1|MCC3, [2] = MNC3|MNC2
    w[1] = uint8_t((p[2] & 0x0F) << 4 | (p[1] & 0x0F));
    w[2] = uint8_t((p[1] & 0xF0) | (p[2] >> 4));
}

void KsNGAP___plmnFromWire(const uint8_t* w, uint8_t* p) {
    p[0] = w[0];
    if ((w[1] >> 4) == 0x0F) {
        p[1] = w[1];
        p[2] = w[2];
        return;
    }
    p[1] = uint8_t((w[2] & 0xF0) | (w[1] & 0x0F));
    p[2] = uint8_t((w[2] & 0x0F) << 4 | (w[1] >> 4));
}

void KsNGAP_set_fgguti(uint8_t* data, const uint8_t* hexPlmn, uint8_t region, uint16_t amfSetId, uint8_t pointer,
                       uint32_t tmsi) {
    memcpy(data, hexPlmn, 3);
    data[3] = region;
    data[4] = uint8_t(amfSetId >> 2);
    data[5] = uint8_t((amfSetId << 6) | (pointer & 0x3F));
    data[6] = uint8_t(tmsi >> 24);
    data[7] = uint8_t(tmsi >> 16);
    data[8] = uint8_t(tmsi >> 8);
    data[9] = uint8_t(tmsi);
}

void KsNGAP_set_fgguti2(uint8_t* data, const char* mcc, const char* mnc, uint8_t region, uint16_t amfSetId,
                        uint8_t pointer, uint32_t tmsi) {
    uint8_t plmn[3] = {0, 0, 0};
    KsNGAP_get_plmnHex(plmn, mcc, mnc);
    KsNGAP_set_fgguti(data, plmn, region, amfSetId, pointer, tmsi);
}

void KsNGAP__setCause(MV_AMF_DT_Cause* cause, uint8_t group, uint8_t value) {
    if (!cause) return;
    cause->SelectedChoice = group;
    switch (group) {
        case 0: cause->u.radioNetwork = value; break;
        case 1: cause->u.transport = value; break;
        case 2: cause->u.nas = value; break;
        case 3: cause->u.protocol = value; break;
        case 4: cause->u.misc = value; break;
        default: break;
    }
}

// ---------------------------------------------------------------- location

namespace {

MV_AMF_DT_PLMNIdentity* plmnRec(const uint8_t* hexPlmn) {
    uint8_t wire[3];
    KsNGAP___plmnToWire(hexPlmn, wire);
    return octets<MV_AMF_DT_PLMNIdentity>(wire, 3);
}

MV_AMF_DT_TAC* tacRec(uint32_t value) {
    const uint8_t b[3] = {uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
    return octets<MV_AMF_DT_TAC>(b, 3);
}

MV_AMF_DT_NRCellIdentity* cellRec(const uint8_t* bytes5) {
    static constexpr uint8_t kDefault[5] = {0x00, 0x00, 0x00, 0x34, 0x21};
    return bits<MV_AMF_DT_NRCellIdentity>(bytes5 ? bytes5 : kDefault, 5, 36);
}

MV_AMF_DT_TAI* taiRec(const uint8_t* hexPlmn, MV_AMF_DT_TAC* tac) {
    auto* t = newRec<MV_AMF_DT_TAI>();
    t->pLMNIdentity = plmnRec(hexPlmn);
    t->tAC = tac;
    return t;
}

MV_AMF_DT_NR_CGI* cgiRec(const uint8_t* hexPlmn, const uint8_t* cell) {
    auto* c = newRec<MV_AMF_DT_NR_CGI>();
    c->pLMNIdentity = plmnRec(hexPlmn);
    c->nRCellIdentity = cellRec(cell);
    return c;
}

MV_AMF_DT_UserLocationInformation* uliNR(MV_AMF_DT_NR_CGI* cgi, MV_AMF_DT_TAI* tai) {
    auto* nr = newRec<MV_AMF_DT_UserLocationInformationNR>();
    nr->nR_CGI = cgi;
    nr->tAI = tai;
    auto* l = newRec<MV_AMF_DT_UserLocationInformation>();
    l->SelectedChoice = 1;
    l->u.userLocationInformationNR = nr;
    return l;
}

}  // namespace

void KsNGAP_utils_set_TAC(MV_AMF_DT_TAC** tac, uint32_t value) { *tac = tacRec(value); }

void KsNGAP_utils_set_PLMNIdentity(MV_AMF_DT_PLMNIdentity** plmn, const uint8_t* hexPlmn) { *plmn = plmnRec(hexPlmn); }

void KsNGAP_utils_set_TAI(MV_AMF_DT_TAI** tai, const uint8_t* hexPlmn, uint32_t tac) {
    *tai = taiRec(hexPlmn, tacRec(tac));
}

void KsNGAP_utils_set_NRCellIdentity(MV_AMF_DT_NRCellIdentity** cell, const uint8_t* bytes5) { *cell = cellRec(bytes5); }

void KsNGAP_utils_set_NR_CGI(MV_AMF_DT_NR_CGI** cgi, const uint8_t* hexPlmn) { *cgi = cgiRec(hexPlmn, nullptr); }

void KsNGAP_utils_set_UserLocationInformationNR(MV_AMF_DT_UserLocationInformationNR** nr, const uint8_t* hexPlmn) {
    *nr = newRec<MV_AMF_DT_UserLocationInformationNR>();
    (*nr)->nR_CGI = cgiRec(hexPlmn, nullptr);
    (*nr)->tAI = taiRec(hexPlmn, tacRec(1));
}

void KsNGAP_utils_set_UserLocationInformation(MV_AMF_DT_UserLocationInformation** uli, const uint8_t* hexPlmn) {
    *uli = uliNR(cgiRec(hexPlmn, nullptr), taiRec(hexPlmn, tacRec(1)));
}

int KsNGAP___build_UserLocationInformation_json(MV_AMF_DT_UserLocationInformation** uli, json_t* json,
                                                uint8_t* taiPlmnOut, int* taiPlmnSet) {
    if (!uli || !json_is_object(json) || json_integer_value(json_object_get(json, "Type")) != 1) return 0;
    json_t* nr = json_object_get(json, "ULINR");
    // Members that are absent leave zero bytes in place of the defaults.
    uint8_t cgiPlmn[3] = {0, 0, 0}, cell[5] = {0, 0, 0, 0, 0}, taiPlmn[3] = {0, 0, 0}, tac[3] = {0, 0, 0};
    json_t* cgi = json_object_get(nr, "NRCGI");
    json_t* tai = json_object_get(nr, "TAI");
    hexBytes(json_string_value(json_object_get(cgi, "HexPLMN")), cgiPlmn, 3);
    hexBytes(json_string_value(json_object_get(cgi, "HexNRCellID")), cell, 5);
    bool taiPlmnSet_ = hexBytes(json_string_value(json_object_get(tai, "HexPLMN")), taiPlmn, 3);
    hexBytes(json_string_value(json_object_get(tai, "HexTAC")), tac, 3);
    // A cell identity has 36 bits: the last four bits of the fifth byte are not sent.
    cell[4] &= 0xF0;

    MV_AMF_DT_UserLocationInformation* l = uliNR(cgiRec(cgiPlmn, cell), taiRec(taiPlmn, octets<MV_AMF_DT_TAC>(tac, 3)));
    *uli = l;
    if (taiPlmnOut && taiPlmnSet_) memcpy(taiPlmnOut, taiPlmn, 3);
    if (taiPlmnSet) *taiPlmnSet = taiPlmnSet_ ? 1 : 0;
    return 1;
}

// ---------------------------------------------------------------- supported TAs

int KsNGAP__add_tai_json(MV_AMF_DT_SupportedTAList** list, json_t* entry, KsNgapBuildNotes* notes) {
    if (!list || !json_is_object(entry)) return 0;
    bool hexForm = json_object_get(entry, "HexTAC") != nullptr;
    uint8_t tac[3] = {0, 0, 0};
    if (hexForm) {
        const char* t = json_string_value(json_object_get(entry, "HexTAC"));
        if (!hexBytes(t, tac, 3)) note(notes, KsNgapBuildNote::BadHexTAC, t, nullptr, nullptr);
    } else {
        uint32_t v = uint32_t(json_integer_value(json_object_get(entry, "TAC")));
        tac[0] = uint8_t(v >> 16);
        tac[1] = uint8_t(v >> 8);
        tac[2] = uint8_t(v);
    }
    auto* item = newRec<MV_AMF_DT_SupportedTAItem>();
    item->tAC = octets<MV_AMF_DT_TAC>(tac, 3);
    item->broadcastPLMNList = newRec<MV_AMF_DT_BroadcastPLMNList>();

    json_t* plmns = json_object_get(entry, hexForm ? "broadcastPLMNList" : "BroadcastPLMNList");
    size_t i;
    json_t* p;
    json_array_foreach(plmns, i, p) {
        uint8_t plmn[3] = {0, 0, 0};
        if (hexForm) {
            const char* h = json_string_value(json_object_get(p, "HexPLMN"));
            if (!hexBytes(h, plmn, 3)) note(notes, KsNgapBuildNote::BadHexPLMN, h, nullptr, nullptr);
        } else {
            // Refused MCC and MNC were logged when the RAN was configured.
            char mcc[4], mnc[4];
            if (KsJson::plmnCode(p, "MCC", false, mcc) != KsJson::PlmnRead::Ok ||
                KsJson::plmnCode(p, "MNC", true, mnc) != KsJson::PlmnRead::Ok)
                continue;
            KsNGAP_get_plmnHex(plmn, mcc, mnc);
        }
        // The slice list of a broadcast PLMN has at least one item on the wire: a PLMN
        // without one would make the whole message unencodable, so it is left out.
        MV_AMF_DT_SliceSupportList* slices = sliceList(json_object_get(p, "TAISliceSupportList"), hexForm);
        if (!slices) {
            note(notes, KsNgapBuildNote::PlmnWithoutSlice, nullptr, plmn, tac);
            continue;
        }
        auto* b = newRec<MV_AMF_DT_BroadcastPLMNItem>();
        b->pLMNIdentity = plmnRec(plmn);
        b->tAISliceSupportList = slices;
        appendItem(item->broadcastPLMNList, &MV_AMF_DT_BroadcastPLMNList::BroadcastPLMNItem, b);
    }
    if (!item->broadcastPLMNList->BroadcastPLMNItem) {
        note(notes, KsNgapBuildNote::TaWithoutPlmn, nullptr, nullptr, tac);
        __mv_amf_memfree_SupportedTAItem(item);
        return 0;
    }
    if (!*list) *list = newRec<MV_AMF_DT_SupportedTAList>();
    appendItem(*list, &MV_AMF_DT_SupportedTAList::SupportedTAItem, item);
    return 1;
}

// ---------------------------------------------------------------- messages

MV_AMF_DT_NGSetupRequest* KsNGAP___build_NGSetupRequest(const MV_KsNGRan* ran, KsNgapBuildNotes* notes) {
    auto* r = newRec<MV_AMF_DT_NGSetupRequest>();
    if (!ran) return r;
    if ((r->globalRANNodeID = globalRANNodeID(ran))) r->globalRANNodeID_isset = 1;
    if ((r->rANNodeName = nodeName(ran))) r->rANNodeName_isset = 1;
    if ((r->supportedTAList = supportedTAList(ran->SupportedTAList, notes))) r->supportedTAList_isset = 1;
    r->defaultPagingDRX = 2;  // v128
    r->defaultPagingDRX_isset = 1;
    if (ran->UERetention == 1) {
        r->uERetentionInformation = 0;
        r->uERetentionInformation_isset = 1;
    }
    return r;
}

MV_AMF_DT_RANConfigurationUpdate* KsNGAP___build_RANConfigurationUpdate(const MV_KsNGRan* ran,
                                                                         KsNgapBuildNotes* notes) {
    auto* r = newRec<MV_AMF_DT_RANConfigurationUpdate>();
    if (!ran) return r;
    if ((r->rANNodeName = nodeName(ran))) r->rANNodeName_isset = 1;
    if ((r->supportedTAList = supportedTAList(ran->SupportedTAList, notes))) r->supportedTAList_isset = 1;
    r->defaultPagingDRX = 2;
    r->defaultPagingDRX_isset = 1;
    return r;
}

MV_AMF_DT_NGReset* KsNGAP___build_NGReset(void) {
    auto* r = newRec<MV_AMF_DT_NGReset>();
    r->cause = newRec<MV_AMF_DT_Cause>();
    KsNGAP__setCause(r->cause, 4, 5);  // misc, unspecified
    r->cause_isset = 1;
    r->resetType = newRec<MV_AMF_DT_ResetType>();
    r->resetType->SelectedChoice = 0;  // the whole NG interface
    r->resetType->u.nG_Interface = 0;
    r->resetType_isset = 1;
    return r;
}
