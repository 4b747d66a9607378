#pragma once

#include <string_view>

#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

// A specifier taken apart: `appname[_instance][-version][-locale][#suffix]`. The application name
// ends at the first of '-', '_' and '#'; an '_' behind the first '-' belongs to the locale; the
// first '-' field is the version when it begins with a digit, else the locale; the suffix is all
// behind the first '#'.
//
// A value: views into a text that its user keeps, empty where the part is missing. This is all that
// the registry and the streams know of specifiers; what a specifier may be completed to is
// `Convey::Specifier`'s business. Threads: any.
struct SO_EXPORT CVSpecifierParts {
    std::string_view appName;
    std::string_view instance;
    std::string_view version; // begins with a digit when there is one
    std::string_view locale;  // also holds a group: the field that is no version
    std::string_view suffix;

    // Splits any text; upper case stays what it is.
    static CVSpecifierParts of(std::string_view text);

    // The canonical text: the parts that there are, in their order. Names of ports and queues are
    // compared byte for byte, so nothing else may put one together. Throws std::bad_alloc only.
    SoString text() const;
    // The same with another suffix, or none: the name of another endpoint of the application.
    SoString textWithSuffix(std::string_view suffix) const;
    // The same without instance and suffix: the name that all processes of the application share,
    // at which a launched one finds its parameters.
    SoString applicationText() const;
};

} // namespace ScObjects
