// Handlers of the gNB's NG interface: every decoded NGAP message from an AMF arrives
// here on the association's read thread, changes the connection's state, and is
// freed.
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "KsEngine_step.h"
#include "KsNGAP.h"
#include "mv_amf_asn_procs.h"
#include "mv_socket_engine.h"

namespace {

const char* causeGroupName(uint8_t group) {
    static constexpr const char* kNames[] = {"radioNetwork", "transport", "nas", "protocol", "misc"};
    return group < 5 ? kNames[group] : nullptr;
}

uint8_t causeValue(const MV_AMF_DT_Cause* c) {
    switch (c->SelectedChoice) {
        case 0: return c->u.radioNetwork;
        case 1: return c->u.transport;
        case 2: return c->u.nas;
        case 3: return c->u.protocol;
        case 4: return c->u.misc;
        default: return 0;
    }
}

}  // namespace

// ---------------------------------------------------------------- RAN UE NGAP ids

uint64_t KsNGAP___GetKsNGRanUeContext_UEId(const MV_KsNGRanUeContext* ctx) {
    if (!ctx) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Mandatory Object MV_KsNGRanUeContext Got NULL  %s|%s|%d",
                 __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    uint32_t start = ctx->ran ? ctx->ran->UEIDStartNo : __ksEngine->UEIDStartNo;
    return uint64_t(start) + ctx->id + uint64_t(__ksEngine->ngRanUeContextTotal) * ctx->GenId;
}

MV_KsNGRanUeContext* KsNGAP___GetKsNGRanUeContext(const MV_KsNGRan* ran, uint64_t id) {
    if (!ran || id <= ran->UEIDStartNo) return nullptr;
    uint64_t total = __ksEngine->ngRanUeContextTotal;
    if (total == 0) return nullptr;
    uint64_t rel = id - ran->UEIDStartNo;
    if (rel <= total) return KsEngine__GetNGRanUeContextById(rel);
    uint64_t gen = rel / total, slot = rel % total;
    if (slot == 0) {
        --gen;
        slot = total;
    }
    MV_KsNGRanUeContext* ctx = KsEngine__GetNGRanUeContextById(slot);
    if (!ctx) return nullptr;
    if (ctx->GenId != gen) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Version Not Found ueContext->GenId=%lu ,derived_GenId=%lu derived_rANUENGAPID=%lu id=%lu "
                 "rANUENGAPID=%lu  %s|%s|%d",
                 (unsigned long)ctx->GenId.load(), (unsigned long)gen,
                 (unsigned long)(ran->UEIDStartNo + slot + total * ctx->GenId), (unsigned long)slot,
                 (unsigned long)id, __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    return ctx;
}

void KsNGAP__ReleaseRanUeContext(MV_KsUE* ue, uint8_t bearer) {
    if (!ue) return;
    MV_KsUECtx* side = bearer == KS_BEARER__NON3GPP ? &ue->NTGPP : &ue->TGPP;
    KsEngine__RanAmf_RemoveUEContext(ue, bearer);
    MV_KsNGRanUeContext* ctx = side->ranUeContext;
    side->ranUeContext = nullptr;
    side->CMStatus = CM_STATUS__IDLE;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "SUPI=%s  Release-Ran-Ue-Context=%p  bearer=%u  %s|%s|%d",
             KsUE__supi(ue), static_cast<void*>(ctx), bearer, __FILE_NAME__, __func__, __LINE__);
    if (!ctx) return;
    ctx->ranAmfConn = nullptr;
    ctx->ksUe = nullptr;
    KsEngine__ReleaseKsNGRanUeContext(ctx->ran, ctx);
}

// ---------------------------------------------------------------- UE state from a location

int KsNGAP_utils_set_UserLocationInformation_json(MV_AMF_DT_UserLocationInformation** uli, json_t* json,
                                                  MV_KsUE* ue) {
    uint8_t plmn[3];
    int plmnSet = 0;
    if (KsNGAP___build_UserLocationInformation_json(uli, json, plmn, &plmnSet) != 1) return 0;
    if (plmnSet && ue) KsEngine__SetUEsSNN2(ue, plmn);
    return 1;
}

// ---------------------------------------------------------------- NG Setup

void KsNGAP__handle_NGSetupResponse(MV_KsRanAmfConnection* conn, MV_AMF_DT_NGSetupResponse* msg) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "received NGSetupResponse aMFName_isset=%d servedGUAMIList_isset=%d <%s|%s|%d>", msg->aMFName_isset,
             msg->servedGUAMIList_isset, __FILE_NAME__, __func__, __LINE__);
    const char* missing = nullptr;
    MV_KsAmf* amf = conn->amf;
    {
        std::lock_guard g(amf->InfoLock);
        if (msg->aMFName_isset != 1 || !msg->aMFName) {
            missing = "AMFName";
        } else {
            // The standard allows 150 characters; the record keeps what fits.
            uint32_t n = msg->aMFName->length;
            if (n > sizeof amf->AMFName - 1) n = sizeof amf->AMFName - 1;
            memcpy(amf->AMFName, msg->aMFName->data, n);
            amf->AMFName[n] = 0;
            amf->AMFName_len = uint16_t(n);
        }
        if (!missing && (msg->servedGUAMIList_isset != 1 || !msg->servedGUAMIList)) missing = "servedGUAMIList";
        if (!missing) {
            amf->ServedGuamiCount = 0;
            memset(amf->ServedGuami, 0, sizeof amf->ServedGuami);
            __mv_asn_list* list = msg->servedGUAMIList->ServedGUAMIItem;
            uint32_t seen = 0;
            for (auto* it = list ? list->Head : nullptr; it; it = it->Next, ++seen) {
                auto* item = static_cast<MV_AMF_DT_ServedGUAMIItem*>(it->data);
                if (amf->ServedGuamiCount >= KS_MAX_SERVED_GUAMI) continue;
                if (!item || !item->gUAMI) continue;
                MV_AMF_DT_GUAMI* gu = item->gUAMI;
                MV_KsAmfServedGuami& e = amf->ServedGuami[amf->ServedGuamiCount++];
                if (gu->pLMNIdentity && gu->pLMNIdentity->length >= 3) KsNGAP___plmnFromWire(gu->pLMNIdentity->data, e.PLMN);
                if (gu->aMFRegionID && gu->aMFRegionID->length >= 1) e.amfRegionId = gu->aMFRegionID->data[0];
                if (gu->aMFSetID && gu->aMFSetID->length >= 2)
                    e.amfSetId = uint16_t((gu->aMFSetID->data[0] << 8 | gu->aMFSetID->data[1]) >> 6);
                if (gu->aMFPointer && gu->aMFPointer->length >= 1) e.amfPointer = uint8_t(gu->aMFPointer->data[0] >> 2);
            }
            if (seen > KS_MAX_SERVED_GUAMI)
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "NGSetupResponse has %u served GUAMIs, the first %d kept <%s|%s|%d>", seen, KS_MAX_SERVED_GUAMI,
                         __FILE_NAME__, __func__, __LINE__);
        }
        if (!missing && msg->relativeAMFCapacity_isset != 1) missing = "relativeAMFCapacity";
        if (!missing) amf->relativeAMFCapacity = uint16_t(msg->relativeAMFCapacity);
    }
    if (missing) {
        ++__ksEngine->NGSetupResponseIncomplete;
        ++__ksEngine->NGAPErrors;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Missing mandatory parameter %s in NGSetupResponse, Closing NGAP connection and disabling-auto-connect "
                 "<%s|%s|%d>",
                 missing, __FILE_NAME__, __func__, __LINE__);
        if (MV_Socket* s = conn->siSocket.load()) s->disableClientAutoReConnect = 1;
        conn->isOKToRun = 0;
        conn->ConnStatus = KS_NGCONN__SETUP_RESPONSE_INCOMPLETE;
        KsNGAP___closeAssociation(conn);
        return;
    }
    conn->RetainUEs = msg->uERetentionInformation_isset == 1 ? 1 : 0;
    conn->ConnStatus = KS_NGCONN__READY;
    conn->isOKToRun = 1;
}

void KsNGAP__handle_NGSetupFailure(MV_KsRanAmfConnection* conn, MV_NGAPNode* node, MV_AMF_DT_NGSetupFailure* msg) {
    const char* group = msg->cause_isset == 1 && msg->cause ? causeGroupName(msg->cause->SelectedChoice) : nullptr;
    if (group)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "NGSetupFailure with %s=%u <%s|%s|%d>", group,
                 causeValue(msg->cause), __FILE_NAME__, __func__, __LINE__);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "NGSetupFailure with unknown cause=%u <%s|%s|%d>",
                 msg->cause ? msg->cause->SelectedChoice : 0u, __FILE_NAME__, __func__, __LINE__);
    if (MV_Socket* s = conn->siSocket.load()) s->disableClientAutoReConnect = 1;
    conn->isOKToRun = 0;
    conn->ConnStatus = KS_NGCONN__SETUP_FAILED;
    KsNGAP___SetCloseCause(node, 1);
}

// ---------------------------------------------------------------- error indication

void KsNGAP__handle_ErrorIndication(MV_KsRanAmfConnection* conn, MV_AMF_DT_ErrorIndication* msg) {
    uint64_t ranId = msg->rANUENGAPID_isset == 1 ? msg->rANUENGAPID : 0;
    MV_KsNGRanUeContext* ctx = conn ? KsNGAP___GetKsNGRanUeContext(conn->ran, ranId) : nullptr;
    // A context of this pool that belongs to another connection is not the one the AMF
    // meant: it knows only the ids of its own association.
    if (ctx && ctx->ranAmfConn != conn) ctx = nullptr;
    if (!ctx) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ErrorIndication, UEContext Not Found with rANUENGAPID=%lu <%s|%s|%d>",
                 (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    MV_KsUE* ue = ctx->ksUe;
    if (msg->cause_isset == 1 && msg->cause) {
        uint8_t g = msg->cause->SelectedChoice, v = causeValue(msg->cause);
        if (ue) {
            ue->TGPP.NGAPErrorCauseType = g;
            ue->TGPP.NGAPErrorCause = v;
        }
        if (const char* name = causeGroupName(g))
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ErrorIndication with %s=%u rANUENGAPID=%lu <%s|%s|%d>", name,
                     v, (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
        else
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ErrorIndication with unknown cause=%u rANUENGAPID=%lu <%s|%s|%d>",
                     g, (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    }
    if (!ue) return;
    if (msg->rANUENGAPID_isset == 1) KsNGAP__ReleaseRanUeContext(ue, KS_BEARER__3GPP);
    if (KsTestExec* t = ue->testExec) {
        ++t->ErrorIndication.Request;
        ++t->ErrorIndication.Total;
        Kestrane___execMarkAsComplete(ue);
    } else if (ue->ksStepExecution) {
        KS_COMPLETE_STEP(ue, KS_STEP_CODE_FROM_UE);
    } else {
        KsEngine__KsUE_ClearDefaultTimer(ue, __func__);
    }
}

// ---------------------------------------------------------------- bad input

void KsNGAP__handle_bad_input(MV_NGAPNode* node, int procedureCode, int form, const char* reason) {
    if (__ksEngine) ++__ksEngine->NGAPErrors;
    MV_KsRanAmfConnection* conn = KsNGAP___ConnectionOfNode(node);
    const MV_KsAmf* amf = conn ? conn->amf : nullptr;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "NGAP from AMF-ID[%u]-IP[%s]-PORT[%d] on ranAmfConn-ID=%u: %s, procedureCode=%d form=%d <%s|%s|%d>",
             amf ? amf->ID : 0u, amf ? amf->IP[0] : "-", amf ? int(amf->Port) : 0, conn ? conn->ID : 0u,
             reason ? reason : "", procedureCode, form, __FILE_NAME__, __func__, __LINE__);
}

// ---------------------------------------------------------------- dispatch

namespace {

// The owner of a decoded record: it goes back through the codec on every path. A pair
// with no record type is never handed over by the node layer; leaking is then safer than
// freeing with the wrong layout.
struct NgapPduFree {
    const MvAsnPdu* pdu;
    uint8_t code, form;
    void operator()(void* rec) const {
        if (pdu) {
            __mv_asn_memfree_pdu(pdu, rec);
            return;
        }
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "no NGAP record for procedureCode=%u form=%u, not freed <%s|%s|%d>",
                 code, form, __FILE_NAME__, "freeMessage", __LINE__);
    }
};
using NgapPdu = std::unique_ptr<void, NgapPduFree>;

// The codec's PDU of each procedure and form, for the owner's deleter.
const MvAsnPdu* pduOf(uint8_t code, uint8_t form) {
    static const auto table = [] {
        std::array<std::array<const MvAsnPdu*, 3>, kNgapProcCount> t{};
        for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i) {
            const MvAsnPdu& p = mv_asn_amf::kPdus[i];
            if (p.procedureCode < kNgapProcCount && p.form < 3) t[p.procedureCode][p.form] = &p;
        }
        return t;
    }();
    return code < kNgapProcCount && form < 3 ? table[code][form] : nullptr;
}

struct KsNgapMessage {
    uint8_t Code, Form;
    void* Record;  // owned by the dispatch
    MV_NGAPNode* Node;
    MV_KsRanAmfConnection* Conn;
    NgapPdu* Owner;  // a handler that keeps the record takes it from here
};

void unhandled(const KsNgapMessage& m) {
    static constexpr const char* kForms[] = {"initiating", "successful", "unsuccessful"};
    printf("unhandled %s message received, procedureCode=%u  %s|%s|%d\n", kForms[m.Form], m.Code, __FILE_NAME__,
           "KsNGAP__handle_ngap_message", __LINE__);
}

// Messages of mobility, acted on by the gNB's handover side. That side is not part of
// this build: they are logged and dropped.
void notBuilt(const KsNgapMessage& m) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "UE-associated NGAP handling is not part of this build, procedureCode=%u form=%u dropped <%s|%s|%d>", m.Code,
             m.Form, __FILE_NAME__, __func__, __LINE__);
}

// Messages of the AMF the gNB ignores by design: decoded, freed, no other effect.
void ignoredInitiating(const KsNgapMessage& m) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "initiating message procedureCode=%u from the AMF, no action <%s|%s|%d>",
             m.Code, __FILE_NAME__, "KsNGAP__handle_ngap_message", __LINE__);
}
void ignored(const KsNgapMessage&) {}

// A UE's message: tested here, then carried to the UE's line with its record.
void ueMessage(const KsNgapMessage& m) {
    if (KsNGAP__handle_ue_message({m.Code, m.Form, m.Record, m.Node, m.Conn})) m.Owner->release();
}

void errorIndication(const KsNgapMessage& m) {
    KsNGAP__handle_ErrorIndication(m.Conn, static_cast<MV_AMF_DT_ErrorIndication*>(m.Record));
}
// NG Setup's answers act on the connection of their association.
void setupResponse(const KsNgapMessage& m) {
    if (!m.Conn) return unhandled(m);
    KsNGAP__handle_NGSetupResponse(m.Conn, static_cast<MV_AMF_DT_NGSetupResponse*>(m.Record));
}
void setupFailure(const KsNgapMessage& m) {
    if (!m.Conn) return unhandled(m);
    KsNGAP__handle_NGSetupFailure(m.Conn, m.Node, static_cast<MV_AMF_DT_NGSetupFailure*>(m.Record));
}

using P = NgapProc;
using F = NgapForm;

struct KsNgapHandler {
    NgapProc Proc;
    NgapForm Form;
    void (*Handle)(const KsNgapMessage& m);
};

// Every message the gNB knows from an AMF; any other is unhandled.
constexpr KsNgapHandler kHandlers[] = {
    {P::ErrorIndication, F::Initiating, errorIndication},
    {P::NGSetup, F::Successful, setupResponse},
    {P::NGSetup, F::Unsuccessful, setupFailure},
    // the UE side
    {P::DownlinkNASTransport, F::Initiating, ueMessage},
    {P::DownlinkRANStatusTransfer, F::Initiating, notBuilt},
    {P::HandoverResourceAllocation, F::Initiating, notBuilt},
    {P::InitialContextSetup, F::Initiating, ueMessage},
    {P::PDUSessionResourceModify, F::Initiating, ueMessage},
    {P::PDUSessionResourceRelease, F::Initiating, ueMessage},
    {P::PDUSessionResourceSetup, F::Initiating, ueMessage},
    {P::RerouteNASRequest, F::Initiating, ueMessage},
    {P::UEContextModification, F::Initiating, ueMessage},
    {P::UEContextRelease, F::Initiating, ueMessage},
    {P::HandoverPreparation, F::Successful, notBuilt},
    {P::PathSwitchRequest, F::Successful, notBuilt},
    {P::HandoverPreparation, F::Unsuccessful, notBuilt},
    {P::PathSwitchRequest, F::Unsuccessful, notBuilt},
    // ignored by design
    {P::AMFConfigurationUpdate, F::Initiating, ignoredInitiating},
    {P::AMFStatusIndication, F::Initiating, ignoredInitiating},
    {P::DeactivateTrace, F::Initiating, ignoredInitiating},
    {P::DownlinkNonUEAssociatedNRPPaTransport, F::Initiating, ignoredInitiating},
    {P::DownlinkRANConfigurationTransfer, F::Initiating, ignoredInitiating},
    {P::DownlinkUEAssociatedNRPPaTransport, F::Initiating, ignoredInitiating},
    {P::LocationReportingControl, F::Initiating, ignoredInitiating},
    {P::NGReset, F::Initiating, ignoredInitiating},
    {P::OverloadStart, F::Initiating, ignoredInitiating},
    {P::OverloadStop, F::Initiating, ignoredInitiating},
    {P::Paging, F::Initiating, ignoredInitiating},
    {P::PrivateMessage, F::Initiating, ignoredInitiating},
    {P::PWSCancel, F::Initiating, ignoredInitiating},
    {P::TraceStart, F::Initiating, ignoredInitiating},
    {P::UERadioCapabilityCheck, F::Initiating, ignoredInitiating},
    {P::UETNLABindingRelease, F::Initiating, ignoredInitiating},
    {P::WriteReplaceWarning, F::Initiating, ignoredInitiating},
    {P::HandoverCancel, F::Successful, ignored},
    {P::NGReset, F::Successful, ignored},
    {P::PDUSessionResourceModifyIndication, F::Successful, ignored},
    {P::RANConfigurationUpdate, F::Successful, ignored},
    {P::RANConfigurationUpdate, F::Unsuccessful, ignored},
};

struct HandlerTable {
    void (*byCode[kNgapProcCount][3])(const KsNgapMessage&){};
    constexpr HandlerTable() {
        for (const KsNgapHandler& h : kHandlers) byCode[size_t(h.Proc)][size_t(h.Form)] = h.Handle;
    }
};
constexpr HandlerTable kTable;

}  // namespace

void KsNGAP__handle_ngap_message(uint8_t procedureCode, uint8_t messageType, void* msg, MV_NGAPNode* node) {
    if (!msg) return;
    if (messageType > 2) {
        // Another form has no record type to free it with.
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "NGAP message of form=%u procedureCode=%u ignored <%s|%s|%d>",
                 messageType, procedureCode, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    NgapPdu owned(msg, NgapPduFree{pduOf(procedureCode, messageType), procedureCode, messageType});
    KsNgapMessage m{procedureCode, messageType, owned.get(), node, KsNGAP___ConnectionOfNode(node), &owned};
    auto handle = procedureCode < kNgapProcCount ? kTable.byCode[procedureCode][messageType] : nullptr;
    if (handle) handle(m);
    else unhandled(m);
}

void KsNGAP___freeRecord(uint8_t procedureCode, uint8_t form, void* record) {
    if (record) NgapPduFree{pduOf(procedureCode, form), procedureCode, form}(record);
}
