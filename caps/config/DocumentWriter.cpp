#include <algorithm>
#include <chrono>
#include <nettle/base64.h>
#include <new>
#include <pugixml.hpp>

#include "caps/RegistryLayout.h"
#include "caps/config/Document.h"

namespace caps::config {
namespace {

constexpr int64_t kLastTime = 253402300799; // of the year 9999

enum class Fitness { plain, control, notUtf8 };

// Whether XML can hold the text as it stands.
Fitness fitness(std::string_view text) {
    Fitness worst = Fitness::plain;
    while (!text.empty()) {
        size_t bytes = characterBytes(text);
        if (bytes == 0) {
            const auto first = static_cast<unsigned char>(text.front());
            const bool noncharacter =
                text.starts_with("\xEF\xBF\xBE") || text.starts_with("\xEF\xBF\xBF");
            if (first >= 0x80 && !noncharacter) {
                return Fitness::notUtf8;
            }
            // Can be told in base64 as long as the rest is UTF-8.
            worst = Fitness::control;
            bytes = noncharacter ? 3 : 1;
        }
        text.remove_prefix(bytes);
    }
    return worst;
}

// The library says with a node that is none that memory has run out.
pugi::xml_node append(pugi::xml_node parent, const char* name) {
    pugi::xml_node node = parent.append_child(name);
    if (!node) {
        throw std::bad_alloc();
    }
    return node;
}

pugi::xml_attribute addAttribute(pugi::xml_node& node, const char* name) {
    pugi::xml_attribute added = node.append_attribute(name);
    if (!added) {
        throw std::bad_alloc();
    }
    return added;
}

void setText(pugi::xml_attribute added, const std::string& text) {
    if (!added.set_value(text.c_str())) {
        throw std::bad_alloc();
    }
}

std::string twoDigits(unsigned number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

// As XML writes times.
std::string timeText(int64_t seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    const std::string year = std::to_string(static_cast<int>(date.year()));
    return year + "-" + twoDigits(static_cast<unsigned>(date.month())) + "-" +
           twoDigits(static_cast<unsigned>(date.day())) + "T" +
           twoDigits(static_cast<unsigned>(clock.hours().count())) + ":" +
           twoDigits(static_cast<unsigned>(clock.minutes().count())) + ":" +
           twoDigits(static_cast<unsigned>(clock.seconds().count())) + "Z";
}

std::string base64(const std::string& text) {
    std::string out(BASE64_ENCODE_RAW_LENGTH(text.size()), '\0');
    base64_encode_raw(out.data(), text.size(), reinterpret_cast<const uint8_t*>(text.data()));
    return out;
}

class Writer {
public:
    std::string write(const Contents& contents) {
        pugi::xml_node declaration = document_.append_child(pugi::node_declaration);
        addAttribute(declaration, "version") = "1.0";
        addAttribute(declaration, "encoding") = "UTF-8";
        pugi::xml_node root = append(document_.root(), "registry");
        addAttribute(root, "xmlns") = kNamespace;
        addAttribute(root, "version") = kDocumentVersion;
        for (const Product& product : contents.products) {
            add(root, product);
        }
        for (const Subdomain& subdomain : contents.subdomains) {
            add(root, subdomain);
        }
        struct Output : pugi::xml_writer {
            std::string text;
            void write(const void* data, size_t size) override {
                text.append(static_cast<const char*>(data), size);
            }
        } output;
        document_.save(output, "  ", pugi::format_indent, pugi::encoding_utf8);
        return std::move(output.text);
    }

private:
    // Where the writing is, for the error.
    [[noreturn]] void fail(const std::string& what) const {
        throw DocumentError(where_ + ": " + what + " and cannot be written as XML");
    }

    void set(pugi::xml_node& element, const char* attribute, const std::string& text) {
        if (const Fitness fit = fitness(text); fit != Fitness::plain) {
            fail(std::string(attribute) +
                 (fit == Fitness::control ? " has control characters" : " is no UTF-8"));
        }
        setText(addAttribute(element, attribute), text);
    }
    static void setTime(pugi::xml_node& element, int64_t changed) {
        // A database of an earlier version does not know it, and a longer year would not be read
        // again.
        if (changed > 0 && changed <= kLastTime) {
            addAttribute(element, "changed") = timeText(changed).c_str();
        }
    }

    void addValue(pugi::xml_node& parent, const int32_t* domain, const std::string& key,
                  const std::string& text) {
        pugi::xml_node value = append(parent, "value");
        if (domain != nullptr) {
            addAttribute(value, "domain") = *domain;
        }
        set(value, "key", key);
        Fitness fit = fitness(text);
        if (fit == Fitness::plain && text.find('\r') != std::string::npos) {
            fit = Fitness::control; // it would be read as the end of a line
        }
        if (fit == Fitness::notUtf8) {
            fail("the value of " + key + " is no UTF-8");
        }
        if (fit == Fitness::control) {
            addAttribute(value, "encoding") = "base64";
        }
        if (!text.empty()) {
            const std::string& held = fit == Fitness::control ? base64(text) : text;
            if (!value.append_child(pugi::node_pcdata).set_value(held.c_str())) {
                throw std::bad_alloc();
            }
        }
    }

    void add(pugi::xml_node& root, const Product& product) {
        where_ = product.code;
        pugi::xml_node element = append(root, "product");
        set(element, "id", product.code);
        setTime(element, product.changed);
        for (const Payload& payload : product.payloads) {
            where_ = payload.code;
            pugi::xml_node child = append(element, "payload");
            set(child, "id", payload.code);
            set(child, "kind", payload.kind);
            set(child, "launchPath", payload.launchPath);
            addAttribute(child, "installState") = payload.installState;
            for (const PayloadValue& value : payload.data) {
                addValue(child, &value.domain, value.key, value.value);
            }
        }
    }

    void add(pugi::xml_node& root, const Subdomain& subdomain) {
        where_ = subdomain.name;
        const bool areGroups =
            subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain;
        pugi::xml_node element;
        if (isApplicationSubdomain(subdomain)) {
            element = append(root, "application");
            set(element, "name", subdomain.name.substr(kAppPrefix.size()));
        } else if (areGroups) {
            element = append(root, "groups");
        } else {
            element = append(root, "data");
            addAttribute(element, "domain") = subdomain.domain;
            set(element, "subdomain", subdomain.name);
        }
        setTime(element, subdomain.changed);
        for (const KeyValue& entry : subdomain.data) {
            const auto group = areGroups ? parseGroup(entry) : std::nullopt;
            // An attribute has no way to say how it is encoded, so what needs that is written as a
            // value.
            if (!group || fitness(entry.value) != Fitness::plain) {
                addValue(element, nullptr, entry.key, entry.value);
                continue;
            }
            pugi::xml_node member = append(element, "member");
            set(member, "key", group->key);
            set(member, "group", group->name);
            set(member, "number", group->number);
            set(member, "application", group->pattern);
        }
    }

    pugi::xml_document document_;
    std::string where_;
};

} // namespace

std::string writeDocument(const Contents& contents) {
    if (!contents.refused.empty()) { // what silently lacks something is no backup
        throw DocumentError(contents.refused.front() + " is over its limit and cannot be written");
    }
    return Writer().write(contents);
}

} // namespace caps::config
