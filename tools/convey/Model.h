#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/convey/Output.h"

// What the commands and the pages know of others: messages as rows describe them, and processes as
// the system describes them. `Tree.h` has the rows themselves.
namespace convey_tool {

// A message of a diagnostics text.
struct MessageRows {
    std::string serial;
    std::string time;  // of day
    std::string event; // what a second heading says of it; empty without
    std::string type;
    std::string sender;
    std::string target;
    std::string timeout;
    std::string request;
    std::vector<std::pair<std::string, std::string>> headers;
    uint64_t sizeBytes = 0;
    std::string text;  // the body's first line
    std::string whole; // the whole body, where the rows have it
};

// The message that stands in `rows` below `root`. Each value is taken from its own place, so a
// header cannot pass for a field by its name, nor by rows of its own that a line feed begins: those
// stand between the fields before the headers, of which the first counts, and those behind, of
// which the last does.
MessageRows readMessage(const std::string& rows, const std::string& root);

// A process of this machine as the system sees it, without asking it.
struct ProcessFacts {
    std::string program;      // its file, empty when it cannot be seen
    char state = '?';         // R runs, S sleeps, D waits for a device, T is stopped, Z has ended
    double seconds = 0;       // of processor time so far
    uint64_t memoryBytes = 0; // in memory
};
ProcessFacts lookAt(uint32_t process);

// The applications that a link has registered here, each with the name of the link where it runs.
std::map<std::string, std::string> usedElsewhere();

// The processes that own this user's ports, by the ports' names.
std::map<std::string, uint32_t> portOwners();

// Of those, the one that answers pings for the application (its instances may go by other names, an
// incomplete one too), else the one that has its name; 0 for none.
uint32_t ownerOf(const std::map<std::string, uint32_t>& owners, const std::string& application);

} // namespace convey_tool
