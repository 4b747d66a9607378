// What launch_bench launches. Says on $BENCH_REPORT when the message has reached it, by the layer
// or, with an argument, over a bare socket of that name, and ends.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "scriptobjects/convey/SoConvey.h"

namespace {

using ScObjects::Convey;

bool gReported = false;

void report() {
    const int64_t now = std::chrono::steady_clock::now().time_since_epoch().count();
    const int fifo = open(std::getenv("BENCH_REPORT"), O_WRONLY);
    gReported = write(fifo, &now, sizeof now) == sizeof now;
}

int connectBare(const char* name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    char byte = 0;
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        recv(socket, &byte, 1, 0) != 1) {
        return 1;
    }
    report();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return connectBare(argv[1]);
    }
    Convey::Messenger target("target-1.0");
    target.on(ScObjects::ConveyData::CV_TYPE_PLAIN, [](const Convey::Message& message) {
        if (message.getBody() == "measured") {
            report();
        }
        return std::string();
    });
    while (!gReported) {
        (void)Convey::pumpOrWait(100);
    }
}
