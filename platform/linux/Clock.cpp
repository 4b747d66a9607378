#include "platform/Clock.h"

#include <ctime>

namespace platform {
namespace {

int64_t millisecondsOf(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now); // fails only for clocks that the kernel does not have
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

class LinuxClock final : public Clock {
public:
    int64_t utcMilliseconds() const override { return millisecondsOf(CLOCK_REALTIME); }
    int64_t monotonicMilliseconds() const override { return millisecondsOf(CLOCK_MONOTONIC); }

    TimeOfDay localTimeOfDay(int64_t seconds) const override {
        const auto time = static_cast<time_t>(seconds);
        std::tm local{};
        if (localtime_r(&time, &local) == nullptr) {
            return {}; // fails only for years that no int holds, and no clock shows
        }
        return {local.tm_hour, local.tm_min, local.tm_sec};
    }
};

} // namespace

Clock& Clock::own() {
    // Never destroyed, as all services: threads may still ask while the process ends.
    static auto* const clock = new LinuxClock;
    return *clock;
}

} // namespace platform
