// What a listing costs at the least: opens the database file, reads the rows that a listing needs
// in one ordered query a table, and prints the same lines as the tool. Knows nothing of specifiers,
// groups, redirects or damaged files; serves databases in which every application has a path.
// Flushes each line, as the tool does, unless a second argument is given.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sqlite3.h>
#include <string>
#include <unordered_map>

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

const char* text(sqlite3_stmt* statement, int column) {
    return reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
}

sqlite3_stmt* query(sqlite3* database, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) {
        (void)std::fprintf(stderr, "%s\n", sqlite3_errmsg(database));
        std::_Exit(1);
    }
    return statement;
}

} // namespace

int main(int argc, char** argv) {
    sqlite3* database = nullptr;
    const bool flush = argc == 2;
    if (argc < 2 || sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READONLY, nullptr) != 0) {
        return 1;
    }
    std::unordered_map<std::string, std::string> languages; // by product folder
    sqlite3_stmt* payloads =
        query(database, "SELECT payload, key, value FROM payload_data ORDER BY payload, position");
    std::string installed;
    while (sqlite3_step(payloads) == SQLITE_ROW) {
        const char* key = text(payloads, 1);
        if (std::strcmp(key, "installedLanguages") == 0) {
            installed = text(payloads, 2);
        } else if (std::strcmp(key, "PYLConfigPath") == 0) {
            std::string folder = text(payloads, 2);
            folder.resize(folder.find('/', folder.find('/', 1) + 1));
            languages.emplace(std::move(folder), installed);
        }
    }
    sqlite3_finalize(payloads);

    const auto endLine = [flush] {
        if (flush) {
            (void)std::fflush(stdout);
        }
    };
    std::puts("<products>");
    endLine();
    sqlite3_stmt* rows = query(
        database, "SELECT subdomain, key, value FROM domain_data ORDER BY subdomain, position");
    std::string specifier;
    std::string path;
    const auto print = [&] {
        if (specifier.empty()) {
            return;
        }
        const auto found = languages.find(path.substr(0, path.rfind('/')));
        std::printf("<product specifier='%s' path='%s' locale='%s'/>\n", escaped(specifier).c_str(),
                    escaped(path).c_str(),
                    found == languages.end() ? "en_US" : escaped(found->second).c_str());
        endLine();
        specifier.clear();
    };
    sqlite3_int64 last = -1;
    while (sqlite3_step(rows) == SQLITE_ROW) {
        if (sqlite3_column_int64(rows, 0) != last) {
            print();
            last = sqlite3_column_int64(rows, 0);
        }
        const char* key = text(rows, 1);
        if (std::strcmp(key, "Specifier") == 0) {
            specifier = text(rows, 2);
        } else if (std::strcmp(key, "Path") == 0) {
            path = text(rows, 2);
        }
    }
    print();
    sqlite3_finalize(rows);
    sqlite3_close(database);
    std::puts("</products>");
    return 0;
}
