// What the socket engine's tests share: a started engine logging into a scratch
// directory, free ports, thread names, and a recorder of callbacks.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ks_test_util.h"
#include "mv_socket_engine.h"

namespace kse {

inline std::string& root() {
    static std::string r;
    return r;
}

class EngineEnv : public ::testing::Environment {
public:
    void SetUp() override {
        root() = kst::makeTempDir("sock");
        __init_morva_core();
        __mv_init_logger((root() + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
        __mv_socket_engine_init();
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", root().c_str());
        else kst::removeTree(root());
    }
};

inline std::string stackLog() { return kst::readLogDir(root() + "/logs//stk"); }

inline std::string threadName() {
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// A port nothing listens on right now, of the given socket type.
inline int freePort(int type = SOCK_STREAM, int family = AF_INET) {
    int fd = socket(family, type, 0);
    sockaddr_storage a{};
    socklen_t len;
    if (family == AF_INET6) {
        auto* a6 = reinterpret_cast<sockaddr_in6*>(&a);
        a6->sin6_family = AF_INET6;
        a6->sin6_addr = in6addr_loopback;
        len = sizeof *a6;
    } else {
        auto* a4 = reinterpret_cast<sockaddr_in*>(&a);
        a4->sin_family = AF_INET;
        a4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        len = sizeof *a4;
    }
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port)
                              : ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
}

// Calls and the threads they came on, for the checks of each test.
struct Recorder {
    std::mutex m;
    std::string bytes;
    std::vector<std::string> messages;
    std::vector<uint16_t> streams;
    std::vector<uint32_t> ppids;
    std::set<std::string> threads;
    std::atomic<int> accepts{0}, closes{0}, connects{0}, deliveries{0};

    void addThread() {
        std::lock_guard g(m);
        threads.insert(threadName());
    }
    size_t byteCount() {
        std::lock_guard g(m);
        return bytes.size();
    }
    size_t messageCount() {
        std::lock_guard g(m);
        return messages.size();
    }
    std::set<std::string> threadSet() {
        std::lock_guard g(m);
        return threads;
    }
};

}  // namespace kse
