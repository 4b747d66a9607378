// A program with an sd-event loop that takes part until SIGTERM.
#include <csignal>
#include <cstdio>

#include "Greeter.h"
#include "adapters/ConveySdEvent.h"

using ScObjects::Convey;

int main() {
    sigset_t requests;
    sigemptyset(&requests);
    sigaddset(&requests, SIGTERM);
    sigprocmask(SIG_BLOCK, &requests, nullptr); // the loop takes it from a descriptor
    sd_event* event = nullptr;
    Convey::Messenger messenger("sdevent-1.0");
    if (sd_event_default(&event) < 0) {
        return 1;
    }
    greet(messenger, [](const std::string& body) { std::puts(body.c_str()); });
    if (ScObjects::ConveySdEvent::attach(event) < 0 ||
        sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr) < 0) { // null: ends the loop
        return 1;
    }
    const int status = sd_event_loop(event);
    sd_event_unref(event);
    return status;
}
