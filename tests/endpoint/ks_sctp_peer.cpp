// An SCTP peer for the tests: a second engine in its own network namespace. It
// listens, echoes every message on the stream it came on, and reports on stdout:
//   READY                       the listener stands
//   ACCEPT <id> out=<n> in=<n>  an association came up (streams as this side sees them)
//   RX stream=<s> ppid=<p> len=<n>
//   CLOSE
// Commands on stdin: "close" shuts down every association, "quit" ends the peer.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "mv_socket_engine.h"

namespace {

std::mutex outLock;
std::mutex childLock;
std::vector<MV_Socket*> children;

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

void onAccept(MV_Socket* child, MV_Socket*) {
    {
        std::lock_guard g(childLock);
        bool known = false;
        for (MV_Socket* c : children) known = known || c == child;
        if (!known) children.push_back(child);
    }
    say("ACCEPT %s out=%u in=%u", child->ClientConnectionId, unsigned(child->peer_max_o_streams.load()),
        unsigned(child->peer_max_i_streams.load()));
}

void onClose(MV_Socket*) { say("CLOSE"); }

void onMessage(MV_SocketSCTPBuffer* b) {
    say("RX stream=%u ppid=%u len=%d", unsigned(b->streamId), b->ppid, b->len);
    __mv_socket_engine_sctp_send2(b->siSocket, b->buff + b->pos, b->len - b->pos, b->streamId, b->ppid);
    __mv_socket_engine_release_sctp_socket_buffer(b);
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

}  // namespace

int main(int argc, char** argv) {
    const char* addrs = "127.0.0.1";
    const char* logs = "/tmp";
    int port = 38412, model = 2, udp = 0, remoteUdp = 0;
    uint16_t istreams = 5, ostreams = 5;
    uint32_t ppid = 60;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i];
        const char* v = argv[i + 1];
        if (k == "--addrs") addrs = v;
        else if (k == "--port") port = atoi(v);
        else if (k == "--model") model = atoi(v);
        else if (k == "--istreams") istreams = uint16_t(atoi(v));
        else if (k == "--ostreams") ostreams = uint16_t(atoi(v));
        else if (k == "--ppid") ppid = uint32_t(atoi(v));
        else if (k == "--udp") udp = atoi(v);
        else if (k == "--remote-udp") remoteUdp = atoi(v);
        else if (k == "--logs") logs = v;
    }
    __init_morva_core();
    __mv_init_logger(logs);
    __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
    __mv_socket_engine_init();
    __mv_socket_engine__set_sctp_backend2("userspace", udp, remoteUdp);

    MV_SctpSocketInfo info{};
    auto list = split(addrs);
    info.ipCount = int(list.size());
    for (size_t i = 0; i < list.size() && i < 10; ++i) snprintf(info.IP[i], sizeof info.IP[i], "%s", list[i].c_str());
    info.ipVersion = 4;
    info.Port = port;
    info.PPID = ppid;
    info.UseEPoll = model;
    info.MaxOStreams = ostreams;
    info.MaxIStreams = istreams;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&info);
    srv->OnAccept = onAccept;
    srv->OnClose = onClose;
    srv->OnBufferReceive = onMessage;
    __mv_socket_engine_start_server_socket(srv);
    while (!srv->isActive) usleep(10000);
    say("READY");

    char line[64];
    while (fgets(line, sizeof line, stdin)) {
        if (strncmp(line, "close", 5) == 0) {
            std::vector<MV_Socket*> now;
            {
                std::lock_guard g(childLock);
                now = children;
            }
            for (MV_Socket* c : now)
                if (c->isActive) __mv_socket_engine_sctp__close_client_connection(c);
        } else if (strncmp(line, "quit", 4) == 0) {
            break;
        }
    }
    _exit(0);
}
