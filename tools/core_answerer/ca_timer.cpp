#include "ca_timer.h"

#include <pthread.h>

namespace ca {

void Timers::start() {
    std::lock_guard g(lock_);
    if (thread_.joinable()) return;
    stop_ = false;
    thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "ca_timers");
        run();
    });
}

void Timers::stop() {
    {
        std::lock_guard g(lock_);
        stop_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void Timers::after(uint32_t ms, std::function<void()> f) {
    bool earliest;
    {
        std::lock_guard g(lock_);
        auto due = Clock::now() + std::chrono::milliseconds(ms);
        earliest = q_.empty() || due < q_.top().due;
        q_.push(Entry{due, seq_++, std::move(f)});
    }
    // The thread sleeps until the earliest entry: only a new earliest one must wake it
    // (most timers are the same length and come in order, so most wake nothing).
    if (earliest) cv_.notify_one();
}

size_t Timers::pending() const {
    std::lock_guard g(lock_);
    return q_.size();
}

void Timers::run() {
    std::unique_lock g(lock_);
    while (!stop_) {
        if (q_.empty()) {
            cv_.wait(g);
            continue;
        }
        auto due = q_.top().due;
        if (Clock::now() < due) {
            cv_.wait_until(g, due);
            continue;
        }
        std::function<void()> f = std::move(q_.top().f);
        q_.pop();
        g.unlock();
        f();
        g.lock();
    }
}

}  // namespace ca
