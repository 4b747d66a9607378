#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "caps/Store.h"

namespace caps::tool {

class Table;

// A command that cannot be carried out; `what` is for the person.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Invalid UTF-8 in a value becomes U+FFFD: a listing must not fail because of one entry.
std::string dump(const nlohmann::ordered_json& json);

// What was done to how many entries, told at the end of a command that takes many.
struct Counts {
    size_t added = 0;
    size_t replaced = 0;

    void count(bool wasThere) { ++(wasThere ? replaced : added); }
    std::string text(const std::string& what) const;
};

// What one command works with: the streams, what the command line says of all commands, and the
// database once it is open. Used by one thread. Every operation throws Failure when the database
// cannot do what it is asked, with the reason for the person.
class Context {
public:
    Context(std::istream& input, std::ostream& output, std::ostream& errors)
        : in(input), out(output), err(errors) {}

    std::istream& in;
    std::ostream& out;        // results
    std::ostream& err;        // messages
    std::string databasePath; // empty: the one that this user's programs read
    bool json = false;
    bool strict = false; // refuse a change that leaves harm behind

    // Opens the database; `path` and `store` are good from then on.
    void open(Store::Access access);
    const std::string& path() const { return path_; }
    Store& store() { return *store_; }

    // Throws for a status that is not ok; `nothingThere` is the text for that one.
    void expect(Status status, const std::string& nothingThere = "there is no such entry");

    // All or nothing: a Failure on the way leaves the database as it was.
    template <class Work>
    void inTransaction(Work&& work) {
        Store::Transaction transaction(*store_);
        expect(transaction.begin());
        work();
        expect(transaction.commit());
    }

    Contents readAll();
    // What this user's programs read: with the system's registrations below the user's own.
    Contents readLayers();
    // The subdomain with the name, or the one of the application with that specifier.
    Subdomain readSubdomain(int32_t domain, const std::string& name);
    // The entries of the groups, none when there is no group.
    std::vector<KeyValue> groupEntries();

    // As JSON or as a table, as the command line asks.
    void print(const nlohmann::ordered_json& value, const Table& table);

private:
    std::string path_;
    std::unique_ptr<Store> store_;
};

// Throws when there is a fault, naming where.
void refuse(const std::optional<std::string>& fault, const std::string& where);

// A subdomain as it is (it begins with '/' or '{'), or an application's by its specifier.
std::string subdomainName(const std::string& name);

} // namespace caps::tool
