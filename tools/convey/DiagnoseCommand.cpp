#include <fstream>
#include <ostream>

#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "tools/convey/Commands.h"
#include "tools/convey/HtmlPage.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tree.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::ConveyThread;
using ScObjects::SoString;

namespace {

constexpr int64_t kWatchMilliseconds = 1000;
constexpr const char* kClear = "\x1b[H\x1b[2J";

// The rows of the target, of this process for none.
std::string rowsOf(const std::string& target, int32_t timeoutSeconds) {
    if (target.empty()) {
        SoString rows;
        Convey::getDiagnostics(rows, false);
        return toStd(rows);
    }
    std::string rows = toStd(Convey::Thread::ping(target.c_str(), ConveyThread::CV_DIAGNOSTICS,
                                                  timeoutSeconds, nullptr));
    if (rows.empty() || rows.front() != '/') { // rows begin with a path, other answers with a word
        throw Failure(kNo, target + ": " + (rows.empty() ? "no answer" : rows),
                      {{"specifier", target}});
    }
    return rows;
}

void writePage(const std::string& file, const std::string& name, const Node& tree) {
    std::ofstream page(file, std::ios::binary);
    page << htmlPage(name, toStd(ScObjects::ConveyUtils::getTimeString(nullptr)), tree);
    page.close();
    if (!page) {
        throw Failure(kNoLayer, "cannot write " + file);
    }
}

} // namespace

Exit diagnose(const Output& output, const DiagnoseOptions& options) {
    const Session session;
    const std::string target = options.specifier.empty() ? "" : toStd(completed(options.specifier));
    do {
        const std::string rows = rowsOf(target, options.timeoutSeconds);
        if (options.watch && output.columns != 0) {
            output.out << kClear;
        }
        if (!options.htmlFile.empty()) {
            writePage(options.htmlFile, target.empty() ? session.name() : target, readTree(rows));
        } else if (options.raw) {
            output.out << rows << std::flush;
        } else if (output.json) {
            output.print(treeAsJson(readTree(rows)), options.watch);
        } else {
            printTree(output, readTree(rows));
        }
        if (options.watch) {
            Session::pumpFor(kWatchMilliseconds);
        }
    } while (options.watch && !Session::isEnding());
    return kDone;
}

} // namespace convey_tool
