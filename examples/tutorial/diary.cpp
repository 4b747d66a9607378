// Asks the clock what time it is, and has it launched when it does not run.
#include <chrono>
#include <cstdio>

#include "scriptobjects/convey/SoConvey.h"

using ScObjects::Convey;

int main() {
    Convey::Messenger diary("diary-1.0");
    const Convey::Outcome answer =
        diary.request("clock", "what time is it?").within(std::chrono::seconds(10)).launch().wait();
    if (!answer) {
        std::fprintf(stderr, "the clock does not say: %s\n", answer.text().c_str());
        return 1;
    }
    std::printf("it is %s\n", answer.text().c_str());
    return 0;
}
