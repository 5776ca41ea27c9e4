// libFuzzer target for the Diameter decoder. The first byte chooses how AVP codes are
// typed (the built-in table, or every code one type, so that groups, fixed sizes and
// strings all meet every input); the rest is one message. A message that decodes whole
// must encode again, and that encoding must decode whole to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mv_diam.h"

namespace {

uint32_t mode = 0;
uint32_t forced(uint32_t code, uint32_t) { return mode == 7 ? (code & 1 ? 6 : 1 + code % 6) : mode; }

void check(bool ok) {
    if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __mv_diam_set_log_sink([](int, const char*) {});
    __mv_diam_set_dict_pre_handler(forced);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    mode = data[0] % 8;  // 0 the table alone, 1..6 every code that type, 7 a mix
    std::span<const uint8_t> bytes(data + 1, size - 1);
    MV_DiamDecodeStatus st{};
    MV_DiamMessage* m = __mv_diam_decodeMessage(bytes, &st);
    if (m && st.Code == 0) {
        std::vector<uint8_t> once(bytes.size() + 64 * 1024), twice(once.size());
        int n = __mv_diam_encodeMessage(m, once.data(), uint32_t(once.size()));
        check(n >= 20);
        MV_DiamDecodeStatus st2{};
        MV_DiamMessage* m2 = __mv_diam_decodeMessage(std::span<const uint8_t>(once.data(), size_t(n)), &st2);
        check(m2 && st2.Code == 0 && m2->AvpCount == m->AvpCount);
        int n2 = __mv_diam_encodeMessage(m2, twice.data(), uint32_t(twice.size()));
        check(n2 == n && memcmp(once.data(), twice.data(), size_t(n)) == 0);
        __mv_diam_freeMessage2(m2);
    }
    __mv_diam_freeMessage2(m);
    return 0;
}
