// Misbehaviour on request: rules that act on messages of one kind, from the command
// line or the control channel, each for a number of messages or for good.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ca {

enum class KnobAction : uint8_t { Drop, Delay, BadMac, Plain, Status, Ignore, Reject };

struct Knob {
    KnobAction action;
    std::string kind;    // a NAS or NGAP message name as the codecs spell it
    uint32_t arg = 0;    // milliseconds for delay, a cause for status and reject
    bool hasArg = false;
    uint32_t left = 0;   // messages still to act on; 0 for good
    uint64_t used = 0;
};

class Knobs {
public:
    // "drop AuthenticationRequest 1"; false with the reason in err.
    bool add(std::string_view line, std::string& err);
    void clear();
    std::string list() const;
    // True when a knob of that action acts on a message of that kind; counts one use
    // and gives its argument.
    bool take(KnobAction a, std::string_view kind, uint32_t* arg = nullptr, bool* hasArg = nullptr);
    bool empty() const { return count_.load(std::memory_order_relaxed) == 0; }

private:
    mutable std::mutex lock_;
    std::vector<Knob> knobs_;
    std::atomic<size_t> count_{0};
};

// The codecs' spelling of a message name given in any case; "" when no codec has it.
std::string canonicalKind(std::string_view name);

}  // namespace ca
