// Request tracking without sockets: which answers match, and what time does to open requests.
#include <gtest/gtest.h>

#include "mv_core.h"
#include "pfcp_codec.h"
#include "pfcp_xact.h"

namespace {

// Stand-ins for two peers; the table only compares their addresses.
__mv_pfcp_node* const kA = reinterpret_cast<__mv_pfcp_node*>(0x1000);
__mv_pfcp_node* const kB = reinterpret_cast<__mv_pfcp_node*>(0x2000);

int gSent = 0;
int countSend(__mv_pfcp_node*, const uint8_t*, int len) {
    ++gSent;
    return len;
}

__mv_buff_t* datagram() {
    static bool core = (__init_morva_core(), true);
    (void)core;
    __mv_buff_t* b = __mv_buff__alloc(16);
    b->len = 16;
    return b;
}

TEST(PfcpXact, AnAnswerMatchesOnlyItsOwnOpenRequest) {
    PfcpXactTable t;
    ASSERT_TRUE(t.init(100, 2, 400, 1, 1000));
    uint32_t s1 = t.reserve(0), s2 = t.reserve(0);
    EXPECT_EQ(s1, 100u);
    EXPECT_EQ(s2, 101u);
    EXPECT_EQ(t.reserve(0), 0u);  // two open at most
    int ud = 0;
    ASSERT_TRUE(t.sent(s1, kA, PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE, 0, 502, &ud, datagram(), 0));
    __mv_buff_t* spare = datagram();
    EXPECT_FALSE(t.sent(s1, kA, PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE, 0, 502, &ud, spare, 0));  // not a reservation
    __mv_buff__free(spare);
    __mv_pfcp_xact_info info{};
    EXPECT_EQ(t.match(s2, kA, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE, 502, info), PfcpXactTable::NONE);  // not sent
    EXPECT_EQ(t.match(s1, kB, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE, 502, info), PfcpXactTable::NONE);  // other peer
    EXPECT_EQ(t.match(s1, kA, PFCP_SESSION_MODIFICATION_RESPONSE_TYPE, 502, info), PfcpXactTable::NONE);   // other type
    EXPECT_EQ(t.match(s1, kA, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE, 999, info), PfcpXactTable::WRONG_SEID);
    ASSERT_EQ(t.match(s1, kA, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE, 502, info), PfcpXactTable::MATCHED);
    EXPECT_EQ(info.userData, &ud);
    EXPECT_EQ(info.seq, s1);
    EXPECT_EQ(t.match(s1, kA, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE, 502, info), PfcpXactTable::NONE);  // answered
    // The freed row comes back with a new number: a late answer to the old one finds nothing.
    uint32_t s3 = t.reserve(0);
    EXPECT_EQ(s3, 102u);
    ASSERT_TRUE(t.sent(s3, kA, PFCP_HEARTBEAT_REQUEST_TYPE, 0, 0, nullptr, datagram(), 0));
    EXPECT_EQ(t.match(s1, kA, PFCP_HEARTBEAT_RESPONSE_TYPE, 0, info), PfcpXactTable::NONE);
    EXPECT_EQ(t.match(s3, kA, PFCP_HEARTBEAT_RESPONSE_TYPE, 0, info), PfcpXactTable::MATCHED);
}

TEST(PfcpXact, RequestsGoOnceMoreAfterT1ThenFailWhileHeartbeatsAndReservationsLapse) {
    PfcpXactTable t;
    ASSERT_TRUE(t.init(200, 8, 400, 1, 1000));
    int ud = 0;
    uint32_t req = t.reserve(0), hb = t.reserve(0), unsent = t.reserve(0);
    ASSERT_TRUE(t.sent(req, kA, PFCP_SESSION_DELETION_REQUEST_TYPE, 7, 0, &ud, datagram(), 0));
    ASSERT_TRUE(t.sent(hb, kA, PFCP_HEARTBEAT_REQUEST_TYPE, 0, 0, nullptr, datagram(), 0));
    (void)unsent;
    __mv_pfcp_xact_info failed[4];
    int re = 0;
    gSent = 0;
    EXPECT_EQ(t.expire(399, countSend, failed, 4, &re), 0);
    EXPECT_EQ(gSent, 0);
    EXPECT_EQ(t.expire(400, countSend, failed, 4, &re), 0);  // the request again; the reservation gone
    EXPECT_EQ(gSent, 1);
    EXPECT_EQ(re, 1);
    EXPECT_EQ(t.open(), 2u);
    EXPECT_EQ(t.expire(799, countSend, failed, 4, &re), 0);
    ASSERT_EQ(t.expire(800, countSend, failed, 4, &re), 1);  // no answer to the retransmission either
    EXPECT_EQ(failed[0].seq, req);
    EXPECT_EQ(failed[0].userData, &ud);
    EXPECT_EQ(failed[0].retries, 1);
    EXPECT_EQ(failed[0].seid, 7u);
    ASSERT_EQ(t.expire(1000, countSend, failed, 4, &re), 1);  // the heartbeat, never sent again
    EXPECT_EQ(failed[0].type, PFCP_HEARTBEAT_REQUEST_TYPE);
    EXPECT_EQ(gSent, 1);
    EXPECT_EQ(t.open(), 0u);
}

}  // namespace
