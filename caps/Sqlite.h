#pragma once

#include <cstdint>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace caps {

// One prepared statement. Owned by its maker, finalised with it, before its connection is closed.
// Used by the thread that uses the connection. Results are SQLite's own codes.
class Statement {
public:
    // `sql` must be valid for the schema: a failure leaves a statement whose `step` reports it.
    Statement(sqlite3* connection, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Binds the parameters in order, from 1 on. The texts must live until the statement is reset.
    template <class... Values>
    Statement& bind(Values... values) {
        int position = 0;
        (bindOne(++position, values), ...);
        return *this;
    }

    // SQLITE_ROW, SQLITE_DONE or an error.
    int step();
    // Steps once and resets, for statements without rows: SQLITE_DONE or an error.
    int run();
    void reset();

    int64_t integer(int column) const;
    // The bytes of a text, up to the first zero byte; empty for NULL. Good until the next step.
    // Throws std::bad_alloc.
    std::string_view text(int column) const;

private:
    void bindOne(int position, int64_t value);
    void bindOne(int position, int32_t value) { bindOne(position, static_cast<int64_t>(value)); }
    void bindOne(int position, std::string_view value);

    sqlite3_stmt* statement_ = nullptr;
    int failure_ = 0; // of preparing or binding
};

} // namespace caps
