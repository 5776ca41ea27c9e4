// A UPF answering from C++ on a loopback address: associations, heartbeats and the session
// requests, fast enough to stand behind a benchmark, with the faults a real UPF will not make
// on request. It keeps every datagram it received (up to a limit) for tshark.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "pfcp_codec.h"

namespace kps {

using Bytes = std::vector<uint8_t>;

class FastUpf {
public:
    enum class Session { Accept, Reject, Silent, WrongSeid, NoCause };

    std::atomic<Session> mode{Session::Accept};
    std::atomic<uint64_t> establishments{0}, modifications{0}, deletions{0}, reportAnswers{0}, associations{0},
        heartbeats{0}, forwardingChanges{0};
    size_t keepAtMost = 4000;
    std::atomic<int64_t> cpuNs{0};  // the answering thread's CPU time so far

    FastUpf(std::string ip, int port) : ip_(std::move(ip)), port_(port) {}
    ~FastUpf() { stop(); }

    bool start() {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        if (fd_ < 0) return false;
        int big = 8 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port_));
        inet_pton(AF_INET, ip_.c_str(), &a.sin_addr);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return false;
        thread_ = std::thread([this] { loop(); });
        return true;
    }
    void stop() {
        if (!thread_.joinable()) return;
        stop_ = true;
        thread_.join();
        close(fd_);
    }

    std::vector<Bytes> received() {
        std::lock_guard g(mu_);
        return received_;
    }
    size_t openSessions() {
        std::lock_guard g(mu_);
        return sessions_.size();
    }
    // The UPF's SEID of the session whose SMF SEID is `cpSeid`, 0 when none.
    uint64_t upfSeidOf(uint64_t cpSeid) {
        std::lock_guard g(mu_);
        auto it = upOfCp_.find(cpSeid);
        return it == upOfCp_.end() ? 0 : it->second;
    }

    // A Session Report Request with a usage report of `urrId` for the session of SMF SEID `cpSeid`.
    bool sendReport(uint64_t cpSeid, uint32_t urrId) {
        auto m = std::make_unique<pfcp_message_t>();
        m->h.type = PFCP_SESSION_REPORT_REQUEST_TYPE;
        m->h.flags.seid_presence = 1;
        m->h.seid = cpSeid;
        m->h.sqn = ++seq_;
        auto& r = m->pfcp_session_report_request;
        r.report_type = {1, PFCP_REPORT_TYPE_USAR};
        r.usage_report.presence = 1;
        r.usage_report.urr_id = {1, urrId};
        static const uint8_t seqn[] = {0, 0, 0, 1}, trig[] = {0, 1, 0};
        r.usage_report.ur_seqn = {1, seqn, 4};
        r.usage_report.usage_report_trigger = {1, trig, 3};
        return send(m.get());
    }

private:
    bool send(const pfcp_message_t* m) {
        uint8_t out[4096];
        int n = pfcp_encode_message(m, out);
        if (n < 0 || !havePeer_) return false;
        return sendto(fd_, out, size_t(n), 0, reinterpret_cast<const sockaddr*>(&peer_), sizeof peer_) == n;
    }

    void keep(const uint8_t* p, size_t n) {
        std::lock_guard g(mu_);
        if (received_.size() < keepAtMost) received_.emplace_back(p, p + n);
    }

    void loop() {
        auto in = std::make_unique<pfcp_message_t>();
        auto out = std::make_unique<pfcp_message_t>();
        uint8_t buf[65536];
        while (!stop_) {
            timespec ts;
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
            cpuNs = int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
            pollfd pf{fd_, POLLIN, 0};
            if (poll(&pf, 1, 50) <= 0) continue;
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fl);
            if (n <= 0) continue;
            peer_ = from;
            havePeer_ = true;
            keep(buf, size_t(n));
            if (pfcp_decode_datagram(std::span<const uint8_t>(buf, size_t(n)), in.get()) != 1) continue;
            memset(out.get(), 0, sizeof *out);
            if (answer(in.get(), out.get())) send(out.get());
        }
    }

    bool answer(const pfcp_message_t* in, pfcp_message_t* out) {
        static const uint8_t nodeId[] = {0, 127, 0, 0, 1};
        out->h.sqn = in->h.sqn;
        out->h.type = uint8_t(in->h.type + 1);
        switch (in->h.type) {
            case PFCP_HEARTBEAT_REQUEST_TYPE:
                ++heartbeats;
                out->pfcp_heartbeat_response.recovery_time_stamp = {1, 3911484802u};
                return true;
            case PFCP_ASSOCIATION_SETUP_REQUEST_TYPE: {
                ++associations;
                auto& r = out->pfcp_association_setup_response;
                r.node_id = {1, nodeId, sizeof nodeId};
                r.cause = {1, PFCP_CAUSE_REQUEST_ACCEPTED};
                r.recovery_time_stamp = {1, 3911484802u};
                return true;
            }
            case PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE: return establish(in, out);
            case PFCP_SESSION_MODIFICATION_REQUEST_TYPE: {
                Session m = mode;
                if (m == Session::Silent) return false;
                ++modifications;
                if (in->pfcp_session_modification_request.update_far[0].presence) ++forwardingChanges;
                out->h.flags.seid_presence = 1;
                out->h.seid = cpOf(in->h.seid) + (m == Session::WrongSeid ? 999999 : 0);
                if (m != Session::NoCause)
                    out->pfcp_session_modification_response.cause = {
                        1, uint8_t(m == Session::Reject ? PFCP_CAUSE_REQUEST_REJECTED : PFCP_CAUSE_REQUEST_ACCEPTED)};
                return true;
            }
            case PFCP_SESSION_DELETION_REQUEST_TYPE: {
                Session m = mode;
                if (m == Session::Silent) return false;
                ++deletions;
                out->h.flags.seid_presence = 1;
                {
                    std::lock_guard g(mu_);
                    auto it = sessions_.find(in->h.seid);
                    out->h.seid = it == sessions_.end() ? 0 : it->second;
                    if (it != sessions_.end()) {
                        upOfCp_.erase(it->second);
                        sessions_.erase(it);
                    }
                }
                if (m == Session::WrongSeid) out->h.seid += 999999;
                out->pfcp_session_deletion_response.cause = {1, PFCP_CAUSE_REQUEST_ACCEPTED};
                return true;
            }
            case PFCP_SESSION_REPORT_RESPONSE_TYPE: ++reportAnswers; return false;
            default: return false;
        }
    }

    uint64_t cpOf(uint64_t upSeid) {
        std::lock_guard g(mu_);
        auto it = sessions_.find(upSeid);
        return it == sessions_.end() ? 0 : it->second;
    }

    bool establish(const pfcp_message_t* in, pfcp_message_t* out) {
        Session m = mode;
        if (m == Session::Silent) return false;
        ++establishments;
        uint64_t cp = 0;
        uint32_t ip = 0;
        if (!pfcp_read_f_seid(in->pfcp_session_establishment_request.cp_f_seid, cp, ip)) return false;
        uint64_t up = 0;
        {
            std::lock_guard g(mu_);
            // A repeated establishment of a session keeps its SEID.
            auto it = upOfCp_.find(cp);
            if (it != upOfCp_.end()) up = it->second;
            if (!up) {
                up = nextSeid_++;
                sessions_[up] = cp;
                upOfCp_[cp] = up;
            }
        }
        out->h.flags.seid_presence = 1;
        out->h.seid = cp + (m == Session::WrongSeid ? 999999 : 0);
        auto& r = out->pfcp_session_establishment_response;
        static const uint8_t nodeId[] = {0, 127, 0, 0, 1};
        r.node_id = {1, nodeId, sizeof nodeId};
        if (m != Session::NoCause)
            r.cause = {1, uint8_t(m == Session::Reject ? PFCP_CAUSE_REQUEST_REJECTED : PFCP_CAUSE_REQUEST_ACCEPTED)};
        pfcp_f_seid_ipv4(fseid_, up, 0x7F000001);
        r.up_f_seid = {1, fseid_, 13};
        return true;
    }

    std::string ip_;
    int port_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mu_;
    std::vector<Bytes> received_;
    std::unordered_map<uint64_t, uint64_t> sessions_;  // UPF SEID to SMF SEID
    std::unordered_map<uint64_t, uint64_t> upOfCp_;
    uint64_t nextSeid_ = 0xABC00001;
    std::atomic<uint32_t> seq_{7000};
    sockaddr_in peer_{};
    std::atomic<bool> havePeer_{false};
    uint8_t fseid_[13];
};

}  // namespace kps
