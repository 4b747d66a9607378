#pragma once

#include <atomic>
#include <functional>

#include "scriptobjects/convey/SoConvey.h"

// A handler that does what a test says.
class TestHandler : public ScObjects::Convey::MsgHandler {
public:
    using Body = std::function<int32_t(int, ScObjects::Convey::Message&, ScObjects::SoString*)>;

    // `alive` counts those that are there.
    TestHandler(Body body, const char* type = "Tessaly",
                uint32_t serial = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER,
                std::atomic<int>* alive = nullptr)
        : body_(std::move(body)), type_(type), serial_(serial), alive_(alive) {
        if (alive_ != nullptr) {
            ++*alive_;
        }
    }
    ~TestHandler() override {
        if (alive_ != nullptr) {
            --*alive_;
        }
    }
    int32_t handleMessage(int event, ScObjects::Convey::Message& message,
                          ScObjects::SoString* result) override {
        return body_(event, message, result);
    }
    ScObjects::SoString getMsgType() const override { return type_; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const Body body_;
    const ScObjects::SoString type_;
    const uint32_t serial_;
    std::atomic<int>* const alive_;
};
