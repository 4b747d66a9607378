#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/convey/Output.h"
#include "tools/convey/Verdict.h"

// Looks at applications, as the verdicts need them.
namespace convey_tool {

// Asks the system and, unless it is stopped, the application itself. `whole`: long texts are not
// cut. Throws Failure for what does not run and has left nothing.
Subject look(const std::string& target, int32_t timeoutSeconds, bool whole);

// Calls `work` for each number below `count`, on threads of its own, so that those that wait long
// wait together; returns when all is done. `work` may be called for several at the same time.
void allAtOnce(size_t count, const std::function<void(size_t)>& work);

using Subjects = std::map<std::string, Subject>;
// Looks at many at once, so that those that do not answer cost one time-out together; without those
// that `look` throws for.
Subjects lookAtAll(const std::vector<std::string>& targets, int32_t timeoutSeconds);

// The verdict on an application and on those that it waits for; `rows`, where it is not null,
// receives what it says of itself. What is in `seen` is not looked at again. Throws Failure as
// `look` does.
Verdict judgeRunning(const std::string& target, int32_t timeoutSeconds, bool whole,
                     std::string* rows, const Subjects& seen = {});

Json asJson(const Verdict& verdict);

// The ports of this user in folders other than this process's own, as far as the system tells their
// paths: folder, then the name of the port and the process that owns it (0: not found).
using Elsewhere = std::map<std::string, std::map<std::string, uint32_t>>;
Elsewhere portsElsewhere();

} // namespace convey_tool
