#include "platform/Random.h"

#include <sys/random.h>

namespace platform {
namespace {

class LinuxRandom final : public Random {
public:
    bool fill(void* out, size_t bytes) override {
        // Requests of up to 256 bytes are served whole, signals or not.
        return getrandom(out, bytes, 0) == static_cast<ssize_t>(bytes);
    }
};

} // namespace

Random& Random::own() {
    static auto* const random = new LinuxRandom;
    return *random;
}

} // namespace platform
