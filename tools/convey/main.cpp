#include <exception>
#include <iostream>
#include <system_error>

#include "platform/StandardStreams.h"
#include "tools/convey/Output.h"
#include "tools/convey/Session.h"
#include "tools/convey/Tool.h"

int main(int argc, char** argv) {
    using platform::StandardStreams;
    if (!StandardStreams::open()) {
        return convey_tool::kNoLayer;
    }
    int status = convey_tool::kNoLayer;
    try {
        status = conveyToolMain(argc, argv);
    } catch (const std::exception& error) { // without the memory to say it nicely
        std::cerr << "convey: " << error.what() << std::endl;
    }
    // A reader that has gone (`| head -1`) has what it wants, and the answer stays what it is.
    if (!StandardStreams::finish() && !StandardStreams::readerHasGone()) {
        std::cerr << "convey: the output cannot be written: "
                  << std::generic_category().message(StandardStreams::failure()) << std::endl;
        status = convey_tool::kNoLayer;
    }
    convey_tool::Ending::finish(status);
}
