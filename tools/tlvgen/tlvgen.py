#!/usr/bin/env python3
"""Writes the descriptor tables and records of a TLV protocol from its element list.

Usage: tlvgen.py SOURCE OUTDIR

SOURCE holds, one per line (see lib_protocols/pfcp/pfcp/pfcp.tlv):
  protocol PREFIX WORD        names start with PREFIX; message names lose a leading WORD
  ie TYPE KIND NAME           KIND: u8 u16 u24 u32 i8 i16 i24 i32 var null group fixed:N
  group NAME = CHILD, ...
  msg TYPE NAME = CHILD, ...
  CHILD: NAME[*N][@I][ as FIELD]

OUTDIR receives PREFIX_tables.h (type constants, records, descriptor declarations, the message
list) and PREFIX_tables.cpp (descriptors, child lists, layout checks, lookups by type).
"""
import os
import re
import sys

KINDS = {
    "u8": ("TLV_UINT8", "tlv_uint8_t", 1), "u16": ("TLV_UINT16", "tlv_uint16_t", 2),
    "u24": ("TLV_UINT24", "tlv_uint24_t", 3), "u32": ("TLV_UINT32", "tlv_uint32_t", 4),
    "i8": ("TLV_INT8", "tlv_int8_t", 1), "i16": ("TLV_INT16", "tlv_int16_t", 2),
    "i24": ("TLV_INT24", "tlv_int24_t", 3), "i32": ("TLV_INT32", "tlv_int32_t", 4),
    "var": ("TLV_VAR_STR", "tlv_octet_t", 0), "null": ("TLV_NULL", "tlv_null_t", 0),
}
MAX_MORE = 11


def die(msg):
    sys.exit("tlvgen: " + msg)


def snake(name):
    return re.sub(r"[^a-z0-9]+", "_", name.replace("'", "").lower()).strip("_")


class Child:
    def __init__(self, text, where):
        m = re.fullmatch(r"(.+?)(?:\*(\d+))?(?:@(\d+))?(?: as ([a-z_][a-z0-9_]*))?", text.strip())
        if not m:
            die("%s: bad child '%s'" % (where, text))
        self.ie, self.count, self.instance, self.field = m.group(1).strip(), int(m.group(2) or 1), int(m.group(3) or 0), m.group(4)
        if self.count < 1 or self.count > MAX_MORE:
            die("%s: %s: between 1 and %d slots" % (where, text, MAX_MORE))
        self.array = m.group(2) is not None


class Source:
    def __init__(self, path):
        self.prefix, self.word = None, None
        self.ies, self.by_name, self.groups, self.msgs = [], {}, {}, []
        for n, raw in enumerate(open(path), 1):
            line = raw.split("#", 1)[0].strip()
            if not line:
                continue
            where = "%s:%d" % (path, n)
            if line.startswith("protocol "):
                _, self.prefix, self.word = line.split()
            elif line.startswith("ie "):
                _, t, kind, name = line.split(None, 3)
                if name in self.by_name:
                    die("%s: element %s twice" % (where, name))
                if kind not in KINDS and kind != "group" and not re.fullmatch(r"fixed:\d+", kind):
                    die("%s: unknown kind %s" % (where, kind))
                ie = {"type": int(t), "kind": kind, "name": name, "id": snake(name)}
                self.ies.append(ie)
                self.by_name[name] = ie
            elif line.startswith("group "):
                name, kids = line[6:].split("=", 1)
                self.groups[name.strip()] = self.children(kids, where)
            elif line.startswith("msg "):
                head, kids = line[4:].split("=", 1)
                t, name = head.strip().split(None, 1)
                short = name[len(self.word) + 1:] if name.startswith(self.word + " ") else name
                self.msgs.append({"type": int(t), "name": name, "id": snake(short), "kids": self.children(kids, where)})
            else:
                die("%s: cannot read '%s'" % (where, line))
        if not self.prefix:
            die("no protocol line")
        for ie in self.ies:
            if ie["kind"] == "group" and ie["name"] not in self.groups:
                die("group %s has no children" % ie["name"])
        for g in self.groups:
            if g not in self.by_name or self.by_name[g]["kind"] != "group":
                die("children for %s, which is no group element" % g)

    def children(self, text, where):
        kids = [Child(k, where) for k in text.split(",") if k.strip()]
        seen = set()
        for k in kids:
            if k.ie not in self.by_name:
                die("%s: no element %s" % (where, k.ie))
            k.field = k.field or snake(k.ie)
            if not re.fullmatch(r"[a-z_][a-z0-9_]*", k.field):
                die("%s: %s needs a field name (as ...)" % (where, k.ie))
            if k.field in seen:
                die("%s: field %s twice" % (where, k.field))
            seen.add(k.field)
        return kids


def generate(src, out):
    P, PU = src.prefix, src.prefix.upper()
    rec = lambda ie: "%s_tlv_%s_t" % (P, ie["id"])
    desc = lambda ie: "%s_tlv_desc_%s" % (P, ie["id"])
    mrec = lambda m: "%s_%s_t" % (P, m["id"])
    mdesc = lambda m: "%s_msg_desc_%s" % (P, m["id"])

    # Groups in an order where children come first.
    order, state = [], {}

    def visit(name):
        if state.get(name) == 2:
            return
        if state.get(name) == 1:
            die("group %s contains itself" % name)
        state[name] = 1
        for k in src.groups[name]:
            if src.by_name[k.ie]["kind"] == "group":
                visit(k.ie)
        state[name] = 2
        order.append(name)

    for ie in src.ies:
        if ie["kind"] == "group":
            visit(ie["name"])

    def body(kids, indent="    "):
        return "".join("%s%s %s%s;\n" % (indent, rec(src.by_name[k.ie]), k.field, "[%d]" % k.count if k.array else "") for k in kids)

    h = []
    h.append("// Generated by tools/tlvgen/tlvgen.py from %s.tlv: do not edit.\n#pragma once\n\n#include \"tlv.h\"\n\n" % P)
    h.append("// Element types\n")
    for ie in src.ies:
        h.append("#define %s_%s_TYPE %d\n" % (PU, ie["id"].upper(), ie["type"]))
    h.append("\n// Message types\n")
    for m in src.msgs:
        h.append("#define %s_%s_TYPE %d\n" % (PU, m["id"].upper(), m["type"]))
    h.append("\n// Leaf records\n")
    for ie in src.ies:
        if ie["kind"] in KINDS:
            h.append("typedef %s %s;\n" % (KINDS[ie["kind"]][1], rec(ie)))
        elif ie["kind"].startswith("fixed:"):
            h.append("typedef tlv_octet_t %s;\n" % rec(ie))
    h.append("\n// Grouped records: the presence word, then the children\n")
    for g in order:
        h.append("struct %s {\n    tlv_presence_t presence;\n%s};\n" % (rec(src.by_name[g]), body(src.groups[g])))
    h.append("\n// Message records\n")
    for m in src.msgs:
        h.append("struct %s {\n%s};\n" % (mrec(m), body(m["kids"]) if m["kids"] else "    tlv_presence_t unused;  // no element: keeps the record addressable\n"))
    h.append("\n")
    for ie in src.ies:
        h.append("extern const tlv_desc_t %s;\n" % desc(ie))
    for m in src.msgs:
        h.append("extern const tlv_desc_t %s;\n" % mdesc(m))
    h.append("\n// Every message: X(record type, member name, type number, descriptor)\n#define %s_MESSAGE_RECORDS(X) \\\n" % PU)
    h.append(" \\\n".join("    X(%s, %s_%s, %d, %s)" % (mrec(m), P, m["id"], m["type"], mdesc(m)) for m in src.msgs) + "\n\n")
    h.append("// The descriptor of an element or a message type, or null.\n")
    h.append("const tlv_desc_t* %s_find_ie_desc(unsigned type);\nconst tlv_desc_t* %s_find_msg_desc(unsigned type);\n" % (P, P))
    h.append("// Every element and message descriptor, in the source's order.\n")
    h.append("extern const tlv_desc_t* const %s_ie_descs[%d];\nextern const tlv_desc_t* const %s_msg_descs[%d];\n" % (P, len(src.ies), P, len(src.msgs)))

    c = []
    c.append("// Generated by tools/tlvgen/tlvgen.py from %s.tlv: do not edit.\n#include <cstddef>\n\n#include \"%s_tables.h\"\n\n" % (P, P))
    c.append("namespace {\n\n")

    def lists(key, kids):
        ds, ns = [], []
        for k in kids:
            ds.append("&" + desc(src.by_name[k.ie]))
            ns.append('"%s"' % k.field)
            if k.array:
                ds.append("&tlv_desc_more%d" % k.count)
                ns.append("nullptr")
        c.append("const tlv_desc_t* const kids_%s[] = {%s};\n" % (key, ", ".join(ds + ["nullptr"])))
        c.append("const char* const names_%s[] = {%s};\n" % (key, ", ".join(ns + ["nullptr"])))

    for g in order:
        lists(src.by_name[g]["id"], src.groups[g])
    for m in src.msgs:
        if m["kids"]:
            lists("msg_" + m["id"], m["kids"])
    c.append("\n}  // namespace\n\n")
    for ie in src.ies:
        k = ie["kind"]
        if k == "group":
            c.append('const tlv_desc_t %s = {TLV_COMPOUND, "%s", %d, 0, 0, sizeof(%s), kids_%s, names_%s};\n'
                     % (desc(ie), ie["name"], ie["type"], rec(ie), ie["id"], ie["id"]))
        else:
            ctype, _, n = KINDS[k] if k in KINDS else ("TLV_FIXED_STR", None, int(k[6:]))
            c.append('const tlv_desc_t %s = {%s, "%s", %d, %d, 0, sizeof(%s), nullptr, nullptr};\n'
                     % (desc(ie), ctype, ie["name"], ie["type"], n if ctype not in ("TLV_VAR_STR", "TLV_NULL") else 0, rec(ie)))
    for m in src.msgs:
        kids = ("kids_msg_%s, names_msg_%s" % (m["id"], m["id"])) if m["kids"] else "nullptr, nullptr"
        c.append('const tlv_desc_t %s = {TLV_MESSAGE, "%s", 0, 0, 0, sizeof(%s), %s};\n' % (mdesc(m), m["name"], mrec(m), kids))

    c.append("\n// The walker steps through records by vsize: each field must sit where the sum puts it.\n")

    def checks(t, kids, first):
        at = [str(first)]
        for k in kids:
            c.append("static_assert(offsetof(%s, %s) == %s);\n" % (t, k.field, " + ".join(at)))
            at.append("sizeof(%s)%s" % (rec(src.by_name[k.ie]), " * %d" % k.count if k.array else ""))
        c.append("static_assert(sizeof(%s) == %s && sizeof(%s) <= 0xFFFF);\n" % (t, " + ".join(at), t))

    for g in order:
        checks(rec(src.by_name[g]), src.groups[g], "sizeof(tlv_presence_t)")
    for m in src.msgs:
        if m["kids"]:
            checks(mrec(m), m["kids"], 0)

    c.append("\nconst tlv_desc_t* const %s_ie_descs[%d] = {\n%s};\n" % (P, len(src.ies), "".join("    &%s,\n" % desc(ie) for ie in src.ies)))
    c.append("const tlv_desc_t* const %s_msg_descs[%d] = {\n%s};\n\n" % (P, len(src.msgs), "".join("    &%s,\n" % mdesc(m) for m in src.msgs)))
    c.append("const tlv_desc_t* %s_find_ie_desc(unsigned type) {\n    switch (type) {\n" % P)
    for ie in src.ies:
        c.append("        case %d: return &%s;\n" % (ie["type"], desc(ie)))
    c.append("        default: return nullptr;\n    }\n}\n\n")
    c.append("const tlv_desc_t* %s_find_msg_desc(unsigned type) {\n    switch (type) {\n" % P)
    for m in src.msgs:
        c.append("        case %d: return &%s;\n" % (m["type"], mdesc(m)))
    c.append("        default: return nullptr;\n    }\n}\n")

    os.makedirs(out, exist_ok=True)
    for name, text in (("%s_tables.h" % P, h), ("%s_tables.cpp" % P, c)):
        with open(os.path.join(out, name), "w") as f:
            f.write("".join(text))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    generate(Source(sys.argv[1]), sys.argv[2])
