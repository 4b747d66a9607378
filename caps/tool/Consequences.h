#pragma once

#include <memory>
#include <set>
#include <string>

#include "caps/Reading.h"
#include "caps/Store.h"
#include "caps/tool/Context.h"

namespace caps::tool {

// What a change of the registry leaves behind that a listing ends at, or that a reader ignores, and
// that was not so before. Made in the transaction before the change; `tell` comes behind it, still
// in the transaction.
class Consequences {
public:
    explicit Consequences(Context& context);

    // Tells the person, also whose redirect lost its target. Throws Failure, so that the change is
    // not made, when there is harm and the command line asks to be strict.
    void tell() const;

private:
    Context& context_;
    const Contents before_;
    const Reading reading_;
    std::set<std::string> harm_;
};

} // namespace caps::tool
