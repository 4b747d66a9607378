#include <iostream>

#include "caps/tool/Tool.h"
#include "platform/StandardStreams.h"

int main(int argc, char** argv) {
    return platform::StandardStreams::run("ovrel-caps", 1, 1, [&] {
        return caps::tool::run(std::vector<std::string>(argv + 1, argv + argc), std::cin, std::cout,
                               std::cerr);
    });
}
