// Helpers of the word-oriented stream ciphers: applying a keystream to a bit string
// and reading bounded 64-bit slices of one. Internal to the library.
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>

#include "mvalgo_internal.h"

namespace mvalgo_detail {

// XORs the keystream words of next() over the first `bits` bits of data, MSB first.
template <class Next>
void xorKeystream(Next&& next, uint8_t* data, size_t bits) {
    size_t bytes = bytesFor(bits), i = 0;
    for (; i + 4 <= bytes; i += 4) {
        uint32_t z = next();
        if (i + 4 == bytes && bits % 8) {
            uint8_t ks[4];
            store32(ks, z);
            xorBits(data + i, ks, bits - i * 8);
            return;
        }
        data[i] ^= uint8_t(z >> 24);
        data[i + 1] ^= uint8_t(z >> 16);
        data[i + 2] ^= uint8_t(z >> 8);
        data[i + 3] ^= uint8_t(z);
    }
    if (i < bytes) {
        uint8_t ks[4];
        store32(ks, next());
        xorBits(data + i, ks, bits - i * 8);
    }
}

// The 64 bits of the bit string (of `bits` bits) that start at bit `off`, with the
// bits at or beyond `bits` read as 0. off is a multiple of 8.
inline uint64_t readBits64(const uint8_t* data, size_t bits, size_t off) {
    if (off + 64 <= bits) {
        uint64_t be;
        memcpy(&be, data + off / 8, 8);
        return be64toh(be);
    }
    uint64_t v = 0;
    size_t first = off / 8, end = bytesFor(bits);
    for (size_t i = 0; i < 8; ++i) v = v << 8 | (first + i < end ? data[first + i] : 0);
    if (bits < off + 64) v &= ~uint64_t(0) << (off + 64 - bits);
    return v;
}

}  // namespace mvalgo_detail
