#pragma once

#include <atomic>

namespace platform {

// The implementation in force of one service: the system's own, unless a test has put another in
// its place. `Interface` supplies `static Interface& own()`, which builds the system's own
// implementation once and never destroys it, because threads may use it while the process exits.
//
// Threads: any. A replacement must outlive every use of it.
template <class Interface>
class Service {
public:
    // The implementation in force.
    static Interface& system() {
        Interface* other = replacement_.load(std::memory_order_acquire);
        return other != nullptr ? *other : Interface::own();
    }

    // Puts `other` (not owned) in force, null the system's own again.
    static void replace(Interface* other) { replacement_.store(other, std::memory_order_release); }

private:
    static inline constinit std::atomic<Interface*> replacement_{nullptr};
};

// Puts a replacement in force for the life of a block; for tests.
template <class Interface>
class ScopedReplacement {
public:
    explicit ScopedReplacement(Interface& other) { Service<Interface>::replace(&other); }
    ~ScopedReplacement() { Service<Interface>::replace(nullptr); }
    ScopedReplacement(const ScopedReplacement&) = delete;
    ScopedReplacement& operator=(const ScopedReplacement&) = delete;
};

} // namespace platform
