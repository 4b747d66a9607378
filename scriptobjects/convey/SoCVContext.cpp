#include "scriptobjects/convey/SoCVContext.h"

#include <atomic>

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVSpecifier.h"

namespace ScObjects {
namespace {

constinit std::atomic<ConveyContext*> gCurrentContext{nullptr};
constinit std::atomic<uint32_t> gLastSerialNumber{1}; // handed out by any context

} // namespace

ConveyContext::ConveyContext(const SoString& appSpecifier)
    : appSpecifier_(appSpecifier), serialNumber_(gLastSerialNumber.load()) {}

ConveyContext::~ConveyContext() {
    ConveyContext* self = this;
    gCurrentContext.compare_exchange_strong(self, nullptr);
}

ConveyContext* ConveyContext::getCurrentContext() {
    return gCurrentContext.load(std::memory_order_acquire);
}

void ConveyContext::setCurrentContext(ConveyContext* context) {
    ConveyContext* old = gCurrentContext.exchange(context, std::memory_order_acq_rel);
    if (old != context) {
        delete old;
    }
}

ConveyConnector* ConveyContext::getConnector() const {
    return ConveyConnector::get();
}

SoString ConveyContext::getAppSpecifier() const {
    Convey::Specifier own(appSpecifier_.c_str(), !Convey::Specifier::isFixUpUnderWay());
    own.setSuffix(SoString());
    return own;
}

uint32_t ConveyContext::getNextSerialNumber() {
    const ObjectLock guard(*this);
    const uint32_t number = serialNumber_++;
    gLastSerialNumber.store(number);
    return number;
}

} // namespace ScObjects
