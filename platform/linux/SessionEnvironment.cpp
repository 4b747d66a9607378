#include "platform/linux/SessionEnvironment.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/ProcessStart.h"

extern char** environ; // NOLINT(readability-redundant-declaration): POSIX leaves it to its users

namespace platform {
namespace {

// Meant for the process that has them: its terminal, its service manager, its own start.
constexpr const char* kOwn[] = {"_",
                                "COLUMNS",
                                kStartedFrom,
                                kStartedNumber,
                                kStartedRoot,
                                "DESKTOP_AUTOSTART_ID",
                                "DESKTOP_STARTUP_ID",
                                "GIO_LAUNCHED_DESKTOP_FILE",
                                "GIO_LAUNCHED_DESKTOP_FILE_PID",
                                "INVOCATION_ID",
                                "JOURNAL_STREAM",
                                "LINES",
                                "LISTEN_FDNAMES",
                                "LISTEN_FDS",
                                "LISTEN_PID",
                                "MAINPID",
                                "MANAGERPID",
                                "NOTIFY_SOCKET",
                                "OLDPWD",
                                "PWD",
                                "SHLVL",
                                "SYSTEMD_EXEC_PID",
                                "TERM",
                                "WATCHDOG_PID",
                                "WATCHDOG_USEC",
                                "WINDOWID",
                                "XDG_ACTIVATION_TOKEN"};

const char* variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): hosts set theirs before they start the layer
    return std::getenv(name);
}

bool isSet(const char* name) {
    const char* const value = variable(name);
    return value != nullptr && *value != '\0';
}

std::string homeOfUser() {
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    // The variant for threads: the other one answers in a buffer that the host may be using.
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) {
        return {};
    }
    return entry.pw_dir;
}

bool isOwnOf(const std::string& path, mode_t kind) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == kind &&
           status.st_uid == getuid();
}

std::string_view nameOf(std::string_view entry) {
    return entry.substr(0, entry.find('='));
}

} // namespace

SessionEnvironment sessionEnvironment(bool behind) {
    SessionEnvironment environment;
    for (const char* name : kOwn) {
        environment.removed.emplace_back(name);
    }
    const auto add = [&](const char* name, const std::string& value) {
        environment.added.push_back(std::string(name) + "=" + value);
    };
    if (const std::string home = isSet("HOME") ? "" : homeOfUser(); !home.empty()) {
        add("HOME", home);
    }
    if (!isSet("PATH")) {
        add("PATH", "/usr/local/bin:/usr/bin:/bin");
    }
    // What a program that a service manager or a remote shell has started lacks, and a session has.
    const char* const known = variable("XDG_RUNTIME_DIR");
    std::string runtime = known != nullptr ? known : "";
    if (runtime.empty()) {
        runtime = "/run/user/" + std::to_string(getuid());
        if (isOwnOf(runtime, S_IFDIR)) {
            add("XDG_RUNTIME_DIR", runtime);
        }
    }
    if (!isSet("DBUS_SESSION_BUS_ADDRESS") && isOwnOf(runtime + "/bus", S_IFSOCK)) {
        add("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + runtime + "/bus");
    }
    if (behind) {
        // Toolkits read the time of the user's wish from the end of it; 0 stands for none.
        add("DESKTOP_STARTUP_ID", "convey-" + std::to_string(getpid()) + "_TIME0");
    }
    return environment;
}

std::string SessionEnvironment::value(const std::string& name) const {
    const std::vector<std::string> all = whole();
    const auto found = std::find_if(
        all.begin(), all.end(), [&](const std::string& entry) { return nameOf(entry) == name; });
    return found == all.end() ? "" : found->substr(name.size() + 1);
}

std::vector<std::string> SessionEnvironment::whole() const {
    std::vector<std::string> all = added;
    // What is added goes before what is inherited, each name once: which of two entries of one name
    // counts is left to whoever reads them.
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view name = nameOf(*entry);
        const auto isName = [&](const std::string& other) { return nameOf(other) == name; };
        if (std::none_of(removed.begin(), removed.end(), isName) &&
            std::none_of(added.begin(), added.end(), isName)) {
            all.emplace_back(*entry);
        }
    }
    return all;
}

} // namespace platform
