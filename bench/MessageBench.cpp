// What building and reading the text of a message takes; `counted_bench` counts the instructions.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <iterator>
#include <string>

#include "bench/Requests.h"
#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

void useDigest(bool on) {
    Convey::Message::setCreateDigest(on);
    Convey::Message::setAuthentication(on);
}

void writeMessage(benchmark::State& state) {
    useDigest(state.range(1) != 0);
    const Convey::Message message = bench::request(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        SoString text;
        benchmark::DoNotOptimize(message.writeToString(text));
    }
}

void readMessage(benchmark::State& state) {
    useDigest(state.range(1) != 0);
    SoString text;
    (void)bench::request(static_cast<size_t>(state.range(0))).writeToString(text);
    for (auto _ : state) {
        Convey::Message message;
        benchmark::DoNotOptimize(message.readFromString(text.c_str()));
    }
}

// The worst that a peer can send in one text: what costs its reader most for each byte.
struct WorstText {
    const char* name;
    const char* message; // repeated until the text is full
    const char* header;  // repeated in each message, as often as a reader takes headers
};

constexpr WorstText kWorstTexts[] = {
    {"the shortest headers, all different", "Target:t\nSender:s\n", "%d:\n"},
    {"headers that differ in their last bytes", "Target:t\nSender:s\n",
     "a-long-name-that-all-of-them-begin-with-%d:\n"},
    {"messages of nothing", "T:\n\n", nullptr},
    {"messages with a target and a sender", "Target:t\nSender:s\n\n", nullptr},
    {"bodies that are announced and missing", "Target:t\nSender:s\nContent-Length:0\n\n\n",
     nullptr},
};

SoString worstText(const WorstText& worst, size_t bytes) {
    std::string message = worst.message;
    if (worst.header != nullptr) {
        for (int i = 0; i < Convey::Message::kMaximumReadHeaders; ++i) {
            std::string header = worst.header;
            message += header.replace(header.find("%d"), 2, std::to_string(1'000'000 + i));
        }
        message += '\n';
    }
    std::string text;
    while (text.size() + message.size() <= bytes) {
        text += message;
    }
    return SoString(text);
}

// The whole of a text of 65 MiB: how long one peer can keep a thread that reads it in one go.
void readWorstText(benchmark::State& state) {
    useDigest(false);
    const WorstText& worst = kWorstTexts[state.range(0)];
    const SoString text = worstText(worst, static_cast<size_t>(limits::of("port.text")));
    int64_t messages = 0;
    for (auto _ : state) {
        for (const char* next = text.c_str(); *next != '\0'; ++messages) {
            Convey::Message message;
            next = message.readFromString(next);
        }
    }
    state.SetLabel(worst.name);
    state.SetBytesProcessed(state.iterations() * text.length());
    state.counters["messages"] =
        benchmark::Counter(static_cast<double>(messages), benchmark::Counter::kAvgIterations);
}

BENCHMARK(readWorstText)->DenseRange(0, std::size(kWorstTexts) - 1)->Unit(benchmark::kMillisecond);
BENCHMARK(writeMessage)->ArgNames({"body", "digest"})->ArgsProduct({{64, 4096, 1 << 20}, {0, 1}});
BENCHMARK(readMessage)->ArgNames({"body", "digest"})->ArgsProduct({{64, 4096, 1 << 20}, {0, 1}});

} // namespace

int main(int argc, char** argv) {
    const TemporaryFolder home;
    setenv("HOME", home.file("").c_str(), 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
