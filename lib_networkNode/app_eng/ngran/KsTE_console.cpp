// The console's requests on element connections: the list of a type's pairs with their
// status, and a command to one pair.
#include <arpa/inet.h>

#include <cstring>
#include <mutex>

#include "KsTE.h"
#include "KsUECServer.h"
#include "mv_alloc.h"
#include "mv_bytes.h"
#include "mv_core.h"

namespace {

void answerHeader(__uec_msg_header& out, const __uec_msg_header& in, uint32_t type, uint32_t size) {
    out.MessageSize = size;
    out.MessageType = type;
    out.RequestNo = in.RequestNo;
    out.siSocket = 0;
}

// An address in a status row: IPv4 as its four octets; an IPv6 address only says so.
void address(const char* text, uint8_t (&bytes)[16], uint16_t& type) {
    if (!text || !*text) return;
    if (strchr(text + 1, ':')) {
        type = 6;
        return;
    }
    type = 4;
    uint32_t v = inet_addr(text);  // network order, as the row carries it
    memcpy(bytes, &v, sizeof v);
}

}  // namespace

void KsUECServer___handle_nodeConnectionStatus(__uec_node_connection* message) {
    uint32_t type = message->TEApplicationType;
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "UEC_NodeConnection-Status  TEApplicationType=%u  MSize=%u  <%s|%s|%d>",
             type, message->Header.MessageSize, __FILE_NAME__, __func__, __LINE__);
    auto* r = static_cast<__uec_node_connection_status_list*>(__mv_allocM(sizeof(__uec_node_connection_status_list)));
    memset(r, 0, sizeof *r);
    r->TEApplicationType = type;
    uint32_t rows = 0, left = 0;
    for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c)) {
        if (c->ApplicationType != type) continue;
        // The nodes are asked first, with no lock of ours held.
        for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s))
            KsTE__UpdateConnStatus(s->ksTE.load(), type);
        std::lock_guard g(c->ksTEClientLock);
        for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s)) {
            if (rows == kUecRowsNodeConnStatus) {
                ++left;
                continue;
            }
            __uec_node_connection_status row{};
            row.ConnectionId = s->ConnectionId;
            row.ConnectionStatus = s->ConnectionStatus.load();
            row.TEApplicationType = type;
            char pair[32];
            snprintf(pair, sizeof pair, "TD-%u DUT-%u", c->ID, s->ID);
            memcpy(row.ConnString, pair, strnlen(pair, sizeof row.ConnString));
            address(s->IP_1, row.ServerIP_1, row.ServerIP_1Type);
            address(s->IP_2, row.ServerIP_2, row.ServerIP_2Type);
            address(c->IP_1, row.ClientIP_1, row.ClientIP_1Type);
            address(c->IP_2, row.ClientIP_2, row.ClientIP_2Type);
            row.Server_1Port = s->Port_1;
            row.Server_2Port = s->Port_2;
            row.Client_1Port = c->Port_1;
            row.Client_2Port = c->Port_2;
            memcpy(r->buffer + rows * sizeof row, &row, sizeof row);
            ++rows;
        }
    }
    if (left)
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "%u connections of TEApplicationType=%u do not fit the answer, %u sent <%s|%s|%d>", left, type, rows,
                 __FILE_NAME__, __func__, __LINE__);
    r->Count = rows;
    answerHeader(r->Header, message->Header, VELTA_UEC_MSG_TYP__NODE_CONNECTION_RESPONSE,
                 uint32_t(offsetof(__uec_node_connection_status_list, buffer) + rows * sizeof(__uec_node_connection_status)));
    KsUECServer___respond(message, r, r->Header.MessageSize, "UEC_NodeConnectionStatusList");
    __mv_freeM(r);
    KsUECServer___release(message);
}

void KsUECServer___handle_nodeConnectionCommand(__uec_node_connection* message) {
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "UEC_NodeConnection-Command  TEApplicationType=%u  ID=%u  Command=%u  MSize=%u  <%s|%s|%d>",
             message->TEApplicationType, message->ID, message->Command, message->Header.MessageSize, __FILE_NAME__,
             __func__, __LINE__);
    KsTE__InitCommand(message->TEApplicationType, message->ID, message->Command);
    __uec_node_command_response r{};
    answerHeader(r.Header, message->Header, VELTA_UEC_MSG_TYP__NODE_CONNECTION_COMMAND_RESPONSE, sizeof r);
    r.ConnectionId = message->ID;
    if (KsTEServer* s = KsTE__FindServer(message->TEApplicationType, message->ID, nullptr)) {
        KsTE__UpdateConnStatus(s->ksTE.load(), message->TEApplicationType);
        r.ConnectionStatus = s->ConnectionStatus.load();
    }
    r.CommandStatus = 0;
    r.TEApplicationType = message->TEApplicationType;
    KsUECServer___respond(message, &r, sizeof r, "UEC_NodeConnectionStatusList");
    KsUECServer___release(message);
}
