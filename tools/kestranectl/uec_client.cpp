#include "uec_client.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>

namespace ksuec {

namespace {

// An answer above this cannot be one of the engine's; the stream is lost.
constexpr uint32_t kMaxAnswer = 1u << 20;

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point end) {
    auto d = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return d < 0 ? 0 : int(d);
}

uint32_t u32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

}  // namespace

const char* resultText(int r) {
    switch (r) {
        case Ok: return "ok";
        case Refused: return "refused";
        case BadArgs: return "bad arguments";
        case Unreachable: return "engine unreachable";
        case Timeout: return "no answer in time";
        case Protocol: return "malformed answer";
    }
    return "unknown";
}

Client::~Client() { close(); }

void Client::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    in_.clear();
    aside_.clear();
}

int Client::connect(const std::string& host, uint16_t port, int timeoutMs) {
    close();
    // RequestNo starts at a random point so that answers of an earlier client on a
    // reused connection record cannot be mistaken for ours.
    nextNo_ = std::random_device{}() | 1u;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    std::string portText = std::to_string(port);
    if (getaddrinfo(host.c_str(), portText.c_str(), &hints, &res) != 0 || !res) return Unreachable;
    int result = Unreachable;
    for (addrinfo* a = res; a && result != Ok; a = a->ai_next) {
        int fd = socket(a->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) continue;
        int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int err = 0;
            socklen_t len = sizeof err;
            if (poll(&p, 1, timeoutMs) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0) rc = 0;
        }
        if (rc != 0) {
            ::close(fd);
            continue;
        }
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        fd_ = fd;
        result = Ok;
    }
    freeaddrinfo(res);
    return result;
}

int Client::sendBytes(std::span<const uint8_t> bytes) {
    if (fd_ < 0) return Unreachable;
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n > 0) {
            off += size_t(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd_, POLLOUT, 0};
            if (poll(&p, 1, 1000) < 0 && errno != EINTR) return Unreachable;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return Unreachable;
    }
    return Ok;
}

int Client::send(uint32_t type, std::span<const uint8_t> body, uint32_t* requestNo) {
    if (sizeof(__uec_msg_header) + body.size() > VELTA_UEC_MAX_MESSAGE_SIZE) return BadArgs;
    std::vector<uint8_t> msg(sizeof(__uec_msg_header) + body.size());
    __uec_msg_header h{uint32_t(msg.size()), type, nextNo_++, 0};
    memcpy(msg.data(), &h, sizeof h);
    if (!body.empty()) memcpy(msg.data() + sizeof h, body.data(), body.size());
    if (requestNo) *requestNo = h.RequestNo;
    return sendBytes(msg);
}

int Client::readSome(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    int rc = poll(&p, 1, timeoutMs);
    if (rc == 0) return Timeout;
    if (rc < 0) return errno == EINTR ? Ok : Unreachable;
    uint8_t buf[16384];
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n == 0) return Unreachable;
    if (n < 0) return (errno == EAGAIN || errno == EINTR) ? Ok : Unreachable;
    in_.insert(in_.end(), buf, buf + n);
    return Ok;
}

bool Client::takeFrame(std::vector<uint8_t>& frame, int* error) {
    *error = Ok;
    if (in_.size() < sizeof(__uec_msg_header)) return false;
    uint32_t size = u32(in_.data());
    if (size < sizeof(__uec_msg_header) || size > kMaxAnswer) {
        *error = Protocol;
        return false;
    }
    if (in_.size() < size) return false;
    frame.assign(in_.begin(), in_.begin() + size);
    in_.erase(in_.begin(), in_.begin() + size);
    return true;
}

int Client::next(std::vector<uint8_t>& frame, int timeoutMs) {
    if (fd_ < 0) return Unreachable;
    if (!aside_.empty()) {
        frame = std::move(aside_.front());
        aside_.erase(aside_.begin());
        return Ok;
    }
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int err;
        if (takeFrame(frame, &err)) return Ok;
        if (err != Ok) return err;
        int r = readSome(msLeft(end));
        if (r != Ok) return r;
    }
}

int Client::await(uint32_t requestNo, std::vector<uint8_t>& answer, int timeoutMs) {
    for (size_t i = 0; i < aside_.size(); ++i) {
        if (u32(aside_[i].data() + 8) == requestNo) {
            answer = std::move(aside_[i]);
            aside_.erase(aside_.begin() + long(i));
            return Ok;
        }
    }
    if (fd_ < 0) return Unreachable;
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int err;
        std::vector<uint8_t> frame;
        while (takeFrame(frame, &err)) {
            if (u32(frame.data() + 8) == requestNo) {
                answer = std::move(frame);
                return Ok;
            }
            // Keep a bounded number of stray answers: a console that never awaits them
            // must not grow without end.
            if (aside_.size() < 4096) aside_.push_back(std::move(frame));
        }
        if (err != Ok) return err;
        int r = readSome(msLeft(end));
        if (r != Ok) return r;
    }
}

int Client::call(uint32_t type, std::span<const uint8_t> body, std::vector<uint8_t>& answer, int timeoutMs) {
    uint32_t no = 0;
    int r = send(type, body, &no);
    if (r != Ok) return r;
    return await(no, answer, timeoutMs);
}

}  // namespace ksuec
