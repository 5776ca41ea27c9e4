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
}  // namespace KsJson

namespace KsUtil {
uint32_t ipv4HostOrder(const char* text);
// Writes the document whole to a temporary file beside the target, then renames it
// into place, so a crash in the middle never leaves a half-written list.
bool saveJsonAtomically(json_t* root, const char* path);
// The FSM lines' thread handler: every item carries its own executor.
void dummy_1(void* data, int index);
}  // namespace KsUtil
