#include "platform/Threads.h"

#include <new>
#include <system_error>

namespace platform {
namespace {

class LinuxThreads final : public Threads {
public:
    bool start(std::thread& out, void (*entry)(void*), void* argument) override {
        try {
            out = std::thread(entry, argument);
            return true;
        } catch (const std::system_error&) {
            return false;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
};

} // namespace

Threads& Threads::own() {
    static auto* const threads = new LinuxThreads;
    return *threads;
}

} // namespace platform
