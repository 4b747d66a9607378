// What building and reading the text of a message costs. Run under callgrind with one iteration for
// instructions, which repeat to the last digit where times do not:
//   valgrind --tool=callgrind --toggle-collect='*writeToString*' message_bench once
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

// Ten lines of headers, as a request of an application has, and a body.
Convey::Message request(size_t bodyBytes) {
    Convey::Message message;
    message.setTarget("kivra-7.0-en_us");
    message.setSender("lumen_2-7.0-en_us");
    message.setType("query");
    message.setResponseRequest("Received Result Error");
    message.setTimeout(60);
    message.setSerialNumber(4711);
    message.setHeader("Document", "/home/user/Documents/report.txt");
    message.setHeader("Page", 12L);
    const std::string body(bodyBytes, 'b');
    message.setBody(SoString(body));
    return message;
}

void useDigest(bool on) {
    Convey::Message::setCreateDigest(on);
    Convey::Message::setAuthentication(on);
}

void writeMessage(benchmark::State& state) {
    useDigest(state.range(1) != 0);
    const Convey::Message message = request(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        SoString text;
        benchmark::DoNotOptimize(message.writeToString(text));
    }
}

void readMessage(benchmark::State& state) {
    useDigest(state.range(1) != 0);
    SoString text;
    (void)request(static_cast<size_t>(state.range(0))).writeToString(text);
    for (auto _ : state) {
        Convey::Message message;
        benchmark::DoNotOptimize(message.readFromString(text.c_str()));
    }
}

BENCHMARK(writeMessage)->ArgNames({"body", "digest"})->ArgsProduct({{64, 4096, 1 << 20}, {0, 1}});
BENCHMARK(readMessage)->ArgNames({"body", "digest"})->ArgsProduct({{64, 4096, 1 << 20}, {0, 1}});

} // namespace

int main(int argc, char** argv) {
    const TemporaryFolder home;
    setenv("HOME", home.file("").c_str(), 1);
    if (argc > 1 && std::strcmp(argv[1], "once") == 0) {
        useDigest(false);
        const Convey::Message message = request(64);
        SoString warm;
        (void)message.writeToString(warm);
        SoString text;
        (void)message.writeToString(text);
        Convey::Message read;
        (void)read.readFromString(text.c_str());
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
