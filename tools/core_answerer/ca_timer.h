// One thread that runs callbacks at their time, to the millisecond: NAS
// retransmission timers and delayed sends. A callback that no longer applies finds
// so itself (timers are never cancelled, they check what they were for).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace ca {

class Timers {
public:
    using Clock = std::chrono::steady_clock;
    Timers() = default;
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;
    ~Timers() { stop(); }

    void start();
    void stop();
    void after(uint32_t ms, std::function<void()> f);
    size_t pending() const;

private:
    struct Entry {
        Clock::time_point due;
        uint64_t seq;
        mutable std::function<void()> f;  // moved out when it runs
        bool operator>(const Entry& o) const { return due != o.due ? due > o.due : seq > o.seq; }
    };
    void run();

    mutable std::mutex lock_;
    std::condition_variable cv_;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> q_;
    uint64_t seq_ = 0;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace ca
