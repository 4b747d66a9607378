#pragma once

#include <cstdlib>

#include "tests/support/TemporaryFolder.h"

namespace bench {

// A folder of its own for ports, identifiers and the database, so that a measurement meets nobody
// else's. For the start of `main`: it sets the environment.
class BenchFolder : public TemporaryFolder {
public:
    BenchFolder() {
        setenv("XDG_RUNTIME_DIR", file("").c_str(), 1);
        setenv("HOME", file("").c_str(), 1);
        setenv("OVREL_CAPS_DB", file("caps.db").c_str(), 1);
    }
};

} // namespace bench
