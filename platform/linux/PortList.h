#pragma once

#include <cstddef>
#include <vector>

#include "platform/MessagePort.h"

namespace platform {

// What MessagePorts promises of the same names.
std::vector<PortDescription> listPorts();
size_t removeStalePorts();

} // namespace platform
