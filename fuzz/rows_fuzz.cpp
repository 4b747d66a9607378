// Rows of the diagnostics text, which any process may answer with: splitting them, and the tree,
// the JSON and the page that the tool makes of them.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "tools/convey/HtmlPage.h"
#include "tools/convey/Tree.h"

namespace {

using ScObjects::SoString;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

size_t count(const std::string& text, const std::string& word) {
    size_t found = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        ++found;
    }
    return found;
}

size_t nodesBelow(const convey_tool::Node& node) {
    size_t nodes = 0;
    for (const convey_tool::Node& child : node.children) {
        nodes += 1 + nodesBelow(child);
    }
    return nodes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t rows = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const SoString row(line);
        SoString path;
        SoString label;
        SoString value;
        bool isHeading = false;
        if (!ScObjects::ConveyUtils::parseInfoLine(row, path, label, value, isHeading)) {
            require(path.isEmpty() && label.isEmpty() && value.isEmpty());
            continue;
        }
        ++rows;
        require(!path.isEmpty() && path.view().find(';') == std::string_view::npos);
        const std::string again = std::string(path.view()) + (isHeading ? ";1;" : ";0;") +
                                  std::string(label.view()) + ";" + std::string(value.view()) + ";";
        const SoString rebuilt(again);
        SoString path2;
        SoString label2;
        SoString value2;
        bool isHeading2 = false;
        require(ScObjects::ConveyUtils::parseInfoLine(rebuilt, path2, label2, value2, isHeading2));
        require(path2 == path && label2 == label && value2 == value && isHeading2 == isHeading);
    }
    const convey_tool::Node tree = convey_tool::readTree(text);
    require(nodesBelow(tree) == rows);
    std::ostringstream out;
    convey_tool::printTree({out, out}, tree);
    for (const char c : out.str()) {
        require(static_cast<unsigned char>(c) >= 0x20 || c == '\n'); // nothing steers the terminal
    }
    convey_tool::Output({out, out, true}).print(convey_tool::treeAsJson(tree));
    // What others say must not end the page's own script, nor begin another element.
    static const size_t kScriptEnds = count(convey_tool::htmlPage("", "", {}), "</script");
    static const size_t kElements = count(convey_tool::htmlPage("", "", {}), "<");
    const std::string page = convey_tool::htmlPage(text, text, tree);
    require(count(page, "</script") == kScriptEnds && count(page, "<") == kElements);
    return 0;
}
