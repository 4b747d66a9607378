#pragma once

#include <ctime>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

#include "caps/Sqlite.h"
#include "caps/Store.h"
#include "limits/Limits.h"

// What the sources of Store share.
namespace caps {

// What tells one state of a file from another without reading it.
struct Fingerprint {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec changed{};
    timespec noted{}; // when the system last changed anything of it: nobody can set this time back

    static Fingerprint of(const struct stat& status) {
        return {status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
    }
    static Fingerprint of(const std::string& path) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? of(status) : Fingerprint{};
    }
    bool sameFile(const Fingerprint& other) const {
        return device == other.device && inode == other.inode;
    }
    bool operator==(const Fingerprint& other) const {
        const auto same = [](const timespec& a, const timespec& b) {
            return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
        };
        return sameFile(other) && size == other.size && same(changed, other.changed) &&
               same(noted, other.noted);
    }
};

constexpr int kCheckpointWaitMilliseconds = limits::of("database.move-wait");

// What SQLite's codes, extended ones too, mean to a caller.
Status statusOf(int sqliteCode);

// As an address for SQLite, in which some characters have a meaning.
std::string fileAddress(const std::string& path, const char* options);

// True for texts that may be stored: of at most so many bytes, none of them zero; a name has one at
// the least.
inline bool isText(std::string_view text, size_t maximumBytes) {
    return text.size() <= maximumBytes && text.find('\0') == std::string_view::npos;
}
inline bool isName(std::string_view text, size_t maximumBytes) {
    return !text.empty() && isText(text, maximumBytes);
}

struct Store::Impl {
    std::string path;
    Access access = Access::read;
    sqlite3* connection = nullptr;
    int64_t applicationId = 0;
    int schemaVersion = 0;
    // The file may not be locked here (its folder cannot be written): it is read as if nobody
    // wrote, and what was read counts only when the file is still the same afterwards.
    bool immutable = false;
    // The same by choice, of a file that nobody was writing: nothing lay in the file beside it.
    bool glance = false;
    Fingerprint fingerprint;
    uint32_t glancedTimes[2] = {}; // of the products and of the domain data
    int64_t dataVersion = 0;
    int depth = 0;      // of write transactions
    std::string origin; // of what is written

    // Whether what was read is of one state, as far as that is not for locks to see to.
    bool isAsOpened() const { return !immutable || Fingerprint::of(path) == fingerprint; }

    // Every writer of ours leaves the file beside the database where it is, and empty.
    bool isNothingBeside() const { return Fingerprint::of(path + "-wal").size == 0; }

    // Prepared once and kept: an import runs the same few ten thousands of times.
    std::unordered_map<std::string_view, std::unique_ptr<Statement>> statements;

    ~Impl() {
        statements.clear(); // before their connection
        if (connection != nullptr && access != Store::Access::read) {
            // Moves what was written from the file beside the database into it, also while others
            // have it open: whoever replaces or copies the database then takes all of it, and
            // leaves nothing that would be applied to another one. A reader in the middle of a walk
            // hinders that; the next writer does it then.
            (void)sqlite3_busy_timeout(connection, kCheckpointWaitMilliseconds);
            (void)sqlite3_wal_checkpoint_v2(connection, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                            nullptr, nullptr);
        }
        (void)sqlite3_close_v2(connection); // never fails in this form
    }

    // The statement for a literal text, ready to be bound.
    Statement& prepared(std::string_view sql) {
        std::unique_ptr<Statement>& statement = statements[sql];
        if (statement == nullptr) {
            statement = std::make_unique<Statement>(connection, sql.data());
        }
        return *statement;
    }

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

    // Opens the file, with options as in an address, and reads its header.
    int open(const char* options, int flags, int waitMilliseconds) {
        (void)sqlite3_close_v2(connection);
        connection = nullptr;
        const int code = sqlite3_open_v2(fileAddress(path, options).c_str(), &connection,
                                         flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI, nullptr);
        if (code != SQLITE_OK) {
            return code;
        }
        (void)sqlite3_extended_result_codes(connection, 1);
        (void)sqlite3_busy_timeout(connection, waitMilliseconds);
        // The file is not trusted: no code of its schema runs with our rights, no page lies about
        // itself, and nobody edits the schema through us.
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        (void)sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_FKEY, 1, nullptr);
        return readHeader();
    }

    // Reads the header of the file through SQLite; opening alone does not touch it.
    int readHeader() {
        int code = SQLITE_OK;
        applicationId = pragma("PRAGMA application_id", code);
        if (code == SQLITE_OK) {
            schemaVersion = static_cast<int>(pragma("PRAGMA user_version", code));
        }
        return code;
    }
};

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
    Status status = Status::ok;
    {
        struct End {
            Impl* impl;
            ~End() {
                if (impl != nullptr) {
                    (void)impl->execute("COMMIT"); // nothing was written
                }
            }
        };
        const End end{own ? impl_.get() : nullptr}; // also when memory runs out in `work`
        status = work();
    }
    if (!impl_->isAsOpened()) {
        status = refuse(Status::busy, "changed while it was read");
    }
    return status;
}

} // namespace caps
