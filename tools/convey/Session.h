#pragma once

#include <memory>
#include <string>

#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoConvey.h"

namespace convey_tool {

// How the tool ends when the person or the system wants it to (SIGINT, SIGTERM, SIGHUP): a command
// that looks at `isAsked` has a moment to end in good order, then the process ends as it is,
// whatever a thread of it waits for. The ports are given back in either case.
class Ending {
public:
    // From now on; once, before there are other threads. `inJson`: a forced end leaves a document.
    static void listen(const bool& inJson);
    static bool isInterrupted(); // by a signal
    // Also true when nobody reads any more what the tool says.
    static bool isAsked();
    // Every end of the process goes this way, so that two threads do not end it at once. `status`
    // counts unless an end was asked for.
    [[noreturn]] static void finish(int status);
};

// The layer, started for this process under a name of its own, with an instance that can receive.
// One at a time.
class Session {
public:
    // Throws Failure when the layer does not start.
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    ScObjects::Convey& instance() { return *instance_; }
    std::string name() const;

    static bool isEnding() { return Ending::isAsked(); }
    // Lets messages come in and go out for so long, or until the tool is to end.
    static void pumpFor(int64_t milliseconds);

private:
    std::unique_ptr<ScObjects::Convey> instance_;
};

// A specifier completed to that of a registered application. Throws Failure for none.
ScObjects::Convey::Specifier completed(const std::string& text);
// The same, when it can be used: throws Failure, which says what to do, when the database cannot be
// read, or the application is not installed and does not run.
ScObjects::Convey::Specifier known(const std::string& text);

// Throws Failure with the file and the reason when there is no registry to read.
void requireRegistry();

inline std::string toStd(const ScObjects::SoString& text) {
    return std::string(text.view());
}

} // namespace convey_tool
