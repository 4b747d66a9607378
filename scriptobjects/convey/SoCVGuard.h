#pragma once

#include <exception>
#include <string>

#include "platform/Log.h"

namespace ScObjects::ConveyData {

// Runs a host's code, which may throw what it likes; false when it did, and a line says so. `what`
// gives the text that it is called by there, which is made only then.
// The unwinding of a thread that is being ended is no exception of anybody's: it goes on.
template <class What, class Call>
bool runForeign(const What& what, Call&& call) {
    std::string reason;
    try {
        call();
        return true;
    } catch (const std::exception& exception) {
        reason = exception.what();
    } catch (...) {
        if (std::current_exception() == nullptr) {
            throw;
        }
        reason = "not a standard exception";
    }
    platform::Log::system().problem(what() + " threw: " + reason);
    return false;
}

} // namespace ScObjects::ConveyData
