#pragma once

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

// Handlers that measuring programs share.
namespace bench {

// For one type and number: takes what comes, and gives "answer" to whoever wants a result.
class Answering : public ScObjects::Convey::MsgHandler {
public:
    Answering(const char* type, uint32_t serial) : type_(type), serial_(serial) {}
    int32_t handleMessage(int, ScObjects::Convey::Message&, ScObjects::SoString* result) override {
        if (result != nullptr) {
            *result = "answer";
        }
        return 0;
    }
    ScObjects::SoString getMsgType() const override { return type_; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const char* const type_;
    const uint32_t serial_;
};

} // namespace bench
