// What the PFCP tests share: hex text, the sample messages as octets, records filled from the
// descriptors, and tshark over lists of datagrams.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ks_tshark.h"
#include "pfcp_codec.h"
#include "pfcp_samples.h"
#include "tlv_json.h"

namespace kpf {

using Bytes = std::vector<uint8_t>;

using kst::fromHex;
using kst::toHex;

// A message record big enough for any type, zeroed, off the stack.
inline std::unique_ptr<pfcp_message_t> newMessage() { return std::make_unique<pfcp_message_t>(); }

inline Bytes encode(const pfcp_message_t* m) {
    Bytes out(65536 + 16);
    int n = pfcp_encode_message(m, out);
    if (n < 0) return {};
    out.resize(size_t(n));
    return out;
}

// The datagram of a sample (see pfcp_samples.h); fails the test when it does not load or encode.
inline Bytes sampleBytes(const Sample& s) {
    auto m = newMessage();
    tlv_json_store store;
    std::string err;
    EXPECT_TRUE(pfcp_message_from_json(s.json.c_str(), m.get(), store, err)) << s.name << ": " << err;
    Bytes b = encode(m.get());
    EXPECT_FALSE(b.empty()) << s.name;
    return b;
}

inline std::string json(const pfcp_message_t* m) {
    std::string s;
    pfcp_message_json(m, s);
    return s;
}

// ---------------------------------------------------------------- tshark

using kst::runCommand;
using kst::tsharkAvailable;
using kst::TsharkRun;

// Runs the datagrams through wsdecode.sh (UDP port 8805) for the verdict, and through tshark for the
// values of `names`.
inline TsharkRun runTshark(const std::vector<Bytes>& packets, const std::vector<std::string>& names) {
    return kst::runTshark(KS_WSDECODE, "pfcp", 8805, "", packets, names);
}

}  // namespace kpf
