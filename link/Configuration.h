#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace convey_link {

struct Offer {
    std::string app;             // a pattern of complete specifiers: `*` is any text
    std::vector<std::string> to; // patterns of links
    bool launch = false;
};

struct Use {
    std::string app;      // a complete specifier
    std::string at;       // a link
    bool durable = false; // requests wait on the servers' disks
};

// What a link may do with an application of this machine; each has what is before it.
enum class Offered { nothing, use, launch };

// What one file says (man convey-link.toml). Nothing is offered or used that is not written there.
struct Configuration {
    std::string realm;
    std::string name;
    std::vector<std::string> servers;
    std::string user;
    std::string password;
    std::string credentials; // this and the next three: paths, absolute
    std::string ca;
    std::string certificate;
    std::string key;
    std::string host; // that a server's certificate must have; empty: its address's
    bool tls = false;
    std::vector<Offer> offers;
    std::vector<Use> uses;

    Offered offered(std::string_view app, std::string_view link) const;
};

// Reads a file. False when something is wrong with it: `faults` receives a sentence for each.
[[nodiscard]] bool readConfiguration(const std::string& path, Configuration& out,
                                     std::vector<std::string>& faults);
// The same of a text; paths in it are relative to `folder`, and are not looked at.
[[nodiscard]] bool parseConfiguration(std::string_view text, const std::string& folder,
                                      Configuration& out, std::vector<std::string>& faults);

// Whether a pattern, in which `*` is any text and nothing else means anything, is the whole text.
bool matches(std::string_view pattern, std::string_view text);

} // namespace convey_link
