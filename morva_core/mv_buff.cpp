// The byte buffer. Its writers go through a ByteWriter over the room the buffer has.
#include "mv_buff.h"

#include <cstring>
#include <mutex>

#include "mv_alloc.h"
#include "mv_byteio.h"
#include "mv_core.h"
#include "mv_pool.h"

namespace {

std::mutex buffPoolInit;

// The bytes a writer may use from data: the whole size class for owned memory, len for a view.
uint64_t capacity(const __mv_buff_t* b) {
    if (b->at == MV_BUFF_OWNED) return uint64_t(__mv_allocM_block_size(b->head)) - uint64_t(b->data - b->head);
    return b->len;
}

// A writer of the room from data + at; none when at is past the end, where even an empty write
// must fail rather than stretch len over memory the buffer does not have.
bool writerAt(const __mv_buff_t* b, uint64_t at, ByteWriter& w) {
    uint64_t cap = capacity(b);
    if (at > cap) return false;
    w = ByteWriter(b->data + at, size_t(cap - at));
    return true;
}

void wrote(__mv_buff_t* b, uint32_t n) {
    b->pos += n;
    if (b->pos > b->len) b->len = b->pos;
}

template <class T>
int encAppend(__mv_buff_t* b, T v) {
    ByteWriter w;
    if (!b || !writerAt(b, b->pos, w) || !w.uN(sizeof(T), v)) return 0;
    wrote(b, sizeof(T));
    return 1;
}

template <class T>
int encAt(uint32_t pos, __mv_buff_t* b, T v) {
    ByteWriter w;
    return (b && writerAt(b, pos, w) && w.uN(sizeof(T), v)) ? 1 : 0;
}

__mv_buff_t* newBuffRecord() {
    if (!__mvCore->mv_buffPool.load(std::memory_order_acquire)) __mv_buff__init();
    return static_cast<__mv_buff_t*>(__mv_pool_allocate(__mvCore->mv_buffPool.load(std::memory_order_acquire)));
}

}  // namespace

int __mv_buff__init() {
    std::lock_guard g(buffPoolInit);
    if (!__mvCore->mv_buffPool.load()) __mvCore->mv_buffPool = __mv_pool_create("mv_buff", sizeof(__mv_buff_t), 1000, 1);
    return __mvCore->mv_buffPool.load() ? 1 : 0;
}

__mv_buff_t* __mv_buff__alloc(uint32_t msize) {
    auto* mem = static_cast<uint8_t*>(__mv_allocM(msize));
    if (!mem) return nullptr;
    __mv_buff_t* b = newBuffRecord();
    if (!b) {
        __mv_freeM(mem);
        return nullptr;
    }
    *b = {mem, mem, MV_BUFF_OWNED, 0, 0};
    return b;
}

__mv_buff_t* __mv_buff__alloc2(uint8_t* data, uint32_t len) {
    __mv_buff_t* b = newBuffRecord();
    if (!b) return nullptr;
    *b = {data, data, MV_BUFF_EXTERNAL, len, 0};
    return b;
}

void __mv_buff__free(__mv_buff_t* b) {
    if (!b) return;
    if (b->at == MV_BUFF_OWNED) __mv_freeM(b->head);
    b->head = b->data = nullptr;
    __mv_pool_release(b);
}

int __mv_buff__reserve(__mv_buff_t* b, uint32_t pos) {
    if (!b || capacity(b) < pos) return 0;
    b->data += pos;
    if (b->at == MV_BUFF_EXTERNAL) b->len = b->len >= pos ? b->len - pos : 0;
    return 1;
}

int __mv_buff__pull(__mv_buff_t* b, uint32_t pos, int setlength) {
    // Never in front of the memory the buffer started with.
    if (!b || uint64_t(b->data - b->head) < pos) return 0;
    b->data -= pos;
    if (setlength == 1) b->len += pos;
    return 1;
}

uint8_t* __mv_buff__get_head(__mv_buff_t* b) { return b ? b->head : nullptr; }
uint8_t* __mv_buff__get_datapointer(__mv_buff_t* b) { return b ? b->data : nullptr; }
uint8_t* __mv_buff__get_current_datapointer(__mv_buff_t* b) { return b ? b->data + b->pos : nullptr; }
uint16_t __mv_buff__get_len(__mv_buff_t* b) { return b ? uint16_t(b->pos) : 0; }

int __mv_buff__copy(__mv_buff_t* b, const void* buff, uint32_t len) {
    ByteWriter w;
    if (!b || (!buff && len) || !writerAt(b, b->pos, w) || !w.bytes(buff, len)) return 0;
    wrote(b, len);
    return 1;
}

int __mv_buff__enc_uint8(__mv_buff_t* b, uint8_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint16(__mv_buff_t* b, uint16_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint32(__mv_buff_t* b, uint32_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint64(__mv_buff_t* b, uint64_t v) { return encAppend(b, v); }
int __mv_buff__enc_at_uint8(uint32_t pos, __mv_buff_t* b, uint8_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint16(uint32_t pos, __mv_buff_t* b, uint16_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint32(uint32_t pos, __mv_buff_t* b, uint32_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint64(uint32_t pos, __mv_buff_t* b, uint64_t v) { return encAt(pos, b, v); }
