#pragma once

#include <string>

#include "tools/convey/Tree.h"

namespace convey_tool {

// A page that shows the tree and needs nothing but itself: it folds, rows can be searched, queues
// and the ages of messages are drawn as bars. `name`: of the application; `time`: of the rows.
std::string htmlPage(const std::string& name, const std::string& time, const Node& root);

class Conversation;

// A page that draws a conversation as a sequence diagram, with a table of the times to the answers,
// a filter and a zoom. `name`: of the capture.
std::string reportPage(const std::string& name, const Conversation& conversation);

// Data as text between the marks of a script, which it cannot end.
std::string inScript(const Json& data);

} // namespace convey_tool
