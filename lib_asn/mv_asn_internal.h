// Helpers shared by the primitives and the walker; not part of the codec's interface.
#pragma once

#include <cstdint>

#include "mv_asn.h"

// Size of a string or list (lengthType 0 unconstrained, 1 fixed, 2 range), with an extension marker.
int mv_asn_add_size(uint32_t n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);
int mv_asn_get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);
// Normally small non-negative whole number: the index of an extension alternative or value.
int mv_asn_add_nsnn(uint64_t n, __mv_asn_coding_context* ctx);
int mv_asn_get_nsnn(uint64_t* n, __mv_asn_coding_context* ctx);
// Unconstrained whole number: a length octet and two's complement octets.
int mv_asn_add_unconstrained(int64_t v, __mv_asn_coding_context* ctx);
int mv_asn_get_unconstrained(int64_t* v, __mv_asn_coding_context* ctx);
