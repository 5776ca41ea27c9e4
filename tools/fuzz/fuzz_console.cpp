// libFuzzer target of the console's framing: the input is a byte stream that arrives
// in pieces (the first byte picks their sizes), framed as the server frames a
// connection. Handlers are stand-ins that read every byte of the record they are
// given, so that the address sanitizer sees any record shorter than its type or any
// read past what was received.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "KsUECServer.h"
#include "mv_alloc.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __init_morva_core();
    __mv_init_logger("/tmp/ks_fuzz_console/logs/");
    __mv_set_log_enable_disable(MV_CMN_LOG, 0);
    return 0;
}

namespace {

volatile uint32_t sink;

template <class Rec>
void touch(Rec* r) {
    const auto* b = reinterpret_cast<const volatile uint8_t*>(r);
    uint32_t s = 0;
    for (size_t i = 0; i < sizeof(Rec); ++i) s += b[i];
    sink = s;
    KsUECServer___release(r);
}

int noSend(void*, uint32_t, const void*, int len) { return len; }
const KsUECTransport kNoSend{noSend};

}  // namespace

void KsUECServer___handle_StatsRequest(__uec_stats_request* m) { touch(m); }
void KsUECServer___handle_testStartRequest(__uec_test_start_request* m) { touch(m); }
void KsUECServer___handle_testReportRequest(__uec_test_start_request* m) { touch(m); }
void KsUECServer___handle_beginTest(__uec_begin_test* m) { touch(m); }
void KsUECServer___handle_loadSettings(__uec_load_settings_request* m) { touch(m); }
void KsUECServer___handle_nodeConnectionStatus(__uec_node_connection* m) { touch(m); }
void KsUECServer___handle_nodeConnectionCommand(__uec_node_connection* m) { touch(m); }
void KsUECServer___handle_PingRequest(__uec_msg_header* m) {
    __uec_msg_header echo = *m;
    KsUECServer___respond(m, &echo, sizeof echo, "UEC_PingRequest");
    touch(m);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = (KsUECServer___setTransport(&kNoSend), true);
    (void)once;
    if (size < 1) return 0;
    uint8_t pieces = data[0];
    ++data;
    --size;
    // The connection's buffer, as the socket engine keeps it: arrivals are appended,
    // framed messages taken from the front.
    std::vector<uint8_t> waiting;
    size_t pos = 0;
    unsigned step = 1;
    while (pos < size) {
        size_t n = (pieces & 0x7f) ? ((pieces * step++) % 97) + 1 : size;
        if (n > size - pos) n = size - pos;
        waiting.insert(waiting.end(), data + pos, data + pos + n);
        pos += n;
        // An exact copy, so that a read past the bytes waiting lands outside it.
        std::vector<uint8_t> view(waiting);
        int used = KsUECServer___feed(view, reinterpret_cast<void*>(0x1), 1);
        if (used < 0) return 0;  // the server closes or stops here
        if (size_t(used) > waiting.size()) abort();
        waiting.erase(waiting.begin(), waiting.begin() + used);
        // What remains is never a whole message.
        KsUECFrame f = KsUECServer___frame(std::span<const uint8_t>(waiting.data(), waiting.size() < 20 ? waiting.size() : 20),
                                           uint32_t(waiting.size()));
        if (f.Kind == KsUECFrameKind::Message) abort();
    }
    return 0;
}
