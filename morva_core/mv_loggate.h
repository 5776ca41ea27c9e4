// A gate for log lines of one kind that a peer can provoke at will (bad datagrams): at most
// kPerSecond lines a second go out, so a flood costs counters, not disk; the next line that
// passes says how many were left out.
#pragma once

#include <cstdint>
#include <mutex>

class MV_LogGate {
public:
    static constexpr int kPerSecond = 10;
    // True when the line may go out; `skipped` then holds the lines left out before it.
    bool pass(int64_t nowMs, uint64_t& skipped) {
        std::lock_guard g(m_);
        if (nowMs / 1000 != second_) {
            second_ = nowMs / 1000;
            n_ = 0;
        }
        if (n_ >= kPerSecond) {
            ++skipped_;
            return false;
        }
        ++n_;
        skipped = skipped_;
        skipped_ = 0;
        return true;
    }

private:
    std::mutex m_;
    int64_t second_ = -1;
    int n_ = 0;
    uint64_t skipped_ = 0;
};
