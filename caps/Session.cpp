#include "caps/Session.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace caps {
namespace {

// The database of this process while sessions are open; both live as long as the library is loaded
// and need no destructor.
constinit std::mutex gMutex;
constinit Database* gDatabase = nullptr;

constexpr int kGlances = 3; // a file that is replaced by an old one is old at once
constexpr size_t kReasonBytes = 1024;
constinit thread_local char gReason[kReasonBytes] = {};

// Hands a status on; `reason` says why it is none of success.
Status noting(Status status, const std::string& reason) {
    if (status != Status::ok && status != Status::nothingThere) {
        LastFailure::note(reason);
    }
    return status;
}

} // namespace

void LastFailure::note(std::string_view reason) noexcept {
    const size_t bytes = std::min(reason.size(), kReasonBytes - 1);
    std::memcpy(gReason, reason.data(), bytes);
    gReason[bytes] = '\0';
}

const char* LastFailure::text() noexcept {
    return gReason;
}

struct Database::State {
    std::string path;
    int32_t users = 0; // under gMutex

    std::mutex mutex;   // guards what follows
    bool stale = false; // a change was seen and could not be read yet
    // Of the products and of the domain data. A file that was put in the place of another may have
    // been made in the same second, and one of the first version keeps no times: what is told of a
    // change must differ all the same.
    struct ModTime {
        using Read = Status (Store::*)(uint32_t&);
        Read const readFrom;
        uint32_t told = 0;
        uint32_t read = 0;
        uint32_t readBelow = 0;
        bool replaced = false;

        Status tell(Store& own, Store* lower, uint32_t& out);
    } modTimes[2] = {{&Store::productModTime}, {&Store::domainModTime}};
    std::unique_ptr<Store> store;
    // The system's below a user's own; null for none, and for one that cannot be read: what is the
    // user's must not depend on it.
    std::unique_ptr<Store> below;
    std::string belowPath;
    Status belowStatus = Status::ok; // why it could not be opened
    std::string belowReason;
    std::unordered_map<int32_t, std::shared_ptr<const DomainSnapshot>> domains;
    std::shared_ptr<const ProductSnapshot> products;
};

Database::Database(std::string path) : state_(std::make_unique<State>()) {
    state_->path = std::move(path);
}

Database::~Database() = default;

Status Database::acquire(Database*& out) {
    const std::string path = findDatabase();
    const std::lock_guard<std::mutex> lock(gMutex);
    if (gDatabase != nullptr && gDatabase->state_->path == path) {
        // A session must fail where the file has gone or was spoilt since the last one was opened.
        const std::lock_guard<std::mutex> inner(gDatabase->state_->mutex);
        const Status status = gDatabase->refreshLocked();
        if (status != Status::ok) {
            return status;
        }
        ++gDatabase->state_->users;
        out = gDatabase;
        return Status::ok;
    }
    std::unique_ptr<Database> opened(new Database(path));
    const Status status = opened->openLocked(opened->state_->store);
    if (status != Status::ok) {
        return status;
    }
    opened->openBelowLocked();
    opened->state_->users = 1;
    out = opened.release();
    // With sessions open at another path this one has a database of its own: theirs must not change
    // under them.
    if (gDatabase == nullptr) {
        gDatabase = out;
    }
    return Status::ok;
}

Database* Database::acquireOpen() {
    const std::lock_guard<std::mutex> lock(gMutex);
    if (gDatabase != nullptr) {
        ++gDatabase->state_->users;
    }
    return gDatabase;
}

void Database::release(Database* database) {
    const std::lock_guard<std::mutex> lock(gMutex);
    // With the lock of all: nobody comes to use it between its last release and its end.
    if (--database->state_->users == 0) {
        if (gDatabase == database) {
            gDatabase = nullptr;
        }
        delete database;
    }
}

Database::Paths Database::paths() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return {state_->path, state_->belowPath};
}

Status Database::openLocked(std::unique_ptr<Store>& out) {
    std::string reason;
    return noting(Store::open(state_->path, Store::Access::glance, out, &reason), reason);
}

void Database::openBelowLocked() {
    state_->belowPath = databaseBelow(state_->path);
    state_->below.reset();
    state_->belowStatus = Status::ok;
    if (!state_->belowPath.empty()) {
        state_->belowStatus = Store::open(state_->belowPath, Store::Access::glance, state_->below,
                                          &state_->belowReason);
    }
}

Status Database::belowStatus() {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    // One that went between the look and the opening is not there.
    return state_->belowStatus == Status::noDatabase
               ? Status::ok
               : noting(state_->belowStatus, state_->belowReason);
}

// Drops what was read when the file has changed; opens the file anew when another one stands in
// its place.
Status Database::refreshLocked() {
    const bool belowChanged = databaseBelow(state_->path) != state_->belowPath ||
                              (state_->below != nullptr && state_->below->changed());
    if (!state_->store->changed() && !belowChanged && !state_->stale) {
        return Status::ok;
    }
    // Set before the attempt: `changed` tells a change once, and one that could not be read yet
    // must stay due.
    state_->stale = true;
    std::unique_ptr<Store> store;
    const Status status = openLocked(store);
    if (status == Status::ok) {
        // Kept for the comparison, which asks whether the new one is of the same file.
        const std::unique_ptr<Store> below = std::move(state_->below);
        openBelowLocked();
        const bool sameBelow = below == nullptr || state_->below == nullptr
                                   ? below == state_->below
                                   : state_->below->isOnFileOf(*below);
        const bool timesTell =
            store->keepsTimes() && (state_->below == nullptr || state_->below->keepsTimes());
        if (!timesTell || !sameBelow || !store->isOnFileOf(*state_->store)) {
            for (State::ModTime& time : state_->modTimes) {
                time.replaced = true;
            }
        }
        // Only now: while the new file cannot be read, what was read of the old one goes on to be
        // told.
        state_->store = std::move(store);
        state_->stale = false;
        state_->domains.clear();
        state_->products.reset();
    }
    return status;
}

// Hands on what came of reading both databases.
Status Database::failing(Status status) const {
    // The upper one's reason goes first: it has none when reading it worked.
    const std::string& own = state_->store->lastError();
    return noting(status,
                  own.empty() && state_->below != nullptr ? state_->below->lastError() : own);
}

// Reads with the lock held: the connection has none of its own.
template <class Read>
Status Database::readLocked(bool refresh, Read&& read) {
    Status status = refresh ? refreshLocked() : Status::ok;
    for (int attempt = 1; status == Status::ok; ++attempt) {
        const bool glances =
            state_->store->glances() || (state_->below != nullptr && state_->below->glances());
        status = read();
        // Written while it was read at a glance: anew, and with locks then, since it is fresh.
        if (status != Status::busy || !glances || attempt == kGlances) {
            break;
        }
        status = refreshLocked();
    }
    return status;
}

Status Database::domain(int32_t domain, bool refresh, std::shared_ptr<const DomainSnapshot>& out) {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return readLocked(refresh, [&] {
        std::shared_ptr<const DomainSnapshot>& snapshot = state_->domains[domain];
        const Status status =
            snapshot != nullptr ? Status::ok
                                : failing(DomainSnapshot::read(*state_->store, state_->below.get(),
                                                               domain, snapshot));
        if (status == Status::ok) {
            out = snapshot;
        }
        return status;
    });
}

Status Database::products(bool refresh, std::shared_ptr<const ProductSnapshot>& out) {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return readLocked(refresh, [&] {
        const Status status = state_->products != nullptr
                                  ? Status::ok
                                  : failing(ProductSnapshot::read(
                                        *state_->store, state_->below.get(), state_->products));
        if (status == Status::ok) {
            out = state_->products;
        }
        return status;
    });
}

Status Database::State::ModTime::tell(Store& own, Store* lower, uint32_t& out) {
    uint32_t time = 0;
    uint32_t timeBelow = 0;
    Status status = (own.*readFrom)(time);
    if (status == Status::ok && lower != nullptr) {
        status = (lower->*readFrom)(timeBelow);
    }
    if (status != Status::ok) {
        return status;
    }
    if (replaced || time != read || timeBelow != readBelow) {
        // Callers compare for equality with what they were told before, so a change must give a
        // number that no earlier one had.
        told = std::max({time, timeBelow, told + 1});
        read = time;
        readBelow = timeBelow;
        replaced = false;
    }
    out = told;
    return Status::ok;
}

Status Database::modTimes(uint32_t* products, uint32_t* domains) {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    Status status = refreshLocked();
    uint32_t times[2] = {};
    uint32_t* const asked[2] = {products, domains};
    for (size_t i = 0; status == Status::ok && i < 2; ++i) {
        if (asked[i] != nullptr) {
            status = state_->modTimes[i].tell(*state_->store, state_->below.get(), times[i]);
        }
    }
    for (size_t i = 0; status == Status::ok && i < 2; ++i) {
        if (asked[i] != nullptr) {
            *asked[i] = times[i];
        }
    }
    return status;
}

// Through a connection of its own: reading sessions keep theirs read-only.
template <class Work>
Status Database::write(Work&& work) {
    // Without the lock: a writer may wait for seconds until others let it, and this process's
    // readers need not.
    std::unique_ptr<Store> writer;
    Status status = Store::open(state_->path, Store::Access::write, writer);
    if (status == Status::ok) {
        status = work(*writer);
    }
    if (status == Status::ok) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        (void)refreshLocked(); // it was written; if it cannot be read, the next question says so
    }
    return status;
}

Status Database::setDomainData(int32_t domain, const char* subdomain, const char* key,
                               const char* value) {
    return write([&](Store& store) { return store.setDomainData(domain, subdomain, key, value); });
}

Status Database::removeDomainData(int32_t domain, const char* subdomain, const char* key) {
    return write([&](Store& store) { return store.removeDomainData(domain, subdomain, key); });
}

} // namespace caps
