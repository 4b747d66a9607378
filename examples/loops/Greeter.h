#pragma once

#include <functional>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

// The application of these examples: answers each request with "good day, " and its body, and shows
// the body.
class Greeter : public ScObjects::Convey::MsgHandler {
public:
    using Show = std::function<void(const std::string&)>;

    explicit Greeter(Show show) : show_(std::move(show)) {}

    int32_t handleMessage(int, ScObjects::Convey::Message& message,
                          ScObjects::SoString* result) override {
        show_(message.getBody().c_str());
        if (result != nullptr) {
            *result = "good day, ";
            *result << message.getBody();
        }
        return 0;
    }
    ScObjects::SoString getMsgType() const override { return "Tessaly"; }

private:
    const Show show_;
};
