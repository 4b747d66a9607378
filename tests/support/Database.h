#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>

#include "caps/Store.h"

// What another program does to a database file, which is made when it is not there.
inline void executeSql(const std::string& path, const std::string& sql) {
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &connection), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << error;
    sqlite3_free(error);
    sqlite3_close(connection);
}

// A database that can be opened so: without it a test ends.
inline std::unique_ptr<caps::Store>
openStore(const std::string& path, caps::Store::Access access = caps::Store::Access::create) {
    std::unique_ptr<caps::Store> store;
    return caps::Store::open(path, access, store) == caps::Status::ok
               ? std::move(store)
               : throw std::runtime_error("cannot open " + path);
}
