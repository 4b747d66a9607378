#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>

// What another program does to a database file, which is made when it is not there.
inline void executeSql(const std::string& path, const std::string& sql) {
    sqlite3* connection = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &connection), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << error;
    sqlite3_free(error);
    sqlite3_close(connection);
}
