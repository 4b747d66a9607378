#pragma once

#include <array>

namespace caps {

// Marks the file as ours in SQLite's header: "OVRL" as a number.
inline constexpr int kApplicationId = 0x4F56524C;

// A trigger that keeps the modification time of `what`: now, or one more than before for the first
// change of a transaction. `counted` says that the running transaction has had its one; writers
// clear it when they commit.
#define CAPS_TOUCH(table, event, what)                                                             \
    "CREATE TRIGGER touch_" #table "_" #event " AFTER " #event " ON " #table " BEGIN "             \
    "UPDATE modification SET time = max(unixepoch(), time + (counted = 0)), counted = 1 "          \
    "WHERE what = '" what "'; END;"
#define CAPS_TOUCH_ALL(table, what)                                                                \
    CAPS_TOUCH(table, INSERT, what) CAPS_TOUCH(table, UPDATE, what) CAPS_TOUCH(table, DELETE, what)

// Each script brings a database from the version of its position to the next one; a new database
// runs all of them. Never change a script that has been released: append one.
//
// Row numbers are the order of registration. The scans that a session makes (products, payloads and
// their data, subdomains and their data) follow the tables as they are stored, so none sorts.
inline constexpr std::array kMigrations = {
    // 1: products, payloads, domain data
    R"(
CREATE TABLE product (
    id INTEGER PRIMARY KEY,
    code TEXT NOT NULL UNIQUE
);
CREATE TABLE payload (
    id INTEGER PRIMARY KEY,
    product INTEGER NOT NULL REFERENCES product ON DELETE CASCADE,
    code TEXT NOT NULL UNIQUE,
    kind TEXT NOT NULL,
    launch_path TEXT NOT NULL,
    install_state INTEGER NOT NULL
);
CREATE INDEX payload_of_product ON payload (product);
CREATE TABLE payload_data (
    payload INTEGER NOT NULL REFERENCES payload ON DELETE CASCADE,
    position INTEGER NOT NULL,
    domain INTEGER NOT NULL,
    key TEXT NOT NULL,
    value TEXT NOT NULL,
    PRIMARY KEY (payload, position),
    UNIQUE (payload, domain, key)
) WITHOUT ROWID;
CREATE TABLE subdomain (
    id INTEGER PRIMARY KEY,
    domain INTEGER NOT NULL,
    name TEXT NOT NULL,
    UNIQUE (domain, name)
);
CREATE TABLE domain_data (
    subdomain INTEGER NOT NULL REFERENCES subdomain ON DELETE CASCADE,
    position INTEGER NOT NULL,
    key TEXT NOT NULL,
    value TEXT NOT NULL,
    PRIMARY KEY (subdomain, position),
    UNIQUE (subdomain, key)
) WITHOUT ROWID;
)",
    // 2: modification times
    R"(
CREATE TABLE modification (
    what TEXT PRIMARY KEY,
    time INTEGER NOT NULL,
    counted INTEGER NOT NULL DEFAULT 0
) WITHOUT ROWID;
INSERT INTO modification (what, time) VALUES ('product', unixepoch()), ('domain', unixepoch());
)" CAPS_TOUCH_ALL(product, "product") CAPS_TOUCH_ALL(payload, "product")
        CAPS_TOUCH_ALL(payload_data, "product") CAPS_TOUCH_ALL(subdomain, "domain")
            CAPS_TOUCH_ALL(domain_data, "domain"),
    // 3: when a registration was last written, and the file that it comes from (none: by hand)
    R"(
ALTER TABLE product ADD COLUMN changed INTEGER NOT NULL DEFAULT 0;
ALTER TABLE product ADD COLUMN origin TEXT NOT NULL DEFAULT '';
ALTER TABLE subdomain ADD COLUMN changed INTEGER NOT NULL DEFAULT 0;
ALTER TABLE domain_data ADD COLUMN origin TEXT NOT NULL DEFAULT '';
)",
};

#undef CAPS_TOUCH_ALL
#undef CAPS_TOUCH

inline constexpr int kSchemaVersion = static_cast<int>(kMigrations.size());
// The first version that keeps modification times.
inline constexpr int kFirstVersionWithTimes = 2;
// The first version that knows of each registration when it was written and where it comes from.
inline constexpr int kFirstVersionWithOrigins = 3;

} // namespace caps
