// The GTP-U traffic engine as the engine sees it: the server record with its socket and the
// background generator's threads, the user-plane steps of the UE, capture replay, the tunnels'
// downlink TEIDs, and the direct senders that the PFCP steps call. The packets, the tunnel header
// and the socket are morva_gtp's; this module decides who sends what, and counts.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstdint>

#include "KsUE.h"
#include "gtpu_codec.h"
#include "gtpu_gen.h"
#include "gtpu_ip.h"
#include "gtpu_node.h"
#include "gtpu_path.h"
#include "gtpu_pcap.h"

struct __ks_step;

// One per distinct UPF address a control plane asked a socket of its own for.
struct gtp_node_t {
    gtp_node_t* Next;
    char serverIP[100];
    uint32_t src_ipv4;
    uint8_t src_ipv6[16];
    uint8_t src_ipVersion;
    uint32_t dst_ipv4;
    uint8_t dst_ipv6[16];
    uint8_t dst_ipVersion;
    uint16_t dst_port;
    __mv_gtpu_node* gtpServerSocket;
    gtpu_peer server;
};

// What the module has seen and done since start, beside the endpoint's own counts.
#define KS_GTP_STATS_FIELDS(X)                                                                                 \
    X(TpduMatched) X(TpduMatchedBytes) X(TpduNoSession) X(EndMarkerRecv) X(ErrorIndicationRecv)                \
    X(ErrorIndicationNoTunnel) X(EchoResponseRecv) X(EchoRequestSent) X(EndMarkerSent) X(StepsRun)           \
    X(StepsNoSession) X(StepsDataPlane) X(PcapPacketsSent) X(PcapPacketsSkipped) X(PcapSendFailed)          \
    X(PcapOpenFailed) X(DirectSent) X(DirectSendFailed)
struct KsGTPStats {
#define KS_GTP_STAT_FIELD(name) uint64_t name;
    KS_GTP_STATS_FIELDS(KS_GTP_STAT_FIELD)
#undef KS_GTP_STAT_FIELD
    __mv_gtpu_stats endpoint;  // the process-wide socket: what was dropped and why
    gtpu_gen_stats generator;
};

struct __gtpv1server_ {
    uint16_t srcport;
    uint16_t dstport;
    __mv_gtpu_node* gtpServerSocket;
    gtp_node_t* gtpNodeHead;
    gtp_node_t* gtpNodeCurrent;
    MV_Mutex gtpNodeLock;
    gtpu_gen* ptTable;  // the packet threads and their lists of UEs
    int NoOfPtThreads;
    char AN_IPv4[INET6_ADDRSTRLEN];
    char AN_IPv6[INET6_ADDRSTRLEN];
};
typedef __gtpv1server_ GTPv1Server;
extern GTPv1Server* __gtpv1Server;

// ---------------------------------------------------------------- start

// The module: registers the start slot and the user-plane runner.
void KsGTP__Init();
// The start slot: reads "UPF_SRC_PORT", "UPF_DST_PORT", "LOCAL_GTP_IP", opens the socket and,
// without a data-path peer, starts the packet threads. 0 stops start-up.
int KsGTP_Init(json_t* cfg);
// 31 runs the generator in GGSN mode (tunnels from the GGSN's fields of the UE).
void KsGTP_SetApplicationType(int ipt);

// ---------------------------------------------------------------- tunnels

// A downlink TEID for the session: what the gNB (or the SMF side) gives the UPF, and what a
// received T-PDU is matched by. 0 when the table is full.
uint32_t KsGTP__AllocateDownlinkTEID(MV_KsUEPduSession* session);
void KsGTP__ReleaseDownlinkTEID(uint32_t teid);
// The UPF side of the session's tunnel, as the generator sends to it.
bool KsGTP__SessionPeer(const MV_KsUEPduSession* session, gtpu_peer* out);
// An end marker on the session's tunnel (the old path of a handover); bytes sent, or 0.
int KsGTP__SendEndMarker(MV_KsUE* ksUE, uint8_t pduSessionId);
// An echo request to ip:port from the process-wide socket; bytes sent, or 0.
int KsGTP__SendEchoRequest(const char* ip, uint16_t port, uint16_t seq);

// ---------------------------------------------------------------- the user-plane steps

void KsGTP_TPDU(MV_KsUE* ksUE, __ks_step* ksStep);
void KsGTP_SendICMP(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_TPDU_PCAP_1(MV_KsUE* ksUE, __ks_step* ksStep);
void KsGTP_TPDU_PCAP_ALL(MV_KsUE* ksUE, __ks_step* ksStep);
void KsGTP_AddUE_AND_Flows(MV_KsUE* ksUE, uint8_t pduSessionId);
void KsGTP_ActivateUEFlow(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t tcpOrUDP, uint8_t ipV, uint32_t uploadBytes);
// The per-protocol senders of the PGW and GGSN runners: each arms one packet and completes the step.
void KsGTP_Send_GTPU_IPv4_TCP(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_IPv4_UDP(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_IPv4_UDP_LargePacket(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_IPv6_TCP(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_IPv6_UDP(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_IPv6_UDP_LargePacket(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_PCAP_File(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);
void KsGTP_Send_GTPU_PacketByProtocolType(MV_KsUE* ksUE, uint8_t pduSessionId, uint8_t qFI);

// The UE's generator item (null when it never sent): its goal, progress and activations.
const gtpu_gen_item* KsGTP__FindItem(const MV_KsUE* ksUE);
// Packets the generator sent on the UE's session so far.
uint64_t KsGTP__PacketsSent(const MV_KsUE* ksUE, uint8_t pduSessionId);
void KsGTP__GetStats(KsGTPStats* out);

// ---------------------------------------------------------------- the PFCP steps' senders
// The PFCP session emulation keeps its own session and flow records; it calls these with what
// one packet needs and accounts the result itself.

// A socket of its own towards serverIP:server_port, bound on clientIP:port (0: any port), made
// once per server address. `handlers` receive what comes back on it (null: count and drop).
// Null with a data-path peer or an address that is not IP text.
// `teidTable` and `teidOffset` say how a T-PDU that comes back finds its owner there.
gtp_node_t* KsGTP_AddClientAndServerNode(const char* clientIP, uint16_t port, const char* serverIP,
                                         uint16_t server_port, const __mv_gtpu_handlers* handlers = nullptr,
                                         MV_IndexTable* teidTable = nullptr, uint32_t teidOffset = 0);

// One direct packet. `gtpType` picks the header: 0 the 16-octet form with flags `flags` (0x34 or
// 0x36: the sequence written only with S), 1 to 6 the forms of the header test steps.
struct KsGTPDirectPacket {
    int gtpType = 0;
    uint8_t flags = GTPU_FLAGS_V1 | GTPU_FLAG_E;
    uint32_t teid = 0;
    uint16_t seq = 0;
    uint8_t qfi = 1;
    gtpu_inner inner;         // addresses, ports, protocol, identification, TCP sequence
    uint32_t payloadLen = 0;  // octets behind the transport header
    const uint8_t* payload = nullptr;  // their bytes; null: zeros
    // IPv4 UDP only: 1 first fragment, 2 a middle one, 3 the last (identification = payloadLen).
    uint8_t fragment = 0;
};
// Builds and sends it from `node` (null: the process-wide socket) to `to`: bytes sent, or 0 with a
// log line when it could not be built or sent.
int KsGTP__send_direct(gtp_node_t* node, const gtpu_peer& to, const KsGTPDirectPacket& p);
// An ICMP echo request of 8 octets in IPv4 to dstV4 (the ping of a PFCP session); bytes sent or 0.
int KsGTP__send_direct_icmp(gtp_node_t* node, const gtpu_peer& to, uint32_t teid, uint32_t srcV4, uint32_t dstV4,
                            uint16_t icmpId, uint16_t icmpSeq);
// A GTP echo request carrying `teid` (the 12 octets of the session ping); bytes sent or 0.
int KsGTP__send_direct_echo(gtp_node_t* node, const gtpu_peer& to, uint32_t teid);
// Every replayable packet of capture file `fileId` (of pcap_protocols/) in the 16-octet form with
// flags 0x34, its addresses and ports rewritten by `rw`: the packets sent, or -1 when the file
// does not open. `bytes` gets their octets.
int KsGTP__send_direct_capture(gtp_node_t* node, const gtpu_peer& to, uint32_t fileId, uint32_t teid,
                               uint16_t firstSeq, const gtpu_rewrite& rw, uint64_t* bytes);
