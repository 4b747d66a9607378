#pragma once

#include <string>

#include "platform/Service.h"

namespace platform {

// The language and region that the user has chosen.
//
// Porting contract: answers from what the process was started with, does not block, never changes
// the process's own locale. Threads: any, as long as nobody changes the environment meanwhile.
class Locale : public Service<Locale> {
public:
    virtual ~Locale() = default;

    // The locale's identifier: language, underscore, region ("de_DE"), without encoding or variant.
    // False, and `out` left alone, when the user has chosen none or it cannot be read in this form.
    [[nodiscard]] virtual bool identifier(std::string& out) const = 0;

    static Locale& own();
};

} // namespace platform
