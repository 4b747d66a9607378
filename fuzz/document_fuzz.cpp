// A registry as an XML document: what is read comes back the same from what is written of it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "caps/config/Difference.h"
#include "caps/config/Document.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    caps::Contents contents;
    try {
        contents = caps::config::readDocument(
            std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
    } catch (const caps::config::DocumentError&) {
        return 0;
    }
    // Either throws, and so is found, for what was read a moment ago.
    const std::string written = caps::config::writeDocument(contents);
    const caps::Contents again = caps::config::readDocument(written, "written");
    if (again != contents || caps::config::writeDocument(again) != written ||
        !caps::config::compare(contents, again).empty()) {
        std::abort();
    }
    return 0;
}
