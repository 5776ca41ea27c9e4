// Random in-range values for any descriptor, and helpers shared by the codec tests.
#pragma once

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "mv_asn.h"

struct AsnFiller {
    explicit AsnFiller(uint32_t seed) : rng(seed) {}
    std::mt19937_64 rng;
    bool allOptional = false;  // every optional member and IE present
    bool minimal = false;      // no optional member or IE, shortest strings and lists
    // types never put in an optional member or IE (octets of other protocols a dissector would judge)
    std::set<std::string> skipOptional;

    void fill(const MvAsnType* t, void* slot, int depth = 0);
    void* pdu(const MvAsnPdu* p);
    uint64_t below(uint64_t n) { return n ? rng() % n : 0; }
};

// Encodes a PDU record into bytes; empty on failure.
std::vector<uint8_t> encodePdu(const MvAsnPdu* p, const void* rec);
// Decodes bytes as the PDU; returns the decoder's result and the record (caller frees).
int decodePdu(const MvAsnPdu* p, const std::vector<uint8_t>& bytes, void** rec);
std::string toHex(const std::vector<uint8_t>& b);
std::vector<uint8_t> fromHex(const std::string& h);
// Runs a command, returns its exit status and collects its output.
int runCommand(const std::string& cmd, std::string* out);
bool haveProgram(const char* name);
// Sub-dissectors of octet strings that hold other protocols: random contents are not theirs to judge.
extern const char* const kTsharkOpaque;
// The names of the packets wsdecode.sh reports as failed in its output (names[i] is packet i + 1).
std::string namePackets(const std::string& wsdecodeOut, const std::vector<std::string>& names);
