// What the PFCP tests share: hex text, the sample messages as octets, records filled from the
// descriptors, and tshark over lists of datagrams.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pfcp_codec.h"
#include "pfcp_samples.h"
#include "tlv_json.h"

namespace kpf {

using Bytes = std::vector<uint8_t>;

inline std::string toHex(const uint8_t* p, size_t n) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; i++) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}
inline std::string toHex(const Bytes& b) { return toHex(b.data(), b.size()); }

inline Bytes fromHex(const std::string& h) {
    Bytes b;
    std::string digits;
    for (char c : h)
        if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) b.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return b;
}

// A message record big enough for any type, zeroed, off the stack.
inline std::unique_ptr<pfcp_message_t> newMessage() { return std::make_unique<pfcp_message_t>(); }

inline Bytes encode(const pfcp_message_t* m) {
    Bytes out(65536 + 16);
    int n = pfcp_encode_message(m, out);
    if (n < 0) return {};
    out.resize(size_t(n));
    return out;
}

// The datagram of a sample (see pfcp_samples.h); fails the test when it does not load or encode.
inline Bytes sampleBytes(const Sample& s) {
    auto m = newMessage();
    tlv_json_store store;
    std::string err;
    EXPECT_TRUE(pfcp_message_from_json(s.json.c_str(), m.get(), store, err)) << s.name << ": " << err;
    Bytes b = encode(m.get());
    EXPECT_FALSE(b.empty()) << s.name;
    return b;
}

inline std::string json(const pfcp_message_t* m) {
    std::string s;
    pfcp_message_json(m, s);
    return s;
}

// ---------------------------------------------------------------- tshark

inline int runCommand(const std::string& cmd, std::string* out) {
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        if (out) out->append(buf, n);
    int rc = pclose(p);
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

inline bool tsharkAvailable() {
    return runCommand("command -v tshark >/dev/null 2>&1 && command -v text2pcap >/dev/null 2>&1", nullptr) == 0;
}

struct TsharkRun {
    int rc = -1;           // wsdecode's verdict: 0 every packet clean
    std::string report;    // its complaints
    // Per packet: field name to every value it showed, comma-separated.
    std::vector<std::map<std::string, std::string>> fields;
};

// Runs the datagrams through wsdecode.sh (UDP port 8805) for the verdict, and through tshark for the
// values of `names`.
inline TsharkRun runTshark(const std::vector<Bytes>& packets, const std::vector<std::string>& names) {
    TsharkRun run;
    std::string dir = ::testing::TempDir() + "/pfcp_ts_" + std::to_string(getpid());
    std::string in = dir + ".txt", pcap = dir + ".pcapng", err = dir + ".err";
    {
        std::ofstream f(in);
        for (const Bytes& p : packets) {
            f << "000000";
            for (uint8_t b : p) {
                char x[4];
                snprintf(x, sizeof x, " %02x", b);
                f << x;
            }
            f << "\n";
        }
    }
    std::string hexArgs;
    for (const Bytes& p : packets) hexArgs += " " + toHex(p);
    run.rc = runCommand("sh " KS_WSDECODE " -q pfcp" + hexArgs + " 2>" + err, nullptr);
    std::ifstream e(err);
    run.report.assign(std::istreambuf_iterator<char>(e), std::istreambuf_iterator<char>());
    std::string cmd = "text2pcap -q -l 101 -u 40000,8805 " + in + " " + pcap + " >/dev/null 2>&1 && tshark -n -r " + pcap +
                      " -T fields -E occurrence=a -E aggregator=, -E separator=/t";
    for (const std::string& n : names) cmd += " -e " + n;
    std::string out;
    runCommand(cmd + " 2>/dev/null", &out);
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        std::map<std::string, std::string> m;
        size_t pos = 0;
        for (const std::string& n : names) {
            size_t tab = line.find('\t', pos);
            m[n] = line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos);
            pos = tab == std::string::npos ? line.size() : tab + 1;
        }
        run.fields.push_back(m);
    }
    unlink(in.c_str());
    unlink(pcap.c_str());
    unlink(err.c_str());
    return run;
}

}  // namespace kpf
