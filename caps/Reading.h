#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "caps/Store.h"

namespace caps {

// What the messaging layer makes of the registry, and what a listing shows of it, computed without
// the layer: the database's tool tells packagers beforehand. A test holds both side by side over
// thousands of random registries. Takes time in proportion to the entries.
//
// Used by one thread; refers to the contents, which must outlive it. What depends on the moment is
// fixed: nothing runs, and the listing is made by a user of `locale`.
class Reading {
public:
    // An application that can be addressed.
    struct Record {
        const Subdomain* subdomain;
        std::string specifier;
        std::string path; // after redirects and payloads
        std::string redirect;
        bool loops = false; // its redirects lead into a circle: it keeps the path of its own
    };
    // An application that nobody sees.
    struct Ignored {
        const Subdomain* subdomain;
        std::string why;
    };

    explicit Reading(const Contents& contents, std::string locale = "en_us");
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    // In the order in which a listing shows them.
    const std::vector<Record>& records() const { return records_; }
    const std::vector<Ignored>& ignored() const { return ignored_; }

    // The record that is found under the text when it is looked up as it stands, without instance
    // and suffix if need be; null for none.
    const Record* find(std::string_view specifier) const;
    // The record whose path a listing shows beside the specifier of `record`; null for none: the
    // path is empty then.
    const Record* shown(const Record& record) const;

private:
    struct Join {
        std::string configPath;
        std::string launchPath;
    };
    struct Fields;

    void readJoins();
    void readGroups();
    void readApplication(const Subdomain& subdomain);
    std::string pathFromPayloads(const Fields& fields) const;
    void resolveRedirects();
    const Record* exact(std::string_view specifier) const;
    bool isLister(std::string_view specifier) const;
    const std::vector<std::string>& registrationsOf(std::string_view appName) const;
    const std::string* chooseVersion(const std::vector<std::string>& registrations,
                                     std::string_view asked) const;
    std::string completed(const std::string& text, bool withCaller) const;
    std::optional<std::string> preferred(std::string_view appName) const;
    std::optional<std::string> highest(std::string_view appName, double limit,
                                       std::string_view locale) const;

    const Contents& contents_;
    const std::string locale_;
    std::string lister_; // what the listing tool runs as
    std::vector<Record> records_;
    std::vector<Ignored> ignored_;
    std::unordered_map<std::string, std::vector<Join>> joins_; // by Convey code
    std::unordered_map<std::string, size_t> bySpecifier_;      // the first of each, as it stands
    std::unordered_map<std::string, std::vector<std::string>> byApp_;   // lower-case specifiers
    std::unordered_map<std::string, std::vector<std::string>> inGroup_; // patterns, by application
    std::unordered_set<std::string> identities_;
    std::vector<Fields> fields_; // of the records
};

} // namespace caps
