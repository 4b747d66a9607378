#include "caps/tool/TomlFile.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>
#include <sstream>

#include "caps/tool/TomlLibrary.h"
#include "limits/InWords.h"
#include "limits/Limits.h"

namespace caps::tool {
namespace {

using Position = toml::source_position;

// Reads one table: every field is asked for by name, and what was not asked for is a mistake.
class TableReader {
public:
    TableReader(const toml::table& table, const std::string& file) : table_(table), file_(file) {}

    [[noreturn]] static void fail(const std::string& file, Position position,
                                  const std::string& what) {
        throw TomlError(at(file, position) + ": " + what);
    }
    static std::string at(const std::string& file, Position position) {
        return file + ":" + std::to_string(position.line) + ":" + std::to_string(position.column);
    }
    [[noreturn]] void fail(const toml::node& node, const std::string& what) const {
        fail(file_, node.source().begin, what);
    }

    // The fields in the order of the file: the parser sorts them by name.
    std::vector<std::pair<std::string, const toml::node*>> fields() const {
        struct Field {
            Position position;
            std::string key;
            const toml::node* node;
        };
        std::vector<Field> placed;
        for (const auto& [key, node] : table_) {
            placed.push_back({key.source().begin, std::string(key.str()), &node});
        }
        std::stable_sort(placed.begin(), placed.end(),
                         [](const Field& x, const Field& y) { return x.position < y.position; });
        std::vector<std::pair<std::string, const toml::node*>> all;
        all.reserve(placed.size());
        for (Field& field : placed) {
            all.emplace_back(std::move(field.key), field.node);
        }
        return all;
    }

    std::string text(std::string_view field) {
        asked_.emplace_back(field);
        const toml::node* node = table_.get(field);
        if (node == nullptr) {
            fail(table_, "\"" + std::string(field) + "\" is missing");
        }
        return textOf(*node);
    }
    std::string text(std::string_view field, std::string otherwise) {
        asked_.emplace_back(field);
        const toml::node* node = table_.get(field);
        return node == nullptr ? std::move(otherwise) : textOf(*node);
    }
    int32_t integer(std::string_view field, int32_t otherwise) {
        asked_.emplace_back(field);
        const toml::node* node = table_.get(field);
        if (node == nullptr) {
            return otherwise;
        }
        const auto number = node->is_integer() ? node->value<int64_t>() : std::nullopt;
        if (!number || *number < INT32_MIN || *number > INT32_MAX) {
            fail(*node, "\"" + std::string(field) + "\" must be a whole number of 32 bits");
        }
        return static_cast<int32_t>(*number);
    }
    // The tables of an array of tables; none when the field is missing.
    std::vector<const toml::table*> tables(std::string_view field) {
        asked_.emplace_back(field);
        return tablesOf(table_, field, file_);
    }
    static std::vector<const toml::table*>
    tablesOf(const toml::table& table, std::string_view field, const std::string& file) {
        const toml::node* node = table.get(field);
        if (node == nullptr) {
            return {};
        }
        const toml::array* array = node->as_array();
        std::vector<const toml::table*> found;
        for (size_t i = 0; array != nullptr && i < array->size(); ++i) {
            if (const toml::table* element = array->get(i)->as_table()) {
                found.push_back(element);
            } else {
                fail(file, array->get(i)->source().begin,
                     "\"" + std::string(field) + "\" holds tables");
            }
        }
        if (array == nullptr) {
            fail(file, node->source().begin,
                 "\"" + std::string(field) + "\" is written [[" + std::string(field) + "]]");
        }
        return found;
    }
    std::vector<KeyValue> values(std::string_view field) {
        asked_.emplace_back(field);
        std::vector<KeyValue> found;
        if (const toml::node* node = table_.get(field)) {
            const toml::table* table = node->as_table();
            if (table == nullptr) {
                fail(*node, "\"" + std::string(field) + "\" must be a table");
            }
            for (const auto& [key, value] : TableReader(*table, file_).fields()) {
                found.push_back({checkedKey(key, *value), textOf(*value)});
            }
        }
        return found;
    }
    void expectNothingElse() const {
        for (const auto& [key, node] : fields()) {
            if (std::find(asked_.begin(), asked_.end(), key) == asked_.end()) {
                fail(*node, "unknown field \"" + key + "\"");
            }
        }
    }
    std::string checkedKey(const std::string& key, const toml::node& where) const {
        if (key.empty() || key.size() > kMaxCodeBytes || key.find('\0') != std::string::npos) {
            fail(where,
                 "a key has 1 to " + limits::inWords("database.code") + ", none of them zero");
        }
        return key;
    }
    // Texts as they are; booleans and numbers as the registry spells them.
    std::string textOf(const toml::node& node) const {
        if (const auto* text = node.as_string()) {
            if (text->get().find('\0') != std::string::npos) {
                fail(node, "a text has no zero bytes");
            }
            if (text->get().size() > kMaxValueBytes) {
                fail(node, "a value has at most " + limits::inWords("database.value"));
            }
            return text->get();
        }
        if (const auto* flag = node.as_boolean()) {
            return flag->get() ? "true" : "false";
        }
        if (const auto* whole = node.as_integer()) {
            return std::to_string(whole->get());
        }
        if (const auto* number = node.as_floating_point(); number && std::isfinite(number->get())) {
            char digits[400]; // a double has at most 309 in front of the point
            const auto result = std::to_chars(digits, digits + sizeof digits, number->get(),
                                              std::chars_format::fixed);
            std::string text(digits, result.ptr);
            return text.find('.') == std::string::npos ? text + ".0" : text;
        }
        fail(node, "must be a text, a boolean or a number");
    }

private:
    const toml::table& table_;
    const std::string& file_;
    std::vector<std::string> asked_;
};

Application readApplication(const toml::table& table, const std::string& file) {
    TableReader reader(table, file);
    Application application;
    application.specifier = lowerCase(reader.text("specifier"));
    if (const auto fault = specifierFault(application.specifier)) {
        reader.fail(*table.get("specifier"), *fault);
    }
    for (const auto& [key, node] : reader.fields()) {
        if (key == "specifier") {
            continue;
        }
        if (!keyKind(key) || key == kSpecifierKey) {
            reader.fail(*node, "unknown field \"" + key + "\"");
        }
        std::string value = reader.textOf(*node);
        if (const auto fault = valueFault(key, value)) {
            reader.fail(*node, key + ": " + *fault);
        }
        application.keys.push_back({key, std::move(value)});
    }
    return application;
}

Group readGroup(const toml::table& table, const std::string& file) {
    TableReader reader(table, file);
    Group group{reader.text("key", ""), lowerCase(reader.text("name")), reader.text("number"),
                lowerCase(reader.text("application"))};
    reader.expectNothingElse();
    if (!group.key.empty() && !group.key.starts_with(kGroupKeyPrefix)) {
        reader.fail(*table.get("key"), "the key of a group begins with \"Group\"");
    }
    for (const char* field : {"name", "number", "application"}) {
        const std::string text = reader.textOf(*table.get(field));
        if (text.empty() || text.find('/') != std::string::npos) {
            reader.fail(*table.get(field),
                        "\"" + std::string(field) + "\" has 1 character or more, and no '/'");
        }
    }
    return group;
}

Product readProduct(const toml::table& table, const std::string& file) {
    TableReader reader(table, file);
    Product product{reader.checkedKey(reader.text("id"), table), {}};
    for (const toml::table* payloadTable : reader.tables("payload")) {
        TableReader payloadReader(*payloadTable, file);
        Payload payload;
        payload.code = payloadReader.checkedKey(payloadReader.text("id"), *payloadTable);
        payload.kind = payloadReader.text("kind", payload.kind);
        payload.launchPath = payloadReader.text("launch-path", "");
        payload.installState = payloadReader.integer("install-state", payload.installState);
        if (payload.launchPath.size() > kMaxLaunchPathBytes) {
            reader.fail(*payloadTable->get("launch-path"),
                        "a launch path has at most " + limits::inWords("database.launch-path"));
        }
        std::set<std::pair<int32_t, std::string>> said;
        for (const toml::table* dataTable : payloadReader.tables("data")) {
            TableReader dataReader(*dataTable, file);
            const int32_t domain = dataReader.integer("domain", 0);
            for (KeyValue& entry : dataReader.values("values")) {
                if (!said.insert({domain, entry.key}).second) {
                    reader.fail(*dataTable, "\"" + entry.key + "\" of this domain is said twice");
                }
                payload.data.push_back({domain, std::move(entry.key), std::move(entry.value)});
            }
            dataReader.expectNothingElse();
        }
        payloadReader.expectNothingElse();
        product.payloads.push_back(std::move(payload));
    }
    reader.expectNothingElse();
    return product;
}

Subdomain readData(const toml::table& table, const std::string& file) {
    TableReader reader(table, file);
    Subdomain subdomain{reader.integer("domain", kRegistryDomain), reader.text("subdomain"),
                        reader.values("values")};
    reader.expectNothingElse();
    if (subdomain.name.empty() || subdomain.name.size() > kMaxSubdomainBytes) {
        reader.fail(*table.get("subdomain"),
                    "a subdomain has 1 to " + limits::inWords("database.subdomain"));
    }
    if (isApplicationSubdomain(subdomain)) {
        if (const std::string* path = find(subdomain.data, kPathKey)) {
            if (const auto fault = valueFault(kPathKey, *path)) {
                reader.fail(*table.get("values"), std::string(kPathKey) + ": " + *fault);
            }
        }
    }
    return subdomain;
}

// As a TOML string on one line.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            constexpr char digits[] = "0123456789ABCDEF";
            out += "\\u00";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        } else {
            out += c;
        }
    }
    return out + '"';
}

std::string keyText(std::string_view key) {
    const bool bare =
        !key.empty() && key.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                              "0123456789_-") == std::string_view::npos;
    return bare ? std::string(key) : quoted(key);
}

// True when the entry comes back the same from its [[application]] form.
bool isPlainApplication(const Subdomain& subdomain) {
    if (!isApplicationSubdomain(subdomain) || subdomain.data.empty() ||
        subdomain.data.front().key != kSpecifierKey ||
        subdomain.name != subdomainOf(subdomain.data.front().value) ||
        subdomain.data.front().value != lowerCase(subdomain.data.front().value) ||
        specifierFault(subdomain.data.front().value)) {
        return false;
    }
    return std::all_of(subdomain.data.begin() + 1, subdomain.data.end(), [](const KeyValue& entry) {
        return keyKind(entry.key) && !valueFault(entry.key, entry.value);
    });
}

bool arePlainGroups(const Subdomain& subdomain) {
    return subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain &&
           !subdomain.data.empty() &&
           std::all_of(subdomain.data.begin(), subdomain.data.end(), [](const KeyValue& entry) {
               const std::optional<Group> group = parseGroup(entry);
               return group && !group->name.empty() && !group->number.empty() &&
                      !group->pattern.empty() && group->number.find('/') == std::string::npos &&
                      entry.value == lowerCase(entry.value);
           });
}

void writeSubdomain(std::ostream& out, const Subdomain& subdomain) {
    if (isPlainApplication(subdomain)) {
        out << "[[application]]\nspecifier = " << quoted(subdomain.data.front().value) << "\n";
        for (size_t i = 1; i < subdomain.data.size(); ++i) {
            out << keyText(subdomain.data[i].key) << " = " << quoted(subdomain.data[i].value)
                << "\n";
        }
        out << "\n";
    } else if (arePlainGroups(subdomain)) {
        for (const KeyValue& entry : subdomain.data) {
            const std::optional<Group> group = parseGroup(entry);
            out << "[[group]]\nkey = " << quoted(group->key) << "\nname = " << quoted(group->name)
                << "\nnumber = " << quoted(group->number)
                << "\napplication = " << quoted(group->pattern) << "\n\n";
        }
    } else {
        out << "[[data]]\ndomain = " << subdomain.domain
            << "\nsubdomain = " << quoted(subdomain.name) << "\n[data.values]\n";
        for (const KeyValue& entry : subdomain.data) {
            out << keyText(entry.key) << " = " << quoted(entry.value) << "\n";
        }
        out << "\n";
    }
}

void writeProduct(std::ostream& out, const Product& product) {
    out << "[[product]]\nid = " << quoted(product.code) << "\n\n";
    for (const Payload& payload : product.payloads) {
        out << "[[product.payload]]\nid = " << quoted(payload.code)
            << "\nkind = " << quoted(payload.kind)
            << "\nlaunch-path = " << quoted(payload.launchPath)
            << "\ninstall-state = " << payload.installState << "\n";
        const PayloadValue* before = nullptr;
        for (const PayloadValue& value : payload.data) {
            // A new table with each change of the domain, not one a domain: the order of the values
            // is kept.
            if (before == nullptr || before->domain != value.domain) {
                out << "[[product.payload.data]]\ndomain = " << value.domain
                    << "\n[product.payload.data.values]\n";
            }
            out << keyText(value.key) << " = " << quoted(value.value) << "\n";
            before = &value;
        }
        out << "\n";
    }
}

// The parser goes one call deeper for each part of a dotted key; a key of millions of parts would
// exhaust the stack.
void refuseDeepKeys(const std::string& text, const std::string& name) {
    constexpr int kMaxKeyParts = limits::of("import.key-parts");
    int dots = 0;
    uint32_t line = 1;
    for (const char c : text) {
        if (c == '\n') {
            ++line;
            dots = 0;
        } else if (c == '=') {
            dots = 0; // values may hold any number
        } else if (c == '.' && ++dots > kMaxKeyParts) {
            throw TomlError(name + ":" + std::to_string(line) + ":1: more than " +
                            std::to_string(kMaxKeyParts) + " dots before a '='");
        }
    }
}

} // namespace

std::vector<TomlEntry> parseToml(std::istream& in, const std::string& name) {
    std::string text;
    char block[65536];
    while (in.read(block, sizeof block) || in.gcount() > 0) {
        text.append(block, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxTomlBytes) {
            throw TomlError(name + ": larger than " + limits::inWords("import.file"));
        }
    }
    if (in.bad()) {
        throw TomlError(name + ": cannot be read");
    }
    refuseDeepKeys(text, name);
    toml::table root;
    try {
        root = toml::parse(text, name);
    } catch (const toml::parse_error& error) {
        TableReader::fail(name, error.source().begin, std::string(error.description()));
    }
    TableReader reader(root, name);
    struct Placed {
        Position position;
        TomlEntry entry;
    };
    std::vector<Placed> placed;
    const auto collect = [&](std::string_view field, auto&& read) {
        for (const toml::table* table : reader.tables(field)) {
            const Position position = table->source().begin;
            placed.push_back({position, {read(*table, name), TableReader::at(name, position)}});
        }
    };
    // By kind first, since the parser gives each kind as a list of its own; the order of the file,
    // which is that of the registration, comes back below.
    collect("application", readApplication);
    collect("group", readGroup);
    collect("product", readProduct);
    collect("data", readData);
    reader.expectNothingElse();
    std::stable_sort(placed.begin(), placed.end(),
                     [](const Placed& a, const Placed& b) { return a.position < b.position; });
    std::vector<TomlEntry> entries;
    entries.reserve(placed.size());
    std::set<std::string> specifiers;
    for (Placed& one : placed) {
        const auto* application = std::get_if<Application>(&one.entry.content);
        if (application != nullptr && !specifiers.insert(application->specifier).second) {
            TableReader::fail(name, one.position, application->specifier + " is said twice");
        }
        entries.push_back(std::move(one.entry));
    }
    return entries;
}

void writeToml(std::ostream& out, const Contents& contents) {
    if (const auto where = firstThatIsNotUtf8(contents)) {
        throw TomlError(*where + " is no UTF-8 and cannot be written as TOML");
    }
    // Not to the output at once: an export that is broken off in the middle would pass for one.
    std::ostringstream text;
    text.imbue(std::locale::classic());
    for (const Product& product : contents.products) {
        writeProduct(text, product);
    }
    for (const Subdomain& subdomain : contents.subdomains) {
        writeSubdomain(text, subdomain);
    }
    const std::string whole = text.str();
    try {
        (void)toml::parse(whole); // what cannot be read back is no export
    } catch (const toml::parse_error& error) {
        throw TomlError(
            "the database holds a text that TOML cannot: " + std::string(error.description()) +
            " (line " + std::to_string(error.source().begin.line) + " of the export)");
    }
    out << whole;
}

} // namespace caps::tool
