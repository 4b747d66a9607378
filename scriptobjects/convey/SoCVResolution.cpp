#include "scriptobjects/convey/SoCVResolution.h"

namespace ScObjects {
namespace {

// Of the decision that is under way on this thread, null for none. Not handed down as an argument:
// on the way are the connector's virtual functions, whose arguments are given.
constinit thread_local CVFindings* gFindings = nullptr;

} // namespace

CVFindings::CVFindings() {
    // Only the outermost keeps anything: what a step has found is to be there for those after it.
    if (gFindings == nullptr) {
        gFindings = this;
    }
}

CVFindings::~CVFindings() {
    if (gFindings == this) {
        gFindings = nullptr;
    }
}

CVPresence CVFindings::of(const SoString& name) {
    if (gFindings == nullptr) {
        return CVPresence::unknown;
    }
    const auto found = gFindings->found_.find(std::string(name.view()));
    return found == gFindings->found_.end() ? CVPresence::unknown : found->second;
}

void CVFindings::note(const SoString& name, CVPresence presence) {
    if (gFindings != nullptr) {
        gFindings->found_[std::string(name.view())] = presence;
    }
}

CVResolution::CVResolution(const char* text) : specifier_(nullptr, false) {
    // A scope of its own, so that what completing finds is still known below.
    const CVFindings findings;
    specifier_ = Convey::Specifier(text, true);
    presence_ = CVFindings::of(specifier_);
}

CVResolution CVResolution::ofCompleted(const SoString& name) {
    return CVResolution(Convey::Specifier(name.c_str(), false));
}

bool CVResolution::isRunning() {
    if (specifier_.isEmpty()) {
        return false;
    }
    if (presence_ == CVPresence::unknown) {
        const CVFindings findings; // so that it is kept where it was found
        (void)specifier_.isRunning();
        presence_ = CVFindings::of(specifier_);
    }
    return presence_ != CVPresence::absent;
}

CVResolution CVResolution::withoutSuffix() const {
    CVResolution result(specifier_);
    if (specifier_.suffix().isEmpty()) {
        result.presence_ = presence_;
    } else {
        (void)result.specifier_.setSuffix(SoString());
    }
    return result;
}

} // namespace ScObjects
