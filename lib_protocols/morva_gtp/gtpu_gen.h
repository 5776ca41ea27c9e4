// The background traffic generator, below the engine: each session's tunnel and flows, the
// processing threads "gtpt" with their lists of UEs that have sent, and the batched sends through a
// GTP-U endpoint. The engine's module decides who sends what and when (steps, its UE record); it
// drives the generator through the calls below, and the generator reaches up only through the
// hooks it was given.
//
// Pacing is a thread's: each second it walks its list until it has made PacketsPerSecond visits
// (one visit sends one packet on each flow of the UE), sends, and sleeps out the second.
#pragma once

#include <atomic>
#include <cstdint>

#include "gtpu_codec.h"
#include "gtpu_node.h"

#define GTPU_GEN_FLOWS 10
#define GTPU_GEN_SESSIONS 15     // session ids 1 to 15
#define GTPU_GEN_ALL_FLOWS 20    // SendAllFlowsOrFlowId: every flow
#define GTPU_GEN_THREADS 15
#define GTPU_GEN_MAX_PAYLOAD 65000  // a payload with its headers stays within one datagram

// One session's tunnel and flows, with the names of the UE record's PDU session. The control plane
// writes the tunnel fields, then isStarted 1 (it stores 0 before it changes them again); an
// activation writes flows before it raises FlowsCount; the sequences and counts belong to the
// processing thread.
struct gtpu_session {
    std::atomic<uint8_t> isStarted{0};
    uint8_t UPF__UPTLA_ipv = 1;        // 1 and 3 send to the IPv4 address, 2 to the IPv6 one
    uint32_t UPF__UPTLA_ipv4_int = 0;  // host order
    uint8_t UPF__UPTLA_ipv6[16] = {};
    uint32_t gtpTEID = 0;              // the UPF's TEID of the tunnel
    uint32_t u_pduAddress = 0;         // the UE's IPv4 address, host order
    uint8_t PduAddressIPv6[16] = {};   // the UE's IPv6 address; all zero: none
    uint32_t Flows[GTPU_GEN_FLOWS] = {};
    uint32_t GTPSequence[GTPU_GEN_FLOWS] = {};
    uint32_t IPSequence[GTPU_GEN_FLOWS] = {};
    uint32_t FlowDstIP[GTPU_GEN_FLOWS] = {};
    uint16_t FlowsSrcPort[GTPU_GEN_FLOWS] = {};
    uint16_t FlowsDstPort[GTPU_GEN_FLOWS] = {};
    uint8_t ProtocolType[GTPU_GEN_FLOWS] = {};
    uint8_t IPVersion[GTPU_GEN_FLOWS] = {};  // 6 sends IPv6 when the UE has an IPv6 address
    std::atomic<uint32_t> FlowsCount{0};
    uint8_t QosFlowIdentifier = 1;
    std::atomic<uint64_t> PktsSentCount{0};
    std::atomic<uint64_t> PktsRecvCount{0};
};

// One UE that has ever sent; items stay on their thread's list for good.
struct gtpu_gen_item {
    std::atomic<gtpu_gen_item*> Next{nullptr};
    void* ksUE = nullptr;  // the owner the hooks are given
    uint64_t ueId = 0;
    std::atomic<uint64_t> UploadedBytes{0};
    std::atomic<uint64_t> UploadBytes{0};
    std::atomic<uint32_t> PacketsPerSecond{0};
    std::atomic<int> isActive{0};
    std::atomic<uint32_t> ver{0};  // activations
    std::atomic<uint8_t> sendICMP{0};
    std::atomic<uint8_t> pduSessionId{0};
    std::atomic<uint32_t> SendAllFlowsOrFlowId{GTPU_GEN_ALL_FLOWS};
    std::atomic<uint64_t> packets_sent{0};
};

struct gtpu_gen_hooks {
    // The session `id` (1 to 15) of the owner, or null when it has none. On processing threads.
    gtpu_session* (*Session)(void* owner, uint8_t id) = nullptr;
    // The item reached its goal and stopped. On its processing thread; optional.
    void (*OnGoalReached)(gtpu_gen_item* item) = nullptr;
    // The owner's name for log lines; optional.
    const char* (*Name)(void* owner) = nullptr;
};

struct gtpu_gen_config {
    int threads = GTPU_GEN_THREADS;   // NoOfPtThreads
    __mv_gtpu_node* node = nullptr;   // whose socket sends
    uint16_t dstPort = GTPU_PORT;     // the UPFs' GTP-U port
    gtpu_gen_hooks hooks;
    bool start = true;  // false: no threads; gtpu_gen_visit and gtpu_gen_flush drive it
};

// How an activation arms an item.
struct gtpu_gen_activation {
    uint64_t uploadBytes = 0;       // added to the goal; with restart, the goal itself
    bool restart = false;           // UploadedBytes starts again from 0
    uint32_t packetsPerSecond = 0;  // the item's (the thread's rate is set apart)
    uint8_t pduSessionId = 1;       // where the walk of sessions starts
    uint8_t sendICMP = 0;           // 1: every packet an ICMP echo
    uint32_t flowSelect = GTPU_GEN_ALL_FLOWS;  // or the one flow's index
};

struct gtpu_gen_stats {
    uint64_t visits;    // items walked
    uint64_t packets;   // built and handed to the socket
    uint64_t bytes;     // their payload octets (what UploadedBytes counts)
    uint64_t sendFailed;
    uint64_t buildFailed;
    uint64_t goalsReached;
};

struct gtpu_gen;

// Null with a log line when there is no node or no Session hook.
[[nodiscard]] gtpu_gen* gtpu_gen_create(const gtpu_gen_config* cfg);
// Stops the threads and frees the items; the sessions are the owners'.
void gtpu_gen_destroy(gtpu_gen* gen);

// The item of `ueId`, made and appended to its thread's list (ueId modulo the threads) on the first call.
gtpu_gen_item* gtpu_gen_item_of(gtpu_gen* gen, void* owner, uint64_t ueId);
// Null when the UE never had one.
gtpu_gen_item* gtpu_gen_find_item(gtpu_gen* gen, uint64_t ueId);
// The visits per second of the thread that serves `ueId`: one value for all its UEs, the last wins.
void gtpu_gen_set_thread_rate(gtpu_gen* gen, uint64_t ueId, uint32_t visitsPerSecond);
// Flows below `count` (1 counts as 2; at most 10) that do not exist yet: destination and flow id at
// random from 10.10.10.10 to 192.192.192.192, ports from 6000 to 10000, TCP on even flows and UDP
// on odd ones, IPv4. Then FlowsCount is `count`.
void gtpu_gen_make_flows(gtpu_session* s, uint32_t count);
// Arms the item: its goal, rate, first session, ICMP and flow choice, one more `ver`, active.
void gtpu_gen_activate(gtpu_gen_item* item, const gtpu_gen_activation& a);

// One walk of thread `t`'s list: every active item below its goal sends one packet per flow.
// Returns the packets queued; full batches go out on the way.
int gtpu_gen_visit(gtpu_gen* gen, int t);
// Sends what thread `t` has queued; returns the packets sent.
int gtpu_gen_flush(gtpu_gen* gen, int t);

void gtpu_gen_get_stats(gtpu_gen* gen, gtpu_gen_stats* out);
