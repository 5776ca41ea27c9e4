// Small helpers of the engine: configuration reads with defaults, addresses, saves.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>

namespace KsJson {
// A number member, integer or real, or the default when absent or of another type.
long long number(json_t* obj, const char* key, long long def);
// Copies a string member into a fixed buffer; absent leaves an empty string.
void copyString(json_t* obj, const char* key, char* out, size_t cap);
// A string member, or the default when absent or of another type.
const char* string(json_t* obj, const char* key, const char* def = "");

enum class PlmnRead { Absent, Ok, Bad };
// An MCC or MNC member as decimal text or as a JSON number, written as its digits into `out` (4 bytes). Text keeps
// its digits as written, so "001" stays a three-digit MNC; a number has lost its leading zeros, so an MCC gets three
// digits and an MNC two below 100, three from 100. An MCC has 3 digits, an MNC 2 or 3.
PlmnRead plmnCode(json_t* obj, const char* key, bool isMnc, char* out);
// MCC and MNC of `obj` into `mcc` and `mnc` (4 bytes each). A bad value, or one given without the other, is refused
// with a line in the application log and on standard output that names `where` and both values as given.
PlmnRead plmn(json_t* obj, char* mcc, char* mnc, const char* where);
// The refusal line of `plmn`, for callers that read the two codes apart.
void refusePlmn(json_t* obj, const char* where);
}  // namespace KsJson

namespace KsUtil {
uint32_t ipv4HostOrder(const char* text);
// Writes the document whole to a temporary file beside the target, then renames it
// into place, so a crash in the middle never leaves a half-written list.
bool saveJsonAtomically(json_t* root, const char* path);
// The FSM lines' thread handler: every item carries its own executor.
void dummy_1(void* data, int index);
}  // namespace KsUtil
