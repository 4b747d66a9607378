// The ping table of another application.
#include <ostream>

#include "tools/convey/Asking.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tree.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::ConveyThread;

namespace {

std::string ask(const std::string& target, const std::string& key, int32_t timeoutSeconds) {
    std::string answer =
        toStd(Convey::Thread::ping(target.c_str(), key.c_str(), timeoutSeconds, nullptr));
    if (isNoAnswer(answer)) {
        throw Failure(kNo, target + ": " + answer, {{"specifier", target}, {"answer", answer}});
    }
    return answer;
}

// Visits every node whose path ends so, whatever stands between.
template <class Visit>
void eachBelow(const Node& node, const std::string& ending, Visit&& visit) {
    if (node.path.size() > ending.size() &&
        node.path.compare(node.path.size() - ending.size(), ending.size(), ending) == 0) {
        for (const Node& child : node.children) {
            visit(child);
        }
        return;
    }
    for (const Node& child : node.children) {
        eachBelow(child, ending, visit);
    }
}

} // namespace

Exit keys(const Output& output, const KeyOptions& options) {
    const Session session;
    const std::string target = toStd(known(options.specifier));
    const Node root = readTree(ask(target, ConveyThread::CV_DIAGNOSTICS, options.timeoutSeconds));
    Json json = {{"specifier", target}, {"keys", Json::array()}, {"types", nullptr}};
    Table table({"KEY", "ANSWERED BY", "VALUE"});
    eachBelow(root, "/thread/ping", [&](const Node& key) {
        bool hasHandler = false;
        for (const Node& field : key.children) {
            hasHandler = hasHandler || (field.label == "Handler" && field.value == "installed");
        }
        json["keys"].push_back(
            {{"name", key.label}, {"handler", hasHandler}, {"value", key.value}});
        table.add({key.label, hasHandler ? "handler" : "value", key.value});
    });
    Table types({"TYPE", "INSTANCE"});
    for (const Node& application : root.children) {
        for (const Node& instance : application.children) {
            for (const Node& list : instance.children) {
                if (list.path == instance.path + "/types") {
                    if (json["types"].is_null()) { // else an older layer, which does not tell
                        json["types"] = Json::array();
                    }
                    for (const Node& type : list.children) {
                        json["types"].push_back(
                            {{"type", type.value}, {"instance", instance.value}});
                        types.add({type.value, instance.value});
                    }
                }
            }
        }
    }
    if (output.json) {
        output.print(json);
        return kDone;
    }
    table.print(output);
    if (!json["types"].is_null()) {
        output.out << '\n';
        types.print(output);
    }
    return kDone;
}

Exit key(const Output& output, const KeyOptions& options) {
    const Session session;
    const std::string target = toStd(known(options.specifier));
    if (options.name.find('=') != std::string::npos) { // it would set what stands before that
        throw Failure(kUsage, "\"" + options.name + "\" is no key: the value stands by itself");
    }
    if (options.hasValue) {
        const std::string taken =
            ask(target, options.name + "=" + options.value, options.timeoutSeconds);
        if (taken != options.value) {
            throw Failure(kNo, target + " does not take the value; it stays " + taken,
                          {{"specifier", target}, {"key", options.name}, {"value", taken}});
        }
    }
    bool isFirst = true;
    std::string last;
    do {
        const std::string value = ask(target, options.name, options.timeoutSeconds);
        if (isFirst || value != last) {
            if (output.json) {
                output.print({{"specifier", target}, {"key", options.name}, {"value", value}},
                             options.watch);
            } else {
                std::string rest = value;
                for (size_t end = 0; (end = rest.find('\n')) != std::string::npos;
                     rest = rest.substr(end + 1)) {
                    output.out << output.show(rest.substr(0, end)) << '\n';
                }
                output.out << output.show(rest) << std::endl;
            }
        }
        isFirst = false;
        last = value;
        if (options.watch) {
            Session::pumpFor(static_cast<int64_t>(1000 * options.intervalSeconds));
        }
    } while (options.watch && !Session::isEnding());
    return kDone;
}

} // namespace convey_tool
