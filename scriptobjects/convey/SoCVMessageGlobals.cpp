#include "scriptobjects/convey/SoCVMessageGlobals.h"

#include <atomic>

#include "scriptobjects/convey/SoCVTextSeal.h"

namespace ScObjects::ConveyData {
namespace {

constinit std::atomic<bool> gInitialised{false};

} // namespace

MessageGlobals* MessageGlobals::object() {
    // Never destroyed: threads outlive main.
    static auto* const globals = new MessageGlobals;
    return globals;
}

MessageGlobals* MessageGlobals::get() {
    MessageGlobals* const globals = object();
    // Several threads may come here first together: each reads the same registry.
    if (!gInitialised.load(std::memory_order_acquire)) {
        // Before the mark: who finds it set goes by what the registry says.
        globals->readRegistry(startName());
        gInitialised.store(true, std::memory_order_release);
    }
    return globals;
}

void MessageGlobals::init() {
    (void)get();
}

void MessageGlobals::exit() {
    MessageGlobals* const globals = object();
    const std::lock_guard<std::mutex> guard(globals->mutex_);
    // What a host has set is for one life of the layer.
    globals->authenticationIsSet_ = globals->createDigestIsSet_ = false;
    gInitialised.store(false, std::memory_order_release);
}

void MessageGlobals::setAuthentication(bool on) {
    const std::lock_guard<std::mutex> guard(mutex_);
    authentication_ = on;
    TextSeal::setCompared(on);
    authenticationIsSet_ = true;
}

bool MessageGlobals::getAuthentication() const {
    return authentication_.load();
}

void MessageGlobals::setCreateDigest(bool on) {
    const std::lock_guard<std::mutex> guard(mutex_);
    createDigest_ = on;
    createDigestIsSet_ = true;
}

bool MessageGlobals::getCreateDigest() const {
    return createDigest_.load();
}

} // namespace ScObjects::ConveyData
