// A GTK program: its label shows what others send to it.
#include <gtk/gtk.h>

#include "Greeter.h"
#include "adapters/ConveyGLib.h"

using ScObjects::Convey;

namespace {

void activate(GtkApplication* application, gpointer data) {
    GtkWidget* const window = gtk_application_window_new(application);
    GtkWidget* const label = gtk_label_new("nobody has spoken yet");
    gtk_window_set_title(GTK_WINDOW(window), "gtk-1.0");
    gtk_window_set_default_size(GTK_WINDOW(window), 320, 120);
    gtk_window_set_child(GTK_WINDOW(window), label);
    greet(*static_cast<Convey::Messenger*>(data),
          [label](const std::string& body) { gtk_label_set_text(GTK_LABEL(label), body.c_str()); });
    gtk_window_present(GTK_WINDOW(window));
}

} // namespace

int main(int argc, char** argv) {
    Convey::Messenger messenger("gtk-1.0");
    GtkApplication* const application =
        gtk_application_new("example.convey.gtk", G_APPLICATION_NON_UNIQUE);
    g_signal_connect(application, "activate", G_CALLBACK(activate), &messenger);
    if (ScObjects::ConveyGLib::attach() == 0) {
        return 1;
    }
    const GSourceFunc quit = [](gpointer data) -> gboolean {
        g_application_quit(G_APPLICATION(data));
        return G_SOURCE_REMOVE;
    };
    g_unix_signal_add(SIGTERM, quit, application);
    const int status = g_application_run(G_APPLICATION(application), argc, argv);
    g_object_unref(application);
    return status;
}
