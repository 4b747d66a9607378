// Every test program runs with a home and a port folder of its own, never the user's.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/support/TemporaryFolder.h"

int main(int argc, char** argv) {
    const TemporaryFolder folder;
    for (const auto& [variable, name] : {std::pair("HOME", "home"), {"XDG_RUNTIME_DIR", "run"}}) {
        if (mkdir(folder.file(name).c_str(), 0700) != 0) {
            return 1;
        }
        setenv(variable, folder.file(name).c_str(), 1);
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
