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
#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"
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
constexpr const char* kHead = "Target:a\nSender:hog-1.0\n";

std::string repeated(const std::string& part, const std::string& front = "") {
    std::string text = front;
    text.reserve(kBytes);
    while (text.size() + part.size() <= kBytes) {
        text += part;
    }
    return text;
}

std::string emptyMessages() {
    return repeated("Target:a\n\n");
}

std::string manyHeaders() {
    std::string message = kHead;
    for (int i = 0; i < limits::of("message.headers"); ++i) {
        message += std::to_string(i) + ":\n";
    }
    return repeated(message + "\n");
}

std::string manyLines() {
    return repeated("a:\n", kHead);
}

std::string oneHeader() {
    const std::string front = std::string(kHead) + "a:";
    return front + std::string(kBytes - front.size() - 2, 'a') + "\n\n";
}

std::string oneName() {
    return kHead + std::string(kBytes - std::strlen(kHead), 'a');
}

std::string withDigest() {
    Convey::Message message;
    Convey::Message::setCreateDigest(true);
    message.setTarget("a");
    message.setBody(std::string(64'000'000, 'b').c_str());
    SoString text;
    (void)message.writeToString(text);
    return std::string(text.view());
}

std::string lineFeeds() {
    return repeated("\n", std::string(kHead) + "\n");
}

std::string zeroBytes() {
    return repeated(std::string(1, '\0'), std::string(kHead) + "\n");
}

std::string pings() {
    return repeated("Target:a\nSender:b\nType:ping\n\n");
}

std::string longKey() {
    const std::string front = std::string(kHead) + "Type:ping\nECHO_REQUEST:";
    return front + std::string(kBytes - front.size() - 4, 'k') + "=v\n\n";
}

std::string longBody() {
    return std::string(kHead) + "Type:ping\nContent-Length:64000000\n\n" +
           std::string(64'000'000, 'b');
}

std::string manyKeys() {
    std::string text;
    for (int i = 0; text.size() < kBytes - 100'000; ++i) {
        text += std::string(kHead) + "Type:ping\nECHO_REQUEST:" + std::to_string(i) + "=" +
                std::string(static_cast<size_t>(i) % 60'000, 'v') + "\n\n";
    }
    return text;
}

constexpr struct {
    const char* what;
    std::string (*make)();
    bool isForThread;
} kKinds[] = {
    {"empty messages", emptyMessages, false},
    {"messages with 4,096 headers", manyHeaders, false},
    {"one message with a line every three bytes", manyLines, false},
    {"one header", oneHeader, false},
    {"no end of a name", oneName, false},
    {"a body with a digest", withDigest, false},
    {"line feeds", lineFeeds, false},
    {"zero bytes", zeroBytes, false},
    {"tiny pings", pings, true},
    {"a ping with a key of so much", longKey, true},
    {"a ping with a body of so much", longBody, true},
    {"pings that set keys", manyKeys, true},
};

int hog(int kind, const std::string& target) {
    const std::string text = kKinds[kind].make();
    const SoString shared(text.c_str(), static_cast<int32_t>(text.size()));
    const InterAppStream stream("hog-1.0");
    const std::string name = target + (kKinds[kind].isForThread ? "#thread" : "");
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
        process->signal(SIGKILL);
        (void)process->finish();
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
    for (size_t kind = 0; kind < std::size(kKinds); ++kind) {
        const int number = static_cast<int>(kind);
        const Longest ours = longest(argv[0], number, kTarget, seconds);
        const Longest elsewhere = longest(argv[0], number, kOther, seconds);
        std::printf("| %s | %.0f ms | %.0f ms | %.0f ms | <= 100 ms |\n", kKinds[kind].what,
                    ours.wait, ours.busy, elsewhere.wait);
        std::fflush(stdout);
    }
    (void)Convey::InitTerm::exit();
    return 0;
}
