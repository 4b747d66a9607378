#pragma once

#include <cstddef>

#include "platform/Service.h"

namespace platform {

// Randomness that nobody can foresee.
//
// Porting contract: may wait for the system's generator once, at the start of the machine.
// Threads: any.
class Random : public Service<Random> {
public:
    virtual ~Random() = default;

    // Fills `out` with `bytes` random bytes, at most 256; false when the system gives none.
    [[nodiscard]] virtual bool fill(void* out, size_t bytes) = 0;

    static Random& own();
};

} // namespace platform
