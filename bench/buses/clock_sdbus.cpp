// clock_sdbus serve | ask TIMES
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sdbus-c++/sdbus-c++.h>
#include <string>

constexpr const char* kName = "org.example.Clock";
constexpr const char* kPath = "/clock";

int main(int argc, char** argv) {
    if (argc == 2) {
        const auto connection = sdbus::createSessionBusConnection(kName);
        const auto clock = sdbus::createObject(*connection, kPath);
        clock->registerMethod("time").onInterface(kName).implementedAs(
            [](const std::string&) { return std::to_string(std::time(nullptr)); });
        clock->finishRegistration();
        std::puts("running");
        std::fflush(stdout);
        connection->enterEventLoop();
        return 0;
    }
    const auto connection = sdbus::createSessionBusConnection();
    const auto clock = sdbus::createProxy(*connection, kName, kPath);
    for (int i = std::atoi(argv[2]); i > 0; --i) {
        std::string answer;
        clock->callMethod("time")
            .onInterface(kName)
            .withArguments(std::string("?"))
            .storeResultsTo(answer);
    }
}
