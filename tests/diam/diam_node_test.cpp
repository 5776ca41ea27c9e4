// A host and a peer of ours over TCP in one process, and hand-made clients and servers
// that send what a real peer would not: the capability exchange and its refusals,
// watchdogs, requests answered and tracked, disconnect, and bad input of every kind,
// after which the connection and the process are where the standard wants them.
#include <poll.h>

#include <random>
#include <thread>

#include "diam_env.h"

namespace {

using ksd::Bytes;

constexpr const char* kRealm = "node.realm";
constexpr uint32_t kUnserved = 16777999;

ksd::Recorder* recorder = nullptr;

// On the host: Gx requests are answered 2001. On the peer: answers are tracked to their object.
void onGx(MV_DiamMessage* msg) {
    if (__mv_diam_get_cmdflags(msg) & MV_DIAM_FLAG_REQUEST) {
        ksd::answer2001(msg);
    } else {
        ksd::Seen s{__mv_diam_get_cmdcode(msg), __mv_diam_get_applicationid(msg), ntohl(__mv_diam_get_e2eid(msg)),
                    __mv_diam_get_result_code(msg), __mv_diam_get_cmdflags(msg), __mv_diam_answer_object(msg)};
        if (recorder) recorder->add(s);
    }
    __mv_diam_freeMessage2(msg);
}

using ksd::ccr;

// ---------------------------------------------------------------- hand-made ends

// A blocking TCP client of our host.
class RawClient {
public:
    explicit RawClient(int port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ok_ = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    explicit RawClient(int fd, bool) : fd_(fd), ok_(true) {}
    ~RawClient() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return ok_; }
    bool send(const std::vector<uint8_t>& b) { return ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }
    // One whole message within `seconds`, or empty. closed is set when the other end went away.
    std::vector<uint8_t> read(double seconds, bool* closed = nullptr) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        for (;;) {
            if (buf_.size() >= 4) {
                size_t len = size_t(buf_[1]) << 16 | size_t(buf_[2]) << 8 | buf_[3];
                if (len >= 20 && buf_.size() >= len) {
                    std::vector<uint8_t> m(buf_.begin(), buf_.begin() + long(len));
                    buf_.erase(buf_.begin(), buf_.begin() + long(len));
                    return m;
                }
            }
            int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count());
            if (left <= 0) return {};
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, left) <= 0) continue;
            uint8_t tmp[8192];
            ssize_t n = recv(fd_, tmp, sizeof tmp, 0);
            if (n <= 0) {
                if (closed) *closed = true;
                return {};
            }
            buf_.insert(buf_.end(), tmp, tmp + n);
        }
    }
    // Reads until a message of this command comes (answering nothing) or the time is up.
    MV_DiamMessage* readCommand(uint32_t cmd, bool request, double seconds, bool* closed = nullptr) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        while (std::chrono::steady_clock::now() < end) {
            std::vector<uint8_t> b = read(0.2, closed);
            if (closed && *closed) return nullptr;
            if (b.empty()) continue;
            MV_DiamDecodeStatus st{};
            MV_DiamMessage* m = __mv_diam_decodeMessage(b, &st);
            if (m && __mv_diam_get_cmdcode(m) == cmd && bool(__mv_diam_get_cmdflags(m) & MV_DIAM_FLAG_REQUEST) == request)
                return m;
            __mv_diam_freeMessage2(m);
        }
        return nullptr;
    }
    // True when the other end closes within `seconds`.
    bool closedWithin(double seconds) {
        bool closed = false;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        while (!closed && std::chrono::steady_clock::now() < end) read(0.2, &closed);
        return closed;
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
    bool ok_ = false;
    std::vector<uint8_t> buf_;
};

Bytes cerBytes(const std::string& originHost, bool withRealm, std::vector<std::pair<uint32_t, uint32_t>> apps) {
    Bytes b = Bytes::header(0x80, 257, 0, 1, 1);
    b.avp(264, 0x40, ksd::textv(originHost));
    if (withRealm) b.avp(296, 0x40, ksd::textv(kRealm));
    b.avp(257, 0x40, {0, 1, 127, 0, 0, 1});
    b.avp(266, 0x40, ksd::u32v(0));
    b.avp(269, 0, ksd::textv("raw"));
    for (auto [code, app] : apps) b.avp(code, 0x40, ksd::u32v(app));
    return b;
}

class DiamNodes : public ::testing::Test {
protected:
    void SetUp() override {
        recorder = &rec;
        __mv_diam_register_app_handler(ksd::kGx, onGx);
    }
    // Our host on a port of its own: Gx and S6a, watchdog after `dwr` seconds.
    MV_DiamNode* startHost(int dwr) {
        port = ksd::freeTcpPort();
        std::string tag = "h" + std::to_string(port);
        MV_DiamNode* h = ksd::makeHost(tag, tag + "." + kRealm, kRealm, "127.0.0.1", port);
        h->DWRTimer = dwr;
        EXPECT_EQ(__mv_diam_start_host(h), 1);
        EXPECT_EQ(__mv_diam_start_host(h), 0);
        return h;
    }
    // The first accepted connection of a host.
    static MV_DiamNode* connectionOf(MV_DiamNode* h) {
        MV_DiamNode* found = nullptr;
        __mv_diam_for_each_connection(h, [](MV_DiamNode* c, void* arg) { *static_cast<MV_DiamNode**>(arg) = c; }, &found);
        return found;
    }
    // A raw client that has done its capability exchange.
    std::unique_ptr<RawClient> exchanged(const std::string& host) {
        auto c = std::make_unique<RawClient>(port);
        EXPECT_TRUE(c->ok());
        c->send(cerBytes(host, true, {{258, ksd::kGx}}).done());
        MV_DiamMessage* cea = c->readCommand(257, false, 10);
        EXPECT_NE(cea, nullptr);
        EXPECT_EQ(__mv_diam_get_result_code(cea), uint32_t(DIAMETER_SUCCESS));
        __mv_diam_freeMessage2(cea);
        return c;
    }
    ksd::Recorder& rec = *new ksd::Recorder;
    int port = 0;
};

TEST_F(DiamNodes, HostAndPeerExchangeCapabilitiesWatchdogsRequestsAndDisconnectStandardOnTheWire) {
    MV_DiamNode* h = startHost(1);
    std::unique_ptr<ksd::Capture> cap;
    if (ksd::tsharkPresent()) cap = std::make_unique<ksd::Capture>(ksd::root() + "/node.pcapng", "lo", "tcp port " + std::to_string(port));
    MV_DiamNode* local = ksd::makeHost("c" + std::to_string(port), "client" + std::to_string(port) + "." + kRealm, kRealm,
                                       "127.0.0.1", 0);
    MV_DiamNode* p = ksd::makePeer(local, h->sHostName, kRealm, "127.0.0.1", port, 1);
    EXPECT_EQ(__mv_diam__get_peer_status(p), 10);
    ASSERT_EQ(__mv_diam_start_peer(p), 1);
    ASSERT_TRUE(ksd::waitStatus(p, 20, 15));
    ASSERT_TRUE(kst::waitFor([&] { return connectionOf(h) != nullptr; }, 5));
    MV_DiamNode* conn = connectionOf(h);
    EXPECT_STREQ(conn->sHostName, local->sHostName);  // the host learns whom it talks to
    EXPECT_EQ(conn->VendorSpecificAuthApplicationIdCount, 2u);

    // Both ends idle for a second send DWR; both are answered.
    ASSERT_TRUE(kst::waitFor([&] { return p->ReceivedDWA >= 2 && conn->ReceivedDWA + conn->ReceivedDWR >= 2; }, 15));
    EXPECT_EQ(__mv_diam__get_peer_status(p), 20);

    // A Gx request answered by the host's handler and tracked to its object; an application
    // the host does not serve answered 3007 by the stack.
    int ue = 42;
    MV_DiamMessage* m = ccr(local, p, ksd::kGx, &ue);
    uint32_t e2e = ntohl(__mv_diam_get_e2eid(m));
    ASSERT_GT(__mv_diam_send_message(m, p), 0);
    __mv_diam_freeMessage2(m);
    m = ccr(local, p, kUnserved, nullptr);
    ASSERT_GT(__mv_diam_send_message(m, p), 0);
    __mv_diam_freeMessage2(m);
    ASSERT_TRUE(kst::waitFor([&] { return rec.count() >= 1; }, 10));
    EXPECT_EQ(rec.at(0).e2e, e2e);
    EXPECT_EQ(rec.at(0).resultCode, uint32_t(DIAMETER_SUCCESS));
    EXPECT_EQ(rec.at(0).object, &ue);
    EXPECT_TRUE(kst::waitFor([] { return ksd::stackLog().find("Application-Id=16777999 from") != std::string::npos; }, 5));

    // A host sends on its connection too.
    MV_DiamMessage* fromHost = ccr(h, conn, ksd::kGx, &ue);
    EXPECT_GT(__mv_diam_send_message(fromHost, h), 0);
    __mv_diam_freeMessage2(fromHost);
    ASSERT_TRUE(kst::waitFor([&] { return rec.count() >= 2; }, 10));

    // Disabled: DPR, DPA, both ends closed; the host's connection thread goes idle.
    __mv_diam_disable_peer(p);
    ASSERT_TRUE(ksd::waitStatus(p, 8, 10));
    EXPECT_TRUE(kst::waitFor([&] { return connectionOf(h) == nullptr; }, 5));
    EXPECT_EQ(__mv_diam_send_message(m = ccr(local, p, ksd::kGx, nullptr), p), -1);
    __mv_diam_create__request3__clear_timer(m);
    __mv_diam_freeMessage2(m);

    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok());
    std::string decodeAs = "-d tcp.port==" + std::to_string(port) + ",diameter";
    std::string seen = cap->summary(decodeAs);
    for (const char* want : {"1 257", "0 257 0 2001", "1 280", "0 280 0 2001", "1 272 16777238", "0 272 16777238 2001",
                             "0 272 16777999 3007", "1 282", "0 282 0 2001"})
        EXPECT_NE(seen.find(want), std::string::npos) << want << " not on the wire:\n" << seen;
    EXPECT_EQ(ksd::wsdecode(decodeAs + " -r " + cap->path() + " diameter"), "");
}

TEST_F(DiamNodes, CapabilityExchangeIsRefusedForAMissingAvpOrNoCommonApplication) {
    startHost(30);
    struct Case {
        const char* name;
        Bytes cer;
        uint32_t result;
        uint32_t failedAvp;
        bool closed;
    };
    Case cases[] = {
        {"no Origin-Realm", cerBytes("a." + std::string(kRealm), false, {{258, ksd::kGx}}), DIAMETER_MISSING_AVP, 296, true},
        {"only an application we do not serve", cerBytes("b." + std::string(kRealm), true, {{258, kUnserved}}),
         DIAMETER_NO_COMMON_APPLICATION, 0, true},
        {"only accounting applications", cerBytes("c." + std::string(kRealm), true, {{259, 3}}), DIAMETER_SUCCESS, 0, false},
        {"relay", cerBytes("d." + std::string(kRealm), true, {{258, MV_DIAM_APP_RELAY}}), DIAMETER_SUCCESS, 0, false},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        RawClient cl(port);
        ASSERT_TRUE(cl.ok());
        cl.send(c.cer.done());
        MV_DiamMessage* cea = cl.readCommand(257, false, 10);
        ASSERT_NE(cea, nullptr);
        EXPECT_EQ(__mv_diam_get_result_code(cea), c.result);
        EXPECT_EQ(ntohl(__mv_diam_get_hbhid(cea)), 1u);
        MV_DiamAvp* failed = __mv_diam_find_avp(279, 0, cea);
        EXPECT_EQ(failed ? uint32_t(failed->GroupHead->AvpCode) : 0u, c.failedAvp);
        __mv_diam_freeMessage2(cea);
        EXPECT_EQ(cl.closedWithin(c.closed ? 5 : 1), c.closed);
    }
    // A first message that is not CER ends the connection.
    RawClient cl(port);
    cl.send(Bytes::header(0x80, 280, 0, 1, 1).avp(264, 0x40, ksd::textv("x")).done());
    EXPECT_TRUE(cl.closedWithin(5));
    EXPECT_NE(ksd::stackLog().find("expected CER/CEA in first msg got 280, closing connection"), std::string::npos);
}

TEST_F(DiamNodes, MalformedMessagesAreAnsweredOrDroppedAndTheConnectionStaysWhileItCanBeFramed) {
    startHost(2);
    auto c = exchanged("bad." + std::string(kRealm));
    auto sid = ksd::textv("bad;1");
    auto expectAnswer = [&](const char* name, std::vector<uint8_t> bytes, uint32_t result, uint32_t failedAvp) {
        SCOPED_TRACE(name);
        uint64_t errors = __mvDiamStack->Counters.DecodeErrors;
        c->send(bytes);
        MV_DiamMessage* a = c->readCommand(272, false, 10);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(__mv_diam_get_result_code(a), result);
        const uint8_t* v;
        uint32_t n;
        ASSERT_TRUE(__mv_diam_get_string_avp_value(a, 263, &v, &n));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(v), n), "bad;1");
        MV_DiamAvp* f = __mv_diam_find_avp(279, 0, a);
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(uint32_t(f->GroupHead->AvpCode), failedAvp);
        __mv_diam_freeMessage2(a);
        EXPECT_EQ(__mvDiamStack->Counters.DecodeErrors, errors + 1);
    };
    expectAnswer("AVP length past its parent",
                 Bytes::header(0xC0, 272, ksd::kGx, 5, 5).avp(263, 0x40, sid).avp(416, 0x40, ksd::u32v(1), 0, 64).done(),
                 DIAMETER_INVALID_AVP_LENGTH, 416);
    expectAnswer("AVP length below 8",
                 Bytes::header(0xC0, 272, ksd::kGx, 6, 6).avp(263, 0x40, sid).avp(416, 0x40, {}, 0, 4).done(),
                 DIAMETER_INVALID_AVP_LENGTH, 416);
    expectAnswer("vendor flag without a Vendor-Id",
                 Bytes::header(0xC0, 272, ksd::kGx, 7, 7).avp(263, 0x40, sid).u32(1032).u8(0xC0).u24(8).done(),
                 DIAMETER_INVALID_AVP_LENGTH, 1032);
    {
        // Groups 500 deep, which still fit one message.
        std::vector<uint8_t> v;
        for (int i = 0; i < 500; ++i) {
            Bytes g;
            g.avp(297, 0x40, v);
            v = g.b;
        }
        Bytes b = Bytes::header(0xC0, 272, ksd::kGx, 8, 8).avp(263, 0x40, sid);
        b.raw(v.data(), v.size());
        expectAnswer("groups nested 500 deep", b.done(), DIAMETER_UNABLE_TO_COMPLY, 297);
    }
    // An answer nobody asked for is logged and dropped.
    uint64_t unknown = __mvDiamStack->Counters.UnknownAnswers;
    c->send(Bytes::header(0x40, 272, ksd::kGx, 9, 0x7FFFFFF1).avp(263, 0x40, sid).avp(268, 0x40, ksd::u32v(2001)).done());
    ASSERT_TRUE(kst::waitFor([&] { return __mvDiamStack->Counters.UnknownAnswers == unknown + 1; }, 5));
    EXPECT_NE(ksd::stackLog().find("answer with unknown End-to-End Identifier=2147483633"), std::string::npos);
    // All that left the connection standing: its watchdog still talks.
    MV_DiamMessage* dwr = c->readCommand(280, true, 10);
    ASSERT_NE(dwr, nullptr);
    __mv_diam_freeMessage2(dwr);
}

TEST_F(DiamNodes, AStreamThatCannotBeFramedIsClosedAndTheHostGoesOn) {
    startHost(2);
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
    };
    std::mt19937 rng(6733);
    std::vector<uint8_t> noise(1 << 20);
    for (auto& x : noise) x = uint8_t(rng());
    noise[0] = 0x17;  // not version 1
    std::vector<uint8_t> shortLen = Bytes::header(0x80, 280, 0, 1, 1).done();
    shortLen[3] = 12;
    std::vector<uint8_t> longLen = Bytes::header(0x80, 280, 0, 1, 1).done();
    longLen[1] = 0x01;  // 65556 bytes
    Case cases[] = {{"a megabyte of random bytes", noise}, {"length below the header", shortLen}, {"length past 4096", longLen}};
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        auto c = exchanged(std::string("f.") + kRealm);
        c->send(k.bytes);
        EXPECT_TRUE(c->closedWithin(10));
    }
    // A message whose length runs past the bytes that come: the host waits a watchdog interval.
    auto c = exchanged(std::string("g.") + kRealm);
    std::vector<uint8_t> partial = Bytes::header(0x80, 272, ksd::kGx, 1, 1).done();
    partial[2] = 0x01;  // 256 + 20 bytes announced, 20 sent
    c->send(partial);
    EXPECT_TRUE(c->closedWithin(15));
    EXPECT_NE(ksd::stackLog().find("invalid message length"), std::string::npos);
    // And the host goes on.
    auto again = exchanged(std::string("h.") + kRealm);
    EXPECT_FALSE(again->closedWithin(0.5));
}

// A scripted server that answers CER, then misbehaves: our peer closes and comes back.
TEST_F(DiamNodes, APeerThatSendsGarbageIsReconnected) {
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr*>(&a), len), 0);
    getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len);
    listen(lfd, 4);
    int sport = ntohs(a.sin_port);
    std::atomic<int> accepted{0};
    std::thread server([&] {
        for (int round = 0; round < 2; ++round) {
            RawClient s(accept(lfd, nullptr, nullptr), true);
            ++accepted;
            MV_DiamMessage* cer = s.readCommand(257, true, 10);
            if (!cer) return;
            uint32_t hbh = ntohl(__mv_diam_get_hbhid(cer));
            __mv_diam_freeMessage2(cer);
            s.send(Bytes::header(0, 257, 0, hbh, 0)
                       .avp(268, 0x40, ksd::u32v(2001))
                       .avp(264, 0x40, ksd::textv("scripted.node.realm"))
                       .avp(296, 0x40, ksd::textv(kRealm))
                       .done());
            if (round == 0) {
                std::mt19937 rng(1);
                std::vector<uint8_t> noise(1 << 20);
                for (auto& x : noise) x = uint8_t(rng());
                noise[0] = 0x55;
                s.send(noise);
                s.closedWithin(10);
            } else {
                s.closedWithin(15);
            }
        }
    });
    MV_DiamNode* local = ksd::makeHost("g" + std::to_string(sport), "garbage." + std::string(kRealm), kRealm, "127.0.0.1", 0);
    MV_DiamNode* p = ksd::makePeer(local, "scripted.node.realm", kRealm, "127.0.0.1", sport, 30);
    ASSERT_EQ(__mv_diam_start_peer(p), 1);
    EXPECT_TRUE(kst::waitFor([&] { return accepted == 2 && __mv_diam__get_peer_status(p) == 20; }, 20));
    EXPECT_GE(p->Connects.load(), 2u);
    EXPECT_GE(p->DecodeErrors.load(), 1u);
    __mv_diam_disable_peer(p);
    server.join();
    close(lfd);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
