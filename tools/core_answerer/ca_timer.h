// One thread that runs callbacks at their time, to the millisecond: NAS
// retransmission timers and delayed sends. A timer cancelled before its time never
// runs, so the many that procedures stop on time cost no wake-up and no lock of the
// answerer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

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
    // Runs f on the timer thread after ms; the timer's id, never 0.
    uint64_t after(uint32_t ms, std::function<void()> f);
    // A timer that has not run yet will not; an id that ran or is unknown is ignored.
    void cancel(uint64_t id);
    size_t pending() const;

private:
    void run();

    mutable std::mutex lock_;
    std::condition_variable cv_;
    std::map<std::pair<Clock::time_point, uint64_t>, std::function<void()>> q_;
    std::unordered_map<uint64_t, Clock::time_point> due_;
    uint64_t next_ = 1;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace ca
