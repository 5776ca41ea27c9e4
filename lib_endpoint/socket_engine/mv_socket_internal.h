// What the engine's own files share and its tests reach; owners use mv_socket_engine.h.
#pragma once

#include "mv_sctp_backend.h"
#include "mv_socket_engine.h"

#define MV_SOK_LOG(level, fmt, ...) \
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, level, fmt, ##__VA_ARGS__)

// Adds a socket at the tail of the engine's list (sockets are never removed).
void __mv_socket_engine___add_socket(MV_Socket* s);
// A fresh record from the arena with an id and the engine's defaults.
MV_Socket* __mv_socket_engine___new_socket();
// Appends an accepted child to the engine's async list.
void __mv_socket_engine___add_child(MV_Socket* s);
int __mv_socket_engine___next_socket_id();
// Under the parent's ChildLock: the first free child, or a new one on both lists.
MV_Socket* __mv_socket_engine___take_child(MV_Socket* parent);

// Under ChildLock, with the child's transport state set: clears what the last owner
// left, gives the child its descriptor, calls OnAccept, takes the parent's callbacks
// where OnAccept set none, and marks the child active with a new GenId.
void __mv_socket_engine___hand_child_over(MV_Socket* parent, MV_Socket* child, int connFd, bool copyOnConnected);
// A server's descriptor with SO_REUSEADDR; a failure ends the process with the texts
// "<kind> Host Server Socket Creation Failed ..." and "<reuseKind> setsockopt SO_REUSEADDR failed".
int __mv_socket_engine___server_descriptor(MV_Socket* s, int type, const char* kind, const char* reuseKind);

// Thread "mv_s_socket" bodies.
void __mv_socket_engine___tcp_server_loop(MV_Socket* s);
void __mv_socket_engine___udp_server_loop(MV_Socket* s);
void __mv_socket_engine___sctp_server_loop(MV_Socket* s);
// Thread "ucsr".
void* __mv_socket_engine___udp_client_thread(void* arg);
void __mv_socket_engine___set_tcp_operations(MV_Socket* s);
void __mv_socket_engine___set_udp_operations(MV_Socket* s);
void __mv_socket_engine___set_sctp_operations(MV_Socket* s);

// SCTP: attach a connected socket to the reader its UseEPoll names.
void __mv_socket_engine___sctp_attach(MV_Socket* s);
// Closes the association once; OnClose fires once per connection. ret is logged.
int __mv_socket_engine___sctp_close(MV_Socket* s, int ret);
// Acts on one notification; returns 1 when it closed the socket. epollModel picks the log text.
int __mv_socket_engine___sctp_on_notification(MV_Socket* s, const MV_SctpRecvInfo& info, int len, int epollModel);
// One receive on a readable socket: 1 a message or notification, 0 nothing there, -1 closed.
int __mv_socket_engine___sctp_read_one(MV_Socket* s, MV_SocketThread* t, int epollModel);
// The filter of __mv_socket_engine__set_is_ip_allowed_cb; 0 when none is set.
int __mv_socket_engine___is_ip_allowed(const char* ip, int version, int port);
// Wakes "mv_sok_cc" for an early walk.
void __mv_socket_engine___wake_reconnect();

// Set once the process is ending (__mv_socket_engine_abort_all): nothing connects or
// reconnects after it.
bool __mv_socket_engine___ending();
// The level for a connect failure of this reason: critical the first time in a row,
// error when it repeats; 0 clears it after a success.
int __mv_socket_engine___connect_fail_level(MV_Socket* s, int reason);
// Attaches the TCP connection of that generation to an epoll thread, unless it has ended.
void __mv_socket_engine___attach_to_epoll(MV_Socket* s, int genId);
// Drains a TCP socket's waiting bytes (its epoll thread, on EPOLLOUT).
void __mv_socket_engine___tcp_drain(MV_Socket* s);
// The sends behind __mv_socket_engine_send_on_connection; genId -1 is whatever connection
// the record has now.
int __mv_socket_engine___tcp_send(MV_Socket* s, int genId, const void* buff, int len);
int __mv_socket_engine___tcp_close(MV_Socket* s, int genId);
int __mv_socket_engine___sctp_send_gen(MV_Socket* s, int genId, const void* buff, int len);
int __mv_socket_engine___udp_send_gen(MV_Socket* s, int genId, const void* buff, int len);
// Ends one connection for __mv_socket_engine_abort_all; 1 if there was one.
int __mv_socket_engine___tcp_abort(MV_Socket* s);
int __mv_socket_engine___sctp_abort(MV_Socket* s);

// A server's start-up fault: the text on standard output, as start-up faults are
// told, and the same line in the stack log, where a user of a redirected engine looks.
void __mv_socket_engine___startup_fault(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Turns a text address and port into a socket address; false for text that is no address.
bool __mv_socket_engine___make_addr(const char* ip, int version, int port, struct sockaddr_storage* out,
                                    socklen_t* len);
uint32_t __mv_socket__get_sin6_scope_id(const struct in6_addr* addr);

// host holds 16 characters: an IPv6 text is cut, which only the logs see.
inline void copyHost(MV_Socket* s, const char* ip) {
    size_t i = 0;
    for (; ip && ip[i] && i + 1 < sizeof s->host; ++i) s->host[i] = ip[i];
    s->host[i] = 0;
}
