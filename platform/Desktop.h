#pragma once

#include <cstdint>
#include <string>

#include "limits/Limits.h"
#include "platform/Service.h"

namespace platform {

// The user's desktop: whose window is in front, and what opens addresses.
//
// Porting contract: without a desktop, a window manager or the libraries to talk to them nothing
// happens and the answer is the neutral one; that is not reported. A call waits at most
// kMaximumWaitMilliseconds for a desktop that does not answer. Threads: any.
class Desktop : public Service<Desktop> {
public:
    static constexpr int64_t kMaximumWaitMilliseconds = limits::of("desktop.wait");

    virtual ~Desktop() = default;

    // Raises the topmost window of the process, or of its session, and gives it the focus; false
    // when it has none.
    virtual bool bringToFront(uint32_t process) = 0;

    // The window that has the focus, 0 when there is none or that cannot be found out.
    virtual uint32_t frontWindow() = 0;

    // Puts the first window of a process that is starting behind the others, gives the focus back
    // to `frontWindow` (0: to nobody), and does so again when the window takes it at once; for the
    // first seconds of the process. Returns without waiting for that.
    virtual void keepBehind(uint32_t process, uint32_t frontWindow) = 0;

    static Desktop& own();
};

} // namespace platform
