// An application that tells each request that it gets on its output. Bodies are orders: "hold"
// stays in the handler for ever, "ask TARGET BODY" asks another and waits for its answer, "stuck"
// lets the main loop come by no more, "last" answers and ends the process at once, without the
// layer's end; every other is answered. Usage: target_program SPECIFIER [never], which never pumps
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

constexpr uint32_t kSeconds = 60; // longer than a test looks
bool gLast = false;
bool gStuck = false;

void say(const std::string& line) {
    (void)!write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1);
}

// What an answer is waited for by.
class AnswerHandler : public Convey::MsgHandler {
public:
    explicit AnswerHandler(uint32_t number) : number_(number) {}
    int32_t handleMessage(int, Convey::Message&, SoString*) override { return 0; }
    SoString getMsgType() const override { return "Result"; }
    uint32_t getSerialNumber() const override { return number_; }

private:
    const uint32_t number_;
};

class Handler : public Convey::MsgHandler {
public:
    int32_t handleMessage(int event, Convey::Message& message, SoString* result) override {
        constexpr int kRequest = 1;
        if (event != kRequest) {
            return 0;
        }
        const std::string body(message.getBody().view());
        say("got " + body);
        while (body == "hold") {
            sleep(1);
        }
        if (body.compare(0, 4, "ask ") == 0) {
            const size_t end = body.find(' ', 4);
            Convey::Message question;
            question.setTarget(body.substr(4, end - 4).c_str());
            question.setBody(body.substr(end + 1).c_str());
            question.setResponseRequest("Result");
            question.setSerialNumber(question.getNextSerialNumber(nullptr));
            delete Convey::get()->changeHandler(new AnswerHandler(question.getSerialNumber()));
            (void)Convey::get()->send(question, false, kSeconds, nullptr);
        }
        gLast = body == "last";
        gStuck = body == "stuck";
        *result = "answer";
        return 0;
    }
    SoString getMsgType() const override { return "Tessaly"; }
};

} // namespace

int main(int argc, char** argv) {
    const bool never = argc == 3 && std::string(argv[2]) == "never";
    if ((argc != 2 && !never) || !Convey::InitTerm::init(argv[1], true)) {
        return 1;
    }
    const Convey instance(argv[1], new Handler, true, nullptr);
    say("running");
    if (never) {
        sleep(kSeconds);
    }
    while (!gLast) {
        if (gStuck) {
            sleep(kSeconds);
        }
        (void)Convey::pumpOrWait(1000);
    }
    _exit(0);
}
