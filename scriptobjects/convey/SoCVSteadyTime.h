#pragma once

#include <cstdint>

namespace ScObjects::ConveyUtils {

// For deadlines: milliseconds since 1970 as the clock was when this was first asked, and as many
// more as have passed since, however the time of day is set. Any thread.
int64_t getSteadyMilliseconds();

// The moment in steady milliseconds at which `getTimeSeconds` is `seconds`, as the time of day is
// now. Any thread.
int64_t toSteadyMilliseconds(int64_t seconds);

} // namespace ScObjects::ConveyUtils
