// The answerer's procedures against the scripted gNB and UEs, in memory: what a UE and
// a gNB see, what the answerer counts and logs, for the standard procedures, every
// misbehaviour knob, and bad input.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "ca_loop.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mvalgo.h"

namespace {

std::string gLogs;

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        gLogs = kst::makeTempDir("caflow");
        __init_morva_core();
        __mv_init_logger((gLogs + "/").c_str());
        __mv_set_log_level(MV_APP_LOG, MV_LOG_DEBUG);
        __mv_set_log_level(MV_STK_LOG, MV_LOG_WARNING);
        ASSERT_EQ(__mv_ogs_init_crypto_fun(), 0);
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", gLogs.c_str());
        else kst::removeTree(gLogs);
    }
};

std::string appLog() { return kst::readLogDir(gLogs + "/app"); }

using cad::Ue;
using cad::UeBehaviour;
using cat::Loop;
using Pred = std::function<bool(const Ue&)>;

// A UE behaviour with some fields set: ub([](UeBehaviour& b) { b.sqn = 7; }).
template <class F>
UeBehaviour ub(F&& f) {
    UeBehaviour b;
    f(b);
    return b;
}

constexpr double kWait = 20;  // seconds; procedures take milliseconds, the margin is for loaded machines

// A loop with the answerer set up and its NG Setup done.
struct Net {
    explicit Net(std::vector<std::string> args = {}) : l(std::move(args)) {
        EXPECT_TRUE(l.ok) << l.error;
        EXPECT_TRUE(l.setup());
    }
    bool wait(size_t i, const Pred& p) { return l.drv.waitUe(i, p, kWait); }
    bool registered(size_t i, const UeBehaviour& b = {}) {
        l.drv.registerUe(i, b);
        return wait(i, [](const Ue& u) { return u.registered; });
    }
    bool session(size_t i, uint8_t psi, uint8_t type) {
        l.drv.establish(i, psi, type);
        return wait(i, [psi](const Ue& u) {
            auto s = u.sessions.find(psi);
            return s != u.sessions.end() && (s->second.rejectCause >= 0 || (s->second.accepted && s->second.resources));
        });
    }
    template <class F>
    auto ue(size_t i, F&& f) {
        return l.drv.with(i, f);
    }
    uint64_t n(const std::string& c) { return l.counter(c); }
    Loop l;
};

// ---------------------------------------------------------------- registration and sessions

TEST(Registration, WholeLifeOfOneUe) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    ASSERT_TRUE(n.session(0, 1, 1));
    n.l.drv.releaseSession(0, 1);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.sessions.at(1).released; }));
    n.l.drv.deregister(0, false);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.deregAccepts == 1 && u.contextReleases == 1; }));
    n.l.settle();
    n.ue(0, [](Ue& u) {
        EXPECT_EQ(u.nia, 2);  // the default algorithms
        EXPECT_EQ(u.nea, 2);
        EXPECT_EQ(u.macFailures, 0);
        EXPECT_EQ(u.plainAfterSecurity, 0);
        EXPECT_EQ(u.sessions.at(1).ipv4, "10.45.0.2");
        EXPECT_TRUE(u.hasGuti);
        return 0;
    });
    for (const char* c : {"ue.registered", "pdu.established", "pdu.released", "ue.deregistered", "ue.contexts_released"})
        EXPECT_EQ(n.n(c), 1u) << c;
    EXPECT_EQ(n.l.amf->connections(), 0u);
    std::string log = appLog();
    for (const char* line : {"[imsi-001010000000001] registered, 5G-TMSI", "[imsi-001010000000001] PDU session 1: type 1, IPv4 10.45.0.2",
                             "[imsi-001010000000001] deregistered"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

TEST(Registration, EveryAlgorithmTheUeOffers) {
    struct Case {
        const char *nia, *nea;
        uint8_t ueEa, ueIa;
        int wantNia, wantNea;  // -1: a registration reject #23
    } cases[] = {
        {"0", "0", 0xF0, 0xF0, 0, 0}, {"1", "1", 0xF0, 0xF0, 1, 1}, {"2", "2", 0xF0, 0xF0, 2, 2},
        {"3", "3", 0xF0, 0xF0, 3, 3}, {"2", "0", 0xF0, 0xF0, 2, 0}, {"1", "3", 0xF0, 0xF0, 1, 3},
        {"3,2,1", "3,2", 0xE0, 0xE0, 2, 2},  // the first of the preferences that the UE has
        {"3", "2", 0xE0, 0xE0, -1, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("NIA ") + c.nia + " NEA " + c.nea);
        Net n({"--nia", c.nia, "--nea", c.nea});
        UeBehaviour b;
        b.ea = c.ueEa;
        b.ia = c.ueIa;
        if (c.wantNia < 0) {
            n.l.drv.registerUe(0, b);
            EXPECT_TRUE(n.wait(0, [](const Ue& u) { return u.rejectCause == 23; }));
            continue;
        }
        ASSERT_TRUE(n.registered(0, b));
        ASSERT_TRUE(n.session(0, 5, 1));  // messages protected both ways after the security mode
        n.ue(0, [&](Ue& u) {
            EXPECT_EQ(u.nia, c.wantNia);
            EXPECT_EQ(u.nea, c.wantNea);
            EXPECT_EQ(u.macFailures, 0);
            EXPECT_TRUE(u.sessions.at(5).accepted);
            return 0;
        });
    }
}

TEST(Registration, AcceptInContextSetupOrDownlinkTransport) {
    struct Case {
        const char* mode;
        bool contextRequest, inIcs;
    } cases[] = {{"auto", false, false}, {"auto", true, true}, {"ics", false, true}, {"dl", true, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + (c.contextRequest ? " with" : " without") + " UE context request");
        Net n({"--accept-in", c.mode});
        UeBehaviour b;
        b.contextRequest = c.contextRequest;
        ASSERT_TRUE(n.registered(0, b));
        // A session goes in a context setup when the gNB holds no UE context yet.
        ASSERT_TRUE(n.session(0, 1, 1));
        n.l.settle();
        EXPECT_EQ(n.ue(0, [](Ue& u) { return u.acceptInIcs; }), c.inIcs);
        EXPECT_EQ(n.l.drv.count("InitialContextSetupRequest"), 1u);
        EXPECT_EQ(n.l.drv.count("PDUSessionResourceSetupRequest"), c.inIcs ? 1u : 0u);
        EXPECT_EQ(n.n("pdu.established"), 1u);
    }
}

TEST(Sessions, AddressOfTheTypeTheUeAsksFor) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    struct Case {
        uint8_t psi, asked, type;
        bool v4, v6;
    } cases[] = {{1, 1, 1, true, false}, {2, 2, 2, false, true}, {3, 3, 3, true, true}, {4, 0, 1, true, false}};
    std::set<std::string> v4s;
    std::set<uint32_t> teids;
    for (const Case& c : cases) {
        SCOPED_TRACE("PDU session " + std::to_string(c.psi));
        ASSERT_TRUE(n.session(0, c.psi, c.asked));
        n.ue(0, [&](Ue& u) {
            const auto& s = u.sessions.at(c.psi);
            EXPECT_TRUE(s.accepted);
            EXPECT_EQ(s.type, c.type);
            EXPECT_EQ(!s.ipv4.empty(), c.v4);
            EXPECT_EQ(s.iid.size(), c.v6 ? 8u : 0u);
            EXPECT_EQ(s.dnn, "internet");
            if (c.v4) {
                EXPECT_TRUE(v4s.insert(s.ipv4).second) << s.ipv4 << " given twice";
            }
            EXPECT_TRUE(teids.insert(s.upfTeid).second);
            return 0;
        });
    }
    // Types the answerer does not serve, and sessions it does not know.
    ASSERT_TRUE(n.session(0, 6, 5));
    n.l.drv.releaseSession(0, 9);
    n.l.drv.modify(0, 10);
    n.l.drv.modify(0, 1);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) {
        return u.sessions.count(9) && u.sessions.at(9).rejectCause == 43 && u.sessions.count(10) &&
               u.sessions.at(10).rejectCause == 43 && u.sessions.at(1).modified;
    }));
    EXPECT_EQ(n.ue(0, [](Ue& u) { return u.sessions.at(6).rejectCause; }), 28);
    // A released address is given again.
    std::string first = n.ue(0, [](Ue& u) { return u.sessions.at(1).ipv4; });
    n.l.drv.releaseSession(0, 1);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.sessions.at(1).released; }));
    n.l.settle();
    ASSERT_TRUE(n.session(0, 7, 1));
    EXPECT_EQ(n.ue(0, [](Ue& u) { return u.sessions.at(7).ipv4; }), first);
    EXPECT_EQ(n.n("pdu.established"), 5u);
    EXPECT_EQ(n.n("pdu.rejected"), 1u);
}

TEST(Service, RequestAfterContextReleaseReactivatesTheSessions) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    ASSERT_TRUE(n.session(0, 1, 1));
    n.l.drv.releaseContext(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.contextReleases == 1 && !u.sessions.at(1).resources; }));
    n.l.drv.serviceRequest(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.serviceAccepts == 1 && u.sessions.at(1).resources; }));
    EXPECT_EQ(n.l.drv.count("InitialContextSetupRequest"), 2u);
    n.l.settle();
    EXPECT_EQ(n.n("ue.service_accepted"), 1u);
    EXPECT_EQ(n.n("pdu.established"), 1u);  // the same session, reactivated
    // After deregistering, a service request is refused: implicitly de-registered.
    n.l.drv.deregister(0, false);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.deregAccepts == 1 && !u.connected; }));
    n.l.drv.serviceRequest(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.serviceRejectCause == 10; }));
}

TEST(Service, CipheredInitialMessageFoundByTheGnbsTmsi) {
    // Initial messages are integrity protected only, so that the network can read who
    // sent them; one ciphered as well is found by the 5G-S-TMSI the gNB passes on.
    Net n;
    ASSERT_TRUE(n.registered(0, ub([](UeBehaviour& b) { b.cipherInitial = true; })));
    n.l.drv.releaseContext(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.contextReleases == 1; }));
    n.l.drv.serviceRequest(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.serviceAccepts == 1; }));
    n.l.drv.releaseContext(0);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.contextReleases == 2; }));
    n.l.drv.deregister(0, false);  // from idle, in an initial message
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.deregAccepts == 1; }));
    n.l.settle();
    EXPECT_EQ(n.n("nas.mac_failed"), 0u);
    EXPECT_EQ(n.n("ue.deregistered"), 1u);
}

TEST(Deregistration, SwitchOffAndByTheNetwork) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    ASSERT_TRUE(n.registered(1));
    n.l.drv.deregister(0, true);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.contextReleases == 1; }));
    EXPECT_EQ(n.ue(0, [](Ue& u) { return u.deregAccepts; }), 0);  // switch off: no accept
    EXPECT_EQ(n.l.amf->control("dereg 001010000000002", nullptr).rfind("OK deregistration sent to 1 ", 0), 0u);
    ASSERT_TRUE(n.wait(1, [](const Ue& u) { return u.deregisteredByNetwork && u.contextReleases == 1; }));
    n.l.settle();
    EXPECT_EQ(n.n("ue.deregistered"), 2u);
    EXPECT_EQ(n.l.amf->registeredUes(), 0u);
}

// ---------------------------------------------------------------- authentication and identity

TEST(Authentication, SqnOutOfRangeResynchronises) {
    struct Case {
        const char* what;
        UeBehaviour b;
        uint64_t resyncs;
    } cases[] = {{"UE far ahead", ub([](UeBehaviour& b) { b.sqn = 1000000; }), 1}, {"three forced failures", ub([](UeBehaviour& b) { b.syncFailures = 3; }), 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Net n;
        ASSERT_TRUE(n.registered(0, c.b));
        EXPECT_EQ(n.n("auth.resynchronised"), c.resyncs);
        // The SQN stays in step for the subscriber: the next registration needs none.
        n.l.drv.deregister(0, false);
        ASSERT_TRUE(n.wait(0, [](const Ue& u) { return !u.connected; }));
        ASSERT_TRUE(n.registered(0, ub([](UeBehaviour& b) { b.useGuti = false; })));
        EXPECT_EQ(n.n("auth.resynchronised"), c.resyncs);
        EXPECT_NE(appLog().find("[imsi-001010000000001] SQN resynchronised to"), std::string::npos);
    }
}

TEST(Authentication, FailuresEndInAReject) {
    struct Case {
        const char* what;
        UeBehaviour b;
    } cases[] = {{"MAC failure", ub([](UeBehaviour& b) { b.macFailure = true; })},
                 {"wrong RES*", ub([](UeBehaviour& b) { b.wrongRes = true; })},
                 {"synch failures past the attempts", ub([](UeBehaviour& b) { b.syncFailures = 9; })}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Net n({"--max-auth-attempts", "3"});
        n.l.drv.registerUe(0, c.b);
        ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.authRejected && u.contextReleases == 1; }));
        EXPECT_EQ(n.n("auth.rejected"), 1u);
        EXPECT_EQ(n.n("ue.registered"), 0u);
    }
}

TEST(Identity, GutiSuciProfileAndUnknownSubscribers) {
    Net n({"--identity-request", "imeisv"});
    ASSERT_TRUE(n.registered(0));
    uint32_t tmsi = n.ue(0, [](Ue& u) { return uint32_t(u.guti[6] << 24 | u.guti[7] << 16 | u.guti[8] << 8 | u.guti[9]); });
    n.l.drv.deregister(0, false);
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return !u.connected; }));
    // A known 5G-GUTI needs no identity request; a new GUTI comes with the accept.
    ASSERT_TRUE(n.registered(0));
    n.ue(0, [&](Ue& u) {
        EXPECT_EQ(u.rx["IdentityRequest"], 1);  // the IMEISV, asked once
        EXPECT_NE(uint32_t(u.guti[6] << 24 | u.guti[7] << 16 | u.guti[8] << 8 | u.guti[9]), tmsi);
        return 0;
    });
    // An unknown 5G-GUTI: the SUCI is asked for.
    n.ue(1, [](Ue& u) {
        u.hasGuti = true;
        const uint8_t guti[10] = {0x00, 0xF1, 0x10, 0x01, 0x00, 0x41, 0x0F, 0x00, 0x00, 0x01};
        memcpy(u.guti, guti, 10);
        return 0;
    });
    ASSERT_TRUE(n.registered(1));
    EXPECT_EQ(n.ue(1, [](Ue& u) { return u.rx["IdentityRequest"]; }), 2);  // the SUCI, then the IMEISV
    // An IMSI outside the ranges.
    n.l.drv.registerUe(50000);
    ASSERT_TRUE(n.wait(50000, [](const Ue& u) { return u.rejectCause == 7; }));
    EXPECT_EQ(n.n("ue.unknown_subscriber"), 1u);
}

TEST(Identity, ConcealedSuci) {
    uint8_t priv[32], pub[33];
    for (int i = 0; i < 32; ++i) priv[i] = uint8_t(0x40 + i);
    int pubLen = __mv_algo__suci_public_key(MV_ALGO_SUCI_PROFILE_A, priv, pub);
    ASSERT_EQ(pubLen, 32);
    std::string key = "7:A:";
    for (uint8_t b : priv) key += "0123456789abcdef"[b >> 4], key += "0123456789abcdef"[b & 15];
    Net n({"--hn-key", key});
    UeBehaviour b;
    b.suciScheme = 1;
    b.hnKeyId = 7;
    b.hnPublicKey.assign(pub, pub + 32);
    ASSERT_TRUE(n.registered(0, b));
    b.hnKeyId = 8;  // a key the network does not hold
    n.l.drv.registerUe(1, b);
    ASSERT_TRUE(n.wait(1, [](const Ue& u) { return u.rejectCause == 9; }));
}

// ---------------------------------------------------------------- misbehaviour

TEST(Knobs, EachHasItsEffect) {
    struct Case {
        const char* knob;
        std::vector<std::string> args;
        std::function<void(Net&)> act;
        Pred done;
        std::vector<std::pair<const char*, uint64_t>> atLeast;  // counters
    } cases[] = {
        {"reject RegistrationRequest 3 1", {}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.rejectCause == 3 && !u.registered && u.macFailures == 0; },
         {{"knob.rejected", 1}, {"ue.registration_rejected", 1}}},
        {"reject SecurityModeComplete 111 1", {}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.rejectCause == 111 && u.plainAfterSecurity == 0; }, {{"knob.rejected", 1}}},
        {"reject AuthenticationResponse 1", {}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.authRejected; }, {{"auth.rejected", 1}}},
        {"status RegistrationAccept 98 1", {"--t3550", "0"}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.statusCause == 98 && !u.registered; }, {{"knob.status", 1}}},
        {"drop AuthenticationRequest 1", {"--t3560", "100"}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.registered; }, {{"knob.dropped", 1}, {"nas.retransmissions", 1}}},
        {"drop DownlinkNASTransport 1", {"--t3560", "100"}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.registered; }, {{"knob.dropped", 1}, {"nas.retransmissions", 1}}},
        {"delay SecurityModeCommand 200 1", {}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.registered; }, {{"knob.delayed", 1}}},
        {"bad-mac SecurityModeCommand 1", {"--t3560", "100"}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.registered && u.macFailures >= 1; }, {{"knob.bad_mac", 1}}},
        {"plain RegistrationAccept 1", {}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.registered && u.plainAfterSecurity == 1; }, {{"knob.plain", 1}}},
        {"ignore RegistrationComplete 1", {"--t3550", "100"}, [](Net& n) { n.l.drv.registerUe(0); },
         [](const Ue& u) { return u.rx.count("RegistrationAccept") && u.rx.at("RegistrationAccept") >= 2; },
         {{"knob.ignored", 1}, {"nas.retransmissions", 1}, {"ue.registered", 1}}},
        {"reject PDUSessionEstablishmentRequest 27 1", {},
         [](Net& n) {
             ASSERT_TRUE(n.registered(0));
             n.l.drv.establish(0, 1, 1);
         },
         [](const Ue& u) { return u.sessions.count(1) && u.sessions.at(1).rejectCause == 27; }, {{"pdu.rejected", 1}}},
        {"reject PDUSessionReleaseRequest 31 1", {},
         [](Net& n) {
             ASSERT_TRUE(n.registered(0));
             ASSERT_TRUE(n.session(0, 1, 1));
             n.l.drv.releaseSession(0, 1);
         },
         [](const Ue& u) { return u.sessions.at(1).rejectCause == 31 && !u.sessions.at(1).released; }, {}},
        {"drop PDUSessionResourceSetupRequest 1", {"--accept-in", "ics"},
         [](Net& n) {
             ASSERT_TRUE(n.registered(0));
             n.l.drv.establish(0, 1, 1);
         },
         [](const Ue&) { return true; }, {{"knob.dropped", 1}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.knob);
        Net n(c.args);
        ASSERT_EQ(n.l.amf->control(std::string("knob ") + c.knob, nullptr), std::string("OK knob ") + c.knob + "\n");
        c.act(n);
        ASSERT_TRUE(n.wait(0, c.done));
        n.l.settle();
        for (const auto& [name, v] : c.atLeast) EXPECT_GE(n.n(name), v) << name;
        // Every knob here acts once: it is gone, and the next UE goes through.
        EXPECT_EQ(n.l.amf->control("knobs", nullptr), "END\n");
        ASSERT_TRUE(n.registered(1));
    }
}

TEST(Knobs, NgSetupDroppedThenAnswered) {
    Loop l({});
    l.amf->control("knob drop NGSetupResponse 1", nullptr);
    l.drv.ngSetup();
    l.settle();
    EXPECT_FALSE(l.drv.setupDone());
    EXPECT_TRUE(l.setup());
}

TEST(UeKnobs, IgnoredRequestsAreSentAgain) {
    struct Case {
        const char* what;
        std::vector<std::string> args;
        UeBehaviour b;
        uint64_t retransmissions;
    } cases[] = {
        {"authentication ignored twice", {"--t3560", "50"}, ub([](UeBehaviour& b) { b.ignoreAuth = 2; }), 2},
        {"security mode ignored once", {"--t3560", "50"}, ub([](UeBehaviour& b) { b.ignoreSmc = 1; }), 1},
        {"identity ignored once", {"--t3570", "50", "--identity-request", "suci"}, ub([](UeBehaviour& b) { b.ignoreIdentity = 1; }), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Net n(c.args);
        ASSERT_TRUE(n.registered(0, c.b));
        n.l.settle();
        // at least: a slow answer may draw one more
        EXPECT_GE(n.n("nas.retransmissions"), c.retransmissions);
    }
    // Past the last retransmission the procedure is given up and the connection released.
    Net n({"--t3560", "20", "--retransmissions", "2"});
    n.l.drv.registerUe(0, ub([](UeBehaviour& b) { b.ignoreAuth = 9; }));
    ASSERT_TRUE(n.wait(0, [](const Ue& u) { return u.contextReleases == 1; }));
    n.l.settle();
    EXPECT_EQ(n.n("nas.retransmissions"), 2u);
    EXPECT_EQ(n.n("nas.procedures_abandoned"), 1u);
}

// ---------------------------------------------------------------- bad input

TEST(BadInput, IsLoggedAndDroppedAndOtherUesGoOn) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    ASSERT_TRUE(n.registered(1));
    uint64_t amf = n.ue(0, [](Ue& u) { return u.amfId; }), ran = n.ue(0, [](Ue& u) { return u.ranId; });
    // a modification request for a session the UE does not have, in a UL NAS transport
    const cad::Bytes modify = {0x7E, 0x00, 0x67, 0x01, 0x00, 0x04, 0x2E, 0x01, 0x09, 0xC9, 0x12, 0x01};
    struct Case {
        const char* what;
        std::function<void()> send;
        const char* counter;
    } cases[] = {
        {"truncated NAS", [&] { n.l.drv.sendNas(0, {0x7E, 0x00}); }, "nas.malformed"},
        {"a NAS IE that runs past the end",
         [&] { n.l.drv.sendNas(0, n.l.drv.protect(0, {0x7E, 0x00, 0x67, 0x01, 0x00, 0x30, 0x2E})); }, "nas.malformed"},
        {"wrong MAC",
         [&] {
             cad::Bytes bad = n.l.drv.protect(0, modify);
             bad.back() ^= 1;
             n.l.drv.sendNas(0, bad);
         },
         "nas.mac_failed"},
        {"replayed message",
         [&] {
             cad::Bytes good = n.l.drv.protect(0, modify);
             n.l.drv.sendNas(0, good);
             n.l.drv.sendNas(0, good);
         },
         "nas.mac_failed"},
        {"plain message on a protected connection", [&] { n.l.drv.sendNas(0, {0x7E, 0x00, 0x43}); }, "nas.plain_refused"},
        {"unknown AMF UE NGAP ID", [&] { n.l.drv.sendNas(0, {0x7E, 0x00, 0x43}, amf + 1000, ran); }, "ngap.unknown_ue"},
        {"RAN UE NGAP ID of another", [&] { n.l.drv.sendNas(0, {0x7E, 0x00, 0x43}, amf, ran + 1000); }, "ngap.unknown_ue"},
        {"garbage NGAP", [&] { n.l.drv.sendRaw({0x00, 0x2E, 0x40, 0x20, 0x01}); }, "ngap.malformed"},
        {"an NGAP procedure the codec lacks", [&] { n.l.drv.sendRaw({0x00, 0xF0, 0x00, 0x00}); }, "ngap.unhandled"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        uint64_t before = n.n(c.counter);
        c.send();
        ASSERT_TRUE(Loop::waitFor([&] { return n.n(c.counter) > before; }, kWait));
    }
    n.l.settle();
    EXPECT_GE(n.l.drv.count("ErrorIndication"), 3u);  // unknown ids twice, transfer syntax once
    std::string log = appLog();
    for (const char* line : {"fails its integrity check", "is not a 5GMM message", "in clear on a protected connection",
                             "for unknown AMF UE NGAP ID", "malformed UplinkNASTransport, 5 octets"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    // Both UEs go on as before.
    ASSERT_TRUE(n.session(0, 2, 1));
    ASSERT_TRUE(n.session(1, 1, 3));
    n.ue(0, [](Ue& u) {
        EXPECT_TRUE(u.sessions.at(2).accepted);
        EXPECT_EQ(u.macFailures, 0);
        return 0;
    });
}

// ---------------------------------------------------------------- control

TEST(Control, LinesAndTheirAnswers) {
    Net n;
    ASSERT_TRUE(n.registered(0));
    struct Case {
        const char* line;
        const char* answerStart;
    } cases[] = {
        {"knob frob AuthenticationRequest", "ERR unknown knob action"},
        {"knob drop NoSuchMessage", "ERR no NAS or NGAP message"},
        {"knob delay AuthenticationRequest", "ERR delay needs a number"},
        {"knob reject RegistrationRequest", "ERR reject needs a number"},
        {"knob drop authenticationrequest 2", "OK knob"},
        {"knob reject AuthenticationResponse 1", "OK knob"},
        {"knobs", "drop AuthenticationRequest left=2 used=0\nreject AuthenticationResponse left=1 used=0\nEND"},
        {"clear", "OK knobs cleared"},
        {"knobs", "END"},
        {"ues", "UES associations=1 ng_setup=1 connections=1 known=1 registered=1 sessions=0"},
        {"dereg nobody", "OK deregistration sent to 0 connected UEs"},
        {"frobnicate", "ERR unknown command"},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        std::string answer = n.l.amf->control(c.line, nullptr);
        EXPECT_EQ(answer.rfind(c.answerStart, 0), 0u) << answer;
    }
    std::string counters = n.l.amf->control("counters", nullptr);
    EXPECT_NE(counters.find("COUNTER ue.registered 1\n"), std::string::npos);
    EXPECT_EQ(counters.substr(counters.size() - 4), "END\n");
    bool quit = false;
    EXPECT_EQ(n.l.amf->control("quit", &quit), "OK quit\n");
    EXPECT_TRUE(quit);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Env);
    return RUN_ALL_TESTS();
}
