#include "tools/convey/Model.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <unistd.h>

#include "caps/RegistryLayout.h"
#include "caps/Store.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "tools/convey/Tree.h"

namespace convey_tool {
namespace {

using ScObjects::SoString;

constexpr const char* kRegisteredAt = "Link"; // of what a link registers: where that runs

} // namespace

MessageRows readMessage(const std::string& rows, const std::string& root) {
    MessageRows message;
    struct Field {
        const char* leaf;
        std::string& value;
        bool isSeen;
    } first[] = {{"/target", message.target, false},
                 {"/sender", message.sender, false},
                 {"/timeout", message.timeout, false},
                 {"/type", message.type, false},
                 {"/request", message.request, false}};
    std::string own;   // the path of the message's heading
    std::string below; // and of its headers
    std::string_view rest(rows);
    for (Row row; takeRow(rest, row);) {
        if (own.empty()) {
            if (row.isHeading && row.path.compare(0, root.size() + 4, root + "/msg") == 0 &&
                row.label.size() > 5) {
                own = row.path;
                below = own + "/headers/";
                message.serial = row.value;
                message.time = row.label.substr(4, row.label.size() - 5);
            }
        } else if (row.path == own) {
            message.event = row.value;
        } else if (row.path.compare(0, below.size(), below) == 0) {
            message.headers.emplace_back(row.label, row.value);
        } else if (row.path == own + "/body" && row.isHeading) {
            message.sizeBytes = std::strtoull(row.value.c_str(), nullptr, 10);
        } else if (row.path == own + "/body/text") {
            message.text = row.value;
        } else if (row.path == own + "/body/whole") {
            message.whole = row.value;
        } else {
            for (Field& field : first) {
                if (!field.isSeen && row.path == own + field.leaf) {
                    field.isSeen = true;
                    field.value = row.value == "undefined" ? "" : row.value;
                }
            }
        }
    }
    return message;
}

ProcessFacts lookAt(uint32_t process) {
    ProcessFacts facts;
    const std::string folder = "/proc/" + std::to_string(process);
    std::error_code error;
    facts.program = std::filesystem::read_symlink(folder + "/exe", error).string();
    std::ifstream file(folder + "/stat");
    std::string text;
    std::getline(file, text);
    // Behind the program's name, which may hold anything: the state, and from there the 12th and
    // 13th are the time in the program and in the system, the 22nd the pages in memory.
    const size_t name = text.rfind(')');
    std::istringstream fields(name == std::string::npos ? "" : text.substr(name + 1));
    std::string field;
    for (int i = 1; fields >> field; ++i) {
        if (i == 1) {
            facts.state = field[0];
        } else if (i == 12 || i == 13) {
            facts.seconds +=
                std::strtod(field.c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
        } else if (i == 22) {
            facts.memoryBytes = std::strtoull(field.c_str(), nullptr, 10) *
                                static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        }
    }
    return facts;
}

std::map<std::string, std::string> usedElsewhere() {
    std::map<std::string, std::string> result;
    std::unique_ptr<caps::Store> store;
    std::vector<caps::Subdomain> subdomains;
    const std::string path = caps::findDatabase();
    if (!path.empty() &&
        caps::Store::open(path, caps::Store::Access::read, store) == caps::Status::ok &&
        store->readDomain(caps::kRegistryDomain, subdomains) == caps::Status::ok) {
        for (const caps::Subdomain& subdomain : subdomains) {
            const std::string* const at = caps::find(subdomain.data, kRegisteredAt);
            if (at != nullptr && caps::isApplicationSubdomain(subdomain)) {
                result[caps::effectiveSpecifier(subdomain)] = *at;
            }
        }
    }
    return result;
}

std::map<std::string, uint32_t> portOwners() {
    std::map<std::string, uint32_t> owners;
    for (const platform::PortDescription& port : platform::MessagePorts::system().list()) {
        if (!port.stale && port.owner != 0) {
            const SoString name = ScObjects::ConveyUtils::getStreamName(port.name.c_str());
            owners[std::string(name.view())] = port.owner;
        }
    }
    return owners;
}

uint32_t ownerOf(const std::map<std::string, uint32_t>& owners, const std::string& application) {
    const auto thread = owners.find(application + "#thread");
    const auto owner = thread != owners.end() ? thread : owners.find(application);
    return owner != owners.end() ? owner->second : 0;
}

} // namespace convey_tool
