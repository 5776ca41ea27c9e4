// Messages the Diameter tests and the test node exchange: a credit-control request of
// the shape the policy client sends, and the answer a policy server gives it.
#pragma once

#include "mv_diam.h"

namespace ksd {

// Tracked to ue through the session table, with no time-out.
inline MV_DiamMessage* ccr(MV_DiamNode* host, MV_DiamNode* peer, uint32_t app, void* ue) {
    MV_DiamMessage* m = __mv_diam_create_request3(272, app, ue, nullptr, 0);
    char sid[MV_DIAM_SESSIONID_SIZE];
    __mv_diam_add_string_avp(m, 263, 0, 1, sid, uint32_t(__mv_diam_generate_sessionid2(sid, host)));
    __mv_diam_add_host_name(m, host);
    __mv_diam_add_host_realm(m, host);
    __mv_diam_add_peer_realm(m, peer);
    __mv_diam_add_peer_name(m, peer);
    __mv_diam_add_uint32_avp(m, 258, 0, 1, app);
    __mv_diam_add_uint32_avp(m, 416, 0, 1, 1);
    __mv_diam_add_uint32_avp(m, 415, 0, 1, 0);
    return m;
}

// Answers request 2001 on its connection, from the identity of the connection's host.
inline void answer2001(MV_DiamMessage* request) {
    MV_DiamNode* host = request->srcDiamNode->hostNode;
    MV_DiamMessage* a = __mv_diam_create_answer(request);
    const uint8_t* sid;
    uint32_t n;
    if (__mv_diam_get_string_avp_value(request, 263, &sid, &n)) __mv_diam_add_string_avp(a, 263, 0, 1, sid, n);
    __mv_diam_add_uint32_avp(a, 268, 0, 1, DIAMETER_SUCCESS);
    __mv_diam_add_host_name(a, host);
    __mv_diam_add_host_realm(a, host);
    __mv_diam_add_uint32_avp(a, 258, 0, 1, __mv_diam_get_applicationid(request));
    __mv_diam_add_uint32_avp(a, 416, 0, 1, 1);
    __mv_diam_add_uint32_avp(a, 415, 0, 1, 0);
    __mv_diam_send_answer(request, a);
    __mv_diam_freeMessage2(a);
}

}  // namespace ksd
