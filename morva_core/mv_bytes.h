// Byte buffers, big-endian writers and readers, bits, hexadecimal and BCD text,
// names on the wire, IP text, and the string and file helpers.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "mv_core.h"
#include "mv_strings.h"

// ---------------------------------------------------------------- byte buffer

#define MV_BUFF_OWNED 1
#define MV_BUFF_EXTERNAL 2

struct __mv_buff_t {
    uint8_t* head;
    uint8_t* data;
    uint32_t at;   // 1 owned (from __mv_allocM), 2 external
    uint32_t len;  // bytes held from data: grows with writes and with a pull that sets it
    uint32_t pos;  // write and read cursor from data
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
// Readers return 1, or 0 without moving when fewer than the bytes remain before len.
[[nodiscard]] int __mv_buff__dec_uint8(__mv_buff_t* mv_buff, uint8_t* val);
[[nodiscard]] int __mv_buff__dec_uint16(__mv_buff_t* mv_buff, uint16_t* val);
[[nodiscard]] int __mv_buff__dec_uint32(__mv_buff_t* mv_buff, uint32_t* val);
[[nodiscard]] int __mv_buff__dec_uint64(__mv_buff_t* mv_buff, uint64_t* val);

// ---------------------------------------------------------------- fixed-size writers and readers

// Each returns the number of bytes written.
int __mv_encode_uint64(uint8_t* data, uint64_t value);
int __mv_encode_uint64_to5bytes(uint8_t* data, uint64_t value);
int __mv_encode_uint32_to4bytes(uint8_t* data, uint32_t value);
int __mv_encode_int32_to4bytes(uint8_t* data, int32_t value);
int __mv_encode_uint32_to3bytes(uint8_t* data, uint32_t value);
int __mv_encode_uint16_to2bytes(uint8_t* data, uint16_t value);
int __mv_encode_int16_to2bytes(uint8_t* data, int16_t value);
int __mv_encode_uint32_to45bytes(uint8_t* data, uint32_t value);
int __mv_encode_uint32_to35bytes(uint8_t* data, uint32_t value);

uint16_t __mv_get_u16(const uint8_t* buff);
uint32_t __mv_get_u24(const uint8_t* buff);
uint32_t __mv_get_u32(const uint8_t* buff);
uint64_t __mv_get_u40(const uint8_t* buff);
uint64_t __mv_get_u48(const uint8_t* buff);
uint64_t __mv_get_u64(const uint8_t* buff);
uint32_t __mv_get_u36(const uint8_t* buff);

int __mv_encodeIntTo2Bytes(const uint32_t* val, uint8_t* data);
int __mv_encodeIntTo3Bytes(const uint32_t* val, uint8_t* data);
int __mv_encodeIntTo4Bytes(const uint32_t* val, uint8_t* data);
uint32_t __mv_decodeIntValueFrom3Bytes(uint32_t* iInt, const uint8_t* nwByte, int iFromIndex);
uint32_t __mv_decodeIntValueFrom4Bytes(uint32_t* iInt, const uint8_t* nwByte, int iFromIndex);
uint8_t __mv_decodeBitVal(uint8_t* bVal, const uint8_t* nwByte, int iFromIndex, int bitNumber);

// Bit 0 is the least significant; an index past the width changes nothing.
void __mv_bit__U8_setbit(uint8_t* u8, int bitIndex);
void __mv_bit__U16_setbit(uint16_t* u16, int bitIndex);
void __mv_bit__U32_setbit(uint32_t* u32, int bitIndex);
int __mv_bit__U8_isbitset(uint8_t u8, int bitIndex);
int __mv_bit__U16_isbitset(uint16_t u16, int bitIndex);
int __mv_bit__U32_isbitset(uint32_t u32, int bitIndex);

// ---------------------------------------------------------------- hexadecimal text

// Bytes written; stops at in_len characters, out_len bytes or a character that is
// neither a digit nor white space. A lone last digit fills a high nibble.
int __mv_ascii_to_hex(const char* in, int in_len, uint8_t* out, int out_len);
// Characters written, terminated; out_len counts the terminator.
int __mv_hex_to_ascii(const uint8_t* in, int in_len, char* out, int out_len);
int __mv_conver_hex_to_hexstr(char* hexstrout, const uint8_t* hexin, int inlen);
int __mv_conver_str_to_hex(uint8_t* hexout, const char* hexstrin);
void __mv_hexArray_to_hexString(const uint8_t* uIn, int len, char* uOut);
void __mv_print_buffer(const uint8_t* buff, int len);

// ---------------------------------------------------------------- BCD and telephone digits

// outStr holds (inLen + 1) / 2 bytes; *outLen receives the count. Result 1, 0 for bad arguments.
int __mv_convertStrToBCD(const char* inStr, int inLen, uint8_t* outStr, int* outLen);
int __mv_convertLongToBCD2(uint64_t emergencyNumber, uint8_t* outStr, int* outLen);
int __mv_convertStringToBCD(const char* inStr, int inLen, uint8_t* outStr, int* outLen, int OddEvenIndication);
int __mv_convertLongToBCD(uint64_t emergencyNumber, uint8_t* outStr, int* outLen, int OddEvenIndication);
int __mv_bcd_to_buffer(const char* str, uint8_t* out, int* outLen);
// out holds 2 * inLen + 1 characters; returns the digit count.
int __mv_buffer_to_bcd(const uint8_t* in, int inLen, char* out);
// outLen is the room in out, terminator included; each returns the count written.
int __mv_convertBCDToStr(const uint8_t* in, int inLen, char* out, int outLen);
int __mv_convertBCDToBCDStr(const uint8_t* in, int inLen, char* out, int outLen);
int __mv_convertBCDStrToBCD(const char* in, int inLen, uint8_t* out, int outLen);
// 1 for six hexadecimal digits, else 0 and plmn untouched.
int __mv_str_to_plmn(const char* str, uint8_t* plmn);
void __mv_plmn_to_str(char* dst, const uint8_t* plmn);

// ---------------------------------------------------------------- names on the wire and IP text

// dst holds length + 1 bytes.
int __mv_build__apn(uint8_t* dst, const char* src, int length);
// dst holds length bytes; -EINVAL when a label runs past length.
int __mv_build__parse(char* dst, const uint8_t* src, int length);
int __mv_convertApnToGtpApn(const char* in, int inLen, uint8_t* out, int* outLen);
int __mv_convertGtpApnToApn(const uint8_t* in, int inLen, char* out, int* outLen);
int __mv_ip_get_version(const char* ipAddr);
uint32_t __mv_core_convert_ipv4toint(const char* ipaddress);
const char* __mv_core_convert_inttoipv4(uint32_t ipv4);
void __mv_core_convert_inttoipv4_2(uint32_t ipv4, char* ip);

// ---------------------------------------------------------------- strings

struct MV_KeyValPair {
    MV_KeyValPair* Next;
    char* key;
    int keylen;
    char* val;
    int vallen;
};

[[nodiscard]] char* __mv_strdup(const char* pstr);
[[nodiscard]] char* __mv_strdup2(const char* pstr, int len);
[[nodiscard]] char* __mv_strdup3(const char* pstr, int startPos, int len);
void __mv_strncpy(char* dest, const char* src, int len);
int __mv_memcpy(void* dst, int dlen, const void* src, int slen);
int __mv_memcmp(const char* src1, const char* src2, int len);
int __mv_memcmp2(const char* str1, int str1_len, const char* str2, int str2_len);
int __mv_indexOf(const char* data, int datalen, char cchar);
int __mv_lastIndexOf(const char* data, int datalen, char cchar);
int __mv_indexOf2(const char* data, int datalen, const char* str);
int __mv_indexOf3(const char* data, int datalen, const char* find, int findlen);
int __mv_indexOf4(const char* data, const char* find);
// A list of __mv_stringv_t records holding owned copies; free each with
// __mv_stringv_put and __mv_freeM, then the list.
[[nodiscard]] MV_LinkedList* __mv_string_split(const char* data, int len, const char* cspliter);
// Copies data[bPos, ePos) and terminates; returns the count.
int __mv_substr(const char* data, char* outdata, int bPos, int ePos);
char* __mv_ltrim(char* data);
// len is the room in dst, terminator included.
int __mv_ltrim_copy(const char* data, char* dst, int len);
const char* __mv_get_keypair_val(const char* data, const char* key);
// key and val hold len + 1 bytes; 1 when the splitter was found.
int __mv_fill_KeyValPair(const char* data, int len, char splitter, char* key, char* val);
void __mv_file__get_extension(const char* filename, char* ext, int* extLen);

#define MV_DECLARE_STRING_SET(N) int __mv_string##N##_set(__mv_string##N##_t* ptr_string, const void* val, int len);
MV_DECLARE_STRING_SET(5)
MV_DECLARE_STRING_SET(10)
MV_DECLARE_STRING_SET(20)
MV_DECLARE_STRING_SET(40)
MV_DECLARE_STRING_SET(60)
MV_DECLARE_STRING_SET(80)
MV_DECLARE_STRING_SET(100)
MV_DECLARE_STRING_SET(120)
MV_DECLARE_STRING_SET(140)
MV_DECLARE_STRING_SET(160)
MV_DECLARE_STRING_SET(180)
MV_DECLARE_STRING_SET(200)
#undef MV_DECLARE_STRING_SET

int __mv_stringv_set(__mv_stringv_t* ptr_string, const void* val, int len);
int __mv_stringv_setr(__mv_stringv_t* ptr_string, const void* val, int len);
int __mv_stringv_init(__mv_stringv_t* str, int maxlen);
int __mv_stringv_append(__mv_stringv_t* str, const char* mLine, int len);
int __mv_stringv_appendline(__mv_stringv_t* str, const char* mLine, ...) __attribute__((format(printf, 2, 3)));
void __mv_stringv_memset(__mv_stringv_t* str);
void __mv_stringv_put(__mv_stringv_t* ptr_string);
void __mv_u32_set(MV_U32* p, uint32_t val);
void __mv_u64_set(MV_U64* p, uint64_t val);

// ---------------------------------------------------------------- base64

int Base64encode_len(int len);
int Base64encode(char* encoded, const char* string, int len);
int Base64decode_len(const char* bufcoded);
int Base64decode(char* bufplain, const char* bufcoded);

// ---------------------------------------------------------------- files

// A list of __mv_strdup names; the caller frees them and the list.
[[nodiscard]] MV_LinkedList* __mv_readdir(const char* dir);
int __mv_fileExists(const char* fileName);

struct MV_FileInfo {
    int fd;
    long size;
    long pos;
};

int __mv_file__init(const char* path, MV_FileInfo* fileInfo);
void __mv_file__close(MV_FileInfo* fileInfo);
int __mv_file__hasdata(MV_FileInfo* fileInfo);
int __mv_file__read(MV_FileInfo* fileInfo, void* buff, int readSize, long* pending);
int __mv_file__readdata(const char* fileName, long pos, void* buff, int readSize);
int __mv_file__createf(const char* cFileName, int deleteExisting);
int __mv_file__writeln(int fhd, const char* contents, ...) __attribute__((format(printf, 2, 3)));
int __mv_file__writef(int fhd, const void* contents, int len);
void __mv_file__closef(int fhd);
