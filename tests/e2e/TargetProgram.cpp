// An application that tells each request that it gets on its output. Bodies are orders: "hold"
// stays in the handler for ever, "last" answers and ends the process at once, without the layer's
// end; every other is answered. Usage: target_program SPECIFIER
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

bool gLast = false;

void say(const std::string& line) {
    (void)!write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1);
}

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
        gLast = body == "last";
        *result = "answer";
        return 0;
    }
    SoString getMsgType() const override { return "Tessaly"; }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !Convey::InitTerm::init(argv[1], true)) {
        return 1;
    }
    const Convey instance(argv[1], new Handler, true, nullptr);
    say("running");
    while (!gLast) {
        (void)Convey::pumpOrWait(1000);
    }
    _exit(0);
}
