#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "limits/Limits.h"

struct sqlite3;

namespace caps {

class Statement;

// Results of the database, the same numbers as the CAPS_ constants of ovrel_caps.h.
enum class Status : int32_t {
    ok = 0,
    notLoaded = 1,        // never returned here: what a caller reports without the library
    noDatabase = 2,       // no database file where one is looked for
    damaged = 3,          // the file is no database, or its content contradicts the schema
    foreign = 4,          // an SQLite database of another application
    newerSchema = 5,      // written by a later version of this library
    tooSmall = 6,         // the caller's area does not hold the answer
    busy = 7,             // another process holds the database exclusively
    nothingThere = 8,     // no such entry, or an empty list
    noSession = 9,        // null or closed session
    invalidArgument = 10, // null pointer, empty name, value over its limit
    readOnly = 11,        // the file or its folder may not be written
    failed = 12,          // disk, memory, or another failure of the system
};

// One word for a person, for example "damaged".
const char* statusText(Status status);

// Of what is stored, equality compares what it says, not when it was written or by whom: `changed`
// is in seconds since 1970 (0: unknown), `origin` the file that brought it (empty: it was written
// by hand).
struct KeyValue {
    std::string key;
    std::string value;
    std::string origin{};
    friend bool operator==(const KeyValue& a, const KeyValue& b) {
        return a.key == b.key && a.value == b.value;
    }
};

struct PayloadValue {
    int32_t domain = 0;
    std::string key;
    std::string value;
    friend bool operator==(const PayloadValue&, const PayloadValue&) = default;
};

struct Payload {
    std::string code;
    std::string kind = "normal";
    std::string launchPath;
    int32_t installState = 4;
    std::vector<PayloadValue> data;
    friend bool operator==(const Payload&, const Payload&) = default;
};

struct Product {
    std::string code;
    std::vector<Payload> payloads;
    int64_t changed{};
    std::string origin{};
    friend bool operator==(const Product& a, const Product& b) {
        return a.code == b.code && a.payloads == b.payloads;
    }
};

struct Subdomain {
    int32_t domain = 1;
    std::string name;
    std::vector<KeyValue> data;
    int64_t changed{};
    friend bool operator==(const Subdomain& a, const Subdomain& b) {
        return a.domain == b.domain && a.name == b.name && a.data == b.data;
    }
};

// A whole database, every list in the order of registration.
struct Contents {
    std::vector<Product> products;
    std::vector<Subdomain> subdomains;
    std::vector<std::string> refused{}; // what is there but over the limits, in words
    friend bool operator==(const Contents&, const Contents&) = default;
};

// Bounds of what is stored; a longer text is refused with Status::invalidArgument.
inline constexpr size_t kMaxCodeBytes = limits::of("database.code");
inline constexpr size_t kMaxSubdomainBytes = limits::of("database.subdomain");
inline constexpr size_t kMaxLaunchPathBytes = limits::of("database.launch-path");
inline constexpr size_t kMaxValueBytes = limits::of("database.value");

// The database file that this user's programs read: $OVREL_CAPS_DB, else
// $XDG_DATA_HOME/ovrel/caps.db (~/.local/share without the variable), else /var/lib/ovrel/caps.db;
// the first that exists, or the empty text. A set OVREL_CAPS_DB is never passed over.
std::string findDatabase();
// The one of the machine, which packages fill.
inline constexpr const char* kSystemDatabase = "/var/lib/ovrel/caps.db";

// The database that is read below the one at `path`: the system's below a user's own, as long as
// $OVREL_CAPS_DB does not name one that stands alone; empty for none. $OVREL_CAPS_SYSTEM_DB stands
// for the system's, for installations that are looked at from outside.
std::string databaseBelow(const std::string& path);

// Where a new database of this user belongs: $OVREL_CAPS_DB, else the user's own place, and
// /var/lib/ovrel/caps.db for root.
std::string defaultDatabasePath();

// One connection to a database file. Owned by its opener; used by one thread at a time.
// Readers see one state of the database a transaction; they never wait for a writer.
class Store {
public:
    enum class Access { read, glance, write, create };

    // Opens `path`. `create` makes folder and file when they are missing; `write` migrates an older
    // schema; `read` changes nothing and accepts every schema from 1 on. `glance` is `read` for a
    // file that nobody is writing: without locks and without a file beside the database. Where a
    // writer may be at work it is `read`; `glances` tells which it became. `error`, when given,
    // receives a sentence for a person on failure.
    [[nodiscard]] static Status open(const std::string& path, Access access,
                                     std::unique_ptr<Store>& out, std::string* error = nullptr);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Text of the last failure, for a person.
    const std::string& lastError() const { return error_; }

    // A write transaction around several operations; without commit the destructor rolls back. One
    // inside another rolls back its own part only.
    class Transaction {
    public:
        explicit Transaction(Store& store);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        [[nodiscard]] Status begin();
        [[nodiscard]] Status commit();

    private:
        Store& store_;
        bool open_ = false;
    };

    // Everything, in the order of registration.
    [[nodiscard]] Status readAll(Contents& out);
    // One domain in one pass; nothingThere when it has no subdomain.
    [[nodiscard]] Status readDomain(int32_t domain, std::vector<Subdomain>& out);
    [[nodiscard]] Status readProducts(std::vector<Product>& out);
    [[nodiscard]] Status productModTime(uint32_t& out);
    [[nodiscard]] Status domainModTime(uint32_t& out);
    // False for a database of the first version: its times are always 0.
    bool keepsTimes() const;

    // Domain data. Setting a key again keeps its place in the order; a new subdomain or key goes to
    // the end. Removing the last key keeps the subdomain; removing an absent one is nothingThere.
    [[nodiscard]] Status setDomainData(int32_t domain, std::string_view subdomain,
                                       std::string_view key, std::string_view value);
    // All keys of a subdomain, in their order.
    [[nodiscard]] Status writeSubdomain(const Subdomain& subdomain);
    [[nodiscard]] Status addSubdomain(int32_t domain, std::string_view subdomain);
    [[nodiscard]] Status removeDomainData(int32_t domain, std::string_view subdomain,
                                          std::string_view key);
    [[nodiscard]] Status removeSubdomain(int32_t domain, std::string_view subdomain);
    // Removes all keys, and keeps the subdomain's place in the order.
    [[nodiscard]] Status clearSubdomain(int32_t domain, std::string_view subdomain);

    // The file that what is written from now on comes from; none (at first): by hand.
    void setOrigin(std::string origin);
    // When it was written, for who copies a registration; every other change notes the time itself.
    [[nodiscard]] Status setChanged(int32_t domain, std::string_view subdomain, int64_t time);
    [[nodiscard]] Status setProductChanged(std::string_view code, int64_t time);

    // Products. Adding a code that exists changes nothing: it is invalidArgument.
    [[nodiscard]] Status addProduct(const Product& product);
    [[nodiscard]] Status addPayload(std::string_view product, const Payload& payload);
    // The same product with other payloads, at its place in the order; nothingThere for a new one.
    [[nodiscard]] Status replaceProduct(const Product& product);
    [[nodiscard]] Status removeProduct(std::string_view code);
    [[nodiscard]] Status setPayloadData(std::string_view payload, int32_t domain,
                                        std::string_view key, std::string_view value);
    [[nodiscard]] Status removePayloadData(std::string_view payload, int32_t domain,
                                           std::string_view key);
    // Empties the database and keeps its schema.
    [[nodiscard]] Status clear();

    // True when the file has changed since the last call, by others, or another one stands in its
    // place.
    bool changed();

    // True for one that reads at a glance: reading it fails with Status::busy when the file was
    // written meanwhile, and it is to be opened anew, as for every change that `changed` tells.
    bool glances() const;

    // Whether both were opened on one and the same file, not one in the place of the other.
    bool isOnFileOf(const Store& other) const;

    // Reads rows in one read transaction; the three scans are in the order of registration. For
    // readers that keep the data in a form of their own. A row whose texts are over the limits, or
    // that belongs to nothing, is passed over. The views are good inside the call.
    class Visitor {
    public:
        virtual ~Visitor() = default;
        virtual void onProduct(std::string_view code);
        virtual void onWritten(int64_t changed, std::string_view origin); // the same product
        virtual void onPayload(std::string_view code, std::string_view kind,
                               std::string_view launchPath, int32_t installState);
        virtual void onPayloadData(int32_t domain, std::string_view key, std::string_view value);
        virtual void onSubdomain(int32_t domain, std::string_view name);
        virtual void onSubdomainWritten(int64_t changed); // the same subdomain
        virtual void onDomainData(std::string_view key, std::string_view value);
        virtual void onOrigin(std::string_view origin); // of the same value, unless by hand
        // What is passed over: `name` (which may be empty or too long) of a `kind` of things.
        virtual void onRefused(std::string_view kind, std::string_view name);
    };
    // Each product, after it its payloads, after each its data.
    [[nodiscard]] Status visitProducts(Visitor& visitor);
    // Each subdomain, after it its data; of one domain, or of all.
    [[nodiscard]] Status visitDomain(int32_t domain, Visitor& visitor);
    [[nodiscard]] Status visitAllDomains(Visitor& visitor);

private:
    struct Impl;
    explicit Store(std::unique_ptr<Impl> impl);
    [[nodiscard]] Status fail(int sqliteCode, const char* operation);
    [[nodiscard]] Status refuse(Status status, std::string reason);
    [[nodiscard]] Status run(Statement& statement, const char* operation);
    // The same, nothingThere when it changed no row.
    [[nodiscard]] Status runOnSomething(Statement& statement, const char* operation);
    // The row of a subdomain that is there, and a value into it.
    [[nodiscard]] Status rowOf(int32_t domain, std::string_view subdomain, int64_t& row);
    [[nodiscard]] Status writeValue(int64_t subdomain, std::string_view key,
                                    std::string_view value);
    [[nodiscard]] Status checkEntry(std::string_view key, std::string_view value);
    [[nodiscard]] Status visitSubdomains(Statement& subdomains, bool withOrigins, Visitor& visitor);
    [[nodiscard]] Status modTime(const char* what, uint32_t glanced, uint32_t& out);
    // The steps of opening.
    [[nodiscard]] bool glance();
    [[nodiscard]] Status find();
    [[nodiscard]] Status connect();
    [[nodiscard]] Status recognise();
    [[nodiscard]] Status migrate();
    template <class Work>
    Status inTransaction(Work&& work);
    template <class Work>
    Status inReadTransaction(Work&& work);

    std::unique_ptr<Impl> impl_;
    std::string error_;
};

} // namespace caps
