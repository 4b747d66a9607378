#include "link/Configuration.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>

#include "caps/tool/TomlLibrary.h"
#include "link/Bounds.h"
#include "link/Frame.h"
#include "scriptobjects/convey/SoCVSpecifier.h"

namespace convey_link {
namespace {

using ScObjects::Convey;

class Parser {
public:
    Parser(std::string folder, Configuration& out, std::vector<std::string>& faults)
        : folder_(std::move(folder)), out_(out), faults_(faults) {}

    void read(const toml::table& file) {
        known(file, "the file",
              {"realm", "name", "servers", "user", "password", "password_file", "credentials",
               "tls", "offer", "use"});
        out_.realm = name(file, "realm");
        out_.name = name(file, "name");
        out_.servers = texts(file, "servers", "the file");
        if (out_.servers.empty() || out_.servers.size() > kServers) {
            fault("servers: give up to " + std::to_string(kServers) +
                  " addresses, such as \"tls://n1.example:4222\"");
        }
        for (const std::string& server : out_.servers) {
            if (!server.starts_with("nats://") && !server.starts_with("tls://")) {
                fault("servers: " + server + " begins with neither nats:// nor tls://");
            }
            out_.tls = out_.tls || server.starts_with("tls://");
        }
        out_.user = text(file, "user", false);
        out_.password = text(file, "password", false);
        if (const std::string from = path(file, "password_file"); !from.empty()) {
            std::ifstream in(from);
            if (!std::getline(in, out_.password)) {
                fault("password_file: " + from + " cannot be read");
            }
        }
        out_.credentials = path(file, "credentials");
        if (const auto* tls = file["tls"].as_table()) {
            known(*tls, "tls", {"ca", "cert", "key", "host"});
            out_.tls = true;
            out_.ca = path(*tls, "ca");
            out_.certificate = path(*tls, "cert");
            out_.key = path(*tls, "key");
            out_.host = text(*tls, "host", false);
            if (out_.certificate.empty() != out_.key.empty()) {
                fault("tls: cert and key go together");
            }
        }
        tables(file, "offer", [this](const toml::table& table) { readOffer(table); });
        tables(file, "use", [this](const toml::table& table) { readUse(table); });
    }

private:
    static constexpr size_t kServers = 16;

    void fault(const std::string& what) { faults_.push_back(what); }

    void known(const toml::table& table, const std::string& where,
               std::initializer_list<std::string_view> keys) {
        for (const auto& [key, value] : table) {
            if (std::find(keys.begin(), keys.end(), key.str()) == keys.end()) {
                fault(where + ": " + std::string(key.str()) + " is not known");
            }
        }
    }

    template <class Read>
    void tables(const toml::table& file, std::string_view key, Read&& read) {
        const auto node = file[key];
        if (!node) {
            return;
        }
        const toml::array* const all = node.as_array();
        if (all == nullptr || all->size() > bounds::kEntries ||
            !(all->empty() || all->is_homogeneous<toml::table>())) {
            fault(std::string(key) + ": up to " + std::to_string(bounds::kEntries) + " tables [[" +
                  std::string(key) + "]]");
            return;
        }
        for (const auto& each : *all) {
            read(*each.as_table());
        }
    }

    std::string text(const toml::table& table, std::string_view key, bool needed) {
        const auto node = table[key];
        const auto value = node.value_exact<std::string>();
        if (node ? !value || value->find_first_of("\n\0", 0, 2) != std::string::npos : needed) {
            fault(std::string(key) + ": give a text of one line");
        }
        return value.value_or(std::string());
    }

    bool flag(const toml::table& table, std::string_view key) {
        const auto node = table[key];
        if (node && !node.is_boolean()) {
            fault(std::string(key) + ": true or false");
        }
        return node.value_or(false);
    }

    std::vector<std::string> texts(const toml::table& table, std::string_view key,
                                   const std::string& where) {
        std::vector<std::string> result;
        if (const toml::array* all = table[key].as_array()) {
            for (const auto& each : *all) {
                result.push_back(each.value_exact<std::string>().value_or(std::string()));
            }
        }
        if (result.empty() || std::find(result.begin(), result.end(), "") != result.end()) {
            fault(where + ": " + std::string(key) + " is a list of texts");
        }
        return result;
    }

    std::string name(const toml::table& table, std::string_view key) {
        std::string value = text(table, key, true);
        if (!isName(value)) {
            fault(std::string(key) + ": up to " + std::to_string(bounds::kNameBytes) +
                  " letters, digits, _ and -");
        }
        return value;
    }

    std::string path(const toml::table& table, std::string_view key) {
        const std::string value = text(table, key, false);
        return value.empty() ? value : (std::filesystem::path(folder_) / value).string();
    }

    void readOffer(const toml::table& table) {
        known(table, "offer", {"app", "to", "launch"});
        Offer offer{text(table, "app", true), texts(table, "to", "offer"), flag(table, "launch")};
        for (const std::string& link : offer.to) {
            std::string bare = link;
            std::erase(bare, '*');
            if (!bare.empty() && !isName(bare)) {
                fault("offer: " + link + " is no pattern of names of links");
            }
        }
        out_.offers.push_back(std::move(offer));
    }

    void readUse(const toml::table& table) {
        known(table, "use", {"app", "at", "durable"});
        Use use{text(table, "app", true), name(table, "at"), flag(table, "durable")};
        const Convey::Specifier specifier(use.app.c_str(), false);
        if (specifier.version().isEmpty() || !specifier.suffix().isEmpty() ||
            specifier.view() != use.app || !isPortName(use.app)) {
            fault("use: " + use.app + " is no complete specifier in lower case, such as lumen-2.5");
        }
        if (use.at == out_.name) {
            fault("use: " + use.app + " at " + use.at + ": that is this link");
        }
        if (std::any_of(out_.uses.begin(), out_.uses.end(),
                        [&use](const Use& other) { return other.app == use.app; })) {
            fault("use: " + use.app + " is used twice");
        }
        out_.uses.push_back(std::move(use));
    }

    const std::string folder_;
    Configuration& out_;
    std::vector<std::string>& faults_;
};

} // namespace

bool matches(std::string_view pattern, std::string_view text) {
    size_t star = pattern.find('*');
    if (star == std::string_view::npos || !text.starts_with(pattern.substr(0, star))) {
        return pattern == text;
    }
    // The first place of each piece leaves the most for those behind it: no other need be tried.
    for (size_t at = 0; at != std::string_view::npos; at = text.find(pattern.substr(0, star))) {
        text.remove_prefix(at + star);
        pattern.remove_prefix(star + 1);
        star = pattern.find('*');
        if (star == std::string_view::npos) {
            return text.ends_with(pattern);
        }
    }
    return false;
}

Offered Configuration::offered(std::string_view app, std::string_view link) const {
    Offered most = Offered::nothing;
    for (const Offer& offer : offers) {
        if (matches(offer.app, app) &&
            std::any_of(offer.to.begin(), offer.to.end(),
                        [link](const std::string& to) { return matches(to, link); })) {
            most = std::max(most, offer.launch ? Offered::launch : Offered::use);
        }
    }
    return most;
}

bool parseConfiguration(std::string_view text, const std::string& folder, Configuration& out,
                        std::vector<std::string>& faults) {
    try {
        Parser(folder, out, faults).read(toml::parse(text));
    } catch (const toml::parse_error& error) {
        faults.push_back("line " + std::to_string(error.source().begin.line) + ": " +
                         std::string(error.description()));
    }
    return faults.empty();
}

bool readConfiguration(const std::string& path, Configuration& out,
                       std::vector<std::string>& faults) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        faults.push_back(path + " cannot be read");
        return false;
    }
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(path, error);
    if (parseConfiguration(text.str(), whole.parent_path().string(), out, faults)) {
        for (const std::string& file : {out.credentials, out.ca, out.certificate, out.key}) {
            if (!file.empty() && !std::ifstream(file)) {
                faults.push_back(file + " cannot be read");
            }
        }
    }
    return faults.empty();
}

} // namespace convey_link
