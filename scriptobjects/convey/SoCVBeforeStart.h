#pragma once

#include <cstdint>

#include "scriptobjects/core/SoString.h"

// For a process that asks one thing and ends. A start makes a thread and two ports, reads what is
// registered and looks for launch parameters; who lists applications or asks whether one runs needs
// little of that. `own` is the name under which the process is going to start the layer. Only
// before the start, by the thread that makes it, which takes over or takes down what these have
// opened, as the end of the process does. Nothing is thrown.
namespace ScObjects::ConveyUtils {

// Reads what is registered, for the static functions of `Convey` that tell of it. False when only
// the started layer can tell all of it: when a name without a version is registered, which stands
// for what runs or for what goes with the asker; or without memory.
bool readRegistryBeforeStart(const SoString& own) noexcept;

// Asks a target for a sign of life. True when that has found the answer, which is the one that
// Convey::Thread::ping would give; `answer` is written then only. False when the layer has to be
// started to find it, for a name without a version. What is registered is read only where the
// answer depends on it. Waits `timeoutSeconds` at most, then the answer is "Timeout".
bool pingBeforeStart(const SoString& own, const char* target, int32_t timeoutSeconds,
                     SoString& answer) noexcept;

} // namespace ScObjects::ConveyUtils
