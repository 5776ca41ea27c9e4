// Building and reading NGAP records of the codec: zeroed records, strings and bit
// strings, lists, whole PDUs by name, and the one place that knows how the codec
// reports success, so that a change of its result convention touches two lines.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "mv_amf_asn.h"

namespace ca {

inline bool asnEncoded(int rc) { return rc >= 1; }  // 1 or the bytes written
inline bool asnDecoded(int rc) { return rc >= 1; }

constexpr uint32_t kNgapPpid = 60;

// A zeroed record from the codec's allocator.
template <class T>
T* make(int (*init)(T**)) {
    T* p = nullptr;
    init(&p);
    return p;
}

// An OCTET STRING or PrintableString record holding a copy of the bytes.
template <class T>
T* octets(int (*init2)(T**, const uint8_t*, uint32_t), const void* p, size_t n) {
    T* r = nullptr;
    init2(&r, static_cast<const uint8_t*>(p), uint32_t(n));
    return r;
}
template <class T>
T* text(int (*init2)(T**, const uint8_t*, uint32_t), std::string_view s) {
    return octets(init2, s.data(), s.size());
}

// A BIT STRING record of `bits` bits, most significant first, from whole bytes.
template <class T>
T* bits(int (*init2)(T**, const uint8_t*, uint32_t), const void* p, size_t nBytes, int bitCount) {
    T* r = nullptr;
    init2(&r, static_cast<const uint8_t*>(p), uint32_t(nBytes));
    r->bitslen = bitCount;
    return r;
}

// Records are packed: a list member is read and written back, never addressed.
inline __mv_asn_list* appended(__mv_asn_list* list, void* item) {
    __mv_asn_list_add(&list, item);
    return list;
}

// The bytes of a string record, empty for a null one.
template <class T>
std::span<const uint8_t> view(const T* s) {
    if (!s || !s->data) return {};
    return {s->data, s->length};
}

template <class F>
void forEach(const __mv_asn_list* list, F&& f) {
    if (!list) return;
    for (const __mv_asn_list_item* it = list->Head; it; it = it->Next)
        if (it->data) f(it->data);
}

// The PDU table entry of a message by its name ("InitialUEMessage"); null when the
// codec has none.
const MvAsnPdu* ngapPdu(std::string_view name);
inline const MvAsnPdu* pdu(std::string_view name) { return ngapPdu(name); }
inline unsigned ngapIndex(const MvAsnPdu* p) { return unsigned(p - mv_asn_amf::kPdus); }

// A decoded PDU of any kind, freed through the codec on every path.
class NgapRecord {
public:
    NgapRecord() = default;
    NgapRecord(const NgapRecord&) = delete;
    NgapRecord& operator=(const NgapRecord&) = delete;
    ~NgapRecord() { reset(); }
    void reset() {
        if (pdu_ && rec_) __mv_asn_memfree_pdu(pdu_, rec_);
        pdu_ = nullptr;
        rec_ = nullptr;
    }
    // 1 decoded, 0 no such PDU in the codec (pdu() then null), -1 malformed.
    int decode(std::span<const uint8_t> bytes);
    const MvAsnPdu* pdu() const { return pdu_; }
    template <class T>
    T* as() const {
        return static_cast<T*>(rec_);
    }

private:
    const MvAsnPdu* pdu_ = nullptr;
    void* rec_ = nullptr;
};

// Encodes a PDU record into ctx and frees the record; true when ctx.buffer[0..pos)
// holds the message.
bool encodeAndFree(const MvAsnPdu* p, void* rec, __mv_asn_coding_context& ctx);

// Encodes a SEQUENCE or IE container record as the whole value of an octet string
// (a session transfer), aligned; true on success.
template <class T>
bool encodeValue(int (*encode)(const T*, int, __mv_asn_coding_context*), const T* rec, __mv_asn_coding_context& ctx) {
    __mv_asn_init_CodingContext(&ctx);
    if (!asnEncoded(encode(rec, 1, &ctx)) || ctx.iError) return false;
    __mv_asn_pad_bits(&ctx);
    return true;
}

// Decodes an octet string holding one value of type T; null when malformed (then
// nothing is left to free).
template <class T>
T* decodeValue(int (*decode)(T**, int*, int, __mv_asn_coding_context*), void (*memfree)(T*),
               std::span<const uint8_t> bytes) {
    __mv_asn_coding_context ctx;
    if (bytes.empty() || __mv_asn_init_decode(&ctx, bytes.data(), bytes.size()) != 1) return nullptr;
    T* out = nullptr;
    int isset = 0;
    int rc = decode(&out, &isset, 1, &ctx);
    if (rc < 0 || ctx.iError || !isset || !out) {
        if (out) memfree(out);
        return nullptr;
    }
    return out;
}

// The index of an ENUMERATED value by its name in the ASN.1 ("unknown-local-UE-NGAP-ID");
// looked up once per call site so that no table of numbers is written by hand.
uint8_t enumValue(const MvAsnType& t, std::string_view name);

// PLMN identity octets from MCC and MNC digits ("001", "01").
bool plmnFromDigits(std::string_view mcc, std::string_view mnc, uint8_t out[3]);
// "00101" style text of a PLMN identity.
void plmnDigits(const uint8_t plmn[3], char mcc[4], char mnc[4]);

}  // namespace ca
