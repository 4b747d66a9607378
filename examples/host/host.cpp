// An application that takes part in messaging and does nothing else. See usage below.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

constexpr const char* kUsage =
    "usage: host SPECIFIER [--quiet | --ask TARGET BODY | --launch TARGET BODY [PARAMETERS]\n"
    "                       | --launch-behind TARGET | --front TARGET]\n"
    "Starts the layer as SPECIFIER and answers messages until SIGTERM: requests get \"echo: \" "
    "and\n"
    "their body as result, the body \"fail\" an error. When it was launched by another "
    "application,\n"
    "it prints with which options.\n"
    "With --ask it sends one request instead, and prints what comes back; --launch has the target\n"
    "launched for it if need be. --launch-behind and --front launch and raise a target.\n";

constexpr uint32_t kSeconds = 20; // for an answer

volatile std::sig_atomic_t gEnd = 0;

class EchoHandler : public Convey::MsgHandler {
public:
    explicit EchoHandler(bool quiet) : quiet_(quiet) {}
    int32_t handleMessage(int /*event*/, Convey::Message& message, SoString* result) override {
        if (!quiet_ && !(message.getType() == "Processed")) {
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

// Sends a request; `parameters` null: only to a target that runs.
int ask(Convey& instance, const char* target, const char* body, const SoString* parameters) {
    Convey::Message message;
    message.setTarget(target);
    message.setBody(SoString(body));
    message.setResponseRequest("Result Error");
    message.setTimeout(kSeconds);
    message.setSerialNumber(message.getNextSerialNumber(nullptr));
    delete instance.changeHandler(new ReplyHandler(message.getSerialNumber()));
    const bool answered = instance.send(message, parameters != nullptr, kSeconds, parameters);
    if (!answered) {
        std::printf("no answer\n");
    }
    return answered ? 0 : 1;
}

int answerUntilTheEnd(const Convey& instance) {
    std::printf("running as %s\n", instance.getAppName().c_str());
    const SoString options = Convey::getLaunchOptions();
    if (!options.isEmpty()) {
        std::printf("launched with: %s\n", options.c_str());
    }
    std::fflush(stdout);
    if (Convey::run() < 0) { // else by SIGTERM or SIGINT
        std::fputs("host: cannot wait for messages\n", stderr);
        return 1;
    }
    return 0;
}

int launchBehind(const char* target) {
    const bool launched = Convey::launchTarget(target, "", 1, nullptr) == 1;
    std::printf("%s\n", launched ? "launched" : "not launched");
    std::fflush(stdout);
    // What it was given is still to be handed over, and its window kept behind.
    for (int i = 0; launched && gEnd == 0 && i < 100; ++i) {
        (void)Convey::pumpOrWait(100);
    }
    return launched ? 0 : 1;
}

int run(int argc, char** argv) {
    const char* const what = argc > 2 ? argv[2] : "";
    const auto is = [&](const char* option, int words) {
        return argc == words && std::strcmp(what, option) == 0;
    };
    // One that was launched under another name, as an instance, takes that.
    const SoString name =
        Convey::getLaunchOptions().isEmpty() ? SoString(argv[1]) : Convey::getSharedAppName();
    Convey instance(name.c_str(), new EchoHandler(is("--quiet", 3)), true, nullptr);
    if (!instance.isReachable()) {
        std::fprintf(stderr, "host: no port for %s\n", argv[1]);
        return 1;
    }
    if (is("--ask", 5)) {
        return ask(instance, argv[3], argv[4], nullptr);
    }
    if (is("--launch", 5) || is("--launch", 6)) {
        const SoString parameters(argc == 6 ? argv[5] : "");
        return ask(instance, argv[3], argv[4], &parameters);
    }
    if (is("--launch-behind", 4)) {
        return launchBehind(argv[3]);
    }
    if (is("--front", 4)) {
        return Convey::bringToFront(argv[3], nullptr) ? 0 : 1;
    }
    if (argc == 2 || is("--quiet", 3)) {
        return answerUntilTheEnd(instance);
    }
    std::fputs(kUsage, stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (argc == 2 || std::strcmp(argv[2], "--quiet") == 0) {
        // What asks for the end before `run` waits for it, is to be kept until then.
        sigset_t requests;
        sigemptyset(&requests);
        sigaddset(&requests, SIGTERM);
        sigaddset(&requests, SIGINT);
        sigprocmask(SIG_BLOCK, &requests, nullptr);
    } else {
        std::signal(SIGTERM, [](int) { gEnd = 1; });
        std::signal(SIGINT, [](int) { gEnd = 1; });
    }
    try { // the layer throws nothing; the texts that are made here do, without memory
        if (!Convey::InitTerm::init(argv[1], true)) {
            std::fprintf(stderr, "host: the layer does not start as %s\n", argv[1]);
            return 1;
        }
        const int status = run(argc, argv);
        return Convey::InitTerm::exit() ? status : 1;
    } catch (const std::bad_alloc&) {
        std::fputs("host: no memory\n", stderr);
        return 1;
    }
}
