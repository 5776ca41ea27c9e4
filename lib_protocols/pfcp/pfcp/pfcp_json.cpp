// The JSON form of a whole PFCP message: the header's values around the record's JSON form.
#include <jansson.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "pfcp_codec.h"
#include "tlv_json.h"

namespace {
void* body(pfcp_message_t* m) { return &m->pfcp_heartbeat_request; }
const void* body(const pfcp_message_t* m) { return &m->pfcp_heartbeat_request; }
}  // namespace

void pfcp_message_json(const pfcp_message_t* msg, std::string& out) {
    const tlv_desc_t* desc = pfcp_find_msg_desc(msg->h.type);
    char head[160];
    snprintf(head, sizeof head, "{\"message\":\"%s\",\"type\":%u,\"sequence\":%u", desc ? desc->name : "unknown",
             msg->h.type, msg->h.sqn & 0xFFFFFF);
    out += head;
    if (msg->h.flags.seid_presence) {
        if (msg->h.seid <= uint64_t(INT64_MAX)) snprintf(head, sizeof head, ",\"seid\":%" PRIu64, msg->h.seid);
        else snprintf(head, sizeof head, ",\"seid\":\"0x%016" PRIx64 "\"", msg->h.seid);
        out += head;
    }
    out += ",\"ies\":";
    if (desc) tlv_json_record(desc, body(msg), out);
    else out += "{}";
    out += '}';
}

bool pfcp_message_from_json(const char* text, pfcp_message_t* msg, tlv_json_store& store, std::string& err) {
    json_error_t e;
    std::unique_ptr<json_t, decltype(&json_decref)> root(json_loads(text, 0, &e), json_decref);
    if (!root) {
        err = std::string("not JSON: ") + e.text + " at line " + std::to_string(e.line);
        return false;
    }
    if (!json_is_object(root.get())) {
        err = "not a JSON object";
        return false;
    }
    const tlv_desc_t* desc = nullptr;
    unsigned type = 0;
    json_t* t = json_object_get(root.get(), "type");
    json_t* name = json_object_get(root.get(), "message");
    if (json_is_integer(t)) {
        type = unsigned(json_integer_value(t));
        desc = pfcp_find_msg_desc(type);
    } else if (json_is_string(name)) {
        for (const tlv_desc_t* d : pfcp_msg_descs)
            if (strcmp(d->name, json_string_value(name)) == 0) desc = d;
        for (type = 1; desc && pfcp_find_msg_desc(type) != desc; type++) {
        }
    }
    if (!desc) {
        err = "no PFCP message named by \"type\" or \"message\"";
        return false;
    }
    *msg = pfcp_message_t{};
    msg->h.type = uint8_t(type);
    msg->h.flags.version = PFCP_VERSION;
    json_t* seq = json_object_get(root.get(), "sequence");
    if (seq) {
        if (!json_is_integer(seq) || json_integer_value(seq) < 0 || json_integer_value(seq) > 0xFFFFFF) {
            err = "sequence is not a number of 24 bits";
            return false;
        }
        msg->h.sqn = uint32_t(json_integer_value(seq));
    }
    if (json_t* seid = json_object_get(root.get(), "seid")) {
        msg->h.flags.seid_presence = 1;
        if (json_is_integer(seid) && json_integer_value(seid) >= 0) {
            msg->h.seid = uint64_t(json_integer_value(seid));
        } else if (json_is_string(seid) && strncmp(json_string_value(seid), "0x", 2) == 0) {
            char* end = nullptr;
            msg->h.seid = strtoull(json_string_value(seid) + 2, &end, 16);
            if (*end || end == json_string_value(seid) + 2) {
                err = "seid is not a hexadecimal number";
                return false;
            }
        } else {
            err = "seid is not a number";
            return false;
        }
    }
    json_t* ies = json_object_get(root.get(), "ies");
    if (!ies) return true;
    return tlv_json_load(desc, body(msg), ies, store, err);
}
