#include <fstream>
#include <ostream>
#include <utility>

#include "scriptobjects/convey/SoCVUtils.h"
#include "tools/convey/Commands.h"
#include "tools/convey/HtmlPage.h"
#include "tools/convey/Look.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tree.h"
#include "tools/convey/Verdict.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::SoString;

namespace {

constexpr int64_t kWatchMilliseconds = 1000;
constexpr const char* kClear = "\x1b[H\x1b[2J";

void writePage(const std::string& file, const std::string& name, const Node& tree,
               const Verdict* verdict) {
    std::ofstream page(file, std::ios::binary);
    page << htmlPage(name, toStd(ScObjects::ConveyUtils::getTimeString(nullptr)), tree, verdict);
    page.close();
    if (!page) {
        throw Failure(kNoLayer, "cannot write " + file);
    }
}

// The queues, an instance a line.
void printQueues(const Output& output, const Node& tree) {
    Table table({"INSTANCE", "INCOMING", "OLDEST", "OUTGOING", "HANDLING", "WAITING FOR"});
    for (const InstanceFacts& facts : readInstances(tree)) {
        table.add({facts.name, std::to_string(facts.incoming),
                   facts.incoming == 0 ? "-" : forPeople(1000 * facts.oldestSeconds),
                   std::to_string(facts.outgoing),
                   facts.handling.empty() ? "-" : forPeople(facts.handling.back().milliseconds),
                   facts.waiting.empty() ? "-" : facts.waiting.front().target});
    }
    table.print(output);
}

// The rows that begin with a path, below the root that all of them share.
Node partOf(const Node& tree, const std::string& prefix) {
    Node part;
    for (const Node& child : tree.children) {
        const size_t own = child.path.find('/', 1);
        const std::string path = own == std::string::npos ? child.path : child.path.substr(own);
        if (path.compare(0, prefix.size(), prefix) == 0) {
            part.children.push_back(child);
        } else if (prefix.compare(0, path.size() + 1, path + "/") == 0) {
            for (Node& found : partOf(child, prefix).children) {
                part.children.push_back(std::move(found));
            }
        }
    }
    return part;
}

// This tool itself, without a verdict: who asks what it knows.
void showOwn(const Output& output, const DiagnoseOptions& options, const std::string& name) {
    SoString own;
    Convey::getDiagnostics(own, false);
    const std::string rows = toStd(own);
    const Node tree = partOf(readTree(rows), options.path);
    if (!options.htmlFile.empty()) {
        writePage(options.htmlFile, name, tree, nullptr);
    } else if (options.raw) {
        output.out << rows << std::flush;
    } else if (output.json) {
        output.print(treeAsJson(tree), options.watch);
    } else {
        printTree(output, tree);
    }
}

Exit show(const Output& output, const DiagnoseOptions& options, const std::string& target) {
    std::string rows;
    const Verdict verdict = judgeRunning(target, options.timeoutSeconds, options.whole, &rows);
    // Without rows there is nothing to show raw or as a page.
    if (rows.empty() && (options.raw || !options.htmlFile.empty())) {
        throw Failure(kNo, verdict.sentence, {{"specifier", target}, {"verdict", asJson(verdict)}});
    }
    const Node tree = partOf(readTree(rows), options.path);
    if (options.raw) {
        output.out << rows << std::flush;
        return kDone;
    }
    if (output.json) {
        Json document = treeAsJson(tree);
        document["verdict"] = asJson(verdict);
        output.print(document, options.watch);
    } else if (!options.htmlFile.empty()) {
        writePage(options.htmlFile, target, tree, &verdict);
    } else {
        if (options.watch && output.columns != 0) {
            output.out << kClear;
        }
        const Style style = verdict.isHealthy ? Style::good : Style::bad;
        output.paragraph(verdict.sentence, 0, style);
        if (!rows.empty()) {
            output.out << '\n';
            printQueues(output, readTree(rows));
        }
        if (!options.watch && !rows.empty()) {
            output.out << '\n';
            printTree(output, tree);
            if (output.isTerminal && options.path.empty()) { // what was said first is out of sight
                output.out << '\n';
                output.paragraph(verdict.sentence, 0, style);
            }
        }
        output.out.flush();
    }
    return verdict.isHealthy ? kDone : kNo;
}

} // namespace

Exit diagnose(const Output& output, const DiagnoseOptions& options) {
    const Session session;
    const std::string target = options.specifier.empty() ? "" : toStd(completed(options.specifier));
    Exit status = kDone;
    do {
        if (target.empty()) {
            showOwn(output, options, session.name());
        } else {
            status = show(output, options, target);
        }
        if (options.watch) {
            Session::pumpFor(kWatchMilliseconds);
        }
    } while (options.watch && !Session::isEnding());
    return status;
}

} // namespace convey_tool
