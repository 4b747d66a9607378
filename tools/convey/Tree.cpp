#include "tools/convey/Tree.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <utility>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"

namespace convey_tool {
namespace {

using ScObjects::SoString;

constexpr size_t kDeepest = limits::of("tree.depth");

// What does not stand for anything stays: applications of before wrote texts as they were.
std::string unfolded(std::string_view text) {
    constexpr std::pair<std::string_view, char> kMarks[] = {
        {"\\n", '\n'}, {"\\3b", ';'}, {"\\\\", '\\'}};
    std::string whole;
    while (!text.empty()) {
        const auto* const mark =
            std::find_if(std::begin(kMarks), std::end(kMarks),
                         [text](const auto& one) { return text.starts_with(one.first); });
        const bool isMark = mark != std::end(kMarks);
        whole += isMark ? mark->second : text.front();
        text.remove_prefix(isMark ? mark->first.size() : 1);
    }
    return whole;
}

bool isBelow(const std::string& path, const std::string& parent) {
    return path.size() > parent.size() && path.compare(0, parent.size(), parent) == 0 &&
           path[parent.size()] == '/';
}

void printNodes(const Output& output, const std::vector<Node>& nodes, const std::string& margin) {
    for (size_t i = 0; i < nodes.size(); ++i) {
        const Node& node = nodes[i];
        const bool isLast = i + 1 == nodes.size();
        output.out << margin << (isLast ? "└─ " : "├─ ")
                   << output.show(node.label, node.isHeading ? Style::heading : Style::plain);
        if (!node.value.empty()) {
            output.out << (node.isHeading ? ": " : " = ")
                       << output.show(node.value,
                                      node.value == "undefined" ? Style::dim : Style::plain);
        }
        output.out << '\n';
        printNodes(output, node.children, margin + (isLast ? "   " : "│  "));
    }
}

} // namespace

bool takeRow(std::string_view& rows, Row& row) {
    while (!rows.empty()) {
        const size_t end = rows.find('\n');
        const std::string_view line = rows.substr(0, end);
        rows = end == std::string_view::npos ? std::string_view() : rows.substr(end + 1);
        SoString path;
        SoString label;
        SoString value;
        if (ScObjects::ConveyUtils::parseInfoLine(SoString(line), path, label, value,
                                                  row.isHeading)) {
            row.path = path.view();
            row.label = unfolded(label.view());
            row.value = unfolded(value.view());
            return true;
        }
    }
    return false;
}

Node readTree(const std::string& rows) {
    Node root;
    std::vector<Node*> open{&root}; // from the root to the node that was added last
    std::string_view rest(rows);
    for (Row row; takeRow(rest, row);) {
        Node node{
            std::move(row.path), std::move(row.label), std::move(row.value), row.isHeading, {}};
        while (open.size() > 1 &&
               (open.size() > kDeepest || !isBelow(node.path, open.back()->path))) {
            open.pop_back();
        }
        open.back()->children.push_back(std::move(node));
        open.push_back(&open.back()->children.back());
    }
    return root;
}

void printTree(const Output& output, const Node& root) {
    printNodes(output, root.children, "");
    output.out.flush();
}

Json treeAsJson(const Node& node) {
    Json children = Json::array();
    for (const Node& child : node.children) {
        children.push_back(treeAsJson(child));
    }
    return {{"path", node.path},
            {"label", node.label},
            {"value", node.value},
            {"heading", node.isHeading},
            {"children", std::move(children)}};
}

} // namespace convey_tool
