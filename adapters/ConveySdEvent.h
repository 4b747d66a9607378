#pragma once

#include <cerrno>
#include <cstdint>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "scriptobjects/convey/SoConvey.h"

namespace ScObjects::ConveySdEvent {

// Lets an sd-event loop serve the layer: handlers run in it. `source` receives the source, the
// caller's to be unreferenced; null: it lives as long as the loop. 0, or a negative errno value,
// -EMFILE when the system gives no descriptor. The program links libsystemd itself. On the thread
// of the loop.
inline int attach(sd_event* event, sd_event_source** source = nullptr) {
    const int descriptor = Convey::getPollDescriptor();
    if (descriptor < 0) {
        return -EMFILE;
    }
    const sd_event_io_handler_t pump = [](sd_event_source*, int, uint32_t, void*) {
        (void)Convey::pump(kProcessBoth);
        return 0;
    };
    return sd_event_add_io(event, source, descriptor, EPOLLIN, pump, nullptr);
}

} // namespace ScObjects::ConveySdEvent
