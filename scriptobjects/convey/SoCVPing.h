#pragma once

#include <cstdint>

#include "scriptobjects/core/SoString.h"

namespace ScObjects {

class CVResolution;

// Stands for every registered application where a ping names its target.
inline constexpr const char* kPingAll = "allRunningApps";

// A number for a ping that no other ping of this process has, and few others have. Any thread.
uint32_t newPingNumber();

namespace ConveyUtils {

// Convey::Thread::ping for a target that has been completed: is not completed again, and is not
// looked for where it is known. Any thread.
SoString pingResolved(const CVResolution& target, const SoString& key, int32_t timeoutSeconds,
                      const SoString* parameters);

} // namespace ConveyUtils

} // namespace ScObjects
