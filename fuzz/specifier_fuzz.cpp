// Specifiers: parsing, rebuilding, and completion on a registry made of the same input.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "scriptobjects/convey/SoCVSpecifier.h"
#include "tests/support/TableConnector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using Specifier = ScObjects::Convey::Specifier;
    if (size > 600) {
        return 0;
    }
    // Lines: the caller, the specifier, group entries (with a '/') and registrations.
    std::vector<std::string> lines(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += static_cast<char>(data[i]);
        }
    }
    lines.resize(std::max<size_t>(lines.size(), 2));
    std::vector<std::string> groups;
    std::vector<std::string> registrations;
    for (size_t i = 2; i < lines.size(); ++i) {
        (lines[i].find('/') != std::string::npos ? groups : registrations).push_back(lines[i]);
    }
    const StartedLayer layer(lines[0].c_str(), registrations, groups);
    Specifier specifier(lines[1].c_str(), true);
    (void)specifier.getApplicationPath(nullptr);
    (void)specifier.group(nullptr);
    (void)specifier.preferred("app", "suite");
    Specifier changed = specifier;
    (void)changed.setVersion("-7.99");
    (void)changed.setLocale("");
    (void)changed.setGroup("suite");
    if (Specifier::isFixUpUnderWay()) {
        std::abort();
    }
    return 0;
}
