#include "caps/tool/DropIns.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <unordered_map>

#include "caps/RegistryLayout.h"
#include "caps/tool/Context.h"
#include "caps/tool/Source.h"

namespace caps::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kByHand = "";

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string keyOf(const Subdomain& subdomain) {
    return std::to_string(subdomain.domain) + " " + subdomain.name;
}

bool isGroups(const Subdomain& subdomain) {
    return subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain;
}

class Applier {
public:
    Applier(Store& store, const std::vector<DropIn>& files, std::vector<std::string>& remarks)
        : store_(store), files_(files), remarks_(remarks) {}

    Status run() {
        Status status = store_.readAll(there_);
        index();
        for (const DropIn& file : files_) {
            if (!file.fault.empty()) {
                // A file with a mistake must not remove what it brought while it was right.
                remarks_.push_back(file.fault);
                kept_.insert(fileName(file.path));
                continue;
            }
            store_.setOrigin(file.path);
            for (const Product& product : file.contents.products) {
                status = status == Status::ok ? bring(product, file) : status;
            }
            for (const Subdomain& subdomain : file.contents.subdomains) {
                status = status != Status::ok                ? status
                         : isApplicationSubdomain(subdomain) ? bringApplication(subdomain, file)
                                                             : bringValues(subdomain, file);
            }
        }
        store_.setOrigin(kByHand);
        return status == Status::ok ? removeOthers() : status;
    }

private:
    void index() {
        for (const Product& product : there_.products) {
            products_.emplace(product.code, &product);
            for (const Payload& payload : product.payloads) {
                owners_.emplace(payload.code, product.code);
            }
        }
        for (const Subdomain& subdomain : there_.subdomains) {
            subdomains_.emplace(keyOf(subdomain), &subdomain);
            if (isApplicationSubdomain(subdomain)) {
                applications_.emplace(effectiveSpecifier(subdomain), &subdomain);
            }
        }
    }

    // Notes that a file has the entry; false when another one had it first.
    bool claim(const std::string& entry, const std::string& what, const DropIn& file) {
        const auto [claimed, first] = claims_.emplace(entry, file.path);
        if (!first && claimed->second != file.path) {
            remarks_.push_back(file.path + ": " + what + " is in " + claimed->second + " already");
        }
        return first;
    }
    void tellByHand(const std::string& what, const DropIn& file) {
        remarks_.push_back(file.path + ": " + what + " was registered by hand, which stays");
    }

    Status bring(const Product& product, const DropIn& file) {
        const std::string what = "product " + product.code;
        for (const Payload& payload : product.payloads) {
            const auto [owner, isNew] = owners_.emplace(payload.code, product.code);
            if (!isNew && owner->second != product.code) {
                remarks_.push_back(file.path + ": payload " + payload.code +
                                   " belongs to product " + owner->second);
                return Status::ok;
            }
        }
        if (!claim(what, what, file)) {
            return Status::ok;
        }
        const auto found = products_.find(product.code);
        if (found == products_.end()) {
            return store_.addProduct(product);
        }
        if (found->second->origin.empty()) {
            tellByHand(what, file);
            return Status::ok;
        }
        // Nothing is written for what is there already, so that `sync` without a change leaves the
        // modification times as they are.
        const bool same = *found->second == product && found->second->origin == file.path;
        return same ? Status::ok : store_.replaceProduct(product);
    }

    Status bringApplication(const Subdomain& subdomain, const DropIn& file) {
        const std::string what = subdomain.name.substr(kAppPrefix.size());
        if (!claim(keyOf(subdomain), what, file)) {
            return Status::ok;
        }
        const auto byName = subdomains_.find(keyOf(subdomain));
        const auto bySpecifier = applications_.find(effectiveSpecifier(subdomain));
        if (byName == subdomains_.end() && bySpecifier == applications_.end()) {
            return store_.writeSubdomain(subdomain);
        }
        const Subdomain& there =
            byName != subdomains_.end() ? *byName->second : *bySpecifier->second;
        const std::string origin = originOf(there);
        if (origin.empty()) {
            tellByHand(what, file);
            return Status::ok;
        }
        if (there == subdomain && origin == file.path) {
            return Status::ok;
        }
        // The row stays, and with it its place in the order.
        const Status status = store_.clearSubdomain(there.domain, there.name);
        return status == Status::ok ? store_.writeSubdomain(subdomain) : status;
    }

    // Group entries and other data: each value on its own, several files fill one subdomain.
    Status bringValues(const Subdomain& subdomain, const DropIn& file) {
        const auto found = subdomains_.find(keyOf(subdomain));
        const Subdomain none{subdomain.domain, subdomain.name, {}};
        const Subdomain& there = found == subdomains_.end() ? none : *found->second;
        Subdomain changes = none;
        for (const KeyValue& entry : subdomain.data) {
            KeyValue wanted{entry.key, entry.value};
            if (isGroups(subdomain)) {
                wanted.key = keyOfGroup(there, entry);
            }
            const std::string what =
                keyOf(subdomain) + " " + (isGroups(subdomain) ? entry.value : entry.key);
            if (!claim(what, what, file)) {
                continue;
            }
            values_.insert(keyOf(subdomain) + "\n" + wanted.key);
            const auto known =
                std::find_if(there.data.begin(), there.data.end(),
                             [&](const KeyValue& one) { return one.key == wanted.key; });
            if (known == there.data.end() ||
                (!known->origin.empty() &&
                 (known->value != wanted.value || known->origin != file.path))) {
                changes.data.push_back(std::move(wanted));
            } else if (known->origin.empty() && known->value != wanted.value) {
                tellByHand(what, file);
            }
        }
        return changes.data.empty() ? Status::ok : store_.writeSubdomain(changes);
    }

    // The key of the same entry, or one that no entry has.
    std::string keyOfGroup(const Subdomain& there, const KeyValue& entry) {
        if (groupKeys_.empty()) {
            for (const KeyValue& one : there.data) {
                groupKeys_.insert(one.key);
            }
        }
        for (const KeyValue& one : there.data) {
            if (one.value == entry.value) {
                return one.key;
            }
        }
        std::string key = entry.key;
        for (size_t n = groupKeys_.size() + 1; !groupKeys_.insert(key).second; ++n) {
            key = std::string(kGroupKeyPrefix) + std::to_string(n);
        }
        return key;
    }

    // Whether what comes from there is to go: its file has it no longer, or has gone.
    bool isGone(const std::string& origin, bool isClaimed) const {
        return !origin.empty() && !isClaimed && !kept_.contains(fileName(origin));
    }

    Status removeOthers() {
        Status status = Status::ok;
        for (const Product& product : there_.products) {
            if (status == Status::ok &&
                isGone(product.origin, claims_.contains("product " + product.code))) {
                status = store_.removeProduct(product.code);
            }
        }
        for (const Subdomain& subdomain : there_.subdomains) {
            if (status != Status::ok) {
                break;
            }
            if (isApplicationSubdomain(subdomain)) {
                if (isGone(originOf(subdomain), claims_.contains(keyOf(subdomain)))) {
                    status = store_.removeSubdomain(subdomain.domain, subdomain.name);
                }
            } else {
                status = removeValues(subdomain);
            }
        }
        return status;
    }

    Status removeValues(const Subdomain& subdomain) {
        Status status = Status::ok;
        size_t removed = 0;
        for (const KeyValue& entry : subdomain.data) {
            const bool claimed = values_.contains(keyOf(subdomain) + "\n" + entry.key);
            if (status == Status::ok && isGone(entry.origin, claimed)) {
                status = store_.removeDomainData(subdomain.domain, subdomain.name, entry.key);
                ++removed;
            }
        }
        // A subdomain that only files filled goes with the last of its values; one that was made
        // empty by hand stays.
        const bool isEmpty =
            removed != 0 && removed == subdomain.data.size() && !filled(keyOf(subdomain));
        return status == Status::ok && isEmpty
                   ? store_.removeSubdomain(subdomain.domain, subdomain.name)
                   : status;
    }
    bool filled(const std::string& key) const {
        const auto first = values_.lower_bound(key + "\n");
        return first != values_.end() && first->starts_with(key + "\n");
    }

    Store& store_;
    const std::vector<DropIn>& files_;
    std::vector<std::string>& remarks_;
    Contents there_;
    std::unordered_map<std::string, const Product*> products_;
    std::unordered_map<std::string, std::string> owners_; // of payloads
    std::unordered_map<std::string, const Subdomain*> subdomains_;
    std::unordered_map<std::string, const Subdomain*> applications_;
    std::map<std::string, std::string> claims_; // the file of each entry
    std::set<std::string> values_;              // that a file has
    std::set<std::string> groupKeys_;
    std::set<std::string> kept_; // files that cannot be read: what they brought stays
};

} // namespace

std::vector<DropIn> readDropIns(const std::vector<std::string>& folders) {
    std::map<std::string, std::string> paths; // by file name
    for (const std::string& folder : folders) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
            if (entry.path().extension() == ".toml") {
                // The folders come in the order of their rank: a later one's file takes the place
                // of an earlier one's.
                paths[entry.path().filename().string()] = entry.path().string();
            }
        }
        // A folder that cannot be read is not an empty one: all that its files brought would be
        // removed.
        if (error && error != std::errc::no_such_file_or_directory) {
            throw Failure(folder + ": " + error.message());
        }
    }
    std::vector<DropIn> files;
    for (const auto& [name, path] : paths) {
        std::error_code error;
        if (fs::is_character_file(path, error)) {
            continue; // masked
        }
        DropIn file{path, {}, {}};
        try {
            std::ifstream stream = openFile(path);
            file.contents = contentsOf(parseToml(stream, path));
        } catch (const std::runtime_error& fault) {
            file.fault = fault.what();
        }
        files.push_back(std::move(file));
    }
    return files;
}

Status applyDropIns(Store& store, const std::vector<DropIn>& files,
                    std::vector<std::string>& remarks) {
    return Applier(store, files, remarks).run();
}

} // namespace caps::tool
