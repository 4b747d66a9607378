#pragma once

#include <cstdint>

namespace ScObjects {

// The header in which the answer to a ping repeats the question's serial number, so that a late
// answer is not taken for that to a newer question. Peers that do not know it leave it out.
inline constexpr const char* kPingNumberHeader = "Ping-Number";

// A number for a ping that no other ping of this process has, and few others have. Any thread.
uint32_t newPingNumber();

} // namespace ScObjects
