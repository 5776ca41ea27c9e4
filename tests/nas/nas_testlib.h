// Shared by the NAS codec tests: plausible values for every IE, filling and encoding any message from
// its table, and reading what tshark makes of a batch of messages.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mv_naspdu_desc.h"

std::string toHex(const std::vector<uint8_t>& b);
std::vector<uint8_t> fromHex(const std::string& h);

// Value octets of a sample for a message element (by member name, then IE type); for one-octet and
// half-octet IEs the value itself.
std::vector<uint8_t> sampleValue(const NasMsgDesc* m, const NasElem* e);
// Writes a value into the element's record member and sets isset.
void setIe(const NasElem* e, void* record, const std::vector<uint8_t>& value);
// A zeroed record of the message with every element the encoder writes set to its sample (optional ones
// only when allOptional); the caller frees it with free().
// Members named in leaveOut stay unset.
void* sampleRecord(const NasMsgDesc* m, bool allOptional, const std::set<std::string>& leaveOut = {});
// Encodes a record; empty when the encoder fails.
std::vector<uint8_t> encodeRecord(const NasMsgDesc* m, void* record);

// A decoded message with its cursor, freed when it goes.
struct NasDecoded {
    __naspduDecode d{};
    int rc = 0;
    ~NasDecoded() { __mv_naspdu_freeNASPduDecode(&d); }
    template <class T>
    T* rec() const { return static_cast<T*>(d.messageObj); }
};
// Decodes 5GS (0x7E, 0x2E first) or EPS octets through the entry points.
void decodeAny(const std::vector<uint8_t>& bytes, NasDecoded& out);

// tshark's account of each packet: its fields in document order, with the depth of the object that
// holds each (an object or array value is an empty text).
struct TsharkField {
    std::string key, value;
    int depth;
};
using TsharkFields = std::vector<TsharkField>;
struct TsharkRun {
    int rc = -1;          // wsdecode's status: 0 clean
    std::string report;   // wsdecode's complaints
    std::vector<TsharkFields> packets;
};
// Runs wsdecode on the packets (proto "nas-5gs" or "nas-eps") with tshark's JSON output.
TsharkRun runTshark(const char* proto, const std::vector<std::vector<uint8_t>>& packets);
// Values of a field in a packet, in order.
std::vector<std::string> fieldValues(const TsharkFields& f, const std::string& key);
// The identifiers of the optional IEs tshark found (element id fields), in order, as two hex digits,
// half-octet ones as "9-".
std::vector<std::string> tsharkIeis(const TsharkFields& f);
// The identifiers our encoder wrote for the elements set in a record, in the same form.
std::vector<std::string> encodedIeis(const NasMsgDesc* m, const void* record);
bool tsharkAvailable();
int runCommand(const std::string& cmd, std::string* out);
