// A client of the UE-Console protocol: one TCP connection, requests framed with the
// engine's header, answers matched by RequestNo. Used by kestranectl, the tests and
// the benchmarks.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "KsUECServer_wire.h"

namespace ksuec {

// Results of the client's operations; kestranectl exits with them.
enum Result : int {
    Ok = 0,
    Refused = 1,      // the engine answered no
    BadArgs = 2,      // the request cannot be built, or the command line is wrong
    Unreachable = 3,  // no connection, or the connection was lost
    Timeout = 4,      // no answer in time
    Protocol = 5,     // an answer that cannot be framed or is too short
};
const char* resultText(int r);

class Client {
public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    // Host name or address, either family.
    int connect(const std::string& host, uint16_t port, int timeoutMs);
    void close();
    int fd() const { return fd_; }

    // Frames `body` behind a header of `type` and sends it; the RequestNo chosen goes
    // to *requestNo. A message above the engine's 10000 bytes is refused unsent.
    int send(uint32_t type, std::span<const uint8_t> body, uint32_t* requestNo);
    // Sends bytes as they are (for malformed frames and split messages).
    int sendBytes(std::span<const uint8_t> bytes);
    // Waits for the answer to requestNo; answers to other requests are set aside and
    // can be awaited later.
    int await(uint32_t requestNo, std::vector<uint8_t>& answer, int timeoutMs);
    // Waits for any one frame.
    int next(std::vector<uint8_t>& frame, int timeoutMs);
    int call(uint32_t type, std::span<const uint8_t> body, std::vector<uint8_t>& answer, int timeoutMs);

    // A fixed record: fills its header, sends it, and reads the answer into `answer`
    // (which must be as long as the record the engine sends).
    template <class Req, class Ans>
    int callRecord(uint32_t type, Req& req, Ans& answer, int timeoutMs) {
        std::vector<uint8_t> raw;
        auto* b = reinterpret_cast<const uint8_t*>(&req) + sizeof(__uec_msg_header);
        int r = call(type, std::span<const uint8_t>(b, sizeof req - sizeof(__uec_msg_header)), raw, timeoutMs);
        if (r != Ok) return r;
        if (raw.size() < sizeof answer) return Protocol;
        __builtin_memcpy(&answer, raw.data(), sizeof answer);
        return Ok;
    }

private:
    int readSome(int timeoutMs);
    bool takeFrame(std::vector<uint8_t>& frame, int* error);

    int fd_ = -1;
    uint32_t nextNo_ = 0;
    std::vector<uint8_t> in_;
    std::vector<std::vector<uint8_t>> aside_;
};

}  // namespace ksuec
