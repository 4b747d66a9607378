#include "platform/linux/DesktopEntry.h"

#include <fcntl.h>
#include <sys/types.h>

#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessStart.h"
#include "platform/linux/RunTimeLibrary.h"

namespace platform {
namespace {

// The part of GIO that knows desktop entries: quoting, field codes, TryExec, Path, Terminal. It is
// loaded at run time, and its interface is stable, so that its headers, which differ from one
// architecture to the next, need not be there.
struct Gio {
    // As GLib lays it out (GError).
    struct Error {
        uint32_t domain;
        int code;
        char* message;
    };
    using NewFromFilename = void*(const char*);
    using NewContext = void*();
    using SetVariable = void(void*, const char*, const char*);
    using UnsetVariable = void(void*, const char*);
    using InChild = void(void*);
    using Started = void(void*, pid_t, void*);
    using Launch = int(void* info, void* files, void* context, int flags, InChild*, void* childData,
                       Started*, void* startedData, int in, int out, int err, Error** error);
    using Unref = void(void*);
    using FreeError = void(Error*);

    static constexpr int kSearchPath = 1 << 2; // G_SPAWN_SEARCH_PATH

    NewFromFilename* newFromFilename = nullptr;
    NewContext* newContext = nullptr;
    SetVariable* setVariable = nullptr;
    UnsetVariable* unsetVariable = nullptr;
    Launch* launch = nullptr;
    Unref* unref = nullptr;
    FreeError* freeError = nullptr;
    bool usable = false;

    Gio() {
        const RunTimeLibrary gio({"libgio-2.0.so.0"});
        const RunTimeLibrary gobject({"libgobject-2.0.so.0"});
        const RunTimeLibrary glib({"libglib-2.0.so.0"});
        // The last of these is the youngest: a GIO without it lets nobody say what the child's
        // standard descriptors are.
        usable = gio.get("g_desktop_app_info_new_from_filename", newFromFilename) &&
                 gio.get("g_app_launch_context_new", newContext) &&
                 gio.get("g_app_launch_context_setenv", setVariable) &&
                 gio.get("g_app_launch_context_unsetenv", unsetVariable) &&
                 gio.get("g_desktop_app_info_launch_uris_as_manager_with_fds", launch) &&
                 gobject.get("g_object_unref", unref) && glib.get("g_error_free", freeError);
    }
    static const Gio& instance() {
        static const auto* const gio = new Gio;
        return *gio;
    }
};

} // namespace

uint32_t startDesktopEntry(const std::string& path, const SessionEnvironment& environment,
                           std::string& reason) {
    const Gio& gio = Gio::instance();
    if (!gio.usable) {
        reason = "the GIO library is not installed";
        return 0;
    }
    void* const info = gio.newFromFilename(path.c_str());
    // The library says no more: it also refuses an entry whose TryExec or program is not there.
    if (info == nullptr) {
        reason = "it is no desktop entry of an installed program";
        return 0;
    }
    void* const context = gio.newContext();
    // The library starts from this process's environment, so it is told the differences only.
    for (const std::string& name : environment.removed) {
        gio.unsetVariable(context, name.c_str());
    }
    for (const std::string& entry : environment.added) {
        const size_t equals = entry.find('=');
        gio.setVariable(context, entry.substr(0, equals).c_str(), entry.c_str() + equals + 1);
    }
    const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    uint32_t number = 0;
    Gio::Error* error = nullptr;
    // The library starts it by way of a child in between, so that it has no parent here, and closes
    // what is open.
    const int started = gio.launch(
        info, nullptr, context, Gio::kSearchPath, [](void*) { becomeSession(); }, nullptr,
        [](void*, pid_t child, void* out) {
            *static_cast<uint32_t*>(out) = static_cast<uint32_t>(child);
        },
        &number, null.get(), null.get(), null.get(), &error);
    if (started == 0) {
        number = 0;
        reason = error != nullptr ? error->message : "it does not start";
    }
    if (error != nullptr) {
        gio.freeError(error);
    }
    gio.unref(context);
    gio.unref(info);
    return number;
}

} // namespace platform
