// What a main loop of somebody else's adds to a message: the same request to a process that sits in
// pumpOrWait, in `run`, and in a GLib loop. Arguments: rounds.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "adapters/ConveyGLib.h"
#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/Handlers.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::SoString;

constexpr int kRequests = 500;

struct Loop {
    const char* name;
    std::function<void()> serve;
};

const Loop kLoops[] = {
    {"target-1.0",
     [] {
         for (;;) {
             (void)Convey::pumpOrWait(1000);
         }
     }},
    {"target-2.0", [] { (void)Convey::run(); }},
    {"target-3.0",
     [] {
         if (ScObjects::ConveyGLib::attach() == 0) {
             fail("attach");
         }
         g_main_loop_run(g_main_loop_new(nullptr, FALSE));
     }},
};

// Microseconds for a request and its result, the middle of many.
double roundTrip(Convey& asker, const char* target) {
    std::vector<double> times;
    for (int i = 0; i < kRequests; ++i) {
        Convey::Message message;
        message.setTarget(target);
        message.setBody("question");
        message.setResponseRequest("Result");
        message.setSerialNumber(message.getNextSerialNumber(nullptr));
        delete asker.changeHandler(new Answering("Result", message.getSerialNumber()));
        const auto start = Time::now();
        if (!asker.send(message, false, 20, nullptr)) {
            fail("no result");
        }
        times.push_back(1e6 * secondsSince(start));
    }
    return median(times);
}

} // namespace

int main(int argc, char** argv) {
    const bench::BenchFolder folder;
    std::vector<pid_t> targets;
    for (const Loop& loop : kLoops) {
        targets.push_back(fork());
        if (targets.back() == 0) {
            if (!Convey::InitTerm::init(loop.name, true)) {
                fail("init");
            }
            const Convey instance(loop.name, new Answering("Tessaly", 0xFFFFFFFF), true, nullptr);
            loop.serve();
        }
    }
    if (!Convey::InitTerm::init("asker-1.0", true)) {
        fail("init");
    }
    Convey asker("asker-1.0", nullptr, true, nullptr);
    std::vector<double> times[std::size(kLoops)];
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    for (int i = 0; i < rounds; ++i) {
        for (size_t loop = 0; loop < std::size(kLoops); ++loop) {
            while (!Convey::targetIsRunning(kLoops[loop].name)) {
                usleep(1000);
            }
            times[loop].push_back(roundTrip(asker, kLoops[loop].name));
        }
    }
    const double pumped = median(times[0]);
    std::printf(
        "| request and result, the target in | us | of pumpOrWait | goal |\n"
        "|---|---|---|---|\n"
        "| pumpOrWait | %.1f | | |\n| run | %.1f | %.2f | |\n| GLib | %.1f | %.2f | <= 1.3 |\n",
        pumped, median(times[1]), median(times[1]) / pumped, median(times[2]),
        median(times[2]) / pumped);
    for (const pid_t target : targets) {
        kill(target, SIGKILL);
        waitpid(target, nullptr, 0);
    }
    return Convey::InitTerm::exit() ? 0 : 1;
}
