#include "scriptobjects/stream/BaseInterAppStream.h"

#include <utility>

namespace ScObjects {

BaseInterAppStream::BaseInterAppStream(const SoString& name, bool flag)
    : name_(name), flag_(flag) {}

BaseInterAppStream::~BaseInterAppStream() = default;

bool BaseInterAppStream::isEmpty() const {
    const ObjectLock guard(*this);
    return pending_.isEmpty();
}

SoString BaseInterAppStream::getMessages() {
    const ObjectLock guard(*this);
    // In one step, so that each text goes to one of the threads that ask.
    return std::exchange(pending_, SoString());
}

// What names there are only derived classes know: this one promises none.
bool BaseInterAppStream::canOpen(const SoString& /*name*/, bool /*flag*/) const {
    return false;
}

void BaseInterAppStream::appendPending(SoString&& text) {
    const ObjectLock guard(*this);
    if (pending_.isEmpty()) {
        pending_ = std::move(text); // large texts are not copied
    } else {
        pending_ << text;
    }
}

} // namespace ScObjects
