#include "caps/tool/Context.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "caps/Layers.h"
#include "caps/tool/Registry.h"
#include "caps/tool/Table.h"

namespace caps::tool {

std::string dump(const nlohmann::ordered_json& json) {
    // Texts of the database may be no UTF-8, which the library would otherwise throw for.
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string Counts::text(const std::string& what) const {
    return std::to_string(added) + " " + what + " added, " + std::to_string(replaced) + " replaced";
}

void Context::open(Store::Access access) {
    path_ = databasePath;
    if (path_.empty()) {
        path_ = findDatabase();
    }
    if (path_.empty()) {
        path_ = defaultDatabasePath();
    }
    std::string error;
    if (Store::open(path_, access, store_, &error) != Status::ok) {
        throw Failure(error);
    }
}

void Context::expect(Status status, const std::string& nothingThere) {
    if (status != Status::ok) {
        throw Failure(status == Status::nothingThere ? nothingThere : store_->lastError());
    }
}

Contents Context::readAll() {
    Contents contents;
    expect(store_->readAll(contents));
    return contents;
}

Contents Context::readLayers() {
    Contents contents = readAll();
    // A database that was named on the command line stands alone.
    const std::string below = databasePath.empty() ? databaseBelow(path_) : "";
    std::unique_ptr<Store> store;
    Contents lower;
    if (!below.empty() && Store::open(below, Store::Access::read, store) == Status::ok &&
        store->readAll(lower) == Status::ok) {
        contents = layered(std::move(lower), std::move(contents), below);
    }
    return contents;
}

Subdomain Context::readSubdomain(int32_t domain, const std::string& name) {
    std::vector<Subdomain> subdomains;
    const Status status = store_->readDomain(domain, subdomains);
    if (status != Status::nothingThere) {
        expect(status);
    }
    const std::string wanted = subdomainName(name);
    const auto found = std::find_if(subdomains.begin(), subdomains.end(),
                                    [&](const Subdomain& one) { return one.name == wanted; });
    if (found == subdomains.end()) {
        throw Failure(name + " is not registered");
    }
    return std::move(*found);
}

std::vector<KeyValue> Context::groupEntries() {
    std::vector<Subdomain> subdomains;
    const Status status = store_->readDomain(kRegistryDomain, subdomains);
    if (status != Status::nothingThere) {
        expect(status);
    }
    for (Subdomain& subdomain : subdomains) {
        if (subdomain.name == kGroupsSubdomain) {
            return std::move(subdomain.data);
        }
    }
    return {};
}

void Context::print(const nlohmann::ordered_json& value, const Table& table) {
    if (json) {
        out << dump(value) << '\n';
    } else {
        table.print(out);
    }
}

void refuse(const std::optional<std::string>& fault, const std::string& where) {
    if (fault) {
        throw Failure(where + ": " + *fault);
    }
}

std::string subdomainName(const std::string& name) {
    return name.starts_with('/') || name.starts_with('{') ? name : subdomainOf(name);
}

} // namespace caps::tool
