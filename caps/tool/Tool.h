#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace caps::tool {

// The whole tool: runs the command that `arguments` (without the program's name) give. Results go
// to `out`, messages to `err`. Returns the exit status: 0, 1 when the command failed, 2 when it was
// not understood.
int run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
        std::ostream& err);

} // namespace caps::tool
