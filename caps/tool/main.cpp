#include <exception>
#include <iostream>
#include <system_error>

#include "caps/tool/Tool.h"
#include "platform/StandardStreams.h"

int main(int argc, char** argv) {
    using platform::StandardStreams;
    if (!StandardStreams::open()) {
        return 1;
    }
    int status = 1;
    try {
        status = caps::tool::run(std::vector<std::string>(argv + 1, argv + argc), std::cin,
                                 std::cout, std::cerr);
    } catch (const std::exception& error) {
        std::cerr << "ovrel-caps: " << error.what() << '\n';
    }
    // A reader that has gone (`| head -1`) has what it wants, and the answer stays what it is.
    if (!StandardStreams::finish() && !StandardStreams::readerHasGone()) {
        std::cerr << "ovrel-caps: the output cannot be written: "
                  << std::generic_category().message(StandardStreams::failure()) << '\n';
        return 1;
    }
    return status;
}
