// An application that takes part in messaging and does nothing else. See usage below.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <utility>

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

constexpr std::chrono::seconds kTime{20}; // for an answer

volatile std::sig_atomic_t gEnd = 0;

void answer(bool quiet, const Convey::Message& message, Convey::Reply reply) {
    if (!quiet) {
        std::printf("%s %s: %s\n", message.getSender().c_str(), message.getType().c_str(),
                    message.getBody().c_str());
        std::fflush(stdout);
    }
    if (message.getBody() == "fail") {
        (void)reply.error(7, "failed as asked");
        return;
    }
    SoString echo("echo: ");
    echo << message.getBody();
    (void)reply.result(echo);
}

// Sends a request; `parameters` null: only to a target that runs.
int ask(const Convey::Messenger& own, const char* target, const char* body,
        const SoString* parameters) {
    auto request = own.request(target, body);
    request.within(kTime);
    if (parameters != nullptr) {
        request.launch(*parameters);
    }
    const Convey::Outcome outcome = request.wait();
    switch (outcome.kind()) {
    case Convey::Outcome::kResult:
        std::printf("result: %s\n", outcome.text().c_str());
        return 0;
    case Convey::Outcome::kError:
        std::printf("error: %s\n", outcome.text().c_str());
        return 0;
    default:
        std::printf("no answer\n");
        return 1;
    }
}

int answerUntilTheEnd(const Convey::Messenger& own) {
    std::printf("running as %s\n", own.name().c_str());
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
    Convey::Messenger own(name.c_str());
    own.on(ScObjects::ConveyData::CV_TYPE_PLAIN,
           [quiet = is("--quiet", 3)](const Convey::Message& message, Convey::Reply reply) {
               answer(quiet, message, std::move(reply));
           });
    if (!own.isReachable()) {
        std::fprintf(stderr, "host: no port for %s\n", argv[1]);
        return 1;
    }
    if (is("--ask", 5)) {
        return ask(own, argv[3], argv[4], nullptr);
    }
    if (is("--launch", 5) || is("--launch", 6)) {
        const SoString parameters(argc == 6 ? argv[5] : "");
        return ask(own, argv[3], argv[4], &parameters);
    }
    if (is("--launch-behind", 4)) {
        return launchBehind(argv[3]);
    }
    if (is("--front", 4)) {
        return Convey::bringToFront(argv[3], nullptr) ? 0 : 1;
    }
    if (argc == 2 || is("--quiet", 3)) {
        return answerUntilTheEnd(own);
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
