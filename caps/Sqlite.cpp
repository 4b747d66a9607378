#include "caps/Sqlite.h"

#include <new>
#include <sqlite3.h>

namespace caps {

Statement::Statement(sqlite3* connection, const char* sql) {
    // Kept until `step`, so that a statement is made, bound and run without three questions in
    // between.
    failure_ = sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr);
}

Statement::~Statement() {
    (void)sqlite3_finalize(statement_); // repeats the failure that `step` has reported
}

int Statement::step() {
    return failure_ != SQLITE_OK ? failure_ : sqlite3_step(statement_);
}

int Statement::run() {
    const int result = step();
    reset();
    return result;
}

void Statement::reset() {
    (void)sqlite3_reset(statement_); // repeats the failure that `step` has reported
    if (statement_ != nullptr) {
        failure_ = SQLITE_OK; // of binding; one of preparing stays
    }
}

int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::string_view Statement::text(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    if (bytes == nullptr) {
        if (sqlite3_errcode(sqlite3_db_handle(statement_)) == SQLITE_NOMEM) {
            throw std::bad_alloc(); // a text that could not be made is not an empty one
        }
        return ""; // callers copy it, which a null pointer is not for
    }
    // SQLite ends each text with a zero. A row made by hand may hold one before: what stands behind
    // it cannot leave through a C interface, and must not make two keys of what is one there.
    return bytes;
}

void Statement::bindOne(int position, int64_t value) {
    if (failure_ == SQLITE_OK) {
        failure_ = sqlite3_bind_int64(statement_, position, value);
    }
}

void Statement::bindOne(int position, std::string_view value) {
    if (failure_ == SQLITE_OK) {
        const char* bytes = value.empty() ? "" : value.data(); // null would be bound as NULL
        // Without a copy: what is bound lives until the statement has run.
        failure_ = sqlite3_bind_text64(statement_, position, bytes, value.size(), SQLITE_STATIC,
                                       SQLITE_UTF8);
    }
}

} // namespace caps
