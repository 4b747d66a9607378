// An application that tells each request that it gets on its output. Bodies are orders: "hold"
// stays in the handler for ever, "until FILE" until that is there, "ask TARGET BODY" asks another
// and waits for its answer, "stuck" lets the main loop come by no more, "last" answers and ends the
// process at once, without the layer's end, and so does "last large", with an answer of 1 MiB,
// once that is handed over. "drop" lets go of its reply, "throw" throws, "keep"
// keeps it until "give", which has another thread answer all that are kept; "end" ends the
// application, lets another thread answer what is kept, and tells what came of it. "bounce A B ..."
// asks A to ask B, and so on round the ring, until handlers are as deep as they may be and all
// wait; "flood TARGET" sends until it takes no more, and what waits then; "push TARGET" sends
// without end, and lets nothing wait elsewhere. Every other is answered. Usage: target_program
// SPECIFIER [never], which never pumps
#include <algorithm>
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

constexpr std::chrono::seconds kTime{600}; // longer than a test looks
bool gEnd = false;
bool gLast = false;
bool gStuck = false;

void say(const std::string& line) {
    (void)!write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1);
}

// Whether nothing waits to be sent any more: a large answer goes on its way beside the handler.
bool isAllSent() {
    SoString rows;
    Convey::getDiagnostics(rows, false);
    return rows.view().find("/out;0;Outgoing;0;") != std::string_view::npos;
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
    }
    const size_t first = body.find(' ') + 1;
    const size_t end = std::min(body.find(' ', first), body.size());
    const std::string order = body.substr(0, first);
    const std::string target = body.substr(first, end - first);
    const std::string rest = body.substr(std::min(end + 1, body.size()));
    if (order == "ask " || order == "bounce ") {
        const std::string question = order == "ask " ? rest : order + rest + " " + target;
        (void)own.request(target.c_str(), question.c_str()).within(kTime).wait();
    } else if (order == "flood ") {
        const std::string large(60'000, 'x');
        const auto post = [&] {
            return own.request(target.c_str(), large.c_str()).launch().post();
        };
        while (post()) {
        }
        for (int i = 0; i < 200; ++i) { // at once: they wait behind the first
            (void)post();
        }
    }
    while (order == "push ") {
        (void)own.request(target.c_str(), std::string(60'000, 'x').c_str()).post();
    }
    gEnd = body == "end";
    const bool isLarge = body == "last large";
    gLast = body == "last" || isLarge;
    gStuck = body == "stuck";
    (void)reply.result(isLarge ? std::string(1 << 20, 'a').c_str() : "answer");
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
    while (gLast && !isAllSent()) {
        (void)Convey::pumpOrWait(10);
    }
    if (gEnd) {
        own.reset(); // and the layer with it
        say("too late: " + std::to_string(answerAll(kept)));
    }
    _exit(0);
}
