#pragma once

#include <string>

#include "platform/Service.h"

namespace platform {

// Where a broken environment (disk, port, memory) is reported: a folder that cannot be used, not an
// answer that the caller can handle. One line each, with operation, object and the system's reason.
//
// Porting contract: never waits, raises no signal and never fails: where nobody reads, the line is
// lost. Bytes that would steer a terminal are written as \xNN. The same line is written again only
// after some minutes, and lines that come faster than a person reads them are left out; the next
// one that is written says how many. Threads: any.
class Log : public Service<Log> {
public:
    virtual ~Log() = default;

    virtual void problem(const std::string& line) = 0;

    // For what is wrong with this user's account as a whole: said by the first of the user's
    // processes that meets it, and not again while the user is logged in. Each run of a tool would
    // say it anew.
    virtual void problemOfUser(const std::string& line) = 0;

    static Log& own();
};

} // namespace platform
