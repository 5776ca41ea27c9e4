// NAS ciphering and integrity by algorithm number, over byte views and over the
// engine's plain pointers.
#include "mvalgo.h"
#include "mvalgo_internal.h"

int __mv_algo__nea(uint8_t algo, std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer,
                   uint8_t direction, std::span<uint8_t> data, size_t bits) {
    switch (algo) {
        case 0:
            return bits <= data.size() * 8 ? 0 : MV_ALGO_ERR_ARG;
        case 1:
            return __mv_algo__nea1(key, count, bearer, direction, data, bits);
        case 2:
            return __mv_algo__nea2(key, count, bearer, direction, data, bits);
        case 3:
            return __mv_algo__nea3(key, count, bearer, direction, data, bits);
        default:
            return MV_ALGO_ERR_ARG;
    }
}

int __mv_algo__nia(uint8_t algo, std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer,
                   uint8_t direction, std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac) {
    switch (algo) {
        case 0:
            if (bits > data.size() * 8) return MV_ALGO_ERR_ARG;
            memset(mac.data(), 0, 4);
            return 0;
        case 1:
            return __mv_algo__nia1(key, count, bearer, direction, data, bits, mac);
        case 2:
            return __mv_algo__nia2(key, count, bearer, direction, data, bits, mac);
        case 3:
            return __mv_algo__nia3(key, count, bearer, direction, data, bits, mac);
        default:
            return MV_ALGO_ERR_ARG;
    }
}

int __mv_algo__nas_mac_calculate(uint8_t algo, const uint8_t* key, uint32_t count, uint8_t bearer, uint8_t direction,
                                 const uint8_t* data, uint32_t len, uint8_t* mac) {
    if (!key || !mac || (!data && len)) return MV_ALGO_ERR_ARG;
    return __mv_algo__nia(algo, std::span<const uint8_t, 16>(key, 16), count, bearer, direction,
                          std::span<const uint8_t>(data, len), size_t(len) * 8, std::span<uint8_t, 4>(mac, 4));
}

int __mv_algo__nas_encrypt(uint8_t algo, const uint8_t* key, uint32_t count, uint8_t bearer, uint8_t direction,
                           uint8_t* data, uint32_t len) {
    if (!key || (!data && len)) return MV_ALGO_ERR_ARG;
    return __mv_algo__nea(algo, std::span<const uint8_t, 16>(key, 16), count, bearer, direction,
                          std::span<uint8_t>(data, len), size_t(len) * 8);
}
