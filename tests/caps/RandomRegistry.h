#pragma once

#include <random>

#include "caps/Store.h"

inline caps::Subdomain groups(std::vector<std::string> values) {
    caps::Subdomain all{1, "/ovrel/convey/groups", {}};
    for (const std::string& value : values) {
        all.data.push_back(
            {"Group" + std::to_string(all.data.size() + 1), "/ovrel/convey/groups/" + value});
    }
    return all;
}

// Registries with all that a text can hold, in every place that there is.
class RandomRegistry {
public:
    explicit RandomRegistry(uint32_t seed) : random_(seed) {}

    caps::Contents make() {
        caps::Contents contents;
        for (size_t i = 0, n = pick(4); i < n; ++i) {
            caps::Product product{name("P", i), {}, time()};
            for (size_t k = 0, m = pick(3); k < m; ++k) {
                caps::Payload payload{"{" + name(product.code, k) + "}",
                                      text(),
                                      text(),
                                      static_cast<int32_t>(random_()),
                                      {}};
                for (size_t j = 0, values = pick(4); j < values; ++j) {
                    payload.data.push_back(
                        {static_cast<int32_t>(pick(3)) - 1, name("k", j), value()});
                }
                product.payloads.push_back(payload);
            }
            contents.products.push_back(product);
        }
        for (size_t i = 0, n = pick(8); i < n; ++i) {
            const char* prefixes[] = {"/ovrel/convey/", "{", "/other/"};
            caps::Subdomain subdomain{1, prefixes[pick(3)] + name("a", i), {}, time()};
            subdomain.domain += subdomain.name.front() == '{' ? static_cast<int32_t>(pick(2)) : 0;
            if (pick(3) == 0) {
                const std::string app = "app" + std::to_string(i);
                subdomain = {
                    1, "/ovrel/convey/" + app, {{"Specifier", app}, {"Path", "/p"}}, time()};
            }
            if (subdomain.data.empty() || pick(2) == 0) {
                addValues(subdomain);
            }
            contents.subdomains.push_back(subdomain);
        }
        if (pick(2) == 0) {
            caps::Subdomain all =
                groups({"suite/7.0/lumen-2.*", "Suite/x/y/z", "a//", "//b", "one"});
            all.data.push_back({"Group9", value()});
            all.data.push_back({"Other", value()});
            contents.subdomains.push_back(all);
        }
        return contents;
    }

private:
    size_t pick(size_t below) { return random_() % below; }
    int64_t time() { return pick(2) == 0 ? 0 : static_cast<int64_t>(random_()); }
    std::string text() {
        const std::string_view single = "a \\#={.<>&\"'\n\r\t-/";
        const char* longer[] = {"]]>", "&amp;", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
        std::string out;
        for (size_t i = 0, n = pick(6); i < n; ++i) {
            const size_t piece = pick(single.size() + std::size(longer));
            out += piece < single.size() ? single.substr(piece, 1) : longer[piece - single.size()];
        }
        return out;
    }
    std::string value() {
        const char* odd[] = {"\x01", "\xEF\xBF\xBE", "\x7F", "\x1F&"};
        return text() + (pick(4) == 0 ? odd[pick(std::size(odd))] : "") + text();
    }
    std::string name(const std::string& stem, size_t i) {
        return stem + std::to_string(i) + text();
    }
    void addValues(caps::Subdomain& subdomain) {
        for (size_t i = 0, n = pick(5); i < n; ++i) {
            subdomain.data.push_back({name("k", i), value()});
        }
    }

    std::mt19937 random_;
};
