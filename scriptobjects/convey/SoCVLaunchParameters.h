#pragma once

#include <cstdint>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyUtils {

// Collects the parameters with which a launcher started this application. True, with `parameters`
// empty, when no launcher waits for it, or none does any more after a slice of 4 seconds. Otherwise
// waits for some 12 seconds on the queue of this process, and for some 200 on that of the
// application; false when nothing arrived. The launcher keeps the port "haslaunchparams" of the
// application for as long. Called once, by the setup.
SO_EXPORT bool getLaunchParameters(const SoString& specifier, SoString& parameters);

// The suffix of the port that a launcher keeps open while parameters wait for the application.
inline constexpr const char* kPendingSuffix = "haslaunchparams";

// Waits at the port `queueName` for a message, in slices of 4 seconds until `seconds` are over, and
// wakes when it arrives; `parameters` is its body. True also when the port cannot be opened, and
// when `pendingName` has no owner any more, since nothing is pending then.
SO_EXPORT bool receiveLaunchParams(const SoString& queueName, SoString& parameters, int32_t seconds,
                                   const SoString& pendingName);

} // namespace ScObjects::ConveyUtils
