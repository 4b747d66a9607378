#include "scriptobjects/convey/SoConvey.h"

#include <new>

#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoThread.h"

namespace ScObjects {
namespace {

// The words of a ping's answer that the registry alone can give.
constexpr const char* kInvalidSpecifier = "INVALIDSPEC";
constexpr const char* kUndefined = "UNDEFINED";
constexpr const char* kIsNotInstalled = "ISNOTINSTALLED";
constexpr const char* kIsNotRunning = "ISNOTRUNNING";

// Loads the registry before anybody waits for it and makes the shared context.
bool runSetup(const SoString& appSpecifier) {
    (void)Convey::getNumberOfRegisteredApplications();
    const Convey::Specifier specifier(appSpecifier.c_str(), true);
    if (specifier.isEmpty()) {
        return false;
    }
    ConveyContext::setCurrentContext(new ConveyContext(specifier));
    return true;
}

void shutDown() {
    ScObjects::Thread::InitTerm::exit();
    ConveyConnector::InitTerm::exit();
    ConveyUtils::exit();
}

// The value of `query`, or `neutral` when memory ran out: nothing is thrown at the host.
template <class Value, class Query>
Value guarded(Value neutral, Query&& query) noexcept {
    try {
        return query();
    } catch (const std::bad_alloc&) {
        return neutral;
    }
}

// What `query` gives of the process-wide connector, or `neutral`.
template <class Value, class Query>
Value askConnector(Value neutral, Query&& query) noexcept {
    ConveyConnector* connector = ConveyConnector::get();
    if (connector == nullptr) {
        return neutral;
    }
    return guarded(std::move(neutral), [&] { return Value(query(*connector)); });
}

} // namespace

bool Convey::InitTerm::init(const SoString& appSpecifier, bool /*synchronous*/) {
    if (ConveyContext::getCurrentContext() != nullptr) {
        return false;
    }
    return guarded(false, [&] {
        ConveyUtils::init();
        ConveyConnector::InitTerm::init(appSpecifier);
        ScObjects::Thread::InitTerm::init();
        if (runSetup(appSpecifier)) {
            return true;
        }
        shutDown();
        return false;
    });
}

bool Convey::InitTerm::exit() {
    if (ConveyContext::getCurrentContext() == nullptr) {
        return false;
    }
    ConveyContext::setCurrentContext(nullptr);
    shutDown();
    return true;
}

SoString Convey::Thread::ping(const char* target, const char* /*key*/, int32_t /*timeoutSeconds*/,
                              const SoString* /*parameters*/) {
    const ConveyContext* context = ConveyContext::getCurrentContext();
    if (context == nullptr) {
        return SoString();
    }
    return guarded(SoString(), [&] {
        Specifier specifier(target, true);
        specifier.setSuffix(SoString());
        if (specifier.isEmpty()) {
            return SoString(kInvalidSpecifier);
        }
        if (specifier == context->getAppSpecifier()) {
            return SoString(kUndefined);
        }
        return SoString(specifier.isInstalled() ? kIsNotRunning : kIsNotInstalled);
    });
}

ConveyContext* Convey::getSharedContext() {
    return ConveyContext::getCurrentContext();
}

int32_t Convey::getNumberOfRegisteredApplications() {
    return askConnector<int32_t>(
        0, [](const ConveyConnector& c) { return c.getNumberOfRegisteredApplications(); });
}

SoString Convey::getApplicationSpecifier(int32_t index) {
    return askConnector(
        SoString(), [index](const ConveyConnector& c) { return c.getApplicationSpecifier(index); });
}

SoString Convey::getDisplayName(const SoString& appName, const SoString& version,
                                const SoString& locale) {
    return askConnector(SoString(), [&](const ConveyConnector& c) {
        return c.getDisplayName(appName, version, locale);
    });
}

SoString Convey::getSharedAppName() {
    const ConveyContext* context = ConveyContext::getCurrentContext();
    return context == nullptr
               ? SoString()
               : guarded(SoString(), [context] { return context->getAppSpecifier(); });
}

bool Convey::updateConnectorCache(bool force) {
    return askConnector(false, [force](ConveyConnector& c) { return c.updateCache(force); });
}

void Convey::setCapsFolder(const SoString& folder) {
    PCDConnector::setCapsFolder(folder);
}

SoString Convey::getCapsFolder() {
    return PCDConnector::getCapsFolder();
}

} // namespace ScObjects
