// An application that asks another one from within its handler, and answers with what it was told.
// Usage: sweep_relay SPECIFIER TARGET
#include <chrono>
#include <csignal>
#include <cstdio>
#include <new>

#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;

volatile std::sig_atomic_t gEnd = 0;
constexpr std::chrono::seconds kTime{2};

int relay(char** argv) {
    std::signal(SIGTERM, [](int) { gEnd = 1; });
    Convey::Messenger own(argv[1]);
    if (!own.isReachable()) {
        std::fputs("relay: no port\n", stderr);
        return 1;
    }
    own.on(ScObjects::ConveyData::CV_TYPE_PLAIN, [&](const Convey::Message& message,
                                                     Convey::Reply reply) {
        const Convey::Outcome answer = own.request(argv[2], message.getBody()).within(kTime).wait();
        SoString relayed("relayed: ");
        relayed << answer.text();
        (void)(answer.isResult() ? reply.result(relayed) : reply.error(7, relayed));
    });
    std::printf("running as %s\n", argv[1]);
    std::fflush(stdout);
    while (gEnd == 0) {
        (void)Convey::pumpOrWait(100);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return argc == 3 ? relay(argv) : 2;
    } catch (const std::bad_alloc&) { // of the messenger, and the texts that are made here
        std::fputs("relay: no memory\n", stderr);
        return 1;
    }
}
