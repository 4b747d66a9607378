#include "platform/Processes.h"

#include <unistd.h>

namespace platform {
namespace {

class LinuxProcesses final : public Processes {
public:
    uint32_t ownNumber() const override { return static_cast<uint32_t>(getpid()); }
};

} // namespace

Processes& Processes::own() {
    static auto* const processes = new LinuxProcesses;
    return *processes;
}

} // namespace platform
