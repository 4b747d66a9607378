#include "scriptobjects/convey/SoCVSpecifier.h"

namespace ScObjects {

Convey::Specifier::Specifier(const char* text, bool fixUpToo) {
    if (text == nullptr) {
        return;
    }
    const size_t bytes = std::string_view(text).size();
    // Not cut to what is allowed: that would be the name of somebody else.
    if (bytes > kMaximumBytes) {
        return;
    }
    // Lower case is the one spelling of a name: ports and registrations are compared by bytes.
    assign(text, static_cast<int32_t>(bytes));
    if (fixUpToo) {
        fixUp(true);
    } else {
        makeLowercase();
    }
}

SoString Convey::Specifier::appName() const {
    return SoString(CVSpecifierParts::of(view()).appName);
}

SoString Convey::Specifier::instance() const {
    return SoString(CVSpecifierParts::of(view()).instance);
}

SoString Convey::Specifier::version() const {
    return SoString(CVSpecifierParts::of(view()).version);
}

SoString Convey::Specifier::locale() const {
    return SoString(CVSpecifierParts::of(view()).locale);
}

SoString Convey::Specifier::suffix() const {
    return SoString(CVSpecifierParts::of(view()).suffix);
}

// `parts` may be views into this text, so the new one is built beside it.
void Convey::Specifier::assignParts(const CVSpecifierParts& parts) {
    assign(parts.text().view());
}

bool Convey::Specifier::setSuffix(const SoString& suffix) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.suffix = suffix.view();
    assignParts(parts);
    return true;
}

bool Convey::Specifier::setInstance(const SoString& instance) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.instance = instance.view();
    assignParts(parts);
    return true;
}

bool Convey::Specifier::setAppName(const SoString& appName) {
    CVSpecifierParts parts = CVSpecifierParts::of(view());
    parts.appName = appName.view();
    assignParts(parts);
    return true;
}

void Convey::Specifier::replaceBy(const SoString& text, const SoString& instance,
                                  const SoString& suffix) {
    assign(text.view());
    // What was asked for stays: both say which endpoint of the application is meant.
    if (!suffix.isEmpty()) {
        setSuffix(suffix);
    }
    if (!instance.isEmpty()) {
        setInstance(instance);
    }
}

} // namespace ScObjects
