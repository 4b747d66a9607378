#pragma once

#include <memory>
#include <string>

#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoConvey.h"

namespace convey_tool {

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

    // True when the person or the system wants the tool to end (SIGINT and SIGTERM), or nobody
    // reads any more what it says.
    static bool isEnding();
    // Lets messages come in and go out for so long, or until the tool is to end.
    static void pumpFor(int64_t milliseconds);

private:
    std::unique_ptr<ScObjects::Convey> instance_;
};

// A specifier completed to that of a registered application. Throws Failure for none.
ScObjects::Convey::Specifier completed(const std::string& text);

inline std::string toStd(const ScObjects::SoString& text) {
    return std::string(text.view());
}

} // namespace convey_tool
