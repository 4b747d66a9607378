#pragma once

#include <cstdint>

#include "platform/Service.h"

namespace platform {

// The clocks. Porting contract: no call blocks or fails. Threads: any.
class Clock : public Service<Clock> {
public:
    virtual ~Clock() = default;

    // Milliseconds since 1970 UTC; follows the user's and the network's corrections, back too.
    virtual int64_t utcMilliseconds() const = 0;

    // Milliseconds since a moment before the process started; never goes back. For waits.
    virtual int64_t monotonicMilliseconds() const = 0;

    // The time of day, in the user's time zone, of the moment `seconds` after 1970 UTC; all 0 when
    // the system cannot tell.
    struct TimeOfDay {
        int32_t hour = 0;
        int32_t minute = 0;
        int32_t second = 0;
    };
    virtual TimeOfDay localTimeOfDay(int64_t seconds) const = 0;

    static Clock& own();
};

// `monotonicMilliseconds` of the clock that the process uses.
inline int64_t monotonicNow() {
    return Clock::system().monotonicMilliseconds();
}

} // namespace platform
