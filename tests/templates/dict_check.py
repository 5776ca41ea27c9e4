#!/usr/bin/python3
"""Checks the AVP type dictionaries against Wireshark's Diameter dictionary, an independent
account of the same standards: every AVP must be known there under its vendor and code, with
a data type that codes the same way on the wire.

usage: dict_check.py DICTIONARY_DIR [WIRESHARK_DIAMETER_DIR]
Exits 0 when all agree, 1 naming each disagreement, 77 when Wireshark's files are absent.
"""
import glob
import json
import os
import re
import sys

# Wireshark's type names to the engine's codings. A signed and an unsigned integer of one
# width are the same octets on the wire (Wireshark reads some unsigned codes as enumerations).
CODING = {
    "OctetString": "OctetString", "UTF8String": "OctetString", "DiameterIdentity": "OctetString",
    "DiameterURI": "OctetString", "IPAddress": "OctetString", "Address": "OctetString", "Time": "OctetString",
    "IPFilterRule": "OctetString", "QoSFilterRule": "OctetString", "OctetStringOrUTF8": "OctetString",
    "Integer32": "Integer32", "Enumerated": "Integer32", "Unsigned32": "Integer32", "AppId": "Integer32",
    "VendorId": "Integer32", "Integer64": "Integer64", "Unsigned64": "Integer64",
}
OURS = {"OctetString": "OctetString", "Int32": "Integer32", "UInt32": "Integer32", "Int64": "Integer64",
        "UInt64": "Integer64", "Grouped": "Grouped"}


def wireshark(folder):
    vendors, known = {"None": 0}, {}
    text = ""
    for path in sorted(glob.glob(os.path.join(folder, "*.xml"))):
        text += open(path, encoding="utf-8", errors="replace").read()
    for m in re.finditer(r'<vendor\s+vendor-id="([^"]+)"\s+code="(\d+)"', text):
        vendors[m.group(1)] = int(m.group(2))
    for m in re.finditer(r"<avp\s([^>]*)>(.*?)</avp>", text, re.S):
        attrs = dict(re.findall(r'([\w-]+)="([^"]*)"', m.group(1)))
        if "code" not in attrs:
            continue
        body = m.group(2)
        if "<grouped" in body:
            kind = "Grouped"
        else:
            t = re.search(r'type-name="([^"]+)"', body)
            kind = CODING.get(t.group(1), t.group(1)) if t else None
        vendor = vendors.get(attrs.get("vendor-id", "None"), -1)
        known.setdefault((vendor, int(attrs["code"])), set()).add(kind)
    return known


def main():
    ours = sys.argv[1]
    ws = sys.argv[2] if len(sys.argv) > 2 else "/usr/share/wireshark/diameter"
    if not os.path.isdir(ws):
        print("Wireshark's Diameter dictionary is not installed")
        return 77
    known = wireshark(ws)
    bad = []
    count = 0
    for path in sorted(glob.glob(os.path.join(ours, "*.json"))):
        for app in json.load(open(path)):
            for avp in app["AVPs"]:
                count += 1
                key = (avp.get("VendorId", 0), avp["Code"])
                where = "%s app %d %s (%d/%d)" % (os.path.basename(path), app["ApplicationId"], avp.get("Name"),
                                                  key[0], key[1])
                if key not in known:
                    bad.append(where + ": unknown to Wireshark")
                elif OURS.get(avp["DataType"]) not in known[key]:
                    bad.append(where + ": %s, Wireshark has %s" % (avp["DataType"], sorted(map(str, known[key]))))
    for b in bad:
        print(b)
    print("%d AVPs checked, %d disagree" % (count, len(bad)))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
