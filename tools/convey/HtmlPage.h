#pragma once

#include <string>

#include "tools/convey/Tree.h"

namespace convey_tool {

class Conversation;
struct Verdict;

// The beginning that pages share, up to the end of the title: it forbids to fetch anything.
std::string pageHead(const std::string& title);

// A page for a person whose application hangs, which needs nothing but itself: the verdict (null
// for none), the queues against their limits, the messages as a table, and all rows, which fold and
// can be searched and copied. `name`: of the application; `time`: of the rows.
std::string htmlPage(const std::string& name, const std::string& time, const Node& root,
                     const Verdict* verdict = nullptr);

// A page that draws a conversation as a sequence diagram, with a table of the times to the answers,
// a filter and a zoom. `name`: of the capture.
std::string reportPage(const std::string& name, const Conversation& conversation);

// Data as text between the marks of a script, which it cannot end.
std::string inScript(const Json& data);

} // namespace convey_tool
