#pragma once

#include <glib-unix.h>
#include <glib.h>

#include "scriptobjects/convey/SoConvey.h"

namespace ScObjects::ConveyGLib {

// Lets a GLib main loop, such as that of a GTK program, serve the layer: handlers run in it, also
// in a loop within a handler (a dialog, say). `context` null: the default one. The number of the
// source, for g_source_remove (of the default context); 0 when the system gives no descriptor. The
// program links GLib itself. From any thread; the source outlasts the layer and serves it again
// when it is started again.
inline guint attach(GMainContext* context = nullptr) {
    const int descriptor = Convey::getPollDescriptor();
    if (descriptor < 0) {
        return 0;
    }
    GSource* const source = g_unix_fd_source_new(descriptor, G_IO_IN);
    const GUnixFDSourceFunc pump = [](gint, GIOCondition, gpointer) -> gboolean {
        (void)Convey::pump(kProcessBoth);
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(source, G_SOURCE_FUNC(pump), nullptr, nullptr);
    g_source_set_can_recurse(source, TRUE);
    g_source_set_name(source, "Convey");
    const guint number = g_source_attach(source, context);
    g_source_unref(source);
    return number;
}

} // namespace ScObjects::ConveyGLib
