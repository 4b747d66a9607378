#include <algorithm>
#include <charconv>
#include <chrono>
#include <nettle/base64.h>
#include <pugixml.hpp>
#include <set>
#include <vector>

#include "caps/RegistryLayout.h"
#include "caps/config/Document.h"
#include "limits/InWords.h"
#include "limits/Limits.h"

namespace caps::config {
namespace {

constexpr size_t kMaxDocumentBytes = limits::of("import.file");

class Reader {
public:
    Reader(std::string_view text, const std::string& name) : text_(text), name_(name) {}

    Contents read() {
        if (text_.size() > kMaxDocumentBytes) {
            throw DocumentError(name_ + ": larger than " + limits::inWords("import.file"));
        }
        // Before the parser, which takes some of it in silence.
        refuseForbidden(text_, name_);
        // A value of nothing but blanks is kept where it is all that its element holds; between
        // elements blanks mean nothing.
        const pugi::xml_parse_result result = document_.load_buffer(
            text_.data(), text_.size(),
            pugi::parse_default | pugi::parse_declaration | pugi::parse_ws_pcdata_single,
            pugi::encoding_utf8);
        if (!result) {
            throw DocumentError(
                at(text_, static_cast<size_t>(result.offset), name_, result.description()));
        }
        const pugi::xml_node root = rootElement();
        for (const pugi::xml_node& child : elements(root)) {
            const std::string kind = nameOf(child);
            if (kind == "product") {
                readProduct(child);
            } else if (kind == "application" || kind == "groups" || kind == "data") {
                readSubdomain(child, kind);
            } else {
                fail(child, "unknown element \"" + kind + "\"");
            }
        }
        return std::move(contents_);
    }

private:
    using Attributes = std::vector<const char*>;

    [[noreturn]] void fail(const pugi::xml_node& node, const std::string& what) const {
        throw DocumentError(at(text_, static_cast<size_t>(node.offset_debug()), name_, what));
    }

    // The document's one element, of our namespace and of a version that we know.
    pugi::xml_node rootElement() {
        pugi::xml_node root;
        for (const pugi::xml_node& node : document_.children()) {
            if (node.type() == pugi::node_declaration) {
                const std::string encoding =
                    lowerCase(node.attribute("encoding").as_string("utf-8"));
                if (encoding != "utf-8") {
                    fail(node, "a configuration is written in UTF-8");
                }
            } else if (root) {
                fail(node, "a document has one element");
            } else {
                root = node;
            }
        }
        // A prefix is as good as none, as long as it is the same one everywhere.
        const std::string whole = root.name();
        const size_t colon = whole.find(':');
        prefix_ = colon == std::string::npos ? "" : whole.substr(0, colon + 1);
        const std::string declared = prefix_.empty() ? "xmlns" : "xmlns:" + whole.substr(0, colon);
        if (nameOf(root) != "registry" ||
            std::string_view(root.attribute(declared.c_str()).value()) != kNamespace) {
            fail(root, std::string("not a registry of the namespace ") + kNamespace);
        }
        expectOnly(root, {declared.c_str(), "version"});
        const int32_t version = integer(root, "version", 0);
        // What a later version means is unknown, so nothing of it is taken.
        if (version > kDocumentVersion) {
            fail(root, "written by a later version of this program");
        }
        if (version != kDocumentVersion) {
            fail(root, "\"version\" is 1");
        }
        return root;
    }

    // An element of another prefix gets no name that is known here.
    std::string nameOf(const pugi::xml_node& node) const {
        const std::string_view name = node.name();
        return name.starts_with(prefix_) ? std::string(name.substr(prefix_.size())) : std::string();
    }

    void expectOnly(const pugi::xml_node& node, const Attributes& known) const {
        // The parser takes an attribute that stands twice.
        std::set<std::string_view> met;
        for (const pugi::xml_attribute& attribute : node.attributes()) {
            const std::string_view name = attribute.name();
            const bool isKnown = std::find(known.begin(), known.end(), name) != known.end();
            if (!isKnown || !met.insert(name).second) {
                fail(node, (isKnown ? "the attribute is said twice: \"" : "unknown attribute \"") +
                               std::string(name) + "\"");
            }
        }
    }

    // The elements below a node that holds nothing else.
    std::vector<pugi::xml_node> elements(const pugi::xml_node& parent) const {
        std::vector<pugi::xml_node> found;
        for (const pugi::xml_node& child : parent.children()) {
            if (child.type() == pugi::node_element) {
                found.push_back(child);
            } else {
                const size_t visible = std::string_view(child.value()).find_first_not_of(" \t\r\n");
                if (visible != std::string_view::npos) {
                    throw DocumentError(at(text_,
                                           static_cast<size_t>(child.offset_debug()) + visible,
                                           name_, "text where elements are expected"));
                }
            }
        }
        return found;
    }

    std::string text(const pugi::xml_node& node, const char* attribute, size_t least,
                     size_t most) const {
        const pugi::xml_attribute found = node.attribute(attribute);
        std::string value = found.value();
        if (!found || value.size() < least || value.size() > most) {
            fail(node, "\"" + std::string(attribute) + "\" has " + std::to_string(least) + " to " +
                           std::to_string(most) + " bytes");
        }
        return value;
    }

    int32_t integer(const pugi::xml_node& node, const char* attribute, int32_t otherwise) const {
        const pugi::xml_attribute found = node.attribute(attribute);
        if (!found) {
            return otherwise;
        }
        const std::string_view digits = found.value();
        int32_t number = 0;
        // Unlike the parser's own reading of numbers this refuses what stands behind the digits.
        const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (result.ec != std::errc() || result.ptr != digits.data() + digits.size()) {
            fail(node, "\"" + std::string(attribute) + "\" must be a whole number of 32 bits");
        }
        return number;
    }

    // "2026-11-21T12:00:00Z" as seconds since 1970; 0 without one.
    int64_t changed(const pugi::xml_node& node) const {
        using namespace std::chrono;
        const pugi::xml_attribute found = node.attribute("changed");
        if (!found) {
            return 0;
        }
        const std::string_view time = found.value();
        constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
        bool fits = time.size() == form.size();
        for (size_t i = 0; fits && i < form.size(); ++i) {
            fits = form[i] == 'd' ? time[i] >= '0' && time[i] <= '9' : time[i] == form[i];
        }
        const auto number = [&](size_t from, size_t digits) {
            int value = 0;
            for (size_t i = from; i < from + digits; ++i) {
                value = value * 10 + (time[i] - '0');
            }
            return value;
        };
        if (fits) {
            const year_month_day date(year(number(0, 4)),
                                      month(static_cast<unsigned>(number(5, 2))),
                                      day(static_cast<unsigned>(number(8, 2))));
            const int64_t clock = number(11, 2) * 3600 + number(14, 2) * 60 + number(17, 2);
            const bool isTime = number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60;
            if (date.ok() && isTime && date.year() >= year(1970)) {
                return sys_days(date).time_since_epoch() / seconds(1) + clock;
            }
        }
        fail(node, "\"changed\" is a time such as 2026-11-21T12:00:00Z, from 1970 on");
    }

    std::string valueOf(const pugi::xml_node& node) const {
        std::string value;
        for (const pugi::xml_node& child : node.children()) {
            if (child.type() == pugi::node_element) {
                fail(child, "a value is a text");
            }
            // In several pieces where a part of it stands in a CDATA section.
            value += child.value();
        }
        if (const pugi::xml_attribute encoding = node.attribute("encoding")) {
            if (std::string_view(encoding.value()) != "base64") {
                fail(node, "\"encoding\" is base64, or missing");
            }
            value = decoded(node, value);
        }
        if (value.size() > kMaxValueBytes) {
            fail(node, "a value has at most " + limits::inWords("database.value"));
        }
        return value;
    }

    // What is written so is a text all the same, of characters that XML does not have.
    std::string decoded(const pugi::xml_node& node, const std::string& text) const {
        base64_decode_ctx context;
        base64_decode_init(&context);
        std::string out(BASE64_DECODE_LENGTH(text.size()), '\0');
        size_t bytes = out.size();
        const bool valid =
            base64_decode_update(&context, &bytes, reinterpret_cast<uint8_t*>(out.data()),
                                 text.size(), text.data()) != 0 &&
            base64_decode_final(&context) != 0;
        out.resize(valid ? bytes : 0);
        std::string visible = out;
        for (char& c : visible) {
            // Control characters and the two of the noncharacters below are why a text is written
            // so. A zero is none of these: no text of the registry has one.
            c = c > '\0' && c < ' ' ? ' ' : c;
        }
        std::string_view rest = visible;
        size_t step = 1;
        while (!rest.empty() && step != 0) {
            const bool noncharacter =
                rest.starts_with("\xEF\xBF\xBE") || rest.starts_with("\xEF\xBF\xBF");
            step = noncharacter ? 3 : characterBytes(rest);
            rest.remove_prefix(step);
        }
        if (!valid || !rest.empty()) {
            fail(node, "not a UTF-8 text in base64");
        }
        return out;
    }

    void readProduct(const pugi::xml_node& node) {
        expectOnly(node, {"id", "changed"});
        Product product{text(node, "id", 1, kMaxCodeBytes), {}, changed(node)};
        expectNew(node, "product " + product.code);
        for (const pugi::xml_node& child : elements(node)) {
            if (nameOf(child) != "payload") {
                fail(child, "a product holds payloads");
            }
            product.payloads.push_back(readPayload(child));
        }
        contents_.products.push_back(std::move(product));
    }

    Payload readPayload(const pugi::xml_node& node) {
        expectOnly(node, {"id", "kind", "launchPath", "installState"});
        Payload payload;
        payload.code = text(node, "id", 1, kMaxCodeBytes);
        expectNew(node, "payload " + payload.code);
        if (node.attribute("kind")) {
            payload.kind = text(node, "kind", 0, kMaxCodeBytes);
        }
        if (node.attribute("launchPath")) {
            payload.launchPath = text(node, "launchPath", 0, kMaxLaunchPathBytes);
        }
        payload.installState = integer(node, "installState", payload.installState);
        std::set<std::pair<int32_t, std::string>> keys;
        for (const pugi::xml_node& child : elements(node)) {
            if (nameOf(child) != "value") {
                fail(child, "a payload holds values");
            }
            expectOnly(child, {"domain", "key", "encoding"});
            PayloadValue value{integer(child, "domain", 0), text(child, "key", 1, kMaxCodeBytes),
                               valueOf(child)};
            if (!keys.emplace(value.domain, value.key).second) {
                fail(child, "\"" + value.key + "\" of this domain is said twice");
            }
            payload.data.push_back(std::move(value));
        }
        return payload;
    }

    void readSubdomain(const pugi::xml_node& node, const std::string& kind) {
        Subdomain subdomain;
        subdomain.domain = kRegistryDomain;
        if (kind == "application") {
            expectOnly(node, {"name", "changed"});
            subdomain.name = std::string(kAppPrefix) +
                             text(node, "name", 1, kMaxSubdomainBytes - kAppPrefix.size());
            if (!isApplicationSubdomain(subdomain)) {
                fail(node, "the name \"groups\" is taken by the groups");
            }
        } else if (kind == "groups") {
            expectOnly(node, {"changed"});
            subdomain.name = kGroupsSubdomain;
        } else {
            expectOnly(node, {"domain", "subdomain", "changed"});
            subdomain.domain = integer(node, "domain", kRegistryDomain);
            subdomain.name = text(node, "subdomain", 1, kMaxSubdomainBytes);
        }
        subdomain.changed = changed(node);
        expectNew(node, std::to_string(subdomain.domain) + " " + subdomain.name);
        std::set<std::string> keys;
        for (const pugi::xml_node& child : elements(node)) {
            KeyValue entry = kind == "groups" && nameOf(child) == "member" ? readMember(child)
                                                                           : readEntry(child);
            if (!keys.insert(entry.key).second) {
                fail(child, "\"" + entry.key + "\" is said twice");
            }
            subdomain.data.push_back(std::move(entry));
        }
        contents_.subdomains.push_back(std::move(subdomain));
    }

    KeyValue readEntry(const pugi::xml_node& node) const {
        if (nameOf(node) != "value") {
            fail(node, "unknown element \"" + nameOf(node) + "\"");
        }
        expectOnly(node, {"key", "encoding"});
        return {text(node, "key", 1, kMaxCodeBytes), valueOf(node)};
    }

    KeyValue readMember(const pugi::xml_node& node) const {
        expectOnly(node, {"key", "group", "number", "application"});
        const Group group{
            text(node, "key", 1, kMaxCodeBytes), text(node, "group", 0, kMaxCodeBytes),
            text(node, "number", 0, kMaxValueBytes), text(node, "application", 0, kMaxValueBytes)};
        KeyValue entry{group.key, groupValue(group)};
        // Taken apart again: a '/' in one of the parts would be taken for the mark between them.
        const auto again = parseGroup(entry);
        if (!again || again->name != group.name || again->pattern != group.pattern ||
            entry.value.size() > kMaxValueBytes) {
            fail(node, "the key begins with \"Group\"; group and application have no '/'");
        }
        return entry;
    }

    void expectNew(const pugi::xml_node& node, const std::string& what) {
        if (!met_.insert(what).second) {
            fail(node, what + " is said twice");
        }
    }

    const std::string_view text_;
    const std::string& name_;
    pugi::xml_document document_;
    std::string prefix_;
    Contents contents_;
    std::set<std::string> met_;
};

} // namespace

Contents readDocument(std::string_view text, const std::string& name) {
    return Reader(text, name).read();
}

} // namespace caps::config
