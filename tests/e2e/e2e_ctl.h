// What the end-to-end tests ask a running engine binary: its console through kestranectl, its
// statistics and its test's counters.
#pragma once

#include <jansson.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <sys/wait.h>

namespace kse2e {

// The output of a command with its standard error, and its exit status.
inline std::string run(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int st = pclose(p);
    if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
}

// kestranectl against the engine's console at host:9119.
inline std::string ctl(const std::string& host, const std::string& args, int* status = nullptr) {
    return run(std::string(KS_CTL_BINARY) + " --host " + host + " --port 9119 --timeout 10 " + args, status);
}

// A value of `kestranectl stats` (-1 when absent).
inline long stat(const std::string& host, const std::string& name) {
    std::string out = ctl(host, "stats");
    size_t p = out.find("\n" + name + " ");
    return p == std::string::npos ? -1 : atol(out.c_str() + p + name.size() + 2);
}

// Counter totals of a test by name, from `kestranectl --json status`.
inline std::map<std::string, long> counters(const std::string& json) {
    std::map<std::string, long> out;
    json_t* j = json_loads(json.c_str(), 0, nullptr);
    json_t* rows = json_object_get(j, "counters");
    for (size_t i = 0; rows && i < json_array_size(rows); ++i) {
        json_t* r = json_array_get(rows, i);
        out[json_string_value(json_object_get(r, "name")) ?: ""] = long(json_integer_value(json_object_get(r, "total")));
    }
    json_decref(j);
    return out;
}

}  // namespace kse2e
