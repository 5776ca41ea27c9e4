// libFuzzer target of the PFCP decoder: a datagram as the stack's receive path takes it. Whatever
// decodes must encode again, decode to the same record, and come back through its JSON form to the
// same octets; its text form is made too. The input is exactly its size, so the address sanitizer
// catches any read past it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pfcp_codec.h"
#include "tlv_json.h"

namespace {

[[noreturn]] void broken(const char* what, uint8_t type) {
    fprintf(stderr, "%s: %s\n", pfcp_message_name(type), what);
    abort();
}

pfcp_message_t gMsg, gAgain, gJson;
uint8_t gOut[65536 + 16];

std::string json(const pfcp_message_t* m) {
    std::string s;
    pfcp_message_json(m, s);
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    pfcp_rx_result_t rx;
    int rc = pfcp_decode_datagram(std::span<const uint8_t>(data, size), &gMsg, &rx);
    char line[400];
    pfcp_format_rx_error(&rx, line, sizeof line);
    if (rc != 1) {
        if (rc != 0 && rc != -1) broken("a result outside 1, 0, -1", rx.type);
        return 0;
    }
    std::string text;
    tlv_text_record(pfcp_find_msg_desc(gMsg.h.type), &gMsg.pfcp_heartbeat_request, 2, text);
    int n = pfcp_encode_message(&gMsg, gOut);
    if (n < 0) broken("decodes but does not encode", gMsg.h.type);
    std::vector<uint8_t> first(gOut, gOut + n);
    if (pfcp_decode_datagram(first, &gAgain) != 1) broken("its own encoding does not decode", gMsg.h.type);
    std::string j = json(&gMsg);
    if (json(&gAgain) != j) broken("its own encoding decodes to another record", gMsg.h.type);
    tlv_json_store store;
    std::string err;
    if (!pfcp_message_from_json(j.c_str(), &gJson, store, err)) broken(("its JSON form is refused: " + err).c_str(), gMsg.h.type);
    int m = pfcp_encode_message(&gJson, gOut);
    if (m != n || std::vector<uint8_t>(gOut, gOut + m) != first) broken("its JSON form encodes to other octets", gMsg.h.type);
    return 0;
}
