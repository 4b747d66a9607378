#pragma once

#include <string>

#include "tools/convey/Tree.h"

namespace convey_tool {

// A page that shows the tree and needs nothing but itself: it folds, rows can be searched, queues
// and the ages of messages are drawn as bars. `name`: of the application; `time`: of the rows.
std::string htmlPage(const std::string& name, const std::string& time, const Node& root);

} // namespace convey_tool
