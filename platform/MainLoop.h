#pragma once

#include <memory>

#include "platform/Service.h"

namespace platform {

// A descriptor that is readable while it is raised, for a main loop that watches descriptors.
//
// Porting contract: raising and lowering do not block; to raise what is raised changes nothing.
// What is joined to it makes it readable, too, for as long as it is readable itself. In a child
// after fork there is no descriptor. Threads: any.
class PollSignal {
public:
    virtual ~PollSignal() = default;
    // -1 in a child after fork. Others may watch it, and nothing else.
    virtual int descriptor() const = 0;
    virtual void raise() = 0;
    // Whether it was raised.
    virtual bool lower() = 0;
    // Joins another descriptor (`LocalPort::descriptor`) to it, or parts them; the owner of that
    // parts them before it closes it. False when that cannot be, as with -1.
    virtual bool join(int descriptor, bool on) = 0;
};

// The wish of a person or of the system that this process ends, kept from ending it at once while
// the object exists, on the thread that made it. Threads that the layer starts never take it.
class EndRequests {
public:
    virtual ~EndRequests() = default;
    // Waits until `signal` is raised, or while waiting fails for a moment: 0; or until the process
    // is asked to end: the system's number of the request (SIGINT, SIGTERM). One thread: that which
    // made the object.
    virtual int wait(const PollSignal& signal) = 0;
};

// What a main loop needs of the system. Threads: any.
class MainLoops : public Service<MainLoops> {
public:
    virtual ~MainLoops() = default;
    // Null when the system gives none, which is reported.
    [[nodiscard]] virtual std::unique_ptr<PollSignal> newSignal() = 0;
    [[nodiscard]] virtual std::unique_ptr<EndRequests> takeEndRequests() = 0;

    static MainLoops& own();
};

} // namespace platform
