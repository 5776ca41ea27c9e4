// multipart/related bodies (a JSON part with binary parts beside it): building and reading.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "mv_alloc.h"
#include "mv_http2_daemon_internal.h"

MV_Http2Multipart* __mv_http2_createHttp2Multipart() {
    auto* m = static_cast<MV_Http2Multipart*>(__mv_http2_block_alloc(sizeof(MV_Http2Multipart)));
    if (m) *m = MV_Http2Multipart{};
    return m;
}

void __mv_http2_freeHttp2Multipart(MV_Http2Multipart* m) {
    if (!m) return;
    for (MV_Http2MultipartItem* i = m->Head; i;) {
        MV_Http2MultipartItem* next = i->Next;
        __mv_http2_block_free(i->data);
        __mv_http2_block_free(i);
        i = next;
    }
    __mv_http2_block_free(m->out);
    __mv_http2_block_free(m);
}

int __mv_http2_add_Http2MultipartItem(MV_Http2Multipart* m, const char* mimeType, int EncodingFormat,
                                      const uint8_t* data, long datalen, const char* id) {
    if (!m || datalen < 0 || (datalen > 0 && !data)) return -1;
    auto* i = static_cast<MV_Http2MultipartItem*>(__mv_http2_block_alloc(sizeof(MV_Http2MultipartItem)));
    if (!i) return -1;
    *i = MV_Http2MultipartItem{};
    snprintf(i->MimeType, sizeof i->MimeType, "%s", mimeType ? mimeType : "");
    i->EncodingFormat = EncodingFormat;
    snprintf(reinterpret_cast<char*>(i->Id), sizeof i->Id, "%s", id ? id : "");
    i->data = static_cast<uint8_t*>(__mv_http2_block_alloc(size_t(datalen) + 1));
    if (!i->data) {
        __mv_http2_block_free(i);
        return -1;
    }
    if (datalen) memcpy(i->data, data, size_t(datalen));
    i->data[datalen] = 0;
    i->datalen = datalen;
    if (m->Current) m->Current->Next = i;
    else m->Head = i;
    m->Current = i;
    ++m->Count;
    return 1;
}

namespace {

// Appends when it fits; a piece that would pass the end is skipped.
void put(MV_Http2Multipart* m, const void* p, long n) {
    if (n <= 0 || m->pos + n > m->maxoutlen) return;
    memcpy(m->out + m->pos, p, size_t(n));
    m->pos += n;
}
void put(MV_Http2Multipart* m, std::string_view s) { put(m, s.data(), long(s.size())); }

}  // namespace

int __mv_http2_encodeHttp2Multipart(MV_Http2Multipart* m) {
    if (!m || !m->Head) return -1;
    long cap = 500;
    for (MV_Http2MultipartItem* i = m->Head; i; i = i->Next)
        cap += 300 + long(strlen(i->MimeType)) + long(strlen(reinterpret_cast<char*>(i->Id))) +
               (i->EncodingFormat == 1 ? 2 : 1) * i->datalen;
    __mv_http2_block_free(m->out);
    m->out = static_cast<uint8_t*>(__mv_http2_block_alloc(size_t(cap)));
    if (!m->out) return -1;
    m->maxoutlen = cap;
    m->pos = 0;
    char boundary[40];
    snprintf(boundary, sizeof boundary, "=-mb%d==", int(__mv_core_getU32RAND()));
    snprintf(m->contentType, sizeof m->contentType, "multipart/related; boundary=\"%s\"", boundary);
    for (MV_Http2MultipartItem* i = m->Head; i; i = i->Next) {
        put(m, "--");
        put(m, boundary);
        put(m, "\r\n");
        if (i->Id[0]) {
            put(m, "Content-Id: ");
            put(m, reinterpret_cast<char*>(i->Id));
            put(m, "\r\n");
        }
        put(m, "Content-Type: ");
        put(m, i->MimeType);
        put(m, "\r\n\r\n");
        if (i->EncodingFormat == 1) {
            static constexpr char kHex[] = "0123456789ABCDEF";
            for (long k = 0; k < i->datalen; ++k) {
                char h[2] = {kHex[i->data[k] >> 4], kHex[i->data[k] & 15]};
                put(m, h, 2);
            }
        } else {
            put(m, i->data, i->datalen);
        }
        put(m, "\r\n");
    }
    put(m, "--");
    put(m, boundary);
    put(m, "--\r\n");
    m->outlen = m->pos;
    return int(m->outlen);
}

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i]))) return false;
    return true;
}

// One part between two delimiters: header lines up to an empty one, then the data.
bool readPart(MV_Http2Multipart* m, std::string_view part) {
    if (part.substr(0, 2) == "\r\n") part.remove_prefix(2);
    else if (part.substr(0, 1) == "\n") part.remove_prefix(1);
    std::string type, id;
    for (;;) {
        size_t eol = part.find('\n');
        if (eol == std::string_view::npos) return false;
        std::string_view line = part.substr(0, eol);
        part.remove_prefix(eol + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) break;
        size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view key = trim(line.substr(0, colon)), val = trim(line.substr(colon + 1));
        if (iequals(key, "Content-Type")) type.assign(val);
        else if (iequals(key, "Content-Id")) id.assign(val);
    }
    if (!part.empty() && part.back() == '\n') part.remove_suffix(1);
    if (!part.empty() && part.back() == '\r') part.remove_suffix(1);
    return __mv_http2_add_Http2MultipartItem(m, type.c_str(), 0, reinterpret_cast<const uint8_t*>(part.data()),
                                             long(part.size()), id.c_str()) == 1;
}

}  // namespace

MV_Http2Multipart* __mv_http2_decodeHttp2Multipart2(const char* contentType, const uint8_t* data, long datalen) {
    if (!contentType || !strstr(contentType, "multipart/related")) {
        D_LOG(MV_LOG_ERROR, "content-type is not having multipart/related <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    const char* b = strstr(contentType, "boundary=");
    size_t skip = 9;
    if (!b) {
        b = strstr(contentType, "boundary =");
        skip = 10;
    }
    if (!b) {
        D_LOG(MV_LOG_ERROR, "multipart/related boundry not found <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    std::string_view bv(b + skip);
    bv = trim(bv.substr(0, bv.find(';')));
    if (bv.size() >= 2 && bv.front() == '"' && bv.back() == '"') bv = bv.substr(1, bv.size() - 2);
    if (bv.empty() || !data || datalen <= 0) {
        D_LOG(MV_LOG_ERROR, "multipart/related boundry not found <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    std::string delim = "--" + std::string(bv);
    std::string_view body(reinterpret_cast<const char*>(data), size_t(datalen));
    MV_Http2Multipart* m = __mv_http2_createHttp2Multipart();
    int status = 0;
    size_t at = body.find(delim);
    if (at == std::string_view::npos) status = 1;
    while (status == 0) {
        at += delim.size();
        if (body.substr(at, 2) == "--") break;  // the closing delimiter
        size_t next = body.find(delim, at);
        if (next == std::string_view::npos) {
            status = 2;
            break;
        }
        if (!readPart(m, body.substr(at, next - at))) status = 3;
        at = next;
    }
    if (status != 0 || m->Count == 0) {
        D_LOG(MV_LOG_ERROR, "multipart/related decoding failed with status=%d <%s|%s|%d>", status ? status : 4,
              __FILE_NAME__, __func__, __LINE__);
        __mv_http2_freeHttp2Multipart(m);
        return nullptr;
    }
    snprintf(m->contentType, sizeof m->contentType, "%s", contentType);
    return m;
}
