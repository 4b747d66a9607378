#include <exception>
#include <iostream>

#include "caps/tool/Tool.h"

int main(int argc, char** argv) {
    try {
        const int status = caps::tool::run(std::vector<std::string>(argv + 1, argv + argc),
                                           std::cin, std::cout, std::cerr);
        if (!std::cout.flush()) { // a full disk, or a reader that has gone
            std::cerr << "ovrel-caps: the output cannot be written\n";
            return 1;
        }
        return status;
    } catch (const std::exception& error) {
        std::cerr << "ovrel-caps: " << error.what() << '\n';
        return 1;
    }
}
