// The byte buffer a message is built in and handed over: owned memory from the size classes or a
// view of external memory, with head room that a sender reserves for a header and pulls back to
// write it. Its writers stop at the buffer's end; reading goes through a ByteReader over its bytes.
#pragma once

#include <cstdint>

#define MV_BUFF_OWNED 1
#define MV_BUFF_EXTERNAL 2

struct __mv_buff_t {
    uint8_t* head;
    uint8_t* data;
    uint32_t at;   // 1 owned (from __mv_allocM), 2 external
    uint32_t len;  // bytes held from data: grows with writes and with a pull that sets it
    uint32_t pos;  // write cursor from data
};

int __mv_buff__init();
[[nodiscard]] __mv_buff_t* __mv_buff__alloc(uint32_t msize);
[[nodiscard]] __mv_buff_t* __mv_buff__alloc2(uint8_t* data, uint32_t len);
void __mv_buff__free(__mv_buff_t* mv_buff);
int __mv_buff__reserve(__mv_buff_t* mv_buff, uint32_t pos);
int __mv_buff__pull(__mv_buff_t* mv_buff, uint32_t pos, int setlength);
uint8_t* __mv_buff__get_head(__mv_buff_t* mv_buff);
uint8_t* __mv_buff__get_datapointer(__mv_buff_t* mv_buff);
uint8_t* __mv_buff__get_current_datapointer(__mv_buff_t* mv_buff);
uint16_t __mv_buff__get_len(__mv_buff_t* mv_buff);
// Writers return 1, or 0 without writing when the bytes would pass the buffer's end.
int __mv_buff__copy(__mv_buff_t* mv_buff, const void* buff, uint32_t len);
int __mv_buff__enc_uint8(__mv_buff_t* mv_buff, uint8_t val);
int __mv_buff__enc_uint16(__mv_buff_t* mv_buff, uint16_t val);
int __mv_buff__enc_uint32(__mv_buff_t* mv_buff, uint32_t val);
int __mv_buff__enc_uint64(__mv_buff_t* mv_buff, uint64_t val);
int __mv_buff__enc_at_uint8(uint32_t pos, __mv_buff_t* mv_buff, uint8_t val);
int __mv_buff__enc_at_uint16(uint32_t pos, __mv_buff_t* mv_buff, uint16_t val);
int __mv_buff__enc_at_uint32(uint32_t pos, __mv_buff_t* mv_buff, uint32_t val);
int __mv_buff__enc_at_uint64(uint32_t pos, __mv_buff_t* mv_buff, uint64_t val);
