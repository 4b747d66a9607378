#include "link/Registrations.h"

#include <filesystem>
#include <fstream>
#include <memory>

#include "caps/RegistryLayout.h"
#include "caps/Store.h"
#include "caps/tool/Registry.h"
#include "platform/Log.h"

namespace convey_link {
namespace {

using caps::Status;
using caps::Store;

// Calls with each registration of an application in a database, if there is one.
template <class Each>
void forEach(const std::string& path, Each&& each) {
    std::unique_ptr<Store> store;
    std::vector<caps::Subdomain> subdomains;
    if (!path.empty() && Store::open(path, Store::Access::read, store) == Status::ok &&
        store->readDomain(caps::kRegistryDomain, subdomains) == Status::ok) {
        for (const caps::Subdomain& subdomain : subdomains) {
            if (caps::isApplicationSubdomain(subdomain)) {
                each(caps::effectiveSpecifier(subdomain),
                     caps::find(subdomain.data, Registrations::kKey) != nullptr);
            }
        }
    }
}

void report(const std::string& what) {
    platform::Log::system().problem("convey-link: " + what);
}

// As a word of the shell.
std::string quoted(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

} // namespace

bool DatabaseRegistrations::isLocal(const std::string& app) {
    bool local = false;
    const std::string top = caps::findDatabase();
    for (const std::string& path : {top, caps::databaseBelow(top)}) {
        forEach(path, [&](const std::string& specifier, bool isLinks) {
            local = local || (specifier == app && !isLinks);
        });
    }
    return local;
}

bool DatabaseRegistrations::add(const std::string& app, const std::string& at) {
    const std::filesystem::path place = std::filesystem::path(folder_) / at / app;
    std::error_code error;
    std::filesystem::create_directories(place.parent_path(), error);
    // A launcher starts what a link leads to, under the name of that: no link could tell `program_`
    // which application is meant.
    std::ofstream script(place);
    script << "#!/bin/sh\nexec " << quoted(program_) << ' ' << kInPlace << ' ' << quoted(app)
           << '\n';
    script.close();
    if (script.good()) {
        std::filesystem::permissions(place, std::filesystem::perms::owner_all, error);
    }
    if (!script.good() || error) {
        report(place.string() + " cannot be written");
        return false;
    }
    std::unique_ptr<Store> store;
    std::string reason;
    Status status = Store::open(caps::defaultDatabasePath(), Store::Access::create, store, &reason);
    if (status == Status::ok) {
        Store::Transaction transaction(*store);
        status = transaction.begin();
        bool replaced = false;
        if (status == Status::ok) {
            status = caps::tool::writeApplication(
                *store, {app, {{std::string(caps::kPathKey), place.string()}, {kKey, at}}},
                replaced);
        }
        status = status == Status::ok ? transaction.commit() : status;
        reason = store->lastError();
    }
    if (status != Status::ok) {
        report(app + " cannot be registered: " + reason);
    }
    return status == Status::ok;
}

void DatabaseRegistrations::remove(const std::string& app) {
    std::vector<std::string> ours;
    forEach(caps::defaultDatabasePath(), [&](const std::string& specifier, bool isLinks) {
        if (isLinks && (app.empty() || specifier == app)) {
            ours.push_back(specifier);
        }
    });
    std::unique_ptr<Store> store;
    if (!ours.empty() &&
        Store::open(caps::defaultDatabasePath(), Store::Access::write, store) == Status::ok) {
        for (const std::string& specifier : ours) {
            if (store->removeSubdomain(caps::kRegistryDomain, caps::subdomainOf(specifier)) !=
                Status::ok) {
                report(specifier + " cannot be removed: " + store->lastError());
            }
        }
    }
    if (app.empty()) {
        std::error_code error;
        std::filesystem::remove_all(folder_, error);
    }
}

} // namespace convey_link
