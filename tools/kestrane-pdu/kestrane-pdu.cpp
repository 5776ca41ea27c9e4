// kestrane-pdu: decodes, re-encodes and encodes NGAP, S1AP and PFCP messages (hex or the JSON form), and
// decodes NAS messages, for writing templates and reading captures.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "mv_amf_asn.h"
#include "mv_asn.h"
#include "mv_core.h"
#include "mv_mme_asn.h"
#include "mv_naspdu.h"
#include "pfcp_codec.h"
#include "tlv_json.h"

namespace {

int usage() {
    fprintf(stderr,
            "usage: kestrane-pdu decode ngap|s1ap|pfcp|nas5g|naseps [--json] [HEX | -f FILE | -]\n"
            "       kestrane-pdu recode ngap|s1ap|pfcp [HEX | -f FILE | -]\n"
            "       kestrane-pdu encode ngap|s1ap|pfcp [JSON | -f FILE | -]\n"
            "       kestrane-pdu decode|recode diameter [--json] [--dict FILE] [HEX | -f FILE | -]\n"
            "       kestrane-pdu encode diameter [--dict FILE] [JSON | -f FILE | -]\n"
            "A PFCP message is a whole datagram, header included.\n"
            "A Diameter dictionary file (the engine's format) types the AVPs of its applications.\n"
            "A protected NAS message is read past its security header as if it were not ciphered.\n"
            "HEX may hold blanks, ':' and a leading 0x; '-' or no HEX reads standard input.\n"
            "JSON is the form decode --json prints.\n");
    return 2;
}

FILE* g_dumpOut = stdout;
void sink(int level, const char* line) {
    fprintf(level <= MV_LOG_WARNING ? stderr : g_dumpOut, "%s\n", line);
}

bool parseHex(const std::string& text, std::vector<uint8_t>& out, std::string& err) {
    std::string digits;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (isspace(static_cast<unsigned char>(c)) || c == ':') continue;
        if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X') && digits.empty()) {
            i++;
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(c))) {
            err = std::string("not a hex digit: '") + c + "'";
            return false;
        }
        digits += c;
    }
    if (digits.empty()) {
        err = "no bytes given";
        return false;
    }
    if (digits.size() % 2) {
        err = "odd number of hex digits";
        return false;
    }
    for (size_t i = 0; i < digits.size(); i += 2) out.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return true;
}

// A NAS message: the security header if there is one, then what the decoder takes from the plain message.
int decodeNas(bool fg, const std::vector<uint8_t>& bytes, bool json) {
    __naspduFGSecurityHeader sh{};
    int off = __mv_naspdu_decodeSecurityHeader(&sh, bytes.data(), uint32_t(bytes.size()));
    if (off < 0 || (fg && bytes[0] != MV_5GS_MM_EPD && bytes[0] != MV_5GS_SM_EPD) ||
        (!fg && (bytes[0] & 0x0F) != MV_EPS_MM_PD && (bytes[0] & 0x0F) != MV_EPS_SM_PD)) {
        fprintf(stderr, "kestrane-pdu: bad input: %02x is not a %s message\n", bytes[0], fg ? "5GS NAS" : "EPS NAS");
        return 1;
    }
    std::string out, head;
    if (off == 0 && sh.EPSBIOrSHT == NAS_SECURITY_HEADER_FOR_SERVICE_REQUEST_MESSAGE) {
        // The EPS service request is a header of its own with nothing behind it.
        printf(json ? "{\"securityHeader\":{\"type\":12}}\n" : "EPS service request, security header type 12\n");
        return 0;
    }
    if (off > 0) {
        char h[160];
        snprintf(h, sizeof h,
                 json ? "\"securityHeader\":{\"type\":%u,\"mac\":\"%02x%02x%02x%02x\",\"sequenceNumber\":%u},"
                      : "security header type %u, MAC %02x%02x%02x%02x, sequence number %u\n",
                 sh.EPSBIOrSHT, sh.MAC[0], sh.MAC[1], sh.MAC[2], sh.MAC[3], sh.SequenceNumber);
        head = h;
    }
    std::vector<uint8_t> plain(bytes.begin() + off, bytes.end());
    __naspduDecode d{};
    int rc;
    if (fg) {
        rc = __mv_naspdu_DecodeFGMessage(&d, plain.data(), uint32_t(plain.size()));
    } else {
        d.buffer = plain.data();
        d.length = int(plain.size());
        rc = __mv_naspdu_DecodeMessage(&d);
    }
    if (rc != 0) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n",
                rc == -ENOENT  ? "not a NAS message of this family"
                : rc == -ESRCH ? "a message type the codec does not know"
                               : "too short for a NAS message");
        __mv_naspdu_freeNASPduDecode(&d);
        return 1;
    }
    __mv_naspdu_describe(&d, out, json);
    if (json)
        printf("{%s%s\n", head.c_str(), out.c_str() + 1);
    else
        printf("%s%s", head.c_str(), out.c_str());
    int bad = !d.iMandatoryDecoded || d.iStatus == NAS_DECODE_ENDED_INSIDE_IE || d.iStatus == NAS_DECODE_IE_TOO_LARGE;
    if (bad) fprintf(stderr, "kestrane-pdu: bad input: the message does not decode (status %d)\n", d.iStatus);
    __mv_naspdu_freeNASPduDecode(&d);
    return bad;
}

void printHex(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; i++) printf("%02x", p[i]);
    printf("\n");
}

// PFCP: one datagram, decoded with the stack's own checks; elements that have no place in the message
// are skipped, as the stack skips them, and said on standard error.
int pfcp(const std::string& cmd, const std::string& text, bool json) {
    static pfcp_message_t msg;
    static uint8_t out[65536];
    if (cmd == "encode") {
        tlv_json_store store;
        std::string err;
        if (!pfcp_message_from_json(text.c_str(), &msg, store, err)) {
            fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
            return 1;
        }
        tlv_result_t r;
        int n = pfcp_encode_message(&msg, out, &r);
        if (n < 0) {
            char why[200];
            tlv_format_error(&r, why, sizeof why);
            fprintf(stderr, "kestrane-pdu: %s does not encode: %s\n", pfcp_message_name(msg.h.type), why);
            return 1;
        }
        printHex(out, size_t(n));
        return 0;
    }
    std::vector<uint8_t> bytes;
    std::string err;
    if (!parseHex(text, bytes, err)) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
        return 1;
    }
    pfcp_rx_result_t rx;
    if (pfcp_decode_datagram(bytes, &msg, &rx) != 1) {
        char why[300];
        pfcp_format_rx_error(&rx, why, sizeof why);
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", why);
        return 1;
    }
    if (rx.tlv.unexpected || rx.tlv.dropped)
        fprintf(stderr, "kestrane-pdu: %u element(s) with no place in %s skipped (first of type %u), %u repeat(s) beyond the record's room dropped\n",
                rx.tlv.unexpected, pfcp_message_name(msg.h.type), rx.tlv.firstUnexpected, rx.tlv.dropped);
    if (cmd == "recode") {
        int n = pfcp_encode_message(&msg, out);
        if (n < 0) {
            fprintf(stderr, "kestrane-pdu: %s decodes but does not encode again\n", pfcp_message_name(msg.h.type));
            return 1;
        }
        printHex(out, size_t(n));
        return 0;
    }
    std::string s;
    if (json) {
        pfcp_message_json(&msg, s);
        printf("%s\n", s.c_str());
        return 0;
    }
    printf("%s (%u), sequence %u", pfcp_message_name(msg.h.type), msg.h.type, msg.h.sqn);
    if (msg.h.flags.seid_presence) printf(", SEID %lu (0x%016lx)", (unsigned long)msg.h.seid, (unsigned long)msg.h.seid);
    printf("\n");
    tlv_text_record(pfcp_find_msg_desc(msg.h.type), &msg.pfcp_heartbeat_request, 2, s);
    printf("%s", s.c_str());
    return 0;
}

bool printEncoding(const MvAsnPdu* p, const void* rec) {
    static __mv_asn_coding_context enc;
    __mv_asn_init_CodingContext(&enc);
    if (__mv_asn_encode_pdu(p, rec, &enc) < 1) return false;
    for (unsigned i = 0; i < enc.pos; i++) printf("%02x", enc.buffer[i]);
    printf("\n");
    return true;
}

int encode(const MvAsnPdu* table, unsigned count, const std::string& text) {
    void* rec = nullptr;
    std::string err;
    const MvAsnPdu* p = __mv_asn_pdu_from_json(table, count, text.c_str(), &rec, &err);
    if (!p) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
        return 1;
    }
    int rc = 0;
    if (!printEncoding(p, rec)) {
        fprintf(stderr, "kestrane-pdu: %s does not encode: a value is out of range or a mandatory one is missing\n",
                p->name);
        rc = 1;
    }
    __mv_asn_memfree_pdu(p, rec);
    return rc;
}

}  // namespace

int kpduDiameter(const std::string& cmd, bool json, const std::vector<uint8_t>& bytes, const std::string& text,
                 const std::string& dict);

int main(int argc, char** argv) {
    if (argc < 3) return usage();
    std::string cmd = argv[1], proto = argv[2];
    bool json = false;
    std::string inputText, file, dict;
    bool haveInput = false;
    for (int i = 3; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--json")
            json = true;
        else if (a == "-f" && i + 1 < argc)
            file = argv[++i];
        else if (a == "--dict" && i + 1 < argc)
            dict = argv[++i];
        else if (a == "-")
            haveInput = false;
        else {
            inputText += (inputText.empty() ? "" : " ") + a;  // the input may come split over several arguments
            haveInput = true;
        }
    }
    bool nas = proto == "nas5g" || proto == "naseps";
    bool diameter = proto == "diameter";
    if ((cmd != "decode" && cmd != "recode" && cmd != "encode") ||
        (proto != "ngap" && proto != "s1ap" && proto != "pfcp" && !nas && !diameter) || (!dict.empty() && !diameter) ||
        (json && cmd != "decode") || (nas && cmd != "decode"))
        return usage();
    if (!file.empty()) {
        std::ifstream in(file);
        if (!in) {
            fprintf(stderr, "kestrane-pdu: cannot read %s\n", file.c_str());
            return 1;
        }
        std::stringstream ss;
        ss << in.rdbuf();
        inputText = ss.str();
    } else if (!haveInput) {
        std::stringstream ss;
        ss << std::cin.rdbuf();
        inputText = ss.str();
    }
    if (proto == "pfcp") return pfcp(cmd, inputText, json);
    if (diameter) {
        std::vector<uint8_t> bytes;
        std::string err;
        if (cmd != "encode" && !parseHex(inputText, bytes, err)) {
            fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
            return 1;
        }
        return kpduDiameter(cmd, json, bytes, inputText, dict);
    }
    if (nas) {
        std::vector<uint8_t> bytes;
        std::string err;
        if (!parseHex(inputText, bytes, err)) {
            fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
            return 1;
        }
        __mv_asn_set_log_sink(sink, MV_LOG_WARNING);
        return decodeNas(proto == "nas5g", bytes, json);
    }
    const MvAsnPdu* table = proto == "ngap" ? mv_asn_amf::kPdus : mv_asn_mme::kPdus;
    unsigned count = proto == "ngap" ? mv_asn_amf::kPduCount : mv_asn_mme::kPduCount;
    __mv_asn_set_log_sink(sink, MV_LOG_WARNING);
    if (cmd == "encode") return encode(table, count, inputText);
    std::vector<uint8_t> bytes;
    std::string err;
    if (!parseHex(inputText, bytes, err)) {
        fprintf(stderr, "kestrane-pdu: bad input: %s\n", err.c_str());
        return 1;
    }
    const MvAsnPdu* p = __mv_asn_find_pdu(table, count, bytes.data(), bytes.size());
    if (!p) {
        if (bytes.size() < 2)
            fprintf(stderr, "kestrane-pdu: bad input: %zu byte(s) is too short for a PDU\n", bytes.size());
        else
            fprintf(stderr, "kestrane-pdu: bad input: %s has no message of form %u with procedure code %u\n",
                    proto.c_str(), (bytes[0] >> 5) & 7u, bytes[1]);
        return 1;
    }
    static __mv_asn_coding_context ctx;
    if (!__mv_asn_init_decode(&ctx, bytes.data(), bytes.size())) return 1;
    void* rec = __mv_asn_new_record(p->type);
    int r = __mv_asn_decode_pdu(p, rec, &ctx);
    if (r != 1) {
        fprintf(stderr, "kestrane-pdu: bad input: %s does not decode (error %u at byte %u of %zu)\n", p->name,
                ctx.iError, ctx.pos, bytes.size());
        __mv_asn_memfree_pdu(p, rec);
        return 1;
    }
    int rc = 0;
    if (cmd == "decode") {
        if (json) {
            std::string out;
            __mv_asn_json_pdu(p, rec, out);
            printf("%s\n", out.c_str());
        } else {
            __mv_asn_set_log_sink(sink, MV_LOG_DEBUG);
            __mv_asn_debug_pdu(p, rec);
        }
    } else {
        if (!printEncoding(p, rec)) {
            fprintf(stderr, "kestrane-pdu: %s decodes but does not encode again\n", p->name);
            rc = 1;
        }
    }
    __mv_asn_memfree_pdu(p, rec);
    return rc;
}
