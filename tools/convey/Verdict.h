#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/convey/Tree.h"

// What is to be said first of an application that somebody asks about because it hangs.
namespace convey_tool {

// A message that is in a handler, whose replies are waited for, or that is being handed over.
struct Occupation {
    std::string serial;
    std::string type;
    std::string sender;
    std::string target;
    int64_t milliseconds = 0; // so far
};

// A target that takes nothing.
struct Blocked {
    std::string target;
    int64_t milliseconds = 0; // so far
    size_t messages = 0;
    std::string reason; // as the rows have it
};

// What the rows say of an instance.
struct InstanceFacts {
    std::string name;
    std::vector<Occupation> handling; // newest first, as the next
    std::vector<Occupation> waiting;
    std::vector<Occupation> sending;
    std::vector<Blocked> blocked; // the longest first
    size_t incoming = 0;          // messages, without those that only watch a time
    size_t outgoing = 0;
    std::string outgoingTarget;      // of the oldest
    int64_t incomingBytes = 0;       // with all that they cost
    size_t sendersWithoutRoom = 0;   // for more in its queue
    int64_t oldestSeconds = 0;       // of those that came in; 0 without
    int64_t oldestOutSeconds = 0;    // of those that are to go out
    int64_t pumpedMilliseconds = -1; // since its owner came by; -1: never, or not said
};
std::vector<InstanceFacts> readInstances(const Node& rows);

// What is known of an application's process.
struct Subject {
    uint32_t process = 0; // 0: unknown
    char state = '?';     // as ProcessFacts has it
    std::string place; // in the system, where its main thread waits; empty when that is not shown
    std::string elsewhere; // the port folder that it uses, when that is not this process's
    bool hasDied = false;  // and left its ports
    std::string link;      // where it is used, when it does not answer and its ports are a link's
    std::string rows;      // its diagnostics; empty when it does not answer
};

struct Verdict {
    std::string word; // one of those in the manual
    std::string sentence;
    bool isHealthy = true;
};

// Says what keeps `name`. What it waits for is followed through `look`, which is asked for each
// application once.
Verdict judge(const std::string& name, const std::function<Subject(const std::string&)>& look);

// A time for people: the two larger of its units.
std::string forPeople(int64_t milliseconds);

} // namespace convey_tool
