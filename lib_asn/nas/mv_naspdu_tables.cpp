// Descriptor tables of every IE type and message, made from the lists in mv_naspdu_ies.h and
// mv_naspdu_msgs.h, and the named operations, each a call of the walker with its table.
#include <array>
#include <cstddef>

#include "mv_naspdu_desc.h"

namespace {

// Capacity of a record shape and whether its Length takes two octets.
template <class T>
struct NasShape;
template <>
struct NasShape<uint8_t> {
    static constexpr uint16_t cap = 1, wide = 0;
};
template <>
struct NasShape<__naspdu_ie_half> {
    static constexpr uint16_t cap = 1, wide = 0;
};
template <>
struct NasShape<__naspdu_ie_byte> {
    static constexpr uint16_t cap = 1, wide = 0;
};
template <unsigned N>
struct NasShape<__naspdu_ie_l8<N>> {
    static_assert(N <= 255);
    static constexpr uint16_t cap = N, wide = 0;
};
template <unsigned N>
struct NasShape<__naspdu_ie_l16<N>> {
    static constexpr uint16_t cap = N, wide = 1;
};
template <>
struct NasShape<__naspdu_pdu_address> {
    static constexpr uint16_t cap = 40, wide = 0;
};
template <>
struct NasShape<__naspdu_session_ambr> {
    static constexpr uint16_t cap = 6, wide = 0;
};

constexpr uint8_t fgmmFlags(int type) {
    return type == 93 ? NAS_MSG_SKIP_OCTETS : type == 104 ? NAS_MSG_CONTINUE : 0;
}

}  // namespace

#define NAS_IE_DEF(Name, CType, fmt, kind, n)                                                          \
    const NasIeType kNasIe_##Name = {#Name, fmt, kind, n, NasShape<CType>::cap, sizeof(CType),        \
                                     NasShape<CType>::wide};                                          \
    int __mv_naspdu_encode##Name(uint8_t iei, const CType* ie, __mv_asn_coding_context* context) {    \
        return __mv_naspdu_encode_ie(&kNasIe_##Name, iei, ie, context);                               \
    }                                                                                                 \
    int __mv_naspdu_decode##Name(CType* ie, __naspduDecode* decode) {                                 \
        return __mv_naspdu_decode_taken_ie(&kNasIe_##Name, ie, decode);                               \
    }
NAS_IE_TYPES(NAS_IE_DEF)
#undef NAS_IE_DEF

#define NAS_EL_M(T, m, iei) {#m, &kNasIe_##T, offsetof(NasRec, m), 0, NAS_EL_MAND | NAS_EL_ENC | NAS_EL_READ},
#define NAS_EL_U(T, m, iei) \
    {#m, &kNasIe_##T, offsetof(NasRec, m), 0, NAS_EL_MAND | NAS_EL_ENC | NAS_EL_READ | NAS_EL_UEONLY},
#define NAS_EL_O(T, m, iei) {#m, &kNasIe_##T, offsetof(NasRec, m), iei, NAS_EL_ENC | NAS_EL_READ},
#define NAS_EL_E(T, m, iei) {#m, &kNasIe_##T, offsetof(NasRec, m), iei, NAS_EL_ENC},
#define NAS_EL_R(T, m, iei) {#m, &kNasIe_##T, offsetof(NasRec, m), iei, NAS_EL_READ},
#define NAS_EL_K(T, m, iei) {#m, &kNasIe_##T, offsetof(NasRec, m), iei, NAS_EL_ENC | NAS_EL_SKIP},
#define NAS_EL_S(T, m, iei) {"", &kNasIe_##T, 0, iei, NAS_EL_SKIP},
#define NAS_EL(kind, T, m, iei) NAS_EL_##kind(T, m, iei)
#define NAS_EL_END {nullptr, nullptr, 0, 0, 0}

// The decoder reads the mandatory part from the front of the table and stops at the first other
// element, so that every message's mandatory elements must lead its table.
constexpr bool mandatoryFirst(const NasElem* e) {
    bool optional = false;
    for (; e->type; ++e) {
        if ((e->flags & NAS_EL_MAND) && optional) return false;
        optional = optional || !(e->flags & NAS_EL_MAND);
    }
    return true;
}

#define NAS_TABLE(ns, Rec, list, Name, type, disc, flags)                                            \
    namespace ns {                                                                                    \
    using NasRec = Rec;                                                                               \
    constexpr NasElem kElems[] = {list(NAS_EL) NAS_EL_END};                                           \
    static_assert(mandatoryFirst(kElems), Name " has a mandatory element behind an optional one");   \
    const NasMsgDesc kMsg = {Name, type, disc, flags, sizeof(NasRec), kElems,                         \
                             uint16_t(sizeof kElems / sizeof kElems[0] - 1)};                         \
    }

#define NAS_DEFINE_FGMM(Name, type)                                                                   \
    NAS_TABLE(nas_fgmm_##Name, __naspduFGMM_##Name, NAS_FGMM_##Name, #Name, type, MV_5GS_MM_EPD,     \
              fgmmFlags(type))                                                                        \
    int __mv_naspdu_fgmm_encode##Name(__naspduFGMM_##Name* record, __mv_asn_coding_context* context) { \
        return __mv_naspdu_encode_message(&nas_fgmm_##Name::kMsg, record, context);                   \
    }                                                                                                 \
    int __mv_naspdu_Decode_NASPduFGMM_##Name(__naspduDecode* decode) {                                \
        return __mv_naspdu_decode_message(&nas_fgmm_##Name::kMsg, decode);                            \
    }
#define NAS_DEFINE_FGSM(Name, type)                                                                   \
    NAS_TABLE(nas_fgsm_##Name, __naspduFGSM_##Name, NAS_FGSM_##Name, #Name, type, MV_5GS_SM_EPD, 0)  \
    int __mv_naspdu_fgsm_encode##Name(__naspduFGSM_##Name* record, __mv_asn_coding_context* context) { \
        return __mv_naspdu_encode_message(&nas_fgsm_##Name::kMsg, record, context);                   \
    }                                                                                                 \
    int __mv_naspdu_Decode_NASPduFGSM_##Name(__naspduDecode* decode) {                                \
        return __mv_naspdu_decode_message(&nas_fgsm_##Name::kMsg, decode);                            \
    }
#define NAS_DEFINE_EMM(Name, DecName, type)                                                           \
    NAS_TABLE(nas_emm_##Name, __naspdu##Name, NAS_EMM_##Name, #DecName, type, MV_EPS_MM_PD, 0)       \
    int __mv_naspdu_encode##Name(__naspdu##Name* record, __mv_asn_coding_context* context) {          \
        return __mv_naspdu_encode_message(&nas_emm_##Name::kMsg, record, context);                    \
    }                                                                                                 \
    int __mv_naspdu_Decode_EMM_NAS_##DecName(__naspduDecode* decode) {                                \
        return __mv_naspdu_decode_message(&nas_emm_##Name::kMsg, decode);                             \
    }
#define NAS_DEFINE_ESM(Name, DecName, type)                                                           \
    NAS_TABLE(nas_esm_##Name, __naspdu##Name, NAS_ESM_##Name, #DecName, type, MV_EPS_SM_PD, 0)       \
    int __mv_naspdu_encode##Name(__naspdu##Name* record, __mv_asn_coding_context* context) {          \
        return __mv_naspdu_encode_message(&nas_esm_##Name::kMsg, record, context);                    \
    }                                                                                                 \
    int __mv_naspdu_Decode_ESM_NAS_##DecName(__naspduDecode* decode) {                                \
        return __mv_naspdu_decode_message(&nas_esm_##Name::kMsg, decode);                             \
    }

NAS_FGMM_MESSAGES(NAS_DEFINE_FGMM)
NAS_FGSM_MESSAGES(NAS_DEFINE_FGSM)
NAS_EMM_MESSAGES(NAS_DEFINE_EMM)
NAS_ESM_MESSAGES(NAS_DEFINE_ESM)

namespace {
#define NAS_PTR_FGMM(Name, type) &nas_fgmm_##Name::kMsg,
#define NAS_PTR_FGSM(Name, type) &nas_fgsm_##Name::kMsg,
#define NAS_PTR_EMM(Name, DecName, type) &nas_emm_##Name::kMsg,
#define NAS_PTR_ESM(Name, DecName, type) &nas_esm_##Name::kMsg,
const NasMsgDesc* const kFgmm[] = {NAS_FGMM_MESSAGES(NAS_PTR_FGMM)};
const NasMsgDesc* const kFgsm[] = {NAS_FGSM_MESSAGES(NAS_PTR_FGSM)};
const NasMsgDesc* const kEmm[] = {NAS_EMM_MESSAGES(NAS_PTR_EMM)};
const NasMsgDesc* const kEsm[] = {NAS_ESM_MESSAGES(NAS_PTR_ESM)};

template <size_t N>
constexpr uint16_t count(const NasMsgDesc* const (&)[N]) {
    return uint16_t(N);
}

// Message by type, one table per family, built once.
struct NasIndex {
    std::array<const NasMsgDesc*, 256> byType[4]{};
    NasIndex() {
        for (int f = 0; f < 4; f++)
            for (uint16_t i = 0; i < kNasFamilies[f].count; i++)
                byType[f][kNasFamilies[f].msgs[i]->type] = kNasFamilies[f].msgs[i];
    }
};
}  // namespace

const NasFamily kNasFamilies[4] = {
    {"5GMM", MV_5GS_MM_EPD, kFgmm, count(kFgmm)},
    {"5GSM", MV_5GS_SM_EPD, kFgsm, count(kFgsm)},
    {"EMM", MV_EPS_MM_PD, kEmm, count(kEmm)},
    {"ESM", MV_EPS_SM_PD, kEsm, count(kEsm)},
};

const NasMsgDesc* __mv_naspdu_find_message(uint8_t discriminator, uint8_t type) {
    static const NasIndex index;
    switch (discriminator) {
        case MV_5GS_MM_EPD: return index.byType[0][type];
        case MV_5GS_SM_EPD: return index.byType[1][type];
        case MV_EPS_MM_PD: return index.byType[2][type];
        case MV_EPS_SM_PD: return index.byType[3][type];
        default: return nullptr;
    }
}

const char* __mv_naspdu_message_name(uint8_t discriminator, uint8_t type) {
    const NasMsgDesc* m = __mv_naspdu_find_message(discriminator, type);
    return m ? m->name : "";
}
