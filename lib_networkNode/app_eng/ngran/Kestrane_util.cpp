#include "Kestrane_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mv_core.h"

namespace KsJson {

long long number(json_t* obj, const char* key, long long def) {
    json_t* v = json_object_get(obj, key);
    if (json_is_integer(v)) return json_integer_value(v);
    if (json_is_real(v)) return (long long)json_real_value(v);
    return def;
}

void copyString(json_t* obj, const char* key, char* out, size_t cap) {
    if (!out || cap == 0) return;
    const char* s = json_string_value(json_object_get(obj, key));
    snprintf(out, cap, "%s", s ? s : "");
}

const char* string(json_t* obj, const char* key, const char* def) {
    const char* s = json_string_value(json_object_get(obj, key));
    return s ? s : def;
}

PlmnRead plmnCode(json_t* obj, const char* key, bool isMnc, char* out) {
    out[0] = 0;
    json_t* v = json_object_get(obj, key);
    if (!v) return PlmnRead::Absent;
    if (json_is_integer(v)) {
        json_int_t n = json_integer_value(v);
        if (n < 0 || n > 999) return PlmnRead::Bad;
        snprintf(out, 4, isMnc && n < 100 ? "%02d" : "%03d", int(n));
        return PlmnRead::Ok;
    }
    const char* s = json_string_value(v);
    size_t len = s ? strlen(s) : 0;
    if (!s || len < (isMnc ? 2u : 3u) || len > 3 || strspn(s, "0123456789") != len) return PlmnRead::Bad;
    memcpy(out, s, len + 1);
    return PlmnRead::Ok;
}

void refusePlmn(json_t* obj, const char* where) {
    auto shown = [&](const char* key) {
        json_t* v = json_object_get(obj, key);
        char* t = v ? json_dumps(v, JSON_ENCODE_ANY) : nullptr;
        std::string r = t ? t : "(absent)";
        // json_dumps allocates through jansson's allocator, which main points at the pools.
        json_malloc_t jm;
        json_free_t jf;
        json_get_alloc_funcs(&jm, &jf);
        if (t) jf(t);
        return r.size() > 40 ? r.substr(0, 40) + "..." : r;
    };
    std::string vc = shown("MCC"), vn = shown("MNC");
    const char* why = "an MCC is 3 digits and an MNC 2 or 3, as text (\"001\", \"01\") or as numbers (1, 1)";
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "%s: MCC=%s MNC=%s refused: %s", where, vc.c_str(), vn.c_str(),
             why);
    printf("%s: MCC=%s MNC=%s refused: %s\n", where, vc.c_str(), vn.c_str(), why);
}

PlmnRead plmn(json_t* obj, char* mcc, char* mnc, const char* where) {
    PlmnRead c = plmnCode(obj, "MCC", false, mcc), n = plmnCode(obj, "MNC", true, mnc);
    if (c == PlmnRead::Absent && n == PlmnRead::Absent) return PlmnRead::Absent;
    if (c == PlmnRead::Ok && n == PlmnRead::Ok) return PlmnRead::Ok;
    refusePlmn(obj, where);
    mcc[0] = mnc[0] = 0;
    return PlmnRead::Bad;
}

}  // namespace KsJson

namespace KsUtil {

uint32_t ipv4HostOrder(const char* text) {
    struct in_addr a;
    if (!text || inet_pton(AF_INET, text, &a) != 1) return 0;
    return ntohl(a.s_addr);
}

bool saveJsonAtomically(json_t* root, const char* path) {
    // A name of its own for each save: handlers on several threads may save one list at once.
    static std::atomic<unsigned long> saves{0};
    char tmp[700];
    if (snprintf(tmp, sizeof tmp, "%s.tmp.%d.%lu", path, int(getpid()), ++saves) >= int(sizeof tmp)) return false;
    if (json_dump_file(root, tmp, JSON_INDENT(4)) != 0) {
        unlink(tmp);
        return false;
    }
    int fd = open(tmp, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
    if (rename(tmp, path) != 0) {
        unlink(tmp);
        return false;
    }
    return true;
}

void dummy_1(void*, int) {}

}  // namespace KsUtil
