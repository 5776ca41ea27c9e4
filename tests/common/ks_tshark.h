// tshark over lists of datagrams, for the tests of what the engine puts on the wire: wsdecode.sh's
// verdict (malformed packets and expert errors), and the values of chosen fields per packet.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ks_test_util.h"

namespace kst {

inline bool tsharkAvailable() {
    return runCommand("command -v tshark >/dev/null 2>&1 && command -v text2pcap >/dev/null 2>&1", nullptr) == 0;
}

struct TsharkRun {
    int rc = -1;           // wsdecode's verdict: 0 every packet clean
    std::string report;    // its complaints
    // Per packet: field name to every value it showed, comma-separated.
    std::vector<std::map<std::string, std::string>> fields;
};

// Each datagram in UDP to `port` (wsdecode's PROTO `proto`, tshark preferences `prefs` as "-o a:b ..."):
// the verdict, and the values of `names`.
inline TsharkRun runTshark(const std::string& wsdecode, const std::string& proto, int port, const std::string& prefs,
                           const std::vector<std::vector<uint8_t>>& packets, const std::vector<std::string>& names) {
    TsharkRun run;
    std::string dir = "/tmp/ks_ts_" + proto + "_" + std::to_string(getpid());
    std::string in = dir + ".txt", pcap = dir + ".pcapng", err = dir + ".err";
    {
        std::ofstream f(in);
        for (const auto& p : packets) {
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
    for (const auto& p : packets) hexArgs += " " + toHex(p);
    run.rc = runCommand("sh " + wsdecode + " -q " + prefs + " " + proto + hexArgs + " 2>" + err, nullptr);
    run.report = readFile(err);
    std::string cmd = "text2pcap -q -l 101 -u 40000," + std::to_string(port) + " " + in + " " + pcap +
                      " >/dev/null 2>&1 && tshark -n -r " + pcap + " " + prefs +
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

}  // namespace kst
