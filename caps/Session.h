#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "caps/Snapshot.h"
#include "caps/Store.h"

namespace caps {

// The database file that a process has open, and what was read of it last. All sessions on one file
// share it: a program that asks for products and for the registry opens and reads once.
//
// Owned by its sessions, counted. Threads: any; `mutex_` of the .cpp guards the connection.
class Database {
public:
    // The one on the file that is found now; the caller gives it back with `release`.
    [[nodiscard]] static Status acquire(Database*& out);
    static void release(Database* database);
    // What the process has open already, or null; to be given back too.
    static Database* acquireOpen();

    struct Paths {
        std::string own;
        std::string below; // empty for none
    };
    Paths paths() const;
    // The newest state of a domain or of the products when `refresh` is set or nothing was read
    // yet, else what was read last.
    [[nodiscard]] Status domain(int32_t domain, bool refresh,
                                std::shared_ptr<const DomainSnapshot>& out);
    [[nodiscard]] Status products(bool refresh, std::shared_ptr<const ProductSnapshot>& out);
    // Null for one that is not asked for.
    [[nodiscard]] Status modTimes(uint32_t* products, uint32_t* domains);
    [[nodiscard]] Status setDomainData(int32_t domain, const char* subdomain, const char* key,
                                       const char* value);
    [[nodiscard]] Status removeDomainData(int32_t domain, const char* subdomain, const char* key);
    // Ok, or why a database that is to be read below this one is not.
    [[nodiscard]] Status belowStatus();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database();

private:
    explicit Database(std::string path);
    [[nodiscard]] Status refreshLocked();
    void openBelowLocked();
    [[nodiscard]] Status failing(Status status) const;
    [[nodiscard]] Status openLocked(std::unique_ptr<Store>& out);
    template <class Read>
    Status readLocked(bool refresh, Read&& read);
    template <class Work>
    Status write(Work&& work);

    struct State;
    std::unique_ptr<State> state_;
};

} // namespace caps

namespace caps {

// Why the last call of this thread failed, in words; its own area, so that also a failure for want
// of memory has some. Longer ones are cut.
class LastFailure {
public:
    static void note(std::string_view reason) noexcept;
    static const char* text() noexcept;
};

} // namespace caps

// What a caller of the library holds. The state of its domains and products is the one of the last
// list that it asked for.
struct capsiSession {
    capsiSession(const capsiSession&) = delete;
    capsiSession& operator=(const capsiSession&) = delete;
    explicit capsiSession(caps::Database* shared) : database(shared) {}
    ~capsiSession() { caps::Database::release(database); }

    struct Domain {
        std::shared_ptr<const caps::DomainSnapshot> snapshot;
        ptrdiff_t lastSubdomain = 0;
        size_t nextKey = 0;
    };

    caps::Database* const database;
    std::map<int32_t, Domain> domains;
    std::shared_ptr<const caps::ProductSnapshot> products;
    // Where the last questions found what they asked for.
    ptrdiff_t lastProduct = 0;
    ptrdiff_t lastPayload = 0;
    // Lists that are made for a question, kept by the question so that asking again costs nothing
    // new. Dropped with the snapshot that they point into.
    std::map<std::string, std::vector<const char*>> lists;
    std::string configuration; // what was told of it last
};
