// Tells the time to whoever asks, until SIGTERM or Ctrl-C.
#include <ctime>
#include <string>

#include "scriptobjects/convey/SoConvey.h"

using ScObjects::Convey;

int main() {
    Convey::Messenger clock("clock-1.0"); // starts the layer
    clock.on(ScObjects::ConveyData::CV_TYPE_PLAIN,
             [](const Convey::Message&) { return std::to_string(std::time(nullptr)); });
    return clock.isReachable() && Convey::run() >= 0 ? 0 : 1;
}
