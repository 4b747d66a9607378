#pragma once

#include <thread>

#include "platform/Service.h"

namespace platform {

// Starts threads. Mutexes, conditions and sleeps are the standard library's; only the start can
// fail, and a test must be able to make it.
//
// A signal that is meant for the process never runs its handler on such a thread, and never ends
// the process because of it: a host decides about its signals by what its own threads block.
//
// Porting contract: does not block, starts at once. Threads: any.
class Threads : public Service<Threads> {
public:
    virtual ~Threads() = default;

    // Runs `entry(argument)` on a new thread. True: `out` is that thread, to be joined. False, and
    // `out` left alone, when the system gives no thread.
    [[nodiscard]] virtual bool start(std::thread& out, void (*entry)(void*), void* argument) = 0;

    static Threads& own();
};

} // namespace platform
