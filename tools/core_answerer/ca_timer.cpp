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

uint64_t Timers::after(uint32_t ms, std::function<void()> f) {
    bool earliest;
    uint64_t id;
    {
        std::lock_guard g(lock_);
        auto due = Clock::now() + std::chrono::milliseconds(ms);
        id = next_++;
        earliest = q_.empty() || due < q_.begin()->first.first;
        q_.emplace(std::make_pair(due, id), std::move(f));
        due_.emplace(id, due);
    }
    // The thread sleeps until the earliest timer: only a new earliest one must wake it
    // (most timers are the same length and come in order, so most wake nothing).
    if (earliest) cv_.notify_one();
    return id;
}

void Timers::cancel(uint64_t id) {
    std::lock_guard g(lock_);
    auto it = due_.find(id);
    if (it == due_.end()) return;
    q_.erase(std::make_pair(it->second, id));
    due_.erase(it);
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
        auto first = q_.begin();
        // a copy: the entry may be cancelled while the lock is given up
        Clock::time_point due = first->first.first;
        if (Clock::now() < due) {
            cv_.wait_until(g, due);
            continue;
        }
        std::function<void()> f = std::move(first->second);
        due_.erase(first->first.second);
        q_.erase(first);
        g.unlock();
        f();
        g.lock();
    }
}

}  // namespace ca
