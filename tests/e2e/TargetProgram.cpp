// An application that tells each request that it gets on its output. Bodies are orders: "hold"
// stays in the handler for ever, "until FILE" until that is there, "ask TARGET BODY" asks another
// and waits for its answer, "stuck" lets the main loop come by no more, "last" answers and ends the
// process at once, without the layer's end. "drop" lets go of its reply, "throw" throws, "keep"
// keeps it until "give", which has another thread answer all that are kept; "end" ends the
// application, lets another thread answer what is kept, and tells what came of it. Every other is
// answered. Usage: target_program SPECIFIER [never], which never pumps
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

constexpr std::chrono::seconds kTime{60}; // longer than a test looks
bool gEnd = false;
bool gLast = false;
bool gStuck = false;

void say(const std::string& line) {
    (void)!write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1);
}

// On a thread of its own; how many were not too late.
int answerAll(std::vector<Convey::Reply>& kept) {
    int given = 0;
    std::thread([&] {
        for (Convey::Reply& reply : kept) {
            given += reply.result("kept answer") ? 1 : 0;
        }
    }).join();
    kept.clear();
    return given;
}

void handle(const Convey::Messenger& own, std::vector<Convey::Reply>& kept,
            const Convey::Message& message, Convey::Reply reply) {
    const std::string body(message.getBody().view());
    if (body == "keep") { // without a word: a test keeps thousands
        kept.push_back(std::move(reply));
        return;
    }
    say("got " + body);
    while (body == "hold") {
        sleep(1);
    }
    while (body.compare(0, 6, "until ") == 0 && access(body.c_str() + 6, F_OK) != 0) {
        usleep(10'000);
    }
    if (body == "drop") {
        return;
    }
    if (body == "throw") {
        throw std::runtime_error("as asked");
    }
    if (body == "give") {
        (void)answerAll(kept);
    } else if (body.compare(0, 4, "ask ") == 0) {
        const size_t end = body.find(' ', 4);
        (void)own.request(body.substr(4, end - 4).c_str(), body.substr(end + 1).c_str())
            .within(kTime)
            .wait();
    }
    gEnd = body == "end";
    gLast = body == "last";
    gStuck = body == "stuck";
    (void)reply.result("answer");
}

} // namespace

int main(int argc, char** argv) {
    const bool never = argc == 3 && std::string(argv[2]) == "never";
    if (argc != 2 && !never) {
        return 1;
    }
    std::vector<Convey::Reply> kept;
    std::optional<Convey::Messenger> own(std::in_place, argv[1]);
    if (!own->isReachable()) {
        return 1;
    }
    own->on(ScObjects::ConveyData::CV_TYPE_PLAIN,
            [&](const Convey::Message& message, Convey::Reply reply) {
                handle(*own, kept, message, std::move(reply));
            });
    say("running");
    if (never) {
        sleep(static_cast<unsigned>(kTime.count()));
    }
    while (!gLast && !gEnd) {
        if (gStuck) {
            sleep(static_cast<unsigned>(kTime.count()));
        }
        (void)Convey::pumpOrWait(1000);
    }
    if (gEnd) {
        own.reset(); // and the layer with it
        say("too late: " + std::to_string(answerAll(kept)));
    }
    _exit(0);
}
