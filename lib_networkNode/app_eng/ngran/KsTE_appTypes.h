// The application types of the elements under test by number, as data/set.json,
// data/noc.json and the console name them.
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>

inline constexpr const char* kKsTEAppTypeNames[] = {
    "INVALID-0", "AMF",  "UPF",  "SMF",  "MME",  "PGW",      "SGW",      "HSS",      "FourGEIR", "FiveGEIR", "PCRF",
    "AAA",       "CHF",  "NRF",  "UDM",  "NSSF", "PCF",      "AMFS",     "AUSF",     "SMSF",     "BSF",      "FiveGCHF",
    "LMF",       "NEF",  "NWDAF", "N26", "AGF",  "GNB_CU_CP", "GNB_CU_UP", "XNAP",   "E2AP",     "GGSN",
};
static_assert(std::size(kKsTEAppTypeNames) == 32);

// The name of a type, or null above 31.
inline const char* KsTE__AppTypeName(uint32_t type) {
    return type < std::size(kKsTEAppTypeNames) ? kKsTEAppTypeNames[type] : nullptr;
}

// The type of a name, or 0 for none.
inline uint32_t KsTE__AppTypeByName(const char* name) {
    for (uint32_t i = 1; name && i < std::size(kKsTEAppTypeNames); ++i)
        if (strcmp(kKsTEAppTypeNames[i], name) == 0) return i;
    return 0;
}
