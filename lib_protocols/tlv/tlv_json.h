// The JSON form of a TLV record, from the same descriptors as the wire: an object with one member
// per present field under the record's field name; numbers as numbers, octet strings as hexadecimal
// text, groups as objects, repeated fields as arrays, TLV_NULL elements as true. Tools print it and
// read it back; tests write messages in it.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tlv.h"

// Appends the JSON object of the children of `desc` held in `record` (a message or a group record).
void tlv_json_record(const tlv_desc_t* desc, const void* record, std::string& out);

// The same children as indented "name: value" lines, one per field (arrays one per slot), for people.
void tlv_text_record(const tlv_desc_t* desc, const void* record, int indent, std::string& out);

// Owns the octet strings a record loaded from JSON points to.
class tlv_json_store {
public:
    const uint8_t* keep(std::vector<uint8_t> bytes) {
        blocks_.push_back(std::make_unique<std::vector<uint8_t>>(std::move(bytes)));
        return blocks_.back()->data();
    }

private:
    std::vector<std::unique_ptr<std::vector<uint8_t>>> blocks_;
};

// Fills `record` (zeroed by the caller) from a JSON object of the form above. False with `err` set
// for an unknown member, a value of the wrong kind or out of range, or more items than slots.
[[nodiscard]] bool tlv_json_load(const tlv_desc_t* desc, void* record, json_t* obj, tlv_json_store& store,
                                 std::string& err);
