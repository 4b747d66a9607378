#include "caps/Store.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <unistd.h>

#include "caps/Schema.h"
#include "caps/StoreImpl.h"
#include "limits/Limits.h"

namespace caps {
namespace {

constexpr int kReaderWaitMilliseconds = limits::of("database.read-wait");
constexpr int kWriterWaitMilliseconds = limits::of("database.write-wait");
constexpr int64_t kSettledMilliseconds = 100; // steps of files' times are shorter, as a rule
constexpr int64_t kSettledInSecondsMilliseconds = 3000; // or are whole seconds, of at most two
constexpr const char* kImmutable = "?immutable=1";

// Whether whoever writes the file from now on will give it another time than it has: its times are
// counted in steps, and two changes within one look like one.
bool isSettled(const struct stat& status) {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // fails for clocks that are not there only
    const auto isOld = [&now](const timespec& time) {
        const int64_t milliseconds =
            (now.tv_sec - time.tv_sec) * int64_t{1000} + (now.tv_nsec - time.tv_nsec) / 1'000'000;
        return milliseconds >=
               (time.tv_nsec == 0 ? kSettledInSecondsMilliseconds : kSettledMilliseconds);
    };
    return isOld(status.st_mtim) && isOld(status.st_ctim);
}

Status isRegularDatabase(const std::string& path, std::string& reason) {
    struct stat status {};
    if (path.empty() ||
        (stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR))) {
        reason = path.empty() ? "no database is registered" : path + ": there is no such database";
        return Status::noDatabase;
    }
    // Nothing was filled in: the question itself failed, and for another reason than absence.
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
    // An extended code has the plain one in its lowest byte.
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
    // What the caller gave breaks a rule of the schema: nothing is wrong with the file.
    case SQLITE_CONSTRAINT:
    case SQLITE_TOOBIG:
        return Status::invalidArgument;
    default:
        return Status::failed;
    }
}

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
    if (access == Access::create) {
        std::error_code ignored; // a folder that cannot be made shows when the file is opened
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    }
    const auto make = [&path](Access accessOfImpl) {
        auto impl = std::make_unique<Impl>();
        impl->path = path;
        impl->access = accessOfImpl;
        return std::unique_ptr<Store>(new Store(std::move(impl)));
    };
    if (access == Access::glance) {
        access = Access::read;
        std::unique_ptr<Store> glancing = make(access);
        if (glancing->glance()) {
            out = std::move(glancing);
            return Status::ok;
        }
        // Anew, with locks: what is wrong with the file is told in that form.
    }
    std::unique_ptr<Store> store = make(access);
    Status status = store->find();
    if (status == Status::ok) {
        status = store->connect();
    }
    if (status == Status::ok) {
        status = store->recognise();
    }
    if (status == Status::ok && access != Access::read) {
        status = store->migrate();
    }
    if (status != Status::ok) {
        if (error != nullptr) {
            *error = store->error_;
        }
        return status;
    }
    if (!store->impl_->immutable) {
        store->impl_->fingerprint = Fingerprint::of(path);
    }
    (void)store->changed(); // what is there now is the state to compare with
    out = std::move(store);
    return Status::ok;
}

// Opens a file that nobody is writing. Locks, the file that they are in and the questions for both
// are most of what a reader asks of the system; what they are for is known without them here: a
// writer writes into the file beside the database first, and then the database, whose times tell.
bool Store::glance() {
    Impl& state = *impl_;
    struct stat status {};
    // What lies beside a link's end is not found by the link's name.
    if (lstat(state.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || !isSettled(status) ||
        !state.isNothingBeside()) {
        return false;
    }
    state.immutable = true;
    state.fingerprint = Fingerprint::of(status);
    // The times of its content with the rest: they cannot change while the file is the same.
    state.glance = state.open(kImmutable, SQLITE_OPEN_READONLY, 0) == SQLITE_OK &&
                   recognise() == Status::ok &&
                   productModTime(state.glancedTimes[0]) == Status::ok &&
                   domainModTime(state.glancedTimes[1]) == Status::ok && state.isAsOpened();
    return state.glance;
}

// Looks at the file without opening it: opening alone can wait for ever, or make one.
Status Store::find() {
    const Status status = isRegularDatabase(impl_->path, error_);
    return status == Status::noDatabase && impl_->access == Access::create ? Status::ok : status;
}

// Opens the file and reads its header.
Status Store::connect() {
    Impl& state = *impl_;
    constexpr int kCreating = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int waitMilliseconds =
        state.access == Access::read ? kReaderWaitMilliseconds : kWriterWaitMilliseconds;
    int code = state.open("",
                          state.access == Access::read    ? SQLITE_OPEN_READONLY
                          : state.access == Access::write ? SQLITE_OPEN_READWRITE
                                                          : kCreating,
                          waitMilliseconds);
    // The files beside the database cannot be made: its folder is not ours to write, or the disk is
    // full.
    const int kind = code & 0xFF;
    if (state.access == Access::read && (kind == SQLITE_CANTOPEN || kind == SQLITE_READONLY ||
                                         kind == SQLITE_FULL || kind == SQLITE_IOERR)) {
        // What a writer left beside the file belongs to it and cannot be taken into account.
        for (const char* suffix : {"-wal", "-journal"}) {
            if (Fingerprint::of(state.path + suffix).size > 0) {
                error_ = state.path + suffix + ": may not be used";
                return Status::failed;
            }
        }
        state.immutable = true;
        // Before it is read: SQLite takes no locks in this form and sees no change, so only the
        // comparison tells whether what was read is of one state.
        state.fingerprint = Fingerprint::of(state.path);
        code = state.open(kImmutable, SQLITE_OPEN_READONLY, waitMilliseconds);
    }
    return code == SQLITE_OK ? Status::ok : fail(code, "cannot be opened");
}

// Judges by the header and the schema whether the file is ours and of a version that we know.
Status Store::recognise() {
    Impl& state = *impl_;
    int code = SQLITE_OK;
    if (state.applicationId == 0 && state.schemaVersion == 0) {
        // An empty file is one that is about to be made; anything else is not ours.
        const int64_t tables = state.pragma("SELECT count(*) FROM sqlite_schema", code);
        if (code != SQLITE_OK) {
            return fail(code, "cannot be read");
        }
        if (tables == 0 && state.access == Access::read) {
            return refuse(Status::damaged, "the database is empty");
        }
        if (tables != 0) {
            return refuse(Status::foreign, "a database of another application");
        }
    } else if (state.applicationId != kApplicationId) {
        return refuse(Status::foreign, "a database of another application");
    }
    if (state.schemaVersion < 0) {
        return refuse(Status::damaged, "the schema's version is negative");
    }
    // Not read as far as it can be understood: what a later version means by it is unknown.
    if (state.schemaVersion > kSchemaVersion) {
        return refuse(Status::newerSchema, "written by a later version of this program");
    }
    // Our schema has none; one in a file that was tampered with could compute for ever.
    const int64_t views =
        state.pragma("SELECT count(*) FROM sqlite_schema WHERE type = 'view'", code);
    if (code != SQLITE_OK) {
        return fail(code, "cannot be read");
    }
    if (views != 0) {
        return refuse(Status::damaged, "the schema is not ours");
    }
    return state.access == Access::read && state.schemaVersion < 1
               ? refuse(Status::damaged, "the database is unfinished")
               : Status::ok;
}

Status Store::migrate() {
    Impl& state = *impl_;
    // Files beside the database stay when the last writer goes: a reader who may not write the
    // folder needs them.
    int persist = 1;
    (void)sqlite3_file_control(state.connection, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    // Kept, but not with what has long been moved to the database.
    // In memory 32 MiB at most, so that what a large import changes is written once.
    int code = state.execute("PRAGMA journal_mode = WAL; PRAGMA journal_size_limit = 0; "
                             "PRAGMA cache_size = -32768");
    if (code != SQLITE_OK) {
        return fail(code, "cannot be prepared for writing");
    }
    if (state.schemaVersion == kSchemaVersion) {
        return Status::ok;
    }
    // At once for writing: begun for reading, two who migrate at the same time could each wait for
    // the other, and SQLite would refuse one of them.
    code = state.execute("BEGIN IMMEDIATE");
    if (code != SQLITE_OK) {
        return fail(code, "cannot be locked for writing");
    }
    // Another process may have done it while we waited.
    code = state.readHeader();
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
    // Gone already when SQLite rolled back itself.
    const bool outermost = --store_.impl_->depth == 0;
    if (outermost) {
        (void)store_.impl_->prepared("ROLLBACK").run();
    } else {
        // In two steps: SQLite keeps a savepoint that was rolled back to.
        (void)store_.impl_->prepared("ROLLBACK TO inner").run();
        (void)store_.impl_->prepared("RELEASE inner").run();
    }
}

Status Store::Transaction::begin() {
    if (store_.impl_->access == Access::read) {
        return store_.refuse(Status::readOnly, "opened for reading");
    }
    const bool outermost = store_.impl_->depth == 0;
    const int code =
        store_.impl_->prepared(outermost ? "BEGIN IMMEDIATE" : "SAVEPOINT inner").run();
    if (code != SQLITE_DONE) {
        return store_.fail(code, "cannot be locked for writing");
    }
    ++store_.impl_->depth;
    open_ = true;
    return Status::ok;
}

Status Store::Transaction::commit() {
    if (!open_) {
        return Status::failed;
    }
    const bool outermost = store_.impl_->depth == 1;
    int code = SQLITE_DONE;
    if (outermost) {
        // The next transaction counts on from here, see the triggers of the schema.
        code = store_.impl_->prepared("UPDATE modification SET counted = 0").run();
    }
    if (code == SQLITE_DONE) {
        code = store_.impl_->prepared(outermost ? "COMMIT" : "RELEASE inner").run();
    }
    if (code != SQLITE_DONE) {
        return store_.fail(code, "cannot be written"); // the destructor rolls back
    }
    open_ = false;
    --store_.impl_->depth;
    return Status::ok;
}

Status Store::run(Statement& statement, const char* operation) {
    const int code = statement.run();
    return code == SQLITE_DONE ? Status::ok : fail(code, operation);
}

} // namespace caps
