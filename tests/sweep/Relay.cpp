// An application that asks another one from within its handler, and answers with what it was told.
// Usage: sweep_relay SPECIFIER TARGET
#include <csignal>
#include <cstdio>
#include <new>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

volatile std::sig_atomic_t gEnd = 0;
constexpr uint32_t kSeconds = 2;

class Answer : public Convey::MsgHandler {
public:
    Answer(uint32_t serial, SoString& text) : serial_(serial), text_(text) {}
    int32_t handleMessage(int /*event*/, Convey::Message& message, SoString*) override {
        text_ << message.getBody();
        return 0;
    }
    SoString getMsgType() const override { return "Result"; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const uint32_t serial_;
    SoString& text_;
};

class Relay : public Convey::MsgHandler {
public:
    explicit Relay(const char* target) : target_(target) {}
    int32_t handleMessage(int /*event*/, Convey::Message& message, SoString* result) override {
        if (result == nullptr) {
            return 0;
        }
        Convey::Message question;
        question.setTarget(target_);
        question.setBody(message.getBody());
        question.setResponseRequest("Result Error");
        question.setTimeout(kSeconds);
        question.setSerialNumber(question.getNextSerialNumber(nullptr));
        SoString answer("relayed: ");
        delete instance->changeHandler(new Answer(question.getSerialNumber(), answer));
        const bool answered = instance->send(question, false, kSeconds, nullptr);
        delete instance->removeHandler("Result", question.getSerialNumber());
        *result = answer;
        return answered ? 0 : 7;
    }
    SoString getMsgType() const override { return "Tessaly"; }

    Convey* instance = nullptr;

private:
    const char* const target_;
};

int relay(char** argv) {
    std::signal(SIGTERM, [](int) { gEnd = 1; });
    if (!Convey::InitTerm::init(argv[1], true)) {
        return 1;
    }
    {
        auto* const relay = new Relay(argv[2]);
        Convey instance(argv[1], relay, true, nullptr);
        if (!instance.isReachable()) {
            return 1;
        }
        relay->instance = &instance;
        std::printf("running as %s\n", argv[1]);
        std::fflush(stdout);
        while (gEnd == 0) {
            (void)Convey::pumpOrWait(100);
        }
    }
    return Convey::InitTerm::exit() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return argc == 3 ? relay(argv) : 2;
    } catch (const std::bad_alloc&) { // of the texts that are made here
        return 1;
    }
}
