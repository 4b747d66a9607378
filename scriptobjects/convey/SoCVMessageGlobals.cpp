#include "scriptobjects/convey/SoCVMessageGlobals.h"

#include <atomic>

namespace ScObjects::ConveyData {
namespace {

constinit std::atomic<bool> gInitialised{false};

} // namespace

MessageGlobals* MessageGlobals::get() {
    static auto* const globals = new MessageGlobals;
    // Several threads may come here first together: each reads the same registry.
    if (!gInitialised.load(std::memory_order_acquire)) {
        globals->readRegistry();
        gInitialised.store(true, std::memory_order_release);
    }
    return globals;
}

void MessageGlobals::init() {
    (void)get();
}

void MessageGlobals::exit() {
    gInitialised.store(false, std::memory_order_release);
}

void MessageGlobals::setAuthentication(bool on) {
    const ObjectLock guard(*this);
    authentication_ = on;
}

bool MessageGlobals::getAuthentication() const {
    const ObjectLock guard(*this);
    return authentication_;
}

void MessageGlobals::setCreateDigest(bool on) {
    const ObjectLock guard(*this);
    createDigest_ = on;
}

bool MessageGlobals::getCreateDigest() const {
    const ObjectLock guard(*this);
    return createDigest_;
}

} // namespace ScObjects::ConveyData
