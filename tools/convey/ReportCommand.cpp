// The conversation that was captured, as a page and in numbers.
#include <fstream>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "tools/convey/Commands.h"
#include "tools/convey/Conversation.h"
#include "tools/convey/HtmlPage.h"

namespace convey_tool {
namespace {

std::string inMilliseconds(int64_t microseconds) {
    if (microseconds < 0) {
        return "-";
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(3) << static_cast<double>(microseconds) / 1000;
    return text.str();
}

Json orNull(int64_t microseconds) {
    return microseconds < 0 ? Json() : Json(static_cast<double>(microseconds) / 1000);
}

} // namespace

Exit report(const Output& output, const ReportOptions& options) {
    std::ifstream file(options.file, std::ios::binary);
    if (!file) {
        throw Failure(kNoLayer, "cannot read " + options.file);
    }
    const Conversation conversation = Conversation::read(file);
    const std::string page = options.htmlFile.empty() ? options.file + ".html" : options.htmlFile;
    std::ofstream written(page, std::ios::binary);
    written << reportPage(options.file, conversation);
    written.close();
    if (!written) {
        throw Failure(kNoLayer, "cannot write " + page);
    }
    Json pairs = Json::array();
    Table table({"FROM", "TO", "TYPE", "COUNT", "ERRORS", "TIMEOUTS", "MEDIAN ms", "P99 ms"});
    for (const Conversation::Latency& pair : conversation.latencies()) {
        pairs.push_back({{"sender", pair.sender},
                         {"target", pair.target},
                         {"type", pair.type},
                         {"count", pair.count},
                         {"errors", pair.failed},
                         {"timeouts", pair.timedOut},
                         {"median", orNull(pair.at(0.5))},
                         {"p99", orNull(pair.at(0.99))}});
        table.add({pair.sender, pair.target, pair.type, std::to_string(pair.count),
                   std::to_string(pair.failed), std::to_string(pair.timedOut),
                   inMilliseconds(pair.at(0.5)), inMilliseconds(pair.at(0.99))});
    }
    if (output.json) {
        output.print({{"page", page},
                      {"messages", conversation.messages().size()},
                      {"dropped", conversation.dropped()},
                      {"pairs", pairs}});
        return kDone;
    }
    table.print(output);
    if (output.legend) {
        output.out << conversation.messages().size() << " messages, " << conversation.dropped()
                   << " events dropped; drawn in " << output.show(page) << std::endl;
    }
    return kDone;
}

} // namespace convey_tool
