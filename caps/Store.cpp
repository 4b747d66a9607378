#include "caps/Store.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "caps/Schema.h"
#include "caps/Sqlite.h"

namespace caps {
namespace {

constexpr int kReaderWaitMilliseconds = 100;  // a tool must not hang on somebody's lock
constexpr int kWriterWaitMilliseconds = 5000; // writers take turns
constexpr const char* kSystemDatabase = "/var/lib/ovrel/caps.db";
constexpr const char* kUserDatabase = "/ovrel/caps.db";

std::string environment(const char* name) {
    const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): read-only
    return value != nullptr ? value : "";
}

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

bool exists(const std::string& path) {
    struct stat status {};
    return !path.empty() && stat(path.c_str(), &status) == 0;
}

// What tells one state of a file from another without reading it.
struct Fingerprint {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec changed{};

    static Fingerprint of(const std::string& path) {
        Fingerprint print;
        struct stat status {};
        if (stat(path.c_str(), &status) == 0) {
            print = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
        }
        return print;
    }
    bool sameFile(const Fingerprint& other) const {
        return device == other.device && inode == other.inode;
    }
    bool operator==(const Fingerprint& other) const {
        return sameFile(other) && size == other.size && changed.tv_sec == other.changed.tv_sec &&
               changed.tv_nsec == other.changed.tv_nsec;
    }
};

// As an address for SQLite, in which these characters have a meaning.
std::string fileAddress(const std::string& path, const char* options) {
    std::string address = "file:";
    for (const char c : path) {
        switch (c) {
        case '%':
            address += "%25";
            break;
        case '?':
            address += "%3f";
            break;
        case '#':
            address += "%23";
            break;
        default:
            address += c;
        }
    }
    return address + options;
}

Status statusOf(int sqliteCode) {
    switch (sqliteCode & 0xFF) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
        return Status::ok;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Status::busy;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR: // no such table: not the schema that the file claims
    case SQLITE_MISMATCH:
        return Status::damaged;
    case SQLITE_READONLY:
    case SQLITE_PERM:
        return Status::readOnly;
    case SQLITE_CONSTRAINT:
    case SQLITE_TOOBIG:
        return Status::invalidArgument;
    default:
        return Status::failed;
    }
}

bool isName(std::string_view text, size_t maximumBytes) {
    return !text.empty() && text.size() <= maximumBytes &&
           text.find('\0') == std::string_view::npos;
}

bool isText(std::string_view text, size_t maximumBytes) {
    return text.size() <= maximumBytes && text.find('\0') == std::string_view::npos;
}

Status isRegularDatabase(const std::string& path, std::string& reason) {
    struct stat status {};
    if (path.empty() ||
        (stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR))) {
        reason = path.empty() ? "no database is registered" : path + ": there is no such database";
        return Status::noDatabase;
    }
    if (status.st_ino == 0 && status.st_mode == 0) {
        reason =
            path + ": " + std::strerror(errno); // NOLINT(concurrency-mt-unsafe): glibc's is safe
        return Status::failed;
    }
    if (!S_ISREG(status.st_mode)) { // opening a FIFO would wait for ever
        reason = path + ": not a file";
        return Status::damaged;
    }
    if (access(path.c_str(), R_OK) != 0) {
        reason = path + ": may not be read";
        return Status::failed;
    }
    return Status::ok;
}

} // namespace

const char* statusText(Status status) {
    switch (status) {
    case Status::ok:
        return "ok";
    case Status::notLoaded:
        return "not loaded";
    case Status::noDatabase:
        return "no database";
    case Status::damaged:
        return "damaged";
    case Status::foreign:
        return "a database of another application";
    case Status::newerSchema:
        return "written by a later version";
    case Status::tooSmall:
        return "area too small";
    case Status::busy:
        return "in use by another program";
    case Status::nothingThere:
        return "nothing there";
    case Status::noSession:
        return "no session";
    case Status::invalidArgument:
        return "invalid argument";
    case Status::readOnly:
        return "may not be written";
    case Status::failed:
        return "failed";
    }
    return "unknown";
}

std::string findDatabase() {
    std::string path = environment("OVREL_CAPS_DB");
    if (!path.empty()) {
        return path;
    }
    path = userDatabase();
    if (exists(path)) {
        return path;
    }
    return exists(kSystemDatabase) ? kSystemDatabase : "";
}

std::string defaultDatabasePath() {
    std::string path = environment("OVREL_CAPS_DB");
    if (!path.empty()) {
        return path;
    }
    return geteuid() == 0 ? kSystemDatabase : userDatabase();
}

void Store::Visitor::onProduct(std::string_view) {}
void Store::Visitor::onPayload(std::string_view, std::string_view, std::string_view, int32_t) {}
void Store::Visitor::onPayloadData(int32_t, std::string_view, std::string_view) {}
void Store::Visitor::onSubdomain(int32_t, std::string_view) {}
void Store::Visitor::onDomainData(std::string_view, std::string_view) {}
void Store::Visitor::onRefused(std::string_view, std::string_view) {}

struct Store::Impl {
    std::string path;
    Access access = Access::read;
    sqlite3* connection = nullptr;
    int schemaVersion = 0;
    // The file may not be locked here (its folder cannot be written): it is read as if nobody
    // wrote, and what was read counts only when the file is still the same afterwards.
    bool immutable = false;
    Fingerprint fingerprint;
    int64_t dataVersion = 0;
    int depth = 0; // of write transactions

    ~Impl() { (void)sqlite3_close_v2(connection); } // never fails in this form

    int execute(const char* sql) {
        return sqlite3_exec(connection, sql, nullptr, nullptr, nullptr);
    }

    int64_t pragma(const char* sql, int& code) {
        Statement statement(connection, sql);
        code = statement.step();
        if (code != SQLITE_ROW) {
            return 0;
        }
        code = SQLITE_OK;
        return statement.integer(0);
    }

    int open(const std::string& address, int flags) {
        (void)sqlite3_close_v2(connection);
        connection = nullptr;
        const int code = sqlite3_open_v2(address.c_str(), &connection,
                                         flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI, nullptr);
        if (code != SQLITE_OK) {
            return code;
        }
        (void)sqlite3_extended_result_codes(connection, 1);
        (void)sqlite3_busy_timeout(connection, access == Access::read ? kReaderWaitMilliseconds
                                                                      : kWriterWaitMilliseconds);
        // The file is not trusted: no code of its schema runs with our rights, no page lies about
        // itself, and nobody edits the schema through us.
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_FKEY, 1, nullptr);
        return SQLITE_OK;
    }

    // Reads the header of the file through SQLite; opening alone does not touch it.
    int readHeader(int64_t& applicationId) {
        int code = SQLITE_OK;
        applicationId = pragma("PRAGMA application_id", code);
        if (code == SQLITE_OK) {
            schemaVersion = static_cast<int>(pragma("PRAGMA user_version", code));
        }
        return code;
    }
};

Store::Store(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Store::~Store() = default;

Status Store::fail(int sqliteCode, const char* operation) {
    error_ = impl_->path + ": " + operation + ": " +
             (impl_->connection != nullptr ? sqlite3_errmsg(impl_->connection)
                                           : sqlite3_errstr(sqliteCode));
    return statusOf(sqliteCode);
}

Status Store::refuse(Status status, std::string reason) {
    error_ = impl_->path + ": " + std::move(reason);
    return status;
}

Status Store::open(const std::string& path, Access access, std::unique_ptr<Store>& out,
                   std::string* error) {
    std::string reason;
    const auto give = [error](Status status, const std::string& text) {
        if (error != nullptr) {
            *error = text;
        }
        return status;
    };
    if (access == Access::create) {
        std::error_code ignored; // a folder that cannot be made shows when the file is opened
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    }
    const Status regular = isRegularDatabase(path, reason);
    if (regular != Status::ok && !(access == Access::create && regular == Status::noDatabase)) {
        return give(regular, reason);
    }
    auto impl = std::make_unique<Impl>();
    impl->path = path;
    impl->access = access;
    std::unique_ptr<Store> store(new Store(std::move(impl)));
    Impl& state = *store->impl_;

    static constexpr int kFlags[] = {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
    int64_t applicationId = 0;
    int code = state.open(fileAddress(path, ""), kFlags[static_cast<int>(access)]);
    if (code == SQLITE_OK) {
        code = state.readHeader(applicationId);
    }
    const int kind = code & 0xFF;
    if (access == Access::read && (kind == SQLITE_CANTOPEN || kind == SQLITE_READONLY)) {
        state.immutable = true;
        state.fingerprint = Fingerprint::of(path);
        code = state.open(fileAddress(path, "?immutable=1"), SQLITE_OPEN_READONLY);
        if (code == SQLITE_OK) {
            code = state.readHeader(applicationId);
        }
    }
    if (code != SQLITE_OK) {
        const Status status = store->fail(code, "cannot be opened");
        return give(status, store->error_);
    }
    if (applicationId == 0 && state.schemaVersion == 0) {
        // An empty file is one that is about to be made; anything else is not ours.
        const int64_t tables = state.pragma("SELECT count(*) FROM sqlite_schema", code);
        if (code != SQLITE_OK || tables != 0) {
            return give(code != SQLITE_OK ? store->fail(code, "cannot be read") : Status::foreign,
                        path + ": a database of another application");
        }
        if (access == Access::read) {
            return give(Status::damaged, path + ": the database is empty");
        }
    } else if (applicationId != kApplicationId) {
        return give(Status::foreign, path + ": a database of another application");
    }
    if (state.schemaVersion > kSchemaVersion) {
        return give(Status::newerSchema, path + ": written by a later version of this program");
    }
    if (access != Access::read) {
        const Status status = store->migrate();
        if (status != Status::ok) {
            return give(status, store->error_);
        }
    } else if (state.schemaVersion < 1) {
        return give(Status::damaged, path + ": the database is unfinished");
    }
    if (!state.immutable) {
        state.fingerprint = Fingerprint::of(path);
    }
    (void)store->changed(); // what is there now is the state to compare with
    out = std::move(store);
    return Status::ok;
}

Status Store::migrate() {
    Impl& state = *impl_;
    // Files beside the database stay when the last writer goes: a reader who may not write the
    // folder needs them.
    int persist = 1;
    (void)sqlite3_file_control(state.connection, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    // Kept, but not with what has long been moved to the database.
    int code = state.execute("PRAGMA journal_mode = WAL; PRAGMA journal_size_limit = 0");
    if (code != SQLITE_OK) {
        return fail(code, "cannot be prepared for writing");
    }
    if (state.schemaVersion == kSchemaVersion) {
        return Status::ok;
    }
    code = state.execute("BEGIN IMMEDIATE");
    if (code != SQLITE_OK) {
        return fail(code, "cannot be locked for writing");
    }
    // Another process may have done it while we waited.
    int64_t applicationId = 0;
    code = state.readHeader(applicationId);
    for (int version = state.schemaVersion; code == SQLITE_OK && version < kSchemaVersion;
         ++version) {
        code = state.execute(kMigrations[static_cast<size_t>(version)]);
    }
    if (code == SQLITE_OK) {
        const std::string header = "PRAGMA application_id = " + std::to_string(kApplicationId) +
                                   "; PRAGMA user_version = " + std::to_string(kSchemaVersion) +
                                   "; COMMIT";
        code = state.execute(header.c_str());
    }
    if (code != SQLITE_OK) {
        const Status status = fail(code, "cannot be brought up to date");
        (void)state.execute("ROLLBACK"); // the failure is reported already
        return status;
    }
    state.schemaVersion = kSchemaVersion;
    return Status::ok;
}

Store::Transaction::Transaction(Store& store) : store_(store) {}

Store::Transaction::~Transaction() {
    if (!open_) {
        return;
    }
    if (--store_.impl_->depth == 0) {
        (void)store_.impl_->execute("ROLLBACK"); // gone already when SQLite rolled back itself
    }
}

Status Store::Transaction::begin() {
    if (store_.impl_->access == Access::read) {
        return store_.refuse(Status::readOnly, "opened for reading");
    }
    if (store_.impl_->depth == 0) {
        const int code = store_.impl_->execute("BEGIN IMMEDIATE");
        if (code != SQLITE_OK) {
            return store_.fail(code, "cannot be locked for writing");
        }
    }
    ++store_.impl_->depth;
    open_ = true;
    return Status::ok;
}

Status Store::Transaction::commit() {
    if (!open_) {
        return Status::failed;
    }
    if (store_.impl_->depth > 1) {
        open_ = false;
        --store_.impl_->depth;
        return Status::ok;
    }
    const int code = store_.impl_->execute("UPDATE modification SET counted = 0; COMMIT");
    if (code != SQLITE_OK) {
        return store_.fail(code, "cannot be written"); // the destructor rolls back
    }
    open_ = false;
    --store_.impl_->depth;
    return Status::ok;
}

template <class Work>
Status Store::inTransaction(Work&& work) {
    Transaction transaction(*this);
    Status status = transaction.begin();
    if (status == Status::ok) {
        status = work();
    }
    return status == Status::ok ? transaction.commit() : status;
}

template <class Work>
Status Store::inReadTransaction(Work&& work) {
    const bool own = impl_->depth == 0;
    if (own) {
        const int code = impl_->execute("BEGIN");
        if (code != SQLITE_OK) {
            return fail(code, "cannot be read");
        }
    }
    Status status = work();
    if (own) {
        (void)impl_->execute("COMMIT"); // nothing was written
    }
    if (impl_->immutable && !(Fingerprint::of(impl_->path) == impl_->fingerprint)) {
        status = refuse(Status::busy, "changed while it was read");
    }
    return status;
}

Status Store::run(Statement& statement, const char* operation) {
    const int code = statement.run();
    return code == SQLITE_DONE ? Status::ok : fail(code, operation);
}

namespace {

constexpr size_t kShownNameBytes = 80; // enough to find it

struct Collector : Store::Visitor {
    explicit Collector(Contents& contents) : contents_(contents) {}

    void onProduct(std::string_view code) override {
        contents_.products.push_back({std::string(code), {}});
    }
    void onPayload(std::string_view code, std::string_view kind, std::string_view launchPath,
                   int32_t installState) override {
        contents_.products.back().payloads.push_back(
            {std::string(code), std::string(kind), std::string(launchPath), installState, {}});
    }
    void onPayloadData(int32_t domain, std::string_view key, std::string_view value) override {
        contents_.products.back().payloads.back().data.push_back(
            {domain, std::string(key), std::string(value)});
    }
    void onSubdomain(int32_t domain, std::string_view name) override {
        contents_.subdomains.push_back({domain, std::string(name), {}});
    }
    void onDomainData(std::string_view key, std::string_view value) override {
        contents_.subdomains.back().data.push_back({std::string(key), std::string(value)});
    }
    void onRefused(std::string_view kind, std::string_view name) override {
        contents_.refused.push_back(std::string(kind) + " " +
                                    std::string(name.substr(0, kShownNameBytes)));
    }

private:
    Contents& contents_;
};

// The rows of a detail table that belong to the master rows as these go by: both are scanned in the
// order of the master's number, so each row is looked at once.
class Details {
public:
    explicit Details(Statement& rows) : rows_(rows) { advance(); }

    // Calls `use` for each row of master row `id`; rows of masters gone by belong to nothing.
    template <class Use>
    void of(int64_t id, Use&& use) {
        while (code_ == SQLITE_ROW && rows_.integer(0) <= id) {
            if (rows_.integer(0) == id) {
                use(rows_);
            }
            advance();
        }
    }
    void skipTo(int64_t id) {
        of(id, [](Statement&) {});
    }
    // SQLITE_ROW or SQLITE_DONE, or the failure that ended the scan.
    int code() const { return code_; }
    bool failed() const { return code_ != SQLITE_ROW && code_ != SQLITE_DONE; }

private:
    void advance() { code_ = rows_.step(); }

    Statement& rows_;
    int code_ = SQLITE_ROW;
};

} // namespace

Status Store::visitSubdomains(Statement& subdomains, Visitor& visitor) {
    Statement data(impl_->connection,
                   "SELECT subdomain, key, value FROM domain_data ORDER BY subdomain, position");
    Details details(data);
    int code = SQLITE_ROW;
    while (!details.failed() && (code = subdomains.step()) == SQLITE_ROW) {
        const int64_t id = subdomains.integer(0);
        const std::string_view name = subdomains.text(2);
        if (!isName(name, kMaxSubdomainBytes)) {
            visitor.onRefused("subdomain", name);
            details.skipTo(id);
            continue;
        }
        visitor.onSubdomain(static_cast<int32_t>(subdomains.integer(1)), name);
        details.of(id, [&visitor, name](Statement& row) {
            const std::string_view key = row.text(1);
            const std::string_view value = row.text(2);
            if (isName(key, kMaxCodeBytes) && value.size() <= kMaxValueBytes) {
                visitor.onDomainData(key, value);
            } else {
                visitor.onRefused("key", std::string(name) + " " + std::string(key));
            }
        });
    }
    if (details.failed()) {
        return fail(details.code(), "domain data cannot be read");
    }
    return code == SQLITE_DONE ? Status::ok : fail(code, "subdomains cannot be read");
}

Status Store::visitDomain(int32_t domain, Visitor& visitor) {
    return inReadTransaction([&] {
        Statement rows(
            impl_->connection,
            "SELECT id, domain, name FROM subdomain NOT INDEXED WHERE domain = ?1 ORDER BY id");
        rows.bind(domain);
        return visitSubdomains(rows, visitor);
    });
}

Status Store::visitAllDomains(Visitor& visitor) {
    return inReadTransaction([&] {
        Statement rows(impl_->connection, "SELECT id, domain, name FROM subdomain ORDER BY id");
        return visitSubdomains(rows, visitor);
    });
}

Status Store::visitProducts(Visitor& visitor) {
    return inReadTransaction([&] {
        Statement products(impl_->connection, "SELECT id, code FROM product ORDER BY id");
        Statement payloads(impl_->connection,
                           "SELECT p.id, p.code, p.kind, p.launch_path, p.install_state "
                           "FROM payload p WHERE p.product = ?1 ORDER BY p.id");
        Statement data(impl_->connection, "SELECT domain, key, value FROM payload_data "
                                          "WHERE payload = ?1 ORDER BY position");
        int code = SQLITE_ROW;
        while ((code = products.step()) == SQLITE_ROW) {
            const std::string_view product = products.text(1);
            if (!isName(product, kMaxCodeBytes)) {
                visitor.onRefused("product", product);
                continue;
            }
            visitor.onProduct(product);
            payloads.bind(products.integer(0));
            while ((code = payloads.step()) == SQLITE_ROW) {
                const std::string_view payload = payloads.text(1);
                const std::string_view launchPath = payloads.text(3);
                if (!isName(payload, kMaxCodeBytes) || launchPath.size() > kMaxLaunchPathBytes) {
                    visitor.onRefused("payload", payload);
                    continue;
                }
                visitor.onPayload(payload, payloads.text(2), launchPath,
                                  static_cast<int32_t>(payloads.integer(4)));
                data.bind(payloads.integer(0));
                while ((code = data.step()) == SQLITE_ROW) {
                    const std::string_view key = data.text(1);
                    const std::string_view value = data.text(2);
                    if (isName(key, kMaxCodeBytes) && value.size() <= kMaxValueBytes) {
                        visitor.onPayloadData(static_cast<int32_t>(data.integer(0)), key, value);
                    } else {
                        visitor.onRefused("key", std::string(payload) + " " + std::string(key));
                    }
                }
                data.reset();
                if (code != SQLITE_DONE) {
                    return fail(code, "payload data cannot be read");
                }
            }
            payloads.reset();
            if (code != SQLITE_DONE) {
                return fail(code, "payloads cannot be read");
            }
        }
        return code == SQLITE_DONE ? Status::ok : fail(code, "products cannot be read");
    });
}

Status Store::readAll(Contents& out) {
    Contents contents;
    Collector collector(contents);
    // One transaction around both, so that they are of one state.
    Status status = inReadTransaction([&] {
        ++impl_->depth; // the inner ones join it
        Status inner = visitProducts(collector);
        if (inner == Status::ok) {
            inner = visitAllDomains(collector);
        }
        --impl_->depth;
        return inner;
    });
    if (status == Status::ok) {
        out = std::move(contents);
    }
    return status;
}

Status Store::readDomain(int32_t domain, std::vector<Subdomain>& out) {
    Contents contents;
    Collector collector(contents);
    const Status status = visitDomain(domain, collector);
    if (status != Status::ok) {
        return status;
    }
    out = std::move(contents.subdomains);
    return out.empty() ? Status::nothingThere : Status::ok;
}

Status Store::readProducts(std::vector<Product>& out) {
    Contents contents;
    Collector collector(contents);
    const Status status = visitProducts(collector);
    if (status == Status::ok) {
        out = std::move(contents.products);
    }
    return status;
}

Status Store::modTime(const char* what, uint32_t& out) {
    if (impl_->schemaVersion < kFirstVersionWithTimes) {
        out = 0; // unknown
        return Status::ok;
    }
    Statement statement(impl_->connection, "SELECT time FROM modification WHERE what = ?1");
    statement.bind(std::string_view(what));
    const int code = statement.step();
    if (code != SQLITE_ROW) {
        return code == SQLITE_DONE ? refuse(Status::damaged, "the modification times are missing")
                                   : fail(code, "modification times cannot be read");
    }
    out = static_cast<uint32_t>(statement.integer(0));
    return Status::ok;
}

Status Store::productModTime(uint32_t& out) {
    return modTime("product", out);
}

Status Store::domainModTime(uint32_t& out) {
    return modTime("domain", out);
}

Status Store::addSubdomain(int32_t domain, std::string_view subdomain) {
    if (!isName(subdomain, kMaxSubdomainBytes)) {
        return refuse(Status::invalidArgument, "a subdomain has 1 to 512 bytes");
    }
    return inTransaction([&] {
        Statement insert(impl_->connection, "INSERT INTO subdomain (domain, name) VALUES (?1, ?2) "
                                            "ON CONFLICT DO NOTHING");
        insert.bind(domain, subdomain);
        return run(insert, "the subdomain cannot be written");
    });
}

Status Store::setDomainData(int32_t domain, std::string_view subdomain, std::string_view key,
                            std::string_view value) {
    if (!isName(key, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument, "a key has 1 to 255 bytes");
    }
    if (!isText(value, kMaxValueBytes)) {
        return refuse(Status::invalidArgument,
                      "a value has at most 65536 bytes, none of them zero");
    }
    return inTransaction([&] {
        const Status status = addSubdomain(domain, subdomain);
        if (status != Status::ok) {
            return status;
        }
        Statement insert(impl_->connection,
                         "INSERT INTO domain_data (subdomain, position, key, value) "
                         "SELECT s.id, (SELECT coalesce(max(d.position), 0) + 1 FROM domain_data d "
                         "WHERE d.subdomain = s.id), ?3, ?4 FROM subdomain s "
                         "WHERE s.domain = ?1 AND s.name = ?2 "
                         "ON CONFLICT (subdomain, key) DO UPDATE SET value = excluded.value");
        insert.bind(domain, subdomain, key, value);
        return run(insert, "the value cannot be written");
    });
}

namespace {

Status removedOrNothing(sqlite3* connection, Status status) {
    return status == Status::ok && sqlite3_changes(connection) == 0 ? Status::nothingThere : status;
}

} // namespace

Status Store::removeDomainData(int32_t domain, std::string_view subdomain, std::string_view key) {
    return inTransaction([&] {
        Statement remove(impl_->connection,
                         "DELETE FROM domain_data WHERE key = ?3 AND subdomain = "
                         "(SELECT id FROM subdomain WHERE domain = ?1 AND name = ?2)");
        remove.bind(domain, subdomain, key);
        const Status status = run(remove, "the value cannot be removed");
        return removedOrNothing(impl_->connection, status);
    });
}

Status Store::removeSubdomain(int32_t domain, std::string_view subdomain) {
    return inTransaction([&] {
        Statement remove(impl_->connection,
                         "DELETE FROM subdomain WHERE domain = ?1 AND name = ?2");
        remove.bind(domain, subdomain);
        const Status status = run(remove, "the subdomain cannot be removed");
        return removedOrNothing(impl_->connection, status);
    });
}

Status Store::addProduct(const Product& product) {
    if (!isName(product.code, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument, "a product's identifier has 1 to 255 bytes");
    }
    return inTransaction([&] {
        Statement insert(impl_->connection, "INSERT INTO product (code) VALUES (?1)");
        insert.bind(std::string_view(product.code));
        Status status = run(insert, "the product cannot be written");
        for (const Payload& payload : product.payloads) {
            if (status == Status::ok) {
                status = addPayload(product.code, payload);
            }
        }
        return status;
    });
}

Status Store::addPayload(std::string_view product, const Payload& payload) {
    if (!isName(payload.code, kMaxCodeBytes) || !isText(payload.kind, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument,
                      "a payload's identifier has 1 to 255 bytes, as has its kind");
    }
    if (!isText(payload.launchPath, kMaxLaunchPathBytes)) {
        return refuse(Status::invalidArgument, "a launch path has at most 1023 bytes");
    }
    return inTransaction([&] {
        Statement insert(impl_->connection,
                         "INSERT INTO payload (product, code, kind, launch_path, install_state) "
                         "SELECT id, ?2, ?3, ?4, ?5 FROM product WHERE code = ?1");
        insert.bind(product, std::string_view(payload.code), std::string_view(payload.kind),
                    std::string_view(payload.launchPath), payload.installState);
        Status status =
            removedOrNothing(impl_->connection, run(insert, "the payload cannot be written"));
        for (const PayloadValue& value : payload.data) {
            if (status == Status::ok) {
                status = setPayloadData(payload.code, value.domain, value.key, value.value);
            }
        }
        return status;
    });
}

Status Store::removeProduct(std::string_view code) {
    return inTransaction([&] {
        Statement remove(impl_->connection, "DELETE FROM product WHERE code = ?1");
        remove.bind(code);
        const Status status = run(remove, "the product cannot be removed");
        return removedOrNothing(impl_->connection, status);
    });
}

Status Store::setPayloadData(std::string_view payload, int32_t domain, std::string_view key,
                             std::string_view value) {
    if (!isName(key, kMaxCodeBytes)) {
        return refuse(Status::invalidArgument, "a key has 1 to 255 bytes");
    }
    if (!isText(value, kMaxValueBytes)) {
        return refuse(Status::invalidArgument,
                      "a value has at most 65536 bytes, none of them zero");
    }
    return inTransaction([&] {
        Statement insert(
            impl_->connection,
            "INSERT INTO payload_data (payload, position, domain, key, value) "
            "SELECT p.id, (SELECT coalesce(max(d.position), 0) + 1 FROM payload_data d "
            "WHERE d.payload = p.id), ?2, ?3, ?4 FROM payload p WHERE p.code = ?1 "
            "ON CONFLICT (payload, domain, key) DO UPDATE SET value = excluded.value");
        insert.bind(payload, domain, key, value);
        return removedOrNothing(impl_->connection, run(insert, "the value cannot be written"));
    });
}

Status Store::removePayloadData(std::string_view payload, int32_t domain, std::string_view key) {
    return inTransaction([&] {
        Statement remove(impl_->connection,
                         "DELETE FROM payload_data WHERE domain = ?2 AND key = ?3 AND payload = "
                         "(SELECT id FROM payload WHERE code = ?1)");
        remove.bind(payload, domain, key);
        const Status status = run(remove, "the value cannot be removed");
        return removedOrNothing(impl_->connection, status);
    });
}

Status Store::clear() {
    return inTransaction([&] {
        const int code = impl_->execute("DELETE FROM product; DELETE FROM subdomain");
        return code == SQLITE_OK ? Status::ok : fail(code, "cannot be emptied");
    });
}

bool Store::changed() {
    const Fingerprint now = Fingerprint::of(impl_->path);
    if (impl_->immutable) {
        return !(now == impl_->fingerprint);
    }
    if (!now.sameFile(impl_->fingerprint)) {
        return true;
    }
    int code = SQLITE_OK;
    const int64_t version = impl_->pragma("PRAGMA data_version", code);
    const bool differs = code != SQLITE_OK || version != impl_->dataVersion;
    impl_->dataVersion = version;
    return differs;
}

} // namespace caps
