// libFuzzer target of the bounded reader and writer, the byte buffer's writers and the text helpers
// that read outside input. For the reader and writer the input is a program run against a model of
// their cursors: every result must be what the model says, every value the octets at the cursor, and
// nothing may be read or written past its block (each is on the heap at exactly its size, so the
// address sanitizer sees an overrun).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "mv_bytes.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __init_morva_core();
    __mv_init_logger("/tmp/ks_fuzz_bytes/logs/");
    __mv_set_log_enable_disable(MV_STK_LOG, 0);
    return 0;
}

namespace {

void check(bool ok) {
    if (!ok) abort();
}

std::unique_ptr<uint8_t[]> exact(const uint8_t* p, size_t n) {
    std::unique_ptr<uint8_t[]> b(new uint8_t[n ? n : 1]);
    if (n) memcpy(b.get(), p, n);
    return b;
}

uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

// Each program octet: the operation in the low three bits, a width of 0 to 31 above them.
void fuzzReader(const uint8_t* prog, size_t progLen, const uint8_t* msg, size_t n) {
    struct Frame {
        ByteReader r;
        size_t begin, end;  // the frame's octets within msg
    };
    std::vector<Frame> stack{{ByteReader(msg, n), 0, n}};
    for (size_t i = 0; i < progLen; ++i) {
        Frame& f = stack.back();
        size_t at = f.begin + f.r.position(), left = f.end - at;
        check(f.r.remaining() == left);
        size_t w = prog[i] >> 3;
        uint64_t v = 0;
        bool ok, number = true;
        size_t take, min = 1, max = 32;  // a number read takes 1 to 8 octets; another any count
        switch (prog[i] & 7) {
            case 0: {
                uint8_t x = 0;
                ok = f.r.u8(x), v = x, take = 1;
                break;
            }
            case 1: {
                uint16_t x = 0;
                ok = f.r.u16(x), v = x, take = 2;
                break;
            }
            case 2: {
                uint32_t x = 0;
                ok = (w & 1) ? f.r.u24(x) : f.r.u32(x), v = x, take = (w & 1) ? 3 : 4;
                break;
            }
            case 3:
                take = w % 10, max = 8;
                ok = f.r.uN(take, v);
                break;
            case 4: {
                std::span<const uint8_t> s;
                ok = f.r.view(w, s), take = w, number = false, min = 0;
                if (ok) check(s.data() == msg + at && s.size() == w);
                break;
            }
            case 5: {
                uint8_t out[32];
                ok = f.r.bytes(out, w), take = w, number = false, min = 0;
                if (ok) check(memcmp(out, msg + at, w) == 0);
                break;
            }
            case 6: {
                uint8_t x = 0;
                check(f.r.peek(x) == (left > 0));
                if (left) check(x == msg[at]);
                ok = f.r.skip(w), take = w, number = false, min = 0;
                break;
            }
            default: {
                if (w == 31 && stack.size() > 1) {
                    stack.pop_back();
                    continue;
                }
                ByteReader part;
                ok = f.r.sub(w, part), take = w, number = false, min = 0;
                if (ok && stack.size() < 16) {
                    check(part.size() == w && part.position() == 0);
                    stack.push_back({part, at, at + w});
                    continue;  // f is no longer valid
                }
                break;
            }
        }
        check(ok == (take >= min && take <= max && left >= take));
        if (ok && number) check(v == bigEndian(msg + at, take));
        check(f.r.position() == (at - f.begin) + (ok ? take : 0));
    }
}

void fuzzWriter(const uint8_t* prog, size_t progLen, size_t cap) {
    constexpr uint8_t kGuard = 0xEE;
    std::vector<uint8_t> mem(cap + 8, kGuard);
    std::vector<uint8_t> model;  // what the writer must have written
    ByteWriter w(mem.data(), cap);
    bool failed = false;
    for (size_t i = 0; i < progLen; ++i) {
        size_t width = prog[i] >> 3;
        uint64_t v = 0x0102030405060708ULL * (i + 1);
        bool ok;
        size_t take;
        switch (prog[i] & 3) {
            case 0:
                take = width % 10;
                ok = w.uN(take, v);
                if (take < 1 || take > 8) {
                    check(!ok);
                    failed = true;
                    continue;
                }
                break;
            case 1: ok = w.fill(uint8_t(v), width), take = width; break;
            case 2: ok = w.bytes(&v, width % 9), take = width % 9; break;
            default: {
                ByteWriter part;
                ok = w.sub(width, part), take = width;
                if (ok) check(part.size() == width && !part.u64(v) == (width < 8));
                break;
            }
        }
        check(ok == (!failed && cap - model.size() >= take));
        if (!ok) {
            failed = true;
            continue;
        }
        size_t at = model.size();
        if (!take) continue;
        model.resize(at + take);
        if ((prog[i] & 3) == 0) {
            for (size_t k = take; k-- > 0; v >>= 8) model[at + k] = uint8_t(v);
        } else if ((prog[i] & 3) == 1) {
            memset(model.data() + at, uint8_t(v), take);
        } else if ((prog[i] & 3) == 2) {
            memcpy(model.data() + at, &v, take);
        } else {
            memcpy(model.data() + at, mem.data() + at, take);  // the part's own octets
        }
    }
    check(w.failed() == failed && w.position() == model.size());
    check(model.empty() || memcmp(mem.data(), model.data(), model.size()) == 0);
    for (size_t i = cap; i < mem.size(); ++i) check(mem[i] == kGuard);
}

// Appends and writes at offsets through the buffer record over external memory of exactly n octets.
void fuzzBuffer(const uint8_t* prog, size_t progLen, size_t n) {
    auto mem = exact(prog, n);
    __mv_buff_t* b = __mv_buff__alloc2(mem.get(), uint32_t(n));
    if (!b) return;
    for (size_t i = 0; i < progLen; ++i) {
        uint32_t w = prog[i] >> 3;
        switch (prog[i] & 7) {
            case 0: __mv_buff__enc_uint8(b, uint8_t(w)); break;
            case 1: __mv_buff__enc_uint16(b, uint16_t(w)); break;
            case 2: __mv_buff__enc_uint32(b, w); break;
            case 3: __mv_buff__enc_uint64(b, w); break;
            case 4: __mv_buff__enc_at_uint32(w, b, w); break;
            case 5: __mv_buff__copy(b, prog, w < progLen ? w : uint32_t(progLen)); break;
            case 6: __mv_buff__reserve(b, w); break;
            default: __mv_buff__pull(b, w, w & 1); break;
        }
        check(b->data >= mem.get() && b->data <= mem.get() + n);
    }
    __mv_buff__free(b);
}

void fuzzText(const char* s, int n, uint8_t sel) {
    std::vector<uint8_t> out(size_t(sel % 40) + 1);
    int w = __mv_ascii_to_hex(s, n, out.data(), int(out.size()));
    check(w >= 0 && w <= int(out.size()));
    std::vector<char> text(size_t(2 * w) + 1);
    __mv_hexArray_to_hexString(out.data(), w, text.data());
    auto bcd = std::make_unique<uint8_t[]>(size_t(n + 1) / 2);
    int len = 0;
    check(__mv_convertStrToBCD(s, n, bcd.get(), &len) == 1 && len == (n + 1) / 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 4096) return 0;
    uint8_t op = data[0], sel = data[1];
    const uint8_t* rest = data + 2;
    size_t n = size - 2;
    size_t progLen = sel % 48 < n ? sel % 48 : n;  // the program, then the octets it runs on
    switch (op % 4) {
        case 0: {
            auto msg = exact(rest + progLen, n - progLen);
            fuzzReader(rest, progLen, msg.get(), n - progLen);
            break;
        }
        case 1: fuzzWriter(rest, n, op >> 2); break;
        case 2: fuzzBuffer(rest, progLen, n - progLen); break;
        default: fuzzText(reinterpret_cast<const char*>(rest), int(n), sel); break;
    }
    return 0;
}
