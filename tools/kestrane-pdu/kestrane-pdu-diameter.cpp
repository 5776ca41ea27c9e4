// kestrane-pdu for Diameter: a message in hex to text or to the JSON form, and the JSON
// form to hex. Data types come from the stack's table, or from a dictionary file (--dict).
#include <arpa/inet.h>
#include <fcntl.h>
#include <jansson.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KsDiamDict.h"
#include "mv_diam.h"

namespace {

const char* kTypeNames[] = {"", "OctetString", "Int32", "Int64", "UInt32", "UInt64", "Grouped"};

std::atomic<bool> useDict{false};

// With a dictionary, a code of the application is looked up for the 3GPP vendor, then for none.
uint32_t dictType(uint32_t code, uint32_t app) {
    if (!useDict) return 0;
    if (const __mv_DictDiamAVP* e = KsDiamDict__FindAVP(app, code, MV_DIAM_VENDOR_3GPP)) return e->dataType;
    if (const __mv_DictDiamAVP* e = KsDiamDict__FindAVP(app, code, 0)) return e->dataType;
    return 0;
}

const char* avpName(uint32_t app, const MV_DiamAvp* a) {
    if (!useDict) return "";
    const __mv_DictDiamAVP* e = KsDiamDict__FindAVP(app, uint32_t(a->AvpCode), a->VendorId);
    return e ? e->name : "";
}

bool printable(const uint8_t* p, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        if (p[i] < 0x20 || p[i] > 0x7E) return false;
    return n > 0;
}

std::string hexOf(const uint8_t* p, uint64_t n) {
    std::string s;
    char b[3];
    for (uint64_t i = 0; i < n; ++i) {
        snprintf(b, sizeof b, "%02x", p[i]);
        s += b;
    }
    return s;
}

std::string avpFlags(const MV_DiamAvp* a) {
    std::string f;
    if (a->Flags & MV_DIAM_AVP_FLAG_MANDATORY) f += 'M';
    if (a->Flags & MV_DIAM_AVP_FLAG_PROTECTED) f += 'P';
    return f;
}

// ---------------------------------------------------------------- text

void printAvps(uint32_t app, const MV_DiamAvp* a, int depth) {
    for (; a; a = a->Next) {
        const char* name = avpName(app, a);
        printf("%*sAVP %d%s%s", 2 * depth, "", a->AvpCode, *name ? " " : "", name);
        if (a->VendorId) printf(" vendor %u", a->VendorId);
        std::string f = avpFlags(a);
        printf(" [%s] length %u %s", f.c_str(), a->AvpLength, kTypeNames[a->DataType]);
        switch (a->DataType) {
            case MV_DIAM_TYPE_INT32: printf(": %d\n", a->intVal); break;
            case MV_DIAM_TYPE_UINT32: printf(": %u\n", a->usIntVal); break;
            case MV_DIAM_TYPE_INT64: printf(": %" PRId64 "\n", a->int64Val); break;
            case MV_DIAM_TYPE_UINT64: printf(": %" PRIu64 "\n", a->usInt64Val); break;
            case MV_DIAM_TYPE_GROUPED:
                printf(", %u AVPs\n", a->AvpCount);
                printAvps(app, a->GroupHead, depth + 1);
                break;
            default:
                if (printable(a->data, a->usInt64Val)) printf(": \"%s\"\n", reinterpret_cast<const char*>(a->data));
                else printf(": %s\n", hexOf(a->data, a->usInt64Val).c_str());
        }
    }
}

std::string headerFlags(uint8_t f) {
    std::string s;
    if (f & MV_DIAM_FLAG_REQUEST) s += 'R';
    if (f & MV_DIAM_FLAG_PROXYABLE) s += 'P';
    if (f & MV_DIAM_FLAG_ERROR) s += 'E';
    if (f & MV_DIAM_FLAG_RETRANSMIT) s += 'T';
    return s;
}

// ---------------------------------------------------------------- JSON

json_t* avpsJson(const MV_DiamAvp* a) {
    json_t* arr = json_array();
    for (; a; a = a->Next) {
        json_t* o = json_object();
        json_object_set_new(o, "code", json_integer(a->AvpCode));
        if (a->VendorId) json_object_set_new(o, "vendorId", json_integer(a->VendorId));
        json_object_set_new(o, "flags", json_string(avpFlags(a).c_str()));
        json_object_set_new(o, "type", json_string(kTypeNames[a->DataType]));
        switch (a->DataType) {
            case MV_DIAM_TYPE_INT32: json_object_set_new(o, "value", json_integer(a->intVal)); break;
            case MV_DIAM_TYPE_UINT32: json_object_set_new(o, "value", json_integer(a->usIntVal)); break;
            case MV_DIAM_TYPE_INT64: json_object_set_new(o, "value", json_integer(a->int64Val)); break;
            case MV_DIAM_TYPE_UINT64:
                // Above 2^53 - 1 as decimal text, so that the form reads back unchanged.
                if (a->usInt64Val > 9007199254740991ULL)
                    json_object_set_new(o, "value", json_string(std::to_string(a->usInt64Val).c_str()));
                else
                    json_object_set_new(o, "value", json_integer(json_int_t(a->usInt64Val)));
                break;
            case MV_DIAM_TYPE_GROUPED: json_object_set_new(o, "avps", avpsJson(a->GroupHead)); break;
            default:
                if (printable(a->data, a->usInt64Val))
                    json_object_set_new(o, "text", json_stringn(reinterpret_cast<const char*>(a->data), size_t(a->usInt64Val)));
                else
                    json_object_set_new(o, "hex", json_string(hexOf(a->data, a->usInt64Val).c_str()));
        }
        json_array_append_new(arr, o);
    }
    return arr;
}

json_t* messageJson(const MV_DiamMessage* m) {
    json_t* o = json_object();
    json_object_set_new(o, "version", json_integer(m->Header.Version));
    json_object_set_new(o, "flags", json_string(headerFlags(m->Header.Flags).c_str()));
    json_object_set_new(o, "commandCode", json_integer(__mv_diam_get_cmdcode(m)));
    json_object_set_new(o, "applicationId", json_integer(__mv_diam_get_applicationid(m)));
    json_object_set_new(o, "hopByHop", json_integer(ntohl(m->Header.HBHId)));
    json_object_set_new(o, "endToEnd", json_integer(ntohl(m->Header.E2EId)));
    json_object_set_new(o, "avps", avpsJson(m->Head));
    return o;
}

struct Builder {
    std::string err;
    uint32_t app = 0;

    bool number(json_t* v, const char* what, uint64_t* out, bool* negative) {
        *negative = false;
        if (json_is_integer(v)) {
            json_int_t i = json_integer_value(v);
            *negative = i < 0;
            *out = uint64_t(i);
            return true;
        }
        if (json_is_string(v)) {
            const char* s = json_string_value(v);
            char* end = nullptr;
            errno = 0;
            if (*s == '-') {
                long long i = strtoll(s, &end, 10);
                *negative = true;
                *out = uint64_t(i);
            } else {
                *out = strtoull(s, &end, 10);
            }
            if (*s && end && *end == 0 && errno == 0) return true;
        }
        err = std::string(what) + " is not a whole number";
        return false;
    }

    bool bytes(json_t* o, std::vector<uint8_t>& out) {
        if (json_t* t = json_object_get(o, "text")) {
            if (!json_is_string(t)) return fail("\"text\" is not a string");
            const char* s = json_string_value(t);
            out.assign(s, s + json_string_length(t));
            return true;
        }
        if (json_t* h = json_object_get(o, "hex")) {
            const char* s = json_string_value(h);
            if (!s || strlen(s) % 2) return fail("\"hex\" is not an even number of hex digits");
            for (size_t i = 0; s[i]; i += 2) {
                if (!isxdigit(uint8_t(s[i])) || !isxdigit(uint8_t(s[i + 1]))) return fail("\"hex\" has a character that is not a hex digit");
                out.push_back(uint8_t(std::stoi(std::string(s + i, 2), nullptr, 16)));
            }
            return true;
        }
        return true;  // an empty string
    }

    bool fail(const std::string& why) {
        err = why;
        return false;
    }

    // Adds the AVPs of arr to the message (parent null) or to the group parent.
    bool avps(json_t* arr, MV_DiamMessage* msg, MV_DiamAvp* parent, int depth) {
        if (!json_is_array(arr)) return fail("\"avps\" is not an array");
        if (depth > kMvDiamMaxGroupDepth) return fail("groups nested too deep");
        size_t i;
        json_t* o;
        json_array_foreach(arr, i, o) {
            uint64_t code = 0, vendor = 0;
            bool neg;
            if (!json_is_object(o)) return fail("an AVP is not an object");
            if (!number(json_object_get(o, "code"), "\"code\"", &code, &neg) || neg || code > 0xFFFFFFFF)
                return fail("an AVP has no \"code\" from 0 to 4294967295");
            if (json_t* v = json_object_get(o, "vendorId"); v && (!number(v, "\"vendorId\"", &vendor, &neg) || neg || vendor > 0xFFFFFFFF))
                return fail("AVP " + std::to_string(code) + ": bad \"vendorId\"");
            const char* f = json_string_value(json_object_get(o, "flags"));
            int m = f && strchr(f, 'M') ? 1 : 0;
            uint32_t type = 0;
            if (const char* t = json_string_value(json_object_get(o, "type"))) {
                for (uint32_t k = 1; k <= 6; ++k)
                    if (strcmp(t, kTypeNames[k]) == 0) type = k;
                if (!type) return fail("AVP " + std::to_string(code) + ": unknown \"type\" " + t);
            } else {
                type = json_object_get(o, "avps") ? MV_DIAM_TYPE_GROUPED : __mv_diam_get_data_type(uint32_t(code), app);
            }
            MV_DiamAvp* a = nullptr;
            uint32_t c = uint32_t(code), vd = uint32_t(vendor);
            if (type == MV_DIAM_TYPE_GROUPED) {
                a = parent ? __mv_diam_add_grouped_avp_toavp(parent, c, vd, m) : __mv_diam_add_grouped_avp(msg, c, vd, m);
                if (json_t* kids = json_object_get(o, "avps"); kids && !avps(kids, msg, a, depth + 1)) return false;
            } else if (type == MV_DIAM_TYPE_OCTETSTRING) {
                std::vector<uint8_t> b;
                if (!bytes(o, b)) return false;
                uint32_t n = uint32_t(b.size());
                a = parent ? __mv_diam_add_string_avp_to_grpavp(parent, c, vd, m, b.data(), n)
                           : __mv_diam_add_string_avp(msg, c, vd, m, b.data(), n);
            } else {
                uint64_t v = 0;
                if (!number(json_object_get(o, "value"), ("AVP " + std::to_string(code) + " \"value\"").c_str(), &v, &neg))
                    return false;
                switch (type) {
                    case MV_DIAM_TYPE_INT32:
                        a = parent ? __mv_diam_add_int32_avp_to_grpavp(parent, c, vd, m, int32_t(v))
                                   : __mv_diam_add_int32_avp(msg, c, vd, m, int32_t(v));
                        break;
                    case MV_DIAM_TYPE_UINT32:
                        a = parent ? __mv_diam_add_uint32_avp_to_grpavp(parent, c, vd, m, uint32_t(v))
                                   : __mv_diam_add_uint32_avp(msg, c, vd, m, uint32_t(v));
                        break;
                    case MV_DIAM_TYPE_INT64:
                        a = parent ? __mv_diam_add_int64_avp_to_grpavp(parent, c, vd, m, int64_t(v))
                                   : __mv_diam_add_int64_avp(msg, c, vd, m, int64_t(v));
                        break;
                    default:
                        a = parent ? __mv_diam_add_uint64_avp_to_grpavp(parent, c, vd, m, v)
                                   : __mv_diam_add_uint64_avp(msg, c, vd, m, v);
                }
            }
            if (!a) return fail("AVP " + std::to_string(code) + " could not be added");
            if (f && strchr(f, 'P')) a->Flags |= MV_DIAM_AVP_FLAG_PROTECTED;
        }
        return true;
    }
};

int encode(const std::string& text) {
    json_error_t jerr;
    json_t* root = json_loads(text.c_str(), 0, &jerr);
    if (!json_is_object(root)) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", root ? "not a JSON object" : jerr.text);
        json_decref(root);
        return 1;
    }
    Builder b;
    uint64_t cmd = 0, app = 0, hbh = 0, e2e = 0, version = 1;
    bool neg = false;
    json_t* v;
    bool ok = b.number(json_object_get(root, "commandCode"), "\"commandCode\"", &cmd, &neg) && !neg && cmd <= 0xFFFFFF;
    if (ok && (v = json_object_get(root, "applicationId"))) ok = b.number(v, "\"applicationId\"", &app, &neg) && !neg && app <= 0xFFFFFFFF;
    if (ok && (v = json_object_get(root, "hopByHop"))) ok = b.number(v, "\"hopByHop\"", &hbh, &neg) && !neg && hbh <= 0xFFFFFFFF;
    if (ok && (v = json_object_get(root, "endToEnd"))) ok = b.number(v, "\"endToEnd\"", &e2e, &neg) && !neg && e2e <= 0xFFFFFFFF;
    if (ok && (v = json_object_get(root, "version"))) ok = b.number(v, "\"version\"", &version, &neg) && !neg && version <= 255;
    if (!ok) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n",
                b.err.empty() ? "a header field is missing or out of range" : b.err.c_str());
        json_decref(root);
        return 1;
    }
    const char* f = json_string_value(json_object_get(root, "flags"));
    MV_DiamMessage* m = __mv_diam_create_message2(uint32_t(cmd), uint32_t(app), uint32_t(hbh), uint32_t(e2e), 0);
    m->Header.Version = uint8_t(version);
    m->Header.Flags = 0;
    for (const char* p = f ? f : ""; *p; ++p)
        m->Header.Flags |= *p == 'R' ? MV_DIAM_FLAG_REQUEST : *p == 'P' ? MV_DIAM_FLAG_PROXYABLE
                         : *p == 'E' ? MV_DIAM_FLAG_ERROR : *p == 'T' ? MV_DIAM_FLAG_RETRANSMIT : 0;
    b.app = uint32_t(app);
    int rc = 0;
    if (json_t* arr = json_object_get(root, "avps"); arr && !b.avps(arr, m, nullptr, 0)) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", b.err.c_str());
        rc = 1;
    } else {
        uint8_t buf[MV_DIAM_BUFFER_SIZE];
        int n = __mv_diam_encodeMessage(m, buf, sizeof buf);
        if (n < 0) {
            fprintf(stderr, "kestrane-pdu: the message does not fit %d bytes\n", MV_DIAM_BUFFER_SIZE);
            rc = 1;
        } else {
            printf("%s\n", hexOf(buf, uint64_t(n)).c_str());
        }
    }
    __mv_diam_freeMessage2(m);
    json_decref(root);
    return rc;
}

void quietSink(int level, const char* line) {
    if (level <= MV_LOG_WARNING) fprintf(stderr, "%s\n", line);
}

}  // namespace

int kpduDiameter(const std::string& cmd, bool json, const std::vector<uint8_t>& bytes, const std::string& text,
                 const std::string& dict) {
    __mv_diam_set_log_sink(quietSink);
    if (!dict.empty()) {
        // The dictionary's tables live in the runtime, whose start says a word on stdout.
        fflush(stdout);
        int saved = dup(1), null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        __init_morva_core();
        fflush(stdout);
        dup2(saved, 1);
        close(null);
        close(saved);
        if (!KsDiamDict__LoadFile(dict.c_str())) return 1;
        useDict = true;
        __mv_diam_set_dict_pre_handler(dictType);
    }
    if (cmd == "encode") return encode(text);
    MV_DiamDecodeStatus st{};
    MV_DiamMessage* m = __mv_diam_decodeMessage(bytes, &st);
    if (!m || st.Code) {
        fprintf(stderr, "kestrane-pdu: bad input: %s (Result-Code %u at byte %u, AVP %u)\n", st.Reason, st.Code,
                st.Offset, st.AvpCode);
        __mv_diam_freeMessage2(m);
        return 1;
    }
    int rc = 0;
    if (cmd == "recode") {
        uint8_t buf[MV_DIAM_BUFFER_SIZE];
        int n = __mv_diam_encodeMessage(m, buf, sizeof buf);
        if (n > 0) printf("%s\n", hexOf(buf, uint64_t(n)).c_str());
        else rc = 1;
    } else if (json) {
        json_t* o = messageJson(m);
        char* s = json_dumps(o, JSON_PRESERVE_ORDER | JSON_COMPACT);
        printf("%s\n", s);
        free(s);
        json_decref(o);
    } else {
        printf("Diameter %s %u [%s] Application-Id %u Hop-by-Hop %u End-to-End %u length %u\n",
               (m->Header.Flags & MV_DIAM_FLAG_REQUEST) ? "request" : "answer", __mv_diam_get_cmdcode(m),
               headerFlags(m->Header.Flags).c_str(), __mv_diam_get_applicationid(m), ntohl(m->Header.HBHId),
               ntohl(m->Header.E2EId), __mv_diam_get_length(m));
        printAvps(__mv_diam_get_applicationid(m), m->Head, 1);
    }
    __mv_diam_freeMessage2(m);
    return rc;
}
