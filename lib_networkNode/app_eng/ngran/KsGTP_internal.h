// What the files of the GTP-U module share and nobody else sees.
#pragma once

#include <atomic>
#include <memory>

#include "KsGTP.h"

namespace ksgtp {

struct Tally {
#define KS_GTP_TALLY_FIELD(name) std::atomic<uint64_t> name{0};
    KS_GTP_STATS_FIELDS(KS_GTP_TALLY_FIELD)
#undef KS_GTP_TALLY_FIELD
};
extern Tally tally;

// Packets sent on the UE's session outside the generator (a replay): counted where the
// generator counts, so the session's record shows both.
void countSent(MV_KsUE* ue, uint8_t pduSessionId, uint64_t packets);

// The socket a send leaves from: the node's, or the process-wide one.
__mv_gtpu_node* socketOf(gtp_node_t* node);

// A capture of pcap_protocols/ by the UE's file index, read once and kept; null with the log
// line when the index or the file is bad.
std::shared_ptr<const gtpu_capture> captureOf(uint32_t fileId, bool firstOnly, const char* who);

// Sends the capture's packets through one tunnel: header `h` with its sequence advancing from
// h.seq, addresses by `rw`. Returns the packets sent; `bytes` gets their IP octets.
int replayCapture(__mv_gtpu_node* sock, const gtpu_peer& to, const gtpu_capture& cap, gtpu_tpdu_hdr h,
                  const gtpu_rewrite& rw, uint64_t* bytes);

}  // namespace ksgtp
