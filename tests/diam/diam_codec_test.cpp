// The codec and the session table in memory: every data type through encode and decode,
// the lengths and padding on the wire, bad input of every kind, the type lookup order,
// and a request taken exactly once by its answer or its time-out.
#include <random>
#include <thread>

#include "diam_env.h"

namespace {

using ksd::Bytes;

// Private codes typed by the pre-handler, one per data type.
constexpr uint32_t kInt32 = 65001, kInt64 = 65002, kU32 = 65003, kU64 = 65004, kGroup = 65005, kText = 65006;
uint32_t testTypes(uint32_t code, uint32_t) {
    switch (code) {
        case kInt32: return 2;
        case kInt64: return 3;
        case kU32: return 4;
        case kU64: return 5;
        case kGroup: return 6;
        case kText: return 1;
        default: return 0;
    }
}
struct PreHandler {
    PreHandler() { __mv_diam_set_dict_pre_handler(testTypes); }
    ~PreHandler() { __mv_diam_set_dict_pre_handler(nullptr); }
};

std::vector<uint8_t> encode(MV_DiamMessage* m) {
    std::vector<uint8_t> b(MV_DIAM_BUFFER_SIZE);
    int n = __mv_diam_encodeMessage(m, b.data(), uint32_t(b.size()));
    b.resize(n > 0 ? size_t(n) : 0);
    return b;
}

uint32_t be32(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3];
}

TEST(DiamCodec, EveryDataTypeRoundTripsWithVendorFlagsAndPadding) {
    PreHandler types;
    MV_DiamMessage* m = __mv_diam_create_message2(316, ksd::kS6a, 0x11223344, 0x55667788, 1);
    __mv_diam_add_string_avp(m, 263, 0, 1, "a;b;c", 5);  // 13 bytes and 3 of padding
    __mv_diam_add_int32_avp(m, kInt32, 0, 1, -123456);
    __mv_diam_add_int64_avp(m, kInt64, MV_DIAM_VENDOR_3GPP, 0, -1234567890123LL);
    __mv_diam_add_uint32_avp(m, kU32, 0, 0, 0xFFFFFFFFu);
    __mv_diam_add_uint64_avp(m, kU64, 7, 1, 0xFEDCBA9876543210ULL);
    MV_DiamAvp* g = __mv_diam_add_grouped_avp(m, kGroup, MV_DIAM_VENDOR_3GPP, 1);
    __mv_diam_add_string_avp_to_grpavp(g, kText, 0, 1, "x", 1);
    MV_DiamAvp* inner = __mv_diam_add_grouped_avp_toavp(g, kGroup, 0, 0);
    __mv_diam_add_int32_avp_to_grpavp(inner, kInt32, 0, 0, INT32_MIN);
    __mv_diam_add_uint64_avp_to_grpavp(inner, kU64, 0, 0, 1);
    __mv_diam_add_int64_avp_to_grpavp(g, kInt64, 0, 0, INT64_MAX);
    __mv_diam_add_uint32_avp_to_grpavp(g, kU32, 0, 0, 7);
    __mv_diam_add_string_avp_to_grpavp(g, kText, 0, 0, nullptr, 0);
    uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    __mv_diam_add_ipV6address_avp_to_grouped_avp(g, kText, 0, 0, v6);
    uint8_t v4[4] = {10, 1, 2, 3};
    __mv_diam_add_ipV4address_avp(m, 257, 0, 1, v4);
    __mv_diam_add_time_avp(m, 55, 0, 0, 0);
    std::vector<uint8_t> wire = encode(m);
    ASSERT_FALSE(wire.empty());
    EXPECT_EQ(wire.size() % 4, 0u);
    EXPECT_EQ(be32(wire, 0) & 0xFFFFFF, wire.size());

    // The 5-byte string: length 13 on the wire, 3 bytes of padding after it.
    EXPECT_EQ(be32(wire, 20), 263u);
    EXPECT_EQ(be32(wire, 24) & 0xFFFFFF, 13u);
    EXPECT_EQ(std::vector<uint8_t>(wire.begin() + 33, wire.begin() + 36), std::vector<uint8_t>(3, 0));
    // The group's length holds its children with their padding and none of its own.
    MV_DiamAvp* eg = __mv_diam_find_avp(kGroup, 0, m);
    uint32_t children = 0;
    for (MV_DiamAvp* c = eg->GroupHead; c; c = c->Next) children += c->AvpLength + c->Padding;
    EXPECT_EQ(eg->AvpLength, 12 + children);
    EXPECT_EQ(eg->GroupHead->AvpLength, 9u);
    EXPECT_EQ(eg->GroupHead->Padding, 3u);

    MV_DiamDecodeStatus st{};
    MV_DiamMessage* d = __mv_diam_decodeMessage(wire, &st);
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(st.Code, 0u) << st.Reason;
    EXPECT_EQ(__mv_diam_get_cmdcode(d), 316u);
    EXPECT_EQ(__mv_diam_get_applicationid(d), ksd::kS6a);
    EXPECT_EQ(ntohl(__mv_diam_get_hbhid(d)), 0x11223344u);
    EXPECT_EQ(ntohl(__mv_diam_get_e2eid(d)), 0x55667788u);
    EXPECT_EQ(__mv_diam_get_cmdflags(d), MV_DIAM_FLAG_REQUEST | MV_DIAM_FLAG_PROXYABLE);
    int32_t i32 = 0;
    int64_t i64 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    const uint8_t* s = nullptr;
    uint32_t slen = 0;
    EXPECT_TRUE(__mv_diam_get_string_avp_value(d, 263, &s, &slen));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(s), slen), "a;b;c");
    EXPECT_EQ(s[slen], 0);  // a NUL behind every string
    EXPECT_TRUE(__mv_diam_get_int32_avp_value(d, kInt32, &i32));
    EXPECT_EQ(i32, -123456);
    EXPECT_TRUE(__mv_diam_get_int64_avp_value(d, kInt64, &i64));
    EXPECT_EQ(i64, -1234567890123LL);
    EXPECT_TRUE(__mv_diam_get_uint32_avp_value(d, kU32, &u32));
    EXPECT_EQ(u32, 0xFFFFFFFFu);
    EXPECT_TRUE(__mv_diam_get_uint64_avp_value(d, kU64, &u64));
    EXPECT_EQ(u64, 0xFEDCBA9876543210ULL);
    MV_DiamAvp* a64 = __mv_diam_find_avp(kInt64, 0, d);
    EXPECT_EQ(a64->VendorId, uint32_t(MV_DIAM_VENDOR_3GPP));
    EXPECT_EQ(a64->Flags & (MV_DIAM_AVP_FLAG_VENDOR | MV_DIAM_AVP_FLAG_MANDATORY), MV_DIAM_AVP_FLAG_VENDOR);
    MV_DiamAvp* dg = __mv_diam_find_avp(kGroup, 0, d);
    ASSERT_NE(dg, nullptr);
    EXPECT_EQ(dg->DataType, MV_DIAM_TYPE_GROUPED);
    EXPECT_EQ(dg->AvpCount, 6u);
    MV_DiamAvp* di = __mv_diam_find_avp_in_group(kGroup, 0, dg);
    ASSERT_NE(di, nullptr);
    EXPECT_EQ(__mv_diam_find_avp_in_group(kInt32, 0, di)->intVal, INT32_MIN);
    EXPECT_EQ(__mv_diam_find_avp_in_group(kU64, 0, di)->usInt64Val, 1u);
    EXPECT_EQ(__mv_diam_find_avp_in_group(kInt64, 0, dg)->int64Val, INT64_MAX);
    EXPECT_EQ(__mv_diam_find_avp_in_group(kText, 1, dg)->usInt64Val, 0u);
    MV_DiamAvp* addr = __mv_diam_find_avp_in_group(kText, 2, dg);
    ASSERT_EQ(addr->usInt64Val, 18u);
    EXPECT_EQ(addr->data[1], 2);
    EXPECT_EQ(memcmp(addr->data + 2, v6, 16), 0);
    EXPECT_EQ(__mv_diam_find_avp(257, 0, d)->usInt64Val, 6u);
    EXPECT_EQ(encode(d), wire);  // and back to the same bytes
    __mv_diam_freeMessage2(d);
    __mv_diam_freeMessage2(m);
}

TEST(DiamCodec, DataTypeComesFromThePreHandlerThenTheTableThenThePostHandler) {
    EXPECT_EQ(__mv_diam_get_data_type(268, 0), 4u);    // built in
    EXPECT_EQ(__mv_diam_get_data_type(297, 0), 6u);
    EXPECT_EQ(__mv_diam_get_data_type(65001, 0), 1u);  // nobody knows it
    {
        PreHandler types;
        EXPECT_EQ(__mv_diam_get_data_type(65001, 0), 2u);
    }
    __mv_diam_set_dict_pre_handler([](uint32_t code, uint32_t) -> uint32_t { return code == 268 ? 1 : 0; });
    EXPECT_EQ(__mv_diam_get_data_type(268, 0), 1u);  // the pre-handler overrides the table
    __mv_diam_set_dict_pre_handler(nullptr);
    __mv_diam_set_dict_post_handler([](uint32_t code, uint32_t app) -> uint32_t {
        return code == 268 || (code == 1413 && app == ksd::kS6a) ? 6 : 0;
    });
    EXPECT_EQ(__mv_diam_get_data_type(268, 0), 4u);  // the table before the post-handler
    EXPECT_EQ(__mv_diam_get_data_type(1413, ksd::kS6a), 6u);
    EXPECT_EQ(__mv_diam_get_data_type(1413, ksd::kGx), 1u);
    __mv_diam_set_dict_post_handler(nullptr);

    // A fixed-size type whose bytes do not fit it stays readable as bytes.
    auto b = Bytes::header(0, 316, ksd::kS6a, 1, 2).avp(268, 0x40, {1, 2, 3}).done();
    MV_DiamDecodeStatus st{};
    MV_DiamMessage* d = __mv_diam_decodeMessage(b, &st);
    EXPECT_EQ(st.Code, 0u);
    EXPECT_EQ(__mv_diam_find_avp(268, 0, d)->DataType, MV_DIAM_TYPE_OCTETSTRING);
    EXPECT_EQ(__mv_diam_get_result_code(d), 0u);
    __mv_diam_freeMessage2(d);
}

TEST(DiamCodec, BadInputIsRefusedWithTheResultCodeThatAnswersIt) {
    auto sid = ksd::textv("s;1");
    std::vector<uint8_t> deep = Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).done();
    {
        // 1,000 Failed-AVP groups, each inside the next.
        std::vector<uint8_t> v;
        for (int i = 0; i < 1000; ++i) {
            Bytes g;
            g.avp(279, 0x40, v);
            v = g.b;
        }
        Bytes x;
        x.b = deep;
        x.raw(v.data(), v.size());
        deep = x.done();
    }
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        bool decoded;      // a message comes back (the header was usable)
        uint32_t code;
        uint32_t avpCode;
    };
    std::vector<uint8_t> pastTheBytes = Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).done();
    pastTheBytes[3] = uint8_t(pastTheBytes[3] + 16);
    std::vector<uint8_t> notMultipleOf4 = Bytes::header(0x80, 316, 0, 1, 2).u8(0).done();
    std::vector<uint8_t> version2 = Bytes::header(0x80, 316, 0, 1, 2).done();
    version2[0] = 2;
    const Case cases[] = {
        {"shorter than the header", std::vector<uint8_t>(19, 1), false, DIAMETER_INVALID_MESSAGE_LENGTH, 0},
        {"message length past the bytes", pastTheBytes, true, DIAMETER_INVALID_MESSAGE_LENGTH, 0},
        {"message length not a multiple of 4", notMultipleOf4, true, DIAMETER_INVALID_MESSAGE_LENGTH, 0},
        {"version 2", version2, true, DIAMETER_UNSUPPORTED_VERSION, 0},
        {"AVP overruns the message",
         Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).avp(1, 0x40, ksd::textv("abcd"), 0, 40).done(), true,
         DIAMETER_INVALID_AVP_LENGTH, 1},
        {"AVP length below 8", Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).avp(1, 0x40, {}, 0, 7).done(),
         true, DIAMETER_INVALID_AVP_LENGTH, 1},
        {"vendor flag without a Vendor-Id",
         Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).u32(1402).u8(0xC0).u24(8).done(), true,
         DIAMETER_INVALID_AVP_LENGTH, 1402},
        {"child overruns its group",
         Bytes::header(0x80, 316, 0, 1, 2)
             .avp(263, 0x40, sid)
             .avp(297, 0x40, Bytes().u32(268).u8(0x40).u24(32).u32(2001).b)
             .done(),
         true, DIAMETER_INVALID_AVP_LENGTH, 268},
        {"4 bytes left after the last AVP", Bytes::header(0x80, 316, 0, 1, 2).avp(263, 0x40, sid).u32(0).done(), true,
         DIAMETER_INVALID_AVP_LENGTH, 0},
        {"groups nested 1,000 deep", deep, true, DIAMETER_UNABLE_TO_COMPLY, 279},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MV_DiamDecodeStatus st{};
        MV_DiamMessage* d = __mv_diam_decodeMessage(c.bytes, &st);
        EXPECT_EQ(d != nullptr, c.decoded);
        EXPECT_EQ(st.Code, c.code);
        EXPECT_EQ(st.AvpCode, c.avpCode);
        EXPECT_NE(st.Reason, nullptr);
        // What came before the fault is kept, so that the error answer carries the Session-Id.
        if (d && c.avpCode) {
            EXPECT_NE(__mv_diam_find_avp(263, 0, d), nullptr);
        }
        __mv_diam_freeMessage2(d);
    }

    // A megabyte of random bytes, cut at random places, never reads outside its buffer.
    std::mt19937 rng(19);
    std::vector<uint8_t> noise(1 << 20);
    for (auto& x : noise) x = uint8_t(rng());
    for (size_t at = 0; at < noise.size();) {
        size_t n = std::min<size_t>(rng() % 600, noise.size() - at);
        std::vector<uint8_t> piece(noise.begin() + long(at), noise.begin() + long(at + n));
        if (piece.size() >= 4) {  // some with a consistent header, so that the AVP walk runs
            piece[0] = 1;
            piece[1] = uint8_t(piece.size() >> 16);
            piece[2] = uint8_t(piece.size() >> 8);
            piece[3] = uint8_t(piece.size());
        }
        MV_DiamDecodeStatus st{};
        __mv_diam_freeMessage2(__mv_diam_decodeMessage(piece, &st));
        at += n ? n : 1;
    }
}

TEST(DiamCodec, MessagesThatDoNotFitTheBufferAreNotEncoded) {
    MV_DiamMessage* m = __mv_diam_create_request(316, ksd::kS6a);
    std::string big(MV_DIAM_BUFFER_SIZE, 'x');
    __mv_diam_add_string_avp(m, 1, 0, 1, big.data(), uint32_t(big.size()));
    uint8_t buf[MV_DIAM_BUFFER_SIZE];
    EXPECT_EQ(__mv_diam_encodeMessage(m, buf, sizeof buf), -1);
    __mv_diam_freeMessage2(m);
}

// ---------------------------------------------------------------- the session table

std::atomic<int> fired{0};
std::atomic<void*> firedWith{nullptr};
void onTimeout(void* obj) {
    firedWith = obj;
    ++fired;
}

uint32_t e2eOf(MV_DiamMessage* m) { return ntohl(__mv_diam_get_e2eid(m)); }

TEST(DiamSessionTable, AnAnswerOrATimeOutTakesARequestOnce) {
    int ue = 7;
    fired = 0;
    // Answered: the object once, then nothing.
    MV_DiamMessage* a = __mv_diam_create_request3(316, ksd::kS6a, &ue, onTimeout, 1);
    uint32_t ida = e2eOf(a);
    EXPECT_EQ(__mv_diam_create_request3_getobject(ida), &ue);
    EXPECT_EQ(__mv_diam_create_request3_getobject(ida), nullptr);
    // Timed out: the handler once with the object; the late answer finds nothing.
    MV_DiamMessage* b = __mv_diam_create_request3(316, ksd::kS6a, &ue, onTimeout, 1);
    uint32_t idb = e2eOf(b);
    ASSERT_TRUE(kst::waitFor([] { return fired.load() == 1; }, 10));
    EXPECT_EQ(firedWith.load(), &ue);
    EXPECT_EQ(__mv_diam_create_request3_getobject(idb), nullptr);
    // A failed send gives the row back and the timer never fires.
    MV_DiamMessage* c = __mv_diam_create_request3(316, ksd::kS6a, &ue, onTimeout, 1);
    EXPECT_EQ(__mv_diam_create__request3__clear_timer(c), 1);
    EXPECT_EQ(__mv_diam_create__request3__clear_timer(c), 0);
    // findobject stops the timer and keeps the row for a later answer.
    MV_DiamMessage* d = __mv_diam_create_request3(316, ksd::kS6a, &ue, onTimeout, 1);
    EXPECT_EQ(__mv_diam_create_request3_findobject(e2eOf(d)), &ue);
    sleep(3);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_EQ(__mv_diam_create_request3_getobject(e2eOf(d)), &ue);
    // An unknown identifier, from below the table or never issued.
    EXPECT_EQ(__mv_diam_create_request3_getobject(5), nullptr);
    EXPECT_EQ(__mv_diam_create_request3_getobject(ida + 1000000), nullptr);
    for (MV_DiamMessage* m : {a, b, c, d}) __mv_diam_freeMessage2(m);
}

TEST(DiamSessionTable, AFullTableRefusesAndAReusedRowRefusesItsOldIdentifier) {
    // The table of this process has 4096 rows.
    std::vector<uint32_t> ids;
    int ue = 1;
    for (;;) {
        MV_DiamMessage* m = __mv_diam_create_request3(316, ksd::kS6a, &ue, nullptr, 0);
        if (!m) break;
        ids.push_back(e2eOf(m));
        __mv_diam_freeMessage2(m);
        ASSERT_LE(ids.size(), 4096u);
    }
    EXPECT_EQ(ids.size(), 4096u);
    EXPECT_GE(__mvDiamStack->Counters.TableFull.load(), 1u);
    for (uint32_t id : ids) EXPECT_EQ(__mv_diam_create_request3_getobject(id), &ue);
    // Every row again: each comes back with a new identifier, on the same row.
    int other = 2;
    for (uint32_t old : ids) {
        MV_DiamMessage* m = __mv_diam_create_request3(316, ksd::kS6a, &other, nullptr, 0);
        ASSERT_NE(m, nullptr);
        uint32_t id = e2eOf(m);
        EXPECT_NE(id, old);
        EXPECT_EQ((id - 1552) % 4096, (old - 1552) % 4096);
        EXPECT_EQ(__mv_diam_create_request3_getobject(old), nullptr);
        EXPECT_EQ(__mv_diam_create_request3_getobject(id), &other);
        __mv_diam_freeMessage2(m);
    }
}

TEST(DiamSessionTable, AnswersRacingTimeOutsSettleEachRequestExactlyOnce) {
    constexpr int kRequests = 2000;
    std::vector<int> ue(kRequests);
    std::vector<uint32_t> ids;
    fired = 0;
    for (int i = 0; i < kRequests; ++i) {
        MV_DiamMessage* m = __mv_diam_create_request3(316, ksd::kS6a, &ue[size_t(i)], onTimeout, 1);
        ids.push_back(e2eOf(m));
        __mv_diam_freeMessage2(m);
    }
    // Answers from two threads over the time the timers fire.
    std::atomic<int> answered{0};
    auto answer = [&](int from) {
        for (int i = from; i < kRequests; i += 2) {
            if (__mv_diam_create_request3_getobject(ids[size_t(i)])) ++answered;
            if (i % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    std::thread t1(answer, 0), t2(answer, 1);
    t1.join();
    t2.join();
    ASSERT_TRUE(kst::waitFor([&] { return answered + fired == kRequests; }, 10))
        << answered << " answered, " << fired << " timed out";
    sleep(2);
    EXPECT_EQ(answered + fired, kRequests);
}

// ---------------------------------------------------------------- application handlers

std::atomic<int> handled{0};
void countIt(MV_DiamMessage* m) {
    ++handled;
    __mv_diam_freeMessage2(m);
}
void otherHandler(MV_DiamMessage* m) { __mv_diam_freeMessage2(m); }

TEST(DiamHandlers, OneHandlerPerApplicationAndTheRestDroppedWithALine) {
    EXPECT_EQ(__mv_diam_register_app_handler(4, countIt), 1);
    EXPECT_EQ(__mv_diam_register_app_handler(4, countIt), 1);
    EXPECT_EQ(__mv_diam_register_app_handler(4, otherHandler), 0);
    EXPECT_EQ(__mv_diam_find_app_handler(4), countIt);
    __mv_diam_dispatch_by_application(__mv_diam_create_message2(272, 4, 1, 2, 0));
    EXPECT_EQ(handled.load(), 1);
    uint64_t before = __mvDiamStack->Counters.UnhandledMessages;
    __mv_diam_dispatch_by_application(__mv_diam_create_message2(272, 16777999, 1, 2, 0));
    EXPECT_EQ(__mvDiamStack->Counters.UnhandledMessages, before + 1);
    EXPECT_TRUE(kst::waitFor(
        [] { return ksd::stackLog().find("answer Command-Code=272 for Application-Id=16777999") != std::string::npos; },
        5));
}

// ---------------------------------------------------------------- tshark

TEST(DiamCodec, RequestsWithEveryDataTypeAndBuiltAnswersDissectClean) {
    if (!ksd::tsharkPresent()) GTEST_SKIP() << "tshark is not installed";
    // A credit-control request with AVPs of all six types, as tshark's dictionary knows them.
    MV_DiamNode* host = __mv_diam_new_node("ws", "ks.ws.realm", "ws.realm");
    MV_DiamNode* peer = __mv_diam_new_node("wsp", "ocs.ws.realm", "ws.realm");
    MV_DiamMessage* m = ksd::ccr(host, peer, 4, nullptr);
    __mv_diam_add_string_avp(m, 461, 0, 1, "32251@3gpp.org", 14);
    __mv_diam_add_time_avp(m, 55, 0, 1, 0);
    MV_DiamAvp* rsu = __mv_diam_add_grouped_avp(m, 437, 0, 1);
    MV_DiamAvp* money = __mv_diam_add_grouped_avp_toavp(rsu, 413, 0, 1);
    MV_DiamAvp* unit = __mv_diam_add_grouped_avp_toavp(money, 445, 0, 1);
    __mv_diam_add_int64_avp_to_grpavp(unit, 447, 0, 1, -1500);
    __mv_diam_add_int32_avp_to_grpavp(unit, 429, 0, 1, -2);
    __mv_diam_add_uint32_avp_to_grpavp(money, 425, 0, 1, 978);
    __mv_diam_add_uint64_avp_to_grpavp(rsu, 421, 0, 1, 0x123456789ULL);
    __mv_diam_add_uint32_avp(m, 1032, MV_DIAM_VENDOR_3GPP, 1, 1004);
    uint8_t a4[4] = {192, 0, 2, 1};
    __mv_diam_add_ipV4address_avp(m, 848, MV_DIAM_VENDOR_3GPP, 1, a4);
    std::string ccr = ksd::encodeHex(m);

    // The answers the stack builds for a peer's request, over a connection-less request.
    MV_DiamMessage* s6a = __mv_diam_create_request(316, ksd::kS6a);
    __mv_diam_add_vendor_specific_auth_applicationid_avp(s6a, MV_DIAM_VENDOR_3GPP, ksd::kS6a);
    __mv_diam_add_experimental_result_code_avp(s6a, MV_DIAM_VENDOR_3GPP, 5001);
    MV_DiamMessage* cer = __mv_diam_create_message2(257, 0, 0, 0, 1);
    cer->Header.Flags = MV_DIAM_FLAG_REQUEST;
    host->VendorSpecificAuthApplicationId[0] = ksd::kS6a;
    host->VendorSpecificAuthApplicationVendorId[0] = MV_DIAM_VENDOR_3GPP;
    host->VendorSpecificAuthApplicationIdCount = 1;
    host->AcctApplicationId[0] = 3;
    host->AcctApplicationIdCount = 1;
    snprintf(host->sIP[0], sizeof host->sIP[0], "192.0.2.7");
    host->sIPCount = 1;
    __mv_diam_create_cer_request(cer, host, nullptr);
    EXPECT_EQ(ksd::wsdecode("diameter " + ccr + " " + ksd::encodeHex(s6a) + " " + ksd::encodeHex(cer)), "");
    __mv_diam_create__request3__clear_timer(m);
    for (MV_DiamMessage* x : {m, s6a, cer}) __mv_diam_freeMessage2(x);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
