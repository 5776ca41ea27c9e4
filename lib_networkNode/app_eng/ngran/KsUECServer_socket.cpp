// The console server on the socket engine: the listening socket, the framing entry
// on the TCP delivery thread and the transport answers leave by.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "KsUECServer.h"
#include "Kestrane.h"
#include "mv_socket_engine.h"

namespace {

// Answers of one connection never interleave and never wait on the console: the
// engine queues what the kernel cannot take. The generation keeps an answer from
// reaching a later connection on the same record.
int socketSend(void* socket, uint32_t generation, const void* bytes, int len) {
    return __mv_socket_engine_send_on_connection(static_cast<MV_Socket*>(socket), int(generation), bytes, len);
}

constexpr KsUECTransport kSocketTransport{socketSend};

void peerText(MV_Socket* s, char* out, size_t cap) {
    char ip[64] = "";
    int port = 0;
    __mv_socket_engine__get_client_ip_port(s, ip, &port);
    snprintf(out, cap, "%s:%d", ip, port);
}

}  // namespace

int KsUECServer___Start(void) {
    uint32_t port = __ksEngine->UECPort;
    if (port == 0) {
        printf("Cannot Start UE-Console on TCPPort=0\n");
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "UE-Console is off: CLIPort is 0 <%s|%s|%d>", __FILE_NAME__,
                 __func__, __LINE__);
        return 1;
    }
    const char* ip = __ksEngine->localIP[0];
    printf("Starting  UE-Console Server On IP=%s Port=%u (18,22)\n", ip, port);
    const char* dot = strchr(ip, '.');
    int version;
    if (dot && dot > ip) version = 4;
    else if (strchr(ip, ':')) version = 6;
    else {
        // Start-up ends here with status 0, as for any bad configuration.
        printf("unable to identify IP version Type\n");
        return 0;
    }
    KsUECServer___setTransport(&kSocketTransport);
    MV_Socket* s = __mv_socketEngine->CreateServerSocket(ip, version, MV_TRANSPORT_TCP, int(port), 0, "", "");
    s->OnAccept = KsUECServer___on_accept;
    s->OnClose = KsUECServer___on_close;
    s->OnBufferReceive = KsUECServer___on_buffer;
    // A console that does not read its answers is dropped before it holds this much.
    __mv_socket_engine__set_max_outbound_bytes(s, KS_UEC_MAX_UNSENT_BYTES);
    __mv_socketEngine->Start(s);
    return 1;
}

void KsUECServer___on_accept(MV_Socket*, MV_Socket*) {}
void KsUECServer___on_close(MV_Socket*) {}

void KsUECServer___on_buffer(MV_Socket* siSocketChild) {
    MV_Socket* s = siSocketChild;
    // Every read below is of this connection only: if it closes meanwhile and the record
    // serves the next, the reads refuse, and the next connection's arrival calls again.
    const int gen = __mv_socket_engine_get_generation(s);
    // Every whole message waiting is taken: the engine calls this once per arrival,
    // and a console that sent two requests in one segment waits for both answers.
    for (;;) {
        int waiting = __mv_socket_engine_buffer_data_length(s);
        if (waiting <= 0) return;
        uint8_t head[sizeof(__uec_msg_header)];
        int n = __mv_socket_engine_tcp_get_sample_buffer_gen(s, gen, head, int(sizeof head));
        KsUECFrame f = KsUECServer___frame(std::span<const uint8_t>(head, size_t(n < 0 ? 0 : n)), uint32_t(waiting));
        if (n < int(sizeof head)) return;
        if (f.MessageType != VELTA_UEC_MSG_TYP__PING_REQUEST)
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_DEBUG,
                     "Received buffer with Size=%u MessageType=%u RequestNo=%u BufferLength=%u <%s|%s|%d>",
                     f.MessageSize, f.MessageType, f.RequestNo, uint32_t(waiting), __FILE_NAME__, __func__, __LINE__);
        switch (f.Kind) {
            case KsUECFrameKind::Wait:
                __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_DEBUG,
                         "Not Received Sufficent Buffer expected=%u received=%u <%s|%s|%d>", f.MessageSize,
                         uint32_t(waiting), __FILE_NAME__, __func__, __LINE__);
                return;
            case KsUECFrameKind::TooShort: {
                char peer[96];
                peerText(s, peer, sizeof peer);
                __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                         "UE-Console message of MessageSize=%u MessageType=%u is shorter than its header, closing the "
                         "connection of %s <%s|%s|%d>",
                         f.MessageSize, f.MessageType, peer, __FILE_NAME__, __func__, __LINE__);
                __mv_socket_engine_close_connection(s, gen);
                return;
            }
            case KsUECFrameKind::TooLong:
                // The stream can no longer be framed; the size is a contract with the console.
                __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "message size exceeded to %d <%s|%s|%d>",
                         int(f.MessageSize), __FILE_NAME__, __func__, __LINE__);
                printf("message size exceeded to %d\n", int(f.MessageSize));
                fflush(stdout);
                _exit(0);
            case KsUECFrameKind::Message:
                break;
        }
        uint8_t bytes[VELTA_UEC_MAX_MESSAGE_SIZE];
        int got = __mv_socket_engine_tcp_get_buffer_gen(s, gen, bytes, int(f.MessageSize));
        __mv_socket_engine_tcp_release_used_buffer(s);
        if (got != int(f.MessageSize)) return;  // the connection closed under us
        // An unknown type, even or odd, is dropped without a word.
        void* message = KsUECServer___takeMessage(std::span<const uint8_t>(bytes, size_t(got)), s, uint32_t(gen));
        if (message) __mv_core_queue(message, KsUECServer___handlerOf(f.MessageType)->Handler);
    }
}
