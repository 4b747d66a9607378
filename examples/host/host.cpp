// An application that takes part in messaging and does nothing else. See usage below.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

constexpr const char* kUsage = "usage: host SPECIFIER [--quiet | --ask TARGET BODY]\n"
                               "Starts the layer as SPECIFIER and answers messages until SIGTERM: "
                               "requests get \"echo: \" and\n"
                               "their body as result, the body \"fail\" an error. With --ask it "
                               "sends one request instead, and\n"
                               "prints what comes back.\n";

volatile std::sig_atomic_t gEnd = 0;

class EchoHandler : public Convey::MsgHandler {
public:
    explicit EchoHandler(bool quiet) : quiet_(quiet) {}
    int32_t handleMessage(int /*event*/, Convey::Message& message, SoString* result) override {
        if (!quiet_) {
            std::printf("%s %s: %s\n", message.getSender().c_str(), message.getType().c_str(),
                        message.getBody().c_str());
            std::fflush(stdout);
        }
        const bool fails = message.getBody() == "fail";
        if (result != nullptr) {
            *result = fails ? "failed as asked" : "echo: ";
            *result << (fails ? SoString() : message.getBody());
        }
        return fails ? 7 : 0;
    }
    SoString getMsgType() const override { return "Tessaly"; }

private:
    const bool quiet_;
};

// Prints the replies to one message.
class ReplyHandler : public Convey::MsgHandler {
public:
    explicit ReplyHandler(uint32_t serial) : serial_(serial) {}
    int32_t handleMessage(int event, Convey::Message& message, SoString* /*result*/) override {
        const char* const kinds[] = {"message", "request", "received", "result",
                                     "error",   "timeout", "log",      "idle"};
        std::printf("%s: %s\n", kinds[event], message.getBody().c_str());
        return 0;
    }
    SoString getMsgType() const override { return "Result"; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    const uint32_t serial_;
};

int ask(Convey& instance, const char* target, const char* body) {
    Convey::Message message;
    message.setTarget(target);
    message.setBody(SoString(body));
    message.setResponseRequest("Result Error");
    message.setTimeout(10);
    message.setSerialNumber(message.getNextSerialNumber(nullptr));
    delete instance.changeHandler(new ReplyHandler(message.getSerialNumber()));
    const bool answered = instance.send(message, false, 10, nullptr);
    if (!answered) {
        std::printf("no answer\n");
    }
    return answered ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    const bool asks = argc == 5 && std::strcmp(argv[2], "--ask") == 0;
    const bool quiet = argc == 3 && std::strcmp(argv[2], "--quiet") == 0;
    if ((argc != 2 && !asks && !quiet) || argv[1][0] == '-') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::signal(SIGTERM, [](int) { gEnd = 1; });
    std::signal(SIGINT, [](int) { gEnd = 1; });
    if (!Convey::InitTerm::init(argv[1], true)) {
        std::fprintf(stderr, "host: the layer does not start as %s\n", argv[1]);
        return 1;
    }
    int status = 0;
    {
        Convey instance(argv[1], new EchoHandler(quiet), true, nullptr);
        if (asks) {
            status = ask(instance, argv[3], argv[4]);
        } else {
            std::printf("running as %s\n", instance.getAppName().c_str());
            std::fflush(stdout);
            while (gEnd == 0) {
                (void)Convey::pumpOrWait(100); // looks for SIGTERM ten times a second
            }
        }
    }
    return Convey::InitTerm::exit() ? status : 1;
}
