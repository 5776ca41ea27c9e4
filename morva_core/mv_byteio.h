// Bounded big-endian reading and writing over a span: decoders read octets only through a
// ByteReader and encoders may write them through a ByteWriter. Every operation checks the room
// first; one that is refused returns false and moves nothing, so no input is read past its end
// and no output is written past its span.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

class ByteReader {
public:
    ByteReader() = default;
    explicit ByteReader(std::span<const uint8_t> b) : buf_(b) {}
    ByteReader(const uint8_t* p, size_t n) : buf_(p, n) {}

    size_t size() const { return buf_.size(); }
    size_t position() const { return pos_; }
    size_t remaining() const { return buf_.size() - pos_; }
    bool empty() const { return pos_ == buf_.size(); }
    // The octets not read yet.
    std::span<const uint8_t> rest() const { return buf_.subspan(pos_); }

    [[nodiscard]] bool u8(uint8_t& v) {
        if (pos_ >= buf_.size()) return false;
        v = buf_[pos_++];
        return true;
    }
    [[nodiscard]] bool u16(uint16_t& v) { return narrow(2, v); }
    [[nodiscard]] bool u24(uint32_t& v) { return narrow(3, v); }
    [[nodiscard]] bool u32(uint32_t& v) { return narrow(4, v); }
    [[nodiscard]] bool u64(uint64_t& v) { return uN(8, v); }
    // An unsigned big-endian integer of n octets, 1 to 8.
    [[nodiscard]] bool uN(size_t n, uint64_t& v) {
        if (n < 1 || n > 8 || remaining() < n) return false;
        uint64_t w = 0;
        for (size_t i = 0; i < n; ++i) w = w << 8 | buf_[pos_ + i];
        v = w;
        pos_ += n;
        return true;
    }
    // The next octet, left unread.
    [[nodiscard]] bool peek(uint8_t& v) const {
        if (pos_ >= buf_.size()) return false;
        v = buf_[pos_];
        return true;
    }
    // Copies n octets out.
    [[nodiscard]] bool bytes(void* dst, size_t n) {
        if (remaining() < n) return false;
        if (n) memcpy(dst, buf_.data() + pos_, n);
        pos_ += n;
        return true;
    }
    // The next n octets in place, without a copy.
    [[nodiscard]] bool view(size_t n, std::span<const uint8_t>& v) {
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
    // A reader of the next n octets alone (a length-delimited part); this one moves past them.
    [[nodiscard]] bool sub(size_t n, ByteReader& part) {
        std::span<const uint8_t> v;
        if (!view(n, v)) return false;
        part = ByteReader(v);
        return true;
    }

private:
    template <class T>
    bool narrow(size_t n, T& v) {
        uint64_t w;
        if (!uN(n, w)) return false;
        v = T(w);
        return true;
    }

    std::span<const uint8_t> buf_;
    size_t pos_ = 0;
};

// A refused write also fails every later one, so a message built by a chain of writes is either
// whole or known to have overflowed: test each result, or failed() once at the end.
class ByteWriter {
public:
    ByteWriter() = default;
    explicit ByteWriter(std::span<uint8_t> b) : buf_(b) {}
    ByteWriter(uint8_t* p, size_t n) : buf_(p, n) {}

    size_t size() const { return buf_.size(); }
    size_t position() const { return pos_; }
    size_t remaining() const { return buf_.size() - pos_; }
    bool failed() const { return failed_; }
    std::span<const uint8_t> written() const { return buf_.first(pos_); }

    [[nodiscard]] bool u8(uint8_t v) { return uN(1, v); }
    [[nodiscard]] bool u16(uint16_t v) { return uN(2, v); }
    [[nodiscard]] bool u24(uint32_t v) { return uN(3, v); }
    [[nodiscard]] bool u32(uint32_t v) { return uN(4, v); }
    [[nodiscard]] bool u64(uint64_t v) { return uN(8, v); }
    // The low n octets of v, 1 to 8, big-endian.
    [[nodiscard]] bool uN(size_t n, uint64_t v) {
        if (!room(n) || n < 1 || n > 8) return refuse();
        for (size_t i = n; i-- > 0; v >>= 8) buf_[pos_ + i] = uint8_t(v);
        pos_ += n;
        return true;
    }
    [[nodiscard]] bool bytes(const void* src, size_t n) {
        if (!room(n)) return refuse();
        if (n) memcpy(buf_.data() + pos_, src, n);
        pos_ += n;
        return true;
    }
    [[nodiscard]] bool bytes(std::span<const uint8_t> src) { return bytes(src.data(), src.size()); }
    [[nodiscard]] bool fill(uint8_t v, size_t n) {
        if (!room(n)) return refuse();
        if (n) memset(buf_.data() + pos_, v, n);
        pos_ += n;
        return true;
    }
    // A writer of the next n octets alone, to fill now or later (a header or a length known only
    // once the value behind it is written); this one moves past them.
    [[nodiscard]] bool sub(size_t n, ByteWriter& part) {
        if (!room(n)) return refuse();
        part = ByteWriter(buf_.subspan(pos_, n));
        pos_ += n;
        return true;
    }

private:
    bool room(size_t n) const { return !failed_ && remaining() >= n; }
    bool refuse() {
        failed_ = true;
        return false;
    }

    std::span<uint8_t> buf_;
    size_t pos_ = 0;
    bool failed_ = false;
};
