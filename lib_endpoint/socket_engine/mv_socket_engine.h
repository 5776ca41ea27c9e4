// The socket engine: every TCP, UDP and SCTP descriptor of the process. It makes
// servers and clients, reads on its own threads, fills pooled buffers and hands them
// to the protocol layers through callbacks. A protocol layer never reads a
// descriptor; it sends on its own thread.
//
// Threads and ownership, in short:
//   TCP  data     OnBufferReceive(socket)   on the TCP delivery thread ("app_thread"); the
//                 bytes stay on the socket, the owner takes them with GetBuffer.
//   SCTP data     OnBufferReceive(buffer)   on the SCTP delivery thread ("app_thread"); the
//                 handler owns the MV_SocketSCTPBuffer and gives it back with
//                 __mv_socket_engine_release_sctp_socket_buffer.
//   UDP datagram  OnUdpPacketReceive(buf)   on a queue line thread ("mv-q-exec"); the
//                 handler owns the MV_SocketUdpBuffer and gives it back with
//                 __mv_socket_engine_release_socket_udp_buffer.
//   OnAccept      on the server thread ("mv_s_socket"), before the child is read.
//   OnConnected   on the thread that connected: the socket's own reader ("mv_r_socket"),
//                 the reconnection thread ("mv_sok_cc"), or the caller of Connect.
//   OnClose       on the thread that saw the close: a reader, a sender, or the closer.
// Socket records are never freed; a closed client is connected again with the same record.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <shared_mutex>

#include "mv_core.h"

struct MV_Socket;
struct MV_SocketThread;

#define MV_TRANSPORT_TCP 1
#define MV_TRANSPORT_UDP 2
#define MV_TRANSPORT_SCTP 3

#define MV_SOCKET_BUFFER_SIZE 1520
// A datagram buffer holds what a control-plane peer sends in one datagram (a PFCP answer or
// report of many rules is larger than an Ethernet frame); a larger datagram is dropped whole.
#define MV_SOCKET_UDP_BUFFER_SIZE 9216
#define MV_SOCKET_SCTP_BUFFER_SIZE 5000
#define MV_SOCKET_MAX_ADDRESSES 4

// A text address of either family.
struct MV_IPAddress {
    char IP[50];
};

struct MV_SocketBuffer {
    MV_SocketBuffer* Next;
    uint8_t buff[MV_SOCKET_BUFFER_SIZE];
    int pos;
    int len;
    MV_Socket* siSocket;
    int isReleased;
};

struct MV_SocketUdpBuffer {
    MV_SocketUdpBuffer* Next;
    struct sockaddr_in clientaddr;
    struct sockaddr_in6 clientaddr6;
    socklen_t clientlen;
    uint8_t buff[MV_SOCKET_UDP_BUFFER_SIZE];
    int pos;
    int len;
    MV_Socket* siSocket;
    int isReleased;
};

struct MV_SocketSCTPBuffer {
    MV_SocketSCTPBuffer* Next;
    uint8_t buff[MV_SOCKET_SCTP_BUFFER_SIZE];
    int pos;
    int len;
    struct sockaddr_in clientaddr;
    struct sockaddr_in6 clientaddr6;
    socklen_t clientlen;
    MV_Socket* siSocket;
    int isReleased;
    MV_SocketThread* siThread;
    uint16_t streamId;
    uint32_t ppid;  // host order
};

struct MV_SocketThread {
    MV_SocketThread* Next;
    pthread_t id;
    int is_epoll_thread;
    int is_poll_thread;
    int epoll_fd;
    int poll_fd;
    int index;
    std::atomic<int> count;  // descriptors on this thread
    MV_Mutex CountLock;
    std::atomic<int> LastReads;
    long LastTotalReads;
    std::atomic<long> TotalReads;
    std::atomic<int> isActive;
    int isHost;
    MV_Sem sem_lock;
    std::atomic<int> fd;
    struct sockaddr_storage clientaddrbuff;
    socklen_t addrlen;
    std::atomic<int> epollSocketFdCount;
    MV_Mutex epollSocketFdCountLock;
    MV_Socket* usiSocket;
};

// How an SCTP socket is made. At most 4 addresses per side are taken.
struct MV_SctpSocketInfo {
    int ipCount;
    int ipVersion;
    int Port;
    char IP[10][50];
    int RemotePort;
    int RemoteIpCount;
    char RemoteIP[10][50];
    uint32_t PPID;
    int UseEPoll;
    uint16_t MaxOStreams;
    uint16_t MaxIStreams;
};

// OnBufferReceive takes a socket on TCP and a buffer on SCTP; this holds either
// handler form so that each owner assigns its own function as it is.
class MV_BufferHandler {
public:
    MV_BufferHandler() = default;
    MV_BufferHandler(std::nullptr_t) {}
    MV_BufferHandler(void (*f)(MV_Socket*)) : tcp_(f) {}
    MV_BufferHandler(void (*f)(MV_SocketSCTPBuffer*)) : sctp_(f) {}
    explicit operator bool() const { return tcp_ || sctp_; }
    bool handlesSocket() const { return tcp_ != nullptr; }
    bool handlesSctpBuffer() const { return sctp_ != nullptr; }
    void operator()(MV_Socket* s) const {
        if (tcp_) tcp_(s);
    }
    void operator()(MV_SocketSCTPBuffer* b) const {
        if (sctp_) sctp_(b);
    }

private:
    void (*tcp_)(MV_Socket*) = nullptr;
    void (*sctp_)(MV_SocketSCTPBuffer*) = nullptr;
};

typedef void (*fn_mv_on_accept)(MV_Socket* childSocket, MV_Socket* parent);
typedef void (*fn_mv_on_socket)(MV_Socket* socket);
typedef void (*fn_mv_on_udp_packet)(MV_SocketUdpBuffer* udpBuffer);
typedef int (*fn_mv_is_ip_allowed)(const char* ip, int len, int version, int port);

struct MV_Socket {
    MV_Socket* SENext;  // engine's async list (accepted children)
    MV_Socket* Next;    // engine's socket list
    MV_Socket* Parent;
    MV_Socket* ChildHead;
    MV_Socket* ChildCurrent;
    int ChildSocketCount;
    MV_Mutex ChildLock;
    MV_Mutex CloseLock;
    MV_Mutex ConnectLock;
    // Reads and sends hold it shared while they use fd, a close holds it alone, so a
    // descriptor is never closed (and its number reused) under a read or a send.
    std::shared_mutex FdLock;
    int UseEPoll;  // SCTP read model: 0 own thread, 1 shared epoll threads, 2 round-robin poll threads

    int isListner;
    int id;
    std::atomic<int> fd;
    std::atomic<int> isConnected;
    std::atomic<int> disableClientAutoReConnect;
    std::atomic<int> isActive;
    std::atomic<int> isFree;
    // Changes with every descriptor a connect or an accept gives the record, together
    // with fd under FdLock: a send or close made for one connection names it by this.
    std::atomic<int> GenId;
    int isHost;
    std::atomic<int> isStarted;
    int TlsEnabled;
    int TlsAyncWrite;
    int StateFull;
    int noDelay;
    char host[17];
    std::atomic<int> epoll_fd;

    MV_SocketBuffer* AyncWriteBufferHead;
    MV_SocketBuffer* AyncWriteBufferCurrent;
    MV_Mutex AsyncWriteLock;

    // TCP bytes the kernel had no room for, sent in order when the socket turns writable,
    // so that no sender waits on a peer that does not read. Past MaxOutboundBytes the
    // connection is closed. OutboundLock is taken before FdLock.
    MV_SocketBuffer* OutboundHead;
    MV_SocketBuffer* OutboundTail;
    std::atomic<long> OutboundBytes;
    long MaxOutboundBytes;  // 0: the engine's default; accepted children take the listener's
    MV_Mutex OutboundLock;
    // The reason of the last failed connect logged at critical level: a reason repeats
    // at error level only, so a client retrying every few seconds does not flood the log.
    std::atomic<int> LastConnectError;

    int ai_family;
    struct sockaddr_in cli_addr;
    struct sockaddr_in6 cli_addr6;
    socklen_t cli_len;
    char ClientConnectionId[40];
    uint8_t TransportType;

    MV_IPAddress IPAddresses[MV_SOCKET_MAX_ADDRESSES];
    uint8_t IPAddressCount;
    int IPVersion;
    uint32_t IPPort;
    MV_IPAddress ClientIP;
    uint32_t CIPPort;
    MV_IPAddress RemoteIPAddresses[MV_SOCKET_MAX_ADDRESSES];
    uint8_t RemoteIPAddressCount;
    uint32_t RemoteIPPort;

    long TimerTick;
    std::atomic<int> LastReads;
    int LastWrites;
    std::atomic<int> ReadInProgress;
    std::atomic<int> ReadSignal;
    std::atomic<long> TotalReads;
    std::atomic<long> TotalWrites;

    uint16_t max_o_streams;
    uint16_t max_i_streams;
    uint32_t PPID;
    std::atomic<uint16_t> last_o_streams;
    std::atomic<uint16_t> peer_max_o_streams;
    std::atomic<uint16_t> peer_max_i_streams;

    std::atomic<uint64_t> BeforeMessageSend;
    std::atomic<uint64_t> AfterMessageSent;
    std::atomic<uint64_t> ReceivedMessages;
    std::atomic<uint64_t> TruncatedDatagrams;  // larger than a datagram buffer, dropped
    uint64_t LastMessageSent;
    uint64_t LastReceivedMessages;

    int UseSendLock;
    MV_Mutex SendLock;

    MV_SocketSCTPBuffer* SctpBufferHead;
    MV_SocketSCTPBuffer* SctpBufferCurrent;
    MV_SocketUdpBuffer* UdpBufferHead;
    MV_SocketUdpBuffer* UdpBufferCurrent;
    MV_SocketBuffer* BufferHead;
    MV_SocketBuffer* BufferCurrent;
    MV_Mutex BufferLock;
    MV_Mutex BufferReadLock;
    int BufferLength;
    int BufferPacketCount;
    socklen_t clientlen;

    std::atomic<MV_SocketThread*> epollThread;
    std::atomic<int> UnknownSCTPEventCount;
    MV_SocketThread* clientReadThread;
    // 1 while the rest of a message too large for one SCTP buffer is read and dropped.
    std::atomic<int> SctpDiscardToEOR;

    void* parentData1;
    void* transportEng;

    fn_mv_on_accept OnAccept;
    fn_mv_on_socket OnClose;
    MV_BufferHandler OnBufferReceive;
    std::atomic<fn_mv_on_udp_packet> OnUdpPacketReceive;  // a UDP client's reader starts before the owner sets it
    int OnCloseFired;
    MV_Mutex OnCloseLock;

    // Operations by transport, set by the engine.
    int (*Accept)(MV_Socket* parent, int connFd, struct sockaddr_storage* peer, socklen_t peerLen);
    int (*Send)(MV_Socket* socket, const void* buff, int len, int tryCount);
    int (*Read)(MV_Socket* socket);
    int (*Close)(MV_Socket* socket);
    int (*Connect)(MV_Socket* socket);
    fn_mv_on_socket OnConnected;  // set by the owner
    int (*AddBuffer)(MV_Socket* socket, MV_SocketBuffer* buffer);
};

struct __mv_socket_engine {
    // Delivery queues
    void* queueSctpSocketBufferPoolObject;  // SCTP buffers, one worker
    void* bufferQueue;                      // TCP sockets with new data, one worker

    // Async write list
    MV_Socket* SocketEPollAyncWriteHead;
    MV_Socket* SocketEPollAyncWriteCurrent;
    MV_Mutex SocketAyncWriteLock;

    // Policy (kept at zero)
    int MaxClients;
    int MaxTpsPerClient;
    char AllowedIPs[100][20];
    int AllowedIPCount;
    char BlockedIPs[100][20];
    int BlockedIPCount;

    // Counters
    std::atomic<int> SocketClosedCount;
    std::atomic<int> TotalSocketsCount;
    std::atomic<int> EPollThreadsCount;
    std::atomic<int> PollThreadsCount;
    long TlsTotalReadContinueCount;
    long TlsTotalWriteContinueCount;
    // TCP connections closed because their unsent bytes passed their bound.
    std::atomic<int> OutboundLimitCloseCount;

    MV_Mutex SocketConnectLock;

    char CertPath[249];
    char CertKeyPath[249];

    // Buffer queue line (nothing feeds it; TCP data goes through bufferQueue)
    void* BufferQueueLineHead;
    void* BufferQueueLineCurrent;
    int BufferQueueLineThreadCount;
    int BufferQueueLineCount;
    long BufferQueueLineTotalQueuedCount;
    MV_Mutex BufferQueueLineLock;
    MV_Sem buffer_queue_sem_lock;

    // Sockets
    MV_Socket* SocketHead;
    std::atomic<MV_Socket*> SocketCurrent;
    MV_Mutex SocketLock;
    MV_Socket* SocketPoolHead;
    MV_Socket* SocketPoolCurrent;
    MV_Mutex SocketPoolLock;

    // Operations
    MV_Socket* (*CreateServerSocket)(const char* ip, int ipversion, int transportType, int port, int tls,
                                     const char* serverCert, const char* pKey);
    MV_Socket* (*CreateClientSocket)(const char* ip, int ipversion, int transportType, int port, int tls,
                                     MV_Socket* cSocket);
    int (*Start)(MV_Socket* siSocket);
    void (*StartEngine)();
    void (*ReadLock)(MV_Socket* siSocket);
    void (*ReadUnLock)(MV_Socket* siSocket);
    int (*GetBufferLength)(MV_Socket* siSocket);
    int (*GetBuffer)(MV_Socket* siSocket, uint8_t* data, int length);
    int (*GetInspectionBuffer)(MV_Socket* siSocket, uint8_t* data, int length);
    void (*ReleaseUsedBuffer)(MV_Socket* siSocket);

    // Buffer pools
    MV_SocketBuffer* BufferPoolHead;
    MV_SocketBuffer* BufferPoolCurrent;
    int TotalBufferPoolCount;
    int AvailableBufferPoolCount;
    long UsedBufferPoolCount;
    MV_Mutex BufferPoolLock;
    MV_SocketUdpBuffer* UdpBufferPoolHead;
    MV_SocketUdpBuffer* UdpBufferPoolCurrent;
    int TotalUdpBufferPoolCount;
    int AvailableUdpBufferPoolCount;
    long UsedUdpBufferPoolCount;
    MV_Mutex UdpBufferPoolLock;
    MV_SocketSCTPBuffer* SctpBufferPoolHead;
    MV_SocketSCTPBuffer* SctpBufferPoolCurrent;
    int TotalSctpBufferPoolCount;
    int AvailableSctpBufferPoolCount;
    long UsedSctpBufferPoolCount;
    MV_Mutex SctpBufferPoolLock;

    // Threads
    MV_SocketThread* ThreadHead;  // TCP epoll threads
    MV_SocketThread* ThreadCurrent;
    MV_Mutex ThreadLock;
    MV_SocketThread* lkSctpThreadHead;  // own-thread readers
    MV_SocketThread* lkSctpThreadCurrent;
    MV_Mutex lkSctpThreadLock;
    MV_SocketThread* lkEpollSctpThreadHead;
    MV_SocketThread* lkEpollSctpThreadCurrent;
    MV_Mutex lkEpollSctpThreadLock;
    MV_SocketThread* lkPollSctpThreadHead;
    MV_SocketThread* lkPollSctpThreadCurrent;
    MV_Mutex lkPollSctpThreadLock;
    MV_Socket* lkPollLastPolledSocket;
    MV_Socket* lkPollLastPolledSignalSocket;

    // Limits
    int InitialEPollThreads;
    int InitialSCTPEPollThreads;
    int InitialPollThreads;
    int MaxSocketsPerEPoll;
};

extern __mv_socket_engine* __mv_socketEngine;

// ---------------------------------------------------------------- start and threads

// Once only: SIGPIPE handler, core, delivery queues, operation table, reconnection
// thread "mv_sok_cc", TCP buffer pool. Logs the SCTP backend in force.
void __mv_socket_engine_init();
// Starts the TCP epoll threads "mv_epoll" (StartEngine). Without it the first attach starts one.
void __mv_socket_engine_start();
void __mv_socket_engine___set_sctp_epoll_thread_count(int num);
int __mv_socket_engine___get_sctp_epoll_thread_count();
// A process-wide filter for accepted peers; a non-zero result rejects. Called on the server thread.
void __mv_socket_engine__set_is_ip_allowed_cb(fn_mv_is_ip_allowed p_is_ip_allowed);
// Writes the statistics lines to the performance log (the performance thread calls it once a second).
void __mv_socket_engine_print_stats();
// Chooses the SCTP stack: "auto" (default), "kernel" or "userspace"; udpPort 0 puts the
// userspace stack on raw IP, another port carries it in UDP. Takes effect for sockets made
// after it, and only before the userspace stack has started. Returns 1, or 0 if refused.
int __mv_socket_engine__set_sctp_backend(const char* backend, int udpPort);
// As above with a peer UDP port that differs from the local one (two stacks on one host).
int __mv_socket_engine__set_sctp_backend2(const char* backend, int udpPort, int remoteUdpPort);
// "kernel", "userspace" or "" before the first choice.
const char* __mv_socket_engine__sctp_backend_name();

// ---------------------------------------------------------------- creating

// ipversion 4 or 6; ip null means any. The socket has isHost 1. Not started.
MV_Socket* __mv_socket_engine_create_server_socket(const char* ip, int ipversion, int transportType, int port, int tls,
                                                   const char* serverCert, const char* pKey);
// Once only: thread "mv_s_socket" runs the server loop; returns after the listener stands.
int __mv_socket_engine_start_server_socket(MV_Socket* siSocket);
// An IPv4 UDP server; datagrams reach OnUdpPacketReceive on queue line threads.
MV_Socket* __mv_socket_engine__udp4_start_socket(const char* ip, int port, fn_mv_on_udp_packet OnUdpPacketReceive);
// TCP or UDP client to ip:port (cSocket: an existing record to fill, or null). TCP is
// connected by the owner with Connect; a UDP client gets its reader thread "ucsr" at once.
MV_Socket* __mv_socket_engine_create_client_socket(const char* ip, int ipversion, int transportType, int port, int tls,
                                                   MV_Socket* cSocket);
// The same with a local address and port to bind.
MV_Socket* __mv_socket_engine_create_client_socket2(const char* ip, int ipversion, int transportType, int port, int tls,
                                                    MV_Socket* cSocket, const char* cip, int cport);
// A bare TCP client record, on no engine list.
MV_Socket* __mv_socket_create_client_object(const char* ip, int ipversion, int transportType, int port, int tls,
                                            MV_Socket* cSocket);
MV_Socket* __mv_socket_engine_create_sctp_server_socket(MV_SctpSocketInfo* sctpSocketInfo);
// An SCTP client; with UseEPoll 1 or 2 "mv_sok_cc" connects it and keeps it connected.
MV_Socket* __mv_socket_engine_create_sctp_client_socket(MV_SctpSocketInfo* sctpSocketInfo);
// UseEPoll 0: starts the socket's own reader "mv_r_socket", which also connects and
// reconnects. UseEPoll 1 or 2: asks "mv_sok_cc" to connect now.
int __mv_socket_engine_sctp_client_socket_start_read_thread(MV_Socket* siSocket);

// ---------------------------------------------------------------- connecting

// Blocking TCP connect under ConnectLock; 1 connected (or already), -1 failed. Attaches to epoll unless StateFull.
int __mv_socket_engine_tcp_connect_socket(MV_Socket* siSocket);
// Resolves the UDP peer and binds the local side; 1 or -1.
int __mv_socket_engine_udp_connect_socket(MV_Socket* siSocket);
// Binds up to four local addresses, connects to up to four remote ones; OnConnected on
// this thread. 1 connected, -1 failed. Does not attach the socket to a reader.
int __mv_socket_engine_sctp_connect_socket(MV_Socket* siSocket);

// ---------------------------------------------------------------- sending (caller's thread)

// Never waits: what the kernel has no room for waits on the socket and goes in order
// when it turns writable. Returns len once all of it is sent or waiting; -1 if not
// connected. EPIPE or ECONNRESET close the socket (OnClose on this thread), and so does
// a backlog past the socket's bound (-1, with a log line naming the peer).
int __mv_socket_engine_tcp_send_socket_data(MV_Socket* siSocket, const void* buff, int len, int tryCount);
// Copies to the socket's async list, which the epoll thread empties without writing (no TLS here).
int __mv_socket_engine_tcp_send_socket_data_aync(MV_Socket* siSocket, const void* buff, int len);
// IPv4 sendto with MSG_DONTWAIT; -1000 for an unusable address.
int __mv_socket_engine_udp_send(MV_Socket* siSocket, const char* ip, int port, int ipv, const void* buff, int len);
int __mv_socket_engine_udp_send2(MV_Socket* siSocket, const struct sockaddr* servaddr, socklen_t slen, const void* buff,
                                 int len);
// sendto on a bare descriptor (the user plane's path).
int __mv_socket_engine_udp_send_response(int fd, const struct sockaddr* saddr, socklen_t slen, const void* buff,
                                         int len);
// To the peer of a UDP client; -1 for a host socket or no descriptor.
int __mv_socket_engine_udp_send_socket_data(MV_Socket* siSocket, const void* buff, int len, int tryCount);
// Next stream by round robin, the socket's PPID, SendLock if UseSendLock. Bytes sent or
// -1; EPIPE closes the association (OnClose on this thread).
int __mv_socket_engine_sctp_send_ngap(MV_Socket* siSocket, const void* buffer, int len);
// The same on the caller's stream (folded into the association's outbound streams):
// NGAP sends non-UE signalling on stream 0 and each UE's messages on one stream.
int __mv_socket_engine_sctp_send_ngap2(MV_Socket* siSocket, const void* buffer, int len, uint16_t streamId);
// Stream 0, the socket's PPID.
int __mv_socket_engine_sctp_send(MV_Socket* siSocket, const void* buffer, int len);
// The caller's stream; the socket's PPID (ppid is not used).
int __mv_socket_engine_sctp_send2(MV_Socket* siSocket, const void* buffer, int len, uint16_t streamInfo, uint32_t ppid);
// last_o_streams + 1, back to 0 (or 1 with skipzero) at peer_max_o_streams.
uint16_t __mv_socket_sctp_next_streamid(int skipzero, MV_Socket* siSocket);
void __mv_socket_engine__set_sendlock(MV_Socket* siSocket, int i);

// A socket record outlives its connections: an accepted child serves the next peer, a
// client reconnects. Whoever answers later (on a queue line, after a timer) names the
// connection by the record and its generation at the time, and reaches nothing else.
int __mv_socket_engine_get_generation(MV_Socket* siSocket);
// Send (TCP, UDP; SCTP on stream 0) on the connection the record had at genId. -ESRCH,
// with nothing sent, once that connection has ended, even if the record serves another.
int __mv_socket_engine_send_on_connection(MV_Socket* siSocket, int genId, const void* buff, int len);
// Close of that connection only; 0 when it had already ended.
int __mv_socket_engine_close_connection(MV_Socket* siSocket, int genId);
// The bound on a TCP socket's unsent bytes (0: the engine's default, 16 MiB); a
// listener passes it to its children.
void __mv_socket_engine__set_max_outbound_bytes(MV_Socket* siSocket, long bytes);
long __mv_socket_engine_outbound_bytes(MV_Socket* siSocket);

// At the end of the process, as a kernel does for a dying one: ABORT on every SCTP
// association and a reset on every TCP connection, with no OnClose; from then on
// nothing connects. Returns the number of connections ended.
int __mv_socket_engine_abort_all();

// ---------------------------------------------------------------- reading TCP data (OnBufferReceive thread)

// Bytes waiting, 0 on an inactive socket.
int __mv_socket_engine_buffer_data_length(MV_Socket* siSocket);
// Copies up to length bytes without consuming them; returns the count.
int __mv_socket_engine_tcp_get_sample_buffer(MV_Socket* siSocket, uint8_t* data, int length);
// Copies and consumes up to length bytes; returns the count.
int __mv_socket_engine_tcp_get_buffer(MV_Socket* siSocket, uint8_t* data, int length);
// The same for an owner that names the connection (see __mv_socket_engine_send_on_connection):
// -ESRCH, and nothing read or consumed, once the record serves another connection.
int __mv_socket_engine_tcp_get_sample_buffer_gen(MV_Socket* siSocket, int genId, uint8_t* data, int length);
int __mv_socket_engine_tcp_get_buffer_gen(MV_Socket* siSocket, int genId, uint8_t* data, int length);
// Gives back the leading buffers that are used up.
void __mv_socket_engine_tcp_release_used_buffer(MV_Socket* siSocket);
void __mv_socket_engine_socket_read_lock(MV_Socket* siSocket);
void __mv_socket_engine_socket_read_unlock(MV_Socket* siSocket);

// ---------------------------------------------------------------- helpers

int __mv_socket_engine_get_fd(MV_Socket* siSocket);
int __mv_socket_engine_is_connected(MV_Socket* siSocket);
int __mv_socket_engine_is_active(MV_Socket* siSocket);
// Fills str (at least 46 bytes) and port; returns 4, 6 or 0.
int __mv_socket_engine__get_client_ip_port(MV_Socket* socket, char* str, int* port);
int __mv_socket_engine_socket_error_code(MV_Socket* siSocket);
// Closes the association; the reader sees the close and fires OnClose.
int __mv_socket_engine_sctp__close_client_connection(MV_Socket* siSocket);
int __mv_socket_engine_is_alpn_negotiated(MV_Socket* siSocket);
int __mv_socket_engine_tcp_close_socket(MV_Socket* siSocket);
void __mv_socket_engine_attach_to_epoll(MV_Socket* siSocket);

// ---------------------------------------------------------------- buffers

MV_SocketBuffer* __mv_socket_engine_get_socket_buffer();
MV_SocketUdpBuffer* __mv_socket_engine_get_socket_udp_buffer();
MV_SocketSCTPBuffer* __mv_socket_engine_get_sctp_socket_buffer();
// Each ignores a buffer already released, so two release points are safe.
void __mv_socket_engine_release_socket_buffer(MV_SocketBuffer* buffer);
void __mv_socket_engine_release_socket_udp_buffer(MV_SocketUdpBuffer* buffer);
void __mv_socket_engine_release_sctp_socket_buffer(MV_SocketSCTPBuffer* buffer);

// Pool counts for the statistics line and for leak checks.
struct MV_SocketPoolCounts {
    int Total;
    int Available;
};
MV_SocketPoolCounts __mv_socket_engine_tcp_pool_counts();
MV_SocketPoolCounts __mv_socket_engine_udp_pool_counts();
MV_SocketPoolCounts __mv_socket_engine_sctp_pool_counts();
