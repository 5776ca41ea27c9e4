// The gNB's associations to its AMFs: opening them, the connect and close events,
// the console's connection commands, and the one place that sends.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "mv_socket_engine.h"

namespace {

// The NGAP node layer joins codec and socket; until it is part of the build the path
// can neither open an association nor send, and says so.
int seamStart(MV_KsRanAmfConnection* conn) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "NGAP node layer is not part of this build, RAN-%u not connected to AMF-ID[%u] %s|%s|%d",
             conn->ran ? conn->ran->ID : 0u, conn->amf ? conn->amf->ID : 0u, __FILE_NAME__, __func__, __LINE__);
    return 0;
}

int seamSend(uint8_t procedureCode, uint8_t form, void*, MV_KsRanAmfConnection*) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "NGAP node layer is not part of this build, procedureCode=%u form=%u not sent %s|%s|%d", procedureCode,
             form, __FILE_NAME__, __func__, __LINE__);
    return -1;
}

int socketClose(MV_KsRanAmfConnection* conn) {
    MV_Socket* s = conn->siSocket.load();
    if (!s) return -1;
    return __mv_socket_engine_sctp__close_client_connection(s);
}

constexpr KsNGAPPath kSocketPath{seamStart, seamSend, socketClose};
std::atomic<const KsNGAPPath*> path{&kSocketPath};

// The message names of the connection procedures, for the send family's logs.
int sendRecord(uint8_t procedureCode, uint8_t form, void* record, MV_KsRanAmfConnection* conn) {
    return path.load()->Send(procedureCode, form, record, conn);
}

}  // namespace

void KsNGAP__SetPath(const KsNGAPPath* p) { path = p ? p : &kSocketPath; }

bool KsNGAP__OkToSend(const MV_KsRanAmfConnection* conn) {
    return conn && conn->isOKToRun == 1 && conn->ConnStatus == KS_NGCONN__READY;
}

MV_KsRanAmfConnection* KsNGAP___ConnectionOfNode(MV_NGAPNode*) { return nullptr; }
void KsNGAP___SetCloseCause(MV_NGAPNode*, int) {}

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
    MV_AMF_DT_NGSetupRequest* r = KsNGAP___build_NGSetupRequest(conn->ran);
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

void KsNGAP_on_connected_to_amf(MV_Socket*) {}

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
    MV_AMF_DT_RANConfigurationUpdate* r = KsNGAP___build_RANConfigurationUpdate(conn->ran);
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
