#pragma once

#include <string>

#include "platform/Service.h"

namespace platform {

// Where a broken environment (disk, port, memory) is reported: a folder that cannot be used, not an
// answer that the caller can handle. One line each, with operation, object and the system's reason.
//
// Porting contract: does not block for long and never fails; the same line is written once in a
// process, and after a bounded number of different ones nothing more. Threads: any.
class Log : public Service<Log> {
public:
    virtual ~Log() = default;

    virtual void problem(const std::string& line) = 0;

    static Log& own();
};

} // namespace platform
