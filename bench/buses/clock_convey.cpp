// clock_convey serve | ask TIMES
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "scriptobjects/convey/SoConvey.h"

using ScObjects::Convey;

int main(int argc, char** argv) {
    Convey::Messenger own(argc == 2 ? "clock-1.0" : "diary-1.0");
    if (argc == 2) {
        own.on("time", [](const Convey::Message&) { return std::to_string(std::time(nullptr)); });
        std::puts("running");
        std::fflush(stdout);
        return Convey::run();
    }
    for (int i = std::atoi(argv[2]); i > 0; --i) {
        if (!own.request("clock-1.0", "?").type("time").wait()) {
            return 1;
        }
    }
}
