// Registrations as people write them: what is read must come back from its export.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "caps/tool/Checks.h"
#include "caps/tool/TomlFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    caps::Contents contents;
    try {
        for (caps::tool::TomlEntry& entry : caps::tool::parseToml(in, "fuzz")) {
            if (auto* product = std::get_if<caps::Product>(&entry.content)) {
                contents.products.push_back(std::move(*product));
            } else if (auto* subdomain = std::get_if<caps::Subdomain>(&entry.content)) {
                contents.subdomains.push_back(std::move(*subdomain));
            }
        }
    } catch (const caps::tool::TomlError&) {
        return 0;
    }
    (void)caps::tool::checkRegistry(contents);
    std::ostringstream out;
    caps::tool::writeToml(out, contents);
    std::istringstream again(out.str());
    (void)caps::tool::parseToml(again, "export"); // throws, and so is found, when it cannot be read
    return 0;
}
