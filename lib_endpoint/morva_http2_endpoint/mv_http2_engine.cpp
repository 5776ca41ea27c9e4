// The engine record, listeners, the life of a connection (connect, accept, close),
// stream records, connections per peer and their pools, the map of waiting requests,
// the monitor thread and the statistics lines.
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <string>

#include "mv_http2_internal.h"

__mv_http2_engine* __mv_http2Engine = nullptr;

namespace {

std::once_flag initOnce;
std::once_flag recordsOnce;
int appThreadsWanted = 3;

void* monitorThread(void*);

void initRecords() {
    auto* e = __mv_arena_new<__mv_http2_engine>();
    e->HeaderListSize = 0;
    e->HeaderTableSize = 0;
    e->MaxConcurrentStreams = 100;
    e->InitialWindowSize = 16777216;
    e->EnablePush = 1;
    e->FrameSize = 16384;
    e->HeaderTableSize_ShareToPeer = 0;
    e->EnablePush_ShareToPeer = 0;
    e->MaxConcurrentStreams_ShareToPeer = 1;
    e->WindowSize_ShareToPeer = 0;
    e->FrameSize_ShareToPeer = 0;
    e->HeaderListSize_ShareToPeer = 0;
    e->StreamPool = MV_TypedPool<MV_Http2Stream>("http2-streams", 10000, 1);
    e->MessagePool = MV_TypedPool<MV_HttpMessage>("http2-messages", 500, 1);
    e->appMessageQueueThreads = appThreadsWanted;
    e->clientConnectionTimeOut_toCloseIt = 90;
    e->GetConnectionByUri = __mv_http2_engine_get_connection_by_host_name;
    e->GetConnectionByIP = __mv_http2_engine_get_connection_by_ip;
    e->AddHost = __mv_http2_engine_add_host;
    e->AddTlsHost = __mv_http2_engine_add_tls_host;
    e->StartServer = __mv_http2_engine_start_hosts;
    e->CreateConnectionPool = __mv_http2_engine_create_connection_pool;
    __mv_http2Engine = e;
}

void appendConnection(MV_Http2Connection* c) {
    auto* e = __mv_http2Engine;
    std::lock_guard g(e->ConnectionLock);
    if (e->ConnectionCurrent) e->ConnectionCurrent->Next = c;
    else e->ConnectionHead = c;
    e->ConnectionCurrent = c;
}

}  // namespace

void __mv_http2_engine_init_detached() {
    std::call_once(recordsOnce, [] {
        __init_morva_core();
        initRecords();
    });
}

void __mv_http2_engine_init() {
    std::call_once(initOnce, [] {
        __mv_socket_engine_init();
        __mv_http2_engine_init_detached();
        auto* e = __mv_http2Engine;
        __mv_core_create_fsmqueue(&e->appMessageQueue, nullptr, e->appMessageQueueThreads, 10000);
        __mv_create_pthread2(monitorThread, nullptr, "h2-mont");
        printf("http2 endpoint initalized\n");
    });
}

int __mv_http2_engine_set_app_thread_count(int numThreads) {
    if (numThreads < 3 || numThreads > 100 || __mv_http2Engine) return 0;
    appThreadsWanted = numThreads;
    return 1;
}

void __mv_http2_engine_set_max_concurrent_streams(int iMaxConcurrentStreams) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->MaxConcurrentStreams =
        iMaxConcurrentStreams <= 0 || iMaxConcurrentStreams >= 500 ? 100 : iMaxConcurrentStreams;
}

void __mv_http2_engine_set_app_request_handler(fn_http2_app_request_handler h) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->AppRequestHandler = h;
}
void __mv_http2_engine_set_app_message_handler(fn_http2_app_message_handler h) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->AppMessageHandler = h;
}
void __mv_http2_engine_set_app_request_error_handler(fn_http2_app_error_handler h) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->AppRequestErrorHandler = h;
}
void __mv_http2_engine_set__set_window_update_handler(fn_http2_window_update_handler h) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->WindowUpdateHandler = h;
}
void __mv_http2_engine_set_stream_error_handler(fn_http2_stream_error_handler h) {
    __mv_http2_engine_init_detached();
    __mv_http2Engine->StreamErrorHandler = h;
}

// ---------------------------------------------------------------- streams

MV_Http2Stream* h2___stream_new(MV_Http2Connection* c, int32_t sid) {
    MV_Http2Stream* s = __mv_http2Engine->StreamPool.allocate();
    if (!s) return nullptr;
    s->conn = c;
    s->StreamId = sid;
    s->RecvWindow = h2___local_stream_window();
    s->SendWindow = c->Peer_InitialWindowSize;
    c->Streams.insert(sid, s);
    c->StreamCount = c->Streams.count();
    return s;
}

void h2___stream_free(MV_Http2Connection* c, MV_Http2Stream* s) {
    h2___stream_unlist(c, s);
    c->Streams.erase(s->StreamId);
    c->StreamCount = c->Streams.count();
    __mv_http2_block_free(s->Data);
    __mv_http2_block_free(s->OutData);
    s->Data = s->OutData = nullptr;
    __mv_http2Engine->StreamPool.release(s);
}

void h2___stream_maybe_close(MV_Http2Connection* c, MV_Http2Stream* s) {
    if (s->State == MV_HTTP2_STREAM_CLOSED) h2___stream_free(c, s);
}

void h2___stream_error(MV_Http2Connection* c, MV_Http2Stream* s, int32_t sid, int code, const char* why) {
    char peer[80];
    h2___conn_peer_text(c, peer, sizeof peer);
    H2_LOG(MV_LOG_ERROR, "stream error %s (%d) on StreamId=%d: %s peer=%s, sending RST_STREAM <%s|%s|%d>",
           __mv_http2_error_name(code), code, sid, why, peer, __FILE_NAME__, __func__, __LINE__);
    h2___queue_rst(c, sid, code);
    if (s) {
        h2___post_failed(c, sid, code);
        h2___stream_free(c, s);
    }
}

void h2___connection_error(MV_Http2Connection* c, int code, const char* why, int frameType, int32_t sid) {
    char peer[80];
    h2___conn_peer_text(c, peer, sizeof peer);
    H2_LOG(MV_LOG_ERROR,
           "connection error %s (%d): %s, frame-type=%s(%d) StreamId=%d peer=%s, sending GOAWAY and closing <%s|%s|%d>",
           __mv_http2_error_name(code), code, why, __mv_http2_frame_name(frameType), frameType, sid, peer,
           __FILE_NAME__, __func__, __LINE__);
    h2___queue_goaway(c, code);
    h2___flush_now(c);
    h2___begin_close(c);
}

void h2___begin_close(MV_Http2Connection* c) {
    {
        std::lock_guard p(c->PrefaceLock);
        if (c->isActive == MV_HTTP2_CONN_IDLE || c->isActive == MV_HTTP2_CONN_CLOSING) return;
        c->ClosingSince = __mv_core_get_server_timer_tick();
        c->isActive = MV_HTTP2_CONN_CLOSING;
    }
    if (c->Detached) {
        h2___socket_close(c);
        return;
    }
    // The streams end now; the socket closes with the monitor's next round.
    std::lock_guard g(c->StreamLock);
    std::vector<MV_Http2Stream*> open;
    c->Streams.forEach([&](int32_t, void* v) { open.push_back(static_cast<MV_Http2Stream*>(v)); });
    for (MV_Http2Stream* s : open) {
        h2___post_failed(c, s->StreamId, MORVA_HTTP2_CONNECTION_LOST);
        h2___stream_free(c, s);
    }
}

// ---------------------------------------------------------------- the life of a connection

MV_Http2Connection* h2___conn_new() {
    auto* c = __mv_arena_new<MV_Http2Connection>();
    c->ConnId = ++__mv_http2Engine->HttpConnId;
    c->id = int(c->ConnId);
    c->MaxConcurrentStreams = __mv_http2Engine->MaxConcurrentStreams;
    c->InitialWindowSize = __mv_http2Engine->InitialWindowSize;
    c->EnablePush = __mv_http2Engine->EnablePush;
    c->Peer_MaxConcurrentStreams = 100;
    return c;
}

void h2___conn_peer_text(MV_Http2Connection* c, char* out, size_t cap) {
    snprintf(out, cap, "%s:%d", c->PeerIP, c->PeerPort);
}

void h2___conn_reset(MV_Http2Connection* c) {
    auto* e = __mv_http2Engine;
    ++c->ConnGen;
    {
        std::lock_guard g(c->StreamId_Lock);
        c->StreamId = 0;
    }
    c->HighestLocalStreamId = c->HighestPeerStreamId = 0;
    c->RxBuf.clear();
    c->RxPos = 0;
    c->RecvWindow = h2___local_connection_window();
    c->RecvConsumed = 0;
    __mv_http2_block_free(c->HeaderBlock);
    c->HeaderBlock = nullptr;
    c->HeaderBlockLen = c->HeaderBlockCap = 0;
    c->ContinuationStreamId = 0;
    c->FirstFrameSeen = 0;
    c->PeerSettingsReceived = 0;
    c->GoAwayReceived = 0;
    c->GoAwayLastStreamId = 0;
    c->GoAwayErrorCode = 0;
    c->SendWindow = MORVA_HTTP2_INITIAL_CONNECTION_WINDOW_SIZE;
    c->Peer_HeaderTableSize = MORVA_HTTP2_DEFAULT_HEADER_TABLE_SIZE;
    c->Peer_HeaderListSize = 0;
    c->Peer_MaxConcurrentStreams = 100;
    c->Peer_InitialWindowSize = MORVA_HTTP2_INITIAL_WINDOW_SIZE;
    c->Peer_EnablePush = 1;
    c->Peer_FrameSize = MORVA_HTTP2_MIN_FRAME_SIZE;
    c->isPrefaceReceived = c->isPrefaceSent = c->isSettingsSent = c->ReceivedSettingsAck = 0;
    c->ReceivedPushPromise = 0;
    c->StartGracefulShutdown = 0;
    c->ProtocalError = 0;
    c->LastReceivedStreamId = c->LastSuccesfulStreamId = 0;
    c->SentContextCount = 0;
    c->MaxConcurrentStreams = e->MaxConcurrentStreams;
    c->PumpQueued = 0;
    {
        std::lock_guard g(c->OutLock);
        c->OutBuf.clear();
    }
    {
        std::lock_guard g(c->StreamSendLock);
        if (c->http2Deflator) nghttp2_hd_deflate_del(c->http2Deflator);
        c->http2Deflator = nullptr;
    }
    c->lastCommunication = __mv_core_get_server_timer_tick();
}

void __mv_http2_engine_on_close(MV_Socket* siSocket) {
    if (auto* c = static_cast<MV_Http2Connection*>(siSocket->transportEng)) h2___conn_closed(c);
}

void h2___conn_closed(MV_Http2Connection* c) {
    std::lock_guard r(c->RecvFrameLock);
    std::lock_guard p(c->PrefaceLock);
    if (c->isActive == MV_HTTP2_CONN_IDLE) return;
    // What the reader gathered goes first, then the failures of the streams left open.
    h2___post_pass(c);
    // Streams the peer took before an error GOAWAY fail with its code; others as lost.
    int code = c->GoAwayReceived && c->GoAwayErrorCode != MORVA_HTTP2_NO_ERROR ? c->GoAwayErrorCode.load()
                                                                              : MORVA_HTTP2_CONNECTION_LOST;
    int failed = 0;
    {
        std::lock_guard g(c->StreamLock);
        std::vector<MV_Http2Stream*> open;
        c->Streams.forEach([&](int32_t, void* v) { open.push_back(static_cast<MV_Http2Stream*>(v)); });
        for (MV_Http2Stream* s : open) {
            h2___post_failed(c, s->StreamId, code);
            h2___stream_free(c, s);
            ++failed;
        }
        c->StreamHead = c->StreamCurrent = nullptr;
        c->WaitingCount = 0;
        // Entries whose stream never opened (a send that failed half-way).
        std::vector<int32_t> orphans;
        {
            std::lock_guard m(c->sentRequestContextsLock);
            c->sentRequestContexts.forEach([&](int32_t sid, void*) { orphans.push_back(sid); });
        }
        for (int32_t sid : orphans) h2___post_failed(c, sid, code);
    }
    {
        std::lock_guard g(c->OutLock);
        c->OutBuf.clear();
    }
    __mv_http2_block_free(c->HeaderBlock);
    c->HeaderBlock = nullptr;
    c->HeaderBlockLen = c->HeaderBlockCap = 0;
    c->ContinuationStreamId = 0;
    c->RxBuf.clear();
    c->RxPos = 0;
    c->isActive = MV_HTTP2_CONN_IDLE;
    c->isPrefaceReceived = c->isPrefaceSent = c->isSettingsSent = 0;
    c->SentContextCount = 0;
    char peer[80];
    h2___conn_peer_text(c, peer, sizeof peer);
    H2_LOG(MV_LOG_INFO, "http2 connection closed ConnId=%u peer=%s isServer=%d streams-failed=%d <%s|%s|%d>", c->ConnId,
           peer, c->isServer, failed, __FILE_NAME__, __func__, __LINE__);
}

void __mv_http2_engine_on_accept(MV_Socket* newSocket, MV_Socket* hostSocket) {
    auto* c = static_cast<MV_Http2Connection*>(newSocket->transportEng);
    bool fresh = !c;
    if (fresh) {
        c = h2___conn_new();
        c->isServer = 1;  // before the monitor can see the record
        newSocket->transportEng = c;
    }
    std::lock_guard p(c->PrefaceLock);
    c->siSocket = newSocket;
    c->serverInfo = static_cast<MV_Http2ServerInfo*>(hostSocket ? hostSocket->parentData1 : nullptr);
    char ip[INET6_ADDRSTRLEN] = "";
    int port = 0;
    c->PeerIPVersion = __mv_socket_engine__get_client_ip_port(newSocket, ip, &port);
    snprintf(c->PeerIP, sizeof c->PeerIP, "%s", ip);
    c->PeerPort = port;
    h2___conn_reset(c);
    ++c->RowVersion;
    c->isActive = MV_HTTP2_CONN_ACTIVE;
    if (fresh) appendConnection(c);
}

int __mv_http2_engine_refresh_client_connection(MV_Http2Connection* httpConn) {
    MV_Http2Connection* c = httpConn;
    if (!c) return -1;
    if (c->isServer) return 0;
    if (c->isActive == MV_HTTP2_CONN_ACTIVE) {
        if (!c->GoAwayReceived) return 1;
        // A connection told to go away is replaced once its last stream is done.
        if (c->StreamCount > 0) return -1;
        h2___socket_close(c);
    }
    if (c->isActive == MV_HTTP2_CONN_CLOSING) h2___socket_close(c);
    {
        std::lock_guard p(c->PrefaceLock);
        if (c->isActive == MV_HTTP2_CONN_ACTIVE) return c->GoAwayReceived ? -1 : 1;
        h2___conn_reset(c);
        c->isActive = MV_HTTP2_CONN_CONNECTING;
        // Preface and SETTINGS are first in the buffer before the peer can be heard.
        h2___queue_preface_and_settings(c);
        if (c->Detached) {
            c->isActive = MV_HTTP2_CONN_ACTIVE;
        } else if (!c->siSocket || c->siSocket->Connect(c->siSocket) < 1) {
            c->isActive = MV_HTTP2_CONN_IDLE;
            std::lock_guard g(c->OutLock);
            c->OutBuf.clear();
            return -1;
        } else {
            c->isActive = MV_HTTP2_CONN_ACTIVE;
        }
    }
    h2___flush(c, true);
    // The server's SETTINGS come first on the connection: with them the first requests
    // already keep to its limits. A silent server costs this wait once per connect.
    for (int i = 0; i < 2000 && !c->PeerSettingsReceived && c->isActive == MV_HTTP2_CONN_ACTIVE && !c->Detached; ++i)
        usleep(1000);
    return 1;
}

int32_t __mv_http2_engine_getNextStreamId(MV_Http2Connection* httpConn) {
    if (!httpConn) return -1;
    std::lock_guard g(httpConn->StreamId_Lock);
    int32_t next = httpConn->StreamId == 0 ? (httpConn->isServer ? 2 : 1) : httpConn->StreamId + 2;
    if (next > 100000000) {
        // Ids never go back on one connection: this one drains and the next life starts at 1.
        httpConn->GoAwayReceived = 1;
        return 0;
    }
    httpConn->StreamId = next;
    return next;
}

void __mv_http2_engine_close_connection(MV_Http2Connection* conn, int errorCode) {
    if (!conn || conn->isActive != MV_HTTP2_CONN_ACTIVE) return;
    h2___queue_goaway(conn, errorCode);
    h2___flush_now(conn);
    h2___begin_close(conn);
}

// ---------------------------------------------------------------- listeners

int __mv_http2_engine_add_host2(const char* ip, int version, int port) {
    __mv_http2_engine_init_detached();
    auto* e = __mv_http2Engine;
    if (e->ServerCount >= MORVA_HTTP2_MAX_SERVERS) return 0;
    MV_Http2ServerInfo& s = e->Server[e->ServerCount++];
    s.Port = port;
    s.IPVersion = version == 6 ? 6 : 4;
    snprintf(s.IP, sizeof s.IP, "%s", ip ? ip : "");
    return 1;
}

int __mv_http2_engine_add_host(int version, int port) { return __mv_http2_engine_add_host2(nullptr, version, port); }

int __mv_http2_engine_add_tls_host(int version, int port, const char*, const char*) {
    H2_LOG(MV_LOG_CRITICAL, "TLS listener refused: no TLS here, version=%d port=%d <%s|%s|%d>", version, port,
           __FILE_NAME__, __func__, __LINE__);
    return 0;
}

int __mv_http2_engine_start_hosts() {
    __mv_http2_engine_init();
    auto* e = __mv_http2Engine;
    static std::once_flag epollOnce;
    std::call_once(epollOnce, [] { __mv_socket_engine_start(); });
    for (int i = 0; i < e->ServerCount; ++i) {
        MV_Http2ServerInfo& s = e->Server[i];
        if (s.isStarted) continue;
        s.siSocket = __mv_socket_engine_create_server_socket(s.IP[0] ? s.IP : nullptr, s.IPVersion, MV_TRANSPORT_TCP,
                                                             s.Port, 0, nullptr, nullptr);
        s.siSocket->parentData1 = &s;
        s.siSocket->OnAccept = __mv_http2_engine_on_accept;
        s.siSocket->OnClose = __mv_http2_engine_on_close;
        s.siSocket->OnBufferReceive = __mv_http2_engine_on_buffer_recv;
        __mv_socket_engine_start_server_socket(s.siSocket);
        s.isStarted = 1;
    }
    return 1;
}

// ---------------------------------------------------------------- connections per peer

namespace {

MV_Http2Connection* newClientConnection(const char* ip, int ipversion, int port, int tls) {
    MV_Http2Connection* c = h2___conn_new();
    snprintf(c->PeerIP, sizeof c->PeerIP, "%s", ip);
    snprintf(c->PeerFQDN, sizeof c->PeerFQDN, "%s", ip);
    c->PeerPort = port;
    c->PeerIPVersion = ipversion == 6 ? 6 : 4;
    c->Tls = tls;
    if (c->PeerIPVersion == 6) snprintf(c->Authority, sizeof c->Authority, "[%s]:%d", ip, port);
    else snprintf(c->Authority, sizeof c->Authority, "%s:%d", ip, port);
    MV_Socket* s = __mv_socket_engine_create_client_socket(ip, c->PeerIPVersion, MV_TRANSPORT_TCP, port, tls, nullptr);
    s->noDelay = 1;
    s->transportEng = c;
    s->OnClose = __mv_http2_engine_on_close;
    s->OnBufferReceive = __mv_http2_engine_on_buffer_recv;
    c->siSocket = s;
    return c;
}

}  // namespace

int __mv_http2_engine_find_connection(const char* ip, int ipversion, int port, int bCreateIfNotExists, int tls,
                                      MV_Http2Connection** pHttpConn) {
    if (!ip || !pHttpConn) return -1;
    __mv_http2_engine_init();
    auto* e = __mv_http2Engine;
    *pHttpConn = nullptr;
    std::lock_guard g(e->ConnectionLock);
    for (MV_Http2Connection* c = e->ConnectionHead; c; c = c->Next) {
        if (c->isServer || c->Pool || c->Detached) continue;
        if (c->PeerPort == port && c->PeerIPVersion == (ipversion == 6 ? 6 : 4) && c->Tls == tls &&
            strcmp(c->PeerIP, ip) == 0) {
            *pHttpConn = c;
            return 1;
        }
    }
    if (!bCreateIfNotExists) return 0;
    MV_Http2Connection* c = newClientConnection(ip, ipversion, port, tls);
    if (e->ConnectionCurrent) e->ConnectionCurrent->Next = c;
    else e->ConnectionHead = c;
    e->ConnectionCurrent = c;
    *pHttpConn = c;
    return 1;
}

int __mv_http2_engine_get_connection_by_ip(const char* ip, int ipversion, int port, int tlsEnabled,
                                           MV_Http2Connection** httpConn) {
    return __mv_http2_engine_find_connection(ip, ipversion, port, 1, tlsEnabled, httpConn);
}

int __mv_http2_engine_get_connection_by_host_name(const char* baseUri, MV_Http2Connection** httpConn) {
    char ip[64];
    int port = 0, tls = 0, ipver = 4;
    if (__mv_http2_engine_parse_uri(baseUri, ip, &port, &tls, &ipver) != 1) return 0;
    return __mv_http2_engine_find_connection(ip, ipver, port, 1, tls, httpConn);
}

int __mv_http2_engine_parse_uri(const char* baseUri, char* serverIp, int* iport, int* tls, int* ipver) {
    if (!baseUri || !serverIp || !iport || !tls || !ipver) return 0;
    const char* sep = strstr(baseUri, "://");
    if (!sep) return 0;
    std::string scheme(baseUri, size_t(sep - baseUri));
    *tls = scheme == "https" ? 1 : 0;
    const char* h = sep + 3;
    std::string host;
    int port = 0;
    const char* rest;
    if (*h == '[') {
        const char* close = strchr(h, ']');
        if (!close) return 0;
        host.assign(h + 1, size_t(close - h - 1));
        rest = close + 1;
    } else {
        size_t n = strcspn(h, ":/");
        host.assign(h, n);
        rest = h + n;
    }
    if (host.empty() || host.size() > 256) return 0;
    if (*rest == ':') port = atoi(rest + 1);
    if (port <= 0) port = *tls ? 443 : 80;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (rc != 0 || !res) {
        H2_LOG(MV_LOG_ERROR, "ip not-resolved for hostname=%s, ipAddress=%s, ipversion=%d, port=%d <%s|%d>",
               host.c_str(), "", 0, port, __func__, __LINE__);
        printf("getaddrinfo: %s\n", gai_strerror(rc));
        return 0;
    }
    // The last address of the list wins.
    addrinfo* last = res;
    while (last->ai_next) last = last->ai_next;
    char text[INET6_ADDRSTRLEN] = "";
    if (last->ai_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(last->ai_addr)->sin6_addr, text, sizeof text);
        *ipver = 6;
    } else {
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(last->ai_addr)->sin_addr, text, sizeof text);
        *ipver = 4;
    }
    freeaddrinfo(res);
    snprintf(serverIp, 46, "%s", text);
    *iport = port;
    H2_LOG(MV_LOG_DEBUG, "ip resolved for hostname=%s, ipAddress=%s,ipversion=%d,port=%d <%s|%d>", host.c_str(), text,
           *ipver, port, __func__, __LINE__);
    return 1;
}

// ---------------------------------------------------------------- pools

namespace {

void poolAdd(MV_Http2ConnectionPool* p) {
    MV_Http2Connection* c = newClientConnection(p->PeerIP, p->PeerIPVersion, p->PeerPort, p->Tls);
    c->Pool = p;
    {
        std::lock_guard g(p->PoolLock);
        c->id = p->PoolCount;  // spreads a pool's connections over the application lines
        if (p->PoolCurrent) p->PoolCurrent->PoolNext = c;
        else p->PoolHead = c;
        p->PoolCurrent = c;
        ++p->PoolCount;
    }
    appendConnection(c);
}

// Room left for new streams, with a little headroom against a peer that lowers its limit.
bool hasRoom(MV_Http2Connection* c) {
    if (c->GoAwayReceived || c->StartGracefulShutdown) return false;
    int limit = c->Peer_MaxConcurrentStreams;
    int room = limit > 10 ? limit - 5 : limit;
    return c->SentContextCount < room && c->StreamCount < limit;
}

}  // namespace

int __mv_http2_engine_create_connection_pool(int count, const char* ip, int port, int ipversion, int tls,
                                             MV_Http2ConnectionPool** connectionPool) {
    if (!connectionPool || !ip || count < 1) return -1;
    __mv_http2_engine_init();
    auto* e = __mv_http2Engine;
    auto* p = __mv_arena_new<MV_Http2ConnectionPool>();
    snprintf(p->PeerIP, sizeof p->PeerIP, "%s", ip);
    snprintf(p->PeerFQDN, sizeof p->PeerFQDN, "%s", ip);
    p->PeerPort = port;
    p->PeerIPVersion = ipversion == 6 ? 6 : 4;
    p->Tls = tls;
    p->http2ConnPoolSize = count;
    p->http2LoadBalancingMode = 1;
    for (int i = 0; i < count; ++i) poolAdd(p);
    {
        std::lock_guard g(e->PoolLock);
        p->id = 0;
        for (MV_Http2ConnectionPool* q = e->PoolHead; q; q = q->Next) ++p->id;
        if (e->PoolCurrent) e->PoolCurrent->Next = p;
        else e->PoolHead = p;
        e->PoolCurrent = p;
    }
    *connectionPool = p;
    return 1;
}

int __mv_http2_engine__scaleup_pool(MV_Http2ConnectionPool* connectionPool) {
    if (!connectionPool) return -1;
    int added = 0;
    while (connectionPool->PoolCount < connectionPool->http2ConnPoolSize) {
        poolAdd(connectionPool);
        ++added;
    }
    return added;
}

int __mv_http2_engine_get_connection_pool_count(MV_Http2ConnectionPool* httpConnPool) {
    return httpConnPool ? httpConnPool->PoolCount.load() : 0;
}

int __mv_http2_engine_get_next_connection(MV_Http2ConnectionPool* httpConnPool, MV_Http2Connection** pHttpConn) {
    if (!httpConnPool || !pHttpConn) return -1;
    int n = httpConnPool->PoolCount;
    if (n == 0) return 0;
    int k = int(httpConnPool->http2MessageCount++ % uint64_t(n));
    MV_Http2Connection* c = httpConnPool->PoolHead;
    for (int i = 0; i < k && c; ++i) c = c->PoolNext;
    *pHttpConn = c;
    return c ? 1 : 0;
}

int __mv_http2_engine_get_connection_from_pool(MV_Http2ConnectionPool* httpConnPool, MV_Http2Connection** pHttpConn) {
    if (!httpConnPool || !pHttpConn) return -1;
    *pHttpConn = nullptr;
    if (httpConnPool->http2LoadBalancingMode == 2) {
        MV_Http2Connection* c = nullptr;
        if (__mv_http2_engine_get_next_connection(httpConnPool, &c) == 1 && hasRoom(c)) {
            *pHttpConn = c;
            return 1;
        }
        if (c)
            H2_LOG(MV_LOG_DEBUG, "SentContextCount=%lu MaxConcurrentStreams=%lu  %s|%s|%d",
                   static_cast<unsigned long>(c->SentContextCount.load()),
                   static_cast<unsigned long>(c->Peer_MaxConcurrentStreams.load()), __FILE_NAME__, __func__, __LINE__);
    }
    for (MV_Http2Connection* c = httpConnPool->PoolHead; c; c = c->PoolNext) {
        if (hasRoom(c)) {
            *pHttpConn = c;
            return 1;
        }
    }
    return 0;
}

// ---------------------------------------------------------------- waiting requests

int __mv_http2_engine_add_stream_to_connection(MV_Http2Connection* httpConn, int32_t StreamId, void* data) {
    if (!httpConn || !data || StreamId <= 0) return -1;
    std::lock_guard g(httpConn->sentRequestContextsLock);
    httpConn->sentRequestContexts.insert(StreamId, data);
    return 1;
}

int __mv_http2_engine_find_and_Delete_from_connection(MV_Http2Connection* httpConn, int32_t StreamId, void** data) {
    if (!httpConn || !data) return -1;
    std::lock_guard g(httpConn->sentRequestContextsLock);
    *data = httpConn->sentRequestContexts.erase(StreamId);
    if (!*data) {
        H2_LOG(MV_LOG_ERROR, "Context Not Found for StreamId=%u <%s|%d>", unsigned(StreamId), __func__, __LINE__);
        return 0;
    }
    return 1;
}

int __mv_http2_engine_clearPath(MV_Http2Connection* httpConn, int32_t StreamId) {
    if (!httpConn) return -1;
    std::lock_guard g(httpConn->sentRequestContextsLock);
    return httpConn->sentRequestContexts.erase(StreamId) ? 1 : 0;
}

int __mv_http2_engine_clearPath_if(MV_Http2Connection* httpConn, uint32_t connGen, int32_t StreamId, void* data) {
    if (!httpConn) return -1;
    {
        std::lock_guard g(httpConn->sentRequestContextsLock);
        if (httpConn->ConnGen != connGen || httpConn->sentRequestContexts.find(StreamId) != data) return 0;
        httpConn->sentRequestContexts.erase(StreamId);
    }
    // Nobody waits for this stream any more: the peer is told so, and its slot is free.
    {
        std::lock_guard g(httpConn->StreamLock);
        if (auto* s = static_cast<MV_Http2Stream*>(httpConn->Streams.find(StreamId))) {
            h2___queue_rst(httpConn, StreamId, MORVA_HTTP2_CANCEL);
            h2___stream_free(httpConn, s);
        }
    }
    __mv_http2_engine_flush(httpConn);
    return 1;
}

void __mv_http2_engine_add_incr_sent_request(MV_Http2Connection* httpConn) {
    if (httpConn) ++httpConn->SentContextCount;
}

void __mv_http2_engine_add_decr_sent_request(MV_Http2Connection* httpConn) {
    if (!httpConn) return;
    long v = httpConn->SentContextCount;
    while (v > 0 && !httpConn->SentContextCount.compare_exchange_weak(v, v - 1)) {
    }
}

long __mv_http2_engine_get_sent_request_count(MV_Http2Connection* httpConn) {
    return httpConn ? httpConn->SentContextCount.load() : 0;
}

// ---------------------------------------------------------------- monitor and statistics

namespace {

void* monitorThread(void*) {
    for (;;) {
        usleep(999999);
        auto* e = __mv_http2Engine;
        long now = __mv_core_get_server_timer_tick();
        std::vector<MV_Http2Connection*> idle, closing;
        {
            std::lock_guard g(e->ConnectionLock);
            for (MV_Http2Connection* c = e->ConnectionHead; c; c = c->Next) {
                if (c->isServer && c->isActive == MV_HTTP2_CONN_ACTIVE &&
                    now - c->lastCommunication > e->clientConnectionTimeOut_toCloseIt)
                    idle.push_back(c);
                if (c->isActive == MV_HTTP2_CONN_CLOSING && now > c->ClosingSince) closing.push_back(c);
            }
        }
        for (MV_Http2Connection* c : idle) {
            H2_LOG(MV_LOG_INFO, "timeout closing idle connection %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
            __mv_http2_engine_close_connection(c, MORVA_HTTP2_NO_ERROR);
        }
        for (MV_Http2Connection* c : closing)
            if (c->isActive == MV_HTTP2_CONN_CLOSING) h2___socket_close(c);
    }
    return nullptr;
}

}  // namespace

void __mv_http2_engine_print_stats() {
    auto* e = __mv_http2Engine;
    if (!e) return;
    uint32_t total = 0, avail = 0;
    uint64_t used = 0;
    __mv_pool_get_availability(e->StreamPool.pool(), &total, &avail, &used);
    int pending = e->appMessageQueue ? [&] {
        int n = 0;
        auto* fq = static_cast<__mv_core_fsm_queue*>(e->appMessageQueue);
        for (int i = 0; i < fq->ThreadCount; ++i) n += __mv__queuecount(fq->coreQueue[i]);
        return n;
    }()
                                     : 0;
    __mv_log(MV_PER_LOG, LOG_CAT_HTTP2, MV_LOG_CRITICAL,
             "Http2: AvailableStreamPoolCount=%d TotalStreamPoolCount=%d Used=%d  Pending=%d |%d", int(avail),
             int(total), int(total - avail), pending, __LINE__);
    __mv_log(MV_PER_LOG, LOG_CAT_HTTP2, MV_LOG_CRITICAL,
             "Http2: TotalStreamsReceived=%d TotalStreamsReceivedPerSecond=%d TotalFramesReceived=%ld Rejected=%ld   |%d",
             e->TotalStreamsReceived.load(), e->TotalStreamsReceivedPerSecond.load(), e->TotalFrameReceived.load(),
             e->TotalQueueRejected.load(), __LINE__);
    e->TotalStreamsReceivedPerSecond = 0;
}

// ---------------------------------------------------------------- detached connections

MV_Http2Connection* __mv_http2_engine_new_detached_connection(int isServer, fn_http2_test_sink sink) {
    __mv_http2_engine_init_detached();
    MV_Http2Connection* c = h2___conn_new();
    c->Detached = 1;
    c->DetachedSink = sink;
    snprintf(c->PeerIP, sizeof c->PeerIP, "detached");
    if (isServer) {
        std::lock_guard p(c->PrefaceLock);
        c->isServer = 1;
        h2___conn_reset(c);
        c->isActive = MV_HTTP2_CONN_ACTIVE;
    }
    return c;
}

void __mv_http2_engine_reset_detached(MV_Http2Connection* conn) {
    if (!conn || !conn->Detached) return;
    h2___conn_closed(conn);
    __mv_http2_engine_run_app_line(conn);
    if (!conn->isServer) {
        __mv_http2_engine_refresh_client_connection(conn);
        return;
    }
    std::lock_guard p(conn->PrefaceLock);
    h2___conn_reset(conn);
    conn->isActive = MV_HTTP2_CONN_ACTIVE;
}

// ---------------------------------------------------------------- operation tables

namespace {
int opConnect(MV_Http2Connection* c) { return __mv_http2_engine_refresh_client_connection(c); }
int opIsConnected(MV_Http2Connection* c) { return c && c->isActive == MV_HTTP2_CONN_ACTIVE; }
int opIsServer(MV_Http2Connection* c) { return c && c->isServer; }
int opIsPushEnabled(MV_Http2Connection* c) { return c && c->Peer_EnablePush; }
int opIsPrefaceSent(MV_Http2Connection* c) { return c && c->isPrefaceSent; }
int opIsSettingSent(MV_Http2Connection* c) { return c && c->isSettingsSent; }
int opIsPrefaceReceived(MV_Http2Connection* c) { return c && c->isPrefaceReceived; }
int opHasFrameBuffer(MV_Http2Connection* c) {
    return c && c->siSocket && __mv_socket_engine_buffer_data_length(c->siSocket) >= MORVA_HTTP2_FRAME_HEADER_LEN;
}
int opSendPreface(MV_Http2Connection* c) { return __mv_http2_engine_refresh_client_connection(c); }
int opControl(MV_Http2Connection* c, int type, int flags, int32_t sid, const uint8_t* p, int len) {
    if (!c || c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    h2___queue_control(c, type, flags, sid, p, len);
    __mv_http2_engine_flush(c);
    return len + MORVA_HTTP2_FRAME_HEADER_LEN;
}
int opSendSettingsAck(MV_Http2Connection* c) { return opControl(c, MORVA_HTTP2_SETTINGS, MORVA_HTTP2_FLAG_ACK, 0, nullptr, 0); }
int opSendEmptySettings(MV_Http2Connection* c) { return opControl(c, MORVA_HTTP2_SETTINGS, 0, 0, nullptr, 0); }
int opSendWindowUpdate(MV_Http2Connection* c, int32_t sid, int32_t inc) {
    uint8_t p[4];
    h2___put_u32(p, uint32_t(inc) & 0x7fffffffu);
    return opControl(c, MORVA_HTTP2_WINDOW_UPDATE, 0, sid, p, 4);
}
int opSendGoAway(MV_Http2Connection* c, int code) {
    if (!c || c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    h2___queue_goaway(c, code);
    __mv_http2_engine_flush(c);
    return 17;
}
int opSendPing(MV_Http2Connection* c, const uint8_t* opaque8) {
    uint8_t zero[8] = {};
    if (c) memcpy(c->sPingOpagueData, opaque8 ? opaque8 : zero, 8);
    return opControl(c, MORVA_HTTP2_PING, 0, 0, opaque8 ? opaque8 : zero, 8);
}
int opSendPriority(MV_Http2Connection*, int32_t) { return 0; }
int opSendRstStream(MV_Http2Connection* c, int32_t sid, int code) {
    if (!c || c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    {
        std::lock_guard g(c->StreamLock);
        h2___queue_rst(c, sid, code);
        if (auto* s = static_cast<MV_Http2Stream*>(c->Streams.find(sid))) {
            h2___post_failed(c, sid, code);
            h2___stream_free(c, s);
        }
    }
    __mv_http2_engine_flush(c);
    return 13;
}
int opSendPushPromise(MV_Http2Connection*, int32_t) { return 0; }
int opSendSettings(MV_Http2Connection* c) {
    if (!c || c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    bool server = c->isServer;
    c->isServer = 1;  // SETTINGS alone, without a second preface
    h2___queue_preface_and_settings(c);
    c->isServer = server;
    __mv_http2_engine_flush(c);
    return 1;
}
int opSendData(MV_Http2Connection* c, const uint8_t* bytes, int len) {
    if (!c || c->isActive != MV_HTTP2_CONN_ACTIVE) return -EIO;
    {
        std::lock_guard g(c->OutLock);
        c->OutBuf.insert(c->OutBuf.end(), bytes, bytes + len);
    }
    __mv_http2_engine_flush(c);
    return len;
}
int poolGetNext(MV_Http2ConnectionPool* p, MV_Http2Connection** c) { return __mv_http2_engine_get_next_connection(p, c); }
int poolGetConnection(MV_Http2ConnectionPool* p, MV_Http2Connection** c) {
    return __mv_http2_engine_get_connection_from_pool(p, c);
}
}  // namespace

__mv_http2_connection_manager __mv_http2ConnMgr = {
    opConnect,        opIsConnected,      opIsServer,        opIsPushEnabled,    opIsPrefaceSent,
    opIsSettingSent,  opIsPrefaceReceived, opHasFrameBuffer, opSendPreface,      opSendSettingsAck,
    opSendWindowUpdate, opSendGoAway,     opSendPing,        opSendPriority,     opSendRstStream,
    opSendPushPromise, opSendSettings,    opSendEmptySettings, __mv_http2_engine_send_frame, __mv_http2_engine_send,
    opSendData};

__mv_http2_connection_pool_manager __mv_http2ConnPoolMgr = {__mv_http2_engine_get_connection_pool_count, poolGetNext,
                                                          poolGetConnection};
