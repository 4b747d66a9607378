#pragma once

#include <cstdint>

#include "platform/Service.h"

namespace platform {

// Processes of this machine. Porting contract: no call blocks. Threads: any.
class Processes : public Service<Processes> {
public:
    virtual ~Processes() = default;

    // The number of the calling process; another one in a child after fork.
    virtual uint32_t ownNumber() const = 0;

    static Processes& own();
};

} // namespace platform
