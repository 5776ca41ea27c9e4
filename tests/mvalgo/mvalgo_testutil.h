// Shared by the library's tests: hex, the vector files, random bytes.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace mvt {

using Bytes = std::vector<uint8_t>;

inline Bytes hex(const std::string& s) {
    Bytes out;
    auto nib = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    for (size_t i = 0; i + 1 < s.size(); i += 2) out.push_back(uint8_t(nib(s[i]) << 4 | nib(s[i + 1])));
    return out;
}

inline std::string toHex(const uint8_t* p, size_t n) {
    static const char* d = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}
inline std::string toHex(const Bytes& b) { return toHex(b.data(), b.size()); }

// Owns a loaded vector file; list() is its "test_sets" or "entries" array.
class VectorFile {
public:
    explicit VectorFile(const char* name) {
        std::string path = std::string(KS_MVALGO_VECTORS) + "/" + name;
        json_error_t err;
        root_ = json_load_file(path.c_str(), 0, &err);
        if (!root_) ADD_FAILURE() << path << ": " << err.text;
    }
    ~VectorFile() { json_decref(root_); }
    VectorFile(const VectorFile&) = delete;
    VectorFile& operator=(const VectorFile&) = delete;
    json_t* list() const {
        json_t* l = json_object_get(root_, "test_sets");
        return l ? l : json_object_get(root_, "entries");
    }

private:
    json_t* root_ = nullptr;
};

inline std::string str(json_t* o, const char* key) {
    const char* s = json_string_value(json_object_get(o, key));
    return s ? s : "";
}
inline Bytes hexOf(json_t* o, const char* key) { return hex(str(o, key)); }
inline long long num(json_t* o, const char* key) { return json_integer_value(json_object_get(o, key)); }

class Rng {
public:
    explicit Rng(uint64_t seed) : g_(seed) {}
    uint32_t u32() { return uint32_t(g_()); }
    uint64_t below(uint64_t n) { return g_() % n; }
    Bytes bytes(size_t n) {
        Bytes b(n);
        for (auto& x : b) x = uint8_t(g_());
        return b;
    }
    template <size_t N>
    std::array<uint8_t, N> arr() {
        std::array<uint8_t, N> a;
        for (auto& x : a) x = uint8_t(g_());
        return a;
    }

private:
    std::mt19937_64 g_;
};

}  // namespace mvt
