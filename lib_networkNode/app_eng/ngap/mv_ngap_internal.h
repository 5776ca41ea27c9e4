// What the node layer's sources share, and the seams its tests use; not for the application.
#pragma once

#include "mv_ngap.h"

#define MV_NGAP_LOG(level, fmt, ...) __mv_log(MV_STK_LOG, LOG_CAT_STREAM, level, fmt, ##__VA_ARGS__)

// One encoder of the codec behind a type-free face, so that one send body serves all PDUs.
typedef int (*mv_ngap_encoder)(void* record, __mv_asn_coding_context* context);

// The body of every __mv_ngap_send_<PDU>: encode with enc into a stack context, send on
// the stream of ueKey (below 0: non-UE-associated, stream 0), log with name. Results as
// the send family's.
int __mv_ngap___send_pdu(const char* name, mv_ngap_encoder enc, void* record, MV_NGAPNode* node, int64_t ueKey);

// The UE a PDU record belongs to: its RAN UE NGAP ID, else its AMF UE NGAP ID, else -1 for
// a message of the interface as a whole.
template <class R>
int64_t __mv_ngap___ue_key(const R* r) {
    if (!r) return -1;
    if constexpr (requires { r->rANUENGAPID_isset; })
        if (r->rANUENGAPID_isset == 1) return int64_t(r->rANUENGAPID);
    if constexpr (requires { r->aMFUENGAPID_isset; })
        if (r->aMFUENGAPID_isset == 1) return int64_t(r->aMFUENGAPID);
    return -1;
}

// The codec's PDU of a procedure code and form (0 initiating, 1 successful, 2 unsuccessful);
// null where the procedure has no such form or the code is unknown.
const MvAsnPdu* __mv_ngap___form_pdu(unsigned procedureCode, unsigned form);
