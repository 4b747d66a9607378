// What the worst texts of a neighbour cost everybody else: the longest time that a host leaves a
// ping without an answer while texts of 65 MiB come to it, beside the same while they go to another
// host on the machine. Arguments: rounds, of a second each; `hog` KIND TARGET is its own neighbour.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/HeavyTexts.h"
#include "scriptobjects/convey/SoConvey.h"
#include "scriptobjects/stream/InterAppStream.h"
#include "tests/support/Process.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;

constexpr size_t kBytes = size_t{65} << 20;
constexpr const char* kTarget = "lumen-2.0";
constexpr const char* kOther = "kivra-7.0";

int hog(int kind, const std::string& target) {
    const std::string text = kHeavyTexts[kind].make(kBytes);
    const SoString shared(text.c_str(), static_cast<int32_t>(text.size()));
    const InterAppStream stream("hog-1.0");
    const std::string name = target + (kHeavyTexts[kind].isForThread ? "#thread" : "");
    std::puts("ready");
    (void)std::fflush(stdout);
    for (;;) {
        if (!stream.send(name.c_str(), shared, 10'000)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

// Milliseconds without an answer of the target, at the longest, while a hog sends to this host; and
// the longest that the answering thread itself was busy meanwhile, which is less where processors
// are short.
struct Longest {
    double wait = 0;
    double busy = 0;
};

Longest longest(const char* self, int kind, const char* to, int seconds) {
    RunningProcess target({HOST, kTarget, "--quiet"});
    RunningProcess other({HOST, kOther, "--quiet"});
    (void)target.readLine();
    (void)other.readLine();
    RunningProcess neighbour({self, "hog", std::to_string(kind), to});
    (void)neighbour.readLine();
    Longest result;
    for (const auto start = Time::now(); secondsSince(start) < seconds;) {
        const double before = millisecondsBehindMain(target.pid());
        const auto asked = Time::now();
        if (!(Convey::Thread::ping(kTarget, nullptr, 60, nullptr) == "ECHO_RESPONSE")) {
            fail("ping");
        }
        result.wait = std::max(result.wait, 1e3 * secondsSince(asked));
        result.busy = std::max(result.busy, millisecondsBehindMain(target.pid()) - before);
    }
    for (RunningProcess* process : {&neighbour, &target, &other}) {
        (void)process->finish(SIGKILL);
    }
    return result;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "hog") == 0) {
        return hog(std::atoi(argv[2]), argv[3]);
    }
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const bench::BenchFolder folder;
    if (!Convey::InitTerm::init("viewer-1.0", true)) {
        fail("init");
    }
    std::printf(
        "| the text | longest without an answer | of it busy | when it goes to another host "
        "| goal |\n|---|---|---|---|---|\n");
    for (size_t kind = 0; kind < std::size(kHeavyTexts); ++kind) {
        const int number = static_cast<int>(kind);
        const Longest ours = longest(argv[0], number, kTarget, seconds);
        const Longest elsewhere = longest(argv[0], number, kOther, seconds);
        std::printf("| %s | %.0f ms | %.0f ms | %.0f ms | <= 100 ms |\n", kHeavyTexts[kind].what,
                    ours.wait, ours.busy, elsewhere.wait);
        std::fflush(stdout);
    }
    (void)Convey::InitTerm::exit();
    return 0;
}
