#include "caps/Store.h"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace caps {
namespace {

constexpr const char* kUserDatabase = "/ovrel/caps.db";

std::string environment(const char* name) {
    const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): read-only
    return value != nullptr ? value : "";
}

// A service, or a shell of another user's, may have none in its environment, and the user has one
// all the same.
std::string homeFolder() {
    std::string home = environment("HOME");
    if (home.empty() || home.front() != '/') {
        home.clear();
        char buffer[4096];
        passwd entry{};
        passwd* found = nullptr;
        if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
            home = found->pw_dir;
        }
    }
    return home;
}

std::string userDatabase() {
    std::string base = environment("XDG_DATA_HOME");
    if (base.empty() || base.front() != '/') { // a relative one is to be ignored
        base = homeFolder();
        if (base.empty()) {
            return {};
        }
        base += "/.local/share";
    }
    return base + kUserDatabase;
}

std::string systemDatabase() {
    const std::string path = environment("OVREL_CAPS_SYSTEM_DB");
    return path.empty() ? kSystemDatabase : path;
}

// What cannot be found out is no absence: opening it then tells the reason. A folder that this user
// may not enter holds nothing for it.
bool exists(const std::string& path) {
    struct stat status {};
    return !path.empty() && (stat(path.c_str(), &status) == 0 ||
                             (errno != ENOENT && errno != ENOTDIR && errno != EACCES));
}

} // namespace

std::string findDatabase() {
    std::string path = environment("OVREL_CAPS_DB");
    if (!path.empty()) {
        return path;
    }
    path = userDatabase();
    if (exists(path)) {
        return path;
    }
    path = systemDatabase();
    return exists(path) ? path : "";
}

std::string databaseBelow(const std::string& path) {
    const std::string system = systemDatabase();
    // A database that was named stands alone: who names one means that one.
    const bool below = environment("OVREL_CAPS_DB").empty() && path != system &&
                       path == userDatabase() && exists(system);
    return below ? system : "";
}

std::string defaultDatabasePath() {
    std::string path = environment("OVREL_CAPS_DB");
    if (!path.empty()) {
        return path;
    }
    // What root registers is for everybody; its own home would be read by root alone.
    return geteuid() == 0 ? systemDatabase() : userDatabase();
}

} // namespace caps
