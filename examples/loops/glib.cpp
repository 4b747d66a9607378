// A GLib program without a window that takes part until SIGTERM.
#include <cstdio>

#include "Greeter.h"
#include "adapters/ConveyGLib.h"

using ScObjects::Convey;

int main() {
    Convey::Messenger messenger("glib-1.0");
    greet(messenger, [](const std::string& body) { std::puts(body.c_str()); });
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    if (ScObjects::ConveyGLib::attach() == 0) {
        return 1;
    }
    const GSourceFunc quit = [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_REMOVE;
    };
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
