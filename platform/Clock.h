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

    static Clock& own();
};

} // namespace platform
