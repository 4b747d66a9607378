// The ports of this user, from outside: nothing is sent to their owners.
#include <ostream>

#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "tools/convey/Commands.h"

namespace convey_tool {
namespace {

std::string streamName(const std::string& port) {
    return std::string(ScObjects::ConveyUtils::getStreamName(port.c_str()).view());
}

std::string orUnknown(int64_t number) {
    return number < 0 ? "?" : std::to_string(number);
}

} // namespace

Exit ports(const Output& output, const PortsOptions& options) {
    platform::MessagePorts& ports = platform::MessagePorts::system();
    const size_t removed = options.clean ? ports.removeStale() : 0;
    const std::vector<platform::PortDescription> all = ports.list();
    if (output.json) {
        Json json = {{"ports", Json::array()}, {"removed", removed}};
        for (const platform::PortDescription& port : all) {
            Json entry = {{"name", streamName(port.name)}, {"stale", port.stale}};
            if (port.owner != 0) {
                entry["process"] = port.owner;
            }
            if (port.waitingBytes >= 0) {
                entry["connections"] = port.connections;
                entry["waitingBytes"] = port.waitingBytes;
            }
            if (port.dropsSeals) {
                entry["digests"] = false;
            }
            json["ports"].push_back(std::move(entry));
        }
        output.print(json);
        return kDone;
    }
    Table table({"PROCESS", "SENDERS", "WAITING", "PORT"});
    size_t stale = 0;
    for (const platform::PortDescription& port : all) {
        stale += port.stale ? 1 : 0;
        table.add({port.stale        ? "stale"
                   : port.owner == 0 ? "?"
                                     : std::to_string(port.owner),
                   orUnknown(port.connections), orUnknown(port.waitingBytes),
                   streamName(port.name) + (port.dropsSeals ? " (drops digests)" : "")});
    }
    table.print(output);
    if (options.clean) {
        output.out << removed << " stale ports removed\n";
    } else if (stale != 0) {
        output.note(std::to_string(stale) + " stale ports; --clean removes them");
    }
    return kDone;
}

} // namespace convey_tool
