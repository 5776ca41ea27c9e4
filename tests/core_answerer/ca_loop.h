// The answerer and the scripted gNB joined in memory: what one sends goes on a queue
// that one pump thread delivers to the other, so a test sees whole procedures run with
// no socket, in order, and without waiting on a network.
#pragma once

#include <condition_variable>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "ca_amf.h"
#include "ca_driver.h"

namespace cat {

class Loop {
public:
    // args: the answerer's command line after the program name.
    explicit Loop(std::vector<std::string> args, cad::Driver::Config dc = {}) : drv(dc) {
        std::vector<char*> argv{const_cast<char*>("core_answerer")};
        for (auto& a : args) argv.push_back(a.data());
        std::string err;
        ok = ca::parseOptions(int(argv.size()), argv.data(), opt, err) &&
             subs.load(opt.subscribers.empty() ? KS_UEL : opt.subscribers, opt.sqn, err);
        ca::Transport t;
        t.send = [this](ca::AssocKey, uint16_t stream, const uint8_t* p, size_t n) {
            push(false, stream, p, n);
            return int(n);
        };
        t.close = [this](ca::AssocKey) { push(false, 0xFFFF, nullptr, 0); };
        amf = std::make_unique<ca::Amf>(opt, subs, counters, knobs, timers, t);
        ok = ok && amf->init(err);
        error = err;
        drv.send = [this](uint16_t stream, const uint8_t* p, size_t n) {
            push(true, stream, p, n);
            return int(n);
        };
        timers.start();
        amf->onAccept(key(), "memory");
        pump_ = std::thread([this] { run(); });
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() {
        {
            std::lock_guard g(m_);
            stop_ = true;
        }
        cv_.notify_all();
        pump_.join();
        timers.stop();
        amf.reset();
    }

    bool setup(double seconds = 10) {
        drv.ngSetup();
        return waitFor([&] { return drv.setupDone(); }, seconds);
    }
    // A counter of the answerer by its name, 0 when it never moved.
    uint64_t counter(const std::string& name) {
        std::istringstream in(counters.text());
        std::string w, n;
        uint64_t v;
        while (in >> w && w == "COUNTER" && in >> n >> v)
            if (n == name) return v;
        return 0;
    }
    // Waits until the pump has nothing left, twice in a row (timers may add more).
    void settle() {
        for (int quiet = 0; quiet < 2;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            std::lock_guard g(m_);
            quiet = q_.empty() && !busy_ ? quiet + 1 : 0;
        }
    }
    template <class F>
    static bool waitFor(F&& pred, double seconds) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        while (!pred()) {
            if (std::chrono::steady_clock::now() >= end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    ca::AssocKey key() const { return this; }

    bool ok = false;
    std::string error;
    ca::Options opt;
    ca::Subscribers subs;
    ca::Counters counters;
    ca::Knobs knobs;
    ca::Timers timers;
    std::unique_ptr<ca::Amf> amf;
    cad::Driver drv;
    // CPU time of each side's handling of what it received (and what it sent in turn).
    std::atomic<uint64_t> amfNs{0}, drvNs{0};

private:
    struct Item {
        bool toAmf;
        uint16_t stream;
        cad::Bytes bytes;
    };
    void push(bool toAmf, uint16_t stream, const uint8_t* p, size_t n) {
        {
            std::lock_guard g(m_);
            q_.push_back(Item{toAmf, stream, p ? cad::Bytes(p, p + n) : cad::Bytes()});
        }
        cv_.notify_one();
    }
    static uint64_t threadCpuNs() {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return uint64_t(t.tv_sec) * 1000000000ull + uint64_t(t.tv_nsec);
    }
    void run() {
        std::unique_lock g(m_);
        for (;;) {
            cv_.wait(g, [&] { return stop_ || !q_.empty(); });
            if (stop_) return;
            Item it = std::move(q_.front());
            q_.pop_front();
            busy_ = true;
            g.unlock();
            uint64_t t0 = threadCpuNs();
            if (it.stream == 0xFFFF && it.bytes.empty()) {  // the answerer ended the association
                amf->onClose(key());
                amf->onAccept(key(), "memory");
            } else if (it.toAmf) {
                amf->onMessage(key(), it.stream, it.bytes);
            } else {
                drv.receive(it.stream, it.bytes);
            }
            (it.toAmf ? amfNs : drvNs) += threadCpuNs() - t0;
            g.lock();
            busy_ = false;
        }
    }

    std::mutex m_;
    std::condition_variable cv_;
    std::deque<Item> q_;
    bool stop_ = false, busy_ = false;
    std::thread pump_;
};

}  // namespace cat
