// A second Diameter node of ours for the tests, run in a network namespace of its own:
// a host that answers Gx requests with 2001 and serves nothing else. Reports on stdout:
//   READY                         the host listens
//   ANSWER cmd=<c> result=<r>     an answer reached it (to what "bad" sent)
// Commands on stdin:
//   close   closes every connection
//   bad     sends each connection a malformed request, an answer nobody asked for and
//           four messages of random bytes
//   quit
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "diam_msgs.h"

namespace {

std::mutex outLock;
void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
    std::lock_guard g(outLock);
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    printf("\n");
    fflush(stdout);
}

void onGx(MV_DiamMessage* msg) {
    if (__mv_diam_get_cmdflags(msg) & MV_DIAM_FLAG_REQUEST)
        ksd::answer2001(msg);
    else
        say("ANSWER cmd=%u result=%u", __mv_diam_get_cmdcode(msg), __mv_diam_get_result_code(msg));
    __mv_diam_freeMessage2(msg);
}

std::vector<std::string> split(const char* text) {
    std::vector<std::string> out;
    std::string cur;
    for (const char* p = text; *p; ++p) {
        if (*p == ',') {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += *p;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

void sendRaw(MV_DiamNode* conn, const std::vector<uint8_t>& b) {
    MV_Socket* s = conn->vSiSocket.load();
    if (!s) return;
    if (s->TransportType == MV_TRANSPORT_SCTP) __mv_socket_engine_sctp_send2(s, b.data(), int(b.size()), 0, 46);
    else __mv_socket_engine_tcp_send_socket_data(s, b.data(), int(b.size()), 0);
}

void put32(std::vector<uint8_t>& b, uint32_t v) {
    for (int i = 3; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
}

// A header and AVPs given as bytes; the length is filled in.
std::vector<uint8_t> message(uint8_t flags, uint32_t cmd, uint32_t app, uint32_t e2e, const std::vector<uint8_t>& avps) {
    std::vector<uint8_t> b;
    put32(b, 0x01000000);
    put32(b, uint32_t(flags) << 24 | cmd);
    put32(b, app);
    put32(b, 77);
    put32(b, e2e);
    b.insert(b.end(), avps.begin(), avps.end());
    uint32_t n = uint32_t(b.size());
    b[1] = uint8_t(n >> 16);
    b[2] = uint8_t(n >> 8);
    b[3] = uint8_t(n);
    return b;
}

void misbehave(MV_DiamNode* conn, void*) {
    std::vector<uint8_t> sid;  // Session-Id "bad;1", then a CC-Request-Type whose length runs past the message
    put32(sid, 263);
    put32(sid, 0x4000000D);
    for (char c : std::string("bad;1")) sid.push_back(uint8_t(c));
    sid.insert(sid.end(), 3, 0);
    std::vector<uint8_t> overrun = sid;
    put32(overrun, 416);
    put32(overrun, 0x40000040);
    put32(overrun, 1);
    sendRaw(conn, message(0xC0, 272, 16777238, 5, overrun));
    std::vector<uint8_t> answer = sid;
    put32(answer, 268);
    put32(answer, 0x4000000C);
    put32(answer, 2001);
    sendRaw(conn, message(0x40, 272, 16777238, 0x7FFFFFF1, answer));
    std::mt19937 rng(46);
    for (int i = 0; i < 4; ++i) {
        std::vector<uint8_t> noise(size_t(20 + rng() % 2000));
        for (auto& x : noise) x = uint8_t(rng());
        sendRaw(conn, noise);
    }
}

void closeIt(MV_DiamNode* conn, void*) {
    if (MV_Socket* s = conn->vSiSocket.load()) {
        if (s->TransportType == MV_TRANSPORT_SCTP) __mv_socket_engine_sctp__close_client_connection(s);
        else s->Close(s);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* addrs = "127.0.0.1";
    const char* logs = "/tmp";
    const char* host = "node.ks.realm";
    const char* realm = "ks.realm";
    int port = 3868, transport = MV_DIAM_TRANSPORT_SCTP, dwr = 30, udp = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i];
        const char* v = argv[i + 1];
        if (k == "--addrs") addrs = v;
        else if (k == "--port") port = atoi(v);
        else if (k == "--tcp") transport = atoi(v) ? MV_DIAM_TRANSPORT_TCP : MV_DIAM_TRANSPORT_SCTP;
        else if (k == "--dwr") dwr = atoi(v);
        else if (k == "--host") host = v;
        else if (k == "--realm") realm = v;
        else if (k == "--udp") udp = atoi(v);
        else if (k == "--logs") logs = v;
    }
    __init_morva_core();
    __mv_init_logger(logs);
    __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
    __mv_socket_engine_init();
    if (transport == MV_DIAM_TRANSPORT_SCTP) __mv_socket_engine__set_sctp_backend("userspace", udp);
    __mv_diam_stack_init(nullptr);
    __mv_diam_register_app_handler(16777238, onGx);

    MV_DiamNode* n = __mv_diam_new_node("node", host, realm);
    n->IPTransportType = transport;
    auto list = split(addrs);
    n->sIPCount = uint32_t(list.size() < 5 ? list.size() : 5);
    n->IPCount = int(n->sIPCount);
    for (uint32_t i = 0; i < n->sIPCount; ++i) snprintf(n->sIP[i], sizeof n->sIP[i], "%s", list[i].c_str());
    n->IPPort = port;
    n->DWRTimer = dwr;
    n->SCTP_MaxOStreams = 8;
    n->SCTP_MaxIStreams = 8;
    n->VendorSpecificAuthApplicationId[0] = 16777238;
    n->VendorSpecificAuthApplicationVendorId[0] = MV_DIAM_VENDOR_3GPP;
    n->VendorSpecificAuthApplicationIdCount = 1;
    if (__mv_diam_start_host(n) != 1) return 1;
    while (!n->vSiSocket.load()->isActive) usleep(10000);
    say("READY");

    char line[64];
    while (fgets(line, sizeof line, stdin)) {
        if (strncmp(line, "close", 5) == 0) __mv_diam_for_each_connection(n, closeIt, nullptr);
        else if (strncmp(line, "bad", 3) == 0) __mv_diam_for_each_connection(n, misbehave, nullptr);
        else if (strncmp(line, "quit", 4) == 0) break;
    }
    _exit(0);
}
