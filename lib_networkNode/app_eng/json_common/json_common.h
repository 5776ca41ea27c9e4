// Small accessors for the JSON trees that node configuration, step options and templates
// arrive in. None of them keeps a reference or allocates; a null node or key is never a
// crash. Where `key` may be null, the node itself is read instead of a member.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>

// The member's integer (a real is cut to its whole part); -1 for a null node or a missing
// member or one that is not a number.
json_int_t __json__getnumber(const json_t* node, const char* key);
// The same with defaultValue where __json__getnumber gives -1: a present 0 is 0.
json_int_t __json__getnumber2(const json_t* node, const char* key, json_int_t defaultValue);
// As __json__getnumber2; *hasTag (if given) is 1 when the member exists, whatever its value, else 0.
json_int_t __json__getnumber3(const json_t* node, const char* key, json_int_t defaultValue, int* hasTag);

// The member's text, not copied (it lives as long as the node); null for a null node, a
// missing member or one that is not a string.
const char* __json__getstring(const json_t* node, const char* key);

// A member of hexadecimal text decoded into at most dstMaxLen bytes of hexString; *len is
// the byte count (text length / 2). 1 done; -ENOENT missing member; -1 empty text, not a
// string, an odd length, a character that is not hexadecimal, or more bytes than
// dstMaxLen. Nothing is written on failure.
int __json__hexstring(const json_t* node, const char* key, uint8_t* hexString, int* len, int dstMaxLen);

// dstMaxLen is the size of dstStr: the text is copied up to dstMaxLen - 1 bytes and always
// ends with a NUL. A missing member prints "JSON KEY=%s is NULL %s|%s|%d\n" and leaves
// dstStr as it was. Results: the bytes copied, -ENOENT missing member or not a string, -1
// no room or no destination.
int __json__copystring(const json_t* node, const char* key, char* dstStr, int dstMaxLen);
// The same, and stores the bytes copied in *len (0 when nothing was copied).
int __json__copystring2(const json_t* node, const char* key, char* dstStr, int* len, int dstMaxLen);
// Copies the shorter of srcStr and dstMaxLen bytes into a field of dstMaxLen bytes, with
// no NUL; a null source does nothing. Returns the bytes copied.
int __json__copystring3(const char* srcStr, char* dstStr, int dstMaxLen);

// Parses datalen bytes of JSON text after clearing *error; null on failure (error says why).
json_t* __ctj(const char* data, size_t datalen, json_error_t* error);
