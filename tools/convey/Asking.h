#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoConvey.h"

namespace convey_tool {

// Whether what a ping gave says why there is no value. An empty value is one.
inline bool isNoAnswer(const std::string& answer) {
    using ScObjects::ConveyThread;
    const char* const words[] = {ConveyThread::CV_NOINTERAPPSTREAM,
                                 ConveyThread::CV_INVALIDSPEC,
                                 ConveyThread::CV_ISNOTINSTALLED,
                                 ConveyThread::CV_ISNOTRUNNING,
                                 ConveyThread::CV_MSGTOSTRINGERROR,
                                 "Timeout",
                                 "UNDEFINED"};
    return std::any_of(std::begin(words), std::end(words),
                       [&answer](const char* word) { return answer == word; });
}

// Calls a function with each message that it is given.
class Handler : public ScObjects::Convey::MsgHandler {
public:
    using Body = std::function<void(const ScObjects::Convey::Message&)>;
    Handler(std::string type, uint32_t serial, Body body)
        : type_(std::move(type)), serial_(serial), body_(std::move(body)) {}
    int32_t handleMessage(int /*event*/, ScObjects::Convey::Message& message,
                          ScObjects::SoString* /*result*/) override {
        body_(message);
        return 0;
    }
    ScObjects::SoString getMsgType() const override { return type_.c_str(); }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const std::string type_;
    const uint32_t serial_;
    const Body body_;
};

} // namespace convey_tool
