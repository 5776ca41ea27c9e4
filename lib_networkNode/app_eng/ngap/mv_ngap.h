// The NGAP node layer: the NGAP codec joined to an SCTP association of the socket engine.
// Upward it offers one send per PDU and one callback through which every decoded PDU
// reaches the application. It keeps no protocol state.
//
// Threads and ownership:
//   receive  __mv_ngap_on_buffer_recv is the socket's OnBufferReceive. It runs on the
//            thread that delivers the association's messages, in the order the socket
//            engine hands them over (SCTP keeps order within a stream only); it copies
//            the PDU once into a coding context on its stack, gives the socket buffer back,
//            decodes into one freshly allocated record and calls the application's handler
//            on the same thread. The handler owns the record and frees it with the PDU's
//            __mv_amf_memfree_pdu_<PDU>; it must hand long work elsewhere.
//   send     __mv_ngap_send_<PDU> runs on the caller's thread, from any thread: it encodes
//            into a coding context on the caller's stack and makes one socket send; it
//            allocates nothing and never frees the record, which stays the caller's.
// Results of the send family: the bytes sent (above 0), -1 when encoding or sending
// failed, -ENOENT when the encoder produced nothing. A caller tests for a value below 1.
#pragma once

#include <cstdint>

#include "mv_amf_asn.h"
#include "mv_ngap_pdus.h"
#include "mv_socket_engine.h"

// The NGAP payload protocol identifier a node's socket carries on every message.
#define MV_NGAP_PPID 60

// One per SCTP association, hung on the socket's transportEng. Made by the application
// at the first connect (or accept); it stays with its socket across reconnects.
struct __attribute__((packed)) __mv_ngap_node {
    MV_Socket* siSocket;  // the association
    void* RANClient;      // free for the application
    int NodeType;
    int CloseCause;  // why the association went away; 0 on connect
};
typedef __mv_ngap_node MV_NGAPNode;

// messageType: 0 initiatingMessage, 1 successfulOutcome, 2 unsuccessfulOutcome.
// msg is the decoded __mv_amf_dt_<PDU> record (messageId is the procedure code,
// transportObject the node); the handler owns it.
typedef void (*fp_ngap_app_messahe_handler)(uint8_t procedureCode, uint8_t messageType, void* msg, MV_NGAPNode* node);

// Set once at start, before any association runs; a null handler makes every received
// message a logged drop.
void __mv_ngap_set_app_messahe_handler(fp_ngap_app_messahe_handler handler);

// Input from the peer that the layer could not take as it came: called once per such
// message on the receiving thread, after the layer's own line in the stack log, so that
// the application counts it and names the peer. procedureCode and form are -1 where the
// message did not get that far. A message that decoded only in part still goes to the
// message handler afterwards ("decoded in part"); every other one was dropped.
typedef void (*fp_ngap_app_error_handler)(MV_NGAPNode* node, int procedureCode, int form, const char* reason);
void __mv_ngap_set_app_error_handler(fp_ngap_app_error_handler handler);

// The socket's OnBufferReceive: takes the buffer, hands it to __mv_ngap_handle_message
// with the socket's node. The buffer goes back to its pool exactly once on every path.
void __mv_ngap_on_buffer_recv(MV_SocketSCTPBuffer* buffer);

// Dispatch on the procedure code (byte 1 of the PDU). Consumes the buffer: it is back
// in its pool when this returns. 1 the record reached the handler, 0 dropped (logged),
// -1 no buffer.
int __mv_ngap_handle_message(MV_NGAPNode* node, MV_SocketSCTPBuffer* buffer);

// One NGAP message on the node's association (next stream, PPID of the socket). Bytes
// sent, or -1 for a null node, a node without socket, or a failed send.
int __mv_ngap_sendmsg(const uint8_t* buffer, int len, MV_NGAPNode* node);
// The same on the given stream (TS 38.412: stream 0 for non-UE-associated signalling).
int __mv_ngap_sendmsg2(const uint8_t* buffer, int len, MV_NGAPNode* node, uint16_t streamId);
// The one stream that carries every message of the UE of that NGAP id on the node's
// association: 1 to the last outbound stream, or 0 when the association has only one.
uint16_t __mv_ngap_ue_stream(const MV_NGAPNode* node, uint64_t ueNgapId);

// __mv_ngap_send_<PDU>(record, node) for each of the 79 PDUs of MV_NGAP_PDU_LIST: a PDU
// with a RAN UE NGAP ID (else an AMF UE NGAP ID) goes on that UE's stream, any other on
// stream 0. E.g.
// __mv_ngap_send_NGSetupRequest, __mv_ngap_send_InitialUEMessage,
// __mv_ngap_send_UplinkNASTransport, __mv_ngap_send_OverloadStop.
#define MV_NGAP_DECLARE_SEND(N) int __mv_ngap_send_##N(__mv_amf_dt_##N* record, MV_NGAPNode* node);
MV_NGAP_PDU_LIST(MV_NGAP_DECLARE_SEND)
#undef MV_NGAP_DECLARE_SEND

// The handler group of each procedure code 0 to 52, e.g. __mv_amf_handle_NGSetup_Procedure.
// _Procedure copies the buffer's PDU into a context, consumes the buffer and calls the
// form's handler; a form handler decodes its PDU from the context and calls the
// application's handler, or logs and drops a form the procedure does not have.
// All return 1 when the record reached the application, else 0.
#define MV_NGAP_DECLARE_HANDLERS(code, P)                                                              \
    int __mv_amf_handle_##P##_Procedure(MV_NGAPNode* node, MV_SocketSCTPBuffer* buffer);              \
    int __mv_amf_handle_##P##_InitiatingMessage(MV_NGAPNode* node, __mv_asn_coding_context* context); \
    int __mv_amf_handle_##P##_SuccessfulMessage(MV_NGAPNode* node, __mv_asn_coding_context* context); \
    int __mv_amf_handle_##P##_UnSuccessfulMessage(MV_NGAPNode* node, __mv_asn_coding_context* context);
MV_NGAP_PROCEDURE_LIST(MV_NGAP_DECLARE_HANDLERS)
#undef MV_NGAP_DECLARE_HANDLERS

// ---------------------------------------------------------------- session transfer containers
// The contents of the octet strings PDUSessionResourceSetupRequestTransfer and
// PDUSessionResourceModifyRequestTransfer: a bare IE container with no PDU head.

// Writes the container's octets from buffer[0] of a context it sets up itself; pos is
// their count afterwards. That count, or a negative status (nothing usable in the context).
[[nodiscard]] int __mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record,
                                                                __mv_asn_coding_context* context);
[[nodiscard]] int __mv_ngap_encode_pdu_PDUSessionResourceModifyRequestTransfer(
    MV_AMF_DT_PDUSessionResourceModifyRequestTransfer* record, __mv_asn_coding_context* context);
// Decodes the container set up for decoding in context (pos 0, usedBits 7, len the octet
// count) into the caller's zeroed record: 1 when every IE decoded, else the failing
// step's result with decodingError 1. What was decoded stays in the record either way;
// free it with __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer.
[[nodiscard]] int __mv_ngap_decode_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record,
                                                                __mv_asn_coding_context* context);
// Frees the members and the record; a null record does nothing.
void __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record);
