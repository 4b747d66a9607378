#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/convey/Output.h"

namespace convey_tool {

// The rows of a diagnostics text as the tree that they describe.
struct Node {
    std::string path;
    std::string label;
    std::string value;
    bool isHeading = false;
    std::vector<Node> children;
};

// A row of a diagnostics text; label and value as they were before they became part of a row. False
// for what is none.
struct Row {
    std::string path;
    std::string label;
    std::string value;
    bool isHeading = false;
};
bool readRow(std::string_view text, Row& row);

// What is no row is left out. A row whose parent has no row hangs on the nearest one that has; the
// root has no row of its own. At most 64 deep.
Node readTree(const std::string& rows);

void printTree(const Output& output, const Node& root);
Json treeAsJson(const Node& node);

} // namespace convey_tool
