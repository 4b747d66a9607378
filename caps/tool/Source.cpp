#include "caps/tool/Source.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unordered_map>

#include "caps/config/Document.h"
#include "caps/tool/Context.h"
#include "limits/InWords.h"
#include "limits/Limits.h"

namespace caps::tool {
namespace {

constexpr size_t kMaxSourceBytes = limits::of("import.file");
constexpr std::string_view kDatabaseMark = "SQLite format 3";

std::string readWhole(std::istream& in, const std::string& name) {
    std::string text;
    char block[65536];
    // Counted while it is read: standard input tells no size beforehand.
    while (in.read(block, sizeof block) || in.gcount() > 0) {
        text.append(block, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxSourceBytes) {
            throw Failure(name + ": larger than " + limits::inWords("import.file"));
        }
    }
    if (in.bad()) {
        throw Failure(name + ": cannot be read");
    }
    return text;
}

Contents readDatabase(const std::string& file) {
    std::unique_ptr<Store> store;
    std::string error;
    if (Store::open(file, Store::Access::read, store, &error) != Status::ok) {
        throw Failure(error);
    }
    Contents contents;
    if (store->readAll(contents) != Status::ok) {
        throw Failure(store->lastError());
    }
    return contents;
}

// Collects entries as the database would: each subdomain and each product once.
class Collector {
public:
    void add(const Application& application) {
        Subdomain& subdomain = at(kRegistryDomain, subdomainOf(application.specifier));
        subdomain.data = {{std::string(kSpecifierKey), application.specifier}};
        for (const KeyValue& entry : application.keys) {
            set(subdomain, entry);
        }
    }
    void add(const Group& group) {
        Subdomain& groups = at(kRegistryDomain, std::string(kGroupsSubdomain));
        KeyValue entry{group.key, groupValue(group)};
        if (!entry.key.empty()) {
            set(groups, entry);
            return;
        }
        std::set<std::string_view> keys;
        for (const KeyValue& one : groups.data) {
            keys.insert(one.key);
            if (one.value == entry.value) {
                return; // said before
            }
        }
        for (size_t n = keys.size() + 1; entry.key.empty() || keys.contains(entry.key); ++n) {
            entry.key = std::string(kGroupKeyPrefix) + std::to_string(n);
        }
        groups.data.push_back(std::move(entry));
    }
    void add(const Product& product) { contents.products.push_back(product); }
    void add(const Subdomain& data) {
        Subdomain& subdomain = at(data.domain, data.name);
        for (const KeyValue& entry : data.data) {
            set(subdomain, entry);
        }
    }

    Contents contents;

private:
    Subdomain& at(int32_t domain, const std::string& name) {
        const auto [place, added] =
            places_.emplace(std::to_string(domain) + " " + name, contents.subdomains.size());
        if (added) {
            contents.subdomains.push_back({domain, name, {}});
        }
        return contents.subdomains[place->second];
    }
    static void set(Subdomain& subdomain, const KeyValue& entry) {
        for (KeyValue& known : subdomain.data) {
            if (known.key == entry.key) {
                known.value = entry.value;
                return;
            }
        }
        subdomain.data.push_back(entry);
    }

    std::unordered_map<std::string, size_t> places_;
};

} // namespace

std::ifstream openFile(const std::string& file) {
    struct stat status {};
    // Opening a pipe would wait for a writer that may never come.
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw Failure(file + ": not a file");
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw Failure(file + ": cannot be read");
    }
    return stream;
}

SourceKind kindOf(std::istream& in) {
    const int first = in.peek();
    // TOML begins neither with '<' nor, here, with the mark of UTF-8, which some editors write
    // before XML.
    return first == '<' || first == 0xEF ? SourceKind::document : SourceKind::toml;
}

SourceKind kindOfFile(const std::string& file) {
    std::ifstream in = openFile(file);
    char mark[kDatabaseMark.size()] = {};
    in.read(mark, sizeof mark);
    if (std::string_view(mark, sizeof mark) == kDatabaseMark) {
        return SourceKind::database;
    }
    in.clear();
    in.seekg(0);
    return kindOf(in);
}

Contents readSource(const std::string& file, std::istream& in) {
    const bool isInput = file == "-";
    const std::string name = isInput ? "standard input" : file;
    const SourceKind kind = isInput ? kindOf(in) : kindOfFile(file);
    if (kind == SourceKind::database) {
        return readDatabase(file);
    }
    std::ifstream stream;
    if (!isInput) {
        stream = openFile(file);
    }
    std::istream& source = isInput ? in : stream;
    return kind == SourceKind::document ? config::readDocument(readWhole(source, name), name)
                                        : contentsOf(parseToml(source, name));
}

Contents contentsOf(const std::vector<TomlEntry>& entries) {
    Collector collector;
    for (const TomlEntry& entry : entries) {
        std::visit([&collector](const auto& content) { collector.add(content); }, entry.content);
    }
    return std::move(collector.contents);
}

} // namespace caps::tool
