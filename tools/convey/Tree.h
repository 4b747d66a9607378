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

// A row of a diagnostics text; label and value as they were before they became part of a row.
struct Row {
    std::string path;
    std::string label;
    std::string value;
    bool isHeading = false;
};
// Takes the next row off the front of `rows`, with lines that are none; false when none is left.
bool takeRow(std::string_view& rows, Row& row);

// What is no row is left out. A row whose parent has no row hangs on the nearest one that has; the
// root has no row of its own. At most 64 deep.
Node readTree(const std::string& rows);

void printTree(const Output& output, const Node& root);
Json treeAsJson(const Node& node);

} // namespace convey_tool
