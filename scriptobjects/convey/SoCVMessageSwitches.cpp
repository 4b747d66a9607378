// What the registry says of the messages' switches: messages themselves know no registry.
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVMessageGlobals.h"
#include "scriptobjects/convey/SoCVTextSeal.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects::ConveyData {

SoString MessageGlobals::startName() {
    const ConveyConnector* connector = ConveyConnector::get();
    return connector == nullptr ? SoString() : connector->getApplicationSpecifier(-1);
}

void MessageGlobals::readRegistry(const SoString& own) {
    // On for whoever the registry does not know, as for a record that says nothing of them.
    bool authentication = true;
    bool createDigest = true;
    if (const ConveyConnector* connector = ConveyConnector::get()) {
        authentication = connector->getMessageAuthentication(own);
        createDigest = connector->getMessageDigest(own);
    }
    // Only now: the connector has locks of its own, and may read the whole registry.
    const std::lock_guard<std::mutex> guard(mutex_);
    // The host may have set them before the registry was read, or while.
    if (!authenticationIsSet_) {
        authentication_ = authentication;
    }
    TextSeal::setCompared(authentication_);
    if (!createDigestIsSet_) {
        createDigest_ = createDigest;
    }
}

} // namespace ScObjects::ConveyData
