#include "json_common.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mv_core.h"

namespace {

// The member named key, or the node itself when key is null.
const json_t* member(const json_t* node, const char* key) {
    if (!node) return nullptr;
    return key ? json_object_get(node, key) : node;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

const char* keyText(const char* key) { return key ? key : "(self)"; }

}  // namespace

json_int_t __json__getnumber(const json_t* node, const char* key) { return __json__getnumber3(node, key, -1, nullptr); }

json_int_t __json__getnumber2(const json_t* node, const char* key, json_int_t defaultValue) {
    return __json__getnumber3(node, key, defaultValue, nullptr);
}

json_int_t __json__getnumber3(const json_t* node, const char* key, json_int_t defaultValue, int* hasTag) {
    const json_t* m = member(node, key);
    if (hasTag) *hasTag = m ? 1 : 0;
    if (json_is_integer(m)) return json_integer_value(m);
    if (json_is_real(m)) return json_int_t(json_real_value(m));
    return defaultValue;
}

const char* __json__getstring(const json_t* node, const char* key) {
    const json_t* m = member(node, key);
    return json_is_string(m) ? json_string_value(m) : nullptr;
}

int __json__hexstring(const json_t* node, const char* key, uint8_t* hexString, int* len, int dstMaxLen) {
    const json_t* m = member(node, key);
    if (!m) return -ENOENT;
    if (!json_is_string(m)) return -1;
    const char* text = json_string_value(m);
    size_t n = json_string_length(m);
    if (n == 0 || n % 2 != 0 || !hexString || !len || dstMaxLen < 0 || n / 2 > size_t(dstMaxLen)) {
        if (n != 0)
            __mv_log(MV_CMN_LOG, LOG_CAT_CORE, MV_LOG_ERROR,
                     "JSON KEY=%s hex text of %zu characters refused (even length up to %d) %s|%s|%d", keyText(key), n,
                     2 * dstMaxLen, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    for (size_t i = 0; i < n; i++)
        if (hexDigit(text[i]) < 0) {
            __mv_log(MV_CMN_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "JSON KEY=%s is not hexadecimal text [%s] %s|%s|%d",
                     keyText(key), text, __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
    for (size_t i = 0; i < n / 2; i++) hexString[i] = uint8_t(hexDigit(text[2 * i]) << 4 | hexDigit(text[2 * i + 1]));
    *len = int(n / 2);
    return 1;
}

int __json__copystring2(const json_t* node, const char* key, char* dstStr, int* len, int dstMaxLen) {
    if (len) *len = 0;
    const json_t* m = member(node, key);
    if (!json_is_string(m)) {
        printf("JSON KEY=%s is NULL %s|%s|%d\n", keyText(key), __FILE_NAME__, __func__, __LINE__);
        return -ENOENT;
    }
    if (!dstStr || dstMaxLen < 1) return -1;
    size_t n = json_string_length(m);
    if (n > size_t(dstMaxLen - 1)) {
        __mv_log(MV_CMN_LOG, LOG_CAT_CORE, MV_LOG_WARNING, "JSON KEY=%s text of %zu bytes cut to %d %s|%s|%d",
                 keyText(key), n, dstMaxLen - 1, __FILE_NAME__, __func__, __LINE__);
        n = size_t(dstMaxLen - 1);
    }
    memcpy(dstStr, json_string_value(m), n);
    dstStr[n] = 0;
    if (len) *len = int(n);
    return int(n);
}

int __json__copystring(const json_t* node, const char* key, char* dstStr, int dstMaxLen) {
    return __json__copystring2(node, key, dstStr, nullptr, dstMaxLen);
}

int __json__copystring3(const char* srcStr, char* dstStr, int dstMaxLen) {
    if (!srcStr || !dstStr || dstMaxLen < 1) return 0;
    size_t n = strnlen(srcStr, size_t(dstMaxLen));
    memcpy(dstStr, srcStr, n);
    return int(n);
}

json_t* __ctj(const char* data, size_t datalen, json_error_t* error) {
    if (error) memset(error, 0, sizeof *error);
    if (!data) return nullptr;
    // By length: the text need not end with a NUL, and nothing past datalen is read.
    return json_loadb(data, datalen, 0, error);
}
