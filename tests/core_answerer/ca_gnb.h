// The scripted gNB on a real SCTP association of the socket engine, from namespace A
// of tests/endpoint/netns.h to an answerer in namespace B; for the SCTP tests and the
// benchmark. The socket engine must be started, its SCTP backend chosen.
#pragma once

#include <atomic>
#include <cstdio>

#include "ca_driver.h"
#include "ks_test_util.h"
#include "mv_socket_engine.h"
#include "netns.h"

namespace cat {

struct Gnb {
    cad::Driver drv;
    MV_Socket* sock = nullptr;
    std::atomic<int> connects{0}, closes{0};

    explicit Gnb(int port, cad::Driver::Config c = {}) : drv(c) {
        MV_SctpSocketInfo info{};
        info.ipVersion = 4;
        info.ipCount = 1;
        snprintf(info.IP[0], sizeof info.IP[0], "%s", kse::Netns::A[0]);
        info.RemotePort = port;
        info.RemoteIpCount = 1;
        snprintf(info.RemoteIP[0], sizeof info.RemoteIP[0], "%s", kse::Netns::B[0]);
        info.PPID = 60;
        info.UseEPoll = 1;
        info.MaxOStreams = info.MaxIStreams = 16;
        sock = __mv_socket_engine_create_sctp_client_socket(&info);
        sock->parentData1 = this;
        sock->OnConnected = [](MV_Socket* s) { ++static_cast<Gnb*>(s->parentData1)->connects; };
        sock->OnClose = [](MV_Socket* s) { ++static_cast<Gnb*>(s->parentData1)->closes; };
        sock->OnBufferReceive = onBuffer;
        drv.send = [this](uint16_t stream, const uint8_t* p, size_t n) {
            return __mv_socket_engine_sctp_send_ngap2(sock, p, int(n), stream);
        };
    }
    Gnb(const Gnb&) = delete;
    Gnb& operator=(const Gnb&) = delete;
    // Socket records live as long as the process: only stop this one reconnecting.
    ~Gnb() {
        sock->disableClientAutoReConnect = 1;
        __mv_socket_engine_sctp__close_client_connection(sock);
        sock->OnBufferReceive = nullptr;
        sock->OnClose = nullptr;
        sock->OnConnected = nullptr;
        sock->parentData1 = nullptr;
    }

    // Connects (or waits for the reconnection after connectsBefore) and sets up.
    bool up(int connectsBefore = 0) {
        if (!connectsBefore) __mv_socket_engine_sctp_client_socket_start_read_thread(sock);
        if (!kst::waitFor([&] { return connects.load() > connectsBefore; }, 30)) return false;
        drv.ngSetup();
        return kst::waitFor([&] { return drv.setupDone(); }, 30);
    }
    bool registered(size_t i) {
        drv.registerUe(i);
        return drv.waitUe(i, [](const cad::Ue& u) { return u.registered; }, 30);
    }

    static void onBuffer(MV_SocketSCTPBuffer* b) {
        auto* g = b->siSocket ? static_cast<Gnb*>(b->siSocket->parentData1) : nullptr;
        if (g && b->len > b->pos) g->drv.receive(b->streamId, {b->buff + b->pos, size_t(b->len - b->pos)});
        __mv_socket_engine_release_sctp_socket_buffer(b);
    }
};

}  // namespace cat
