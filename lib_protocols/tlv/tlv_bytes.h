// A bounded reader and writer over std::span, the only way the walker touches octets: every read and
// every write checks the room first. Shaped like the runtime's shared reader so that the walker can
// move onto it by changing these two names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace tlv {

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> b) : buf_(b) {}
    [[nodiscard]] bool u8(uint8_t& v) {
        if (remaining() < 1) return false;
        v = buf_[pos_++];
        return true;
    }
    [[nodiscard]] bool u16(uint16_t& v) {
        if (remaining() < 2) return false;
        v = uint16_t(buf_[pos_] << 8 | buf_[pos_ + 1]);
        pos_ += 2;
        return true;
    }
    [[nodiscard]] bool u24(uint32_t& v) {
        if (remaining() < 3) return false;
        v = uint32_t(buf_[pos_]) << 16 | uint32_t(buf_[pos_ + 1]) << 8 | buf_[pos_ + 2];
        pos_ += 3;
        return true;
    }
    [[nodiscard]] bool u32(uint32_t& v) {
        if (remaining() < 4) return false;
        v = uint32_t(buf_[pos_]) << 24 | uint32_t(buf_[pos_ + 1]) << 16 | uint32_t(buf_[pos_ + 2]) << 8 | buf_[pos_ + 3];
        pos_ += 4;
        return true;
    }
    [[nodiscard]] bool u64(uint64_t& v) {
        uint32_t hi, lo;
        if (remaining() < 8 || !u32(hi) || !u32(lo)) return false;
        v = uint64_t(hi) << 32 | lo;
        return true;
    }
    // The next n octets as a view into the input.
    [[nodiscard]] bool bytes(size_t n, std::span<const uint8_t>& v) {
        if (remaining() < n) return false;
        v = buf_.subspan(pos_, n);
        pos_ += n;
        return true;
    }
    [[nodiscard]] bool skip(size_t n) {
        if (remaining() < n) return false;
        pos_ += n;
        return true;
    }
    size_t remaining() const { return buf_.size() - pos_; }
    size_t pos() const { return pos_; }

private:
    std::span<const uint8_t> buf_;
    size_t pos_ = 0;
};

// With an empty span and counting set, it writes nothing and only counts: the sizing pass of an
// encoder is then the same code as the encoder.
class ByteWriter {
public:
    explicit ByteWriter(std::span<uint8_t> b) : buf_(b) {}
    static ByteWriter counter() {
        ByteWriter w({});
        w.counting_ = true;
        return w;
    }
    [[nodiscard]] bool u8(uint8_t v) { return put(&v, 1); }
    [[nodiscard]] bool u16(uint16_t v) {
        const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
        return put(b, 2);
    }
    [[nodiscard]] bool u24(uint32_t v) {
        const uint8_t b[3] = {uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
        return put(b, 3);
    }
    [[nodiscard]] bool u32(uint32_t v) {
        const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
        return put(b, 4);
    }
    [[nodiscard]] bool u64(uint64_t v) { return u32(uint32_t(v >> 32)) && u32(uint32_t(v)); }
    [[nodiscard]] bool bytes(const uint8_t* p, size_t n) { return put(p, n); }
    // Rewrites octets already written (a group's length once its children are out).
    [[nodiscard]] bool patch8(size_t at, uint8_t v) { return patch(at, &v, 1); }
    [[nodiscard]] bool patch16(size_t at, uint16_t v) {
        const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
        return patch(at, b, 2);
    }
    size_t pos() const { return pos_; }
    size_t remaining() const { return counting_ ? SIZE_MAX - pos_ : buf_.size() - pos_; }

private:
    bool put(const uint8_t* p, size_t n) {
        if (remaining() < n) return false;
        if (!counting_ && n) memcpy(buf_.data() + pos_, p, n);
        pos_ += n;
        return true;
    }
    bool patch(size_t at, const uint8_t* p, size_t n) {
        if (at > pos_ || pos_ - at < n) return false;
        if (!counting_) memcpy(buf_.data() + at, p, n);
        return true;
    }
    std::span<uint8_t> buf_;
    size_t pos_ = 0;
    bool counting_ = false;
};

}  // namespace tlv
