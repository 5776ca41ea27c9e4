// The gNB's associations to its AMFs: opening them, the connect and close events,
// the console's connection commands, and the one place that sends.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "KsEngine_step.h"
#include "KsNGAP.h"
#include "mv_ngap.h"
#include "mv_socket_engine.h"

namespace {

MV_NGAPNode* nodeOf(const MV_KsRanAmfConnection* conn) {
    MV_Socket* s = conn ? conn->siSocket.load() : nullptr;
    return s ? static_cast<MV_NGAPNode*>(s->transportEng) : nullptr;
}

// Copies the first address, and the second if it is not empty, as the connection uses at
// most two on each side.
int takeTwo(const char (*from)[50], char (*to)[50]) {
    snprintf(to[0], 50, "%s", from[0]);
    if (!from[1][0]) return 1;
    snprintf(to[1], 50, "%s", from[1]);
    return 2;
}

int socketStart(MV_KsRanAmfConnection* conn) {
    MV_KsNGRan* ran = conn->ran;
    MV_KsAmf* amf = conn->amf;
    MV_SctpSocketInfo info{};
    if (ran->localIP[0][0]) {
        info.ipCount = takeTwo(ran->localIP, info.IP);
    } else if (__ksEngine->localIPCount > 0 && __ksEngine->localIP[0][0]) {
        info.ipCount = takeTwo(__ksEngine->localIP, info.IP);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "LocalAddress-IP Not Configured %s|%s|%d", __FILE_NAME__,
                 __func__, __LINE__);
    }
    info.Port = int(ran->localPort);
    info.ipVersion = int(__ksEngine->localIPVersion);
    info.RemotePort = int(amf->Port);
    info.RemoteIpCount = takeTwo(amf->IP, info.RemoteIP);
    info.PPID = MV_NGAP_PPID;
    info.UseEPoll = 2;
    info.MaxOStreams = info.MaxIStreams = 16;
    MV_Socket* s = __mv_socket_engine_create_sctp_client_socket(&info);
    if (!s) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "SCTP client socket for RAN-%u to AMF-ID[%u] not created %s|%s|%d",
                 ran->ID, amf->ID, __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    s->parentData1 = conn;
    s->clientReadThread = nullptr;
    s->isConnected = 0;
    s->max_o_streams = s->max_i_streams = 16;
    s->OnConnected = KsNGAP_on_connected_to_amf;
    s->OnClose = KsNGAP_on_amf_connection_close;
    s->OnBufferReceive = __mv_ngap_on_buffer_recv;
    conn->siSocket = s;
    __mv_socket_engine_sctp_client_socket_start_read_thread(s);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Started RAN=%p siSocket=%p  RAN-ID=%u RAN-Name[%s]  %s|%s|%d",
             static_cast<void*>(ran), static_cast<void*>(s), ran->ID, ran->NodeName, __FILE_NAME__, __func__, __LINE__);
    return 1;
}

// The node layer's send of each PDU, by procedure code and form, so that the path sends
// any record the gNB builds.
typedef int (*PduSend)(void* record, MV_NGAPNode* node);

struct SendTable {
    PduSend fn[MV_NGAP_PROCEDURE_COUNT][3];
};

const SendTable& sendTable() {
    static const SendTable table = [] {
        struct Named {
            const char* name;
            PduSend fn;
        };
#define KS_NGAP_NAMED_SEND(N) \
    {#N, [](void* r, MV_NGAPNode* n) { return __mv_ngap_send_##N(static_cast<__mv_amf_dt_##N*>(r), n); }},
        static constexpr Named kNamed[] = {MV_NGAP_PDU_LIST(KS_NGAP_NAMED_SEND)};
#undef KS_NGAP_NAMED_SEND
        SendTable t{};
        for (const Named& e : kNamed)
            for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i) {
                const MvAsnPdu& p = mv_asn_amf::kPdus[i];
                if (p.procedureCode < MV_NGAP_PROCEDURE_COUNT && p.form < 3 && strcmp(p.name, e.name) == 0)
                    t.fn[p.procedureCode][p.form] = e.fn;
            }
        return t;
    }();
    return table;
}

int socketSend(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn) {
    MV_NGAPNode* node = nodeOf(conn);
    if (!node) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "ranAmfConn-ID=%u has no NGAP association yet, procedureCode=%u not sent %s|%s|%d", conn->ID,
                 procedureCode, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    PduSend f = procedureCode < MV_NGAP_PROCEDURE_COUNT && form < 3 ? sendTable().fn[procedureCode][form] : nullptr;
    if (!f) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "no NGAP PDU of procedureCode=%u form=%u, not sent %s|%s|%d",
                 procedureCode, form, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    return f(record, node);
}

int socketClose(MV_KsRanAmfConnection* conn) {
    MV_Socket* s = conn->siSocket.load();
    if (!s) return -1;
    return __mv_socket_engine_sctp__close_client_connection(s);
}

constexpr KsNGAPPath kSocketPath{socketStart, socketSend, socketClose};
std::atomic<const KsNGAPPath*> path{&kSocketPath};

int sendRecord(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn) {
    return path.load()->Send(procedureCode, form, record, conn);
}

}  // namespace

void KsNGAP__SetPath(const KsNGAPPath* p) { path = p ? p : &kSocketPath; }

int KsNGAP___sendRecord(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn) {
    return conn ? sendRecord(procedureCode, form, record, conn) : -1;
}

void KsNGAP___reportBuildNotes(const KsNgapBuildNotes& notes) {
    for (size_t i = 0; i < notes.count; ++i) {
        const KsNgapBuildNote& n = notes.notes[i];
        switch (n.kind) {
            case KsNgapBuildNote::BadHexTAC:
                printf("HexTAC for SupportedTAItem is not length-6 [%s] <%s|%s|%d>\n", n.text ? n.text : "",
                       __FILE_NAME__, __func__, __LINE__);
                break;
            case KsNgapBuildNote::BadHexPLMN:
                printf("HexPLMN is not length-6 [%s] <%s|%s|%d>\n", n.text ? n.text : "", __FILE_NAME__, __func__,
                       __LINE__);
                break;
            case KsNgapBuildNote::PlmnWithoutSlice:
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "Broadcast PLMN %02X%02X%02X of TAC %02X%02X%02X has no slice, left out <%s|%s|%d>",
                         n.plmn[0], n.plmn[1], n.plmn[2], n.tac[0], n.tac[1], n.tac[2], __FILE_NAME__, __func__,
                         __LINE__);
                break;
            case KsNgapBuildNote::TaWithoutPlmn:
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "SupportedTAItem TAC %02X%02X%02X has no broadcast PLMN, left out <%s|%s|%d>", n.tac[0],
                         n.tac[1], n.tac[2], __FILE_NAME__, __func__, __LINE__);
                break;
        }
    }
    if (notes.past)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%zu more supported TA entries were left out <%s|%s|%d>",
                 notes.past, __FILE_NAME__, __func__, __LINE__);
}

bool KsNGAP__OkToSend(const MV_KsRanAmfConnection* conn) {
    return conn && conn->isOKToRun == 1 && conn->ConnStatus == KS_NGCONN__READY;
}

MV_KsRanAmfConnection* KsNGAP___ConnectionOfNode(MV_NGAPNode* node) {
    MV_Socket* s = node ? node->siSocket : nullptr;
    return s ? static_cast<MV_KsRanAmfConnection*>(s->parentData1) : nullptr;
}

void KsNGAP___SetCloseCause(MV_NGAPNode* node, int cause) {
    if (node) node->CloseCause = cause;
}

int KsNGAP___closeAssociation(MV_KsRanAmfConnection* conn) { return conn ? path.load()->Close(conn) : -1; }

// ---------------------------------------------------------------- association

int KsNGAP__StartAMFConnection(MV_KsRanAmfConnection* conn) {
    if (!conn || !conn->ran || !conn->amf) return -1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Connecting RAN-%u-[%s] to AMF-ID[%u]-IP[%s]-PORT[%d] %s|%s|%d",
             conn->ran->ID, conn->ran->NodeName, conn->amf->ID, conn->amf->IP[0], int(conn->amf->Port), __FILE_NAME__,
             __func__, __LINE__);
    return path.load()->Start(conn);
}

namespace {

int sendNGSetupRequest(MV_KsRanAmfConnection* conn) {
    KsNgapBuildNotes notes;
    MV_AMF_DT_NGSetupRequest* r = KsNGAP___build_NGSetupRequest(conn->ran, &notes);
    KsNGAP___reportBuildNotes(notes);
    conn->isOKToRun = 0;
    conn->ConnStatus = KS_NGCONN__SETUP_SENT;
    int sent = sendRecord(21, 0, r, conn);
    __mv_amf_memfree_pdu_NGSetupRequest(r);
    if (sent > 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Sent NGSetupRequest with bytes=%d %s|%s|%d", sent,
                 __FILE_NAME__, __func__, __LINE__);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Sending NGSetupRequest Failed with sts=%d  %s|%s|%d", sent,
                 __FILE_NAME__, __func__, __LINE__);
    return sent;
}

}  // namespace

int KsNGAP__ap__create_and_send__NGSetupRequest(MV_NGAPNode* node) {
    MV_KsRanAmfConnection* conn = KsNGAP___ConnectionOfNode(node);
    if (!conn) return -1;
    return sendNGSetupRequest(conn);
}

void KsNGAP_on_connected_to_amf(MV_Socket* siSocket) {
    if (!siSocket || !siSocket->parentData1) return;
    // The node stays with its socket across reconnects.
    auto* node = static_cast<MV_NGAPNode*>(siSocket->transportEng);
    if (!node) {
        node = __mv_arena_new<MV_NGAPNode>();
        siSocket->transportEng = node;
    }
    node->CloseCause = 0;
    node->siSocket = siSocket;
    __mv_socket_engine__set_sendlock(siSocket, int(__ksEngine->UseSCTPSendLock));
    int sent = KsNGAP__ap__create_and_send__NGSetupRequest(node);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Sent NGSetupRequest with bytes[%d] ngNode=%p amfSocket=%p   %s|%s|%d",
             sent, static_cast<void*>(node), static_cast<void*>(siSocket), __FILE_NAME__, __func__, __LINE__);
}

void KsNGAP_on_amf_connection_close(MV_Socket* siSocket) {
    auto* conn = siSocket ? static_cast<MV_KsRanAmfConnection*>(siSocket->parentData1) : nullptr;
    if (!conn) return;
    void* node = siSocket->transportEng;
    int closed = siSocket->isActive ? 0 : 1;
    int noReconnect = siSocket->disableClientAutoReConnect;
    if (conn->RetainUEs == 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "NGAP Closed ,  Removing AllUEContext: ngNode=%p amfSocket=%p closed=%d DisableClientAutoReConnect=%d "
                 "UE-Count=%d  %s|%s|%d",
                 node, static_cast<void*>(siSocket), closed, noReconnect, conn->ksUE_Count, __FILE_NAME__, __func__,
                 __LINE__);
        KsEngine__RanAmf_RemoveAllUEContext(conn);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "NGAP Closed /  Removed  AllUEContext: ngNode=%p amfSocket=%p closed=%d DisableClientAutoReConnect=%d "
                 "UE-Count=%d  %s|%s|%d",
                 node, static_cast<void*>(siSocket), closed, noReconnect, conn->ksUE_Count, __FILE_NAME__, __func__,
                 __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "NGAP Closed/ AMF RetainUEs is Enabled, Not Releasing UEContext: ngNode=%p amfSocket=%p closed=%d "
                 "DisableClientAutoReConnect=%d UE-Count=%d  %s|%s|%d",
                 node, static_cast<void*>(siSocket), closed, noReconnect, conn->ksUE_Count, __FILE_NAME__, __func__,
                 __LINE__);
    }
    conn->isOKToRun = 0;
    // States that only a console command leaves survive the close they cause.
    uint32_t s = conn->ConnStatus;
    if (s != KS_NGCONN__SETUP_FAILED && s != KS_NGCONN__CLOSED_BY_CONSOLE && s != KS_NGCONN__SETUP_RESPONSE_INCOMPLETE)
        conn->ConnStatus = KS_NGCONN__NOT_CONNECTED;
}

// ---------------------------------------------------------------- console commands

int KsNGAP__close_NGConnection(MV_KsRanAmfConnection* conn) {
    if (!conn) return -1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "NGSetup Close Connection for ranAmfConn-ID=%u <%s|%s|%d>", conn->ID,
             __FILE_NAME__, __func__, __LINE__);
    if (MV_Socket* s = conn->siSocket.load()) s->disableClientAutoReConnect = 1;
    conn->isOKToRun = 0;
    conn->ConnStatus = KS_NGCONN__CLOSED_BY_CONSOLE;
    KsNGAP___closeAssociation(conn);
    return 1;
}

int KsNGAP__send_NGSetup(MV_KsRanAmfConnection* conn) {
    if (!conn) return -1;
    if (conn->Busy == 1) return 2;
    MV_Socket* s = conn->siSocket.load();
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "NGSetup Request Connection for ranAmfConn=%p siSocket=%p ID=%u <%s|%s|%d>",
             static_cast<void*>(conn), static_cast<void*>(s), conn->ID, __FILE_NAME__, __func__, __LINE__);
    conn->isOKToRun = 0;
    conn->ConnStatus = KS_NGCONN__SETUP_REQUESTED;
    if (s) s->disableClientAutoReConnect = 0;
    // An association that is still up (after an NG Setup failure) is never reconnected,
    // so the request goes out on it now; a closed one sends it on its next connect.
    if (s && s->isConnected == 1 && s->isActive == 1) sendNGSetupRequest(conn);
    return 1;
}

int KsNGAP__send_NGRanConfigurationUpdate(MV_KsRanAmfConnection* conn) {
    if (!conn) return -1;
    KsNgapBuildNotes notes;
    MV_AMF_DT_RANConfigurationUpdate* r = KsNGAP___build_RANConfigurationUpdate(conn->ran, &notes);
    KsNGAP___reportBuildNotes(notes);
    int sent = sendRecord(35, 0, r, conn);
    __mv_amf_memfree_pdu_RANConfigurationUpdate(r);
    if (sent > 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Sent RANConfigurationUpdate   %s|%s|%d", __FILE_NAME__, __func__,
                 __LINE__);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Sending RANConfigurationUpdate Failed  with sts=%d   %s|%s|%d",
                 sent, __FILE_NAME__, __func__, __LINE__);
    return sent > 0 ? 1 : 0;
}

int KsNGAP__send_NGReset_Request(MV_KsRanAmfConnection* conn) {
    if (!conn) return -1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "NGReset for ranAmfConn-ID=%u <%s|%s|%d>", conn->ID, __FILE_NAME__,
             __func__, __LINE__);
    MV_AMF_DT_NGReset* r = KsNGAP___build_NGReset();
    int sent = sendRecord(20, 0, r, conn);
    __mv_amf_memfree_pdu_NGReset(r);
    if (sent > 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Sent NGReset   %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Sending NGReset Failed  with sts=%d   %s|%s|%d", sent,
                 __FILE_NAME__, __func__, __LINE__);
    return sent > 0 ? 1 : 0;
}

// ---------------------------------------------------------------- start

namespace {

int registerHandler(json_t*) {
    __mv_ngap_set_app_error_handler(KsNGAP__handle_bad_input);
    __mv_ngap_set_app_messahe_handler(KsNGAP__handle_ngap_message);
    return 1;
}

}  // namespace

void KsNGAP__Init() {
    KsEngine__RegisterStartStep(KsStartSlot::NGAPHandlers, registerHandler);
    KsEngine__SetRanAmfConnector(KsNGAP__StartAMFConnection);
}
