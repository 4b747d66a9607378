#include "scriptobjects/convey/SoCVSteadyTime.h"

#include "platform/Clock.h"

namespace ScObjects::ConveyUtils {

int64_t getSteadyMilliseconds() {
    const platform::Clock& clock = platform::Clock::system();
    // So that both clocks begin a second at the same moment.
    static const int64_t start = clock.utcMilliseconds() - clock.monotonicMilliseconds();
    return start + clock.monotonicMilliseconds();
}

int64_t toSteadyMilliseconds(int64_t seconds) {
    const int64_t ahead = seconds * 1000 - platform::Clock::system().utcMilliseconds();
    return getSteadyMilliseconds() + ahead;
}

} // namespace ScObjects::ConveyUtils
