#include "platform/linux/Bundle.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <plist/plist.h>
#include <sstream>
#include <string_view>

#include "limits/Limits.h"
#include "platform/linux/RunTimeLibrary.h"

namespace platform {
namespace {

constexpr size_t kMaximumPropertyListBytes = limits::of("bundle.property-list");
constexpr std::string_view kFolders = "/Contents/MacOS/";

// The functions of the property list library that are needed.
// Taken at run time, so that the layer does not depend on a library that only bundles need.
struct PropertyLists {
    decltype(&plist_from_xml) fromXml = nullptr;
    decltype(&plist_from_bin) fromBinary = nullptr;
    decltype(&plist_is_binary) isBinary = nullptr;
    decltype(&plist_dict_get_item) item = nullptr;
    decltype(&plist_get_node_type) typeOf = nullptr;
    decltype(&plist_get_string_ptr) text = nullptr;
    decltype(&plist_free) free = nullptr;
    bool usable = false;

    PropertyLists() {
        const RunTimeLibrary library({"libplist-2.0.so.3", "libplist-2.0.so.4"});
        usable =
            library.get("plist_from_xml", fromXml) && library.get("plist_from_bin", fromBinary) &&
            library.get("plist_is_binary", isBinary) && library.get("plist_dict_get_item", item) &&
            library.get("plist_get_node_type", typeOf) &&
            library.get("plist_get_string_ptr", text) && library.get("plist_free", free);
    }
    static const PropertyLists& instance() {
        static const auto* const lists = new PropertyLists;
        return *lists;
    }
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    // One byte more than is allowed tells a file that is too long from one that just fits, without
    // trusting a size that may change between the question and the reading.
    std::string text(kMaximumPropertyListBytes + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    return text.size() > kMaximumPropertyListBytes ? "" : text;
}

// The value of a text in the property list; empty for none.
std::string textInPropertyList(const std::string& content, const char* key) {
    const PropertyLists& lists = PropertyLists::instance();
    const auto length = static_cast<uint32_t>(content.size());
    plist_t root = nullptr;
    // Both forms are about in the same place; the extension does not tell them apart, the content
    // does.
    if (lists.isBinary(content.data(), length) != 0) {
        (void)lists.fromBinary(content.data(), length, &root); // root says how it went
    } else {
        (void)lists.fromXml(content.data(), length, &root);
    }
    std::string value;
    // Whoever made the file decides what is in it: a value of another type than a text is none.
    if (root != nullptr && lists.typeOf(root) == PLIST_DICT) {
        void* const item = lists.item(root, key);
        if (item != nullptr && lists.typeOf(item) == PLIST_STRING) {
            uint64_t valueLength = 0;
            const char* const text = lists.text(item, &valueLength);
            value.assign(text == nullptr ? "" : text);
        }
    }
    if (root != nullptr) {
        lists.free(root);
    }
    return value;
}

} // namespace

std::string programOfBundle(const std::string& bundle, std::string& remark) {
    const size_t start = bundle.rfind('/') + 1;
    std::string name =
        bundle.substr(start, bundle.size() - start - std::string_view(kBundleExtension).size());
    // A bundle without the file, or with one that does not say, runs the program of the bundle's
    // own name.
    const std::string content = readFile(bundle + "/Contents/Info.plist");
    if (!content.empty() && !PropertyLists::instance().usable) {
        remark = "its Info.plist is not read: libplist is not installed";
    } else if (!content.empty()) {
        const std::string given = textInPropertyList(content, "CFBundleExecutable");
        name = given.empty() ? name : given;
    }
    // The name comes from a file and becomes part of a path: it must not lead out of the bundle.
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        remark = "its program \"" + name + "\" is no file name";
        return {};
    }
    return bundle + std::string(kFolders) + name;
}

} // namespace platform
