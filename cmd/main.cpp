#include <new>

#include "cmd/KivraConveyCmd.h"
#include "platform/StandardStreams.h"

int main(int argc, char** argv) {
    using platform::StandardStreams;
    try {
        if (!StandardStreams::open()) {
            return 1;
        }
        const int status = kivraConveyMain(argc, argv);
        return StandardStreams::finish() ? status : 1;
    } catch (const std::bad_alloc&) { // a path without a folder still ends the process abnormally
        return 1;
    }
}
