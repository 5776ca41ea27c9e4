// The bounded reader and writer, the byte buffer, telephone digits and hexadecimal text.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mv_bytes.h"

namespace {

std::vector<uint8_t> bytes(std::initializer_list<int> l) {
    std::vector<uint8_t> v;
    for (int x : l) v.push_back(uint8_t(x));
    return v;
}

// Octets 0x10, 0x11, ... in a heap block of exactly n, so the address sanitizer sees a read past it.
std::unique_ptr<uint8_t[]> block(size_t n) {
    std::unique_ptr<uint8_t[]> b(new uint8_t[n ? n : 1]);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(0x10 + i);
    return b;
}

uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

// One read of each kind, by the octets it takes; value is what it gave.
struct Read {
    const char* name;
    size_t width;
    std::function<bool(ByteReader&, uint64_t&)> run;
};

std::vector<Read> reads() {
    std::vector<Read> r = {
        {"u8", 1, [](ByteReader& b, uint64_t& v) { uint8_t x = 0; bool ok = b.u8(x); v = x; return ok; }},
        {"u16", 2, [](ByteReader& b, uint64_t& v) { uint16_t x = 0; bool ok = b.u16(x); v = x; return ok; }},
        {"u24", 3, [](ByteReader& b, uint64_t& v) { uint32_t x = 0; bool ok = b.u24(x); v = x; return ok; }},
        {"u32", 4, [](ByteReader& b, uint64_t& v) { uint32_t x = 0; bool ok = b.u32(x); v = x; return ok; }},
        {"u64", 8, [](ByteReader& b, uint64_t& v) { return b.u64(v); }},
    };
    for (size_t n = 1; n <= 8; ++n)
        r.push_back({"uN", n, [n](ByteReader& b, uint64_t& v) { return b.uN(n, v); }});
    return r;
}

TEST(ByteReader, EveryReadAtEverySizeChecksWhatRemains) {
    for (size_t size = 0; size <= 10; ++size) {
        auto buf = block(size);
        for (size_t start = 0; start <= size; ++start)
            for (const Read& rd : reads()) {
                SCOPED_TRACE(std::string(rd.name) + " of " + std::to_string(rd.width) + " at " +
                             std::to_string(start) + " of " + std::to_string(size));
                ByteReader r(buf.get(), size);
                ASSERT_TRUE(r.skip(start));
                uint64_t v = 0xDEAD;
                bool fits = size - start >= rd.width;
                ASSERT_EQ(rd.run(r, v), fits);
                if (fits) {
                    EXPECT_EQ(v, bigEndian(buf.get() + start, rd.width));
                    EXPECT_EQ(r.position(), start + rd.width);
                } else {
                    EXPECT_EQ(r.position(), start) << "a refused read moves nothing";
                }
                EXPECT_EQ(r.position() + r.remaining(), size);
            }
    }
}

TEST(ByteReader, CopiesViewsSkipsAndPeeksStopAtTheEnd) {
    for (size_t size = 0; size <= 6; ++size) {
        auto buf = block(size);
        for (size_t n = 0; n <= size + 1; ++n) {
            SCOPED_TRACE(std::to_string(n) + " of " + std::to_string(size));
            bool fits = n <= size;
            uint8_t out[8] = {};
            ByteReader a(buf.get(), size);
            EXPECT_EQ(a.bytes(out, n), fits);
            if (fits) {
                EXPECT_EQ(memcmp(out, buf.get(), n), 0);
            }
            ByteReader b(buf.get(), size);
            std::span<const uint8_t> v;
            EXPECT_EQ(b.view(n, v), fits);
            if (fits) {
                EXPECT_EQ(v.data(), buf.get());
            }
            ByteReader c(buf.get(), size);
            EXPECT_EQ(c.skip(n), fits);
            EXPECT_EQ(c.position(), fits ? n : 0);
            EXPECT_EQ(c.rest().size(), c.remaining());
        }
        ByteReader r(buf.get(), size);
        uint8_t p = 0;
        EXPECT_EQ(r.peek(p), size > 0);
        EXPECT_EQ(r.position(), 0u) << "a peek reads nothing";
    }
    ByteReader r(bytes({1, 2}));
    uint64_t v;
    EXPECT_FALSE(r.uN(0, v));
    EXPECT_FALSE(r.uN(9, v));
    EXPECT_EQ(r.position(), 0u);
}

TEST(ByteReader, SubReaderEndsAtItsPart) {
    const auto wire = bytes({3, 0xA1, 0xA2, 0xA3, 2, 0xB1, 0xB2, 9, 0xC1});
    auto buf = block(wire.size());
    memcpy(buf.get(), wire.data(), wire.size());
    ByteReader r(buf.get(), wire.size());
    std::vector<std::vector<uint8_t>> parts;
    uint8_t len;
    while (r.u8(len)) {
        ByteReader part;
        if (!r.sub(len, part)) break;
        std::vector<uint8_t> got;
        uint8_t x;
        while (part.u8(x)) got.push_back(x);
        uint16_t past;
        EXPECT_FALSE(part.u16(past)) << "the part ends where its length says, not where the message does";
        parts.push_back(got);
    }
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0], bytes({0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(parts[1], bytes({0xB1, 0xB2}));
    EXPECT_EQ(r.position(), 8u) << "a part that overruns the message is refused and leaves the cursor after its length";
    EXPECT_EQ(r.remaining(), 1u);

    // Parts nest, and an inner part cannot reach past the outer one.
    ByteReader outer(buf.get(), wire.size()), mid, inner;
    ASSERT_TRUE(outer.skip(1));
    ASSERT_TRUE(outer.sub(3, mid));
    EXPECT_FALSE(mid.sub(4, inner));
    ASSERT_TRUE(mid.sub(3, inner));
    EXPECT_TRUE(mid.empty());
    uint32_t v;
    ASSERT_TRUE(inner.u24(v));
    EXPECT_EQ(v, 0xA1A2A3u);
}

TEST(ByteWriter, EveryWriteAtEveryCapacityStopsAtItsSpan) {
    constexpr uint8_t kGuard = 0xEE;
    const uint64_t value = 0x0102030405060708ULL;
    for (size_t cap = 0; cap <= 10; ++cap)
        for (size_t width = 1; width <= 8; ++width) {
            SCOPED_TRACE(std::to_string(width) + " octets into " + std::to_string(cap));
            std::vector<uint8_t> mem(cap + 4, kGuard);
            ByteWriter w(mem.data(), cap);
            size_t fit = cap / width;
            for (size_t i = 0; i < fit; ++i) ASSERT_TRUE(w.uN(width, value));
            EXPECT_FALSE(w.failed());
            EXPECT_EQ(w.position(), fit * width);
            for (size_t i = 0; i < fit; ++i)
                EXPECT_EQ(bigEndian(mem.data() + i * width, width), value & (width == 8 ? ~0ULL : (1ULL << 8 * width) - 1));
            EXPECT_FALSE(w.uN(width, value));
            EXPECT_TRUE(w.failed());
            EXPECT_FALSE(w.u8(0)) << "nothing is written after an overflow, even what would fit";
            EXPECT_FALSE(w.bytes(nullptr, 0));
            EXPECT_EQ(w.position(), fit * width);
            EXPECT_EQ(w.written().size(), fit * width);
            for (size_t i = fit * width; i < mem.size(); ++i) EXPECT_EQ(mem[i], kGuard) << "octet " << i;
        }
}

TEST(ByteWriter, CopiesFillsAndLaterHeaders) {
    uint8_t mem[8];
    memset(mem, 0xEE, sizeof mem);
    ByteWriter w(mem, 6);
    ByteWriter length;
    ASSERT_TRUE(w.sub(2, length));
    const uint8_t value[] = {0xAA, 0xBB, 0xCC};
    ASSERT_TRUE(w.bytes(value, sizeof value));
    ASSERT_TRUE(length.u16(uint16_t(w.position() - 2)));
    EXPECT_FALSE(length.u8(0)) << "the header part is as long as it was asked";
    EXPECT_FALSE(w.failed()) << "a full part fails alone";
    EXPECT_FALSE(w.fill(0, 2));
    EXPECT_EQ(std::vector<uint8_t>(mem, mem + 8), bytes({0, 3, 0xAA, 0xBB, 0xCC, 0xEE, 0xEE, 0xEE}));

    ByteWriter small(mem, 2), part;
    EXPECT_FALSE(small.sub(3, part));
    EXPECT_TRUE(small.failed());
    ByteWriter u(mem, 8);
    ASSERT_TRUE(u.u24(0xABCDEF) && u.u32(0x01020304) && u.fill(0x5A, 1));
    EXPECT_EQ(std::vector<uint8_t>(mem, mem + 8), bytes({0xAB, 0xCD, 0xEF, 1, 2, 3, 4, 0x5A}));
    EXPECT_FALSE(u.uN(0, 1));
    EXPECT_FALSE(ByteWriter(mem, 8).uN(9, 1));
}

TEST(ByteBuffer, WritesStopAtTheEndAndHeadRoomPullsBack) {
    __mv_buff_t* b = __mv_buff__alloc(64);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(__mv_buff__reserve(b, 16), 1);
    EXPECT_EQ(__mv_buff__enc_uint16(b, 0x0102), 1);
    EXPECT_EQ(__mv_buff__enc_uint32(b, 0x03040506), 1);
    EXPECT_EQ(__mv_buff__get_len(b), 6);
    ASSERT_EQ(__mv_buff__pull(b, 8, 1), 1);
    EXPECT_EQ(b->len, 14u) << "the pulled header counts in the length";
    EXPECT_EQ(__mv_buff__enc_at_uint8(0, b, 0x20), 1);
    ByteReader r(__mv_buff__get_datapointer(b), b->len);
    uint8_t first;
    uint64_t body;
    ASSERT_TRUE(r.u8(first) && r.skip(7) && r.uN(6, body));
    EXPECT_EQ(first, 0x20);
    EXPECT_EQ(body, 0x010203040506u);
    EXPECT_EQ(__mv_buff__pull(b, 9, 0), 0) << "never in front of the memory";
    __mv_buff__free(b);

    uint8_t wire[5] = {0x00, 0x07, 0xAA, 0xBB, 0xCC};
    __mv_buff_t* e = __mv_buff__alloc2(wire, sizeof wire);
    EXPECT_EQ(__mv_buff__enc_at_uint32(2, e, 1), 0) << "past the end of external memory";
    EXPECT_EQ(__mv_buff__enc_at_uint16(3, e, 0x0102), 1);
    EXPECT_EQ(wire[4], 0x02);
    EXPECT_EQ(__mv_buff__copy(e, "abcdef", 6), 0);
    EXPECT_EQ(e->pos, 0u);
    // Head room taken after writing leaves the cursor past the end: nothing is written there, not
    // even nothing, which would stretch len over memory the buffer does not have.
    ASSERT_EQ(__mv_buff__copy(e, "abcd", 4), 1);
    ASSERT_EQ(__mv_buff__reserve(e, 3), 1);
    EXPECT_EQ(__mv_buff__copy(e, "", 0), 0);
    EXPECT_EQ(__mv_buff__enc_uint8(e, 1), 0);
    EXPECT_EQ(e->len, 2u);
    __mv_buff__free(e);
}

TEST(Bcd, TelephoneDigits) {
    struct Case {
        const char* digits;
        std::vector<uint8_t> out;
    };
    const Case cases[] = {
        {"12345", bytes({0x21, 0x43, 0xF5})},
        {"1234", bytes({0x21, 0x43})},
        {"", {}},
        {"1*#a", bytes({0xA1, 0xCB})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.digits);
        uint8_t out[8] = {};
        int len = -1;
        ASSERT_EQ(__mv_convertStrToBCD(c.digits, int(strlen(c.digits)), out, &len), 1);
        ASSERT_EQ(len, int(c.out.size()));
        EXPECT_EQ(std::vector<uint8_t>(out, out + len), c.out);
    }
    uint8_t out[12];
    int len = 0;
    __mv_convertLongToBCD2(123, out, &len);
    EXPECT_EQ(std::vector<uint8_t>(out, out + len), bytes({0x21, 0xF3}));
}

TEST(Hex, TextToBytesAndBack) {
    uint8_t out[8] = {};
    EXPECT_EQ(__mv_ascii_to_hex("0a B1\tff", 8, out, 8), 3);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 3), bytes({0x0A, 0xB1, 0xFF}));
    EXPECT_EQ(__mv_ascii_to_hex("001122", 6, out, 2), 2) << "stops at out_len";
    EXPECT_EQ(__mv_ascii_to_hex("abc", 3, out, 8), 2) << "a lone digit fills a high nibble";
    EXPECT_EQ(out[1], 0xC0);
    EXPECT_EQ(__mv_ascii_to_hex("12zz34", 6, out, 8), 1) << "stops at a foreign character";
    char text[5] = "....";
    __mv_hexArray_to_hexString(bytes({0xAB, 0x01}).data(), 2, text);
    EXPECT_STREQ(text, "AB01");
}

}  // namespace
