// What it costs to ask a process for its whole state while many messages wait in it: the time until
// the rows are there, beside writing the same lines bare, and how long its owner is held up
// meanwhile, beside the same when nobody asks. Arguments: rounds.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::SoString;

constexpr const char* kOwner = "kivra-7.0";

void post(Convey& from) {
    Convey::Message message;
    message.setTarget(kOwner);
    message.setHeader("Colour", "red");
    message.setBody(SoString(std::string(200, 'b').c_str()));
    if (!from.send(message, false, 0, nullptr)) {
        fail("send");
    }
}

double secondsForRows(int rounds, SoString& text) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        text.shrink(0);
        const auto start = Time::now();
        Convey::getDiagnostics(text, false);
        times.push_back(secondsSince(start));
    }
    return median(times);
}

double secondsForLines(int rounds, const SoString& text) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto start = Time::now();
        std::string copy;
        for (std::string_view rest = text.view(); !rest.empty();) {
            const size_t line = std::min(rest.find('\n'), rest.size() - 1) + 1;
            copy += rest.substr(0, line);
            rest.remove_prefix(line);
        }
        times.push_back(secondsSince(start));
        if (copy.size() != text.view().size()) {
            fail("lines");
        }
    }
    return median(times);
}

// The longest time that the owner takes for one message that comes in and one that it handles.
double longestTurn(Convey& from, double seconds) {
    double longest = 0;
    for (const auto start = Time::now(); secondsSince(start) < seconds;) {
        const auto turn = Time::now();
        post(from);
        (void)Convey::pump(ScObjects::kProcessIncoming);
        longest = std::max(longest, secondsSince(turn));
    }
    return longest;
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const bench::BenchFolder folder;
    if (!Convey::InitTerm::init("viewer-1.0", true)) {
        fail("init");
    }
    {
        Convey own("viewer-1.0", nullptr, true, nullptr);
        Convey owner(kOwner, nullptr, false, nullptr);
        SoString text;
        std::printf("| messages | the rows | the same lines, written bare | ratio | goal |\n"
                    "|---|---|---|---|---|\n");
        double few = 0;
        int held = 0;
        for (const int count : {1000, 10'000}) {
            for (; held < count; ++held) {
                post(own);
            }
            const double rows = secondsForRows(rounds, text);
            const double bare = secondsForLines(rounds, text);
            std::printf("| %d | %.1f ms | %.1f ms | %.1f | %s |\n", count, 1e3 * rows, 1e3 * bare,
                        rows / bare, count == 1000 ? "" : "< 100 ms");
            if (few != 0) {
                std::printf("| ten times as many | %.1f times as long | | | about 10 |\n",
                            rows / few);
            }
            few = rows;
        }
        const double alone = longestTurn(own, rounds / 4.0);
        std::atomic<bool> ends{false};
        std::thread asker([&] {
            SoString rows;
            while (!ends) {
                rows.shrink(0);
                Convey::getDiagnostics(rows, false);
            }
        });
        const double watched = longestTurn(own, rounds / 4.0);
        ends = true;
        asker.join();
        std::printf(
            "\n| | while somebody asks without a pause | while nobody asks | goal |\n"
            "|---|---|---|---|\n| the owner's longest turn | %.2f ms | %.2f ms | <= 5 ms |\n",
            1e3 * watched, 1e3 * alone);
    }
    (void)Convey::InitTerm::exit();
    return 0;
}
