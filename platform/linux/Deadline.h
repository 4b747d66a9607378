#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/MessagePort.h"

namespace platform {

// The end of a wait, and what is left of it. One thread.
class Deadline {
public:
    using Time = std::chrono::steady_clock;

    // A day at most: the largest number of milliseconds, added to the clock, would be a moment in
    // the past.
    explicit Deadline(const SendTime& time)
        : seen_(Time::now()),
          end_(seen_ + bounded(time.milliseconds)),
          begunEnd_(seen_ + bounded(time.begunMilliseconds)),
          stop_(time.stop) {}
    // What the clock said when the wait began, or went on behind another. Each look costs.
    Time::time_point seen() const { return seen_; }
    void goOn() { seen_ = Time::now(); }
    Time::time_point end() const { return end_; }
    bool passed() const { return Time::now() >= end_ || (stop_ != nullptr && *stop_); }
    // Of the next wait. Rounded up: one that ends early would be repeated without pause.
    int leftMilliseconds() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Time::now());
        const auto most = stop_ != nullptr ? kStopLook : kMost;
        return static_cast<int>(std::clamp<int64_t>(left.count(), 0, most.count()));
    }
    // The target has begun to take a text in parts.
    void begun() { end_ = std::max(end_, begunEnd_); }

private:
    static constexpr std::chrono::milliseconds kMost = std::chrono::hours(24);
    static constexpr std::chrono::milliseconds kStopLook{100};

    static std::chrono::milliseconds bounded(int64_t milliseconds) {
        return std::clamp(std::chrono::milliseconds(milliseconds), kMost * 0, kMost);
    }

    Time::time_point seen_;
    Time::time_point end_;
    Time::time_point begunEnd_;
    const std::atomic<bool>* stop_;
};

} // namespace platform
